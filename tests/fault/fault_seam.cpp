#include "fault_seam.h"
#include "nuv_types.h"

#include <algorithm>
#include <cstring>
#include <errno.h>
#include <iterator>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace fault {

using test_support::libc_hooks;

namespace {

std::string ioctl_label(unsigned long request)
{
    static const std::map<unsigned long, std::string> names = {
        {OXEL_GET_VERSION, "GET_VERSION"},
        {OXEL_GET_BOARD_CNT, "GET_BOARD_CNT"},
        {OXEL_GET_NIC_TYPE, "GET_NIC_TYPE"},
        {OXEL_GET_NIC_ID, "GET_NIC_ID"},
        {OXEL_GET_NIC_TICKS, "GET_NIC_TICKS"},
        {OXEL_GET_MAX_ENDPTS, "GET_MAX_ENDPTS"},
        {OXEL_ARP_RESOLVE, "ARP_RESOLVE"},
        {OXEL_GET_CURR_NIC_ID, "GET_CURR_NIC_ID"},
        {OXEL_RAW_SEND, "RAW_SEND"},
        {OXEL_RAW_NEXT_EVENT, "RAW_NEXT_EVENT"},
        {OXEL_WAIT_SEND_COMPLETION, "WAIT_SEND_COMPLETION"},
        {OXEL_GET_RUK_PARAMS, "GET_RUK_PARAMS"},
        {OXEL_SET_RUK_PARAMS, "SET_RUK_PARAMS"},
        {OXEL_SET_FILTER_MODE, "SET_FILTER_MODE"},
        {OXEL_ATTACH_SOFT, "ATTACH_SOFT"},
        {OXEL_POST_SOFT_DATA, "POST_SOFT_DATA"},
        {OXEL_GET_COPYBLOCK, "GET_COPYBLOCK"},
        {OXEL_GET_SREQS_CNT, "GET_SREQS_CNT"},
        {OXEL_GET_LINK_STATE, "GET_LINK_STATE"},
        {OXEL_RAW_OPEN, "RAW_OPEN"},
        {OXEL_SET_ENDPT, "SET_ENDPT"},
        {OXEL_ENABLE_ENDPT, "ENABLE_ENDPT"},
        {OXEL_RX_FILTER, "RX_FILTER"},
        {SIOCGIFHWADDR, "SIOCGIFHWADDR"},
        {SIOCGIFCONF, "SIOCGIFCONF"},
        {SIOCGIFADDR, "SIOCGIFADDR"},
        {SIOCGARP, "SIOCGARP"},
    };
    auto it = names.find(request);
    return "ioctl " + (it != names.end() ? it->second : std::to_string(request));
}

std::string option_label(int level, int name)
{
    static const std::map<std::pair<int, int>, std::string> names = {
        {{SOL_SOCKET, SO_REUSEADDR}, "SO_REUSEADDR"},
        {{SOL_SOCKET, SO_REUSEPORT}, "SO_REUSEPORT"},
        {{SOL_SOCKET, SO_BROADCAST}, "SO_BROADCAST"},
        {{IPPROTO_IP, IP_ADD_MEMBERSHIP}, "IP_ADD_MEMBERSHIP"},
        {{IPPROTO_IP, IP_DROP_MEMBERSHIP}, "IP_DROP_MEMBERSHIP"},
        {{IPPROTO_IP, IP_ADD_SOURCE_MEMBERSHIP}, "IP_ADD_SOURCE_MEMBERSHIP"},
        {{IPPROTO_IP, IP_DROP_SOURCE_MEMBERSHIP}, "IP_DROP_SOURCE_MEMBERSHIP"},
        {{IPPROTO_IP, IP_BLOCK_SOURCE}, "IP_BLOCK_SOURCE"},
        {{IPPROTO_IP, IP_UNBLOCK_SOURCE}, "IP_UNBLOCK_SOURCE"},
    };
    auto it = names.find({level, name});
    return "setsockopt " + (it != names.end() ? it->second : std::to_string(level) + " " + std::to_string(name));
}

bool starts(const std::string &text, const char *with) { return text.rfind(with, 0) == 0; }

} // namespace

const std::vector<int> &errors_of(const Call &call)
{
    static const std::map<std::string, std::vector<int>> by_kind = {
        {"open", {EMFILE, ENOENT, EACCES, EPERM, ENODEV, ENXIO, ENOMEM, EBUSY}},
        {"fopen", {EMFILE, ENOENT, EACCES, ENOMEM}},
        {"read", {EIO, EINTR, ENOMEM}},
        {"close", {EIO, EINTR}},
        {"mmap", {ENOMEM, EAGAIN, EPERM, EINVAL}},
        {"munmap", {ENOMEM}},
        {"memory", {ENOMEM}},
        {"getifaddrs", {ENOMEM, EMFILE, ENXIO, ENOBUFS}},
        {"poll", {EINTR, ENOMEM}},
        {"usleep", {EINTR}},
        {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EACCES}},
        {"bind", {EADDRINUSE, EACCES, EADDRNOTAVAIL, ENOMEM}},
        {"getsockname", {ENOBUFS}},
        {"sendto", {ENETUNREACH, EHOSTUNREACH, ENOBUFS, EPERM, EAGAIN}},
        {"select", {EINTR, EBADF, ENOMEM}},
    };
    static const std::vector<int> device = {EIO,    EINVAL, EBUSY, ENODEV, ENOMEM, ENOTTY, EPERM,
                                            EAGAIN, EINTR,  ENXIO, ENOSPC, ENOENT, EFAULT};
    static const std::vector<int> waiting = [] { /* a signal is what ends it */
                                                 std::vector<int> errors = {EINTR};
                                                 std::copy_if(device.begin(), device.end(), std::back_inserter(errors),
                                                              [](int e) { return e != EINTR; });
                                                 return errors;
    }();
    static const std::vector<int> host = {ENODEV, EINVAL, ENXIO, ENOMEM, EPERM};
    static const std::vector<int> membership = {ENOBUFS, ENODEV, EADDRINUSE, ENOMEM};
    static const std::vector<int> no_member = {EADDRNOTAVAIL, ENODEV};
    static const std::vector<int> option = {ENOMEM, EPERM, ENOPROTOOPT};
    auto it = by_kind.find(call.kind);
    if (it != by_kind.end())
        return it->second;
    if (starts(call.label, "ioctl SIOC"))
        return host;
    if (call.label == "ioctl WAIT_SEND_COMPLETION" || call.label == "ioctl RAW_NEXT_EVENT")
        return waiting;
    if (starts(call.label, "ioctl"))
        return device;
    if (starts(call.label, "setsockopt IP_DROP"))
        return no_member;
    return starts(call.label, "setsockopt IP_") ? membership : option;
}

/* ------------------------------------------------------------------ counting and failing */

Seam::Seam() : below_(libc_hooks())
{
    take_libc();
    take_table();
}

void Seam::arm(const Plan &plan)
{
    plan_ = plan;
    failed_ = 0;
    calls_.clear();
    armed_ = true;
}

std::vector<Call> Seam::disarm()
{
    armed_ = false;
    return calls_;
}

bool Seam::fails(const std::string &label, const std::string &kind)
{
    if (!armed_ || !watching())
        return false;
    const unsigned number = static_cast<unsigned>(calls_.size()) + 1;
    calls_.push_back({label, kind});
    if (plan_.from == 0 || number < plan_.from)
        return false;
    int error = plan_.error;
    if (number > plan_.from) {
        const bool same = kind == calls_[plan_.from - 1].kind;
        if (plan_.then == Plan::once || (plan_.then == Plan::its_kind && !same))
            return false;
        if (!same)
            error = errors_of(calls_.back()).front();
    }
    calls_.back().failed = true;
    failed_++;
    errno = error;
    return true;
}

template <typename R, typename F>
R Seam::call(const std::string &label, const std::string &kind, R refusal, F &&real, bool done_all_the_same)
{
    const bool failing = fails(label, kind);
    const int error = errno;
    if (failing && !done_all_the_same)
        return refusal;
    R result;
    {
        const Scope scope(inside_, 1);
        result = real();
    }
    if (!failing)
        return result;
    errno = error;
    return refusal;
}

void Seam::take_libc()
{
    namespace real = test_support::real;
    test_support::LibcHooks &hooks = libc_hooks();
    hooks.open = [this](const char *path, int flags) {
        return call(std::string("open ") + path, "open", -1,
                    [&] { return below_.open ? below_.open(path, flags) : real::open(path, flags, 0666); });
    };
    /* The number is free again whatever close() says, and unmapped is what was to be. */
    hooks.close = [this](int fd) {
        note_closed(fd);
        return call(
            "close", "close", -1, [&] { return below_.close ? below_.close(fd) : real::close(fd); }, true);
    };
    hooks.munmap = [this](void *start, size_t length) {
        /* The library unmaps some regions again after a failure. A sanitizer may have mapped memory there since. */
        const bool again = length != 0 && unmapped_.count(start) != 0;
        if (watching() && mappings_.erase(start) != 0)
            unmapped_.insert(start);
        return call(
            "munmap", "munmap", -1,
            [&] {
                if (again)
                    return 0; /* as the kernel says of what is not mapped */
                return below_.munmap ? below_.munmap(start, length) : real::munmap(start, length);
            },
            true);
    };
    hooks.mmap = [this](void *start, size_t length, int prot, int flags, int fd, off_t offset) {
        void *at = call("mmap", "mmap", MAP_FAILED, [&] {
            return below_.mmap ? below_.mmap(start, length, prot, flags, fd, offset)
                               : real::mmap(start, length, prot, flags, fd, offset);
        });
        if (watching() && at != MAP_FAILED)
            mappings_[at] = length;
        unmapped_.erase(at);
        return at;
    };
    hooks.fopen = [this](const char *path, const char *mode) {
        FILE *file = call(std::string("fopen ") + path, "fopen", static_cast<FILE *>(nullptr),
                          [&] { return below_.fopen ? below_.fopen(path, mode) : real::fopen(path, mode); });
        return file && watching() ? stream(file, path) : file;
    };
    hooks.ioctl = [this](int fd, unsigned long request, void *arg) {
        const int result = call(ioctl_label(request), ioctl_label(request), -1, [&] {
            return below_.ioctl ? below_.ioctl(fd, request, arg) : real::ioctl(fd, request, arg);
        });
        note_filter(fd, request, arg, result);
        return result;
    };
    hooks.getifaddrs = [this](struct ifaddrs **list) {
        return call("getifaddrs", "getifaddrs", -1,
                    [&] { return below_.getifaddrs ? below_.getifaddrs(list) : real::getifaddrs(list); });
    };
    hooks.poll = [this](struct pollfd *fds, nfds_t n, int timeout_ms) {
        return call("poll", "poll", -1,
                    [&] { return below_.poll ? below_.poll(fds, n, timeout_ms) : real::poll(fds, n, timeout_ms); });
    };
    hooks.usleep = [this](useconds_t usecs) {
        return call("usleep", "usleep", -1, [&] { return below_.usleep ? below_.usleep(usecs) : real::usleep(usecs); });
    };
}

void Seam::take_table()
{
    table_.socket = [this](int af, int type, int protocol) {
        return call("socket", "socket", -1, [&] { return table_.next_socket(af, type, protocol); });
    };
    table_.bind = [this](int fd, const struct sockaddr *addr, socklen_t len) {
        return call("bind", "bind", -1, [&] { return table_.next_bind(fd, addr, len); });
    };
    table_.sendto = [this](int fd, const void *buf, size_t n, int flags, const struct sockaddr *to, socklen_t len) {
        return call("sendto", "sendto", static_cast<ssize_t>(-1),
                    [&] { return table_.next_sendto(fd, buf, n, flags, to, len); });
    };
    table_.close = [this](int fd) {
        note_closed(fd);
        return call(
            "close", "close", -1, [&] { return table_.next_close(fd); }, true);
    };
    table_.getsockname = [this](int fd, struct sockaddr *addr, socklen_t *len) {
        return call("getsockname", "getsockname", -1, [&] { return table_.next_getsockname(fd, addr, len); });
    };
    table_.setsockopt = [this](int fd, int level, int name, const void *val, socklen_t len) {
        /* A membership that cannot be dropped is none: the socket, or its interface, has lost it. */
        const bool drop = level == IPPROTO_IP && (name == IP_DROP_MEMBERSHIP || name == IP_DROP_SOURCE_MEMBERSHIP);
        const std::string label = option_label(level, name);
        return call(
            label, label, -1, [&] { return table_.next_setsockopt(fd, level, name, val, len); }, drop);
    };
    table_.select = [this](int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *t) {
        return call("select", "select", -1, [&] { return table_.next_select(n, r, w, e, t); });
    };
    table_.ioctl = [this](int fd, unsigned long request, void *arg) {
        const int result =
            call(ioctl_label(request), ioctl_label(request), -1, [&] { return table_.next_ioctl(fd, request, arg); });
        note_filter(fd, request, arg, result);
        return result;
    };
}

/* ------------------------------------------------------------------ filters */

void Seam::note_filter(int fd, unsigned long request, const void *arg, int result)
{
    if (!watching() || request != OXEL_RX_FILTER)
        return;
    oxel_rx_filter_t filter;
    memcpy(&filter, arg, sizeof filter);
    const bool remove = filter.remove != 0;
    filter.remove = filter.kernel = 0; /* no part of what it is */
    const std::pair<int, std::string> it = {fd, {reinterpret_cast<const char *>(&filter), sizeof filter}};
    if (result != 0) {
        if (remove && filters_.contains(it))
            kept_.insert(it);
        return;
    }
    kept_.erase(it);
    if (remove)
        filters_.erase(it);
    else
        filters_.insert(it);
}

/* Its filters go with a device file. */
void Seam::note_closed(int fd)
{
    if (!watching())
        return;
    for (auto *filters : {&filters_, &kept_})
        std::erase_if(*filters, [fd](const auto &filter) { return filter.first == fd; });
}

/* ------------------------------------------------------------------ what is read of a file */

/* A stream over another, each of whose reads, and whose end, is a call of the library's. */
FILE *Seam::stream(FILE *file, const std::string &path)
{
    struct Cookie {
        Seam *seam;
        FILE *file;
        std::string path;
    };
    cookie_io_functions_t functions = {};
    functions.read = [](void *cookie, char *to, size_t n) -> ssize_t {
        auto *c = static_cast<Cookie *>(cookie);
        return c->seam->call("read " + c->path, "read", static_cast<ssize_t>(-1),
                             [&] { return ::read(fileno(c->file), to, n); });
    };
    functions.close = [](void *cookie) {
        auto *c = static_cast<Cookie *>(cookie);
        const int rc = c->seam->call(
            "close", "close", -1, [&] { return fclose(c->file); }, true);
        delete c;
        return rc;
    };
    return fopencookie(new Cookie{this, file, path}, "r", functions);
}

/* ------------------------------------------------------------------ memory */

bool Seam::refuses() { return fails("memory", "memory"); }

void Seam::taken(void *block, size_t size)
{
    if (watching())
        blocks_[block] = size;
}

void Seam::given_back(void *block) { blocks_.erase(block); }

} // namespace fault
