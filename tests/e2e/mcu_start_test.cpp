// Start of the MCU link: queue attach, named pipe, GPIO lines, first record state frame.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/harness.h"

using e2e::bytes;

namespace {
const bytes record_state_2 = {0x01, 0x49, 0x05, 0x00, 0xF2, 0x00, 0x01, 0x0D, 0x01, 0x00, 0x00, 0x00};
}

TEST(McuStart, QueuePipeGpioAndFirstFrame)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.record_gpio_exports();
    sb.dsp_reply("dsp rec state", "state:2");
    sb.start();

    bytes f = sb.read_mcu_frame(5000);
    EXPECT_EQ(e2e::hex(f), e2e::hex(e2e::mcu_frame(0x20, record_state_2)));
    EXPECT_EQ(sb.skipped_bytes(), 0u);
    ASSERT_TRUE(sb.wait_dsp_commands(1, 2000));
    EXPECT_EQ(sb.dsp_raw_commands(), std::vector<std::string>{std::string("dsp rec state\n\0", 15)});
    EXPECT_EQ(sb.output(), "setup MCU interface!\n");

    // Lines 42, 43, 48: exported in that order, 42 and 43 outputs, 48 an
    // input, all set to 0; the terminating zeros are part of each write.
    EXPECT_TRUE(sb.wait_output("", 0));
    for (int i = 0; i < 200 && sb.gpio_writes("export").size() < 6; ++i) usleep(10000);
    EXPECT_EQ(sb.gpio_writes("export"), "424348");
    EXPECT_EQ(sb.gpio_writes("unexport"), "");
    EXPECT_EQ(sb.read_file("/sys/class/gpio/P5_02/direction"), std::string("out\0", 4));
    EXPECT_EQ(sb.read_file("/sys/class/gpio/P5_03/direction"), std::string("out\0", 4));
    EXPECT_EQ(sb.read_file("/sys/class/gpio/P6_00/direction"), std::string("in\0", 3));
    for (const char* line : {"P5_02", "P5_03", "P6_00"})
        EXPECT_EQ(sb.read_file(std::string("/sys/class/gpio/") + line + "/value"), std::string("0\0", 2)) << line;

    // The pipe exists and is read: one byte brings an audio status report.
    struct stat st {};
    ASSERT_EQ(stat(sb.host_path("/tmp/mcu_if_pipe").c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    int fd = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    bytes report = sb.read_mcu_frame(5000);
    ASSERT_EQ(report.size(), 16u);
    EXPECT_EQ(report[2], 0x21);
    EXPECT_EQ(sb.wait_exit(0), -1);
}

TEST(McuStart, PipeFileAlreadyThere)
{
    for (bool fifo : {true, false}) {
        e2e::Sandbox sb("/dev/ttyS1");
        if (fifo)
            sb.make_fifo("/tmp/mcu_if_pipe");  // left by an earlier run
        else
            sb.write_file("/tmp/mcu_if_pipe", "");
        sb.start();
        EXPECT_EQ(sb.wait_exit(5000), 255);
        EXPECT_EQ(sb.output(), "setup MCU interface!\n[MCU IF] Cannot create pipe file\n");
        EXPECT_EQ(sb.read_file("/sys/class/gpio/export"), "");  // stopped before the GPIO lines
        EXPECT_TRUE(sb.read_mcu_frame(300).empty());
    }
}

TEST(McuStart, QueueAttachRule)
{
    // All three run at once; each counts from its own start.
    e2e::Sandbox missing("/dev/ttyS1"), at2("/dev/ttyS1"), at4("/dev/ttyS1");
    missing.no_dsp();
    at2.dsp_start_delay_ms(2000);
    at4.dsp_start_delay_ms(4000);
    missing.start();
    at2.start();
    at4.start();

    EXPECT_EQ(missing.wait_exit(8000), 255);
    EXPECT_GE(missing.elapsed(), 2.9);  // retried for more than 3 whole seconds
    EXPECT_EQ(missing.output(), "setup MCU interface!\n[MCU IF] Cannot get the message queue\n");
    EXPECT_EQ(missing.read_file("/sys/class/gpio/export"), "");
    EXPECT_FALSE(missing.exists("/tmp/mcu_if_pipe"));

    EXPECT_EQ(at2.read_mcu_frame(8000).size(), 16u) << at2.output();
    EXPECT_EQ(at2.output(), "setup MCU interface!\n");
    EXPECT_EQ(at2.wait_exit(0), -1);

    EXPECT_EQ(at4.wait_exit(9000), 255);
    EXPECT_EQ(at4.output(), "setup MCU interface!\n[MCU IF] Cannot get the message queue\n");
    EXPECT_TRUE(at4.dsp_commands().empty());
}

TEST(McuStart, MissingGpioFilesAreReportedAndStartGoesOn)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.remove("/sys/class/gpio/export");
    sb.remove("/sys/class/gpio/P5_03");
    sb.start();
    ASSERT_EQ(sb.read_mcu_frame(5000).size(), 16u) << sb.output();
    const std::string enoent = ": No such file or directory\n";
    EXPECT_EQ(sb.output(), "setup MCU interface!\n"
                           "[MCU IF] unable to export GPIO 42" + enoent +
                           "[MCU IF] unable to export GPIO 43" + enoent +
                           "[MCU IF] unable to export GPIO 48" + enoent +
                           "[MCU IF] unable to configure GPIO 43 (P5_03)" + enoent +
                           "[MCU IF] unable to set GPIO 43 (P5_03) output value" + enoent);
    EXPECT_EQ(sb.read_file("/sys/class/gpio/P5_02/direction"), std::string("out\0", 4));
    EXPECT_EQ(sb.wait_exit(0), -1);
}
