#include "core/trace.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

bool trace_on = false;

namespace {

// Beyond this much unwritten text (a file that stalls) records are counted
// instead of kept: the link must not grow the heap without bound.
constexpr size_t PENDING_MAX = 1 << 20;
constexpr size_t BYTES_PER_LINE = 32;

const char* trace_path = nullptr;
int file_fd = -1;
int wake_fd = -1;   // eventfd: something is pending
int hup_fd = -1;    // signalfd of SIGHUP
bool failing = false;

std::mutex pending_lock;
std::string pending;
size_t lost = 0;

// Only the writer thread and the process's last steps write the file.
std::mutex file_lock;

void open_file()
{
    if (file_fd >= 0) close(file_fd);
    file_fd = open(trace_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (file_fd < 0) {
        printf("[MCUIF CORE] trace %s: cannot open: %s\n", trace_path, strerror(errno));
        failing = true;
        return;
    }
    failing = false;
    static const char head[] = "# tty_hub port trace: seconds of the monotonic clock, rx read from the port, tx written\n";
    if (write(file_fd, head, sizeof head - 1) < 0) {
        printf("[MCUIF CORE] trace %s: cannot write: %s\n", trace_path, strerror(errno));
        failing = true;
    }
}

bool write_all(int fd, const char* p, size_t n)
{
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

void flush_pending()
{
    std::string out;
    size_t dropped;
    {
        std::lock_guard g(pending_lock);
        out.swap(pending);
        dropped = lost;
        lost = 0;
    }
    if (dropped) out += "# " + std::to_string(dropped) + " bytes not traced: the file fell behind\n";
    if (out.empty()) return;
    std::lock_guard g(file_lock);
    if (file_fd >= 0 && write_all(file_fd, out.data(), out.size())) {
        failing = false;
        return;
    }
    // Once per run of failures: the trace is lost, the link goes on.
    if (!failing) printf("[MCUIF CORE] trace %s: cannot write: %s\n", trace_path, file_fd < 0 ? "not open" : strerror(errno));
    failing = true;
}

void* writer(void*)
{
    pollfd fds[2] = {{wake_fd, POLLIN, 0}, {hup_fd, POLLIN, 0}};
    for (;;) {
        if (poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents & POLLIN) {
            signalfd_siginfo si;
            if (read(hup_fd, &si, sizeof si) > 0) {
                flush_pending();
                std::lock_guard g(file_lock);
                open_file();
            }
        }
        if (fds[0].revents & POLLIN) {
            uint64_t n;
            if (read(wake_fd, &n, sizeof n) < 0) continue;
            // Gather what a burst brings into one write.
            timespec gather{0, 10 * 1000 * 1000};
            nanosleep(&gather, nullptr);
            flush_pending();
        }
    }
}

}  // namespace

void trace_start(const char* path)
{
    trace_path = path;
    sigset_t hup;
    sigemptyset(&hup);
    sigaddset(&hup, SIGHUP);
    // Every thread made from here on inherits the block, so SIGHUP interrupts
    // no DSP exchange and reaches only the writer's signalfd.
    pthread_sigmask(SIG_BLOCK, &hup, nullptr);
    wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    hup_fd = signalfd(-1, &hup, SFD_CLOEXEC | SFD_NONBLOCK);
    if (wake_fd < 0 || hup_fd < 0) {
        printf("[MCUIF CORE] trace %s: cannot start: %s\n", path, strerror(errno));
        return;
    }
    open_file();
    pthread_t t;
    if (int err = pthread_create(&t, nullptr, writer, nullptr); err != 0) {
        printf("[MCUIF CORE] trace %s: cannot start: %s\n", path, strerror(err));
        return;
    }
    pthread_detach(t);
    trace_on = true;
}

void trace_bytes(trace_dir dir, const void* buf, size_t len)
{
    if (!trace_on || len == 0) return;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // Worker threads are cancelled in their port writes: not while they hold
    // the buffer's lock.
    int old;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    const auto* p = static_cast<const unsigned char*>(buf);
    std::string text;
    text.reserve(len * 3 + (len / BYTES_PER_LINE + 1) * 24);
    char head[40];
    int hn = snprintf(head, sizeof head, "%lld.%06ld %s", static_cast<long long>(now.tv_sec), now.tv_nsec / 1000,
                      dir == trace_dir::rx ? "rx" : "tx");
    static const char hex[] = "0123456789abcdef";
    for (size_t i = 0; i < len; ++i) {
        if (i % BYTES_PER_LINE == 0) {
            if (i) text += '\n';
            text.append(head, static_cast<size_t>(hn));
        }
        text += ' ';
        text += hex[p[i] >> 4];
        text += hex[p[i] & 15];
    }
    text += '\n';
    bool wake;
    {
        std::lock_guard g(pending_lock);
        wake = pending.empty();
        if (pending.size() + text.size() > PENDING_MAX)
            lost += len;
        else
            pending += text;
    }
    if (wake) {
        uint64_t one = 1;
        if (write(wake_fd, &one, sizeof one) < 0) {
            // Already signalled to the limit: the writer is on its way.
        }
    }
    pthread_setcancelstate(old, nullptr);
}

ssize_t trace_write(int fd, const void* buf, size_t len)
{
    static std::mutex wire_order;
    int old;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    ssize_t r;
    {
        std::lock_guard g(wire_order);
        r = write(fd, buf, len);
        int err = errno;
        if (r > 0) trace_bytes(trace_dir::tx, buf, static_cast<size_t>(r));
        errno = err;
    }
    pthread_setcancelstate(old, nullptr);
    return r;
}

void trace_flush_now()
{
    if (trace_on) flush_pending();
}
