#include "core/dsp_queue.h"

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
