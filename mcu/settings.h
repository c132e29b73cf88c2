// Tables and conversions that the settings handlers share.
#pragma once
#include <array>
#include <cstdint>

// Frame position to DSP volume channel; the delay channel is one less.
inline constexpr std::array<int8_t, 12> vol_channel_map{1, 2, 5, 6, 3, 4, 7, 8, 9, 10, 11, 12};

// Decoder output and upmix words: bits 1 and 2 trade places, bit 7 is dropped.
constexpr uint8_t mix_bit_swap(uint8_t v)
{
    return static_cast<uint8_t>((v & 0x79) | ((v << 1) & 4) | ((v >> 1) & 2));
}
