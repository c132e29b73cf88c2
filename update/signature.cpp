// Signature blocks of upgrade files and their check against the trusted keys.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "update/fd_io.h"
#include "update/signature.h"

#if TTY_HUB_HAVE_SIGNING
#include <openssl/err.h>
#include <openssl/pem.h>
#endif

namespace {

// Bytes before the block that it must leave alone: the OTA header fields up
// to the CRC's end stand in front of anything signed.
uint64_t covered_from(signed_file kind) { return kind == signed_file::ota ? OTA_CRC_FROM : 0; }

bool pread_full(int fd, void* buf, size_t n, uint64_t pos)
{
    for (size_t got = 0; got < n;) {
        ssize_t r = pread(fd, static_cast<uint8_t*>(buf) + got, n - got, static_cast<off_t>(pos + got));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = 0;  // the file ended early
            return false;
        }
        got += static_cast<size_t>(r);
    }
    return true;
}

}  // namespace

int signature_read_block(int fd, uint64_t size, signed_file kind, signature_block& block)
{
    if (size < covered_from(kind) + SIGNATURE_BLOCK) return 0;
    uint8_t raw[SIGNATURE_BLOCK];
    if (!pread_full(fd, raw, sizeof raw, size - SIGNATURE_BLOCK)) return -1;
    if (memcmp(raw + SIGNATURE_MAGIC_POS, SIGNATURE_MAGIC, SIGNATURE_BLOCK - SIGNATURE_MAGIC_POS) != 0) return 0;
    memcpy(block.key_id, raw, SIGNATURE_KEY_ID);
    memcpy(block.signature, raw + SIGNATURE_POS, SIGNATURE_SIZE);
    return 1;
}

void signature_message(signed_file kind, const uint8_t digest[SIGNATURE_DIGEST], uint8_t message[SIGNATURE_MESSAGE])
{
    const char* domain = kind == signed_file::ota ? SIGNATURE_DOMAIN_OTA : SIGNATURE_DOMAIN_USB;
    memset(message, 0, SIGNATURE_DOMAIN);
    memcpy(message, domain, strlen(domain));
    memcpy(message + SIGNATURE_DOMAIN, digest, SIGNATURE_DIGEST);
}

std::string signature_key_id_text(const uint8_t id[SIGNATURE_KEY_ID])
{
    char text[2 * SIGNATURE_KEY_ID + 1];
    for (size_t i = 0; i < SIGNATURE_KEY_ID; ++i) snprintf(text + 2 * i, 3, "%02x", id[i]);
    return text;
}

#if TTY_HUB_HAVE_SIGNING

namespace {

struct pkey_free {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct md_ctx_free {
    void operator()(EVP_MD_CTX* c) const { EVP_MD_CTX_free(c); }
};
using md_ctx = std::unique_ptr<EVP_MD_CTX, md_ctx_free>;

struct trusted_key {
    uint8_t id[SIGNATURE_KEY_ID];
    std::unique_ptr<EVP_PKEY, pkey_free> key;
};

// Filled at start, before any thread runs; read only afterwards.
std::vector<trusted_key> keyring;

// A PEM public key is a few hundred bytes; anything much larger is not one.
constexpr size_t KEY_FILE_MAX = 64 * 1024;

std::string read_failure() { return std::string("read failed: ") + (errno ? strerror(errno) : "unexpected end of file"); }

}  // namespace

bool signature_key_id(EVP_PKEY* key, uint8_t id[SIGNATURE_KEY_ID])
{
    uint8_t raw[32];
    size_t len = sizeof raw;
    uint8_t digest[SIGNATURE_DIGEST];
    unsigned int digest_len = 0;
    if (EVP_PKEY_get_id(key) != EVP_PKEY_ED25519 || EVP_PKEY_get_raw_public_key(key, raw, &len) != 1 ||
        len != sizeof raw || EVP_Digest(raw, len, digest, &digest_len, EVP_sha256(), nullptr) != 1)
        return false;
    memcpy(id, digest, SIGNATURE_KEY_ID);
    return true;
}

std::string signature_trust_key(const char* path)
{
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) return strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    std::vector<char> text(KEY_FILE_MAX);
    ssize_t n = read_full(fd.get(), text.data(), text.size());
    if (n < 0) return strerror(errno);
    if (static_cast<size_t>(n) == text.size()) return "too large for a public key";
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(text.data(), static_cast<int>(n)), BIO_free);
    trusted_key k{{}, std::unique_ptr<EVP_PKEY, pkey_free>(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr)};
    ERR_clear_error();
    if (!k.key) return "not a PEM public key";
    if (!signature_key_id(k.key.get(), k.id)) return "not an Ed25519 key";
    keyring.push_back(std::move(k));
    return "";
}

bool signature_digest(int fd, signed_file kind, uint64_t end, uint8_t* block, uint8_t digest[SIGNATURE_DIGEST])
{
    md_ctx ctx(EVP_MD_CTX_new());
    if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
        errno = ENOMEM;
        return false;
    }
    uint64_t pos = 0;
    if (kind == signed_file::ota) {
        // The header bytes, then everything behind the CRC field.
        if (!pread_full(fd, block, OTA_HEADER_SIZE, 0)) return false;
        EVP_DigestUpdate(ctx.get(), block, OTA_HEADER_SIZE);
        pos = OTA_CRC_FROM;
    }
    while (pos < end) {
        size_t n = end - pos < OTA_BLOCK ? static_cast<size_t>(end - pos) : OTA_BLOCK;
        if (!pread_full(fd, block, n, pos)) return false;
        EVP_DigestUpdate(ctx.get(), block, n);
        pos += n;
    }
    unsigned int len = 0;
    return EVP_DigestFinal_ex(ctx.get(), digest, &len) == 1;
}

std::string signature_verify(int fd, signed_file kind, uint8_t* block)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return read_failure();
    uint64_t size = static_cast<uint64_t>(st.st_size);
    signature_block sig;
    int found = signature_read_block(fd, size, kind, sig);
    if (found < 0) return read_failure();
    if (found == 0) return "no signature";
    bool known = false;
    for (const trusted_key& k : keyring) known = known || !memcmp(k.id, sig.key_id, SIGNATURE_KEY_ID);
    if (!known) return "unknown key id " + signature_key_id_text(sig.key_id);
    uint8_t digest[SIGNATURE_DIGEST], message[SIGNATURE_MESSAGE];
    if (!signature_digest(fd, kind, size - SIGNATURE_BLOCK, block, digest)) return read_failure();
    signature_message(kind, digest, message);
    // Two trusted keys may share an id; either may have signed.
    for (const trusted_key& k : keyring) {
        if (memcmp(k.id, sig.key_id, SIGNATURE_KEY_ID) != 0) continue;
        md_ctx ctx(EVP_MD_CTX_new());
        bool good = ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, k.key.get()) == 1 &&
                    EVP_DigestVerify(ctx.get(), sig.signature, SIGNATURE_SIZE, message, SIGNATURE_MESSAGE) == 1;
        ERR_clear_error();
        if (good) return "";
    }
    return "bad signature";
}

size_t signature_trusted_keys() { return keyring.size(); }

bool signature_accepts(int fd, signed_file kind, uint8_t* block, const char* what)
{
    if (keyring.empty()) return true;
    std::string why = signature_verify(fd, kind, block);
    if (why.empty()) return true;
    printf("[MCU IF] %s signature wrong: %s\n", what, why.c_str());
    return false;
}

#else

size_t signature_trusted_keys() { return 0; }

bool signature_accepts(int, signed_file, uint8_t*, const char*) { return true; }

#endif
