/*
 * The software adapter, linked into a program and driven step by step.
 *
 * Boards of the program's making appear in the process as "/dev/oxelB0", "/dev/oxelB1", ...: what opens, commands
 * and maps these files reaches them, libruk included. No thread runs: firmware works only inside the calls below,
 * time stands still but for softnic_advance(), and so every run is the same. Frames are injected and taken by the
 * program; nothing touches a network.
 *
 *     softnic_board_config_t config;
 *     softnic_board_defaults(&config, 0);
 *     memset(config.mac, 0, sizeof(config.mac));
 *     softnic_t *nic = softnic_create(&config, 1, 1700000000000000000);
 *     softnic_attach(nic);
 *     ... ruk_init(), ruk_open() of 127.0.0.1, ruk_bind() ...
 *     softnic_inject(nic, 0, frame, sizeof(frame));
 *     softnic_run(nic);
 *     ... ruk_recvfrom() ...
 *     softnic_destroy(nic);
 *
 * The library finds a board by the host's interface that has its MAC address: all zero is that of the loopback
 * interface, which every host has.
 *
 * C11 and C++20; a C program is linked with -lsoftnic -lstdc++ -lm -lpthread. All calls may be made from any thread
 * while others use the devices, but for attach, detach and destroy. Boards and endpoints are numbered from 0; one that
 * is not there makes a call do nothing and give 0, null or EINVAL.
 *
 * Frames may come out of a capture file: softnic_pcap_open(). examples/market_data is an application with a whole
 * suite of tests over this header.
 *
 * Header and archives belong to one release: compile a test again with each. softnic_board_defaults() fills what a
 * later one adds to the configuration, so that this needs no change of a test; other changes are named in the change
 * log. Nothing more is promised before release 1.0.
 */
#ifndef SOFTNIC_H
#define SOFTNIC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct softnic_system softnic_t;

/* ------------------------------------------------------------------ set-up */

typedef struct softnic_board_config {
    uint8_t mac[6];                /* permanent address */
    uint8_t current_mac[6];        /* address in use; all zero = the permanent one */
    uint32_t endpoints;            /* 1 to 64 */
    uint32_t nic_type;             /* type code that the driver reports */
    uint32_t recvq_size;           /* event ring, bytes; made a power of two, 16 KiB to 32 MiB */
    uint32_t sendq_size;           /* DMA payload ring, bytes; made a power of two, 4 KiB to 32 MiB */
    uint32_t dmasend_threshold;    /* largest payload sent by PIO, bytes */
    uint32_t sreqs_count;          /* send request slots that the driver reports */
    uint32_t max_packets;          /* packets an event at most, 1 to 5 */
    uint32_t clock_ns_numerator;   /* nominal ns a tick = numerator / denominator */
    uint32_t clock_ns_denominator; /* see above */
    int64_t clock_drift_ppb;       /* how much faster than nominal the adapter clock runs */
    uint64_t clock_ticks_mask;     /* published tick mask, 0 = none */
    uint64_t clock_first_ticks;    /* the clock's value when the board is made */
    int hardware_order;            /* events become visible before their last bytes, which come a step later */
    int trailer_on_wire;           /* frames arrive with a 4-byte trailer already on */
    int manual_sends;              /* requests wait for softnic_take_requests() and softnic_complete_requests() */
    /* Mappings are the adapter's own memory at one address, so that a thread checker sees both sides; they end with
     * their handle and are never read-only. */
    int one_address;
    int link_up;               /* non-zero: the link is up from the start */
    uint32_t driver_api_magic; /* driver interface version */
    char driver_version[60];   /* zero-terminated */
    char driver_build[128];    /* zero-terminated */
} softnic_board_config_t;

/* A board of 8 endpoints with a MAC address of the family that ends in board + 1. */
void softnic_board_defaults(softnic_board_config_t *config, unsigned board);

/* Makes the boards; virtual time starts at start_ns of the host's real-time clock. Null when memory is short. */
softnic_t *softnic_create(const softnic_board_config_t *boards, unsigned count, uint64_t start_ns);

/* Makes their device files exist in this process. 0, or EBUSY when this or another adapter is attached. */
int softnic_attach(softnic_t *nic);

/* Takes the device files away again. Descriptors that are still open are closed. */
void softnic_detach(softnic_t *nic);

/* Detaches and frees all. Mappings that the program still has stay valid memory. Null is harmless. */
void softnic_destroy(softnic_t *nic);

/* From the next mapping of a request window on, every request is caught as it is posted. Without this the windows
 * are looked at whenever firmware runs: a request that was overwritten before is lost, and of a request of each of the
 * two types (payload by PIO, by DMA) that wait then, which was posted first is not known: that order needs this call
 * too. To be had from libsoftnic_capture.a, which is linked with -lsoftnic_tap, since it handles signals. */
void softnic_capture_requests(softnic_t *nic);

/* ------------------------------------------------------------------ time */

/* Virtual time, ns of the real-time clock. */
uint64_t softnic_now(softnic_t *nic);

/* Moves time forward and republishes the adapter clocks. Runs no firmware. */
void softnic_advance(softnic_t *nic, uint64_t ns);

/* The board's clock now, ticks. */
uint64_t softnic_ticks(softnic_t *nic, unsigned board);

/* ------------------------------------------------------------------ firmware */

/* Runs the firmware of all boards until nothing is left to do. Returns the number of rounds that did something. */
unsigned softnic_run(softnic_t *nic);

/* One unit of work of one board: finishes early-shown events, else sends a request, else takes a frame into the
 * event being filled, else publishes the filled events. 1, or 0 when there was nothing to do. */
int softnic_step(softnic_t *nic, unsigned board);

/* With hold non-zero, events of a board with hardware_order stay incomplete until it is called with 0. */
void softnic_hold_events(softnic_t *nic, unsigned board, unsigned endpoint, int hold);

/* Events from now on hold up to this many packets (1 to 5). */
void softnic_set_max_packets(softnic_t *nic, unsigned board, unsigned n);

/* ------------------------------------------------------------------ wire */

/* A frame for the board, from the destination MAC address to the last byte, without check sequence. It is copied
 * and waits until firmware runs. It arrives now and is dated so, unless more than an hour passes until then. */
void softnic_inject(softnic_t *nic, unsigned board, const void *frame, size_t len);

/* The oldest frame that the board sent, at most cap bytes of it. Returns its length, or 0 when there is none. */
size_t softnic_take_sent(softnic_t *nic, unsigned board, void *frame, size_t cap);
unsigned softnic_sent_count(softnic_t *nic, unsigned board);

/* Puts a model of a timestamping switch in front of the board, from now on: it appends its 4-byte stamp to every
 * injected frame, and sends keyframes as virtual time moves, each at its own moment, the first at once. options is
 * one or more of these, with commas between them (what is left out is as in a healthy switch: "seed=1" is one):
 *
 *     rate=HZ            rate of its clock, ticks a second (350000000)
 *     interval=MS        from keyframe to keyframe, ms; 0 = none (1000)
 *     skew=NUM/DEN       the clock's true rate is HZ * NUM / DEN, and keyframes carry both numbers
 *     ptp-lost=FROM-TO   keyframes have no synchronisation time in this span, seconds after the call
 *     lose=CHANCE        chance of each keyframe to be lost, 0 to 1 (0)
 *     mode=N@SECONDS     keyframes announce mode N from then on; may be given again for later times (1@0)
 *     dst=ADDRESS        where keyframes are sent to (1.1.1.0)
 *     seed=N             of the losses (1)
 *
 * The same options and the same calls give the same frames. Another call replaces the switch by a new one; null or
 * "" takes it away. Frames that wait for firmware are stamped, or lose their stamp, with the call. 0, or EINVAL and
 * nothing changed: no such board, a board with trailer_on_wire, an option that is none or makes no sense. */
int softnic_set_switch(softnic_t *nic, unsigned board, const char *options);

/* Frames out of a capture file in the classic pcap format, of either byte order and time unit, to be injected:
 *
 *     softnic_pcap_t *file = softnic_pcap_open("feed.pcap", error, sizeof(error));
 *     while (softnic_pcap_next(file, &time_ns, &frame, &len) == 1) { ... softnic_inject(nic, 0, frame, len); ... }
 *     softnic_pcap_close(file);
 *
 * Null with the reason in error (zero-terminated, at most cap bytes, null is allowed) when there is no such file, or
 * it is a pcapng file, or holds no Ethernet frames. */
typedef struct softnic_pcap softnic_pcap_t;
softnic_pcap_t *softnic_pcap_open(const char *path, char *error, size_t cap);

/* The next whole frame, padded to 60 bytes, and when it was captured, ns since 1970. It stays valid until the next
 * call. Frames of which the capture kept only the beginning, and short ones that end inside their datagram, are passed
 * over. 1, or 0 at the end, or -1 where the file is cut off or damaged within a frame, or cannot be read on. */
int softnic_pcap_next(softnic_pcap_t *file, uint64_t *time_ns, const void **frame, size_t *len);

/* Null is harmless. */
void softnic_pcap_close(softnic_pcap_t *file);

/* The board's link goes up, or down with up = 0. */
void softnic_set_link(softnic_t *nic, unsigned board, int up);

/* The next n sends (all with n below 0), or all changes of the steering, fail with this errno value; 0 ends it. */
void softnic_fail_sends(softnic_t *nic, unsigned board, int error, int n);
void softnic_fail_steering(softnic_t *nic, unsigned board, int error);

/* 1 when the board takes frames of this key away from the host; all in host byte order, vlan 0 = untagged. */
int softnic_steered(softnic_t *nic, unsigned board, uint32_t ip, uint16_t port, uint16_t vlan, uint8_t proto);

/* 1 when the board asks its interface for frames to other stations as well. */
int softnic_promiscuous(softnic_t *nic, unsigned board);

/* ------------------------------------------------------------------ sending */

/* Requests posted and not taken. */
unsigned softnic_posted_requests(softnic_t *nic, unsigned board, unsigned endpoint);

/* With manual_sends: takes up to max requests, whose frames leave. Returns how many. */
unsigned softnic_take_requests(softnic_t *nic, unsigned board, unsigned endpoint, unsigned max);

/* With manual_sends: reports up to max taken requests complete. Returns how many. */
unsigned softnic_complete_requests(softnic_t *nic, unsigned board, unsigned endpoint, unsigned max);

/* Adds n to the completion counter as it stands, taken requests or not. */
void softnic_bump_completions(softnic_t *nic, unsigned board, unsigned endpoint, unsigned n);

/* Posts 64 bytes as if they had been written to the request window. 1, or 0 when too many wait. */
int softnic_post_request(softnic_t *nic, unsigned board, unsigned endpoint, const void *request);

/* The oldest of the last 4096 requests taken, as its 64 bytes. 1, or 0 when there is none. */
int softnic_next_request(softnic_t *nic, unsigned board, unsigned *endpoint, void *request);

/* ------------------------------------------------------------------ driver */

/* Asked before each driver command, and with command 0 before each open: a non-zero errno value fails it. It must
 * not call back into the adapter's devices. Null ends it. */
void softnic_set_command_hook(softnic_t *nic, int (*hook)(void *context, unsigned board, unsigned long command),
                              void *context);

/* Commands (0 = open) since the last clear, at most cap of them into list. Returns how many there are. */
size_t softnic_commands(softnic_t *nic, unsigned long *list, size_t cap);
void softnic_clear_commands(softnic_t *nic);

/* Called when a waiting command finds nothing: returns 0 to look again, or the errno value that the command fails
 * with. Without a hook the firmware runs until the wait ends; when that leads nowhere, a wait with a limit ends
 * with virtual time moved on by the limit, and one without fails with EDEADLK. */
void softnic_set_wait_hook(softnic_t *nic, int (*hook)(void *context, unsigned board), void *context);

/* With blocking non-zero, waits that nothing ends sleep until another thread runs firmware or completes requests. */
void softnic_set_blocking_waits(softnic_t *nic, int blocking);

/* Also answer to "/dev/oxelBp<n>". */
void softnic_answer_first_form(int answer);

/* Endpoints that are claimed, one bit each. */
uint64_t softnic_claimed(softnic_t *nic, unsigned board);

/* ------------------------------------------------------------------ memory and counters */

typedef struct softnic_regions {
    uint8_t *recvq; /* event ring */
    size_t recvq_len;
    uint8_t *sendq; /* DMA payloads */
    size_t sendq_len;
    uint8_t *sram; /* PIO payloads and doorbell word */
    size_t sram_len;
    uint8_t *zreq; /* request window */
    size_t zreq_len;
    uint8_t *flow; /* flow windows */
    size_t flow_len;
    uint8_t *window; /* kernel window */
    size_t window_len;
    uint8_t *compcnt; /* this endpoint's completion counter, 2 bytes */
} softnic_regions_t;

/* The adapter's own view of an endpoint's memory. EINVAL when the endpoint is not enabled. */
int softnic_regions(softnic_t *nic, unsigned board, unsigned endpoint, softnic_regions_t *regions);

typedef struct softnic_board_counters {
    uint64_t arrived;   /* = matched + unmatched + malformed */
    uint64_t matched;   /* meant for at least one endpoint */
    uint64_t unmatched; /* no endpoint wanted it */
    uint64_t malformed; /* shorter than an Ethernet header or longer than a length field can say */
    /* Copies for raw endpoints, which get one of every frame besides: dropped, since 256 were not fetched. */
    uint64_t raw_dropped;
} softnic_board_counters_t;

typedef struct softnic_endpoint_counters {
    uint64_t steered;       /* = delivered + disabled + ring_full + oversize, once firmware is idle */
    uint64_t delivered;     /* written to the ring */
    uint64_t events;        /* events that held them */
    uint64_t disabled;      /* dropped: the endpoint's queues were not enabled */
    uint64_t ring_full;     /* dropped: no room in the ring */
    uint64_t oversize;      /* dropped: longer than an event or the ring */
    uint64_t bad_flow;      /* positions reported by the consumer that cannot be, ignored */
    uint64_t high_water;    /* most bytes of the event ring, or of the last one, unconsumed at a time */
    uint64_t requests;      /* send requests taken */
    uint64_t frames_sent;   /* of these, put on the wire */
    uint64_t send_errors;   /* of these, refused by the wire */
    uint64_t completed;     /* requests reported complete since the endpoint was enabled */
    uint64_t bad_type;      /* requests of a type not served, dropped */
    uint64_t bad_header;    /* requests with header length 0 or above 56, dropped */
    uint64_t bad_payload;   /* requests whose payload lies outside its ring, dropped */
    uint64_t post_overflow; /* requests lost because too many waited */
    /*
     * Lost before that: requests beyond those that can be kept, and watchpoint hits that came late, behind each of
     * which any number of requests may be lost.
     */
    uint64_t lost_requests;
} softnic_endpoint_counters_t;

void softnic_board_counters(softnic_t *nic, unsigned board, softnic_board_counters_t *counters);
void softnic_endpoint_counters(softnic_t *nic, unsigned board, unsigned endpoint,
                               softnic_endpoint_counters_t *counters);

#ifdef __cplusplus
}
#endif

#endif
