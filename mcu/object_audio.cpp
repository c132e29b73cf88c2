// Dolby Atmos (command 6) and DTS:X (command 11) settings, sent field by
// field for the fields that changed.
#include <cstring>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"

namespace {

constexpr size_t ATMOS_BYTES = 11;
constexpr size_t DTSX_BYTES = 3;

// How a row turns its field into the numbers behind "dsp atmos".
enum class atmos_arg {
    field,     // "%d %d": first, field
    inverted,  // "%d %d": first, !field
    third,     // "%d %d %d": first, second, field
    scaled,    // "%d %d %f": first, second, byte * 0.01
    mapped,    // "%d %d %d": first, second, field 0/1/2 -> 1/2/0, 3 sends nothing
    unchecked, // "%d %d": first, field; reply dropped
};

enum class fail_byte { none, a, b };

struct atmos_row {
    uint8_t byte;
    uint8_t mask;  // field bits within the byte
    uint8_t shift;
    atmos_arg arg;
    int first;
    int second;
    fail_byte fail;
    uint8_t fail_bit;
};

using enum atmos_arg;
constexpr atmos_row atmos_rows[] = {
    {0, 0x0F, 0, field, 2, 0, fail_byte::a, 0x10},
    {0, 0x30, 4, third, 8, 0, fail_byte::a, 0x20},
    {0, 0x40, 6, field, 14, 0, fail_byte::a, 0x40},
    {1, 0xFF, 0, scaled, 8, 1, fail_byte::none, 0},
    {2, 0xFF, 0, scaled, 8, 2, fail_byte::none, 0},
    {3, 0x10, 4, field, 6, 0, fail_byte::a, 0x02},
    {3, 0x20, 5, inverted, 4, 0, fail_byte::a, 0x04},
    {3, 0xC0, 6, mapped, 9, 0, fail_byte::a, 0x08},
    {4, 0xFF, 0, third, 9, 1, fail_byte::none, 0},
    {5, 0xFF, 0, third, 9, 2, fail_byte::none, 0},
    {6, 0xFF, 0, third, 9, 3, fail_byte::none, 0},
    {7, 0xFF, 0, third, 9, 4, fail_byte::none, 0},
    {8, 0x08, 3, field, 1, 0, fail_byte::none, 0},
    {8, 0x10, 4, field, 3, 0, fail_byte::b, 0x20},
    {8, 0x20, 5, field, 10, 0, fail_byte::b, 0x40},
    {8, 0x40, 6, field, 5, 0, fail_byte::a, 0x01},
    {9, 0x02, 1, field, 11, 0, fail_byte::b, 0x02},
    {9, 0x04, 2, third, 7, 2, fail_byte::b, 0x04},
    {9, 0x08, 3, third, 7, 1, fail_byte::b, 0x08},
    {9, 0xF0, 4, third, 7, 0, fail_byte::b, 0x10},
    {10, 0xFF, 0, unchecked, 15, 0, fail_byte::none, 0},
};

constexpr int atmos_map[4] = {1, 2, 0, -1};  // field 3 has no command

// Sends one row; the result of dsp_cmd, or 0 when the row sends nothing.
int send_atmos_row(const atmos_row& r, uint8_t byte)
{
    int v = (byte & r.mask) >> r.shift;
    switch (r.arg) {
    case field:
        return dsp_cmd(dsp_reply_ok, "dsp atmos %d %d\n", r.first, v);
    case inverted:
        return dsp_cmd(dsp_reply_ok, "dsp atmos %d %d\n", r.first, !v);
    case third:
        return dsp_cmd(dsp_reply_ok, "dsp atmos %d %d %d\n", r.first, r.second, v);
    case scaled:
        // Single-precision product, widened for printing: byte / 100 with six decimals.
        return dsp_cmd(dsp_reply_ok, "dsp atmos %d %d %f\n", r.first, r.second,
                       static_cast<double>(static_cast<float>(v) * 0.01f));
    case mapped:
        if (atmos_map[v] < 0) return 0;
        return dsp_cmd(dsp_reply_ok, "dsp atmos %d %d %d\n", r.first, r.second, atmos_map[v]);
    case unchecked:
        dsp_cmd(nullptr, "dsp atmos %d %d\n", r.first, v);
        return 0;
    }
    return 0;
}

struct dtsx_row {
    uint8_t byte;
    uint8_t mask;
    uint8_t shift;
    int first;
};
constexpr dtsx_row dtsx_rows[] = {
    {0, 0x01, 0, 4}, {0, 0x02, 1, 1}, {0, 0x04, 2, 5}, {0, 0x08, 3, 3}, {1, 0xFF, 0, 2}, {2, 0x0F, 0, 0},
};

}  // namespace

int handler_atmos(const uint8_t* p, uint8_t)
{
    uint8_t fail_a = 0;
    uint8_t fail_b = 0;
    uint8_t report[12] = {};
    for (const atmos_row& r : atmos_rows) {
        uint8_t byte = p[r.byte];
        if (mcu_state.atmos_seen && ((byte ^ mcu_state.last_atmos[r.byte]) & r.mask) == 0) continue;
        if (send_atmos_row(r, byte) == 0) continue;
        if (r.fail == fail_byte::a) fail_a |= r.fail_bit;
        if (r.fail == fail_byte::b) fail_b |= r.fail_bit;
    }
    // Stored whatever the replies: a refused setting waits for the MCU to change it.
    memcpy(mcu_state.last_atmos, p, ATMOS_BYTES);
    mcu_state.applied_mask |= APPLIED_ATMOS;
    mcu_state.atmos_seen = 1;

    get_audio_info(report);
    report[10] = fail_a;
    report[11] = fail_b;
    send_audio_info(report);
    return 0;
}

int handler_dtsx(const uint8_t* p, uint8_t)
{
    for (const dtsx_row& r : dtsx_rows) {
        uint8_t byte = p[r.byte];
        if (mcu_state.dtsx_seen && ((byte ^ mcu_state.last_dtsx[r.byte]) & r.mask) == 0) continue;
        dsp_cmd(nullptr, "dsp dtsx %d %d\n", r.first, (byte & r.mask) >> r.shift);
    }
    memcpy(mcu_state.last_dtsx, p, DTSX_BYTES - 1);
    mcu_state.last_dtsx[2] = p[2] & 0x0F;
    mcu_state.dtsx_seen = 1;
    return 0;
}
