// Command line: usage, required port, rates, port names, open failure, line settings.
#include <gtest/gtest.h>
#include <termios.h>

#include "tests/e2e/harness.h"

namespace {

const std::string usage_text =
    "Usage: tty_hub [OPTION]\n\n"
    "  -h, --help\n"
    "  -b, --baud        Baud rate, 115200, etc (115200 is default)\n"
    "  -p, --port        Port (/dev/ttyS0, etc) (must be specified)\n"
    "  -c, --rts-cts     Enable RTS/CTS flow control\n"
    "  -B, --2-stop-bit  Use two stop bits per character\n"
    "  -P, --parity      Use parity bit (odd, even, mark, space)\n\n";

struct run_result {
    int status;
    std::string out;
    std::string err;
};

run_result run_exact(const std::vector<std::string>& args, bool merged = false)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.no_dsp();
    if (merged) sb.merge_streams();
    sb.start_exact(args);
    int status = sb.wait_exit(5000);
    return {status, sb.output(), sb.errors()};
}

}  // namespace

TEST(Cli, HelpWinsWhereverItStands)
{
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"-h"}, {"--help"}, {"-b", "9600", "-p", "/dev/ttyS1", "-h"}, {"-x", "-h", "-p", "/dev/ttyS1"}}) {
        auto r = run_exact(args);
        SCOPED_TRACE(args.front());
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, usage_text);
        if (args.front() == "-x")
            EXPECT_NE(r.err.find("invalid option -- 'x'"), std::string::npos) << r.err;
        else
            EXPECT_EQ(r.err, "");
    }
}

TEST(Cli, PortIsRequiredAndCheckedBeforeTheRate)
{
    // stderr first, then the usage on stdout; with a bad rate too, only the port message.
    for (const auto& args : std::vector<std::vector<std::string>>{{}, {"-b", "abc", "-c", "stray"}}) {
        auto merged = run_exact(args, true);
        EXPECT_EQ(merged.status, 234);
        EXPECT_EQ(merged.out, "ERROR: Port argument required\n" + usage_text);
    }
    auto r = run_exact({"-P", "odd"});
    EXPECT_EQ(r.status, 234);
    EXPECT_EQ(r.err, "ERROR: Port argument required\n");
    EXPECT_EQ(r.out, usage_text);
}

TEST(Cli, UnsupportedRates)
{
    for (std::string rate : {"abc", "4800", "0", "115201", "-115200"}) {
        auto r = run_exact({"-p", "/dev/ttyS1", "-b", rate});
        SCOPED_TRACE(rate);
        EXPECT_EQ(r.status, 234);
        EXPECT_EQ(r.out, "Not supported baud rate\n");
        EXPECT_EQ(r.err, "");
    }
}

TEST(Cli, PortNames)
{
    // Opened, set up and closed before the name is judged: an alias of the
    // MCU port, another terminal, a name with a trailing character.
    for (std::string port : {"/dev//ttyS1", "/dev/ttyS0", "/dev/ttyS1x"}) {
        e2e::Sandbox sb("/dev/ttyS1");
        sb.no_dsp();
        sb.add_tty("/dev/ttyS0");
        sb.add_tty("/dev/ttyS1x");
        sb.start_exact({"-p", port, "-b", "abc"});  // the rate is judged first
        EXPECT_EQ(sb.wait_exit(5000), 234);
        EXPECT_EQ(sb.output(), "Not supported baud rate\n");

        e2e::Sandbox sb2("/dev/ttyS1");
        sb2.no_dsp();
        sb2.add_tty("/dev/ttyS0");
        sb2.add_tty("/dev/ttyS1x");
        sb2.start_exact({"-p", port});
        SCOPED_TRACE(port);
        EXPECT_EQ(sb2.wait_exit(5000), 234);
        EXPECT_EQ(sb2.output(), "unsupported port\n");
        EXPECT_EQ(sb2.errors(), "");
    }
}

TEST(Cli, PortThatCannotBeOpened)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.no_dsp();
    sb.start_exact({"-p", "/dev/ttyS3"});
    EXPECT_EQ(sb.wait_exit(5000), 1);
    EXPECT_EQ(sb.errors(), "Error opening serial port: No such file or directory\n");
    EXPECT_EQ(sb.output(), "");
}

TEST(Cli, LineSettingsFromOptions)
{
    struct variant {
        std::vector<std::string> args;
        tcflag_t cflag;
    };
    const tcflag_t base = CS8 | CREAD | CLOCAL;
    const std::vector<variant> variants = {
        {{"-b", "9600", "-c", "-B", "-P", "mark"}, B9600 | base | CRTSCTS | CSTOPB | PARENB | PARODD | CMSPAR},
        {{"--baud", "4000000", "--parity", "none"}, B4000000 | base | PARENB},
        {{"-b", "115200x", "-P", "space"}, B115200 | base | PARENB | CMSPAR},
        {{"-P", "odd", "--rts-cts"}, B115200 | base | PARENB | PARODD | CRTSCTS},
        {{}, B115200 | base},
    };
    for (const auto& v : variants) {
        e2e::Sandbox sb("/dev/ttyS1");
        sb.start(v.args);
        ASSERT_TRUE(sb.wait_output("setup MCU interface!\n", 5000)) << sb.output();
        ASSERT_FALSE(sb.read_mcu_frame(5000).empty());  // set-up is over
        termios t{};
        ASSERT_EQ(tcgetattr(sb.slave_fd(), &t), 0);
        SCOPED_TRACE(testing::PrintToString(v.args));
        // The pty driver drops PARENB (and forces CS8 | CREAD); the rest stays as set.
        EXPECT_EQ(t.c_cflag, v.cflag & ~tcflag_t{PARENB});
        EXPECT_EQ(t.c_iflag, 0u);
        EXPECT_EQ(t.c_oflag, 0u);
        EXPECT_EQ(t.c_lflag, 0u);
        EXPECT_EQ(t.c_cc[VMIN], 64);
        EXPECT_EQ(t.c_cc[VTIME], 1);
        EXPECT_EQ(sb.wait_exit(0), -1);
    }
}
