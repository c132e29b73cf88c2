#include "update/md5.h"

#include <array>
#include <cstring>

namespace {

constexpr std::array<uint32_t, 64> sine_table = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr std::array<unsigned, 16> shifts = {7, 12, 17, 22, 5, 9, 14, 20, 4, 11, 16, 23, 6, 10, 15, 21};

constexpr uint32_t rotl(uint32_t x, unsigned n) { return (x << n) | (x >> (32 - n)); }

void md5_transform(uint32_t state[4], const uint8_t* in)
{
    uint32_t x[16];
    for (int i = 0; i < 16; ++i)
        x[i] = uint32_t(in[4 * i]) | uint32_t(in[4 * i + 1]) << 8 | uint32_t(in[4 * i + 2]) << 16 |
               uint32_t(in[4 * i + 3]) << 24;
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    for (unsigned i = 0; i < 64; ++i) {
        uint32_t f;
        unsigned g;
        switch (i / 16) {
        case 0: f = (b & c) | (~b & d); g = i; break;
        case 1: f = (d & b) | (~d & c); g = (5 * i + 1) % 16; break;
        case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
        default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
        }
        uint32_t t = d;
        d = c;
        c = b;
        b = b + rotl(a + f + sine_table[i] + x[g], shifts[(i / 16) * 4 + i % 4]);
        a = t;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

// The inner feed of md5_update and md5_final.
void md5_update_block(md5_context* ctx, const uint8_t* in, size_t length)
{
    size_t left = ctx->byte_count[0] & 63;
    uint32_t low = ctx->byte_count[0];
    ctx->byte_count[0] += static_cast<uint32_t>(length);
    ctx->byte_count[1] += static_cast<uint32_t>(static_cast<uint64_t>(length) >> 32);
    if (ctx->byte_count[0] < low) ctx->byte_count[1] += 1;

    if (left != 0 && length >= 64 - left) {
        memcpy(ctx->block + left, in, 64 - left);
        md5_transform(ctx->state, ctx->block);
        in += 64 - left;
        length -= 64 - left;
        left = 0;
    }
    for (; length >= 64; in += 64, length -= 64) md5_transform(ctx->state, in);
    if (length) memcpy(ctx->block + left, in, length);
}

}  // namespace

void md5_init(md5_context* ctx)
{
    ctx->byte_count[0] = ctx->byte_count[1] = 0;
    ctx->state[0] = 0x67452301;
    ctx->state[1] = 0xefcdab89;
    ctx->state[2] = 0x98badcfe;
    ctx->state[3] = 0x10325476;
}

void md5_update(md5_context* ctx, const void* data, size_t length)
{
    if (length == 0) return;
    md5_update_block(ctx, static_cast<const uint8_t*>(data), length);
}

void md5_final(md5_context* ctx, uint8_t digest[16])
{
    // The bit count is taken before the padding changes byte_count.
    uint32_t low = ctx->byte_count[0] << 3;
    uint32_t high = (ctx->byte_count[1] << 3) | (ctx->byte_count[0] >> 29);
    uint8_t bits[8];
    for (int i = 0; i < 4; ++i) {
        bits[i] = static_cast<uint8_t>(low >> (8 * i));
        bits[4 + i] = static_cast<uint8_t>(high >> (8 * i));
    }
    size_t left = ctx->byte_count[0] & 63;
    size_t pad_len = left < 56 ? 56 - left : 120 - left;
    static constexpr uint8_t padding[64] = {0x80};
    md5_update_block(ctx, padding, pad_len);
    md5_update_block(ctx, bits, 8);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) digest[4 * i + j] = static_cast<uint8_t>(ctx->state[i] >> (8 * j));
}
