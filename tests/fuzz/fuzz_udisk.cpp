// The image table of a USB upgrade file and the copy of each image. Input:
// the bytes at the table (0x100880) of a file sparse in front. Unless bit 0
// of byte 0 is set, kernel and rootfs records whose images lie in the file
// get their right MD5 text, so that the programming steps are reached.
#include <cstring>
#include <fcntl.h>
#include <vector>

#include "core/protocol.h"
#include "mcu/handlers.h"
#include "tests/fuzz/fuzz_env.h"
#include "update/md5.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return fuzz::start(PROTO_MCU), 0; }  // progress frames go out

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr size_t TABLE = 0x100880;
    std::vector<uint8_t> t(data, data + size);
    for (size_t r = 0; size > 0 && !(data[0] & 1) && r + 128 <= size && r < 10 * 128; r += 128) {
        uint64_t off = fuzz::le32(&t[r + 68]), len = fuzz::le32(&t[r + 72]);
        if ((memcmp(&t[r], "kernel", 7) && memcmp(&t[r], "rootfs", 7)) || off < TABLE || off - TABLE + len > size)
            continue;
        md5_context ctx;
        uint8_t d[16];
        md5_init(&ctx);
        md5_update(&ctx, &t[off - TABLE], len);
        md5_final(&ctx, d);
        for (int i = 0; i < 32; ++i) t[r + 32 + i] = "0123456789abcdef"[(d[i / 2] >> (i % 2 ? 0 : 4)) & 15];
    }
    // Sparse in front (images pointed there read as zeros): only the table and what follows is written.
    int fd = open("/mnt/u", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, TABLE) != 0 || pwrite(fd, t.data(), size, TABLE) != ssize_t(size)) __builtin_trap();
    close(fd);
    const uint8_t payload[16] = {0x11, 0, 0, 0, 0, 'u'};
    handler_udisk_upg_control(payload, sizeof payload);
    return 0;
}
