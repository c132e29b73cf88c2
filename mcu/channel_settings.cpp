// Per-channel volume, delay and bass management tables from the MCU.
#include <array>
#include <cmath>
#include <cstdint>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "mcu/settings.h"

namespace {

constexpr std::array<int8_t, 12> delay_channel_map{0, 1, 4, 5, 2, 3, 6, 7, 8, 9, 10, 11};

constexpr int BM_GAIN_POSITIONS = 9;
constexpr int BM_POSITIONS = 16;
// Two targets per position, served in order; -1 sends nothing.
constexpr std::array<std::array<int8_t, 2>, BM_POSITIONS> bm_channel_map{{
    {10, 11}, {14, -1}, {15, -1}, {12, 13}, {16, 17}, {18, 19}, {20, 21}, {26, 27}, {28, 29},
    {0, 1},   {4, -1},  {5, -1},  {2, 3},   {6, 7},   {8, 9},   {10, 11},
}};

constexpr int DELAY_CLOSE_CHANNEL = 16;

}  // namespace

double vol_byte_to_db(uint8_t v)
{
    if (v == 0) return -103.5;
    return static_cast<double>(static_cast<float>(v) / 2.0f - 50.0f);
}

int bm_gain_from_byte(uint8_t v)
{
    if (v >= 30) return 0;
    // Single precision in this order, truncated: the DSP tables expect
    // exactly these values (21 gives 8, not 9).
    float exponent = static_cast<float>(-static_cast<int>(v)) / 20.0f;
    float gain = powf(10.0f, exponent) * 100.0f;
    return static_cast<int>(gain);
}

int handler_vol(const uint8_t* frame, uint8_t len)
{
    auto p = fixed_payload<12>(frame, len);
    for (size_t i = 0; i < vol_channel_map.size(); ++i) {
        uint8_t v = p[i];
        if (mcu_state.vol_seen && v == mcu_state.last_vol[i]) continue;
        dsp_cmd(dsp_reply_ok, "dsp vol %d %f\n", vol_channel_map[i], vol_byte_to_db(v));
        mcu_state.last_vol[i] = v;  // stored whatever the reply
    }
    mcu_state.vol_seen = 1;
    mcu_state.applied_mask.fetch_or(APPLIED_VOL);
    return 0;
}

int handler_delay(const uint8_t* frame, uint8_t len)
{
    auto p = fixed_payload<12>(frame, len);
    for (size_t i = 0; i < delay_channel_map.size(); ++i) {
        uint8_t v = p[i];
        if (mcu_state.delay_seen && v == mcu_state.last_delay[i]) continue;
        dsp_cmd(dsp_reply_ok, "dsp delay %d %d\n", delay_channel_map[i], v);
        mcu_state.last_delay[i] = v;
    }
    // The DSP applies delays on this command, so it goes out on every frame.
    dsp_cmd(dsp_reply_ok, "dsp delay %d %d\n", DELAY_CLOSE_CHANNEL, 1);
    mcu_state.delay_seen = 1;
    mcu_state.applied_mask.fetch_or(APPLIED_DELAY);
    return 0;
}

int handler_bm(const uint8_t* frame, uint8_t len)
{
    auto p = fixed_payload<BM_POSITIONS>(frame, len);
    for (int i = 0; i < BM_POSITIONS; ++i) {
        uint8_t v = p[i];
        if (mcu_state.bm_seen && v == mcu_state.last_bm[i]) continue;
        bool gain_group = i < BM_GAIN_POSITIONS;
        int gain = gain_group ? bm_gain_from_byte(v) : 0;
        for (int8_t target : bm_channel_map[i]) {
            if (target < 0) continue;
            if (gain_group)
                dsp_cmd(dsp_reply_ok, "dsp bm 0 %d %d\n", target, gain);
            else  // value first, target second
                dsp_cmd(dsp_reply_ok, "dsp bm 0 1 1 %d %d\n", 2 * v, target);
        }
        mcu_state.last_bm[i] = v;
    }
    mcu_state.bm_seen = 1;
    mcu_state.applied_mask.fetch_or(APPLIED_BM);
    return 0;
}
