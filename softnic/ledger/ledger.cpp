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

// Length of the UTF-8 sequence at the head of a text; 0 when there is none.
size_t utf8_length(const char *text)
{
    const auto byte = [text](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t first = byte(0);
    if (first < 0x80)
        return 1;
    const size_t length = first >= 0xc2 && first <= 0xdf   ? 2
                          : (first & 0xf0) == 0xe0         ? 3
                          : first >= 0xf0 && first <= 0xf4 ? 4
                                                           : 0;
    // Neither a longer form than needed, nor a surrogate, nor beyond the last character.
    if ((first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) || (first == 0xf0 && byte(1) < 0x90) ||
        (first == 0xf4 && byte(1) > 0x8f))
        return 0;
    for (size_t i = 1; i < length; i++)
        if ((byte(i) & 0xc0) != 0x80) // the terminating zero as well
            return 0;
    return length;
}

// As a JSON string. A name of an interface may have any bytes but blanks, slashes and colons: what is not UTF-8 becomes
// U+FFFD.
void add_text(std::string *out, const char *text)
{
    *out += '"';
    while (*text != '\0') {
        const size_t length = utf8_length(text);
        if (length == 0) {
            *out += "\xef\xbf\xbd";
            text++;
            continue;
        }
        const auto first = static_cast<uint8_t>(*text);
        if (first < 0x20) {
            constexpr char digits[] = "0123456789abcdef";
            out->append("\\u00").append({digits[first >> 4], digits[first & 0xf]});
        } else {
            if (first == '"' || first == '\\')
                *out += '\\';
            out->append(text, length);
        }
        text += length;
    }
    *out += '"';
}

} // namespace

std::string ledger_json(const LedgerPage &page)
{
    std::string out;
    {
        Object board(&out);
        add_text(&board.value("interface"), page.interface);
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
