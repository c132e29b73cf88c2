// Start of the MCU link: queue, pipe, GPIO lines and the first record state frame.
#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

using e2e::bytes;

TEST(McuStart, FirstRecordStateFrameAndCheckDigitErrors)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.dsp_reply("dsp rec state", "state:0");
    sb.start();
    bytes f = sb.read_mcu_frame(5000);
    ASSERT_FALSE(f.empty()) << sb.output();
    EXPECT_EQ(f[2], 0x20);
    EXPECT_EQ(f.size(), 16u);
    ASSERT_TRUE(sb.wait_dsp_commands(1, 2000));
    EXPECT_EQ(sb.dsp_commands()[0], "dsp rec state\n");
    EXPECT_EQ(sb.dsp_raw_commands()[0], std::string("dsp rec state\n\0", 15));
    EXPECT_TRUE(sb.output().find("setup MCU interface!\n") == 0) << sb.output();

    bytes bad = e2e::mcu_frame(0x0A, {0x20});
    bad.back() ^= 1;
    sb.send(bad);
    EXPECT_TRUE(sb.wait_output("[MCU IF] Wrong checksum, data may be corrupted\n", 3000)) << sb.output();
    EXPECT_EQ(sb.wait_exit(0), -1);
}
