// What stands behind a softnic_t.
#pragma once

#include "driver/driver.h"
#include "ports/memory.h"
#include "softnic.h"

#include <deque>

namespace softnic {

// Firmware on the thread of whoever asks, in virtual time.
class StepRunner : public Runner {
public:
    explicit StepRunner(uint64_t start_ns) : now_ns_(start_ns) {}

    Now now() override;
    uint64_t reading_delay() override { return 0; }
    int wait(Card &card, std::unique_lock<CardLock> &lock, const std::function<bool()> &done, int timeout_ms) override;
    void kick(Card &) override {}

    void advance(uint64_t ns) { now_ns_.fetch_add(ns, std::memory_order_relaxed); }

    std::function<int(const Card &)> wait_hook;
    std::atomic<bool> blocking{false};

private:
    std::atomic<uint64_t> now_ns_;
};

} // namespace softnic

struct softnic_system {
    explicit softnic_system(uint64_t start_ns) : runner(start_ns) {}

    softnic::StepRunner runner;
    std::vector<std::unique_ptr<softnic::MemoryPort>> ports;
    std::unique_ptr<softnic::Driver> driver;
    bool attached = false;

    std::mutex log_mutex;
    std::vector<unsigned long> commands;
    struct Taken {
        unsigned endpoint;
        nuv_ureq_t request;
    };
    std::vector<std::deque<Taken>> requests; // of each board
    int (*command_hook)(void *, unsigned, unsigned long) = nullptr;
    void *command_context = nullptr;
    int (*wait_hook)(void *, unsigned) = nullptr;
    void *wait_context = nullptr;
};
