#include "ledger.h"

#include <atomic>
#include <cstring>
#include <unistd.h>

namespace softnic {

bool copy_ledger(const void *page, LedgerPage *copy)
{
    auto *live = const_cast<LedgerPage *>(static_cast<const LedgerPage *>(page));
    const std::atomic_ref<uint64_t> magic(live->magic), sequence(live->sequence);
    if (magic.load(std::memory_order_acquire) != kLedgerMagic)
        return false;
    for (int attempt = 0; attempt < 1000; attempt++) {
        if (attempt > 100)
            ::usleep(100); // the writer was interrupted amid a change
        const uint64_t before = sequence.load(std::memory_order_acquire);
        if (before % 2 != 0)
            continue;
        memcpy(copy, page, sizeof(*copy));
        std::atomic_thread_fence(std::memory_order_acquire);
        if (sequence.load(std::memory_order_relaxed) == before) {
            copy->interface[sizeof(copy->interface) - 1] = '\0';
            return copy->endpoints <= kLedgerEndpoints;
        }
    }
    return false;
}

namespace {

class Object {
public:
    explicit Object(std::string *out) : out_(out) { *out_ += '{'; }
    ~Object() { *out_ += '}'; }
    Object(const Object &) = delete;
    Object &operator=(const Object &) = delete;

    std::string &value(const char *name)
    {
        if (out_->back() != '{')
            *out_ += ',';
        return out_->append("\"").append(name).append("\":");
    }
    void number(const char *name, uint64_t n) { value(name) += std::to_string(n); }

private:
    std::string *out_;
};

void add_endpoint(std::string *out, const LedgerEndpoint &e)
{
    Object o(out);
    o.number("claimed", e.claimed);
    o.number("enabled", e.enabled);
    o.number("ring_bytes", e.ring_bytes);
    o.number("unconsumed", e.unconsumed);
    o.number("high_water", e.high_water);
    o.number("steered", e.steered);
    o.number("delivered", e.delivered);
    o.number("pending", e.pending);
    o.number("disabled", e.disabled);
    o.number("ring_full", e.ring_full);
    o.number("oversize", e.oversize);
    o.number("events", e.events);
    o.number("bad_flow", e.bad_flow);
    o.number("requests", e.requests);
    o.number("frames_sent", e.frames_sent);
    o.number("send_errors", e.send_errors);
    o.number("bad_type", e.bad_type);
    o.number("bad_header", e.bad_header);
    o.number("bad_payload", e.bad_payload);
    o.number("post_overflow", e.post_overflow);
    o.number("lost_requests", e.lost_requests);
}

} // namespace

std::string ledger_json(const LedgerPage &page)
{
    std::string out;
    {
        Object board(&out);
        board.value("interface").append("\"").append(page.interface).append("\"");
        {
            Object port(&board.value("port"));
            port.number("received", page.received);
            port.number("rx_dropped", page.rx_dropped);
            port.number("rx_malformed", page.rx_malformed);
            port.number("sent", page.sent);
            port.number("tx_errors", page.tx_errors);
        }
        board.number("arrived", page.arrived);
        board.number("matched", page.matched);
        board.number("unmatched", page.unmatched);
        board.number("malformed", page.malformed);
        board.number("raw_dropped", page.raw_dropped);
        board.value("endpoints") += '[';
        for (unsigned ep = 0; ep < page.endpoints; ep++) {
            if (ep != 0)
                out += ',';
            add_endpoint(&out, page.endpoint[ep]);
        }
        out += ']';
    }
    return out;
}

} // namespace softnic
