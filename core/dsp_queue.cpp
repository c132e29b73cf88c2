#include "core/dsp_queue.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

namespace {
key_t dsp_queue_key() { return ftok(DSP_QUEUE_PATH, DSP_QUEUE_PROJECT); }
}  // namespace

int dsp_queue_attach()
{
    key_t key = dsp_queue_key();
    time_t t0 = time(nullptr);
    for (;;) {
        time_t t = time(nullptr);
        int id = msgget(key, 0666);
        if (id >= 0) return (t - t0 <= 3) ? id : -1;
        usleep(1000);
        if (t - t0 > 3) return -1;
    }
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
