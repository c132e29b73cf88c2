// The descriptor of a link protocol, the registry with one current entry,
// and the two pumps that every link runs through.
#pragma once
#include <cstdint>
#include <sys/types.h>

#include "core/pack_buf.h"

struct if_protocol {
    if_protocol* next;
    int id;                                    // 1 tool link, 2 MCU link
    int (*init)();
    int (*exit)();
    pack_buf* (*recv)();                       // null: nothing to parse
    pack_buf* (*pack)(uintptr_t a, uintptr_t b);
    void (*free)(pack_buf* b);                 // may be null
    int (*parse)(pack_buf* b);
};

inline constexpr int PROTO_DSPTOOL = 1;
inline constexpr int PROTO_MCU = 2;

int protocol_register(if_protocol* p);
int protocol_select(int id);
if_protocol* protocol_current();
int protocol_register_all();
// Empties the registry; only tests take a process through start-up twice.
void protocol_reset();

// Pack through the current protocol, one serial_write, release.
ssize_t if_send(uintptr_t a, uintptr_t b);
// One pass of receive, parse, release.
void if_poll();

// The two link descriptors, defined by their links.
extern if_protocol dsptool_protocol;
extern if_protocol mcu_vmb_protocol;
