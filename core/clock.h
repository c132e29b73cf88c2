// Whole seconds for the daemon's waits and elapsed times.
#pragma once
#include <ctime>

// Past 2038 a 32-bit time_t ends, and glibc's time() then gives -1 on every
// call; 64 bits are built in everywhere (_TIME_BITS=64).
static_assert(sizeof(time_t) == 8, "build with _TIME_BITS=64");

// Seconds of CLOCK_MONOTONIC: a wait counted on it neither stretches when the
// wall clock is set back nor stands still when the wall clock is broken.
inline time_t monotonic_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec;
}
