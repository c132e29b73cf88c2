// The simulators' end of a serial link: a terminal device with the daemon's
// line settings, or the master side of a new pseudo-terminal; buffered reads;
// number and hex helpers.
#pragma once
#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <termios.h>
#include <vector>

namespace sim {

using bytes = std::vector<uint8_t>;
using steady = std::chrono::steady_clock;

// The version the tools report with --version.
extern const char* const version;

// A fault of the command line, the script or the set-up: nothing has run.
struct usage_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Bytes as upper-case hex pairs, "FF 08 09" (sep between them).
std::string hex(const uint8_t* p, size_t n, const char* sep = " ");
inline std::string hex(const bytes& b) { return hex(b.data(), b.size()); }

// Decimal or 0x hex within [lo, hi]; a usage_error names what was wrong.
long number(const std::string& s, long lo, long hi, const std::string& what);

int ms_left(steady::time_point deadline);

// A whole file that must be there to be used (a pipe is read to its end): a
// missing or unreadable one, or a directory, is a usage_error naming it.
std::string read_whole(const std::string& path);

// Line settings as the daemon takes them: -b RATE, -P PARITY, -B, -c.
struct line_settings {
    long rate = 115200;
    bool parity = false, odd = false, stick = false, two_stop = false, rts_cts = false;
};

// The daemon's line options -b RATE, -P PARITY, -B and -c; false for another
// option. next() gives the option's argument.
bool line_option(line_settings& l, const std::string& a, const std::function<std::string()>& next);

// A terminal raw with the line settings, or a usage_error.
int open_terminal(const std::string& dev, const line_settings& l);

// The line speed of an open terminal, both directions, as the B constant of
// termios gives it (never the kernel's code: glibc 2.42 took speed_t to be the
// plain rate); false with errno set if the terminal refuses it.
bool set_speed(int fd, long rate);

// The daemon's end of a pseudo-terminal as it set it up: its speed in baud
// (0 if no rate of the daemon's), VMIN and VTIME.
struct peer_settings {
    long rate;
    int vmin, vtime;
};

struct port {
    const char* tag = "[sim]";
    int fd = -1;
    bool is_terminal = false;  // --port: a real line whose speed is ours to set
    line_settings line;        // what --port was opened with
    bytes inbox;               // read from the port, not yet taken apart
    int capture_sent = -1, capture_received = -1;  // copies of the traffic, or -1

    // DEV (--port) or a new pseudo-terminal whose slave's path goes to
    // pty_file (--pty); a usage_error if it cannot be set up.
    void open(const std::string& dev, const std::string& pty_file, const line_settings& l);
    void write_all(const uint8_t* p, size_t n);
    void write_all(const bytes& b) { write_all(b.data(), b.size()); }
    void write_all(std::string_view s) { write_all(reinterpret_cast<const uint8_t*>(s.data()), s.size()); }
    // Waits up to ms for the port and adds what came to the inbox; false if
    // nothing came. Without a port it only waits.
    bool fill(int ms);
    // Exactly n bytes from the inbox, or fewer when the time runs out.
    bytes take(size_t n, int ms);
    // The first n bytes of the inbox (n at most its size).
    bytes take_front(size_t n);
    void hang_up();
    // The settings of the other end of a pseudo-terminal (the master sees the
    // slave's); false on a terminal, whose settings are ours.
    bool peer(peer_settings& out) const;
    // Whether the daemon has set up the line of our pseudo-terminal: its
    // settings are no longer the ones we left. The daemon flushes the line's
    // input before it sets it, so what is written from then on is read.
    // Always false on a terminal.
    bool peer_set_up() const;
    termios pty_initial{};  // the pseudo-terminal's settings as we left them
};

}  // namespace sim
