// MCU frame layer: pack, receive and parse against a table of test handlers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

#include "core/serial.h"
#include "mcu/mcu_frame.h"

namespace {
using bytes = std::vector<uint8_t>;

bytes packed(uint8_t command, const bytes& payload)
{
    mcu_out_frame f{command, payload.data(), static_cast<uint8_t>(payload.size())};
    pack_buf* b = mcu_pack(reinterpret_cast<uintptr_t>(&f), 0);
    bytes out(b->data, b->tail);
    mcu_free(b);
    return out;
}

bytes called;  // the payload the last handler got
int handler(const uint8_t* p, uint8_t len) { return called.assign(p, p + len), 100; }
constexpr mcu_handler table[16] = {handler, nullptr, nullptr, nullptr, nullptr, handler, nullptr, nullptr,
                                   nullptr, handler, handler, nullptr, nullptr, nullptr, nullptr, handler};

// Parses a frame as mcu_recv hands it over, from the lead byte on; the result, then the log.
std::pair<int, std::string> parse(const bytes& frame)
{
    pack_buf* b = pack_buf_alloc(MCU_BUF_SIZE);
    std::copy(frame.begin(), frame.end(), pack_buf_put(b, frame.size()));
    testing::internal::CaptureStdout();
    int r = mcu_parse_with(b, std::span<const mcu_handler, 16>(table));
    mcu_free(b);
    return {r, testing::internal::GetCapturedStdout()};
}
}  // namespace

TEST(McuFrame, PackAndParse)
{
    const std::string bad_sum = "[MCU IF] Wrong checksum, data may be corrupted\n";
    // A result of 100: the handler ran with the bytes between command and digit.
    struct { bytes wire; int result; std::string log; } rows[] = {
        {{0xFF, 0x08, 0x09, 0x40, 0x02, 0x00, 0x00, 0x00, 0x38}, 100, ""},
        {{0xFF, 0x04, 0x0A, 0x01, 0x3F}, 100, ""},
        {{0xFF, 0x04, 0x0A, 0x20, 0x30}, 100, ""},
        {{0xFF, 0x03, 0x0F, 0x33}, 100, ""},  // L = 3: no payload
        {{0xFF, 0x06, 0x05, 0x01, 0x02, 0x03, 0x33}, -84, bad_sum},
        {{0xFF, 0x01}, -84, bad_sum},  // the length byte stands in for the digit
        {{0xFF, 0x02, 0x32}, -1, "[MCU IF] frame without command dropped\n"},
        {{0xFF, 0x04, 0x10, 0x01, 0x36}, -1, "[MCU IF] ERROR: INVALID command 16"},
        {{0xFF, 0x03, 0xFF, 0x32}, -1, "[MCU IF] ERROR: INVALID command 255"},
        {{0xFF, 0x04, 0x01, 0x09, 0x3E}, -1, ""},  // empty slots
        {{0xFF, 0x04, 0x0E, 0x09, 0x3C}, -1, ""},
    };
    for (const auto& r : rows) {
        called = {0xEE};
        EXPECT_EQ(parse(r.wire), std::pair(r.result, r.log)) << testing::PrintToString(r.wire);
        bytes payload = r.result == 100 ? bytes(r.wire.begin() + 3, r.wire.end() - 1) : bytes{0xEE};
        EXPECT_EQ(called, payload);
        EXPECT_EQ(r.result == 100 ? packed(r.wire[2], payload) : r.wire, r.wire);
    }
    bytes big(252);  // L = 255, 0xFF among the payload bytes
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(0xFF - i);
    bytes wire = packed(0, big);
    EXPECT_EQ(wire.size(), 256u);
    EXPECT_EQ(wire[1], 255);
    EXPECT_EQ(parse(wire).first, 100);
    EXPECT_EQ(called, big);
}

TEST(McuFrame, ReceiveFromThePort)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    int saved = serial_fd;
    serial_fd = fds[0];
    auto receive = [&](const bytes& in) {
        EXPECT_EQ(write(fds[1], in.data(), in.size()), ssize_t(in.size()));
        testing::internal::CaptureStdout();
        pack_buf* b = mcu_recv();
        std::string log = testing::internal::GetCapturedStdout();
        bytes out = b ? bytes(b->data, b->tail) : bytes{};
        mcu_free(b);
        return std::pair(out, log);
    };
    const std::string error = "[MCU IF] read error!\n";
    // Noise ahead of the lead byte is dropped; the frame is read by its length.
    const bytes frame = {0xFF, 0x05, 0x0A, 0x20, 0xFF, 0x30};
    EXPECT_EQ(receive({0x00, 0x31, 0xFE, 0xFF, 0x05, 0x0A, 0x20, 0xFF, 0x30}), std::pair(frame, std::string()));
    EXPECT_EQ(receive(frame), std::pair(frame, std::string()));
    // L = 0 is a read error and nothing more is read for it; L = 1 reads no further.
    EXPECT_EQ(receive({0xFF, 0x00, 0xFF, 0x01}), std::pair(bytes{}, error));
    EXPECT_EQ(receive({}), std::pair(bytes{0xFF, 0x01}, std::string()));
    // A frame that comes in short keeps its length; the rest reads as zero.
    const bytes short_frame = {0xFF, 0x08, 0x09, 0x40, 0, 0, 0, 0, 0};
    EXPECT_EQ(receive({0xFF, 0x08, 0x09, 0x40}), std::pair(short_frame, std::string()));
    serial_fd = -1;  // a failing read in the hunt
    EXPECT_EQ(receive({}), std::pair(bytes{}, error));

    // No byte at all: the peer hung up, and the process ends instead of spinning.
    close(fds[1]);
    serial_fd = fds[0];
    EXPECT_EXIT(mcu_recv(), testing::ExitedWithCode(1), "");
    close(fds[0]);
    serial_fd = saved;
}
