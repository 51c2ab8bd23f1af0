/* An adapter and one thread-safe endpoint for two threads. */
#pragma once

#include "oxel_raw.h"
#include "plain_host.h"
#include "recv_frames.h"
#include "ruk.h"
#include "scoped_env.h"
#include "softnic.h"

#include <atomic>
#include <memory>

namespace threads {

constexpr uint32_t HOST = 0x7f000001;
constexpr uint32_t PEER = 0x7f000002;

enum class Switch { off, on };

/*
 * The adapter; its memory and the library's are one, so that the thread checker sees both sides. With a switch before
 * it, endpoints have the switch's times on, and every delivery brings a keyframe as well.
 */
struct Adapter {
    explicit Adapter(Switch before = Switch::off);
    ~Adapter();
    Adapter(const Adapter &) = delete;
    Adapter &operator=(const Adapter &) = delete;

    /* A datagram, which then lies in the ring. */
    void deliver(uint32_t to, uint16_t port) const;
    /* The switch's next keyframe, where there is a switch. */
    void deliver_keyframe() const;

    test_support::ScopedEnv no_check{"RUK_IP_ACCELERATION", "1"};
    test_support::ScopedEnv rate{"TOV_CYCLES_PER_SECOND", nullptr}, old_rate{"KZ_CYCLES_PER_SECOND", nullptr};
    test_support::ScopedEnv switch_times;
    softnic_t *nic = nullptr;
    uint8_t mac[6];
    std::unique_ptr<PlainHost> host;
};

ruk_device_t open_endpoint(int flags = RUK_OPEN_THREAD_SAFE);

/* Of no channel: what arrives there, once add_stray() has been called, is dropped and counted. */
constexpr uint16_t STRAY_PORT = 899;
void add_stray(ruk_device_t dev);

constexpr int REQUESTS = 8; /* that an endpoint can have in flight */

/* What two threads share, and what each of them (0 or 1) has to itself. */
struct Shared {
    explicit Shared(const Adapter &adapter, int flags = RUK_OPEN_THREAD_SAFE);
    ~Shared();
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;

    void deliver() const; /* to the channel, and before it one that no channel takes */
    void settle();        /* with both threads at rest: nothing to receive, nothing in flight */

    /* For threads that wait for room. All that is posted is counted by who posts it. */
    void fill();         /* no room any more */
    void complete_one(); /* of what is posted, if somebody waits */

    const Adapter &adapter;
    ruk_device_t dev;
    ruk_channel_t ch = nullptr;
    ruk_channel_t own[2] = {};
    ruk_send_t handle = nullptr;
    oxel_raw_endpoint_t raw = nullptr;
    tov_handle_t soft = -1;
    uint16_t port = 0;
    std::atomic<unsigned> posted{0};
    unsigned completed = 0;
};

/* In a loop that waits for another thread: sleeps from the PATIENCE-th time on, so that a loaded machine runs that one.
 */
constexpr int PATIENCE = 200;
void pause(int i);

struct sockaddr_in peer_address(int side);
struct in_addr group_of(int side);

} // namespace threads
