// Recording into /sdk/recorded and moving the wav files through music_file.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "media/media.h"

namespace {

constexpr const char* RECORD_DIR = "/sdk/recorded";
constexpr const char* INDEX_PREFIX = "index_";
constexpr size_t INDEX_PREFIX_LEN = 6;

constexpr int REC_RECORDING = 1;
constexpr int REC_STOPPED = 3;

enum record_command : uint8_t {
    RECORD_START = 1,
    RECORD_STOP = 2,
    RECORD_EXPORT = 3,
    RECORD_IMPORT = 4,
    RECORD_REPORT = 32,
};

// One direction of the file move: its file_status bits and its words.
struct file_move {
    const char* command;
    uint8_t busy_bit;
    uint8_t failed_bit;
    const char* failed_text;
    const char* done_text;
};
constexpr file_move export_move = {"/sdk/bin/music_file export", 0x04, 0x08,
                                   "[MCU IF] exporting .wav files failed",
                                   "[MCU IF] exporting .wav files succeed"};
constexpr file_move import_move = {"/sdk/bin/music_file import", 0x01, 0x02,
                                   "[MCU IF] importing .wav files failed",
                                   "[MCU IF] importing .wav files succeed"};

int start_recording()
{
    DIR* dir = opendir(RECORD_DIR);
    if (!dir) {
        puts("[MCU IF] can not open dir /sdk/recorded");
        return -1;
    }
    int index = scan_next_index(dir);
    snprintf(mcu_state.music_path, sizeof mcu_state.music_path, "/sdk/recorded/index_%02d.wav", index);
    dsp_cmd(nullptr, "dsp rec mode 1 %s\n", mcu_state.music_path);
    auto waited = dsp_wait_state("dsp rec state\n", REC_RECORDING, &mcu_state.record_state);
    if (waited) {
        mcu_state.record_start_time = monotonic_seconds();
        if (*waited <= 1) {
            puts("[MCU IF] start recording...");
            return 0;
        }
    }
    printf("[MCU IF] failed to start record mode: %d\n", mcu_state.record_state.load());
    return 0;
}

int stop_recording()
{
    if (mcu_state.record_state != REC_RECORDING) {
        puts("[MCU IF] not recording ");
        return 0;
    }
    dsp_cmd(nullptr, "dsp rec mode 0\n");
    auto waited = dsp_wait_state("dsp rec state\n", REC_STOPPED, &mcu_state.record_state);
    if (waited && *waited <= 1) {
        puts("[MCU IF] stop recording...");
        return 0;
    }
    printf("[MCU IF] failed to stop record mode: %d\n", mcu_state.record_state.load());
    return 0;
}

int move_files(const file_move& m)
{
    // The busy bit shows only in the frame sent before the tool runs.
    mcu_state.file_status |= m.busy_bit;
    send_record_state();
    mcu_state.file_status &= static_cast<uint8_t>(~m.busy_bit);

    int status = system(m.command);
    // A tool killed by a signal leaves the exit status 0 and counts as done.
    if (status == -1 || ((status >> 8) & 0xFF) != 0) {
        puts(m.failed_text);
        mcu_state.file_status |= m.failed_bit;
    } else {
        puts(m.done_text);
        mcu_state.file_status &= static_cast<uint8_t>(~m.failed_bit);
    }
    send_record_state();
    return 0;
}

}  // namespace

int scan_next_index(DIR* dir)
{
    int highest = 0;
    while (const dirent* e = readdir(dir)) {
        if (strncmp(e->d_name, INDEX_PREFIX, INDEX_PREFIX_LEN) != 0) continue;
        const char* digits = e->d_name + INDEX_PREFIX_LEN;
        char* end = nullptr;
        errno = 0;
        long n = strtol(digits, &end, 10);
        if (end == digits) continue;  // no number: the name counts for nothing
        // Numbers beyond int are held at its bounds rather than wrapped.
        if (n > INT_MAX) n = INT_MAX;
        if (n < INT_MIN) n = INT_MIN;
        if (n > highest) highest = static_cast<int>(n);
    }
    closedir(dir);
    return (highest & 63) + 1;
}

std::optional<long> dsp_wait_state(const char* query, int wanted, std::atomic<int>* store)
{
    time_t t0 = monotonic_seconds();
    for (;;) {
        time_t t = monotonic_seconds();
        int state = dsp_cmd(dsp_reply_int, "%s", query);
        if (store) *store = state;
        if (state == wanted) return static_cast<long>(t - t0);
        usleep(1000);
        if (t - t0 > 1) return std::nullopt;
    }
}

int handler_record_control(const uint8_t* p, uint8_t)
{
    switch (p[0]) {
    case RECORD_START:
        return start_recording();
    case RECORD_STOP:
        return stop_recording();
    case RECORD_EXPORT:
        return move_files(export_move);
    case RECORD_IMPORT:
        return move_files(import_move);
    case RECORD_REPORT:
        send_record_state();
        return 0;
    default:
        puts("[MCU IF] unknown record music control command");
        return 0;
    }
}
