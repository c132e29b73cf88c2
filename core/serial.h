// The one serial port of the process and its raw read and write.
#pragma once
#include <array>
#include <cstddef>
#include <sys/types.h>

extern int serial_fd;

// Path of the open port, for messages.
extern const char* serial_name;

// One read / one write on serial_fd; short transfers are the caller's business.
ssize_t serial_read(void* buf, size_t len);
ssize_t serial_write(const void* buf, size_t len);

// serial_read for the frame links. 0, EIO, ENXIO or ENODEV with the line
// gone (as poll tells it) mean the peer hung up (a pty's other side closed, a
// USB adapter pulled), and select would report the port readable for ever.
// That ends the process with one line and a failure status, so its
// supervisor starts it again once the device is back; worker threads writing
// to the port never meet a closed or reused descriptor. A read of 0 bytes on
// a live line (VMIN 0: a second without data) returns 0. Other failures,
// EINTR among them, are returned.
ssize_t serial_read_live(void* buf, size_t len);

// The port returns what has come, or 0 bytes after VTIME (VMIN 0).
bool serial_vmin_zero();

// The rates the daemon takes, with the Linux termios constants B9600 ...
// B4000000 for them; the simulators take the same.
struct serial_rate {
    int rate;
    int bits;
};
inline constexpr std::array<serial_rate, 18> serial_rates{{
    {9600, 0x000D},    {19200, 0x000E},   {38400, 0x000F},   {57600, 0x1001},
    {115200, 0x1002},  {230400, 0x1003},  {460800, 0x1004},  {500000, 0x1005},
    {576000, 0x1006},  {921600, 0x1007},  {1000000, 0x1008}, {1152000, 0x1009},
    {1500000, 0x100A}, {2000000, 0x100B}, {2500000, 0x100C}, {3000000, 0x100D},
    {3500000, 0x100E}, {4000000, 0x100F},
}};

// Speed bits of c_cflag for a supported rate, -1 for any other.
int baud_to_speed(int rate);

struct serial_options {
    char* port;  // heap copy of -p, null when not given
    int rts_cts;
    int two_stop_bits;
    int parity_on;
    int parity_odd;
    int parity_stick;
};
