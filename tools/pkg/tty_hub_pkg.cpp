// tty_hub_pkg: builds the OTA packages and USB upgrade files that tty_hub
// reads, and inspects them. Usage: tty_hub_pkg --help.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "core/byte_order.h"
#include "tools/pkg/pkg_format.h"
#include "tools/pkg/progress.h"
#include "update/fd_io.h"
#include "update/md5.h"
#include "update/ota.h"
#include "update/signature.h"

#if TTY_HUB_HAVE_SIGNING
#include <openssl/err.h>
#include <openssl/pem.h>
#endif

#ifndef TTY_HUB_VERSION
#define TTY_HUB_VERSION "unknown"
#endif

namespace {

using namespace pkg;

constexpr const char* USAGE = R"(Usage:
  tty_hub_pkg build-ota -o OUT --mcu FILE --mcu-digest HEX [--header HEX] [--image [NAME=]FILE]...
                        [--sign KEY.pem]
  tty_hub_pkg build-usb -o OUT --kernel FILE --rootfs FILE [--base N] [--sign KEY.pem]
  tty_hub_pkg sign FILE --key KEY.pem [--ota | --usb]
  tty_hub_pkg inspect [--ota | --usb] [--base N] [--ota-key PUB.pem]... FILE
  tty_hub_pkg --help | --version

Builds the two upgrade files tty_hub reads, and checks them as the daemon will.

build-ota    an OTA package (/user/OTA_UPG.bin on the device): the 8 header
             bytes, the package CRC-32 (of offset 12 to the end), the MCU digest,
             the S8137 offset and length, the MCU firmware from offset 2048, and
             behind it the S8137 section (its MD5, a directory of up to twelve
             images, the images one behind the other).
  -o, --output OUT       the package to write (written whole or not at all)
  --mcu FILE             the MCU firmware: the MCU section
  --mcu-digest HEX       12 bytes (24 hex digits) the MCU checks; state 3 sends
                         the first 8 of them to the MCU
  --header HEX           the 8 header bytes (16 hex digits; default all 0)
  --image [NAME=]FILE    an S8137 image, unpacked to /tmp/NAME on the device
                         (NAME, the text before the first '=': at most 31
                         characters, no '/'; default: the file's base name); up
                         to 12, in order. None: no S8137 section
  --sign KEY.pem         sign it with this Ed25519 private key (see sign)

build-usb    a USB upgrade file for the MCU's USB disk upgrade (frame 15): the
             image table at BASE + 0x100880 with a kernel and a rootfs record
             (MD5 as lower-case hex, LE offset from BASE and length), the
             images behind the table. Bytes before are 0 (a sparse file).
  -o, --output OUT       the file to write
  --kernel FILE          the image flashed to /dev/mtd7
  --rootfs FILE          the image flashed to /dev/mtd8
  --base N               the base offset the MCU sends (default 0)
  --sign KEY.pem         sign it with this Ed25519 private key (see sign)

sign         adds the signature block to FILE, or replaces the one it has: 80
             bytes at the end (key id, Ed25519 signature, "TTYHSIG1"), over
             the file's bytes before it (an OTA package's CRC field excepted,
             which is made right again behind the block). A daemon started
             with -k PUB.pem takes only files signed by such a key.
  --key KEY.pem          the private key (openssl genpkey -algorithm ed25519);
                         only read. Group or others able to read it: a warning
  --ota, --usb           the kind of file (default: found, as inspect does)

inspect      prints every field decoded and checks: the package CRC-32, the
             S8137 section's MD5, the header and directory fields (offsets and
             lengths inside the file and the section, names ended within their
             32 bytes, the directory ended within its 512 bytes) and each image's
             MD5 (USB: against its record). The kind is taken from the content
             unless told.
  --ota, --usb           the kind of file
  --base N               the base offset of a USB upgrade file (default: found,
                         a guess that inspect says as such)
  --ota-key PUB.pem      a public key the device trusts (tty_hub -k): the
                         signature must be by one of them

Numbers are decimal or 0x hex. Exit status: 0 done (inspect: the file is
sound), 1 inspect found a wrong field, 2 bad usage, or a file that cannot be
read or written. inspect marks every wrong field WRONG and names one on
stderr: the first wrong field of the layout, else the first wrong MD5, else
the package CRC-32 (which covers everything behind offset 12), else the
signature. An option may be given once (--image and --ota-key as often as
needed). Empty firmware or images are warned about.

Examples:
  tty_hub_pkg build-ota -o OTA_UPG.bin --mcu mcu.bin --mcu-digest 4d43555f76322e3130000000 \
      --image uImage --image rootfs.squashfs --image dsp.cfg=build/dsp_v2.cfg
  tty_hub_pkg build-usb -o upgrade.bin --kernel uImage --rootfs rootfs.squashfs --base 0x1000
  tty_hub_pkg sign upgrade.bin --key release.pem
  tty_hub_pkg inspect --ota-key release.pub OTA_UPG.bin
)";

// A failure of the command: the file or option it concerns, and why.
struct failure {
    std::string where, why;
};

[[noreturn]] void fail(const std::string& where, const std::string& why) { throw failure{where, why}; }

void warn(const std::string& where, const std::string& why)
{
    fprintf(stderr, "tty_hub_pkg: warning: %s: %s\n", where.c_str(), why.c_str());
}

uint64_t number(const std::string& option, const std::string& text, uint64_t max)
{
    errno = 0;
    char* end = nullptr;
    unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end || errno || v > max)
        fail(option, "'" + text + "' is not a number from 0 to " + std::to_string(max));
    return v;
}

std::vector<uint8_t> hex_bytes(const std::string& option, const std::string& text, size_t n)
{
    auto digit = [](char c) { return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1; };
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size() && digit(text[i]) >= 0 && digit(text[i + 1]) >= 0; i += 2)
        out.push_back(static_cast<uint8_t>(digit(text[i]) << 4 | digit(text[i + 1])));
    if (out.size() != n || text.size() != 2 * n)
        fail(option, "'" + text + "' is not " + std::to_string(2 * n) + " hex digits (" + std::to_string(n) + " bytes)");
    return out;
}

void pwrite_all(int fd, const std::string& path, const void* buf, size_t n, uint64_t pos)
{
    size_t done = 0;
    while (done < n) {
        ssize_t w = pwrite(fd, static_cast<const uint8_t*>(buf) + done, n - done, static_cast<off_t>(pos + done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) fail(path, std::string("write failed: ") + (w < 0 ? strerror(errno) : "no progress"));
        done += static_cast<size_t>(w);
    }
}

// An input file, opened once, with the size its directory entry states.
struct input {
    std::string path, name;  // path: the option and the file, as errors name them
    unique_fd fd;
    uint64_t size = 0;

    input(const std::string& option, const std::string& file, std::string n = "")
        : path(option + " " + file), name(std::move(n)), fd(open(file.c_str(), O_RDONLY))
    {
        struct stat st;
        if (!fd) fail(path, strerror(errno));
        if (fstat(fd.get(), &st) != 0) fail(path, strerror(errno));
        if (!S_ISREG(st.st_mode)) fail(path, "not a regular file");
        size = static_cast<uint64_t>(st.st_size);
    }

    // Copies the whole file to out at pos, 4096 bytes at a time, through md5
    // when given. A file that changed size meanwhile is refused.
    void copy_to(int out, const std::string& out_path, uint64_t pos, md5_context* md5) const
    {
        uint8_t block[OTA_BLOCK];
        uint64_t done = 0;
        progress shown("copying", size);
        for (;;) {
            ssize_t r = read(fd.get(), block, sizeof block);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) fail(path, std::string("read failed: ") + strerror(errno));
            if (r == 0) break;
            if (done + static_cast<uint64_t>(r) > size) break;
            if (md5) md5_update(md5, block, static_cast<size_t>(r));
            pwrite_all(out, out_path, block, static_cast<size_t>(r), pos + done);
            done += static_cast<uint64_t>(r);
            shown.advance(static_cast<uint64_t>(r));
        }
        if (done != size) fail(path, "changed size while being read");
    }
};

// The output, written under a temporary name beside it and renamed into
// place only when whole: a failure leaves what was there before.
class output {
public:
    explicit output(const std::string& path) : path_(path), tmp_(temporary_name(path)), fd_(mkstemp(tmp_.data()))
    {
        if (!fd_) fail(path, std::string("cannot be written: ") + strerror(errno));
        mode_t mask = umask(0);
        umask(mask);
        fchmod(fd_.get(), 0666 & ~mask);
    }
    ~output()
    {
        if (!tmp_.empty()) unlink(tmp_.c_str());
    }
    output(const output&) = delete;
    output& operator=(const output&) = delete;

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }

    void commit()
    {
        if (fsync(fd_.get()) != 0) fail(path_, std::string("write failed: ") + strerror(errno));
        fd_.reset();
        if (rename(tmp_.c_str(), path_.c_str()) != 0) fail(path_, std::string("cannot be written: ") + strerror(errno));
        tmp_.clear();
    }

private:
    static std::string temporary_name(const std::string& path)
    {
        size_t slash = path.rfind('/');
        return (slash == std::string::npos ? "" : path.substr(0, slash + 1)) + ".tty_hub_pkg.XXXXXX";
    }

    std::string path_, tmp_;
    unique_fd fd_;
};

uint32_t crc_of(int fd, const std::string& path, uint64_t pos)
{
    uint32_t table[256], lanes[8][256];
    ota_crc_build_table(table, lanes);
    uint32_t value = 0;
    uint8_t block[OTA_BLOCK];
    for (;;) {
        ssize_t r = pread(fd, block, sizeof block, static_cast<off_t>(pos));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) fail(path, std::string("read back failed: ") + strerror(errno));
        if (r == 0) return value;
        value = ota_crc_update(table, lanes, value, block, static_cast<size_t>(r));
        pos += static_cast<uint64_t>(r);
    }
}

// The OTA package's CRC field, of offset 12 to the end as the file now stands.
void write_crc(int fd, const std::string& path, uint8_t crc[4])
{
    put_le32(crc, crc_of(fd, path, OTA_CRC_FROM));
    pwrite_all(fd, path, crc, 4, OTA_CRC_POS);
}

// An Ed25519 private key, read once; the key file is never written.
class signing_key {
public:
    signing_key() = default;
    signing_key(const std::string& option, const std::string& file)
    {
#if TTY_HUB_HAVE_SIGNING
        input in(option, file);
        struct stat st;
        if (fstat(in.fd.get(), &st) == 0 && (st.st_mode & (S_IRGRP | S_IROTH)))
            warn(in.path, "a private key that group or others can read (chmod 600 " + file + ")");
        if (in.size > 64 * 1024) fail(in.path, "too large for a PEM private key");
        std::string text(in.size, '\0');
        if (read_full(in.fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            fail(in.path, "read failed");
        std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
        // An encrypted key asks for its passphrase on the terminal.
        key_.reset(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
        ERR_clear_error();
        if (!key_) fail(in.path, "not a PEM private key (or a wrong passphrase)");
        if (!signature_key_id(key_.get(), id_)) fail(in.path, "not an Ed25519 key");
#else
        fail(option + " " + file, "this tty_hub_pkg was built without signing (TTY_HUB_SIGNING)");
#endif
    }

    explicit operator bool() const { return key_ != nullptr; }
    std::string id() const { return signature_key_id_text(id_); }

    // Writes the block over end, where the file's content ends, and cuts
    // the file behind it.
    void sign(int fd, const std::string& path, signed_file kind, uint64_t end) const
    {
#if TTY_HUB_HAVE_SIGNING
        uint8_t block[OTA_BLOCK], digest[SIGNATURE_DIGEST], message[SIGNATURE_MESSAGE], sig[SIGNATURE_BLOCK];
        if (!signature_digest(fd, kind, end, block, digest))
            fail(path, std::string("read back failed: ") + (errno ? strerror(errno) : "file too short"));
        signature_message(kind, digest, message);
        memcpy(sig, id_, SIGNATURE_KEY_ID);
        size_t len = SIGNATURE_SIZE;
        std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
        if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
            EVP_DigestSign(ctx.get(), sig + SIGNATURE_POS, &len, message, sizeof message) != 1 || len != SIGNATURE_SIZE)
            fail(path, "signing failed");
        memcpy(sig + SIGNATURE_MAGIC_POS, SIGNATURE_MAGIC, SIGNATURE_BLOCK - SIGNATURE_MAGIC_POS);
        pwrite_all(fd, path, sig, sizeof sig, end);
        if (ftruncate(fd, static_cast<off_t>(end + SIGNATURE_BLOCK)) != 0) fail(path, std::string("cannot be sized: ") + strerror(errno));
#else
        (void)fd, (void)path, (void)kind, (void)end;
#endif
    }

private:
#if TTY_HUB_HAVE_SIGNING
    struct pkey_free {
        void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
    };
    std::unique_ptr<EVP_PKEY, pkey_free> key_;
#else
    void* key_ = nullptr;
#endif
    uint8_t id_[SIGNATURE_KEY_ID] = {};
};

struct ota_args {
    std::string out, mcu, digest, header = std::string(16, '0'), key;
    std::vector<std::string> images;
};

void build_ota(const ota_args& a)
{
    std::vector<uint8_t> digest = hex_bytes("--mcu-digest", a.digest, 12), header = hex_bytes("--header", a.header, 8);
    if (a.images.size() > S8137_MAX_IMAGES)
        fail("--image", std::to_string(a.images.size()) + " images; the directory holds at most 12");
    signing_key key = a.key.empty() ? signing_key() : signing_key("--sign", a.key);
    input mcu("--mcu", a.mcu);
    if (mcu.size == 0) warn(mcu.path, "empty: the MCU section has no firmware");
    std::deque<input> images;
    for (const std::string& image_arg : a.images) {
        size_t eq = image_arg.find('=');
        // The name is what stands before the first '='.
        bool named = eq != std::string::npos;
        std::string path = named ? image_arg.substr(eq + 1) : image_arg;
        std::string name = named ? image_arg.substr(0, eq) : path.substr(path.rfind('/') + 1);
        if (name.empty() || name.size() >= S8137_NAME || name == "." || name == ".." || name.find('/') != std::string::npos)
            fail("--image " + image_arg, "image name '" + name + "': 1 to 31 characters, no '/', not . or ..");
        for (const input& other : images)
            if (other.name == name) fail("--image " + image_arg, "image name '" + name + "' given twice");
        images.emplace_back("--image", path, name);
        if (images.back().size == 0) warn(images.back().path, "empty image");
    }

    // Layout: header area, MCU section at 2048, then the S8137 section.
    uint64_t section = OTA_MCU_SECTION + mcu.size, length = images.empty() ? 0 : S8137_DATA;
    for (const input& im : images) length += im.size;
    if (!images.empty() && (section > UINT32_MAX || length > UINT32_MAX))
        fail(a.out, "the package would pass 4 GiB, beyond its 32-bit offsets");

    output out(a.out);
    uint8_t head[OTA_MCU_SECTION] = {};
    memcpy(head, header.data(), 8);
    memcpy(head + OTA_DIGEST_POS, digest.data(), 12);
    put_le32(head + OTA_S8137_OFFSET_POS, images.empty() ? 0 : static_cast<uint32_t>(section));
    put_le32(head + OTA_S8137_LENGTH_POS, static_cast<uint32_t>(length));
    pwrite_all(out.fd(), a.out, head, sizeof head, 0);
    mcu.copy_to(out.fd(), a.out, OTA_MCU_SECTION, nullptr);
    if (!images.empty()) {
        uint8_t dir[S8137_DIR] = {};
        uint64_t at = S8137_DATA;
        for (size_t i = 0; i < images.size(); ++i) {
            uint8_t* e = dir + i * S8137_ENTRY;
            memcpy(e, images[i].name.c_str(), images[i].name.size());
            put_be32(e + S8137_NAME, static_cast<uint32_t>(at));
            put_be32(e + S8137_NAME + 4, static_cast<uint32_t>(images[i].size));
            at += images[i].size;
        }
        md5_context md5;
        md5_init(&md5);
        md5_update(&md5, dir, sizeof dir);
        pwrite_all(out.fd(), a.out, dir, sizeof dir, section + S8137_DIGEST);
        at = S8137_DATA;
        for (const input& im : images) {
            im.copy_to(out.fd(), a.out, section + at, &md5);
            at += im.size;
        }
        uint8_t sum[S8137_DIGEST];
        md5_final(&md5, sum);
        pwrite_all(out.fd(), a.out, sum, sizeof sum, section);
    }
    // The block is signed first: the CRC covers it.
    if (key) key.sign(out.fd(), a.out, signed_file::ota, section + length);
    uint8_t crc[4];
    write_crc(out.fd(), a.out, crc);
    out.commit();
    printf("%s: OTA package of %llu bytes, MCU section %llu bytes, %zu S8137 image(s), CRC32 0x%02x%02x%02x%02x%s\n",
           a.out.c_str(), static_cast<unsigned long long>(section + length + (key ? SIGNATURE_BLOCK : 0)),
           static_cast<unsigned long long>(mcu.size), images.size(), crc[3], crc[2], crc[1], crc[0],
           key ? (", signed by key id " + key.id()).c_str() : "");
}

struct usb_args {
    std::string out, kernel, rootfs, key;
    uint32_t base = 0;
};

void build_usb(const usb_args& a)
{
    signing_key key = a.key.empty() ? signing_key() : signing_key("--sign", a.key);
    input images[] = {input("--kernel", a.kernel, "kernel"), input("--rootfs", a.rootfs, "rootfs")};
    for (const input& im : images)
        if (im.size == 0) warn(im.path, "empty image");
    // Offsets count from base; the images follow the records the daemon reads.
    const uint64_t table = USB_TABLE, first = USB_TABLE + USB_RECORDS_READ * USB_RECORD;
    uint64_t end = first;
    for (const input& im : images) {
        if (im.size > INT32_MAX) fail(im.path, "larger than 2147483647 bytes, the most a record's length can say");
        end += im.size;
    }
    if (end - images[1].size > UINT32_MAX) fail(a.out, "the rootfs image would start beyond a 32-bit offset from the base");

    output out(a.out);
    // Everything not written stays a hole, read as zeros.
    if (ftruncate(out.fd(), static_cast<off_t>(a.base + end)) != 0) fail(a.out, std::string("cannot be sized: ") + strerror(errno));
    uint8_t records[2 * USB_RECORD] = {};
    uint64_t at = first;
    for (size_t i = 0; i < 2; ++i) {
        md5_context md5;
        md5_init(&md5);
        images[i].copy_to(out.fd(), a.out, a.base + at, &md5);
        uint8_t sum[16];
        md5_final(&md5, sum);
        uint8_t* r = records + i * USB_RECORD;
        memcpy(r, images[i].name.c_str(), images[i].name.size());
        char text[2 * sizeof sum + 1];
        for (size_t k = 0; k < sizeof sum; ++k) snprintf(text + 2 * k, 3, "%02x", sum[k]);
        memcpy(r + USB_NAME, text, USB_MD5_TEXT);
        put_le32(r + USB_OFFSET, static_cast<uint32_t>(at));
        put_le32(r + USB_LENGTH, static_cast<uint32_t>(images[i].size));
        at += images[i].size;
    }
    pwrite_all(out.fd(), a.out, records, sizeof records, a.base + table);
    if (key) key.sign(out.fd(), a.out, signed_file::usb, a.base + end);
    out.commit();
    printf("%s: USB upgrade file of %llu bytes, base %u, table at %llu, kernel %llu bytes, rootfs %llu bytes%s\n",
           a.out.c_str(), static_cast<unsigned long long>(a.base + end + (key ? SIGNATURE_BLOCK : 0)), a.base,
           static_cast<unsigned long long>(a.base + table), static_cast<unsigned long long>(images[0].size),
           static_cast<unsigned long long>(images[1].size), key ? (", signed by key id " + key.id()).c_str() : "");
}

struct sign_args {
    std::string file, key;
    kind what = kind::detect;
};

// The file copied under a temporary name up to its content (an old block
// left out, all-zero blocks left as holes), signed, and renamed over it.
void sign_file(const sign_args& a)
{
    signing_key key("--key", a.key);
    input in("sign", a.file);
    kind what = a.what == kind::detect ? detect_kind(in.fd.get()) : a.what;
    if (what == kind::detect) fail(a.file, "neither an OTA package with a good CRC nor a USB upgrade file: give --ota or --usb");
    signed_file sf = what == kind::ota ? signed_file::ota : signed_file::usb;
    signature_block old;
    int found = signature_read_block(in.fd.get(), in.size, sf, old);
    if (found < 0) fail(a.file, std::string("read failed: ") + strerror(errno));
    uint64_t end = found ? in.size - SIGNATURE_BLOCK : in.size;
    if (sf == signed_file::ota && end < OTA_CRC_FROM) fail(a.file, "too short for an OTA package");

    output out(a.file);
    struct stat st;
    if (fstat(in.fd.get(), &st) == 0) fchmod(out.fd(), st.st_mode & 07777);
    if (ftruncate(out.fd(), static_cast<off_t>(end)) != 0) fail(a.file, std::string("cannot be sized: ") + strerror(errno));
    uint8_t block[OTA_BLOCK];
    progress shown("copying", end);
    for (uint64_t pos = 0; pos < end;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(end - pos, sizeof block));
        if (pread(in.fd.get(), block, n, static_cast<off_t>(pos)) != static_cast<ssize_t>(n))
            fail(a.file, "read failed or the file changed size");
        if (std::any_of(block, block + n, [](uint8_t b) { return b != 0; })) pwrite_all(out.fd(), a.file, block, n, pos);
        pos += n;
        shown.advance(n);
    }
    key.sign(out.fd(), a.file, sf, end);
    uint8_t crc[4];
    if (sf == signed_file::ota) write_crc(out.fd(), a.file, crc);
    out.commit();
    printf("%s: %s %s, signed by key id %s\n", a.file.c_str(), sf == signed_file::ota ? "OTA package" : "USB upgrade file",
           found ? "signature block replaced" : "signature block added", key.id().c_str());
}

int run_inspect(const std::string& path, const inspect_options& options)
{
    unique_fd fd(open(path.c_str(), O_RDONLY));
    if (!fd) fail(path, strerror(errno));
    printf("%-18s %s\n", "file:", path.c_str());
    finding first;
    int status = inspect(fd.get(), options, stdout, first);
    fflush(stdout);
    if (status != 0) fprintf(stderr, "tty_hub_pkg: %s: %s: %s\n", path.c_str(), first.field.c_str(), first.why.c_str());
    return status;
}

[[noreturn]] void usage_error(const std::string& why)
{
    fprintf(stderr, "tty_hub_pkg: %s\n(tty_hub_pkg --help shows the usage)\n", why.c_str());
    exit(2);
}

// Options of the form --name VALUE or --name=VALUE, each once unless it is
// repeatable: a second value would silently win over the first.
class arguments {
public:
    arguments(int argc, char** argv, int from) : args_(argv + from, argv + argc) {}

    bool more() const { return i_ < args_.size(); }
    std::string_view peek() const { return args_[i_]; }
    std::string next_word() { return args_[i_++]; }

    // True when the current word is one of the names; value then holds its value.
    bool take(std::initializer_list<std::string_view> names, std::string& value, bool repeatable = false)
    {
        std::string_view w = args_[i_];
        for (std::string_view n : names) {
            bool alone = w == n, joined = w.size() > n.size() && w.substr(0, n.size()) == n && w[n.size()] == '=';
            if (!alone && !joined) continue;
            if (alone && i_ + 1 >= args_.size()) fail(std::string(n), "needs a value");
            if (!repeatable && !seen_.insert(std::string(*names.begin())).second)
                usage_error("option " + std::string(n) + " given twice");
            value = alone ? args_[i_ + 1] : std::string(w.substr(n.size() + 1));
            i_ += alone ? 2 : 1;
            return true;
        }
        return false;
    }

    // --ota or --usb, at most one of them, once.
    bool kind_flag(kind& what)
    {
        if (!more() || (peek() != "--ota" && peek() != "--usb")) return false;
        kind k = next_word() == "--ota" ? kind::ota : kind::usb;
        if (what == k) usage_error("option " + args_[i_ - 1] + " given twice");
        if (what != kind::detect) usage_error("--ota and --usb conflict: a file is of one kind");
        what = k;
        return true;
    }

private:
    std::vector<std::string> args_;
    size_t i_ = 0;
    std::set<std::string> seen_;
};

int run(int argc, char** argv)
{
    if (argc < 2) usage_error("a verb is needed: build-ota, build-usb, sign or inspect");
    std::string verb = argv[1];
    if (verb == "-h" || verb == "--help" || verb == "help") {
        fputs(USAGE, stdout);
        return 0;
    }
    if (verb == "--version") {
        printf("tty_hub_pkg (tty_hub) %s\n", TTY_HUB_VERSION);
        return 0;
    }
    arguments args(argc, argv, 2);
    std::string value;
    auto help_asked = [&] {
        if (args.peek() != "-h" && args.peek() != "--help") return false;
        fputs(USAGE, stdout);
        return true;
    };
    if (verb == "build-ota") {
        ota_args a;
        bool digest = false;
        while (args.more()) {
            if (help_asked()) return 0;
            if (args.take({"-o", "--output"}, a.out)) continue;
            if (args.take({"--mcu"}, a.mcu)) continue;
            if (args.take({"--mcu-digest"}, a.digest)) { digest = true; continue; }
            if (args.take({"--header"}, a.header)) continue;
            if (args.take({"--image"}, value, true)) { a.images.push_back(value); continue; }
            if (args.take({"--sign"}, a.key)) continue;
            usage_error("build-ota: unknown argument '" + std::string(args.peek()) + "'");
        }
        if (a.out.empty() || a.mcu.empty() || !digest) usage_error("build-ota needs -o OUT, --mcu FILE and --mcu-digest HEX");
        build_ota(a);
        return 0;
    }
    if (verb == "build-usb") {
        usb_args a;
        while (args.more()) {
            if (help_asked()) return 0;
            if (args.take({"-o", "--output"}, a.out)) continue;
            if (args.take({"--kernel"}, a.kernel)) continue;
            if (args.take({"--rootfs"}, a.rootfs)) continue;
            if (args.take({"--base"}, value)) { a.base = static_cast<uint32_t>(number("--base", value, UINT32_MAX)); continue; }
            if (args.take({"--sign"}, a.key)) continue;
            usage_error("build-usb: unknown argument '" + std::string(args.peek()) + "'");
        }
        if (a.out.empty() || a.kernel.empty() || a.rootfs.empty()) usage_error("build-usb needs -o OUT, --kernel FILE and --rootfs FILE");
        build_usb(a);
        return 0;
    }
    if (verb == "sign") {
        sign_args a;
        while (args.more()) {
            if (help_asked()) return 0;
            if (args.take({"--key"}, a.key) || args.kind_flag(a.what)) continue;
            if (args.peek().substr(0, 1) == "-" && args.peek() != "-") usage_error("sign: unknown option '" + std::string(args.peek()) + "'");
            if (!a.file.empty()) usage_error("sign takes one file");
            a.file = args.next_word();
        }
        if (a.file.empty() || a.key.empty()) usage_error("sign needs FILE and --key KEY.pem");
        sign_file(a);
        return 0;
    }
    if (verb == "inspect") {
        inspect_options o;
        std::string path;
        std::vector<std::string> keys;
        while (args.more()) {
            if (help_asked()) return 0;
            if (args.kind_flag(o.what)) continue;
            if (args.take({"--base"}, value)) {
                o.base = static_cast<uint32_t>(number("--base", value, UINT32_MAX));
                o.base_given = true;
            } else if (args.take({"--ota-key"}, value, true)) {
                keys.push_back(value);
            } else if (args.peek().substr(0, 1) == "-" && args.peek() != "-") {
                usage_error("inspect: unknown option '" + std::string(args.peek()) + "'");
            } else if (path.empty()) {
                path = args.next_word();
            } else {
                usage_error("inspect takes one file");
            }
        }
        if (path.empty()) usage_error("inspect needs a FILE");
        if (o.what == kind::ota && o.base_given) usage_error("inspect: --base is for a USB upgrade file");
        for (const std::string& k : keys) {
#if TTY_HUB_HAVE_SIGNING
            std::string why = signature_trust_key(k.c_str());
            if (!why.empty()) fail("--ota-key " + k, why);
#else
            fail("--ota-key " + k, "this tty_hub_pkg was built without signature checks (TTY_HUB_SIGNING)");
#endif
        }
        return run_inspect(path, o);
    }
    usage_error("unknown verb '" + verb + "'");
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const failure& f) {
        fprintf(stderr, "tty_hub_pkg: %s: %s\n", f.where.c_str(), f.why.c_str());
        return 2;
    }
}
