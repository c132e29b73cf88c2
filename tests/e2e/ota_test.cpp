// OTA reception from the SPI slave device, OTA control commands, S8137 upgrade.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/e2e/update_util.h"

using e2e::bytes;

TEST(OtaReception, GoodPackageIsMovedAndReportedThenControlCommands)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec state", "state:0");
    // 8192 bytes: two full reads and a read of 0 end it; the CRC covers 8180.
    std::string pkg = upd::ota_package(8192, 0, 0);
    sb.write_file("/dev/vmb_ota", pkg);
    sb.write_file("/user/OTA_UPG.bin", "older package");
    sb.start();
    bytes f = sb.read_mcu_frame_cmd(0x23, 5000);
    EXPECT_EQ(e2e::frame_payload(f), upd::ota_state(3, pkg.substr(12, 8))) << sb.output();
    EXPECT_TRUE(sb.wait_output("[MCU IF] receive OTA bin OK\n", 1000));
    EXPECT_EQ(sb.read_file("/user/OTA_UPG.bin"), pkg);
    EXPECT_FALSE(sb.exists("/tmp/OTA_UPG.bin"));
    EXPECT_EQ(sb.read_file("/dev/vmb_ota"), pkg + "ok");  // the "ok" lands behind what was read

    // The listener runs: start only prints. 35 is silent, 36 and 0 unknown.
    for (uint8_t c : {1, 35, 36, 0, 3}) sb.send_frame(14, {c});
    EXPECT_EQ(e2e::hex(sb.read_mcu_frame_cmd(0x23, 3000)),
              "FF 0F 23 04 00 00 00 00 00 00 00 00 00 00 00 39");
    for (uint8_t c : {3, 1, 3}) sb.send_frame(14, {c});  // exit twice more, start after exit
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(4, ""));
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(4, ""));
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
    std::string good = upd::ota_package(5000, 0, 0);
    std::string be = good;
    upd::put_be32(be, 8, upd::crc32(good, 12));
    std::string twelve = upd::ota_package(12, 0, 0);  // CRC of no bytes is 0
    struct {
        std::string device, leftover, line;
        bool ok_written;
    } cases[] = {
        {be, "", "OTA file CRC wrong: package CRC32 = ", false},
        {twelve, "", "[MCU IF] read OTA file MCU digest failed: ", true},
        {"", "", "[MCU IF] read OTA file CRC32 failed: ", false},
        {good, std::string(6000, 'x'), "OTA file CRC wrong", false},  // old longer tail stays
    };
    for (const auto& c : cases) {
        e2e::Sandbox sb;
        sb.dsp_reply("dsp rec state", "state:0");
        sb.write_file("/dev/vmb_ota", c.device);
        sb.write_file("/user/OTA_UPG.bin", "older package");
        if (!c.leftover.empty()) sb.write_file("/tmp/OTA_UPG.bin", c.leftover);
        sb.start();
        bytes f = sb.read_mcu_frame_cmd(0x23, 5000);
        EXPECT_EQ(e2e::frame_payload(f), upd::ota_state(2, "RP_FAIL!")) << sb.output();
        EXPECT_NE(sb.output().find(c.line), std::string::npos) << sb.output();
        EXPECT_EQ(sb.read_file("/dev/vmb_ota"), c.device + (c.ok_written ? "ok" : ""));
        if (!c.ok_written) {
            EXPECT_EQ(sb.read_file("/user/OTA_UPG.bin"), "older package");
        }
    }
    char line[96];
    snprintf(line, sizeof line, "package CRC32 = %x, calculated CRC32 = %x\n",
             __builtin_bswap32(upd::crc32(good, 12)), upd::crc32(good, 12));
    e2e::Sandbox sb;
    sb.write_file("/dev/vmb_ota", be);
    sb.start();
    EXPECT_TRUE(sb.wait_output(line, 5000)) << sb.output();
}

TEST(OtaReception, ExitCancelsReceptionWaitingOnDevice)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec state", "state:0");
    sb.make_fifo("/dev/vmb_ota");
    int fifo = open(sb.host_path("/dev/vmb_ota").c_str(), O_RDWR);
    ASSERT_GE(fifo, 0);
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty());
    std::string block = upd::pattern(4096, 3);
    ASSERT_EQ(write(fifo, block.data(), block.size()), 4096);
    for (int i = 0; i < 100 && sb.read_file("/tmp/OTA_UPG.bin").size() < 4096; ++i) usleep(20000);
    sb.send_frame(14, {3});
    EXPECT_EQ(e2e::frame_payload(sb.read_mcu_frame_cmd(0x23, 3000)), upd::ota_state(4, ""));
    EXPECT_TRUE(sb.read_mcu_frame_cmd(0x23, 300).empty());  // no frame of the cancelled thread
    EXPECT_EQ(sb.read_file("/tmp/OTA_UPG.bin"), block);
    close(fifo);
}

namespace {

struct s8137_image {
    std::string name;  // up to 32 bytes, copied as it stands
    uint32_t offset;   // from the section's start
    std::string data;
};

constexpr uint32_t SECTION_AT = 4096;
constexpr uint32_t SECTION_LEN = 8192;

// A section of SECTION_LEN bytes: digest, directory, images where they point.
std::string s8137_section(const e2e::Sandbox& sb, const std::vector<s8137_image>& images,
                          char dir_byte_480 = 0)
{
    std::string s(SECTION_LEN, '\0');
    for (size_t i = 0; i < images.size(); ++i) {
        const auto& im = images[i];
        memcpy(&s[16 + 40 * i], im.name.data(), im.name.size());
        upd::put_be32(s, 16 + 40 * i + 32, im.offset);
        upd::put_be32(s, 16 + 40 * i + 36, static_cast<uint32_t>(im.data.size()));
        if (im.offset + im.data.size() <= s.size()) s.replace(im.offset, im.data.size(), im.data);
    }
    s[16 + 480] = dir_byte_480;
    return upd::md5_raw(sb, s.substr(16)) + s.substr(16);
}

std::string with_section(const std::string& section)
{
    return upd::ota_package(SECTION_AT, SECTION_AT, SECTION_LEN) + section;
}

// Sends OTA upgrade S8137 and waits for its two frames.
void upgrade(e2e::Sandbox& sb)
{
    sb.send_frame(14, {5});
    EXPECT_EQ(e2e::hex(sb.read_mcu_frame_cmd(0x23, 3000)),
              "FF 0F 23 05 00 00 00 00 00 00 00 00 00 00 00 3A");
    EXPECT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
}

}  // namespace

TEST(S8137Upgrade, UnpacksImagesAndRunsOtaUpg)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec state", "state:0");
    std::string kernel = upd::pattern(5000, 7);
    sb.write_file("/user/OTA_UPG.bin",
                  with_section(s8137_section(sb, {{"kernel.img", 528, kernel}, {"empty", 6000, ""},
                                                   {"a.bin", 5528, "0123456789"}})));
    sb.write_file("/tmp/a.bin", std::string(20, 'Z'));  // a longer old file keeps its tail
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty());
    upgrade(sb);
    EXPECT_TRUE(sb.wait_output("[MCU IF] OTA upgrade S8137 OK\n", 2000)) << sb.output();
    EXPECT_EQ(sb.read_file("/tmp/kernel.img"), kernel);
    EXPECT_EQ(sb.read_file("/tmp/a.bin"), "0123456789" + std::string(10, 'Z'));
    EXPECT_TRUE(sb.exists("/tmp/empty"));
    EXPECT_EQ(sb.standin_calls().back(), "ota_upg");

    // Twelve entries and no end inside the directory: the scan stops there.
    std::vector<s8137_image> twelve;
    for (int i = 0; i < 12; ++i) twelve.push_back({"f" + std::to_string(i), 600u + i, "x"});
    sb.write_file("/user/OTA_UPG.bin", with_section(s8137_section(sb, twelve, 'Q')));
    upgrade(sb);
    EXPECT_TRUE(sb.exists("/tmp/f11"));
    EXPECT_FALSE(sb.exists("/tmp/Q"));
    EXPECT_EQ(upd::count(sb.output(), "S8137 OK\n"), 2u);

    // Each failure still runs ota_upg and writes no image of its own.
    std::string bad_digest = s8137_section(sb, {{"late.img", 528, "abc"}});
    bad_digest[600] ^= 1;
    const std::string failing[] = {
        bad_digest,
        s8137_section(sb, {{std::string(32, 'N'), 528, "abc"}}),       // name without its 0 byte
        s8137_section(sb, {{"late.img", 0x7FFFFFF0, "abcdefghij"}}),  // image past the end
        s8137_section(sb, {{"late.img", 528, "abc"}}).substr(0, 4000),  // package cut short
    };
    for (size_t i = 0; i < std::size(failing); ++i) {
        sb.write_file("/user/OTA_UPG.bin", with_section(failing[i]));
        upgrade(sb);
        EXPECT_EQ(upd::count(sb.output(), "[MCU IF] OTA upgrade S8137 failed\n"), i + 1) << sb.output();
        auto calls = sb.standin_calls();
        EXPECT_EQ(size_t(std::count(calls.begin(), calls.end(), "ota_upg")), i + 3);
    }
    EXPECT_FALSE(sb.exists("/tmp/" + std::string(31, 'N')));
    EXPECT_EQ(sb.read_file("/tmp/late.img"), "");  // the image past the end was created, then failed
}

TEST(S8137Upgrade, SectionLengthZeroShortOrPastEnd)
{
    const std::pair<uint32_t, const char*> cases[] = {
        {0, "[MCU IF] No S8137 OTA bin in OTA file, no need upgrade\n"},
        {8, "[MCU IF] S8137 OTA file check error\n"},
        {100000, "[MCU IF] read failed: "},
    };
    for (const auto& [length, line] : cases) {
        e2e::Sandbox sb;
        sb.dsp_reply("dsp rec state", "state:0");
        sb.write_file("/user/OTA_UPG.bin", upd::ota_package(6000, 4096, length));
        sb.start();
        ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty());
        upgrade(sb);
        EXPECT_TRUE(sb.wait_output(line, 2000)) << sb.output();
        EXPECT_TRUE(sb.wait_output("[MCU IF] OTA upgrade S8137 failed\n", 2000));
        EXPECT_EQ(sb.standin_calls().back(), "ota_upg");
    }
}
