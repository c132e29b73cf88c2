// Tool link input: the probe, text lines (tuning lines and read-back queries
// through the pattern table) and tool frames (the file transfer), one input
// after another, as tool_recv leaves each in tool_buf.
//
// Input: one byte n, n bytes of DSP replies ("a\nb\n..."), then inputs, each
// a 2-byte little-endian length and its bytes. Bytes of an input beyond the
// 3072 of tool_buf wait on the port, where a frame that is still short
// finds them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "core/protocol.h"
#include "core/serial.h"
#include "dsptool/tool_link.h"
#include "tests/fuzz/fuzz_env.h"

namespace {
int port = -1;
unsigned long inputs_run = 0;
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    port = fuzz::start_link(PROTO_DSPTOOL);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 65536) return -1;
    size_t pos = fuzz::take_replies(data, size);
    while (pos + 2 <= size) {
        size_t len = data[pos] | data[pos + 1] << 8;
        pos += 2;
        if (len > size - pos) len = size - pos;
        size_t first = len < TOOL_BUF_SIZE ? len : TOOL_BUF_SIZE;
        pack_buf_reset(tool_buf);
        memcpy(pack_buf_put(tool_buf, first), data + pos, first);
        if (len > first && write(port, data + pos + first, len - first) != static_cast<ssize_t>(len - first))
            abort();
        tool_parse(tool_buf);
        // What the input left unread on the port is dropped, as the next
        // input starts afresh.
        char sink[4096];
        while (fuzz::port_pending() > 0 && read(serial_fd, sink, sizeof sink) > 0) {
        }
        pos += len;
    }
    // Transfers of many names would fill the private root.
    if (++inputs_run % 1000 == 0) fuzz::clear_dir("/sdk/config/xml");
    return 0;
}
