/*
 * The C++ face: owners, errors of both kinds, payloads and times, with an adapter behind it.
 */
#include "ruk.hpp"

#include "send_rig.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <list>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace send_rig;
using namespace std::string_view_literals;

template <typename T>
constexpr bool move_only = std::is_nothrow_move_constructible_v<T> &&std::is_nothrow_move_assignable_v<T> &&
                           !std::is_copy_constructible_v<T> && !std::is_copy_assignable_v<T>;
static_assert(move_only<ruk::endpoint> && move_only<ruk::channel> && move_only<ruk::send_handle>);
static_assert(sizeof(ruk::endpoint) == sizeof(void *) && sizeof(ruk::channel) == sizeof(void *) &&
              sizeof(ruk::send_handle) == sizeof(void *));

struct Quote {
    uint32_t price, size;
};

template <typename T> constexpr bool sent_as_it_is = std::is_convertible_v<T, ruk::payload>;
static_assert(sent_as_it_is<std::vector<int>> && sent_as_it_is<std::vector<int> &> &&
              sent_as_it_is<const std::vector<Quote> &>);
static_assert(sent_as_it_is<std::array<uint8_t, 4>> && sent_as_it_is<const std::array<Quote, 2> &>);
static_assert(sent_as_it_is<char (&)[4]> && sent_as_it_is<Quote (&)[3]> && sent_as_it_is<const Quote (&)[3]>);
static_assert(sent_as_it_is<std::string> && sent_as_it_is<const std::string &> && sent_as_it_is<std::string_view>);
static_assert(sent_as_it_is<std::span<std::byte>> && sent_as_it_is<std::span<const Quote, 2>>);
static_assert(sent_as_it_is<ruk::payload &> && sent_as_it_is<const ruk::payload &>);
/* What is not its bytes, what is not in one piece, and a text whose last byte nobody means. */
template <typename T> constexpr bool never_sent = !std::is_constructible_v<ruk::payload, T>;
static_assert(never_sent<std::span<std::string>> && never_sent<std::vector<std::string>> &&
              never_sent<std::array<std::string, 2> &> && never_sent<std::string (&)[2]>);
static_assert(never_sent<std::vector<bool>> && never_sent<std::list<int>> && never_sent<int> && never_sent<Quote>);
static_assert(never_sent<std::span<volatile int>>);
static_assert(!sent_as_it_is<const char (&)[6]> && !sent_as_it_is<const char *>);
static_assert(never_sent<decltype(u8"text")> && never_sent<decltype(L"text")> && never_sent<decltype(u"text")> &&
              never_sent<decltype(U"text")>);
static_assert(sent_as_it_is<const unsigned char (&)[6]> && sent_as_it_is<wchar_t (&)[6]>);

/* 10.77.0.1 on an adapter, nothing opened yet. */
class Face : public SendTest {
protected:
    void SetUp() override
    {
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        nic = softnic_create(&config, 1, 1700000000000000000u);
        ASSERT_EQ(softnic_attach(nic), 0);
        ruk::init();
    }
    ruk::endpoint opened(int flags = ruk::open_flags::thread_safe)
    {
        return ruk::endpoint::open(ruk::ip("10.77.0.1"), flags);
    }
    /* The last option of a kernel socket, by its number. */
    int last_option()
    {
        int name = 0;
        for (const SocketCall &call : host.sockets.log())
            if (call.slot == Slot::setsockopt)
                name = call.name;
        return name;
    }
    unsigned claimed() { return static_cast<unsigned>(__builtin_popcountll(softnic_claimed(nic, 0))); }

    void arrive(const std::string &text, uint16_t from_port = 4000, uint16_t to_port = 5000)
    {
        const auto high = [](size_t n) { return static_cast<uint8_t>(n >> 8); };
        const auto low = [](size_t n) { return static_cast<uint8_t>(n); };
        const size_t udp = 8 + text.size(), total = 20 + udp;
        Bytes frame = unhex("026f78000001 020000000002 0800 4500");
        for (const uint8_t byte :
             {high(total),  low(total),  uint8_t{0}, uint8_t{0},  uint8_t{0x40},   uint8_t{0},     uint8_t{64},
              uint8_t{17},  uint8_t{0},  uint8_t{0}, uint8_t{10}, uint8_t{77},     uint8_t{0},     uint8_t{2},
              uint8_t{10},  uint8_t{77}, uint8_t{0}, uint8_t{1},  high(from_port), low(from_port), high(to_port),
              low(to_port), high(udp),   low(udp),   uint8_t{0},  uint8_t{0}})
            frame.push_back(byte);
        frame.insert(frame.end(), text.begin(), text.end());
        softnic_inject(nic, 0, frame.data(), frame.size());
        softnic_run(nic);
    }

    std::array<std::byte, 64> room{};
    std::array<std::byte, ruk::frame_capacity> frame_room{};
};

std::string text_of(std::span<const std::byte> bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

std::string text_of(const Bytes &bytes) { return {bytes.begin(), bytes.end()}; }

int error_of(const std::function<void()> &call)
{
    try {
        call();
    } catch (const std::system_error &e) {
        EXPECT_EQ(e.code().category(), std::generic_category());
        return e.code().value();
    }
    return 0;
}

TEST_F(Face, Endpoint_LeavesItsScope_IsClosed)
{
    {
        ruk::endpoint endpoint = opened();
        EXPECT_TRUE(endpoint);
        EXPECT_EQ(claimed(), 1u);
    }
    EXPECT_EQ(claimed(), 0u);
}

TEST_F(Face, Endpoint_Moved_IsClosedOnceByItsLastOwner)
{
    ruk::endpoint first = opened();
    const ruk_device_t handle = first.get();
    ruk::endpoint second = std::move(first);
    EXPECT_EQ(second.get(), handle);
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(claimed(), 1u);
    second = opened();
    EXPECT_EQ(claimed(), 1u);
    ruk::endpoint &same = second;
    second = std::move(same);
    EXPECT_TRUE(second);
    second.reset();
    EXPECT_EQ(claimed(), 0u);
}

TEST_F(Face, Endpoint_MovedOnto_LivesOnInTheOther)
{
    ruk::endpoint first = opened(), second = opened();
    const ruk_device_t old = first.get(), handle = second.get();
    first = std::move(second);
    EXPECT_EQ(first.get(), handle);
    EXPECT_EQ(second.get(), old); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(claimed(), 2u);
    second.reset();
    EXPECT_EQ(claimed(), 1u);
}

/* As an application has them; the order of the members is the order of the handles. */
struct Session {
    ruk::endpoint endpoint;
    ruk::channel channel;
    ruk::send_handle handle;
};

class FaceSessions : public Face {
protected:
    Session begun(uint16_t port)
    {
        Session s;
        s.endpoint = opened();
        s.channel = s.endpoint.bind(port);
        s.handle = s.channel.connect(ruk::address("10.77.0.2", port));
        return s;
    }
    void expect_alive(Session &session, uint16_t port)
    {
        std::error_code ec;
        session.handle.send("x"sv, ec);
        EXPECT_FALSE(ec);
        EXPECT_EQ(sent_datagram().dst, "10.77.0.2:" + std::to_string(port));
    }
    std::vector<uint16_t> ports()
    {
        std::vector<uint16_t> steered;
        for (uint16_t port = 5000; port < 5004; port++)
            if (softnic_steered(nic, 0, 0x0a4d0001, port, 0, 17))
                steered.push_back(port);
        return steered;
    }
};

TEST_F(FaceSessions, NewOne_AssignedToAnOldOne_EndsTheOldOneWithTheStatement)
{
    Session session = begun(5000);
    session = begun(5001);
    EXPECT_EQ(claimed(), 1u);
    EXPECT_EQ(ports(), std::vector<uint16_t>{5001});
    expect_alive(session, 5001);
    session = {};
    EXPECT_EQ(claimed(), 0u);
    EXPECT_EQ(ports(), std::vector<uint16_t>{});
}

TEST_F(FaceSessions, OfAVector_ErasedFromFrontMiddleAndEnd_EndAlone)
{
    std::vector<Session> sessions;
    for (uint16_t port = 5000; port < 5004; port++)
        sessions.push_back(begun(port));
    sessions.erase(sessions.begin());
    EXPECT_EQ(ports(), (std::vector<uint16_t>{5001, 5002, 5003}));
    sessions.erase(sessions.begin() + 1);
    EXPECT_EQ(ports(), (std::vector<uint16_t>{5001, 5003}));
    expect_alive(sessions[0], 5001);
    expect_alive(sessions[1], 5003);
    sessions.pop_back();
    EXPECT_EQ(ports(), std::vector<uint16_t>{5001});
    EXPECT_EQ(claimed(), 1u);
    expect_alive(sessions[0], 5001);
}

TEST_F(Face, Endpoint_Released_StaysOpen)
{
    ruk_device_t handle = opened().release();
    EXPECT_EQ(claimed(), 1u);
    EXPECT_EQ(ruk_close(handle), 0);
}

TEST_F(Face, OpenOfAForeignAddress_ToldAsCodeAndAsException)
{
    std::error_code ec;
    EXPECT_FALSE(ruk::endpoint::open(ruk::ip("10.99.0.1"), 0, ec));
    EXPECT_EQ(ec, std::errc::no_such_device);
    EXPECT_EQ(error_of([] { (void)ruk::endpoint::open(ruk::ip("10.99.0.1")); }), ENODEV);
}

TEST_F(Face, OpenOfAnUnknownName_ToldAsCodeAndAsException)
{
    std::error_code ec;
    EXPECT_FALSE(ruk::endpoint::open_if("nowhere0", 0, ec));
    EXPECT_EQ(ec.value(), ENXIO);
    EXPECT_EQ(error_of([] { (void)ruk::endpoint::open_if("nowhere0"); }), ENXIO);
}

TEST_F(Face, OpenByTheAdaptersMacAddress_AsCodeAndAsException)
{
    const ruk::mac_address mac = {0x02, 0x6f, 0x78, 0, 0, 1}, other = {0x02, 0x6f, 0x78, 0, 0, 9};
    {
        ruk::endpoint endpoint = ruk::endpoint::open(mac, ruk::ip("10.77.0.1"));
        EXPECT_EQ(claimed(), 1u);
        ruk::channel channel = endpoint.bind(5000);
        EXPECT_EQ(channel.address().sin_addr.s_addr, htonl(0x0a4d0001));
    }
    EXPECT_EQ(claimed(), 0u);
    std::error_code ec;
    EXPECT_FALSE(ruk::endpoint::open(other, ruk::ip("10.77.0.1"), 0, ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { (void)ruk::endpoint::open(other, ruk::ip("10.77.0.1")); }), EINVAL);
}

TEST_F(Face, Interfaces_AreThoseOnTheAdapter)
{
    const ruk::interface_list list;
    std::vector<std::string> names;
    for (const tov_ifaddrs &i : list)
        names.emplace_back(i.tov_ifa_name);
    EXPECT_EQ(names, (std::vector<std::string>{"oxel0", "vlan7"}));
    EXPECT_EQ(list.size(), 2u);
}

TEST_F(Face, Counters_ArePrinted)
{
    ruk::endpoint endpoint = opened();
    testing::internal::CaptureStdout();
    endpoint.print_counters();
    fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("dropped_nosock"), std::string::npos);
}

TEST_F(Face, Code_OfAnEarlierError_IsClearedBySuccess)
{
    std::error_code ec = std::make_error_code(std::errc::io_error);
    ruk::endpoint endpoint = ruk::endpoint::open(ruk::ip("10.77.0.1"), 0, ec);
    EXPECT_FALSE(ec);
    EXPECT_TRUE(endpoint);
}

TEST_F(Face, Address_TextThatIsNone_IsRefused)
{
    std::error_code ec;
    ruk::ip("10.77.0", ec);
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([] { ruk::ip("oxel0"); }), EINVAL);
    const sockaddr_in sin = ruk::address("10.77.0.2", 0x1234);
    EXPECT_EQ(sin.sin_family, AF_INET);
    EXPECT_EQ(sin.sin_addr.s_addr, htonl(0x0a4d0002));
    EXPECT_EQ(sin.sin_port, htons(0x1234));
}

TEST_F(Face, Channel_Bound_TellsItsAddressAndIsUnboundAtItsEnd)
{
    ruk::endpoint endpoint = opened();
    {
        ruk::channel channel = endpoint.bind(5000);
        EXPECT_EQ(channel.address().sin_port, htons(5000));
        EXPECT_EQ(channel.address().sin_addr.s_addr, htonl(0x0a4d0001));
        EXPECT_EQ(softnic_steered(nic, 0, 0x0a4d0001, 5000, 0, 17), 1);
    }
    EXPECT_EQ(softnic_steered(nic, 0, 0x0a4d0001, 5000, 0, 17), 0);
}

TEST_F(Face, BindWhoseFilterIsRefused_ToldAsCodeAndAsException)
{
    softnic_fail_steering(nic, 0, ENOSPC);
    {
        ruk::endpoint endpoint = opened();
        std::error_code ec;
        EXPECT_FALSE(endpoint.bind(5000, 0, nullptr, ec));
        EXPECT_EQ(ec.value(), ENOSPC);
    }
    ruk::endpoint endpoint = opened();
    EXPECT_EQ(error_of([&] { (void)endpoint.bind(5000); }), ENOSPC);
    softnic_fail_steering(nic, 0, 0);
}

TEST_F(Face, Datagram_Arrives_WithItsPayloadAddressesAndContext)
{
    int context = 0;
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000, ruk::bind_flags::none, &context);
    arrive("hello");
    const ruk::datagram d = endpoint.receive(room);
    EXPECT_EQ(text_of(d.data()), "hello");
    EXPECT_EQ(d.length(), 5u);
    EXPECT_FALSE(d.truncated());
    EXPECT_EQ(d.from().sin_port, htons(4000));
    EXPECT_EQ(d.from().sin_addr.s_addr, htonl(0x0a4d0002));
    EXPECT_EQ(d.to().sin_port, htons(5000));
    EXPECT_EQ(d.context(), &context);
    EXPECT_EQ(d.channel(), channel.get());
    EXPECT_FALSE(d.time());
}

TEST_F(Face, Datagram_OnADatedEndpoint_HasItsTime)
{
    using namespace std::chrono_literals;
    ruk::endpoint endpoint = opened(ruk::open_flags::hw_timestamping);
    ruk::channel channel = endpoint.bind(5000);
    softnic_advance(nic, 1000000000);
    arrive("x");
    const ruk::datagram d = endpoint.receive(room);
    ASSERT_TRUE(d.time());
    const auto expected = ruk::time_point(1700000001000000000ns);
    EXPECT_LT(*d.time() > expected ? *d.time() - expected : expected - *d.time(), 1us);
    const ruk::clock_reading clocks = endpoint.clocks();
    EXPECT_LT(clocks.host > expected ? clocks.host - expected : expected - clocks.host, 1us);
}

TEST_F(Face, Datagram_LargerThanTheBuffer_IsCutAndSaysSo)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    arrive("a longer text");
    const ruk::datagram d = endpoint.receive(std::span(room).first(8));
    EXPECT_EQ(text_of(d.data()), "a longer");
    EXPECT_EQ(d.length(), 13u);
    EXPECT_TRUE(d.truncated());
}

TEST_F(Face, EmptyQueue_TryReceiveGivesNothing_ReceiveAnError)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    EXPECT_FALSE(endpoint.try_receive(room, ec));
    EXPECT_FALSE(ec);
    EXPECT_FALSE(endpoint.try_receive(room));
    endpoint.receive(room, ruk::wait::none, ec);
    EXPECT_EQ(ec, std::errc::resource_unavailable_try_again);
    EXPECT_EQ(error_of([&] { endpoint.receive(room, ruk::wait::none); }), EAGAIN);
    arrive("now");
    const auto d = endpoint.try_receive(room);
    ASSERT_TRUE(d);
    EXPECT_EQ(text_of(d->data()), "now");
}

TEST_F(Face, Error_OfReceive_GivesAnEmptyDatagram)
{
    ruk::endpoint endpoint = opened();
    std::error_code ec;
    const ruk::datagram d = endpoint.receive(room, ruk::wait::none, ec);
    EXPECT_TRUE(ec);
    EXPECT_EQ(d.length(), 0u);
    EXPECT_TRUE(d.data().empty());
    EXPECT_EQ(d.channel(), nullptr);
    EXPECT_FALSE(d.time());
}

TEST_F(Face, CodeOfAnEarlierError_DatagramThere_IsClearedAndTheDatagramIsWhole)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    for (int i = 0; i < 2; i++) /* the first is received, the second looked at and then received */
        arrive("datagram");
    const std::error_code stale = std::make_error_code(std::errc::io_error);
    std::error_code ec = stale;
    const ruk::datagram d = endpoint.receive(room, ruk::wait::none, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(text_of(d.data()), "datagram");
    EXPECT_EQ(d.channel(), channel.get());
    ec = stale;
    const auto peeked = endpoint.peek(room, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(text_of(peeked.value().data()), "datagram");
    ec = stale;
    const auto tried = endpoint.try_receive(room, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(text_of(tried.value().data()), "datagram");
    ec = stale;
    endpoint.receive(room, ruk::wait::none, ec);
    EXPECT_EQ(ec, std::errc::resource_unavailable_try_again);
}

TEST_F(Face, DatagramOrNone_IsUsedAsAnOptional)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    const ruk::maybe_datagram none, nothing_waits = endpoint.try_receive(room);
    for (const ruk::maybe_datagram *empty : {&none, &nothing_waits}) {
        EXPECT_FALSE(*empty);
        EXPECT_FALSE(empty->has_value());
        EXPECT_THROW((void)empty->value(), std::bad_optional_access);
    }
    arrive("here");
    ruk::maybe_datagram d;
    d = endpoint.try_receive(room);
    ASSERT_TRUE(d.has_value());
    EXPECT_EQ(d->length(), 4u);
    EXPECT_EQ(text_of((*d).data()), "here");
    EXPECT_EQ(text_of(d.value().data()), "here");
}

TEST_F(Face, Peek_TellsOfTheNextDatagramAndLeavesIt)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    EXPECT_FALSE(endpoint.peek());
    EXPECT_FALSE(endpoint.peek(ec));
    EXPECT_FALSE(ec);
    EXPECT_FALSE(endpoint.peek(room));
    EXPECT_FALSE(endpoint.peek(room, ec));
    arrive("first");
    arrive("second");
    const auto told = endpoint.peek();
    ASSERT_TRUE(told);
    EXPECT_EQ(told->length(), 5u);
    EXPECT_EQ(told->from().sin_port, htons(4000));
    EXPECT_TRUE(told->data().empty());
    const auto copied = endpoint.peek(room);
    ASSERT_TRUE(copied);
    EXPECT_EQ(text_of(copied->data()), "first");
    EXPECT_EQ(text_of(endpoint.receive(room).data()), "first");
    EXPECT_EQ(text_of(endpoint.receive(room).data()), "second");
    EXPECT_FALSE(endpoint.peek());
}

/* The library writes no time in a peek's record, which lies where records with times lay before. */
TEST_F(Face, Peek_OnADatedEndpoint_HasNoTime)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::thread_safe | ruk::open_flags::hw_timestamping);
    ruk::channel channel = endpoint.bind(5000);
    softnic_advance(nic, 1000000000);
    arrive("dated");
    arrive("dated, too");
    std::error_code ec;
    const auto around = [&](auto &&peek) {
        alignas(ruk::maybe_datagram) std::byte place[sizeof(ruk::maybe_datagram)];
        memset(place, 0x5a, sizeof place);
        asm volatile("" : : "r"(place) : "memory"); /* compilers drop what is written before an object is made */
        const auto *peeked = new (place) ruk::maybe_datagram(peek());
        ASSERT_TRUE(*peeked);
        EXPECT_FALSE((*peeked)->time());
        EXPECT_EQ((*peeked)->info().timestamp, 0u);
        EXPECT_EQ((*peeked)->length(), 5u);
    };
    around([&] { return endpoint.peek(); });
    around([&] { return endpoint.peek(ec); });
    around([&] { return endpoint.peek(room); });
    around([&] { return endpoint.peek(room, ec); });
    const auto received = endpoint.try_receive(room);
    ASSERT_TRUE(received);
    EXPECT_TRUE(received->time());
}

TEST_F(Face, Peek_ThatDropsADatedFrame_HasNoTime)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::thread_safe | ruk::open_flags::hw_timestamping);
    ruk::channel channel = endpoint.bind(5000);
    softnic_advance(nic, 1000000000);
    std::error_code ec;
    const auto behind_a_frame_of_no_channel = [&](auto &&peek) {
        {
            ruk::channel gone = endpoint.bind(6000);
            arrive("nobody's", 4000, 6000);
        }
        arrive("peeked");
        const ruk::maybe_datagram peeked = peek();
        ASSERT_TRUE(peeked);
        EXPECT_EQ(peeked->length(), 6u);
        EXPECT_FALSE(peeked->time());
        EXPECT_EQ(peeked->info().timestamp, 0u);
        EXPECT_TRUE(endpoint.receive(room).time());
    };
    behind_a_frame_of_no_channel([&] { return endpoint.peek(); });
    behind_a_frame_of_no_channel([&] { return endpoint.peek(ec); });
    behind_a_frame_of_no_channel([&] { return endpoint.peek(room); });
    behind_a_frame_of_no_channel([&] { return endpoint.peek(room, ec); });
}

TEST_F(Face, Peek_InTheRawMode_AddressesThatAreNotToldAreZero)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    endpoint.set_filter(ruk::filter::raw);
    Bytes frame = unhex("026f78000001 020000000002 88b5");
    frame.resize(frame.size() + 46, 0x33);
    softnic_inject(nic, 0, frame.data(), frame.size());
    softnic_run(nic);
    const auto peeked = endpoint.peek();
    ASSERT_TRUE(peeked);
    EXPECT_EQ(peeked->channel(), nullptr);
    EXPECT_EQ(peeked->length(), 14u + 46 + 4 - 2);
    for (const sockaddr_in *sin : {&peeked->from(), &peeked->to()}) {
        EXPECT_EQ(sin->sin_family, 0);
        EXPECT_EQ(sin->sin_port, 0);
        EXPECT_EQ(sin->sin_addr.s_addr, 0u);
    }
}

TEST_F(Face, PeekFrame_TellsOfTheNextFrameAndLeavesIt)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    endpoint.set_filter(ruk::filter::raw);
    const std::error_code stale = std::make_error_code(std::errc::io_error);
    std::error_code ec = stale;
    EXPECT_FALSE(endpoint.peek_frame());
    EXPECT_FALSE(endpoint.peek_frame(ec));
    EXPECT_FALSE(ec);
    EXPECT_FALSE(endpoint.peek_frame(frame_room));
    ec = stale;
    EXPECT_FALSE(endpoint.peek_frame(frame_room, ec));
    EXPECT_FALSE(ec);

    const std::string first(40, 'x'), second(50, 'y');
    arrive(first);
    arrive(second);
    constexpr size_t around = 14 + 20 + 8 + 4;
    EXPECT_EQ(endpoint.peek_frame(), around + 40);
    ec = stale;
    EXPECT_EQ(endpoint.peek_frame(ec), around + 40);
    EXPECT_FALSE(ec);
    EXPECT_EQ(frame_room[12], std::byte{0}) << "nothing is copied";
    const auto copied = endpoint.peek_frame(frame_room);
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->size(), around + 40);
    EXPECT_EQ(text_of(copied->subspan(42, 40)), first);
    frame_room.fill(std::byte{0});
    ec = stale;
    const auto copied_again = endpoint.peek_frame(frame_room, ec);
    EXPECT_FALSE(ec);
    ASSERT_TRUE(copied_again);
    EXPECT_EQ(text_of(copied_again->subspan(42, 40)), first);
    EXPECT_EQ(text_of(endpoint.receive_frame(frame_room).subspan(42, 40)), first);
    EXPECT_EQ(endpoint.peek_frame(), around + 50);
    EXPECT_EQ(text_of(endpoint.receive_frame(frame_room).subspan(42, 50)), second);
    EXPECT_FALSE(endpoint.peek_frame());
}

TEST_F(Face, PeekFrame_OnADisabledEndpoint_IsAnError)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::disabled);
    std::error_code ec;
    EXPECT_FALSE(endpoint.peek_frame(ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    ec.clear();
    EXPECT_FALSE(endpoint.peek_frame(frame_room, ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { (void)endpoint.peek_frame(); }), EINVAL);
    EXPECT_EQ(error_of([&] { (void)endpoint.peek_frame(frame_room); }), EINVAL);
}

/* Whatever the memory held before. */
TEST_F(Face, EmptyQueue_ResultInUsedMemory_IsNone)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    alignas(ruk::maybe_datagram) unsigned char used[sizeof(ruk::maybe_datagram)];
    std::error_code ec;
    memset(used, 0x01, sizeof used);
    const auto *d = new (used) ruk::maybe_datagram(endpoint.try_receive(room, ec));
    EXPECT_FALSE(d->has_value());
    memset(used, 0x01, sizeof used);
    d = new (used) ruk::maybe_datagram(endpoint.try_receive(room));
    EXPECT_FALSE(d->has_value());
}

TEST_F(Face, EveryErrno_IsStored_AndZeroClears)
{
    std::error_code ec;
    for (int rc = 1; rc < 134; rc++) {
        ec.clear();
        ruk::detail::set(ec, rc);
        EXPECT_EQ(ec, std::error_code(rc, std::generic_category())) << rc;
    }
    ruk::detail::set(ec, 0);
    EXPECT_FALSE(ec);
}

TEST_F(Face, Frame_InTheRawMode_IsWholeWithItsTrailer)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    endpoint.set_filter(ruk::filter::raw);
    EXPECT_FALSE(endpoint.frame_waits());
    EXPECT_FALSE(endpoint.try_receive_frame(frame_room));
    EXPECT_EQ(error_of([&] { endpoint.receive_frame(frame_room, ruk::wait::none); }), EAGAIN);
    std::error_code ec;
    EXPECT_TRUE(endpoint.receive_frame(frame_room, ruk::wait::none, ec).empty());
    EXPECT_EQ(ec, std::errc::resource_unavailable_try_again);

    const std::string text(40, 'x');
    arrive(text);
    arrive(text);
    EXPECT_TRUE(endpoint.frame_waits(ec));
    EXPECT_FALSE(ec);
    const auto f = endpoint.try_receive_frame(frame_room);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->data.size(), 14u + 20 + 8 + 40 + 4);
    EXPECT_EQ(f->data[12], std::byte{0x08});
    EXPECT_EQ(text_of(f->data.subspan(42, 40)), text);
    EXPECT_FALSE(f->time);
    const auto second = endpoint.receive_frame(frame_room);
    EXPECT_EQ(second.size(), 86u);
    EXPECT_EQ(text_of(second.subspan(42, 40)), text);
}

TEST_F(Face, Frame_OfADatedEndpoint_HasItsTime)
{
    using namespace std::chrono_literals;
    ruk::endpoint endpoint = opened(ruk::open_flags::hw_timestamping);
    endpoint.set_filter(ruk::filter::raw);
    softnic_advance(nic, 1000000000);
    arrive("x");
    const auto f = endpoint.try_receive_frame(frame_room);
    ASSERT_TRUE(f && f->time);
    const auto expected = ruk::time_point(1700000001000000000ns);
    EXPECT_LT(*f->time > expected ? *f->time - expected : expected - *f->time, 1us);
}

TEST_F(Face, Filter_WithoutAChannel_TagsItsFrames)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    const ruk::filter_rule rule = {.to = ruk::ip("10.77.0.1"), .port = 7000};
    endpoint.add_filter(rule, 4000);
    EXPECT_EQ(softnic_steered(nic, 0, 0x0a4d0001, 7000, 0, 17), 1);
    arrive("tagged", 4000, 7000);
    std::error_code ec;
    const auto f = endpoint.try_receive_frame(frame_room, ec);
    ASSERT_TRUE(f);
    EXPECT_FALSE(ec);
    EXPECT_EQ(f->tag, 4000);
    endpoint.remove_filter(rule, 4000);
    EXPECT_EQ(softnic_steered(nic, 0, 0x0a4d0001, 7000, 0, 17), 0);
    const ruk::filter_rule other = {.to = rule.to, .port = 7000, .protocol = 1};
    EXPECT_EQ(error_of([&] { endpoint.add_filter(other, 4000); }), EINVAL);
    endpoint.remove_filter(other, 4000, ec);
    EXPECT_EQ(ec, std::errc::invalid_argument);
}

TEST_F(Face, DisabledEndpoint_ReceivesOnceEnabled)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::disabled);
    EXPECT_EQ(error_of([&] { (void)endpoint.try_receive(room); }), EINVAL);
    EXPECT_EQ(error_of([&] { (void)endpoint.try_receive_frame(frame_room); }), EINVAL);
    std::error_code ec;
    EXPECT_FALSE(endpoint.try_receive_frame(frame_room, ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    endpoint.enable();
    EXPECT_EQ(error_of([&] { endpoint.enable(); }), EINVAL);
    ruk::channel channel = endpoint.bind(5000);
    arrive("on");
    EXPECT_TRUE(endpoint.try_receive(room));
}

TEST_F(Face, Attributes_Changed_AreReadBack)
{
    ruk::endpoint endpoint = opened();
    endpoint.set_filter(ruk::filter::raw);
    EXPECT_EQ(endpoint.attributes().recvq_filter_mode, 2u);
    ruk_device_attrs attrs = endpoint.attributes();
    attrs.hw_timestamping = 1;
    endpoint.set_attributes(attrs);
    EXPECT_EQ(endpoint.attributes().hw_timestamping, 1u);
}

TEST_F(Face, Send_OnAHandleAndToAnAddress_LeavesTheAdapter)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle handle = channel.connect(ruk::address("10.77.0.2", 6000));
    handle.send("text"sv);
    Datagram d = sent_datagram();
    EXPECT_EQ(text_of(d.payload), "text");
    EXPECT_EQ(d.dst, "10.77.0.2:6000");
    EXPECT_EQ(d.src, "10.77.0.1:5000");

    const std::array<uint16_t, 2> numbers = {0x6261, 0x6463};
    EXPECT_TRUE(handle.try_send(std::span(numbers)));
    EXPECT_EQ(text_of(sent_datagram().payload), "abcd");

    channel.send_to(ruk::address("10.77.0.2", 6001), "other"sv);
    d = sent_datagram();
    EXPECT_EQ(text_of(d.payload), "other");
    EXPECT_EQ(d.dst, "10.77.0.2:6001");
}

TEST_F(Face, TrySendTo_LeavesTheAdapter_AndTellsOfOtherErrors)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    EXPECT_TRUE(channel.try_send_to(ruk::address("10.77.0.2", 6000), "text"sv));
    EXPECT_EQ(text_of(sent_datagram().payload), "text");
    std::error_code ec;
    EXPECT_TRUE(channel.try_send_to(ruk::address("10.77.0.2", 6000), "more"sv, ec));
    EXPECT_FALSE(ec);
    EXPECT_EQ(text_of(sent_datagram().payload), "more");
    const sockaddr_in silent = ruk::address("10.77.0.99", 6000); // nobody answers to ARP
    EXPECT_FALSE(channel.try_send_to(silent, "x"sv, ec));
    EXPECT_EQ(ec, std::errc::address_not_available);
    EXPECT_EQ(error_of([&] { (void)channel.try_send_to(silent, "x"sv); }), EADDRNOTAVAIL);
}

TEST_F(Face, NoRoom_TrySendSaysSoWithoutAnError)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle handle = channel.connect(ruk::address("10.77.0.2", 6000));
    const std::array<std::byte, 1400> large{};
    std::error_code ec;
    int sent = 0; // the adapter takes none of them
    while (sent < 10000 && handle.try_send(std::span(large), ec))
        sent++;
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 10000);
    EXPECT_FALSE(ec);
    EXPECT_FALSE(handle.try_send(std::span(large)));
    EXPECT_FALSE(channel.try_send_to(ruk::address("10.77.0.2", 6000), std::span(large)));
}

TEST_F(Face, EndpointNotEnabled_TrySendTellsTheError)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::disabled);
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle handle = channel.connect(ruk::address("10.77.0.2", 6000));
    std::error_code ec;
    EXPECT_FALSE(handle.try_send("x"sv, ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { (void)handle.try_send("x"sv); }), EINVAL);
}

TEST_F(Face, FrameWithAHeaderOfItsOwn_LeavesTheAdapter)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    Bytes header = unhex("020000000002 026f78000001 88b5 0102");
    EXPECT_TRUE(endpoint.send_frame(header, 0, 0, "payload of an experimental protocol, long enough"sv));
    const std::vector<Bytes> frames = sent();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(Bytes(frames[0].begin(), frames[0].begin() + 16), header);
    EXPECT_EQ(text_of(Bytes(frames[0].begin() + 16, frames[0].end())),
              "payload of an experimental protocol, long enough");
    std::error_code ec;
    ruk::endpoint disabled = opened(ruk::open_flags::disabled);
    EXPECT_FALSE(disabled.send_frame(header, 0, 0, "x"sv, ruk::send_flags::nonblock, ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { disabled.send_frame(header, 0, 0, "x"sv); }), EINVAL);
}

TEST_F(Face, Payload_OfElementsInOnePiece_IsTheirBytes)
{
    const auto bytes_of = [](const ruk::payload &p) {
        const auto *first = static_cast<const uint8_t *>(p.data());
        return Bytes(first, first + p.size());
    };
    const Bytes expected = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    std::vector<Quote> vector(1);
    memcpy(vector.data(), "abcdefgh", 8);
    EXPECT_EQ(bytes_of(vector), expected);
    EXPECT_EQ(bytes_of(std::span(vector)), expected);
    EXPECT_EQ(bytes_of(std::array{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}), expected);
    Quote quotes[1];
    memcpy(quotes, "abcdefgh", 8);
    EXPECT_EQ(bytes_of(quotes), expected);
    EXPECT_EQ(bytes_of(std::string("abcdefgh")), expected);
    EXPECT_EQ(bytes_of("abcdefgh"sv), expected);
    EXPECT_TRUE(bytes_of(std::vector<int>()).empty());
}

/* Its low 32 bits alone would be a datagram of 5 bytes. The bytes behind the first are not there, and not read. */
TEST_F(Face, PayloadThatNoIntHolds_IsRefused)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle handle = channel.connect(ruk::address("10.77.0.255", 6000));
    const auto to = ruk::address("10.77.0.255", 6000);
    Bytes header = unhex("020000000002 026f78000001 88b5 0102");
    const size_t beyond = sizeof(size_t) > 4 ? (size_t{1} << (sizeof(size_t) * 4)) + 5 : 0x80000005u;
    for (const size_t size : {beyond, size_t{0x80000000u}, SIZE_MAX}) {
        const ruk::payload data(header.data(), size);
        EXPECT_EQ(data.size(), size);
        std::error_code ec;
        EXPECT_EQ(error_of([&] { handle.send(data); }), EMSGSIZE);
        handle.send(data, ec);
        EXPECT_EQ(std::exchange(ec, {}), std::errc::message_size);
        EXPECT_EQ(error_of([&] { (void)handle.try_send(data); }), EMSGSIZE);
        EXPECT_FALSE(handle.try_send(data, ec));
        EXPECT_EQ(std::exchange(ec, {}), std::errc::message_size);
        EXPECT_EQ(error_of([&] { channel.send_to(to, data); }), EMSGSIZE);
        channel.send_to(to, data, ec);
        EXPECT_EQ(std::exchange(ec, {}), std::errc::message_size);
        EXPECT_EQ(error_of([&] { (void)channel.try_send_to(to, data); }), EMSGSIZE);
        EXPECT_FALSE(channel.try_send_to(to, data, ec));
        EXPECT_EQ(std::exchange(ec, {}), std::errc::message_size);
        EXPECT_EQ(error_of([&] { endpoint.send_frame(header, 0, 0, data); }), EMSGSIZE);
        EXPECT_FALSE(endpoint.send_frame(header, 0, 0, data, ruk::send_flags::none, ec));
        EXPECT_EQ(ec, std::errc::message_size);
    }
    EXPECT_TRUE(sent().empty());
}

TEST_F(Face, FrameWhoseHeaderDoesNotFit_IsRefused)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    const auto data = "payload of an experimental protocol, long enough"sv;
    Bytes header(58, 0x11);
    std::error_code ec;
    for (const size_t length : {size_t{0}, size_t{57}, size_t{58}}) {
        const std::span<uint8_t> part(header.data(), length);
        EXPECT_EQ(error_of([&] { endpoint.send_frame(part, 0, 0, data); }), EINVAL) << length;
        EXPECT_FALSE(endpoint.send_frame(part, 0, 0, data, ruk::send_flags::none, ec));
        EXPECT_EQ(std::exchange(ec, {}), std::errc::invalid_argument) << length;
    }
    const std::span<uint8_t> longest(header.data(), 56);
    for (const int offset : {55, 56, 1000, INT_MAX})
        EXPECT_EQ(error_of([&] { endpoint.send_frame(longest, 0, offset, data); }), EINVAL) << offset;
    EXPECT_EQ(error_of([&] { endpoint.send_frame(longest.first(2), 0, 1, data); }), EINVAL);
    EXPECT_TRUE(sent().empty());
    for (const int offset : {54, -1}) {
        EXPECT_TRUE(endpoint.send_frame(longest, 0, offset, data));
        const std::vector<Bytes> frames = sent();
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].size(), 56u + 48);
        EXPECT_EQ(Bytes(frames[0].begin(), frames[0].begin() + 54), Bytes(54, 0x11));
    }
    EXPECT_TRUE(endpoint.send_frame(std::span(header).first(1), 0, 0, data));
    softnic_run(nic);
    nuv_ureq_t last = {};
    for (Bytes request; !(request = next_request()).empty();)
        memcpy(&last, request.data(), sizeof last);
    EXPECT_EQ(last.ruk.header_length, 1);
    EXPECT_EQ(last.ruk.ruk_header[0], 0x11);
}

TEST_F(Face, SendHandle_LeavesItsScope_IsGoneFromItsChannel)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    {
        ruk::send_handle first = channel.connect(ruk::address("10.77.0.2", 6000));
        ruk::send_handle second = std::move(first);
        EXPECT_EQ(handles(channel.get()), 1u);
        second.send("x"sv);
        EXPECT_EQ(text_of(sent_datagram().payload), "x");
    }
    EXPECT_EQ(handles(channel.get()), 0u);
}

TEST_F(Face, Connect_WithATimeToLive_SendsWithIt)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle handle = channel.connect(ruk::address("10.77.0.2", 6000), 7);
    handle.send("x"sv);
    EXPECT_EQ(sent_datagram().ttl, 7u);
}

TEST_F(Face, ConnectWithoutARoute_ToldAsCodeAndAsException)
{
    host.routes = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    const sockaddr_in far = ruk::address("192.0.2.1", 6000);
    std::error_code ec;
    EXPECT_FALSE(channel.connect(far, ec));
    EXPECT_EQ(ec, std::errc::host_unreachable);
    EXPECT_EQ(error_of([&] { (void)channel.connect(far); }), EHOSTUNREACH);
    channel.send_to(far, "x"sv, ec);
    EXPECT_EQ(ec, std::errc::host_unreachable);
    EXPECT_EQ(error_of([&] { channel.send_to(far, "x"sv); }), EHOSTUNREACH);
}

TEST_F(Face, Group_JoinedAndLeft_IsSteeredMeanwhile)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    const in_addr group = ruk::ip("239.1.1.1");
    channel.join(group);
    EXPECT_EQ(softnic_steered(nic, 0, 0xef010101, 5000, 0, 17), 1);
    channel.leave(group);
    EXPECT_EQ(softnic_steered(nic, 0, 0xef010101, 5000, 0, 17), 0);
    std::error_code ec;
    channel.leave(group, ec);
    EXPECT_EQ(ec, std::errc::address_not_available);
    EXPECT_EQ(error_of([&] { channel.join(ruk::ip("10.0.0.1")); }), EINVAL);
}

TEST_F(Face, BlockThatTheKernelRefuses_HasTheKernelsReason)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    host.sockets.setsockopt = [](int, int, int, const void *, socklen_t) {
        errno = EADDRNOTAVAIL;
        return -1;
    };
    std::error_code ec;
    channel.block(ruk::ip("239.1.1.1"), ruk::ip("10.77.0.2"), ec);
    EXPECT_EQ(ec, std::errc::address_not_available);
}

TEST_F(Face, UnblockThatTheKernelRefuses_HasTheKernelsReason)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    const in_addr group = ruk::ip("239.1.1.1"), source = ruk::ip("10.77.0.2");
    std::error_code ec;
    host.sockets.fail(Slot::setsockopt, 1, EADDRNOTAVAIL, 4);
    channel.unblock(group, source, ec);
    EXPECT_EQ(ec, std::errc::address_not_available);
    EXPECT_EQ(error_of([&] { channel.unblock(group, source); }), EADDRNOTAVAIL);
    EXPECT_EQ(error_of([&] { channel.block(group, source); }), EADDRNOTAVAIL);
    channel.block(group, source, ec);
    EXPECT_EQ(ec, std::errc::address_not_available);
    channel.block(group, source, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(last_option(), IP_BLOCK_SOURCE);
    channel.unblock(group, source);
    EXPECT_EQ(last_option(), IP_UNBLOCK_SOURCE);
    channel.block(group, source);
    channel.unblock(group, source, ec);
    EXPECT_FALSE(ec);
    EXPECT_TRUE(TAILQ_EMPTY(&channel.get()->ch_mreq_blocked));
}

TEST_F(Face, GroupOfOneSource_JoinedAndLeft_IsSteeredMeanwhile)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    const in_addr group = ruk::ip("239.1.1.1"), source = ruk::ip("10.77.0.2"), other = ruk::ip("10.77.0.3");
    const auto steered = [&] { return softnic_steered(nic, 0, 0xef010101, 5000, 0, 17); };
    channel.join(group, source);
    EXPECT_EQ(last_option(), IP_ADD_SOURCE_MEMBERSHIP);
    EXPECT_EQ(steered(), 1);
    std::error_code ec;
    channel.leave(group, other, ec);
    EXPECT_EQ(ec, std::errc::address_not_available);
    EXPECT_EQ(error_of([&] { channel.leave(group, other); }), EADDRNOTAVAIL);
    channel.leave(group, source, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(steered(), 0);

    channel.join(group, source, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(steered(), 1);
    channel.leave(group, source);
    EXPECT_EQ(steered(), 0);
    const in_addr no_group = ruk::ip("10.0.0.1");
    channel.join(no_group, source, ec);
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { channel.join(no_group, source); }), EINVAL);
    channel.join(group, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(last_option(), IP_ADD_MEMBERSHIP);
    EXPECT_EQ(error_of([&] { channel.leave(ruk::ip("239.1.1.2")); }), EADDRNOTAVAIL);
}

/* The library hands the socket's own -1 on here. */
TEST_F(Face, BindWhoseSocketOptionIsRefused_HasTheKernelsReason)
{
    ruk::endpoint endpoint = opened();
    const in_addr vlan = ruk::ip("10.77.7.1");
    std::error_code ec;
    host.sockets.fail(Slot::setsockopt, 1, EACCES, 4);
    EXPECT_FALSE(endpoint.bind(5000, ruk::bind_flags::reuse, nullptr, ec));
    EXPECT_EQ(ec, std::errc::permission_denied);
    EXPECT_EQ(error_of([&] { (void)endpoint.bind(5000, ruk::bind_flags::broadcast); }), EACCES);
    EXPECT_FALSE(endpoint.bind(vlan, 5000, ruk::bind_flags::reuse, nullptr, ec));
    EXPECT_EQ(ec, std::errc::permission_denied);
    EXPECT_EQ(error_of([&] { (void)endpoint.bind(vlan, 5000, ruk::bind_flags::broadcast); }), EACCES);
    EXPECT_TRUE(endpoint.bind(5000, ruk::bind_flags::reuse, nullptr, ec));
    EXPECT_FALSE(ec);
}

TEST_F(Face, BindToAnotherAddressOfTheAdapter_AsCodeAndAsException)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::none);
    const in_addr vlan = ruk::ip("10.77.7.1"), foreign = ruk::ip("10.99.0.1");
    int context = 0;
    const ruk::channel channel = endpoint.bind(vlan, 5000, ruk::bind_flags::none, &context);
    EXPECT_EQ(channel.address().sin_addr.s_addr, vlan.s_addr);
    EXPECT_EQ(channel.get()->ch_ucontext, &context);
    EXPECT_EQ(softnic_steered(nic, 0, 0x0a4d0701, 5000, 7, 17), 1);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    const ruk::channel other = endpoint.bind(vlan, 5001, ruk::bind_flags::none, &context, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(other.address(ec).sin_port, htons(5001));
    EXPECT_FALSE(ec);
    EXPECT_FALSE(endpoint.bind(foreign, 5000, ruk::bind_flags::none, nullptr, ec));
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { (void)endpoint.bind(foreign, 5000); }), EINVAL);
}

TEST_F(Face, AddressOfNoChannel_ToldAsCodeAndAsException)
{
    const ruk::channel none;
    std::error_code ec;
    EXPECT_EQ(none.address(ec).sin_port, 0);
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { none.address(); }), EINVAL);
}

TEST_F(Face, Channel_MovedOnto_LivesOnInTheOther)
{
    ruk::endpoint endpoint = opened();
    const auto steered = [&](uint16_t port) { return softnic_steered(nic, 0, 0x0a4d0001, port, 0, 17); };
    ruk::channel first = endpoint.bind(5000), second = endpoint.bind(5001);
    const ruk_channel_t old = first.get(), handle = second.get();
    first = std::move(second);
    EXPECT_EQ(first.get(), handle);
    EXPECT_EQ(second.get(), old); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(steered(5000), 1);
    second.reset();
    EXPECT_EQ(steered(5000), 0);
    EXPECT_EQ(steered(5001), 1);
    ruk::channel &same = first;
    first = std::move(same);
    EXPECT_EQ(first.get(), handle);
    EXPECT_EQ(steered(5001), 1);
    EXPECT_EQ(ruk_unbind(first.release()), 0);
    EXPECT_FALSE(first);
}

TEST_F(Face, SendHandle_MovedOnto_LivesOnInTheOther)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle first = channel.connect(ruk::address("10.77.0.2", 6000));
    ruk::send_handle second = channel.connect(ruk::address("10.77.0.2", 6001));
    const ruk_send_t old = first.get(), handle = second.get();
    first = std::move(second);
    EXPECT_EQ(first.get(), handle);
    EXPECT_EQ(second.get(), old); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(handles(channel.get()), 2u);
    second.reset();
    EXPECT_EQ(handles(channel.get()), 1u);
    ruk::send_handle &same = first;
    first = std::move(same);
    EXPECT_EQ(first.get(), handle);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    first.send("moved"sv, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(sent_datagram().dst, "10.77.0.2:6001");
    first.reset();
    EXPECT_EQ(handles(channel.get()), 0u);
}

TEST_F(Face, SendThatFails_ToldAsCodeAndAsException)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::disabled);
    ruk::channel channel = endpoint.bind(5000);
    ruk::send_handle handle = channel.connect(ruk::address("10.77.0.2", 6000));
    std::error_code ec;
    handle.send("x"sv, ec);
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([&] { handle.send("x"sv); }), EINVAL);
}

/* Told as a lack of room is. */
TEST_F(Face, HostsInterfacesCannotBeListed_TrySendToIsFalseWithoutAnError)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    host.getifaddrs_error = ENXIO;
    const sockaddr_in unknown = ruk::address("10.77.0.9", 6000);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    StreamCapture streams;
    EXPECT_FALSE(channel.try_send_to(unknown, "x"sv, ec));
    EXPECT_FALSE(ec);
    EXPECT_FALSE(channel.try_send_to(unknown, "x"sv));
    channel.send_to(unknown, "x"sv, ec);
    EXPECT_EQ(ec.value(), ENXIO) << "which waiting does not turn into a lack of room";
}

TEST_F(Face, OpenOfAnInterfacesName_AsCodeAndAsException)
{
    {
        const ruk::endpoint endpoint = ruk::endpoint::open_if("vlan7");
        EXPECT_EQ(endpoint.get()->rep_ipaddr_be32, htonl(0x0a4d0701));
        EXPECT_EQ(claimed(), 1u);
    }
    std::error_code ec = std::make_error_code(std::errc::io_error);
    const ruk::endpoint endpoint = ruk::endpoint::open_if("oxel0", ruk::open_flags::thread_safe, ec);
    EXPECT_FALSE(ec);
    ASSERT_TRUE(endpoint);
    EXPECT_EQ(endpoint.get()->rep_ipaddr_be32, htonl(0x0a4d0001));
    EXPECT_NE(endpoint.get()->rep_lockp, nullptr);
}

TEST_F(Face, Initialisation_AsCodeAndAsException)
{
    std::error_code ec = std::make_error_code(std::errc::io_error);
    ruk::init(ec);
    EXPECT_FALSE(ec);
    ruk__api_version = RUK_API_VERSION + 1; /* as another part of the program had asked for another one */
    StreamCapture streams;
    ruk::init(ec);
    EXPECT_EQ(ec, std::errc::invalid_argument);
    EXPECT_EQ(error_of([] { ruk::init(); }), EINVAL);
}

TEST_F(Face, Interfaces_ThatCannotBeListed_ToldAsCodeAndAsException)
{
    std::error_code ec = std::make_error_code(std::errc::io_error);
    {
        const ruk::interface_list list(ec);
        EXPECT_FALSE(ec);
        EXPECT_EQ(list.size(), 2u);
    }
    host.getifaddrs_error = ENOBUFS;
    const ruk::interface_list none(ec);
    EXPECT_EQ(ec, std::errc::no_buffer_space);
    EXPECT_EQ(none.size(), 0u);
    EXPECT_EQ(none.begin(), none.end());
    EXPECT_EQ(error_of([] { const ruk::interface_list list; }), ENOBUFS);
}

TEST_F(Face, Interfaces_Moved_AreThoseOfTheOther)
{
    ruk::interface_list both;
    host.interfaces.pop_back();
    ruk::interface_list one;
    const tov_ifaddrs *head = &*both.begin();
    ruk::interface_list taken(std::move(both));
    EXPECT_EQ(taken.size(), 2u);
    EXPECT_EQ(&*taken.begin(), head);
    EXPECT_EQ(both.size(), 0u); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(both.begin(), both.end());
    one = std::move(taken);
    EXPECT_EQ(one.size(), 2u);
    ruk::interface_list::iterator at = one.begin();
    EXPECT_STREQ(at++->tov_ifa_name, "oxel0");
    EXPECT_STREQ(at->tov_ifa_name, "vlan7");
    EXPECT_EQ(++at, one.end());
}

/* What the driver refuses, by each call that asks it. */
TEST_F(Face, DriverRefuses_ToldAsCodeAndAsException)
{
    ruk::endpoint endpoint = opened();
    const ruk::filter_rule rule = {.to = ruk::ip("10.77.0.1"), .port = 7000};
    ruk_device_attrs attrs = endpoint.attributes();
    attrs.recvq_filter_mode = RUK_RECV_FILTER_ALLMULTI;
    const struct {
        unsigned long command;
        std::function<void(std::error_code &)> with_code;
        std::function<void()> throwing;
    } calls[] = {
        {OXEL_SET_FILTER_MODE, [&](auto &ec) { endpoint.set_filter(ruk::filter::raw, ec); },
         [&] { endpoint.set_filter(ruk::filter::normal); }},
        {OXEL_RX_FILTER, [&](auto &ec) { endpoint.add_filter(rule, 4000, 0, ec); },
         [&] { endpoint.add_filter(rule, 4001); }},
        {OXEL_RX_FILTER, [&](auto &ec) { endpoint.remove_filter(rule, 4000, ec); },
         [&] { endpoint.remove_filter(rule, 4001); }},
        {OXEL_SET_RUK_PARAMS, [&](auto &ec) { endpoint.set_attributes(attrs, ec); },
         [&] {
             attrs.recvq_filter_mode = RUK_RECV_FILTER_NORMAL;
             endpoint.set_attributes(attrs);
         }},
        {OXEL_GET_NIC_TICKS, [&](auto &ec) { endpoint.clocks(ec); }, [&] { endpoint.clocks(); }},
    };
    for (const auto &call : calls) {
        SCOPED_TRACE(call.command);
        StreamCapture streams;
        std::error_code ec;
        host.sockets.fail_ioctl(call.command, 1, EIO);
        call.with_code(ec);
        EXPECT_EQ(ec, std::errc::io_error);
        call.with_code(ec);
        EXPECT_FALSE(ec);
        host.sockets.fail_ioctl(call.command, 1, EIO);
        EXPECT_EQ(error_of(call.throwing), EIO);
        EXPECT_EQ(error_of(call.throwing), 0);
    }
}

TEST_F(Face, DisabledEndpoint_EnabledOnce_TheSecondTimeIsAnError)
{
    ruk::endpoint endpoint = opened(ruk::open_flags::disabled);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    endpoint.enable(ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(endpoint.get()->rep_state, REP_STATE_OPEN);
    endpoint.enable(ec);
    EXPECT_EQ(ec, std::errc::invalid_argument);
}

TEST_F(Face, Descriptor_IsTheEndpointsOwn)
{
    const ruk::endpoint endpoint = opened();
    EXPECT_EQ(endpoint.descriptor(), endpoint.get()->rep_handle);
    EXPECT_GE(endpoint.descriptor(), 0);
}

TEST_F(Face, SleepingReceive_IsWokenByADatagram)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    LibcHookGuard hooks;
    int sleeps = 0;
    hooks->poll = [&](struct pollfd *, nfds_t, int) {
        sleeps++;
        arrive("late");
        return 1;
    };
    EXPECT_EQ(text_of(endpoint.receive(room, ruk::wait::sleep).data()), "late");
    EXPECT_EQ(sleeps, 1);
    std::error_code ec = std::make_error_code(std::errc::io_error);
    EXPECT_EQ(text_of(endpoint.receive(room, ruk::wait::sleep, ec).data()), "late");
    EXPECT_FALSE(ec);
    EXPECT_EQ(sleeps, 2);
}

TEST_F(Face, Shutdown_EndsWaitsWithAnInterruption)
{
    ruk::endpoint endpoint = opened();
    ruk::channel channel = endpoint.bind(5000);
    LibcHookGuard hooks;
    hooks->poll = [&](struct pollfd *, nfds_t, int) {
        endpoint.shutdown();
        return 0;
    };
    std::error_code ec;
    endpoint.receive(room, ruk::wait::sleep, ec);
    EXPECT_EQ(ec, std::errc::interrupted);
    EXPECT_EQ(error_of([&] { endpoint.receive(room, ruk::wait::sleep); }), EINTR);
    /* Asked for before the call, it ends a wait for frames at once. */
    EXPECT_TRUE(endpoint.receive_frame(frame_room, ruk::wait::spin, ec).empty());
    EXPECT_EQ(ec, std::errc::interrupted);
    EXPECT_EQ(error_of([&] { endpoint.receive_frame(frame_room); }), EINTR);
}

/* A keyframe is dated with a mark, which is no time. */
TEST_F(Face, KeyframeAmongFrames_HasNoTime)
{
    const ScopedEnv on("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
    ruk::endpoint endpoint = opened();
    recv_rig::UdpFrame keyframe;
    keyframe.dst = 0x01010100;
    keyframe.protocol = 253;
    keyframe.payload = Bytes(40, 0x55);
    const Bytes bytes = keyframe.bytes();
    const size_t untrailed = bytes.size() - 4; /* the adapter appends the trailer */
    softnic_inject(nic, 0, bytes.data(), untrailed);
    softnic_run(nic);
    const auto f = endpoint.try_receive_frame(frame_room);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->data.size(), bytes.size());
    EXPECT_FALSE(f->time);

    softnic_inject(nic, 0, bytes.data(), untrailed);
    softnic_run(nic);
    size_t length = 0;
    uint64_t mark = 0;
    EXPECT_EQ(ruk_raw_recv_nb(endpoint.get(), frame_room.data(), &length, &mark, nullptr), 0);
    EXPECT_EQ(mark, UINT64_MAX) << "what stood there is the mark";
    endpoint.get()->arista_control.arct_status = ARISTA_STATUS_DISABLED; /* its summary would keep memory for good */
}

} // namespace
