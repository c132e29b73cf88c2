// Upload of the MCU's firmware out of the OTA package over the serial port.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "core/serial.h"
#include "mcu/mcu_state.h"
#include "core/byte_order.h"
#include "update/fd_io.h"
#include "update/ota.h"
#include "update/signature.h"

namespace {

constexpr size_t MSG_SIZE = 12;
constexpr uint32_t WHOLE_PACKAGE = 0xFFFFFFFF;
constexpr int HANDSHAKE_ATTEMPTS = 5;

void set_port(bool handshake)
{
    termios tio;
    // Not a terminal: nothing to change, and nothing defined to write back.
    if (tcgetattr(serial_fd, &tio) != 0) return;
    if (handshake) cfsetspeed(&tio, B460800);
    tio.c_cc[VMIN] = handshake ? 0 : MSG_SIZE;
    tio.c_cc[VTIME] = handshake ? 10 : 0;
    tcflush(serial_fd, TCIOFLUSH);
    tcsetattr(serial_fd, TCSANOW, &tio);
}

// The daemon has nothing left to do: wait without using the processor.
[[noreturn]] void park()
{
    for (;;) pause();
}

// Up to five calls, each answered within a second or dropped. True when a
// whole READ request has come; it stays in buf.
bool handshake(uint8_t* buf)
{
    for (int attempt = 0; attempt < HANDSHAKE_ATTEMPTS; ++attempt) {
        if (serial_write("UART_UPDATA!", MSG_SIZE) < 0) {
            puts("[MCU IF] write \"UART_UPDATA!\" failed");
            continue;
        }
        if (serial_read(buf, MSG_SIZE) == static_cast<ssize_t>(MSG_SIZE) && !memcmp(buf, "READ", 4))
            return true;
    }
    return false;
}

}  // namespace

ssize_t mcu_read_reply(int pkg, uint8_t* buf)
{
    uint32_t offset = get_be32(buf + 4);
    uint32_t length = get_be32(buf + 8);
    // The buffer holds one block: a longer request gets the first 4096
    // bytes, as a request at the end of the file gets what is there.
    if (length > OTA_BLOCK) length = OTA_BLOCK;
    // Up to 2^32 + 2046: past the end of any package, so a READ there gets
    // no data, whatever the offset.
    off_t pos = offset == WHOLE_PACKAGE ? 0 : file_pos(offset, OTA_MCU_SECTION);
    if (lseek(pkg, pos, SEEK_SET) != pos) {
        puts("[MCU IF] send MCU bin failed: lseek");
        return -1;
    }
    ssize_t n = read(pkg, buf + 4, length);
    if (n < 0) {
        puts("[MCU IF] send MCU bin failed: read OTA file");
        return -1;
    }
    uint32_t sum = 0;
    for (ssize_t i = 0; i < n; ++i) sum += buf[4 + i];
    size_t reply = (static_cast<size_t>(n) + 7) & ~size_t{3};
    memset(buf + 4 + n, 0, reply - 4 - static_cast<size_t>(n));
    put_le32(buf, sum);
    return static_cast<ssize_t>(reply);
}

namespace {

// A failure is only logged: the MCU's own time-out covers it.
void serve_read(int pkg, uint8_t* buf)
{
    ssize_t reply = mcu_read_reply(pkg, buf);
    if (reply >= 0 && serial_write(buf, static_cast<size_t>(reply)) < 0)
        puts("[MCU IF] send MCU bin failed: send data");
}

// The next 12-byte message. A read that fails or finds the port closed ends
// the serving: reading again would only spin on the same error.
bool next_message(uint8_t* buf)
{
    size_t got = 0;
    while (got < MSG_SIZE) {
        ssize_t r = serial_read(buf + got, MSG_SIZE - got);
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

[[noreturn]] void serve(int pkg, uint8_t* buf)
{
    for (;;) {
        if (!memcmp(buf, "READ", 4)) {
            serve_read(pkg, buf);
        } else if (!memcmp(buf, "UPDATA_SUCC!", MSG_SIZE)) {
            park();
        } else {
            puts("[MCU IF] not MCU READ command");
        }
        if (!next_message(buf)) {
            puts("[MCU IF] read MCU READ command failed");
            park();
        }
    }
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// A worker cancelled here unwinds without ASan clearing the poison of its
// stack frames, and ASan's own thread teardown then trips over it while it
// removes its alternate signal stack. Address-checked builds run without one.
extern "C" const char* __asan_default_options() { return "use_sigaltstack=0"; }
#endif

int mcu_firmware_upload()
{
    unique_fd pkg(open(OTA_PACKAGE_PATH, O_RDONLY | O_CLOEXEC));
    if (!pkg) {
        printf("[MCU IF] can not open OTA file: %s\n", strerror(errno));
        return -1;
    }
    uint8_t buf[4 + OTA_BLOCK];
    // Checked before the workers stop and the MCU hears anything: a
    // package that reached /user some other way gets no byte served.
    if (!signature_accepts(pkg.get(), signed_file::ota, buf, "OTA file")) return -1;
    // The workers hold no lock or token where a cancel can take them, so
    // dsp_lock and the semaphores stay usable if the handshake fails. Not
    // joined: one inside a DSP exchange finishes it first, and its frame is
    // dropped rather than written into the handshake.
    mcu_workers_leave_port();
    set_port(true);
    if (!handshake(buf)) {
        // Back to the frame loop at the new speed; the package is closed.
        puts("[MCU IF] wait MCU READ command timeout");
        return -1;
    }
    set_port(false);
    serve(pkg.get(), buf);
}
