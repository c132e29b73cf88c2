// Tool link on /dev/ttyS2: reception, dispatch and the call into the DSP service.
#include <cstdio>
#include <cstring>

#include "core/dsp_queue.h"
#include "core/protocol.h"
#include "core/serial.h"

namespace {
constexpr size_t TOOL_BUF_SIZE = 3072;
pack_buf* tool_buf = nullptr;
int tool_msqid = -1;
}  // namespace

int tool_init()
{
    tool_buf = pack_buf_alloc(TOOL_BUF_SIZE);
    if (!tool_buf) return -12;
    tool_msqid = dsp_queue_attach();
    if (tool_msqid < 0) {
        puts("[DSPTOOL] Cannot get the message queue");
        return -1;
    }
    return 0;
}

int tool_exit()
{
    pack_buf_free(tool_buf);
    tool_buf = nullptr;
    return 0;
}

pack_buf* tool_recv()
{
    pack_buf_reset(tool_buf);
    ssize_t r = serial_read(tool_buf->data, TOOL_BUF_SIZE);
    if (r < 0) {
        puts("[DSPTOOL] read error!");
        return nullptr;
    }
    pack_buf_put(tool_buf, static_cast<size_t>(r));
    return tool_buf;
}

pack_buf* tool_pack(uintptr_t bytes, uintptr_t length)
{
    pack_buf_reset(tool_buf);
    if (length <= TOOL_BUF_SIZE) {
        memmove(tool_buf->data, reinterpret_cast<const void*>(bytes), length);
        pack_buf_put(tool_buf, length);
    }
    return tool_buf;
}

int tool_parse(pack_buf* b)
{
    if (pack_buf_len(b) >= 3 && !memcmp(b->data, "mon", 3)) {
        static const char probe_reply[] = "MN>";
        return static_cast<int>(if_send(reinterpret_cast<uintptr_t>(probe_reply), 3));
    }
    return 0;
}

if_protocol dsptool_protocol = {
    nullptr, PROTO_DSPTOOL, tool_init, tool_exit, tool_recv, tool_pack, nullptr, tool_parse,
};
