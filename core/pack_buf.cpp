#include "core/pack_buf.h"

#include <cstdio>
#include <cstdlib>
#include <new>

pack_buf* pack_buf_alloc(size_t size)
{
    // One block: the record, then its area, so a packet costs one malloc.
    void* block = std::malloc(sizeof(pack_buf) + size);
    if (!block) {
        puts("[MCUIF CORE] Can not allocate pack_buf: No memory");
        return nullptr;
    }
    auto* b = new (block) pack_buf;
    b->head = reinterpret_cast<uint8_t*>(b + 1);
    b->data = b->tail = b->head;
    b->end = b->head + size;
    return b;
}

void pack_buf_free(pack_buf* b)
{
    if (!b) return;
    b->~pack_buf();
    std::free(b);
}
