// Decoding of captured link traffic, shared by the simulators: bytes from
// files, standard input or terminals (a tap on the two wires of a link), raw
// or as hex text, one direction or both, each piece printed with its offset,
// or with its time when it comes live.
#pragma once
#include <string>

#include "tools/sim/port.h"

namespace sim {

// The first piece of a byte stream.
struct piece {
    size_t len;
    enum kind_t { more, noise, whole, cut } kind;  // cut: a frame that the stream's end broke off
};

// What a simulator knows of its link's traffic.
struct decoder {
    const char* peer;  // the simulated side: "mcu" or "tool"
    piece (*split)(const uint8_t* b, size_t n, bool at_end, bool from_daemon);
    std::string (*text)(const uint8_t* b, size_t n, bool from_daemon);
    bool (*binary)(const uint8_t* b, size_t n);  // shown in hex as well
};

// The decoding part of --help.
std::string decode_help(const char* prog, const char* peer);

// `PROG --decode ...`: argv[2] on are the decoding options.
int run_decode(int argc, char** argv, const decoder& d);

}  // namespace sim
