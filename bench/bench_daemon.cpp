// Measures the real daemon against baselines taken in the same run, and prints
// one line per figure with its ratio. See README.md; bench/run.sh runs it.
//
//   bench_daemon FIGURE [--quick] --pty FILE   # as the peer of a scenario of tests/e2e/run.sh
//   bench_daemon digests [--quick]             # on the host: the MD5 and CRC figures
//   bench_daemon header                        # the head line of the table
//
// The daemon is started the one way the scenarios start it: tests/e2e/run.sh
// runs this program inside the sandbox in the simulator's place, binds the
// pseudo-terminal it makes at /dev/ttyS1 and starts tty_hub on it. The DSP
// service is played in-process (a thread on the sandbox's queue answers at
// once and timestamps each request), so the latency is measured on one clock
// from the write of a frame to the request's arrival.
#include <dirent.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zlib.h>

#include "bench/bench_util.h"
#include "mcu/mcu_frame.h"
#include "tools/sim/port.h"
#include "update/md5.h"
#include "update/ota.h"

using sim::bytes;
using clk = std::chrono::steady_clock;

namespace {

bool quick = false;

double us_since(clk::time_point t) { return std::chrono::duration<double, std::micro>(clk::now() - t).count(); }

// The DSP service stand-in, in-process.
class dsp_service {
public:
    // On the queue of the daemon's key, in the sandbox's IPC namespace.
    dsp_service() : qid_(msgget(ftok("/tmp", 0x111), IPC_CREAT | 0666))
    {
        if (qid_ < 0) throw std::runtime_error("no DSP queue");
        thread_ = std::thread([this] { serve(); });
    }
    ~dsp_service()
    {
        // A last request ends the loop.
        message m{2, "quit"};
        msgsnd(qid_, &m, 5, 0);
        thread_.join();
    }
    // Time of the first request starting with prefix after arm().
    void arm(const std::string& prefix)
    {
        std::lock_guard<std::mutex> g(lock_);
        prefix_ = prefix;
        first_ = {};
    }
    clk::time_point first()
    {
        std::lock_guard<std::mutex> g(lock_);
        return first_;
    }
    size_t count(const std::string& prefix)
    {
        std::lock_guard<std::mutex> g(lock_);
        return prefix == "dsp vol " ? vol_count_ : total_;
    }
    bool wait_count(const std::string& prefix, size_t n, int timeout_ms)
    {
        auto end = clk::now() + std::chrono::milliseconds(timeout_ms);
        while (count(prefix) < n)
            if (clk::now() > end) return false;
            else std::this_thread::sleep_for(std::chrono::microseconds(200));
        return true;
    }

private:
    struct message {
        long type;
        char text[4096];
    };
    void serve()
    {
        message in{}, out{};
        for (;;) {
            ssize_t n = msgrcv(qid_, &in, sizeof in.text - 1, 2, 0);
            if (n < 0) {
                if (errno == EINTR) continue;
                return;
            }
            auto now = clk::now();
            in.text[n] = '\0';
            if (!strcmp(in.text, "quit")) return;
            {
                std::lock_guard<std::mutex> g(lock_);
                ++total_;
                if (!strncmp(in.text, "dsp vol ", 8)) ++vol_count_;
                if (first_ == clk::time_point{} && !strncmp(in.text, prefix_.c_str(), prefix_.size())) first_ = now;
            }
            const char* reply = strstr(in.text, "state") ? "state:0" : "[ok]";
            out.type = 1;
            size_t len = strlen(reply);
            memcpy(out.text, reply, len + 1);
            msgsnd(qid_, &out, len + 1, 0);
        }
    }

    int qid_;
    std::thread thread_;
    std::mutex lock_;
    std::string prefix_;
    clk::time_point first_{};
    size_t total_ = 0, vol_count_ = 0;
};

bytes mcu_frame(uint8_t command, const bytes& payload)
{
    bytes f(payload.size() + 4);
    f[0] = 0xFF;
    f[1] = static_cast<uint8_t>(payload.size() + 3);
    f[2] = command;
    std::copy(payload.begin(), payload.end(), f.begin() + 3);
    f.back() = mcu_check_digit({f.data() + 1, f.size() - 2});
    return f;
}

// The daemon of this run on /dev/ttyS1, with the in-process DSP service: the
// queue first (the daemon waits for it at start), then the pseudo-terminal,
// on which the runner starts tty_hub.
struct daemon_run {
    std::unique_ptr<dsp_service> dsp = std::make_unique<dsp_service>();
    sim::port io;
    pid_t pid = -1;

    explicit daemon_run(const std::string& pty_file)
    {
        io.open("", pty_file, {});
        for (int i = 0; i < 5000 && (pid = daemon_pid()) <= 0; ++i) usleep(1000);
        if (pid <= 0) throw std::runtime_error("the daemon did not start");
        if (frame(0x20, 5000).empty()) throw std::runtime_error("no first frame: " + output());
    }
    static pid_t daemon_pid()
    {
        DIR* d = opendir("/proc");
        pid_t found = -1;
        while (const dirent* e = d ? readdir(d) : nullptr) {
            std::string comm;
            if (isdigit(static_cast<unsigned char>(e->d_name[0])) &&
                std::getline(std::ifstream(std::string("/proc/") + e->d_name + "/comm"), comm) && comm == "tty_hub")
                found = atoi(e->d_name);
        }
        if (d) closedir(d);
        return found;
    }
    static std::string output()
    {
        std::ifstream in("/.sb/stdout");
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    void send(const bytes& b) { io.write_all(b); }
    void send_frame(uint8_t command, const bytes& payload) { send(mcu_frame(command, payload)); }
    // The next whole frame with this command; other bytes are passed over.
    bytes frame(uint8_t command, int ms)
    {
        auto deadline = clk::now() + std::chrono::milliseconds(ms);
        for (;;) {
            auto& in = io.inbox;
            auto lead = std::find(in.begin(), in.end(), 0xFF);
            in.erase(in.begin(), lead);
            if (in.size() >= 2 && in.size() >= in[1] + 1u) {
                bytes f = io.take_front(in[1] + 1u);
                if (f.size() > 2 && f[2] == command) return f;
                continue;
            }
            if (!io.fill(std::max(1, sim::ms_left(deadline))) && sim::ms_left(deadline) == 0) return {};
        }
    }
};

// Bare pty round trip: n bytes master -> slave, back bytes slave -> master.
std::vector<double> pty_round_trips(size_t n, int count, size_t back_n = 0)
{
    int m, s;
    if (openpty(&m, &s, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("openpty");
    termios t{};
    tcgetattr(s, &t);
    cfmakeraw(&t);
    tcsetattr(s, TCSANOW, &t);
    if (!back_n) back_n = n;
    std::thread echo([&] {
        std::vector<uint8_t> buf(std::max(n, back_n), 0xA5);
        for (int i = 0; i < count; ++i) {
            size_t got = 0;
            while (got < n) got += static_cast<size_t>(std::max<ssize_t>(0, read(s, buf.data() + got, n - got)));
            (void)!write(s, buf.data(), back_n);
        }
    });
    std::vector<double> out;
    std::vector<uint8_t> buf(n, 0x5A), back(back_n);
    for (int i = 0; i < count; ++i) {
        auto t0 = clk::now();
        (void)!write(m, buf.data(), n);
        size_t got = 0;
        while (got < back_n)
            got += static_cast<size_t>(std::max<ssize_t>(0, read(m, back.data() + got, back_n - got)));
        out.push_back(us_since(t0));
    }
    echo.join();
    close(m);
    close(s);
    return out;
}

double pct(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(p / 100.0 * static_cast<double>(v.size())))];
}

void latency(const std::string& pty_file)
{
    daemon_run d(pty_file);
    int n = quick ? 200 : 2000;
    std::vector<double> lat;
    for (int i = 0; i < n; ++i) {
        size_t before = d.dsp->count("dsp vol ");
        d.dsp->arm("dsp vol ");
        bytes f = mcu_frame(5, bytes(12, static_cast<uint8_t>(i % 2 ? 100 : 120)));
        auto t0 = clk::now();
        d.send(f);  // one write: t0 is the time of the last byte
        if (!d.dsp->wait_count("dsp vol ", before + 12, 5000)) throw std::runtime_error("no dsp vol");
        lat.push_back(std::chrono::duration<double, std::micro>(d.dsp->first() - t0).count());
    }
    auto pty = pty_round_trips(16, n);
    bench::report("wire-to-DSP latency p50", pct(lat, 50), "us", "bare pty round trip p50", pct(pty, 50), "us");
    bench::report("wire-to-DSP latency p99", pct(lat, 99), "us", "bare pty round trip p99", pct(pty, 99), "us");
}

void throughput(const std::string& pty_file)
{
    daemon_run d(pty_file);
    // Changing volumes: each frame costs 12 DSP exchanges.
    int n = quick ? 2000 : 20000;
    bytes stream;
    for (int i = 0; i < n; ++i) {
        bytes f = mcu_frame(5, bytes(12, static_cast<uint8_t>(i % 2 ? 100 : 120)));
        stream.insert(stream.end(), f.begin(), f.end());
    }
    auto t0 = clk::now();
    d.send(stream);
    if (!d.dsp->wait_count("dsp vol ", 12u * n, 120000)) throw std::runtime_error("frames lost");
    double changing = n / (us_since(t0) / 1e6);
    // Repeated volumes: the frame layer and the seen-once test alone.
    int m = quick ? 50000 : 500000;
    bytes same = mcu_frame(5, bytes(12, 120)), last = mcu_frame(5, bytes(12, 130));
    stream.clear();
    for (int i = 0; i < m; ++i) stream.insert(stream.end(), same.begin(), same.end());
    stream.insert(stream.end(), last.begin(), last.end());
    size_t before = d.dsp->count("dsp vol ");
    t0 = clk::now();
    d.send(stream);
    if (!d.dsp->wait_count("dsp vol ", before + 12, 120000)) throw std::runtime_error("frames lost");
    double repeated = (m + 1) / (us_since(t0) / 1e6);
    // 4000000 baud, 10 bits a byte, 16 bytes a volume frame.
    const double line = 4000000.0 / 10 / 16;
    bench::report("volume frames/s, each changing 12 DSP settings", changing, "1/s", "4 Mbaud line rate", line, "1/s");
    bench::report("volume frames/s, repeated values (no DSP command)", repeated, "1/s", "4 Mbaud line rate", line, "1/s");
}

void idle_and_rss(const std::string& pty_file)
{
    daemon_run d(pty_file);
    double window = quick ? 3 : 10;
    usleep(500000);  // start-up done
    auto off = bench::measure_idle(d.pid, window);
    // Polling on: a report every 200 ms.
    d.send_frame(2, {0, 0, 0, 4, 0, 0});
    usleep(300000);
    auto on = bench::measure_idle(d.pid, window);
    bench::report("idle, polling off: context switches/min", off.switches_per_min, "", "polling on", on.switches_per_min, "");
    bench::report("idle, polling off: CPU ms/min", off.cpu_ms_per_min, "ms", "polling on", on.cpu_ms_per_min, "ms");
    // Peak with every thread busy: polling, the pipe and a burst of frames.
    int pipe = open("/tmp/mcu_if_pipe", O_WRONLY | O_NONBLOCK);
    for (int i = 0; i < 200; ++i) (void)!write(pipe, "x", 1);
    close(pipe);
    for (int i = 0; i < 2000; ++i) d.send_frame(5, bytes(12, static_cast<uint8_t>(i % 2 ? 1 : 2)));
    d.dsp->wait_count("dsp vol ", 12 * 2000, 60000);
    long hwm = bench::status_kb(d.pid, "VmHWM:");
    bench::report("peak RSS of the daemon, all threads running", static_cast<double>(hwm), "kB",
                  "peak RSS of /bin/sleep", static_cast<double>(bench::baseline_hwm_kb()), "kB");
}

// The MCU goes away: the CPU the daemon uses from the hang-up of its port to
// its exit, against one core over the same time; after the exit there is no
// process left to use any.
void hangup(const std::string& pty_file)
{
    daemon_run d(pty_file);
    // The service stand-in goes first, while the daemon idles.
    d.dsp.reset();
    // CPU of each thread (schedstat) at its last reading: threads vanish one
    // by one as the process ends.
    std::map<std::string, long long> cpu;
    auto sample = [&] {
        std::string task = "/proc/" + std::to_string(d.pid) + "/task/";
        if (DIR* dir = opendir(task.c_str())) {
            while (const dirent* e = readdir(dir)) {
                long long ns = 0;
                if (e->d_name[0] != '.' && std::ifstream(task + e->d_name + "/schedstat") >> ns)
                    cpu[e->d_name] = std::max(cpu[e->d_name], ns);
            }
            closedir(dir);
        }
        long long sum = 0;
        for (const auto& [tid, ns] : cpu) sum += ns;
        return sum;
    };
    long long before = sample(), last = before;
    // The master's last descriptor goes, so the daemon's side hangs up.
    auto t0 = clk::now();
    d.io.hang_up();
    while (kill(d.pid, 0) == 0 && us_since(t0) < 10e6) {
        last = sample();
        usleep(1000);
    }
    double gone_ms = us_since(t0) / 1000;
    if (kill(d.pid, 0) == 0) throw std::runtime_error("the daemon outlived its port by 10 s");
    bench::report("hung-up port: CPU ms from the hang-up to the exit", (last - before) / 1e6, "ms",
                  "one core over that time", gone_ms, "ms");
}

std::string pattern(size_t n, unsigned seed)
{
    std::string s(n, '\0');
    uint32_t x = seed;
    for (auto& c : s) c = static_cast<char>((x = x * 1103515245 + 12345) >> 16);
    return s;
}

// MD5 and the OTA CRC pass over a file, block by block as the firmware path
// reads, against md5sum and zlib's crc32 over the same file. Throughput is
// per second of CPU time (reads included), the best of five rounds taken in
// turn: the machine is shared, and wall time would count other people's work.
void digests(const std::string& dir)
{
    size_t size = (quick ? 16u : 64u) << 20;
    std::string path = dir + "/digest.bin";
    std::ofstream(path, std::ios::binary) << pattern(size, 3);
    auto pass = [&](const std::function<void(const uint8_t*, size_t)>& feed) {
        int fd = open(path.c_str(), O_RDONLY);
        uint8_t block[OTA_BLOCK];
        double t0 = bench::thread_cpu();
        for (ssize_t r; (r = read(fd, block, sizeof block)) > 0;) feed(block, static_cast<size_t>(r));
        close(fd);
        return size / (bench::thread_cpu() - t0) / (1 << 20);
    };
    static uint32_t table[256], lanes[8][256];
    ota_crc_build_table(table, lanes);
    double md5 = 0, md5sum = 0, ota = 0, zlib = 0;
    for (int round = 0; round < 5; ++round) {
        md5_context ctx;
        md5_init(&ctx);
        md5 = std::max(md5, pass([&](const uint8_t* b, size_t n) { md5_update(&ctx, b, n); }));
        md5sum = std::max(md5sum, size / bench::cpu_of_command("exec md5sum " + path + " >/dev/null") / (1 << 20));
        uint32_t crc = 0;
        ota = std::max(ota, pass([&](const uint8_t* b, size_t n) { crc = ota_crc_update(table, lanes, crc, b, n); }));
        uLong z = crc32(0, nullptr, 0);
        zlib = std::max(zlib, pass([&](const uint8_t* b, size_t n) { z = crc32(z, b, static_cast<uInt>(n)); }));
        if (crc != z) throw std::runtime_error("the OTA CRC differs from zlib's");
    }
    bench::report("MD5 throughput (file, 4096-byte blocks)", md5, "MiB/s", "md5sum", md5sum, "MiB/s");
    bench::report("OTA CRC pass (file, 4096-byte blocks)", ota, "MiB/s", "zlib crc32, same blocks", zlib, "MiB/s");
    unlink(path.c_str());
}

// Per-request turnaround of the MCU firmware upload, then the cost of the
// finished state.
void firmware_upload(const std::string& pty_file)
{
    std::ofstream("/user/OTA_UPG.bin", std::ios::binary) << pattern(2048 + (1 << 20), 5);
    daemon_run d(pty_file);
    d.send_frame(14, {6});
    std::string seen;
    while (seen.find("UART_UPDATA!") == std::string::npos) {
        bytes b = d.io.take(1, 5000);
        if (b.empty()) throw std::runtime_error("no upload call: " + d.output());
        seen += static_cast<char>(b[0]);
    }
    int n = quick ? 100 : 500;
    std::vector<double> turn;
    for (int i = 0; i < n; ++i) {
        uint32_t offset = static_cast<uint32_t>(i % 256) * 4096;
        bytes req = {'R', 'E', 'A', 'D', static_cast<uint8_t>(offset >> 24), static_cast<uint8_t>(offset >> 16),
                     static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset), 0, 0, 0x10, 0};
        auto t0 = clk::now();
        d.send(req);
        if (d.io.take(4100, 5000).size() != 4100) throw std::runtime_error("short upload reply");
        turn.push_back(us_since(t0));
    }
    auto pty = pty_round_trips(12, n, 4100);
    bench::report("MCU upload READ of 4096 bytes, turnaround p50", pct(turn, 50), "us", "bare pty 12 out, 4100 back",
                  pct(pty, 50), "us");
    d.io.write_all(std::string_view("UPDATA_SUCC!"));
    usleep(200000);
    auto fin = bench::measure_idle(d.pid, quick ? 3 : 10);
    auto fresh = bench::read_counters(d.pid);
    printf("%-52s %12.1f   %-30s %12.3f   (must be 0; %ld switches, %.1f ms CPU in the whole run)\n",
           "finished state: context switches/min", fin.switches_per_min, "CPU ms/min", fin.cpu_ms_per_min,
           fresh.switches, static_cast<double>(fresh.cpu_ns) / 1e6);
}

// USB upgrade of two images against md5sum and cp of the same images.
void usb_upgrade(const std::string& pty_file)
{
    const std::string dir = "/tmp/bench";
    mkdir(dir.c_str(), 0700);
    const size_t image = (quick ? 4u : 16u) << 20;
    const uint32_t table = 0x100880, kernel_at = 0x101000, rootfs_at = kernel_at + static_cast<uint32_t>(image);
    std::string k = pattern(image, 7), r = pattern(image, 9);
    auto md5_hex = [](const std::string& s) {
        md5_context ctx;
        md5_init(&ctx);
        md5_update(&ctx, s.data(), s.size());
        uint8_t dg[16];
        md5_final(&ctx, dg);
        char hex[33];
        for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", dg[i]);
        return std::string(hex, 32);
    };
    std::string file(rootfs_at + image, '\0');
    auto record = [&](size_t at, const char* name, const std::string& img, uint32_t off) {
        memcpy(&file[at], name, strlen(name));
        memcpy(&file[at + 32], md5_hex(img).data(), 32);
        for (int i = 0; i < 4; ++i) file[at + 68 + i] = static_cast<char>(off >> (8 * i));
        for (int i = 0; i < 4; ++i) file[at + 72 + i] = static_cast<char>(image >> (8 * i));
    };
    record(table, "kernel", k, kernel_at);
    record(table + 128, "rootfs", r, rootfs_at);
    memcpy(&file[kernel_at], k.data(), image);
    memcpy(&file[rootfs_at], r.data(), image);
    std::ofstream("/mnt/upg.bin", std::ios::binary) << file;
    daemon_run d(pty_file);
    auto t0 = clk::now();
    d.send_frame(15, {0x11, 0, 0, 0, 0, 'u', 'p', 'g', '.', 'b', 'i', 'n', 0, 0, 0, 0});
    bytes f;
    do f = d.frame(0x24, 60000);
    while (!f.empty() && f[3] == 1);
    double daemon_s = us_since(t0) / 1e6;
    if (f.size() != 8 || f[3] != 3) throw std::runtime_error("USB upgrade failed: " + d.output());
    std::ofstream(dir + "/kernel", std::ios::binary) << k;
    std::ofstream(dir + "/rootfs", std::ios::binary) << r;
    double base = bench::time_command("cd " + dir + " && md5sum kernel rootfs >/dev/null && cp kernel k.tmp && cp rootfs r.tmp");
    bench::report("USB upgrade of 2 images (copy, MD5, fsync)", daemon_s * 1000, "ms", "md5sum + cp of the images",
                  base * 1000, "ms");
    system(("rm -rf " + dir + "/kernel " + dir + "/rootfs " + dir + "/*.tmp").c_str());
}

// Soak: frames in blocks of 1000 (one volume change, then repeated volumes,
// bad check digits and an empty slot in turn), polling on and a pipe
// notification every 50 blocks; resident memory, descriptors and threads
// read every 100 000 frames. False if any of them grew.
bool soak(const std::string& pty_file, long frames)
{
    daemon_run d(pty_file);
    d.send_frame(2, {0, 0, 0, 4, 0, 0});
    int pipe = open("/tmp/mcu_if_pipe", O_WRONLY | O_NONBLOCK);
    if (pipe < 0) throw std::runtime_error("no pipe");
    struct usage {
        long rss_kb, fds, threads;
    };
    auto usage_of = [&] {
        usage u{bench::status_kb(d.pid, "VmRSS:"), 0, bench::status_kb(d.pid, "Threads:")};
        if (DIR* dir = opendir(("/proc/" + std::to_string(d.pid) + "/fd").c_str())) {
            while (const dirent* e = readdir(dir)) u.fds += e->d_name[0] != '.';
            closedir(dir);
        }
        return u;
    };
    auto block = [](long n) {
        const bytes vol = mcu_frame(5, bytes(12, static_cast<uint8_t>(n % 200 + 1)));
        bytes bad = vol;
        bad.back() ^= 1;
        const bytes empty = mcu_frame(7, {1, 2, 3});
        bytes out;
        for (int i = 0; i < 1000; ++i) {
            const bytes& f = i % 3 == 1 ? bad : i % 3 == 2 ? empty : vol;
            out.insert(out.end(), f.begin(), f.end());
        }
        return out;
    };
    usage start{};
    auto t0 = clk::now();
    long blocks = frames / 1000;
    for (long n = 0; n < blocks; ++n) {
        d.send(block(n));
        if (n % 50 == 0) (void)!write(pipe, "x", 1);
        if (n == 10) start = usage_of();  // after warm-up
        if (n % 100 == 0 && n > 0) {
            usage u = usage_of();
            printf("[soak] %ld frames: rss %ld kB, fds %ld, threads %ld\n", n * 1000, u.rss_kb, u.fds, u.threads);
            fflush(stdout);
        }
    }
    close(pipe);
    // A last volume change shows that every frame before it was read.
    d.dsp->arm("dsp vol 12 75.000000\n");
    d.send(mcu_frame(5, bytes(12, 250)));
    for (int i = 0; i < 120000 && d.dsp->first() == clk::time_point{}; ++i) usleep(1000);
    if (d.dsp->first() == clk::time_point{}) throw std::runtime_error("the daemon fell behind");
    double secs = std::chrono::duration<double>(clk::now() - t0).count();
    usage end = usage_of();
    printf("[soak] %ld frames in %.1f s (%.0f frames/s); rss %ld -> %ld kB, fds %ld -> %ld, threads %ld -> %ld\n",
           blocks * 1000, secs, blocks * 1000 / secs, start.rss_kb, end.rss_kb, start.fds, end.fds, start.threads,
           end.threads);
    return end.fds == start.fds && end.threads == start.threads && end.rss_kb - start.rss_kb <= 256 &&
           kill(d.pid, 0) == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string figure = argc > 1 ? argv[1] : "", pty;
    long frames = 1000000;
    for (int i = 2; i < argc; ++i) {
        quick |= !strcmp(argv[i], "--quick");
        if (!strcmp(argv[i], "--pty") && i + 1 < argc) pty = argv[++i];
        if (!strcmp(argv[i], "--frames") && i + 1 < argc) frames = atol(argv[++i]);
    }
    const std::map<std::string, std::function<void(const std::string&)>> on_daemon = {
        {"latency", latency}, {"throughput", throughput}, {"idle", idle_and_rss},     {"hangup", hangup},
        {"upload", firmware_upload}, {"usb", usb_upgrade},
    };
    try {
        if (figure == "header") {
            printf("%-52s %12s   %-30s %12s   %s\n", "figure", "daemon", "baseline", "value", "ratio");
        } else if (figure == "digests") {
            char tmpl[] = "/tmp/tty_hub_bench.XXXXXX";
            std::string dir = mkdtemp(tmpl);
            digests(dir);
            rmdir(dir.c_str());
        } else if (figure == "soak" && !pty.empty()) {
            return soak(pty, frames) ? 0 : 1;
        } else if (on_daemon.count(figure) && !pty.empty()) {
            on_daemon.at(figure)(pty);
        } else {
            fprintf(stderr, "usage: bench_daemon header|digests|soak|latency|throughput|idle|hangup|upload|usb "
                            "[--quick] [--frames N] [--pty FILE]\n");
            return 2;
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "bench_daemon: %s\n", e.what());
        return 1;
    }
    return 0;
}
