/*
 * What the tests of sending share: an endpoint whose regions are the test's memory, one on the stepped software
 * adapter, and a reading of sent frames that knows nothing of the library.
 */
#pragma once

#include "endpoint_test.h"
#include "recv_rig.h"

#include "softnic.h"

#include <sys/ioctl.h>

#include <string>
#include <vector>

namespace send_rig {

using namespace test_support;
using recv_rig::Bytes;
using recv_rig::pattern;

/* Kinds of request: the payload in the adapter's memory, or fetched. */
constexpr unsigned PIO = 13, DMA = 14;

Bytes unhex(const std::string &digits); /* blanks are ignored */

/* ------------------------------------------------------------------ Internet checksums, as their standard has them */

/* Ones'-complement sum of the bytes as big-endian 16-bit words, an odd one padded with zero; folded to 16 bits. */
uint16_t internet_sum(const Bytes &bytes);

/* A sum in the machine's representation (little-endian words, up to 32 bits) as the 16 bits it stands for. */
uint16_t as_internet_sum(uint32_t sum);

/* ------------------------------------------------------------------ a datagram in a frame */

struct Datagram {
    std::string dst_mac, src_mac; /* twelve digits */
    int vlan = -1;                /* tag control word */
    unsigned tos = 0, total_length = 0, id = 0, fragment_word = 0, ttl = 0, protocol = 0;
    std::string src, dst; /* "10.77.0.1:5000" */
    unsigned udp_length = 0, udp_checksum = 0;
    bool ip_checksum_good = false;
    bool udp_checksum_good = false; /* present and right */
    Bytes payload;
};

/* False when the bytes are no frame with a UDP datagram in an IPv4 packet without options. */
bool read_datagram(const Bytes &frame, Datagram *datagram);

/* ------------------------------------------------------------------ an endpoint over memory */

/*
 * Requests are read from the window, payloads from their rings; completions are what the test says. The driver's
 * wait command is answered by on_wait, or fails with EIO.
 */
class RequestTest : public EndpointTest {
protected:
    RequestTest();

    /* Opens with a DMA threshold and a number of request records. */
    ruk_device_t open_with(uint32_t threshold, uint32_t records = 16, int flags = RUK_OPEN_THREAD_SAFE);

    /* A frame header of 42 bytes 00 to 29, sent with the lock held as callers have to. */
    int send(const void *payload, int length, int flags = RUK_NONBLOCK);
    int send(int length, int flags = RUK_NONBLOCK) { return send(buffer, length, flags); }

    Bytes slot(unsigned type) const { return window(type * 256, 64); }
    Bytes window(size_t offset, size_t length) const;
    uint32_t data_offset(unsigned type) const;
    Bytes pio(size_t offset, size_t length) const;
    Bytes dma(size_t offset, size_t length) const;
    ruk__sendbuf &pio_ring() { return dev->rep_pioreq.pio_sb; }
    ruk__sendbuf &dma_ring() { return dev->rep_dmabuf; }
    uint32_t &reaped() { return dev->rep_pioreq.tx_flow->flow_desc; }

    void complete(unsigned n = 1) { set_counter(static_cast<uint16_t>(counter + n)); }
    void set_counter(uint16_t value);
    uint16_t counter = 0;

    /* What a failed attempt must leave alone. */
    struct State {
        ruk__sendbuf pio, dma;
        int records;
        uint16_t sends;
        std::vector<ruk__request *> in_flight;
        Bytes window;
        bool operator==(const State &) const;
    };
    State state_now();
    std::vector<ruk__request *> in_flight() const; /* oldest first, at most 100 */
    bool lock_is_free();

    std::function<int()> on_wait; /* 0 or an errno value */
    std::vector<Bytes> waits;     /* argument of each wait command */
    uint8_t header[42];
    alignas(64) uint8_t buffer[40000];
};

/* ------------------------------------------------------------------ an endpoint of the software adapter */

/*
 * 10.77.0.1/24 on "oxel0" and 10.77.7.1/24 on "vlan7", one adapter of MAC address 02:6f:78:00:00:01; neighbours
 * 10.77.0.2 (02:00:00:00:00:02), 10.77.7.2 (02:00:00:00:07:02) and the gateway 10.77.0.254 (02:00:00:00:00:fe) of a
 * default route.
 */
class SendTest : public testing::Test {
protected:
    SendTest();
    ~SendTest() override;

    /* Makes the adapter, opens an endpoint with locks and binds both channels to port 5000. */
    void start(const std::function<void(softnic_board_config_t &)> &change = {});
    void SetUp() override { start(); }

    /* Frames sent since the last call, oldest first. Firmware runs first. */
    std::vector<Bytes> sent();
    Datagram sent_datagram(); /* the one frame sent since */
    Bytes next_request();     /* the oldest request taken and not yet asked for; empty when there is none */
    bool lock_is_free();
    std::vector<ruk_send_t> bucket(ruk_channel_t channel, int index) const;
    size_t handles(ruk_channel_t channel) const; /* in all buckets */
    unsigned arp_queries() const { return host.sockets.count_ioctl(SIOCGARP); }

    LibraryState state;
    ScopedEnv no_check{"RUK_IP_ACCELERATION", "1"};
    ScopedEnv no_arista{"OXEL_ARISTA_ENABLE_TIMESTAMPING", nullptr};
    FakeHost host;
    KernelSockets kernel{host.sockets};
    softnic_t *nic = nullptr;
    ruk_device_t dev = nullptr;
    ruk_channel_t ch = nullptr;     /* 10.77.0.1:5000 */
    ruk_channel_t tagged = nullptr; /* 10.77.7.1:5000 */
};

} // namespace send_rig
