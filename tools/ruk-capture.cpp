/*
 * ruk-capture: writes every frame that an adapter receives to a pcap file with nanosecond times.
 */
#include "common.h"
#include "ledger_view.h"
#include "options.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_link.h>
#include <pcap/pcap.h>
#include <unistd.h>

using namespace tools;

namespace {

constexpr int64_t second_ns = 1'000'000'000;
constexpr size_t trailer_size = 4; /* the frame check sequence, or a switch's stamp */

struct Options {
    InterfaceChoice interface;
    std::string file;
    std::optional<uint64_t> count;
    std::optional<double> seconds;
    uint32_t snaplen = 65536;
    bool keep_trailer = false;
    bool force = false;
};

void describe_options(CommandLine line, Options &opt)
{
    opt.interface.add_options(line);
    line.option("-w,--write", opt.file, "File to write; - is standard output").type_name("FILE").required();
    line.option("-n,--count", opt.count, "End after so many frames").whole().type_name("COUNT");
    line.option("-t,--time", opt.seconds, "End after so many seconds").seconds().type_name("SECONDS");
    line.option("-s,--snaplen", opt.snaplen, "Keep so many bytes of a frame (65536)")
        .whole(1, 65536)
        .type_name("SNAPLEN");
    line.flag("--keep-trailer", opt.keep_trailer, "Keep the 4-byte trailer of each frame");
    line.flag("--force", opt.force, "Overwrite FILE");
    line.footer("Exit status: 0 COUNT was reached or none was given; 1 it was not reached; 2 error.\n"
                "SIGINT and SIGTERM end it cleanly. To look on: ruk-capture -i IF -w - | tcpdump -r -");
}

/* A pcap file that can be read while it grows. */
class CaptureFile {
public:
    explicit CaptureFile(const Options &opt) : name_(opt.file)
    {
        FILE *stream = open_stream(opt);
        pcap_ =
            pcap_open_dead_with_tstamp_precision(DLT_EN10MB, static_cast<int>(opt.snaplen), PCAP_TSTAMP_PRECISION_NANO);
        dumper_ = pcap_ ? pcap_dump_fopen(pcap_, stream) : nullptr;
        if (!dumper_)
            fail("cannot write {}: {}", name_, pcap_ ? pcap_geterr(pcap_) : "out of memory");
        flush();
    }

    ~CaptureFile()
    {
        if (dumper_)
            pcap_dump_close(dumper_);
        if (pcap_)
            pcap_close(pcap_);
    }
    CaptureFile(const CaptureFile &) = delete;
    CaptureFile &operator=(const CaptureFile &) = delete;

    void add(const uint8_t *frame, uint32_t len, uint32_t kept, uint64_t time_ns)
    {
        pcap_pkthdr header{};
        header.ts.tv_sec = static_cast<time_t>(time_ns / second_ns);
        header.ts.tv_usec = static_cast<suseconds_t>(time_ns % second_ns); /* ns: the file's precision */
        header.caplen = kept;
        header.len = len;
        pcap_dump(reinterpret_cast<u_char *>(dumper_), &header, frame);
        dirty_ = true;
    }

    void flush()
    {
        if (pcap_dump_flush(dumper_) != 0 || ferror(pcap_dump_file(dumper_)))
            fail("cannot write {}: {}", name_, errno_text(errno));
        dirty_ = false;
    }

    bool dirty() const { return dirty_; }

private:
    static FILE *open_stream(const Options &opt)
    {
        if (opt.file == "-") {
            if (isatty(STDOUT_FILENO))
                fail("a capture is no text for a terminal: redirect standard output or name a file");
            return stdout;
        }
        int fd = open(opt.file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (opt.force ? O_TRUNC : O_EXCL), 0644);
        if (fd < 0 && errno == EEXIST)
            fail("{} exists; --force overwrites it", opt.file);
        FILE *stream = fd < 0 ? nullptr : fdopen(fd, "w");
        if (!stream)
            fail("cannot write {}: {}", opt.file, errno_text(errno));
        return stream;
    }

    std::string name_;
    pcap_t *pcap_ = nullptr;
    pcap_dumper_t *dumper_ = nullptr;
    bool dirty_ = false;
};

/* Frames that the host's interface lost, by its own counters (modulo 2^32). */
uint32_t interface_drops(const std::string &name)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        fail("cannot list the interfaces: {}", errno_text(errno));
    uint32_t drops = 0;
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_PACKET || !entry->ifa_data || name != entry->ifa_name)
            continue;
        rtnl_link_stats stats;
        memcpy(&stats, entry->ifa_data, sizeof stats);
        drops = stats.rx_dropped + stats.rx_missed_errors + stats.rx_fifo_errors;
    }
    freeifaddrs(list);
    return drops;
}

uint64_t realtime_ns()
{
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * second_ns + static_cast<uint64_t>(ts.tv_nsec);
}

class Capture {
public:
    Capture(const Options &opt, Endpoint &endpoint, CaptureFile &file, const StopSignal &stop)
        : opt_(opt), dev_(endpoint.dev()), file_(file), stop_(stop), deadline_(deadline_after(opt.seconds))
    {}

    uint64_t run()
    {
        while (!done()) {
            if (take_frame())
                flush_in_time();
            else
                idle();
        }
        return frames_;
    }

private:
    bool done() const
    {
        return stop_.requested() || (opt_.count && frames_ >= *opt_.count) ||
               (deadline_ != no_deadline && monotonic_ns() >= deadline_);
    }

    /* False when none waits. */
    bool take_frame()
    {
        size_t len = 0;
        uint64_t time_ns = 0;
        int rc = ruk_raw_recv_nb(dev_, buffer_.data(), &len, &time_ns, nullptr);
        if (rc == EAGAIN)
            return false;
        if (rc != 0)
            fail("cannot receive: {}", errno_text(rc));
        if (!opt_.keep_trailer)
            len -= std::min(len, trailer_size);
        /* Keyframes of a switch bear all ones: no time of their own. */
        if (time_ns == 0 || time_ns == UINT64_MAX)
            time_ns = realtime_ns();
        file_.add(buffer_.data(), static_cast<uint32_t>(len), std::min(static_cast<uint32_t>(len), opt_.snaplen),
                  time_ns);
        frames_++;
        return true;
    }

    /* A reader of the file is never much behind, also when frames come without a pause. */
    void flush_in_time()
    {
        constexpr uint64_t frames_between_flushes = 256;
        if (frames_ % frames_between_flushes == 0)
            file_.flush();
    }

    void idle()
    {
        if (file_.dirty())
            file_.flush();
        wait_readable(ruk_device_handle(dev_), stop_.fd(), deadline_);
    }

    const Options &opt_;
    ruk_device_t dev_;
    CaptureFile &file_;
    const StopSignal &stop_;
    int64_t deadline_;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(receive_buffer_size);
    uint64_t frames_ = 0;
};

int capture(const Options &opt)
{
    StopSignal stop;
    Endpoint endpoint(opt.interface, RUK_OPEN_HW_TIMESTAMPING);
    CaptureFile file(opt);
    int rc = ruk_set_filter_mode(endpoint.dev(), RUK_RECV_FILTER_RAW);
    if (rc != 0)
        fail("cannot receive every frame of {}: {}", endpoint.interface().name, errno_text(rc));
    uint32_t drops = interface_drops(endpoint.interface().name);
    note(fmt::format("capturing on {}", endpoint.interface().name));

    uint64_t frames = Capture(opt, endpoint, file, stop).run();
    file.flush();
    drops = interface_drops(endpoint.interface().name) - drops;
    note(fmt::format("{} frames captured, {} dropped by the interface", frames, drops));
    /* What the software adapter lost on the way, where that is the adapter. */
    for (const softnic::LiveLedger &ledger : own_ledgers())
        for (const Drop &drop : adapter_drops(ledger.page))
            if (drop.reason != "unmatched")
                note(drop_text(drop));
    return opt.count && frames < *opt.count ? exit_incomplete : exit_ok;
}

} // namespace

int main(int argc, char **argv)
{
    Program line("Writes every frame that an adapter receives to a pcap file with nanosecond times.", "ruk-capture");
    Options opt;
    describe_options(line, opt);
    return line.run(argc, argv, [&] { return capture(opt); });
}
