/*
 * Numbered faults: every call that the library makes to the host, the driver and the allocator gets a number, and any
 * of them can be made to fail.
 *
 * The seam lies over the socket table, the libc hooks and the allocator, whatever stands in them already: those answer
 * the calls that do not fail. Only what runs inside library() is counted, and of that only what the library asks for
 * itself: the adapter behind a device file allocates and maps as well, which is none of the library's business.
 */
#pragma once

#include "libc_seam.h"
#include "socket_seam.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace fault {

/* A call: what was asked ("open /dev/oxelB0", "ioctl SET_ENDPT", "memory"), and the function that all of its kind are.
 */
struct Call {
    std::string label;
    std::string kind;
    bool failed = false;
};

/* errno values that such a call can fail with on a real host, the likeliest first. */
const std::vector<int> &errors_of(const Call &call);

/* What shall fail. */
struct Plan {
    unsigned from = 0;                               /* number of the first call that fails, 1 = the first; 0: none */
    int error = 0;                                   /* its errno */
    enum { once, its_kind, everything } then = once; /* what fails after it: nothing more, its kind, all calls */
};

class Seam : private test_support::AllocWatch {
public:
    Seam();
    Seam(const Seam &) = delete;
    Seam &operator=(const Seam &) = delete;

    /* Runs a piece of the library's code: its memory, mappings and descriptors are noted. */
    template <typename F> auto library(F &&f)
    {
        const Scope scope(in_library_, 1);
        return f();
    }

    /* Counts, and lets fail, what is called until disarm(). */
    void arm(const Plan &plan);
    std::vector<Call> disarm(); /* what has been called, in order */
    unsigned failed() const { return failed_; }

    /* What the library holds. */
    const std::map<void *, size_t> &blocks() const { return blocks_; }
    const std::map<void *, size_t> &mappings() const { return mappings_; }
    size_t filters() const { return filters_.size(); }   /* in the adapter, of all device files */
    size_t filters_kept() const { return kept_.size(); } /* of those, the ones whose removal was refused */

private:
    struct Scope {
        Scope(int &value, int to) : value_(value), before_(value) { value_ = to; }
        ~Scope() { value_ = before_; }
        int &value_;
        int before_;
    };
    bool watching() const { return in_library_ && !inside_; }
    bool fails(const std::string &label, const std::string &kind);
    template <typename R, typename F>
    R call(const std::string &label, const std::string &kind, R refusal, F &&real, bool done_all_the_same = false);
    void take_libc();
    void take_table();
    void note_filter(int fd, unsigned long request, const void *arg, int result);
    void note_closed(int fd);
    FILE *stream(FILE *file, const std::string &path);

    bool refuses() override;
    void taken(void *block, size_t size) override;
    void given_back(void *block) override;

    test_support::LibcHookGuard libc_;
    test_support::LibcHooks below_;
    test_support::SocketTable table_;
    int in_library_ = 0; /* the library runs */
    int inside_ = 0;     /* ... and has called something that may call more */
    bool armed_ = false;
    Plan plan_;
    unsigned failed_ = 0;
    std::vector<Call> calls_;
    std::map<void *, size_t> blocks_, mappings_;
    std::set<void *> unmapped_;                            /* by the library, and not mapped again by it */
    std::set<std::pair<int, std::string>> filters_, kept_; /* device file, and the filter as the driver has it */
};

} // namespace fault
