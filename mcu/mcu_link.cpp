// MCU link set-up and its one way to the DSP service.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/protocol.h"
#include "mcu/gpio.h"
#include "mcu/mcu_frame.h"
#include "mcu/mcu_state.h"

mcu_state_t mcu_state;

thread_local char dsp_reply[DSP_TEXT_MAX];

namespace {

// Holds dsp_lock for one exchange, released on every path.
class dsp_lock_guard {
public:
    dsp_lock_guard() { pthread_mutex_lock(&mcu_state.dsp_lock); }
    ~dsp_lock_guard() { pthread_mutex_unlock(&mcu_state.dsp_lock); }
    dsp_lock_guard(const dsp_lock_guard&) = delete;
    dsp_lock_guard& operator=(const dsp_lock_guard&) = delete;
};

constexpr int GPIO_LINES[] = {42, 43, 48};

}  // namespace

int dsp_cmd(dsp_reply_fn cb, const char* fmt, ...)
{
    dsp_lock_guard lock;
    dsp_message& msg = mcu_state.dsp_msg;

    va_list ap;
    va_start(ap, fmt);
    size_t size = dsp_format_request(msg, fmt, ap);
    va_end(ap);
    switch (dsp_exchange(mcu_state.dsp_queue_id, msg, size, true)) {
    case dsp_step::send_failed:
        puts("[MCU IF] send dsp command failed");
        return -1;
    case dsp_step::receive_failed:
        puts("[MCU IF] receive dsp command response failed");
        return -1;
    case dsp_step::done:
        break;
    }
    if (!cb) return 0;
    return cb(msg.text, strlen(msg.text));
}

int dsp_reply_ok(const char* text, size_t)
{
    if (!strcmp(text, "[ok]")) return 0;
    puts("[MCU IF] command failed");
    return -1;
}

int dsp_reply_int(const char* text, size_t)
{
    const char* colon = strrchr(text, ':');
    if (!colon) return -1;
    return static_cast<int>(strtol(colon + 1, nullptr, 10));
}

int dsp_reply_copy(const char* text, size_t len)
{
    memset(dsp_reply, 0, sizeof dsp_reply);
    if (len > sizeof dsp_reply - 1) len = sizeof dsp_reply - 1;
    memcpy(dsp_reply, text, len);
    return 0;
}

int mcu_init()
{
    int id = dsp_queue_attach();
    if (id < 0) {
        puts("[MCU IF] Cannot get the message queue");
        return -1;
    }
    mcu_state.dsp_queue_id = id;

    if (mkfifo("/tmp/mcu_if_pipe", 0666) != 0) {
        puts("[MCU IF] Cannot create pipe file");
        return -1;
    }
    int pipe_fd = open("/tmp/mcu_if_pipe", O_RDWR | O_CLOEXEC);
    if (pipe_fd < 0) {
        puts("[MCU IF] Cannot open pipe file");
        return -1;
    }
    mcu_state.pipe_fd = pipe_fd;

    for (int line : GPIO_LINES) gpio_export(line);
    for (int line : GPIO_LINES) gpio_set_direction(line, line != 48);
    for (int line : GPIO_LINES) gpio_set_value(line, 0);

    pthread_mutex_init(&mcu_state.dsp_lock, nullptr);
    pthread_mutex_init(&mcu_state.music_lock, nullptr);
    pthread_mutex_init(&mcu_state.mode_lock, nullptr);
    sem_init(&mcu_state.audio_poll_sem, 0, 0);
    sem_init(&mcu_state.music_monitor_sem, 0, 0);

    return mcu_start_workers(pipe_fd);
}

if_protocol mcu_vmb_protocol = {
    nullptr, PROTO_MCU, mcu_init, mcu_exit, mcu_recv, mcu_pack, mcu_free, mcu_parse,
};
