// The MCU firmware upload: the handshake and the READ requests answered out
// of the package. Input: the package's length (2 bytes, little-endian), the
// package, then the messages on the port. The upload ends in its finished
// state or when they run out.
#include <unistd.h>

#include "tests/fuzz/fuzz_env.h"
#include "update/ota.h"

static int port;

extern "C" int LLVMFuzzerInitialize(int*, char***) { return port = fuzz::start(), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return -1;
    size_t len = std::min<size_t>(data[0] | data[1] << 8, size - 2);
    fuzz::put_file(OTA_PACKAGE_PATH, {data + 2, len});
    if (write(port, data + 2 + len, size - 2 - len) != ssize_t(size - 2 - len)) __builtin_trap();
    try {
        mcu_firmware_upload();
    } catch (const fuzz::parked&) {
    }
    fuzz::drain_port();
    return 0;
}
