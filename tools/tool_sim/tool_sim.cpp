// tool_sim: plays the DSP tuning tool on the tool link (/dev/ttyS2), runs
// test scenarios against the daemon, and decodes captured tool link traffic.
// `tool_sim --help` lists the steps, options and examples.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "tools/sim/decode.h"
#include "tools/sim/script.h"

namespace {

using namespace sim;

// The tool link's state beyond the session's.
struct tool_link : session {
    using session::session;
    bool stop_on_miss = false;    // a read-back query without an answer fails the run
    uint8_t last_frame = 0;       // the command of the last frame sent
    int stale_probe_answers = 0;  // "MN>" still owed to repeated probes
};
tool_link& link(session& s) { return static_cast<tool_link&>(s); }

// A field's value in the checksum: integers as 32 bits, floats truncated
// towards zero and saturated, NaN as 0.
uint32_t field_value(const std::string& f)
{
    bool is_float = f.find_first_of(".eEnN") != std::string::npos && !f.starts_with("0x");
    if (!is_float) return static_cast<uint32_t>(strtoll(f.c_str(), nullptr, 10));
    float v = strtof(f.c_str(), nullptr);
    if (std::isnan(v)) return 0;
    if (v >= 2147483648.0f) return 0x7FFFFFFFu;
    if (v <= -2147483648.0f) return 0x80000000u;
    return static_cast<uint32_t>(static_cast<int32_t>(v));
}

uint32_t tuning_checksum(const std::vector<std::string>& fields)
{
    uint32_t k = 0;
    for (size_t i = 0; i < fields.size(); ++i) k ^= field_value(fields[i]) << (2 * (i & 15));
    return k;
}

uint16_t readback_sum(const uint8_t* p, size_t n)
{
    uint32_t s = 0;
    for (size_t i = 0; i < n; ++i) s = (p[i] ^ s) << (i & 7);
    return static_cast<uint16_t>(s);
}

std::string text_of(const uint8_t* b, size_t n) { return quote(std::string(b, b + n)); }

bool starts(const uint8_t* b, size_t n, std::string_view lit)
{
    return std::equal(b, b + std::min(n, lit.size()), lit.begin(), [](uint8_t x, char y) { return x == static_cast<uint8_t>(y); });
}

// A read-back reply "NAME LEN 0xSUM TEXT": its whole length, 0 while it may
// still complete, SIZE_MAX if the bytes are not of that form.
size_t readback_length(const uint8_t* b, size_t n)
{
    size_t i = 0;
    while (i < n && i < 64 && b[i] > ' ' && b[i] < 0x7F) ++i;
    if (i == n) return i < 64 ? 0 : SIZE_MAX;
    if (i == 0 || b[i] != ' ') return SIZE_MAX;
    size_t digits = ++i;
    size_t len = 0;
    while (i < n && isdigit(b[i]) && i - digits < 5) len = len * 10 + (b[i++] - '0');
    if (i == n) return 0;
    if (i == digits || b[i++] != ' ') return SIZE_MAX;
    for (size_t k = 0; k < 7; ++k, ++i) {
        if (i == n) return 0;
        bool ok = k == 0 ? b[i] == '0' : k == 1 ? b[i] == 'x' : k < 6 ? isxdigit(b[i]) != 0 : b[i] == ' ';
        if (!ok) return SIZE_MAX;
    }
    return i + len <= n ? i + len : 0;
}

// Tool frames, both directions: 55 AA kind command length(2, LE) data checksum.
size_t frame_length(const uint8_t* b, size_t n)
{
    if (n < 6) return 0;
    size_t len = b[4] | static_cast<size_t>(b[5]) << 8;
    return n >= len + 7 ? len + 7 : 0;
}

bool text_byte(uint8_t c) { return (c >= 0x20 && c < 0x7F) || c == '\t' || c == '\r'; }

// The piece that starts at b, or noise of one byte if none can.
piece piece_at(const uint8_t* b, size_t n, bool at_end, bool from_daemon)
{
    auto done = [&](size_t len) { return len ? piece{len, piece::whole} : at_end ? piece{n, piece::cut} : piece{0, piece::more}; };
    if (starts(b, n, "\x55\xAA")) return done(frame_length(b, n));
    if (!from_daemon) {
        if (starts(b, n, "mon")) return done(n >= 3 ? 3 : 0);
        // A text line: text bytes up to its line end, no frame inside.
        size_t i = 0;
        while (i < n && text_byte(b[i]) && !starts(b + i, n - i, "\x55\xAA")) ++i;
        if (i < n && b[i] == '\n') return {i + 1, piece::whole};
        if (i == n) return at_end ? piece{n, piece::whole} : piece{0, piece::more};
        return {1, piece::noise};
    }
    for (std::string_view lit : {std::string_view("MN>"), std::string_view("[ok]\0", 5), std::string_view("[fail]\0", 7)})
        if (starts(b, n, lit)) return done(n >= lit.size() ? lit.size() : 0);
    size_t len = readback_length(b, n);
    return len == SIZE_MAX ? piece{1, piece::noise} : done(len);
}

// The first piece of a stream of the tool link. From the daemon: "MN>",
// "[ok]" or "[fail]" with their NUL, a read-back line, a reply frame. From
// the tool: "mon", a tool frame, a text line up to its line end. Noise runs
// up to where one of these may start, so that what follows it is decoded.
piece first_piece(const uint8_t* b, size_t n, bool at_end, bool from_daemon)
{
    if (n == 0) return {0, piece::more};
    piece p = piece_at(b, n, at_end, from_daemon);
    if (p.kind != piece::noise) return p;
    size_t i = 1;
    while (i < n && piece_at(b + i, n - i, at_end, from_daemon).kind == piece::noise) ++i;
    return {i, piece::noise};
}

const char* const frame_names[] = {"frame 0", "SEND_DATA", "START_SEND_DATA", "END_SEND_DATA"};

std::string frame_text(const uint8_t* b, size_t n, bool from_daemon)
{
    uint8_t x = 0xFF;
    for (size_t i = 2; i + 1 < n; ++i) x ^= b[i];
    uint8_t cmd = b[3] & 0x7F;
    size_t len = n - 7;
    const uint8_t* d = b + 6;
    std::string o = cmd < 4 ? frame_names[cmd] : "frame " + std::to_string(cmd);
    auto u32 = [&] { return std::to_string(d[0] | d[1] << 8 | d[2] << 16 | static_cast<uint32_t>(d[3]) << 24); };
    if (from_daemon) o = "reply to " + o + (len == 1 ? d[0] ? ": status 1 (failure)" : ": status 0" : ": " + hex(d, len));
    else if (cmd == 2 && len >= 4) o += " size " + u32() + " name " + text_of(d + 4, len - 4);
    else if (cmd == 1 && len >= 2) o += " chunk " + std::to_string(d[0] | d[1] << 8) + ", " + std::to_string(len - 2) + " bytes";
    else if (cmd == 3 && len >= 4) o += " size " + u32();
    return o + (x == b[n - 1] ? "" : "  [BAD CHECKSUM]");
}

// A read-back reply checked: its length and sum against its text.
std::string readback_text(const uint8_t* b, size_t n, bool& ok)
{
    std::string s(b, b + n);
    size_t name_end = s.find(' '), len_end = s.find(' ', name_end + 1);
    size_t text_at = len_end + 8;
    unsigned long len = strtoul(s.c_str() + name_end + 1, nullptr, 10);
    unsigned long sum = strtoul(s.c_str() + len_end + 3, nullptr, 16);
    ok = len == n - text_at && sum == readback_sum(b + text_at, n - text_at);
    return "read-back " + s.substr(0, name_end) + ": " + text_of(b + text_at, n - text_at) + ", sum " +
           (ok ? "verified" : "WRONG");
}

std::string piece_text(const uint8_t* b, size_t n, bool from_daemon)
{
    if (starts(b, n, "\x55\xAA")) return frame_text(b, n, from_daemon);
    if (!from_daemon) {
        if (n == 3 && starts(b, n, "mon")) return "probe \"mon\"";
        std::string line(b, b + n);
        std::string o = "line " + quote(line);
        static const char* const tuning[] = {"output", "matrix", "vol", "headroom", "delay", "drc",
                                             "filter", "truvol", "virtualx", "atmos", "bm"};
        std::vector<std::string> w;
        for (size_t i = 0, j; i < line.size(); i = j + 1) {
            j = line.find_first_of(" \r\n", i);
            if (j == std::string::npos) j = line.size();
            if (j > i) w.push_back(line.substr(i, j - i));
        }
        if (w.size() > 2 && w[0] == "dsp" && std::any_of(std::begin(tuning), std::end(tuning), [&](const char* t) { return w[1] == t; })) {
            uint32_t k = tuning_checksum(std::vector<std::string>(w.begin() + 2, w.end() - 1));
            o += static_cast<uint32_t>(strtoul(w.back().c_str(), nullptr, 16)) == k ? ", checksum ok" : ", checksum WRONG";
        }
        return o;
    }
    if (readback_length(b, n) == n) {
        bool ok = false;
        return readback_text(b, n, ok);
    }
    return text_of(b, n);
}

// ---- replies from the daemon

void drop_stale_probe_answers(session& s)
{
    while (link(s).stale_probe_answers > 0 && starts(s.io.inbox.data(), s.io.inbox.size(), "MN>") && s.io.inbox.size() >= 3) {
        s.io.inbox.erase(s.io.inbox.begin(), s.io.inbox.begin() + 3);
        --link(s).stale_probe_answers;
    }
}

// The next whole reply within ms; nothing if none came whole.
std::optional<bytes> next_reply(session& s, int ms)
{
    std::optional<bytes> got;
    s.wait_for([&] {
        drop_stale_probe_answers(s);
        piece pc = first_piece(s.io.inbox.data(), s.io.inbox.size(), false, true);
        if (pc.kind == piece::more) return false;
        got = s.io.take_front(pc.len);
        return true;
    }, ms);
    if (got) printf("[tool] <- %s\n", piece_text(got->data(), got->size(), true).c_str());
    return got;
}

void show(session& s)
{
    while (next_reply(s, 0)) {
    }
}

// The next reply is exactly want: read until its form is complete, or until
// it can no longer be want.
bool expect_reply(session& s, const std::string& want, const std::string& what)
{
    std::optional<bytes> got;
    s.wait_for([&] {
        if (want != "MN>") drop_stale_probe_answers(s);
        piece pc = first_piece(s.io.inbox.data(), s.io.inbox.size(), false, true);
        if (pc.kind == piece::whole) got = s.io.take_front(pc.len);
        bool may_be_want = s.io.inbox.size() < want.size() && starts(s.io.inbox.data(), s.io.inbox.size(), want);
        return got || (pc.kind == piece::noise && !may_be_want);
    });
    if (!got && starts(s.io.inbox.data(), s.io.inbox.size(), want) && s.io.inbox.size() >= want.size()) got = s.io.take_front(want.size());
    if (!got) return s.miss("expected " + what + " " + quote(want) + ", " + (s.io.inbox.empty() ? s.nothing_within() : "got " + text_of(s.io.inbox.data(), s.io.inbox.size())));
    printf("[tool] <- %s\n", text_of(got->data(), got->size()).c_str());
    if (*got == bytes(want.begin(), want.end())) return true;
    return s.miss("expected " + what + " " + quote(want) + ", got " + text_of(got->data(), got->size()));
}

// ---- steps

void send_text(session& s, const std::string& text)
{
    printf("[tool] -> %s\n", quote(text).c_str());
    s.io.write_all(text);
}

bool probe_answer(session& s, const bytes& r)
{
    return r == bytes{'M', 'N', '>'} || s.miss("expected \"MN>\", got " + text_of(r.data(), r.size()));
}

bool probe(session& s, int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    std::string none = "no answer to \"mon\" within " + std::to_string(ms) + " ms";
    // On our pseudo-terminal the daemon's set-up of the line shows, and one
    // "mon" sent after it is answered. Repeated, an answer could come after
    // the next "mon" went out: that one would then share a read with the
    // next line, and the daemon takes such an input for a probe alone.
    if (!s.io.is_terminal) {
        if (!s.wait_for([&s] { return s.io.peer_set_up(); }, ms))
            return s.miss("the daemon did not set up the line within " + std::to_string(ms) + " ms");
        send_text(s, "mon");
        auto r = next_reply(s, ms_left(deadline));
        return r ? probe_answer(s, *r) : s.miss(none);
    }
    int sent = 0;
    do {
        send_text(s, "mon");
        ++sent;
        // Under load an answer may come late; the probe then repeats, and
        // the answers still owed are passed over later.
        if (auto r = next_reply(s, std::min(500, std::max(1, ms_left(deadline))))) {
            link(s).stale_probe_answers += sent - 1;
            return probe_answer(s, *r);
        }
    } while (ms_left(deadline) > 0);
    return s.miss(none);
}

bool query(session& s, const std::string& line)
{
    send_text(s, line + "\r\n");
    auto r = next_reply(s, s.bound_ms);
    if (!r) {
        std::string msg = "no answer to " + quote(line) + " within " + std::to_string(s.bound_ms) + " ms";
        if (link(s).stop_on_miss) return s.miss(msg);
        printf("[tool] %s: %s; going on\n", s.where.c_str(), msg.c_str());
        return true;
    }
    bool ok = false;
    if (readback_length(r->data(), r->size()) == r->size()) readback_text(r->data(), r->size(), ok);
    return ok ? true : s.miss("expected a read-back reply with a right length and sum, got " + text_of(r->data(), r->size()));
}

void send_frame(session& s, uint8_t cmd, const bytes& data, bool show_it, bool bad = false)
{
    bytes f = {0x55, 0xAA, 0x01, cmd, static_cast<uint8_t>(data.size()), static_cast<uint8_t>(data.size() >> 8)};
    f.insert(f.end(), data.begin(), data.end());
    uint8_t x = 0xFF;
    for (size_t i = 2; i < f.size(); ++i) x ^= f[i];
    f.push_back(bad ? static_cast<uint8_t>(~x) : x);
    if (show_it) printf("[tool] -> %s\n", frame_text(f.data(), f.size(), false).c_str());
    s.io.write_all(f);
    link(s).last_frame = cmd;
}

// The reply frame to the last frame sent: its status, or -1.
int reply_status(session& s)
{
    auto r = next_reply(s, s.bound_ms);
    if (!r) return s.miss("expected a reply frame to frame " + std::to_string(link(s).last_frame) + ", " + s.nothing_within()), -1;
    const bytes& b = *r;
    auto code = static_cast<uint8_t>(link(s).last_frame | 0x80);
    bool form = b.size() == 8 && b[0] == 0x55 && b[1] == 0xAA && b[2] == 1 && b[3] == code && b[4] == 1 && b[5] == 0 &&
                b[6] < 2 && b[7] == static_cast<uint8_t>(0xFF ^ code ^ b[6]);
    if (!form) return s.miss("expected a reply frame to frame " + std::to_string(link(s).last_frame) + ", got " + hex(b)), -1;
    return b[6];
}

int frame_exchange(session& s, uint8_t cmd, const bytes& data, bool show_it)
{
    send_frame(s, cmd, data, show_it);
    return reply_status(s);
}

bytes le32(uint32_t v)
{
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 24)};
}

bool push(session& s, const std::string& path, std::string name, size_t chunk, bool refusal)
{
    std::string text = read_whole(path);
    bytes file(text.begin(), text.end());
    if (name.empty()) name = path.substr(path.rfind('/') + 1);
    bytes start = le32(static_cast<uint32_t>(file.size()));
    start.insert(start.end(), name.begin(), name.end());
    printf("[tool] pushing %s (%zu bytes) as \"%s\"\n", path.c_str(), file.size(), name.c_str());
    int st = frame_exchange(s, 2, start, !s.quiet);
    size_t chunks = 0;
    for (size_t off = 0; st == 0 && off < file.size(); off += chunk, ++chunks) {
        bytes data = {static_cast<uint8_t>(chunks), static_cast<uint8_t>(chunks >> 8)};
        size_t n = std::min(chunk, file.size() - off);
        data.insert(data.end(), file.begin() + static_cast<long>(off), file.begin() + static_cast<long>(off + n));
        st = frame_exchange(s, 1, data, false);
    }
    if (st == 0) {
        st = frame_exchange(s, 3, le32(static_cast<uint32_t>(file.size())), !s.quiet);
    }
    if (st < 0) return false;
    if (refusal != (st > 0))
        return s.miss(refusal ? "expected the transfer to be refused; every reply had status 0"
                            : "the transfer was refused (a reply with status 1)");
    printf(st ? "[tool] the transfer was refused, as expected\n" : "[tool] pushed in %zu chunks, every reply status 0\n", chunks);
    return true;
}

std::string joined(const args& a, size_t from)
{
    std::string s;
    for (size_t i = from; i < a.size(); ++i) s += (i > from ? " " : "") + a[i];
    return s;
}

std::vector<verb> tool_verbs()
{
    auto tune = [](bool bad) {
        return [bad](const args& a) -> action {
            std::vector<std::string> fields(a.w.begin() + 1, a.w.end());
            for (const auto& f : fields) {
                char* end = nullptr;
                strtod(f.c_str(), &end);
                if (f.empty() || *end) throw usage_error("not a number: " + f + " (a wrong field goes out with line)");
            }
            char k[16];
            snprintf(k, sizeof k, " %x", tuning_checksum(fields) ^ (bad ? 1 : 0));
            std::string line = "dsp " + joined(a, 0) + k + "\r\n";
            return [line, bad](session& s) {
                send_text(s, line);
                return expect_reply(s, bad ? std::string("[fail]", 7) : std::string("[ok]", 5), "reply");
            };
        };
    };
    return {
        {"probe", "[MS]              \"mon\" until \"MN>\" comes (default: the bound): once the daemon has\n"
                  "                        set up the line (--pty), else every half second", 0, 1,
         [](const args& a) -> action {
             long ms = a.size() ? a.num(0, 1, 3600000, "probe") : -1;
             return [ms](session& s) { return probe(s, ms < 0 ? s.bound_ms : static_cast<int>(ms)); };
         }},
        {"tune", "WORD FIELD...      a tuning line \"dsp WORD FIELD... K\", K computed; expects \"[ok]\"", 1, SIZE_MAX, tune(false)},
        {"tune-bad", "WORD FIELD...  the same with a wrong K; expects \"[fail]\"", 1, SIZE_MAX, tune(true)},
        {"query", "WORD [ARG...]     a read-back query \"dsp WORD ARG...\"; checks the reply's length and\n"
                  "                        sum; no answer within the bound is reported and the script goes on\n"
                  "                        (unless --stop-on-miss, or after the step strict)",
         1, SIZE_MAX, [](const args& a) -> action { return [line = "dsp " + joined(a, 0)](session& s) { return query(s, line); }; }},
        {"strict", "                   from here on a read-back query without an answer fails", 0, 0,
         [](const args&) -> action {
             return [](session& s) { return link(s).stop_on_miss = true; };
         }},
        {"line", "TEXT...            the words joined by blanks, CR LF added, in one write", 1, SIZE_MAX,
         [](const args& a) -> action { return [t = joined(a, 0) + "\r\n"](session& s) { return send_text(s, t), true; }; }},
        {"push", "FILE [NAME] [CHUNK] [fail]  FILE as configuration NAME (default: its file name;\n"
                 "                        \"cfg.bin\" is the main one) in chunks of CHUNK bytes (1..3063, default\n"
                 "                        1024), every reply checked; fail: a reply must refuse it",
         1, 4, [](const args& a) -> action {
             auto chunk = static_cast<size_t>(a.size() > 2 ? a.num(2, 1, 3063, "chunk") : 1024);
             if (a.size() > 3 && a[3] != "fail") throw usage_error("push ends with fail or nothing, not " + a[3]);
             check_if_there(a[0]);
             return [=, path = a[0], name = a.size() > 1 ? a[1] : std::string(), refusal = a.size() > 3](session& s) {
                 return push(s, path, name, chunk, refusal);
             };
         }},
        {"frame", "CMD [BYTE|\"TEXT\"|@FILE...]  a tool frame (1 SEND_DATA, 2 START_SEND_DATA,\n"
                  "                        3 END_SEND_DATA); its reply is left for expect status or reply",
         1, SIZE_MAX, [](const args& a) -> action {
             auto cmd = static_cast<uint8_t>(a.num(0, 0, 255, "command"));
             bytes data = byte_list(a, 1);
             if (data.size() > 65535) throw usage_error("a frame holds at most 65535 data bytes");
             return [=](session& s) { return send_frame(s, cmd, data, true), true; };
         }},
        {"badframe", "CMD [BYTE|\"TEXT\"|@FILE...]  the same with a wrong checksum", 1, SIZE_MAX,
         [](const args& a) -> action {
             auto cmd = static_cast<uint8_t>(a.num(0, 0, 255, "command"));
             bytes data = byte_list(a, 1);
             if (data.size() > 65535) throw usage_error("a frame holds at most 65535 data bytes");
             return [=](session& s) { return send_frame(s, cmd, data, true, true), true; };
         }},
        {"expect status", "N               the next reply is the reply frame to the last frame sent, status N", 1, 1,
         [](const args& a) -> action {
             return [n = a.num(0, 0, 1, "status")](session& s) {
                 int st = reply_status(s);
                 return st < 0 ? false : st == n ? true : s.miss("expected status " + std::to_string(n) + ", got " + std::to_string(st));
             };
         }},
        {"expect reply", "TEXT             the next reply from the daemon is exactly TEXT, e.g. \"[ok]\\0\"", 1, 1,
         [](const args& a) -> action { return [want = a[0]](session& s) { return expect_reply(s, want, "reply"); }; }},
    };
}

}  // namespace

int main(int argc, char** argv)
{
    static const std::string more = std::string("\nOptions:\n") + common_options_help + R"(  --stop-on-miss    a read-back query without an answer fails the run
  -q, --quiet       fewer lines;  --version;  -h, --help
  --decode ...      decode captured traffic (see below)
)" + script_help + R"(The daemon takes one read as one input, so each step waits for its answer
s.where there is one; after line or send, use expect reply or expect log.
)" + exit_help + decode_help("tool_sim", "tool") + R"(
Examples:
  tool_sim --port /dev/ttyUSB0 probe "tune vol 3 -2.5" "query s4_prf"
  tool_sim --pty /tmp/pty -f tuning.tool
  tool_sim --decode --tool from_tool.bin --daemon from_daemon.bin)";
    program p{"tool_sim",
              "Usage: tool_sim (--port DEV | --pty FILE) [OPTION]... [-f SCRIPT] [STEP]...\n"
              "       tool_sim --decode [--hex] [--time] [--tool SOURCE] [--daemon SOURCE]\n"
              "       tool_sim --decode [--time] --trace FILE\n"
              "Plays the DSP tuning tool on the tool link of tty_hub.",
              more.c_str(), tool_verbs(), show,
              [](session& s, const std::string& a, const std::function<std::string()>&) {
                  return a == "--stop-on-miss" && (link(s).stop_on_miss = true);
              }};
    tool_link s("[tool]");
    decoder d{"tool", first_piece, piece_text, [](const uint8_t* b, size_t n) { return starts(b, n, "\x55\xAA"); }};
    if (argc > 1 && std::string(argv[1]) == "--decode") return run_decode(argc, argv, d);
    return run_main(argc, argv, p, s);
}
