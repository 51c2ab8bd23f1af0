/* The library's operations, and what each of them makes of a call that fails. */
#pragma once

#include "world.h"

namespace fault {

/* How an operation ends. */
struct Outcome {
    enum { returns, exits, aborts } how = returns;
    int code = 0; /* result, or status of the exit */

    bool operator==(const Outcome &other) const { return how == other.how && code == other.code; }
    bool good() const { return how == returns && code == 0; }
};
std::string to_string(const Outcome &outcome);

/* The outcome when a call fails with that errno. */
using Rule = Outcome (*)(int error);
Outcome its_error(int error); /* the call's errno: what holds where nothing else is said */
Outcome ignored(int error);   /* 0 */

/* What there is more of, or less, in the words of a state: "descriptor socket:" and how many. */
using Difference = std::map<std::string, int>;
std::string memory_of(size_t bytes);

constexpr size_t summary_bytes = 512; /* buffer for the text of the switch counters */

/* Calls with a rule of their own: label, which of them in the order of the calls (0 = each). */
struct Answer {
    std::string label;
    unsigned which;
    Rule once;               /* the one call fails */
    Rule always = nullptr;   /* it and all of its kind after it; null: as once */
    Difference without = {}; /* where the operation does without it: to what an undisturbed one leaves */
};

/*
 * What stays behind by design. Everything else that is still there after a failure is a finding, and so is one of
 * these that no failure leaves.
 */
enum Leaves : unsigned {
    nothing = 0,
    endpoint_lock = 1,        /* an address that is not the adapter's: the bind keeps the lock */
    refused_filter_entry = 2, /* a bind's entry that goes back is free, and on the endpoint's unicast queue still */
    interface_list = 4,       /* one for each time that the ARP query has read them */
    closing_summary = 8,      /* text of the switch counters: one buffer of a close */
    raw_handle = 16,          /* descriptor of a raw endpoint: its user closes it */
    tag_block = 32,           /* of free tags: an endpoint's blocks never get fewer before it is closed */
    kept_filter = 64,         /* that the adapter refuses to remove: the channel and its tag go in any case */
};

struct Operation {
    std::string name;
    std::function<int(World &)> run;
    std::function<void(World &)> prepare = {}; /* before */
    std::function<void(World &)> undo = {};    /* after a success */
    std::vector<Answer> answers = {};
    unsigned leaves = nothing;
    bool stores_errno = false;  /* the error is in errno too */
    int success = 0;            /* an error that is right when nothing fails leaves no more than a failure does ... */
    bool closes = false;        /* ... but for an operation that ends the endpoint with it */
    std::vector<int> also = {}; /* further results when everything fails from some call on */
    BoardChange board = {};
};

const std::vector<Operation> &operations();

} // namespace fault
