// Faults around the daemon: a DSP service that stalls, dies or never answers,
// a queue that goes away, a flooded notification pipe, noise on the port at
// full speed, and a disk that fills during a configuration transfer or an
// OTA reception. The daemon serves what it can and keeps what it had.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>

#include "tests/e2e/harness.h"

using e2e::bytes;

namespace {

size_t count_prefix(const e2e::Sandbox& sb, const std::string& prefix)
{
    size_t n = 0;
    for (const auto& c : sb.dsp_commands()) n += c.rfind(prefix, 0) == 0;
    return n;
}

bool wait_prefix(const e2e::Sandbox& sb, const std::string& prefix, size_t n, int timeout_ms)
{
    for (int waited = 0; count_prefix(sb, prefix) < n; waited += 20) {
        if (waited >= timeout_ms) return false;
        usleep(20000);
    }
    return true;
}

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string le32(uint32_t v)
{
    return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

// Tool frame: 55 AA, kind 1, command, length LE, data, complemented XOR.
bytes tool_frame(uint8_t command, const std::string& data)
{
    bytes f = {0x55, 0xAA, 0x01, command, static_cast<uint8_t>(data.size()), static_cast<uint8_t>(data.size() >> 8)};
    for (char c : data) f.push_back(static_cast<uint8_t>(c));
    uint8_t sum = 0xFF;
    for (size_t i = 2; i < f.size(); ++i) sum ^= f[i];
    f.push_back(sum);
    return f;
}

// The reply frame of a transfer request; empty when none came.
bytes transfer(e2e::Sandbox& sb, uint8_t command, const std::string& data)
{
    sb.send(tool_frame(command, data));
    return sb.read_bytes(8, 3000);
}

// OTA exit needs no DSP: the daemon answers it with OTA state 4.
bool ota_exit_answered(e2e::Sandbox& sb, int timeout_ms = 3000)
{
    sb.send_frame(14, {3});
    bytes f = sb.read_mcu_frame_cmd(0x23, timeout_ms);
    return f.size() == 16 && f[3] == 4;
}

bytes reply_frame(uint8_t code, uint8_t status)
{
    return {0x55, 0xAA, 0x01, code, 0x01, 0x00, status, static_cast<uint8_t>(0xFF ^ code ^ status)};
}

}  // namespace

TEST(FaultMcu, DspStallsDiesAndItsQueueGoes)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    pid_t dsp = sb.dsp_pid();
    ASSERT_GT(dsp, 0);

    // A stalled service: the command waits in the queue and goes through
    // once the service runs again.
    ASSERT_EQ(kill(dsp, SIGSTOP), 0);
    sb.send_frame(5, bytes(12, 100));
    usleep(300000);
    EXPECT_EQ(count_prefix(sb, "dsp vol "), 0u);
    ASSERT_EQ(kill(dsp, SIGCONT), 0);
    EXPECT_TRUE(wait_prefix(sb, "dsp vol ", 12, 5000)) << sb.output();

    // A dead service: frames whose handlers need no DSP are still served.
    ASSERT_EQ(kill(dsp, SIGKILL), 0);
    EXPECT_TRUE(ota_exit_answered(sb)) << sb.output();
    sb.standin("/usr/bin/udisk", 1);
    sb.send_frame(15, {0x11, 0, 0, 0, 0, 'u', 'p', 'g', 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(e2e::hex(sb.read_mcu_frame_cmd(0x24, 3000)), e2e::hex(e2e::mcu_frame(0x24, {16, 0, 0, 0})));

    // A command that is never answered holds the main thread, until the
    // queue goes away: then it fails and the next frames are served again.
    sb.send_frame(5, bytes(12, 90));
    usleep(300000);
    EXPECT_FALSE(ota_exit_answered(sb, 500));
    sb.remove_dsp_queue();
    EXPECT_TRUE(sb.wait_output("[MCU IF] receive dsp command response failed\n", 3000)) << sb.output();
    // The OTA exit that waited behind it is answered now.
    EXPECT_EQ(sb.read_mcu_frame_cmd(0x23, 3000).size(), 16u) << sb.output();
    // Without a queue each command fails at once and nothing waits.
    sb.send_frame(5, bytes(12, 80));
    EXPECT_TRUE(sb.wait_output("[MCU IF] send dsp command failed\n", 3000)) << sb.output();
    EXPECT_TRUE(ota_exit_answered(sb));
    EXPECT_EQ(sb.wait_exit(0), -1);
}

TEST(FaultTool, DspDiesThenQueueGoes)
{
    e2e::Sandbox sb("/dev/ttyS2");
    sb.start();
    ASSERT_TRUE(sb.wait_output("setup DSP tool interface!\n", 3000));
    sb.send("mon");
    EXPECT_EQ(sb.read_bytes(3, 3000), e2e::to_bytes("MN>"));

    ASSERT_EQ(kill(sb.dsp_pid(), SIGKILL), 0);
    // The probe needs no DSP.
    sb.send("mon");
    EXPECT_EQ(sb.read_bytes(3, 3000), e2e::to_bytes("MN>"));
    // A tuning line waits for an answer that does not come ...
    sb.send("dsp delay 2 100 192\n");
    EXPECT_TRUE(sb.read_bytes(1, 500).empty());
    // ... until the queue is gone: the tool hears "[fail]" and the link goes on.
    sb.remove_dsp_queue();
    EXPECT_EQ(sb.read_bytes(7, 3000), e2e::to_bytes(std::string("[fail]", 7)));
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] receive dsp command response failed\n", 1000)) << sb.output();
    sb.send("mon");
    EXPECT_EQ(sb.read_bytes(3, 3000), e2e::to_bytes("MN>"));
    sb.send("dsp vol 3 -2.5 fffffffb\n");
    EXPECT_EQ(sb.read_bytes(7, 3000), e2e::to_bytes(std::string("[fail]", 7)));
    EXPECT_TRUE(sb.wait_output("[DSPTOOL] send dsp command failed\n", 1000));
}

TEST(FaultMcu, PipeFloodLeavesFramesServed)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    int fd = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    // Fill the pipe to its capacity; each byte asks for a report.
    std::string flood(4096, 'x');
    size_t written = 0;
    for (ssize_t w; (w = write(fd, flood.data(), flood.size())) > 0;) written += static_cast<size_t>(w);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(written, 4096u);
    // A frame of the MCU still gets its turn at the DSP service.
    sb.send_frame(5, bytes(12, 100));
    EXPECT_TRUE(wait_prefix(sb, "dsp vol ", 12, 20000)) << "reports so far: " << count_prefix(sb, "dsp s4_ch_eng");
    close(fd);
    // The reports go on and are well formed.
    for (int i = 0; i < 5; ++i) {
        bytes f = sb.read_mcu_frame_cmd(0x21, 3000);
        ASSERT_EQ(f.size(), 16u);
        EXPECT_EQ(f.back(), e2e::mcu_check(f.data() + 1, f.size() - 2));
    }
    EXPECT_EQ(sb.wait_exit(0), -1);
}

TEST(FaultMcu, NoiseAtFullSpeedThenAGoodFrame)
{
    e2e::Sandbox sb("/dev/ttyS1");
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    // 256 KiB of noise with lead bytes in it. The command bytes of music,
    // recording, OTA and USB upgrade are left out, so that a false frame
    // that happens to pass its check can only change a setting.
    std::mt19937 rng(8137);
    bytes noise(256 * 1024);
    for (auto& b : noise) {
        do b = static_cast<uint8_t>(rng());
        while (b == 9 || b == 10 || b == 14 || b == 15);
    }
    sb.send(noise);
    // A frame cut short by silence ends after 0.1 s; then the port is clean.
    usleep(500000);
    size_t before = sb.dsp_commands().size();
    sb.send_frame(5, {1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23});
    EXPECT_TRUE(sb.wait_dsp_command("dsp vol 12 -38.500000\n", 20000)) << sb.output().size();
    EXPECT_GT(sb.dsp_commands().size(), before);
    EXPECT_NE(sb.output().find("[MCU IF] Wrong checksum, data may be corrupted\n"), std::string::npos);
    EXPECT_EQ(sb.wait_exit(0), -1);
}

TEST(FaultDisk, FullDuringConfigurationTransfer)
{
    e2e::Sandbox sb("/dev/ttyS2");
    const std::string old_config(3000, 'c');
    sb.write_file("/sdk/config/dsp_config", old_config);
    sb.limit_dir("/sdk/config", 64 * 1024);
    sb.start();
    ASSERT_TRUE(sb.wait_output("setup DSP tool interface!\n", 3000));

    // 96 KiB do not fit: a chunk fails, the tool is told, the old file stays.
    const size_t size = 96 * 1024, chunk = 3000;
    EXPECT_EQ(transfer(sb, 2, le32(size) + "cfg.bin"), reply_frame(0x82, 0));
    size_t failed = 0;
    for (size_t seq = 0, at = 0; at < size; ++seq, at += chunk) {
        std::string data = {static_cast<char>(seq), static_cast<char>(seq >> 8)};
        data += std::string(std::min(chunk, size - at), 'n');
        failed += transfer(sb, 1, data) == reply_frame(0x81, 1);
    }
    EXPECT_GT(failed, 0u);
    EXPECT_EQ(transfer(sb, 3, le32(size)), reply_frame(0x83, 1));
    EXPECT_EQ(slurp(sb.live_path("/sdk/config/dsp_config")), old_config);
    EXPECT_EQ(count_prefix(sb, "dsp resync_app"), 0u);

    // A transfer that fits still works: the new start truncates the
    // temporary file, which gives the space back.
    EXPECT_EQ(transfer(sb, 2, le32(5) + "cfg.bin"), reply_frame(0x82, 0));
    EXPECT_EQ(transfer(sb, 1, std::string("\0\0hello", 7)), reply_frame(0x81, 0));
    EXPECT_EQ(transfer(sb, 3, le32(5)), reply_frame(0x83, 0));
    EXPECT_EQ(slurp(sb.live_path("/sdk/config/dsp_config")), "hello");
    EXPECT_TRUE(sb.wait_dsp_command("dsp resync_app\n", 3000));
}

TEST(FaultDisk, FullDuringOtaReception)
{
    e2e::Sandbox sb("/dev/ttyS1");
    const std::string old_package(5000, 'p');
    sb.write_file("/user/OTA_UPG.bin", old_package);
    // The package comes from the device file; /tmp, where it is stored
    // first, has room for a fraction of it.
    sb.remove("/dev/vmb_ota");
    sb.write_file("/dev/vmb_ota", std::string(200 * 1024, 'o'));
    sb.limit_dir("/tmp", 64 * 1024);
    sb.start();
    bytes f = sb.read_mcu_frame_cmd(0x23, 5000);
    ASSERT_EQ(f.size(), 16u) << sb.output();
    EXPECT_EQ(e2e::frame_payload(f), (bytes{2, 'R', 'P', '_', 'F', 'A', 'I', 'L', '!', 0, 0, 0}));
    EXPECT_NE(sb.output().find("[MCU IF] write OTA file error\n"), std::string::npos) << sb.output();
    EXPECT_EQ(sb.read_file("/user/OTA_UPG.bin"), old_package);
    // The daemon goes on serving frames.
    EXPECT_TRUE(ota_exit_answered(sb));
}
