// Wakes the firmware when an application goes on consuming.
#pragma once

#include <cstddef>

namespace softnic {

// Consuming is a plain store into the flow window, which tells nobody. A firmware that wants to sleep while events
// are unconsumed protects the application's view of that page: its next store faults, is reported, and is let go
// on by disarm(). Needs no privilege; where the host refuses it arm() fails and the firmware has to look again
// after a while.
class ConsumerWatch {
public:
    ~ConsumerWatch();
    ConsumerWatch() = default;
    ConsumerWatch(const ConsumerWatch &) = delete;
    ConsumerWatch &operator=(const ConsumerWatch &) = delete;

    // The application's mapping of the flow page. False when it cannot be watched.
    bool watch(void *page, size_t len);
    void forget() { fd_ = -1; } // in the child of a fork, which closes it without further ado

    bool arm();
    void disarm();
    int wake_fd() const { return fd_; }

private:
    bool protect(bool on);

    int fd_ = -1;
    void *page_ = nullptr;
    size_t len_ = 0;
    bool armed_ = false;
};

} // namespace softnic
