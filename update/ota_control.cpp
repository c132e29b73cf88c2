// Command 14 of the MCU link, and the start of the OTA listener.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

#include "core/notify.h"
#include "mcu/handlers.h"
#include "update/ota.h"
#include "update/ota_internal.h"

int run_command(const char* command) { return system(command); }

bool run_ok(const char* command)
{
    int status = system(command);
    return status >= 0 && ((status >> 8) & 0xFF) == 0;
}

void ota_start_listener()
{
    run_command("modprobe spi-slave-vmb");
    int err = pthread_create(&ota_info.listener_thread, nullptr, ota_receive_thread, nullptr);
    if (err != 0) {
        // The flag stays 0, so a later OTA start tries again.
        printf("[MCU IF] can not create thread to receive OTA package: %s\n", strerror(err));
        return;
    }
    ota_info.listener_started = 1;
}

int handler_ota_control(const uint8_t* p, uint8_t)
{
    switch (p[0]) {
    case 1:
        puts("[MCU IF] OTA start");
        if (!ota_info.listener_started) ota_start_listener();
        break;
    case 3:
        puts("[MCU IF] OTA exit");
        if (ota_info.listener_started && !ota_info.listener_joined) {
            pthread_cancel(ota_info.listener_thread);
            pthread_join(ota_info.listener_thread, nullptr);
            ota_info.listener_joined = 1;
        }
        send_ota_state(OTA_STATE_EXIT);
        break;
    case 5:
        puts("[MCU IF] OTA upgrade S8137");
        send_ota_state(OTA_STATE_S8137);
        {
            // /bin/ota_upg may take long; the record state query after it
            // is a DSP exchange and runs under the wait loop's watch again.
            watchdog_step step("S8137 upgrade running");
            do_s8137_upgrade();
        }
        send_record_state();
        break;
    case 6:
        puts("[MCU IF] OTA upgrade MCU");
        {
            // Once the MCU answers, the upload and the state it ends in
            // never come back to the wait loop.
            watchdog_step step("MCU firmware upload running");
            mcu_firmware_upload();
        }
        break;
    case 0x23:
        // The id of the OTA state frame, echoed back: nothing to do.
        break;
    default:
        puts("[MCU IF] unknown OTA control command");
        break;
    }
    return 0;
}
