// Frames from the MCU: bad input gets its exact reaction and the link goes on.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/e2e/harness.h"

using e2e::bytes;

namespace {

// Command 10 with 32: the record state frame and nothing else.
const bytes report_request = e2e::mcu_frame(10, {32});

void expect_record_report(e2e::Sandbox& sb, size_t n_commands, int frames = 1)
{
    for (int i = 0; i < frames; ++i) {
        bytes f = sb.read_mcu_frame(3000);
        ASSERT_EQ(f.size(), 16u) << sb.output();
        EXPECT_EQ(f[2], 0x20);
    }
    ASSERT_TRUE(sb.wait_dsp_commands(n_commands, 3000)) << sb.output();
    EXPECT_EQ(sb.dsp_commands().size(), n_commands);
    EXPECT_EQ(sb.dsp_commands().back(), "dsp rec state\n");
}

}  // namespace

TEST(McuFrames, BadInputIsReportedAndTheLinkGoesOn)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.start();
    expect_record_report(sb, 1);

    bytes wrong_digit = e2e::mcu_frame(10, {32});
    wrong_digit.back() = wrong_digit.back() == '0' ? '1' : '0';
    bytes input = {0x00, 0x13, 0x7F, 0xFE, 0x41};  // noise: dropped without a word
    for (const bytes& part : {
             bytes{0xFF, 0x00},        // L = 0: read error, nothing more read
             bytes{0xFF, 0x01},        // L = 1: the length byte is taken as the digit
             bytes{0xFF, 0x02, 0x32},  // L = 2, digit right, no command byte
             wrong_digit,
             e2e::mcu_frame(16, {32}),   // above 15
             e2e::mcu_frame(200, {}),    //
             e2e::mcu_frame(7, {32}),    // empty slots: dropped silently
             e2e::mcu_frame(0, {}),      //
             e2e::mcu_frame(13, {1, 2}), //
         })
        input.insert(input.end(), part.begin(), part.end());
    sb.send(input);
    sb.send(report_request);
    expect_record_report(sb, 2);
    EXPECT_EQ(sb.output(), "setup MCU interface!\n"
                           "[MCU IF] read error!\n"
                           "[MCU IF] Wrong checksum, data may be corrupted\n"
                           "[MCU IF] frame without command dropped\n"
                           "[MCU IF] Wrong checksum, data may be corrupted\n"
                           "[MCU IF] ERROR: INVALID command 16"  // this one has no line end
                           "[MCU IF] ERROR: INVALID command 200");

    // Back to back, and a 0xFF inside a payload, which needs no escaping.
    bytes two = e2e::mcu_frame(10, {32, 0xFF, 0xFF});
    two.insert(two.end(), report_request.begin(), report_request.end());
    sb.send(two);
    expect_record_report(sb, 4, 2);

    // A frame that stops short: after 0.1 s of silence the read returns what
    // came, the digit test fails, and the late rest is hunted through.
    bytes whole = e2e::mcu_frame(10, {32, 1, 2, 3, 4, 5});
    sb.send(bytes(whole.begin(), whole.begin() + 5));
    ASSERT_TRUE(sb.wait_output("[MCU IF] ERROR: INVALID command 200[MCU IF] Wrong checksum", 3000)) << sb.output();
    sb.send(bytes(whole.begin() + 5, whole.end()));
    sb.send(report_request);
    expect_record_report(sb, 5);
    EXPECT_TRUE(sb.output().ends_with("[MCU IF] ERROR: INVALID command 200"
                                      "[MCU IF] Wrong checksum, data may be corrupted\n"))
        << sb.output();
    EXPECT_EQ(sb.wait_exit(0), -1);
}
