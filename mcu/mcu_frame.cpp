#include "mcu/mcu_frame.h"

#include <cstdio>
#include <cstring>

#include "core/protocol.h"
#include "core/serial.h"
#include "mcu/handlers.h"
#include "mcu/mcu_state.h"

const mcu_handler mcu_handler_table[16] = {
    nullptr,                    // 0
    nullptr,                    // 1
    handler_mix_mode,           // 2
    handler_system_word,        // 3
    handler_delay,              // 4
    handler_vol,                // 5
    handler_atmos,              // 6
    nullptr,                    // 7
    handler_bm,                 // 8
    handler_music_play,         // 9
    handler_record_control,     // 10
    handler_dtsx,               // 11
    nullptr,                    // 12
    nullptr,                    // 13
    handler_ota_control,        // 14
    handler_udisk_upg_control,  // 15
};

uint8_t mcu_check_digit(std::span<const uint8_t> bytes)
{
    unsigned s = 0;
    for (uint8_t b : bytes) s = (s + b) & 0xFF;
    return static_cast<uint8_t>(((s + (s >> 4)) & 15) + 0x30);
}

namespace {
pack_buf* recv_failed(pack_buf* b)
{
    puts("[MCU IF] read error!");
    pack_buf_free(b);
    return nullptr;
}
}  // namespace

pack_buf* mcu_recv()
{
    uint8_t byte = 0;
    // Hunt for the lead byte; anything else is dropped silently. A hung-up
    // port never comes back from serial_read_live: 0 bytes is a second
    // without data on a port left at VMIN 0 by a failed firmware handshake,
    // and the wait loop waits for the next byte.
    for (;;) {
        ssize_t r = serial_read_live(&byte, 1);
        if (r < 0) return recv_failed(nullptr);
        if (r == 0) return nullptr;
        if (byte == MCU_LEAD) break;
    }
    uint8_t len = 0;
    ssize_t r = serial_read_live(&len, 1);
    if (r == 0) return nullptr;
    if (r != 1 || len == 0) return recv_failed(nullptr);

    pack_buf* b = pack_buf_alloc(MCU_BUF_SIZE);
    if (!b) {
        puts("[MCU IF] failed to allocate packet buffer");
        return nullptr;
    }
    // Handlers read fixed offsets; bytes the MCU did not send read as zero.
    memset(b->head, 0, MCU_BUF_SIZE);
    uint8_t* p = pack_buf_put(b, 2);
    p[0] = MCU_LEAD;
    p[1] = len;
    uint8_t* rest = pack_buf_put(b, len - 1u);
    size_t want = len - 1u, got = 0;
    for (;;) {
        ssize_t r = serial_read_live(rest + got, want - got);
        if (r < 0) return recv_failed(b);
        got += static_cast<size_t>(r);
        // At VMIN 0 a read gives what has come so far: read on until the
        // frame is whole or a second passes without data. Otherwise one
        // read is all, and a short frame reads as zeros behind its end.
        if (r == 0 || got == want || !serial_vmin_zero()) break;
    }
    return b;
}

pack_buf* mcu_pack(uintptr_t frame, uintptr_t)
{
    const auto* f = reinterpret_cast<const mcu_out_frame*>(frame);
    pack_buf* b = pack_buf_alloc(MCU_BUF_SIZE);
    if (!b) {
        puts("[MCU IF] failed to allocate packet buffer");
        return nullptr;
    }
    size_t n = f->length > MCU_PAYLOAD_MAX ? MCU_PAYLOAD_MAX : f->length;
    pack_buf_reserve(b, 1);
    *pack_buf_put(b, 1) = static_cast<uint8_t>(n + 3);
    *pack_buf_put(b, 1) = f->command;
    if (n) memcpy(pack_buf_put(b, n), f->payload, n);
    uint8_t digit = mcu_check_digit({b->data, pack_buf_len(b)});
    *pack_buf_put(b, 1) = digit;
    *pack_buf_push(b, 1) = MCU_LEAD;
    return b;
}

void mcu_free(pack_buf* b) { pack_buf_free(b); }

int mcu_parse_with(pack_buf* b, std::span<const mcu_handler, 16> table)
{
    pack_buf_pull(b, 1);
    const uint8_t* digit = pack_buf_trim(b, 1);
    if (!digit || mcu_check_digit({b->data, pack_buf_len(b)}) != *digit) {
        puts("[MCU IF] Wrong checksum, data may be corrupted");
        return -84;
    }
    const uint8_t* len = pack_buf_pull(b, 1);
    const uint8_t* cmd = pack_buf_pull(b, 1);
    if (!len || !cmd) {
        // L = 2 with a matching digit: a frame without a command byte.
        puts("[MCU IF] frame without command dropped");
        return -1;
    }
    if (*cmd > 15) {
        printf("[MCU IF] ERROR: INVALID command %u", static_cast<unsigned>(*cmd));
        fflush(stdout);
        return -1;
    }
    mcu_handler h = table[*cmd];
    if (!h) return -1;
    return h(b->data, static_cast<uint8_t>(*len - 3));
}

int mcu_parse(pack_buf* b) { return mcu_parse_with(b, std::span<const mcu_handler, 16>(mcu_handler_table)); }

long mcu_send(uint8_t command, const uint8_t* payload, uint8_t length)
{
    mcu_out_frame f{command, payload, length};
    return mcu_if_send(reinterpret_cast<uintptr_t>(&f));
}
