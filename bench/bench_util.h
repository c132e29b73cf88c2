// Helpers of the benchmarks: /proc readings of a process and the report line.
#pragma once
#include <dirent.h>
#include <sys/resource.h>
#include <time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace bench {

// One figure, its baseline from the same run, and their ratio.
inline void report(const char* what, double value, const char* unit, const char* base, double base_value,
                   const char* base_unit)
{
    char v[32], b[32];
    snprintf(v, sizeof v, "%.4g %s", value, unit);
    snprintf(b, sizeof b, "%.4g %s", base_value, base_unit);
    printf("%-52s %12s   %-30s %12s   %.2f\n", what, v, base, b, base_value != 0 ? value / base_value : 0.0);
    fflush(stdout);
}

inline long status_kb(pid_t pid, const std::string& key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0) return std::stol(line.substr(key.size()));
    return -1;
}

// Context switches and CPU time (ns, from schedstat) of all threads.
struct counters {
    long switches = 0;
    long long cpu_ns = 0;
};

inline counters read_counters(pid_t pid)
{
    counters c;
    std::string task = "/proc/" + std::to_string(pid) + "/task";
    if (DIR* d = opendir(task.c_str())) {
        while (const dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            std::string t = task + "/" + e->d_name;
            std::ifstream in(t + "/status");
            for (std::string line; std::getline(in, line);)
                if (line.find("ctxt_switches:") != std::string::npos)
                    c.switches += std::stol(line.substr(line.find(':') + 1));
            long long ns = 0;
            std::ifstream(t + "/schedstat") >> ns;
            c.cpu_ns += ns;
        }
        closedir(d);
    }
    return c;
}

struct idle_cost {
    double switches_per_min;
    double cpu_ms_per_min;
};

// Work of the process over a window, scaled to a minute.
inline idle_cost measure_idle(pid_t pid, double seconds)
{
    counters a = read_counters(pid);
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    counters b = read_counters(pid);
    double scale = 60.0 / seconds;
    return {(b.switches - a.switches) * scale, static_cast<double>(b.cpu_ns - a.cpu_ns) / 1e6 * scale};
}

// Peak RSS of a minimal process, for scale.
inline long baseline_hwm_kb()
{
    pid_t p = fork();
    if (p == 0) {
        execl("/bin/sleep", "sleep", "0.3", nullptr);
        _exit(127);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    long kb = status_kb(p, "VmHWM:");
    waitpid(p, nullptr, 0);
    return kb;
}

// Wall time of a shell command in seconds.
inline double time_command(const std::string& cmd)
{
    auto t0 = std::chrono::steady_clock::now();
    if (system(cmd.c_str()) != 0) fprintf(stderr, "failed: %s\n", cmd.c_str());
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// CPU time (user + system) in seconds: of the calling thread, and of a shell
// command run to its end. On a shared machine these leave out the time other
// processes hold the cores.
inline double thread_cpu()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

inline double cpu_of_command(const std::string& cmd)
{
    auto children = [] {
        rusage u;
        getrusage(RUSAGE_CHILDREN, &u);
        auto sec = [](timeval t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
        return sec(u.ru_utime) + sec(u.ru_stime);
    };
    double before = children();
    if (system(cmd.c_str()) != 0) fprintf(stderr, "failed: %s\n", cmd.c_str());
    return children() - before;
}

}  // namespace bench
