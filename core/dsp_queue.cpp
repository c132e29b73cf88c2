#include "core/dsp_queue.h"

#include <cstdio>
#include <ctime>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

int dsp_queue_attach()
{
    key_t key = ftok(DSP_QUEUE_PATH, DSP_QUEUE_PROJECT);
    time_t t0 = time(nullptr);
    for (;;) {
        time_t t = time(nullptr);
        int id = msgget(key, 0666);
        if (id >= 0) return (t - t0 <= 3) ? id : -1;
        usleep(1000);
        if (t - t0 > 3) return -1;
    }
}

size_t dsp_format_request(dsp_message& msg, const char* fmt, va_list ap)
{
    int n = vsnprintf(msg.text, sizeof msg.text, fmt, ap);
    size_t len = 0;
    if (n < 0)
        msg.text[0] = '\0';
    else
        len = static_cast<size_t>(n) < sizeof msg.text ? static_cast<size_t>(n) : sizeof msg.text - 1;
    msg.type = DSP_REQUEST_TYPE;
    return len + 1;
}

void dsp_end_response(dsp_message& msg, ssize_t r)
{
    msg.text[static_cast<size_t>(r) < sizeof msg.text ? static_cast<size_t>(r) : sizeof msg.text - 1] = '\0';
}
