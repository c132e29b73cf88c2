// Inputs that the fuzz harnesses (tests/fuzz) found to crash or misbehave,
// kept as checks on the parsers they reached.
#include <gtest/gtest.h>

#include <string_view>

#include "dsptool/tool_link.h"

TEST(FuzzRegression, TuningLineWithoutBlank)
{
    // The tool link hands only lines with a blank to the tuning handlers, but
    // the grammar scan must not take K from behind a blank that is not there.
    for (std::string_view name : {"bm", "atmos", "virtualx", "truvol", "filter", "drc", "matrix", "delay",
                                  "headroom", "vol", "output"}) {
        uint32_t computed = 1, received = 1;
        EXPECT_EQ(tool_tuning_check(name, "dsp", &computed, &received), -1) << name;
        EXPECT_EQ(tool_tuning_check(name, "", &computed, &received), -1) << name;
        // One blank only, right at the start of the fields.
        EXPECT_EQ(tool_tuning_check(name, "dsp x", &computed, &received), -1) << name;
    }
}
