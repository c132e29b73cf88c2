// Input source, channel mix mode, decoder output and upmix words, and the
// I2S word with the audio poll gate.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <semaphore.h>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "mcu/settings.h"

namespace {

// Read-modify-write of one bit of the platform register 0x9c0032e4.
constexpr const char* REG_SET_BIT8 = "devmem 0x9c0032e4 32 $((`devmem 0x9c0032e4`|0x100))";
constexpr const char* REG_CLEAR_BIT8 = "devmem 0x9c0032e4 32 $((`devmem 0x9c0032e4`&~0x100))";
constexpr const char* REG_SET_BIT21 = "devmem 0x9c0032e4 32 $((`devmem 0x9c0032e4`|0x200000))";
constexpr const char* REG_CLEAR_BIT21 = "devmem 0x9c0032e4 32 $((`devmem 0x9c0032e4`&~0x200000))";

struct source_row {
    int id;
    const char* reg;  // nullptr: no register command
    int number;       // sent to the DSP service
};
constexpr source_row source_table[] = {
    {0, nullptr, 0},         {1, REG_SET_BIT8, 1},  {2, REG_CLEAR_BIT8, 2}, {3, REG_CLEAR_BIT8, 3},
    {4, REG_SET_BIT8, 4},    {6, nullptr, 6},       {8, nullptr, 8},        {10, nullptr, 10},
    {12, nullptr, 0},
};

// Mix mode to DSP 2-channel audio mode; -1: unknown.
constexpr int mix_mode_table[16] = {-1, 0, 1, 2, 3, 4, -1, -1, -1, -1, 1, -1, -1, -1, -1, -1};

constexpr int i2s_out_rates[4] = {48000, 44100, 96000, -1};
constexpr int I2S_RATE_WRONG = 3;

struct i2s_format {
    int delay, justify, parity;
};
// Format 3 sends nothing.
constexpr i2s_format i2s_formats[3] = {{1, 0, 0}, {0, 0, 1}, {0, 1, 1}};

constexpr uint8_t I2S_RATE_BITS = 0xC0;
constexpr uint8_t I2S_OUT_BITS = 0x30;
constexpr uint8_t I2S_REG21_CLEAR = 0x08;
constexpr uint8_t I2S_POLL_GATE = 0x04;
constexpr uint8_t I2S_IN_BITS = 0x03;

void run_register_command(const char* cmd)
{
    // The register belongs to the platform; its result is not needed.
    int status = system(cmd);
    (void)status;
}

void send_i2s_format(const char* direction, int format)
{
    if (format >= 3) return;
    const i2s_format& f = i2s_formats[format];
    dsp_cmd(dsp_reply_ok, "dsp %s delay %d\n", direction, f.delay);
    dsp_cmd(dsp_reply_ok, "dsp %s justify %d\n", direction, f.justify);
    dsp_cmd(dsp_reply_ok, "dsp %s parity %d\n", direction, f.parity);
}

void set_mix_mode(uint8_t mode)
{
    auto& s = mcu_state;
    if (s.mix_seen && mode == s.last_mix) return;
    int number = mix_mode_table[mode & 0x0F];
    if (number < 0) {
        printf("[MCU IF] %s unknown channel mix mode %d\n", "set_mix_mode", mode);
        return;
    }
    update_format_mode();
    dsp_cmd(dsp_reply_ok, "dsp vmb_2ch_audio_mode %d\n", number);
    s.last_mix = mode;
    s.mix_seen = 1;
}

// Polling runs while the main thread has handed its token to audio_poll_thread.
void apply_poll_gate(bool on)
{
    auto& s = mcu_state;
    if (on && !s.audio_poll_on) {
        sem_post(&s.audio_poll_sem);
        s.audio_poll_on = 1;
    } else if (!on && s.audio_poll_on) {
        // Waits for a poll under way to end; then the token stays here.
        while (sem_wait(&s.audio_poll_sem) < 0 && errno == EINTR) {
        }
        s.audio_poll_on = 0;
    }
}

void set_i2s_word(uint8_t word)
{
    auto& s = mcu_state;
    // Before the first word every field counts as changed.
    uint8_t d = s.i2s_seen ? static_cast<uint8_t>(word ^ s.last_i2s_word) : 0xFF;
    if (d & I2S_RATE_BITS) {
        int sel = word >> 6;
        int rate = i2s_out_rates[sel];
        if (sel == I2S_RATE_WRONG) {
            puts("[MCU IF] Wrong I2S out sample rate");
            rate = 0;
        }
        dsp_cmd(dsp_reply_ok, "dsp smp %d\n", rate);
    }
    if (d & I2S_OUT_BITS) send_i2s_format("i2sout", (word >> 4) & 3);
    if (d & I2S_IN_BITS) send_i2s_format("i2sin", word & 3);
    run_register_command((word & I2S_REG21_CLEAR) ? REG_CLEAR_BIT21 : REG_SET_BIT21);
    apply_poll_gate(word & I2S_POLL_GATE);
    s.i2s_seen = 1;
    s.last_i2s_word = word;
}

}  // namespace

void set_dsp_input_src(int id)
{
    auto& s = mcu_state;
    if (s.source_seen && id == s.current_source) return;
    const source_row* row = nullptr;
    for (const auto& r : source_table)
        if (r.id == id) row = &r;
    if (!row) {
        printf("[MCU IF] %s unknown source id %d\n", "set_dsp_input_src", id);
        return;
    }
    if (row->reg) run_register_command(row->reg);
    dsp_cmd(dsp_reply_ok, "dsp vmb_input_source %d\n", row->number);
    // Stored whatever the reply; 12 stays 12 although 0 was sent.
    s.source_seen = 1;
    s.current_source = id;
}

int handler_mix_mode(const uint8_t* frame, uint8_t len)
{
    auto p = fixed_payload<4>(frame, len);
    auto& s = mcu_state;
    set_dsp_input_src(p[0] & 0x0F);

    // Stored before any test: update_format_mode reads it, known or not.
    s.mix_mode = static_cast<uint8_t>(p[0] >> 4);
    set_mix_mode(s.mix_mode);

    if (!s.dec_upmix_seen || p[1] != s.last_dec_out) {
        dsp_cmd(dsp_reply_ok, "dsp dec_out %d\n", mix_bit_swap(p[1]));
        s.last_dec_out = p[1];
    }
    if (!s.dec_upmix_seen || p[2] != s.last_upmix) {
        dsp_cmd(dsp_reply_ok, "dsp upmix %d\n", mix_bit_swap(p[2]));
        s.last_upmix = p[2];
    }
    s.dec_upmix_seen = 1;

    if (!s.i2s_seen || p[3] != s.last_i2s_word) set_i2s_word(p[3]);

    s.applied_mask.fetch_or(APPLIED_MIX);
    return 0;
}
