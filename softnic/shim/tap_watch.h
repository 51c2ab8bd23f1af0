// Hardware watchpoints that raise SIGTRAP in the thread that stored, before its next instruction.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace softnic {

// A hit, as the signal tells it.
struct TapHit {
    uint32_t cookie;
    bool late; // the thread blocked SIGTRAP: it has stored on since, and hits may have merged
};

// False when info tells of something else than a hit of a TapWatch.
bool tap_read_hit(const siginfo_t *info, TapHit *out);

// Watchpoints on up to two words, in every thread that is there and every one that will come.
class TapWatch {
public:
    static constexpr unsigned max_words = 2;
    struct Word {
        volatile uint32_t *address;
        uint32_t cookie; // 16 bits, returned with each hit
    };

    TapWatch() = default;
    TapWatch(const TapWatch &) = delete;
    TapWatch &operator=(const TapWatch &) = delete;
    ~TapWatch() { close(); }

    // 0 or an errno value; then nothing is watched.
    int open(const Word *words, unsigned count);
    void close();

    // Whether the calling thread could have that many watchpoints now: 0 or an errno value.
    static int probe(unsigned count);

private:
    int open_thread(pid_t tid, const Word *words, unsigned count);
    std::vector<int> events_;
};

// While it lives, the thread that made it gets no watchpoint, unless it inherited one from a thread that had: for the
// adapter's own threads, which never store through an application's mapping and start before there are any. At every
// change from or to a thread with a watchpoint the kernel writes the processor's debug registers, which a hypervisor
// makes a matter of a microsecond. What was being watched before is not affected; further threads than there is room
// for are watched like others.
class UnwatchedThread {
public:
    UnwatchedThread();
    ~UnwatchedThread();
    UnwatchedThread(const UnwatchedThread &) = delete;
    UnwatchedThread &operator=(const UnwatchedThread &) = delete;

    // In the child of a fork, where none of the parent's threads are.
    static void forget_all();
};

} // namespace softnic
