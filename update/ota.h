// The OTA path: package header, state frames, reception, the S8137 and MCU
// upgrades, and the MCU's OTA commands.
#pragma once
#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <sys/types.h>

#include "update/upgrade_format.h"

inline constexpr const char* OTA_PACKAGE_PATH = "/user/OTA_UPG.bin";
inline constexpr const char* OTA_PACKAGE_DIR = "/user";
inline constexpr const char* OTA_TMP_PATH = "/tmp/OTA_UPG.bin";
// The package stands here, in the package's file system, until it is whole.
inline constexpr const char* OTA_NEW_PATH = "/user/OTA_UPG.bin.tmp";
// Bound of the wait for the device to take "ok".
inline constexpr int OTA_OK_WAIT_MS = 2000;
inline constexpr const char* OTA_DEVICE_PATH = "/dev/vmb_ota";

// OTA state frame (0x23) values.
inline constexpr int OTA_STATE_FAIL = 2;
inline constexpr int OTA_STATE_RECEIVED = 3;
inline constexpr int OTA_STATE_EXIT = 4;
inline constexpr int OTA_STATE_S8137 = 5;

// Values of ota_info.result.
inline constexpr int OTA_RESULT_IO = 1;
inline constexpr int OTA_RESULT_BAD = 2;
inline constexpr int OTA_RESULT_GOOD = 4;
inline constexpr int OTA_RESULT_NO_FILE = 5;

struct ota_info_t {
    pthread_t listener_thread;
    uint8_t listener_started;
    uint8_t listener_joined;  // OTA exit cancels and joins once
    int32_t result;
    // The header fields are filled by the reception thread and by an S8137
    // upgrade on the main thread; header_lock keeps each read and use whole.
    pthread_mutex_t header_lock = PTHREAD_MUTEX_INITIALIZER;
    uint8_t header[8];
    uint8_t mcu_digest[12];
    uint32_t s8137_offset;  // 0: header not read yet
    uint32_t s8137_length;
    uint32_t crc_table[256];
    uint32_t crc_lanes[8][256];  // slicing tables built from crc_table, with it
};

extern ota_info_t ota_info;

int ota_read_header();
long send_ota_state(int state);

// CRC-32 in complemented form: the running value starts at 0 and the last
// value is the published CRC-32, with no final step. The byte table's entry 0
// is never 0.
void ota_crc_build_table(uint32_t table[256], uint32_t lanes[8][256]);
uint32_t ota_crc_update(const uint32_t table[256], const uint32_t lanes[8][256], uint32_t value, const uint8_t* data,
                        size_t len);

void* ota_receive_thread(void*);
void ota_start_listener();
int do_s8137_upgrade();
int mcu_firmware_upload();
// The reply to the READ request in buf (sum, data, padding up to 4), built in
// buf: its length, or -1 after the failure's line.
ssize_t mcu_read_reply(int pkg, uint8_t* buf);
