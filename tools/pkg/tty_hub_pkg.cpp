// tty_hub_pkg: builds the OTA packages and USB upgrade files that tty_hub
// reads, and inspects them. Usage: tty_hub_pkg --help.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "tools/pkg/pkg_format.h"
#include "core/byte_order.h"
#include "update/fd_io.h"
#include "update/md5.h"
#include "update/ota.h"

#ifndef TTY_HUB_VERSION
#define TTY_HUB_VERSION "unknown"
#endif

namespace {

using namespace pkg;

constexpr const char* USAGE = R"(Usage:
  tty_hub_pkg build-ota -o OUT --mcu FILE --mcu-digest HEX [--header HEX] [--image [NAME=]FILE]...
  tty_hub_pkg build-usb -o OUT --kernel FILE --rootfs FILE [--base N]
  tty_hub_pkg inspect [--ota | --usb] [--base N] FILE
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
                         (NAME: at most 31 characters, no '/'; default: the file's
                         base name); up to 12, in order. None: no S8137 section

build-usb    a USB upgrade file for the MCU's USB disk upgrade (frame 15): the
             image table at BASE + 0x100880 with a kernel and a rootfs record
             (MD5 as lower-case hex, LE offset from BASE and length), the
             images behind the table. Bytes before are 0 (a sparse file).
  -o, --output OUT       the file to write
  --kernel FILE          the image flashed to /dev/mtd7
  --rootfs FILE          the image flashed to /dev/mtd8
  --base N               the base offset the MCU sends (default 0)

inspect      prints every field decoded and checks: the package CRC-32, the
             S8137 section's MD5, the header and directory fields (offsets and
             lengths inside the file and the section, names ended within their
             32 bytes, the directory ended within its 512 bytes) and each image's
             MD5 (USB: against its record). The kind is taken from the content
             unless told.
  --ota, --usb           the kind of file
  --base N               the base offset of a USB upgrade file (default: found)

Numbers are decimal or 0x hex. Exit status: 0 done (inspect: the file is
sound), 1 inspect found a wrong field, 2 bad usage, or a file that cannot be
read or written. inspect marks every wrong field WRONG and names one on
stderr: the first wrong field of the layout, else the first wrong MD5, else
the package CRC-32 (which covers everything behind offset 12).

Examples:
  tty_hub_pkg build-ota -o OTA_UPG.bin --mcu mcu.bin --mcu-digest 4d43555f76322e3130000000 \
      --image uImage --image rootfs.squashfs --image dsp.cfg=build/dsp_v2.cfg
  tty_hub_pkg build-usb -o upgrade.bin --kernel uImage --rootfs rootfs.squashfs --base 0x1000
  tty_hub_pkg inspect OTA_UPG.bin
)";

// A failure of the command: the file or option it concerns, and why.
struct failure {
    std::string where, why;
};

[[noreturn]] void fail(const std::string& where, const std::string& why) { throw failure{where, why}; }

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
        for (;;) {
            ssize_t r = read(fd.get(), block, sizeof block);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) fail(path, std::string("read failed: ") + strerror(errno));
            if (r == 0) break;
            if (done + static_cast<uint64_t>(r) > size) break;
            if (md5) md5_update(md5, block, static_cast<size_t>(r));
            pwrite_all(out, out_path, block, static_cast<size_t>(r), pos + done);
            done += static_cast<uint64_t>(r);
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

struct ota_args {
    std::string out, mcu, digest, header = std::string(16, '0');
    std::vector<std::string> images;
};

void build_ota(const ota_args& a)
{
    std::vector<uint8_t> digest = hex_bytes("--mcu-digest", a.digest, 12), header = hex_bytes("--header", a.header, 8);
    if (a.images.size() > S8137_MAX_IMAGES)
        fail("--image", std::to_string(a.images.size()) + " images; the directory holds at most 12");
    input mcu("--mcu", a.mcu);
    std::deque<input> images;
    for (const std::string& image_arg : a.images) {
        size_t eq = image_arg.find('=');
        bool named = eq != std::string::npos && image_arg.find('/') > eq;
        std::string path = named ? image_arg.substr(eq + 1) : image_arg;
        std::string name = named ? image_arg.substr(0, eq) : path.substr(path.rfind('/') + 1);
        if (name.empty() || name.size() >= S8137_NAME || name == "." || name == ".." || name.find('/') != std::string::npos)
            fail("--image " + image_arg, "image name '" + name + "': 1 to 31 characters, no '/', not . or ..");
        for (const input& other : images)
            if (other.name == name) fail("--image " + image_arg, "image name '" + name + "' given twice");
        images.emplace_back("--image", path, name);
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
    uint8_t crc[4];
    put_le32(crc, crc_of(out.fd(), a.out, OTA_CRC_FROM));
    pwrite_all(out.fd(), a.out, crc, sizeof crc, OTA_CRC_POS);
    out.commit();
    printf("%s: OTA package of %llu bytes, MCU section %llu bytes, %zu S8137 image(s), CRC32 0x%02x%02x%02x%02x\n",
           a.out.c_str(), static_cast<unsigned long long>(section + length), static_cast<unsigned long long>(mcu.size),
           images.size(), crc[3], crc[2], crc[1], crc[0]);
}

struct usb_args {
    std::string out, kernel, rootfs;
    uint32_t base = 0;
};

void build_usb(const usb_args& a)
{
    input images[] = {input("--kernel", a.kernel, "kernel"), input("--rootfs", a.rootfs, "rootfs")};
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
    out.commit();
    printf("%s: USB upgrade file of %llu bytes, base %u, table at %llu, kernel %llu bytes, rootfs %llu bytes\n",
           a.out.c_str(), static_cast<unsigned long long>(a.base + end), a.base,
           static_cast<unsigned long long>(a.base + table), static_cast<unsigned long long>(images[0].size),
           static_cast<unsigned long long>(images[1].size));
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

// Options of the form --name VALUE or --name=VALUE.
class arguments {
public:
    arguments(int argc, char** argv, int from) : args_(argv + from, argv + argc) {}

    bool more() const { return i_ < args_.size(); }
    std::string_view peek() const { return args_[i_]; }
    std::string next_word() { return args_[i_++]; }

    // True when the current word is one of the names; value then holds its value.
    bool take(std::initializer_list<std::string_view> names, std::string& value)
    {
        std::string_view w = args_[i_];
        for (std::string_view n : names) {
            if (w == n) {
                if (i_ + 1 >= args_.size()) fail(std::string(n), "needs a value");
                value = args_[i_ + 1];
                i_ += 2;
                return true;
            }
            if (w.size() > n.size() && w.substr(0, n.size()) == n && w[n.size()] == '=') {
                value = std::string(w.substr(n.size() + 1));
                ++i_;
                return true;
            }
        }
        return false;
    }

private:
    std::vector<std::string> args_;
    size_t i_ = 0;
};

[[noreturn]] void usage_error(const std::string& why)
{
    fprintf(stderr, "tty_hub_pkg: %s\n(tty_hub_pkg --help shows the usage)\n", why.c_str());
    exit(2);
}

int run(int argc, char** argv)
{
    if (argc < 2) usage_error("a verb is needed: build-ota, build-usb or inspect");
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
            if (args.take({"--image"}, value)) { a.images.push_back(value); continue; }
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
            usage_error("build-usb: unknown argument '" + std::string(args.peek()) + "'");
        }
        if (a.out.empty() || a.kernel.empty() || a.rootfs.empty()) usage_error("build-usb needs -o OUT, --kernel FILE and --rootfs FILE");
        build_usb(a);
        return 0;
    }
    if (verb == "inspect") {
        inspect_options o;
        std::string path;
        while (args.more()) {
            if (help_asked()) return 0;
            if (args.peek() == "--ota" || args.peek() == "--usb") {
                o.what = args.next_word() == "--ota" ? kind::ota : kind::usb;
            } else if (args.take({"--base"}, value)) {
                o.base = static_cast<uint32_t>(number("--base", value, UINT32_MAX));
                o.base_given = true;
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
