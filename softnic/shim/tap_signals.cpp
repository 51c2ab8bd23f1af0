#include "tap_signals.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace softnic {
namespace {

// The functions that this unit stands in front of.
template <typename Function> Function next_definition(std::atomic<Function> &cached, const char *name)
{
    Function found = cached.load(std::memory_order_acquire);
    if (!found) {
        found = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
        cached.store(found, std::memory_order_release);
    }
    return found;
}

int real_sigaction(int signo, const struct sigaction *action, struct sigaction *old)
{
    static std::atomic<int (*)(int, const struct sigaction *, struct sigaction *)> cached;
    return next_definition(cached, "sigaction")(signo, action, old);
}

int real_pthread_sigmask(int how, const sigset_t *set, sigset_t *old)
{
    static std::atomic<int (*)(int, const sigset_t *, sigset_t *)> cached;
    return next_definition(cached, "pthread_sigmask")(how, set, old);
}

// A signal that the adapter has taken, and what the program wants done with it.
struct Taken {
    std::atomic<TapSignalHandler> handler{nullptr};
    struct sigaction program = {};
};
Taken taken_trap, taken_segv;

Taken *taken_signal(int signo)
{
    Taken *taken = signo == SIGTRAP ? &taken_trap : signo == SIGSEGV ? &taken_segv : nullptr;
    return taken && taken->handler.load(std::memory_order_acquire) ? taken : nullptr;
}

// Guards Taken::program. Held with all signals blocked, and by handlers too.
class ProgramLock {
public:
    ProgramLock()
    {
        sigset_t all;
        sigfillset(&all);
        real_pthread_sigmask(SIG_SETMASK, &all, &before_);
        while (busy_.test_and_set(std::memory_order_acquire))
            ;
    }
    ~ProgramLock()
    {
        busy_.clear(std::memory_order_release);
        real_pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    static inline std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
    sigset_t before_;
};

sigset_t without_taken_signals(const sigset_t *set)
{
    sigset_t kept = *set;
    sigdelset(&kept, SIGTRAP);
    sigdelset(&kept, SIGSEGV);
    return kept;
}

void do_default_action(int signo, const siginfo_t *info)
{
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    real_sigaction(signo, &standard, nullptr);
    // A fault repeats itself when its instruction does; anything else is sent again, to arrive on return.
    bool repeats = signo == SIGSEGV && info->si_code > 0;
    if (!repeats)
        syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signo);
}

// The mask under which the kernel would have run the program's handler, but SIGTRAP open.
sigset_t handler_mask(int signo, const struct sigaction &action, const ucontext_t *context)
{
    sigset_t interrupted, mask;
    sigemptyset(&interrupted);
    std::memcpy(&interrupted, &context->uc_sigmask, 8); // a signal frame holds no more of it
    sigorset(&mask, &interrupted, &action.sa_mask);
    if (!(action.sa_flags & SA_NODEFER))
        sigaddset(&mask, signo);
    sigdelset(&mask, SIGTRAP);
    return mask;
}

void pass_on(Taken *taken, int signo, siginfo_t *info, void *context)
{
    struct sigaction action;
    {
        ProgramLock lock;
        action = taken->program;
        if (action.sa_flags & SA_RESETHAND)
            taken->program.sa_handler = SIG_DFL;
    }
    bool sent = info->si_code <= 0;
    if (action.sa_handler == SIG_IGN && sent)
        return;
    if (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL) {
        do_default_action(signo, info);
        return;
    }
    sigset_t mask = handler_mask(signo, action, static_cast<ucontext_t *>(context)), all;
    real_pthread_sigmask(SIG_SETMASK, &mask, &all);
    if (action.sa_flags & SA_SIGINFO)
        action.sa_sigaction(signo, info, context);
    else
        action.sa_handler(signo);
    real_pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

void on_signal(int signo, siginfo_t *info, void *context)
{
    int saved_errno = errno;
    Taken *taken = taken_signal(signo);
    if (taken && !taken->handler.load(std::memory_order_acquire)(info, static_cast<ucontext_t *>(context)))
        pass_on(taken, signo, info, context);
    errno = saved_errno;
}

// A program may be started with either signal blocked; its threads would inherit that.
__attribute__((constructor)) void open_taken_signals()
{
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGTRAP);
    sigaddset(&both, SIGSEGV);
    real_pthread_sigmask(SIG_UNBLOCK, &both, nullptr);
}

} // namespace

int tap_take_signal(int signo, TapSignalHandler handler)
{
    if (taken_signal(signo))
        return 0;
    Taken *taken = signo == SIGTRAP ? &taken_trap : &taken_segv;
    if (real_sigaction(signo, nullptr, &taken->program) != 0)
        return errno;
    taken->handler.store(handler, std::memory_order_release);
    struct sigaction ours = {};
    ours.sa_sigaction = on_signal;
    // The program's alternate stack, where it has one: its own handler may count on being there.
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigfillset(&ours.sa_mask);
    if (real_sigaction(signo, &ours, nullptr) != 0) {
        taken->handler.store(nullptr, std::memory_order_release);
        return errno;
    }
    return 0;
}

} // namespace softnic

// ------------------------------------------------------------ in front of the C library

using namespace softnic;

namespace {

sighandler_t install_handler(int signo, sighandler_t handler, int flags, bool masks_itself)
{
    struct sigaction action = {}, old;
    if (handler == SIG_ERR) {
        errno = EINVAL;
        return SIG_ERR;
    }
    action.sa_handler = handler;
    action.sa_flags = flags;
    if (masks_itself)
        sigaddset(&action.sa_mask, signo);
    return sigaction(signo, &action, &old) == 0 ? old.sa_handler : SIG_ERR;
}

// 0, or -1 with EINVAL in errno when there is no such signal.
int change_one(int how, int signo, sigset_t *before)
{
    sigset_t only;
    sigemptyset(&only);
    return sigaddset(&only, signo) == 0 ? sigprocmask(how, &only, before) : -1;
}

// The masks of old, with signals 1 to 32 as the bits of a number.
int change_mask(int how, int mask)
{
    sigset_t set, old;
    sigemptyset(&set);
    std::memcpy(&set, &mask, sizeof mask);
    if (sigprocmask(how, &set, &old) != 0)
        return -1;
    std::memcpy(&mask, &old, sizeof mask);
    return mask;
}

} // namespace

extern "C" {

// Not in every header.
sighandler_t bsd_signal(int signo, sighandler_t handler) noexcept;

__attribute__((visibility("default"))) int sigaction(int signo, const struct sigaction *action,
                                                     struct sigaction *old) noexcept
{
    struct sigaction changed;
    if (action) {
        changed = *action;
        changed.sa_mask = without_taken_signals(&action->sa_mask);
    }
    Taken *taken = taken_signal(signo);
    if (!taken)
        return real_sigaction(signo, action ? &changed : nullptr, old);
    ProgramLock lock;
    struct sigaction before = taken->program;
    if (action)
        taken->program = changed;
    if (old)
        *old = before;
    return 0;
}

__attribute__((visibility("default"))) sighandler_t signal(int signo, sighandler_t handler) noexcept
{
    static std::atomic<sighandler_t (*)(int, sighandler_t)> cached;
    // Of any other signal the C library knows by itself whether calls restart: siginterrupt() may have told it.
    if (signo != SIGTRAP && signo != SIGSEGV)
        return next_definition(cached, "signal")(signo, handler);
    return install_handler(signo, handler, SA_RESTART, true);
}

// The C library's own callers of sigaction() do not come through the one above: each name needs its stand-in.
__attribute__((visibility("default"))) sighandler_t bsd_signal(int signo, sighandler_t handler) noexcept
{
    return signal(signo, handler);
}

__attribute__((visibility("default"))) sighandler_t ssignal(int signo, sighandler_t handler) noexcept
{
    return signal(signo, handler);
}

// What signal() is to a strictly conforming compilation.
__attribute__((visibility("default"))) sighandler_t __sysv_signal(int signo, sighandler_t handler) noexcept
{
    return install_handler(signo, handler, static_cast<int>(SA_RESETHAND | SA_NODEFER), false);
}

__attribute__((visibility("default"))) sighandler_t sysv_signal(int signo, sighandler_t handler) noexcept
{
    return __sysv_signal(signo, handler);
}

__attribute__((visibility("default"))) int sigignore(int signo) noexcept
{
    return install_handler(signo, SIG_IGN, 0, false) == SIG_ERR ? -1 : 0;
}

__attribute__((visibility("default"))) int sighold(int signo) noexcept { return change_one(SIG_BLOCK, signo, nullptr); }

__attribute__((visibility("default"))) sighandler_t sigset(int signo, sighandler_t handler) noexcept
{
    const bool hold = handler == SIG_HOLD;
    struct sigaction old;
    sigset_t before;
    if (sigaction(signo, nullptr, &old) != 0)
        return SIG_ERR;
    if (!hold && install_handler(signo, handler, 0, false) == SIG_ERR)
        return SIG_ERR;
    if (change_one(hold ? SIG_BLOCK : SIG_UNBLOCK, signo, &before) != 0)
        return SIG_ERR;
    return sigismember(&before, signo) == 1 ? SIG_HOLD : old.sa_handler;
}

__attribute__((visibility("default"))) int sigblock(int mask) noexcept { return change_mask(SIG_BLOCK, mask); }

__attribute__((visibility("default"))) int sigsetmask(int mask) noexcept { return change_mask(SIG_SETMASK, mask); }

__attribute__((visibility("default"))) int pthread_sigmask(int how, const sigset_t *set, sigset_t *old) noexcept
{
    sigset_t kept;
    if (set && how != SIG_UNBLOCK) {
        kept = without_taken_signals(set);
        set = &kept;
    }
    return real_pthread_sigmask(how, set, old);
}

__attribute__((visibility("default"))) int sigprocmask(int how, const sigset_t *set, sigset_t *old) noexcept
{
    int error = pthread_sigmask(how, set, old);
    if (error != 0)
        errno = error;
    return error == 0 ? 0 : -1;
}

__attribute__((visibility("default"))) int pthread_attr_setsigmask_np(pthread_attr_t *attributes, const sigset_t *set)
{
    static std::atomic<int (*)(pthread_attr_t *, const sigset_t *)> cached;
    sigset_t kept;
    if (set) {
        kept = without_taken_signals(set);
        set = &kept;
    }
    return next_definition(cached, "pthread_attr_setsigmask_np")(attributes, set);
}

} // extern "C"
