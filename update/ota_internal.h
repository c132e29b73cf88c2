// Helpers shared by the files of the OTA path.
#pragma once
#include <sys/types.h>

// errno's text for a failed read, a fixed text for one that ended early.
const char* io_error_text(ssize_t r);

// Holds ota_info.header_lock for a scope. Taken only where the thread cannot
// be cancelled, so it is never left held.
struct header_guard {
    header_guard();
    ~header_guard();
    header_guard(const header_guard&) = delete;
    header_guard& operator=(const header_guard&) = delete;
};

// ota_read_header for a caller that holds header_lock.
int ota_read_header_locked();

// Runs a command through system and gives its raw status.
int run_command(const char* command);
// True when the command ran and its exit status (bits 8 to 15) is 0.
bool run_ok(const char* command);
