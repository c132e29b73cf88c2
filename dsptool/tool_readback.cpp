// Read-back queries: the DSP service's answer goes back to the tool whole, in
// one line with the query's name, the answer's length and a 16-bit sum.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/protocol.h"
#include "dsptool/tool_link.h"

namespace {

// One query at a time, on the main thread.
char readback_name[32];
char readback_line[TOOL_BUF_SIZE];

// Stores the name the reply line carries; false when it does not fit.
bool set_name(const char* fmt, int a, int b)
{
    int n = snprintf(readback_name, sizeof readback_name, fmt, a, b);
    return n >= 0 && static_cast<size_t>(n) < sizeof readback_name;
}

int query_line(const char* name, const char* line)
{
    snprintf(readback_name, sizeof readback_name, "%s", name);
    return tool_dsp_cmd(tool_reply_readback, "%s\n", line);
}

// "%d" as scanned: optional white space and sign, digits, within int.
bool scan_int(const char*& s, int& v)
{
    char* end = nullptr;
    errno = 0;
    long n = strtol(s, &end, 10);
    if (end == s || errno == ERANGE || n < INT_MIN || n > INT_MAX) return false;
    v = static_cast<int>(n);
    s = end;
    return true;
}

// "%d_%d" at the offset; numbers out of int count as no numbers.
bool scan_pair(const char* line, size_t offset, int& a, int& b)
{
    const char* s = line + (offset < strlen(line) ? offset : strlen(line));
    if (!scan_int(s, a) || *s != '_') return false;
    ++s;
    return scan_int(s, b);
}

// s4_filter_a_b and s4_bm_a_b; a pair whose name would not fit the stored
// name is refused like one that does not parse.
int query_pair(char* line, size_t offset, const char* name_fmt, const char* cmd_fmt)
{
    int a, b;
    if (!scan_pair(line, offset, a, b) || !set_name(name_fmt, a, b)) {
        printf("[DSPTOOL] unknown command %s\n", line);
        return -1;
    }
    return tool_dsp_cmd(tool_reply_readback, cmd_fmt, a, b);
}

}  // namespace

uint16_t tool_readback_sum(const char* text, size_t length)
{
    uint32_t s = 0;
    for (size_t i = 0; i < length; ++i) s = (static_cast<unsigned char>(text[i]) ^ s) << (i & 7);
    return static_cast<uint16_t>(s);
}

int tool_reply_readback(const char* text, size_t length)
{
    int n = snprintf(readback_line, sizeof readback_line, "%s %d 0x%04x %s", readback_name,
                     static_cast<int>(length), tool_readback_sum(text, length), text);
    // A cut line would carry a length and sum that its text does not match;
    // the tool takes silence as a failed query.
    if (n < 0 || static_cast<size_t>(n) >= sizeof readback_line) {
        printf("[DSPTOOL] response of %zu bytes too long for %s, dropped\n", length, readback_name);
        return -1;
    }
    if_send(reinterpret_cast<uintptr_t>(readback_line), static_cast<size_t>(n));
    return 0;
}

int tool_s2_info(char* line) { return query_line("s2_info", line); }
int tool_s4_md_en(char* line) { return query_line("s4_md_en", line); }
int tool_s4_output(char* line) { return query_line("s4_output", line); }
int tool_s4_mmix_a(char* line) { return query_line("s4_mmix_A", line); }
int tool_s4_mmix_b(char* line) { return query_line("s4_mmix_B", line); }
int tool_s4_mmix_c(char* line) { return query_line("s4_mmix_C", line); }
int tool_s4_volc(char* line) { return query_line("s4_volc", line); }
int tool_s4_headroom(char* line) { return query_line("s4_headroom", line); }
int tool_s4_delay(char* line) { return query_line("s4_delay", line); }
int tool_s4_truvol(char* line) { return query_line("s4_truvol", line); }
int tool_s4_virtualx(char* line) { return query_line("s4_virtualx", line); }
int tool_s4_mcd(char* line) { return query_line("s4_mcd", line); }
int tool_s4_mode(char* line) { return query_line("s4_mode", line); }
int tool_s4_audinfo(char* line) { return query_line("s4_audinfo", line); }
int tool_s4_prf(char* line) { return query_line("s4_prf", line); }

int tool_s4_filter(char*)
{
    snprintf(readback_name, sizeof readback_name, "s4_filter");
    return tool_dsp_cmd(tool_reply_readback, "dsp s4_filter 0\n");
}

int tool_s4_drc(char* line)
{
    // Nothing is tested: a number that does not parse queries 0.
    long n = strtol(line + strlen("dsp s4_drc_"), nullptr, 10);
    int v = n < INT_MIN ? INT_MIN : n > INT_MAX ? INT_MAX : static_cast<int>(n);
    set_name("s4_drc_%d", v, 0);
    return tool_dsp_cmd(tool_reply_readback, "dsp s4_drc %d\n", v);
}

int tool_s4_filter_n(char* line)
{
    return query_pair(line, strlen("dsp s4_filter_"), "s4_filter_%d_%d", "dsp s4_filter %d %d\n");
}

int tool_s4_bm(char* line)
{
    return query_pair(line, strlen("dsp s4_bm_"), "s4_bm_%d_%d", "dsp s4_bm %d %d\n");
}
