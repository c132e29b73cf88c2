#include "update/md5.h"

#include <bit>
#include <cstring>

#include "core/byte_order.h"

namespace {

// One step of each round, written out so that the compiler sees every
// constant and shift as a literal. The sum of message word and constant, and
// any part of the round function that does not need b (the newest value),
// come first: they run beside the chain of the previous step.
inline void step_f(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, uint32_t k, int s)
{
    a += x + k;
    a += d ^ (b & (c ^ d));
    a = std::rotl(a, s) + b;
}

// (b AND d) OR (c AND NOT d): the two terms have no bit in common, so they
// can be added one by one, the one without b first.
inline void step_g(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, uint32_t k, int s)
{
    a += x + k;
    a += c & ~d;
    a += b & d;
    a = std::rotl(a, s) + b;
}

inline void step_h(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, uint32_t k, int s)
{
    a += x + k;
    a += (c ^ d) ^ b;
    a = std::rotl(a, s) + b;
}

inline void step_i(uint32_t& a, uint32_t b, uint32_t c, uint32_t d, uint32_t x, uint32_t k, int s)
{
    a += x + k;
    a += c ^ (b | ~d);
    a = std::rotl(a, s) + b;
}

// The words are read in place from the caller's bytes; get_le32 compiles to
// a plain load where the byte order allows.
void md5_transform(uint32_t state[4], const uint8_t* in)
{
    auto x = [in](int i) { return get_le32(in + 4 * i); };
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

    step_f(a, b, c, d, x(0), 0xd76aa478, 7);
    step_f(d, a, b, c, x(1), 0xe8c7b756, 12);
    step_f(c, d, a, b, x(2), 0x242070db, 17);
    step_f(b, c, d, a, x(3), 0xc1bdceee, 22);
    step_f(a, b, c, d, x(4), 0xf57c0faf, 7);
    step_f(d, a, b, c, x(5), 0x4787c62a, 12);
    step_f(c, d, a, b, x(6), 0xa8304613, 17);
    step_f(b, c, d, a, x(7), 0xfd469501, 22);
    step_f(a, b, c, d, x(8), 0x698098d8, 7);
    step_f(d, a, b, c, x(9), 0x8b44f7af, 12);
    step_f(c, d, a, b, x(10), 0xffff5bb1, 17);
    step_f(b, c, d, a, x(11), 0x895cd7be, 22);
    step_f(a, b, c, d, x(12), 0x6b901122, 7);
    step_f(d, a, b, c, x(13), 0xfd987193, 12);
    step_f(c, d, a, b, x(14), 0xa679438e, 17);
    step_f(b, c, d, a, x(15), 0x49b40821, 22);

    step_g(a, b, c, d, x(1), 0xf61e2562, 5);
    step_g(d, a, b, c, x(6), 0xc040b340, 9);
    step_g(c, d, a, b, x(11), 0x265e5a51, 14);
    step_g(b, c, d, a, x(0), 0xe9b6c7aa, 20);
    step_g(a, b, c, d, x(5), 0xd62f105d, 5);
    step_g(d, a, b, c, x(10), 0x02441453, 9);
    step_g(c, d, a, b, x(15), 0xd8a1e681, 14);
    step_g(b, c, d, a, x(4), 0xe7d3fbc8, 20);
    step_g(a, b, c, d, x(9), 0x21e1cde6, 5);
    step_g(d, a, b, c, x(14), 0xc33707d6, 9);
    step_g(c, d, a, b, x(3), 0xf4d50d87, 14);
    step_g(b, c, d, a, x(8), 0x455a14ed, 20);
    step_g(a, b, c, d, x(13), 0xa9e3e905, 5);
    step_g(d, a, b, c, x(2), 0xfcefa3f8, 9);
    step_g(c, d, a, b, x(7), 0x676f02d9, 14);
    step_g(b, c, d, a, x(12), 0x8d2a4c8a, 20);

    step_h(a, b, c, d, x(5), 0xfffa3942, 4);
    step_h(d, a, b, c, x(8), 0x8771f681, 11);
    step_h(c, d, a, b, x(11), 0x6d9d6122, 16);
    step_h(b, c, d, a, x(14), 0xfde5380c, 23);
    step_h(a, b, c, d, x(1), 0xa4beea44, 4);
    step_h(d, a, b, c, x(4), 0x4bdecfa9, 11);
    step_h(c, d, a, b, x(7), 0xf6bb4b60, 16);
    step_h(b, c, d, a, x(10), 0xbebfbc70, 23);
    step_h(a, b, c, d, x(13), 0x289b7ec6, 4);
    step_h(d, a, b, c, x(0), 0xeaa127fa, 11);
    step_h(c, d, a, b, x(3), 0xd4ef3085, 16);
    step_h(b, c, d, a, x(6), 0x04881d05, 23);
    step_h(a, b, c, d, x(9), 0xd9d4d039, 4);
    step_h(d, a, b, c, x(12), 0xe6db99e5, 11);
    step_h(c, d, a, b, x(15), 0x1fa27cf8, 16);
    step_h(b, c, d, a, x(2), 0xc4ac5665, 23);

    step_i(a, b, c, d, x(0), 0xf4292244, 6);
    step_i(d, a, b, c, x(7), 0x432aff97, 10);
    step_i(c, d, a, b, x(14), 0xab9423a7, 15);
    step_i(b, c, d, a, x(5), 0xfc93a039, 21);
    step_i(a, b, c, d, x(12), 0x655b59c3, 6);
    step_i(d, a, b, c, x(3), 0x8f0ccc92, 10);
    step_i(c, d, a, b, x(10), 0xffeff47d, 15);
    step_i(b, c, d, a, x(1), 0x85845dd1, 21);
    step_i(a, b, c, d, x(8), 0x6fa87e4f, 6);
    step_i(d, a, b, c, x(15), 0xfe2ce6e0, 10);
    step_i(c, d, a, b, x(6), 0xa3014314, 15);
    step_i(b, c, d, a, x(13), 0x4e0811a1, 21);
    step_i(a, b, c, d, x(4), 0xf7537e82, 6);
    step_i(d, a, b, c, x(11), 0xbd3af235, 10);
    step_i(c, d, a, b, x(2), 0x2ad7d2bb, 15);
    step_i(b, c, d, a, x(9), 0xeb86d391, 21);

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
    put_le32(bits, low);
    put_le32(bits + 4, high);
    size_t left = ctx->byte_count[0] & 63;
    size_t pad_len = left < 56 ? 56 - left : 120 - left;
    static constexpr uint8_t padding[64] = {0x80};
    md5_update_block(ctx, padding, pad_len);
    md5_update_block(ctx, bits, 8);
    for (int i = 0; i < 4; ++i) put_le32(digest + 4 * i, ctx->state[i]);
}
