// The DSP module mode word, which the MCU's control word and the decoded
// audio format both set.
#include <cstdio>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"

namespace {

// Module index to DSP module number; -1: the index sets no module.
constexpr int dsp_module_ids[16] = {-1, 6, 7, 0, 3, 5, 1, 2, 8, 4, -1, -1, -1, -1, -1, -1};
constexpr int MORVA_INDEX = 14;
constexpr int morva_modules[] = {1, 4, 5};

class mode_guard {
public:
    mode_guard() { pthread_mutex_lock(&mcu_state.mode_lock); }
    ~mode_guard() { pthread_mutex_unlock(&mcu_state.mode_lock); }
    mode_guard(const mode_guard&) = delete;
    mode_guard& operator=(const mode_guard&) = delete;
};

}  // namespace

void set_dsp_app_mode(uint8_t word)
{
    int index = word >> 4;
    int value = word & 0x0F;
    if (index == 0) return;
    // Two threads set modes: test, send and store are one step.
    mode_guard guard;
    if (mcu_state.mode_seen && mcu_state.mode_cache[index] == value) return;
    printf("[MCU IF] DSP_app_mode %x\n", word);
    if (index <= 9) {
        dsp_cmd(dsp_reply_ok, "dsp mode %d %d\n", dsp_module_ids[index], value);
    } else if (index == MORVA_INDEX) {
        puts("[MCU IF] Morva5 : setting DSP_app_mode");
        if (value > 5) return;
        for (int module : morva_modules) dsp_cmd(dsp_reply_ok, "dsp mode %d %d\n", module, value);
    } else {
        return;
    }
    mcu_state.mode_cache[index] = static_cast<uint8_t>(value);
    mcu_state.mode_seen = 1;
}

void update_format_mode()
{
    uint8_t format = mcu_state.audio_format;
    bool mix10 = mcu_state.mix_mode == 10;
    if (format == 1)
        set_dsp_app_mode(mix10 ? 0x18 : 0x10);
    else if (format == 12)
        set_dsp_app_mode(mix10 ? 0x19 : 0x11);
}
