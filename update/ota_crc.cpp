// CRC-32 of the OTA package in the complemented form of the byte table.
#include <cstring>

#include "core/byte_order.h"
#include "update/ota.h"

namespace {

// Four lanes take the 8-byte words of each 32-byte group in turn, so that
// four chains of lookups run side by side while the data is still read in
// order. A lane's table entry carries a byte across the rest of its word and
// the 24 bytes of the other lanes.
constexpr size_t LANES = 4;
constexpr size_t GROUP = LANES * 8;

// The usual (uncomplemented) form, which is linear: a lane starts from 0
// and its value is later XORed into its next word.
inline uint32_t lane_step(const uint32_t (*t)[256], uint32_t lane, const uint8_t* p)
{
    uint32_t w = get_le32(p) ^ lane;
    // Bytes 4 to 7 do not depend on the lane's value and are looked up
    // straight from memory.
    return t[4][p[4]] ^ t[5][p[5]] ^ t[6][p[6]] ^ t[7][p[7]] ^ t[0][w & 0xFF] ^ t[1][(w >> 8) & 0xFF] ^
           t[2][(w >> 16) & 0xFF] ^ t[3][w >> 24];
}

}  // namespace

void ota_crc_build_table(uint32_t table[256], uint32_t lanes[8][256])
{
    // The usual reflected table with the test of the shifted-out bit turned
    // round and the top byte complemented: it carries the value complemented.
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t v = i;
        for (int step = 0; step < 8; ++step) {
            bool out = v & 1;
            v >>= 1;
            if (!out) v ^= 0xEDB88320u;
        }
        table[i] = v ^ 0xFF000000u;
    }
    // Each byte value in the usual form, followed by one zero byte after
    // another: after 31 - k zero bytes it is the entry of word byte k.
    auto usual = [table](uint32_t i) { return table[i ^ 0xFF] ^ 0xFF000000u; };
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t v = usual(i);
        for (size_t zeros = 1; zeros < GROUP; ++zeros) {
            v = usual(v & 0xFF) ^ (v >> 8);
            if (zeros >= GROUP - 8) lanes[GROUP - 1 - zeros][i] = v;
        }
    }
}

uint32_t ota_crc_update(const uint32_t table[256], const uint32_t lanes[8][256], uint32_t value, const uint8_t* data,
                        size_t len)
{
    if (len >= 2 * GROUP) {
        uint32_t lane[LANES] = {~value};
        size_t groups = len / GROUP - 1;
        for (size_t g = 0; g < groups; ++g, data += GROUP)
            for (size_t j = 0; j < LANES; ++j) lane[j] = lane_step(lanes, lane[j], data + 8 * j);
        len -= groups * GROUP;
        // The last group takes each lane's value into its word and runs
        // byte by byte from 0 (all ones in the complemented form).
        uint8_t last[GROUP];
        memcpy(last, data, GROUP);
        for (size_t j = 0; j < LANES; ++j)
            for (size_t b = 0; b < 4; ++b) last[8 * j + b] ^= static_cast<uint8_t>(lane[j] >> (8 * b));
        value = 0xFFFFFFFFu;
        for (uint8_t b : last) value = table[(value ^ b) & 0xFF] ^ (value >> 8);
        data += GROUP;
        len -= GROUP;
    }
    for (; len > 0; ++data, --len) value = table[(value ^ *data) & 0xFF] ^ (value >> 8);
    return value;
}
