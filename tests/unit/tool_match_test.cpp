// Command word extraction and the wildcard matcher of the tool link.
#include <gtest/gtest.h>

#include <string>

#include "dsptool/tool_link.h"

TEST(ToolMatch, WildcardsWithoutBacktracking)
{
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
}

TEST(ToolLineWord, LastWordLosesOneCharacter)
{
    char word[TOOL_WORD_SIZE];
    struct { const char* line; const char* word; } valid[] = {
        {"dsp s4_prf\r", "s4_prf"}, {"dsp s4_prf", "s4_pr"}, {"dsp s4_prf x", "s4_prf"},
        {"dspx vol 1", "vol"},  // only three bytes are tested
    };
    for (const auto& v : valid) {
        ASSERT_EQ(tool_line_word(v.line, word), 0) << v.line;
        EXPECT_STREQ(word, v.word);
    }
    for (const char* line : {"dsp x", "dsp  vol 1", "dsp", "dsp ", "abc vol 1"})
        EXPECT_EQ(tool_line_word(line, word), -1) << line;
    std::string w63(63, 'w');
    ASSERT_EQ(tool_line_word(("dsp " + w63 + " 1").c_str(), word), 0);
    EXPECT_EQ(std::string(word), w63);
    EXPECT_EQ(tool_line_word(("dsp " + w63 + "w 1").c_str(), word), -2);
    EXPECT_EQ(tool_line_word(("dsp " + w63 + "wx").c_str(), word), -2);
}

TEST(ToolFileName, StaysInsideItsDirectory)
{
    EXPECT_TRUE(tool_file_name_ok("cfg.bin"));
    EXPECT_TRUE(tool_file_name_ok("..x"));
    EXPECT_TRUE(tool_file_name_ok(std::string(31, 'n')));
    for (std::string bad : {std::string(32, 'n'), std::string(), std::string("."), std::string(".."),
                            std::string("../x"), std::string("a/b"), std::string("x.tmp")})
        EXPECT_FALSE(tool_file_name_ok(bad)) << bad;
}
