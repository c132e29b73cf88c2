// MCU frames on /dev/ttyS1: FF, L, command, L-3 payload bytes, check digit.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

#include "core/pack_buf.h"

inline constexpr uint8_t MCU_LEAD = 0xFF;
inline constexpr size_t MCU_BUF_SIZE = 512;
inline constexpr size_t MCU_PAYLOAD_MAX = 252;

// Report ids sent to the MCU.
inline constexpr uint8_t MCU_RPT_RECORD = 0x20;
inline constexpr uint8_t MCU_RPT_AUDIO = 0x21;
inline constexpr uint8_t MCU_RPT_OTA = 0x23;
inline constexpr uint8_t MCU_RPT_UDISK = 0x24;

struct mcu_out_frame {
    uint8_t command;
    const uint8_t* payload;  // copied by mcu_pack
    uint8_t length;          // at most 252
};

using mcu_handler = int (*)(const uint8_t* payload, uint8_t length);
extern const mcu_handler mcu_handler_table[16];

// Check digit over the length byte, command and payload.
uint8_t mcu_check_digit(std::span<const uint8_t> bytes);

pack_buf* mcu_recv();
pack_buf* mcu_pack(uintptr_t frame, uintptr_t unused);
void mcu_free(pack_buf* b);
int mcu_parse(pack_buf* b);
// mcu_parse against any table of 16 slots.
int mcu_parse_with(pack_buf* b, std::span<const mcu_handler, 16> table);

// Sends one frame through if_send; the result of if_send.
long mcu_send(uint8_t command, const uint8_t* payload, uint8_t length);
