// Checked tuning lines: each ends in a checksum K over its numeric fields,
// rebuilt here before the line (less K) goes to the DSP service.
#include <array>
#include <charconv>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/protocol.h"
#include "dsptool/tool_link.h"

namespace {

// Kinds of the fields before K, one letter each: 'I' signed 32 bits, 'F' float,
// 'U' unsigned 32 bits. A final '+' stands for any number of further F fields.
using row_kinds = const char*;

// The fields of a line, split at blanks, K excluded.
struct field_list {
    const char* begin;  // scan offset
    const char* stop;   // the last blank: K lies behind it

    // The field at p, moving p behind it; false when none is left.
    bool next(const char*& p, std::string_view& out) const
    {
        while (p < stop && *p == ' ') ++p;
        if (p >= stop) return false;
        const char* e = p;
        while (e < stop && *e != ' ') ++e;
        out = std::string_view(p, static_cast<size_t>(e - p));
        p = e;
        return true;
    }

    bool text(size_t i, std::string_view& out) const
    {
        const char* p = begin;
        for (size_t n = 0; next(p, out); ++n)
            if (n == i) return true;
        return false;
    }
};

bool parse_int(std::string_view t, int32_t& v)
{
    if (!t.empty() && t[0] == '+') {
        t.remove_prefix(1);
        if (!t.empty() && t[0] == '-') return false;
    }
    if (t.empty() || t[0] == '+') return false;
    auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v, 10);
    return ec == std::errc() && end == t.data() + t.size();
}

bool parse_unsigned(std::string_view t, uint32_t& v)
{
    if (!t.empty() && t[0] == '+') t.remove_prefix(1);
    if (t.empty() || t[0] == '+' || t[0] == '-') return false;
    auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), v, 10);
    return ec == std::errc() && end == t.data() + t.size();
}

// The field ends at a blank, which stops strtof inside the line.
bool parse_float(std::string_view t, float& v)
{
    if (t.empty() || isspace(static_cast<unsigned char>(t[0]))) return false;
    char* end = nullptr;
    v = strtof(t.data(), &end);
    return end == t.data() + t.size();
}

// K: hexadecimal, "0x" allowed; behind it only white space (a CR of the line end).
bool parse_k(const char* s, uint32_t& v)
{
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && isxdigit(static_cast<unsigned char>(s[2])))
        s += 2;
    const char* e = s + strlen(s);
    auto [end, ec] = std::from_chars(s, e, v, 16);
    if (ec != std::errc() || end == s) return false;
    for (const char* p = end; p < e; ++p)
        if (!isspace(static_cast<unsigned char>(*p))) return false;
    return true;
}

bool field_int(const field_list& f, size_t i, int32_t& v)
{
    std::string_view t;
    return f.text(i, t) && parse_int(t, v);
}

bool in(int32_t v, std::initializer_list<int32_t> set)
{
    for (int32_t s : set)
        if (v == s) return true;
    return false;
}

// Row choosers: null when a selector field is missing.
row_kinds bm_row(const field_list& f)
{
    int32_t sel;
    if (!field_int(f, 1, sel)) return nullptr;
    if (in(sel, {0, 1, 4, 5, 6, 7})) return "IIIII";
    if (in(sel, {2, 3})) return "IIIFI";
    if (sel == 9) return "III+";
    return "III";
}

row_kinds atmos_row(const field_list& f)
{
    int32_t sel, second;
    if (!field_int(f, 0, sel)) return nullptr;
    if (sel == 12) return "I";
    if (sel == 7 || sel == 9) return "III";
    if (sel == 8) {
        if (!field_int(f, 1, second)) return nullptr;
        return (second == 1 || second == 2) ? "IIF" : "III";
    }
    return "II";
}

row_kinds virtualx_row(const field_list& f)
{
    int32_t sel;
    if (!field_int(f, 0, sel)) return nullptr;
    bool real = (sel >= 3 && sel <= 5) || (sel >= 28 && sel <= 55) || (sel >= 72 && sel <= 90);
    return real ? "IF" : "II";
}

row_kinds truvol_row(const field_list& f)
{
    int32_t sel;
    if (!field_int(f, 0, sel)) return nullptr;
    return (sel == 1 || sel == 2) ? "IF" : "II";
}

row_kinds filter_row(const field_list& f)
{
    int32_t sel;
    if (!field_int(f, 1, sel)) return nullptr;
    if (sel == 12) return "III+";
    if (sel == 10 || sel == 11) return "III";
    return "IIIFI";
}

row_kinds drc_row(const field_list& f)
{
    int32_t sel;
    if (!field_int(f, 0, sel)) return nullptr;
    return sel == 8 ? "II" : "IIF";
}

row_kinds matrix_row(const field_list& f)
{
    int32_t sel;
    if (!field_int(f, 0, sel)) return nullptr;
    return in(sel, {16, 17, 18}) ? "II" : "IIII";
}

row_kinds delay_row(const field_list&) { return "II"; }
row_kinds real_row(const field_list&) { return "IF"; }  // headroom, vol
row_kinds output_row(const field_list&) { return "U"; }

struct tuning_cmd {
    std::string_view name;
    size_t offset;  // "dsp", the word and two blanks
    row_kinds (*row)(const field_list&);
};

constexpr std::array<tuning_cmd, 11> tuning_cmds{{
    {"bm", 7, bm_row},
    {"atmos", 10, atmos_row},
    {"virtualx", 13, virtualx_row},
    {"truvol", 11, truvol_row},
    {"filter", 11, filter_row},
    {"drc", 8, drc_row},
    {"matrix", 11, matrix_row},
    {"delay", 10, delay_row},
    {"headroom", 13, real_row},
    {"vol", 8, real_row},
    {"output", 11, output_row},
}};

// Scans the fields by their kinds and folds them into the checksum as it goes,
// so a row of any number of F fields needs no storage.
int tuning_check(const tuning_cmd& cmd, const char* line, uint32_t* computed, uint32_t* received)
{
    *computed = 0;
    *received = 0;
    size_t len = strlen(line);
    const char* last_blank = strrchr(line, ' ');
    if (!last_blank) return -1;
    // K is the last word. Anything between the fields and it would reach the
    // DSP service unchecked, so the fields must end right at that blank.
    field_list f{line + (cmd.offset < len ? cmd.offset : len), last_blank};
    if (f.stop < f.begin) f.stop = f.begin;
    if (last_blank + 1 < f.begin || !parse_k(last_blank + 1, *received)) return -1;

    row_kinds kinds = cmd.row(f);
    if (!kinds) return -1;
    uint32_t sum = 0;
    const char* p = f.begin;
    const char* k = kinds;
    for (size_t i = 0;; ++i) {
        std::string_view t;
        bool have = f.next(p, t);
        char kind = *k;
        if (kind == '\0') {
            if (have) return -1;  // more fields than the row holds
            break;
        }
        if (kind == '+') {
            if (!have) break;
            kind = 'F';
        } else {
            ++k;
            if (!have) return -1;
        }
        int32_t v = 0;
        if (kind == 'I') {
            if (!parse_int(t, v)) return -1;
        } else if (kind == 'U') {
            uint32_t u;
            if (!parse_unsigned(t, u)) return -1;
            v = static_cast<int32_t>(u);
        } else {
            float x;
            if (!parse_float(t, x)) return -1;
            v = tool_float_to_field(x);
        }
        sum ^= static_cast<uint32_t>(v) << (2 * (i & 15));
    }
    *computed = sum;
    return 0;
}

int tuning_fail()
{
    static const char fail[] = "[fail]";
    if_send(reinterpret_cast<uintptr_t>(fail), sizeof fail);
    return -1;
}

int tuning_handle(std::string_view name, char* line)
{
    uint32_t computed = 0, received = 0;
    if (tool_tuning_check(name, line, &computed, &received) == 0 && computed == received)
        return tool_send_checked(line);
    // output logs the K it received; drc cuts K before its comparison, so
    // its log shows the line without it.
    if (name == "drc") *strrchr(line, ' ') = '\0';
    printf("[DSPTOOL] wrong checksum 0x%x for: %s\n", name == "output" ? received : computed, line);
    return tuning_fail();
}

}  // namespace

int32_t tool_float_to_field(float f)
{
    if (std::isnan(f)) return 0;
    if (f >= 2147483648.0f) return INT32_MAX;
    if (f <= -2147483648.0f) return INT32_MIN;
    return static_cast<int32_t>(f);
}

uint32_t tool_tuning_sum(const int32_t* values, size_t count)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < count; ++i) sum ^= static_cast<uint32_t>(values[i]) << (2 * (i & 15));
    return sum;
}

int tool_tuning_check(std::string_view name, const char* line, uint32_t* computed,
                      uint32_t* received)
{
    for (const auto& c : tuning_cmds)
        if (c.name == name) return tuning_check(c, line, computed, received);
    return -1;
}

int tool_send_checked(char* line)
{
    char* blank = strrchr(line, ' ');
    if (blank) *blank = '\0';
    if (tool_dsp_cmd(tool_reply_ok, "%s\n", line) != 0) return tuning_fail();
    static const char ok[] = "[ok]";
    if_send(reinterpret_cast<uintptr_t>(ok), sizeof ok);
    return 0;
}

int tool_output(char* line) { return tuning_handle("output", line); }
int tool_matrix(char* line) { return tuning_handle("matrix", line); }
int tool_vol(char* line) { return tuning_handle("vol", line); }
int tool_headroom(char* line) { return tuning_handle("headroom", line); }
int tool_delay(char* line) { return tuning_handle("delay", line); }
int tool_drc(char* line) { return tuning_handle("drc", line); }
int tool_filter(char* line) { return tuning_handle("filter", line); }
int tool_truvol(char* line) { return tuning_handle("truvol", line); }
int tool_virtualx(char* line) { return tuning_handle("virtualx", line); }
int tool_atmos(char* line) { return tuning_handle("atmos", line); }
int tool_bm(char* line) { return tuning_handle("bm", line); }
