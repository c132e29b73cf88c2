#include "core/serial.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

int serial_fd = -1;
const char* serial_name = "serial port";

ssize_t serial_read(void* buf, size_t len) { return read(serial_fd, buf, len); }

ssize_t serial_read_live(void* buf, size_t len)
{
    ssize_t r = read(serial_fd, buf, len);
    if (r > 0 || (r == 0 && len == 0)) return r;
    int err = r < 0 ? errno : 0;
    if (r < 0 && err != EIO && err != ENXIO && err != ENODEV) return r;
    printf("[MCUIF CORE] %s hung up (%s), exiting\n", serial_name, err ? strerror(err) : "end of file");
    fflush(stdout);
    // Worker threads may be inside an exchange or a write: leave without
    // running exit handlers or destructors under them.
    _exit(EXIT_FAILURE);
}

ssize_t serial_write(const void* buf, size_t len) { return write(serial_fd, buf, len); }

namespace {
struct rate_bits {
    int rate;
    int bits;
};
// The Linux termios constants B9600 ... B4000000.
constexpr std::array<rate_bits, 18> rate_table{{
    {9600, 0x000D},    {19200, 0x000E},   {38400, 0x000F},   {57600, 0x1001},
    {115200, 0x1002},  {230400, 0x1003},  {460800, 0x1004},  {500000, 0x1005},
    {576000, 0x1006},  {921600, 0x1007},  {1000000, 0x1008}, {1152000, 0x1009},
    {1500000, 0x100A}, {2000000, 0x100B}, {2500000, 0x100C}, {3000000, 0x100D},
    {3500000, 0x100E}, {4000000, 0x100F},
}};
}  // namespace

int baud_to_speed(int rate)
{
    for (const auto& r : rate_table)
        if (r.rate == rate) return r.bits;
    return -1;
}
