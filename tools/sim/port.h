// What the peer simulators share on their end of the serial link: a terminal
// device with the daemon's line settings, or the master side of a new
// pseudo-terminal; buffered reads; number and hex helpers.
#pragma once
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/serial.h"

namespace sim {

using bytes = std::vector<uint8_t>;
using steady = std::chrono::steady_clock;

inline const char* tag = "[sim]";
inline int port_fd = -1;
inline bytes inbox;  // read from the port, not yet taken apart
inline int capture_sent = -1, capture_received = -1;  // copies of the traffic, or -1
// Our pseudo-terminal's slave, kept open, and the settings we gave it; -1 on a real port.
inline int pty_slave = -1;
inline termios pty_settings{};

inline void copy_to(int fd, const uint8_t* p, size_t n)
{
    while (fd >= 0 && n) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) return;
        p += w;
        n -= static_cast<size_t>(w);
    }
}

// A fault of the command line, the script or the set-up: nothing has run.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

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

// Decimal or 0x hex within [lo, hi]; a usage_error names what was wrong.
inline long number(const std::string& s, long lo, long hi, const std::string& what)
{
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 0);
    if (s.empty() || *end || errno) throw usage_error(what + ": not a number: \"" + s + "\"");
    if (v < lo || v > hi)
        throw usage_error(what + " " + s + " out of range " + std::to_string(lo) + ".." + std::to_string(hi));
    return v;
}

inline int ms_left(steady::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

inline void write_all(const uint8_t* p, size_t n)
{
    copy_to(capture_sent, p, n);
    size_t done = 0;
    while (done < n) {
        ssize_t w = write(port_fd, p + done, n - done);
        if (w < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {
                pollfd pf{port_fd, POLLOUT, 0};
                poll(&pf, 1, 100);
                continue;
            }
            fprintf(stderr, "%s write: %s\n", tag, strerror(errno));
            exit(1);
        }
        done += static_cast<size_t>(w);
    }
}
inline void write_all(const bytes& b) { write_all(b.data(), b.size()); }
inline void write_all(std::string_view s) { write_all(reinterpret_cast<const uint8_t*>(s.data()), s.size()); }

// Waits up to ms for the port and adds what came to the inbox; false if
// nothing came. Without a port it only waits.
inline bool fill(int ms)
{
    if (port_fd < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return false;
    }
    pollfd p{port_fd, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return false;
    uint8_t buf[4096];
    ssize_t r = read(port_fd, buf, sizeof buf);
    if (r <= 0) {
        // A hang-up (no slave open yet, or a board unplugged) must not spin.
        if (r == 0 || (errno != EAGAIN && errno != EINTR)) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return false;
    }
    inbox.insert(inbox.end(), buf, buf + r);
    copy_to(capture_received, buf, static_cast<size_t>(r));
    return true;
}

// Exactly n bytes from the inbox, or fewer when the time runs out.
inline bytes take(size_t n, int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    while (inbox.size() < n && ms_left(deadline) > 0) fill(std::min(ms_left(deadline), 50));
    size_t k = std::min(n, inbox.size());
    bytes out(inbox.begin(), inbox.begin() + static_cast<long>(k));
    inbox.erase(inbox.begin(), inbox.begin() + static_cast<long>(k));
    return out;
}

// Line settings as the daemon takes them: -b RATE, -P PARITY, -B, -c.
struct line_settings {
    long rate = 115200;
    bool parity = false, odd = false, stick = false, two_stop = false, rts_cts = false;
};

inline speed_t speed_of(long rate)
{
    for (const auto& r : serial_rates)
        if (r.rate == rate) return static_cast<speed_t>(r.bits);
    std::string all;
    for (const auto& r : serial_rates) all.append(" ").append(std::to_string(r.rate));
    throw usage_error("rate " + std::to_string(rate) + " not supported; one of" + all);
}

// The parity words of the daemon's -P: mark, odd, space; any other is even.
inline void set_parity(line_settings& l, const std::string& word)
{
    l.parity = true;
    l.odd = word == "mark" || word == "odd";
    l.stick = word == "mark" || word == "space";
}

// The daemon's line options -b RATE, -P PARITY, -B and -c; false for another
// option. next() gives the option's argument.
template <class Next>
bool line_option(line_settings& l, const std::string& a, Next next)
{
    if (a == "-b") l.rate = number(next(), 1, 4000000, "rate"), speed_of(l.rate);
    else if (a == "-P") set_parity(l, next());
    else if (a == "-B") l.two_stop = true;
    else if (a == "-c") l.rts_cts = true;
    else return false;
    return true;
}

// DEV raw with the line settings; failures are usage errors.
inline int open_terminal(const std::string& dev, const line_settings& l)
{
    int fd = open(dev.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw usage_error("cannot open " + dev + ": " + strerror(errno));
    termios t{};
    if (tcgetattr(fd, &t) != 0) throw usage_error(dev + " is no terminal: " + strerror(errno));
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cflag &= ~(CSTOPB | PARENB | PARODD | CMSPAR | CRTSCTS);
    if (l.two_stop) t.c_cflag |= CSTOPB;
    if (l.rts_cts) t.c_cflag |= CRTSCTS;
    if (l.parity) t.c_cflag |= PARENB | (l.odd ? PARODD : 0) | (l.stick ? CMSPAR : 0);
    if (cfsetspeed(&t, speed_of(l.rate)) != 0 || tcsetattr(fd, TCSANOW, &t) != 0)
        throw usage_error("cannot set up " + dev + ": " + strerror(errno));
    return fd;
}

// Whether the daemon has set up the line of our pseudo-terminal: its
// settings are no longer the ones we left. The daemon flushes the line's
// input before it sets it, so what is written from then on is read.
inline bool pty_set_up()
{
    termios now{};
    if (pty_slave < 0 || tcgetattr(pty_slave, &now) != 0) return false;
    return now.c_iflag != pty_settings.c_iflag || now.c_oflag != pty_settings.c_oflag ||
           now.c_cflag != pty_settings.c_cflag || now.c_lflag != pty_settings.c_lflag ||
           memcmp(now.c_cc, pty_settings.c_cc, sizeof now.c_cc) != 0;
}

// A new pseudo-terminal; the slave's path goes to pty_file (written whole,
// then renamed into place, so a watcher never reads half a path). The slave
// stays open here, raw, so that nothing is echoed and the master sees no
// hang-up before the daemon opens it.
inline int open_pty(const std::string& pty_file)
{
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 || grantpt(fd) || unlockpt(fd)) throw usage_error(std::string("cannot make a pseudo-terminal: ") + strerror(errno));
    const char* name = ptsname(fd);
    int slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) throw usage_error(std::string("cannot open ") + name);
    termios t{};
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    tcsetattr(slave, TCSANOW, &t);
    tcgetattr(slave, &pty_settings);
    pty_slave = slave;
    std::string tmp = pty_file + ".tmp";
    FILE* f = fopen(tmp.c_str(), "w");
    bool ok = f && fprintf(f, "%s\n", name) > 0;
    if (f) ok = fclose(f) == 0 && ok;
    if (!ok || rename(tmp.c_str(), pty_file.c_str()) != 0) {
        unlink(tmp.c_str());
        throw usage_error("cannot write " + pty_file + ": " + strerror(errno));
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    return fd;
}

}  // namespace sim
