/*
 * The platform layer: device files and driver commands, cycle counter and host time, adapter identity,
 * adapter list and memory pool.
 *
 * No function here takes a lock. Results are 0 or a positive errno value unless said otherwise.
 */
#ifndef TOV_H
#define TOV_H

#include "tov_ifaddrs.h"
#include "tov_sock_funcs.h"
#include "tov_types.h"

#include <string.h>

TOV_BEGIN_DECLS

/* The device family the library serves: its files are "/dev/oxelBp<n>" and "/dev/oxelB<n>". */
#define TOV_PRODUCT 1

/* Boards are numbered 0 to 32 at most. */
#define TOV_MAX_BOARDS 33

/* ------------------------------------------------------------------ device files and driver commands */

/* Fills the socket-function table once for the process. */
void tov_init(void);

/* Fills it now: from "krel_setup_socket_funcs" when the process defines that, else with libc's functions. */
void tov_init_fops(void);

/*
 * Opens board unit's device file; endpoint is not used. product selects the family letter, 'A' + product.
 * Errors: EINVAL for a product above 25; errno of the second open() when both names fail.
 */
int tov_open(int unit, int endpoint, tov_handle_t *handle_o, uint8_t product);

/*
 * Opens the first board that can be opened.
 * Errors: ENOENT no device file; ENODEV a driver without an adapter; EACCES the files refuse the caller;
 * EBUSY they fail otherwise.
 */
int tov_open_any_board(tov_handle_t *handle_o, uint8_t product);

/* Driver command. bufsize documents the argument's size; the driver knows it from the code. */
int tov_ioctl(tov_handle_t handle, unsigned long cmd, void *buf, size_t bufsize);

/* The same with the slot's raw result: -1 and errno on failure. */
int __tov_ioctl(tov_handle_t handle, unsigned long cmd, ...);

int tov_close(tov_handle_t handle);
int __tov_close(tov_handle_t handle); /* raw result */

/* Shared mapping of a device region; the offset selects it. MAP_FAILED on failure. */
void *tov_mmap(void *start, size_t length, tov_handle_t handle, off_t offset, int read_only);
int tov_munmap(void *start, size_t length);

/* ------------------------------------------------------------------ cycle counter and host time */

/* Found once per process, without a lock; 0 means not yet known. */
extern uint64_t cycles_per_second;
extern double seconds_per_cycle;

/*
 * Finds the cycle rate: from TOV_CYCLES_PER_SECOND, else KZ_CYCLES_PER_SECOND, else by timing the counter
 * against the system clock, which takes 0.8 seconds.
 */
void tov_cycles_counter_init(void);
tov_cycles_t tov_cycles_per_second(void);
double tov_seconds_per_cycle(void);

/* CLOCK_REALTIME in nanoseconds. */
uint64_t tov_host_nsecs(void);

/* Order of two uint64_t for qsort(). */
int cmp_uint64(const void *ap, const void *bp);

/* The time-stamp counter, read without serialising. */
inline tov_cycles_t tov_get_cycles(void) { return __builtin_ia32_rdtsc(); }

/* ------------------------------------------------------------------ adapter identity and list */

/* A MAC address as a number: low 48 bits, first byte most significant. */
void tov_macaddr_to_nic_id(const uint8_t *macaddr, uint64_t *nic_id);
void tov_nic_id_to_macaddr(uint64_t nic_id, uint8_t *macaddr);

/* Formats "02:11:22:33:44:55", cut to strlen - 1 characters, always terminated. 18 bytes hold it all. */
void tov_nic_id_to_str(char *str, uint64_t nic_id, uint32_t strlen);

/*
 * Writes the 6-byte hardware address of the named interface as the kernel reports it.
 * Errors: errno of socket() or of SIOCGIFHWADDR (ENODEV for an unknown name).
 */
int tov_get_macaddr(const char *ifname, uint8_t *mac_addr);

struct tov_nic_info {
    uint32_t boardnum;          /* 0 .. count - 1 */
    uint32_t nic_type;          /* the driver's type code */
    uint64_t nic_id;            /* permanent MAC address */
    uint32_t nic_max_endpoints; /* endpoints of the adapter */
    uint32_t nic_link_state;    /* 1 up, 0 down */
    uint64_t curr_nic_id;       /* MAC address in use; nic_id when the driver cannot tell */
};

/*
 * Lists the adapters known to the driver; the caller frees the array with tov_free_nicinfo(). No adapter
 * gives a null array and count 0. Errors: those of tov_open_any_board() and of the driver, ENOMEM; the
 * outputs are then unwritten.
 */
int tov_get_nicinfo(struct tov_nic_info **ninfo_o, int *num_o);
void tov_free_nicinfo(struct tov_nic_info *ninfo);

/* ------------------------------------------------------------------ memory pool */

/*
 * Fixed-size elements over storage of the caller's. A free element's first word links to the next free
 * one. Last freed is first reused. Not thread-safe: the owner's lock serialises.
 */
struct tov_mpool {
    char *base;      /* start of the storage */
    size_t size;     /* bytes of storage */
    char *elem_next; /* first free element, null when none */
    size_t elem_sz;  /* bytes an element */
    int elem_avail;  /* free elements */
};

/* elem_sz is at least a pointer's size and size holds at least one element. ENOMEM. */
int tov_mpool_init(char *base, size_t size, size_t elem_sz, struct tov_mpool **pool);

/* An element with its contents as they were, but for the first word; null when none is free. */
void *tov_mpool_alloc(struct tov_mpool *pool);
void tov_mpool_free(struct tov_mpool *pool, void *elem);

/* The same two in line, for the sending path. A free element's first word links it to the next. */
static inline void *tov_mpool_take(struct tov_mpool *pool)
{
    if (pool->elem_avail < 1)
        return NULL;
    char *elem = pool->elem_next;
    memcpy(&pool->elem_next, elem, sizeof pool->elem_next);
    pool->elem_avail--;
    return elem;
}
static inline void tov_mpool_put(struct tov_mpool *pool, void *elem)
{
    memcpy(elem, &pool->elem_next, sizeof pool->elem_next);
    pool->elem_next = (char *)elem;
    pool->elem_avail++;
}

int tov_mpool_isempty(struct tov_mpool *pool);

/* Frees the pool's record, not the storage; null is harmless. */
void tov_mpool_fini(struct tov_mpool *pool);

TOV_END_DECLS

#endif
