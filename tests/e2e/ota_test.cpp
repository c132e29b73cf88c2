// OTA reception from the SPI slave device, OTA control commands, S8137 upgrade.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/e2e/update_util.h"

using e2e::bytes;

namespace {

// The reception's frame may come ahead of the first record state frame:
// only a daemon without a package to receive waits for the latter.
void start(e2e::Sandbox& sb, bool wait_first = true)
{
    sb.dsp_reply("dsp rec state", "state:0");
    sb.start();
    if (wait_first) {
        ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty());
    }
}

}  // namespace

TEST(OtaReception, GoodPackageIsMovedAndReportedThenControlCommands)
{
    e2e::Sandbox sb;
    // 8192 bytes: two full reads and a read of 0 end it; the CRC covers 8180.
    std::string pkg = upd::ota_package(8192, 0, 0);
    sb.remove("/dev/vmb_ota");  // a file in place of the FIFO: the package is all there
    sb.write_file("/dev/vmb_ota", pkg);
    start(sb, false);
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 5000)), upd::ota_state(3, pkg.substr(12, 8)));
    EXPECT_TRUE(sb.wait_output("[MCU IF] receive OTA bin OK\n", 1000));
    EXPECT_EQ(sb.read_file("/user/OTA_UPG.bin"), pkg);
    EXPECT_FALSE(sb.exists("/tmp/OTA_UPG.bin"));
    EXPECT_EQ(sb.read_file("/dev/vmb_ota"), pkg + "ok");  // written behind what was read

    // The listener runs: start only prints. 35 is silent, 36 and 0 unknown.
    for (uint8_t c : {1, 35, 36, 0, 3}) sb.send_frame(14, {c});
    EXPECT_EQ(e2e::hex(sb.read_mcu_frame_cmd(0x23, 3000)), "FF 0F 23 04 00 00 00 00 00 00 00 00 00 00 00 39");
    for (uint8_t c : {3, 1, 3}) sb.send_frame(14, {c});  // exit twice more, start after exit
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(4));
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(4));
    EXPECT_TRUE(sb.read_mcu_frame_cmd(0x23, 300).empty());
    std::string out = sb.output();
    EXPECT_EQ(upd::count(out, "[MCU IF] OTA start\n"), 2u);
    EXPECT_EQ(upd::count(out, "[MCU IF] OTA exit\n"), 3u);
    EXPECT_EQ(upd::count(out, "[MCU IF] unknown OTA control command\n"), 2u);
    auto calls = sb.standin_calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "modprobe spi-slave-vmb"), 1);
}

TEST(OtaReception, FailuresReportRpFail)
{
    std::string good = upd::ota_package(5000, 0, 0), be = good;
    upd::put32(be, 8, upd::crc32(good), true);
    char crc_line[96];
    snprintf(crc_line, sizeof crc_line, "CRC wrong: package CRC32 = %x, calculated CRC32 = %x\n",
             __builtin_bswap32(upd::crc32(good)), upd::crc32(good));
    struct {
        std::string device, leftover, line;
        bool ok;
    } cases[] = {
        {be, "", crc_line, false},
        {upd::ota_package(12, 0, 0), "", "[MCU IF] read OTA file MCU digest failed: ", true},  // CRC of nothing: 0
        {"", "", "[MCU IF] read OTA file CRC32 failed: ", false},
        {good, std::string(6000, 'x'), "OTA file CRC wrong", false},  // the longer old tail stays
    };
    for (const auto& c : cases) {
        e2e::Sandbox sb;
        sb.remove("/dev/vmb_ota");
        sb.write_file("/dev/vmb_ota", c.device);
        sb.write_file("/user/OTA_UPG.bin", "older package");
        if (!c.leftover.empty()) sb.write_file("/tmp/OTA_UPG.bin", c.leftover);
        start(sb, false);
        EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 5000)), upd::ota_state(2, "RP_FAIL!"));
        EXPECT_NE(sb.output().find(c.line), std::string::npos) << sb.output();
        EXPECT_EQ(sb.read_file("/dev/vmb_ota"), c.device + (c.ok ? "ok" : ""));
        EXPECT_EQ(sb.read_file("/user/OTA_UPG.bin") == "older package", !c.ok);
    }
}

TEST(OtaReception, ExitCancelsReceptionWaitingOnDevice)
{
    e2e::Sandbox sb;
    int fifo = open(sb.host_path("/dev/vmb_ota").c_str(), O_RDWR);
    ASSERT_GE(fifo, 0);
    start(sb);
    std::string block = upd::pattern(4096, 3);
    ASSERT_EQ(write(fifo, block.data(), block.size()), 4096);
    for (int i = 0; i < 100 && sb.read_file("/tmp/OTA_UPG.bin").size() < 4096; ++i) usleep(20000);
    sb.send_frame(14, {3});
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(4));
    EXPECT_TRUE(sb.read_mcu_frame_cmd(0x23, 300).empty());  // nothing from the cancelled thread
    EXPECT_EQ(sb.read_file("/tmp/OTA_UPG.bin"), block);
    close(fifo);
}

namespace {

struct s8137_image {
    std::string name;  // copied as it stands, up to 32 bytes
    uint32_t offset;   // from the section's start
    std::string data;
};

// A package with an 8192-byte section at 4096: digest, directory, images.
std::string with_section(const e2e::Sandbox& sb, const std::vector<s8137_image>& images, char byte_480 = 0)
{
    std::string s(8192, '\0');
    for (size_t i = 0; i < images.size(); ++i) {
        const auto& im = images[i];
        s.replace(16 + 40 * i, im.name.size(), im.name);
        upd::put32(s, 16 + 40 * i + 32, im.offset, true);
        upd::put32(s, 16 + 40 * i + 36, static_cast<uint32_t>(im.data.size()), true);
        if (im.offset + im.data.size() <= s.size()) s.replace(im.offset, im.data.size(), im.data);
    }
    s[16 + 480] = byte_480;
    return upd::ota_package(4096, 4096, 8192) + upd::md5(sb, s.substr(16), true) + s.substr(16);
}

// OTA upgrade S8137 with its two frames, and the number of ota_upg runs so far.
long upgrade(e2e::Sandbox& sb, const std::string& package)
{
    sb.write_file("/user/OTA_UPG.bin", package);
    sb.send_frame(14, {5});
    EXPECT_EQ(e2e::hex(sb.read_mcu_frame_cmd(0x23, 3000)), "FF 0F 23 05 00 00 00 00 00 00 00 00 00 00 00 3A");
    EXPECT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    auto calls = sb.standin_calls();
    return std::count(calls.begin(), calls.end(), "ota_upg");
}

}  // namespace

TEST(S8137Upgrade, UnpacksImagesAndRunsOtaUpgOnEveryPath)
{
    e2e::Sandbox sb;
    start(sb);
    std::string kernel = upd::pattern(5000, 7);
    sb.write_file("/tmp/a.bin", std::string(20, 'Z'));  // a longer old file keeps its tail
    upgrade(sb, with_section(sb, {{"kernel.img", 528, kernel}, {"empty", 6000, ""}, {"a.bin", 5528, "0123456789"}}));
    EXPECT_TRUE(sb.wait_output("[MCU IF] OTA upgrade S8137 OK\n", 2000)) << sb.output();
    EXPECT_EQ(sb.read_file("/tmp/kernel.img"), kernel);
    EXPECT_EQ(sb.read_file("/tmp/a.bin"), "0123456789" + std::string(10, 'Z'));
    EXPECT_TRUE(sb.exists("/tmp/empty"));

    // Twelve entries and no end inside the directory: the scan stops there.
    std::vector<s8137_image> twelve;
    for (int i = 0; i < 12; ++i) twelve.push_back({"f" + std::to_string(i), 600u + i, "x"});
    upgrade(sb, with_section(sb, twelve, 'Q'));
    EXPECT_TRUE(sb.exists("/tmp/f11"));
    EXPECT_FALSE(sb.exists("/tmp/Q"));
    EXPECT_EQ(upd::count(sb.output(), "S8137 OK\n"), 2u);

    std::string bad_digest = with_section(sb, {{"late.img", 528, "abc"}});
    bad_digest[4096 + 600] ^= 1;
    const std::string failing[] = {
        bad_digest,
        with_section(sb, {{std::string(32, 'N'), 528, "abc"}}),       // name without its 0 byte
        with_section(sb, {{"late.img", 0x7FFFFFF0, "abcdefghij"}}),  // image past the end
        with_section(sb, {{"late.img", 528, "abc"}}).substr(0, 8000),  // section past the end
    };
    for (size_t i = 0; i < std::size(failing); ++i) {
        EXPECT_EQ(upgrade(sb, failing[i]), long(i) + 3);
        EXPECT_EQ(upd::count(sb.output(), "[MCU IF] OTA upgrade S8137 failed\n"), i + 1) << sb.output();
    }
    EXPECT_FALSE(sb.exists("/tmp/" + std::string(31, 'N')));
    EXPECT_EQ(sb.read_file("/tmp/late.img"), "");  // made by the image past the end only
}

TEST(S8137Upgrade, OffsetZeroRereadsHeaderForEachUpgrade)
{
    e2e::Sandbox sb;
    start(sb);
    EXPECT_EQ(upgrade(sb, upd::ota_package(6000, 0, 0)), 1);
    EXPECT_TRUE(sb.wait_output("[MCU IF] No S8137 OTA bin in OTA file, no need upgrade\n", 2000));
    EXPECT_EQ(upgrade(sb, upd::ota_package(6000, 0, 8)), 2);  // too short for its digest
    EXPECT_TRUE(sb.wait_output("[MCU IF] S8137 OTA file check error\n", 2000));
    EXPECT_EQ(upd::count(sb.output(), "[MCU IF] OTA upgrade S8137 failed\n"), 2u);
}
