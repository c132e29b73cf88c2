// The one state record of the MCU link, and its way to the DSP service.
#pragma once
#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

#include "core/clock.h"
#include "core/dsp_queue.h"

// Bits of applied_mask: settings applied since the last audio report.
inline constexpr uint8_t APPLIED_BM = 0x01;
inline constexpr uint8_t APPLIED_ATMOS = 0x02;
inline constexpr uint8_t APPLIED_VOL = 0x04;
inline constexpr uint8_t APPLIED_DELAY = 0x08;
inline constexpr uint8_t APPLIED_SYSTEM = 0x10;
inline constexpr uint8_t APPLIED_MIX = 0x20;

struct mcu_state_t {
    // DSP service
    int dsp_queue_id;
    pthread_mutex_t dsp_lock;
    dsp_message dsp_msg;

    // workers
    pthread_t audio_poll_thread;
    pthread_t audio_pipe_thread;
    pthread_t music_monitor_thread;
    int pipe_fd;
    sem_t audio_poll_sem;
    sem_t music_monitor_sem;
    pthread_mutex_t music_lock;

    // Set by handlers on the main thread, read and cleared by any reporting
    // thread: atomic so that a bit set between the read and the clear stays.
    std::atomic<uint8_t> applied_mask;
    std::atomic<uint8_t> audio_format;  // written by audio_pipe_thread only
    int current_source;
    int audio_poll_on;

    // music and tones
    std::atomic<int> music_state;
    int music_playing;
    int saved_source;
    int chmap_set;
    int tone_gain;
    char music_path[32];

    // recording
    std::atomic<int> record_state;
    std::atomic<time_t> record_start_time;  // monotonic_seconds; read by audio_pipe_thread
    std::atomic<uint8_t> file_status;  // read by audio_pipe_thread
    std::atomic<uint8_t> dialog_changed;
    std::atomic<uint8_t> dialog_active;
    std::atomic<int> last_dialog_value{-1};  // the first value seen is a change

    // input source, mix mode and I2S word
    int source_seen;
    std::atomic<uint8_t> mix_mode;  // read by audio_pipe_thread
    int mix_seen;
    int last_mix;
    int dec_upmix_seen;
    uint8_t last_dec_out;
    uint8_t last_upmix;
    int i2s_seen;
    uint8_t last_i2s_word;

    // system control word
    int hbr_seen;
    int last_hbr;
    int master_vol_seen;
    int last_master_vol;
    int mute_seen;
    int last_mute;
    uint8_t last_system_flags;
    // The mode word has two writers (main thread, audio_pipe_thread):
    // mode_lock makes test, send and store one step.
    pthread_mutex_t mode_lock;
    int mode_seen;
    uint8_t mode_cache[16];

    // channel volume, delay, bass management
    int vol_seen;
    uint8_t last_vol[12];
    int delay_seen;
    uint8_t last_delay[12];
    int bm_seen;
    uint8_t last_bm[16];

    // object audio and DTS:X
    int atmos_seen;
    uint8_t last_atmos[11];
    int dtsx_seen;
    uint8_t last_dtsx[3];
};

extern mcu_state_t mcu_state;

// Result callback of dsp_cmd: reply text and its strlen.
using dsp_reply_fn = int (*)(const char* text, size_t len);

// One exchange with the DSP service under dsp_lock, then the exchange lock
// between processes (dsp_exchange). Any thread; never from a callback. Returns the callback's result, 0 without one, -1 on a queue failure.
int dsp_cmd(dsp_reply_fn cb, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

int dsp_reply_ok(const char* text, size_t len);
int dsp_reply_int(const char* text, size_t len);
// Copies the reply into the calling thread's dsp_reply, so that a caller
// parses its own reply whole although dsp_lock ends with the call.
int dsp_reply_copy(const char* text, size_t len);
extern thread_local char dsp_reply[DSP_TEXT_MAX];

int mcu_init();
int mcu_exit();
int mcu_start_workers(int pipe_fd);

// if_send of an mcu_out_frame. A worker thread's frame is written under the
// port exclusion and dropped (-1) once the firmware upload has the port.
long mcu_if_send(uintptr_t frame);
// The firmware upload takes the port: no worker frame is written from here
// on, and the workers that were created are cancelled, not joined.
void mcu_workers_leave_port();

// Worker threads run with cancellation disabled and open it only where they
// hold no lock and no token; these bracket such a point.
void cancel_point_open();
void cancel_point_close();
