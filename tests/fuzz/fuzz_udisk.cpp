// The image table of a USB upgrade file: records searched by name, their MD5
// texts, offsets and lengths, and the copy of each image they point at.
//
// Input: the bytes at the table's position (base + 0x100880) of a file whose
// first part is sparse. Unless bit 0 of byte 0 is set, the harness writes
// the right MD5 text into the kernel and rootfs records whose images lie
// inside the file, so that the programming steps are reached.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "core/protocol.h"
#include "mcu/handlers.h"
#include "tests/fuzz/fuzz_env.h"
#include "update/md5.h"

namespace {

constexpr size_t TABLE = 0x100880;

uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

void repair_digests(std::vector<uint8_t>& file)
{
    for (size_t r = TABLE; r + 128 <= file.size() && r < TABLE + 10 * 128; r += 128) {
        const char* name = reinterpret_cast<const char*>(&file[r]);
        if (strncmp(name, "kernel", 7) != 0 && strncmp(name, "rootfs", 7) != 0) continue;
        uint64_t off = le32(&file[r + 68]), len = le32(&file[r + 72]);
        if (off + len > file.size()) continue;
        md5_context ctx;
        md5_init(&ctx);
        md5_update(&ctx, file.data() + off, len);
        uint8_t d[16];
        md5_final(&ctx, d);
        char hex[33];
        for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", d[i]);
        memcpy(&file[r + 32], hex, 32);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::start_link(PROTO_MCU, false);  // the progress frames go out
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<uint8_t> file(TABLE + size);
    memcpy(file.data() + TABLE, data, size);
    if (size == 0 || !(data[0] & 1)) repair_digests(file);
    // Sparse in front: only the table and what lies behind it are written.
    int fd = open("/mnt/u", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(TABLE)) != 0 ||
        pwrite(fd, file.data() + TABLE, size, TABLE) != static_cast<ssize_t>(size))
        __builtin_trap();
    // Images pointed into the sparse part read as zeros there, as in `file`.
    close(fd);
    const uint8_t payload[16] = {0x11, 0, 0, 0, 0, 'u'};
    handler_udisk_upg_control(payload, sizeof payload);
    return 0;
}
