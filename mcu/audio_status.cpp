// Audio status frame 0x21, record state frame 0x20, and the two report workers.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>
#include <unistd.h>

#include "mcu/handlers.h"
#include "mcu/mcu_frame.h"
#include "mcu/mcu_state.h"

namespace {

struct rate_code {
    long rate;
    uint8_t code;
};
constexpr rate_code rate_codes[] = {
    {8000, 0},   {11025, 1},  {12000, 2},  {16000, 3},  {22050, 4},
    {24000, 5},  {32000, 6},  {44100, 7},  {48000, 8},  {64000, 9},
    {88200, 10}, {96000, 11}, {128000, 12}, {176400, 13}, {192000, 14},
};

constexpr std::string_view info_keys[] = {
    "Dolby_Atmos_Bit", "Dolby_Surround_Bit", "Audio_Format", "FS", "DTS_DIALOG_BIT",
};

void audio_info_key(size_t key, long v, uint8_t* payload)
{
    switch (key) {
    case 0:
        if (v == 1) payload[0] |= 0x80;
        break;
    case 1:
        if (v == 1) payload[0] |= 0x40;
        break;
    case 2:
        payload[0] |= static_cast<uint8_t>(v & 0x3F);
        break;
    case 3:
        for (const auto& r : rate_codes)
            if (r.rate == v) payload[1] = r.code;
        break;
    case 4:
        if (v != mcu_state.last_dialog_value) {
            mcu_state.last_dialog_value = static_cast<int>(v);
            mcu_state.dialog_active = v != 0 ? 1 : 0;
            mcu_state.dialog_changed = 1;
        }
        break;
    }
}

// Channel energy keys: byte 4 + i/2, high nibble for even i.
constexpr std::string_view energy_keys[] = {
    "ENG_L", "ENG_R", "ENG_C", "ENG_SUB", "ENG_LS", "ENG_RS",
    "ENG_LRS", "ENG_RRS", "ENG_LTF", "ENG_RTF", "ENG_LTR", "ENG_RTR",
};

void energy_key(size_t key, long v, uint8_t* payload)
{
    // No mask: a value above 15 runs into the neighbouring nibble.
    payload[4 + key / 2] |= static_cast<uint8_t>(key % 2 == 0 ? v << 4 : v);
}

// Walks "{key:value,...}" cut at any of "{:,}". A known key takes the number
// behind it; a key with nothing behind it ends the walk.
void walk_reply(char* text, std::span<const std::string_view> keys, uint8_t* payload,
                void (*on_key)(size_t, long, uint8_t*))
{
    char* cursor = text;
    while (cursor && *cursor) {
        std::string_view token = strsep(&cursor, "{:,}");
        if (!cursor) break;
        for (size_t k = 0; k < keys.size(); ++k) {
            if (token != keys[k]) continue;
            char* after = nullptr;
            long v = strtol(cursor, &after, 10);
            cursor = after;
            on_key(k, v, payload);
            break;
        }
    }
}

}  // namespace

void walk_audio_info(char* reply, uint8_t* payload)
{
    walk_reply(reply, info_keys, payload, audio_info_key);
}

void walk_channel_energy(char* reply, uint8_t* payload)
{
    walk_reply(reply, energy_keys, payload, energy_key);
}

void make_audio_report()
{
    uint8_t payload[12] = {};
    get_audio_info(payload);
    send_audio_info(payload);
}

int get_audio_info(uint8_t* payload)
{
    // dsp_reply keeps this thread's previous reply when a query fails on the
    // queue: walk only a fresh one, so that a failed query adds nothing.
    payload[0] = 0;
    if (dsp_cmd(dsp_reply_copy, "dsp vmb_Get_AudioInfo\n") == 0) walk_audio_info(dsp_reply, payload);
    memset(payload + 4, 0, 6);
    if (dsp_cmd(dsp_reply_copy, "dsp s4_ch_eng\n") == 0) walk_channel_energy(dsp_reply, payload);
    return 0;
}

int send_audio_info(uint8_t* payload)
{
    payload[2] = mcu_state.applied_mask.exchange(0);
    if (mcu_state.music_state == 1) payload[2] |= 0x40;
    return mcu_send(MCU_RPT_AUDIO, payload, 12) < 0 ? -1 : 0;
}

int send_record_state()
{
    uint8_t payload[12] = {0x01, 0x49, 0x05, 0, 0, 0, 0x01, 0x0D, 0x01, 0, 0, 0};
    int state = dsp_cmd(dsp_reply_int, "dsp rec state\n");
    mcu_state.record_state = state;
    if (state == 1)
        payload[4] = static_cast<uint8_t>(monotonic_seconds() - mcu_state.record_start_time);
    else if (state == 2)
        payload[4] = 0xF2;
    payload[5] = mcu_state.file_status;
    if (mcu_state.dialog_active) payload[11] |= 0x40;
    return mcu_send(MCU_RPT_RECORD, payload, 12) < 0 ? -1 : 0;
}

void* audio_poll_thread(void*)
{
    uint8_t payload[12] = {};
    for (;;) {
        cancel_point_open();
        usleep(200000);
        while (sem_wait(&mcu_state.audio_poll_sem) != 0 && errno == EINTR) {
        }
        cancel_point_close();
        get_audio_info(payload);
        send_audio_info(payload);
        sem_post(&mcu_state.audio_poll_sem);
    }
    return nullptr;
}

void* audio_pipe_thread(void* arg)
{
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    uint8_t payload[12] = {};
    for (;;) {
        char byte;
        cancel_point_open();
        ssize_t r = read(fd, &byte, 1);
        cancel_point_close();
        (void)r;  // every byte, or error, is one notification
        get_audio_info(payload);
        mcu_state.audio_format = payload[0];
        update_format_mode();
        send_audio_info(payload);
        if (mcu_state.dialog_changed) {
            send_record_state();
            mcu_state.dialog_changed = 0;
        }
    }
    return nullptr;
}

