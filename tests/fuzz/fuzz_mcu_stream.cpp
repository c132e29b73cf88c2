// The MCU frame stream: mcu_recv and mcu_parse through if_poll, with the
// whole MCU link set up by mcu_init (queue, pipe, GPIO, the three workers,
// the OTA listener) and every handler live.
//
// Input: one byte n, n bytes of DSP replies ("a\nb\n..."), then the bytes
// that arrive on the port.
#include <cstdint>
#include <cstdlib>
#include <unistd.h>
#include <vector>

#include "core/protocol.h"
#include "mcu/mcu_frame.h"
#include "tests/fuzz/fuzz_env.h"

namespace {

int port = -1;

// OTA upgrade MCU (command 14, byte 0 = 6) leaves the frame link for good:
// such frames are turned into an unknown OTA command. The walk reads the
// stream as mcu_recv does when all of it is there at once.
void defuse_firmware_upload(std::vector<uint8_t>& s)
{
    size_t i = 0;
    while (i < s.size()) {
        if (s[i] != 0xFF) {
            ++i;
            continue;
        }
        if (i + 1 >= s.size()) return;
        size_t len = s[i + 1];
        if (len == 0) {  // read error: the hunt goes on behind it
            i += 2;
            continue;
        }
        size_t end = i + 1 + len;  // one past the check digit
        if (len >= 4 && i + 3 < s.size() && s[i + 2] == 14 && s[i + 3] == 6) {
            bool whole = end <= s.size();
            bool good = whole && mcu_check_digit({&s[i + 1], len - 1}) == s[end - 1];
            s[i + 3] = 7;
            if (good) s[end - 1] = mcu_check_digit({&s[i + 1], len - 1});
        }
        i = end;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    port = fuzz::start_link(PROTO_MCU);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 65536) return -1;
    std::vector<uint8_t> stream(data + fuzz::take_replies(data, size), data + size);
    defuse_firmware_upload(stream);
    if (!stream.empty() && write(port, stream.data(), stream.size()) != static_cast<ssize_t>(stream.size()))
        abort();
    while (fuzz::port_pending() > 0) if_poll();
    // Recordings and moved music files would pile up in the private root.
    fuzz::clear_dir("/sdk/recorded");
    return 0;
}
