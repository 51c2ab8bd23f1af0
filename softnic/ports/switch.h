// A timestamping switch in front of a port: it stamps every frame with its clock and sends keyframes.
#pragma once

#include "port.h"
#include "timed_wake.h"

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace softnic {

// Everything about the switch; the defaults are a healthy one.
struct SwitchOptions {
    uint64_t rate_hz = 350000000;      // its clock's true rate
    uint64_t interval_ns = 1000000000; // between keyframes; 0 = none are sent
    uint64_t skew_numerator = 0;       // with a denominator: keyframes carry both; the clock's true rate is
    uint64_t skew_denominator = 0;     // then rate_hz * numerator / denominator
    struct Span {
        uint64_t from_ns, to_ns; // after the start; the end is not part of it
    };
    std::vector<Span> ptp_lost;   // keyframes carry no sync time in these
    double keyframe_loss = 0;     // chance of a keyframe to be lost, 0 to 1
    uint32_t dst_ip = 0x01010100; // keyframes' destination, host byte order
    uint64_t seed = 1;            // of the losses
    struct ModeChange {
        uint64_t at_ns; // after the start
        uint8_t mode;   // announced from then on; 1 is the appended form that receivers support
    };
    std::vector<ModeChange> modes; // in order of time; mode 1 before the first
};

// Reads "key=value,..." into options. Keys: rate=HZ, interval=MS, skew=NUM/DEN, ptp-lost=FROM-TO (seconds after
// the start, repeatable), lose=CHANCE, mode=N@SECONDS (repeatable), dst=ADDRESS, seed=N. False with the reason in
// *error.
bool parse_switch_options(const std::string &text, SwitchOptions *options, std::string *error);

// The switch's clock and keyframes alone; time is an argument.
class SwitchModel {
public:
    SwitchModel(const SwitchOptions &options, uint64_t start_ns);

    // Ticks since the start.
    uint64_t ticks(uint64_t now_ns) const;

    // The 32-bit word that the switch appends to a frame, as a number: the low 31 bits of its clock, with bit 7
    // of the word left out.
    uint32_t stamp_word(uint64_t now_ns) const;

    // When the next keyframe is due; all ones for never.
    uint64_t next_keyframe_ns() const { return next_keyframe_ns_; }

    // The keyframe that is due by now, with its stamp; empty when it is lost or none is due.
    std::vector<uint8_t> keyframe(uint64_t now_ns);

    // A frame, padded to the shortest of the wire, with its stamp behind it.
    std::vector<uint8_t> stamped(const uint8_t *frame, uint32_t len, uint64_t now_ns) const;

private:
    SwitchOptions options_;
    uint64_t start_ns_;
    uint64_t next_keyframe_ns_;
    uint64_t random_;
    uint64_t lost_ = 0;
};

// Any port behind such a switch. The board must know that frames arrive with their trailer on.
class SwitchPort : public Port {
public:
    // clock gives host real time in ns. With wake_by_timer the descriptor also polls readable when a keyframe is
    // due; without it the owner asks often enough.
    SwitchPort(std::unique_ptr<Port> wire, const SwitchOptions &options, std::function<uint64_t()> clock,
               bool wake_by_timer);

    int poll_fd() const override;
    bool receive(RxFrame *frame) override;
    int send(const uint8_t *frame, size_t len) override { return wire_->send(frame, len); }
    int steer(const SteerKey &key, bool install) override { return wire_->steer(key, install); }
    void listen() override { wire_->listen(); }
    int set_promiscuous(bool on) override { return wire_->set_promiscuous(on); }
    bool link_up() const override { return wire_->link_up(); }
    PortCounters counters() const override;
    Port &wire() { return *wire_; }

private:
    std::unique_ptr<Port> wire_;
    std::function<uint64_t()> clock_;
    SwitchModel model_;
    std::vector<uint8_t> current_;
    uint64_t keyframes_ = 0;
    TimedWake wake_; // unused without the timer
};

} // namespace softnic
