/*
 * Raw endpoint: frames through the driver's raw send service.
 */
#include "oxel_raw.h"
#include "nuv_types.h"
#include "tov.h"

#include <errno.h>
#include <stdlib.h>

static uint64_t address(const void *p) { return reinterpret_cast<uintptr_t>(p); }

int oxel_raw_open_endpoint(int board_number, oxel_raw_endpoint_t *endpoint, uint8_t product)
{
    oxel_raw_endpoint_t ep = static_cast<oxel_raw_endpoint_t>(calloc(1, sizeof *ep));
    if (!ep)
        return ENOMEM;

    tov_handle_t handle = -1;
    int rc = tov_open(board_number, -2, &handle, product);
    if (rc) {
        free(ep);
        return rc;
    }

    uint32_t type = static_cast<uint32_t>(board_number);
    rc = tov_ioctl(handle, OXEL_RAW_OPEN, nullptr, 0);
    if (rc == 0)
        rc = tov_ioctl(handle, OXEL_GET_NIC_TYPE, &type, sizeof type);
    if (rc) {
        tov_close(handle);
        free(ep);
        return rc;
    }

    pthread_mutex_init(&ep->lock, nullptr);
    pthread_mutex_init(&ep->next_event_lock, nullptr);
    ep->handle = handle;
    ep->board_num = board_number;
    ep->board_type = static_cast<int>(type);
    *endpoint = ep;
    return 0;
}

int oxel_raw_close_endpoint(oxel_raw_endpoint_t endpoint)
{
    pthread_mutex_destroy(&endpoint->lock);
    pthread_mutex_destroy(&endpoint->next_event_lock);
    free(endpoint);
    return 0;
}

tov_handle_t oxel_raw_handle(oxel_raw_endpoint_t endpoint) { return endpoint->handle; }

int oxel_raw_send(oxel_raw_endpoint_t endpoint, int physical_port, void *route_pointer, int route_length,
                  void *send_buffer, int data_length, void *context)
{
    int rc = EBUSY;

    pthread_mutex_lock(&endpoint->lock);
    if (endpoint->pending_sends < OXEL_RAW_MAX_PENDING) {
        oxel_raw_send_t req = {};
        req.data_pointer = address(send_buffer);
        req.route_pointer = address(route_pointer);
        req.context = address(context);
        req.route_length = static_cast<uint8_t>(route_length);
        req.physical_port = static_cast<uint8_t>(physical_port);
        req.data_length = static_cast<uint16_t>(data_length);
        rc = tov_ioctl(endpoint->handle, OXEL_RAW_SEND, &req, sizeof req);
        if (rc == 0)
            endpoint->pending_sends++;
    }
    pthread_mutex_unlock(&endpoint->lock);
    return rc;
}

int oxel_raw_next_event(oxel_raw_endpoint_t endpoint, int *incoming_port, void **context, void *recv_buffer,
                        int *recv_bytes, int timeout_ms, int *status, uint64_t *nic_ticks)
{
    (void)incoming_port;
    oxel_raw_next_event_t event = {};
    event.recv_buffer = address(recv_buffer);
    event.recv_bytes = static_cast<uint32_t>(*recv_bytes);
    event.timeout = static_cast<uint32_t>(timeout_ms);

    pthread_mutex_lock(&endpoint->next_event_lock);
    int rc = tov_ioctl(endpoint->handle, OXEL_RAW_NEXT_EVENT, &event, sizeof event);
    pthread_mutex_unlock(&endpoint->next_event_lock);
    if (rc)
        return rc;

    *status = static_cast<int>(event.status);
    if (event.status == OXEL_RAW_EVENT_SENT) {
        *context = reinterpret_cast<void *>(static_cast<uintptr_t>(event.context));
        *nic_ticks = event.nic_ticks;
        pthread_mutex_lock(&endpoint->lock);
        endpoint->pending_sends--;
        pthread_mutex_unlock(&endpoint->lock);
    }
    return 0;
}
