// The one serial port of the process and its raw read and write.
#pragma once
#include <cstddef>
#include <sys/types.h>

extern int serial_fd;

// Path of the open port, for messages.
extern const char* serial_name;

// One read / one write on serial_fd; short transfers are the caller's business.
ssize_t serial_read(void* buf, size_t len);
ssize_t serial_write(const void* buf, size_t len);

// serial_read for the frame links. Set up by main (VMIN 64, VTIME 1), the
// port never gives 0 bytes while the line is there: 0, EIO, ENXIO or ENODEV
// mean the peer hung up (a pty's other side closed, a USB adapter pulled),
// and select would report the port readable for ever. That ends the process
// with one line and a failure status, so its supervisor starts it again once
// the device is back; worker threads writing to the port never meet a closed
// or reused descriptor. Other failures, EINTR among them, are returned.
ssize_t serial_read_live(void* buf, size_t len);

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
