/*
 * Device files, driver commands and the socket-function table.
 */
#include "tov.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

tov_socket_functions_t _tov_fops;
int init_done;

void tov_init(void)
{
    /* Two threads may both come here first: both fill the table, alike. Who finds it filled sees all of it. */
    if (!__atomic_load_n(&init_done, __ATOMIC_ACQUIRE)) {
        tov_init_fops();
        __atomic_store_n(&init_done, 1, __ATOMIC_RELEASE);
    }
}

void tov_init_fops(void)
{
    /* A companion TCP library in this process takes the calls over by defining this symbol. */
    typedef void setup_fn(tov_socket_functions_t *);
    setup_fn *setup = reinterpret_cast<setup_fn *>(dlsym(RTLD_DEFAULT, "krel_setup_socket_funcs"));
    if (setup) {
        setup(&_tov_fops);
        return;
    }

    _tov_fops.dup = ::dup;
    _tov_fops.dup2 = ::dup2;
    _tov_fops.socket = ::socket;
    _tov_fops.bind = ::bind;
    _tov_fops.listen = ::listen;
    _tov_fops.connect = ::connect;
    _tov_fops.accept = ::accept;
    _tov_fops.recvfrom = ::recvfrom;
    _tov_fops.sendto = ::sendto;
    _tov_fops.recv = ::recv;
    _tov_fops.send = ::send;
    _tov_fops.close = ::close;
    _tov_fops.getsockname = ::getsockname;
    _tov_fops.getpeername = ::getpeername;
    _tov_fops.setsockopt = ::setsockopt;
    _tov_fops.getsockopt = ::getsockopt;
    _tov_fops.select = ::select;
    _tov_fops.ioctl = ::ioctl;
}

int tov_open(int unit, int endpoint, tov_handle_t *handle_o, uint8_t product)
{
    (void)endpoint;
    tov_init();
    if (product > 25)
        return EINVAL;

    char path[92];
    int letter = 'A' + product;
    snprintf(path, sizeof path, "/dev/oxel%cp%d", letter, unit);
    int fd = open(path, O_RDWR);
    if (fd < 0) {
        snprintf(path, sizeof path, "/dev/oxel%c%d", letter, unit);
        fd = open(path, O_RDWR);
    }
    if (fd < 0)
        return errno;
    *handle_o = fd;
    return 0;
}

int tov_open_any_board(tov_handle_t *handle_o, uint8_t product)
{
    bool busy_seen = false;

    for (int board = 0; board < TOV_MAX_BOARDS; board++) {
        int rc = tov_open(board, -1, handle_o, product);
        if (rc == 0)
            return 0;
        if (rc == ENOENT || rc == ENXIO || rc == ENODEV) {
            /* Boards are numbered without gaps: the first missing one ends the search. */
            if (board == 0)
                return rc == ENOENT ? ENOENT : ENODEV;
            break;
        }
        if (rc != EPERM && rc != EACCES)
            busy_seen = true;
    }
    return busy_seen ? EBUSY : EACCES;
}

int tov_ioctl(tov_handle_t handle, unsigned long cmd, void *buf, size_t bufsize)
{
    (void)bufsize;
    return _tov_fops.ioctl(handle, cmd, buf) == 0 ? 0 : errno;
}

int __tov_ioctl(tov_handle_t handle, unsigned long cmd, ...)
{
    va_list args;
    va_start(args, cmd);
    void *buf = va_arg(args, void *);
    va_end(args);
    return _tov_fops.ioctl(handle, cmd, buf);
}

int tov_close(tov_handle_t handle) { return __tov_close(handle) == 0 ? 0 : errno; }

int __tov_close(tov_handle_t handle) { return _tov_fops.close(handle); }

void *tov_mmap(void *start, size_t length, tov_handle_t handle, off_t offset, int read_only)
{
    return mmap(start, length, read_only ? PROT_READ : PROT_READ | PROT_WRITE, MAP_SHARED, handle, offset);
}

int tov_munmap(void *start, size_t length) { return munmap(start, length); }

tov_socket_t tov_socket(int af, int type, int protocol)
{
    tov_init();
    return _tov_fops.socket(af, type, protocol);
}

int tov_bind(tov_socket_t s, const struct sockaddr *addr, tov_socklen_t addrlen)
{
    return _tov_fops.bind(s, addr, addrlen);
}

int tov_setsockopt(tov_socket_t s, int level, int optname, const void *optval, tov_socklen_t optlen)
{
    return _tov_fops.setsockopt(s, level, optname, optval, optlen);
}

int tov_getsockopt(tov_socket_t s, int level, int optname, void *optval, tov_socklen_t *optlen_p)
{
    return _tov_fops.getsockopt(s, level, optname, optval, optlen_p);
}

int tov_getsockname(tov_socket_t s, struct sockaddr *addr, tov_socklen_t *addrlen_p)
{
    return _tov_fops.getsockname(s, addr, addrlen_p);
}

tov_ret_len_t tov_sendto(tov_socket_t s, const void *buf, tov_len_t len, int flags, const struct sockaddr *to,
                         tov_socklen_t tolen)
{
    return _tov_fops.sendto(s, buf, len, flags, to, tolen);
}

int tov_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout)
{
    return _tov_fops.select(nfds, readfds, writefds, exceptfds, timeout);
}

int tov_closesocket(tov_socket_t s) { return _tov_fops.close(s); }
