// The two upgrade files, as the daemon reads them and tty_hub_pkg builds
// them: the OTA package and the USB upgrade file, and the signature block
// either may end with. Offsets in bytes.
#pragma once
#include <cstddef>
#include <cstdint>

// Firmware data moves in blocks of this size.
inline constexpr size_t OTA_BLOCK = 4096;

// OTA package: LE header fields, the MCU section, the S8137 section.
inline constexpr uint32_t OTA_HEADER_SIZE = 8;
inline constexpr uint32_t OTA_CRC_POS = 8;  // CRC-32 of offset 12 to the end
inline constexpr uint32_t OTA_CRC_FROM = 12;
inline constexpr uint32_t OTA_DIGEST_POS = 12;  // 12 bytes for the MCU
inline constexpr uint32_t OTA_DIGEST_SIZE = 12;
inline constexpr uint32_t OTA_S8137_OFFSET_POS = 24;
inline constexpr uint32_t OTA_S8137_LENGTH_POS = 28;
inline constexpr uint32_t OTA_HEADER_FIELDS = 32;
// The MCU section starts here; READ offsets count from it.
inline constexpr uint32_t OTA_MCU_SECTION = 2048;

// S8137 section: MD5 of the rest, a directory of BE entries, the images.
inline constexpr size_t S8137_DIGEST = 16;
inline constexpr size_t S8137_DIR = 512;
inline constexpr size_t S8137_ENTRY = 40;
inline constexpr size_t S8137_NAME = 32;  // then BE offset and BE length
inline constexpr size_t S8137_MAX_IMAGES = S8137_DIR / S8137_ENTRY;  // 12
inline constexpr size_t S8137_DATA = S8137_DIGEST + S8137_DIR;        // first image byte

// USB upgrade file: a table of 128-byte records at base + 0x100880; image
// offsets (LE) count from base. The daemon reads 11 records, matches 10.
inline constexpr uint32_t USB_TABLE = 0x100880;
inline constexpr size_t USB_RECORD = 128;
inline constexpr size_t USB_RECORDS_MATCHED = 10;
inline constexpr size_t USB_RECORDS_READ = 11;
inline constexpr size_t USB_NAME = 32;
inline constexpr size_t USB_MD5_TEXT = 32;  // at 32: lower-case hex, no terminator
inline constexpr size_t USB_OFFSET = 68;
inline constexpr size_t USB_LENGTH = 72;
// The images, in the order they are flashed.
inline constexpr const char* USB_IMAGE_NAMES[] = {"kernel", "rootfs"};

// Signature block, the last 80 bytes of a signed file: key id (first 8
// bytes of SHA-256 of the raw Ed25519 public key), the Ed25519 signature,
// the magic. The signed message is the domain text zero-padded to 32 bytes
// and the SHA-256 of the covered bytes: for an OTA package bytes 0 to 7 and
// 12 up to the block (the CRC at 8 covers the block and is made after it),
// for a USB file every byte before the block.
inline constexpr size_t SIGNATURE_BLOCK = 80;
inline constexpr size_t SIGNATURE_KEY_ID = 8;
inline constexpr size_t SIGNATURE_POS = 8;
inline constexpr size_t SIGNATURE_SIZE = 64;
inline constexpr size_t SIGNATURE_MAGIC_POS = 72;
inline constexpr char SIGNATURE_MAGIC[] = "TTYHSIG1";  // 8 bytes, no terminator in the file
inline constexpr size_t SIGNATURE_DOMAIN = 32;
inline constexpr size_t SIGNATURE_DIGEST = 32;
inline constexpr size_t SIGNATURE_MESSAGE = SIGNATURE_DOMAIN + SIGNATURE_DIGEST;
inline constexpr const char* SIGNATURE_DOMAIN_OTA = "tty_hub OTA package v1";
inline constexpr const char* SIGNATURE_DOMAIN_USB = "tty_hub USB upgrade v1";
