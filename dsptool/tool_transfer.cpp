// Configuration file transfer: a temporary file filled chunk by chunk, then
// renamed over the final file, so a failed transfer leaves the old one whole.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/byte_order.h"
#include "core/work_file.h"
#include "dsptool/tool_link.h"

namespace {

struct transfer_state_t {
    int fd;  // none open when 0 or less
    char name[32];
    uint32_t next_seq;
    uint32_t announced_size;
};
transfer_state_t transfer_state{};

constexpr uint8_t SEND_DATA = 1;
constexpr uint8_t START_SEND_DATA = 2;
constexpr uint8_t END_SEND_DATA = 3;
constexpr uint8_t REPLY_BIT = 0x80;
constexpr size_t PATH_SIZE = 128;

int reply(uint8_t command, uint8_t status)
{
    tool_frame_reply(static_cast<uint8_t>(command | REPLY_BIT), status);
    return status ? -1 : 0;
}

bool is_main_config() { return !strcmp(transfer_state.name, "cfg.bin"); }

void build_paths(char* tmp, char* final_path)
{
    if (is_main_config()) {
        snprintf(tmp, PATH_SIZE, "/sdk/config/dsp_config.tmp");
        snprintf(final_path, PATH_SIZE, "/sdk/config/dsp_config");
    } else {
        snprintf(tmp, PATH_SIZE, "/sdk/config/xml/%s.tmp", transfer_state.name);
        snprintf(final_path, PATH_SIZE, "/sdk/config/xml/%s", transfer_state.name);
    }
}

// False when the file's bytes may not all have reached the disk: a write-back
// error (a full disk shows there too) must not be renamed over a good file.
bool close_file()
{
    if (transfer_state.fd <= 0) return true;
    bool synced = fsync(transfer_state.fd) == 0;
    return close(transfer_state.fd) == 0 && synced;
}

}  // namespace

bool tool_file_name_ok(std::string_view name)
{
    // "/" would leave the directory; "." and ".." name directories; a name
    // ending in ".tmp" could be the temporary file of another name and get
    // truncated by its transfer; the stored name holds 31 bytes and its NUL.
    return !name.empty() && name.size() < sizeof transfer_state.name &&
           name.find('/') == std::string_view::npos && name != "." && name != ".." &&
           !name.ends_with(".tmp");
}

int tool_start_send_data(tool_frame* frame)
{
    if (tool_frame_check(frame) != 0) return reply(START_SEND_DATA, 1);
    close_file();
    transfer_state = {};

    // The name may come with a terminating NUL and need not; it ends at the
    // first NUL. A frame too short for the size field, or a name that is too
    // long or would leave the directory, is refused like a failed open.
    if (frame->length < 4) {
        puts("[DSPTOOL] START_SEND_DATA too short");
        return reply(START_SEND_DATA, 1);
    }
    const char* raw = reinterpret_cast<const char*>(frame->data + 4);
    std::string_view name(raw, strnlen(raw, frame->length - 4u));
    if (!tool_file_name_ok(name)) {
        printf("[DSPTOOL] refused configuration file name of %zu bytes\n", name.size());
        return reply(START_SEND_DATA, 1);
    }
    transfer_state.announced_size = get_le32(frame->data);
    memcpy(transfer_state.name, name.data(), name.size());
    transfer_state.name[name.size()] = '\0';

    char tmp[PATH_SIZE], final_path[PATH_SIZE];
    build_paths(tmp, final_path);
    // The DSP service reads the file once it is in place.
    int fd = open_work_file(tmp, O_RDWR | O_TRUNC, 0644);
    if (fd < 0) {
        puts("[DSPTOOL] failed to open tmp file for receiving configuration file");
        return reply(START_SEND_DATA, 1);
    }
    transfer_state.fd = fd;
    return reply(START_SEND_DATA, 0);
}

int tool_data_chunk(tool_frame* frame)
{
    if (tool_frame_check(frame) != 0) return reply(SEND_DATA, 1);
    // No room for the sequence id: fails like a write, so next_seq stays.
    if (frame->length < 2) {
        puts("[DSPTOOL] failed to write data to file");
        return reply(SEND_DATA, 1);
    }
    uint32_t seq = static_cast<uint32_t>(frame->data[0] | frame->data[1] << 8);
    if (seq != transfer_state.next_seq) {
        // A chunk resent after a lost reply: already stored.
        reply(SEND_DATA, 0);
        puts("[DSPTOOL] unexpected sequence id, skip");
        return 0;
    }
    if (transfer_state.fd <= 0 || write(transfer_state.fd, frame->data + 2, frame->length - 2u) < 0) {
        puts("[DSPTOOL] failed to write data to file");
        return reply(SEND_DATA, 1);
    }
    ++transfer_state.next_seq;
    return reply(SEND_DATA, 0);
}

int tool_end_send_data(tool_frame* frame)
{
    if (tool_frame_check(frame) != 0) return reply(END_SEND_DATA, 1);
    // Too short for its size: refused, the file stays open for a good resend.
    if (frame->length < 4) {
        puts("[DSPTOOL] END_SEND_DATA too short");
        return reply(END_SEND_DATA, 1);
    }
    if (transfer_state.fd <= 0) {
        puts("[DSPTOOL] file not opened");
        return -1;
    }
    bool synced = close_file();
    transfer_state.fd = -1;
    if (!synced) {
        puts("[DSPTOOL] failed to sync received configuration file");
        return reply(END_SEND_DATA, 1);
    }

    if (transfer_state.announced_size != get_le32(frame->data)) {
        puts("[DSPTOOL] size information in START_SEND_DATA and END_SEND_DATA is different");
        return reply(END_SEND_DATA, 1);
    }
    char tmp[PATH_SIZE], final_path[PATH_SIZE];
    build_paths(tmp, final_path);
    struct stat st;
    if (stat(tmp, &st) != 0) {
        puts("[DSPTOOL] failed to stat received configuration file");
        return reply(END_SEND_DATA, 1);
    }
    if (static_cast<uint64_t>(st.st_size) != transfer_state.announced_size) {
        puts("[DSPTOOL] received file size is wrong");
        return reply(END_SEND_DATA, 1);
    }
    // The only step that touches the final file.
    if (rename(tmp, final_path) != 0) {
        puts("[DSPTOOL] failed to rename configuration file");
        return reply(END_SEND_DATA, 1);
    }
    if (is_main_config() && tool_dsp_cmd(tool_reply_ok, "dsp resync_app\n") != 0)
        puts("[DSPTOOL] dsp resync_app failed, may need reboot to sync new configuration");
    return reply(END_SEND_DATA, 0);
}
