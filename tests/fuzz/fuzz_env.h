// What the fuzz targets share. run.sh runs each inside tools/sandbox.sh, so
// the daemon's absolute paths and the DSP service's queue are private to it.
#pragma once
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <sys/ioctl.h>
#include <unistd.h>

#include "core/serial.h"

namespace fuzz {
using bytes = std::span<const uint8_t>;

// A stand-in of the DSP service on the daemon's queue; the port as one end
// of a socketpair whose output a thread drains; both links registered and
// `link` (0: none) selected, and initialised when `init`. Returns the
// port's other end, to write input into.
int start(int link = 0, bool init = false);

// Takes a reply script from the front of an input: a byte n, then n bytes
// "a\nb\n..." that answer the next requests in order. Then state queries get
// 0, 1, 2, 3 in turn and all else "[ok]", so that no wait runs to its limit.
bytes take_replies(bytes in);

struct parked {};  // thrown by the wrapped pause(), the daemon's wait for good

inline size_t pending()  // bytes the daemon has not read from the port
{
    int n = 0;
    return ioctl(serial_fd, FIONREAD, &n) == 0 ? static_cast<size_t>(n) : 0;
}
inline void drain_port()
{
    for (char sink[4096]; pending() > 0 && read(serial_fd, sink, sizeof sink) > 0;) {
    }
}
inline void put_file(const char* path, bytes data)
{
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), data.size());
}
inline void clear_dir(const char* path)
{
    for (const auto& e : std::filesystem::directory_iterator(path))
        if (!e.is_directory()) std::filesystem::remove(e.path());
}
inline uint64_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint64_t(p[3]) << 24; }
}  // namespace fuzz
