#include <gtest/gtest.h>

#include "mcu/handlers.h"
#include "mcu/settings.h"

TEST(SettingsConversions, VolumeByteToDecibels)
{
    EXPECT_EQ(vol_byte_to_db(0), -103.5);
    EXPECT_EQ(vol_byte_to_db(1), -49.5);
    EXPECT_EQ(vol_byte_to_db(100), 0.0);
    EXPECT_EQ(vol_byte_to_db(255), 77.5);
    // Every step is exact: half a decibel per unit above the floor jump.
    for (int v = 1; v < 256; ++v) EXPECT_EQ(vol_byte_to_db(static_cast<uint8_t>(v)), v / 2.0 - 50.0) << v;
}

TEST(SettingsConversions, BassManagementGainTable)
{
    constexpr int expected[30] = {100, 89, 79, 70, 63, 56, 50, 44, 39, 35, 31, 28, 25, 22, 19,
                                  17,  15, 14, 12, 11, 10, 8,  7,  7,  6,  5,  5,  4,  3,  3};
    for (int v = 0; v < 30; ++v) EXPECT_EQ(bm_gain_from_byte(static_cast<uint8_t>(v)), expected[v]) << v;
    for (int v : {30, 31, 100, 255}) EXPECT_EQ(bm_gain_from_byte(static_cast<uint8_t>(v)), 0) << v;
}

TEST(SettingsConversions, DecoderWordBitSwap)
{
    EXPECT_EQ(mix_bit_swap(0x02), 4);
    EXPECT_EQ(mix_bit_swap(0x04), 2);
    EXPECT_EQ(mix_bit_swap(0x06), 6);
    EXPECT_EQ(mix_bit_swap(0x80), 0);
    EXPECT_EQ(mix_bit_swap(0xFF), 127);
    EXPECT_EQ(mix_bit_swap(0x79), 0x79);  // bits 0, 3-6 stay
    for (int v = 0; v < 256; ++v) {
        uint8_t b = static_cast<uint8_t>(v);
        EXPECT_EQ(mix_bit_swap(b), mix_bit_swap(b & 0x7F)) << v;  // bit 7 never matters
        EXPECT_EQ(mix_bit_swap(mix_bit_swap(b)), b & 0x7F) << v;  // the swap undoes itself
    }
}
