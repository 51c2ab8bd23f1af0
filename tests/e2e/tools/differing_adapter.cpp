/*
 * Preloaded before the software adapter, between a program and the adapter's driver: an adapter that differs from what
 * is taken for granted in the one way that DIFFERS names.
 */

// Both widths of file offset are defined here under their own names.
#undef _FILE_OFFSET_BITS

#include "nuv_events.h"
#include "nuv_types.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <poll.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool differs(const char *how)
{
    const char *set = getenv("DIFFERS");
    return set != nullptr && strcmp(set, how) == 0;
}

template <typename Function> Function *next(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

bool is_group(uint32_t ip) { return ip >> 28 == 0xe; }

/* The descriptor of the endpoint, where its event ring and flow windows lie in the file, and their mappings. */
int endpoint_fd = -1;
kz_get_copyblock_t regions;
uint8_t *ring;
const oxel_endpt_flow_t *flow;

/* The request that the program sent last is one that has datagrams sent. */
bool awaits_datagrams = false;

/* An event of the ring, once it is there and complete. */
struct Event {
    volatile nuv_uevt_ruk_t *start = nullptr;
    volatile uint8_t *last = nullptr;
};

Event await_event(uint64_t at)
{
    auto *event = reinterpret_cast<volatile nuv_uevt_ruk_t *>(ring + at % regions.recvq_len);
    for (int i = 0; i < 2000 && event->pkt_cnt == 0; i++)
        usleep(1000);
    if (event->pkt_cnt == 0)
        return {};
    volatile uint8_t *last = ring + (at + __builtin_bswap16(event->batch_len) - 1) % regions.recvq_len;
    for (int i = 0; i < 2000 && *last != 0; i++)
        usleep(1000);
    return *last == 0 ? Event{event, last} : Event{};
}

void spoil(const Event &event, std::string_view how)
{
    if (how == "an event of six packets")
        event.start->pkt_cnt = NUV_UEVT_MAX_PKTS + 1;
    if (how == "an event is never completed")
        *event.last = NUV_UEVT_FREE_BYTE;
    if (how == "an event of no length")
        event.start->batch_len = 0;
    if (how == "an event of 100 bytes")
        event.start->batch_len = __builtin_bswap16(100);
}

/* Changes the first event, or the second. The program, which has just been told that datagrams come, has not looked. */
void spoil_an_event()
{
    static bool done = false;
    const char *set = getenv("DIFFERS");
    if (done || set == nullptr || !awaits_datagrams || ring == nullptr || flow == nullptr)
        return;
    std::string_view how = set;
    const auto begins = [&how](std::string_view with) {
        const bool does = how.starts_with(with);
        if (does)
            how.remove_prefix(with.size());
        return does;
    };
    const bool behind_dropped = begins("behind a dropped frame, "), second = behind_dropped || begins("second, ");
    if (!how.starts_with("an event "))
        return;
    Event event = await_event(flow->rx_flow.flow_data_off);
    if (event.start == nullptr)
        return;
    if (behind_dropped)
        for (uint8_t i = 0; i < event.start->pkt_cnt; i++)
            event.start->pkts[i].tag = __builtin_bswap16(0xfff0); /* no channel has it */
    if (second)
        event = await_event(flow->rx_flow.flow_data_off + __builtin_bswap16(event.start->batch_len));
    done = event.start != nullptr;
    if (done)
        spoil(event, how);
}

void note_mapping(int fd, uint64_t offset, void *at)
{
    if (fd != endpoint_fd || fd < 0 || at == MAP_FAILED)
        return;
    if (offset == regions.recvq_offset)
        ring = static_cast<uint8_t *>(at);
    if (offset == regions.flow_window_offset)
        flow = static_cast<const oxel_endpt_flow_t *>(at);
}

} // namespace

extern "C" {

int ioctl(int fd, unsigned long command, ...) noexcept
{
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    static auto *const real = next(static_cast<int (*)(int, unsigned long, ...)>(nullptr), "ioctl");
    switch (command) {
    case OXEL_RX_FILTER: {
        oxel_rx_filter_t filter = *static_cast<oxel_rx_filter_t *>(argument);
        if ((differs("groups are not taken") && is_group(filter.ip_addr) && filter.remove == 0) ||
            (differs("broadcasts are not taken") && filter.ip_addr == 0xffffffff && filter.remove == 0))
            return 0;
        /* What was not installed cannot be removed, what is kept is not. */
        if (filter.remove != 0 && ((differs("groups are not taken") && is_group(filter.ip_addr)) ||
                                   (differs("broadcasts are not taken") && filter.ip_addr == 0xffffffff) ||
                                   (differs("groups are kept") && is_group(filter.ip_addr))))
            return 0;
        if (differs("VLANs are not told apart"))
            filter.vlan = 0;
        return real(fd, command, &filter);
    }
    case OXEL_ARP_RESOLVE:
        if (differs("next hops are not asked for"))
            return 0;
        break;
    case OXEL_SET_ENDPT: {
        static const pid_t first = getpid();
        if (differs("one endpoint only") && getpid() != first) {
            errno = EBUSY;
            return -1;
        }
        break;
    }
    default:
        break;
    }

    const int rc = real(fd, command, argument);
    if (rc != 0)
        return rc;
    switch (command) {
    case OXEL_GET_MAX_ENDPTS:
        if (differs("one endpoint too many"))
            ++*static_cast<uint32_t *>(argument);
        break;
    case OXEL_GET_NIC_TICKS:
        if (differs("clock too fast")) {
            auto *ticks = static_cast<oxel_get_nic_ticks_t *>(argument);
            static uint64_t first = ticks->nic_ticks;
            ticks->nic_ticks += (ticks->nic_ticks - first) / 100;
        }
        break;
    case OXEL_GET_COPYBLOCK:
        if (static pid_t process; endpoint_fd < 0 || process != getpid()) {
            process = getpid();
            endpoint_fd = fd;
            regions = *static_cast<kz_get_copyblock_t *>(argument);
        }
        break;
    default:
        break;
    }
    return rc;
}

void *mmap(void *at, size_t len, int prot, int flags, int fd, off_t offset) noexcept
{
    static auto *const real = next(static_cast<void *(*)(void *, size_t, int, int, int, off_t)>(nullptr), "mmap");
    void *mapped = real(at, len, prot, flags, fd, offset);
    note_mapping(fd, static_cast<uint64_t>(offset), mapped);
    return mapped;
}

void *mmap64(void *at, size_t len, int prot, int flags, int fd, off64_t offset) noexcept
{
    static auto *const real = next(static_cast<void *(*)(void *, size_t, int, int, int, off64_t)>(nullptr), "mmap64");
    void *mapped = real(at, len, prot, flags, fd, offset);
    note_mapping(fd, static_cast<uint64_t>(offset), mapped);
    return mapped;
}

int poll(pollfd *fds, nfds_t count, int timeout)
{
    static auto *const real = next(static_cast<int (*)(pollfd *, nfds_t, int)>(nullptr), "poll");
    if (count == 1 && fds[0].fd == endpoint_fd && endpoint_fd >= 0 && differs("the descriptor stays unreadable")) {
        fds[0].revents = 0;
        usleep(static_cast<useconds_t>(timeout) * 1000);
        return 0;
    }
    const int ready = real(fds, count, timeout);
    static bool done = false;
    if (!done && ready == 1 && count == 1 && fds[0].fd == endpoint_fd && ring != nullptr && flow != nullptr &&
        differs("an event that wakes a sleeper is never completed")) {
        const Event event = await_event(flow->rx_flow.flow_data_off);
        done = event.start != nullptr;
        if (done)
            spoil(event, "an event is never completed");
    }
    return ready;
}

ssize_t sendto(int fd, const void *data, size_t len, int flags, const sockaddr *to, socklen_t to_len)
{
    static auto *const real =
        next(static_cast<ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t)>(nullptr), "sendto");
    awaits_datagrams = len > 5 && memcmp(data, "send ", 5) == 0;
    return real(fd, data, len, flags, to, to_len);
}

ssize_t recv(int fd, void *data, size_t len, int flags)
{
    static auto *const real = next(static_cast<ssize_t (*)(int, void *, size_t, int)>(nullptr), "recv");
    const ssize_t got = real(fd, data, len, flags);
    if (got > 0)
        spoil_an_event();
    return got;
}

/* A host that refuses what a channel asks of its kernel socket. */
int setsockopt(int fd, int level, int option, const void *value, socklen_t length) noexcept
{
    static auto *const real = next(static_cast<int (*)(int, int, int, const void *, socklen_t)>(nullptr), "setsockopt");
    if (level == SOL_SOCKET && option == SO_BROADCAST && differs("sockets refuse broadcasts")) {
        errno = EPERM;
        return -1;
    }
    return real(fd, level, option, value, length);
}

/* A board without an account: the adapter works as well without the memory for it. */
long syscall(long number, ...) noexcept
{
    long a[6];
    va_list rest;
    va_start(rest, number);
    for (long &value : a)
        value = va_arg(rest, long);
    va_end(rest);
    if (number == SYS_memfd_create && differs("no account") &&
        strcmp(reinterpret_cast<const char *>(a[0]), "softnic-ledger") == 0) {
        errno = EMFILE;
        return -1;
    }
    static auto *const real = next(static_cast<long (*)(long, ...)>(nullptr), "syscall");
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

} // extern "C"
