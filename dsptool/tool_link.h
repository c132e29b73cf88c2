// Tool link on /dev/ttyS2: what reception, the tuning lines, the read-back
// queries and the file transfer share.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/pack_buf.h"

inline constexpr size_t TOOL_BUF_SIZE = 3072;
// Lead, kind, command and two length bytes in front, the checksum behind.
inline constexpr size_t TOOL_FRAME_OVERHEAD = 7;
inline constexpr size_t TOOL_FRAME_DATA_MAX = TOOL_BUF_SIZE - TOOL_FRAME_OVERHEAD;  // 3065
inline constexpr size_t TOOL_WORD_SIZE = 64;

// The one buffer of the link, for both directions (made by tool_init).
extern pack_buf* tool_buf;

struct tool_frame {
    uint8_t kind;
    uint8_t command;
    uint16_t length;
    uint8_t* data;  // inside tool_buf
    uint8_t checksum;
};

using tool_text_handler = int (*)(char* line);
using tool_frame_handler = int (*)(tool_frame* frame);
using tool_reply_fn = int (*)(const char* text, size_t length);

struct tool_cmd {
    const char* pattern;
    tool_text_handler handler;
};

// Protocol slots.
int tool_init();
int tool_exit();
pack_buf* tool_recv();
pack_buf* tool_pack(uintptr_t bytes, uintptr_t length);
int tool_parse(pack_buf* b);

// Wildcard match of a command word: "." takes one character, "*" one or more.
bool tool_match(const char* pattern, const char* word);
// Second word of a text line into word (TOOL_WORD_SIZE bytes). 0 when the line
// is valid, -1 when invalid, -2 when the word is too long for the buffer.
int tool_line_word(const char* line, char* word);

// One request to the DSP service and its response through cb, under the
// exchange lock between processes (dsp_exchange).
int tool_dsp_cmd(tool_reply_fn cb, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int tool_reply_ok(const char* text, size_t length);

uint8_t tool_frame_sum(const tool_frame* frame);
int tool_frame_check(const tool_frame* frame);
int tool_frame_reply(uint8_t code, uint8_t status);

// Checked tuning lines.
int tool_output(char* line);
int tool_matrix(char* line);
int tool_vol(char* line);
int tool_headroom(char* line);
int tool_delay(char* line);
int tool_drc(char* line);
int tool_filter(char* line);
int tool_truvol(char* line);
int tool_virtualx(char* line);
int tool_atmos(char* line);
int tool_bm(char* line);
int tool_send_checked(char* line);

// F field as the checksum counts it: toward zero, saturated, NaN as 0.
int32_t tool_float_to_field(float f);
// XOR of the fields, field i shifted left by 2 * (i & 15).
uint32_t tool_tuning_sum(const int32_t* values, size_t count);
// Scans the line of tuning command `name` by its grammar. 0 with the computed
// checksum and the K received, -1 when a field is missing or malformed.
int tool_tuning_check(std::string_view name, const char* line, uint32_t* computed,
                      uint32_t* received);

// Read-back queries.
int tool_s2_info(char* line);
int tool_s4_md_en(char* line);
int tool_s4_output(char* line);
int tool_s4_mmix_a(char* line);
int tool_s4_mmix_b(char* line);
int tool_s4_mmix_c(char* line);
int tool_s4_volc(char* line);
int tool_s4_headroom(char* line);
int tool_s4_delay(char* line);
int tool_s4_drc(char* line);
int tool_s4_filter(char* line);
int tool_s4_filter_n(char* line);
int tool_s4_truvol(char* line);
int tool_s4_virtualx(char* line);
int tool_s4_mcd(char* line);
int tool_s4_bm(char* line);
int tool_s4_mode(char* line);
int tool_s4_audinfo(char* line);
int tool_s4_prf(char* line);
uint16_t tool_readback_sum(const char* text, size_t length);
int tool_reply_readback(const char* text, size_t length);

// Configuration file transfer, slots 1 to 3 of the frame handlers.
int tool_data_chunk(tool_frame* frame);
int tool_start_send_data(tool_frame* frame);
int tool_end_send_data(tool_frame* frame);
// A received file name may be stored only if it stays inside its directory.
bool tool_file_name_ok(std::string_view name);
