// Frames out of a capture file, alone or as what arrives at a port.
#pragma once

#include "port.h"
#include "timed_wake.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace softnic {

// Reads the classic pcap format, written on a machine of either byte order, with times in microseconds or
// nanoseconds, of Ethernet frames.
class PcapReader {
public:
    // Null with the reason in *error. With trailer_on_wire the file's frames end in a 4-byte trailer, as those of a
    // timestamping switch do.
    static std::unique_ptr<PcapReader> open(const std::string &path, std::string *error, bool trailer_on_wire = false);
    ~PcapReader();
    PcapReader(const PcapReader &) = delete;
    PcapReader &operator=(const PcapReader &) = delete;

    // The next whole frame and when it was captured, ns. False at the end of the file, or where it is cut off.
    // Frames of which the capture kept only the beginning, and those that end inside their datagram, are passed over.
    bool next(uint64_t *time_ns, std::vector<uint8_t> *frame);

    uint64_t passed_over() const { return passed_over_; }

    // The file ended within a frame, or in one that is longer than any can be, or could not be read on.
    bool damaged() const { return damaged_; }

private:
    PcapReader(FILE *file, uint32_t trailer) : file_(file), trailer_(trailer) {}
    uint32_t number(const uint8_t *bytes) const;

    FILE *file_;
    uint32_t trailer_;
    bool swapped_ = false;
    uint32_t tick_ns_ = 1000; // of the fraction of a second
    uint64_t passed_over_ = 0;
    bool damaged_ = false;
};

// Takes "FILE" or "FILE,speed=N" apart. False with the reason in *error.
bool parse_replay(const std::string &text, std::string *path, double *speed, std::string *error);

// Another port, at which the frames of a file arrive as well, at the pace at which they were captured. They begin
// when the first filter, or the first endpoint that takes frames without one, has been followed by no other for
// kQuietNs: nobody would get them earlier, and a program that binds first and joins then would lose the first of them.
// Filters of a switch's keyframes do not count.
class ReplayPort : public Port {
public:
    static constexpr uint64_t kQuietNs = 100000000;

    // speed 2 is twice as fast as captured. clock gives monotonic time in ns. damaged is called where the file ends
    // within a frame.
    ReplayPort(
        std::unique_ptr<Port> wire, std::unique_ptr<PcapReader> file, double speed, std::function<uint64_t()> clock,
        std::function<void()> damaged = [] {});

    int poll_fd() const override { return wake_.fd(); }
    bool receive(RxFrame *frame) override;
    int send(const uint8_t *frame, size_t len) override { return wire_->send(frame, len); }
    int steer(const SteerKey &key, bool install) override;
    void listen() override { listened(); }
    int set_promiscuous(bool on) override { return wire_->set_promiscuous(on); }
    bool link_up() const override { return wire_->link_up(); }
    PortCounters counters() const override;

private:
    void listened(); // puts the first frame off
    void read_next();
    void wake(); // at the time of the next one

    std::unique_ptr<Port> wire_;
    std::unique_ptr<PcapReader> file_;
    double speed_;
    std::function<uint64_t()> clock_;
    std::function<void()> damaged_;
    TimedWake wake_;
    bool started_ = false;
    bool wires_turn_ = false;          // when a frame of the file is due
    uint64_t start_ns_ = 0;            // when the first frame is due
    std::optional<uint64_t> first_ns_; // when it was captured
    uint64_t due_ns_ = UINT64_MAX;     // when the next one is
    uint64_t wakes_ns_ = UINT64_MAX;   // what the timer was set to
    std::vector<uint8_t> next_;        // it
    std::vector<uint8_t> current_;     // handed out last
    uint64_t replayed_ = 0;
};

} // namespace softnic
