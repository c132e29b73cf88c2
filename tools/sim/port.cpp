#include "tools/sim/port.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "core/serial.h"

namespace sim {

const char* const version = TTY_HUB_VERSION;

std::string hex(const uint8_t* p, size_t n, const char* sep)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (size_t i = 0; i < n; ++i) {
        if (i) out += sep;
        out += digits[p[i] >> 4];
        out += digits[p[i] & 15];
    }
    return out;
}

long number(const std::string& s, long lo, long hi, const std::string& what)
{
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 0);
    if (s.empty() || *end || errno) throw usage_error(what + ": not a number: \"" + s + "\"");
    if (v < lo || v > hi)
        throw usage_error(what + " " + s + " out of range " + std::to_string(lo) + ".." + std::to_string(hi));
    return v;
}

int ms_left(steady::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

std::string read_whole(const std::string& path)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw usage_error("cannot read " + path + ": " + strerror(errno));
    struct stat st {};
    if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        close(fd);
        throw usage_error("cannot read " + path + ": " + (S_ISDIR(st.st_mode) ? "a directory" : strerror(errno)));
    }
    std::string out;
    char chunk[65536];
    ssize_t n;
    while ((n = read(fd, chunk, sizeof chunk)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) out.append(chunk, static_cast<size_t>(n));
    int err = errno;
    close(fd);
    if (n < 0) throw usage_error("cannot read " + path + ": " + strerror(err));
    return out;
}

namespace {

// The termios constant of each rate the daemon takes.
constexpr struct {
    long rate;
    speed_t constant;
} speed_constants[] = {
    {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},     {115200, B115200},
    {230400, B230400},   {460800, B460800},   {500000, B500000},   {576000, B576000},   {921600, B921600},
    {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000},
    {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
};

constexpr bool every_rate_has_a_constant()
{
    for (const auto& r : serial_rates)
        if (std::none_of(std::begin(speed_constants), std::end(speed_constants),
                         [&](const auto& c) { return c.rate == r.rate; }))
            return false;
    return true;
}
static_assert(every_rate_has_a_constant(), "a rate of the daemon without its termios constant");

// The constant for a rate the daemon takes, or a usage_error listing them.
speed_t speed_constant(long rate)
{
    bool daemon_takes = std::any_of(serial_rates.begin(), serial_rates.end(), [&](const auto& r) { return r.rate == rate; });
    for (const auto& c : speed_constants)
        if (daemon_takes && c.rate == rate) return c.constant;
    std::string all;
    for (const auto& r : serial_rates) all.append(" ").append(std::to_string(r.rate));
    throw usage_error("rate " + std::to_string(rate) + " not supported; one of" + all);
}

// The parity words of the daemon's -P: mark, odd, space; any other is even.
void set_parity(line_settings& l, const std::string& word)
{
    l.parity = true;
    l.odd = word == "mark" || word == "odd";
    l.stick = word == "mark" || word == "space";
}

}  // namespace

bool line_option(line_settings& l, const std::string& a, const std::function<std::string()>& next)
{
    if (a == "-b") l.rate = number(next(), 1, 4000000, "rate"), speed_constant(l.rate);
    else if (a == "-P") set_parity(l, next());
    else if (a == "-B") l.two_stop = true;
    else if (a == "-c") l.rts_cts = true;
    else return false;
    return true;
}

bool set_speed(int fd, long rate)
{
    termios t{};
    if (tcgetattr(fd, &t) != 0) return false;
    return cfsetspeed(&t, speed_constant(rate)) == 0 && tcsetattr(fd, TCSADRAIN, &t) == 0;
}

int open_terminal(const std::string& dev, const line_settings& l)
{
    int fd = ::open(dev.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw usage_error("cannot open " + dev + ": " + strerror(errno));
    termios t{};
    if (tcgetattr(fd, &t) != 0) throw usage_error(dev + " is no terminal: " + strerror(errno));
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cflag &= ~(CSTOPB | PARENB | PARODD | CMSPAR | CRTSCTS);
    if (l.two_stop) t.c_cflag |= CSTOPB;
    if (l.rts_cts) t.c_cflag |= CRTSCTS;
    if (l.parity) t.c_cflag |= PARENB | (l.odd ? PARODD : 0) | (l.stick ? CMSPAR : 0);
    if (cfsetspeed(&t, speed_constant(l.rate)) != 0 || tcsetattr(fd, TCSANOW, &t) != 0)
        throw usage_error("cannot set up " + dev + ": " + strerror(errno));
    return fd;
}

namespace {

// A new pseudo-terminal; the slave's path goes to pty_file (written whole,
// then renamed into place, so a watcher never reads half a path). The slave
// stays open here, raw, so that nothing is echoed and the master sees no
// hang-up before the daemon opens it.
int open_pty(const std::string& pty_file, termios& initial)
{
    int fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 || grantpt(fd) || unlockpt(fd)) throw usage_error(std::string("cannot make a pseudo-terminal: ") + strerror(errno));
    const char* name = ptsname(fd);
    int slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave < 0) throw usage_error(std::string("cannot open ") + name);
    termios t{};
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    tcsetattr(slave, TCSANOW, &t);
    tcgetattr(slave, &initial);
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

void copy_to(int fd, const uint8_t* p, size_t n)
{
    while (fd >= 0 && n) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) return;
        p += w;
        n -= static_cast<size_t>(w);
    }
}

}  // namespace

void port::open(const std::string& dev, const std::string& pty_file, const line_settings& l)
{
    if (dev.empty() == pty_file.empty()) throw usage_error("give one of --port DEV or --pty FILE");
    line = l;
    is_terminal = !dev.empty();
    fd = is_terminal ? open_terminal(dev, l) : open_pty(pty_file, pty_initial);
}

bool port::peer_set_up() const
{
    termios now{};
    if (is_terminal || fd < 0 || tcgetattr(fd, &now) != 0) return false;
    return now.c_iflag != pty_initial.c_iflag || now.c_oflag != pty_initial.c_oflag ||
           now.c_cflag != pty_initial.c_cflag || now.c_lflag != pty_initial.c_lflag ||
           memcmp(now.c_cc, pty_initial.c_cc, sizeof now.c_cc) != 0;
}

void port::write_all(const uint8_t* p, size_t n)
{
    copy_to(capture_sent, p, n);
    size_t done = 0;
    while (done < n) {
        ssize_t w = write(fd, p + done, n - done);
        if (w < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {
                pollfd pf{fd, POLLOUT, 0};
                poll(&pf, 1, 100);
                continue;
            }
            fprintf(stderr, "%s write: %s\n", tag, strerror(errno));
            exit(1);
        }
        done += static_cast<size_t>(w);
    }
}

bool port::fill(int ms)
{
    if (fd < 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return false;
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return false;
    uint8_t buf[4096];
    ssize_t r = read(fd, buf, sizeof buf);
    if (r <= 0) {
        // A hang-up (no slave open yet, or a board unplugged) must not spin.
        if (r == 0 || (errno != EAGAIN && errno != EINTR)) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return false;
    }
    inbox.insert(inbox.end(), buf, buf + r);
    copy_to(capture_received, buf, static_cast<size_t>(r));
    return true;
}

bytes port::take(size_t n, int ms)
{
    auto deadline = steady::now() + std::chrono::milliseconds(ms);
    while (inbox.size() < n && ms_left(deadline) > 0) fill(std::min(ms_left(deadline), 50));
    return take_front(std::min(n, inbox.size()));
}

bytes port::take_front(size_t n)
{
    bytes out(inbox.begin(), inbox.begin() + static_cast<long>(n));
    inbox.erase(inbox.begin(), inbox.begin() + static_cast<long>(n));
    return out;
}

bool port::peer(peer_settings& out) const
{
    termios t{};
    if (is_terminal || fd < 0 || tcgetattr(fd, &t) != 0) return false;
    out = {0, t.c_cc[VMIN], t.c_cc[VTIME]};
    for (const auto& c : speed_constants)
        if (c.constant == cfgetospeed(&t)) out.rate = c.rate;
    return true;
}

void port::hang_up()
{
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace sim
