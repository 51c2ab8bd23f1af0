/*
 * Who spins, who sleeps, and on which processors: without it a latency figure says little.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

/* A thread that takes part in a measurement. */
struct Party {
    std::string who;
    bool spins = false;
};

std::string processors_text(const std::vector<int> &processors); /* "0-1,4" */

/* Binds the calling thread to a processor; fails the program when it may not run there. */
void pin_to_processor(int processor);

/* Threads of this program that measure: the application's own and, when loaded, the software adapter's. */
std::vector<Party> own_parties(const std::string &role, bool spins, bool kernel);

/* Those of every other ruk-ping that runs on this machine. */
std::vector<Party> other_parties();

/* Processor time of each thread of this process. */
struct ThreadUse {
    int tid = 0;
    std::string name;
    uint64_t cpu_ns = 0;
    int processor = -1; /* where it ran last */
};
std::vector<ThreadUse> thread_use();

} // namespace tools
