// What the fuzz targets share: a private root for the daemon's absolute
// paths, the DSP service's queue with an in-process responder, the port as a
// socketpair, and `system` replaced (the targets link with --wrap=system).
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// Once per process, before anything touches a file: private mount and IPC
// namespaces (needs root) and a chroot in which /tmp, /sdk, /user, /mnt and
// /sys/class/gpio are fresh tmpfs directories and every other top-level
// directory is the host's, bound read-only at its own path. The working
// directory is bound writable at its own path, wherever it lies, so that
// libFuzzer's corpus and artifacts work when given relative to it.
// Then creates the DSP queue at the daemon's key and starts the responder.
void setup();

// setup(), open_port(), and the link protocol `id` registered, selected and
// (if init) initialised. Returns the port's other end.
int start_link(int id, bool init = true);

// Takes the reply script from the front of an input (a byte n, then n bytes
// of "a\nb\n..." replies, cut to the input) into set_replies; returns the
// number of bytes it took.
size_t take_replies(const uint8_t* data, size_t size);

// Replies of the DSP service stand-in for the next requests, in order; once
// they are used up it answers state queries with 0, 1, 2, 3 in turn and all
// else with "[ok]", so that no wait of a handler runs to its time limit.
void set_replies(std::vector<std::string> replies);
// Splits "a\nb\n..." into replies; used to take a reply script from input.
std::vector<std::string> split_replies(std::string_view script);
// Requests the responder has answered since the process started.
size_t requests_seen();

// serial_fd becomes one end of a non-blocking socketpair; a thread drains
// what the daemon writes to it. Returns the other end, to write input into.
int open_port();
// Number of bytes waiting to be read on serial_fd.
size_t port_pending();

// Thrown by the wrapped `pause`, with which the daemon waits for good.
struct parked {};

// Status that the wrapped `system` returns (0 at start).
extern int system_status;

// Empties a directory inside the private root (between inputs).
void clear_dir(const char* path);
// Writes a whole file inside the private root.
void put_file(const char* path, const uint8_t* data, size_t size);

}  // namespace fuzz
