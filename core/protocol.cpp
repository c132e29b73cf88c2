#include "core/protocol.h"

#include <cstdio>

#include "core/serial.h"

namespace {
if_protocol* registry_head = nullptr;
if_protocol* registry_current = nullptr;
}  // namespace

int protocol_register(if_protocol* p)
{
    if_protocol** link = &registry_head;
    for (; *link; link = &(*link)->next) {
        if ((*link)->id == p->id) {
            puts("[MCUIF CORE] protocol with same id has been registered");
            return -17;
        }
    }
    p->next = nullptr;
    *link = p;
    return 0;
}

int protocol_select(int id)
{
    for (if_protocol* p = registry_head; p; p = p->next) {
        if (p->id == id) {
            registry_current = p;
            return 0;
        }
    }
    return -22;
}

if_protocol* protocol_current() { return registry_current; }

void protocol_reset()
{
    registry_head = nullptr;
    registry_current = nullptr;
}

int protocol_register_all()
{
    if (protocol_register(&dsptool_protocol) != 0)
        puts("[MCUIF CORE] failed to register dsptool_protocol");
    int r = protocol_register(&mcu_vmb_protocol);
    if (r != 0) puts("[MCUIF CORE] failed to register mcu_vmb_protocol");
    return r;
}

ssize_t if_send(uintptr_t a, uintptr_t b)
{
    if_protocol* p = protocol_current();
    if (!p) return -22;
    pack_buf* buf = p->pack(a, b);
    if (!buf) return -12;
    // One write keeps a frame whole beside the frames of other threads.
    ssize_t r = serial_write(buf->data, pack_buf_len(buf));
    if (p->free) p->free(buf);
    return r;
}

void if_poll()
{
    if_protocol* p = protocol_current();
    if (!p) return;
    pack_buf* buf = p->recv();
    if (!buf) return;
    p->parse(buf);
    if (p->free) p->free(buf);
}
