#include "operations.h"
#include "ruk.hpp"
#include "ruk_core.h"
#include "tov.h"

#include <errno.h>

namespace fault {

std::string to_string(const Outcome &outcome)
{
    switch (outcome.how) {
    case Outcome::exits:
        return "exit status " + std::to_string(outcome.code);
    case Outcome::aborts:
        return "abort";
    default:
        return outcome.code > 0 ? std::string("result ") + strerrorname_np(outcome.code)
                                : "result " + std::to_string(outcome.code);
    }
}

std::string memory_of(size_t bytes) { return "memory of " + std::to_string(bytes) + " bytes"; }

Outcome its_error(int error) { return {Outcome::returns, error}; }
Outcome ignored(int) { return {Outcome::returns, 0}; }

namespace {

template <int code> Outcome always(int) { return {Outcome::returns, code}; }
Outcome exit_1(int) { return {Outcome::exits, 1}; }
Outcome abort_(int) { return {Outcome::aborts, 0}; }

/* The device file of any board: one that is not there is no adapter, one that cannot be had counts as taken. */
Outcome any_board(int error)
{
    switch (error) {
    case ENOENT:
        return its_error(ENOENT);
    case ENXIO:
    case ENODEV:
        return its_error(ENODEV);
    case EPERM:
    case EACCES:
        return its_error(EACCES);
    default:
        return its_error(EBUSY);
    }
}

/* One endpoint that is taken is passed over. */
Outcome taken_or_error(int error) { return its_error(error == EBUSY ? 0 : error); }

/* A driver that does not know the command: a datagram does the same. */
Outcome unknown_or_error(int error) { return its_error(error == ENOTTY ? 0 : error); }

/* Nobody there: to those who do not wait, one to try again. */
Outcome unknown_nobody_or_error(int error) { return error == ENXIO ? its_error(EAGAIN) : unknown_or_error(error); }

/* An enumeration that found nobody there is tried again. */
Outcome nobody_or_error(int error) { return its_error(error == ENXIO ? 0 : error); }

using Answers = std::vector<Answer>;

Answers operator+(Answers a, const Answers &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/* Both forms of a device's name are tried, the first of which is not there anyway. */
const Answers opening_any_board = {
    {"open /dev/oxelBp0", 1, ignored, any_board},
    {"open /dev/oxelB0", 1, any_board},
    {"close", 0, ignored},
};

/* The list of interfaces: an interface that does not tell its address sits on no adapter. */
const Answers listing = opening_any_board + Answers{
                                                {"ioctl GET_CURR_NIC_ID", 0, ignored}, /* older drivers */
                                            };

/* Claiming an endpoint: one that cannot be opened, or is taken, is passed over. */
Answers claiming(unsigned nth_any)
{
    return {
        {"open /dev/oxelBp0", nth_any, ignored, any_board},     {"open /dev/oxelB0", nth_any, any_board},
        {"open /dev/oxelBp0", nth_any + 1, ignored, its_error}, {"open /dev/oxelB0", nth_any + 1, ignored, its_error},
        {"ioctl SET_ENDPT", 1, taken_or_error, its_error},
    };
}

/* A socket that cannot be had is done without, but not where its name is asked for. */
Answers sending_socket(unsigned nth) { return {{"socket", nth, always<EBADF>}}; }

const Answers enabling = {{"mmap", 0, always<EINVAL>}};

/* Closing an endpoint with one group: its filter is the first to go, and must; the channel's own may stay. */
const Answers closing = {
    {"setsockopt IP_DROP_MEMBERSHIP", 1, ignored},
    {"ioctl RX_FILTER", 1, abort_},
    {"ioctl RX_FILTER", 2, ignored},
    {"munmap", 0, ignored},
    {"close", 0, ignored},
};

/* A missing route file is an empty one, and one that cannot be read on ends there: the first read is for all of it. */
Answers routes_but_for(const Difference &less)
{
    return {{"fopen /proc/net/route", 1, ignored, nullptr, less},
            {"read /proc/net/route", 1, ignored, nullptr, less},
            {"read /proc/net/route", 2, ignored}};
}
const Answers routes = routes_but_for({});

/* More than there is room for: the room grows, twice, unless they cannot be read. */
void with_many_routes(World &w)
{
    for (int i = 0; i < 40; i++)
        w.route();
}
constexpr size_t room_bytes = RUK_ROUTES_STEP * sizeof(struct rep_rtentry);
const Answers many_routes = routes_but_for({{memory_of(3 * room_bytes), -1}, {memory_of(room_bytes), 1}});

int open_endpoint(World &w, int flags)
{
    in_addr addr = {htonl(HOST)};
    return ruk_open(&addr, flags, &w.dev);
}

void close_endpoint(World &w) { w.close(); }

void with_endpoint(World &w) { w.open(); }

void with_disabled(World &w) { w.open(RUK_OPEN_THREAD_SAFE | RUK_OPEN_DISABLED); }

void with_channel(World &w)
{
    w.open();
    w.bind();
}

void with_group(World &w)
{
    with_channel(w);
    w.seam.library([&] {
        const in_addr group = group_address();
        ASSERT_EQ(ruk_mcast_join(w.ch, &group, nullptr), 0);
    });
}

void with_source(World &w)
{
    with_channel(w);
    w.seam.library([&] {
        const in_addr group = group_address(), source = {htonl(PEER)};
        ASSERT_EQ(ruk_mcast_join_source(w.ch, &group, &source), 0);
    });
}

/* The neighbour is in the kernel's table. */
void with_neighbour(World &w)
{
    w.route();
    w.know_neighbour();
    with_channel(w);
}

/* It is there after a prompt. */
void with_stranger(World &w)
{
    w.route();
    w.answers_a_prompt = true;
    with_channel(w);
}

void with_handle(World &w)
{
    with_neighbour(w);
    w.connect();
}

void with_group_and_handle(World &w)
{
    w.route();
    w.know_neighbour();
    with_group(w);
    w.connect();
}

void with_raw(World &w)
{
    w.seam.library([&] { ASSERT_EQ(oxel_raw_open_endpoint(0, &w.raw, TOV_PRODUCT), 0); });
}

int send_to_peer(World &w, int flags)
{
    const sockaddr_in sin = peer_address();
    return ruk_sendto(w.ch, &sin, w.buf, 3, flags);
}

int connect_to_peer(World &w, int flags)
{
    const sockaddr_in sin = peer_address();
    return ruk_send_connect(w.ch, &sin, flags, 0, &w.handle);
}

void disconnect(World &w)
{
    w.seam.library([&] { EXPECT_EQ(ruk_send_disconnect(w.handle), 0); });
    w.handle = nullptr;
}

void unbind(World &w)
{
    w.seam.library([&] { EXPECT_EQ(ruk_unbind(w.ch), 0); });
    w.ch = nullptr;
}

int receive(World &w, enum ruk_recvmode mode) { return ruk_recvfrom(w.dev, mode, w.buf, sizeof w.buf, &w.info); }

int receive_frame(World &w, enum ruk_recvmode mode)
{
    size_t len = sizeof w.buf;
    return ruk_raw_recv(w.dev, mode, w.buf, &len, nullptr);
}

void with_datagram(World &w)
{
    with_channel(w);
    w.arrive();
}

/* It comes after a keyframe, which its time is told from. */
void with_switch_datagram(World &w)
{
    {
        const test_support::ScopedEnv on("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
        w.open();
    }
    w.bind();
    ASSERT_EQ(softnic_set_switch(w.wire.nic, 0, "interval=1"), 0);
    softnic_advance(w.wire.nic, 1000000);
    softnic_run(w.wire.nic);
    w.seam.library([&] { ASSERT_EQ(receive(w, RUK_RECV_NONBLOCK), EAGAIN); });
    ASSERT_EQ(w.dev->arista_control.arct_status, ARISTA_STATUS_ACTIVE);
    w.arrive();
}

int send_raw(World &w)
{
    uint8_t header[42] = {};
    w.seam.library([&] { ruk__ep_lock(w.dev); });
    const int rc = ruk_raw_send(w.dev, header, sizeof header, 0, 0, w.buf, 64, 0);
    w.seam.library([&] { ruk__ep_unlock(w.dev); });
    return rc;
}

/* No room: the driver is waited in, which ends when a request is complete. */
void with_full_ring(World &w)
{
    with_handle(w);
    w.fill();
    softnic_set_wait_hook(
        w.wire.nic,
        [](void *context, unsigned) {
            World *world = static_cast<World *>(context);
            softnic_take_requests(world->wire.nic, 0, 0, 1);
            softnic_bump_completions(world->wire.nic, 0, 0, 1);
            return 0;
        },
        &w);
}

void by_hand(softnic_board_config_t &board) { board.manual_sends = 1; }

const Answers resolving = {
    {"ioctl SIOCGARP", 1, ignored, always<EADDRNOTAVAIL>},
};

/* First question, second one after a prompt. */
const Answers resolving_a_stranger = {
    {"ioctl SIOCGARP", 1, ignored, always<EADDRNOTAVAIL>},
    {"ioctl SIOCGARP", 2, ignored, always<EADDRNOTAVAIL>},
    {"ioctl SIOCGARP", 3, ignored, always<EADDRNOTAVAIL>},
    {"ioctl ARP_RESOLVE", 1, unknown_or_error},
    {"getifaddrs", 1, nobody_or_error},
};

/* ------------------------------------------------------------------ the list, family by family */

using List = std::vector<Operation>;

void add_initialisation(List &list)
{
    const Answers answers = opening_any_board;
    auto forget = [](World &) { ruk__api_version = 0; };
    list.push_back({"ruk_init", [](World &) { return ruk_init(RUK_API_VERSION); }, forget, {}, answers});
    list.push_back({"ruk__init",
                    [](World &) {
                        const int rc = ruk__init(RUK_API_VERSION);
                        ruk__init_ext = 0;
                        return rc;
                    },
                    forget,
                    {},
                    answers});
    list.push_back({"ruk_init, first form of the name",
                    [](World &) {
                        const int rc = ruk_init(RUK_API_VERSION);
                        softnic_answer_first_form(0);
                        return rc;
                    },
                    [](World &) {
                        softnic_answer_first_form(1);
                        ruk__api_version = 0;
                    },
                    [](World &) {},
                    {{"open /dev/oxelBp0", 1, ignored, any_board}, {"close", 1, ignored}}});
    list.push_back({"ruk_getticks",
                    [](World &w) {
                        ruk_ticks_t t = {1, 1, 1};
                        const int rc = ruk_getticks(w.dev, &t);
                        EXPECT_EQ(rc != 0, t.host_nsecs == 0);
                        return rc;
                    },
                    with_endpoint});
    list.push_back(
        {"ruk_device_handle", [](World &w) { return ruk_device_handle(w.dev) >= 0 ? 0 : -1; }, with_endpoint});
}

void add_opening(List &list)
{
    /* Which of its kind: 1 for the list of adapters, 2 for the claim. */
    const Answers before_routes = listing + claiming(2) + enabling +
                                  Answers{
                                      {"socket", 1, always<ENODEV>}, /* the interface's hardware address */
                                      {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>},
                                  } +
                                  sending_socket(2);
    const Answers opening = before_routes + routes;
    /* The error of the last endpoint that was tried: one is taken, the next cannot be opened. */
    const size_t first = list.size();
    list.push_back({"ruk_open", [](World &w) { return open_endpoint(w, 0); }, {}, close_endpoint, opening});
    list.push_back({"ruk_open, thread-safe, dated",
                    [](World &w) { return open_endpoint(w, RUK_OPEN_THREAD_SAFE | RUK_OPEN_HW_TIMESTAMPING); },
                    {},
                    close_endpoint,
                    opening});
    list.push_back({"ruk_open, verbose",
                    [](World &w) {
                        __ruk_verbose = 1;
                        const int rc = open_endpoint(w, 0);
                        __ruk_verbose = 0;
                        return rc;
                    },
                    {},
                    close_endpoint,
                    opening});
    list.push_back({"ruk_open, disabled",
                    [](World &w) { return open_endpoint(w, RUK_OPEN_DISABLED); },
                    {},
                    close_endpoint,
                    listing + claiming(2) + routes +
                        Answers{{"socket", 1, always<ENODEV>}, {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>}} +
                        sending_socket(2)});
    list.push_back({"ruk_open, subnets checked",
                    [](World &w) {
                        unsetenv("RUK_IP_ACCELERATION");
                        return open_endpoint(w, 0);
                    },
                    {},
                    close_endpoint,
                    listing + claiming(2) + enabling + routes +
                        Answers{
                            {"socket", 1, exit_1},
                            {"getifaddrs", 1, exit_1},
                            {"ioctl SIOCGIFHWADDR", 1, exit_1},
                            {"socket", 2, always<ENODEV>},
                            {"ioctl SIOCGIFHWADDR", 2, always<ENODEV>},
                        } +
                        sending_socket(3)});
    list.push_back({"ruk_open, more routes than there is room for",
                    [](World &w) {
                        const int rc = open_endpoint(w, 0);
                        if (rc != 0 && w.dev) { /* open all the same: the routes come last */
                            EXPECT_EQ(rc, ENOMEM);
                            ruk_close(w.dev);
                            w.dev = nullptr;
                        }
                        return rc;
                    },
                    with_many_routes, close_endpoint, before_routes + many_routes});
    list.back().also = {0}; /* routes that cannot be read need no room */
    list.push_back({"ruk_open, switch timestamps",
                    [](World &w) {
                        const test_support::ScopedEnv on("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
                        return open_endpoint(w, 0);
                    },
                    {},
                    close_endpoint,
                    /* The timestamps are switched off without their filter. */
                    opening + Answers{{"ioctl RX_FILTER", 1, ignored, nullptr, {{"filter in the adapter", -1}}}},
                    closing_summary});
    /* Failures of the look-up come back negated. */
    const Answers looking_up = {
        {"socket", 1, [](int e) { return its_error(-e); }},
        {"ioctl SIOCGIFCONF", 1, [](int e) { return its_error(-e); }},
        {"ioctl SIOCGIFADDR", 1, [](int e) { return its_error(-e); }},
        {"socket", 2, always<ENODEV>},
        {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>},
    };
    list.push_back({"ruk_open_if",
                    [](World &w) { return ruk_open_if("oxel0", 0, &w.dev); },
                    {},
                    close_endpoint,
                    looking_up + listing + claiming(2) + enabling + routes + sending_socket(3)});
    /* Two lists of adapters; without an interface of the address the open goes on, but not without any. */
    list.push_back({"ruk_open_by_perm_mac",
                    [](World &w) {
                        in_addr addr = {htonl(HOST)};
                        return ruk_open_by_perm_mac(w.wire.host.interfaces[0].mac.data(), &addr, 0, &w.dev);
                    },
                    {},
                    close_endpoint,
                    listing +
                        Answers{
                            {"open /dev/oxelBp0", 2, ignored, any_board},
                            {"open /dev/oxelB0", 2, any_board},
                            {"socket", 1, always<ENODEV>},
                            {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>},
                        } +
                        claiming(3) + enabling + routes + sending_socket(2)});
    for (size_t i = first; i < list.size(); i++)
        list[i].also.push_back(EMFILE);
}

void add_attributes(List &list)
{
    const ruk_device_attrs attrs = {RUK_RECV_FILTER_NORMAL, 32768, 1, 0};
    list.push_back({"ruk_device_get_attrs",
                    [](World &w) {
                        ruk_device_attrs a;
                        return ruk_device_get_attrs(w.dev, &a);
                    },
                    with_endpoint});
    const Answers must_not_fail = {{"ioctl GET_RUK_PARAMS", 1, abort_}};
    list.push_back({"ruk_device_set_attrs, filter mode",
                    [attrs](World &w) {
                        ruk_device_attrs a = attrs;
                        a.recvq_filter_mode = RUK_RECV_FILTER_RAW;
                        return ruk_device_set_attrs(w.dev, &a);
                    },
                    with_endpoint,
                    {},
                    must_not_fail});
    list.push_back({"ruk_device_set_attrs, disabled endpoint",
                    [attrs](World &w) {
                        ruk_device_attrs a = attrs;
                        return ruk_device_set_attrs(w.dev, &a);
                    },
                    with_disabled,
                    {},
                    must_not_fail});
    list.push_back(
        {"ruk_device_enable", [](World &w) { return ruk_device_enable(w.dev); }, with_disabled, {}, enabling});
    list.push_back({"ruk_shutdown", [](World &w) { return ruk_shutdown(w.dev, 0); }, with_endpoint});
    auto close_it = [](World &w) {
        ruk_device_t dev = w.dev;
        w.forget_endpoint();
        return ruk_close(dev);
    };
    list.push_back({"ruk_close", close_it, with_endpoint, {}, {{"munmap", 0, ignored}, {"close", 0, ignored}}});
    list.push_back({"ruk_close, disabled endpoint", close_it, with_disabled, {}, {{"close", 0, ignored}}});
    list.push_back({"ruk_close, channel, group and handle", close_it, with_group_and_handle, {}, closing});
    list.push_back({"ruk_close, switch timestamps",
                    close_it,
                    [](World &w) {
                        const test_support::ScopedEnv on("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
                        w.open();
                    },
                    {},
                    {{"munmap", 0, ignored},
                     {"close", 0, ignored},
                     {"memory", 0, ignored, nullptr, {{memory_of(summary_bytes), -1}}}},
                    closing_summary});
    list.push_back({"ruk__open_soft",
                    [](World &w) { return ruk__open_soft(w.dev, &w.soft); },
                    with_endpoint,
                    [](World &w) {
                        w.seam.library([&] { tov_close(w.soft); });
                        w.soft = -1;
                    },
                    {{"open /dev/oxelBp0", 1, ignored, its_error}}});
    list.push_back({"ruk__post_soft_data", [](World &w) { return ruk__post_soft_data(w.soft); },
                    [](World &w) {
                        with_endpoint(w);
                        w.seam.library([&] { ASSERT_EQ(ruk__open_soft(w.dev, &w.soft), 0); });
                    }});
}

/* A channel whose port others may share, and one that does. */
void with_willing_channel(World &w)
{
    w.open();
    w.bind(RUK_BIND_REUSE);
}

int bind_second(World &w)
{
    sockaddr_in sin = {};
    EXPECT_EQ(ruk_getaddress(w.ch, &sin), 0);
    return ruk_bind(w.dev, RUK_BIND_REUSE, ntohs(sin.sin_port), &w, &w.second);
}

void add_binding(List &list)
{
    /* A socket option, or its name, that cannot be had: the call's own result. Without a socket the channel has none.
     */
    const Answers binding = {
        {"socket", 1, ignored, nullptr, {{"descriptor socket:", -1}}},
        {"getsockname", 1, always<-1>},
    };
    auto bind = [](int flags) { return [flags](World &w) { return ruk_bind(w.dev, flags, 0, &w, &w.ch); }; };
    auto add = [&](const char *name, int flags, const Answers &more, unsigned leaves) {
        list.push_back({name, bind(flags), with_endpoint, unbind, binding + more, leaves});
    };
    add("ruk_bind", 0, {}, refused_filter_entry | tag_block);
    add("ruk_bind, shared port, broadcasts", RUK_BIND_REUSE | RUK_BIND_BROADCAST,
        {{"setsockopt SO_REUSEADDR", 1, always<-1>},
         {"setsockopt SO_REUSEPORT", 1, always<-1>},
         {"setsockopt SO_BROADCAST", 1, always<-1>}},
        refused_filter_entry | tag_block | kept_filter);
    add("ruk_bind, no unicast", RUK_BIND_NO_UNICAST, {}, nothing);
    list.push_back(
        {"ruk_bind, a port that is bound already", bind_second, with_willing_channel,
         [](World &w) {
             w.seam.library([&] { EXPECT_EQ(ruk_unbind(w.second), 0); });
             w.second = nullptr;
         },
         binding + Answers{{"setsockopt SO_REUSEADDR", 1, always<-1>}, {"setsockopt SO_REUSEPORT", 1, always<-1>}}});
    Operation by_address = {"ruk_bind_addr",
                            [](World &w) {
                                in_addr addr = {htonl(HOST)};
                                return ruk_bind_addr(w.dev, &addr, RUK_BIND_KERNEL, 0, nullptr, &w.ch);
                            },
                            with_endpoint,
                            unbind,
                            binding,
                            refused_filter_entry | tag_block};
    list.push_back(by_address);
    Operation foreign = {"ruk_bind_addr, an address of another host",
                         [](World &w) {
                             in_addr addr = {htonl(PEER)};
                             return ruk_bind_addr(w.dev, &addr, 0, 0, nullptr, &w.ch);
                         },
                         with_endpoint};
    foreign.leaves = endpoint_lock;
    foreign.success = EINVAL;
    list.push_back(foreign);
    list.push_back({"ruk_getaddress",
                    [](World &w) {
                        sockaddr_in sin;
                        return ruk_getaddress(w.ch, &sin);
                    },
                    with_channel});
    auto add_filter = [](World &w) {
        return ruk_filter_add(w.dev, 17, 0, htonl(HOST), htons(5000), 77, RUK_BIND_KERNEL);
    };
    auto del_filter = [](World &w) { return ruk_filter_del(w.dev, 17, 0, htonl(HOST), htons(5000), 77); };
    list.push_back({"ruk_filter_add", add_filter, with_endpoint,
                    [del_filter](World &w) { w.seam.library([&] { EXPECT_EQ(del_filter(w), 0); }); }});
    list.push_back({"ruk_filter_del", del_filter, [add_filter](World &w) {
                        with_endpoint(w);
                        w.seam.library([&] { ASSERT_EQ(add_filter(w), 0); });
                    }});
    list.push_back({"ruk_set_filter_mode",
                    [](World &w) { return ruk_set_filter_mode(w.dev, RUK_RECV_FILTER_ALLMULTI); }, with_endpoint});
    auto unbind_it = [](World &w) {
        ruk_channel_t ch = w.ch;
        w.ch = nullptr;
        w.handle = nullptr;
        return ruk_unbind(ch);
    };
    list.push_back({"ruk_unbind, unicast and broadcast",
                    unbind_it,
                    [](World &w) {
                        w.route();
                        w.know_neighbour();
                        w.open();
                        w.bind(RUK_BIND_BROADCAST);
                        w.connect();
                    },
                    {},
                    {{"ioctl RX_FILTER", 0, ignored}, {"close", 1, ignored}},
                    kept_filter});
    list.push_back({"ruk_unbind, another waits for the port",
                    unbind_it,
                    [](World &w) {
                        with_willing_channel(w);
                        w.seam.library([&] { ASSERT_EQ(bind_second(w), 0); });
                    },
                    {},
                    {{"close", 1, ignored}}});
    list.push_back({"ruk_unbind, group and blocked source",
                    unbind_it,
                    [](World &w) {
                        with_group(w);
                        w.seam.library([&] {
                            const in_addr group = group_address(), source = {htonl(PEER)};
                            ASSERT_EQ(ruk_mcast_block_source(w.ch, &group, &source), 0);
                        });
                    },
                    {},
                    {{"setsockopt IP_DROP_MEMBERSHIP", 1, ignored},
                     {"ioctl RX_FILTER", 1, abort_},
                     {"ioctl RX_FILTER", 2, ignored},
                     {"close", 1, ignored}},
                    kept_filter});
}

void add_groups(List &list)
{
    auto join = [](World &w) {
        const in_addr group = group_address();
        return ruk_mcast_join(w.ch, &group, nullptr);
    };
    auto join_source = [](World &w) {
        const in_addr group = group_address(), source = {htonl(PEER)};
        return ruk_mcast_join_source(w.ch, &group, &source);
    };
    auto leave = [](World &w) {
        const in_addr group = group_address();
        return ruk_mcast_leave(w.ch, &group);
    };
    auto leave_source = [](World &w) {
        const in_addr group = group_address(), source = {htonl(PEER)};
        return ruk_mcast_leave_source(w.ch, &group, &source);
    };
    auto block = [](World &w) {
        const in_addr group = group_address(), source = {htonl(PEER)};
        return ruk_mcast_block_source(w.ch, &group, &source);
    };
    auto unblock = [](World &w) {
        const in_addr group = group_address(), source = {htonl(PEER)};
        return ruk_mcast_unblock_source(w.ch, &group, &source);
    };
    auto undo = [](auto &&f) { return [f](World &w) { w.seam.library([&] { EXPECT_EQ(f(w), 0); }); }; };
    /* A channel without an entry of its own: the join is the first to need a tag. */
    auto without_tags = [](World &w) {
        w.open();
        w.bind(RUK_BIND_NO_UNICAST);
    };
    list.push_back({"ruk_mcast_join", join, without_tags, undo(leave), {}, tag_block});
    list.push_back({"ruk_mcast_join_source", join_source, without_tags, undo(leave_source), {}, tag_block});
    const Answers leaving = {
        {"setsockopt IP_DROP_MEMBERSHIP", 1, ignored},
        {"ioctl RX_FILTER", 1, abort_},
    };
    list.push_back({"ruk_mcast_leave", leave, with_group, {}, leaving});
    list.push_back({"ruk_mcast_leave_source", leave_source, with_source, {}, leaving});
    /* The call's own result. */
    list.push_back(
        {"ruk_mcast_block_source", block, with_group, undo(unblock), {{"setsockopt IP_BLOCK_SOURCE", 1, always<-1>}}});
    list.push_back({"ruk_mcast_unblock_source",
                    unblock,
                    [block](World &w) {
                        with_group(w);
                        w.seam.library([&] { ASSERT_EQ(block(w), 0); });
                    },
                    undo(block),
                    {{"setsockopt IP_UNBLOCK_SOURCE", 1, always<-1>}}});
}

void add_receiving(List &list)
{
    const struct {
        const char *name;
        enum ruk_recvmode mode;
    } modes[] = {{"spinning", RUK_RECV_DEFAULT},
                 {"not waiting", RUK_RECV_NONBLOCK},
                 {"sleeping", RUK_RECV_BLOCK},
                 {"peeking", RUK_RECV_PEEK},
                 {"peeking with the data", RUK_RECV_PEEK_MSG}};
    for (const auto &m : modes) {
        const enum ruk_recvmode mode = m.mode;
        auto datagram = [mode](World &w) { return receive(w, mode); };
        auto frame = [mode](World &w) { return receive_frame(w, mode); };
        list.push_back({std::string("ruk_recvfrom, ") + m.name, datagram, with_datagram});
        list.push_back({std::string("ruk_raw_recv, ") + m.name, frame, with_datagram});
        if (mode == RUK_RECV_DEFAULT)
            continue; /* on an empty queue it spins */
        Operation empty = {std::string("ruk_recvfrom, empty queue, ") + m.name, datagram, with_channel};
        empty.success = mode == RUK_RECV_BLOCK ? 0 : EAGAIN;
        list.push_back(empty);
        empty.name = std::string("ruk_raw_recv, empty queue, ") + m.name;
        empty.run = frame;
        list.push_back(empty);
    }
    /* The receiver that finds the endpoint closed completes the close. */
    auto add_last = [&list](const char *name, int (*take)(World &, enum ruk_recvmode)) {
        Operation op = {name,
                        [take](World &w) {
                            w.closes_asleep = true;
                            const int rc = take(w, RUK_RECV_BLOCK);
                            if (rc == ENXIO)
                                w.forget_endpoint();
                            return rc;
                        },
                        with_group_and_handle,
                        {},
                        closing};
        op.success = ENXIO;
        op.closes = true;
        list.push_back(op);
    };
    add_last("ruk_recvfrom, closed while it sleeps", receive);
    add_last("ruk_raw_recv, closed while it sleeps", receive_frame);
    list.push_back({"ruk_raw_recv_nb",
                    [](World &w) {
                        size_t len = 0;
                        return ruk_raw_recv_nb(w.dev, w.buf, &len, nullptr, nullptr);
                    },
                    with_datagram});
    auto parse = [](World &w) {
        ruk__ep_rx_lock(w.dev);
        const struct ruk__evpacket *packet = ruk__eventq_process_uevt(w.dev, &w.dev->rep_eventq);
        ruk__ep_rx_unlock(w.dev);
        return packet && packet->timestamp != 0 ? 0 : -1;
    };
    list.push_back({"ruk__eventq_process_uevt, dated by the adapter", parse, [](World &w) {
                        w.open(RUK_OPEN_THREAD_SAFE | RUK_OPEN_HW_TIMESTAMPING);
                        w.bind();
                        w.arrive();
                    }});
    list.push_back(
        {"ruk__eventq_process_uevt, dated by the switch", parse, with_switch_datagram, {}, {}, closing_summary});
    list.push_back({"ruk_raw_recv_peek", [](World &w) { return ruk_raw_recv_peek(w.dev); }, with_datagram});
    list.push_back({"ruk_dump_stats",
                    [](World &w) {
                        ruk_dump_stats(w.dev, 0);
                        return 0;
                    },
                    with_datagram});
}

void add_sending(List &list)
{
    auto add = [&list](Operation op, unsigned leaves = nothing) {
        op.leaves = leaves;
        op.stores_errno = true;
        op.also = {EADDRNOTAVAIL, ENOMEM}; /* ENOMEM: the interfaces could not be listed */
        list.push_back(op);
    };
    add({"ruk_send_connect, neighbour known", [](World &w) { return connect_to_peer(w, 0); }, with_neighbour,
         disconnect, resolving},
        interface_list);
    add({"ruk_send_connect, neighbour known, not waiting", [](World &w) { return connect_to_peer(w, RUK_NONBLOCK); },
         with_neighbour, disconnect, resolving},
        interface_list);
    add({"ruk_send_connect, neighbour to be found", [](World &w) { return connect_to_peer(w, 0); }, with_stranger,
         disconnect, resolving_a_stranger},
        interface_list);
    /* Two questions and one prompt are all: what fails of these is not made up for. */
    add({"ruk_send_connect, neighbour to be found, not waiting",
         [](World &w) { return connect_to_peer(w, RUK_NONBLOCK); },
         with_stranger,
         disconnect,
         {{"ioctl SIOCGARP", 1, ignored, always<EADDRNOTAVAIL>},
          {"ioctl SIOCGARP", 2, ignored, always<EADDRNOTAVAIL>},
          {"ioctl SIOCGARP", 3, ignored, always<EADDRNOTAVAIL>},
          {"ioctl ARP_RESOLVE", 1, unknown_nobody_or_error},
          {"getifaddrs", 1, nobody_or_error}}},
        interface_list);
    auto sendto = [](World &w) { return send_to_peer(w, 0); };
    auto to_group = [](World &w) {
        sockaddr_in sin = peer_address();
        sin.sin_addr = group_address();
        return ruk_sendto(w.ch, &sin, w.buf, 3, 0);
    };
    add({"ruk_sendto, first to an address", sendto, with_neighbour, {}, resolving}, interface_list);
    add({"ruk_sendto, neighbour to be found", sendto, with_stranger, {}, resolving_a_stranger}, interface_list);
    add({"ruk_sendto, first to a group", to_group, with_channel});
    add({"ruk_sendto, again", sendto, [sendto](World &w) {
             with_neighbour(w);
             w.seam.library([&] { ASSERT_EQ(sendto(w), 0); });
         }});
    add({"ruk_send_disconnect",
         [](World &w) {
             ruk_send_t dhs = w.handle;
             w.handle = nullptr;
             return ruk_send_disconnect(dhs);
         },
         with_handle});
    auto send = [](World &w) { return ruk_send(w.handle, w.buf, 64, 0); };
    list.push_back({"ruk_send", send, with_handle});
    list.push_back({"ruk_raw_send", send_raw, with_endpoint});
    Operation full = {"ruk_send, no room", send, with_full_ring};
    full.board = by_hand;
    list.push_back(full);
    full.name = "ruk_raw_send, no room";
    full.run = send_raw;
    list.push_back(full);
    full.name = "ruk_send, no room, not waiting";
    full.run = [](World &w) { return ruk_send(w.handle, w.buf, 64, RUK_NONBLOCK); };
    full.success = EAGAIN;
    list.push_back(full);
    Operation resolve = {"ruk__resolve_mac",
                         [](World &w) {
                             uint8_t mac[6];
                             ruk__ep_lock(w.dev);
                             const int rc = ruk__resolve_mac(w.dev, htonl(HOST), htonl(PEER), mac);
                             ruk__ep_unlock(w.dev);
                             return rc;
                         },
                         with_stranger,
                         {},
                         resolving_a_stranger,
                         interface_list};
    resolve.also = {EADDRNOTAVAIL, ENOMEM};
    list.push_back(resolve);
    list.push_back({"ruk__piocopy_test",
                    [](World &w) {
                        uint64_t ns, mb;
                        return ruk__piocopy_test(w.dev, 3, 64, 1, &ns, &mb);
                    },
                    [](World &w) {
                        with_endpoint(w);
                        cycles_per_second = 0;
                    },
                    {},
                    {{"usleep", 0, ignored}}});
}

void add_platform(List &list)
{
    auto uncalibrated = [](World &) { cycles_per_second = 0; };
    list.push_back({"tov_cycles_counter_init",
                    [](World &) {
                        tov_cycles_counter_init();
                        return 0;
                    },
                    uncalibrated,
                    {},
                    {{"usleep", 0, ignored}}});
    list.push_back({"tov_cycles_per_second",
                    [](World &) {
                        tov_cycles_per_second();
                        return 0;
                    },
                    uncalibrated,
                    {},
                    {{"usleep", 0, ignored}}});
    list.push_back({"tov_select",
                    [](World &) { return tov_select(0, nullptr, nullptr, nullptr, nullptr); },
                    {},
                    {},
                    {{"select", 1, always<-1>}}});
    /* An interface that cannot be asked is none of an adapter's. */
    const Difference no_list = {{memory_of(sizeof(struct tov_ifaddrs) + TOV_IFNAMSIZ), -1}};
    auto get_list = [](World &w) {
        int n = -1;
        return tov_getifaddrs(&w.list, 1, &n);
    };
    auto free_list = [](World &w) {
        w.seam.library([&] { tov_freeifaddrs(w.list); });
        w.list = nullptr;
    };
    list.push_back({"tov_getifaddrs",
                    get_list,
                    {},
                    free_list,
                    listing + Answers{{"socket", 1, ignored, nullptr, no_list},
                                      {"ioctl SIOCGIFHWADDR", 1, ignored, nullptr, no_list}}});
    list.back().also = {0}; /* an empty list needs no memory */
    list.push_back({"tov_freeifaddrs",
                    [](World &w) {
                        tov_freeifaddrs(w.list);
                        w.list = nullptr;
                        return 0;
                    },
                    [get_list](World &w) { w.seam.library([&] { ASSERT_EQ(get_list(w), 0); }); }});
    list.push_back({"tov_ifaddr_to_macaddr",
                    [](World &) {
                        uint8_t mac[6];
                        return tov_ifaddr_to_macaddr(htonl(HOST), mac);
                    },
                    {},
                    {},
                    listing + Answers{{"socket", 1, always<ENODEV>}, {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>}}});
    list.push_back({"tov_get_vlan_tag", [](World &) { return tov_get_vlan_tag("vlan7") == htons(0xe007) ? 0 : -1; }});
}

void add_raw_endpoint(List &list)
{
    list.push_back({"oxel_raw_open_endpoint",
                    [](World &w) { return oxel_raw_open_endpoint(0, &w.raw, TOV_PRODUCT); },
                    {},
                    [](World &w) {
                        w.close_raw_handle();
                        w.seam.library([&] { oxel_raw_close_endpoint(w.raw); });
                        w.raw = nullptr;
                    },
                    {{"open /dev/oxelBp0", 1, ignored, its_error}}});
    list.push_back({"oxel_raw_handle", [](World &w) { return oxel_raw_handle(w.raw) >= 0 ? 0 : -1; }, with_raw});
    auto send = [](World &w) {
        uint8_t route[1] = {0};
        return oxel_raw_send(w.raw, 0, route, 0, w.buf, 60, &w);
    };
    list.push_back({"oxel_raw_send", send, with_raw});
    list.push_back({"oxel_raw_next_event",
                    [](World &w) {
                        int port = 0, bytes = 0, status = 0;
                        void *context = nullptr;
                        uint64_t ticks = 0;
                        return oxel_raw_next_event(w.raw, &port, &context, nullptr, &bytes, 10, &status, &ticks);
                    },
                    [send](World &w) {
                        with_raw(w);
                        w.seam.library([&] { ASSERT_EQ(send(w), 0); });
                    }});
    list.push_back({"oxel_raw_close_endpoint",
                    [](World &w) {
                        w.left_handle = oxel_raw_handle(w.raw);
                        const int rc = oxel_raw_close_endpoint(w.raw);
                        w.raw = nullptr;
                        return rc;
                    },
                    with_raw,
                    {},
                    {},
                    raw_handle});
}

/* The C++ face: what its owners give back when an operation fails is code of its own. */

template <typename F> int code_of(F &&f)
{
    try {
        f();
    } catch (const std::system_error &e) {
        return e.code().value();
    }
    return 0;
}

/* The owner of an endpoint that belongs to the world. */
struct Borrowed : ruk::endpoint {
    explicit Borrowed(World &w) : ruk::endpoint(w.dev) {}
    ~Borrowed() { release(); }
};
struct BorrowedChannel : ruk::channel {
    explicit BorrowedChannel(World &w) : ruk::channel(w.ch) {}
    ~BorrowedChannel() { release(); }
};

void add_face(List &list)
{
    const Answers board = listing + claiming(2) + enabling;
    const Answers address = {{"socket", 1, always<ENODEV>}, {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>}};
    const Answers opening = board + address + sending_socket(2);
    const size_t first = list.size();
    list.push_back({"ruk::endpoint::open",
                    [](World &w) {
                        std::error_code ec;
                        w.dev = ruk::endpoint::open(in_addr{htonl(HOST)}, ruk::open_flags::thread_safe, ec).release();
                        return ec.value();
                    },
                    {},
                    close_endpoint,
                    opening + routes});
    list.push_back(
        {"ruk::endpoint::open, throwing",
         [](World &w) { return code_of([&] { w.dev = ruk::endpoint::open(in_addr{htonl(HOST)}).release(); }); },
         {},
         close_endpoint,
         opening + routes});
    list.push_back({"ruk::endpoint::open, more routes than there is room for",
                    [](World &w) {
                        std::error_code ec;
                        w.dev = ruk::endpoint::open(in_addr{htonl(HOST)}, 0, ec).release();
                        return ec.value();
                    },
                    with_many_routes, close_endpoint, opening + many_routes});
    list.back().also = {0};
    list.push_back({"ruk::endpoint::open, by MAC address",
                    [](World &w) {
                        ruk::mac_address mac;
                        memcpy(mac.data(), w.wire.host.interfaces[0].mac.data(), mac.size());
                        std::error_code ec;
                        w.dev = ruk::endpoint::open(mac, in_addr{htonl(HOST)}, 0, ec).release();
                        return ec.value();
                    },
                    {},
                    close_endpoint,
                    listing +
                        Answers{{"open /dev/oxelBp0", 2, ignored, any_board}, {"open /dev/oxelB0", 2, any_board}} +
                        address + claiming(3) + enabling + routes + sending_socket(2)});
    list.push_back({"ruk::endpoint::open_if",
                    [](World &w) {
                        std::error_code ec;
                        w.dev = ruk::endpoint::open_if("oxel0", 0, ec).release();
                        return ec.value();
                    },
                    {},
                    close_endpoint,
                    board + routes +
                        Answers{{"socket", 2, always<ENODEV>}, {"ioctl SIOCGIFHWADDR", 1, always<ENODEV>}} +
                        sending_socket(3)});
    for (size_t i = first; i < list.size(); i++)
        list[i].also.push_back(EMFILE);

    /* Where the C call gives the kernel's -1, there is the reason. */
    const Answers binding = {{"socket", 1, ignored, nullptr, {{"descriptor socket:", -1}}}};
    list.push_back({"ruk::endpoint::bind",
                    [](World &w) {
                        std::error_code ec;
                        w.ch = Borrowed(w).bind(0, ruk::bind_flags::reuse, &w, ec).release();
                        return ec.value();
                    },
                    with_endpoint, unbind, binding, refused_filter_entry | tag_block});
    list.push_back({"ruk::endpoint::bind, throwing",
                    [](World &w) { return code_of([&] { w.ch = Borrowed(w).bind(0).release(); }); }, with_endpoint,
                    unbind, binding, refused_filter_entry | tag_block});
    list.push_back({"ruk::channel::join",
                    [](World &w) {
                        std::error_code ec;
                        BorrowedChannel(w).join(group_address(), ec);
                        return ec.value();
                    },
                    with_channel,
                    [](World &w) { w.seam.library([&] { BorrowedChannel(w).leave(group_address()); }); }});
    list.push_back(
        {"ruk::channel::block",
         [](World &w) {
             std::error_code ec;
             BorrowedChannel(w).block(group_address(), in_addr{htonl(PEER)}, ec);
             return ec.value();
         },
         with_group,
         [](World &w) { w.seam.library([&] { BorrowedChannel(w).unblock(group_address(), in_addr{htonl(PEER)}); }); }});
    Operation connect = {"ruk::channel::connect",
                         [](World &w) {
                             std::error_code ec;
                             w.handle = BorrowedChannel(w).connect(peer_address(), ec).release();
                             return ec.value();
                         },
                         with_stranger,
                         disconnect,
                         resolving_a_stranger,
                         interface_list};
    connect.also = {EADDRNOTAVAIL, ENOMEM};
    list.push_back(connect);
    connect.name = "ruk::channel::connect, throwing";
    connect.run = [](World &w) {
        return code_of([&] { w.handle = BorrowedChannel(w).connect(peer_address()).release(); });
    };
    list.push_back(connect);
    list.push_back({"ruk::interface_list",
                    [](World &) {
                        std::error_code ec;
                        ruk::interface_list interfaces(ec);
                        return ec.value();
                    },
                    {},
                    {},
                    listing + Answers{{"socket", 1, ignored}, {"ioctl SIOCGIFHWADDR", 1, ignored}}});
    list.back().also = {0};
}

} // namespace

/* Not among them: ruk__assertion_failed(), which never returns and asks the host for no more than its output. */
const std::vector<Operation> &operations()
{
    static const List list = [] {
        List l;
        add_initialisation(l);
        add_opening(l);
        add_attributes(l);
        add_binding(l);
        add_groups(l);
        add_receiving(l);
        add_sending(l);
        add_platform(l);
        add_raw_endpoint(l);
        add_face(l);
        return l;
    }();
    return list;
}

} // namespace fault
