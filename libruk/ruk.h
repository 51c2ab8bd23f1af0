/*
 * libruk: UDP over IPv4 on the maker's 10-gigabit Ethernet adapters without the kernel's network stack.
 * C11 and C++.
 *
 * Results: every call returns 0 or a positive errno value unless said otherwise; ruk_send_connect(),
 * ruk_send_disconnect() and the connecting part of ruk_sendto() store theirs in errno too. Errors of the driver pass
 * through unchanged. Pointers must not be null unless a null is said to be allowed, or to be an error. Addresses and
 * ports are in network byte order unless said otherwise; times are nanoseconds of the host's real-time clock.
 *
 * Threads: an endpoint opened with RUK_OPEN_THREAD_SAFE may be used from several threads; without that flag
 * it takes no lock at all and the caller serialises every call on it. ruk_shutdown() may be called from any
 * thread in either case. ruk_init() and the opening calls are not serialised against each other.
 */
#ifndef RUK_H
#define RUK_H

#include "tov_ifaddrs.h"
#include "tov_types.h"

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>

TOV_BEGIN_DECLS

/* Interface version to pass to ruk_init(). */
#define RUK_API_VERSION 0x0004

/* An endpoint: one adapter endpoint with its queues. From an open call to ruk_close(). */
typedef struct ruk__ep *ruk_device_t;

/* A channel: a bound UDP address and port. From a bind call to ruk_unbind() or its endpoint's close. */
typedef struct ruk__channel *ruk_channel_t;

/* A send handle: a destination of a channel. Until ruk_send_disconnect() or its channel's end. */
typedef struct ruk__send *ruk_send_t;

/* ------------------------------------------------------------------ initialisation */

/* A paired reading of the adapter's and the host's clock. */
typedef struct {
    uint64_t nic_ticks;        /* adapter clock, ticks */
    uint64_t host_nsecs;       /* host clock at the same moment, ns */
    uint64_t host_nsecs_delay; /* duration of the reading, ns: its uncertainty */
} ruk_ticks_t;

/*
 * Initialises the library for the process; call it once, before any other thread uses the library. Reads
 * RUK_DEBUG and RUK_IP_VERBOSE and checks the versions of caller and driver. A later call only confirms the
 * version. Version 0 leaves the library uninitialised, though the result is 0.
 * Errors: EINVAL another version than before, or a major version that is not 0 (a message says so); ENOENT,
 * ENODEV, EACCES, EBUSY no adapter can be opened; ENXIO the driver's interface version is another one; those of the
 * driver.
 */
int ruk_init(uint16_t api_version);

/* The same for launchers and wrappers: the first open then prints the banner. */
int ruk__init(uint16_t api_version);

/* Reads both clocks. Takes no lock. Errors: those of the driver; *t is then all zero. */
int ruk_getticks(ruk_device_t dev, ruk_ticks_t *t);

/*
 * The endpoint's device descriptor, unchanged and still owned by the endpoint. It polls readable while
 * received events wait.
 */
tov_handle_t ruk_device_handle(ruk_device_t dev);

/* Reports a failed internal check on standard output and aborts. */
#if defined(__cplusplus)
[[noreturn]]
#else
_Noreturn
#endif
void ruk__assertion_failed(const char *expr, int line, const char *file);

/* ------------------------------------------------------------------ endpoints */

#define RUK_OPEN_THREAD_SAFE     0x1 /* the endpoint has locks */
#define RUK_OPEN_DISABLED        0x2 /* no queues until ruk_device_enable() */
#define RUK_OPEN_HW_TIMESTAMPING 0x4 /* datagrams are dated by the adapter's clock */

/*
 * Open a free endpoint of an adapter: by the IPv4 address of a host interface on it, by that interface's
 * name, or by the adapter's permanent MAC address (6 bytes). On success *dev_out is the endpoint, which the
 * caller closes with ruk_close(); on an error *dev_out is untouched, but for an ENOMEM from reading the
 * routes, when *dev_out is set and to be closed.
 * ruk_open() and ruk_open_if() end the process with status 1 when an adapter's address lies on the subnet of another
 * address of the host, on whatever card, or when the host cannot be asked for that; not with RUK_IP_ACCELERATION or
 * RUK_BYPASS_CHECK in the environment.
 * ruk_open_by_perm_mac() takes any address: with one that no interface on an adapter has, nothing can be bound
 * (ruk_bind() gives EINVAL and keeps the lock) and no route is known.
 * Errors: EINVAL a null argument, the library is not initialised (not asked by ruk_open_by_perm_mac), no adapter of
 * that MAC address, a region that cannot be mapped; ENODEV no such local adapter address, or (all that
 * ruk_open_by_perm_mac() asks) no adapter interface at all; EBUSY every endpoint is taken; ENOMEM; errno of the
 * endpoint's kernel socket; those of the driver. ruk_open_if(): ENXIO no interface of that name, one without an IPv4
 * address, or one behind the first 51 or so of the host's addresses (64 where pointers have 32 bits); a negative errno
 * value when asking the host failed.
 */
int ruk_open(const struct in_addr *interface_addr, int flags, ruk_device_t *dev_out);
int ruk_open_if(const char *ifname, int flags, ruk_device_t *dev_out);
int ruk_open_by_perm_mac(uint8_t *mac, const struct in_addr *interface_addr, int flags, ruk_device_t *dev_out);

/* Which frames an endpoint receives. */
enum ruk_filter_mode {
    RUK_RECV_FILTER_NORMAL = 0,   /* datagrams of its channels */
    RUK_RECV_FILTER_ALLMULTI = 1, /* those and every multicast frame, UDP or not; no channel is told */
    RUK_RECV_FILTER_RAW = 2,      /* every frame; no channel is told */
};

struct ruk_device_attrs {
    uint32_t recvq_filter_mode; /* enum ruk_filter_mode */
    uint32_t recvq_size;        /* receive queue, bytes */
    uint32_t hw_timestamping;   /* non-zero: datagrams are dated by the adapter's clock */
    uint32_t reserved_1;        /* read as 0 */
};

/* Reads the attributes. Always 0. Takes the endpoint lock. */
int ruk_device_get_attrs(ruk_device_t dev, struct ruk_device_attrs *attrs);

/*
 * Sets hw_timestamping at once; sends mode and queue size to the driver when the mode changes or the endpoint
 * is still disabled, so that a new queue size takes effect only before ruk_device_enable(). Unless that fails, it
 * reads them back in any case, and ends the process when the driver does not tell them. Takes the endpoint lock.
 * Errors: those of the driver (the timestamping change stays).
 */
int ruk_device_set_attrs(ruk_device_t dev, struct ruk_device_attrs *attrs);

/*
 * Sets up the queues of an endpoint opened disabled. Takes the endpoint lock.
 * Errors: EINVAL it is not disabled, a region that cannot be mapped; ENOMEM; those of the driver.
 */
int ruk_device_enable(ruk_device_t dev);

/*
 * Asks waiting receive calls to return EINTR: spinning ones at once, sleeping ones after a second without any frame,
 * dropped ones and keyframes included.
 * ruk_recvfrom(), of any thread and in any mode, forgets a request made before it was called, and nothing else does:
 * until then every ruk_raw_recv() that would wait gives EINTR. how is not used. Errors: EINVAL a null endpoint.
 */
int ruk_shutdown(ruk_device_t dev, int how);

/*
 * Closes the endpoint and unbinds all its channels, which ends the process as ruk_unbind() may. When another thread
 * sleeps in a receive call the close is completed by that call when it returns; it is not woken by this. A spinning one
 * of a thread-safe endpoint leaves with ENXIO, and the close is completed here.
 * Always 0.
 */
int ruk_close(ruk_device_t dev);

/* ------------------------------------------------------------------ binding */

#define RUK_BIND_REUSE      0x2  /* the port may be shared: SO_REUSEADDR and SO_REUSEPORT on the kernel socket */
#define RUK_BIND_KERNEL     0x4  /* matching frames also reach the kernel */
#define RUK_BIND_NO_UNICAST 0x8  /* no filter for the unicast address */
#define RUK_BIND_BROADCAST  0x10 /* broadcasts to 255.255.255.255 and the port as well */

/*
 * Bind a UDP port (host byte order; 0 lets the host choose) on the endpoint's address, or on another address
 * of the same adapter. A kernel socket is bound beside the channel; where none can be had the channel does without,
 * keeps port 0 if that was asked, and joins no group. Of a port above 65535 the low 16 bits count. context may be null,
 * handle_out may not. After an error that comes once a tag is taken (the driver's, ENOMEM, EAGAIN for the broadcast)
 * close the endpoint: its lists of tags are damaged. Take the endpoint lock.
 * Errors: EINVAL a null endpoint or interface address, or an address that is not on the endpoint's adapter (on a
 * thread-safe endpoint the endpoint lock then stays held); EADDRINUSE and others of the kernel socket; -1 with errno
 * when it refuses an option that a flag asks for; EAGAIN no filter tag until some are out of use; ENOMEM, also no
 * filter tag; those of the driver.
 * Of several channels with one address and port the first has all unicast until it is unbound, and its flags count:
 * RUK_BIND_KERNEL of a later one does nothing for unicast, not even once that has inherited it.
 */
int ruk_bind(ruk_device_t dev, int flags, int port, void *context, ruk_channel_t *handle_out);
int ruk_bind_addr(ruk_device_t dev, const struct in_addr *interface_addr, int flags, int port, void *context,
                  ruk_channel_t *handle_out);

/* The bound address and port. Takes no lock. Errors: EINVAL a null channel. */
int ruk_getaddress(ruk_channel_t ch, struct sockaddr_in *sin);

/*
 * Install or remove an adapter filter for a tag of the caller's choice, without a channel. ip_proto is 17, 6
 * or 253; flags: RUK_BIND_KERNEL. Take 3968 or a higher tag: those below are the library's own, for binds and groups,
 * and 0 is a switch's keyframes' as well. The frames are for the raw receive calls: ruk_recvfrom() consumes them and
 * counts them in dropped_nosock. Take no lock. Errors: EINVAL another protocol; those of the driver.
 */
int ruk_filter_add(ruk_device_t dev, int ip_proto, uint16_t vlan_be16, uint32_t dst_ip_be32, uint16_t dst_port_be16,
                   uint16_t tag, int flags);
int ruk_filter_del(ruk_device_t dev, int ip_proto, uint16_t vlan_be16, uint32_t dst_ip_be32, uint16_t dst_port_be16,
                   uint16_t tag);

/* Changes the filter mode. Takes the endpoint lock. Errors: those of the driver. */
int ruk_set_filter_mode(ruk_device_t dev, enum ruk_filter_mode mode);

/*
 * Unbinds the channel with its groups, filters, send handles and kernel socket; the handle is invalid
 * afterwards. The earliest other channel bound to its address and port without RUK_BIND_NO_UNICAST inherits the unicast
 * traffic; broadcasts and groups are never handed over. A group's filter that the driver does not give back, or a group
 * joined twice, ends the process. Takes the endpoint lock.
 * Errors: EINVAL a null channel.
 */
int ruk_unbind(ruk_channel_t ch);

/* ------------------------------------------------------------------ multicast */

/*
 * Join and leave groups on a channel, from any source or from one. Take the endpoint lock.
 * ruk_mcast_leave_source() drops the kernel's whole membership of the group, and its source must not be null.
 * ruk_mcast_leave() of a group joined for several sources releases the first of them alone: the others stay in the
 * adapter, while the kernel's membership is dropped whole. A filter that the driver does not give back ends the
 * process; so does, after an EEXIST, the second release of that group, and calls for other groups of the channel may
 * not return before.
 * Errors: EINVAL a null channel, group, or source to join; not a group; a zero source to leave. ruk_mcast_join(),
 * ruk_mcast_join_source(): EEXIST joined already; EAGAIN, ENOMEM no filter tag, as for a bind; errno of the kernel
 * socket; those of the driver.
 * ruk_mcast_leave(), ruk_mcast_leave_source(): EADDRNOTAVAIL not joined.
 */
int ruk_mcast_join(ruk_channel_t ch, const struct in_addr *addr, void *unused);
int ruk_mcast_join_source(ruk_channel_t ch, const struct in_addr *addr, const struct in_addr *src);
int ruk_mcast_leave(ruk_channel_t ch, const struct in_addr *addr);
int ruk_mcast_leave_source(ruk_channel_t ch, const struct in_addr *addr, const struct in_addr *src);

/*
 * Block and unblock a source of a group at the kernel socket. The adapter's filters do not change, and it goes on
 * delivering what arrives; but routers are told, and may keep the source away. Take no lock.
 * Errors: EINVAL a null or zero argument, not a group; -1 with errno when the kernel refuses; ENOMEM.
 */
int ruk_mcast_block_source(ruk_channel_t ch, const struct in_addr *join_addr, const struct in_addr *block_addr);
int ruk_mcast_unblock_source(ruk_channel_t ch, const struct in_addr *join_addr, const struct in_addr *block_addr);

/* ------------------------------------------------------------------ receive */

enum ruk_recvmode {
    RUK_RECV_DEFAULT = 0,  /* spin until a datagram arrives or the endpoint is shut down */
    RUK_RECV_NONBLOCK = 1, /* EAGAIN at once when none waits */
    RUK_RECV_BLOCK = 2,    /* sleep until a datagram arrives or the endpoint is shut down */
    RUK_RECV_PEEK = 3,     /* as NONBLOCK; tells about the datagram, neither copies nor consumes it */
    RUK_RECV_PEEK_MSG = 4, /* as NONBLOCK; copies the datagram, does not consume it */
};

struct ruk_recv_info {
    ruk_channel_t chan;          /* channel it arrived on; null in the ALLMULTI and RAW filter modes */
    void *chan_context;          /* that channel's context; null in those modes */
    void *in_buffer;             /* not written */
    struct sockaddr_in sin_from; /* source; in the RAW mode not written for a frame that is not IPv4 */
    struct sockaddr_in sin_to;   /* destination; the same, and in ALLMULTI and RAW sin_family is never written */
    uint32_t msg_len;            /* the datagram's full length, bytes, before truncation to the buffer */
    uint64_t timestamp;          /* ns, 0 when no time is known; from interface version 2 on; see below for a peek */
};

/*
 * Receives the next datagram of any channel of the endpoint into buf, cut to len bytes. Frames that fail a
 * check are counted and skipped; no checksum is verified. What is not written of *info keeps what was there: clear it
 * before a peek, and in the ALLMULTI and RAW filter modes. After a peek the timestamp is never the datagram's; it may
 * be that of a frame skipped before it. Takes the receive lock, except while it sleeps.
 * Errors: EINVAL a null endpoint or info, a disabled endpoint, an unknown mode on an empty queue; EAGAIN
 * nothing waits; EINTR shut down, or a signal handler ran while it slept; ENXIO the endpoint is being closed; errno of
 * poll().
 */
int ruk_recvfrom(ruk_device_t dev, enum ruk_recvmode recv_mode, void *buf, size_t len, struct ruk_recv_info *info);

/*
 * Whole frames, with the 4-byte trailer, but for frames that a switch dates, which come without it. buf must hold the
 * largest frame; *len receives the length. ruk_raw_recv() takes the receive lock, never writes *timestamp, and does not
 * forget a shutdown: from one on it gives EINTR whenever it would wait, until ruk_recvfrom() is called. The other
 * two take no lock, are for an endpoint that one thread reads, and complete no close. timestamp and tag of
 * ruk_raw_recv_nb() may be null. A null endpoint or len is not tested in any of them. ruk_raw_recv_nb() hands out a
 * switch's keyframes too: where the endpoint recognises them their time is all ones.
 * Errors: EAGAIN nothing waits; EINVAL a disabled endpoint. ruk_raw_recv(): EINVAL an unknown mode on an empty queue;
 * EINTR shut down, or a signal handler ran while it slept; ENXIO the endpoint is being closed; errno of poll().
 */
int ruk_raw_recv(ruk_device_t dev, enum ruk_recvmode recv_mode, void *buf, size_t *len, uint64_t *timestamp);
int ruk_raw_recv_nb(ruk_device_t dev, void *buf, size_t *len, uint64_t *timestamp, int *tag);
int ruk_raw_recv_peek(ruk_device_t dev);

/* Prints the endpoint's counters on standard output, with non_zero only those that are not 0. Takes no lock. */
void ruk_dump_stats(ruk_device_t dev, int non_zero);

/* ------------------------------------------------------------------ send */

#define RUK_NONBLOCK 0x4 /* EAGAIN instead of waiting for room */

/*
 * Makes a send handle for a destination: resolves its next hop and prepares the frame's header. ttl 0 takes
 * 64, or 1 for a group; at most 64. Takes the endpoint lock, and drops it while the kernel is asked.
 * The route is the one with the longest mask of /proc/net/route, the last of several; metrics and other tables of the
 * host's do not count.
 * Where the kernel's ARP table does not know the next hop the kernel is prompted and asked up to 1001 times: the call
 * may sleep about ten seconds. With RUK_NONBLOCK in flags it prompts once and returns EADDRNOTAVAIL at once; try again
 * every 50 to 100 ms. Prompts add up: at a few hundred within three seconds, as by a call every 10 ms, it sleeps too.
 * Errors, stored in errno too: EINVAL a null or zero destination, a ttl out of range, a next hop with the MAC address
 * of this very adapter; EHOSTUNREACH no route; EADDRNOTAVAIL no answer to ARP yet, as for the endpoint's own address
 * always; ENXIO (EAGAIN with RUK_NONBLOCK) the host's interfaces cannot be listed; ENOMEM; others of the host; those of
 * the driver.
 */
int ruk_send_connect(ruk_channel_t ch, const struct sockaddr_in *sin, int flags, int ttl, ruk_send_t *dhsend_o);

/*
 * Ends a handle. No thread may be inside a send on it, waiting for room included. Takes the endpoint lock.
 * Errors, stored in errno too: ENOTCONN a handle without a channel.
 */
int ruk_send_disconnect(ruk_send_t dhs);

/*
 * Sends one datagram on a handle; the payload is copied before the call returns. paylen is not checked: the
 * caller keeps it within what a frame can carry. Takes the endpoint lock, and drops it while it waits for room in the
 * driver: another thread's datagram may overtake. Without RUK_NONBLOCK, one that is longer than its ring waits for
 * ever.
 * Errors: EAGAIN no room and RUK_NONBLOCK; EINVAL a disabled endpoint; those of the driver.
 */
int ruk_send(ruk_send_t dhs, const void *buf, int paylen, int flags);

/*
 * Sends one datagram to an address through a handle that the channel keeps. errno is written where the handle cannot be
 * had, not where sending fails.
 * Errors: those of ruk_send_connect() and ruk_send().
 */
int ruk_sendto(ruk_channel_t ch, const struct sockaddr_in *sin, const void *buf, int len, int flags);

/*
 * Sends a frame with a header of the caller's (1 to 56 bytes), for endpoints without locks: it takes none, and drops
 * the endpoint's while it waits for room. chksum_hdr is the partial sum of what the UDP checksum covers besides the
 * payload; the checksum is stored at chksum_offset of the header when that is above 0. Errors: those of ruk_send().
 */
int ruk_raw_send(ruk_device_t dev, uint8_t *hdr, int hdrlen, uint32_t chksum_hdr, int chksum_offset,
                 const uint8_t *buffer, int paylen, int flags);

/*
 * Measures the copy into the adapter: iterations copies of len bytes (rounded up to 4, at most 2048).
 * *t_nsecs receives ns a copy and *bw_MB MiB a second; beyond 2^32 cycles, and with iterations below 0, both are
 * wrong. The request record it takes stays among those in flight. Takes 0.8 seconds more where
 * tov_cycles_per_second() has to measure. Errors: EINVAL no iterations, more than 2048 bytes, a disabled endpoint;
 * EBUSY no room.
 */
int ruk__piocopy_test(ruk_device_t dev, int iterations, uint32_t len, int do_csum, uint64_t *t_nsecs, uint64_t *bw_MB);

/*
 * Tells the driver that a software endpoint has data to send. d is the handle of the software endpoint itself, as
 * ruk__open_soft() makes it, which the archive has and the shared library does not; for that of ruk_device_handle() the
 * software adapter's driver says EINVAL. Errors: those of the driver.
 */
int ruk__post_soft_data(tov_handle_t d);

/*
 * The MAC address (6 bytes) of the next hop to dst_ip_be32; src_ip_addr_be32 is not used. The caller holds
 * the endpoint lock, which is dropped while the kernel is asked, as often as by ruk_send_connect() without
 * RUK_NONBLOCK: for about ten seconds. Errors: EHOSTUNREACH no route; EADDRNOTAVAIL no answer to ARP; ENXIO the host's
 * interfaces cannot be listed; others of the host; those of the driver.
 */
int ruk__resolve_mac(ruk_device_t dev, uint32_t src_ip_addr_be32, uint32_t dst_ip_addr_be32, uint8_t *mac);

/* ------------------------------------------------------------------ platform utilities */

/*
 * Finds the processor's cycle rate: from TOV_CYCLES_PER_SECOND or else KZ_CYCLES_PER_SECOND in the environment, or by
 * measuring for 0.8 seconds, at each call again.
 */
void tov_cycles_counter_init(void);

/* Cycles a second, found on the first call. */
tov_cycles_t tov_cycles_per_second(void);

/* select() through the socket-function table, which is empty before ruk_init(), an opening call or tov_getifaddrs(). */
int tov_select(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds, struct timeval *timeout);

TOV_END_DECLS

#endif
