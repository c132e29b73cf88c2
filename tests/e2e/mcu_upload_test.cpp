// MCU firmware upload: a simulated MCU on the pty performs the exchange.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

#include "tests/e2e/update_util.h"

using e2e::bytes;
namespace fs = std::filesystem;

namespace {

// Waits for the next call; frames of other threads may come in between.
bool expect_call(e2e::Sandbox& sb)
{
    std::string seen;
    while (seen.find("UART_UPDATA!") == std::string::npos && seen.size() < 3000) {
        bytes b = sb.read_bytes(1, 3000);
        if (b.empty()) return false;
        seen += static_cast<char>(b[0]);
    }
    return seen.size() < 3000;
}

bytes read_request(uint32_t offset, uint32_t length)
{
    std::string m = "READ" + std::string(8, '\0');
    upd::put32(m, 4, offset, true);
    upd::put32(m, 8, length, true);
    return e2e::to_bytes(m);
}

bytes reply_for(std::string data)
{
    std::string r(4, '\0');
    uint32_t sum = 0;
    for (unsigned char c : data) sum += c;
    upd::put32(r, 0, sum);
    r += data;
    r.resize((data.size() + 7) & ~size_t{3}, '\0');
    return e2e::to_bytes(r);
}

// User and system ticks of the sandbox's tty_hub, from the host's /proc.
long cpu_ticks(const e2e::Sandbox& sb)
{
    for (const auto& d : fs::directory_iterator("/proc")) {
        std::error_code ec;
        std::ifstream stat(d.path() / "stat");
        std::string field, comm;
        if (!(stat >> field >> comm) || comm != "(tty_hub)" ||
            fs::read_symlink(d.path() / "root", ec) != fs::canonical(sb.root()))
            continue;
        long ticks = 0;
        for (int i = 3; i <= 15 && stat >> field; ++i)
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

    // The pipe worker is inside a DSP exchange, holding dsp_lock, at the cancel.
    sb.dsp_delay_ms("dsp vmb_Get_AudioInfo", 1500);
    int pipe = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_EQ(write(pipe, "x", 1), 1);
    close(pipe);
    ASSERT_TRUE(sb.wait_dsp_command("dsp vmb_Get_AudioInfo\n", 3000));
    sb.send_frame(14, {6});
    // Five failed attempts: silence, a 12-byte non-READ, a short answer, two more.
    for (const char* answer : {"", "HELLO_WORLD!", "REA", "UPDATA_SUCC!", "xREADxxxxxxx"}) {
        ASSERT_TRUE(expect_call(sb)) << sb.output();
        sb.send(std::string(answer));
    }
    EXPECT_TRUE(sb.wait_output("[MCU IF] wait MCU READ command timeout\n", 3000)) << sb.output();
    // Frames are still read, and DSP commands are not blocked for ever.
    sb.send_frame(14, {5});
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(5));
    EXPECT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    sb.drain(300);

    // Second upload: the handshake works on the fifth attempt.
    sb.send_frame(14, {6});
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(expect_call(sb));
        if (i < 4) sb.send(std::string("NOPE_NOPE_NO"));
    }
    const std::tuple<uint32_t, uint32_t, std::string> reads[] = {
        {0, 4, pkg.substr(2048, 4)},
        {0xFFFFFFFF, 32, pkg.substr(0, 32)},
        {6000, 8, ""},                              // behind the end
        {5990, 100, pkg.substr(2048 + 5990)},        // reaching past the end
        {7, 0, ""},
        {200, 5000, pkg.substr(2048 + 200, 4096)},  // more than one block: 4096 served
    };
    for (const auto& [offset, length, data] : reads) {
        sb.send(read_request(offset, length));
        bytes want = reply_for(data);
        EXPECT_EQ(sb.read_bytes(want.size(), 3000), want) << offset << "/" << length;
    }
    sb.send(e2e::to_bytes("UPDA_NOT_END"));
    EXPECT_TRUE(sb.wait_output("[MCU IF] not MCU READ command\n", 2000));
    sb.send(read_request(100, 5));
    EXPECT_EQ(e2e::hex(sb.read_bytes(12, 3000)), "0F 00 00 00 01 02 03 04 05 00 00 00");

    // The end gets no answer; the daemon stays, using no processor time.
    sb.send(e2e::to_bytes("UPDATA_SUCC!"));
    sb.send(read_request(0, 4));
    EXPECT_TRUE(sb.drain(300).empty());
    long before = cpu_ticks(sb);
    usleep(500000);
    EXPECT_GE(before, 0);
    EXPECT_EQ(cpu_ticks(sb), before);
    EXPECT_EQ(sb.wait_exit(0), -1);
}
