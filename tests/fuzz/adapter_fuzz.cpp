/*
 * The software adapter against an application that does whatever it likes: any bytes in the request window, in the
 * flow window and the doorbell, any command with any argument, any mapping. Memory that the application names in a
 * command is its own or none. The adapter never leaves a region; the sanitizer and the pages around them see to it.
 *
 * Two boards: one sends by itself and shows events when they are whole, the other is told when to send and to complete
 * and shows events early. Where the application left the ring and its flow window alone it also reads the events, as
 * a proper one does, and they hold what came in.
 *
 * The host's side of descriptors and of copies between application and driver is made here: real ones would be most of
 * the time, and a copy made by the kernel would escape the sanitizer.
 */
#include "bytes.h"

#include "nuv_events.h"
#include "nuv_requests.h"
#include "nuv_types.h"
#include "softnic.h"
#include "tov_io.h"

#include <array>
#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sanitizer/asan_interface.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

extern "C" {
long __real_syscall(long number, ...);
int __real_ftruncate(int fd, off_t length);
int __real_fstat(int fd, struct stat *status);
}

namespace {

/*
 * The memory of an endpoint's regions, kept for the next one of their size: making and unmaking it in the kernel
 * would be most of the time. What lies around a region, and one that nobody has, is poisoned.
 */
class RegionMemory {
public:
    static constexpr int kDescriptor = 1 << 20; /* between creation and mapping */

    void *take(size_t length)
    {
        std::vector<uint8_t *> &free = free_[length];
        if (free.empty()) {
            const size_t all = length + 2 * kAround;
            void *memory = mmap(nullptr, all, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
            FUZZ_REQUIRE(memory != MAP_FAILED);
            __asan_poison_memory_region(memory, all);
            free.push_back(static_cast<uint8_t *>(memory) + kAround);
        }
        uint8_t *region = free.back();
        free.pop_back();
        __asan_unpoison_memory_region(region, length);
        memset(region, 0, length);
        taken_[region] = length;
        return region;
    }
    /* False when it is not one of these. */
    bool give_back(void *address, size_t length)
    {
        const auto it = taken_.find(address);
        if (it == taken_.end())
            return false;
        FUZZ_REQUIRE(it->second == length);
        taken_.erase(it);
        __asan_poison_memory_region(address, length);
        free_[length].push_back(static_cast<uint8_t *>(address));
        return true;
    }
    size_t taken() const { return taken_.size(); }

private:
    static constexpr size_t kAround = 65536;
    std::map<size_t, std::vector<uint8_t *>> free_;
    std::map<void *, size_t> taken_;
};

RegionMemory &region_memory()
{
    static RegionMemory memory;
    return memory;
}

bool is_region(const char *name)
{
    for (const char *region : {"oxel-recvq", "oxel-sendq", "oxel-sram", "oxel-zreq", "oxel-flow"})
        if (strcmp(name, region) == 0)
            return true;
    return false; /* the pages that all endpoints share are made once */
}

/* The descriptors of the device files, each a pipe of its own. */
class Descriptors {
public:
    static constexpr int kFirst = 900, kCount = 64;

    static bool among(long fd) { return fd >= kFirst && fd < kFirst + kCount; }
    bool is_open(long fd) const { return among(fd) && pipes_[fd - kFirst].number != 0; }

    int make()
    {
        for (int i = 0; i < kCount; i++)
            if (pipes_[i].number == 0) {
                pipes_[i] = {++made_, 0};
                return kFirst + i;
            }
        abort();
    }
    int duplicate(int from, int to)
    {
        at(to) = at(from);
        return to;
    }
    int close(int fd)
    {
        FUZZ_REQUIRE(is_open(fd)); /* never one that is somebody else's by now */
        at(fd) = {};
        return 0;
    }
    long write(int fd)
    {
        FUZZ_REQUIRE(is_open(fd) && ++at(fd).bytes == 1);
        return 1;
    }
    long read(int fd)
    {
        FUZZ_REQUIRE(is_open(fd) && --at(fd).bytes == 0);
        return 1;
    }
    int status(int fd, struct stat *status) const
    {
        *status = {};
        status->st_dev = 1;
        status->st_ino = pipes_[fd - kFirst].number;
        return 0;
    }

private:
    struct Pipe {
        uint64_t number = 0; /* 0 = closed */
        int bytes = 0;
    };
    Pipe &at(int fd) { return pipes_[fd - kFirst]; }

    Pipe pipes_[kCount];
    uint64_t made_ = 0;
} g_descriptors;

/* What of the application's memory there is; behind it lies a page that cannot be touched. */
struct Memory {
    static constexpr size_t kBytes = 69632;  /* more than any length of a command's can say */
    static constexpr size_t kArgument = 256; /* as large as the largest record */

    uint8_t *bytes = [] {
        void *at = mmap(nullptr, kBytes + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        FUZZ_REQUIRE(at != MAP_FAILED);
        FUZZ_REQUIRE(mprotect(static_cast<uint8_t *>(at) + kBytes, 4096, PROT_NONE) == 0);
        return static_cast<uint8_t *>(at);
    }();
    alignas(8) uint8_t argument[kArgument];

    bool holds(const void *at, size_t n) const
    {
        return within(at, n, bytes, kBytes) || within(at, n, argument, kArgument);
    }

private:
    static bool within(const void *at, size_t n, const uint8_t *from, size_t length)
    {
        const auto begin = reinterpret_cast<uintptr_t>(at), low = reinterpret_cast<uintptr_t>(from);
        return begin >= low && n <= length && begin - low <= length - n;
    }
} g_memory;

/* True when the call is one of those whose host is here; its result is then in *result. */
bool answered_here(long number, const long *a, long *result)
{
    const auto fd = static_cast<int>(a[0]);
    switch (number) {
    case SYS_memfd_create:
        if (!is_region(reinterpret_cast<const char *>(a[0])))
            return false;
        *result = RegionMemory::kDescriptor;
        return true;
    case SYS_mmap:
        if (static_cast<int>(a[4]) != RegionMemory::kDescriptor)
            return false;
        *result = reinterpret_cast<long>(region_memory().take(static_cast<size_t>(a[1])));
        return true;
    case SYS_munmap:
        *result = 0;
        return region_memory().give_back(reinterpret_cast<void *>(a[0]), static_cast<size_t>(a[1]));
    case SYS_pipe2: {
        int *ends = reinterpret_cast<int *>(a[0]);
        ends[0] = g_descriptors.make();
        ends[1] = g_descriptors.make();
        *result = 0;
        return true;
    }
    case SYS_openat: {
        int linked = -1;
        if (sscanf(reinterpret_cast<const char *>(a[1]), "/proc/self/fd/%d", &linked) != 1 ||
            !Descriptors::among(linked))
            return false;
        *result = g_descriptors.duplicate(linked, g_descriptors.make());
        return true;
    }
    case SYS_dup3:
        *result = Descriptors::among(fd) ? g_descriptors.duplicate(fd, static_cast<int>(a[1])) : 0;
        return Descriptors::among(fd);
    case SYS_read:
        return Descriptors::among(fd) && (*result = g_descriptors.read(fd), true);
    case SYS_write:
        return Descriptors::among(fd) && (*result = g_descriptors.write(fd), true);
    case SYS_close:
        *result = 0;
        return fd == RegionMemory::kDescriptor || (Descriptors::among(fd) && (g_descriptors.close(fd), true));
    case SYS_process_vm_readv:
    case SYS_process_vm_writev: {
        const auto *mine = reinterpret_cast<const iovec *>(a[1]), *theirs = reinterpret_cast<const iovec *>(a[3]);
        if (!g_memory.holds(theirs->iov_base, theirs->iov_len))
            return false; /* the kernel knows what is there */
        const bool read = number == SYS_process_vm_readv;
        memcpy(read ? mine->iov_base : theirs->iov_base, read ? theirs->iov_base : mine->iov_base, theirs->iov_len);
        *result = static_cast<long>(theirs->iov_len);
        return true;
    }
    default:
        return false;
    }
}

} // namespace

/* How the adapter makes its system calls. As many arguments are taken as any has. */
extern "C" __attribute__((no_sanitize("address"))) long __wrap_syscall(long number, ...)
{
    long a[6], result;
    va_list arguments;
    va_start(arguments, number);
    for (long &argument : a)
        argument = va_arg(arguments, long);
    va_end(arguments);
    if (answered_here(number, a, &result))
        return result;
    return __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

extern "C" int __wrap_ftruncate(int fd, off_t length)
{
    return fd == RegionMemory::kDescriptor ? 0 : __real_ftruncate(fd, length);
}

extern "C" int __wrap_fstat(int fd, struct stat *status)
{
    if (!Descriptors::among(fd))
        return __real_fstat(fd, status);
    if (g_descriptors.is_open(fd))
        return g_descriptors.status(fd, status);
    errno = EBADF;
    return -1;
}

namespace {

constexpr unsigned long commands[] = {
    OXEL_ARP_RESOLVE,    OXEL_ATTACH_SOFT,     OXEL_GET_NIC_ID,     OXEL_GET_CURR_NIC_ID,
    OXEL_GET_NIC_TICKS,  OXEL_GET_RUK_PARAMS,  OXEL_GET_VERSION,    OXEL_RAW_SEND,
    OXEL_RAW_NEXT_EVENT, OXEL_SET_RUK_PARAMS,  OXEL_GET_NIC_TYPE,   OXEL_GET_LINK_STATE,
    OXEL_RAW_OPEN,       OXEL_SET_ENDPT,       OXEL_ENABLE_ENDPT,   OXEL_RX_FILTER,
    OXEL_GET_COPYBLOCK,  OXEL_GET_SREQS_CNT,   OXEL_POST_SOFT_DATA, OXEL_WAIT_SEND_COMPLETION,
    OXEL_GET_MAX_ENDPTS, OXEL_SET_FILTER_MODE, OXEL_GET_BOARD_CNT,  0x1234,
};
constexpr size_t handles = 4;
constexpr unsigned boards = 2, endpoints = 2;
constexpr unsigned kDirect = 0, kTold = 1;   /* the boards: sends by itself, is told when to */
constexpr size_t kWireBytes = 256U << 10;    /* of frames that come in at most, of one input: time, not correctness */
constexpr size_t kSteps = 100;               /* likewise */
constexpr uint64_t kEnd = uint64_t{1} << 63; /* of virtual time: adapters are made anew before it runs over */

/* What frames hold from byte kHeader on. */
constexpr size_t kHeader = 64;
struct Pattern {
    Pattern()
    {
        for (size_t i = 0; i < sizeof bytes; i++)
            bytes[i] = static_cast<uint8_t>(i * 7 + (i >> 8) * 13);
    }
    uint8_t bytes[65536];
};
const Pattern g_pattern;

/* A datagram to this address and port, for filters to match. */
constexpr uint32_t kAddress = 0x0a4d0001;
constexpr uint16_t kPort = 5000;
constexpr uint8_t kDatagram[] = {0x02, 0x6f, 0x78, 0,    0, 1, 2,    0,    0,    0,    0, 2,  0x08, 0,
                                 0x45, 0,    0,    100,  0, 0, 0,    0,    64,   17,   0, 0,  0,    0,
                                 0,    0,    10,   0x4d, 0, 1, 0x13, 0x88, 0x13, 0x88, 0, 80, 0,    0};

struct Application {
    softnic_t *nic;
    std::array<int, handles> fds;
    std::vector<int> forgotten; /* descriptors closed where the adapter does not see it */
    std::vector<std::pair<void *, size_t>> maps;
    bool hostile[boards][endpoints]; /* events and flow windows may be anything */
    uint64_t bad_flow[boards][endpoints];
    size_t wire_bytes;
    bool often_done;

    Application()
    {
        softnic_board_config_t config[boards];
        for (unsigned b = 0; b < boards; b++) {
            softnic_board_defaults(&config[b], b);
            config[b].endpoints = endpoints;
            config[b].recvq_size = 16384;
        }
        config[kDirect].sendq_size = 4096;
        config[kTold].sendq_size = 131072; /* more than a request's length can say */
        config[kTold].hardware_order = 1;
        config[kTold].manual_sends = 1;
        config[kTold].trailer_on_wire = 1;
        nic = softnic_create(config, boards, 1700000000000000000);
        FUZZ_REQUIRE(softnic_attach(nic) == 0);
        fds.fill(-1);
    }
    ~Application() { softnic_destroy(nic); }
    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;

    void begin()
    {
        wire_bytes = 0;
        often_done = false;
        for (unsigned b = 0; b < boards; b++)
            for (unsigned ep = 0; ep < endpoints; ep++) {
                hostile[b][ep] = false;
                bad_flow[b][ep] = counters(b, ep).bad_flow;
            }
    }

    /* What takes long to do so many times is done so once an input. */
    unsigned often(unsigned times) { return std::exchange(often_done, true) ? 1 : times; }

    softnic_endpoint_counters_t counters(unsigned board, unsigned endpoint) const
    {
        softnic_endpoint_counters_t c;
        softnic_endpoint_counters(nic, board, endpoint, &c);
        return c;
    }

    /* All that it has is given back, and the boards are as in the beginning, but for counters and clock. */
    void leave()
    {
        for (auto [address, length] : maps)
            munmap(address, length);
        maps.clear();
        for (int &fd : fds) {
            if (fd >= 0)
                close(fd);
            fd = -1;
        }
        for (int fd : forgotten)
            ioctl(fd, 0); /* now it is seen */
        forgotten.clear();
        for (unsigned b = 0; b < boards; b++) {
            softnic_fail_sends(nic, b, 0, 0);
            softnic_fail_steering(nic, b, 0);
            softnic_set_max_packets(nic, b, NUV_UEVT_MAX_PKTS);
            for (unsigned ep = 0; ep < endpoints; ep++)
                softnic_hold_events(nic, b, ep, 0);
        }
        softnic_run(nic);
        softnic_clear_commands(nic); /* its log of them only grows */
        take_sent(0);
    }

    /* Frames that left are taken when they are more than so many. */
    void take_sent(unsigned most)
    {
        static uint8_t frame[64];
        for (unsigned b = 0; b < boards; b++)
            if (softnic_sent_count(nic, b) > most)
                while (const size_t n = softnic_take_sent(nic, b, frame, sizeof frame))
                    FUZZ_REQUIRE(n <= NUV_UREQ_MAX_HEADER + 65535);
    }

    void check() const
    {
        FUZZ_REQUIRE(region_memory().taken() == 0);
        for (unsigned b = 0; b < boards; b++) {
            FUZZ_REQUIRE(softnic_claimed(nic, b) == 0);
            FUZZ_REQUIRE(softnic_promiscuous(nic, b) == 0);
            softnic_board_counters_t board;
            softnic_board_counters(nic, b, &board);
            FUZZ_REQUIRE(board.arrived == board.matched + board.unmatched + board.malformed);
            for (unsigned ep = 0; ep < endpoints; ep++) {
                const softnic_endpoint_counters_t c = counters(b, ep);
                FUZZ_REQUIRE(c.steered == c.delivered + c.disabled + c.ring_full + c.oversize);
                FUZZ_REQUIRE(c.requests == c.frames_sent + c.send_errors + c.bad_type + c.bad_header + c.bad_payload);
                FUZZ_REQUIRE(hostile[b][ep] || c.bad_flow == bad_flow[b][ep]);
            }
        }
    }

    void open_device(int &fd, unsigned board)
    {
        if (fd < 0)
            fd = open(board == 0 ? "/dev/oxelB0" : "/dev/oxelB1", O_RDWR);
    }

    /* An endpoint as the library sets it up, or a part of that, or a soft handle on it. It gets all frames, the
     * groups', or those of its filter. */
    void set_up(int &fd, unsigned board, uint16_t all)
    {
        const auto how = static_cast<uint8_t>(all), more = static_cast<uint8_t>(all >> 8);
        open_device(fd, board);
        ask(fd, OXEL_SET_ENDPT, oxel_set_endpt_t{how % 2, more % 4 == 0 ? OXEL_ES_RUK_SOFT : OXEL_ES_RUK});
        ask(fd, OXEL_ATTACH_SOFT, fds[(more >> 2) % handles]);
        if ((how & 0x10) != 0)
            ask(fd, OXEL_SET_RUK_PARAMS, oxel_ruk_params_t{uint32_t{more} * 64, 0x4000U << (how >> 6), 0, 0});
        ask(fd, OXEL_SET_FILTER_MODE, uint32_t{how} / 2 % 4);
        if ((how & 8) != 0)
            ask(fd, OXEL_RX_FILTER, oxel_rx_filter_t{kAddress, kPort, 0, more, 0, more >= 0x80, 0, {}});
        if ((how & 0x20) == 0)
            ioctl(fd, OXEL_ENABLE_ENDPT, nullptr);
    }
    template <typename Record> static void ask(int fd, unsigned long command, const Record &record)
    {
        memcpy(g_memory.argument, &record, sizeof record);
        ioctl(fd, command, g_memory.argument);
    }

    /* Its own memory in whole, in part or less than a page's end away from nothing, null, or nobody's. */
    static uint64_t pointer(uint64_t choice)
    {
        const auto memory = reinterpret_cast<uintptr_t>(g_memory.bytes);
        switch (choice % 8) {
        case 0:
        case 1:
            return memory;
        case 2:
        case 3:
            return memory + 4096 - choice / 8 % 64;
        case 4:
            return memory + Memory::kBytes - choice / 8 % 4096;
        case 5:
            return memory + Memory::kBytes;
        case 6:
            return 0;
        default:
            return 4096;
        }
    }

    void command(fuzz::Bytes &in, int fd, unsigned times)
    {
        const unsigned long number = commands[in.u8() % std::size(commands)];
        const auto given = in.stretch(40);
        uint8_t *argument = g_memory.argument;
        memset(argument, 0, Memory::kArgument);
        std::copy(given.begin(), given.end(), argument);
        if (number == OXEL_RAW_SEND) {
            auto *send = reinterpret_cast<oxel_raw_send_t *>(argument);
            send->data_pointer = pointer(send->data_pointer);
            send->route_pointer = pointer(send->route_pointer);
        } else if (number == OXEL_RAW_NEXT_EVENT) {
            auto *event = reinterpret_cast<oxel_raw_next_event_t *>(argument);
            event->recv_buffer = pointer(event->recv_buffer);
        } else if (number == OXEL_ATTACH_SOFT && !given.empty()) {
            const int32_t soft = given[0] < handles ? fds[given[0]] : -5;
            memcpy(argument, &soft, sizeof soft);
        } else if (number == OXEL_SET_RUK_PARAMS) {
            auto *params = reinterpret_cast<oxel_ruk_params_t *>(argument);
            if (params->recvq_size <= 32U << 20) /* of those that are granted the small ones: time, not correctness */
                params->recvq_size &= 0xffff;
        }
        /* Bad addresses as well, which the command must survive: nothing, nobody's, and across the end of memory. */
        const uint8_t where = in.u8();
        void *at = argument;
        if (where % 16 == 0)
            at = (where >> 4) % 4 == 0   ? nullptr
                 : (where >> 4) % 4 == 1 ? reinterpret_cast<void *>(4096)
                                         : static_cast<void *>(g_memory.bytes + Memory::kBytes - (where >> 6));
        do
            ioctl(fd, number, at);
        while (--times != 0);
    }

    void map(fuzz::Bytes &in, int fd)
    {
        if (maps.size() >= 8) /* time, not correctness */
            return;
        auto *block = reinterpret_cast<kz_get_copyblock_t *>(g_memory.argument);
        *block = {};
        ioctl(fd, OXEL_GET_COPYBLOCK, block);
        uint32_t entries[16];
        memcpy(entries, block, sizeof entries);
        const unsigned entry = in.u8() % 8;
        uint32_t offset = entries[2 * entry], length = entries[2 * entry + 1];
        if (in.u8() % 4 == 0) {
            offset = in.u32();
            length = in.u32();
        }
        const uint8_t how = in.u8();
        int protection = (how & 1) != 0 ? PROT_READ : PROT_READ | PROT_WRITE, flags = MAP_SHARED;
        void *where = nullptr;
        if (how >= 0xf0)
            protection |= PROT_EXEC;
        else if (how >= 0xe0)
            flags = MAP_PRIVATE;
        else if (how >= 0xc0 && !maps.empty()) { /* in the place of an earlier one, or just beside its start */
            if (maps.back().second < length)
                return;
            flags |= MAP_FIXED;
            where = static_cast<uint8_t *>(maps.back().first) + (how & 2);
        }
        void *address = mmap(where, length, protection, flags, fd, static_cast<off_t>(offset));
        if (address != MAP_FAILED && where == nullptr)
            maps.emplace_back(address, length);
    }

    void scribble(fuzz::Bytes &in, unsigned board, unsigned endpoint)
    {
        softnic_regions_t r;
        if (softnic_regions(nic, board, endpoint, &r) != 0)
            return;
        uint8_t *const at[] = {r.zreq, r.flow, r.sram, r.sendq, r.recvq};
        const size_t length[] = {r.zreq_len, r.flow_len, r.sram_len, r.sendq_len, r.recvq_len};
        const unsigned region = in.u8() % 5;
        if (length[region] == 0)
            return;
        const auto bytes = in.stretch(in.u8());
        size_t offset = in.u16() % length[region];
        if (region == 2)
            offset = in.u8() % 2 != 0 ? NUV_DOORBELL_OFFSET : offset;
        const size_t n = std::min(bytes.size(), length[region] - offset);
        hostile[board][endpoint] |= region == 1 || region == 4 || (region == 2 && offset + n > NUV_DOORBELL_OFFSET);
        std::copy_n(bytes.data(), n, at[region] + offset);
    }

    /* A request in its slot of the window, or straight to the firmware. */
    void request(fuzz::Bytes &in, unsigned board)
    {
        const uint8_t how = in.u8();
        const unsigned endpoint = how % 4; /* two of them are not there */
        uint8_t bytes[sizeof(nuv_ureq_t)];
        in.fill(bytes, sizeof bytes);
        softnic_regions_t r;
        if ((how & 4) != 0) {
            for (unsigned n = how >= 0xf8 ? often(130) : 1; n != 0; n--) /* more than can wait */
                softnic_post_request(nic, board, endpoint, bytes);
        } else if (softnic_regions(nic, board, endpoint, &r) == 0) {
            memcpy(r.zreq + size_t{how} / 16 * NUV_UREQ_STRIDE, bytes, sizeof bytes);
        }
    }

    /* Some frames alike: the pattern, or a datagram, with any bytes in place of some of its first. */
    void frames(fuzz::Bytes &in, unsigned board)
    {
        static Pattern frame;
        const uint8_t how = in.u8();
        if ((how & 1) != 0)
            std::copy(std::begin(kDatagram), std::end(kDatagram), frame.bytes);
        const size_t from = how >> 2;
        const auto any = in.stretch(std::min<size_t>(in.u8(), kHeader - from));
        std::copy(any.begin(), any.end(), frame.bytes + from);
        const size_t length = in.u16();
        for (unsigned n = 1 + in.u8() % 16; n != 0 && wire_bytes < kWireBytes; n--) {
            softnic_inject(nic, board, frame.bytes, length);
            wire_bytes += length;
        }
        memcpy(frame.bytes, g_pattern.bytes, kHeader);
    }

    struct Consumer {
        softnic_regions_t r;
        oxel_flow_window_t *flow;
        uint64_t *doorbell;
    };
    bool consumer(unsigned board, unsigned endpoint, Consumer *c)
    {
        if (softnic_regions(nic, board, endpoint, &c->r) != 0)
            return false;
        c->flow = &reinterpret_cast<oxel_endpt_flow_t *>(c->r.flow)->rx_flow;
        c->doorbell = reinterpret_cast<uint64_t *>(c->r.sram + NUV_DOORBELL_OFFSET);
        return true;
    }

    /* Events as an application takes them, from where its flow window says. */
    void consume(unsigned board, unsigned endpoint, unsigned events, bool ring_always)
    {
        Consumer c;
        if (!consumer(board, endpoint, &c))
            return;
        const bool proper = !hostile[board][endpoint];
        for (; events != 0; events--) {
            FUZZ_REQUIRE(!proper ||
                         (c.flow->flow_data_off < c.r.recvq_len && c.flow->flow_data_off % NUV_UEVT_SLOT == 0));
            const size_t at = c.flow->flow_data_off % c.r.recvq_len / NUV_UEVT_SLOT * NUV_UEVT_SLOT;
            nuv_uevt_ruk_t event;
            memcpy(&event, c.r.recvq + at, sizeof event);
            if (event.pkt_cnt == 0)
                return;
            const size_t length = tov_be16(event.batch_len);
            if (proper)
                FUZZ_REQUIRE(length != 0 && length % NUV_UEVT_SLOT == 0 && length <= c.r.recvq_len);
            if (c.r.recvq[(at + length - 1) % c.r.recvq_len] != 0)
                return; /* not whole yet */
            if (proper)
                check_event(board, c, at, event, length);
            for (size_t slot = 0; slot < length; slot += NUV_UEVT_SLOT) {
                uint8_t *freed = c.r.recvq + (at + slot) % c.r.recvq_len;
                freed[NUV_UEVT_PRESENT] = 0;
                freed[NUV_UEVT_COMPLETE] = NUV_UEVT_FREE_BYTE;
            }
            c.flow->flow_data_off = (at + length) % c.r.recvq_len;
            c.flow->flow_desc++;
            c.flow->flow_data++;
            if (ring_always || c.flow->flow_desc % 16 == 1)
                *c.doorbell = tov_be64(uint64_t{c.flow->flow_desc} << 32 | c.flow->flow_data);
        }
    }

    static void check_event(unsigned board, const Consumer &c, size_t at, const nuv_uevt_ruk_t &event, size_t length)
    {
        FUZZ_REQUIRE(event.pkt_cnt <= NUV_UEVT_MAX_PKTS && event.offset == sizeof event);
        size_t used = event.offset;
        for (unsigned i = 0; i < event.pkt_cnt; i++) {
            const size_t counted = tov_be16(event.pkts[i].length);
            const size_t frame = board == kTold ? counted : counted - NUV_UEVT_FCS_LEN;
            FUZZ_REQUIRE(frame >= 14 && frame <= counted);
            const size_t begin = at + used + NUV_UEVT_FRAME_OFFSET;
            used += nuv_uevt_pkt_space(static_cast<uint32_t>(counted));
            FUZZ_REQUIRE(used <= length);
            for (size_t byte = kHeader; byte < frame;) {
                const size_t from = (begin + byte) % c.r.recvq_len;
                const size_t n = std::min(frame - byte, c.r.recvq_len - from);
                FUZZ_REQUIRE(memcmp(c.r.recvq + from, g_pattern.bytes + byte, n) == 0);
                byte += n;
            }
        }
        FUZZ_REQUIRE((used + NUV_UEVT_SLOT - 1) / NUV_UEVT_SLOT * NUV_UEVT_SLOT == length);
    }

    /* The position that the adapter is told, near the true one or anywhere. */
    void mislead(fuzz::Bytes &in, unsigned board, uint8_t how)
    {
        Consumer c;
        const unsigned endpoint = how % 2;
        if (!consumer(board, endpoint, &c))
            return;
        hostile[board][endpoint] = true;
        const auto near = static_cast<uint32_t>(static_cast<int8_t>(in.u8()));
        switch (how >> 1 & 3) {
        case 0:
            c.flow->flow_desc += near;
            break;
        case 1:
            *c.doorbell = tov_be64(uint64_t{c.flow->flow_desc + near} << 32);
            break;
        case 2:
            in.fill(c.flow, sizeof *c.flow);
            break;
        default:
            in.fill(c.doorbell, sizeof *c.doorbell);
        }
    }

    /* A part of the firmware's work, in the order that it happens to be done. */
    void firmware(unsigned board, uint8_t how)
    {
        const unsigned endpoint = how % 2, n = how >> 4;
        switch (how >> 1 & 7) {
        case 0:
        case 1:
            for (unsigned units = n + 1; units != 0 && softnic_step(nic, board) != 0; units--)
                continue;
            break;
        case 2:
            softnic_take_requests(nic, board, endpoint, n + 1);
            break;
        case 3:
            softnic_complete_requests(nic, board, endpoint, n + 1);
            break;
        case 4:
            softnic_hold_events(nic, board, endpoint, n % 2);
            break;
        case 5:
            softnic_set_max_packets(nic, board, n);
            break;
        case 6:
            softnic_fail_sends(nic, board, n % 2 != 0 ? ENOBUFS : EMSGSIZE, static_cast<int>(n / 2) - 1);
            break;
        default:
            softnic_fail_steering(nic, board, n % 2 != 0 ? EPERM : 0);
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static std::unique_ptr<Application> made;
    if (!made || softnic_now(made->nic) > kEnd) {
        made.reset(); /* the device files are one adapter's at a time */
        made = std::make_unique<Application>();
    }
    Application &app = *made;
    fuzz::Bytes in(data, size);
    app.begin();
    for (unsigned steps = 0; !in.empty() && steps < kSteps; steps++) {
        const uint8_t choice = in.u8();
        int &fd = app.fds[(choice >> 4) % handles];
        const unsigned board = (choice >> 6) % boards;
        switch (choice % 16) {
        case 0:
            app.open_device(fd, board);
            break;
        case 1:
            if (fd >= 0 && choice >= 0x80) { /* as with the system call itself */
                g_descriptors.close(fd);
                app.forgotten.push_back(fd);
            } else if (fd >= 0) {
                close(fd);
            }
            fd = -1;
            break;
        case 2:
            app.set_up(fd, board, in.u16());
            break;
        case 3:
        case 4:
            app.command(in, fd, choice == 0xf3 ? app.often(70) : 1); /* more raw sends than may be outstanding */
            break;
        case 5:
            if (fd >= 0)
                app.map(in, fd);
            break;
        case 6:
            app.scribble(in, board, in.u8() % 2);
            break;
        case 7:
            app.request(in, board);
            break;
        case 8:
            app.frames(in, board);
            break;
        case 9:
            softnic_advance(app.nic, in.u32());
            break;
        case 10:
        case 11: {
            const uint8_t how = in.u8();
            app.consume(board, how % 2, 1 + (how >> 1) % 16, how >= 0x80);
            break;
        }
        case 12:
            app.mislead(in, board, in.u8());
            break;
        case 13:
            app.firmware(board, in.u8());
            break;
        default:
            softnic_run(app.nic);
            break;
        }
        if (steps % 8 == 7)
            app.take_sent(16);
    }
    app.leave();
    app.check();
    return 0;
}
