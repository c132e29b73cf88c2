#include "core/dsp_queue.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <unistd.h>

#include "core/clock.h"

namespace {
key_t dsp_queue_key() { return ftok(DSP_QUEUE_PATH, DSP_QUEUE_PROJECT); }

// The exchange lock. A process has one exchange out at a time (the MCU
// link's dsp_lock, the tool link's one thread), so these need no lock of
// their own.
bool lock_set;
key_t lock_key;
int lock_id = -1;
bool lock_reported;

union semun_arg {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// The semaphore, made if missing: a new one holds 0, which is free. One that
// another user made or may change could be held by that user for ever, so it
// is removed and made anew, ours alone.
int lock_open()
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        int id = semget(lock_key, 1, IPC_CREAT | 0600);
        if (id < 0) return -1;
        semid_ds ds{};
        semun_arg arg{};
        arg.buf = &ds;
        if (semctl(id, 0, IPC_STAT, arg) != 0) continue;
        uid_t me = geteuid();
        auto trusted = [me](uid_t u) { return u == 0 || u == me; };
        if (trusted(ds.sem_perm.uid) && trusted(ds.sem_perm.cuid) && !(ds.sem_perm.mode & 0022)) return id;
        if (semctl(id, 0, IPC_RMID) != 0) return -1;
    }
    return -1;
}

// Free is 0: wait for 0 and make it 1 in one step. SEM_UNDO gives it back
// if the process dies holding it. Without the semaphore the exchange goes
// on unlocked, as a single daemon needs no lock, and says so once.
bool lock_take()
{
    if (!lock_set) return false;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (lock_id < 0) lock_id = lock_open();
        if (lock_id < 0) break;
        sembuf take[2] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
        int r;
        while ((r = semop(lock_id, take, 2)) != 0 && errno == EINTR) {
        }
        if (r == 0) return true;
        if (errno != EIDRM && errno != EINVAL) break;
        lock_id = -1;  // removed meanwhile: made again
    }
    if (!lock_reported) {
        printf("[MCUIF CORE] DSP exchanges are not locked against other processes: %s\n", strerror(errno));
        lock_reported = true;
    }
    return false;
}

void lock_give()
{
    sembuf give = {0, -1, SEM_UNDO | IPC_NOWAIT};
    semop(lock_id, &give, 1);
}

// Held for one send and its receive. Worker threads run exchanges with
// cancellation disabled, so no cancel can leave it taken.
class exchange_lock {
public:
    exchange_lock() : held_(lock_take()) {}
    ~exchange_lock()
    {
        int saved = errno;
        if (held_) lock_give();
        errno = saved;
    }
    exchange_lock(const exchange_lock&) = delete;
    exchange_lock& operator=(const exchange_lock&) = delete;
    explicit operator bool() const { return held_; }

private:
    bool held_;
};

// A response that is on the queue before our request has gone out answers a
// request whose sender died before its receive. Its text is not wanted.
void drop_stale_responses(int id)
{
    struct {
        long type;
        char text[1];
    } stale;
    while (msgrcv(id, &stale, 0, DSP_RESPONSE_TYPE, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
}

}  // namespace

int dsp_exchange_lock_setup(key_t key)
{
    lock_set = true;
    lock_key = key;
    lock_id = lock_open();
    return lock_id;
}

int dsp_queue_attach()
{
    key_t key = dsp_queue_key();
    time_t t0 = monotonic_seconds();
    for (;;) {
        time_t t = monotonic_seconds();
        int id = msgget(key, 0666);
        if (id >= 0) {
            if (t - t0 > 3) return -1;
            dsp_exchange_lock_setup(ftok(DSP_QUEUE_PATH, DSP_LOCK_PROJECT));
            return id;
        }
        usleep(1000);
        if (t - t0 > 3) return -1;
    }
}

dsp_step dsp_exchange(int& id, dsp_message& msg, size_t size, bool retry_eintr)
{
    dsp_queue_reattach(id);
    exchange_lock lock;
    if (lock) drop_stale_responses(id);
    while (msgsnd(id, &msg, size, 0) < 0) {
        if (errno == EINTR && retry_eintr) continue;
        dsp_queue_failed(id);
        return dsp_step::send_failed;
    }
    while (dsp_receive(id, msg) < 0) {
        if (errno == EINTR && retry_eintr) continue;
        dsp_queue_failed(id);
        return dsp_step::receive_failed;
    }
    return dsp_step::done;
}

void dsp_queue_failed(int& id)
{
    if (errno == EIDRM || errno == EINVAL) id = -1;
}

void dsp_queue_reattach(int& id)
{
    if (id < 0) id = msgget(dsp_queue_key(), 0666);
}

size_t dsp_format_request(dsp_message& msg, const char* fmt, va_list ap)
{
    int n = vsnprintf(msg.text, DSP_TEXT_MAX, fmt, ap);
    size_t len = 0;
    if (n < 0)
        msg.text[0] = '\0';
    else
        len = static_cast<size_t>(n) < DSP_TEXT_MAX ? static_cast<size_t>(n) : DSP_TEXT_MAX - 1;
    msg.type = DSP_REQUEST_TYPE;
    return len + 1;
}

ssize_t dsp_receive(int id, dsp_message& msg)
{
    ssize_t r = msgrcv(id, &msg, sizeof msg.text, DSP_RESPONSE_TYPE, MSG_NOERROR);
    if (r < 0) return r;
    if (static_cast<size_t>(r) > DSP_TEXT_MAX) {
        errno = E2BIG;
        return -1;
    }
    msg.text[static_cast<size_t>(r) < DSP_TEXT_MAX ? static_cast<size_t>(r) : DSP_TEXT_MAX - 1] = '\0';
    return r;
}
