#include "tests/fuzz/fuzz_env.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/dsp_queue.h"
#include "core/protocol.h"
#include "core/serial.h"

namespace fuzz {
namespace {

std::mutex lock;
std::vector<std::string> replies;
size_t next_reply, state_turn;

std::string reply_to(const char* request)
{
    std::lock_guard<std::mutex> g(lock);
    if (next_reply < replies.size()) return replies[next_reply++];
    if (!strcasestr(request, "state")) return "[ok]";  // musicState too
    return "state:" + std::to_string(state_turn++ % 4);
}

void serve(int queue)
{
    static dsp_message m;
    for (;;) {
        ssize_t n = msgrcv(queue, &m, sizeof m.text - 1, DSP_REQUEST_TYPE, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return;
        m.text[n] = '\0';
        std::string reply = reply_to(m.text);
        // Longer replies would stay in the queue for ever (msgrcv E2BIG).
        size_t len = strnlen(reply.c_str(), DSP_TEXT_MAX - 1);
        memcpy(m.text, reply.c_str(), len);
        m.text[len] = '\0';
        m.type = DSP_RESPONSE_TYPE;
        while (msgsnd(queue, &m, len + 1, 0) != 0 && errno == EINTR) {
        }
    }
}

}  // namespace

int start(int link, bool init)
{
    int queue = msgget(ftok(DSP_QUEUE_PATH, DSP_QUEUE_PROJECT), IPC_CREAT | 0666);
    int sv[2];
    if (queue < 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
        perror("fuzz: queue or port");
        exit(2);
    }
    std::thread(serve, queue).detach();
    fcntl(sv[0], F_SETFL, O_NONBLOCK);  // a read with nothing there fails at once
    serial_fd = sv[0];
    std::thread([fd = sv[1]] {
        char sink[4096];
        while (read(fd, sink, sizeof sink) != 0) {
        }
    }).detach();
    protocol_register_all();
    if (link && (protocol_select(link) != 0 || (init && protocol_current()->init() != 0))) {
        fprintf(stderr, "fuzz: link %d does not start\n", link);
        exit(2);
    }
    return sv[1];
}

bytes take_replies(bytes in)
{
    size_t n = in.empty() ? 0 : std::min<size_t>(in[0], in.size() - 1);
    std::string_view script(reinterpret_cast<const char*>(in.data()) + !in.empty(), n);
    std::lock_guard<std::mutex> g(lock);
    replies.clear();
    next_reply = state_turn = 0;
    for (size_t nl = 0; !script.empty() && nl != script.npos; script.remove_prefix(nl + 1)) {
        nl = script.find('\n');
        replies.emplace_back(script.substr(0, nl));
    }
    return in.subspan(in.empty() ? 0 : 1 + n);
}

size_t pending()
{
    int n = 0;
    return ioctl(serial_fd, FIONREAD, &n) == 0 && n > 0 ? static_cast<size_t>(n) : 0;
}

void drain_port()
{
    char sink[4096];
    while (pending() > 0 && read(serial_fd, sink, sizeof sink) > 0) {
    }
}

void put_file(const char* path, bytes data)
{
    FILE* f = fopen(path, "wb");
    if (!f || fwrite(data.data(), 1, data.size(), f) != data.size() || fclose(f) != 0) abort();
}

void clear_dir(const char* path)
{
    DIR* dir = opendir(path);
    while (const dirent* e = dir ? readdir(dir) : nullptr)
        if (e->d_type != DT_DIR) unlink((std::string(path) + "/" + e->d_name).c_str());
    if (dir) closedir(dir);
}

}  // namespace fuzz

// The daemon's outside programs do not run under the fuzzer.
extern "C" int __wrap_system(const char*) { return 0; }

// The one wait of the daemon that never ends (the MCU firmware upload's
// finished state) hands control back to the harness instead.
extern "C" int __wrap_pause() { throw fuzz::parked{}; }

// The workers' timers (200 ms, 500 ms) run at 10 ms at most: a frame that
// takes the polling token back waits for the pass under way.
extern "C" int __real_usleep(useconds_t);
extern "C" int __wrap_usleep(useconds_t us) { return __real_usleep(us < 10000 ? us : 10000); }
