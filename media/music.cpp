// Tone and music playback.
#include <unistd.h>

#include "mcu/handlers.h"
#include "mcu/mcu_state.h"

void* music_monitor_thread(void*)
{
    uint8_t payload[12] = {};
    for (;;) {
        cancel_point_open();
        usleep(500000);
        sem_wait(&mcu_state.music_monitor_sem);
        cancel_point_close();
        pthread_mutex_lock(&mcu_state.music_lock);
        if (mcu_state.music_state == 1) {
            int state = dsp_cmd(dsp_reply_int, "dsp rec musicState\n");
            if (state != 1) {
                mcu_state.music_state = state;
                get_audio_info(payload);
                send_audio_info(payload);
            }
        }
        pthread_mutex_unlock(&mcu_state.music_lock);
        sem_post(&mcu_state.music_monitor_sem);
    }
    return nullptr;
}
