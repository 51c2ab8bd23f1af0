// What stands behind a softnic_t.
#pragma once

#include "driver/driver.h"
#include "ports/memory.h"
#include "ports/switch.h"
#include "softnic.h"

#include <deque>
#include <optional>

namespace softnic {

// Firmware on the thread of whoever asks, in virtual time.
class StepRunner : public Runner {
public:
    explicit StepRunner(uint64_t start_ns) : now_ns_(start_ns) {}

    Now now() override;
    uint64_t reading_delay() override { return 0; }
    uint64_t longest_wait() const override { return UINT64_MAX; } // time moves by any step
    int wait(Card &card, std::unique_lock<CardLock> &lock, const std::function<bool()> &done, int timeout_ms) override;
    void kick(Card &) override {}

    void advance(uint64_t ns) { now_ns_.fetch_add(ns, std::memory_order_relaxed); }

    std::function<int(const Card &)> wait_hook;
    std::atomic<bool> blocking{false};

private:
    std::atomic<uint64_t> now_ns_;
};

// The wire of a stepped board, with a switch in it when one is set. What the switch has sent by a moment of virtual
// time lies before what arrives later, however far time moved between two looks.
class SteppedPort : public MemoryPort {
public:
    explicit SteppedPort(Runner &runner) : runner_(runner) {}

    // Frames that wait pass through it now; with no options the switch goes, and takes its stamps along.
    void set_switch(const SwitchOptions *options);

    // A frame for the board, through the switch if there is one.
    void arrive(const uint8_t *frame, size_t len);

    bool receive(RxFrame *frame) override;

private:
    void send_due_keyframes(uint64_t now_ns);

    Runner &runner_;
    std::mutex switch_mutex_;
    std::optional<SwitchModel> switch_;
};

} // namespace softnic

struct softnic_system {
    explicit softnic_system(uint64_t start_ns) : runner(start_ns) {}

    softnic::StepRunner runner;
    std::vector<std::unique_ptr<softnic::SteppedPort>> ports;
    std::vector<bool> trailer_on_wire; // boards that were made so
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
