// Takes frames from the host's stack at the ingress hook of an interface.
#pragma once

#include "fork_guard.h"
#include "port.h"

#include <string>

namespace softnic {

// A packet filter table of this process, which drops the frames of the installed keys after packet sockets have
// seen them. The table belongs to a socket and goes with it, however the process ends.
class Steering {
public:
    Steering() = default;
    ~Steering() { close(); }
    Steering(const Steering &) = delete;
    Steering &operator=(const Steering &) = delete;

    // Creates the table for an interface. 0 or an errno value.
    int open(const std::string &ifname);
    void close();
    bool is_open() const { return fd_ >= 0; }

    // Each key at most once. 0 or an errno value.
    int install(const SteerKey &key) { return change(key, true); }
    int remove(const SteerKey &key) { return change(key, false); }

    // The table's name, which begins with "ruk_" and the process's id.
    const std::string &table() const { return table_; }

private:
    friend int try_steering();
    int connect();
    int change(const SteerKey &key, bool install);
    int transact(class NetlinkBatch &batch, bool commit = true);

    int fd_ = -1;
    uint32_t seq_ = 0;
    std::string table_;
    ForkGuard guard_;
};

// Whether the host would let this process make such a table: has it checked to the end, and nothing done. 0 or an errno
// value.
int try_steering();

} // namespace softnic
