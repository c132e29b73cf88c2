// Measures the real daemon in the e2e sandbox against baselines taken in the
// same run, and prints one line per figure with its ratio. See README.md.
//
//   bench_daemon [--quick] [--digests]    # --digests: the MD5 and CRC figures only
//
// The DSP service is played in-process (a thread in the sandbox's IPC
// namespace answers at once and timestamps each request), so the latency is
// measured on one clock from the write of a frame to the request's arrival.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
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
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <zlib.h>

#include "bench/bench_util.h"
#include "bench/harness.h"
#include "update/md5.h"
#include "update/ota.h"

using e2e::bytes;
using clk = std::chrono::steady_clock;

namespace {

bool quick = false;

double us_since(clk::time_point t) { return std::chrono::duration<double, std::micro>(clk::now() - t).count(); }

// The DSP service stand-in, in-process.
class dsp_service {
public:
    dsp_service(pid_t inside, const std::string& host_tmp) : inside_(inside)
    {
        key_ = ftok(host_tmp.c_str(), 0x111);
        std::atomic<bool> up{false};
        thread_ = std::thread([this, &up] {
            enter_ns();
            qid_ = msgget(key_, IPC_CREAT | 0666);
            up = true;
            serve();
        });
        while (!up) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~dsp_service()
    {
        // A last request, from a thread in the namespace, ends the loop.
        std::thread([this] {
            enter_ns();
            message m{2, "quit"};
            msgsnd(qid_, &m, 5, 0);
        }).join();
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
    void enter_ns()
    {
        int fd = open(("/proc/" + std::to_string(inside_) + "/ns/ipc").c_str(), O_RDONLY);
        if (fd < 0 || setns(fd, CLONE_NEWIPC) != 0) perror("setns");
        close(fd);
    }
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

    pid_t inside_;
    key_t key_;
    int qid_ = -1;
    std::thread thread_;
    std::mutex lock_;
    std::string prefix_;
    clk::time_point first_{};
    size_t total_ = 0, vol_count_ = 0;
};

// A running daemon on /dev/ttyS1 with the in-process DSP service.
struct daemon_run {
    e2e::Sandbox sb{"/dev/ttyS1"};
    std::unique_ptr<dsp_service> dsp;
    pid_t pid = -1;

    explicit daemon_run(const std::function<void(e2e::Sandbox&)>& prepare = {})
    {
        sb.no_dsp();
        if (prepare) prepare(sb);
        sb.start();
        for (int i = 0; i < 2000 && (pid = sb.daemon_pid()) <= 0; ++i) usleep(1000);
        if (pid <= 0) throw std::runtime_error("daemon did not start");
        dsp = std::make_unique<dsp_service>(pid, sb.host_path("/tmp"));
        if (sb.read_mcu_frame_cmd(0x20, 5000).empty()) throw std::runtime_error("no first frame: " + sb.output());
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

void latency()
{
    daemon_run d;
    int n = quick ? 200 : 2000;
    std::vector<double> lat;
    for (int i = 0; i < n; ++i) {
        size_t before = d.dsp->count("dsp vol ");
        d.dsp->arm("dsp vol ");
        bytes f = e2e::mcu_frame(5, bytes(12, static_cast<uint8_t>(i % 2 ? 100 : 120)));
        auto t0 = clk::now();
        d.sb.send(f);  // one write: t0 is the time of the last byte
        if (!d.dsp->wait_count("dsp vol ", before + 12, 5000)) throw std::runtime_error("no dsp vol");
        lat.push_back(std::chrono::duration<double, std::micro>(d.dsp->first() - t0).count());
    }
    auto pty = pty_round_trips(16, n);
    bench::report("wire-to-DSP latency p50", pct(lat, 50), "us", "bare pty round trip p50", pct(pty, 50), "us");
    bench::report("wire-to-DSP latency p99", pct(lat, 99), "us", "bare pty round trip p99", pct(pty, 99), "us");
}

void throughput()
{
    daemon_run d;
    // Changing volumes: each frame costs 12 DSP exchanges.
    int n = quick ? 2000 : 20000;
    bytes stream;
    for (int i = 0; i < n; ++i) {
        bytes f = e2e::mcu_frame(5, bytes(12, static_cast<uint8_t>(i % 2 ? 100 : 120)));
        stream.insert(stream.end(), f.begin(), f.end());
    }
    auto t0 = clk::now();
    d.sb.send(stream);
    if (!d.dsp->wait_count("dsp vol ", 12u * n, 120000)) throw std::runtime_error("frames lost");
    double changing = n / (us_since(t0) / 1e6);
    // Repeated volumes: the frame layer and the seen-once test alone.
    int m = quick ? 50000 : 500000;
    bytes same = e2e::mcu_frame(5, bytes(12, 120)), last = e2e::mcu_frame(5, bytes(12, 130));
    stream.clear();
    for (int i = 0; i < m; ++i) stream.insert(stream.end(), same.begin(), same.end());
    stream.insert(stream.end(), last.begin(), last.end());
    size_t before = d.dsp->count("dsp vol ");
    t0 = clk::now();
    d.sb.send(stream);
    if (!d.dsp->wait_count("dsp vol ", before + 12, 120000)) throw std::runtime_error("frames lost");
    double repeated = (m + 1) / (us_since(t0) / 1e6);
    // 4000000 baud, 10 bits a byte, 16 bytes a volume frame.
    const double line = 4000000.0 / 10 / 16;
    bench::report("volume frames/s, each changing 12 DSP settings", changing, "1/s", "4 Mbaud line rate", line, "1/s");
    bench::report("volume frames/s, repeated values (no DSP command)", repeated, "1/s", "4 Mbaud line rate", line, "1/s");
}

void idle_and_rss()
{
    daemon_run d;
    double window = quick ? 3 : 10;
    usleep(500000);  // start-up done
    auto off = bench::measure_idle(d.pid, window);
    // Polling on: a report every 200 ms.
    d.sb.send_frame(2, {0, 0, 0, 4, 0, 0});
    usleep(300000);
    auto on = bench::measure_idle(d.pid, window);
    bench::report("idle, polling off: context switches/min", off.switches_per_min, "", "polling on", on.switches_per_min, "");
    bench::report("idle, polling off: CPU ms/min", off.cpu_ms_per_min, "ms", "polling on", on.cpu_ms_per_min, "ms");
    // Peak with every thread busy: polling, the pipe and a burst of frames.
    int pipe = open(d.sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    for (int i = 0; i < 200; ++i) (void)!write(pipe, "x", 1);
    close(pipe);
    for (int i = 0; i < 2000; ++i) d.sb.send_frame(5, bytes(12, static_cast<uint8_t>(i % 2 ? 1 : 2)));
    d.dsp->wait_count("dsp vol ", 12 * 2000, 60000);
    long hwm = bench::status_kb(d.pid, "VmHWM:");
    bench::report("peak RSS of the daemon, all threads running", static_cast<double>(hwm), "kB",
                  "peak RSS of /bin/sleep", static_cast<double>(bench::baseline_hwm_kb()), "kB");
}

// The MCU goes away: the CPU the daemon uses from the hang-up of its port to
// its exit, against one core over the same time; after the exit there is no
// process left to use any.
void hangup()
{
    daemon_run d;
    // The service stand-in finds its namespace through the daemon: it goes
    // first, while the daemon idles.
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
    // The master's last descriptor goes, so the daemon's side hangs up; the
    // number stays open (on /dev/null) for the sandbox to close.
    int null = open("/dev/null", O_RDWR);
    auto t0 = clk::now();
    dup2(null, d.sb.master_fd());
    close(null);
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
void firmware_upload()
{
    std::string package = pattern(2048 + (1 << 20), 5);
    daemon_run d([&](e2e::Sandbox& sb) { sb.write_file("/user/OTA_UPG.bin", package); });
    d.sb.send_frame(14, {6});
    std::string seen;
    while (seen.find("UART_UPDATA!") == std::string::npos) {
        bytes b = d.sb.read_bytes(1, 5000);
        if (b.empty()) throw std::runtime_error("no upload call: " + d.sb.output());
        seen += static_cast<char>(b[0]);
    }
    int n = quick ? 100 : 500;
    std::vector<double> turn;
    for (int i = 0; i < n; ++i) {
        uint32_t offset = static_cast<uint32_t>(i % 256) * 4096;
        bytes req = {'R', 'E', 'A', 'D', static_cast<uint8_t>(offset >> 24), static_cast<uint8_t>(offset >> 16),
                     static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset), 0, 0, 0x10, 0};
        auto t0 = clk::now();
        d.sb.send(req);
        if (d.sb.read_bytes(4100, 5000).size() != 4100) throw std::runtime_error("short upload reply");
        turn.push_back(us_since(t0));
    }
    auto pty = pty_round_trips(12, n, 4100);
    bench::report("MCU upload READ of 4096 bytes, turnaround p50", pct(turn, 50), "us", "bare pty 12 out, 4100 back",
                  pct(pty, 50), "us");
    d.sb.send(e2e::to_bytes("UPDATA_SUCC!"));
    usleep(200000);
    auto fin = bench::measure_idle(d.pid, quick ? 3 : 10);
    auto fresh = bench::read_counters(d.pid);
    printf("%-52s %12.1f   %-30s %12.3f   (must be 0; %ld switches, %.1f ms CPU in the whole run)\n",
           "finished state: context switches/min", fin.switches_per_min, "CPU ms/min", fin.cpu_ms_per_min,
           fresh.switches, static_cast<double>(fresh.cpu_ns) / 1e6);
}

// USB upgrade of two images against md5sum and cp of the same images.
void usb_upgrade(const std::string& dir)
{
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
    daemon_run d([&](e2e::Sandbox& sb) { sb.write_file("/mnt/upg.bin", file); });
    auto t0 = clk::now();
    d.sb.send_frame(15, {0x11, 0, 0, 0, 0, 'u', 'p', 'g', '.', 'b', 'i', 'n', 0, 0, 0, 0});
    bytes f;
    do f = d.sb.read_mcu_frame_cmd(0x24, 60000);
    while (!f.empty() && f[3] == 1);
    double daemon_s = us_since(t0) / 1e6;
    if (f.size() != 8 || f[3] != 3) throw std::runtime_error("USB upgrade failed: " + d.sb.output());
    std::ofstream(dir + "/kernel", std::ios::binary) << k;
    std::ofstream(dir + "/rootfs", std::ios::binary) << r;
    double base = bench::time_command("cd " + dir + " && md5sum kernel rootfs >/dev/null && cp kernel k.tmp && cp rootfs r.tmp");
    bench::report("USB upgrade of 2 images (copy, MD5, fsync)", daemon_s * 1000, "ms", "md5sum + cp of the images",
                  base * 1000, "ms");
    system(("rm -rf " + dir + "/kernel " + dir + "/rootfs " + dir + "/*.tmp").c_str());
}

}  // namespace

int main(int argc, char** argv)
{
    bool only_digests = false;
    for (int i = 1; i < argc; ++i) {
        quick |= !strcmp(argv[i], "--quick");
        only_digests |= !strcmp(argv[i], "--digests");
    }
    printf("%-52s %12s   %-30s %12s   %s\n", "figure", "daemon", "baseline", "value", "ratio");
    try {
        char tmpl[] = "/tmp/tty_hub_bench.XXXXXX";
        std::string dir = mkdtemp(tmpl);
        if (!only_digests) {
            latency();
            throughput();
            idle_and_rss();
            hangup();
        }
        digests(dir);
        if (!only_digests) {
            firmware_upload();
            usb_upgrade(dir);
        }
        rmdir(dir.c_str());
    } catch (const std::exception& e) {
        fprintf(stderr, "bench_daemon: %s\n", e.what());
        return 1;
    }
    return 0;
}
