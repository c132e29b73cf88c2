// Builders of OTA packages and USB upgrade files for the update tests.
#pragma once
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "tests/e2e/harness.h"

namespace upd {

inline void put32(std::string& s, size_t at, uint32_t v, bool big_endian = false)
{
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (big_endian ? 24 - 8 * i : 8 * i));
}

inline std::string pattern(size_t n, unsigned seed)
{
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 17 + (i >> 8)) & 0xFF);
    return s;
}

// zlib's CRC-32 of s from offset 12, bit by bit: independent of the daemon's table.
inline uint32_t crc32(const std::string& s)
{
    uint32_t c = 0xFFFFFFFF;
    for (size_t i = 12; i < s.size(); ++i) {
        c ^= static_cast<uint8_t>(s[i]);
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1)));
    }
    return ~c;
}

// MD5 by the system's md5sum: lower-case hex, or the 16 raw bytes.
inline std::string md5(const e2e::Sandbox& sb, const std::string& data, bool raw = false)
{
    std::string scratch = sb.root() + "/.md5_scratch", hex(32, '\0'), out;
    std::ofstream(scratch, std::ios::binary | std::ios::trunc) << data;
    if (FILE* p = popen(("md5sum '" + scratch + "'").c_str(), "r")) {
        if (fread(hex.data(), 1, 32, p) != 32) hex.clear();
        pclose(p);
    }
    for (size_t i = 0; raw && i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return raw ? out : hex;
}

// A package of size bytes with the S8137 fields and a correct CRC field.
inline std::string ota_package(size_t size, uint32_t s8137_offset, uint32_t s8137_length)
{
    std::string p = pattern(size, 1);
    if (size >= 32) {
        memcpy(p.data(), "OTAHEAD1", 8);
        put32(p, 24, s8137_offset);
        put32(p, 28, s8137_length);
    }
    if (size >= 12) put32(p, 8, crc32(p));
    return p;
}

// Payload of an OTA state frame.
inline e2e::bytes ota_state(uint8_t state, const std::string& tail = "")
{
    e2e::bytes b(12, 0);
    b[0] = state;
    memcpy(b.data() + 1, tail.data(), tail.size() < 8 ? tail.size() : 8);
    return b;
}

inline size_t count(const std::string& text, const std::string& what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace upd
