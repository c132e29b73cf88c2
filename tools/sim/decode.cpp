#include "tools/sim/decode.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace sim {

std::string decode_help(const char* prog, const char* peer)
{
    std::string side = peer[0] == 'M' ? "mcu" : "tool";
    return std::string("Decoding (") + prog + " --decode [--hex] [--time] [--" + side +
           " SOURCE] [--daemon SOURCE]):\n"
           "  SOURCE is a file, - for standard input, or a terminal (a tap on one wire, set\n"
           "  up with -b -P -B -c); --" + side + " gives what the " + peer +
           " sent, --daemon what the daemon\n"
           "  sent. Every frame is printed decoded with its offset (with its time when\n"
           "  a source is a terminal, or with --time), check digits verified, noise as such.\n"
           "  --hex reads hex text (pairs of digits, 0x allowed, # comments) instead of bytes.\n"
           "  --trace FILE instead: both directions from a trace of tty_hub --trace, with\n"
           "  the trace's times (seconds of the device's monotonic clock) under --time.\n";
}

namespace {

// One direction of the traffic and where its bytes come from.
struct source {
    source(std::string p, bool d) : path(std::move(p)), from_daemon(d) {}
    std::string path;
    bool from_daemon;
    int fd = -1;
    bool live = false, done = false;
    bytes buf;
    size_t offset = 0;  // of buf[0] in the stream
    std::string token;  // hex text not yet complete
    bool comment = false;
    steady::time_point last{};
};

struct decode_options {
    std::vector<source> sources;
    line_settings line;
    bool as_hex = false, times = false;
    std::string trace;  // tty_hub --trace FILE, instead of sources
};

void hex_token(source& s)
{
    std::string t = s.token;
    s.token.clear();
    if (t.empty()) return;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) t = t.substr(2);
    if (t.size() % 2 || t.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw usage_error(s.path + ": not hex: " + t);
    for (size_t i = 0; i < t.size(); i += 2) s.buf.push_back(static_cast<uint8_t>(std::stoi(t.substr(i, 2), nullptr, 16)));
}

void add(source& s, const uint8_t* p, size_t n, bool as_hex)
{
    if (!as_hex) {
        s.buf.insert(s.buf.end(), p, p + n);
        return;
    }
    for (size_t i = 0; i < n; ++i) {
        char c = static_cast<char>(p[i]);
        if (s.comment) {
            s.comment = c != '\n';
        } else if (isalnum(static_cast<unsigned char>(c))) {
            s.token += c;
        } else {
            hex_token(s);
            s.comment = c == '#';
        }
    }
}

// A piece's time: from the trace line that completed it (seconds), or, when
// negative, since the start of the decoding.
void print_pieces(const decoder& d, source& s, bool at_end, bool times, steady::time_point start, double at = -1)
{
    const char* who = s.from_daemon ? "daemon" : d.peer;
    for (;;) {
        piece pc = d.split(s.buf.data(), s.buf.size(), at_end, s.from_daemon);
        if (pc.kind == piece::more || pc.len == 0) return;
        // A trace gives the bytes read by read: noise may go on in the next one.
        if (at >= 0 && !at_end && pc.kind == piece::noise && pc.len == s.buf.size()) return;
        std::string text = pc.kind == piece::noise ? "noise"
                           : pc.kind == piece::cut ? "cut short"
                                                   : d.text(s.buf.data(), pc.len, s.from_daemon);
        if (pc.kind != piece::whole || d.binary(s.buf.data(), pc.len)) text += "  (" + hex(s.buf.data(), pc.len) + ")";
        if (times)
            printf("%9.3f  %-6s  %s\n", at >= 0 ? at : std::chrono::duration<double>(steady::now() - start).count(), who,
                   text.c_str());
        else printf("%8zu  %-6s  %s\n", s.offset, who, text.c_str());
        s.buf.erase(s.buf.begin(), s.buf.begin() + static_cast<long>(pc.len));
        s.offset += pc.len;
    }
}

// The options after --decode; a source is a direction and a path.
decode_options parse(int argc, char** argv, const decoder& d)
{
    decode_options o;
    std::string peer_opt = std::string("--") + d.peer;
    for (int i = 2; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) throw usage_error(a + " needs an argument");
            return argv[++i];
        };
        if (a == "--hex") o.as_hex = true;
        else if (a == "--raw") o.as_hex = false;
        else if (a == "--time") o.times = true;
        else if (a == peer_opt || a == "--daemon") o.sources.emplace_back(next(), a == "--daemon");
        else if (a == "--trace") o.trace = next();
        else if (line_option(o.line, a, next)) continue;
        else throw usage_error("unknown decode option " + a + " (see --help)");
    }
    if (!o.trace.empty() && !o.sources.empty())
        throw usage_error("--trace takes both directions: no " + peer_opt + " or --daemon beside it");
    if (o.sources.empty() && o.trace.empty())
        throw usage_error("--decode needs " + peer_opt + " SOURCE, --daemon SOURCE or --trace FILE");
    return o;
}

// Every source opened before anything is printed: a file, a pipe, or a
// terminal set up as a wire; a directory or anything unreadable is a
// usage_error.
void open_sources(decode_options& o)
{
    for (auto& s : o.sources) {
        if (s.path == "-") s.fd = 0;
        else if ((s.fd = open(s.path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC)) < 0)
            throw usage_error("cannot read " + s.path + ": " + strerror(errno));
        if (isatty(s.fd)) {
            if (s.fd) close(s.fd);
            s.fd = open_terminal(s.path == "-" ? "/dev/stdin" : s.path, o.line);
        }
        struct stat st {};
        if (fstat(s.fd, &st) != 0 || S_ISDIR(st.st_mode))
            throw usage_error("cannot read " + s.path + ": " + (S_ISDIR(st.st_mode) ? "a directory" : strerror(errno)));
        // A pipe is read as it comes; a terminal is a wire, timed.
        s.live = !S_ISREG(st.st_mode);
        o.times = o.times || isatty(s.fd);
    }
}

// A trace written by tty_hub --trace: "# comment" lines, and lines
// "SECONDS rx|tx HH HH ..." in the order of the port's reads (rx, what the
// peer sent) and writes (tx, what the daemon sent).
void decode_trace(const decoder& d, const std::string& path, bool times)
{
    std::ifstream file;
    if (path != "-") {
        file.open(path);
        if (!file) throw usage_error("cannot read " + path + ": " + strerror(errno));
    }
    std::istream& lines = path == "-" ? std::cin : file;
    std::array<source, 2> sides{source("rx", false), source("tx", true)};
    auto start = steady::now();
    std::string line;
    for (size_t number = 1; std::getline(lines, line); ++number) {
        std::istringstream in(line);
        std::string when, dir, byte;
        if (!(in >> when) || when[0] == '#') continue;
        in >> dir;
        char* end = nullptr;
        double at = strtod(when.c_str(), &end);
        if (*end || (dir != "rx" && dir != "tx"))
            throw usage_error(path + ":" + std::to_string(number) + ": not a trace line");
        source& s = sides[dir == "tx"];
        while (in >> byte) {
            s.token = byte;
            hex_token(s);
        }
        print_pieces(d, s, false, times, start, at);
    }
    for (auto& s : sides) print_pieces(d, s, true, times, start);
}

}  // namespace

int run_decode(int argc, char** argv, const decoder& d)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    try {
        decode_options o = parse(argc, argv, d);
        if (!o.trace.empty()) {
            decode_trace(d, o.trace, o.times);
            return 0;
        }
        open_sources(o);
        auto& sources = o.sources;
        auto start = steady::now();
        for (;;) {
            std::vector<pollfd> fds;
            for (auto& s : sources) fds.push_back({s.done ? -1 : s.fd, POLLIN, 0});
            if (std::all_of(sources.begin(), sources.end(), [](const source& s) { return s.done; })) return 0;
            poll(fds.data(), fds.size(), 100);
            for (size_t i = 0; i < sources.size(); ++i) {
                source& s = sources[i];
                if (s.done) continue;
                uint8_t chunk[4096];
                bool end = false;
                if (fds[i].revents) {
                    // A regular file is read whole before the next source.
                    ssize_t n;
                    while ((n = read(s.fd, chunk, sizeof chunk)) > 0) {
                        add(s, chunk, static_cast<size_t>(n), o.as_hex);
                        s.last = steady::now();
                        if (s.live) break;
                    }
                    end = n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
                }
                if (end) {
                    if (o.as_hex) hex_token(s);
                    s.done = true;
                }
                // A frame that stays incomplete for half a second on a wire is cut short.
                bool quiet_wire = s.live && steady::now() - s.last > std::chrono::milliseconds(500);
                print_pieces(d, s, end || quiet_wire, o.times, start);
            }
        }
    } catch (const usage_error& e) {
        fprintf(stderr, "[%s] %s\n", d.peer, e.what());
        return 2;
    }
}

}  // namespace sim
