// A trace of the port for field reports: every byte read from and written to
// it, with its direction and a monotonic time, one text line per transfer
// (wrapped every 32 bytes):
//   # comment
//   SECONDS.MICROSECONDS rx|tx HH HH ...
// rx: read from the port (the peer's bytes); tx: written to it. The lines
// reach the file through a buffer that a writer thread empties within
// milliseconds, so the link never waits on the file; SIGHUP reopens it.
#pragma once
#include <cstddef>
#include <sys/types.h>

// True once trace_start has succeeded, whether the file opened or not.
extern bool trace_on;

enum class trace_dir { rx, tx };

// Blocks SIGHUP (for the writer to take) and starts the writer; call before
// any other thread. A file that cannot be opened costs a log line: the trace
// starts once a SIGHUP finds it writable.
void trace_start(const char* path);

// Called by the raw port operations for what one read moved.
void trace_bytes(trace_dir dir, const void* buf, size_t len);

// One write on fd and its record, as one piece against other writing
// threads, so that the trace holds their bytes in the order of the wire.
// No cancellation lands in it. errno is write's.
ssize_t trace_write(int fd, const void* buf, size_t len);

// Writes out what is buffered, for the ends of the process that come before
// the writer would.
void trace_flush_now();
