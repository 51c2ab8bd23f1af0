// Send requests on their way from the application's thread to the firmware.
#pragma once

#include "nuv_requests.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace softnic {

// A bounded queue that any thread, also a signal handler, may post to; one thread at a time takes. It never
// blocks and never allocates. An endpoint has at most 64 requests in flight, so it is full only for a program
// that does not keep to the limit.
class RequestQueue {
public:
    static constexpr size_t kCapacity = 128;

    RequestQueue() { reset(); }
    RequestQueue(const RequestQueue &) = delete;
    RequestQueue &operator=(const RequestQueue &) = delete;

    // False when the queue is full.
    bool post(const nuv_ureq_t &request)
    {
        uint32_t at = tail_.load(std::memory_order_relaxed);
        for (;;) {
            Cell &cell = cells_[at % kCapacity];
            const int32_t lead = static_cast<int32_t>(cell.turn.load(std::memory_order_acquire) - at);
            if (lead < 0)
                return false;
            if (lead > 0) {
                at = tail_.load(std::memory_order_relaxed);
                continue;
            }
            if (tail_.compare_exchange_weak(at, at + 1, std::memory_order_relaxed)) {
                cell.request = request;
                cell.turn.store(at + 1, std::memory_order_release); // the cell is filled: the taker's turn
                return true;
            }
        }
    }

    // False when nothing waits.
    bool take(nuv_ureq_t *request)
    {
        Cell &cell = cells_[head_ % kCapacity];
        if (cell.turn.load(std::memory_order_acquire) != head_ + 1)
            return false;
        *request = cell.request;
        cell.turn.store(head_ + kCapacity, std::memory_order_release); // the cell is free: a poster's turn
        head_++;
        return true;
    }

    bool empty() const { return cells_[head_ % kCapacity].turn.load(std::memory_order_acquire) != head_ + 1; }

    // Posted and not taken, by the taker.
    unsigned size() const { return tail_.load(std::memory_order_acquire) - head_; }

    // Forgets what waits. Not while anybody posts.
    void reset()
    {
        head_ = 0;
        for (size_t i = 0; i < kCapacity; i++)
            cells_[i].turn.store(static_cast<uint32_t>(i), std::memory_order_relaxed);
        tail_.store(0, std::memory_order_release);
    }

private:
    struct Cell {
        std::atomic<uint32_t> turn;
        nuv_ureq_t request;
    };
    Cell cells_[kCapacity];
    std::atomic<uint32_t> tail_{0};
    uint32_t head_ = 0;
};

} // namespace softnic
