// Command word extraction and the wildcard matcher of the tool link.
#include <gtest/gtest.h>

#include <string>

#include "dsptool/tool_link.h"

TEST(ToolMatch, WildcardsWithoutBacktracking)
{
    EXPECT_TRUE(tool_match("a*b", "axxb"));
    EXPECT_TRUE(tool_match("a*b", "ab"));
    EXPECT_FALSE(tool_match("a*b", "axbx"));  // first occurrence only
    EXPECT_TRUE(tool_match("a*.b", "axxb"));  // "." behind "*" counts for nothing
    EXPECT_TRUE(tool_match("a*.b", "ab"));
    EXPECT_FALSE(tool_match("a*.b", "axbx"));
    EXPECT_FALSE(tool_match("a.c", "ac"));
    EXPECT_TRUE(tool_match("a.c", "abc"));
    EXPECT_FALSE(tool_match("a*", "a"));
    EXPECT_TRUE(tool_match("a*", "ab"));
    EXPECT_TRUE(tool_match("a*.", "abc"));    // skipped to the pattern's end
    EXPECT_FALSE(tool_match("abc", "ABC"));   // exact in case
    EXPECT_FALSE(tool_match("ab", "abc"));
    EXPECT_FALSE(tool_match("abc", "ab"));
}

TEST(ToolMatch, TableRowsOfTheQueries)
{
    EXPECT_TRUE(tool_match("s4_filter", "s4_filter"));
    EXPECT_FALSE(tool_match("s4_filter", "s4_filter_1_2"));
    EXPECT_TRUE(tool_match("s4_filter_*", "s4_filter_1_2"));
    EXPECT_FALSE(tool_match("s4_filter_*", "s4_filter_"));
    EXPECT_FALSE(tool_match("s4_filter", "s4_filter_"));
    EXPECT_FALSE(tool_match("s4_bm_*", "s4_bm_"));
    EXPECT_TRUE(tool_match("s4_drc_*", "s4_drc_7"));
}

TEST(ToolLineWord, LastWordLosesOneCharacter)
{
    char word[TOOL_WORD_SIZE];
    ASSERT_EQ(tool_line_word("dsp s4_prf\r", word), 0);
    EXPECT_STREQ(word, "s4_prf");
    ASSERT_EQ(tool_line_word("dsp s4_prf", word), 0);
    EXPECT_STREQ(word, "s4_pr");
    ASSERT_EQ(tool_line_word("dsp s4_prf x", word), 0);
    EXPECT_STREQ(word, "s4_prf");
    ASSERT_EQ(tool_line_word("dspx vol 1", word), 0);  // only three bytes are tested
    EXPECT_STREQ(word, "vol");

    EXPECT_EQ(tool_line_word("dsp x", word), -1);   // one character: length 0
    EXPECT_EQ(tool_line_word("dsp  vol 1", word), -1);
    EXPECT_EQ(tool_line_word("dsp", word), -1);
    EXPECT_EQ(tool_line_word("dsp ", word), -1);
    EXPECT_EQ(tool_line_word("abc vol 1", word), -1);

    std::string w63(63, 'w');
    ASSERT_EQ(tool_line_word(("dsp " + w63 + " 1").c_str(), word), 0);
    EXPECT_EQ(std::string(word), w63);
    EXPECT_EQ(tool_line_word(("dsp " + w63 + "w 1").c_str(), word), -2);
    EXPECT_EQ(tool_line_word(("dsp " + w63 + "wx").c_str(), word), -2);
}

TEST(ToolFileName, StaysInsideItsDirectory)
{
    EXPECT_TRUE(tool_file_name_ok("cfg.bin"));
    EXPECT_TRUE(tool_file_name_ok(std::string(31, 'n')));
    EXPECT_FALSE(tool_file_name_ok(std::string(32, 'n')));
    EXPECT_FALSE(tool_file_name_ok(""));
    EXPECT_FALSE(tool_file_name_ok("."));
    EXPECT_FALSE(tool_file_name_ok(".."));
    EXPECT_FALSE(tool_file_name_ok("../x"));
    EXPECT_FALSE(tool_file_name_ok("a/b"));
    EXPECT_FALSE(tool_file_name_ok("x.tmp"));
    EXPECT_TRUE(tool_file_name_ok("..x"));
}
