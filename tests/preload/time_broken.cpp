// LD_PRELOAD stand-in for glibc's time() on a 32-bit time_t past 2038 (or
// any clock that cannot be read): -1 on every call.
#include <ctime>

extern "C" time_t time(time_t* t)
{
    if (t) *t = -1;
    return -1;
}
