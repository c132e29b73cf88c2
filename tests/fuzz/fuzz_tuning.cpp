// Each tuning grammar and its checksum: the row picked by the selector, the
// fields of their kinds and K. Input: a byte that picks the command, then the
// line (less the final byte that the tool link cuts off).
#include <cstring>
#include <memory>
#include <string_view>

#include "dsptool/tool_link.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr std::string_view names[] = {"bm",    "atmos", "virtualx", "truvol", "filter", "drc",
                                          "matrix", "delay", "headroom", "vol",   "output"};
    if (size == 0) return -1;
    // Exactly as long as the line, so that a read past its NUL is caught.
    std::unique_ptr<char[]> line(new char[size]);
    memcpy(line.get(), data + 1, size - 1);
    line[size - 1] = '\0';
    uint32_t computed, received;
    tool_tuning_check(names[data[0] % std::size(names)], line.get(), &computed, &received);
    return 0;
}
