// The tool link on /dev/ttyS2: probe, checked tuning lines, read-back queries
// and configuration file transfer, on the real binary. The link works on
// inputs (one read, ended by 0.1 s of silence), so each input waits for its
// reply, or for its log line when it gets none, before the next is sent.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/e2e/harness.h"

using e2e::bytes;

namespace {

const std::string ok("[ok]\0", 5);
const std::string fail("[fail]\0", 7);

bytes frame(uint8_t cmd, const std::string& data)
{
    std::string head{char(0x55), char(0xAA), 0x01, char(cmd), char(data.size()), char(data.size() >> 8)};
    bytes f = e2e::to_bytes(head + data);
    uint8_t sum = 0;
    for (size_t i = 0; i < f.size(); ++i) sum ^= f[i];  // 0x55 ^ 0xAA gives the 0xFF
    f.push_back(sum);
    return f;
}

std::string le32(uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }
bytes start_frame(uint32_t size, const std::string& name) { return frame(2, le32(size) + name); }
bytes chunk(uint16_t seq, const std::string& data) { return frame(1, std::string{char(seq), char(seq >> 8)} + data); }
bytes end_frame(uint32_t size) { return frame(3, le32(size)); }

// Status byte of the reply to a transfer frame, -1 when none or a wrong form.
int status(e2e::Sandbox& sb, const bytes& request)
{
    sb.send(request);
    bytes r = sb.read_bytes(8, 3000);
    uint8_t code = request[3] | 0x80;
    if (r.size() != 8 || r[6] > 1) return -1;
    return r == bytes{0x55, 0xAA, 0x01, code, 0x01, 0x00, r[6], uint8_t(0xFF ^ code ^ r[6])} ? r[6] : -1;
}

std::string ask(e2e::Sandbox& sb, const std::string& input, size_t n)
{
    sb.send(input);
    bytes r = sb.read_bytes(n, 3000);
    return std::string(r.begin(), r.end());
}

// The port is flushed while it is set up: input may go out only after that.
void start_link(e2e::Sandbox& sb)
{
    sb.start();
    ASSERT_TRUE(sb.wait_output("setup DSP tool interface!\n", 5000)) << sb.output();
}

void quiet_pause() { std::this_thread::sleep_for(std::chrono::milliseconds(300)); }

}  // namespace

TEST(DspTool, ProbeAndTuningLines)
{
    e2e::Sandbox sb("/dev/ttyS2");
    sb.dsp_reply("dsp matrix", "[err]");
    start_link(sb);
    EXPECT_EQ(ask(sb, "mon", 3), "MN>") << sb.output();
    EXPECT_EQ(ask(sb, "monitor\n", 3), "MN>");

    struct { std::string in, reply, cmd; } rows[] = {
        {"dsp delay 2 100 192\n", ok, "dsp delay 2 100\n"},
        {"dsp bm 0 9 1 1.5 2.5 -1.5 fffffe74\r\n", ok, "dsp bm 0 9 1 1.5 2.5 -1.5\n"},
        {"dsp atmos 12 c\n", ok, "dsp atmos 12\n"},
        {"dsp vol 3 -2.5 0xFFFFFFFB\n", ok, "dsp vol 3 -2.5\n"},
        {"dsp output 7 7\n", ok, "dsp output 7\n"},
        {"dsp matrix 17 1 15\n", fail, "dsp matrix 17 1\n"},  // refused by the service
        {"dsp delay 2 100 193\n", fail, ""},
        {"dsp drc 8 1 5\n", fail, ""},
        {"dsp output 7 8\n", fail, ""},
        {"dsp atmos 12\n", fail, ""},
        // Two lines in one read are one line: K is not its last word.
        {"dsp delay 2 100 192\ndsp delay 2 100 192\n", fail, ""},
        {"dsp delay 2 1", fail, ""},  // first half of a line split across reads
    };
    for (const auto& row : rows) {
        size_t before = sb.dsp_commands().size();
        EXPECT_EQ(ask(sb, row.in, row.reply.size()), row.reply) << row.in;
        if (!row.cmd.empty()) {
            ASSERT_TRUE(sb.wait_dsp_commands(before + 1, 2000)) << row.in;
            EXPECT_EQ(sb.dsp_raw_commands().back(), row.cmd + '\0');
        }
        EXPECT_EQ(sb.dsp_commands().size(), before + !row.cmd.empty()) << row.in;
    }
    sb.send("00 192\n");  // second half: a new input
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] invalid command: 00 192\n", 3000));
    sb.send("dsp " + std::string(64, 'w') + " 1\n");
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] invalid command: dsp www", 3000));
    sb.send("dsp x\n");
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] invalid command: dsp x\n", 3000));
    const std::string out = sb.output();
    for (const char* line : {"[DSPTOOL] wrong checksum 0x192 for: dsp delay 2 100 193\n",
                             "[DSPTOOL] wrong checksum 0xc for: dsp drc 8 1\n",
                             "[DSPTOOL] wrong checksum 0x8 for: dsp output 7 8\n",
                             "[DSPTOOL] command succeed\n", "[DSPTOOL] command failed\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << out;
    EXPECT_TRUE(sb.drain(300).empty());
}

TEST(DspTool, ReadbackQueries)
{
    e2e::Sandbox sb("/dev/ttyS2");
    sb.dsp_reply("dsp s4_", "F");  // 'F' sums to 0x0046
    sb.dsp_reply("dsp s4_prf", "abc");
    sb.dsp_reply("dsp s4_mode", "");
    sb.dsp_reply("dsp s4_mcd", std::string(3060, 'x'));  // reply line would pass 3071 bytes
    start_link(sb);
    struct { std::string in, reply, cmd; } rows[] = {
        {"dsp s4_prf\r\n", "s4_prf 3 0x0194 abc", "dsp s4_prf\r\n"},
        {"dsp s4_mode x\n", "s4_mode 0 0x0000 ", "dsp s4_mode x\n"},
        {"dsp s4_filter 5 6\n", "s4_filter 1 0x0046 F", "dsp s4_filter 0\n"},
        {"dsp s4_filter_2_3\n", "s4_filter_2_3 1 0x0046 F", "dsp s4_filter 2 3\n"},
        {"dsp s4_drc_077\n", "s4_drc_77 1 0x0046 F", "dsp s4_drc 77\n"},
        {"dsp s4_bm_+1_-2\r\n", "s4_bm_1_-2 1 0x0046 F", "dsp s4_bm 1 -2\n"},
        {"dsp s4_mmix_A\r\n", "s4_mmix_A 1 0x0046 F", "dsp s4_mmix_A\r\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(ask(sb, row.in, row.reply.size()), row.reply) << row.in;
        ASSERT_TRUE(sb.wait_dsp_command(row.cmd, 2000)) << row.in;
    }
    size_t before = sb.dsp_commands().size();
    for (const char* line : {"dsp s4_prf\n", "dsp s4_drc_7\n"}) {
        sb.send(line);
        EXPECT_TRUE(sb.wait_output("[DSPTOOL] unknown command: " + std::string(line), 3000)) << line;
    }
    for (const char* line : {"dsp s4_bm_1\r\n", "dsp s4_filter_-2147483648_-2147483648\r\n"}) {
        sb.send(line);
        EXPECT_TRUE(sb.wait_output("[DSPTOOL] unknown command " + std::string(line), 3000)) << line;
    }
    EXPECT_EQ(sb.dsp_commands().size(), before);
    sb.send("dsp s4_mcd\r\n");
    EXPECT_TRUE(sb.wait_output("too long for s4_mcd", 3000)) << sb.output();
    EXPECT_EQ(ask(sb, "dsp s4_prf x\n", 19), "s4_prf 3 0x0194 abc");
    EXPECT_TRUE(sb.drain(300).empty());
}

TEST(DspTool, FileTransfers)
{
    e2e::Sandbox sb("/dev/ttyS2");
    sb.write_file("/sdk/config/dsp_config", "OLD");
    start_link(sb);
    // START split across two reads; the exact reply frames.
    bytes start = start_frame(5, "cfg.bin");
    sb.send(bytes(start.begin(), start.begin() + 4));
    quiet_pause();
    sb.send(bytes(start.begin() + 4, start.end()));
    EXPECT_EQ(e2e::hex(sb.read_bytes(8, 3000)), "55 AA 01 82 01 00 00 7D");
    sb.send(chunk(0, "hello"));
    EXPECT_EQ(e2e::hex(sb.read_bytes(8, 3000)), "55 AA 01 81 01 00 00 7E");
    EXPECT_EQ(status(sb, chunk(0, "hello")), 0);  // reply lost, chunk resent
    EXPECT_EQ(sb.read_file("/sdk/config/dsp_config"), "OLD");
    EXPECT_EQ(status(sb, end_frame(5)), 0);
    EXPECT_EQ(sb.read_file("/sdk/config/dsp_config"), "hello");
    EXPECT_FALSE(sb.exists("/sdk/config/dsp_config.tmp"));
    EXPECT_EQ(sb.dsp_commands(), std::vector<std::string>{"dsp resync_app\n"});

    // Another name lands under xml/ without a DSP command; a bad chunk is resent.
    EXPECT_EQ(status(sb, start_frame(6, std::string("eq.xml\0", 7))), 0);
    bytes bad = chunk(0, "abc");
    bad.back() ^= 0x10;
    EXPECT_EQ(status(sb, bad), 1);
    EXPECT_EQ(status(sb, chunk(0, "abc")), 0);
    EXPECT_EQ(status(sb, chunk(1, "def")), 0);
    EXPECT_EQ(status(sb, chunk(1, "def")), 0);
    EXPECT_EQ(status(sb, end_frame(6)), 0);
    EXPECT_EQ(sb.read_file("/sdk/config/xml/eq.xml"), "abcdef");
    EXPECT_EQ(sb.dsp_commands().size(), 1u);

    sb.send(end_frame(6));
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] file not opened\n", 3000));
    sb.send(frame(4, "x"));
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] invalid data transfer cmd 4\n", 3000));
    sb.send(frame(0, ""));
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] invalid data transfer cmd 0\n", 3000));
    EXPECT_TRUE(sb.drain(300).empty());
}

TEST(DspTool, FailedTransfersKeepTheOldFile)
{
    e2e::Sandbox sb("/dev/ttyS2");
    sb.write_file("/sdk/config/dsp_config", "OLD");
    sb.write_file("/sdk/config/xml/dir/keep", "k");
    sb.dsp_reply("dsp resync_app", "[err]");
    start_link(sb);
    struct { bytes request; int status; const char* log; } rows[] = {
        {start_frame(5, "cfg.bin"), 0, ""},
        {chunk(0, "hello"), 0, ""},
        {end_frame(6), 1, "size information in START_SEND_DATA and END_SEND_DATA is different"},
        {chunk(1, "x"), 1, "failed to write data to file"},  // closed by END
        {start_frame(5, "cfg.bin"), 0, ""},
        {chunk(0, "hel"), 0, ""},
        {end_frame(5), 1, "received file size is wrong"},
        {start_frame(1, "../dsp_config"), 1, "refused configuration file name"},
        {chunk(0, "x"), 1, "failed to write data to file"},
        {start_frame(1, std::string(32, 'n')), 1, "refused configuration file name"},
        {start_frame(1, ""), 1, "refused configuration file name"},
        {frame(2, "abc"), 1, "START_SEND_DATA too short"},
        {start_frame(1, "dir"), 0, ""},
        {frame(1, "x"), 1, "failed to write data to file"},
        {chunk(0, "x"), 0, ""},
        {end_frame(1), 1, "failed to rename configuration file"},
        {chunk(0, std::string(4000, 'z')), 1, "data frame of 4009 bytes is too long, dropped"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(status(sb, row.request), row.status) << row.log;
        EXPECT_TRUE(sb.wait_output(row.log, 1000)) << row.log;
        EXPECT_EQ(sb.read_file("/sdk/config/dsp_config"), "OLD") << row.log;
    }
    EXPECT_EQ(sb.read_file("/sdk/config/xml/dir/keep"), "k");
    EXPECT_EQ(ask(sb, "mon", 3), "MN>");  // the long frame left nothing behind
    EXPECT_TRUE(sb.dsp_commands().empty());

    // A failed resync leaves a successful transfer.
    EXPECT_EQ(status(sb, start_frame(2, "cfg.bin")), 0);
    EXPECT_EQ(status(sb, chunk(0, "ok")), 0);
    EXPECT_EQ(status(sb, end_frame(2)), 0);
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] dsp resync_app failed, may need reboot to sync new configuration\n", 1000));
    EXPECT_EQ(sb.read_file("/sdk/config/dsp_config"), "ok");
}
