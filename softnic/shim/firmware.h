// The firmware of one board on a thread of its own, for programs that the adapter is preloaded into.
#pragma once

#include "../driver/card.h"
#include "../ledger/writer.h"

#include <pthread.h>

namespace softnic {

// Host time, and waits that sleep until the board's firmware has something.
class LiveRunner : public Runner {
public:
    Now now() override;
    uint64_t reading_delay() override;
    uint64_t longest_wait() const override { return 1000000000; }
    int wait(Card &card, std::unique_lock<CardLock> &lock, const std::function<bool()> &done, int timeout_ms) override;
    void kick(Card &card) override;
};

// In the child of a fork: no board has a firmware thread.
void forget_firmware();

struct FirmwareOptions {
    uint64_t spin_ns = 50000; // how long it looks for work before it sleeps
    int cpu = -1;             // processor to stay on, -1 = any
    unsigned board = 0;       // its number, for the ledger
};

class Firmware {
public:
    Firmware(Card &card, const FirmwareOptions &options);
    ~Firmware();
    Firmware(const Firmware &) = delete;
    Firmware &operator=(const Firmware &) = delete;

    // 0 or an errno value.
    int start();

    // Ends the thread and sends what has been posted.
    void stop();

    // Makes a sleeping firmware look.
    void kick();

    // In the child of a fork: thread and ledger are the parent's.
    void forget() { ledger_.forget(); }

    static Firmware *of(Card &card);

private:
    static void *entry(void *self);
    void loop();
    bool sleep(uint64_t idle_ns);
    void publish_ledger(uint64_t now);

    Card &card_;
    FirmwareOptions options_;
    pthread_t thread_{};
    bool started_ = false;
    bool single_cpu_ = false; // the program and its adapter have one between them
    bool cpu_is_the_programs_ = false;
    std::atomic<bool> running_{false}; // the thread has begun
    std::atomic<bool> stop_{false};
    std::atomic<bool> asleep_{false};
    std::atomic<bool> kicked_{false};
    DeviceFd control_; // becomes readable when kicked: checked like a device descriptor before it is written to
    std::vector<int> fds_;
    LedgerWriter ledger_;
    uint64_t ledger_at_ = 0; // when it was brought up to date last
};

} // namespace softnic
