// Readiness, status and watchdog notifications to a service manager (the
// systemd protocol: datagrams on the socket named by NOTIFY_SOCKET). Without
// NOTIFY_SOCKET in the environment every operation here does nothing.
#pragma once
#include <sys/time.h>

// Reads and clears NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, so that
// programs run through system() see none of them. Call before any thread.
void notify_init();

// The link serves: READY=1 with what it serves as STATUS=.
void notify_ready(const char* status);
// A STATUS= line on its own.
void notify_status(const char* status);

// For the main thread's wait loop. The time to wait before the next ping, in
// tv, or null (wait without limit) when no watchdog is asked for.
timeval* watchdog_wait_limit(timeval& tv);
// Sends WATCHDOG=1 when half the interval has passed since the last one.
void watchdog_feed_due();

// A long step that runs on the main thread on purpose (an upgrade that runs
// flashcp, the firmware upload and the state it ends in) is no hang: while
// one is held, a helper thread feeds the watchdog in the wait loop's place,
// and STATUS= says what runs. A DSP exchange must never run under it, so a
// service that never answers still stops the pings.
class watchdog_step {
public:
    explicit watchdog_step(const char* status);
    ~watchdog_step();
    watchdog_step(const watchdog_step&) = delete;
    watchdog_step& operator=(const watchdog_step&) = delete;

private:
    bool feeds_ = false;
};
