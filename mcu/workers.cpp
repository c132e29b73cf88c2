// Start and stop of the MCU link's workers, and their share of the port.
#include <array>
#include <pthread.h>

#include "core/protocol.h"
#include "mcu/gpio.h"
#include "mcu/handlers.h"
#include "mcu/mcu_state.h"
#include "update/ota.h"

void cancel_point_open()
{
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

void cancel_point_close()
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

namespace {

using routine = void* (*)(void*);

// Which of the three handles hold a thread: a failed creation leaves none,
// and nothing may cancel or join it.
constexpr std::array<pthread_t mcu_state_t::*, 3> worker_handles{
    &mcu_state_t::audio_poll_thread, &mcu_state_t::audio_pipe_thread, &mcu_state_t::music_monitor_thread};
std::array<bool, 3> worker_created;

// A worker writes its frame under port_lock, and only while port_taken is
// clear: once the firmware upload has set it, a pass that was already under
// way drops its frame instead of writing into the handshake.
thread_local bool on_worker;
pthread_mutex_t port_lock = PTHREAD_MUTEX_INITIALIZER;
bool port_taken;

// Workers start with cancellation off, so that a cancel can only land in
// the brackets above, where no lock or token is held.
struct start_args {
    routine fn;
    void* arg;
};

void* worker_entry(void* p)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    on_worker = true;
    start_args a = *static_cast<start_args*>(p);
    delete static_cast<start_args*>(p);
    return a.fn(a.arg);
}

void start_worker(size_t i, routine fn, void* arg)
{
    auto* a = new start_args{fn, arg};
    worker_created[i] = pthread_create(&(mcu_state.*worker_handles[i]), nullptr, worker_entry, a) == 0;
    // The daemon runs on without it.
    if (!worker_created[i]) delete a;
}

}  // namespace

long mcu_if_send(uintptr_t frame)
{
    if (!on_worker) return if_send(frame, 0);
    pthread_mutex_lock(&port_lock);
    long r = port_taken ? -1 : if_send(frame, 0);
    pthread_mutex_unlock(&port_lock);
    return r;
}

void mcu_workers_leave_port()
{
    pthread_mutex_lock(&port_lock);
    port_taken = true;
    pthread_mutex_unlock(&port_lock);
    // Nobody waits for them: detached, they leave nothing behind when they
    // end, and nothing joins or cancels them again.
    for (size_t i = 0; i < worker_handles.size(); ++i) {
        if (!worker_created[i]) continue;
        pthread_cancel(mcu_state.*worker_handles[i]);
        pthread_detach(mcu_state.*worker_handles[i]);
        worker_created[i] = false;
    }
}

int mcu_start_workers(int pipe_fd)
{
    start_worker(0, audio_poll_thread, nullptr);
    start_worker(1, audio_pipe_thread, reinterpret_cast<void*>(static_cast<intptr_t>(pipe_fd)));
    start_worker(2, music_monitor_thread, nullptr);
    ota_start_listener();
    return send_record_state();
}

int mcu_exit()
{
    for (int line : {42, 43, 48}) gpio_set_value(line, 0);
    for (int line : {42, 43, 48}) gpio_unexport(line);
    for (size_t i = 0; i < worker_handles.size(); ++i) {
        if (!worker_created[i]) continue;
        pthread_cancel(mcu_state.*worker_handles[i]);
        pthread_join(mcu_state.*worker_handles[i], nullptr);
        worker_created[i] = false;
    }
    sem_destroy(&mcu_state.audio_poll_sem);
    sem_destroy(&mcu_state.music_monitor_sem);
    pthread_mutex_destroy(&mcu_state.dsp_lock);
    pthread_mutex_destroy(&mcu_state.music_lock);
    pthread_mutex_destroy(&mcu_state.mode_lock);
    return 0;
}
