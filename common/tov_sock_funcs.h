/*
 * The socket-function table: every ordinary socket call of the library, and every driver command, goes
 * through it, so that a companion TCP library in the same process can put its own functions there.
 */
#ifndef TOV_SOCK_FUNCS_H
#define TOV_SOCK_FUNCS_H

#include "tov_types.h"

#include <sys/select.h>

TOV_BEGIN_DECLS

/*
 * Interface shared with the companion library, which fills a table of this layout: the order is fixed.
 * Each slot has the signature of the libc function of its name.
 */
typedef struct tov_socket_functions_ {
    int (*dup)(int);
    int (*dup2)(int, int);
    int (*socket)(int, int, int);
    int (*bind)(int, const struct sockaddr *, socklen_t);
    int (*listen)(int, int);
    int (*connect)(int, const struct sockaddr *, socklen_t);
    int (*accept)(int, struct sockaddr *, socklen_t *);
    ssize_t (*recvfrom)(int, void *, size_t, int, struct sockaddr *, socklen_t *);
    ssize_t (*sendto)(int, const void *, size_t, int, const struct sockaddr *, socklen_t);
    ssize_t (*recv)(int, void *, size_t, int);
    ssize_t (*send)(int, const void *, size_t, int);
    int (*close)(int);
    int (*getsockname)(int, struct sockaddr *, socklen_t *);
    int (*getpeername)(int, struct sockaddr *, socklen_t *);
    int (*setsockopt)(int, int, int, const void *, socklen_t);
    int (*getsockopt)(int, int, int, void *, socklen_t *);
    int (*select)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
    int (*ioctl)(int, unsigned long, ...);
} tov_socket_functions_t;

#ifdef __cplusplus
static_assert(sizeof(tov_socket_functions_t) == 18 * sizeof(void *));
#endif

/* The process's table, and whether it has been filled. Written once, without a lock. */
extern tov_socket_functions_t _tov_fops;
extern int init_done;

/* Each calls the slot of its name and returns its result unchanged: -1 and errno on failure. */
tov_socket_t tov_socket(int af, int type, int protocol); /* fills the table first when need be */
int tov_bind(tov_socket_t s, const struct sockaddr *addr, tov_socklen_t addrlen);
int tov_setsockopt(tov_socket_t s, int level, int optname, const void *optval, tov_socklen_t optlen);
int tov_getsockopt(tov_socket_t s, int level, int optname, void *optval, tov_socklen_t *optlen_p);
int tov_getsockname(tov_socket_t s, struct sockaddr *addr, tov_socklen_t *addrlen_p);
tov_ret_len_t tov_sendto(tov_socket_t s, const void *buf, tov_len_t len, int flags, const struct sockaddr *to,
                         tov_socklen_t tolen);
int tov_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout);
int tov_closesocket(tov_socket_t s);

TOV_END_DECLS

#endif
