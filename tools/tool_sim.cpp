// tool_sim: plays the DSP tuning tool on the tool link (/dev/ttyS2).
//
//   tool_sim (--port DEV | --pty FILE) [--quiet] [-f SCRIPT] [COMMAND]...
//
// Port, pty and script as for mcu_sim. Lines go out ended by CR LF, each in
// one write, and each waits for its answer before the next goes out, since
// the daemon takes one read as one input. Commands:
//   probe [MS]             "mon" every half second until "MN>" comes back
//                          (default: give up after 10000 ms)
//   tune WORD FIELD...     a tuning line "dsp WORD FIELD... K" with the
//                          checksum K computed here; expects "[ok]"
//   tune-bad WORD FIELD... the same with a wrong K; expects "[fail]"
//   query WORD [ARG...]    a read-back query "dsp WORD ARG..."; checks the
//                          length and the 16-bit sum of the reply line
//   line TEXT...           any text line, CR LF added; prints what comes back
//   push FILE [NAME] [CHUNK]
//                          sends FILE as configuration NAME (default: the
//                          file's name; "cfg.bin" is the main configuration)
//                          in START_SEND_DATA, SEND_DATA chunks of CHUNK bytes
//                          (default 1024) and END_SEND_DATA, each reply checked
//   frame CMD [BYTE...]    a tool frame with this command and data
//   sleep MS
// Numbers may be decimal or 0x hex. Exit status: 0, or 1 at the first failure.
#include <cmath>
#include <sstream>

#include "tools/sim_port.h"

namespace {

using namespace sim;
bool quiet = false;

// A field's value in the checksum: integers as 32 bits, floats truncated
// towards zero and saturated, NaN as 0.
uint32_t field_value(const std::string& f)
{
    bool is_float = f.find_first_of(".eEnN") != std::string::npos && f.rfind("0x", 0) != 0;
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

std::string printable(const bytes& b)
{
    std::string out;
    for (uint8_t c : b) {
        if (c == '\n') out += "\\n";
        else if (c == '\r') out += "\\r";
        else if (c == 0) out += "\\0";
        else if (c < 0x20 || c >= 0x7F) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else out += static_cast<char>(c);
    }
    return out;
}

// A line and what comes back; a failure that gets no answer costs first_ms.
bytes send_line(const std::string& text, int first_ms = 3000)
{
    printf("[tool] -> %s\n", text.c_str());
    inbox.clear();
    write_all(text + "\r\n");
    return take_until_quiet(first_ms, 300, 15000);
}

bool expect_text(const bytes& got, const std::string& want)
{
    bool ok = got == bytes(want.begin(), want.end());
    printf("[tool] <- \"%s\"%s\n", printable(got).c_str(), ok ? "" : ("   (expected \"" + printable(bytes(want.begin(), want.end())) + "\")").c_str());
    return ok;
}

// "NAME LEN 0xSUM TEXT" with LEN bytes of TEXT whose sum is SUM.
bool check_readback(const bytes& got)
{
    std::string s(got.begin(), got.end());
    char name[64] = {};
    int len = -1;
    unsigned sum = 0;
    int consumed = 0;
    if (sscanf(s.c_str(), "%63s %d 0x%4x %n", name, &len, &sum, &consumed) < 3 || len < 0) {
        printf("[tool] <- \"%s\"   (not a read-back reply)\n", printable(got).c_str());
        return false;
    }
    // The text starts behind the one blank after the sum, even if it is empty.
    size_t text_at = s.find(' ', s.find(' ', s.find(' ') + 1) + 1);
    text_at = text_at == std::string::npos ? s.size() : text_at + 1;
    bytes text(got.begin() + static_cast<long>(std::min(text_at, got.size())), got.end());
    uint16_t want = readback_sum(text.data(), text.size());
    bool ok = static_cast<size_t>(len) == text.size() && want == sum;
    printf("[tool] <- %s: %d bytes \"%s\", sum 0x%04x %s\n", name, len, printable(text).c_str(), sum,
           ok ? "verified" : "WRONG");
    if (!ok) printf("[tool]    (%zu bytes came, sum over them 0x%04x)\n", text.size(), want);
    return ok;
}

bytes tool_frame(uint8_t cmd, const bytes& data)
{
    bytes f = {0x55, 0xAA, 0x01, cmd, static_cast<uint8_t>(data.size()), static_cast<uint8_t>(data.size() >> 8)};
    f.insert(f.end(), data.begin(), data.end());
    uint8_t x = 0xFF;
    for (size_t i = 2; i < f.size(); ++i) x ^= f[i];
    f.push_back(x);
    return f;
}

// Sends a frame and reads its 8-byte reply; the reply's status, or -1.
int frame_exchange(uint8_t cmd, const bytes& data, bool show)
{
    bytes f = tool_frame(cmd, data);
    if (show) printf("[tool] -> frame %u with %zu data bytes\n", cmd, data.size());
    inbox.clear();
    write_all(f);
    bytes r = take(8, 5000);
    if (r.size() != 8) {
        printf("[tool] <- no reply to frame %u (%s)\n", cmd, hex(r).c_str());
        return -1;
    }
    uint8_t code = static_cast<uint8_t>(cmd | 0x80);
    bool form = r[0] == 0x55 && r[1] == 0xAA && r[2] == 1 && r[3] == code && r[4] == 1 && r[5] == 0 &&
                r[7] == static_cast<uint8_t>(0xFF ^ code ^ r[6]);
    if (show || !form || r[6]) printf("[tool] <- reply %s: %s\n", hex(r).c_str(), !form ? "MALFORMED" : r[6] ? "status 1 (failure)" : "status 0");
    return form ? r[6] : -1;
}

void put32(bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

bool push(const std::string& path, std::string name, size_t chunk)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) fail("cannot read " + path);
    bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (name.empty()) name = path.substr(path.rfind('/') + 1);
    if (chunk == 0 || chunk > 3063) fail("chunk must be 1 to 3063 bytes");
    bytes start;
    put32(start, static_cast<uint32_t>(file.size()));
    start.insert(start.end(), name.begin(), name.end());
    printf("[tool] pushing %s (%zu bytes) as \"%s\"\n", path.c_str(), file.size(), name.c_str());
    if (frame_exchange(2, start, !quiet) != 0) return false;
    size_t chunks = 0;
    for (size_t off = 0; off < file.size(); off += chunk) {
        bytes data = {static_cast<uint8_t>(chunks), static_cast<uint8_t>(chunks >> 8)};
        size_t n = std::min(chunk, file.size() - off);
        data.insert(data.end(), file.begin() + static_cast<long>(off), file.begin() + static_cast<long>(off + n));
        if (frame_exchange(1, data, false) != 0) return false;
        ++chunks;
    }
    bytes end;
    put32(end, static_cast<uint32_t>(file.size()));
    if (frame_exchange(3, end, !quiet) != 0) return false;
    printf("[tool] pushed in %zu chunks, every reply status 0\n", chunks);
    return true;
}

bool run(const std::string& line)
{
    std::vector<std::string> w = words(line);
    if (w.empty() || w[0][0] == '#') return true;
    const std::string op = w[0];
    std::vector<std::string> args(w.begin() + 1, w.end());

    if (op == "probe") {
        auto deadline = steady::now() + std::chrono::milliseconds(args.empty() ? 10000 : number(args[0]));
        printf("[tool] -> mon\n");
        do {
            inbox.clear();
            write_all(std::string("mon"));
            bytes got = take_until_quiet(500, 200, 2000);
            if (!got.empty()) return expect_text(got, "MN>");
        } while (ms_left(deadline) > 0);
        printf("[tool] no answer to \"mon\"\n");
        return false;
    }
    if (op == "tune" || op == "tune-bad") {
        if (args.empty()) fail("tune needs a command word");
        std::vector<std::string> fields(args.begin() + 1, args.end());
        uint32_t k = tuning_checksum(fields);
        if (op == "tune-bad") k ^= 1;
        std::ostringstream text;
        text << "dsp";
        for (const auto& a : args) text << " " << a;
        char ks[16];
        snprintf(ks, sizeof ks, " %x", k);
        return expect_text(send_line(text.str() + ks), op == "tune" ? std::string("[ok]", 5) : std::string("[fail]", 7));
    }
    if (op == "query") {
        std::string text = "dsp";
        for (const auto& a : args) text += " " + a;
        return check_readback(send_line(text));
    }
    if (op == "line") {
        std::string text = line.substr(line.find("line") + 5);
        bytes got = send_line(text);
        printf("[tool] <- \"%s\"\n", printable(got).c_str());
        return true;
    }
    if (op == "push") {
        if (args.empty()) fail("push needs a file");
        return push(args[0], args.size() > 1 ? args[1] : "",
                    args.size() > 2 ? static_cast<size_t>(number(args[2])) : 1024);
    }
    if (op == "frame") {
        if (args.empty()) fail("frame needs a command");
        bytes data;
        for (size_t i = 1; i < args.size(); ++i) data.push_back(static_cast<uint8_t>(number(args[i])));
        return frame_exchange(static_cast<uint8_t>(number(args[0])), data, true) >= 0;
    }
    if (op == "sleep") {
        std::this_thread::sleep_for(std::chrono::milliseconds(number(args.empty() ? "0" : args[0])));
        return true;
    }
    fail("unknown command: " + op);
}

}  // namespace

int main(int argc, char** argv)
{
    return run_main(argc, argv, "[tool]",
                    "Usage: tool_sim (--port DEV | --pty FILE) [--quiet] [-f SCRIPT] [COMMAND]...\n"
                    "See the head of tools/tool_sim.cpp for the commands.",
                    quiet, run);
}
