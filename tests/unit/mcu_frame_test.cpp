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
    EXPECT_NE(b, nullptr);
    if (!b) return {};
    bytes out(b->data, b->tail);
    mcu_free(b);
    return out;
}

// What mcu_recv would hand over: the frame from the lead byte on.
pack_buf* received(const bytes& frame)
{
    pack_buf* b = pack_buf_alloc(MCU_BUF_SIZE);
    memcpy(pack_buf_put(b, frame.size()), frame.data(), frame.size());
    return b;
}

struct call {
    int slot;
    bytes payload;
};
std::vector<call> calls;

template <int Slot>
int recorder(const uint8_t* p, uint8_t len)
{
    calls.push_back({Slot, bytes(p, p + len)});
    return 100 + Slot;
}

constexpr mcu_handler test_table[16] = {
    recorder<0>, nullptr, nullptr, nullptr, nullptr, recorder<5>, nullptr, nullptr,
    nullptr, recorder<9>, recorder<10>, nullptr, nullptr, nullptr, nullptr, recorder<15>,
};

int parse(const bytes& frame, std::string* out = nullptr)
{
    pack_buf* b = received(frame);
    testing::internal::CaptureStdout();
    int r = mcu_parse_with(b, std::span<const mcu_handler, 16>(test_table));
    std::string text = testing::internal::GetCapturedStdout();
    if (out) *out = text;
    else EXPECT_EQ(text, "");
    mcu_free(b);
    return r;
}

}  // namespace

TEST(McuFrame, ExamplesPackAndParseByteExact)
{
    const std::vector<std::pair<bytes, bytes>> examples = {
        {{0x09, 0x40, 0x02, 0x00, 0x00, 0x00}, {0xFF, 0x08, 0x09, 0x40, 0x02, 0x00, 0x00, 0x00, 0x38}},
        {{0x0A, 0x01}, {0xFF, 0x04, 0x0A, 0x01, 0x3F}},
        {{0x0A, 0x20}, {0xFF, 0x04, 0x0A, 0x20, 0x30}},
    };
    for (const auto& [cmd_and_payload, wire] : examples) {
        bytes payload(cmd_and_payload.begin() + 1, cmd_and_payload.end());
        EXPECT_EQ(packed(cmd_and_payload[0], payload), wire);
        calls.clear();
        EXPECT_EQ(parse(wire), 100 + cmd_and_payload[0]);
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].slot, cmd_and_payload[0]);
        EXPECT_EQ(calls[0].payload, payload);
    }
}

TEST(McuFrame, PayloadLengthsAtTheEdges)
{
    // L = 3: the handler runs with no payload; L = 255: with 252 bytes.
    calls.clear();
    EXPECT_EQ(parse(packed(15, {})), 115);
    bytes big(252);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(0xFF - i);  // 0xFF included
    bytes wire = packed(0, big);
    ASSERT_EQ(wire.size(), 256u);
    EXPECT_EQ(wire[1], 255);
    EXPECT_EQ(parse(wire), 100);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].payload, bytes{});
    EXPECT_EQ(calls[1].payload, big);
}

TEST(McuFrame, RejectedFrames)
{
    calls.clear();
    std::string out;
    bytes wrong = packed(5, {1, 2, 3});
    wrong.back() ^= 0x01;
    EXPECT_EQ(parse(wrong, &out), -84);
    EXPECT_EQ(out, "[MCU IF] Wrong checksum, data may be corrupted\n");
    // L = 1: the length byte stands in for the digit; the empty sum gives 0x30.
    EXPECT_EQ(parse({0xFF, 0x01}, &out), -84);
    EXPECT_EQ(out, "[MCU IF] Wrong checksum, data may be corrupted\n");
    // L = 2 with digit 0x32 passes the test but has no command byte.
    EXPECT_EQ(parse({0xFF, 0x02, 0x32}, &out), -1);
    EXPECT_EQ(out, "[MCU IF] frame without command dropped\n");
    EXPECT_EQ(parse(packed(16, {1}), &out), -1);
    EXPECT_EQ(out, "[MCU IF] ERROR: INVALID command 16");
    EXPECT_EQ(parse(packed(255, {}), &out), -1);
    EXPECT_EQ(out, "[MCU IF] ERROR: INVALID command 255");
    for (uint8_t empty : {1, 2, 7, 14}) EXPECT_EQ(parse(packed(empty, {9})), -1);
    EXPECT_TRUE(calls.empty());
}

TEST(McuFrame, ReceiveFromThePort)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    int saved = serial_fd;
    serial_fd = fds[0];
    auto feed = [&](const bytes& b) { ASSERT_EQ(write(fds[1], b.data(), b.size()), static_cast<ssize_t>(b.size())); };

    // Noise ahead of the lead byte is dropped; the frame is read by its length.
    bytes frame = packed(10, {0x20, 0xFF});
    feed({0x00, 0x31, 0xFE});
    feed(frame);
    feed(frame);
    for (int i = 0; i < 2; ++i) {
        pack_buf* b = mcu_recv();
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(bytes(b->data, b->tail), frame);
        mcu_free(b);
    }

    // L = 0: a read error, and nothing more is read for that frame.
    feed({0xFF, 0x00, 0xFF, 0x01});
    testing::internal::CaptureStdout();
    EXPECT_EQ(mcu_recv(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[MCU IF] read error!\n");
    pack_buf* one = mcu_recv();  // L = 1 asks for no further byte
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(bytes(one->data, one->tail), (bytes{0xFF, 0x01}));
    mcu_free(one);

    // A frame that comes in short keeps its reserved length; the rest reads as zero.
    feed({0xFF, 0x08, 0x09, 0x40});
    close(fds[1]);
    pack_buf* shortf = mcu_recv();
    ASSERT_NE(shortf, nullptr);
    EXPECT_EQ(bytes(shortf->data, shortf->tail), (bytes{0xFF, 0x08, 0x09, 0x40, 0, 0, 0, 0, 0}));
    testing::internal::CaptureStdout();
    EXPECT_EQ(mcu_parse(shortf), -84);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[MCU IF] Wrong checksum, data may be corrupted\n");
    mcu_free(shortf);

    // A failing read in the hunt.
    close(fds[0]);
    serial_fd = -1;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mcu_recv(), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[MCU IF] read error!\n");
    serial_fd = saved;
}
