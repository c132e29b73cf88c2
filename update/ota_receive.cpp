// Reception of one OTA package from the SPI slave device.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "mcu/mcu_state.h"
#include "update/fd_io.h"
#include "update/ota.h"
#include "update/ota_internal.h"
#include "update/signature.h"

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

// CRC-32 of offsets 12 to the end of a stored package, and its LE field at
// 8. 0, or a result value with its line printed. The reads are cancellation
// points while checking, not once the delivery has begun.
int file_crc(int fd, uint8_t* buf, uint32_t& field, uint32_t& crc, bool cancellable)
{
    if (lseek(fd, OTA_CRC_POS, SEEK_SET) != OTA_CRC_POS) {
        puts("[MCU IF] receive OTA file failed: lseek");
        return OTA_RESULT_IO;
    }
    ssize_t r = read_full(fd, buf, 4);
    if (r != 4) {
        printf("[MCU IF] read OTA file CRC32 failed: %s\n", io_error_text(r));
        return OTA_RESULT_IO;
    }
    field = get_le32(buf);
    crc = 0;
    for (;;) {
        if (cancellable) cancel_point_open();
        r = read(fd, buf, OTA_BLOCK);
        if (cancellable) cancel_point_close();
        if (r < 0) {
            printf("[MCU IF] read OTA file failed: %s\n", strerror(errno));
            return OTA_RESULT_IO;
        }
        if (r == 0) break;
        // Built once, when a package with data has come; entry 0 is never 0.
        if (ota_info.crc_table[0] == 0) ota_crc_build_table(ota_info.crc_table, ota_info.crc_lanes);
        crc = ota_crc_update(ota_info.crc_table, ota_info.crc_lanes, crc, buf, static_cast<size_t>(r));
        if (r < static_cast<ssize_t>(OTA_BLOCK)) break;
    }
    return 0;
}

// Second pass over the stored file: true with the package CRC, or false
// with result set.
bool check_crc(int tmp, uint8_t* buf, uint32_t& package_crc)
{
    uint32_t crc;
    if (int r = file_crc(tmp, buf, package_crc, crc, true)) {
        fail(r);
        return false;
    }
    if (crc != package_crc) {
        printf("[MCU IF] OTA file CRC wrong: package CRC32 = %x, calculated CRC32 = %x\n", package_crc,
               crc);
        fail(OTA_RESULT_BAD);
        return false;
    }
    return true;
}

// With trusted keys, a package that none of them signed goes the way of a
// CRC mismatch: no "ok", state 2, the package in /user untouched.
bool check_signature(int tmp, uint8_t* buf)
{
    if (signature_accepts(tmp, signed_file::ota, buf, "OTA file")) return true;
    fail(OTA_RESULT_BAD);
    return false;
}

// "ok" to the device. A device that never takes it (a master that has gone)
// must not hold the thread: the wait for room is bounded, the write cannot
// block, and both are cancellation points, so OTA exit ends the thread here
// at once. Nothing is held, and "ok" has not been written when a cancel acts.
void tell_device_ok(int dev)
{
    int flags = fcntl(dev, F_GETFL);
    if (flags >= 0) fcntl(dev, F_SETFL, flags | O_NONBLOCK);
    pollfd p{dev, POLLOUT, 0};
    cancel_point_open();
    bool written = poll(&p, 1, OTA_OK_WAIT_MS) == 1 && write(dev, "ok", 2) == 2;
    cancel_point_close();
    // The sender's own time-out covers a lost "ok".
    if (!written) puts("[MCU IF] OTA device did not take \"ok\"");
}

bool move_failed(const char* why)
{
    printf("[MCU IF] move OTA file failed: %s\n", why);
    unlink(OTA_NEW_PATH);
    return false;
}

// The package goes to /user under a temporary name and replaces the old one
// only once it stands there whole, the same size and CRC as received and
// synced: a full or failing /user leaves the old package as it was.
bool move_package(int tmp, uint32_t package_crc, uint8_t* buf)
{
    // A left-over of an earlier failed move goes; were it a directory, mv
    // would put the package inside it.
    if (unlink(OTA_NEW_PATH) != 0 && errno != ENOENT) return move_failed(strerror(errno));
    char* command = reinterpret_cast<char*>(buf);
    snprintf(command, OTA_BLOCK, "mv %s %s", OTA_TMP_PATH, OTA_NEW_PATH);
    if (run_command(command) != 0) return move_failed("mv");
    unique_fd moved(open_regular(OTA_NEW_PATH, O_RDONLY));
    if (!moved) return move_failed(strerror(errno));
    struct stat received, stored;
    uint32_t field, crc;
    if (fstat(tmp, &received) != 0 || fstat(moved.get(), &stored) != 0 || received.st_size != stored.st_size)
        return move_failed("size");
    if (file_crc(moved.get(), buf, field, crc, false) != 0 || field != package_crc || crc != package_crc)
        return move_failed("CRC");
    if (fsync(moved.get()) != 0) return move_failed(strerror(errno));
    if (rename(OTA_NEW_PATH, OTA_PACKAGE_PATH) != 0) return move_failed(strerror(errno));
    unique_fd dir(open(OTA_PACKAGE_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir) fsync(dir.get());
    run_command("sync");
    return true;
}

void deliver(int dev, int tmp, uint32_t package_crc, uint8_t* buf)
{
    tell_device_ok(dev);
    puts("[MCU IF] receive OTA bin OK");
    if (!move_package(tmp, package_crc, buf)) {
        fail(OTA_RESULT_BAD);
        return;
    }
    ota_info.result = ota_read_header() == 0 ? OTA_RESULT_GOOD : OTA_RESULT_BAD;
}

// The result of the reception, or -1 when the device could not be opened.
int receive_package()
{
    uint8_t buf[OTA_BLOCK];
    cancel_point_open();
    int dev_fd = open(OTA_DEVICE_PATH, O_RDWR | O_CLOEXEC);
    cancel_point_close();
    unique_fd dev(dev_fd);
    if (!dev) {
        printf("[MCU IF] can not open OTA device: %s\n", strerror(errno));
        return -1;
    }
    unique_fd tmp(open_regular(OTA_TMP_PATH, O_RDWR | O_CREAT));
    if (!tmp) {
        printf("[MCU IF] can not open OTA file: %s\n", strerror(errno));
        return fail(OTA_RESULT_NO_FILE);
    }
    ota_info.result = 0;
    uint32_t package_crc;
    // Once "ok" is written the delivery and its frame go out whole.
    if (receive_blocks(dev.get(), tmp.get(), buf) == 0 && check_crc(tmp.get(), buf, package_crc) &&
        check_signature(tmp.get(), buf))
        deliver(dev.get(), tmp.get(), package_crc, buf);
    tmp.reset();
    dev.reset();
    return ota_info.result;
}

}  // namespace

void* ota_receive_thread(void*)
{
    // OTA exit cancels this thread and joins it. It is cancellable only at its
    // waits on the device (the open, the reads, the room for "ok") and on the
    // stored file, where unwinding just closes the two descriptors. From "ok"
    // on it runs to its end: the move, the header and the frame, none of which
    // waits on the device.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    int result = receive_package();
    if (result >= 0) send_ota_state(result == OTA_RESULT_GOOD ? OTA_STATE_RECEIVED : OTA_STATE_FAIL);
    return nullptr;
}
