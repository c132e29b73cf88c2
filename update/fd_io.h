// Descriptor ownership and whole-count transfers for the firmware paths.
#pragma once
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/byte_order.h"
#include "core/work_file.h"

// Owns one descriptor. The close in the destructor runs with cancellation
// disabled: close is a cancellation point, and a cancel acted on inside a
// destructor would end the process instead of unwinding the thread.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    void reset()
    {
        if (fd_ < 0) return;
        int old;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
        ::close(fd_);
        pthread_setcancelstate(old, nullptr);
        fd_ = -1;
    }

private:
    int fd_;
};

// Package, image and USB file positions are sums of two 32-bit numbers.
static_assert(sizeof(off_t) >= 8, "build with _FILE_OFFSET_BITS=64");

// base + offset as a file position; up to 2^33 - 2, which no off_t wraps.
constexpr off_t file_pos(uint32_t base, uint32_t offset) { return off_t{base} + off_t{offset}; }

// Opens a file that must be a regular one (the stored package): a symbolic
// link is not followed, and anything but a regular file (a FIFO, a device
// node, a directory) is refused with EINVAL. Close-on-exec, like every
// descriptor of the daemon; O_NONBLOCK keeps a FIFO or device from holding
// up the open and does nothing to a regular file.
inline int open_regular(const char* path, int flags, mode_t mode = 0644)
{
    int fd = ::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

// Reads until count bytes have come or the file ends. Returns the bytes got
// (fewer than count only at the end of the file) or -1.
inline ssize_t read_full(int fd, void* buf, size_t count)
{
    size_t got = 0;
    while (got < count) {
        ssize_t r = ::read(fd, static_cast<uint8_t*>(buf) + got, count - got);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

// Writes all count bytes; false on an error or a write that makes no progress.
inline bool write_full(int fd, const void* buf, size_t count)
{
    size_t done = 0;
    while (done < count) {
        ssize_t w = ::write(fd, static_cast<const uint8_t*>(buf) + done, count - done);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        done += static_cast<size_t>(w);
    }
    return true;
}
