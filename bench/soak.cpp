// Soak: MCU frames through the real binary, with resident memory,
// descriptors and threads of the daemon read from /proc along the way.
// The default run sends 50 000 frames; the soak proper is a million
// (about 15 s on an idle machine):
//
//   TTY_HUB_SOAK=1 ./build/bench/bench_soak
//   TTY_HUB_SOAK=200000 ...      # another number of frames
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

#include "bench/harness.h"

using e2e::bytes;

namespace {

struct usage {
    long rss_kb = -1;
    long fds = -1;
    long threads = -1;
};

usage usage_of(pid_t pid)
{
    usage u;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) u.rss_kb = std::stol(line.substr(6));
        if (line.rfind("Threads:", 0) == 0) u.threads = std::stol(line.substr(8));
    }
    if (DIR* d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        u.fds = 0;
        while (const dirent* e = readdir(d)) u.fds += e->d_name[0] != '.';
        closedir(d);
    }
    return u;
}

}  // namespace

TEST(Soak, MillionFramesKeepMemoryAndDescriptorsFlat)
{
    const char* env = getenv("TTY_HUB_SOAK");
    long frames = !env ? 50000 : atol(env) > 1 ? atol(env) : 1000000;

    e2e::Sandbox sb("/dev/ttyS1");
    sb.start();
    ASSERT_FALSE(sb.read_mcu_frame_cmd(0x20, 5000).empty()) << sb.output();
    // Polling on: the timer thread reports beside the frame loop all along.
    sb.send_frame(2, {0, 0, 0, 4, 0, 0});
    pid_t pid = sb.daemon_pid();
    ASSERT_GT(pid, 0);
    int pipe = open(sb.host_path("/tmp/mcu_if_pipe").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(pipe, 0);

    // A block of 1000 frames: one volume change (12 DSP commands), then the
    // same volumes again (the seen-once path, no command), a bad check digit
    // and an empty slot in turn, so the DSP path and its logs stay small.
    auto block = [](long n) {
        const bytes vol = e2e::mcu_frame(5, bytes(12, static_cast<uint8_t>(n % 200 + 1)));
        bytes bad = vol;
        bad.back() ^= 1;
        const bytes empty = e2e::mcu_frame(7, {1, 2, 3});
        bytes out;
        for (int i = 0; i < 1000; ++i) {
            const bytes& f = i % 3 == 1 ? bad : i % 3 == 2 ? empty : vol;
            out.insert(out.end(), f.begin(), f.end());
        }
        return out;
    };

    usage start{};
    auto t0 = std::chrono::steady_clock::now();
    long blocks = frames / 1000;
    for (long n = 0; n < blocks; ++n) {
        sb.send(block(n));
        if (n % 50 == 0) (void)!write(pipe, "x", 1);
        if (n == 10) start = usage_of(pid);  // after warm-up
        if (n % 100 == 0 && n > 0) {
            usage u = usage_of(pid);
            printf("[soak] %ld frames: rss %ld kB, fds %ld, threads %ld\n", n * 1000, u.rss_kb, u.fds, u.threads);
            fflush(stdout);
        }
    }
    // A last volume change shows that every frame before it was read.
    sb.send(e2e::mcu_frame(5, bytes(12, 250)));
    ASSERT_TRUE(sb.wait_dsp_command("dsp vol 12 75.000000\n", 120000)) << "daemon fell behind";
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    usage end = usage_of(pid);
    printf("[soak] %ld frames in %.1f s (%.0f frames/s); rss %ld -> %ld kB, fds %ld -> %ld, threads %ld -> %ld\n",
           blocks * 1000, secs, blocks * 1000 / secs, start.rss_kb, end.rss_kb, start.fds, end.fds, start.threads,
           end.threads);
    EXPECT_EQ(end.fds, start.fds);
    EXPECT_EQ(end.threads, start.threads);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // (The sanitizers' quarantine and shadow memory grow by design.)
    EXPECT_LE(end.rss_kb - start.rss_kb, 256) << "resident memory grew";
#endif
    EXPECT_EQ(sb.wait_exit(0), -1);
    close(pipe);
}
