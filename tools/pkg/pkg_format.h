// The two upgrade files tty_hub reads, as tty_hub_pkg builds and inspects
// them: the OTA package and the USB upgrade file.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "update/ota.h"  // OTA_MCU_SECTION, the CRC-32

namespace pkg {

inline constexpr size_t BLOCK = 4096;  // every image moves in blocks of this size

// OTA package: LE header fields, the MCU section at OTA_MCU_SECTION, the
// S8137 section.
inline constexpr uint64_t OTA_CRC_POS = 8;  // CRC-32 of offset 12 to the end
inline constexpr uint64_t OTA_CRC_FROM = 12;
inline constexpr uint64_t OTA_DIGEST_POS = 12;  // 12 bytes for the MCU
inline constexpr uint64_t OTA_S8137_OFFSET_POS = 24;
inline constexpr uint64_t OTA_S8137_LENGTH_POS = 28;
inline constexpr uint64_t OTA_HEADER_FIELDS = 32;
// S8137 section: MD5 of the rest, a directory of BE entries, the images.
inline constexpr size_t S8137_DIGEST = 16;
inline constexpr size_t S8137_DIR = 512;
inline constexpr size_t S8137_ENTRY = 40;
inline constexpr size_t S8137_NAME = 32;
inline constexpr size_t S8137_MAX_IMAGES = S8137_DIR / S8137_ENTRY;  // 12
inline constexpr size_t S8137_DATA = S8137_DIGEST + S8137_DIR;        // first image byte

// USB upgrade file: a table of 128-byte records at base + 0x100880; image
// offsets (LE) count from base. The daemon reads 11 records, matches 10.
inline constexpr uint64_t USB_TABLE = 0x100880;
inline constexpr size_t USB_RECORD = 128;
inline constexpr size_t USB_RECORDS_MATCHED = 10;
inline constexpr size_t USB_RECORDS_READ = 11;
inline constexpr size_t USB_NAME = 32;
inline constexpr size_t USB_MD5_TEXT = 32;  // at 32: lower-case hex, no terminator
inline constexpr size_t USB_OFFSET = 68;
inline constexpr size_t USB_LENGTH = 72;
inline constexpr const char* USB_IMAGES[] = {"kernel", "rootfs"};

enum class kind { detect, ota, usb };

struct inspect_options {
    kind what = kind::detect;
    bool base_given = false;
    uint32_t base = 0;
};

// What went wrong first: the field and why. Empty field: nothing wrong.
struct finding {
    std::string field;
    std::string why;
};

// Prints every field of the file on fd decoded, and checks it. Returns 0 for
// a sound file, 1 when a field is wrong, 2 when the file could not be read.
// first names the first wrong field of the layout, else the first wrong
// digest, else the CRC: the narrowest that explains the failure. Reads only inside the file's size, in
// blocks of BLOCK bytes.
int inspect(int fd, const inspect_options& options, FILE* out, finding& first);

}  // namespace pkg
