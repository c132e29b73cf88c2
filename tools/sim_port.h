// What the peer simulators share: their end of the serial link (a terminal
// device, or the master side of a new pseudo-terminal), buffered reads with
// time-outs, and number and hex helpers.
#pragma once
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace sim {

using bytes = std::vector<uint8_t>;
using steady = std::chrono::steady_clock;

inline const char* tag = "[sim]";
inline int port_fd = -1;
inline bytes inbox;  // read from the port, not yet taken apart

[[noreturn]] inline void fail(const std::string& what)
{
    fprintf(stderr, "%s %s\n", tag, what.c_str());
    exit(1);
}

inline std::string hex(const uint8_t* p, size_t n)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < n; ++i) {
        snprintf(buf, sizeof buf, i ? " %02X" : "%02X", p[i]);
        out += buf;
    }
    return out;
}
inline std::string hex(const bytes& b) { return hex(b.data(), b.size()); }

// Decimal or 0x hex; anything else ends the simulator.
inline long number(const std::string& s)
{
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 0);
    if (s.empty() || *end || errno) fail("not a number: " + s);
    return v;
}

inline int ms_left(steady::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

inline void write_all(const bytes& b)
{
    size_t done = 0;
    while (done < b.size()) {
        ssize_t w = write(port_fd, b.data() + done, b.size() - done);
        if (w < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {
                pollfd p{port_fd, POLLOUT, 0};
                poll(&p, 1, 100);
                continue;
            }
            fail(std::string("write: ") + strerror(errno));
        }
        done += static_cast<size_t>(w);
    }
}
inline void write_all(const std::string& s) { write_all(bytes(s.begin(), s.end())); }

// Adds what comes within ms to the inbox; false if nothing came.
inline bool fill(int ms)
{
    pollfd p{port_fd, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return false;
    uint8_t buf[4096];
    ssize_t r = read(port_fd, buf, sizeof buf);
    if (r <= 0) {
        if (r < 0 && (errno == EAGAIN || errno == EINTR)) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return false;
    }
    inbox.insert(inbox.end(), buf, buf + r);
    return true;
}

// Exactly n bytes from the inbox, or fewer when the time runs out.
inline bytes take(size_t n, int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    while (inbox.size() < n && ms_left(deadline) > 0) fill(ms_left(deadline));
    size_t k = std::min(n, inbox.size());
    bytes out(inbox.begin(), inbox.begin() + static_cast<long>(k));
    inbox.erase(inbox.begin(), inbox.begin() + static_cast<long>(k));
    return out;
}

// What comes: waits up to first_ms for a first byte, then takes everything
// until the line has been quiet for quiet_ms (at most max_ms in all).
inline bytes take_until_quiet(int first_ms, int quiet_ms, int max_ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(max_ms);
    if (inbox.empty() && !fill(std::min(first_ms, ms_left(deadline)))) return {};
    while (ms_left(deadline) > 0 && fill(std::min(quiet_ms, ms_left(deadline)))) {
    }
    bytes out;
    out.swap(inbox);
    return out;
}

// --port DEV opens a terminal raw at 115200; --pty FILE makes a pseudo-terminal
// and writes its slave's path to FILE. The slave stays open here, raw, so that
// nothing is echoed and the master sees no hang-up before the daemon opens it.
inline void open_port(const std::string& port, const std::string& pty_file)
{
    if (!pty_file.empty()) {
        port_fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (port_fd < 0 || grantpt(port_fd) || unlockpt(port_fd)) fail("cannot make a pseudo-terminal");
        const char* name = ptsname(port_fd);
        int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (slave < 0) fail(std::string("cannot open ") + name);
        termios t{};
        tcgetattr(slave, &t);
        cfmakeraw(&t);
        tcsetattr(slave, TCSANOW, &t);
        std::ofstream(pty_file) << name << "\n";
    } else {
        port_fd = open(port.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (port_fd < 0) fail("cannot open " + port + ": " + strerror(errno));
        termios t{};
        tcgetattr(port_fd, &t);
        cfmakeraw(&t);
        cfsetspeed(&t, B115200);
        tcsetattr(port_fd, TCSANOW, &t);
    }
    fcntl(port_fd, F_SETFL, fcntl(port_fd, F_GETFL) | O_NONBLOCK);
}

// The common command line: (--port DEV | --pty FILE) [--quiet] [-f SCRIPT] [COMMAND]...
// Returns the commands in order; usage is printed for -h.
inline std::vector<std::string> parse_command_line(int argc, char** argv, const char* usage, bool& quiet)
{
    std::string port, pty_file;
    std::vector<std::string> commands;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if ((a == "--port" || a == "--pty" || a == "-f") && i + 1 < argc) {
            std::string v = argv[++i];
            if (a == "--port") {
                port = v;
            } else if (a == "--pty") {
                pty_file = v;
            } else {
                std::ifstream in(v);
                if (!in) fail("cannot read " + v);
                for (std::string line; std::getline(in, line);) commands.push_back(line);
            }
        } else if (a == "--quiet" || a == "-q") {
            quiet = true;
        } else if (a == "-h" || a == "--help") {
            puts(usage);
            exit(0);
        } else {
            commands.push_back(a);
        }
    }
    if (port.empty() == pty_file.empty()) fail("give one of --port DEV or --pty FILE");
    open_port(port, pty_file);
    return commands;
}

// A simulator's main: line-buffered output, the common command line, then
// each command in turn; 1 at the first that fails.
inline int run_main(int argc, char** argv, const char* name, const char* usage, bool& quiet,
                    bool (*run)(const std::string&))
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    tag = name;
    for (const auto& c : parse_command_line(argc, argv, usage, quiet))
        if (!run(c)) return 1;
    return 0;
}

inline std::vector<std::string> words(const std::string& line)
{
    std::vector<std::string> w;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && isspace(static_cast<unsigned char>(line[i]))) ++i;
        size_t j = i;
        while (j < line.size() && !isspace(static_cast<unsigned char>(line[j]))) ++j;
        if (j > i) w.push_back(line.substr(i, j - i));
        i = j;
    }
    return w;
}

}  // namespace sim
