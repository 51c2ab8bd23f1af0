#include "switch.h"

#include "../driver/sys.h"
#include "offload.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unistd.h>

namespace softnic {

namespace {

constexpr uint64_t kNsPerSecond = 1000000000;
constexpr uint32_t kStampBytes = 4;
constexpr uint8_t kModeAppended = 1;

bool to_u64(const std::string &text, uint64_t *value)
{
    const char *end = text.data() + text.size();
    auto [at, error] = std::from_chars(text.data(), end, *value);
    return error == std::errc() && at == end && !text.empty();
}

// Seconds with a fraction to nanoseconds.
bool to_ns(const std::string &text, uint64_t *ns)
{
    double seconds = 0;
    const char *end = text.data() + text.size();
    auto [at, error] = std::from_chars(text.data(), end, seconds);
    if (error != std::errc() || at != end || !(seconds >= 0 && seconds < 1e9))
        return false;
    *ns = static_cast<uint64_t>(std::llround(seconds * 1e9));
    return true;
}

// "a<separator>b" in two.
bool split(const std::string &text, char separator, std::string *a, std::string *b)
{
    size_t at = text.find(separator);
    if (at == std::string::npos)
        return false;
    *a = text.substr(0, at);
    *b = text.substr(at + 1);
    return true;
}

bool parse_skew(const std::string &value, SwitchOptions *options)
{
    std::string a, b;
    return split(value, '/', &a, &b) && to_u64(a, &options->skew_numerator) && to_u64(b, &options->skew_denominator) &&
           options->skew_numerator != 0 && options->skew_denominator != 0;
}

bool parse_loss(const std::string &value, SwitchOptions *options)
{
    const char *end = value.data() + value.size();
    auto [at, error] = std::from_chars(value.data(), end, options->keyframe_loss);
    return error == std::errc() && at == end && options->keyframe_loss >= 0 && options->keyframe_loss <= 1;
}

bool parse_mode(const std::string &value, SwitchOptions *options)
{
    std::string a, b;
    uint64_t mode = 0, at = 0;
    if (!split(value, '@', &a, &b) || !to_u64(a, &mode) || mode > 255 || !to_ns(b, &at))
        return false;
    if (!options->modes.empty() && options->modes.back().at_ns > at)
        return false;
    options->modes.push_back({at, static_cast<uint8_t>(mode)});
    return true;
}

bool parse_ptp_lost(const std::string &value, SwitchOptions *options)
{
    std::string from, to;
    SwitchOptions::Span span;
    if (!split(value, '-', &from, &to) || !to_ns(from, &span.from_ns) || !to_ns(to, &span.to_ns) ||
        span.from_ns > span.to_ns)
        return false;
    options->ptp_lost.push_back(span);
    return true;
}

bool parse_option(const std::string &key, const std::string &value, SwitchOptions *options)
{
    if (key == "rate")
        return to_u64(value, &options->rate_hz) && options->rate_hz != 0;
    if (key == "interval") {
        uint64_t ms = 0;
        if (!to_u64(value, &ms) || ms > 86400000)
            return false;
        options->interval_ns = ms * 1000000;
        return true;
    }
    if (key == "skew")
        return parse_skew(value, options);
    if (key == "ptp-lost")
        return parse_ptp_lost(value, options);
    if (key == "lose")
        return parse_loss(value, options);
    if (key == "mode")
        return parse_mode(value, options);
    if (key == "dst") {
        in_addr addr;
        if (inet_pton(AF_INET, value.c_str(), &addr) != 1)
            return false;
        options->dst_ip = ntohl(addr.s_addr);
        return true;
    }
    if (key == "seed")
        return to_u64(value, &options->seed);
    return false;
}

void append(std::vector<uint8_t> *to, uint64_t value, int bytes)
{
    while (bytes-- > 0)
        to->push_back(static_cast<uint8_t>(value >> (8 * bytes)));
}

// The next number of a seeded sequence (splitmix64).
uint64_t next_random(uint64_t *state)
{
    uint64_t z = *state += 0x9E3779B97F4A7C15u;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

uint16_t header_checksum(const uint8_t *header)
{
    uint32_t sum = 0;
    for (int i = 0; i < 20; i += 2)
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

} // namespace

bool parse_switch_options(const std::string &text, SwitchOptions *options, std::string *error)
{
    for (size_t at = 0, end = text.empty() ? std::string::npos : 0; end != std::string::npos; at = end + 1) {
        end = text.find(',', at);
        const std::string item = text.substr(at, end == std::string::npos ? end : end - at);
        std::string key, value;
        if (!split(item, '=', &key, &value) || !parse_option(key, value, options)) {
            *error = "switch option '" + item +
                     "' is not one of rate=HZ, interval=MS, skew=NUM/DEN, ptp-lost=FROM-TO, lose=CHANCE, "
                     "mode=N@SECONDS, dst=ADDRESS, seed=N";
            return false;
        }
    }
    return true;
}

SwitchModel::SwitchModel(const SwitchOptions &options, uint64_t start_ns)
    : options_(options), start_ns_(start_ns), next_keyframe_ns_(options.interval_ns ? start_ns : UINT64_MAX),
      random_(options.seed)
{}

uint64_t SwitchModel::ticks(uint64_t now_ns) const
{
    // In one product, so that nothing is rounded before the end.
    uint64_t since = now_ns - start_ns_;
    long double rate = static_cast<long double>(options_.rate_hz);
    if (options_.skew_denominator)
        rate = rate * static_cast<long double>(options_.skew_numerator) /
               static_cast<long double>(options_.skew_denominator);
    return static_cast<uint64_t>(static_cast<long double>(since) * rate / kNsPerSecond);
}

uint32_t SwitchModel::stamp_word(uint64_t now_ns) const
{
    uint32_t clock = static_cast<uint32_t>(ticks(now_ns)) & 0x7FFFFFFFu;
    return (clock & 0x7FFFFF80u) << 1 | (clock & 0x7Fu);
}

std::vector<uint8_t> SwitchModel::stamped(const uint8_t *frame, uint32_t len, uint64_t now_ns) const
{
    std::vector<uint8_t> out(frame, frame + len);
    out.resize(std::max(len, kMinFrame));
    append(&out, stamp_word(now_ns), kStampBytes);
    return out;
}

std::vector<uint8_t> SwitchModel::keyframe(uint64_t now_ns)
{
    if (now_ns < next_keyframe_ns_)
        return {};
    next_keyframe_ns_ = now_ns + options_.interval_ns;
    if (static_cast<double>(next_random(&random_) >> 11) * 0x1p-53 < options_.keyframe_loss) {
        lost_++;
        return {};
    }

    const uint64_t since = now_ns - start_ns_;
    const bool synced =
        std::none_of(options_.ptp_lost.begin(), options_.ptp_lost.end(),
                     [&](const SwitchOptions::Span &lost) { return since >= lost.from_ns && since < lost.to_ns; });
    uint8_t mode = kModeAppended;
    for (const SwitchOptions::ModeChange &change : options_.modes)
        if (since >= change.at_ns)
            mode = change.mode;

    std::vector<uint8_t> payload;
    append(&payload, ticks(now_ns), 8);
    append(&payload, now_ns, 8);
    append(&payload, synced ? now_ns : 0, 8);
    if (options_.skew_denominator) {
        append(&payload, options_.skew_numerator, 8);
        append(&payload, options_.skew_denominator, 8);
    }
    append(&payload, now_ns, 8); // when the keyframe left
    append(&payload, lost_, 8);  // frames that the switch dropped
    append(&payload, 1, 2);      // device
    append(&payload, 1, 2);      // egress port
    append(&payload, mode, 1);
    append(&payload, 0, 1);

    std::vector<uint8_t> frame = {0x01, 0x00, 0x5e, 0x00, 0x00, 0xfd, 0x02, 0x00, 0x00, 0x00, 0x00, 0xfd, 0x08, 0x00};
    std::vector<uint8_t> ip = {0x45, 0, 0, 0, 0, 0, 0, 0, 64, kProtoKeyframe, 0, 0, 0, 0, 0, 0};
    append(&ip, options_.dst_ip, 4);
    ip[2] = static_cast<uint8_t>((20 + payload.size()) >> 8);
    ip[3] = static_cast<uint8_t>(20 + payload.size());
    uint16_t check = header_checksum(ip.data());
    ip[10] = static_cast<uint8_t>(check >> 8);
    ip[11] = static_cast<uint8_t>(check);
    frame.insert(frame.end(), ip.begin(), ip.end());
    frame.insert(frame.end(), payload.begin(), payload.end());
    append(&frame, stamp_word(now_ns), kStampBytes);
    return frame;
}

SwitchPort::SwitchPort(std::unique_ptr<Port> wire, const SwitchOptions &options, std::function<uint64_t()> clock,
                       bool wake_by_timer)
    : wire_(std::move(wire)), clock_(std::move(clock)), model_(options, clock_())
{
    if (!wake_by_timer)
        return;
    wake_.create(wire_->poll_fd(), CLOCK_REALTIME);
    wake_.at(model_.next_keyframe_ns());
}

int SwitchPort::poll_fd() const { return wake_.fd() >= 0 ? wake_.fd() : wire_->poll_fd(); }

bool SwitchPort::receive(RxFrame *frame)
{
    uint64_t now = clock_();
    if (now >= model_.next_keyframe_ns()) {
        current_ = model_.keyframe(now);
        wake_.at(model_.next_keyframe_ns());
        if (!current_.empty()) {
            keyframes_++;
            *frame = {current_.data(), static_cast<uint32_t>(current_.size()), now};
            return true;
        }
    }
    RxFrame plain;
    if (!wire_->receive(&plain))
        return false;
    current_ = model_.stamped(plain.data, plain.len, now);
    *frame = {current_.data(), static_cast<uint32_t>(current_.size()), plain.arrival_ns};
    return true;
}

PortCounters SwitchPort::counters() const
{
    PortCounters counters = wire_->counters();
    counters.received += keyframes_;
    return counters;
}

} // namespace softnic
