// USB disk upgrade: image table, copy with MD5, flashcp, erase, 0x24 frames.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/e2e/update_util.h"

using e2e::bytes;

namespace {

constexpr uint32_t BASE = 100;

struct record {
    std::string name, md5;
    uint32_t offset;
    std::string data;  // placed at BASE + offset
};

std::string usb_file(const std::vector<record>& records, size_t cut = 0)
{
    std::string f(BASE + 0x106000, '\0');
    for (size_t i = 0; i < records.size(); ++i) {
        const record& r = records[i];
        size_t at = BASE + 0x100880 + 128 * i;
        f.replace(at, r.name.size(), r.name);
        f.replace(at + 32, 32, r.md5);
        upd::put32(f, at + 68, r.offset);
        upd::put32(f, at + 72, static_cast<uint32_t>(r.data.size()));
        if (BASE + r.offset + r.data.size() <= f.size()) f.replace(BASE + r.offset, r.data.size(), r.data);
    }
    return cut ? f.substr(0, cut) : f;
}

bytes payload(const std::string& name, uint8_t sub = 0x11)
{
    bytes p(16, 0);
    p[0] = sub;
    p[1] = BASE;
    std::copy_n(name.begin(), std::min<size_t>(name.size(), 11), p.begin() + 5);
    return p;
}

// Status/percent of each 0x24 frame up to the first that is not progress.
std::string run(e2e::Sandbox& sb, const std::string& name)
{
    sb.send_frame(15, payload(name));
    std::string seen;
    for (bytes f; (f = sb.read_mcu_frame_cmd(0x24, 5000)).size() == 8;) {
        seen += std::to_string(f[3]) + "/" + std::to_string(f[4]) + " ";
        if (f[3] != 1) return seen;
    }
    return seen + "none";
}

}  // namespace

TEST(UdiskUpgrade, ProgrammesKernelThenRootfsAndReportsFailures)
{
    e2e::Sandbox sb;
    sb.dsp_reply("dsp rec state", "state:0");
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty());
    std::string kernel = upd::pattern(5000, 11), rootfs = upd::pattern(300, 12);
    record k{"kernel", upd::md5(sb, kernel), 0x102000, kernel};
    record r{"rootfs", upd::md5(sb, rootfs), 0x104000, rootfs};

    // Too short: a message and no frame. Another sub-command: silence.
    bytes too_short = payload("X");
    too_short.pop_back();
    sb.send_frame(15, too_short);
    sb.send_frame(15, payload("X", 0x10));
    // Records in the order rootfs, kernel; an 11-byte name with no 0 byte.
    sb.write_file("/mnt/UPGRADE.BIN", usb_file({r, k}));
    sb.send_frame(15, payload("UPGRADE.BIN"));
    EXPECT_EQ(e2e::hex(sb.read_mcu_frame_cmd(0x24, 5000)), "FF 07 24 01 00 00 00 3E");
    std::string seen;
    for (int i = 0; i < 3; ++i)
        if (bytes f = sb.read_mcu_frame_cmd(0x24, 5000); f.size() == 8)
            seen += std::to_string(f[3]) + "/" + std::to_string(f[4]) + " ";
    EXPECT_EQ(seen, "1/33 1/66 3/100 ") << sb.output();
    EXPECT_EQ(upd::count(sb.output(), "[MCU IF] wrong argument length\n"), 1u);
    EXPECT_NE(sb.output().find("[MCU IF] left=5000\n[MCU IF] programming kernel...\n"), std::string::npos);
    EXPECT_EQ(sb.read_file("/tmp/udisk_upg_tmp"), rootfs);
    auto calls = sb.standin_calls();
    std::vector<std::string> want{"udisk mount /mnt", "flashcp /tmp/udisk_upg_tmp /dev/mtd7",
                                  "flashcp /tmp/udisk_upg_tmp /dev/mtd8", "flash_eraseall /dev/mtd9",
                                  "udisk umount"};
    EXPECT_EQ(std::vector<std::string>(calls.end() - 5, calls.end()), want);

    std::vector<record> ten_before(10, record{"other", "", 0, ""});
    ten_before.push_back(k);
    record upper = k, past = k;
    std::transform(upper.md5.begin(), upper.md5.end(), upper.md5.begin(), ::toupper);
    past.offset = 0x105F00;  // 5000 bytes from here run past the end
    const std::pair<std::string, std::string> failing[] = {
        {usb_file({k}), "1/0 1/33 19/33 "},  // rootfs missing
        {usb_file(ten_before), "19/0 "},      // the eleventh record does not count
        {usb_file({upper, r}), "1/0 19/0 "},
        {usb_file({past, r}), "1/0 19/0 "},
        {usb_file({r, k}, BASE + 0x100880 + 200), "19/0 "},  // second record read short
    };
    for (const auto& [file, frames] : failing) {
        sb.write_file("/mnt/F", file);
        EXPECT_EQ(run(sb, "F"), frames) << sb.output();
        EXPECT_EQ(sb.standin_calls().back(), "udisk umount");
    }
    calls = sb.standin_calls();  // only the good run erased the user data
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "flash_eraseall /dev/mtd9"), 1);
    EXPECT_EQ(run(sb, "MISSING"), "16/0 ");
    EXPECT_NE(sb.output().find("[MCU IF] open USB upgrade file /mnt/MISSING failed: "), std::string::npos);

    sb.standin("/usr/sbin/flash_eraseall", 1);
    EXPECT_EQ(run(sb, "UPGRADE.BIN"), "1/0 1/33 1/66 19/66 ");
    sb.standin("/usr/bin/udisk", 1);
    size_t n = sb.standin_calls().size();
    EXPECT_EQ(run(sb, "UPGRADE.BIN"), "16/0 ");
    EXPECT_EQ(sb.standin_calls().size(), n + 1);  // mount only, no umount
    EXPECT_EQ(upd::count(sb.output(), "[MCU IF] USB disk upgrade failed\n"), 8u);
}
