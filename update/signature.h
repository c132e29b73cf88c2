// Signed upgrade files: the signature block at a file's end, the keys the
// daemon trusts (-k), and the check of a file against them. Without a
// trusted key nothing is checked.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "update/upgrade_format.h"

#if TTY_HUB_HAVE_SIGNING
#include <openssl/evp.h>
#endif

enum class signed_file { ota, usb };

struct signature_block {
    uint8_t key_id[SIGNATURE_KEY_ID];
    uint8_t signature[SIGNATURE_SIZE];
};

// The block of the file of size bytes on fd: 1 with it, 0 when the file has
// none (too short to hold one behind what it must cover, or its last 8 bytes
// are not the magic), -1 on a read error.
int signature_read_block(int fd, uint64_t size, signed_file kind, signature_block& block);

// The signed message: the file kind's domain text, zero-padded, and the
// SHA-256 of the covered bytes.
void signature_message(signed_file kind, const uint8_t digest[SIGNATURE_DIGEST], uint8_t message[SIGNATURE_MESSAGE]);

// The key id as 16 hex digits.
std::string signature_key_id_text(const uint8_t id[SIGNATURE_KEY_ID]);

// Number of trusted keys; 0 in a build without signature checks.
size_t signature_trusted_keys();

// With trusted keys: true when one of them signed the file on fd, else one
// line "[MCU IF] WHAT signature wrong: REASON" (no signature, unknown key id,
// bad signature, or the read that failed) and false. Without trusted keys:
// true at once. The file is read with pread in OTA_BLOCK pieces through
// block, in one pass; its position is left alone.
bool signature_accepts(int fd, signed_file kind, uint8_t* block, const char* what);

#if TTY_HUB_HAVE_SIGNING
// Trusts the Ed25519 public key in the PEM file. Empty, or why not.
std::string signature_trust_key(const char* path);

// First 8 bytes of SHA-256 of the key's raw public key. False if the key
// is not Ed25519.
bool signature_key_id(EVP_PKEY* key, uint8_t id[SIGNATURE_KEY_ID]);

// SHA-256 of the bytes a block would cover in a file whose block starts at
// end (for a file being signed: its size). False with errno on a read
// error or a file that ends early.
bool signature_digest(int fd, signed_file kind, uint64_t end, uint8_t* block, uint8_t digest[SIGNATURE_DIGEST]);

// Checks the file on fd against the trusted keys: empty when one of them
// signed it, else the reason, which starts with "no signature", "unknown
// key id", "bad signature" or "read failed".
std::string signature_verify(int fd, signed_file kind, uint8_t* block);
#endif
