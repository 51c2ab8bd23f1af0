// Shares SIGTRAP and SIGSEGV between the adapter and the program it lives in.
//
// This unit also defines, for the whole process, sigaction, signal, bsd_signal, ssignal, sysv_signal, __sysv_signal,
// sigset, sigignore, sighold, sigblock, sigsetmask, sigprocmask, pthread_sigmask and pthread_attr_setsigmask_np.
// A program that installs a handler of its own for either signal gets what the adapter does not
// recognise, whichever came first; and no thread can block the two signals, because a blocked trap comes late
// and only once, and a blocked fault ends the process.
#pragma once

#include <signal.h>
#include <ucontext.h>

namespace softnic {

// Runs on the faulting thread with all signals blocked; false when the signal is not the adapter's.
using TapSignalHandler = bool (*)(siginfo_t *info, ucontext_t *context);

// Puts handler in front of the program's own disposition of SIGTRAP or SIGSEGV, once. 0 or an errno value.
int tap_take_signal(int signo, TapSignalHandler handler);

} // namespace softnic
