#include "tests/fuzz/fuzz_env.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/dsp_queue.h"
#include "core/protocol.h"
#include "core/serial.h"

extern "C" int __wrap_system(const char*);
extern "C" int __real_usleep(useconds_t);

namespace fuzz {

int system_status = 0;

namespace {

[[noreturn]] void die(const char* what)
{
    fprintf(stderr, "fuzz setup: %s: %s\n", what, strerror(errno));
    exit(2);
}

void make_dir(const std::string& path, mode_t mode = 0755)
{
    // mkdir -p
    for (size_t pos = 1; pos != std::string::npos;) {
        pos = path.find('/', pos + 1);
        std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) die(part.c_str());
    }
}

void touch(const std::string& path)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0) die(path.c_str());
    close(fd);
}

void bind(const std::string& from, const std::string& to, bool read_only)
{
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) die(to.c_str());
    if (read_only && mount(nullptr, to.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
        die(to.c_str());
}

void make_root(const std::string& root, const std::string& cwd)
{
    // The daemon's own directories are fresh; the rest of the host is seen
    // read-only, so that no path a package names can reach a host file.
    const std::set<std::string> fresh = {"tmp", "sdk", "user", "mnt", "sys"};
    DIR* dir = opendir("/");
    if (!dir) die("opendir /");
    while (const dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || fresh.count(name)) continue;
        std::string host = "/" + name, inside = root + "/" + name;
        struct stat st;
        if (lstat(host.c_str(), &st) != 0) continue;
        if (S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            ssize_t n = readlink(host.c_str(), target, sizeof target - 1);
            if (n < 0) continue;
            target[n] = '\0';
            if (symlink(target, inside.c_str()) != 0) die(inside.c_str());
        } else if (S_ISDIR(st.st_mode)) {
            make_dir(inside);
            bind(host, inside, true);
        }
    }
    closedir(dir);
    make_dir(root + "/tmp", 01777);
    chmod((root + "/tmp").c_str(), 01777);
    for (const char* d : {"/sdk/config/xml", "/sdk/recorded", "/sdk/bin", "/user", "/mnt"}) make_dir(root + d);
    std::string gpio = root + "/sys/class/gpio";
    for (const char* line : {"P5_02", "P5_03", "P6_00"}) {
        make_dir(gpio + "/" + line);
        touch(gpio + "/" + line + "/direction");
        touch(gpio + "/" + line + "/value");
    }
    touch(gpio + "/export");
    touch(gpio + "/unexport");
    // libFuzzer keeps its corpus and artifacts in the working directory.
    make_dir(root + cwd);
    if (mount(cwd.c_str(), (root + cwd).c_str(), nullptr, MS_BIND, nullptr) != 0) die(cwd.c_str());
}

int queue_id = -1;
std::mutex replies_lock;
std::vector<std::string> replies;
size_t next_reply = 0;
std::atomic<size_t> answered{0};

struct big_message {
    long type;
    char text[8192];
};

size_t state_turn = 0;

// State queries are answered 0, 1, 2, 3 in turn, so that a handler waiting
// for any of them sees it within a few polls.
std::string default_reply(const char* command)
{
    if (!strcasestr(command, "state")) return "[ok]";  // musicState too
    return "state:" + std::to_string(state_turn++ % 4);
}

void* responder(void*)
{
    static big_message in, out;
    for (;;) {
        ssize_t n = msgrcv(queue_id, &in, sizeof in.text - 1, DSP_REQUEST_TYPE, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return nullptr;
        }
        in.text[n] = '\0';
        std::string reply;
        {
            std::lock_guard<std::mutex> g(replies_lock);
            reply = next_reply < replies.size() ? replies[next_reply++] : default_reply(in.text);
        }
        // Longer replies would stay in the queue for ever (msgrcv E2BIG).
        size_t len = strnlen(reply.data(), reply.size());
        if (len > DSP_TEXT_MAX - 1) len = DSP_TEXT_MAX - 1;
        memcpy(out.text, reply.data(), len);
        out.text[len] = '\0';
        out.type = DSP_RESPONSE_TYPE;
        while (msgsnd(queue_id, &out, len + 1, 0) != 0 && errno == EINTR) {
        }
        ++answered;
    }
}

int peer_fd = -1;

void* drain(void*)
{
    char buf[4096];
    while (read(peer_fd, buf, sizeof buf) != 0) {
    }
    return nullptr;
}

}  // namespace

void setup()
{
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd)) die("getcwd");
    // The new root is a tmpfs in the working directory (the host keeps an
    // empty directory there); only this namespace sees what it holds.
    const std::string root = std::string(cwd) + "/.fuzz-root";
    make_dir(root);
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0) die("unshare (the fuzz targets need root)");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) die("make / private");
    if (mount("tmpfs", root.c_str(), "tmpfs", 0, "size=256m,mode=0755") != 0) die("tmpfs");
    make_root(root, cwd);
    if (chroot(root.c_str()) != 0 || chdir(cwd) != 0) die("chroot");

    queue_id = msgget(ftok(DSP_QUEUE_PATH, DSP_QUEUE_PROJECT), IPC_CREAT | 0666);
    if (queue_id < 0) die("msgget");
    pthread_t t;
    if (pthread_create(&t, nullptr, responder, nullptr) != 0) die("responder");
    pthread_detach(t);
}

void set_replies(std::vector<std::string> r)
{
    std::lock_guard<std::mutex> g(replies_lock);
    replies = std::move(r);
    next_reply = 0;
    state_turn = 0;
}

std::vector<std::string> split_replies(std::string_view script)
{
    std::vector<std::string> out;
    while (!script.empty()) {
        size_t nl = script.find('\n');
        out.emplace_back(script.substr(0, nl));
        if (nl == std::string_view::npos) break;
        script.remove_prefix(nl + 1);
    }
    return out;
}

size_t requests_seen() { return answered; }

int start_link(int id, bool init)
{
    setup();
    int port = open_port();
    protocol_register_all();
    protocol_select(id);
    if (init && protocol_current()->init() != 0) {
        fprintf(stderr, "fuzz setup: init of link %d failed\n", id);
        exit(2);
    }
    return port;
}

size_t take_replies(const uint8_t* data, size_t size)
{
    if (size == 0) {
        set_replies({});
        return 0;
    }
    size_t n = data[0] < size - 1 ? data[0] : size - 1;
    set_replies(split_replies({reinterpret_cast<const char*>(data + 1), n}));
    return 1 + n;
}

int open_port()
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) die("socketpair");
    // A read with nothing there fails at once instead of blocking the input.
    fcntl(sv[0], F_SETFL, fcntl(sv[0], F_GETFL) | O_NONBLOCK);
    serial_fd = sv[0];
    peer_fd = sv[1];
    int peer_write = dup(sv[1]);
    pthread_t t;
    if (pthread_create(&t, nullptr, drain, nullptr) != 0) die("drain");
    pthread_detach(t);
    return peer_write;
}

size_t port_pending()
{
    int n = 0;
    if (ioctl(serial_fd, FIONREAD, &n) != 0) return 0;
    return n > 0 ? static_cast<size_t>(n) : 0;
}

void clear_dir(const char* path)
{
    DIR* dir = opendir(path);
    if (!dir) return;
    while (const dirent* e = readdir(dir)) {
        if (e->d_type == DT_DIR) continue;
        std::string p = std::string(path) + "/" + e->d_name;
        unlink(p.c_str());
    }
    closedir(dir);
}

void put_file(const char* path, const uint8_t* data, size_t size)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) die(path);
    for (size_t done = 0; done < size;) {
        ssize_t w = write(fd, data + done, size - done);
        if (w <= 0) die(path);
        done += static_cast<size_t>(w);
    }
    close(fd);
}

}  // namespace fuzz

// The daemon's outside programs do not run under the fuzzer.
extern "C" int __wrap_system(const char*) { return fuzz::system_status; }

// The one wait of the daemon that never ends (the finished state of the MCU
// firmware upload) hands control back to the harness instead.
extern "C" int __wrap_pause() { throw fuzz::parked{}; }

// The workers' timers (200 ms, 500 ms) run at 10 ms at most: a frame that
// takes the polling token back waits for the pass under way, and the
// harness should not spend its time there.
extern "C" int __wrap_usleep(useconds_t us) { return __real_usleep(us < 10000 ? us : 10000); }
