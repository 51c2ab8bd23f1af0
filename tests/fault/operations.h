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

/* Calls with a rule of their own: label, which of them in the order of the calls (0 = each). */
struct Answer {
    std::string label;
    unsigned which;
    Rule once;             /* the one call fails */
    Rule always = nullptr; /* it and all of its kind after it; null: as once */
};

/*
 * What stays behind by design. Everything else that is still there after a failure is a finding.
 */
enum Leaves : unsigned {
    nothing = 0,
    endpoint_lock = 1,        /* an address that is not the adapter's: the bind keeps the lock */
    refused_filter_entry = 2, /* an entry whose filter was refused stays on the endpoint's unicast queue */
    interface_list = 4,       /* that the ARP query has read */
    closing_summary = 8,      /* text of the switch counters */
    raw_handle = 16,          /* descriptor of a raw endpoint: its user closes it */
};

struct Operation {
    std::string name;
    std::function<int(World &)> run;
    std::function<void(World &)> prepare = {}; /* before */
    std::function<void(World &)> undo = {};    /* after a success */
    std::vector<Answer> answers = {};
    unsigned leaves = nothing;
    bool stores_errno = false; /* the error is in errno too */
    bool grows_tags = false;   /* may leave the endpoint with a block of tags more, which it keeps until its close */
    int success = 0;
    std::vector<int> also = {}; /* further results when everything fails from some call on */
    BoardChange board = {};
};

const std::vector<Operation> &operations();

} // namespace fault
