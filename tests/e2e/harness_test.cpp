// The stand-in DSP service's rules, as the daemon meets them: sequences,
// longest prefix, delays, silence, and changes while running.
#include <chrono>
#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

using e2e::bytes;

namespace {
// Byte 4 of the record state frame: 0xF2 for state 2, else 0 (not recording).
int record_byte(e2e::Sandbox& sb, int timeout_ms)
{
    bytes f = sb.read_mcu_frame_cmd(0x20, timeout_ms);
    return f.size() == 16 ? f[7] : -1;
}
}  // namespace

TEST(DspSim, RulesAsTheDaemonMeetsThem)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.dsp_reply("dsp rec", "rec:2");                            // shorter prefix: loses
    sb.dsp_replies("dsp rec state\n", {"state:2", "state:0"});  // then "state:0" for good
    sb.start();
    EXPECT_EQ(record_byte(sb, 5000), 0xF2);
    const bytes report = e2e::mcu_frame(10, {32});
    sb.send(report);
    EXPECT_EQ(record_byte(sb, 3000), 0);
    sb.send(report);
    EXPECT_EQ(record_byte(sb, 3000), 0);

    // Changed while running: the next command sees the new rule. A shorter
    // prefix would still lose to the sequence's; the same prefix replaces it.
    sb.dsp_reply("dsp rec state", "state:2");
    sb.send(report);
    EXPECT_EQ(record_byte(sb, 3000), 0);
    sb.dsp_reply("dsp rec state\n", "state:2");
    sb.dsp_delay_ms("dsp rec", 600);
    auto sent = std::chrono::steady_clock::now();
    sb.send(report);
    EXPECT_EQ(record_byte(sb, 3000), 0xF2);
    EXPECT_GE(std::chrono::steady_clock::now() - sent, std::chrono::milliseconds(600));

    // Silence: the request is recorded but never answered, and the link waits.
    sb.dsp_clear_rules();
    sb.dsp_silent("dsp rec state");
    sb.send(report);
    ASSERT_TRUE(sb.wait_dsp_commands(6, 3000));
    EXPECT_EQ(record_byte(sb, 800), -1);
    EXPECT_EQ(sb.dsp_commands(), std::vector<std::string>(6, "dsp rec state\n"));
    EXPECT_EQ(sb.wait_exit(0), -1);
}
