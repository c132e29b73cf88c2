// Tool link input as tool_recv leaves it in tool_buf: the probe, text lines
// (tuning lines, read-back queries) and tool frames (file transfer). Input:
// the DSP reply script (fuzz_env.h), then inputs, each a 2-byte little-endian
// length and its bytes; bytes beyond tool_buf's 3072 wait on the port.
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "core/protocol.h"
#include "dsptool/tool_link.h"
#include "tests/fuzz/fuzz_env.h"

static int port;

extern "C" int LLVMFuzzerInitialize(int*, char***) { return port = fuzz::start(PROTO_DSPTOOL, true), 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 65536) return -1;
    for (fuzz::bytes in = fuzz::take_replies({data, size}); in.size() >= 2;) {
        fuzz::bytes input = in.subspan(2, std::min<size_t>(in[0] | in[1] << 8, in.size() - 2));
        in = in.subspan(2 + input.size());
        size_t first = std::min(input.size(), TOOL_BUF_SIZE);
        pack_buf_reset(tool_buf);
        memcpy(pack_buf_put(tool_buf, first), input.data(), first);
        if (write(port, input.data() + first, input.size() - first) != ssize_t(input.size() - first)) abort();
        tool_parse(tool_buf);
        fuzz::drain_port();  // the next input starts afresh
    }
    fuzz::clear_dir("/sdk/config/xml");  // transferred files would pile up
    return 0;
}
