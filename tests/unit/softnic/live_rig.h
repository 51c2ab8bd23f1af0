// An adapter whose firmware runs on its own thread in real time, over a port of the test's own.
#pragma once

#include "rig.h"

#include "ports/memory.h"
#include "shim/devices.h"
#include "shim/firmware.h"

#include <sys/eventfd.h>

namespace softnic_test {

using namespace softnic;

// A memory port that can be slept on.
class WakingPort : public MemoryPort {
public:
    WakingPort() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~WakingPort() override { close(fd_); }
    int poll_fd() const override { return fd_; }
    void arrive(const Bytes &frame)
    {
        inject(frame.data(), frame.size());
        const uint64_t one = 1;
        EXPECT_EQ(write(fd_, &one, sizeof(one)), 8);
    }
    bool receive(RxFrame *frame) override
    {
        if (MemoryPort::receive(frame))
            return true;
        uint64_t count;
        (void)!read(fd_, &count, sizeof(count));
        return MemoryPort::receive(frame); // one that came in between
    }
    int steer(const SteerKey &key, bool install) override
    {
        if (on_steer)
            on_steer(key, install);
        return MemoryPort::steer(key, install);
    }
    std::function<void(const SteerKey &key, bool install)> on_steer;

private:
    int fd_;
};

// Requests as a test posts them, in place of a watched window.
class PostedByHand : public RequestSource {
public:
    PostedByHand() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~PostedByHand() override { close(fd_); }
    void post(const nuv_ureq_t &r)
    {
        queue_.post(r);
        const uint64_t one = 1;
        EXPECT_EQ(write(fd_, &one, sizeof(one)), 8);
    }
    bool pop(nuv_ureq_t *r) override { return queue_.take(r); }
    void detach() override {}
    Idle arm_idle() override { return queue_.empty() ? Idle::Armed : Idle::Work; }
    void disarm_idle() override
    {
        uint64_t count;
        (void)!read(fd_, &count, sizeof(count));
    }
    int wake_fd() const override { return fd_; }
    uint64_t lost() const override { return lost_; }
    void lose(uint64_t n) { lost_ += n; }

private:
    RequestQueue queue_;
    uint64_t lost_ = 0;
    int fd_;
};

// An adapter of one board, attached, with its firmware running.
class LiveAdapter {
public:
    explicit LiveAdapter(Port &port, const std::function<void(CardConfig &)> &change = {},
                         const FirmwareOptions &options = {})
    {
        CardConfig config;
        config.readable_grace_ns = 2000;
        config.watch_consumers = true;
        config.make_source = [this](void *, void *, size_t, const char *) {
            auto source = std::make_unique<PostedByHand>();
            source_ = source.get();
            return source;
        };
        if (change)
            change(config);
        std::vector<std::unique_ptr<Card>> cards;
        cards.push_back(std::make_unique<Card>(config, port, runner_));
        card_ = cards.back().get();
        EXPECT_EQ(card_->power_up(), 0);
        driver_ = std::make_unique<Driver>(std::move(cards));
        EXPECT_EQ(attach_driver(driver_.get()), 0);
        firmware_ = std::make_unique<Firmware>(*card_, options);
        EXPECT_EQ(firmware_->start(), 0);
    }
    ~LiveAdapter()
    {
        driver_->close_all();
        firmware_.reset();
        detach_driver(driver_.get());
    }
    Card &card() { return *card_; }
    Firmware &firmware() { return *firmware_; }
    void post(const nuv_ureq_t &r) { source_->post(r); }
    void lose(uint64_t n) { source_->lose(n); }

private:
    LiveRunner runner_;
    Card *card_ = nullptr;
    PostedByHand *source_ = nullptr;
    std::unique_ptr<Driver> driver_;
    std::unique_ptr<Firmware> firmware_;
};

} // namespace softnic_test
