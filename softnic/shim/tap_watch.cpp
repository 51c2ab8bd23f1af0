#include "tap_watch.h"

#include "../driver/sys.h"

#include <dirent.h>
#include <errno.h>
#include <linux/hw_breakpoint.h>
#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <set>

namespace softnic {
namespace {

constexpr int trap_perf_code = 6;            // TRAP_PERF, which the C library's headers do not have yet
constexpr uint32_t trap_perf_late = 1;       // TRAP_PERF_FLAG_ASYNC
constexpr uint32_t cookie_mark = 0x6f780000; // in the upper half: tells our events from the program's own

// What the kernel adds behind si_addr of such a signal.
struct PerfSigInfo {
    unsigned long data; // perf_event_attr::sig_data
    uint32_t type;      // perf_event_attr::type
    uint32_t flags;
};

int open_event(pid_t tid, const TapWatch::Word &word)
{
    struct perf_event_attr attr = {};
    attr.type = PERF_TYPE_BREAKPOINT;
    attr.size = sizeof attr;
    attr.sample_period = 1;
    attr.bp_type = HW_BREAKPOINT_W;
    attr.bp_addr = reinterpret_cast<uintptr_t>(word.address);
    attr.bp_len = HW_BREAKPOINT_LEN_4;
    attr.inherit = 1;
    attr.inherit_thread = 1;
    attr.exclude_kernel = 1;
    attr.exclude_hv = 1;
    attr.remove_on_exec = 1;
    attr.sigtrap = 1;
    attr.sig_data = cookie_mark | word.cookie;
    return sys::keep(int(syscall(SYS_perf_event_open, &attr, tid, -1, -1, PERF_FLAG_FD_CLOEXEC)));
}

std::array<std::atomic<pid_t>, 64> unwatched{};

pid_t this_thread() { return pid_t(syscall(SYS_gettid)); }

bool is_unwatched(pid_t tid)
{
    return std::any_of(unwatched.begin(), unwatched.end(), [=](const auto &entry) { return entry.load() == tid; });
}

std::set<pid_t> threads_of_process()
{
    std::set<pid_t> tids;
    if (DIR *dir = opendir("/proc/self/task")) {
        while (const dirent *entry = readdir(dir))
            if (pid_t tid = pid_t(std::atol(entry->d_name)); tid != 0 && !is_unwatched(tid))
                tids.insert(tid);
        closedir(dir);
    }
    return tids;
}

} // namespace

bool tap_read_hit(const siginfo_t *info, TapHit *out)
{
    if (info->si_code != trap_perf_code)
        return false;
    PerfSigInfo perf;
    std::memcpy(&perf, reinterpret_cast<const char *>(&info->si_addr) + sizeof info->si_addr, sizeof perf);
    if (perf.type != PERF_TYPE_BREAKPOINT || (perf.data & 0xffff0000u) != cookie_mark)
        return false;
    out->cookie = uint32_t(perf.data) & 0xffffu;
    out->late = perf.flags & trap_perf_late;
    return true;
}

int TapWatch::open_thread(pid_t tid, const Word *words, unsigned count)
{
    for (unsigned i = 0; i < count; i++) {
        int event = open_event(tid, words[i]);
        if (event < 0)
            return errno;
        events_.push_back(event);
    }
    return 0;
}

int TapWatch::open(const Word *words, unsigned count)
{
    // This thread first: without it there is nothing to watch, and its refusal says why. A thread that appears
    // between two listings may have inherited its watchpoints already; a second one on the same word is
    // harmless, since both hits of one store merge into one signal.
    std::set<pid_t> done;
    pid_t self = this_thread();
    int error = open_thread(self, words, count);
    done.insert(self);
    for (bool found = true; found && error == 0;) {
        found = false;
        for (pid_t tid : threads_of_process()) {
            if (error != 0 || !done.insert(tid).second)
                continue;
            found = true;
            error = open_thread(tid, words, count);
            if (error == ESRCH) // it has ended since
                error = 0;
        }
    }
    if (error != 0)
        close();
    return error;
}

void TapWatch::close()
{
    for (int event : events_)
        sys::close(event);
    events_.clear();
}

int TapWatch::probe(unsigned count)
{
    static uint32_t words[max_words];
    TapWatch watch;
    Word watched[max_words];
    for (unsigned i = 0; i < max_words; i++)
        watched[i] = {&words[i], 0xffff};
    return watch.open_thread(this_thread(), watched, count);
}

UnwatchedThread::UnwatchedThread()
{
    for (auto &entry : unwatched)
        if (pid_t none = 0; entry.compare_exchange_strong(none, this_thread()))
            break;
}

UnwatchedThread::~UnwatchedThread()
{
    const pid_t self = this_thread();
    for (auto &entry : unwatched)
        if (pid_t tid = self; entry.compare_exchange_strong(tid, 0))
            break;
}

void UnwatchedThread::forget_all()
{
    for (auto &entry : unwatched)
        entry.store(0);
}

} // namespace softnic
