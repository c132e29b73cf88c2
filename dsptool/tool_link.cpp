// Tool link on /dev/ttyS2: reception, dispatch and the call into the DSP service.
#include "dsptool/tool_link.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/dsp_queue.h"
#include "core/protocol.h"
#include "core/serial.h"

pack_buf* tool_buf = nullptr;

namespace {

dsp_message tool_msg;
int tool_msqid = -1;

// First matching row wins, so the order counts.
constexpr std::array<tool_cmd, 31> tool_cmd_table{{
    {"output", tool_output},
    {"matrix", tool_matrix},
    {"vol", tool_vol},
    {"headroom", tool_headroom},
    {"delay", tool_delay},
    {"drc", tool_drc},
    {"filter", tool_filter},
    {"truvol", tool_truvol},
    {"virtualx", tool_virtualx},
    {"s2_info", tool_s2_info},
    {"s4_md_en", tool_s4_md_en},
    {"s4_output", tool_s4_output},
    {"s4_mmix_A", tool_s4_mmix_a},
    {"s4_mmix_B", tool_s4_mmix_b},
    {"s4_mmix_C", tool_s4_mmix_c},
    {"s4_volc", tool_s4_volc},
    {"s4_headroom", tool_s4_headroom},
    {"s4_delay", tool_s4_delay},
    {"s4_drc_*", tool_s4_drc},
    {"s4_filter", tool_s4_filter},
    {"s4_filter_*", tool_s4_filter_n},
    {"s4_truvol", tool_s4_truvol},
    {"s4_virtualx", tool_s4_virtualx},
    {"s4_mcd", tool_s4_mcd},
    {"s4_bm_*", tool_s4_bm},
    {"s4_mode", tool_s4_mode},
    {"s4_audinfo", tool_s4_audinfo},
    {"s4_prf", tool_s4_prf},
    {"atmos", tool_atmos},
    {"bm", tool_bm},
    {nullptr, nullptr},
}};

// Indexed by the frame's command byte.
constexpr std::array<tool_frame_handler, 4> tool_frame_handlers{
    nullptr, tool_data_chunk, tool_start_send_data, tool_end_send_data};

// Reads on at tail until the input holds n bytes; n must fit the buffer.
// There is no time limit: the tool sends a frame whole.
bool tool_fill(pack_buf* b, size_t n)
{
    while (pack_buf_len(b) < n) {
        ssize_t r = serial_read_live(b->tail, pack_buf_room(b));
        // A hung-up port never comes back from serial_read_live; an error
        // ends the frame, and 0 bytes (VMIN 0) is only no data yet.
        if (r == 0) continue;
        if (r < 0) {
            puts("[DSPTOOL] read error!");
            return false;
        }
        pack_buf_put(b, static_cast<size_t>(r));
    }
    return true;
}

// A frame longer than tool_buf is read to its announced end and dropped, so
// its data cannot be taken for the next input; a transfer command is told it
// failed, so the tool does not wait for ever.
int tool_drop_long_frame(pack_buf* b, size_t total, uint8_t command)
{
    size_t seen = pack_buf_len(b);
    while (seen < total) {
        pack_buf_reset(b);
        size_t want = total - seen < TOOL_BUF_SIZE ? total - seen : TOOL_BUF_SIZE;
        ssize_t r = serial_read_live(b->data, want);
        if (r == 0) continue;
        if (r < 0) {
            puts("[DSPTOOL] read error!");
            return -1;
        }
        seen += static_cast<size_t>(r);
    }
    printf("[DSPTOOL] data frame of %zu bytes is too long, dropped\n", total);
    if (command >= tool_frame_handlers.size() || !tool_frame_handlers[command]) {
        printf("[DSPTOOL] invalid data transfer cmd %d\n", command);
        return -1;
    }
    tool_frame_reply(static_cast<uint8_t>(command | 0x80), 1);
    return -1;
}

int tool_parse_frame(pack_buf* b)
{
    if (!tool_fill(b, 6)) return -1;
    const uint8_t* p = b->data;
    size_t length = static_cast<size_t>(p[4] | (p[5] << 8));
    uint8_t command = p[3];
    if (length > TOOL_FRAME_DATA_MAX)
        return tool_drop_long_frame(b, length + TOOL_FRAME_OVERHEAD, command);
    if (!tool_fill(b, length + TOOL_FRAME_OVERHEAD)) return -1;

    p = b->data;
    tool_frame frame{p[2], command, static_cast<uint16_t>(length), b->data + 6, p[6 + length]};
    if (command >= tool_frame_handlers.size() || !tool_frame_handlers[command]) {
        printf("[DSPTOOL] invalid data transfer cmd %d\n", command);
        return -1;
    }
    return tool_frame_handlers[command](&frame);
}

int tool_parse_text(pack_buf* b)
{
    // The last byte of an input ends the line, whatever it is.
    uint8_t* last = pack_buf_trim(b, 1);
    if (!last) return 0;  // an empty input holds nothing to parse
    *last = '\0';
    char* line = reinterpret_cast<char*>(b->data);

    char word[TOOL_WORD_SIZE];
    // A word too long for its buffer is no command word: treated as invalid.
    if (tool_line_word(line, word) != 0) {
        printf("[DSPTOOL] invalid command: %s\n", line);
        return -1;
    }
    for (const tool_cmd* row = tool_cmd_table.data(); row->pattern; ++row)
        if (tool_match(row->pattern, word)) return row->handler(line);
    printf("[DSPTOOL] unknown command: %s\n", line);
    return -1;
}

}  // namespace

int tool_init()
{
    tool_buf = pack_buf_alloc(TOOL_BUF_SIZE);
    if (!tool_buf) return -12;
    tool_msqid = dsp_queue_attach();
    if (tool_msqid < 0) {
        puts("[DSPTOOL] Cannot get the message queue");
        return -1;
    }
    return 0;
}

int tool_exit()
{
    pack_buf_free(tool_buf);
    tool_buf = nullptr;
    return 0;
}

pack_buf* tool_recv()
{
    pack_buf_reset(tool_buf);
    ssize_t r = serial_read_live(tool_buf->data, TOOL_BUF_SIZE);
    if (r < 0) {
        puts("[DSPTOOL] read error!");
        return nullptr;
    }
    pack_buf_put(tool_buf, static_cast<size_t>(r));
    return tool_buf;
}

pack_buf* tool_pack(uintptr_t bytes, uintptr_t length)
{
    pack_buf_reset(tool_buf);
    if (length <= TOOL_BUF_SIZE) {
        memmove(tool_buf->data, reinterpret_cast<const void*>(bytes), length);
        pack_buf_put(tool_buf, length);
    }
    return tool_buf;
}

int tool_parse(pack_buf* b)
{
    size_t n = pack_buf_len(b);
    if (n >= 3 && !memcmp(b->data, "mon", 3)) {
        static const char probe_reply[] = "MN>";
        return static_cast<int>(if_send(reinterpret_cast<uintptr_t>(probe_reply), 3));
    }
    if (n >= 2 && b->data[0] == 0x55 && b->data[1] == 0xAA) return tool_parse_frame(b);
    return tool_parse_text(b);
}

int tool_line_word(const char* line, char* word)
{
    const char* blank = strchr(line, ' ');
    if (!blank) return -1;
    const char* start = blank + 1;
    const char* next = strchr(start, ' ');
    // Without a further blank the word is the rest of the line less its last
    // character, which the tool's line end is expected to be.
    ptrdiff_t len = next ? next - start : static_cast<ptrdiff_t>(strlen(start)) - 1;
    if (strncmp(line, "dsp", 3) != 0 || len < 1) return -1;
    if (len >= static_cast<ptrdiff_t>(TOOL_WORD_SIZE)) return -2;
    memcpy(word, start, static_cast<size_t>(len));
    word[len] = '\0';
    return 0;
}

bool tool_match(const char* pattern, const char* word)
{
    const char* p = pattern;
    const char* w = word;
    for (;;) {
        if (!*w) return !*p;
        if (!*p) return false;
        if (*p == '.') {
            ++p;
            ++w;
        } else if (*p == '*') {
            if (!p[1]) return true;
            while ((static_cast<unsigned char>(*p) & 0xFB) == 0x2A) ++p;  // "*" and "."
            // No backtracking: the first occurrence is the only one tried.
            // strchr finds the word's end when the pattern has ended.
            w = strchr(w, *p);
            if (!w) return false;
        } else {
            if (*p != *w) return false;
            ++p;
            ++w;
        }
    }
}

int tool_dsp_cmd(tool_reply_fn cb, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    size_t size = dsp_format_request(tool_msg, fmt, ap);
    va_end(ap);
    // Unlike the MCU link's, an interrupted call is not made again.
    switch (dsp_exchange(tool_msqid, tool_msg, size, false)) {
    case dsp_step::send_failed:
        puts("[DSPTOOL] send dsp command failed");
        return -1;
    case dsp_step::receive_failed:
        puts("[DSPTOOL] receive dsp command response failed");
        return -1;
    case dsp_step::done:
        break;
    }
    return cb(tool_msg.text, strlen(tool_msg.text));
}

int tool_reply_ok(const char* text, size_t)
{
    if (!strcmp(text, "[ok]")) {
        puts("[DSPTOOL] command succeed");
        return 0;
    }
    puts("[DSPTOOL] command failed");
    return -1;
}

uint8_t tool_frame_sum(const tool_frame* frame)
{
    uint8_t sum = 0xFF ^ frame->kind ^ frame->command ^ static_cast<uint8_t>(frame->length) ^
                  static_cast<uint8_t>(frame->length >> 8);
    for (size_t i = 0; i < frame->length; ++i) sum ^= frame->data[i];
    return sum;
}

int tool_frame_check(const tool_frame* frame)
{
    uint8_t sum = tool_frame_sum(frame);
    if (sum == frame->checksum) return 0;
    printf("[DSPTOOL] data checksum is wrong. received checksum = %02x, calculated checksum = %02x\n",
           frame->checksum, sum);
    return -1;
}

int tool_frame_reply(uint8_t code, uint8_t status)
{
    const uint8_t reply[8] = {0x55, 0xAA, 0x01, code, 0x01, 0x00, status,
                              static_cast<uint8_t>(0xFF ^ code ^ status)};
    return static_cast<int>(if_send(reinterpret_cast<uintptr_t>(reply), sizeof reply));
}

if_protocol dsptool_protocol = {
    nullptr, PROTO_DSPTOOL, tool_init, tool_exit, tool_recv, tool_pack, nullptr, tool_parse,
};
