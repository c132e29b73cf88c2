// Tone and music playback, and the monitor that sees music end.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <semaphore.h>
#include <unistd.h>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "media/media.h"

namespace {

constexpr uint8_t PLAY_FLAG = 0x40;
constexpr uint8_t CHMAP_FLAG = 0x20;
constexpr uint8_t TONE_FLAG = 0x10;
constexpr unsigned TONE_DEFAULT_CHMAP = 3;

// Mask bit -> value bit of the chmap commands; bit 7 and 13..15 are dropped.
struct chmap_bit {
    uint8_t mask_bit;
    unsigned value;
};
constexpr chmap_bit chmap_bits[] = {
    {0, 0x001}, {1, 0x002}, {2, 0x010}, {3, 0x020}, {4, 0x004},  {5, 0x008},
    {6, 0x040}, {8, 0x080}, {9, 0x100}, {10, 0x200}, {11, 0x400}, {12, 0x800},
};

void sem_take(sem_t* s)
{
    while (sem_wait(s) != 0 && errno == EINTR) {
    }
}

void play_failed()
{
    printf("[MCU IF] failed to play %s\n", mcu_state.music_path);
    make_audio_report();
}

void play_tone(uint8_t index, unsigned chmap, uint8_t gain)
{
    if (dsp_cmd(dsp_reply_int, "dsp alter state\n") == 1) {
        puts("[MCU IF] ignore tone request");
        send_playing_report();
        return;
    }
    if (chmap == 0) chmap = TONE_DEFAULT_CHMAP;
    // Only an accepted gain is remembered, so a refused one is sent again.
    if (gain != mcu_state.tone_gain && dsp_cmd(dsp_reply_ok, "dsp alter alterGain %d\n", gain) == 0)
        mcu_state.tone_gain = gain;
    snprintf(mcu_state.music_path, sizeof mcu_state.music_path, "/sdk/recorded/tone_%02d.wav", index);
    if (dsp_cmd(dsp_reply_ok, "dsp alter %s mode=1 chmap=%u\n", mcu_state.music_path, chmap) != 0)
        return play_failed();
    // A tone counts as started only when seen within the clock second of t0.
    auto waited = dsp_wait_state("dsp alter state\n", 1, nullptr);
    if (!waited || *waited > 0) return play_failed();
    printf("[MCU IF] start playing %s\n", mcu_state.music_path);
    send_playing_report();
}

void play_music(uint8_t index, unsigned chmap, bool chmap_given)
{
    snprintf(mcu_state.music_path, sizeof mcu_state.music_path, "/sdk/recorded/index_%02d.wav", index);
    if (!mcu_state.music_playing) {
        mcu_state.music_playing = 1;
        mcu_state.saved_source = mcu_state.current_source;
        set_dsp_input_src(0);
        sem_post(&mcu_state.music_monitor_sem);  // the monitor may run from now on
    }
    if (mcu_state.chmap_set) {
        dsp_cmd(nullptr, "dsp matrix unsetChmap\n");
        mcu_state.chmap_set = 0;
    }
    if (chmap_given) {
        dsp_cmd(nullptr, "dsp matrix chmap %u\n", chmap);
        mcu_state.chmap_set = 1;
    }
    if (dsp_cmd(dsp_reply_ok, "dsp rec music 1 %s\n", mcu_state.music_path) != 0) return play_failed();
    // The monitor's pass and this wait never run at once.
    pthread_mutex_lock(&mcu_state.music_lock);
    auto waited = dsp_wait_state("dsp rec musicState\n", 1, &mcu_state.music_state);
    pthread_mutex_unlock(&mcu_state.music_lock);
    if (!waited || *waited > 1) return play_failed();
    printf("[MCU IF] start playing %s\n", mcu_state.music_path);
    make_audio_report();
}

void stop_music(uint8_t flags)
{
    if (!mcu_state.music_playing) {
        printf("[MCU IF] wrong command for current playing state: playing = %d, cmd = %02x\n", 0, flags);
        make_audio_report();
        return;
    }
    // Taking the token lets a monitor pass under way finish and keeps the next out.
    sem_take(&mcu_state.music_monitor_sem);
    dsp_cmd(nullptr, "dsp rec music 0\n");
    // A source the MCU chose meanwhile stays.
    if (mcu_state.current_source == 0) set_dsp_input_src(mcu_state.saved_source);
    if (mcu_state.chmap_set) {
        dsp_cmd(nullptr, "dsp matrix unsetChmap\n");
        mcu_state.chmap_set = 0;
    }
    mcu_state.music_playing = 0;
    mcu_state.music_state = 3;
    make_audio_report();
}

}  // namespace

unsigned remap_channel_mask(uint16_t mask)
{
    unsigned value = 0;
    for (const auto& b : chmap_bits)
        if (mask & (1u << b.mask_bit)) value |= b.value;
    return value;
}

void send_playing_report()
{
    int old = mcu_state.music_state;
    if (old == 1) return;
    mcu_state.music_state = 1;
    make_audio_report();
    mcu_state.music_state = old;
}

int handler_music_play(const uint8_t* p, uint8_t)
{
    uint8_t flags = p[0];
    if (!(flags & PLAY_FLAG)) {
        stop_music(flags);
        return 0;
    }
    bool chmap_given = flags & CHMAP_FLAG;
    unsigned chmap = chmap_given ? remap_channel_mask(static_cast<uint16_t>(p[2] | p[3] << 8)) : 0;
    if (flags & TONE_FLAG)
        play_tone(p[1], chmap, p[4]);
    else
        play_music(p[1], chmap, chmap_given);
    return 0;
}

void* music_monitor_thread(void*)
{
    uint8_t payload[12] = {};
    for (;;) {
        cancel_point_open();
        usleep(500000);
        sem_take(&mcu_state.music_monitor_sem);
        cancel_point_close();
        pthread_mutex_lock(&mcu_state.music_lock);
        if (mcu_state.music_state == 1) {
            int state = dsp_cmd(dsp_reply_int, "dsp rec musicState\n");
            if (state != 1) {
                mcu_state.music_state = state;
                get_audio_info(payload);
                send_audio_info(payload);
            }
        }
        pthread_mutex_unlock(&mcu_state.music_lock);
        sem_post(&mcu_state.music_monitor_sem);
    }
    return nullptr;
}
