// Packet buffer: one heap block holding this record followed by its byte area.
#pragma once
#include <cstddef>
#include <cstdint>

struct pack_buf {
    uint8_t* head;  // first byte of the area; never moves
    uint8_t* data;  // first byte of the packet
    uint8_t* tail;  // one past the last byte of the packet
    uint8_t* end;   // one past the area; never moves
};

// Null (after a log line) when the heap refuses.
pack_buf* pack_buf_alloc(size_t size);
void pack_buf_free(pack_buf* b);

inline size_t pack_buf_len(const pack_buf* b) { return static_cast<size_t>(b->tail - b->data); }
inline size_t pack_buf_room(const pack_buf* b) { return static_cast<size_t>(b->end - b->tail); }

inline void pack_buf_reset(pack_buf* b) { b->data = b->tail = b->head; }

// On an empty buffer: leaves n bytes of head room. Clamped to the area.
inline void pack_buf_reserve(pack_buf* b, size_t n)
{
    if (n > static_cast<size_t>(b->end - b->data)) n = static_cast<size_t>(b->end - b->data);
    b->data += n;
    b->tail = b->data;
}

// Each of the four returns null and leaves the packet as it was when n
// passes the bound.
inline uint8_t* pack_buf_put(pack_buf* b, size_t n)
{
    if (n > static_cast<size_t>(b->end - b->tail)) return nullptr;
    uint8_t* old = b->tail;
    b->tail += n;
    return old;
}

inline uint8_t* pack_buf_push(pack_buf* b, size_t n)
{
    if (n > static_cast<size_t>(b->data - b->head)) return nullptr;
    b->data -= n;
    return b->data;
}

inline uint8_t* pack_buf_pull(pack_buf* b, size_t n)
{
    if (n > static_cast<size_t>(b->tail - b->data)) return nullptr;
    uint8_t* old = b->data;
    b->data += n;
    return old;
}

inline uint8_t* pack_buf_trim(pack_buf* b, size_t n)
{
    if (n > static_cast<size_t>(b->tail - b->data)) return nullptr;
    b->tail -= n;
    return b->tail;
}
