// mcu_sim: plays the product's host microcontroller on the MCU serial link,
// runs test scenarios against the daemon, and decodes captured MCU traffic.
// `mcu_sim --help` lists the steps, fields, options and examples.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "tools/sim/decode.h"
#include "tools/sim/script.h"

namespace {

using namespace sim;

uint8_t check_digit(const uint8_t* p, size_t n)
{
    unsigned s = 0;
    for (size_t i = 0; i < n; ++i) s = (s + p[i]) & 0xFF;
    return static_cast<uint8_t>(((s + (s >> 4)) & 15) + 0x30);
}

bytes make_frame(uint8_t cmd, const bytes& payload, bool bad_digit = false)
{
    bytes f = {0xFF, static_cast<uint8_t>(payload.size() + 3), cmd};
    f.insert(f.end(), payload.begin(), payload.end());
    uint8_t d = check_digit(f.data() + 1, f.size() - 1);
    f.push_back(bad_digit ? static_cast<uint8_t>(((d - 0x30 + 1) & 15) + 0x30) : d);
    return f;
}

// ---- frames by name

struct field {
    const char* name;
    int byte, shift, width;  // width in bits; 16: two bytes, low byte first
};

struct frame_kind {
    const char* name;
    uint8_t cmd;
    size_t size;
    std::vector<field> fields;  // none: one byte per position
};

const std::vector<frame_kind> kinds = {
    {"mix", 2, 4, {{"source", 0, 0, 4}, {"mode", 0, 4, 4}, {"dec", 1, 0, 8}, {"upmix", 2, 0, 8}, {"i2s", 3, 0, 8}}},
    {"system", 3, 4,
     {{"hbr", 0, 5, 3}, {"silence", 1, 6, 1}, {"line43", 1, 3, 1}, {"line42", 1, 2, 1}, {"module", 2, 4, 4},
      {"value", 2, 0, 4}, {"volume", 3, 1, 6}, {"mute", 3, 0, 1}}},
    {"delay", 4, 12, {}},
    {"vol", 5, 12, {}},
    {"atmos", 6, 11, {}},
    {"bm", 8, 16, {}},
    {"music", 9, 5, {{"play", 0, 6, 1}, {"tone", 0, 4, 1}, {"index", 1, 0, 8}, {"mask", 2, 0, 16}, {"gain", 4, 0, 8}}},
    {"dtsx", 11, 3, {}},
};

struct named_value {
    const char* name;
    uint8_t value;
};
const std::vector<named_value> record_words = {{"start", 1}, {"stop", 2}, {"export", 3}, {"import", 4}, {"report", 32}};
const std::vector<named_value> ota_words = {{"start", 1}, {"exit", 3}, {"s8137", 5}, {"mcu", 6}};

bytes build(const frame_kind& k, const args& a)
{
    bytes p(k.size, 0);
    std::vector<uint8_t> plain;
    for (const auto& w : a.w) {
        auto eq = w.find('=');
        if (eq == std::string::npos) {
            plain.push_back(static_cast<uint8_t>(number(w, 0, 255, std::string(k.name) + " byte")));
            continue;
        }
        std::string name = w.substr(0, eq);
        auto f = std::find_if(k.fields.begin(), k.fields.end(), [&](const field& x) { return name == x.name; });
        if (f == k.fields.end()) throw usage_error(std::string("no field ") + name + " in " + k.name);
        long v = number(w.substr(eq + 1), 0, (1L << f->width) - 1, name);
        auto at = static_cast<size_t>(f->byte);
        if (f->width == 16) {
            p[at] = static_cast<uint8_t>(v);
            p[at + 1] = static_cast<uint8_t>(v >> 8);
            if (k.cmd == 9) p[0] |= 0x20;  // the mask is given
        } else {
            auto mask = static_cast<uint8_t>(((1u << f->width) - 1) << f->shift);
            p[at] = static_cast<uint8_t>((p[at] & ~mask) | ((v << f->shift) & mask));
        }
    }
    if (!plain.empty() && !k.fields.empty() && plain.size() > k.size)
        throw usage_error(std::string("too many bytes for ") + k.name);
    if (plain.size() > k.size) throw usage_error(std::string(k.name) + " takes at most " + std::to_string(k.size) + " bytes");
    // One plain value fills a frame of one byte per position.
    if (plain.size() == 1 && k.fields.empty()) std::fill(p.begin(), p.end(), plain[0]);
    else std::copy(plain.begin(), plain.end(), p.begin());
    return p;
}

uint8_t word_or_number(const std::vector<named_value>& words, const std::string& w, const char* what)
{
    for (const auto& n : words)
        if (w == n.name) return n.value;
    if (w.empty() || !isdigit(static_cast<unsigned char>(w[0]))) {
        std::string all;
        for (const auto& n : words) all += std::string(" ") + n.name;
        throw usage_error(std::string(what) + " takes one of" + all + " or a number, not " + w);
    }
    return static_cast<uint8_t>(number(w, 0, 255, what));
}

// ---- the daemon's frames, decoded

const char* const rate_names[] = {"8000", "11025", "12000", "16000", "22050", "24000", "32000", "44100",
                                  "48000", "64000", "88200", "96000", "128000", "176400", "192000", "?"};

std::string decode_audio(const bytes& p)
{
    std::string o = "audio status: format " + std::to_string(p[0] & 0x3F) + ((p[0] & 0x80) ? " Atmos" : "") +
                    ((p[0] & 0x40) ? " Surround" : "") + ", fs " + rate_names[p[1] & 15] + " Hz, applied";
    static const char* const applied[] = {"bm", "atmos", "vol", "delay", "system", "mix"};
    for (int i = 0; i < 6; ++i)
        if (p[2] & (1 << i)) o += std::string(" ") + applied[i];
    if (!(p[2] & 0x3F)) o += " none";
    if (p[2] & 0x40) o += ", music playing";
    static const char* const ch[] = {"L", "R", "C", "SUB", "LS", "RS", "LRS", "RRS", "LTF", "RTF", "LTR", "RTR"};
    o += ", energy";
    for (int i = 0; i < 12; ++i)
        o += std::string(" ") + ch[i] + "=" + std::to_string(i % 2 == 0 ? p[4 + i / 2] >> 4 : p[4 + i / 2] & 15);
    if (p[10] || p[11]) o += ", atmos failures " + hex(p.data() + 10, 2);
    return o;
}

std::string decode_record(const bytes& p)
{
    std::string o = "record state: ";
    o += p[4] == 0xF2 ? "state 2" : p[4] ? "recording " + std::to_string(p[4]) + " s" : "idle";
    static const char* const bits[] = {"importing", "import failed", "exporting", "export failed"};
    for (int i = 0; i < 4; ++i)
        if (p[5] & (1 << i)) o += std::string(", ") + bits[i];
    if (p[11] & 0x40) o += ", dialog";
    if (p[0] != 0x01 || p[1] != 0x49 || p[2] != 0x05 || p[6] != 0x01 || p[7] != 0x0D || p[8] != 0x01)
        o += " (unexpected constant bytes)";
    return o;
}

std::string decode_ota(const bytes& p)
{
    std::string o = "OTA state " + std::to_string(p[0]) + ": ";
    switch (p[0]) {
    case 3: return o + "package received, MCU digest " + hex(p.data() + 1, 8);
    case 4: return o + "OTA exit";
    case 5: return o + "S8137 upgrade starting";
    default: return o + "reception failed " + quote(std::string(p.begin() + 1, p.begin() + 9));
    }
}

std::string decode_udisk(const bytes& p)
{
    std::string pct = std::to_string(p[1]) + "%";
    switch (p[0]) {
    case 1: return "USB upgrade: in progress " + pct;
    case 3: return "USB upgrade: done " + pct;
    case 16: return "USB upgrade: failed before any image";
    case 19: return "USB upgrade: failed on an image at " + pct;
    default: return "USB upgrade: status " + std::to_string(p[0]) + " " + pct;
    }
}

// A command of the MCU, as its step would be written.
std::string decode_command(uint8_t cmd, const bytes& p)
{
    for (const auto& k : kinds) {
        if (k.cmd != cmd) continue;
        if (p.size() != k.size) break;
        std::string o = k.name;
        if (k.fields.empty())
            for (uint8_t b : p) o += " " + std::to_string(b);
        for (const auto& f : k.fields) {
            auto at = static_cast<size_t>(f.byte);
            long v = f.width == 16 ? p[at] | p[at + 1] << 8 : (p[at] >> f.shift) & ((1 << f.width) - 1);
            o += std::string(" ") + f.name + "=" + std::to_string(v);
        }
        return o;
    }
    if ((cmd == 10 || cmd == 14) && p.size() == 1) {
        for (const auto& n : cmd == 10 ? record_words : ota_words)
            if (n.value == p[0]) return std::string(cmd == 10 ? "record " : "ota ") + n.name;
    }
    if (cmd == 15 && p.size() == 16 && p[0] == 0x11) {
        uint32_t base = p[1] | p[2] << 8 | p[3] << 16 | static_cast<uint32_t>(p[4]) << 24;
        std::string name(p.begin() + 5, std::find(p.begin() + 5, p.end(), 0));
        return "udisk base=" + std::to_string(base) + " name=" + quote(name);
    }
    return "frame " + std::to_string(cmd) + (p.empty() ? "" : " " + hex(p));
}

// One frame in words: a report of the daemon, or a command of the MCU.
std::string describe(const bytes& f, bool from_daemon)
{
    std::string text;
    if (f.size() < 4) {
        text = "frame without a command";
    } else {
        uint8_t cmd = f[2];
        bytes p(f.begin() + 3, f.end() - 1);
        bool report = cmd == 0x20 || cmd == 0x21 || cmd == 0x23 || cmd == 0x24;
        if (!from_daemon) text = decode_command(cmd, p);
        else if (report && p.size() != (cmd == 0x24 ? 4u : 12u))
            text = "report with " + std::to_string(p.size()) + " payload bytes";
        else if (cmd == 0x20) text = decode_record(p);
        else if (cmd == 0x21) text = decode_audio(p);
        else if (cmd == 0x23) text = decode_ota(p);
        else if (cmd == 0x24) text = decode_udisk(p);
        else text = "frame " + std::to_string(cmd);
    }
    if (check_digit(f.data() + 1, f.size() - 2) != f.back()) text += "  [BAD CHECK DIGIT]";
    return text;
}

// The first piece of a byte stream as the daemon's reader takes it apart:
// noise up to a lead byte, or a frame of length byte + 1 bytes.
piece first_frame(const uint8_t* b, size_t n, bool at_end, bool)
{
    if (n == 0) return {0, piece::more};
    if (b[0] != 0xFF) return {static_cast<size_t>(std::find(b, b + n, 0xFF) - b), piece::noise};
    if (n < 2) return at_end ? piece{1, piece::cut} : piece{0, piece::more};
    if (b[1] == 0) return {2, piece::noise};
    size_t len = static_cast<size_t>(b[1]) + 1;
    if (n < len) return at_end ? piece{n, piece::cut} : piece{0, piece::more};
    return {len, piece::whole};
}

std::string frame_text(const uint8_t* b, size_t n, bool from_daemon)
{
    char id[8];
    snprintf(id, sizeof id, "0x%02X ", n > 2 ? b[2] : 0);
    return (n > 2 ? id : "") + describe(bytes(b, b + n), from_daemon);
}

// ---- frames from the daemon

// The next piece of the s.io.inbox, printed; nullopt while incomplete.
std::optional<bytes> next_piece(session& s, bool& is_frame)
{
    piece pc = first_frame(s.io.inbox.data(), s.io.inbox.size(), false, true);
    if (pc.kind == piece::more) return std::nullopt;
    bytes b(s.io.inbox.begin(), s.io.inbox.begin() + static_cast<long>(pc.len));
    s.io.inbox.erase(s.io.inbox.begin(), s.io.inbox.begin() + static_cast<long>(pc.len));
    is_frame = pc.kind == piece::whole;
    if (is_frame) printf("[mcu] <- %s\n", frame_text(b.data(), b.size(), true).c_str());
    if (!is_frame || !s.quiet) printf(is_frame ? "[mcu]        %s\n" : "[mcu] <- noise: %s\n", hex(b).c_str());
    return b;
}

void show(session& s)
{
    bool is_frame = false;
    while (next_piece(s, is_frame)) {
    }
}

std::string pattern_text(int id, const std::vector<int>& pattern)
{
    char buf[8];
    snprintf(buf, sizeof buf, "0x%02X", id);
    std::string o = std::string("frame ") + buf;
    for (int b : pattern) {
        snprintf(buf, sizeof buf, b < 0 ? " .." : " %02X", b);
        o += buf;
    }
    return o;
}

bool expect_frame(session& s, int id, const std::vector<int>& pattern)
{
    auto fits = [&](const bytes& f) {
        if (f.size() < 4 || f[2] != id) return false;
        if (pattern.empty()) return true;
        if (f.size() - 4 != pattern.size()) return false;
        for (size_t i = 0; i < pattern.size(); ++i)
            if (pattern[i] >= 0 && f[3 + i] != pattern[i]) return false;
        return true;
    };
    std::optional<bytes> wrong;
    bool found = false;
    s.wait_for([&] {
        bool is_frame = false;
        while (auto b = next_piece(s, is_frame)) {
            if (is_frame && fits(*b)) return found = true;
            if (is_frame && b->size() > 3 &&
                std::find(s.ignored_frames.begin(), s.ignored_frames.end(), (*b)[2]) != s.ignored_frames.end())
                continue;
            wrong = b;
            return true;
        }
        return false;
    });
    if (found) return true;
    if (wrong) return s.miss("expected " + pattern_text(id, pattern) + ", got " + hex(*wrong));
    return s.miss("expected " + pattern_text(id, pattern) + ", nothing within " + std::to_string(s.bound_ms) + " ms");
}

// ---- firmware upload, the MCU's side

bytes read_request(uint32_t offset, uint32_t length)
{
    bytes r = {'R', 'E', 'A', 'D'};
    for (uint32_t v : {offset, length})
        for (int s = 24; s >= 0; s -= 8) r.push_back(static_cast<uint8_t>(v >> s));
    return r;
}

// One READ; checks the reply against the expected bytes.
bool fetch(session& s, const bytes& package, uint32_t offset, uint32_t length, bytes& got)
{
    size_t pos = offset == 0xFFFFFFFFu ? 0 : static_cast<size_t>(offset) + 2048;
    // The daemon serves at most one block of 4096 bytes.
    size_t n = pos >= package.size() ? 0 : std::min<size_t>(std::min<uint32_t>(length, 4096), package.size() - pos);
    size_t size = (n + 7) & ~size_t{3};
    s.io.write_all(read_request(offset, length));
    bytes reply = s.io.take(size, s.bound_ms);
    char what[48];
    snprintf(what, sizeof what, "READ 0x%08X+%u: ", offset, length);
    if (reply.size() != size)
        return s.miss(what + std::to_string(reply.size()) + " bytes came, " + std::to_string(size) + " expected");
    uint32_t sum = reply[0] | reply[1] << 8 | reply[2] << 16 | static_cast<uint32_t>(reply[3]) << 24;
    uint32_t want = 0;
    for (size_t i = 0; i < n; ++i) want += package[pos + i];
    got.assign(reply.begin() + 4, reply.begin() + 4 + static_cast<long>(n));
    bool data_ok = std::equal(got.begin(), got.end(), package.begin() + static_cast<long>(pos));
    bool pad_ok = std::all_of(reply.begin() + 4 + static_cast<long>(n), reply.end(), [](uint8_t b) { return b == 0; });
    if (sum != want || !data_ok || !pad_ok)
        return s.miss(what + std::string("sum ") + std::to_string(sum) + " (expected " + std::to_string(want) +
                    "), data " + (data_ok ? "ok" : "WRONG") + ", padding " + (pad_ok ? "ok" : "WRONG"));
    return true;
}

bytes package_bytes(const std::string& path)
{
    std::string text = read_whole(path);
    return bytes(text.begin(), text.end());
}

// The MCU's line speed follows the daemon's through the firmware exchange:
// 460800 baud once "ota mcu" is out, back to the link's speed if no call
// comes (the daemon could not open its package and never switched). A
// pseudo-terminal is left alone: its settings are the daemon's own.
constexpr long upload_rate = 460800;

struct mcu_link : session {
    using session::session;
    bool fast = false;    // at upload_rate
    bool called = false;  // a call came since the switch
};

bool switch_speed(session& s, long rate)
{
    auto& link = static_cast<mcu_link&>(s);
    if (!s.io.is_terminal) return true;
    link.fast = rate == upload_rate;
    link.called = false;
    if (set_speed(s.io.fd, rate)) return s.say("line speed " + std::to_string(rate) + " baud"), true;
    return s.miss("cannot set the line speed to " + std::to_string(rate) + ": " + strerror(errno));
}

// The daemon's call "UART_UPDATA!"; frames that came before it are printed.
bool await_call(session& s)
{
    const std::string call = "UART_UPDATA!";
    bool called = s.wait_for([&] {
        auto at = std::search(s.io.inbox.begin(), s.io.inbox.end(), call.begin(), call.end());
        if (at == s.io.inbox.end()) return false;
        bytes rest(at + static_cast<long>(call.size()), s.io.inbox.end());
        s.io.inbox.erase(at, s.io.inbox.end());
        show(s);
        s.io.inbox = rest;
        return true;
    });
    auto& link = static_cast<mcu_link&>(s);
    if (!called) {
        if (link.fast && !link.called) switch_speed(s, s.io.line.rate);
        return s.miss("expected \"UART_UPDATA!\", " + s.nothing_within());
    }
    link.called = true;
    printf("[mcu] <- \"UART_UPDATA!\"\n");
    return true;
}

bool upload(session& s, const std::string& package_path, uint32_t block, const std::string& out_path)
{
    bytes package = package_bytes(package_path);
    if (!await_call(s)) return false;

    bytes got;
    if (!fetch(s, package, 0xFFFFFFFFu, 32, got)) return false;
    s.say("header: " + hex(got.data(), std::min<size_t>(got.size(), 32)));
    bytes firmware;
    size_t blocks = 0;
    for (uint32_t off = 0;; off += block) {
        if (!fetch(s, package, off, block, got)) return false;
        ++blocks;
        firmware.insert(firmware.end(), got.begin(), got.end());
        if (got.size() < block) break;
    }
    s.io.write_all(std::string_view("UPDATA_SUCC!"));
    printf("[mcu] -> \"UPDATA_SUCC!\": firmware of %zu bytes in %zu READs, every sum and byte verified\n",
           firmware.size(), blocks);
    if (!out_path.empty()) {
        FILE* f = fopen(out_path.c_str(), "wb");
        bool ok = f && fwrite(firmware.data(), 1, firmware.size(), f) == firmware.size();
        if (f) ok = fclose(f) == 0 && ok;
        if (!ok) return s.miss("cannot write " + out_path);
    }
    return true;
}

// ---- steps

action send(std::string what, uint8_t cmd, bytes payload, bool bad = false)
{
    return [=](session& s) {
        bytes f = make_frame(cmd, payload, bad);
        printf("[mcu] -> %s (command %u): %s\n", what.c_str(), cmd, hex(f).c_str());
        s.io.write_all(f);
        // OTA upgrade MCU: the daemon answers at the upload speed.
        if (cmd == 14 && payload == bytes{6} && !bad && s.io.is_terminal) {
            tcdrain(s.io.fd);
            return switch_speed(s, upload_rate);
        }
        return true;
    };
}

std::vector<verb> mcu_verbs()
{
    std::vector<verb> v;
    for (const auto& k : kinds) {
        std::string usage;
        if (k.fields.empty())
            usage = "V...  command " + std::to_string(k.cmd) + ", " +
                    std::to_string(k.size) + " bytes 0..255 (one value: all of them;\n"
                    "                        fewer: in order, the rest 0)";
        else
            usage = "FIELD=V...  command " + std::to_string(k.cmd) + ", fields below";
        v.push_back({k.name, usage, k.fields.empty() ? 1u : 0u, k.fields.empty() ? k.size : k.fields.size() + k.size,
                     [&k](const args& a) { return send(k.name, k.cmd, build(k, a)); }});
    }
    v.push_back({"record", "start|stop|export|import|report|N   command 10", 1, 1, [](const args& a) {
                     return send("record " + a[0], 10, {word_or_number(record_words, a[0], "record")});
                 }});
    v.push_back({"ota", "start|exit|s8137|mcu|N                 command 14 (mcu on --port: the line\n"
                        "                        follows the daemon to 460800 baud, back if no call comes)", 1, 1, [](const args& a) {
                     return send("ota " + a[0], 14, {word_or_number(ota_words, a[0], "ota")});
                 }});
    v.push_back({"udisk", "base=N name=FILE    command 15, sub-command 0x11 (name up to 11 bytes)", 0, 2,
                 [](const args& a) {
                     bytes p(16, 0);
                     p[0] = 0x11;
                     for (const auto& w : a.w) {
                         if (w.starts_with("base=")) {
                             auto base = static_cast<uint32_t>(number(w.substr(5), 0, 0xFFFFFFFFL, "base"));
                             for (int i = 0; i < 4; ++i) p[static_cast<size_t>(1 + i)] = static_cast<uint8_t>(base >> (8 * i));
                         } else if (w.starts_with("name=") && w.size() <= 16) {
                             std::copy(w.begin() + 5, w.end(), p.begin() + 5);
                         } else {
                             throw usage_error("udisk takes base=N and name=FILE of up to 11 bytes, not " + w);
                         }
                     }
                     return send("udisk", 15, p);
                 }});
    for (bool bad : {false, true})
        v.push_back({bad ? "badframe" : "frame",
                     bad ? "CMD [BYTE|\"TEXT\"|@FILE...]  a frame with a wrong check digit (the daemon logs it: a marker)"
                         : "CMD [BYTE|\"TEXT\"|@FILE...]  any frame (up to 252 payload bytes)",
                     1, SIZE_MAX, [bad](const args& a) -> action {
                         auto cmd = static_cast<uint8_t>(a.num(0, 0, 255, "command"));
                         bytes p = byte_list(a, 1);
                         if (p.size() > 252)
                             throw usage_error("a frame holds at most 252 payload bytes, not " + std::to_string(p.size()));
                         return send(bad ? "badframe" : "frame", cmd, p, bad);
                     }});
    v.push_back({"expect frame", "ID [BYTE|..]...  the next frame from the daemon has command ID and, when bytes\n"
                                 "                        are given, exactly that many payload bytes, each equal or ..",
                 1, 253, [](const args& a) -> action {
                     std::vector<int> pattern;
                     for (size_t i = 1; i < a.size(); ++i)
                         pattern.push_back(a[i] == ".." ? -1 : static_cast<int>(a.num(i, 0, 255, "byte")));
                     return [id = static_cast<int>(a.num(0, 0, 255, "frame id")), pattern](session& s) { return expect_frame(s, id, pattern); };
                 }});
    v.push_back({"ignore frame", "ID               pass over frames of this id when they are not the one expected", 1, 1,
                 [](const args& a) -> action {
                     return [id = static_cast<int>(a.num(0, 0, 255, "frame id"))](session& s) {
                         s.ignored_frames.push_back(id);
                         return true;
                     };
                 }});
    v.push_back({"wait", "ID|any [MS]          wait for a frame of that id, passing over others (default 3000 ms)", 1, 2,
                 [](const args& a) -> action {
                     int id = a[0] == "any" ? -1 : static_cast<int>(a.num(0, 0, 255, "frame id"));
                     int ms = a.size() > 1 ? static_cast<int>(a.num(1, 0, 3600000, "wait")) : 3000;
                     return [=](session& s) {
                         bool is_frame = false;
                         auto seen = [&] {
                             while (auto b = next_piece(s, is_frame))
                                 if (is_frame && (id < 0 || (b->size() > 3 && (*b)[2] == id))) return true;
                             return false;
                         };
                         return s.wait_for(seen, ms) ? true : s.miss("no frame " + a[0] + " within " + std::to_string(ms) + " ms");
                     };
                 }});
    v.push_back({"listen", "MS                 print what comes in for MS milliseconds", 1, 1, [](const args& a) -> action {
                     return [ms = static_cast<int>(a.num(0, 0, 3600000, "listen"))](session& s) {
                         s.wait_for([&] { return show(s), false; }, ms);
                         return true;
                     };
                 }});
    v.push_back({"notify", "FILE               write one byte to FILE, e.g. the daemon's /tmp/mcu_if_pipe", 1, 1,
                 [](const args& a) -> action {
                     return [path = a[0]](session& s) {
                         int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                         bool ok = fd >= 0 && write(fd, "!", 1) == 1;
                         if (fd >= 0) close(fd);
                         if (!ok) return s.miss("cannot write to " + path + ": " + strerror(errno));
                         s.say("notified " + path);
                         return true;
                     };
                 }});
    v.push_back({"handshake", "[TEXT]         wait for the daemon's \"UART_UPDATA!\", then answer TEXT (none: silence)", 0, 1,
                 [](const args& a) -> action {
                     return [text = a.size() ? a[0] : std::string(), answer = a.size() > 0](session& s) {
                         if (!await_call(s)) return false;
                         if (answer) printf("[mcu] -> %s\n", quote(text).c_str()), s.io.write_all(text);
                         return true;
                     };
                 }});
    v.push_back({"read", "PACKAGE OFFSET LENGTH  a READ request of the upload; the reply is checked against\n"
                         "                        PACKAGE (offset 0xFFFFFFFF: its start, else 2048 + OFFSET; at most 4096 bytes)",
                 3, 3, [](const args& a) -> action {
                     auto offset = static_cast<uint32_t>(a.num(1, 0, 0xFFFFFFFFL, "offset"));
                     auto length = static_cast<uint32_t>(a.num(2, 0, 0xFFFFFFFFL, "length"));
                     check_if_there(a[0]);
                     return [=, path = a[0]](session& s) {
                         bytes got;
                         if (!fetch(s, package_bytes(path), offset, length, got)) return false;
                         s.say("READ served " + std::to_string(got.size()) + " bytes, sum and bytes verified");
                         return true;
                     };
                 }});
    v.push_back({"upload", "PACKAGE [BLOCK] [OUT]  the firmware upload as the MCU drives it: waits for\n"
                           "                        \"UART_UPDATA!\", reads the header (offset 0xFFFFFFFF), then the MCU\n"
                           "                        section in BLOCK bytes (1..4096, default 1024), checks every sum and\n"
                           "                        byte against PACKAGE, writes the firmware to OUT, ends \"UPDATA_SUCC!\"",
                 1, 3, [](const args& a) -> action {
                     auto block = static_cast<uint32_t>(a.size() > 1 ? a.num(1, 1, 4096, "block") : 1024);
                     check_if_there(a[0]);
                     return [=, path = a[0], out = a.size() > 2 ? a[2] : std::string()](session& s) { return upload(s, path, block, out); };
                 }});
    return v;
}

std::string fields_help()
{
    std::string o = "\nFields (name=value; plain values fill the bytes in order):\n";
    for (const auto& k : kinds) {
        if (k.fields.empty()) continue;
        o += "  " + std::string(k.name) + ":";
        for (const auto& f : k.fields) o += std::string(" ") + f.name + "=0.." + std::to_string((1L << f.width) - 1);
        o += "\n";
    }
    return o + "  music: giving mask= also sets bit 5 of byte 0\n";
}

}  // namespace

int main(int argc, char** argv)
{
    static const std::string more = fields_help() + R"(
Options:
)" + common_options_help + R"(  -q, --quiet       fewer lines;  --version;  -h, --help
  --decode ...      decode captured traffic (see below)
)" + script_help + exit_help + decode_help("mcu_sim", "MCU") + R"(
Examples:
  mcu_sim --port /dev/ttyUSB0 -b 115200 "expect frame 0x20" "vol 60" "wait 0x21 5000"
  mcu_sim --pty /tmp/pty -f volume.mcu
  mcu_sim --decode --hex --daemon capture.txt)";
    program p{"mcu_sim",
              "Usage: mcu_sim (--port DEV | --pty FILE) [OPTION]... [-f SCRIPT] [STEP]...\n"
              "       mcu_sim --decode [--hex] [--time] [--mcu SOURCE] [--daemon SOURCE]\n"
              "       mcu_sim --decode [--time] --trace FILE\n"
              "Plays the product's host microcontroller on the MCU link of tty_hub.",
              more.c_str(), mcu_verbs(), show, {}};
    mcu_link s("[mcu]");
    decoder d{"mcu", first_frame, frame_text, [](const uint8_t*, size_t) { return true; }};
    if (argc > 1 && std::string(argv[1]) == "--decode") return run_decode(argc, argv, d);
    return run_main(argc, argv, p, s);
}
