#include "tests/fuzz/fuzz_env.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/msg.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "core/dsp_queue.h"
#include "core/protocol.h"

namespace {
std::mutex lock;
std::vector<std::string> replies;
size_t next_reply, state_turn;

void serve(int queue)
{
    static dsp_message m;
    for (ssize_t n; (n = msgrcv(queue, &m, sizeof m.text - 1, DSP_REQUEST_TYPE, 0)) >= 0;) {
        m.text[n] = '\0';
        std::string reply = "[ok]";
        {
            std::lock_guard<std::mutex> g(lock);
            if (next_reply < replies.size())
                reply = replies[next_reply++];
            else if (strcasestr(m.text, "state"))  // musicState too
                reply = "state:" + std::to_string(state_turn++ % 4);
        }
        // Cut where the daemon cuts (a longer one would stay in the queue).
        size_t len = strnlen(reply.c_str(), DSP_TEXT_MAX - 1);
        memcpy(m.text, reply.c_str(), len);
        m.text[len] = '\0';
        m.type = DSP_RESPONSE_TYPE;
        msgsnd(queue, &m, len + 1, 0);
    }
}
}  // namespace

int fuzz::start(int link, bool init)
{
    int queue = msgget(ftok(DSP_QUEUE_PATH, DSP_QUEUE_PROJECT), IPC_CREAT | 0666), sv[2];
    if (queue < 0 || socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) abort();
    std::thread(serve, queue).detach();
    serial_fd = sv[0];
    fcntl(sv[0], F_SETFL, O_NONBLOCK);  // a read with nothing there fails at once
    std::thread([fd = sv[1]] {
        for (char sink[4096]; read(fd, sink, sizeof sink) != 0;) {
        }
    }).detach();
    protocol_register_all();
    if (link && (protocol_select(link) != 0 || (init && protocol_current()->init() != 0))) abort();
    return sv[1];
}

fuzz::bytes fuzz::take_replies(bytes in)
{
    size_t n = in.empty() ? 0 : std::min<size_t>(in[0], in.size() - 1);
    std::string_view script(reinterpret_cast<const char*>(in.data()) + !in.empty(), n);
    std::lock_guard<std::mutex> g(lock);
    replies.clear();
    next_reply = state_turn = 0;
    for (size_t nl = 0; !script.empty() && nl != script.npos; script.remove_prefix(nl + 1))
        replies.emplace_back(script.substr(0, nl = script.find('\n')));
    return in.subspan(in.empty() ? 0 : 1 + n);
}

// Outside programs do not run; the one wait that never ends (the MCU
// upload's finished state) hands back to the harness; the workers' timers
// (200 ms, 500 ms) run at 10 ms at most, so that a frame that takes the
// polling token back waits little for the pass under way.
extern "C" int __wrap_system(const char*) { return 0; }
extern "C" int __wrap_pause() { throw fuzz::parked{}; }
extern "C" int __real_usleep(useconds_t);
extern "C" int __wrap_usleep(useconds_t us) { return __real_usleep(us < 10000 ? us : 10000); }
