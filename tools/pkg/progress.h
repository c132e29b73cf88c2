// Progress of a long pass over a large file, shown on a terminal only.
#pragma once
#include <cstdint>
#include <cstdio>
#include <unistd.h>

namespace pkg {

class progress {
public:
    // Passes below 64 MiB take well under a second: nothing is shown.
    progress(const char* what, uint64_t total)
        : what_(what), total_(total), on_(total >= (uint64_t{64} << 20) && isatty(STDERR_FILENO))
    {
    }
    ~progress()
    {
        if (on_ && percent_ >= 0) fprintf(stderr, "\r%40s\r", "");
    }
    progress(const progress&) = delete;
    progress& operator=(const progress&) = delete;

    void advance(uint64_t n)
    {
        if (!on_) return;
        done_ += n;
        int percent = static_cast<int>(done_ * 100 / total_);
        if (percent == percent_) return;
        percent_ = percent;
        fprintf(stderr, "\rtty_hub_pkg: %s %3d%%", what_, percent);
    }

private:
    const char* what_;
    uint64_t total_, done_ = 0;
    bool on_;
    int percent_ = -1;
};

}  // namespace pkg
