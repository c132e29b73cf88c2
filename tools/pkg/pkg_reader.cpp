// The inspector of tty_hub_pkg: decodes an OTA package or a USB upgrade file
// and checks it the way the daemon will, with the daemon's own MD5 and CRC.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

#include "core/byte_order.h"
#include "tools/pkg/pkg_format.h"
#include "tools/pkg/progress.h"
#include "update/md5.h"
#include "update/signature.h"

namespace pkg {
namespace {

struct io_failure {
    std::string why;
};

std::string hex(const uint8_t* p, size_t n)
{
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(two, sizeof two, "%02x", p[i]);
        s += two;
    }
    return s;
}

// A name field shown as C text, up to its 0 byte or the field's end.
std::string quoted(const uint8_t* p, size_t n)
{
    std::string s = "\"";
    char esc[5];
    for (size_t i = 0; i < n && p[i] != 0; ++i) {
        if (p[i] >= 0x20 && p[i] < 0x7F && p[i] != '"' && p[i] != '\\') {
            s += static_cast<char>(p[i]);
        } else {
            snprintf(esc, sizeof esc, "\\x%02x", p[i]);
            s += esc;
        }
    }
    return s + "\"";
}

bool name_is(const uint8_t* field, const char* name)
{
    size_t n = strlen(name);
    return strnlen(reinterpret_cast<const char*>(field), USB_NAME) == n && !memcmp(field, name, n);
}

bool is_md5_text(const uint8_t* p)
{
    return std::all_of(p, p + USB_MD5_TEXT, [](uint8_t c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

class inspector {
public:
    inspector(int fd, uint64_t size, FILE* out, finding& first) : fd_(fd), size_(size), out_(out), first_(first) {}

    uint64_t size() const { return size_; }

    // Reads n bytes at pos; the caller has checked that they lie in the file.
    void get(uint64_t pos, void* buf, size_t n)
    {
        size_t got = 0;
        while (got < n) {
            ssize_t r = pread(fd_, static_cast<uint8_t*>(buf) + got, n - got, static_cast<off_t>(pos + got));
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) throw io_failure{"read at " + std::to_string(pos + got) + ": " + strerror(errno)};
            if (r == 0) throw io_failure{"file shrank while read, at " + std::to_string(pos + got)};
            got += static_cast<size_t>(r);
        }
    }

    // Feeds [pos, pos + len) block by block; never the whole range at once.
    void stream(uint64_t pos, uint64_t len, const std::function<void(const uint8_t*, size_t)>& feed)
    {
        uint8_t block[OTA_BLOCK];
        progress shown("checking", len);
        while (len != 0) {
            shown.advance(std::min<uint64_t>(len, OTA_BLOCK));
            size_t n = static_cast<size_t>(std::min<uint64_t>(len, OTA_BLOCK));
            get(pos, block, n);
            feed(block, n);
            pos += n;
            len -= n;
        }
    }

    void md5(uint64_t pos, uint64_t len, uint8_t digest[16])
    {
        md5_context ctx;
        md5_init(&ctx);
        stream(pos, len, [&](const uint8_t* p, size_t n) { md5_update(&ctx, p, n); });
        md5_final(&ctx, digest);
    }

    uint32_t crc(uint64_t pos, uint64_t len)
    {
        static uint32_t table[256], lanes[8][256];
        if (table[0] == 0) ota_crc_build_table(table, lanes);
        uint32_t value = 0;
        stream(pos, len, [&](const uint8_t* p, size_t n) { value = ota_crc_update(table, lanes, value, p, n); });
        return value;
    }

    // CRC-32 of offset 12 to the end; computed once, as detection needs it too.
    uint32_t package_crc()
    {
        if (!crc_known_) crc_ = crc(OTA_CRC_FROM, size_ - OTA_CRC_FROM);
        crc_known_ = true;
        return crc_;
    }

    void line(const std::string& field, const std::string& text)
    {
        fprintf(out_, "%-18s %s\n", (field + ":").c_str(), text.c_str());
    }

    // A wrong field is said in place. The one named at the end is the first
    // of the layout, else the first digest, else the CRC: the CRC covers
    // everything, and a digest covers its section, so a narrower field that
    // is wrong says more about what broke.
    enum rank { layout, digest, crc_field, signature, none };
    void wrong(const std::string& field, const std::string& why, rank r = layout)
    {
        fprintf(out_, "%-18s WRONG: %s\n", (field + ":").c_str(), why.c_str());
        if (r < first_rank_) {
            first_ = {field, why};
            first_rank_ = r;
        }
    }

    // Empty firmware or an empty image is legal, and seldom meant.
    void warn(const std::string& field, const std::string& why)
    {
        fprintf(out_, "%-18s warning: %s\n", (field + ":").c_str(), why.c_str());
    }

    // Where the content ends: before the signature block, if there is one.
    uint64_t content_end(signed_file kind);
    void check_signature(signed_file kind);
    void check_ota();
    void check_usb(uint32_t base, bool guessed);
    bool usb_table_at(uint64_t base);
    bool find_usb_base(uint32_t& base);

private:
    void check_entry(size_t i, const uint8_t* dir, uint64_t section, uint32_t length);
    void check_usb_image(const char* name, const uint8_t* records, size_t count, uint64_t base);

    int fd_;
    uint64_t size_;
    FILE* out_;
    finding& first_;
    rank first_rank_ = none;
    bool crc_known_ = false;
    bool guessed_ = false;  // the USB base
    uint32_t crc_ = 0;
};

void inspector::check_ota()
{
    line("kind", "OTA package");
    if (size_ < OTA_CRC_FROM) {
        wrong("package CRC32", "the file ends at " + std::to_string(size_) + ", before the field at 8");
        return;
    }
    uint8_t head[OTA_HEADER_FIELDS] = {};
    get(0, head, std::min<uint64_t>(size_, sizeof head));
    uint32_t stored = get_le32(head + OTA_CRC_POS), computed = package_crc();
    char text[128];
    snprintf(text, sizeof text, "0x%08x (of bytes 12 to the end)", stored);
    if (stored == computed) {
        line("package CRC32", std::string(text) + " ok");
    } else {
        snprintf(text, sizeof text, "stored 0x%08x, computed 0x%08x", stored, computed);
        wrong("package CRC32", text, crc_field);
    }
    if (size_ < OTA_HEADER_FIELDS) {
        wrong("S8137 offset", "the file ends at " + std::to_string(size_) + ", inside the 32 bytes of header fields");
        return;
    }
    line("header", hex(head, 8));
    line("MCU digest", hex(head + OTA_DIGEST_POS, 12) + " (state 3 carries the first 8 bytes)");
    uint32_t offset = get_le32(head + OTA_S8137_OFFSET_POS), length = get_le32(head + OTA_S8137_LENGTH_POS);
    line("S8137 offset", std::to_string(offset));
    line("S8137 length", std::to_string(length));
    if (size_ < OTA_MCU_SECTION) {
        wrong("MCU section", "the file ends at " + std::to_string(size_) + ", before the section at 2048");
    } else {
        uint64_t content = std::max<uint64_t>(content_end(signed_file::ota), OTA_MCU_SECTION);
        uint64_t end = length != 0 && offset >= OTA_MCU_SECTION ? std::min<uint64_t>(offset, content) : content;
        line("MCU section", "2048 to " + std::to_string(end) + " (" + std::to_string(end - OTA_MCU_SECTION) +
                                " bytes before the next section or the end)");
        if (end == OTA_MCU_SECTION) warn("MCU section", "empty: the MCU's READs get no firmware");
    }
    if (length == 0) {
        line("S8137 section", "none: S8137 length 0, an S8137 upgrade has nothing to unpack");
        return;
    }
    if (offset < OTA_MCU_SECTION) wrong("S8137 offset", std::to_string(offset) + " lies in the header area, below 2048");
    if (offset >= size_) {
        wrong("S8137 offset", "the section at " + std::to_string(offset) + " starts past the file's end at " +
                                  std::to_string(size_));
        return;
    }
    if (length < S8137_DATA) {
        wrong("S8137 length", std::to_string(length) + " is below 528, the digest and the directory");
        return;
    }
    if (uint64_t(offset) + length > size_) {
        wrong("S8137 length", "the section " + std::to_string(offset) + "+" + std::to_string(length) + " ends past the file's end at " +
                                  std::to_string(size_));
        return;
    }
    uint8_t stored_md5[S8137_DIGEST], md5_now[16];
    get(offset, stored_md5, sizeof stored_md5);
    md5(offset + S8137_DIGEST, length - S8137_DIGEST, md5_now);
    if (memcmp(stored_md5, md5_now, 16) == 0)
        line("S8137 digest", hex(stored_md5, 16) + " ok");
    else
        wrong("S8137 digest", "stored " + hex(stored_md5, 16) + ", computed " + hex(md5_now, 16), digest);

    uint8_t dir[S8137_DIR];
    get(offset + S8137_DIGEST, dir, sizeof dir);
    size_t count = 0;
    while (count < S8137_MAX_IMAGES && dir[count * S8137_ENTRY] != 0) check_entry(count++, dir, offset, length);
    // Twelve entries fill the directory; byte 480 ends it.
    if (count == S8137_MAX_IMAGES && dir[count * S8137_ENTRY] != 0)
        wrong("directory", "no end within its 512 bytes: byte 480 is not 0");
    else
        line("directory", std::to_string(count) + (count == 1 ? " image" : " images"));
}

void inspector::check_entry(size_t i, const uint8_t* dir, uint64_t section, uint32_t length)
{
    const uint8_t* e = dir + i * S8137_ENTRY;
    std::string field = "entry " + std::to_string(i);
    uint32_t off = get_be32(e + S8137_NAME), len = get_be32(e + S8137_NAME + 4);
    line(field, quoted(e, S8137_NAME) + " offset " + std::to_string(off) + " length " + std::to_string(len));
    const char* name = reinterpret_cast<const char*>(e);
    if (!memchr(e, 0, S8137_NAME)) {
        wrong(field + " name", "no 0 byte within its 32 bytes");
    } else if (strchr(name, '/') || !strcmp(name, ".") || !strcmp(name, "..")) {
        // The daemon writes /tmp/NAME.
        wrong(field + " name", "not a plain file name for /tmp");
    } else {
        for (size_t j = 0; j < i; ++j)
            if (!strncmp(name, reinterpret_cast<const char*>(dir + j * S8137_ENTRY), S8137_NAME))
                wrong(field + " name", "the same as entry " + std::to_string(j) + ", which it would overwrite");
    }
    if (off < S8137_DATA) {
        wrong(field + " offset", std::to_string(off) + " lies in the digest or the directory, below 528");
    } else if (off > length) {
        wrong(field + " offset", "the image at " + std::to_string(off) + " starts past the S8137 section's " +
                                     std::to_string(length) + " bytes");
    } else if (uint64_t(off) + len > length) {
        wrong(field + " length", "the image " + std::to_string(off) + "+" + std::to_string(len) +
                                     " ends past the S8137 section's " + std::to_string(length) + " bytes");
    } else {
        uint8_t d[16];
        md5(section + off, len, d);
        line(field + " MD5", hex(d, 16));
        if (len == 0) warn(field + " length", "empty image");
    }
}

// A table that names kernel or rootfs in one of its first ten records.
bool inspector::usb_table_at(uint64_t base)
{
    uint64_t table = base + USB_TABLE;
    for (size_t s = 0; s < USB_RECORDS_MATCHED && table + (s + 1) * USB_RECORD <= size_; ++s) {
        char name[USB_NAME];
        get(table + s * USB_RECORD, name, sizeof name);
        for (const char* want : USB_IMAGE_NAMES)
            if (name_is(reinterpret_cast<const uint8_t*>(name), want)) return true;
    }
    return false;
}

// Looks for a kernel or rootfs record anywhere: a name with its 0 byte and
// 32 hex characters behind. Records before it (a printable name and MD5
// text, which may be wrong) are taken as the table's start.
bool inspector::find_usb_base(uint32_t& base)
{
    if (size_ < USB_TABLE + USB_RECORD) return false;
    auto record_like = [](const uint8_t* r) { return r[0] != 0 && memchr(r, 0, USB_NAME) && is_md5_text(r + USB_NAME); };
    auto printable = [](const uint8_t* p, size_t n) { return std::all_of(p, p + n, [](uint8_t c) { return c > 0x20 && c < 0x7F; }); };
    auto earlier_record = [&](const uint8_t* r) {
        const void* end = memchr(r, 0, USB_NAME);
        return r[0] != 0 && end && printable(r, static_cast<const uint8_t*>(end) - r) && printable(r + USB_NAME, USB_MD5_TEXT);
    };
    constexpr size_t WINDOW = USB_NAME + USB_MD5_TEXT;
    uint8_t buf[OTA_BLOCK + WINDOW];
    size_t carry = 0;
    for (uint64_t pos = USB_TABLE; pos < size_;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(size_ - pos, OTA_BLOCK));
        get(pos, buf + carry, n);
        size_t have = carry + n;
        uint64_t start = pos - carry;
        for (size_t i = 0; i + WINDOW <= have; ++i) {
            bool named = !memcmp(buf + i, "kernel", 7) || !memcmp(buf + i, "rootfs", 7);
            if (!named || !record_like(buf + i)) continue;
            uint64_t rec = start + i;
            uint8_t prev[WINDOW];
            for (size_t back = 0; back < USB_RECORDS_MATCHED - 1 && rec >= USB_TABLE + USB_RECORD; ++back) {
                get(rec - USB_RECORD, prev, sizeof prev);
                if (!earlier_record(prev)) break;
                rec -= USB_RECORD;
            }
            if (rec - USB_TABLE > UINT32_MAX) return false;
            base = static_cast<uint32_t>(rec - USB_TABLE);
            return true;
        }
        carry = std::min(have, WINDOW - 1);
        memmove(buf, buf + have - carry, carry);
        pos += n;
    }
    return false;
}

uint64_t inspector::content_end(signed_file kind)
{
    signature_block b;
    int found = signature_read_block(fd_, size_, kind, b);
    if (found < 0) throw io_failure{std::string("read of the signature block: ") + (errno ? strerror(errno) : "file shrank")};
    return found ? size_ - SIGNATURE_BLOCK : size_;
}

void inspector::check_signature(signed_file kind)
{
    signature_block b;
    if (content_end(kind) == size_) {
        if (signature_trusted_keys() == 0)
            line("signature", "none");
        else
            wrong("signature", "none: the file has no signature block", signature);
        return;
    }
    signature_read_block(fd_, size_, kind, b);
    std::string text = "key id " + signature_key_id_text(b.key_id) + ", Ed25519, the last 80 bytes";
#if TTY_HUB_HAVE_SIGNING
    if (signature_trusted_keys() != 0) {
        uint8_t block[OTA_BLOCK];
        std::string why = signature_verify(fd_, kind, block);
        line("signature", text + (why.empty() ? ", ok" : ""));
        if (!why.empty()) wrong("signature", why, signature);
        return;
    }
#endif
    line("signature", text + " (not checked: no --ota-key)");
}

void inspector::check_usb(uint32_t base, bool guessed)
{
    uint64_t table = uint64_t(base) + USB_TABLE;
    guessed_ = guessed;
    line("kind", "USB upgrade file");
    line("base", std::to_string(base) + " (image table at " + std::to_string(table) + ")" +
                     (guessed ? ": a guess from where a table was found; --base N (the offset the MCU sends) says it" : ""));
    if (table + USB_RECORD > size_) {
        wrong("image table", "the file ends at " + std::to_string(size_) + ", before the table's first record");
        return;
    }
    // The records the daemon reads; one that the file cuts short is none.
    uint8_t records[USB_RECORDS_READ * USB_RECORD];
    size_t count = static_cast<size_t>(std::min<uint64_t>((size_ - table) / USB_RECORD, USB_RECORDS_READ));
    get(table, records, count * USB_RECORD);
    // The daemon reads from the first record until the image's name, or all
    // eleven when it is not among the first ten: only those are judged (an
    // image may lie right behind the records).
    size_t used = 0;
    for (const char* name : USB_IMAGE_NAMES) {
        size_t s = 0;
        while (s < std::min(count, USB_RECORDS_MATCHED) && !name_is(records + s * USB_RECORD, name)) ++s;
        used = std::max(used, s < std::min(count, USB_RECORDS_MATCHED) ? s + 1 : count);
    }
    for (size_t s = 0; s < used; ++s) {
        const uint8_t* r = records + s * USB_RECORD;
        if (r[0] == 0) continue;
        std::string field = "record " + std::to_string(s);
        line(field, quoted(r, USB_NAME) + " MD5 " + quoted(r + USB_NAME, USB_MD5_TEXT) + " offset " +
                        std::to_string(get_le32(r + USB_OFFSET)) + " length " + std::to_string(get_le32(r + USB_LENGTH)) +
                        (s < USB_RECORDS_MATCHED ? "" : " (the 11th record: never matched)"));
        if (!memchr(r, 0, USB_NAME)) wrong(field + " name", "no 0 byte within its 32 bytes");
    }
    for (const char* name : USB_IMAGE_NAMES) check_usb_image(name, records, std::min(count, USB_RECORDS_MATCHED), base);
}

void inspector::check_usb_image(const char* name, const uint8_t* records, size_t count, uint64_t base)
{
    std::string n = name;
    const uint8_t* r = nullptr;
    for (size_t s = 0; s < count && !r; ++s)
        if (name_is(records + s * USB_RECORD, name)) r = records + s * USB_RECORD;
    if (!r) {
        wrong(n + " record", std::string("not among the first 10 records") + (guessed_ ? " (the base is a guess: --base N)" : ""));
        return;
    }
    uint32_t off = get_le32(r + USB_OFFSET), len = get_le32(r + USB_LENGTH);
    uint64_t at = base + off;
    if (!is_md5_text(r + USB_NAME)) wrong(n + " MD5 text", "not 32 lower-case hex characters");
    if (len > INT32_MAX) {
        wrong(n + " length", std::to_string(len) + " is above 2147483647, which the daemon takes as negative");
    } else if (at > size_) {
        wrong(n + " offset", "the image at " + std::to_string(at) + " starts past the file's end at " + std::to_string(size_));
    } else if (at + len > size_) {
        wrong(n + " length", "the image " + std::to_string(at) + "+" + std::to_string(len) + " ends past the file's end at " +
                                 std::to_string(size_));
    } else {
        uint8_t d[16];
        md5(at, len, d);
        std::string computed = hex(d, 16);
        if (len == 0) warn(n + " length", "empty image");
        if (!memcmp(computed.data(), r + USB_NAME, USB_MD5_TEXT))
            line(n, "file offset " + std::to_string(at) + ", " + std::to_string(len) + " bytes, MD5 " + computed + " ok");
        else
            wrong(n + " MD5", "the record says " + quoted(r + USB_NAME, USB_MD5_TEXT) + ", the image has " + computed, digest);
    }
}

}  // namespace

kind detect_kind(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0) return kind::detect;
    finding unused;
    inspector in(fd, static_cast<uint64_t>(st.st_size), stdout, unused);
    try {
        uint8_t field[4];
        uint32_t base;
        if (in.size() >= OTA_CRC_FROM) {
            in.get(OTA_CRC_POS, field, 4);
            if (get_le32(field) == in.package_crc()) return kind::ota;
        }
        if (in.usb_table_at(0) || in.find_usb_base(base)) return kind::usb;
    } catch (const io_failure&) {
    }
    return kind::detect;
}

int inspect(int fd, const inspect_options& options, FILE* out, finding& first)
{
    first = {};
    struct stat st;
    if (fstat(fd, &st) != 0) {
        first = {"file", strerror(errno)};
        return 2;
    }
    if (!S_ISREG(st.st_mode)) {
        first = {"file", "not a regular file"};
        return 2;
    }
    inspector in(fd, static_cast<uint64_t>(st.st_size), out, first);
    try {
        in.line("size", std::to_string(in.size()) + " bytes");
        kind what = options.what;
        uint32_t base = options.base;
        bool at_zero = !options.base_given && what != kind::ota && in.usb_table_at(0);
        if (what == kind::detect) {
            if (options.base_given || at_zero) {
                what = kind::usb;
            } else if (in.size() >= OTA_CRC_FROM) {
                uint8_t field[4];
                in.get(OTA_CRC_POS, field, 4);
                bool crc_good = get_le32(field) == in.package_crc();
                what = !crc_good && in.find_usb_base(base) ? kind::usb : kind::ota;
            } else {
                what = kind::ota;
            }
        } else if (what == kind::usb && !options.base_given && !at_zero) {
            in.find_usb_base(base);
        }
        if (what == kind::usb)
            in.check_usb(base, !options.base_given);
        else
            in.check_ota();
        in.check_signature(what == kind::usb ? signed_file::usb : signed_file::ota);
    } catch (const io_failure& e) {
        first = {"file", e.why};
        return 2;
    }
    fprintf(out, "%-18s %s\n", "result:", first.field.empty() ? "good" : ("WRONG at " + first.field).c_str());
    return first.field.empty() ? 0 : 1;
}

}  // namespace pkg
