/*
 * What the C++ face costs over the C calls: instructions a datagram, counted by stepping through both. Unlike times,
 * they are the same on a busy machine.
 */
#include "face_cost.h"

#include "cases.h"
#include "memory_endpoint.h"

#include <csignal>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace face_cost;
using bench::MemoryEndpoint;

constexpr unsigned few = 8;

/* Instructions of a call in a child process; 0 when it did not come to its end. */
uint64_t instructions(const std::function<void()> &call)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(1);
        raise(SIGSTOP);
        call();
        raise(SIGSTOP);
        _exit(0);
    }
    int status = 0;
    uint64_t steps = 0;
    bool ended = false;
    if (waitpid(child, &status, 0) == child && WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP)
        while (!ended && ptrace(PTRACE_SINGLESTEP, child, nullptr, nullptr) == 0 &&
               waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
            steps++;
            ended = WSTOPSIG(status) == SIGSTOP;
            if (!ended && WSTOPSIG(status) != SIGTRAP)
                break;
        }
    if (child > 0 && WIFSTOPPED(status)) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return ended ? steps : 0;
}

/* Of one step, without what stands around all of them. */
uint64_t each(const std::function<void()> &step)
{
    const auto several = [&](unsigned n) {
        return [&step, n] {
            for (unsigned i = 0; i < n; i++)
                step();
        };
    };
    step(); /* so that functions of other objects are bound, and their pages there */
    const uint64_t once = instructions(several(few)), twice = instructions(several(2 * few));
    EXPECT_NE(once, 0u);
    EXPECT_EQ((twice - once) % few, 0u) << "steps differ";
    return (twice - once) / few;
}

/* An endpoint over memory with datagrams in its ring, and owners of its handles. */
struct Bench {
    Bench()
    {
        for (unsigned i = 0; i < 2 * few + 1; i++)
            memory.ring.write_event(1, 64, memory.tag(), memory.port());
    }
    /* The handles are the memory endpoint's. */
    ~Bench()
    {
        (void)face.endpoint.release();
        (void)face.channel.release();
        (void)face.handle.release();
    }
    Bench(const Bench &) = delete;
    Bench &operator=(const Bench &) = delete;

    MemoryEndpoint memory;
    CApp c{memory.device(), memory.channel(), memory.connected(), 0, 0};
    FaceApp face{
        ruk::endpoint(memory.device()), ruk::channel(memory.channel()), ruk::send_handle(memory.connected()), {}, {}};
    sockaddr_in to = MemoryEndpoint::destination();
    uint16_t completed = 0;
    std::byte bytes[2048] = {};
};

using Step = std::function<uint64_t(Bench &)>;

/* Instructions of a step, each on an endpoint of its own. */
uint64_t cost(const Step &step)
{
    Bench bench;
    volatile uint64_t result = 0;
    return each([&] { result = step(bench); });
}

/* The same with every request completed before the next. */
uint64_t cost_of_sending(const std::function<void(Bench &)> &send)
{
    return cost([&](Bench &b) {
        b.memory.complete(b.completed++);
        send(b);
        return uint64_t{0};
    });
}

void expect_at_most(uint64_t surplus, uint64_t c, uint64_t face)
{
    ASSERT_GT(c, 100u); /* the call itself was stepped through */
    printf("C: %llu instructions, C++: %llu\n", static_cast<unsigned long long>(c),
           static_cast<unsigned long long>(face));
    EXPECT_LE(face, c + surplus);
}

TEST(FaceCost, Receive_IsTheCall)
{
    expect_at_most(0, cost([](Bench &b) { return receive(b.c, b.bytes, sizeof b.bytes); }),
                   cost([](Bench &b) { return receive(b.face, b.bytes, sizeof b.bytes); }));
}

TEST(FaceCost, ReceiveWithCode_IsTheCallAndAtMostFourInstructions)
{
    expect_at_most(4, cost([](Bench &b) { return receive_with_code(b.c, b.bytes, sizeof b.bytes); }),
                   cost([](Bench &b) { return receive_with_code(b.face, b.bytes, sizeof b.bytes); }));
}

TEST(FaceCost, TryReceive_IsTheCall)
{
    expect_at_most(0, cost([](Bench &b) { return poll(b.c, b.bytes, sizeof b.bytes); }),
                   cost([](Bench &b) { return poll(b.face, b.bytes, sizeof b.bytes); }));
}

/* C has none: what an int does not hold is sent with another length. */
constexpr uint64_t test_of_length = sizeof(void *) == 8 ? 2 : 5; /* 32 bits: on the stack, and more of that */

TEST(FaceCost, Send_IsTheCallAndATestOfTheLength)
{
    expect_at_most(test_of_length, cost_of_sending([](Bench &b) { send(b.c, b.bytes, 64); }),
                   cost_of_sending([](Bench &b) { send(b.face, b.bytes, 64); }));
}

TEST(FaceCost, TrySend_IsTheCallAndATestOfTheLength)
{
    expect_at_most(test_of_length, cost_of_sending([](Bench &b) { (void)try_send(b.c, b.bytes, 64); }),
                   cost_of_sending([](Bench &b) { (void)try_send(b.face, b.bytes, 64); }));
}

TEST(FaceCost, SendWithCode_IsTheCallATestOfTheLengthAndAtMostTwoInstructions)
{
    expect_at_most(test_of_length + 2, cost_of_sending([](Bench &b) { send_with_code(b.c, b.bytes, 64); }),
                   cost_of_sending([](Bench &b) { send_with_code(b.face, b.bytes, 64); }));
}

TEST(FaceCost, SendTo_IsTheCallAndATestOfTheLength)
{
    expect_at_most(test_of_length, cost_of_sending([](Bench &b) { send_to(b.c, b.to, b.bytes, 64); }),
                   cost_of_sending([](Bench &b) { send_to(b.face, b.to, b.bytes, 64); }));
}

} // namespace
