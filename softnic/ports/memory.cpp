#include "memory.h"

#include "offload.h"

#include <algorithm>
#include <cerrno>

namespace softnic {

void MemoryPort::inject(const uint8_t *frame, size_t len, uint64_t arrival_ns)
{
    std::lock_guard guard(mutex_);
    incoming_.push_back(Waiting{std::vector<uint8_t>(frame, frame + len), arrival_ns});
}

size_t MemoryPort::waiting() const
{
    std::lock_guard guard(mutex_);
    return incoming_.size();
}

void MemoryPort::rewrite_waiting(const std::function<void(std::vector<uint8_t> *frame)> &change)
{
    std::lock_guard guard(mutex_);
    for (Waiting &frame : incoming_)
        change(&frame.bytes);
}

bool MemoryPort::take_sent(std::vector<uint8_t> *frame)
{
    std::lock_guard guard(mutex_);
    if (sent_.empty())
        return false;
    *frame = std::move(sent_.front());
    sent_.pop_front();
    return true;
}

size_t MemoryPort::sent_waiting() const
{
    std::lock_guard guard(mutex_);
    return sent_.size();
}

void MemoryPort::fail_sends(int error, int n)
{
    std::lock_guard guard(mutex_);
    send_error_ = error;
    sends_to_fail_ = n;
}

void MemoryPort::fail_steering(int error)
{
    std::lock_guard guard(mutex_);
    steer_error_ = error;
}

std::set<SteerKey> MemoryPort::steered() const
{
    std::lock_guard guard(mutex_);
    return steered_;
}

void MemoryPort::set_link(bool up)
{
    std::lock_guard guard(mutex_);
    link_ = up;
}

bool MemoryPort::receive(RxFrame *frame)
{
    std::lock_guard guard(mutex_);
    if (incoming_.empty())
        return false;
    current_ = std::move(incoming_.front());
    incoming_.pop_front();
    counters_.received++;
    *frame = RxFrame{current_.bytes.data(), static_cast<uint32_t>(current_.bytes.size()), current_.arrival_ns};
    return true;
}

int MemoryPort::send(const uint8_t *frame, size_t len)
{
    std::lock_guard guard(mutex_);
    if (send_error_ != 0 && sends_to_fail_ != 0) {
        sends_to_fail_ -= sends_to_fail_ > 0 ? 1 : 0;
        counters_.tx_errors++;
        return send_error_;
    }
    sent_.emplace_back(frame, frame + len);
    sent_.back().resize(std::max<size_t>(len, kMinFrame));
    counters_.sent++;
    return 0;
}

int MemoryPort::steer(const SteerKey &key, bool install)
{
    std::lock_guard guard(mutex_);
    if (steer_error_ != 0)
        return steer_error_;
    if (install)
        return steered_.insert(key).second ? 0 : EEXIST;
    return steered_.erase(key) != 0 ? 0 : ENOENT;
}

int MemoryPort::set_promiscuous(bool on)
{
    std::lock_guard guard(mutex_);
    promiscuous_ = on;
    return 0;
}

bool MemoryPort::promiscuous() const
{
    std::lock_guard guard(mutex_);
    return promiscuous_;
}

bool MemoryPort::link_up() const
{
    std::lock_guard guard(mutex_);
    return link_;
}

PortCounters MemoryPort::counters() const
{
    std::lock_guard guard(mutex_);
    return counters_;
}

} // namespace softnic
