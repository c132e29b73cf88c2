// dsp_cmd against a scripted DSP service on a private SysV queue: the request
// bytes, the reply callbacks, queue failures, and the rows of the settings
// tables as the commands the handlers send.
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <sys/msg.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/protocol.h"
#include "core/serial.h"
#include "mcu/handlers.h"
#include "mcu/mcu_state.h"

namespace {

// A service thread answers each request by `answer`; "<gone>" removes the queue instead.
class DspCmd : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_GE(mcu_state.dsp_queue_id = queue = msgget(IPC_PRIVATE, IPC_CREAT | 0600), 0);
        service = std::thread([this] {
            static struct { long type; char text[8192]; } m;
            for (ssize_t n; (n = msgrcv(queue, &m, sizeof m.text, DSP_REQUEST_TYPE, 0)) >= 0;) {
                std::string reply;
                {
                    std::lock_guard<std::mutex> g(lock);
                    requests.append(m.text, static_cast<size_t>(n));
                    reply = answer(m.text);
                }
                if (reply == "<gone>") break;
                m.type = DSP_RESPONSE_TYPE;
                memcpy(m.text, reply.c_str(), reply.size() + 1);
                msgsnd(queue, &m, reply.size() + 1, 0);
            }
            msgctl(queue, IPC_RMID, nullptr);
        });
    }
    void TearDown() override
    {
        msgctl(queue, IPC_RMID, nullptr);
        service.join();
    }
    void answer_with(std::function<std::string(const char*)> f)
    {
        std::lock_guard<std::mutex> g(lock);
        answer = std::move(f);
    }
    std::string taken()  // the requests so far, each with its NUL
    {
        std::lock_guard<std::mutex> g(lock);
        return std::exchange(requests, {});
    }
    // The commands a handler sent, NULs dropped; its output is not wanted.
    std::string commands(int (*handler)(const uint8_t*, uint8_t), std::vector<uint8_t> payload)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        handler(payload.data(), static_cast<uint8_t>(payload.size()));
        testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
        std::string s = taken();
        std::erase(s, '\0');
        return s;
    }

    int queue = -1;
    std::thread service;
    std::mutex lock;
    std::string requests;
    std::function<std::string(const char*)> answer = [](const char*) { return "[ok]"; };
};

}  // namespace

TEST_F(DspCmd, RequestTextAndCallbacks)
{
    EXPECT_EQ(dsp_cmd(dsp_reply_ok, "dsp vol %d %f\n", 3, -12.5), 0);
    EXPECT_EQ(taken(), std::string("dsp vol 3 -12.500000\n\0", 22));  // the NUL travels
    EXPECT_EQ(dsp_cmd(nullptr, "%s", std::string(4000, 'y').c_str()), 0);
    EXPECT_EQ(taken(), std::string(3071, 'y') + '\0');  // cut to what the service takes

    struct { dsp_reply_fn cb; const char* reply; int result; const char* log; } rows[] = {
        {dsp_reply_ok, "[ok]\n", -1, "[MCU IF] command failed\n"},  // "[ok]" compares exactly
        {dsp_reply_ok, "", -1, "[MCU IF] command failed\n"},
        {dsp_reply_int, "state:1", 1, ""}, {dsp_reply_int, "rec:state:42", 42, ""},
        {dsp_reply_int, "no colon", -1, ""}, {dsp_reply_int, "state:", 0, ""},
        {dsp_reply_int, "v:-7 tail", -7, ""}, {dsp_reply_int, ":x", 0, ""},
        {nullptr, "[refused]", 0, ""},  // awaited and dropped
        {dsp_reply_copy, "{ENG_L:3,ENG_R:12}", 0, ""}, {dsp_reply_copy, "{FS:1}", 0, ""},
    };
    for (const auto& r : rows) {
        answer_with([&](const char*) { return r.reply; });
        testing::internal::CaptureStdout();
        EXPECT_EQ(dsp_cmd(r.cb, "dsp rec state\n"), r.result) << r.reply;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), r.log) << r.reply;
        EXPECT_EQ(taken(), std::string("dsp rec state\n\0", 15));
    }
    // dsp_reply_copy leaves the reply, and nothing of an earlier longer one.
    EXPECT_EQ(std::string(dsp_reply), "{FS:1}");
    EXPECT_EQ(std::string(dsp_reply + 7, 12), std::string(12, '\0'));
}

TEST_F(DspCmd, QueueFailuresReleaseTheLock)
{
    // A reply that does not fit fails its command only: it leaves the queue.
    const std::pair<std::string, std::string> replies[] = {
        {std::string(3071, 'x'), "[MCU IF] command failed\n"},
        {std::string(3072, 'x'), "[MCU IF] receive dsp command response failed\n"}, {"[ok]", ""},
        {"<gone>", "[MCU IF] receive dsp command response failed\n"},  // removed while the reply is awaited
    };
    for (const auto& [reply, log] : replies) {
        answer_with([&](const char*) { return reply; });
        testing::internal::CaptureStdout();
        EXPECT_EQ(dsp_cmd(dsp_reply_ok, "dsp vol 0 0\n"), reply == "[ok]" ? 0 : -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), log);
    }
    EXPECT_EQ(mcu_state.dsp_queue_id, -1);  // dropped, to be looked up again before the next command
    mcu_state.dsp_queue_id = queue;         // the removed queue's id instead: no lookup of the real key
    testing::internal::CaptureStdout();
    EXPECT_EQ(dsp_cmd(dsp_reply_ok, "dsp vol 0 0\n"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[MCU IF] send dsp command failed\n");
    ASSERT_EQ(pthread_mutex_trylock(&mcu_state.dsp_lock), 0);
    pthread_mutex_unlock(&mcu_state.dsp_lock);
}

TEST_F(DspCmd, AtmosAndDtsxRows)
{
    const std::string report = "dsp vmb_Get_AudioInfo\ndsp s4_ch_eng\n";
    mcu_state.atmos_seen = mcu_state.dtsx_seen = 0;
    // Every field set and unlike the same bits of the next byte; byte 11 lies beyond.
    EXPECT_EQ(commands(handler_atmos, {0x5A, 37, 150, 0x70, 11, 22, 33, 44, 0x78, 0x8E, 1, 0x77}),
              "dsp atmos 2 10\ndsp atmos 8 0 1\ndsp atmos 14 1\ndsp atmos 8 1 0.370000\n"
              "dsp atmos 8 2 1.500000\ndsp atmos 6 1\ndsp atmos 4 0\ndsp atmos 9 0 2\n"
              "dsp atmos 9 1 11\ndsp atmos 9 2 22\ndsp atmos 9 3 33\ndsp atmos 9 4 44\n"
              "dsp atmos 1 1\ndsp atmos 3 1\ndsp atmos 10 1\ndsp atmos 5 1\ndsp atmos 11 1\n"
              "dsp atmos 7 2 1\ndsp atmos 7 1 1\ndsp atmos 7 0 8\ndsp atmos 15 1\n" + report);
    // Only changed fields go out.
    EXPECT_EQ(commands(handler_atmos, {0x5A, 37, 150, 0xB0, 11, 22, 33, 44, 0x78, 0x86, 1, 0}),
              "dsp atmos 9 0 0\ndsp atmos 7 1 0\n" + report);
    // Every field changes and every reply refuses: report bytes 10 and 11 carry the failure bits,
    // but for mapped field 3, which sends nothing.
    int fds[2], saved = serial_fd;
    ASSERT_EQ(pipe(fds), 0);
    serial_fd = fds[1];
    protocol_reset();
    protocol_register(&mcu_vmb_protocol);
    protocol_select(PROTO_MCU);
    answer_with([](const char* req) { return strncmp(req, "dsp atmos", 9) ? "[ok]" : "[no]"; });
    commands(handler_atmos, {0xA5, 38, 151, 0xCF, 12, 23, 34, 45, 0x07, 0x48, 2, 0});
    uint8_t frame[16] = {};
    EXPECT_EQ(read(fds[0], frame, sizeof frame), 16);
    EXPECT_EQ((std::vector<uint8_t>{frame[2], frame[13], frame[14]}), (std::vector<uint8_t>{0x21, 0x77, 0x7E}));
    protocol_reset();
    serial_fd = saved;
    close(fds[0]);
    close(fds[1]);

    EXPECT_EQ(commands(handler_dtsx, {0x0F, 0xD0, 0xF7, 0}),
              "dsp dtsx 4 1\ndsp dtsx 1 1\ndsp dtsx 5 1\ndsp dtsx 3 1\ndsp dtsx 2 208\ndsp dtsx 0 7\n");
    EXPECT_EQ(commands(handler_dtsx, {0x0F, 0xD0, 0x17, 0}), "");  // the high nibble of byte 2 is no field
    EXPECT_EQ(commands(handler_dtsx, {0x0E, 0xD0, 0x16, 0}), "dsp dtsx 4 0\ndsp dtsx 0 6\n");
}

TEST_F(DspCmd, SourceAndMixModeRows)
{
    setenv("PATH", "/nonexistent", 1);  // the register writes of sources 1 to 4 find no devmem
    mcu_state.source_seen = mcu_state.mix_seen = mcu_state.dec_upmix_seen = mcu_state.audio_format = 0;
    mcu_state.i2s_seen = 1;  // the I2S word stays 0
    mcu_state.last_i2s_word = 0;
    // Byte 0: source in the low nibble, mix mode in the high one.
    struct { uint8_t byte0; const char* sent; } rows[] = {
        {0x10, "dsp vmb_input_source 0\ndsp vmb_2ch_audio_mode 0\ndsp dec_out 4\ndsp upmix 2\n"},
        {0x21, "dsp vmb_input_source 1\ndsp vmb_2ch_audio_mode 1\n"},
        {0x32, "dsp vmb_input_source 2\ndsp vmb_2ch_audio_mode 2\n"},
        {0x43, "dsp vmb_input_source 3\ndsp vmb_2ch_audio_mode 3\n"},
        {0x54, "dsp vmb_input_source 4\ndsp vmb_2ch_audio_mode 4\n"},
        {0x16, "dsp vmb_input_source 6\ndsp vmb_2ch_audio_mode 0\n"},
        {0x28, "dsp vmb_input_source 8\ndsp vmb_2ch_audio_mode 1\n"},
        {0x3A, "dsp vmb_input_source 10\ndsp vmb_2ch_audio_mode 2\n"},
        {0x4C, "dsp vmb_input_source 0\ndsp vmb_2ch_audio_mode 3\n"},  // 12 sends 0
        {0xAC, "dsp vmb_2ch_audio_mode 1\n"},                          // and stays 12
        {0x65, ""}, {0x07, ""}, {0xF9, ""}, {0xBB, ""}, {0x0D, ""},     // unknown
        {0x1C, "dsp vmb_2ch_audio_mode 0\n"},
    };
    for (const auto& r : rows) EXPECT_EQ(commands(handler_mix_mode, {r.byte0, 0x02, 0x84, 0}), r.sent) << +r.byte0;
}
