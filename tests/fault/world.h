/* A host, a stepped adapter and what an operation needs of endpoints and channels, with the numbered faults over it. */
#pragma once

#include "adapter_rig.h"
#include "fault_seam.h"
#include "oxel_raw.h"

#include <functional>

namespace fault {

using adapter_rig::GROUP;
using adapter_rig::HOST;
using adapter_rig::PEER;
using BoardChange = std::function<void(softnic_board_config_t &)>;

/* What the process has of the host. */
struct Holdings {
    std::vector<std::string> descriptors; /* where they lead, sorted */
    std::vector<std::string> shared;      /* mappings of memory files, the adapter's included */
    std::vector<std::string> memberships; /* the kernel's lists of groups and of sources */
    size_t threads = 0;

    static Holdings now();
    static Holdings without_mappings(); /* and without the adapter's own files, which come and go with endpoints */
    bool operator==(const Holdings &other) const;
    std::string minus(const Holdings &other) const; /* what is here and not there, in words; both ways */
};

struct World {
    explicit World(const BoardChange &change);
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    test_support::ScopedEnv no_check{"RUK_IP_ACCELERATION", "1"};
    test_support::LibcHookGuard hooks;
    adapter_rig::Wire wire;
    const bool waits_answered = answer_waits(); /* below the faults, hence before them */
    Seam seam;

    /* What operations work on; what is left of it goes with the world. */
    ruk_device_t dev = nullptr;
    ruk_channel_t ch = nullptr;
    ruk_channel_t second = nullptr;
    ruk_send_t handle = nullptr;
    oxel_raw_endpoint_t raw = nullptr;
    tov_handle_t soft = -1;
    tov_handle_t left_handle = -1; /* of a raw endpoint that is closed */
    struct tov_ifaddrs *list = nullptr;
    struct ruk_recv_info info = {};
    uint8_t buf[2048] = {};

    int lists_read = 0;            /* of the host's interfaces, by the operation */
    unsigned prompts = 0;          /* datagrams sent to make the kernel resolve a neighbour */
    bool answers_a_prompt = false; /* the neighbour is known from the first of them on */
    bool closes_asleep = false;    /* who waits for events finds the endpoint closed meanwhile */
    struct timeval clock = {1700000000, 0};

    /* Steps of preparation; they must succeed. */
    void open(int flags = RUK_OPEN_THREAD_SAFE);
    void bind(int flags = 0);
    void know_neighbour();
    void route();
    void arrive();           /* a datagram for the channel */
    void connect();          /* a handle to the peer */
    void fill();             /* sends until there is no room */
    void close();            /* the endpoint, with all that hangs on it */
    void close_raw_handle(); /* what closing a raw endpoint leaves open */
    void close_left_handle();
    void forget_endpoint(); /* which is closed */
    void release();         /* all of it */

private:
    bool answer_waits();
};

struct sockaddr_in peer_address();
struct in_addr group_address();

} // namespace fault
