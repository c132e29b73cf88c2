// Streaming MD5 (RFC 1321) over data that arrives in blocks.
#pragma once
#include <cstddef>
#include <cstdint>

struct md5_context {
    uint32_t byte_count[2];  // bytes fed so far, low word first
    uint32_t state[4];       // A, B, C, D
    uint8_t block[64];       // bytes not yet making up a whole block
};

void md5_init(md5_context* ctx);
void md5_update(md5_context* ctx, const void* data, size_t length);
void md5_final(md5_context* ctx, uint8_t digest[16]);
