// Packet buffer bounds and the port's rate table.
#include <gtest/gtest.h>

#include "core/pack_buf.h"
#include "core/serial.h"

TEST(PackBuf, OperationsStopAtTheirBounds)
{
    using op = uint8_t* (*)(pack_buf*, size_t);
    op put = pack_buf_put, push = pack_buf_push, pull = pack_buf_pull, trim = pack_buf_trim;
    op reserve = [](pack_buf* b, size_t n) { return pack_buf_reserve(b, n), static_cast<uint8_t*>(nullptr); };
    op reset = [](pack_buf* b, size_t) { return pack_buf_reset(b), static_cast<uint8_t*>(nullptr); };
    // Steps on one 8-byte area: the pointer returned (offset from head, -1
    // for null), then the data and tail offsets after the step.
    struct { op o; size_t n; long ret, data, tail; } steps[] = {
        {push, 1, -1, 0, 0}, {reserve, 2, -1, 2, 2}, {put, 7, -1, 2, 2}, {put, 6, 2, 2, 8},
        {put, 1, -1, 2, 8},  {put, 0, 8, 2, 8},      {push, 3, -1, 2, 8}, {push, 2, 0, 0, 8},
        {pull, 9, -1, 0, 8}, {pull, 3, 0, 3, 8},     {trim, 6, -1, 3, 8}, {trim, 5, 3, 3, 3},
        {pull, 1, -1, 3, 3}, {trim, 1, -1, 3, 3},    {reset, 0, -1, 0, 0}, {reserve, 100, -1, 8, 8},
        {put, 1, -1, 8, 8},
    };
    pack_buf* b = pack_buf_alloc(8);
    ASSERT_EQ(b->end - b->head, 8);
    for (size_t i = 0; i < std::size(steps); ++i) {
        uint8_t* r = steps[i].o(b, steps[i].n);
        EXPECT_EQ(r ? r - b->head : -1, steps[i].ret) << "step " << i;
        EXPECT_EQ(b->data - b->head, steps[i].data) << "step " << i;
        EXPECT_EQ(b->tail - b->head, steps[i].tail) << "step " << i;
    }
    pack_buf_free(b);
}

TEST(Serial, RateTable)
{
    const std::pair<int, int> rates[] = {
        {9600, 0x000D},    {19200, 0x000E},   {38400, 0x000F},   {57600, 0x1001},   {115200, 0x1002},
        {230400, 0x1003},  {460800, 0x1004},  {500000, 0x1005},  {576000, 0x1006},  {921600, 0x1007},
        {1000000, 0x1008}, {1152000, 0x1009}, {1500000, 0x100A}, {2000000, 0x100B}, {2500000, 0x100C},
        {3000000, 0x100D}, {3500000, 0x100E}, {4000000, 0x100F}, {0, -1}, {4800, -1}, {115201, -1},
    };
    for (auto [rate, bits] : rates) EXPECT_EQ(baud_to_speed(rate), bits) << rate;
}
