// Each tuning grammar and its checksum: the line scan that picks the row by
// its selector, reads the fields of their kinds and K, and sums them.
// Input: a byte that picks the command, then the line (less the final byte
// that the tool link cuts off).
#include <cstring>
#include <memory>
#include <string_view>

#include "dsptool/tool_link.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr std::string_view names[] = {"bm",     "atmos", "virtualx", "truvol",   "filter", "drc",
                                          "matrix", "delay", "headroom", "vol", "output"};
    if (size == 0) return -1;
    // Exactly as long as the line, so that a read past its NUL is caught.
    std::unique_ptr<char[]> line(new char[size]);
    memcpy(line.get(), data + 1, size - 1);
    line[size - 1] = '\0';
    uint32_t computed, received;
    tool_tuning_check(names[data[0] % std::size(names)], line.get(), &computed, &received);

    // The F-field conversion saturates and never leaves 32 bits.
    float f;
    if (size < 5) return 0;
    memcpy(&f, data + 1, sizeof f);
    int32_t v = tool_float_to_field(f);
    if ((f != f && v != 0) || (f >= 2147483648.0f && v != INT32_MAX) || (f <= -2147483648.0f && v != INT32_MIN))
        __builtin_trap();
    return 0;
}
