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

// `table` holds the file from TABLE on; images that lie in it get their MD5.
void repair_digests(std::vector<uint8_t>& table)
{
    for (size_t r = 0; r + 128 <= table.size() && r < 10 * 128; r += 128) {
        const char* name = reinterpret_cast<const char*>(&table[r]);
        if (strncmp(name, "kernel", 7) != 0 && strncmp(name, "rootfs", 7) != 0) continue;
        uint64_t off = le32(&table[r + 68]), len = le32(&table[r + 72]);
        if (off < TABLE || off - TABLE + len > table.size()) continue;
        md5_context ctx;
        md5_init(&ctx);
        md5_update(&ctx, table.data() + (off - TABLE), len);
        uint8_t d[16];
        md5_final(&ctx, d);
        char hex[33];
        for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", d[i]);
        memcpy(&table[r + 32], hex, 32);
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
    std::vector<uint8_t> table(data, data + size);
    if (size == 0 || !(data[0] & 1)) repair_digests(table);
    // Sparse in front (images pointed there read as zeros): only the table
    // and what lies behind it are written.
    int fd = open("/mnt/u", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(TABLE)) != 0 ||
        pwrite(fd, table.data(), size, TABLE) != static_cast<ssize_t>(size))
        __builtin_trap();
    close(fd);
    const uint8_t payload[16] = {0x11, 0, 0, 0, 0, 'u'};
    handler_udisk_upg_control(payload, sizeof payload);
    return 0;
}
