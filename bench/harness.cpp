#include "bench/harness.h"
#include "tools/sim/rules.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using clock_type = std::chrono::steady_clock;

namespace e2e {

namespace {

std::atomic<int> sandbox_counter{0};

std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return {};
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void put_file(const std::string& path, const std::string& content)
{
    std::string tmp = path + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!out) throw std::runtime_error("cannot write " + tmp);
        out << content;
    }
    fs::rename(tmp, path);
}

// Shell word in single quotes.
std::string quote(const std::string& s)
{
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

int ms_left(clock_type::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now()).count();
    return left < 0 ? 0 : static_cast<int>(std::min<long long>(left, INT_MAX));
}

// Polls pred every 10 ms until it holds or the time is up.
template <class Pred>
bool poll_until(Pred pred, int timeout_ms)
{
    auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (pred()) return true;
        if (clock_type::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// Starts argv with no input, its output appended to log and no other
// descriptor of ours; its pid, or -1.
pid_t spawn(const std::vector<std::string>& argv, const std::string& log)
{
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;
    // A test process that dies takes its sandbox with it (unshare kills the
    // namespace when it dies itself).
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    int in = open("/dev/null", O_RDONLY);
    int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (in >= 0) dup2(in, 0);
    if (out >= 0) {
        dup2(out, 1);
        dup2(out, 2);
    }
    close_range(3, ~0U, 0);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

// Runs argv to its end; its exit status or -1.
int run_to_end(const std::vector<std::string>& argv, const std::string& log)
{
    pid_t pid = spawn(argv, log);
    if (pid < 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string test_name()
{
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "sandbox";
    for (char& c : name)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') c = '_';
    return name;
}

pid_t find_namespace_init(pid_t launcher)
{
    // The launcher becomes unshare, whose one child is the namespace's init.
    // Helpers that the script forks before that share our PID namespace.
    std::string own_ns = fs::read_symlink("/proc/self/ns/pid").string();
    std::string path = "/proc/" + std::to_string(launcher) + "/task/" + std::to_string(launcher) + "/children";
    std::istringstream children(slurp(path));
    pid_t child;
    while (children >> child) {
        std::error_code ec;
        auto ns = fs::read_symlink("/proc/" + std::to_string(child) + "/ns/pid", ec);
        if (!ec && ns.string() != own_ns) return child;
    }
    return -1;
}

bool mounts_under(const std::string& dir)
{
    std::string mounts = slurp("/proc/self/mountinfo");
    return mounts.find(" " + dir + "/") != std::string::npos || mounts.find(" " + dir + " ") != std::string::npos;
}

// Roots left by test processes that were killed: their names end in
// -<pid>-<n>, and the pid is gone.
void remove_stale_roots(const fs::path& base)
{
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(base, ec)) {
        std::string name = entry.path().filename().string();
        size_t last = name.rfind('-');
        size_t before = last == std::string::npos ? std::string::npos : name.rfind('-', last - 1);
        if (before == std::string::npos) continue;
        std::string pid = name.substr(before + 1, last - before - 1);
        if (pid.empty() || pid.find_first_not_of("0123456789") != std::string::npos) continue;
        if (fs::exists("/proc/" + pid) || mounts_under(entry.path().string())) continue;
        fs::remove_all(entry.path(), ec);
    }
}

}  // namespace

uint8_t mcu_check(const uint8_t* from, size_t n)
{
    unsigned sum = 0;
    for (size_t i = 0; i < n; ++i) sum += from[i];
    sum %= 256;
    return static_cast<uint8_t>('0' + ((sum + sum / 16) % 16));
}

bytes mcu_frame(uint8_t command, const bytes& payload)
{
    bytes f;
    f.reserve(payload.size() + 4);
    f.push_back(0xFF);
    f.push_back(static_cast<uint8_t>(payload.size() + 3));
    f.push_back(command);
    for (uint8_t b : payload) f.push_back(b);
    f.push_back(mcu_check(f.data() + 1, f.size() - 1));
    return f;
}

bytes frame_payload(const bytes& frame)
{
    if (frame.size() < 4) return {};
    return bytes(frame.begin() + 3, frame.end() - 1);
}

std::string hex(const bytes& b)
{
    std::string out;
    char buf[4];
    for (size_t i = 0; i < b.size(); ++i) {
        snprintf(buf, sizeof buf, "%02X", b[i]);
        if (i) out += ' ';
        out += buf;
    }
    return out;
}

bytes to_bytes(const std::string& s) { return bytes(s.begin(), s.end()); }

Sandbox::Sandbox(std::string port) : port_(std::move(port))
{
    fs::path base = E2E_WORK_DIR;
    fs::create_directories(base);
    remove_stale_roots(base);
    root_ = (base / (test_name() + "-" + std::to_string(getpid()) + "-" + std::to_string(sandbox_counter++))).string();
    fs::remove_all(root_);
    fs::create_directories(root_ + "/.sb");
    if (run_to_end({"/bin/bash", SANDBOX_SCRIPT, "populate", root_}, root_ + "/.sb/sandbox.log") != 0)
        throw std::runtime_error("sandbox populate failed: " + slurp(root_ + "/.sb/sandbox.log"));
    write_rules();
    master_ = open_pty(slave_path_, slave_);
}

Sandbox::~Sandbox()
{
    shutdown();
    // Sanitizer reports of the daemon or the stand-in fail the test that ran them.
    for (const char* f : {"/.sb/stdout", "/.sb/stderr", "/.sb/dsp.out"}) {
        std::string text = slurp(root_ + f);
        for (const char* mark : {"Sanitizer", "runtime error:"})
            if (text.find(mark) != std::string::npos) ADD_FAILURE() << f << " holds a sanitizer report:\n" << text;
    }
    if (master_ >= 0) close(master_);
    if (slave_ >= 0) close(slave_);
    for (auto& t : extra_ttys_) {
        close(t.second.first);
        close(t.second.second);
    }
    // A mount still visible under the root would mean it leaked into the
    // host's namespace: then deleting could reach the host's files.
    if (mounts_under(root_)) {
        ADD_FAILURE() << "mounts under " << root_ << " are visible on the host; left in place";
        return;
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
    if (ec) ADD_FAILURE() << "cannot remove " << root_ << ": " << ec.message();
}

int Sandbox::open_pty(std::string& slave_path, int& slave_fd)
{
    int m = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (m < 0 || grantpt(m) != 0 || unlockpt(m) != 0) throw std::runtime_error("posix_openpt failed");
    char name[128];
    if (ptsname_r(m, name, sizeof name) != 0) throw std::runtime_error("ptsname failed");
    slave_path = name;
    // Held open for the sandbox's life, so the master never sees a hang-up,
    // and raw at once: no echo before the daemon sets the port up.
    slave_fd = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_fd < 0) throw std::runtime_error("cannot open " + slave_path);
    termios t{};
    tcgetattr(slave_fd, &t);
    cfmakeraw(&t);
    tcsetattr(slave_fd, TCSANOW, &t);
    fcntl(m, F_SETFL, fcntl(m, F_GETFL) | O_NONBLOCK);
    return m;
}

int Sandbox::add_tty(const std::string& dev_path)
{
    if (dev_path.rfind("/dev/", 0) != 0) throw std::invalid_argument("terminal must be under /dev: " + dev_path);
    std::string path;
    int slave = -1;
    int m = open_pty(path, slave);
    extra_ttys_.push_back({dev_path.substr(5), {m, slave}});
    extra_tty_paths_.push_back(path);
    return m;
}

void Sandbox::write_rules()
{
    std::string text = "# written by the e2e harness\n";
    for (const auto& [key, line] : rules_) text += line + "\n";
    put_file(root_ + "/.sb/dsp.rules", text);
}

void Sandbox::dsp_reply(const std::string& prefix, const std::string& text) { dsp_replies(prefix, {text}); }

void Sandbox::dsp_replies(const std::string& prefix, const std::vector<std::string>& texts)
{
    std::string line = "reply\t" + dsp_rules::escape(prefix);
    for (const auto& t : texts) line += "\t" + dsp_rules::escape(t);
    rules_[{0, prefix}] = line;
    write_rules();
}

void Sandbox::dsp_silent(const std::string& prefix)
{
    rules_[{0, prefix}] = "silent\t" + dsp_rules::escape(prefix);
    write_rules();
}

void Sandbox::dsp_delay_ms(const std::string& prefix, long ms)
{
    rules_[{1, prefix}] = "delay\t" + dsp_rules::escape(prefix) + "\t" + std::to_string(ms);
    write_rules();
}

void Sandbox::dsp_clear_rules()
{
    rules_.clear();
    write_rules();
}

void Sandbox::dsp_start_delay_ms(long ms) { dsp_delay_ms_ = ms; }

std::vector<std::string> Sandbox::dsp_raw_commands() const
{
    // One escaped line per request, as dsp_sim logs them; a request that did
    // not end in exactly one NUL stands behind "[raw]" with all its bytes.
    std::istringstream log(slurp(root_ + "/.sb/dsp.log"));
    std::vector<std::string> out;
    for (std::string line; std::getline(log, line);) {
        if (line.rfind("[raw]", 0) == 0) out.push_back(dsp_rules::unescape(line.substr(5)));
        else out.push_back(dsp_rules::unescape(line) + '\0');
    }
    return out;
}

std::vector<std::string> Sandbox::dsp_commands() const
{
    std::vector<std::string> out;
    for (auto& raw : dsp_raw_commands()) {
        if (!raw.empty() && raw.back() == '\0' && raw.find('\0') == raw.size() - 1)
            out.push_back(raw.substr(0, raw.size() - 1));
        else
            out.push_back("[raw]" + raw);
    }
    return out;
}

bool Sandbox::wait_dsp_commands(size_t n, int timeout_ms)
{
    return poll_until([&] { return dsp_raw_commands().size() >= n; }, timeout_ms);
}

bool Sandbox::wait_dsp_command(const std::string& text, int timeout_ms)
{
    return poll_until(
        [&] {
            auto c = dsp_commands();
            return std::find(c.begin(), c.end(), text) != c.end();
        },
        timeout_ms);
}

void Sandbox::standin(const std::string& path, int status)
{
    if (run_to_end({"/bin/bash", SANDBOX_SCRIPT, "standin", root_, path, std::to_string(status)},
                   root_ + "/.sb/sandbox.log") != 0)
        throw std::runtime_error("cannot make stand-in " + path);
}

std::vector<std::string> Sandbox::standin_calls() const
{
    std::vector<std::string> out;
    std::istringstream in(slurp(root_ + "/.sb/standin.log"));
    std::string line;
    while (std::getline(in, line)) out.push_back(line);
    return out;
}

bool Sandbox::wait_standin_calls(size_t n, int timeout_ms)
{
    return poll_until([&] { return standin_calls().size() >= n; }, timeout_ms);
}

void Sandbox::record_gpio_exports()
{
    for (const char* f : {"export", "unexport"}) {
        std::string p = host_path(std::string("/sys/class/gpio/") + f);
        fs::remove(p);
        if (mkfifo(p.c_str(), 0666) != 0) throw std::runtime_error("mkfifo " + p);
    }
    gpio_fifos_ = true;
}

std::string Sandbox::gpio_writes(const std::string& file) const { return slurp(root_ + "/.sb/gpio_" + file + ".log"); }

std::string Sandbox::host_path(const std::string& path) const
{
    if (path.empty() || path[0] != '/') throw std::invalid_argument("sandbox paths are absolute: " + path);
    return root_ + path;
}

void Sandbox::write_file(const std::string& path, const std::string& content)
{
    std::string p = host_path(path);
    fs::create_directories(fs::path(p).parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string Sandbox::read_file(const std::string& path) const { return slurp(host_path(path)); }

bool Sandbox::exists(const std::string& path) const
{
    struct stat st {};
    return lstat(host_path(path).c_str(), &st) == 0;
}

void Sandbox::remove(const std::string& path) { fs::remove_all(host_path(path)); }

void Sandbox::make_fifo(const std::string& path)
{
    std::string p = host_path(path);
    fs::create_directories(fs::path(p).parent_path());
    if (mkfifo(p.c_str(), 0666) != 0) throw std::runtime_error("mkfifo " + p);
}

void Sandbox::start(const std::vector<std::string>& extra)
{
    std::vector<std::string> args{"-p", port_};
    args.insert(args.end(), extra.begin(), extra.end());
    launch(args);
}

void Sandbox::start_exact(const std::vector<std::string>& args) { launch(args); }

void Sandbox::launch(const std::vector<std::string>& args)
{
    if (launcher_ > 0) throw std::logic_error("sandbox already started");
    std::string sh = "#!/bin/sh\ncd /\n";
    if (gpio_fifos_) {
        // A reader is always there, so the daemon's open never blocks for long.
        for (const char* f : {"export", "unexport"})
            sh += std::string("( while :; do cat /sys/class/gpio/") + f + "; done >>/.sb/gpio_" + f +
                  ".log ) &\n";
    }
    if (dsp_delay_ms_ >= 0) {
        sh += quote(DSP_SIM_BIN) +
              " --rules /.sb/dsp.rules --log /.sb/dsp.log --ready /.sb/dsp.ready --create-delay-ms " +
              std::to_string(dsp_delay_ms_) + " >/.sb/dsp.out 2>&1 &\n";
        if (dsp_delay_ms_ == 0)
            sh += "n=0; while [ ! -e /.sb/dsp.ready ] && [ $n -lt 1000 ]; do sleep 0.01; n=$((n+1)); done\n";
    }
    sh += ": >/.sb/launched\n";
    sh += quote(TTY_HUB_BIN);
    for (const auto& a : args) sh += " " + quote(a);
    sh += merge_streams_ ? " </dev/null >/.sb/stdout 2>&1\n" : " </dev/null >/.sb/stdout 2>/.sb/stderr\n";
    sh += "echo $? >/.sb/exit.tmp && mv /.sb/exit.tmp /.sb/exit\n";
    sh += "exec sleep infinity\n";
    put_file(root_ + "/.sb/run.sh", sh);

    std::vector<std::string> argv{"/bin/bash", SANDBOX_SCRIPT, "run"};
    std::vector<std::string> binds;
    for (const char* bin : {TTY_HUB_BIN, DSP_SIM_BIN}) {
        std::string dir = fs::path(bin).parent_path().string();
        bool covered = false;
        for (const auto& b : binds) covered |= dir == b || dir.rfind(b + "/", 0) == 0;
        if (!covered) binds.push_back(dir);
    }
    for (const auto& b : binds) argv.insert(argv.end(), {"--bind", b});
    argv.insert(argv.end(), {"--tty", slave_path_ + ":" + port_.substr(port_.rfind('/') + 1)});
    for (size_t i = 0; i < extra_ttys_.size(); ++i)
        argv.insert(argv.end(), {"--tty", extra_tty_paths_[i] + ":" + extra_ttys_[i].first});
    for (const auto& t : tmpfs_) argv.insert(argv.end(), {"--tmpfs", t});
    argv.insert(argv.end(), {root_, "/bin/sh", "/.sb/run.sh"});

    std::string log = root_ + "/.sb/sandbox.log";
    pid_t pid = spawn(argv, log);
    if (pid < 0) throw std::runtime_error("fork failed");
    launcher_ = pid;
    bool up = poll_until(
        [&] {
            if (init_pid_ < 0) init_pid_ = find_namespace_init(launcher_);
            return exists("/.sb/launched") || waitpid(launcher_, nullptr, WNOHANG) == launcher_;
        },
        15000);
    launched_at_ = clock_type::now();
    if (!up || !exists("/.sb/launched")) ADD_FAILURE() << "sandbox did not come up:\n" << slurp(log);
}

void Sandbox::shutdown()
{
    if (launcher_ <= 0) return;
    if (init_pid_ < 0) init_pid_ = find_namespace_init(launcher_);
    // The namespace dies with its init; unshare reaps that init, so once the
    // launcher is gone nothing of the sandbox runs any more.
    if (init_pid_ > 0) kill(init_pid_, SIGKILL);
    bool gone = poll_until([&] { return waitpid(launcher_, nullptr, WNOHANG) != 0; }, 5000);
    if (!gone) {
        kill(launcher_, SIGKILL);
        waitpid(launcher_, nullptr, 0);
    }
    launcher_ = -1;
}

int Sandbox::wait_exit(int timeout_ms)
{
    std::string p = root_ + "/.sb/exit";
    if (!poll_until([&] { return fs::exists(p); }, timeout_ms)) return -1;
    return std::stoi(slurp(p));
}

bool Sandbox::wait_output(const std::string& text, int timeout_ms)
{
    return poll_until([&] { return output().find(text) != std::string::npos; }, timeout_ms);
}

std::string Sandbox::output() const { return slurp(root_ + "/.sb/stdout"); }

std::string Sandbox::errors() const { return slurp(root_ + "/.sb/stderr"); }

double Sandbox::elapsed() const { return std::chrono::duration<double>(clock_type::now() - launched_at_).count(); }

void Sandbox::send(const bytes& b)
{
    size_t done = 0;
    while (done < b.size()) {
        ssize_t w = write(master_, b.data() + done, b.size() - done);
        if (w > 0) {
            done += static_cast<size_t>(w);
            continue;
        }
        if (w < 0 && errno != EAGAIN && errno != EINTR) throw std::runtime_error("pty write failed");
        pollfd p{master_, POLLOUT, 0};
        poll(&p, 1, 100);
    }
}

void Sandbox::send(const std::string& s) { send(to_bytes(s)); }

bool Sandbox::fill(int timeout_ms)
{
    pollfd p{master_, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    uint8_t buf[4096];
    ssize_t r = read(master_, buf, sizeof buf);
    if (r <= 0) {
        if (r < 0 && errno != EAGAIN && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return false;
    }
    pending_.insert(pending_.end(), buf, buf + r);
    return true;
}

bytes Sandbox::read_bytes(size_t n, int timeout_ms)
{
    auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    while (pending_.size() < n && fill(ms_left(deadline))) {
    }
    size_t take = std::min(n, pending_.size());
    bytes out(pending_.begin(), pending_.begin() + static_cast<long>(take));
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(take));
    return out;
}

bytes Sandbox::drain(int timeout_ms)
{
    auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    while (ms_left(deadline) > 0) fill(ms_left(deadline));
    bytes out;
    out.swap(pending_);
    return out;
}

bytes Sandbox::read_mcu_frame(int timeout_ms)
{
    auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto lead = std::find(pending_.begin(), pending_.end(), 0xFF);
        skipped_ += static_cast<size_t>(lead - pending_.begin());
        pending_.erase(pending_.begin(), lead);
        if (pending_.size() >= 2) {
            size_t len = std::max<size_t>(pending_[1], 1) + 1;
            if (pending_.size() >= len) {
                bytes f(pending_.begin(), pending_.begin() + static_cast<long>(len));
                pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(len));
                return f;
            }
        }
        if (ms_left(deadline) == 0) return {};
        fill(ms_left(deadline));
    }
}

bytes Sandbox::read_mcu_frame_cmd(uint8_t command, int timeout_ms)
{
    auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        bytes f = read_mcu_frame(ms_left(deadline));
        if (f.empty() || (f.size() > 2 && f[2] == command)) return f;
    }
}

pid_t Sandbox::pid_of(const std::string& exe) const
{
    if (init_pid_ <= 0) return -1;
    // Walk the namespace's process tree from its init.
    std::vector<pid_t> todo{init_pid_};
    while (!todo.empty()) {
        pid_t p = todo.back();
        todo.pop_back();
        std::string cmd = slurp("/proc/" + std::to_string(p) + "/cmdline");
        if (cmd.substr(0, cmd.find('\0')) == exe) return p;
        std::istringstream children(
            slurp("/proc/" + std::to_string(p) + "/task/" + std::to_string(p) + "/children"));
        for (pid_t c; children >> c;) todo.push_back(c);
    }
    return -1;
}

pid_t Sandbox::daemon_pid() const { return pid_of(TTY_HUB_BIN); }

pid_t Sandbox::dsp_pid() const { return pid_of(DSP_SIM_BIN); }

void Sandbox::remove_dsp_queue()
{
    if (init_pid_ <= 0) throw std::logic_error("sandbox not started");
    if (run_to_end({"/usr/bin/nsenter", "-t", std::to_string(init_pid_), "-i", "ipcrm", "--all=msg"},
                   root_ + "/.sb/sandbox.log") != 0)
        throw std::runtime_error("ipcrm failed");
}

void Sandbox::limit_dir(const std::string& dir, size_t bytes)
{
    if (launcher_ > 0) throw std::logic_error("limit_dir before start()");
    host_path(dir);  // checks the form
    tmpfs_.push_back(dir + ":" + std::to_string(bytes));
}

std::string Sandbox::live_path(const std::string& path) const
{
    if (init_pid_ <= 0) throw std::logic_error("sandbox not started");
    host_path(path);
    return "/proc/" + std::to_string(init_pid_) + "/root" + path;
}

}  // namespace e2e
