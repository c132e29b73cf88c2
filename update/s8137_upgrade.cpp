// Check and unpacking of the S8137 section of the OTA package.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

#include "update/fd_io.h"
#include "update/md5.h"
#include "update/ota.h"
#include "update/ota_internal.h"

namespace {

constexpr size_t DIGEST_SIZE = 16;
constexpr size_t DIR_SIZE = 512;
constexpr size_t ENTRY_SIZE = 40;
constexpr size_t NAME_SIZE = 32;
// Whole entries that fit the directory; a list without an end stops here.
constexpr size_t MAX_ENTRIES = DIR_SIZE / ENTRY_SIZE;

// Streams one image out of the package into /tmp/<name>. A read that ends
// before length bytes means the image runs past the package: a read failure.
int unpack_image(int pkg, const uint8_t* entry, off_t section, uint8_t* block)
{
    // The name must end inside its field; one that does not is no valid
    // entry, and using it would mean reading into the numbers behind it.
    if (!memchr(entry, 0, NAME_SIZE)) {
        puts("[MCU IF] S8137 image name without end");
        return -1;
    }
    uint32_t offset = get_be32(entry + NAME_SIZE);
    uint32_t length = get_be32(entry + NAME_SIZE + 4);
    char path[40];
    snprintf(path, sizeof path, "/tmp/%.31s", reinterpret_cast<const char*>(entry));

    unique_fd image(open(path, O_RDWR | O_CREAT, 0644));
    if (!image) {
        printf("[MCU IF] create temporary file failed: %s\n", strerror(errno));
        return -1;
    }
    off_t pos = section + static_cast<off_t>(offset);
    if (lseek(pkg, pos, SEEK_SET) != pos) {
        int err = errno;
        image.reset();
        printf("[MCU IF] lseek failed: %s\n", strerror(err));
        return -1;
    }
    while (length != 0) {
        size_t n = length < OTA_BLOCK ? length : OTA_BLOCK;
        ssize_t r = read_full(pkg, block, n);
        if (r != static_cast<ssize_t>(n)) {
            const char* why = io_error_text(r);
            image.reset();
            printf("[MCU IF] read file error: %s\n", why);
            return -1;
        }
        if (!write_full(image.get(), block, n)) {
            int err = errno;
            image.reset();
            printf("[MCU IF] write file error: %s\n", strerror(err));
            return -1;
        }
        length -= static_cast<uint32_t>(n);
    }
    fsync(image.get());
    return 0;
}

// Everything between opening and closing the package: digest check over the
// whole section, then the images. 0 when all of it worked.
int unpack_s8137(uint8_t* block)
{
    unique_fd pkg(open(OTA_PACKAGE_PATH, O_RDONLY));
    if (!pkg) {
        printf("[MCU IF] open OTA upgrade file failed: %s\n", strerror(errno));
        return -1;
    }
    uint32_t s8137_offset, s8137_length;
    {
        header_guard lock;
        if (ota_info.s8137_offset == 0 && ota_read_header_locked() != 0) {
            puts("[MCU IF] Failed to parse OTA file header");
            return -1;
        }
        s8137_offset = ota_info.s8137_offset;
        s8137_length = ota_info.s8137_length;
    }
    if (s8137_length == 0) {
        puts("[MCU IF] No S8137 OTA bin in OTA file, no need upgrade");
        return -1;
    }
    // A section too short for its own digest cannot be checked.
    if (s8137_length < DIGEST_SIZE) {
        puts("[MCU IF] S8137 OTA file check error");
        return -1;
    }
    const off_t section = s8137_offset;
    if (lseek(pkg.get(), section, SEEK_SET) != section) {
        printf("[MCU IF] lseek failed: %s\n", strerror(errno));
        return -1;
    }
    // Short reads of the digest or the directory leave nothing sound to use:
    // they count as failures.
    uint8_t stored[DIGEST_SIZE];
    ssize_t r = read_full(pkg.get(), stored, DIGEST_SIZE);
    if (r != DIGEST_SIZE) {
        printf("[MCU IF] read failed: %s\n", io_error_text(r));
        return -1;
    }
    md5_context ctx;
    md5_init(&ctx);
    for (uint32_t left = s8137_length - DIGEST_SIZE; left != 0;) {
        size_t n = left < OTA_BLOCK ? left : OTA_BLOCK;
        r = read_full(pkg.get(), block, n);
        if (r != static_cast<ssize_t>(n)) {
            printf("[MCU IF] read failed: %s\n", io_error_text(r));
            return -1;
        }
        md5_update(&ctx, block, n);
        left -= static_cast<uint32_t>(n);
    }
    uint8_t digest[DIGEST_SIZE];
    md5_final(&ctx, digest);
    if (memcmp(digest, stored, DIGEST_SIZE) != 0) {
        puts("[MCU IF] S8137 OTA file check error");
        return -1;
    }
    if (lseek(pkg.get(), section + DIGEST_SIZE, SEEK_SET) != section + static_cast<off_t>(DIGEST_SIZE)) {
        printf("[MCU IF] lseek failed: %s\n", strerror(errno));
        return -1;
    }
    uint8_t directory[DIR_SIZE];
    r = read_full(pkg.get(), directory, DIR_SIZE);
    if (r != DIR_SIZE) {
        printf("[MCU IF] read failed: %s\n", io_error_text(r));
        return -1;
    }
    for (size_t i = 0; i < MAX_ENTRIES && directory[i * ENTRY_SIZE] != 0; ++i)
        if (unpack_image(pkg.get(), directory + i * ENTRY_SIZE, section, block) != 0) return -1;
    return 0;
}

}  // namespace

int do_s8137_upgrade()
{
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[OTA_BLOCK]);
    if (!block) {
        printf("[MCU IF] %s: no memory\n", "do_s8137_upgrade");
        return -1;
    }
    int result = unpack_s8137(block.get());
    block.reset();
    // The upgrade program runs whatever came of the unpacking.
    run_command("/bin/ota_upg");
    puts(result == 0 ? "[MCU IF] OTA upgrade S8137 OK" : "[MCU IF] OTA upgrade S8137 failed");
    return result;
}
