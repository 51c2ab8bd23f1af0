#include "socket_seam.h"
#include "tov.h"

#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>

namespace test_support {

namespace {
SocketTable *top; /* the table made last */

std::vector<unsigned char> bytes(const void *p, size_t n)
{
    const unsigned char *b = static_cast<const unsigned char *>(p);
    return b ? std::vector<unsigned char>(b, b + n) : std::vector<unsigned char>();
}
} // namespace

/* What stands in the slots: plain functions that ask the table made last. */
struct Trampolines {
    static int socket(int af, int type, int protocol) { return top->do_socket(af, type, protocol); }
    static int bind(int fd, const struct sockaddr *a, socklen_t n) { return top->do_bind(fd, a, n); }
    static int connect(int fd, const struct sockaddr *a, socklen_t n) { return top->do_connect(fd, a, n); }
    static ssize_t sendto(int fd, const void *b, size_t n, int f, const struct sockaddr *to, socklen_t len)
    {
        return top->do_sendto(fd, b, n, f, to, len);
    }
    static int close(int fd) { return top->do_close(fd); }
    static int getsockname(int fd, struct sockaddr *a, socklen_t *n) { return top->do_getsockname(fd, a, n); }
    static int setsockopt(int fd, int level, int name, const void *v, socklen_t n)
    {
        return top->do_setsockopt(fd, level, name, v, n);
    }
    static int getsockopt(int fd, int level, int name, void *v, socklen_t *n)
    {
        return top->do_getsockopt(fd, level, name, v, n);
    }
    static int select(int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *t)
    {
        return top->do_select(n, r, w, e, t);
    }
    static int ioctl(int fd, unsigned long request, ...)
    {
        va_list args;
        va_start(args, request);
        void *arg = va_arg(args, void *);
        va_end(args);
        return top->do_ioctl(fd, request, arg);
    }
};

SocketTable::SocketTable() : next_(top)
{
    tov_init();
    saved_ = _tov_fops;
    top = this;
    _tov_fops.socket = Trampolines::socket;
    _tov_fops.bind = Trampolines::bind;
    _tov_fops.connect = Trampolines::connect;
    _tov_fops.sendto = Trampolines::sendto;
    _tov_fops.close = Trampolines::close;
    _tov_fops.getsockname = Trampolines::getsockname;
    _tov_fops.setsockopt = Trampolines::setsockopt;
    _tov_fops.getsockopt = Trampolines::getsockopt;
    _tov_fops.select = Trampolines::select;
    _tov_fops.ioctl = Trampolines::ioctl;
}

SocketTable::~SocketTable()
{
    if (top != this)
        abort(); /* tables go in the reverse order of their making */
    top = next_;
    _tov_fops = saved_;
}

void SocketTable::fail(Slot slot, unsigned nth, int error, unsigned howmany)
{
    std::lock_guard<std::mutex> lock(mutex_);
    faults_[slot] = Fault{nth - 1, howmany, error};
}

void SocketTable::fail_ioctl(unsigned long request, unsigned nth, int error, unsigned howmany)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ioctl_faults_[request] = Fault{nth - 1, howmany, error};
}

std::vector<SocketCall> SocketTable::log() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return log_;
}

unsigned SocketTable::count(Slot slot) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    unsigned n = 0;
    for (const SocketCall &call : log_)
        n += call.slot == slot;
    return n;
}

unsigned SocketTable::count_ioctl(unsigned long request) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    unsigned n = 0;
    for (const SocketCall &call : log_)
        n += call.slot == Slot::ioctl && call.request == request;
    return n;
}

std::vector<unsigned long> SocketTable::ioctl_requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<unsigned long> requests;
    for (const SocketCall &call : log_)
        if (call.slot == Slot::ioctl)
            requests.push_back(call.request);
    return requests;
}

void SocketTable::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    log_.clear();
}

/* The errno that this call is to fail with, 0 when it is not. */
int SocketTable::take_fault(const SocketCall &record)
{
    auto take = [](auto &faults, auto key) {
        auto found = faults.find(key);
        if (found == faults.end())
            return 0;
        Fault &fault = found->second;
        if (fault.skip > 0) {
            fault.skip--;
            return 0;
        }
        int error = fault.error;
        if (--fault.left == 0)
            faults.erase(found);
        return error;
    };

    std::lock_guard<std::mutex> lock(mutex_);
    if (record.slot == Slot::ioctl)
        if (int error = take(ioctl_faults_, record.request))
            return error;
    return take(faults_, record.slot);
}

template <typename Result, typename Call> Result SocketTable::run(SocketCall record, Call &&call)
{
    Result result;
    if (int error = take_fault(record)) {
        errno = error;
        result = -1;
    } else {
        result = call();
    }
    int error = errno;
    record.result = static_cast<int>(result);
    record.error = result == -1 ? error : 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        log_.push_back(std::move(record));
    }
    errno = error;
    return result;
}

int SocketTable::do_socket(int af, int type, int protocol)
{
    SocketCall record{Slot::socket};
    record.level = af;
    record.name = type;
    return run<int>(record, [&] { return socket ? socket(af, type, protocol) : next_socket(af, type, protocol); });
}

int SocketTable::do_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    SocketCall record{Slot::bind, fd};
    record.to = bytes(addr, len);
    return run<int>(record, [&] { return bind ? bind(fd, addr, len) : next_bind(fd, addr, len); });
}

int SocketTable::do_connect(int fd, const struct sockaddr *addr, socklen_t len)
{
    SocketCall record{Slot::connect, fd};
    record.to = bytes(addr, len);
    return run<int>(record, [&] { return connect ? connect(fd, addr, len) : next_connect(fd, addr, len); });
}

ssize_t SocketTable::do_sendto(int fd, const void *buf, size_t n, int flags, const struct sockaddr *to, socklen_t len)
{
    SocketCall record{Slot::sendto, fd};
    record.in = bytes(buf, n);
    record.to = bytes(to, len);
    return run<ssize_t>(
        record, [&] { return sendto ? sendto(fd, buf, n, flags, to, len) : next_sendto(fd, buf, n, flags, to, len); });
}

int SocketTable::do_close(int fd)
{
    return run<int>({Slot::close, fd}, [&] { return close ? close(fd) : next_close(fd); });
}

int SocketTable::do_getsockname(int fd, struct sockaddr *addr, socklen_t *len)
{
    return run<int>({Slot::getsockname, fd},
                    [&] { return getsockname ? getsockname(fd, addr, len) : next_getsockname(fd, addr, len); });
}

int SocketTable::do_setsockopt(int fd, int level, int name, const void *val, socklen_t len)
{
    SocketCall record{Slot::setsockopt, fd};
    record.level = level;
    record.name = name;
    record.in = bytes(val, len);
    return run<int>(record, [&] {
        return setsockopt ? setsockopt(fd, level, name, val, len) : next_setsockopt(fd, level, name, val, len);
    });
}

int SocketTable::do_getsockopt(int fd, int level, int name, void *val, socklen_t *len)
{
    SocketCall record{Slot::getsockopt, fd};
    record.level = level;
    record.name = name;
    return run<int>(record, [&] {
        return getsockopt ? getsockopt(fd, level, name, val, len) : next_getsockopt(fd, level, name, val, len);
    });
}

int SocketTable::do_select(int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *t)
{
    return run<int>({Slot::select}, [&] { return select ? select(n, r, w, e, t) : next_select(n, r, w, e, t); });
}

int SocketTable::do_ioctl(int fd, unsigned long request, void *arg)
{
    SocketCall record{Slot::ioctl, fd};
    record.request = request;
    return run<int>(record, [&] {
        if (ioctl)
            return ioctl(fd, request, arg);
        auto hook = on_ioctl.find(request);
        if (hook != on_ioctl.end())
            return hook->second(fd, arg);
        return next_ioctl(fd, request, arg);
    });
}

int SocketTable::next_socket(int af, int type, int protocol)
{
    return next_ ? next_->do_socket(af, type, protocol) : saved_.socket(af, type, protocol);
}

int SocketTable::next_bind(int fd, const struct sockaddr *addr, socklen_t len)
{
    return next_ ? next_->do_bind(fd, addr, len) : saved_.bind(fd, addr, len);
}

int SocketTable::next_connect(int fd, const struct sockaddr *addr, socklen_t len)
{
    return next_ ? next_->do_connect(fd, addr, len) : saved_.connect(fd, addr, len);
}

ssize_t SocketTable::next_sendto(int fd, const void *buf, size_t n, int flags, const struct sockaddr *to, socklen_t len)
{
    return next_ ? next_->do_sendto(fd, buf, n, flags, to, len) : saved_.sendto(fd, buf, n, flags, to, len);
}

int SocketTable::next_close(int fd) { return next_ ? next_->do_close(fd) : saved_.close(fd); }

int SocketTable::next_getsockname(int fd, struct sockaddr *addr, socklen_t *len)
{
    return next_ ? next_->do_getsockname(fd, addr, len) : saved_.getsockname(fd, addr, len);
}

int SocketTable::next_setsockopt(int fd, int level, int name, const void *val, socklen_t len)
{
    return next_ ? next_->do_setsockopt(fd, level, name, val, len) : saved_.setsockopt(fd, level, name, val, len);
}

int SocketTable::next_getsockopt(int fd, int level, int name, void *val, socklen_t *len)
{
    return next_ ? next_->do_getsockopt(fd, level, name, val, len) : saved_.getsockopt(fd, level, name, val, len);
}

int SocketTable::next_select(int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *t)
{
    return next_ ? next_->do_select(n, r, w, e, t) : saved_.select(n, r, w, e, t);
}

int SocketTable::next_ioctl(int fd, unsigned long request, void *arg)
{
    return next_ ? next_->do_ioctl(fd, request, arg) : saved_.ioctl(fd, request, arg);
}

} // namespace test_support
