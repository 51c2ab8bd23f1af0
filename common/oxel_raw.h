/*
 * Raw endpoint: frames through the driver's raw send service, with at most 64 sends outstanding.
 *
 * One thread may wait for events while others send. Results are 0 or a positive errno value.
 */
#ifndef OXEL_RAW_H
#define OXEL_RAW_H

#include "tov_types.h"

#include <pthread.h>

TOV_BEGIN_DECLS

#define OXEL_RAW_MAX_PENDING 64

/* Event kind: a send has completed. */
#define OXEL_RAW_EVENT_SENT 1

struct oxel_raw_endpoint {
    pthread_mutex_t lock;            /* guards pending_sends and the send command */
    pthread_mutex_t next_event_lock; /* serialises event waits */
    tov_handle_t handle;             /* the open device; closed by its owner, not by the close call */
    int board_num;
    int board_type;
    int pending_sends; /* sends issued and not yet reported complete */
};
typedef struct oxel_raw_endpoint *oxel_raw_endpoint_t;

/* Opens a raw endpoint on a board. Errors: ENOMEM, those of tov_open() and of the driver. */
int oxel_raw_open_endpoint(int board_number, oxel_raw_endpoint_t *endpoint, uint8_t product);

/* Frees the record; the device handle stays open and is the caller's to close. Returns 0. */
int oxel_raw_close_endpoint(oxel_raw_endpoint_t endpoint);

tov_handle_t oxel_raw_handle(oxel_raw_endpoint_t endpoint);

/* Queues one frame. Errors: EBUSY with 64 sends pending (no command is issued), those of the driver. */
int oxel_raw_send(oxel_raw_endpoint_t endpoint, int physical_port, void *route_pointer, int route_length,
                  void *send_buffer, int data_length, void *context);

/*
 * Waits up to timeout_ms milliseconds for the next event; *recv_bytes is the buffer's size. *status receives
 * the event's kind; *context and *nic_ticks are written only when it is OXEL_RAW_EVENT_SENT, and
 * *incoming_port and *recv_bytes never are. Errors: those of the driver.
 */
int oxel_raw_next_event(oxel_raw_endpoint_t endpoint, int *incoming_port, void **context, void *recv_buffer,
                        int *recv_bytes, int timeout_ms, int *status, uint64_t *nic_ticks);

TOV_END_DECLS

#endif
