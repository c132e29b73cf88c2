// dsp_cmd over a real (private) SysV queue: exact request bytes, the reply
// callbacks, retries after signals, and queue failures.
#include <atomic>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/msg.h>
#include <thread>
#include <unistd.h>

#include "mcu/mcu_state.h"

namespace {

struct big_msg {
    long type;
    char text[8192];
};

class DspCmd : public testing::Test {
protected:
    void SetUp() override
    {
        queue = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
        ASSERT_GE(queue, 0);
        mcu_state.dsp_queue_id = queue;
        pthread_mutex_init(&mcu_state.dsp_lock, nullptr);
    }
    void TearDown() override
    {
        msgctl(queue, IPC_RMID, nullptr);
        mcu_state.dsp_queue_id = -1;
        pthread_mutex_destroy(&mcu_state.dsp_lock);
    }

    // Takes one request exactly as sent.
    std::string take_request()
    {
        static big_msg m;
        ssize_t n;
        while ((n = msgrcv(queue, &m, sizeof m.text, 2, 0)) < 0 && errno == EINTR) {
        }
        return n < 0 ? std::string("<msgrcv failed>") : std::string(m.text, static_cast<size_t>(n));
    }
    void reply(const std::string& text)
    {
        static big_msg m;
        m.type = 1;
        memcpy(m.text, text.c_str(), text.size() + 1);
        ASSERT_EQ(msgsnd(queue, &m, text.size() + 1, 0), 0);
    }
    // Runs one dsp_cmd on its own thread against a scripted service.
    template <class Call>
    int exchange(Call call, const std::string& answer, std::string* request, std::string* out)
    {
        std::thread service([&] {
            *request = take_request();
            reply(answer);
        });
        testing::internal::CaptureStdout();
        int r = call();
        *out = testing::internal::GetCapturedStdout();
        service.join();
        return r;
    }

    int queue = -1;
};

std::atomic<int> signals_seen{0};
void on_signal(int) { ++signals_seen; }

}  // namespace

TEST_F(DspCmd, RequestTextAndCallbacks)
{
    std::string req, out;
    EXPECT_EQ(exchange([] { return dsp_cmd(dsp_reply_ok, "dsp vol %d %f\n", 3, -12.5); }, "[ok]", &req, &out), 0);
    EXPECT_EQ(req, std::string("dsp vol 3 -12.500000\n\0", 22));  // the NUL travels
    EXPECT_EQ(out, "");

    // "[ok]" compares exactly: a line end behind it is a failure.
    EXPECT_EQ(exchange([] { return dsp_cmd(dsp_reply_ok, "dsp s4_filter 0\n"); }, "[ok]\n", &req, &out), -1);
    EXPECT_EQ(out, "[MCU IF] command failed\n");
    EXPECT_EQ(exchange([] { return dsp_cmd(dsp_reply_ok, "x\n"); }, "", &req, &out), -1);

    struct int_case {
        const char* reply;
        int result;
    };
    for (auto c : {int_case{"state:1", 1}, int_case{"rec:state:42", 42}, int_case{"no colon", -1},
                   int_case{"state:", 0}, int_case{"v:-7 tail", -7}, int_case{":x", 0}}) {
        EXPECT_EQ(exchange([] { return dsp_cmd(dsp_reply_int, "dsp rec state\n"); }, c.reply, &req, &out), c.result)
            << c.reply;
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(req, std::string("dsp rec state\n\0", 15));

    // A null callback: the reply is awaited and dropped.
    EXPECT_EQ(exchange([] { return dsp_cmd(nullptr, "dsp rec mode %d\n", 0); }, "[refused]", &req, &out), 0);
    EXPECT_EQ(req, std::string("dsp rec mode 0\n\0", 16));

    // dsp_reply_copy leaves the reply, and nothing of an earlier longer one.
    EXPECT_EQ(exchange([] { return dsp_cmd(dsp_reply_copy, "dsp s4_ch_eng\n"); }, "{ENG_L:3,ENG_R:12}", &req, &out),
              0);
    EXPECT_EQ(exchange([] { return dsp_cmd(dsp_reply_copy, "dsp s4_ch_eng\n"); }, "{FS:1}", &req, &out), 0);
    EXPECT_EQ(std::string(dsp_reply), "{FS:1}");
    EXPECT_EQ(std::string(dsp_reply + 7, 12), std::string(12, '\0'));
}

TEST_F(DspCmd, SignalsDoNotLoseTheExchange)
{
    struct sigaction sa {};
    sa.sa_handler = on_signal;  // no SA_RESTART; SysV queue calls are never restarted anyway
    struct sigaction old {};
    sigaction(SIGUSR1, &sa, &old);
    signals_seen = 0;

    // A full queue makes msgsnd block, so that the signal meets it there.
    msqid_ds ds{};
    ASSERT_EQ(msgctl(queue, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 64;
    ASSERT_EQ(msgctl(queue, IPC_SET, &ds), 0);
    static big_msg filler;
    filler.type = 9;
    ASSERT_EQ(msgsnd(queue, &filler, 64, IPC_NOWAIT), 0);

    std::atomic<int> result{-100};
    std::atomic<bool> done{false};
    pthread_t caller_handle{};
    std::atomic<bool> have_handle{false};
    std::thread caller([&] {
        caller_handle = pthread_self();
        have_handle = true;
        result = dsp_cmd(dsp_reply_int, "dsp alter state\n");
        done = true;
    });
    while (!have_handle) usleep(1000);
    auto poke = [&] {
        for (int i = 0; i < 3; ++i) {
            usleep(30000);
            pthread_kill(caller_handle, SIGUSR1);
        }
    };
    poke();  // blocked in msgsnd
    EXPECT_FALSE(done);
    ASSERT_GE(msgrcv(queue, &filler, sizeof filler.text, 9, 0), 0);
    EXPECT_EQ(take_request(), std::string("dsp alter state\n\0", 17));
    poke();  // blocked in msgrcv
    EXPECT_FALSE(done);
    reply("alter:state:5");
    caller.join();
    EXPECT_EQ(result, 5);
    EXPECT_EQ(signals_seen, 6);
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(DspCmd, QueueFailuresReleaseTheLock)
{
    std::string req, out;
    // A reply that does not fit fails its command only: it leaves the queue.
    auto vol = [] { return dsp_cmd(dsp_reply_ok, "dsp vol 1 0\n"); };
    EXPECT_EQ(exchange(vol, std::string(3071, 'x'), &req, &out), -1);
    EXPECT_EQ(out, "[MCU IF] command failed\n");
    EXPECT_EQ(exchange(vol, std::string(3072, 'x'), &req, &out), -1);
    EXPECT_EQ(out, "[MCU IF] receive dsp command response failed\n");
    EXPECT_EQ(exchange(vol, "[ok]", &req, &out), 0);

    // The queue goes away while the reply is awaited.
    std::thread service([&] {
        req = take_request();
        msgctl(queue, IPC_RMID, nullptr);
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(dsp_cmd(nullptr, "dsp vmb_Get_AudioInfo\n"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[MCU IF] receive dsp command response failed\n");
    service.join();
    EXPECT_EQ(req, std::string("dsp vmb_Get_AudioInfo\n\0", 23));
    ASSERT_EQ(pthread_mutex_trylock(&mcu_state.dsp_lock), 0);
    pthread_mutex_unlock(&mcu_state.dsp_lock);

    // No queue at all.
    testing::internal::CaptureStdout();
    EXPECT_EQ(dsp_cmd(dsp_reply_ok, "dsp vol 0 0\n"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[MCU IF] send dsp command failed\n");
    ASSERT_EQ(pthread_mutex_trylock(&mcu_state.dsp_lock), 0);
    pthread_mutex_unlock(&mcu_state.dsp_lock);
}
