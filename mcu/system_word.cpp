// The MCU's control word: hbr/slave parameter, master volume, mute, output
// lines, forced silence and one DSP module's mode.
#include <cstdint>

#include "mcu/gpio.h"
#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "mcu/settings.h"

namespace {

constexpr int HBR_SOURCE = 6;  // this source takes no hbr command
constexpr uint8_t FLAG_SILENCE = 0x40;
constexpr uint8_t FLAG_LINE_43 = 0x08;
constexpr uint8_t FLAG_LINE_42 = 0x04;
constexpr double SILENCE_DB = -103.5;

const char* hbr_command(int select)
{
    switch (select) {
    case 2:
    case 4:
        return "dsp src param hbr 2\n";
    case 3:
    case 5:
        return "dsp src param hbr 1\n";
    default:
        return "dsp vmb_slave_info 0 0\n";
    }
}

// All twelve channels, unconditionally: silent while the flag is set, back to
// the stored volumes once it clears. last_vol stays untouched.
void channel_pass(bool silence)
{
    for (size_t i = 0; i < vol_channel_map.size(); ++i) {
        double db = silence ? SILENCE_DB : vol_byte_to_db(mcu_state.last_vol[i]);
        dsp_cmd(dsp_reply_ok, "dsp vol %d %f\n", vol_channel_map[i], db);
    }
}

}  // namespace

int handler_system_word(const uint8_t* frame, uint8_t len)
{
    auto p = fixed_payload<4>(frame, len);
    auto& s = mcu_state;

    int hbr = p[0] >> 5;
    if (!s.hbr_seen || hbr != s.last_hbr) {
        // The select is used up even when source 6 sends nothing.
        s.hbr_seen = 1;
        if (s.current_source != HBR_SOURCE) dsp_cmd(dsp_reply_ok, "%s", hbr_command(hbr));
        s.last_hbr = hbr;
    }

    int master = (p[3] >> 1) & 0x3F;
    if (!s.master_vol_seen || master != s.last_master_vol) {
        dsp_cmd(dsp_reply_ok, "dsp vol 17 %d\n", master * 30);
        s.last_master_vol = master;
        s.master_vol_seen = 1;
    }

    int mute = p[3] & 1;
    if (!s.mute_seen || mute != s.last_mute) {
        dsp_cmd(dsp_reply_ok, "dsp a_mute %d\n", !mute);
        s.last_mute = mute;
        s.mute_seen = 1;
    }

    // No first-run rule: the lines start at 0 and no silence is in force.
    uint8_t flags = p[1];
    if (flags != s.last_system_flags) {
        uint8_t d = flags ^ s.last_system_flags;
        if (d & FLAG_SILENCE) channel_pass(flags & FLAG_SILENCE);
        if (d & FLAG_LINE_42) gpio_set_value(42, (flags & FLAG_LINE_42) ? 1 : 0);
        if (d & FLAG_LINE_43) gpio_set_value(43, (flags & FLAG_LINE_43) ? 1 : 0);
        s.last_system_flags = flags;
    }

    set_dsp_app_mode(p[2]);

    s.applied_mask.fetch_or(APPLIED_SYSTEM);
    return 0;
}
