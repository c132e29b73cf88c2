// Tables and conversions that the settings handlers share.
#pragma once
#include <array>
#include <algorithm>
#include <cstddef>
#include <cstdint>

// Frame position to DSP volume channel; the delay channel is one less.
inline constexpr std::array<int8_t, 12> vol_channel_map{1, 2, 5, 6, 3, 4, 7, 8, 9, 10, 11, 12};

// The fixed-size payload of a settings frame. A shorter frame would leave the
// check digit and stale buffer bytes in the missing places; they read as 0.
template <size_t N>
std::array<uint8_t, N> fixed_payload(const uint8_t* p, uint8_t len)
{
    std::array<uint8_t, N> out{};
    std::copy_n(p, std::min<size_t>(len, N), out.begin());
    return out;
}

// Decoder output and upmix words: bits 1 and 2 trade places, bit 7 is dropped.
constexpr uint8_t mix_bit_swap(uint8_t v)
{
    return static_cast<uint8_t>((v & 0x79) | ((v << 1) & 4) | ((v >> 1) & 2));
}
