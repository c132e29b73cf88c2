// Packet buffer bounds, the protocol registry and the two pumps.
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "core/pack_buf.h"
#include "core/protocol.h"
#include "core/serial.h"

TEST(PackBuf, OperationsStopAtTheirBounds)
{
    pack_buf* b = pack_buf_alloc(8);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->data, b->head);
    EXPECT_EQ(b->tail, b->head);
    EXPECT_EQ(b->end - b->head, 8);
    EXPECT_EQ(pack_buf_push(b, 1), nullptr);  // data at head

    pack_buf_reserve(b, 2);
    EXPECT_EQ(b->data, b->head + 2);
    EXPECT_EQ(b->tail, b->head + 2);
    EXPECT_EQ(pack_buf_put(b, 7), nullptr);  // one more than the room
    EXPECT_EQ(b->tail, b->head + 2);
    EXPECT_EQ(pack_buf_put(b, 6), b->head + 2);  // exactly the room
    EXPECT_EQ(b->tail, b->end);
    EXPECT_EQ(pack_buf_put(b, 1), nullptr);
    EXPECT_EQ(pack_buf_put(b, 0), b->end);

    EXPECT_EQ(pack_buf_push(b, 3), nullptr);
    EXPECT_EQ(pack_buf_push(b, 2), b->head);
    EXPECT_EQ(pack_buf_len(b), 8u);

    EXPECT_EQ(pack_buf_pull(b, 9), nullptr);
    EXPECT_EQ(b->data, b->head);
    EXPECT_EQ(pack_buf_pull(b, 3), b->head);
    EXPECT_EQ(pack_buf_trim(b, 6), nullptr);
    EXPECT_EQ(b->tail, b->end);
    EXPECT_EQ(pack_buf_trim(b, 5), b->head + 3);
    EXPECT_EQ(pack_buf_len(b), 0u);
    EXPECT_EQ(pack_buf_pull(b, 1), nullptr);
    EXPECT_EQ(pack_buf_trim(b, 1), nullptr);

    pack_buf_reset(b);
    EXPECT_EQ(b->data, b->head);
    EXPECT_EQ(b->tail, b->head);
    pack_buf_reserve(b, 100);  // a head room past the end is cut to the area
    EXPECT_EQ(b->data, b->end);
    EXPECT_EQ(pack_buf_put(b, 1), nullptr);
    pack_buf_free(b);
}

namespace {

struct fake_link {
    int recvs = 0, parses = 0, frees = 0;
    pack_buf* buf = nullptr;
    bool give_buffer = true;
    std::string content = "abc";
};
fake_link link_state;

pack_buf* fake_recv()
{
    ++link_state.recvs;
    return link_state.give_buffer ? link_state.buf : nullptr;
}
pack_buf* fake_pack(uintptr_t, uintptr_t)
{
    if (!link_state.give_buffer) return nullptr;
    pack_buf_reset(link_state.buf);
    memcpy(pack_buf_put(link_state.buf, link_state.content.size()), link_state.content.data(),
           link_state.content.size());
    return link_state.buf;
}
void fake_free(pack_buf*) { ++link_state.frees; }
int fake_parse(pack_buf* b)
{
    EXPECT_EQ(b, link_state.buf);
    ++link_state.parses;
    return 5;
}
int fake_init() { return 0; }

if_protocol make_protocol(int id, void (*free_op)(pack_buf*))
{
    return {nullptr, id, fake_init, fake_init, fake_recv, fake_pack, free_op, fake_parse};
}

std::string read_pipe(int fd)
{
    char buf[64];
    ssize_t n = read(fd, buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

}  // namespace

TEST(Protocol, RegistrySelectAndPumps)
{
    protocol_reset();
    link_state = {};
    link_state.buf = pack_buf_alloc(16);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_NONBLOCK), 0);
    int saved_fd = serial_fd;
    serial_fd = fds[1];

    if_protocol a = make_protocol(7, nullptr), b = make_protocol(7, fake_free), c = make_protocol(3, fake_free),
                d = make_protocol(3, nullptr), e = make_protocol(7, nullptr);
    EXPECT_EQ(protocol_register(&a), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(protocol_register(&b), -17);
    EXPECT_EQ(protocol_register(&c), 0);
    EXPECT_EQ(protocol_register(&d), -17);
    EXPECT_EQ(protocol_register(&e), -17);  // the id of an earlier entry, not the last
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[MCUIF CORE] protocol with same id has been registered\n"
              "[MCUIF CORE] protocol with same id has been registered\n"
              "[MCUIF CORE] protocol with same id has been registered\n");
    EXPECT_EQ(a.next, &c);
    EXPECT_EQ(c.next, nullptr);

    // Nothing current: the pumps do nothing.
    EXPECT_EQ(protocol_select(4), -22);
    EXPECT_EQ(protocol_current(), nullptr);
    EXPECT_EQ(if_send(0, 0), -22);
    if_poll();
    EXPECT_EQ(link_state.recvs, 0);

    // A protocol with an empty free slot: its buffer stays usable.
    ASSERT_EQ(protocol_select(7), 0);
    EXPECT_EQ(protocol_current(), &a);
    EXPECT_EQ(if_send(0, 0), 3);
    EXPECT_EQ(read_pipe(fds[0]), "abc");
    link_state.content = "";
    EXPECT_EQ(if_send(0, 0), 0);  // a packet of length zero is written, with length 0
    EXPECT_EQ(read_pipe(fds[0]), "");
    if_poll();
    EXPECT_EQ(link_state.parses, 1);
    EXPECT_EQ(link_state.frees, 0);

    EXPECT_EQ(protocol_select(9), -22);  // the current entry stays
    EXPECT_EQ(protocol_current(), &a);

    ASSERT_EQ(protocol_select(3), 0);
    link_state.content = "xy";
    EXPECT_EQ(if_send(0, 0), 2);
    EXPECT_EQ(link_state.frees, 1);
    if_poll();
    EXPECT_EQ(link_state.parses, 2);
    EXPECT_EQ(link_state.frees, 2);
    EXPECT_EQ(read_pipe(fds[0]), "xy");

    // No buffer from pack or recv: nothing written, parse and free not called.
    link_state.give_buffer = false;
    EXPECT_EQ(if_send(0, 0), -12);
    if_poll();
    EXPECT_EQ(link_state.recvs, 3);
    EXPECT_EQ(link_state.parses, 2);
    EXPECT_EQ(link_state.frees, 2);
    EXPECT_EQ(read_pipe(fds[0]), "");

    protocol_reset();
    serial_fd = saved_fd;
    close(fds[0]);
    close(fds[1]);
    pack_buf_free(link_state.buf);
}

TEST(Protocol, RegisterAllTwice)
{
    protocol_reset();
    testing::internal::CaptureStdout();
    EXPECT_EQ(protocol_register_all(), 0);
    EXPECT_EQ(protocol_register_all(), -17);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[MCUIF CORE] protocol with same id has been registered\n"
              "[MCUIF CORE] failed to register dsptool_protocol\n"
              "[MCUIF CORE] protocol with same id has been registered\n"
              "[MCUIF CORE] failed to register mcu_vmb_protocol\n");
    EXPECT_EQ(protocol_select(1), 0);
    EXPECT_EQ(protocol_current(), &dsptool_protocol);
    EXPECT_EQ(protocol_select(2), 0);
    EXPECT_EQ(protocol_current(), &mcu_vmb_protocol);
    EXPECT_EQ(dsptool_protocol.next, &mcu_vmb_protocol);
    protocol_reset();
}

TEST(Serial, RateTable)
{
    const std::pair<int, int> rates[] = {
        {9600, 0x000D},    {19200, 0x000E},   {38400, 0x000F},   {57600, 0x1001},  {115200, 0x1002},
        {230400, 0x1003},  {460800, 0x1004},  {500000, 0x1005},  {576000, 0x1006}, {921600, 0x1007},
        {1000000, 0x1008}, {1152000, 0x1009}, {1500000, 0x100A}, {2000000, 0x100B}, {2500000, 0x100C},
        {3000000, 0x100D}, {3500000, 0x100E}, {4000000, 0x100F},
    };
    for (auto [rate, bits] : rates) EXPECT_EQ(baud_to_speed(rate), bits) << rate;
    for (int rate : {0, 4800, 2400, 1, -9600, 115201, 4000001, 7200}) EXPECT_EQ(baud_to_speed(rate), -1) << rate;
}
