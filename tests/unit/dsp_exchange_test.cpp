// The exchange lock between processes, on a private queue and semaphore, in
// a child of its own (the lock is process-wide state): a holder killed
// between its send and its reply leaves the lock free and its late reply is
// not taken for the next request; a held lock keeps the request back; a
// neighbour that exchanges back to back keeps nobody out.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "core/dsp_queue.h"

namespace {

size_t request(dsp_message& m, const char* text)
{
    m.type = DSP_REQUEST_TYPE;
    snprintf(m.text, sizeof m.text, "%s", text);
    return strlen(text) + 1;
}

// The service's side: takes one request, answers it with text.
std::thread serve_one(int q, const char* text)
{
    return std::thread([q, text] {
        dsp_message m;
        msgrcv(q, &m, sizeof m.text, DSP_REQUEST_TYPE, 0);
        m.type = DSP_RESPONSE_TYPE;
        snprintf(m.text, sizeof m.text, "%s", text);
        msgsnd(q, &m, strlen(text) + 1, 0);
    });
}

#define CHECK(c) if (!(c)) { fprintf(stderr, "failed: %s\n", #c); return false; }

bool cases(int q, int sem)
{
    dsp_message m;
    pid_t holder = fork();
    if (holder == 0) {
        int id = q;
        dsp_exchange(id, m, request(m, "hold"), true);
        _exit(0);
    }
    CHECK(msgrcv(q, &m, sizeof m.text, DSP_REQUEST_TYPE, 0) > 0);
    CHECK(semctl(sem, 0, GETVAL) == 1);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    CHECK(semctl(sem, 0, GETVAL) == 0);
    // The service answers the dead holder's request late.
    m.type = DSP_RESPONSE_TYPE;
    strcpy(m.text, "late");
    CHECK(msgsnd(q, &m, 5, 0) == 0);

    int id = q;
    std::thread service = serve_one(q, "fresh");
    CHECK(dsp_exchange(id, m, request(m, "next"), true) == dsp_step::done);
    service.join();
    CHECK(!strcmp(m.text, "fresh"));

    // Another process's hold: the exchange waits for 0 before it sends.
    sembuf take = {0, 1, 0}, give = {0, -1, 0};
    CHECK(semop(sem, &take, 1) == 0);
    std::thread waiting([&] { dsp_exchange(id, m, request(m, "after"), true); });
    for (int i = 0; i < 2000 && semctl(sem, 0, GETZCNT) == 0; ++i) usleep(10000);
    msqid_ds ds{};
    CHECK(semctl(sem, 0, GETZCNT) == 1 && msgctl(q, IPC_STAT, &ds) == 0 && ds.msg_qnum == 0);
    service = serve_one(q, "after");
    CHECK(semop(sem, &give, 1) == 0);
    waiting.join();
    service.join();
    CHECK(!strcmp(m.text, "after"));
    return true;
}

// The service's side for many: each request is answered with its own text, until "stop".
std::thread echo_service(int q)
{
    return std::thread([q] {
        dsp_message m;
        while (msgrcv(q, &m, sizeof m.text, DSP_REQUEST_TYPE, 0) > 0 && strcmp(m.text, "stop") != 0) {
            m.type = DSP_RESPONSE_TYPE;
            msgsnd(q, &m, strlen(m.text) + 1, 0);
        }
    });
}

// A process that exchanges back to back, as a flooded link does, does not
// keep another one out: the lock goes to the one that waits when the holder
// lets it go. Every reply is the asker's own.
bool busy_neighbour(int q)
{
    pid_t busy = fork();
    if (busy == 0) {
        int id = q;
        dsp_message m;
        for (;;)
            if (dsp_exchange(id, m, request(m, "busy"), true) != dsp_step::done || strcmp(m.text, "busy") != 0) _exit(1);
    }
    std::thread service = echo_service(q);
    int id = q;
    dsp_message m;
    bool ok = true;
    for (int i = 0; i < 200 && ok; ++i)
        ok = dsp_exchange(id, m, request(m, "mine"), true) == dsp_step::done && !strcmp(m.text, "mine");
    int status = 0;
    bool busy_alive = waitpid(busy, &status, WNOHANG) == 0;
    kill(busy, SIGKILL);
    waitpid(busy, nullptr, 0);
    msgsnd(q, &m, request(m, "stop"), 0);
    service.join();
    CHECK(ok && busy_alive);
    return true;
}

}  // namespace

TEST(DspExchange, OneAtATimeAcrossProcesses)
{
    EXPECT_EXIT(
        {
            int q = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
            int sem = dsp_exchange_lock_setup(IPC_PRIVATE);
            alarm(120);  // a starved exchange fails instead of hanging
            bool ok = q >= 0 && sem >= 0 && cases(q, sem) && busy_neighbour(q);
            msgctl(q, IPC_RMID, nullptr);
            semctl(sem, 0, IPC_RMID);
            exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
