// Where a signature block is found: its size against what the file kind
// keeps in front of it, and the magic as the file's last 8 bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "update/fd_io.h"
#include "update/signature.h"

TEST(SignatureBlock, FoundOnlyWholeBehindWhatItCoversWithTheMagicLast)
{
    char path[] = "/tmp/signature_test_XXXXXX";
    unique_fd f(mkstemp(path));
    ASSERT_TRUE(f);
    unlink(path);
    const struct {
        signed_file kind;
        size_t size;
        size_t magic_at;  // from the end
        int found;
    } cases[] = {
        {signed_file::ota, 92, 8, 1}, {signed_file::ota, 91, 8, 0},  // the CRC field stays in front
        {signed_file::usb, 80, 8, 1}, {signed_file::usb, 79, 8, 0},
        {signed_file::usb, 200, 9, 0},  // magic one byte early
    };
    for (const auto& c : cases) {
        uint8_t file[200] = {};
        for (size_t i = 0; i < c.size; ++i) file[i] = static_cast<uint8_t>(i + 1);
        memcpy(file + c.size - c.magic_at, SIGNATURE_MAGIC, 8);
        ASSERT_EQ(ftruncate(f.get(), 0), 0);
        ASSERT_EQ(pwrite(f.get(), file, c.size, 0), static_cast<ssize_t>(c.size));
        signature_block b;
        ASSERT_EQ(signature_read_block(f.get(), c.size, c.kind, b), c.found) << c.size;
        if (c.found) {
            EXPECT_EQ(b.key_id[0], file[c.size - 80]);
            EXPECT_EQ(b.signature[63], file[c.size - 9]);
        }
    }
    unique_fd dir(open("/", O_RDONLY));
    signature_block b;
    EXPECT_EQ(signature_read_block(dir.get(), 100, signed_file::usb, b), -1);
}
