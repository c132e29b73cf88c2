// The MCU firmware upload: the handshake and the 12-byte READ requests that
// the MCU sends, answered out of the package.
//
// Input: 2 bytes (little-endian) of package length, the package, then the
// messages that arrive on the port. The upload ends in its finished state
// (or when the messages run out), where the wrapped pause hands back.
#include <cstdint>
#include <unistd.h>

#include "core/serial.h"
#include "tests/fuzz/fuzz_env.h"
#include "update/ota.h"

namespace {
int port = -1;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::setup();
    port = fuzz::open_port();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return -1;
    size_t len = data[0] | data[1] << 8;
    if (len > size - 2) len = size - 2;
    fuzz::put_file(OTA_PACKAGE_PATH, data + 2, len);
    size_t rest = size - 2 - len;
    if (rest && write(port, data + 2 + len, rest) != static_cast<ssize_t>(rest)) __builtin_trap();
    try {
        mcu_firmware_upload();
    } catch (const fuzz::parked&) {
    }
    char sink[4096];
    while (fuzz::port_pending() > 0 && read(serial_fd, sink, sizeof sink) > 0) {
    }
    return 0;
}
