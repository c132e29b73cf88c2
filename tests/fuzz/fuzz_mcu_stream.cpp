// The MCU frame stream through if_poll, with the whole link set up by
// mcu_init and every handler live but the firmware upload, which leaves the
// frame link for good (fuzz_mcu_read has it). Input: the DSP reply script
// (fuzz_env.h), then the bytes on the port.
#include <unistd.h>

#include "core/protocol.h"
#include "tests/fuzz/fuzz_env.h"

static int port;

extern "C" int __wrap__Z19mcu_firmware_uploadv() { return 0; }  // mcu_firmware_upload()
extern "C" int LLVMFuzzerInitialize(int*, char***) { return port = fuzz::start(PROTO_MCU, true), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::bytes in = fuzz::take_replies({data, size});
    if (size > 65536 || write(port, in.data(), in.size()) != ssize_t(in.size())) return -1;
    while (fuzz::pending() > 0) if_poll();
    fuzz::clear_dir("/sdk/recorded");  // recordings and moved music files pile up
    return 0;
}
