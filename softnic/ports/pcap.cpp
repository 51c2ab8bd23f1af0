#include "pcap.h"

#include "nuv_events.h"
#include "offload.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

namespace softnic {
namespace {

constexpr uint32_t kMicroseconds = 0xa1b2c3d4, kNanoseconds = 0xa1b23c4d, kNextGeneration = 0x0a0d0d0a;
constexpr size_t kFileHeader = 24, kRecordHeader = 16;
constexpr uint32_t kEthernet = 1;
constexpr uint32_t kLongestFrame = 262144;
constexpr double kLongestWait = 1e18; // ns: decades, which every clock can tell

uint32_t swap(uint32_t v) { return __builtin_bswap32(v); }

} // namespace

uint32_t PcapReader::number(const uint8_t *bytes) const
{
    uint32_t v;
    memcpy(&v, bytes, sizeof(v));
    return swapped_ ? swap(v) : v;
}

std::unique_ptr<PcapReader> PcapReader::open(const std::string &path, std::string *error, bool trailer_on_wire)
{
    FILE *file = fopen(path.c_str(), "rbe");
    if (file == nullptr) {
        *error = path + ": " + strerror(errno);
        return nullptr;
    }
    std::unique_ptr<PcapReader> reader(new PcapReader(file, trailer_on_wire ? NUV_UEVT_FCS_LEN : 0));
    uint8_t header[kFileHeader];
    if (fread(header, sizeof(header), 1, file) != 1) {
        *error = path + (ferror(file) ? std::string(": ") + strerror(errno) : " is no capture file: it is too short");
        return nullptr;
    }
    uint32_t magic = reader->number(header);
    if (magic == swap(kMicroseconds) || magic == swap(kNanoseconds)) {
        reader->swapped_ = true;
        magic = swap(magic);
    }
    if (magic == kNextGeneration) {
        *error = path + " is a pcapng file: convert it with 'tcpdump -r FILE -w NEW'";
        return nullptr;
    }
    if (magic != kMicroseconds && magic != kNanoseconds) {
        *error = path + " is no capture file";
        return nullptr;
    }
    reader->tick_ns_ = magic == kNanoseconds ? 1 : 1000;
    if ((reader->number(header + 20) & 0xffff) != kEthernet) {
        *error = path + " holds no Ethernet frames";
        return nullptr;
    }
    return reader;
}

PcapReader::~PcapReader() { fclose(file_); }

bool PcapReader::next(uint64_t *time_ns, std::vector<uint8_t> *frame)
{
    if (damaged_)
        return false;
    uint8_t header[kRecordHeader];
    while (const size_t got = fread(header, 1, sizeof(header), file_)) {
        const uint32_t kept = number(header + 8), whole = number(header + 12);
        damaged_ = got != sizeof(header) || kept > kLongestFrame;
        if (damaged_)
            return false;
        frame->resize(kept);
        damaged_ = fread(frame->data(), 1, kept, file_) != kept;
        if (damaged_)
            return false;
        const bool short_of_a_frame = kept < kMinFrame + trailer_;
        if (kept < whole || kept == 0 || kept < trailer_ ||
            (short_of_a_frame && ends_inside_datagram(frame->data(), kept - trailer_))) {
            passed_over_++;
            continue;
        }
        frame->resize(std::max(kept, kMinFrame + trailer_));
        frame->resize(pad_frame(frame->data(), kept, trailer_));
        *time_ns = number(header) * UINT64_C(1000000000) + uint64_t{number(header + 4)} * tick_ns_;
        return true;
    }
    damaged_ = ferror(file_) != 0;
    return false;
}

bool parse_replay(const std::string &text, std::string *path, double *speed, std::string *error)
{
    constexpr std::string_view key = ",speed=";
    const size_t at = text.rfind(key);
    *path = text.substr(0, at);
    *speed = 1;
    if (at != std::string::npos) {
        const std::string number = text.substr(at + key.size());
        const char *end = number.data() + number.size();
        const std::from_chars_result result = std::from_chars(number.data(), end, *speed); // has no locale
        if (result.ec != std::errc() || result.ptr != end || !(*speed > 0 && *speed <= 1e6)) {
            *error = "speed '" + number + "' is not a number above 0, at most 1000000";
            return false;
        }
    }
    if (path->empty()) {
        *error = "no file named";
        return false;
    }
    return true;
}

ReplayPort::ReplayPort(std::unique_ptr<Port> wire, std::unique_ptr<PcapReader> file, double speed,
                       std::function<uint64_t()> clock, std::function<void()> damaged)
    : wire_(std::move(wire)), file_(std::move(file)), speed_(speed), clock_(std::move(clock)),
      damaged_(std::move(damaged))
{
    wake_.create(wire_->poll_fd(), CLOCK_MONOTONIC);
}

int ReplayPort::steer(const SteerKey &key, bool install)
{
    const int rc = wire_->steer(key, install);
    // The library asks for a switch's keyframes while it opens an endpoint: nobody listens yet.
    if (rc == 0 && install && key.proto != kProtoKeyframe)
        listened();
    return rc;
}

void ReplayPort::listened()
{
    if (replayed_ != 0)
        return;
    start_ns_ = clock_() + kQuietNs;
    if (!started_) {
        started_ = true;
        read_next();
    } else if (due_ns_ != UINT64_MAX) {
        due_ns_ = start_ns_;
    }
    wake();
}

void ReplayPort::read_next()
{
    uint64_t captured;
    if (!file_->next(&captured, &next_)) {
        due_ns_ = UINT64_MAX;
        if (file_->damaged())
            damaged_();
    } else {
        if (!first_ns_)
            first_ns_ = captured;
        // A clock that was set back while capturing holds nothing up.
        const uint64_t since = captured > *first_ns_ ? captured - *first_ns_ : 0;
        due_ns_ = start_ns_ + static_cast<uint64_t>(std::min(static_cast<double>(since) / speed_, kLongestWait));
    }
}

// A system call, which a replay that is behind has no time for.
void ReplayPort::wake()
{
    if (wakes_ns_ == due_ns_)
        return;
    wakes_ns_ = due_ns_;
    wake_.at(due_ns_);
}

bool ReplayPort::receive(RxFrame *frame)
{
    const bool due = due_ns_ != UINT64_MAX && clock_() >= due_ns_;
    if (!due)
        wake();
    if (!due || wires_turn_) {
        wires_turn_ = false;
        if (wire_->receive(frame))
            return true;
        if (!due)
            return false;
    }
    wires_turn_ = true; // or all of it would wait while the replay is behind
    current_.swap(next_);
    replayed_++;
    *frame = {current_.data(), static_cast<uint32_t>(current_.size()), 0};
    read_next();
    return true;
}

PortCounters ReplayPort::counters() const
{
    PortCounters counters = wire_->counters();
    counters.received += replayed_;
    counters.rx_malformed += file_->passed_over();
    return counters;
}

} // namespace softnic
