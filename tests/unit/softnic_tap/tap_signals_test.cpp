// The tap lives in programs that have plans of their own for SIGTRAP and SIGSEGV, and none is lost.
#include <gtest/gtest.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "tap_test_support.h"

#pragma GCC diagnostic ignored "-Wdeprecated-declarations" // old programs use what they used

extern "C" sighandler_t bsd_signal(int signo, sighandler_t handler) noexcept; // not in every header

namespace {

using namespace softnic;
using namespace softnic::test;

// Dispositions are the process's: each case has a process of its own.
void expect_child(const std::function<int()> &body, int status = 0)
{
    ChildResult child = in_child(body);
    EXPECT_EQ(child.status, status) << child.err;
}

bool traffic_is_complete(TapMode mode, TrafficPlan plan = {.requests = 3000, .threads = 2, .dma_of_ten = 5})
{
    plan.one_dma_outstanding = mode == TapMode::fast;
    Window window;
    TrafficResult result = run_traffic(window, mode, plan);
    if (result.mode == mode && complete(result, plan))
        return true;
    fprintf(stderr, "%s\n", describe(result).c_str());
    return false;
}

constexpr TapMode all_modes[] = {TapMode::fast, TapMode::exact, TapMode::fallback};

volatile sig_atomic_t trap_count, trap_code, fault_count;
void *volatile fault_address;
sigjmp_buf fault_return;

void count_trap(int, siginfo_t *info, void *)
{
    trap_count = trap_count + 1;
    trap_code = info->si_code;
}
void count_trap_plainly(int) { trap_count = trap_count + 1; }

void leave_fault(int, siginfo_t *info, void *)
{
    fault_count = fault_count + 1;
    fault_address = info->si_addr;
    siglongjmp(fault_return, 1);
}

void install(int signo, void (*handler)(int, siginfo_t *, void *), int flags = 0)
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | flags;
    if (sigaction(signo, &action, nullptr) != 0)
        abort();
}

// 0 when both a breakpoint instruction and a sent SIGTRAP reach the program's handler, once each.
int check_traps_arrive()
{
    trap_count = 0;
    __asm__ __volatile__("int3");
    if (trap_count != 1)
        return 10;
    raise(SIGTRAP);
    return trap_count == 2 ? 0 : 11;
}

// A store there reaches the program's handler, which recovers by a jump.
bool store_is_recovered(char *where)
{
    fault_address = nullptr;
    if (sigsetjmp(fault_return, 1) == 0)
        *static_cast<volatile char *>(where) = 1;
    void *seen = fault_address;
    return seen == where;
}

// 0 when bad stores elsewhere are the program's own, again and again.
int check_faults_arrive()
{
    char *page = static_cast<char *>(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    fault_count = 0;
    for (int i = 0; i < 3; i++)
        if (!store_is_recovered(page + 100 + i))
            return 20;
    munmap(page, 4096);
    return fault_count == 3 ? 0 : 21;
}

TEST(TapSignals, ProgramHandlersOlderThanTheTap_BothServed)
{
    for (TapMode mode : all_modes)
        expect_child([mode] {
            install(SIGTRAP, count_trap);
            install(SIGSEGV, leave_fault);
            if (!traffic_is_complete(mode) || trap_count != 0 || fault_count != 0)
                return 1;
            if (int error = check_traps_arrive())
                return error;
            if (int error = check_faults_arrive())
                return error;
            return traffic_is_complete(mode) ? 0 : 2;
        });
}

TEST(TapSignals, ProgramHandlersInstalledWhileTapped_BothServed)
{
    for (TapMode mode : all_modes)
        expect_child([mode] {
            Window first;
            auto tap = first.tap(TapMode::fallback);
            install(SIGTRAP, count_trap);
            install(SIGSEGV, leave_fault);
            if (!traffic_is_complete(mode) || trap_count != 0 || fault_count != 0)
                return 1;
            if (int error = check_traps_arrive())
                return error;
            if (int error = check_faults_arrive())
                return error;
            return traffic_is_complete(mode) ? 0 : 2;
        });
}

// A sanitizer's runtime has put handlers of its own there.
void take_default_dispositions()
{
    signal(SIGTRAP, SIG_DFL);
    signal(SIGSEGV, SIG_DFL);
}

TEST(TapSignals, ProgramAsksForItsHandler_GetsWhatItHadSet)
{
    expect_child([] {
        struct sigaction old;
        take_default_dispositions();
        if (signal(SIGTRAP, count_trap_plainly) != SIG_DFL)
            return 1;
        Window window;
        auto tap = window.tap(TapMode::fallback);
        if (sigaction(SIGTRAP, nullptr, &old) != 0 || old.sa_handler != count_trap_plainly)
            return 2;
        if (sigaction(SIGSEGV, nullptr, &old) != 0 || old.sa_handler != SIG_DFL)
            return 3;
        install(SIGSEGV, leave_fault);
        if (sigaction(SIGSEGV, nullptr, &old) != 0 || old.sa_sigaction != leave_fault || !(old.sa_flags & SA_SIGINFO))
            return 4;
        if (signal(SIGTRAP, SIG_IGN) != count_trap_plainly)
            return 5;
        raise(SIGTRAP); // ignored
        return trap_count == 0 && signal(SIGTRAP, SIG_DFL) == SIG_IGN ? 0 : 6;
    });
}

TEST(TapSignals, HandlerForOneTime_SecondTrap_TakesTheDefault)
{
    expect_child(
        [] {
            Window window;
            auto tap = window.tap(TapMode::fast);
            install(SIGTRAP, count_trap, SA_RESETHAND);
            raise(SIGTRAP);
            if (trap_count != 1)
                return 1;
            raise(SIGTRAP);
            return 2;
        },
        128 + SIGTRAP);
}

TEST(TapSignals, NoProgramHandler_RealTrapOrFault_EndsTheProcessAsEver)
{
    auto tapped = [](const std::function<void()> &crash) {
        return [crash] {
            take_default_dispositions();
            Window window;
            auto tap = window.tap(TapMode::fallback);
            crash();
            return 1;
        };
    };
    expect_child(tapped([] { __asm__ __volatile__("int3"); }), 128 + SIGTRAP);
    expect_child(tapped([] { raise(SIGTRAP); }), 128 + SIGTRAP);
    expect_child(tapped([] { raise(SIGSEGV); }), 128 + SIGSEGV);
    expect_child(tapped([] {
                     void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                     *static_cast<volatile char *>(page) = 1;
                 }),
                 128 + SIGSEGV);
}

// Recovery from stack overflow runs on an alternate stack, for there is no other.
TEST(TapSignals, ProgramHandlerOnAlternateStack_RunsThere)
{
    expect_child([] {
        static char stack[65536];
        static bool on_it;
        stack_t alternate = {};
        alternate.ss_sp = stack;
        alternate.ss_size = sizeof stack;
        sigaltstack(&alternate, nullptr);
        Window window;
        auto tap = window.tap(TapMode::fallback);
        install(
            SIGSEGV,
            [](int, siginfo_t *, void *) {
                /* Not the address of a variable: the address sanitizer keeps those elsewhere. */
                const char *here = static_cast<const char *>(__builtin_frame_address(0));
                on_it = here >= stack && here < stack + sizeof stack;
                siglongjmp(fault_return, 1);
            },
            SA_ONSTACK);
        if (sigsetjmp(fault_return, 1) == 0)
            raise(SIGSEGV);
        return on_it && traffic_is_complete(TapMode::fallback) ? 0 : 1;
    });
}

// The mask of a program's handler is kept, the tap's two signals excepted.
TEST(TapSignals, ProgramHandlerRuns_OtherSignalsAreMaskedAsItAsked)
{
    expect_child([] {
        static sigset_t seen;
        Window window;
        auto tap = window.tap(TapMode::fast);
        struct sigaction action = {};
        action.sa_handler = [](int) { pthread_sigmask(SIG_SETMASK, nullptr, &seen); };
        sigaddset(&action.sa_mask, SIGUSR1);
        sigaction(SIGTRAP, &action, nullptr);
        raise(SIGTRAP);
        return sigismember(&seen, SIGUSR1) && !sigismember(&seen, SIGUSR2) && !sigismember(&seen, SIGTRAP) ? 0 : 1;
    });
}

TEST(TapSignals, PostingThreadsBlockAllSignals_NothingLost)
{
    auto block_all = [] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        sigprocmask(SIG_SETMASK, &all, nullptr);
    };
    for (TapMode mode : all_modes)
        expect_child([&] {
            TrafficPlan plan{.requests = 3000, .threads = 3, .dma_of_ten = 5, .thread_setup = block_all};
            return traffic_is_complete(mode, plan) ? 0 : 1;
        });
    for (TapMode mode : all_modes) // before any tap was there
        expect_child([&] {
            block_all();
            TrafficPlan plan{.requests = 3000, .threads = 3, .dma_of_ten = 5, .threads_before_tap = true};
            return traffic_is_complete(mode, plan) ? 0 : 1;
        });
}

// What signal() is, or was, to older and to strictly conforming programs.
TEST(TapSignals, ProgramInstallsHandlersByOlderNames_BothServed)
{
    struct {
        sighandler_t (*install)(int, sighandler_t);
        bool once;
    } const names[] = {{signal, false},     {bsd_signal, false},   {ssignal, false},
                       {sysv_signal, true}, {__sysv_signal, true}, {sigset, false}};
    const TrafficPlan few{.requests = 300, .threads = 2, .dma_of_ten = 5};
    for (const auto &name : names)
        for (TapMode mode : all_modes)
            expect_child([&] {
                take_default_dispositions();
                Window first;
                auto tap = first.tap(TapMode::fallback);
                if (name.install(SIGTRAP, count_trap_plainly) != SIG_DFL ||
                    name.install(SIGSEGV, count_trap_plainly) != SIG_DFL)
                    return 1;
                if (!traffic_is_complete(mode, few) || trap_count != 0)
                    return 2;
                raise(SIGTRAP);
                raise(SIGSEGV);
                if (trap_count != 2)
                    return 3;
                struct sigaction now;
                if (sigaction(SIGTRAP, nullptr, &now) != 0 ||
                    now.sa_handler != (name.once ? SIG_DFL : count_trap_plainly))
                    return 4;
                if (sigignore(SIGTRAP) != 0 || raise(SIGTRAP) != 0 || trap_count != 2)
                    return 5;
                return traffic_is_complete(mode, few) ? 0 : 6;
            });
}

// The kernel's signal for a debug exception of which nobody can say any more what it was.
void send_trap_without_cause()
{
    siginfo_t info = {};
    info.si_signo = SIGTRAP;
    info.si_code = TRAP_BRKPT;
    syscall(SYS_rt_tgsigqueueinfo, getpid(), syscall(SYS_gettid), SIGTRAP, &info);
}

// 0 when a request of that type is popped once although nothing told of its store.
int check_lost_hit(TapMode mode, unsigned type)
{
    Window other, window;
    auto another = other.tap(TapMode::fallback), tap = window.tap(mode);
    if (!tap || tap->mode() != mode)
        return 1;
    uint32_t words[16];
    nuv_ureq_t out;
    for (uint32_t serial = 1; serial <= 3; serial++) {
        make_request(serial, type, words);
        post_words(reinterpret_cast<volatile uint32_t *>(window.alias + size_t(type) * 256), words); // not watched
        send_trap_without_cause();
        if (!tap->pop(&out) || memcmp(out.words, words, sizeof words) != 0)
            return 2;
        send_trap_without_cause();
        if (tap->pop(&out) || another->pop(&out))
            return 3;
    }
    return traffic_is_complete(mode) ? 0 : 4;
}

TEST(TapSignals, CauseOfAHitIsLost_RequestIsTakenOnce)
{
    expect_child([] { return check_lost_hit(TapMode::fast, 13); });
    expect_child([] { return check_lost_hit(TapMode::exact, 13); });
    expect_child([] { return check_lost_hit(TapMode::exact, 14); });
}

TEST(TapSignals, TrapWithoutCause_NothingWatched_EndsTheProcess)
{
    expect_child(
        [] {
            Window window;
            auto tap = window.tap(TapMode::fallback);
            send_trap_without_cause();
            return 0;
        },
        128 + SIGTRAP);
}

TEST(TapSignals, DebugTrapOfTheProgram_WindowIsWatched_ReachesItsHandler)
{
    expect_child([] {
        install(SIGTRAP, count_trap);
        Window window;
        auto tap = window.tap(TapMode::fast);
        trap_count = 0;
        __asm__ __volatile__(".byte 0xf1"); // int1
        return trap_count == 1 && trap_code == TRAP_BRKPT ? 0 : 1;
    });
}

TEST(TapSignals, OtherSignalThatInterruptsCalls_HandlerInstalled_StillInterruptsThem)
{
    for (auto install : {signal, bsd_signal, ssignal})
        expect_child([&] {
            struct sigaction now;
            if (install(SIGALRM, count_trap_plainly) == SIG_ERR || sigaction(SIGALRM, nullptr, &now) != 0 ||
                now.sa_handler != count_trap_plainly || !(now.sa_flags & SA_RESTART))
                return 1;
            siginterrupt(SIGALRM, 1);
            if (install(SIGALRM, count_trap_plainly) != count_trap_plainly || sigaction(SIGALRM, nullptr, &now) != 0)
                return 2;
            return now.sa_flags & SA_RESTART ? 3 : 0;
        });
}

TEST(TapSignals, PostingThreadsBlockSignalsByOlderNames_NothingLost)
{
    void (*const ways[])() = {[] {
                                  sighold(SIGTRAP);
                                  sighold(SIGSEGV);
                              },
                              [] { sigblock(-1); }, [] { sigsetmask(-1); },
                              [] {
                                  sigset(SIGTRAP, SIG_HOLD);
                                  sigset(SIGSEGV, SIG_HOLD);
                              }};
    for (auto way : ways)
        for (TapMode mode : all_modes)
            expect_child([&] {
                TrafficPlan plan{.requests = 500, .threads = 2, .dma_of_ten = 5, .thread_setup = way};
                return traffic_is_complete(mode, plan) ? 0 : 1;
            });
}

TEST(TapSignals, OtherSignalsHeldByOlderNames_AreHeld)
{
    expect_child([] {
        sigset_t now;
        const auto held = [&](int signo) {
            pthread_sigmask(SIG_SETMASK, nullptr, &now);
            return sigismember(&now, signo) == 1;
        };
        const int usr1 = 1 << (SIGUSR1 - 1), usr2 = 1 << (SIGUSR2 - 1);
        if (sigblock(usr1) != 0 || !held(SIGUSR1))
            return 1;
        if (sigsetmask(usr2) != usr1 || held(SIGUSR1) || !held(SIGUSR2))
            return 2;
        if (sighold(SIGUSR1) != 0 || !held(SIGUSR1))
            return 3;
        if (sigset(SIGUSR1, count_trap_plainly) != SIG_HOLD || held(SIGUSR1))
            return 4;
        if (sigset(SIGUSR1, SIG_HOLD) != count_trap_plainly || !held(SIGUSR1))
            return 5;
        errno = 0;
        if (sigset(SIGUSR1, SIG_ERR) != SIG_ERR || errno != EINVAL)
            return 6;
        return sighold(9999) == -1 && sigset(9999, SIG_IGN) == SIG_ERR && sigignore(9999) == -1 ? 0 : 7;
    });
}

TEST(TapSignals, OtherSignalsBlocked_StayBlocked)
{
    expect_child([] {
        sigset_t all, now;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        pthread_sigmask(SIG_SETMASK, nullptr, &now);
        return sigismember(&now, SIGUSR1) && sigismember(&now, SIGTERM) && !sigismember(&now, SIGTRAP) ? 0 : 1;
    });
}

TEST(TapSignals, ThreadCreatedWithAllSignalsBlocked_Posts_IsCaught)
{
    expect_child([] {
        Window window;
        auto tap = window.tap(TapMode::exact);
        sigset_t all;
        sigfillset(&all);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setsigmask_np(&attributes, &all);
        pthread_t thread;
        pthread_create(
            &thread, &attributes,
            [](void *argument) -> void * {
                uint32_t words[16];
                for (uint32_t i = 0; i < 50; i++) {
                    make_request(i, 13, words);
                    post_words(static_cast<Window *>(argument)->slot(13), words);
                }
                return nullptr;
            },
            &window);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attributes);
        nuv_ureq_t got;
        for (uint32_t i = 0; i < 50; i++)
            if (!tap->pop(&got) || got.words[0] != i)
                return 1;
        return tap->counters().async_hits == 0 ? 0 : 2;
    });
}

void block_all_behind_the_c_library()
{
    uint64_t all = ~uint64_t(0);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, nullptr, sizeof all);
}

// A launcher may start a program with signals blocked; they stay so across exec.
TEST(TapSignals, ProgramStartedWithAllSignalsBlocked_NothingLost)
{
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    expect_child([&] {
        block_all_behind_the_c_library();
        alarm(0);
        execl(self, self, "--gtest_filter=TapSignals.ProgramHandlersOlderThanTheTap_BothServed", nullptr);
        return 255;
    });
}

// Behind the C library's back a thread can block SIGTRAP after all: that must not pass in silence.
TEST(TapSignals, SigtrapBlockedBySystemCall_LateHitsAreCountedAndSaid)
{
    ChildResult child = in_child([] {
        Window window;
        auto tap = window.tap(TapMode::exact, "oxelp3");
        std::thread poster([&] {
            block_all_behind_the_c_library();
            uint32_t words[16];
            for (uint32_t i = 0; i < 20; i++) {
                make_request(i, 13, words);
                post_words(window.slot(13), words);
            }
            uint64_t none = 0;
            syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none);
        });
        poster.join();
        return tap->counters().async_hits >= 1 ? 0 : 1;
    });
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(count_of(child.err, "oxelp3: error: a thread that blocks SIGTRAP"), 1u) << child.err;
}

// Requests posted by a process that is being debugged; the debugger passes on what it does not know.
TEST(TapSignals, UnderADebugger_FallbackIsChosenAndNothingLost)
{
    ChildResult child = in_child([] {
        pid_t debuggee = fork();
        if (debuggee == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            Window window;
            auto tap = window.tap(TapMode::fast);
            if (!tap || tap->mode() != TapMode::fallback || RequestTap::available(TapMode::exact) != TapMode::fallback)
                _exit(1);
            for (uint32_t i = 0; i < 200; i++) {
                uint32_t words[16];
                make_request(i, i % 2 ? 13 : 14, words);
                post_words(window.slot(i % 2 ? 13 : 14), words);
            }
            nuv_ureq_t got;
            for (uint32_t i = 0; i < 200; i++)
                if (!tap->pop(&got) || got.words[0] != i)
                    _exit(2);
            _exit(0);
        }
        int status = 0;
        while (waitpid(debuggee, &status, 0) == debuggee && WIFSTOPPED(status)) {
            int signo = WSTOPSIG(status);
            ptrace(PTRACE_CONT, debuggee, nullptr, long(signo == SIGSTOP ? 0 : signo));
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 3;
    });
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(count_of(child.err, "a debugger has this process"), 1u) << child.err;
}

} // namespace
