#include "core/serial.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "core/trace.h"

int serial_fd = -1;
const char* serial_name = "serial port";

ssize_t serial_read(void* buf, size_t len)
{
    ssize_t r = read(serial_fd, buf, len);
    if (r > 0) trace_bytes(trace_dir::rx, buf, static_cast<size_t>(r));
    return r;
}

namespace {

// What the kernel says of the line after a read of 0 bytes. With VMIN 0 (the
// port after a failed firmware handshake) such a read is only a second
// without data; a line that is gone shows in poll as POLLHUP or POLLERR. With
// VMIN above 0 a read returns 0 only at the end of the line, and so does a
// descriptor that is no terminal.
bool line_gone()
{
    pollfd p{serial_fd, POLLIN, 0};
    if (poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL))) return true;
    return !serial_vmin_zero();
}

}  // namespace

bool serial_vmin_zero()
{
    termios tio;
    return tcgetattr(serial_fd, &tio) == 0 && tio.c_cc[VMIN] == 0;
}

ssize_t serial_read_live(void* buf, size_t len)
{
    ssize_t r = serial_read(buf, len);
    if (r > 0 || (r == 0 && (len == 0 || !line_gone()))) return r;
    int err = r < 0 ? errno : 0;
    if (r < 0 && err != EIO && err != ENXIO && err != ENODEV) return r;
    printf("[MCUIF CORE] %s hung up (%s), exiting\n", serial_name, err ? strerror(err) : "end of file");
    trace_flush_now();
    fflush(stdout);
    // Worker threads may be inside an exchange or a write: leave without
    // running exit handlers or destructors under them.
    _exit(EXIT_FAILURE);
}

ssize_t serial_write(const void* buf, size_t len)
{
    if (trace_on) return trace_write(serial_fd, buf, len);
    return write(serial_fd, buf, len);
}

int baud_to_speed(int rate)
{
    for (const auto& r : serial_rates)
        if (r.rate == rate) return r.bits;
    return -1;
}
