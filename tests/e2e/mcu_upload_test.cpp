// MCU firmware upload: a simulated MCU on the pty performs the exchange.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <unistd.h>

#include "tests/e2e/update_util.h"

using e2e::bytes;

namespace {

// Waits for the next call; frames of other threads may come in between.
bool expect_call(e2e::Sandbox& sb)
{
    const std::string call = "UART_UPDATA!";
    std::string seen;
    for (int i = 0; i < 3000 && seen.find(call) == std::string::npos; ++i) {
        bytes b = sb.read_bytes(1, 3000);
        if (b.empty()) return false;
        seen += static_cast<char>(b[0]);
    }
    return seen.find(call) != std::string::npos;
}

bytes read_req(uint32_t offset, uint32_t length)
{
    std::string m = "READ" + std::string(8, '\0');
    upd::put_be32(m, 4, offset);
    upd::put_be32(m, 8, length);
    return e2e::to_bytes(m);
}

bytes reply_for(const std::string& data)
{
    uint32_t sum = 0;
    for (unsigned char c : data) sum += c;
    std::string r(4, '\0');
    upd::put_le32(r, 0, sum);
    r += data;
    r.resize((data.size() + 7) & ~size_t{3}, '\0');
    return e2e::to_bytes(r);
}

// User and system ticks of the sandbox's tty_hub, from the host's /proc.
long cpu_ticks(const e2e::Sandbox& sb)
{
    auto root = std::filesystem::canonical(sb.root());
    for (const auto& d : std::filesystem::directory_iterator("/proc")) {
        std::error_code ec;
        std::string comm;
        std::ifstream(d.path() / "comm") >> comm;
        if (comm != "tty_hub" || std::filesystem::read_symlink(d.path() / "root", ec) != root) continue;
        std::ifstream stat(d.path() / "stat");
        std::string field;
        long ticks = 0;
        for (int i = 1; i <= 15 && stat >> field; ++i)
            if (i >= 14) ticks += std::stol(field);
        return ticks;
    }
    return -1;
}

}  // namespace

TEST(McuFirmwareUpload, FailedHandshakeLeavesDaemonWorkingThenWholeUpload)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec state", "state:0");
    std::string pkg = upd::ota_package(2048, 0, 0) + upd::pattern(6000, 5);
    pkg.replace(2048 + 100, 5, "\x01\x02\x03\x04\x05");
    sb.write_file("/user/OTA_UPG.bin", pkg);
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty());

    // Catch the pipe worker inside a DSP exchange, holding dsp_lock, at the cancel.
    sb.dsp_delay_ms("dsp vmb_Get_AudioInfo", 1500);
    int pipe = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(pipe, 0);
    ASSERT_EQ(write(pipe, "x", 1), 1);
    close(pipe);
    ASSERT_TRUE(sb.wait_dsp_command("dsp vmb_Get_AudioInfo\n", 3000));
    sb.send_frame(14, {6});
    // Five failed attempts: silence, a 12-byte non-READ, a short answer, two more.
    const char* answers[] = {"", "HELLO_WORLD!", "REA", "UPDATA_SUCC!", "xREADxxxxxxx"};
    for (const char* a : answers) {
        ASSERT_TRUE(expect_call(sb)) << sb.output();
        sb.send(std::string(a));
    }
    EXPECT_TRUE(sb.wait_output("[MCU IF] wait MCU READ command timeout\n", 3000)) << sb.output();
    // The frame link still works, and DSP commands are not blocked for ever.
    sb.send_frame(14, {5});
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(5, ""));
    EXPECT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    sb.drain(300);

    // Second upload: the handshake works on the fifth attempt.
    sb.send_frame(14, {6});
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(expect_call(sb));
        sb.send(std::string("NOPE_NOPE_NO"));
    }
    ASSERT_TRUE(expect_call(sb));
    struct {
        uint32_t offset, length;
        std::string data;
    } reads[] = {
        {0, 4, pkg.substr(2048, 4)},
        {0xFFFFFFFF, 32, pkg.substr(0, 32)},
        {6000, 8, ""},                        // behind the end
        {5990, 100, pkg.substr(2048 + 5990)},  // reaching past the end
        {7, 0, ""},
        {200, 5000, pkg.substr(2048 + 200, 4096)},  // longer than one block: 4096 served
    };
    for (const auto& r : reads) {
        sb.send(read_req(r.offset, r.length));
        bytes want = reply_for(r.data);
        EXPECT_EQ(sb.read_bytes(want.size(), 3000), want) << r.offset << "/" << r.length;
    }
    sb.send(e2e::to_bytes("UPDA_NOT_END"));
    EXPECT_TRUE(sb.wait_output("[MCU IF] not MCU READ command\n", 2000));
    sb.send(read_req(100, 5));
    EXPECT_EQ(e2e::hex(sb.read_bytes(12, 3000)), "0F 00 00 00 01 02 03 04 05 00 00 00");

    // The end gets no answer; the daemon stays, using no processor time.
    sb.send(e2e::to_bytes("UPDATA_SUCC!"));
    sb.send(read_req(0, 4));
    EXPECT_TRUE(sb.drain(300).empty());
    long before = cpu_ticks(sb);
    usleep(500000);
    EXPECT_GE(before, 0);
    EXPECT_EQ(cpu_ticks(sb), before);
    EXPECT_EQ(sb.wait_exit(0), -1);
}
