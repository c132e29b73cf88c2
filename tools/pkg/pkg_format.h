// The inspector of tty_hub_pkg; the layouts it reads are the daemon's
// (update/upgrade_format.h).
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include "update/ota.h"  // the layouts, the CRC-32

namespace pkg {

enum class kind { detect, ota, usb };

struct inspect_options {
    kind what = kind::detect;
    bool base_given = false;
    uint32_t base = 0;
};

// What went wrong first: the field and why. Empty field: nothing wrong.
struct finding {
    std::string field;
    std::string why;
};

// The kind of the file on fd: an OTA package when its CRC holds, else a USB
// upgrade file when an image table is found, else detect (not known).
kind detect_kind(int fd);

// Prints every field of the file on fd decoded, and checks it. Returns 0 for
// a sound file, 1 when a field is wrong, 2 when the file could not be read.
// first names the first wrong field of the layout, else the first wrong
// digest, else the CRC: the narrowest that explains the failure. Reads only inside the file's size, in
// blocks of BLOCK bytes.
int inspect(int fd, const inspect_options& options, FILE* out, finding& first);

}  // namespace pkg
