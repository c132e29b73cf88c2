// The tool link's tuning grammar and checksum, the read-back sum, command
// word matching and file names.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "dsptool/tool_link.h"

TEST(ToolTuning, GrammarAndChecksum)
{
    // sum: the computed checksum, -1 when the line is refused; k: the K received.
    struct { const char* name; const char* line; int64_t sum; uint32_t k; } rows[] = {
        {"delay", "dsp delay 2 100 192", 0x192, 0x192}, {"delay", "dsp delay 2 100 192\r", 0x192, 0x192},  // CR: K's
        {"bm", "dsp bm 0 9 1 1.5 2.5 -1.5 fffffe74", 0xfffffe74, 0xfffffe74},
        {"vol", "dsp vol 3 -2.5 0xFFFFFFFB", 0xfffffffb, 0xfffffffb},
        {"output", "dsp output 4000000000 0", 4000000000, 0},
        {"vol", "dsp vol 0 3e9 0", 0xfffffffc, 0}, {"vol", "dsp vol 1 nan 0", 1, 0},  // F saturates, NaN is 0
        {"headroom", "dsp headroom 7 -0.9 7", 7, 7},   {"output", "dsp output +5 0x5", 5, 5},
        {"delay", "dsp delay 2 3 0x5", 0xe, 5},        {"delay", "dsp delay 2 3 0x", -1, 0},
        // Selectors choose the row of field kinds.
        {"bm", "dsp bm 0 9 1 5", 0x34, 5}, {"bm", "dsp bm 1 2 3 4.5 5 0", 0x439, 0}, {"bm", "dsp bm 1 20 3 0", 0x61, 0},
        {"atmos", "dsp atmos 12 c", 0xc, 0xc},          {"atmos", "dsp atmos 12 1 0", -1, 0},
        {"atmos", "dsp atmos 8 2 1.9 0", 0x10, 0},      {"atmos", "dsp atmos 8 3 1.9 0", -1, 0},
        {"atmos", "dsp atmos 8 3 7 0", 0x74, 0},        {"atmos", "dsp atmos 9 3 7 0", 0x75, 0},
        {"atmos", "dsp atmos -1 4 0", 0xffffffef, 0},   {"virtualx", "dsp virtualx 5 2.5 0", 0xd, 0},
        {"virtualx", "dsp virtualx 90 2.5 0", 0x52, 0}, {"virtualx", "dsp virtualx 56 2.5 0", -1, 0},
        {"virtualx", "dsp virtualx 71 2 0", 0x4f, 0},   {"filter", "dsp filter 1 12 3 0", 0x1, 0},
        {"filter", "dsp filter 1 10 3 0", 0x19, 0},     {"filter", "dsp filter 1 11 3 0", 0x1d, 0},
        {"filter", "dsp filter 1 10 3 4.5 0", -1, 0},   {"drc", "dsp drc 8 1 0", 0xc, 0},
        {"drc", "dsp drc 7 1 2.5 0", 0x23, 0},          {"matrix", "dsp matrix 17 1 0", 0x15, 0},
        {"matrix", "dsp matrix 1 2 3 4 0", 0x139, 0},   {"truvol", "dsp truvol 2 -0.5 0", 2, 0},
        {"truvol", "dsp truvol 3 -0.5 0", -1, 0},       {"other", "dsp other 1 1", -1, 0},
        // Missing, malformed or surplus fields; K not the last word.
        {"delay", "dsp delay 2 192", -1, 0},            {"delay", "dsp delay 2 1.5 192", -1, 0},
        {"delay", "dsp delay 2 100 7 192", -1, 0},      {"delay", "dsp delay 2 100 192 ", -1, 0},
        {"delay", "dsp delay 2 100 19g", -1, 0},        {"delay", "dsp delay 2 4294967296 0", -1, 0},
        {"delay", "dsp delay 2 100 1ffffffff", -1, 0},  {"output", "dsp output -1 0", -1, 0},
        {"delay", "dsp delay 2 100 192\ndsp delay 2 100 192", -1, 0},
    };
    for (const auto& r : rows) {
        uint32_t computed = 1, received = 1;
        int ok = tool_tuning_check(r.name, r.line, &computed, &received);
        EXPECT_EQ(ok == 0 ? int64_t(computed) : ok, r.sum) << r.line;
        EXPECT_EQ(ok == 0 ? received : r.k, r.k) << r.line;
    }
    for (int sel : {2, 3, 5, 6, 27, 28, 55, 56, 71, 72, 90, 91}) {  // virtualx selectors of an F field
        uint32_t computed, received;
        bool real = (sel >= 3 && sel <= 5) || (sel >= 28 && sel <= 55) || (sel >= 72 && sel <= 90);
        std::string line = "dsp virtualx " + std::to_string(sel) + " 2.5 0";
        EXPECT_EQ(tool_tuning_check("virtualx", line.c_str(), &computed, &received), real ? 0 : -1) << sel;
    }
    // Found by fuzzing: with no blank, or one right at the fields, K must not be taken from behind it.
    for (const char* name :
         {"bm", "atmos", "virtualx", "truvol", "filter", "drc", "matrix", "delay", "headroom", "vol", "output"})
        for (const char* line : {"dsp", "", "dsp x"}) {
            uint32_t computed, received;
            EXPECT_EQ(tool_tuning_check(name, line, &computed, &received), -1) << name << " '" << line << "'";
        }
    const int32_t v[17] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 3};
    EXPECT_EQ(tool_tuning_sum(v, 17), 0x55555555u ^ 3u);  // position 16 shifts by 0 again

    for (auto [f, field] : {std::pair{-2.5f, -2}, {2.9f, 2}, {2147483648.0f, INT32_MAX}, {-1e30f, INT32_MIN},
                            {-2147483648.0f, INT32_MIN}, {std::numeric_limits<float>::infinity(), INT32_MAX},
                            {std::nanf(""), 0}, {2147483520.0f, 2147483520}})
        EXPECT_EQ(tool_float_to_field(f), field) << f;
}

TEST(ToolReadback, SumAndQueryWords)
{
    EXPECT_EQ(tool_readback_sum("abc", 3), 0x0194);
    EXPECT_EQ(tool_readback_sum("", 0), 0);
    const char nine[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0x7f};  // shifts restart every eight bytes
    EXPECT_EQ(tool_readback_sum(nine, 9), 0x7f);
    const char* text = "0123456789abcdefXYZ";  // against a 64-bit reference
    uint64_t s = 0;
    for (size_t i = 0; i < strlen(text); ++i) s = (static_cast<uint8_t>(text[i]) ^ s) << (i & 7);
    EXPECT_EQ(tool_readback_sum(text, strlen(text)), static_cast<uint16_t>(s));
    EXPECT_EQ(tool_readback_sum("\xff\x80", 2), (0xff ^ 0x80) << 1);  // bytes count unsigned

    // "." takes one character, "*" one or more, without backtracking.
    struct { const char* pattern; const char* word; bool match; } rows[] = {
        {"a*b", "axxb", true}, {"a*b", "ab", true}, {"a*b", "axbx", false},  // first occurrence only
        {"a*.b", "axxb", true}, {"a*.b", "ab", true}, {"a*.b", "axbx", false},
        {"a.c", "ac", false}, {"a.c", "abc", true}, {"a*", "a", false}, {"a*", "ab", true},
        {"a*.", "abc", true}, {"abc", "ABC", false}, {"ab", "abc", false}, {"abc", "ab", false},
        {"s4_filter", "s4_filter", true}, {"s4_filter", "s4_filter_1_2", false},
        {"s4_filter_*", "s4_filter_1_2", true}, {"s4_filter_*", "s4_filter_", false},
        {"s4_bm_*", "s4_bm_", false}, {"s4_drc_*", "s4_drc_7", true},
    };
    for (const auto& r : rows) EXPECT_EQ(tool_match(r.pattern, r.word), r.match) << r.pattern << " " << r.word;

    // The second word, less one character when it ends the line (the CR's place).
    const std::string w63(63, 'w');
    struct { std::string line; int result; std::string word; } words[] = {
        {"dsp s4_prf\r", 0, "s4_prf"}, {"dsp s4_prf", 0, "s4_pr"}, {"dsp s4_prf x", 0, "s4_prf"},
        {"dspx vol 1", 0, "vol"},  // only three bytes are tested
        {"dsp x", -1, ""}, {"dsp  vol 1", -1, ""}, {"dsp", -1, ""}, {"dsp ", -1, ""}, {"abc vol 1", -1, ""},
        {"dsp " + w63 + " 1", 0, w63}, {"dsp " + w63 + "w 1", -2, ""}, {"dsp " + w63 + "wx", -2, ""},
    };
    for (const auto& w : words) {
        char word[TOOL_WORD_SIZE] = {};
        EXPECT_EQ(tool_line_word(w.line.c_str(), word), w.result) << w.line;
        EXPECT_EQ(std::string(word), w.word) << w.line;
    }
}

TEST(ToolTransfer, FileNamesStayInTheirDirectory)
{
    const std::pair<std::string, bool> names[] = {
        {"cfg.bin", true}, {"..x", true}, {std::string(31, 'n'), true}, {std::string(32, 'n'), false},
        {"", false}, {".", false}, {"..", false}, {"../x", false}, {"a/b", false}, {"x.tmp", false},
    };
    for (const auto& [name, ok] : names) EXPECT_EQ(tool_file_name_ok(name), ok) << name;
}
