// READ requests of the firmware upload at the limits of the 32-bit offset.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "update/fd_io.h"
#include "update/ota.h"

static_assert(file_pos(0xFFFFFFFF, 0xFFFFFFFF) == 0x1FFFFFFFELL);

TEST(McuReadReply, OffsetsUpToTheLastKeepTheirPosition)
{
    // A 4096-byte package: READ offsets count from 2048, 0xFFFFFFFF from 0.
    char path[] = "/tmp/read_offset_XXXXXX";
    unique_fd pkg(mkstemp(path));
    ASSERT_TRUE(pkg);
    unlink(path);
    uint8_t file[4096];
    for (size_t i = 0; i < sizeof file; ++i) file[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    ASSERT_TRUE(write_full(pkg.get(), file, sizeof file));

    const struct {
        uint32_t offset, length;
        int from, n;  // package bytes expected in the reply
    } cases[] = {
        {0xFFFFFFFF, 32, 0, 32}, {0, 5, 2048, 5},     {2047, 9, 4095, 1},
        {2048, 4, 0, 0},         {0x7FFFF800, 4, 0, 0}, {0xFFFFF800, 4, 0, 0},  // 2^31 and 2^32
        {0xFFFFFFFE, 4096, 0, 0}, {0, 0x10000, 2048, 2048},                      // capped at a block
    };
    for (const auto& c : cases) {
        uint8_t buf[4 + OTA_BLOCK] = {'R', 'E', 'A', 'D'};
        for (int i = 0; i < 4; ++i) {
            buf[4 + i] = static_cast<uint8_t>(c.offset >> (24 - 8 * i));
            buf[8 + i] = static_cast<uint8_t>(c.length >> (24 - 8 * i));
        }
        uint32_t sum = 0;
        for (int i = 0; i < c.n; ++i) sum += file[c.from + i];
        ASSERT_EQ(mcu_read_reply(pkg.get(), buf), (c.n + 7) & ~3) << std::hex << c.offset;
        EXPECT_EQ(get_le32(buf), sum) << std::hex << c.offset;
        EXPECT_EQ(memcmp(buf + 4, file + c.from, c.n), 0) << std::hex << c.offset;
        for (int i = c.n; i < ((c.n + 3) & ~3); ++i) EXPECT_EQ(buf[4 + i], 0) << std::hex << c.offset;
    }
}
