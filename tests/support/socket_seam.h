/*
 * The socket-table seam: the slots of _tov_fops are overwritten, as a companion library would do it.
 *
 *     SocketTable table;                                        // in force while alive
 *     table.on_ioctl[OXEL_GET_BOARD_CNT] = [](int, void *arg) { *(uint32_t *)arg = 2; return 0; };
 *     table.fail(Slot::socket, 1, EMFILE);                      // the next socket() fails
 *     table.fail_ioctl(SIOCGIFHWADDR, 2, ENODEV);               // the second such command fails
 *     ...
 *     EXPECT_EQ(table.count(Slot::close), 1u);
 *
 * Slots without a hook pass through to what stood there before, driver commands to the adapter of the process.
 * Tables nest; the one made last is asked first and must go first.
 */
#pragma once

#include "tov_sock_funcs.h"

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace test_support {

enum class Slot {
    dup,
    dup2,
    socket,
    bind,
    listen,
    connect,
    accept,
    recvfrom,
    sendto,
    recv,
    send,
    close,
    getsockname,
    getpeername,
    setsockopt,
    getsockopt,
    select,
    ioctl,
};

/* One call that went through the table. Only the fields that its slot has are set. */
struct SocketCall {
    Slot slot;
    int fd = -1;
    unsigned long request = 0;          /* ioctl */
    int level = 0;                      /* setsockopt, getsockopt; family of socket() */
    int name = 0;                       /* setsockopt, getsockopt; type of socket() */
    std::vector<unsigned char> in = {}; /* setsockopt's value, sendto's payload */
    std::vector<unsigned char> to = {}; /* address of bind, connect, sendto */
    int result = 0;                     /* what the call returned */
    int error = 0;                      /* errno when that was -1 */
};

class SocketTable {
public:
    SocketTable();
    ~SocketTable();
    SocketTable(const SocketTable &) = delete;
    SocketTable &operator=(const SocketTable &) = delete;

    /* Hooks; errno is theirs to set. ioctl is asked before on_ioctl's entry. */
    std::function<int(int, int, int)> socket;
    std::function<int(int, const struct sockaddr *, socklen_t)> bind;
    std::function<int(int, const struct sockaddr *, socklen_t)> connect;
    std::function<ssize_t(int, const void *, size_t, int, const struct sockaddr *, socklen_t)> sendto;
    std::function<int(int)> close;
    std::function<int(int, struct sockaddr *, socklen_t *)> getsockname;
    std::function<int(int, int, int, const void *, socklen_t)> setsockopt;
    std::function<int(int, int, int, void *, socklen_t *)> getsockopt;
    std::function<int(int, fd_set *, fd_set *, fd_set *, struct timeval *)> select;
    std::function<int(int, unsigned long, void *)> ioctl;
    std::map<unsigned long, std::function<int(int, void *)>> on_ioctl;

    /* The nth call from now (1 = the next), and the howmany - 1 after it, return -1 with this errno. */
    void fail(Slot slot, unsigned nth, int error, unsigned howmany = 1);
    void fail_ioctl(unsigned long request, unsigned nth, int error, unsigned howmany = 1);

    /* What went through since construction or clear(), in order. */
    std::vector<SocketCall> log() const;
    unsigned count(Slot slot) const;
    unsigned count_ioctl(unsigned long request) const;
    std::vector<unsigned long> ioctl_requests() const;
    void clear();

    /* The calls as this table's predecessor answers them, for hooks that only look or adjust. */
    int next_socket(int af, int type, int protocol);
    int next_bind(int fd, const struct sockaddr *addr, socklen_t len);
    int next_connect(int fd, const struct sockaddr *addr, socklen_t len);
    ssize_t next_sendto(int fd, const void *buf, size_t n, int flags, const struct sockaddr *to, socklen_t len);
    int next_close(int fd);
    int next_getsockname(int fd, struct sockaddr *addr, socklen_t *len);
    int next_setsockopt(int fd, int level, int name, const void *val, socklen_t len);
    int next_getsockopt(int fd, int level, int name, void *val, socklen_t *len);
    int next_select(int n, fd_set *r, fd_set *w, fd_set *e, struct timeval *t);
    int next_ioctl(int fd, unsigned long request, void *arg);

private:
    friend struct Trampolines;
    struct Fault {
        unsigned skip;
        unsigned left;
        int error;
    };
    template <typename Result, typename Call> Result run(SocketCall record, Call &&call);
    int take_fault(const SocketCall &record);

    int do_socket(int, int, int);
    int do_bind(int, const struct sockaddr *, socklen_t);
    int do_connect(int, const struct sockaddr *, socklen_t);
    ssize_t do_sendto(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
    int do_close(int);
    int do_getsockname(int, struct sockaddr *, socklen_t *);
    int do_setsockopt(int, int, int, const void *, socklen_t);
    int do_getsockopt(int, int, int, void *, socklen_t *);
    int do_select(int, fd_set *, fd_set *, fd_set *, struct timeval *);
    int do_ioctl(int, unsigned long, void *);

    SocketTable *next_;            /* made before this one, or null */
    tov_socket_functions_t saved_; /* the table before the first */
    mutable std::mutex mutex_;     /* guards what follows */
    std::vector<SocketCall> log_;
    std::map<Slot, Fault> faults_;
    std::map<unsigned long, Fault> ioctl_faults_;
};

} // namespace test_support
