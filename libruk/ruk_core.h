/*
 * What the library's source files share: process-wide state, checks, debug lines, and the steps by name.
 */
#ifndef RUK_CORE_H
#define RUK_CORE_H

#include "ruk__libtypes.h"

#include <stddef.h>

/* ------------------------------------------------------------------ process-wide state */

extern "C" {

/* Written at initialisation and first open, without a lock. */
extern int __ruk_debug;   /* debug lines on */
extern int __ruk_verbose; /* progress lines on */
extern int ruk__init_ext; /* initialised through ruk__init(): the banner may be printed */
extern int banner;        /* banner allowed */
extern int show_once;     /* banner not printed yet */

/* 0 until the library is initialised. Hidden: receiving reads it without the global offset table. */
extern uint32_t ruk__api_version __attribute__((visibility("hidden")));

extern const char ruk__lib_version[]; /* "1.2.3" */
extern const char ruk__lib_build[];   /* name, version, revision, date */

} /* extern "C" */

/* Checks that stay in every build. file is the source file's name without directory and ending. */
#define ruk_assert(expr, file) ((expr) ? (void)0 : ruk__assertion_failed(#expr, __LINE__, file))

extern "C" {

/* Writes "RUK (func): message" to standard error; messages are cut at 127 characters. Call when __ruk_debug. */
void ruk__debug_line(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

/* The start-up line, once per process for each of the two ways to open. */
void show_banner(void);
void show_banner_by_mac(void);

/* ------------------------------------------------------------------ endpoints (ruk_open.cpp) */

/*
 * State and number of receivers inside, as one word: a receiver that leaves without the receive lock settles with it
 * who completes a close, since once it is counted out the endpoint may be gone. Closing changes it by exchange alone,
 * so that what that receiver did comes before.
 */
typedef uint64_t ruk__use_word __attribute__((aligned(8), may_alias));
static_assert(offsetof(struct ruk__ep, rep_state) % 8 == 0);
static_assert(offsetof(struct ruk__ep, rep_inuse) == offsetof(struct ruk__ep, rep_state) + 4);

static inline ruk__use_word *ruk__use(struct ruk__ep *rep) { return (ruk__use_word *)&rep->rep_state; }
static inline uint64_t ruk__use_of(uint32_t state, uint32_t inuse) { return state | (uint64_t)inuse << 32; }
static inline uint32_t ruk__use_state(uint64_t use) { return (uint32_t)use; }
static inline uint32_t ruk__use_inuse(uint64_t use) { return (uint32_t)(use >> 32); }

int krel_verify_ipsubnet(void);
int iface_to_interface_addr(const char *ifname, struct in_addr *addr);
int open_tov_endpoint(int board, uint32_t *epid, tov_handle_t *handle_o);
int map_region(const char *name, tov_handle_t handle, uintptr_t *addr, uintptr_t *len, uint32_t offset, uint32_t length,
               int read_only);
void unmap_region(uintptr_t ptr, uintptr_t size);
void prefault_mapped_kmem(uintptr_t base, uintptr_t len);
void initialize_queues(struct ruk__ep *rep);
void sendbuf_init(struct ruk__sendbuf *sb, uintptr_t base, uint32_t length);
int enable_endpoint(struct ruk__ep *rep);
void free_queues(struct ruk__ep *rep);
int ruk__open_soft(struct ruk__ep *rep, tov_handle_t *handle_o);

int ruk__get_tag_entry(struct ruk__ep *rep, uint32_t ipaddr_be32, uint16_t port_be16, uint32_t is_tcp,
                       struct ruk__tag_entry **entry_o);
void ruk__put_tag_entry(struct ruk__ep *rep, struct ruk__tag_entry *entry);
void ruk__delay_put_tag_entry(struct ruk__ep *rep, struct ruk__tag_entry *entry);

/* ------------------------------------------------------------------ binding (ruk_bind.cpp) */

int ruk__sockbind(uint32_t ipaddr_be32, uint16_t *port_be16, int flags, int *fd_o, int is_tcp);
int ruk__bind(ruk_device_t rep, uint32_t ipaddr_be32, int flags, int port, void *context, ruk_channel_t *handle_out,
              int is_tcp);
int ruk__filter_op(struct ruk__ep *rep, int op, struct ruk__tag_entry *entry);
void ruk__do_unbind(ruk_channel_t ch);
void ruk__unbind_all(ruk_device_t rep);
void entry_release_uni(struct ruk__tag_entry *entry);
void entry_release_multi(struct ruk__tag_entry *entry);

/* ------------------------------------------------------------------ receive (ruk_recv_event.cpp) */

/* What becomes of a packet. */
enum packet_fate {
    PACKET_DONE, /* delivered: consume it and return */
    PACKET_DROP, /* counted: consume it and go on */
    PACKET_PEEK, /* delivered, stays first in the queue */
};
int handle_ruk_uevt(struct ruk__ep *rep, struct ruk__evpacket *evp, enum ruk_recvmode mode, void *buf, size_t len,
                    struct ruk_recv_info *info); /* a packet_fate */
uint64_t ruk__clk_ticks_to_timestamp(struct ruk__ep *ep, uint64_t ticks);
void ruk__clk_calc_pkt_timestamps(struct ruk__event_state *evs);
int arista_check_kf_pkt(const struct ruk__eventq *evq, const uint8_t *pkt);

/* ------------------------------------------------------------------ sending (ruk_core_send.cpp, ruk_send*.cpp) */

int ruk__try_send_completion(struct ruk__ep *rep);
int ruk__arp_init(struct ruk__ep *rep);
int ruk__peer_addr_lookup(struct ruk__ep *rep, uint32_t src_ip_addr_be32, struct ruk__peer_addr *paddr, int retries);
void ruk__sendhandle_init(struct ruk__send *dhs, struct ruk__channel *dchan, const struct ruk__peer_addr *paddr,
                          const struct sockaddr_in *psin, int ip_ttl, int ip_proto);
int ruk__do_send_connect(ruk_channel_t ch, const struct sockaddr_in *sin, int flags, int ttl, ruk_send_t *dhsend_o,
                         int isuser);

} /* extern "C" */

#endif
