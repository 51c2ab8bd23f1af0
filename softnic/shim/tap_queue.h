// Queue of request snapshots from signal handlers to the thread that plays the firmware.
#pragma once

#include <atomic>
#include <cstdint>

#include "nuv_requests.h"

namespace softnic {

// Bounded, never blocks and never allocates in push(), so that a signal handler may call it. Any number of
// pushing threads, one popping thread. The library keeps at most 64 requests in flight, so it cannot fill up
// while the firmware completes only what it popped.
class TapQueue {
public:
    static constexpr uint32_t capacity = 512;

    TapQueue() { clear(); }

    // While no one pushes or pops.
    void clear()
    {
        for (uint32_t i = 0; i < capacity; i++)
            cells_[i].turn.store(i, std::memory_order_relaxed);
        tail_.store(0, std::memory_order_relaxed);
        head_ = 0;
    }

    // False when it is full.
    bool push(const nuv_ureq_t &request)
    {
        uint32_t at = tail_.load(std::memory_order_relaxed);
        for (;;) {
            Cell &cell = cells_[at % capacity];
            int32_t ahead = int32_t(cell.turn.load(std::memory_order_acquire) - at);
            if (ahead < 0)
                return false;
            if (ahead == 0 && tail_.compare_exchange_weak(at, at + 1, std::memory_order_relaxed)) {
                cell.request = request;
                cell.turn.store(at + 1, std::memory_order_release);
                return true;
            }
            if (ahead > 0)
                at = tail_.load(std::memory_order_relaxed);
        }
    }

    // False when the oldest entry is not there, or not finished yet.
    bool pop(nuv_ureq_t *out)
    {
        Cell &cell = cells_[head_ % capacity];
        if (cell.turn.load(std::memory_order_acquire) != head_ + 1)
            return false;
        *out = cell.request;
        cell.turn.store(head_ + capacity, std::memory_order_release);
        head_++;
        return true;
    }

    bool empty() const { return cells_[head_ % capacity].turn.load(std::memory_order_acquire) != head_ + 1; }

private:
    // turn is the position for which the cell is free, one more when it holds that position's request.
    struct Cell {
        std::atomic<uint32_t> turn;
        nuv_ureq_t request;
    };
    static_assert(std::atomic<uint32_t>::is_always_lock_free);

    Cell cells_[capacity];
    std::atomic<uint32_t> tail_{0};
    uint32_t head_ = 0;
};

} // namespace softnic
