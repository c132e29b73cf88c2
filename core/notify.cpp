#include "core/notify.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using steady = std::chrono::steady_clock;

int notify_fd = -1;
sockaddr_un notify_addr{};
socklen_t notify_addr_len = 0;
// Half the watchdog interval; zero when no watchdog is asked for.
steady::duration ping_every{};
steady::time_point next_ping{};
std::string serving_status;

void send_state(const std::string& text)
{
    if (notify_fd < 0) return;
    // A service manager that is gone or busy costs nothing but the message.
    sendto(notify_fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&notify_addr), notify_addr_len);
}

void ping()
{
    send_state("WATCHDOG=1");
    next_ping = steady::now() + ping_every;
}

// The helper of a held step: pings until the step ends.
struct step_feeder {
    std::mutex m;
    std::condition_variable cv;
    bool stop = false;
    std::thread t;
};
step_feeder* feeder = nullptr;

}  // namespace

void notify_init()
{
    const char* sock = getenv("NOTIFY_SOCKET");
    const char* usec = getenv("WATCHDOG_USEC");
    const char* pid = getenv("WATCHDOG_PID");
    // A watchdog meant for another process (a parent that set it) is not ours.
    bool ours = !pid || strtol(pid, nullptr, 10) == static_cast<long>(getpid());
    if (sock && (sock[0] == '/' || sock[0] == '@') && strlen(sock) < sizeof notify_addr.sun_path) {
        notify_addr.sun_family = AF_UNIX;
        size_t len = strlen(sock);
        memcpy(notify_addr.sun_path, sock, len);
        // An abstract name: a leading 0 byte, and the length says where it ends.
        if (sock[0] == '@') notify_addr.sun_path[0] = '\0';
        notify_addr_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + len + (sock[0] == '/'));
        notify_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (notify_fd < 0) printf("[MCUIF CORE] notification socket: %s\n", strerror(errno));
    } else if (sock) {
        printf("[MCUIF CORE] NOTIFY_SOCKET %s is not a socket path this daemon can use\n", sock);
    }
    char* end = nullptr;
    unsigned long long us = usec ? strtoull(usec, &end, 10) : 0;
    // Beyond twelve days is no watchdog worth the arithmetic's overflow.
    us = std::min(us, 1ULL << 40);
    // A ping at most every millisecond: an absurdly short interval must not
    // turn the wait loop into a spin.
    if (notify_fd >= 0 && ours && us > 0 && end && *end == '\0')
        ping_every = std::max<steady::duration>(std::chrono::microseconds(us / 2), std::chrono::milliseconds(1));
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}

void notify_ready(const char* status)
{
    if (notify_fd < 0) return;
    serving_status = status;
    send_state("READY=1\nSTATUS=" + serving_status);
    if (ping_every.count() > 0) ping();
}

void notify_status(const char* status)
{
    if (notify_fd >= 0) send_state(std::string("STATUS=") + status);
}

timeval* watchdog_wait_limit(timeval& tv)
{
    if (ping_every.count() <= 0) return nullptr;
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(next_ping - steady::now());
    if (left.count() < 0) left = {};
    tv.tv_sec = static_cast<time_t>(left.count() / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(left.count() % 1000000);
    return &tv;
}

void watchdog_feed_due()
{
    if (ping_every.count() > 0 && steady::now() >= next_ping) ping();
}

watchdog_step::watchdog_step(const char* status)
{
    if (notify_fd < 0) return;
    notify_status(status);
    if (ping_every.count() <= 0 || feeder) return;
    feeds_ = true;
    feeder = new step_feeder;
    feeder->t = std::thread([f = feeder] {
        std::unique_lock lock(f->m);
        for (;;) {
            send_state("WATCHDOG=1");
            if (f->cv.wait_for(lock, ping_every, [f] { return f->stop; })) return;
        }
    });
}

watchdog_step::~watchdog_step()
{
    if (notify_fd < 0) return;
    if (feeds_) {
        {
            std::lock_guard lock(feeder->m);
            feeder->stop = true;
        }
        feeder->cv.notify_one();
        feeder->t.join();
        delete feeder;
        feeder = nullptr;
        // The wait loop takes over from a fresh ping.
        ping();
    }
    if (!serving_status.empty()) notify_status(serving_status.c_str());
}
