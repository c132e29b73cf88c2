// mcu_sim: plays the product's host microcontroller on the MCU serial link.
//
//   mcu_sim (--port DEV | --pty FILE) [--quiet] [-f SCRIPT] [COMMAND]...
//
// --port opens an existing terminal (e.g. /dev/ttyS1 of a board, or one end
// of a pty pair); --pty makes a new pseudo-terminal, writes the path of its
// slave side to FILE (bind or link that path as the daemon's port) and acts
// on the master side. Commands come from the arguments, one per argument, and
// from SCRIPT, one per line ('#' starts a comment). Every frame the daemon
// sends is printed decoded as it arrives, with its check digit verified.
//
// Frames by name; fields as name=value, or plain values for the bytes in order:
//   vol V [V...]        command 5, 12 volume bytes (one value: all twelve)
//   delay V [V...]      command 4, 12 delay bytes
//   bm V [V...]         command 8, 16 bass management bytes
//   mix source= mode= dec= upmix= i2s=           command 2
//   system hbr= silence= line43= line42= module= value= volume= mute=   command 3
//   atmos B0..B10       command 6;  dtsx B0 B1 B2   command 11
//   music play= tone= index= mask= gain=          command 9 (mask given: bit 5 set)
//   record start|stop|export|import|report        command 10
//   ota start|exit|s8137|mcu                      command 14
//   udisk base=N name=FILE                        command 15, sub-command 0x11
//   frame CMD [BYTE...] any frame;  raw BYTE...   bytes as they are, no framing
// Flow:
//   wait ID|any [MS]    wait for a frame of that id (default 3000 ms); fails on time-out
//   listen MS           print what comes in for MS milliseconds
//   sleep MS
//   notify FILE         write one byte to FILE, e.g. the daemon's "/tmp/mcu_if_pipe"
//                       (not the MCU's doing, but handy to ask for a report)
//   upload PACKAGE [BLOCK] [OUT]
//                       the firmware upload as the MCU drives it: waits for
//                       "UART_UPDATA!", reads the header (offset 0xFFFFFFFF),
//                       then the MCU section block by block (default 1024),
//                       checks every sum and byte against PACKAGE, optionally
//                       writes the firmware to OUT, and ends with "UPDATA_SUCC!"
// Numbers may be decimal or 0x hex. Exit status: 0, or 1 at the first failed
// command.
#include <map>
#include <optional>
#include <sstream>

#include "tools/sim_port.h"

namespace {

using namespace sim;
bool quiet = false;

uint8_t check_digit(const uint8_t* p, size_t n)
{
    unsigned s = 0;
    for (size_t i = 0; i < n; ++i) s = (s + p[i]) & 0xFF;
    return static_cast<uint8_t>(((s + (s >> 4)) & 15) + 0x30);
}

bytes make_frame(uint8_t cmd, const bytes& payload)
{
    bytes f;
    f.push_back(0xFF);
    f.push_back(static_cast<uint8_t>(payload.size() + 3));
    f.push_back(cmd);
    f.insert(f.end(), payload.begin(), payload.end());
    f.push_back(check_digit(f.data() + 1, f.size() - 1));
    return f;
}

// ---- decoding of the daemon's frames

const char* const rate_names[] = {"8000", "11025", "12000", "16000", "22050", "24000", "32000", "44100",
                                  "48000", "64000", "88200", "96000", "128000", "176400", "192000", "?"};

std::string decode_audio(const bytes& p)
{
    std::ostringstream o;
    o << "audio status: format " << (p[0] & 0x3F) << ((p[0] & 0x80) ? " Atmos" : "")
      << ((p[0] & 0x40) ? " Surround" : "") << ", fs " << rate_names[p[1] & 15] << " Hz, applied";
    static const char* const applied[] = {"bm", "atmos", "vol", "delay", "system", "mix"};
    bool any = false;
    for (int i = 0; i < 6; ++i)
        if (p[2] & (1 << i)) {
            o << " " << applied[i];
            any = true;
        }
    if (!any) o << " none";
    if (p[2] & 0x40) o << ", music playing";
    static const char* const ch[] = {"L", "R", "C", "SUB", "LS", "RS", "LRS", "RRS", "LTF", "RTF", "LTR", "RTR"};
    o << ", energy";
    for (int i = 0; i < 12; ++i) o << " " << ch[i] << "=" << ((i % 2 == 0) ? (p[4 + i / 2] >> 4) : (p[4 + i / 2] & 15));
    if (p[10] || p[11]) {
        char buf[40];
        snprintf(buf, sizeof buf, ", atmos failures %02X %02X", p[10], p[11]);
        o << buf;
    }
    return o.str();
}

std::string decode_record(const bytes& p)
{
    std::ostringstream o;
    o << "record state: ";
    if (p[4] == 0xF2) o << "state 2";
    else if (p[4]) o << "recording " << static_cast<int>(p[4]) << " s";
    else o << "idle";
    static const char* const bits[] = {"importing", "import failed", "exporting", "export failed"};
    for (int i = 0; i < 4; ++i)
        if (p[5] & (1 << i)) o << ", " << bits[i];
    if (p[11] & 0x40) o << ", dialog";
    if (p[0] != 0x01 || p[1] != 0x49 || p[2] != 0x05 || p[6] != 0x01 || p[7] != 0x0D || p[8] != 0x01)
        o << " (unexpected constant bytes)";
    return o.str();
}

std::string decode_ota(const bytes& p)
{
    std::ostringstream o;
    o << "OTA state " << static_cast<int>(p[0]) << ": ";
    switch (p[0]) {
    case 3: o << "package received, MCU digest " << hex(p.data() + 1, 8); break;
    case 4: o << "OTA exit"; break;
    case 5: o << "S8137 upgrade starting"; break;
    default: o << "reception failed \"" << std::string(p.begin() + 1, p.begin() + 9) << "\""; break;
    }
    return o.str();
}

std::string decode_udisk(const bytes& p)
{
    std::ostringstream o;
    o << "USB upgrade: ";
    switch (p[0]) {
    case 1: o << "in progress " << static_cast<int>(p[1]) << "%"; break;
    case 3: o << "done " << static_cast<int>(p[1]) << "%"; break;
    case 16: o << "failed before any image"; break;
    case 19: o << "failed on an image at " << static_cast<int>(p[1]) << "%"; break;
    default: o << "status " << static_cast<int>(p[0]) << " " << static_cast<int>(p[1]) << "%"; break;
    }
    return o.str();
}

std::string decode(const bytes& f)
{
    uint8_t cmd = f[2];
    bytes p(f.begin() + 3, f.end() - 1);
    std::string text;
    size_t want = cmd == 0x24 ? 4 : 12;
    if ((cmd == 0x20 || cmd == 0x21 || cmd == 0x23 || cmd == 0x24) && p.size() != want)
        text = "report with " + std::to_string(p.size()) + " payload bytes";
    else if (cmd == 0x20) text = decode_record(p);
    else if (cmd == 0x21) text = decode_audio(p);
    else if (cmd == 0x23) text = decode_ota(p);
    else if (cmd == 0x24) text = decode_udisk(p);
    else text = "frame " + std::to_string(cmd);
    if (check_digit(f.data() + 1, f.size() - 2) != f.back()) text += "  [BAD CHECK DIGIT]";
    return text;
}

// Takes whole frames out of the inbox and prints them; the last id seen.
std::optional<uint8_t> take_frames(std::optional<int> want, bool* matched)
{
    std::optional<uint8_t> last;
    for (;;) {
        size_t lead = 0;
        while (lead < inbox.size() && inbox[lead] != 0xFF) ++lead;
        if (lead) {
            if (!quiet) printf("[mcu] <- %zu stray bytes: %s\n", lead, hex(inbox.data(), lead).c_str());
            inbox.erase(inbox.begin(), inbox.begin() + static_cast<long>(lead));
        }
        if (inbox.size() < 2) return last;
        size_t len = static_cast<size_t>(inbox[1]) + 1;
        if (inbox[1] < 3) len = 2;
        if (inbox.size() < len) return last;
        bytes f(inbox.begin(), inbox.begin() + static_cast<long>(len));
        inbox.erase(inbox.begin(), inbox.begin() + static_cast<long>(len));
        if (f.size() < 4) {
            printf("[mcu] <- short frame %s\n", hex(f).c_str());
            continue;
        }
        printf("[mcu] <- 0x%02X %s\n", f[2], decode(f).c_str());
        if (!quiet) printf("[mcu]         %s\n", hex(f).c_str());
        last = f[2];
        if (want && (*want < 0 || *want == f[2])) *matched = true;
    }
}

bool wait_frame(int id, int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    bool matched = false;
    take_frames(id, &matched);
    while (!matched) {
        int left = ms_left(deadline);
        if (left == 0) return false;
        fill(left);
        take_frames(id, &matched);
    }
    return true;
}

void listen(int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    bool unused = false;
    while (int left = ms_left(deadline)) {
        fill(left);
        take_frames(std::nullopt, &unused);
    }
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
bool fetch(const bytes& package, uint32_t offset, uint32_t length, bytes& got)
{
    size_t pos = offset == 0xFFFFFFFFu ? 0 : static_cast<size_t>(offset) + 2048;
    size_t n = pos >= package.size() ? 0 : std::min<size_t>(length, package.size() - pos);
    write_all(read_request(offset, length));
    bytes reply = take((n + 7) & ~size_t{3}, 5000);
    if (reply.size() != ((n + 7) & ~size_t{3})) {
        printf("[mcu] READ 0x%08X+%u: %zu bytes came, %zu expected\n", offset, length, reply.size(),
               (n + 7) & ~size_t{3});
        return false;
    }
    uint32_t sum = reply[0] | reply[1] << 8 | reply[2] << 16 | static_cast<uint32_t>(reply[3]) << 24;
    uint32_t want = 0;
    for (size_t i = 0; i < n; ++i) want += package[pos + i];
    got.assign(reply.begin() + 4, reply.begin() + 4 + static_cast<long>(n));
    bool data_ok = std::equal(got.begin(), got.end(), package.begin() + static_cast<long>(pos));
    bool pad_ok = std::all_of(reply.begin() + 4 + static_cast<long>(n), reply.end(), [](uint8_t b) { return b == 0; });
    if (sum != want || !data_ok || !pad_ok) {
        printf("[mcu] READ 0x%08X+%u: sum %08X (expected %08X), data %s, padding %s\n", offset, length, sum, want,
               data_ok ? "ok" : "WRONG", pad_ok ? "ok" : "WRONG");
        return false;
    }
    return true;
}

bool upload(const std::string& package_path, uint32_t block, const std::string& out_path)
{
    std::ifstream in(package_path, std::ios::binary);
    if (!in) fail("cannot read " + package_path);
    bytes package((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (block == 0 || block > 4096) fail("block must be 1 to 4096");

    // The call: "UART_UPDATA!" up to five times; frames before it are printed.
    auto deadline = steady::now() + std::chrono::milliseconds(8000);
    const std::string call = "UART_UPDATA!";
    for (;;) {
        auto at = std::search(inbox.begin(), inbox.end(), call.begin(), call.end());
        if (at != inbox.end()) {
            bytes rest(at + static_cast<long>(call.size()), inbox.end());
            inbox.erase(at, inbox.end());
            bool unused = false;
            take_frames(std::nullopt, &unused);  // frames that came ahead of the call
            inbox = rest;
            break;
        }
        if (ms_left(deadline) == 0) {
            printf("[mcu] no \"UART_UPDATA!\" from the daemon\n");
            return false;
        }
        fill(ms_left(deadline));
    }
    printf("[mcu] <- \"UART_UPDATA!\"\n");

    bytes got;
    if (!fetch(package, 0xFFFFFFFFu, 32, got)) return false;
    printf("[mcu] header: %s\n", hex(got.data(), std::min<size_t>(got.size(), 32)).c_str());
    bytes firmware;
    size_t blocks = 0;
    for (uint32_t off = 0;; off += block) {
        if (!fetch(package, off, block, got)) return false;
        ++blocks;
        firmware.insert(firmware.end(), got.begin(), got.end());
        if (got.size() < block) break;
    }
    const std::string end = "UPDATA_SUCC!";
    write_all(bytes(end.begin(), end.end()));
    printf("[mcu] -> \"UPDATA_SUCC!\": firmware of %zu bytes in %zu READs, every sum and byte verified\n",
           firmware.size(), blocks);
    if (!out_path.empty()) {
        std::ofstream out(out_path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(firmware.data()), static_cast<std::streamsize>(firmware.size()));
    }
    return true;
}

// ---- building frames by name

struct field {
    const char* name;
    int byte;
    int shift;
    int width;  // bits; 16 = two bytes, low byte first
};

struct frame_kind {
    const char* name;
    uint8_t cmd;
    size_t size;
    std::vector<field> fields;
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
    {"music", 9, 5,
     {{"play", 0, 6, 1}, {"tone", 0, 4, 1}, {"index", 1, 0, 8}, {"mask", 2, 0, 16}, {"gain", 4, 0, 8}}},
    {"dtsx", 11, 3, {}},
};

bytes build(const frame_kind& k, const std::vector<std::string>& args)
{
    bytes p(k.size, 0);
    size_t next = 0;
    std::vector<long> plain;
    for (const auto& a : args) {
        auto eq = a.find('=');
        if (eq == std::string::npos) {
            plain.push_back(number(a));
            continue;
        }
        std::string name = a.substr(0, eq);
        long v = number(a.substr(eq + 1));
        auto it = std::find_if(k.fields.begin(), k.fields.end(), [&](const field& f) { return name == f.name; });
        if (it == k.fields.end()) fail(std::string("no field ") + name + " in " + k.name);
        if (it->width == 16) {
            p[static_cast<size_t>(it->byte)] = static_cast<uint8_t>(v);
            p[static_cast<size_t>(it->byte) + 1] = static_cast<uint8_t>(v >> 8);
            if (std::string(k.name) == "music") p[0] |= 0x20;  // the mask is given
        } else {
            uint8_t mask = static_cast<uint8_t>(((1u << it->width) - 1) << it->shift);
            uint8_t& b = p[static_cast<size_t>(it->byte)];
            b = static_cast<uint8_t>((b & ~mask) | ((v << it->shift) & mask));
        }
    }
    // Plain values: one value fills a byte-per-position frame, else bytes in order.
    if (plain.size() == 1 && k.fields.empty()) std::fill(p.begin(), p.end(), static_cast<uint8_t>(plain[0]));
    else
        for (long v : plain) {
            if (next >= p.size()) fail(std::string("too many bytes for ") + k.name);
            p[next++] = static_cast<uint8_t>(v);
        }
    return p;
}

void send_frame(const char* what, uint8_t cmd, const bytes& payload)
{
    bytes f = make_frame(cmd, payload);
    printf("[mcu] -> %s (command %u): %s\n", what, cmd, hex(f).c_str());
    write_all(f);
}

bool run(const std::string& line)
{
    std::vector<std::string> w = words(line);
    if (w.empty() || w[0][0] == '#') return true;
    const std::string& op = w[0];
    std::vector<std::string> args(w.begin() + 1, w.end());
    auto arg = [&](size_t i, const char* dflt) { return i < args.size() ? args[i] : std::string(dflt); };

    for (const auto& k : kinds)
        if (op == k.name) {
            send_frame(k.name, k.cmd, build(k, args));
            return true;
        }
    static const std::map<std::string, uint8_t> record = {
        {"start", 1}, {"stop", 2}, {"export", 3}, {"import", 4}, {"report", 32}};
    static const std::map<std::string, uint8_t> ota = {{"start", 1}, {"exit", 3}, {"s8137", 5}, {"mcu", 6}};
    if (op == "record" || op == "ota") {
        const auto& table = op == "record" ? record : ota;
        auto it = table.find(arg(0, ""));
        uint8_t v = it != table.end() ? it->second : static_cast<uint8_t>(number(arg(0, "0")));
        send_frame((op + " " + arg(0, "")).c_str(), op == "record" ? 10 : 14, {v});
        return true;
    }
    if (op == "udisk") {
        bytes p(16, 0);
        p[0] = 0x11;
        for (const auto& a : args) {
            if (a.rfind("base=", 0) == 0) {
                uint32_t base = static_cast<uint32_t>(number(a.substr(5)));
                for (int i = 0; i < 4; ++i) p[static_cast<size_t>(1 + i)] = static_cast<uint8_t>(base >> (8 * i));
            } else if (a.rfind("name=", 0) == 0) {
                std::string name = a.substr(5, 11);
                std::copy(name.begin(), name.end(), p.begin() + 5);
            } else {
                fail("udisk takes base= and name=");
            }
        }
        send_frame("udisk", 15, p);
        return true;
    }
    if (op == "frame" || op == "raw") {
        bytes b;
        for (const auto& a : args) b.push_back(static_cast<uint8_t>(number(a)));
        if (op == "raw") {
            printf("[mcu] -> raw: %s\n", hex(b).c_str());
            write_all(b);
        } else {
            if (b.empty()) fail("frame needs a command");
            send_frame("frame", b[0], bytes(b.begin() + 1, b.end()));
        }
        return true;
    }
    if (op == "wait") {
        int id = arg(0, "any") == "any" ? -1 : static_cast<int>(number(arg(0, "")));
        int ms = static_cast<int>(number(arg(1, "3000")));
        if (!wait_frame(id, ms)) {
            printf("[mcu] no frame %s within %d ms\n", arg(0, "any").c_str(), ms);
            return false;
        }
        return true;
    }
    if (op == "listen") {
        listen(static_cast<int>(number(arg(0, "1000"))));
        return true;
    }
    if (op == "sleep") {
        std::this_thread::sleep_for(std::chrono::milliseconds(number(arg(0, "0"))));
        return true;
    }
    if (op == "notify") {
        int fd = open(arg(0, "").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0 || write(fd, "!", 1) != 1) {
            printf("[mcu] cannot write to %s: %s\n", arg(0, "").c_str(), strerror(errno));
            if (fd >= 0) close(fd);
            return false;
        }
        close(fd);
        printf("[mcu] notified %s\n", arg(0, "").c_str());
        return true;
    }
    if (op == "upload") {
        if (args.empty()) fail("upload needs the package file");
        return upload(args[0], static_cast<uint32_t>(number(arg(1, "1024"))), arg(2, ""));
    }
    fail("unknown command: " + op);
}

}  // namespace

int main(int argc, char** argv)
{
    return run_main(argc, argv, "[mcu]",
                    "Usage: mcu_sim (--port DEV | --pty FILE) [--quiet] [-f SCRIPT] [COMMAND]...\n"
                    "See the head of tools/mcu_sim.cpp for the commands.",
                    quiet, run);
}
