// A port without a wire: frames come from the program and go to it.
#pragma once

#include "port.h"

#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <vector>

namespace softnic {

class MemoryPort : public Port {
public:
    // A frame for the adapter, copied as it is: neither padded nor checked.
    void inject(const uint8_t *frame, size_t len, uint64_t arrival_ns = 0);
    size_t waiting() const;

    // Changes the frames that wait.
    void rewrite_waiting(const std::function<void(std::vector<uint8_t> *frame)> &change);

    // The oldest frame that the adapter sent, padded; false when none is left.
    bool take_sent(std::vector<uint8_t> *frame);
    size_t sent_waiting() const;

    // The next n sends, or all with n below 0, are refused with this errno value; 0 ends it.
    void fail_sends(int error, int n = -1);

    // Changes of the steering are refused with this errno value; 0 ends it.
    void fail_steering(int error);
    std::set<SteerKey> steered() const;

    void set_link(bool up);
    bool promiscuous() const;

    int poll_fd() const override { return -1; }
    bool receive(RxFrame *frame) override;
    int send(const uint8_t *frame, size_t len) override;
    int steer(const SteerKey &key, bool install) override;
    int set_promiscuous(bool on) override;
    bool link_up() const override;
    PortCounters counters() const override;

private:
    struct Waiting {
        std::vector<uint8_t> bytes;
        uint64_t arrival_ns;
    };
    mutable std::mutex mutex_;
    std::deque<Waiting> incoming_;
    Waiting current_{};
    std::deque<std::vector<uint8_t>> sent_;
    std::set<SteerKey> steered_;
    int send_error_ = 0, sends_to_fail_ = 0, steer_error_ = 0;
    bool link_ = true, promiscuous_ = false;
    PortCounters counters_;
};

} // namespace softnic
