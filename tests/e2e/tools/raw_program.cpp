/*
 * A raw endpoint on board 0: sends the frame that its standard input holds, waits until it has left, then prints the
 * text of the next frame of EtherType 0x88b5 that comes in.
 */
#include "oxel_raw.h"
#include "tov.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

int main()
{
    oxel_raw_endpoint_t endpoint;
    if (int rc = oxel_raw_open_endpoint(0, &endpoint, TOV_PRODUCT)) {
        fprintf(stderr, "open: %s\n", strerror(rc));
        return 1;
    }
    // What a program passes as context is commonly a pointer: as wide as they come, for mappings lie high.
    void *context = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    uint8_t frame[1514];
    const ssize_t len = read(STDIN_FILENO, frame, sizeof frame);
    if (int rc = oxel_raw_send(endpoint, 0, nullptr, 0, frame, static_cast<int>(len), context)) {
        fprintf(stderr, "send: %s\n", strerror(rc));
        return 1;
    }
    bool sent = false;
    for (;;) {
        uint8_t buffer[2048] = {};
        int port = 0, bytes = sizeof buffer, status = 0;
        void *of = nullptr;
        uint64_t ticks = 0;
        if (int rc = oxel_raw_next_event(endpoint, &port, &of, buffer, &bytes, 20000, &status, &ticks)) {
            fprintf(stderr, "event: %s\n", strerror(rc));
            return 1;
        }
        if (status == OXEL_RAW_EVENT_SENT) {
            const bool wide = sizeof(void *) == 4 || reinterpret_cast<uintptr_t>(of) > UINT32_MAX;
            printf("sent, context %s, ticks %s\n", of == context && wide ? "as given" : "changed",
                   ticks != 0 ? "there" : "missing");
            fflush(stdout);
            sent = true;
        } else if (sent && buffer[12] == 0x88 && buffer[13] == 0xb5) {
            printf("received %s\n", reinterpret_cast<char *>(buffer + 14));
            break;
        }
    }
    const tov_handle_t handle = oxel_raw_handle(endpoint);
    oxel_raw_close_endpoint(endpoint);
    return tov_close(handle) == 0 ? 0 : 1;
}
