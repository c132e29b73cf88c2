// What the fuzz targets share. run.sh runs each inside tools/sandbox.sh, so
// the daemon's absolute paths and the DSP service's queue are private to it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

namespace fuzz {

using bytes = std::span<const uint8_t>;

// Starts a stand-in of the DSP service on the daemon's queue and makes the
// port one end of a socketpair whose output a thread drains. Registers both
// links and selects `link` (0: none), initialising it when `init`. Returns
// the port's other end, to write input into.
int start(int link = 0, bool init = false);

// Takes a reply script from the front of an input: a byte n, then n bytes
// "a\nb\n..." answering the next requests in order. After them, state
// queries get 0, 1, 2, 3 in turn and all else "[ok]", so that no wait of a
// handler runs to its time limit. Returns the rest of the input.
bytes take_replies(bytes in);

// Bytes the daemon has not read from the port yet; dropping them.
size_t pending();
void drain_port();

void put_file(const char* path, bytes data);
void clear_dir(const char* path);  // its files

inline uint64_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint64_t(p[3]) << 24; }

// Thrown by the wrapped pause(), the daemon's wait for good.
struct parked {};

}  // namespace fuzz
