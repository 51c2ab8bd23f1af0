/*
 * A case: something that the library does, and beside it, measured in turn with it, the least that could do it.
 */
#ifndef CASES_H
#define CASES_H

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

/* One measurement: nanoseconds an operation. Throws std::runtime_error when the result is wrong. */
using Measure = std::function<double()>;

/* Thrown where the host does not allow a case; what() says why. */
struct Unavailable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class Compare {
    none,       /* no target */
    ratio,      /* time over the floor's: at most */
    speed,      /* the floor's time over its own, that is GB/s over GB/s: at least */
    difference, /* time less the floor's, ns: at most */
    faster,     /* time over the floor's: below */
};

/* What a case needs only while it is measured. */
struct Measured {
    Measure subject, floor; /* a case without a floor leaves it empty */
};

struct Case {
    std::string name;
    std::string what;    /* for people: what against what */
    std::string spinner; /* who spins and who sleeps, and where */
    Compare compare = Compare::none;
    double must = 0, aim = 0;
    size_t bytes = 0;    /* of an operation, where GB/s are worth telling */
    std::string skipped; /* why it is not measured; empty: it is */
    unsigned rounds = 0; /* 0: as many as any */
    std::function<Measured()> make = {};
};

/* How much is measured at a time: 1, or less in a tiny run. */
struct Effort {
    double share = 1;
    size_t of(size_t full) const { return full * share < 1 ? 1 : size_t(double(full) * share); }
};

void add_receive_cases(std::vector<Case> &cases, Effort effort);
void add_send_cases(std::vector<Case> &cases, Effort effort);
void add_face_cases(std::vector<Case> &cases, Effort effort);
void add_pair_case(std::vector<Case> &cases, Effort effort);
void add_kernel_cases(std::vector<Case> &cases, Effort effort);
void add_veth_cases(std::vector<Case> &cases, Effort effort);
void add_dpdk_cases(std::vector<Case> &cases, Effort effort); /* in builds with DPDK alone */

/* The library's own, for cases that compare others with it: `queued` wait at a time; connected, by PIO. */
Measure library_receive(size_t payload, unsigned queued, size_t datagrams);
Measure library_send(size_t payload, size_t datagrams);

/* Nanoseconds that a call of `work` takes, divided among n operations. */
double time_of(size_t n, const std::function<void()> &work);
/* Nanoseconds of some clock that only goes forward, and what of a span of them is the reading of the clock. */
double now_ns();
double reading_ns();

[[noreturn]] void wrong(const char *what);

/*
 * Where all cases receive, and what they send: each at one place in its page, so that loads and stores meet no false
 * conflicts by chance.
 */
extern uint8_t receive_buffer[2048], send_payload[2048];

/* The first two processors that this program may use; fewer where there are no two. */
std::vector<int> two_processors();

constexpr const char *one_thread = "one thread, spinning; nothing sleeps";

} // namespace bench

#endif
