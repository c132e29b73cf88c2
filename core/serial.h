// The one serial port of the process and its raw read and write.
#pragma once
#include <cstddef>
#include <sys/types.h>

extern int serial_fd;

// One read / one write on serial_fd; short transfers are the caller's business.
ssize_t serial_read(void* buf, size_t len);
ssize_t serial_write(const void* buf, size_t len);

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
