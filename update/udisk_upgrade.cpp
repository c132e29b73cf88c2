// Command 15 of the MCU link: upgrade of kernel and rootfs from a USB disk.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <unistd.h>

#include "mcu/handlers.h"
#include "mcu/mcu_frame.h"
#include "update/fd_io.h"
#include "update/md5.h"
#include "update/ota.h"
#include "update/ota_internal.h"
#include "update/signature.h"

namespace {

constexpr const char* FN = "handler_udisk_upg_control";
constexpr const char* TMP_PATH = "/tmp/udisk_upg_tmp";
constexpr int USER_DATA_MTD = 9;

// Frame statuses.
constexpr uint8_t UPG_PROGRESS = 1;
constexpr uint8_t UPG_DONE = 3;
constexpr uint8_t UPG_FAIL_EARLY = 16;
constexpr uint8_t UPG_FAIL_IMAGE = 19;

struct upg_image {
    const char* name;
    int mtd;
    uint32_t offset;
    int32_t length;
    char md5_text[32];
};

void send_upg_state(uint8_t status, uint8_t percent)
{
    const uint8_t payload[4] = {status, percent, 0, 0};
    mcu_send(MCU_RPT_UDISK, payload, sizeof payload);
}

// The name field is compared only within its 32 bytes, so a field without
// its 0 byte cannot run into the rest of the record.
bool name_matches(const uint8_t* record, const char* name)
{
    size_t len = strlen(name);
    return strnlen(reinterpret_cast<const char*>(record), USB_NAME) == len && !memcmp(record, name, len);
}

// 1 with the image's fields filled, 0 for no match, -1 for a read error.
int find_record(int disk, uint8_t* block, upg_image& img)
{
    for (size_t i = 0; i < USB_RECORDS_READ; ++i) {
        ssize_t r = read_full(disk, block, USB_RECORD);
        if (r < 0) return -1;
        // A record read short has nothing to compare.
        if (r < static_cast<ssize_t>(USB_RECORD)) return 0;
        if (i < USB_RECORDS_MATCHED && name_matches(block, img.name)) {
            memcpy(img.md5_text, block + USB_NAME, sizeof img.md5_text);
            img.offset = get_le32(block + USB_OFFSET);
            img.length = static_cast<int32_t>(get_le32(block + USB_LENGTH));
            return 1;
        }
    }
    return 0;
}

// Copies one image to the temporary file, checks its MD5 and programs it.
// 0, or the failure status.
uint8_t flash_image(int disk, int tmp, uint8_t* block, uint32_t base, upg_image& img)
{
    off_t pos = file_pos(base, img.offset);
    if (lseek(disk, pos, SEEK_SET) != pos) {
        printf("[MCU IF] %s(%d) lseek failed: %s\n", FN, 2328, strerror(errno));
        return UPG_FAIL_IMAGE;
    }
    if (lseek(tmp, 0, SEEK_SET) != 0) {
        printf("[MCU IF] %s(%d) lseek failed: %s\n", FN, 2334, strerror(errno));
        return UPG_FAIL_IMAGE;
    }
    if (ftruncate(tmp, 0) != 0) {
        printf("[MCU IF] failed to truncate tmp file: %s\n", strerror(errno));
        return UPG_FAIL_IMAGE;
    }
    md5_context ctx;
    md5_init(&ctx);
    printf("[MCU IF] left=%d\n", img.length);
    // The length is taken as unsigned: a value with the top bit set reads to
    // the end of the file and fails there, like any image past the end.
    for (uint32_t left = static_cast<uint32_t>(img.length); left != 0;) {
        ssize_t r = read(disk, block, left < OTA_BLOCK ? left : OTA_BLOCK);
        if (r <= 0) {
            // A read of 0 here means the image runs past the end of the file.
            printf("[MCU IF] %s(%d) read failed: %s\n", FN, 2358, io_error_text(r));
            return UPG_FAIL_IMAGE;
        }
        md5_update(&ctx, block, static_cast<size_t>(r));
        // Every byte read is written, so the file and the digest stay in step.
        if (!write_full(tmp, block, static_cast<size_t>(r))) {
            printf("[MCU IF] %s(%d) write failed: %s\n", FN, 2365, strerror(errno));
            return UPG_FAIL_IMAGE;
        }
        left -= static_cast<uint32_t>(r);
    }
    uint8_t digest[16];
    md5_final(&ctx, digest);
    fsync(tmp);
    char text[33];
    for (int i = 0; i < 16; ++i) snprintf(text + 2 * i, 3, "%02x", digest[i]);
    if (memcmp(text, img.md5_text, 32) != 0) {
        printf("[MCU IF] wrong MD5 of image %s: %.32s <> %s\n", img.name, img.md5_text, text);
        return UPG_FAIL_IMAGE;
    }
    printf("[MCU IF] programming %s...\n", img.name);
    char command[64];
    snprintf(command, sizeof command, "flashcp %s /dev/mtd%d", TMP_PATH, img.mtd);
    if (!run_ok(command)) {
        puts("[MCU IF] => failed");
        return UPG_FAIL_IMAGE;
    }
    return 0;
}

// Everything between mount and unmount. 0, or the failure status; percent
// holds the progress reached. Descriptors and block are released on return.
uint8_t udisk_upgrade(uint32_t base, const char* path, uint8_t& percent)
{
    std::unique_ptr<uint8_t[]> block(new (std::nothrow) uint8_t[OTA_BLOCK]);
    if (!block) {
        printf("[MCU IF] %s allocate memory failed\n", FN);
        return UPG_FAIL_EARLY;
    }
    unique_fd disk(open(path, O_RDONLY | O_CLOEXEC));
    if (!disk) {
        printf("[MCU IF] open USB upgrade file %s failed: %s\n", path, strerror(errno));
        return UPG_FAIL_EARLY;
    }
    // The whole file, before the first image is copied or anything flashed.
    if (!signature_accepts(disk.get(), signed_file::usb, block.get(), "USB upgrade file")) return UPG_FAIL_EARLY;
    unique_fd tmp(open_regular(TMP_PATH, O_RDWR | O_CREAT));
    if (!tmp) {
        printf("[MCU IF] open tmp file for USB upgrade failed: %s\n", strerror(errno));
        return UPG_FAIL_EARLY;
    }
    upg_image images[2] = {{USB_IMAGE_NAMES[0], 7, 0, 0, {}}, {USB_IMAGE_NAMES[1], 8, 0, 0, {}}};
    for (int k = 0; k < 2; ++k) {
        upg_image& img = images[k];
        // Table failures of rootfs come after kernel is written: they are
        // image failures at the percent reached, never a progress status.
        uint8_t table_fail = k == 0 ? UPG_FAIL_EARLY : UPG_FAIL_IMAGE;
        off_t table = file_pos(base, USB_TABLE);
        if (lseek(disk.get(), table, SEEK_SET) != table) {
            printf("[MCU IF] %s(%d) lseek failed: %s\n", FN, 2302, strerror(errno));
            return table_fail;
        }
        int found = find_record(disk.get(), block.get(), img);
        if (found < 0) {
            printf("[MCU IF] %s(%d) read failed: %s\n", FN, 2310, strerror(errno));
            return table_fail;
        }
        if (found == 0) {
            printf("[MCU IF] image %s not found\n", img.name);
            return UPG_FAIL_IMAGE;
        }
        if (percent == 0) send_upg_state(UPG_PROGRESS, 0);
        if (uint8_t status = flash_image(disk.get(), tmp.get(), block.get(), base, img)) return status;
        puts("[MCU IF] => succeeded");
        percent = static_cast<uint8_t>(100 * (k + 1) / 3);
        send_upg_state(UPG_PROGRESS, percent);
    }
    puts("[MCU IF] erasing user data...");
    char command[64];
    snprintf(command, sizeof command, "flash_eraseall /dev/mtd%d", USER_DATA_MTD);
    // Both images are in flash; a failed erase is told as an image failure
    // at the percent reached.
    if (run_command(command) != 0) return UPG_FAIL_IMAGE;
    return 0;
}

}  // namespace

int handler_udisk_upg_control(const uint8_t* p, uint8_t len)
{
    if (len < 16) {
        puts("[MCU IF] wrong argument length");
        return -1;
    }
    if (p[0] != 0x11) return 0;
    puts("[MCU IF] Enter hupg control~");
    uint32_t base = get_le32(p + 1);
    // The name field has 11 bytes and needs no 0 byte when full.
    const char* name = reinterpret_cast<const char*>(p + 5);
    char path[17];
    snprintf(path, sizeof path, "/mnt/%.*s", static_cast<int>(strnlen(name, 11)), name);

    if (!run_ok("udisk mount /mnt")) {
        puts("[MCU IF] Failed to mount USB disk for upgrade");
        puts("[MCU IF] USB disk upgrade failed");
        send_upg_state(UPG_FAIL_EARLY, 0);
        return -1;
    }
    uint8_t percent = 0;
    uint8_t status = udisk_upgrade(base, path, percent);
    run_command("udisk umount");
    if (status != 0) {
        puts("[MCU IF] USB disk upgrade failed");
        send_upg_state(status, percent);
        return -1;
    }
    puts("[MCU IF] USB disk upgrade succeeded");
    send_upg_state(UPG_DONE, 100);
    return 0;
}
