// Reception of one OTA package from the SPI slave device.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "mcu/mcu_state.h"
#include "update/fd_io.h"
#include "update/ota.h"
#include "update/ota_internal.h"

namespace {

int fail(int result)
{
    ota_info.result = result;
    return result;
}

// Device reads until a short one, each block written to the temporary file.
int receive_blocks(int dev, int tmp, uint8_t* buf)
{
    for (;;) {
        cancel_point_open();
        ssize_t got = read(dev, buf, OTA_BLOCK);
        cancel_point_close();
        if (got < 0) {
            printf("[MCU IF] read OTA dev failed: %s\n", strerror(errno));
            return fail(OTA_RESULT_IO);
        }
        // A zero-byte block (a package of a multiple of 4096) is written too.
        if (write(tmp, buf, static_cast<size_t>(got)) != got) {
            puts("[MCU IF] write OTA file error");
            return fail(OTA_RESULT_IO);
        }
        if (got != static_cast<ssize_t>(OTA_BLOCK)) return 0;
    }
}

// Second pass over the stored file: CRC-32 of offsets 12 to the end against
// the LE field at 8.
int check_crc(int tmp, uint8_t* buf)
{
    if (lseek(tmp, 8, SEEK_SET) != 8) {
        puts("[MCU IF] receive OTA file failed: lseek");
        return fail(OTA_RESULT_IO);
    }
    ssize_t r = read_full(tmp, buf, 4);
    if (r != 4) {
        printf("[MCU IF] read OTA file CRC32 failed: %s\n", io_error_text(r));
        return fail(OTA_RESULT_IO);
    }
    uint32_t package_crc = get_le32(buf);
    uint32_t crc = 0;
    for (;;) {
        cancel_point_open();
        r = read(tmp, buf, OTA_BLOCK);
        cancel_point_close();
        if (r < 0) {
            printf("[MCU IF] read OTA file failed: %s\n", strerror(errno));
            return fail(OTA_RESULT_IO);
        }
        if (r == 0) break;
        // Built once, when a package with data has come; entry 0 is never 0.
        if (ota_info.crc_table[0] == 0) ota_crc_build_table(ota_info.crc_table, ota_info.crc_lanes);
        crc = ota_crc_update(ota_info.crc_table, ota_info.crc_lanes, crc, buf, static_cast<size_t>(r));
        if (r < static_cast<ssize_t>(OTA_BLOCK)) break;
    }
    if (crc != package_crc) {
        printf("[MCU IF] OTA file CRC wrong: package CRC32 = %x, calculated CRC32 = %x\n", package_crc,
               crc);
        return fail(OTA_RESULT_BAD);
    }
    return 0;
}

void deliver(int dev, char* buf)
{
    if (write(dev, "ok", 2) < 0) {
        // The sender's own time-out covers a lost "ok".
    }
    puts("[MCU IF] receive OTA bin OK");
    snprintf(buf, OTA_BLOCK, "mv %s %s", OTA_TMP_PATH, OTA_PACKAGE_PATH);
    run_command(buf);
    run_command("sync");
    ota_info.result = ota_read_header() == 0 ? OTA_RESULT_GOOD : OTA_RESULT_BAD;
}

// The result of the reception, or -1 when the device could not be opened.
int receive_package()
{
    uint8_t buf[OTA_BLOCK];
    unique_fd dev(open(OTA_DEVICE_PATH, O_RDWR));
    if (!dev) {
        printf("[MCU IF] can not open OTA device: %s\n", strerror(errno));
        return -1;
    }
    unique_fd tmp(open(OTA_TMP_PATH, O_RDWR | O_CREAT, 0644));
    if (!tmp) {
        printf("[MCU IF] can not open OTA file: %s\n", strerror(errno));
        return fail(OTA_RESULT_NO_FILE);
    }
    ota_info.result = 0;
    if (receive_blocks(dev.get(), tmp.get(), buf) == 0 && check_crc(tmp.get(), buf) == 0) {
        // A pending OTA exit stops here; once "ok" is written the delivery
        // and its frame go out whole.
        cancel_point_open();
        pthread_testcancel();
        cancel_point_close();
        deliver(dev.get(), reinterpret_cast<char*>(buf));
    }
    tmp.reset();
    dev.reset();
    return ota_info.result;
}

}  // namespace

void* ota_receive_thread(void*)
{
    // OTA exit cancels this thread. It is cancellable only at its waits on the
    // device and the file, where unwinding just closes the two descriptors.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    int result = receive_package();
    if (result >= 0) send_ota_state(result == OTA_RESULT_GOOD ? OTA_STATE_RECEIVED : OTA_STATE_FAIL);
    return nullptr;
}
