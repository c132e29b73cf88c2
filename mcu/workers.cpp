// Start and stop of the MCU link's workers.
#include <pthread.h>

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

// Workers start with cancellation off, so that a cancel can only land in
// the brackets above, where no lock or token is held.
struct start_args {
    routine fn;
    void* arg;
};

void* worker_entry(void* p)
{
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    start_args a = *static_cast<start_args*>(p);
    delete static_cast<start_args*>(p);
    return a.fn(a.arg);
}

void start_worker(pthread_t* handle, routine fn, void* arg)
{
    auto* a = new start_args{fn, arg};
    if (pthread_create(handle, nullptr, worker_entry, a) != 0) {
        // The daemon runs on without it; a zero handle keeps mcu_exit off it.
        delete a;
        *handle = pthread_t{};
    }
}

}  // namespace

int mcu_start_workers(int pipe_fd)
{
    start_worker(&mcu_state.audio_poll_thread, audio_poll_thread, nullptr);
    start_worker(&mcu_state.audio_pipe_thread, audio_pipe_thread,
                 reinterpret_cast<void*>(static_cast<intptr_t>(pipe_fd)));
    start_worker(&mcu_state.music_monitor_thread, music_monitor_thread, nullptr);
    mcu_state.workers_started = true;
    ota_start_listener();
    return send_record_state();
}

int mcu_exit()
{
    for (int line : {42, 43, 48}) gpio_set_value(line, 0);
    for (int line : {42, 43, 48}) gpio_unexport(line);
    if (mcu_state.workers_started) {
        for (pthread_t t : {mcu_state.audio_poll_thread, mcu_state.audio_pipe_thread,
                            mcu_state.music_monitor_thread}) {
            if (t == pthread_t{}) continue;
            pthread_cancel(t);
            pthread_join(t, nullptr);
        }
        mcu_state.workers_started = false;
    }
    sem_destroy(&mcu_state.audio_poll_sem);
    sem_destroy(&mcu_state.music_monitor_sem);
    pthread_mutex_destroy(&mcu_state.dsp_lock);
    pthread_mutex_destroy(&mcu_state.music_lock);
    pthread_mutex_destroy(&mcu_state.mode_lock);
    return 0;
}
