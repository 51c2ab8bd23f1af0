/* The sweep of one operation: each call that it makes fails in turn, in every way that it can. */
#pragma once

#include "operations.h"

namespace fault {

struct Report {
    unsigned calls = 0;    /* that the operation makes when all goes well */
    unsigned failures = 0; /* injected: calls x errno values x ways to go on */
    std::vector<std::string> findings;
};

Report sweep(const Operation &op);

} // namespace fault
