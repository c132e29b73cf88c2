// The two checksums of the tool link: tuning lines and read-back replies.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "dsptool/tool_link.h"

namespace {
// Computed checksum of a tuning line, or -1 when its fields do not scan.
int64_t sum_of(const char* name, const char* line, uint32_t* k = nullptr)
{
    uint32_t computed, received;
    if (tool_tuning_check(name, line, &computed, &received) != 0) return -1;
    if (k) *k = received;
    return computed;
}
}  // namespace

TEST(ToolTuningSum, WorkedExamplesAndK)
{
    uint32_t k = 0;
    EXPECT_EQ(sum_of("delay", "dsp delay 2 100 192", &k), 0x192);
    EXPECT_EQ(k, 0x192u);
    EXPECT_EQ(sum_of("bm", "dsp bm 0 9 1 1.5 2.5 -1.5 fffffe74", &k), 0xfffffe74);
    EXPECT_EQ(k, 0xfffffe74u);
    EXPECT_EQ(sum_of("atmos", "dsp atmos 12 c"), 0xc);
    EXPECT_EQ(sum_of("vol", "dsp vol 3 -2.5 0xFFFFFFFB", &k), 0xfffffffb);
    EXPECT_EQ(k, 0xfffffffbu);
    EXPECT_EQ(sum_of("delay", "dsp delay 2 100 192\r", &k), 0x192);  // CR goes with K
    EXPECT_EQ(k, 0x192u);
    EXPECT_EQ(sum_of("output", "dsp output 4000000000 0"), 4000000000);
    const int32_t v[17] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 3};
    EXPECT_EQ(tool_tuning_sum(v, 17), 0x55555555u ^ 3u);  // position 16 shifts by 0 again
}

TEST(ToolTuningSum, SelectorsChooseTheRow)
{
    struct { const char* name; const char* line; int64_t sum; } rows[] = {
        {"bm", "dsp bm 0 9 1 5", 0x34},               // no F fields
        {"bm", "dsp bm 1 2 3 4.5 5 0", 0x439},         // I I I F I
        {"bm", "dsp bm 1 20 3 0", 0x61},              // other: three fields
        {"atmos", "dsp atmos 8 2 1.9 0", 0x10},
        {"atmos", "dsp atmos 8 3 1.9 0", -1},         // integer third field
        {"atmos", "dsp atmos 8 3 7 0", 0x74},
        {"atmos", "dsp atmos 12 1 0", -1},
        {"atmos", "dsp atmos -1 4 0", 0xffffffef},    // negative: other
        {"virtualx", "dsp virtualx 5 2.5 0", 0xd},
        {"virtualx", "dsp virtualx 90 2.5 0", 0x52},
        {"virtualx", "dsp virtualx 56 2.5 0", -1},
        {"virtualx", "dsp virtualx 71 2 0", 0x4f},
        {"filter", "dsp filter 1 12 3 0", 0x1},
        {"filter", "dsp filter 1 10 3 4.5 0", -1},
        {"drc", "dsp drc 8 1 0", 0xc},
        {"drc", "dsp drc 7 1 2.5 0", 0x23},
        {"matrix", "dsp matrix 17 1 0", 0x15},
        {"matrix", "dsp matrix 1 2 3 4 0", 0x139},
        {"truvol", "dsp truvol 2 -0.5 0", 2},
        // Missing, malformed or surplus fields; K not the last word.
        {"delay", "dsp delay 2 192", -1},
        {"delay", "dsp delay 2 1.5 192", -1},
        {"delay", "dsp delay 2 100 7 192", -1},
        {"delay", "dsp delay 2 100 192 ", -1},
        {"delay", "dsp delay 2 100 19g", -1},
        {"delay", "dsp delay 2 4294967296 0", -1},
        {"delay", "dsp delay 2 100 1ffffffff", -1},
        {"delay", "dsp delay 2 100 192\ndsp delay 2 100 192", -1},
        {"output", "dsp output -1 0", -1},
    };
    for (const auto& r : rows) EXPECT_EQ(sum_of(r.name, r.line), r.sum) << r.line;
}

TEST(ToolTuningSum, FloatFieldsTruncateSaturateAndNaN)
{
    EXPECT_EQ(tool_float_to_field(-2.5f), -2);
    EXPECT_EQ(tool_float_to_field(2.9f), 2);
    EXPECT_EQ(tool_float_to_field(2147483648.0f), INT32_MAX);
    EXPECT_EQ(tool_float_to_field(std::numeric_limits<float>::infinity()), INT32_MAX);
    EXPECT_EQ(tool_float_to_field(-2147483648.0f), INT32_MIN);
    EXPECT_EQ(tool_float_to_field(-1e30f), INT32_MIN);
    EXPECT_EQ(tool_float_to_field(std::nanf("")), 0);
    EXPECT_EQ(tool_float_to_field(2147483520.0f), 2147483520);  // largest float below 2^31
    EXPECT_EQ(sum_of("vol", "dsp vol 0 3e9 0"), 0xfffffffc);
    EXPECT_EQ(sum_of("vol", "dsp vol 1 nan 0"), 1);
}

TEST(ToolReadbackSum, ShiftsRestartEveryEightBytes)
{
    EXPECT_EQ(tool_readback_sum("abc", 3), 0x0194);
    EXPECT_EQ(tool_readback_sum("", 0), 0);
    const char nine[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0x7f};  // the ninth byte is not shifted
    EXPECT_EQ(tool_readback_sum(nine, 9), 0x7f);
    const char* text = "0123456789abcdefXYZ";  // against a 64-bit reference
    uint64_t s = 0;
    for (size_t i = 0; i < strlen(text); ++i) s = (static_cast<uint8_t>(text[i]) ^ s) << (i & 7);
    EXPECT_EQ(tool_readback_sum(text, strlen(text)), static_cast<uint16_t>(s));
    const char high[2] = {static_cast<char>(0xff), static_cast<char>(0x80)};
    EXPECT_EQ(tool_readback_sum(high, 2), (0xff ^ 0x80) << 1);  // bytes count unsigned
}
