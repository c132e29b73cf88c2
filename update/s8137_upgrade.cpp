// Check and unpacking of the S8137 section of the OTA package.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>
#include <unistd.h>

#include "update/fd_io.h"
#include "update/md5.h"
#include "update/ota.h"
#include "update/ota_internal.h"
#include "update/signature.h"

namespace {

// unpack_s8137 for a package no trusted key signed.
constexpr int REFUSED = -2;

// Whole entries that fit the directory; a list without an end stops here.
constexpr size_t MAX_ENTRIES = S8137_MAX_IMAGES;

// The name of an entry becomes a file directly in /tmp: it must end inside
// its field, hold no "/", and be neither "." nor "..". The list's end rule
// keeps it from being empty. One line names a refused entry (from 1), with
// every byte outside printable ASCII shown as "?".
bool image_name_ok(const uint8_t* entry, size_t number)
{
    const char* name = reinterpret_cast<const char*>(entry);
    size_t len = strnlen(name, S8137_NAME);
    if (len == S8137_NAME) {
        printf("[MCU IF] S8137 image %zu: name without end\n", number);
        return false;
    }
    std::string_view view(name, len);
    if (view.find('/') == std::string_view::npos && view != "." && view != "..") return true;
    char shown[S8137_NAME];
    for (size_t i = 0; i <= len; ++i) {
        auto c = static_cast<unsigned char>(name[i]);
        shown[i] = i < len && (c < 0x20 || c >= 0x7F) ? '?' : name[i];
    }
    printf("[MCU IF] S8137 image %zu: name \"%s\" is not a file in /tmp\n", number, shown);
    return false;
}

// Streams one image out of the package into /tmp/<name>. A read that ends
// before length bytes means the image runs past the package: a read failure.
int unpack_image(int pkg, const uint8_t* entry, uint32_t section, uint8_t* block)
{
    uint32_t offset = get_be32(entry + S8137_NAME);
    uint32_t length = get_be32(entry + S8137_NAME + 4);
    char path[40];
    snprintf(path, sizeof path, "/tmp/%.31s", reinterpret_cast<const char*>(entry));

    unique_fd image(open_regular(path, O_RDWR | O_CREAT));
    if (!image) {
        printf("[MCU IF] create temporary file failed: %s\n", strerror(errno));
        return -1;
    }
    off_t pos = file_pos(section, offset);
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

// Everything between opening and closing the package: signature and digest
// checks, then the images. 0 when all of it worked, REFUSED for a package
// that no trusted key signed.
int unpack_s8137(uint8_t* block)
{
    unique_fd pkg(open(OTA_PACKAGE_PATH, O_RDONLY | O_CLOEXEC));
    if (!pkg) {
        printf("[MCU IF] open OTA upgrade file failed: %s\n", strerror(errno));
        return -1;
    }
    // The package in /user may have come some other way than the reception.
    if (!signature_accepts(pkg.get(), signed_file::ota, block, "OTA file")) return REFUSED;
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
    if (s8137_length < S8137_DIGEST) {
        puts("[MCU IF] S8137 OTA file check error");
        return -1;
    }
    const off_t section = file_pos(s8137_offset, 0);
    if (lseek(pkg.get(), section, SEEK_SET) != section) {
        printf("[MCU IF] lseek failed: %s\n", strerror(errno));
        return -1;
    }
    // Short reads of the digest or the directory leave nothing sound to use:
    // they count as failures.
    uint8_t stored[S8137_DIGEST];
    ssize_t r = read_full(pkg.get(), stored, S8137_DIGEST);
    if (r != S8137_DIGEST) {
        printf("[MCU IF] read failed: %s\n", io_error_text(r));
        return -1;
    }
    md5_context ctx;
    md5_init(&ctx);
    for (uint32_t left = s8137_length - S8137_DIGEST; left != 0;) {
        size_t n = left < OTA_BLOCK ? left : OTA_BLOCK;
        r = read_full(pkg.get(), block, n);
        if (r != static_cast<ssize_t>(n)) {
            printf("[MCU IF] read failed: %s\n", io_error_text(r));
            return -1;
        }
        md5_update(&ctx, block, n);
        left -= static_cast<uint32_t>(n);
    }
    uint8_t digest[S8137_DIGEST];
    md5_final(&ctx, digest);
    if (memcmp(digest, stored, S8137_DIGEST) != 0) {
        puts("[MCU IF] S8137 OTA file check error");
        return -1;
    }
    const off_t directory_pos = file_pos(s8137_offset, S8137_DIGEST);
    if (lseek(pkg.get(), directory_pos, SEEK_SET) != directory_pos) {
        printf("[MCU IF] lseek failed: %s\n", strerror(errno));
        return -1;
    }
    uint8_t directory[S8137_DIR];
    r = read_full(pkg.get(), directory, S8137_DIR);
    if (r != S8137_DIR) {
        printf("[MCU IF] read failed: %s\n", io_error_text(r));
        return -1;
    }
    // Every name is checked before any file is made.
    size_t entries = 0;
    for (; entries < MAX_ENTRIES && directory[entries * S8137_ENTRY] != 0; ++entries)
        if (!image_name_ok(directory + entries * S8137_ENTRY, entries + 1)) return -1;
    for (size_t i = 0; i < entries; ++i)
        if (unpack_image(pkg.get(), directory + i * S8137_ENTRY, s8137_offset, block) != 0) return -1;
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
    // The upgrade program runs whatever came of the unpacking, but for an
    // unsigned package: it would install what older runs left in /tmp.
    if (result != REFUSED) run_command("/bin/ota_upg");
    puts(result == 0 ? "[MCU IF] OTA upgrade S8137 OK" : "[MCU IF] OTA upgrade S8137 failed");
    return result == 0 ? 0 : -1;
}
