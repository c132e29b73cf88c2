#include "core/serial.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

ssize_t serial_read_live(void* buf, size_t len)
{
    ssize_t r = serial_read(buf, len);
    if (r > 0 || (r == 0 && len == 0)) return r;
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
    ssize_t r = write(serial_fd, buf, len);
    if (r > 0) trace_bytes(trace_dir::tx, buf, static_cast<size_t>(r));
    return r;
}

int baud_to_speed(int rate)
{
    for (const auto& r : serial_rates)
        if (r.rate == rate) return r.bits;
    return -1;
}
