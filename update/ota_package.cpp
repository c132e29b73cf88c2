// The global record of the OTA path, the package header and the OTA state frame.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "mcu/mcu_frame.h"
#include "update/fd_io.h"
#include "update/ota.h"
#include "update/ota_internal.h"

ota_info_t ota_info;

const char* io_error_text(ssize_t r) { return r < 0 ? strerror(errno) : "unexpected end of file"; }

header_guard::header_guard() { pthread_mutex_lock(&ota_info.header_lock); }
header_guard::~header_guard() { pthread_mutex_unlock(&ota_info.header_lock); }

int ota_read_header_locked()
{
    unique_fd fd(open(OTA_PACKAGE_PATH, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        printf("[MCU IF] can not open OTA file: %s\n", strerror(errno));
        return -1;
    }
    // Each field is stored as soon as it has come whole.
    ssize_t r = read_full(fd.get(), ota_info.header, sizeof ota_info.header);
    if (r != sizeof ota_info.header) {
        printf("[MCU IF] read OTA file header failed: %s\n", io_error_text(r));
        return -1;
    }
    if (lseek(fd.get(), OTA_DIGEST_POS, SEEK_SET) != OTA_DIGEST_POS) {
        puts("[MCU IF] read OTA file MCU digest failed: lseek");
        return -1;
    }
    r = read_full(fd.get(), ota_info.mcu_digest, sizeof ota_info.mcu_digest);
    if (r != sizeof ota_info.mcu_digest) {
        printf("[MCU IF] read OTA file MCU digest failed: %s\n", io_error_text(r));
        return -1;
    }
    uint8_t word[4];
    r = read_full(fd.get(), word, 4);
    if (r != 4) {
        printf("[MCU IF] read OTA file S8137 offset failed: %s\n", io_error_text(r));
        return -1;
    }
    ota_info.s8137_offset = get_le32(word);
    r = read_full(fd.get(), word, 4);
    if (r != 4) {
        printf("[MCU IF] read OTA file S8137 length failed: %s\n", io_error_text(r));
        return -1;
    }
    ota_info.s8137_length = get_le32(word);
    return 0;
}

int ota_read_header()
{
    header_guard lock;
    return ota_read_header_locked();
}

long send_ota_state(int state)
{
    uint8_t payload[12] = {};
    payload[0] = static_cast<uint8_t>(state);
    if (state == OTA_STATE_RECEIVED) {
        header_guard lock;
        memcpy(payload + 1, ota_info.mcu_digest, 8);
    } else if (state != OTA_STATE_EXIT && state != OTA_STATE_S8137) {
        memcpy(payload + 1, "RP_FAIL!", 8);
    }
    return mcu_send(MCU_RPT_OTA, payload, sizeof payload);
}
