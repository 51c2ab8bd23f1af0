// Frames through a real interface: what the port hands out is what a wire would have carried.
#include "lab.h"
#include "ports/packet.h"
#include "wire.h"

#include <arpa/inet.h>
#include <chrono>
#include <fstream>
#include <linux/if_packet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using softnic::Port;
using softnic::RxFrame;
using test_support::Lab;
using test_support::LabTest;

namespace {

class PacketPortTest : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        if (IsSkipped())
            return;
        std::string error;
        port = softnic::make_packet_port(lab.adapter.ifname, &error);
        ASSERT_TRUE(port) << error;
        wire = lab.packet_socket(lab.peer);
        ASSERT_GE(wire, 0);
    }
    void TearDown() override
    {
        if (wire >= 0)
            close(wire);
    }

    // Puts bytes on the wire as they are.
    void inject(const Bytes &frame)
    {
        ASSERT_EQ(send(wire, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size())) << strerror(errno);
    }

    // The next frame that the port hands out; empty when none came for that long.
    Bytes next(int timeout_ms = 10000)
    {
        for (;;) {
            RxFrame frame;
            if (port->receive(&frame)) {
                arrival_ns = frame.arrival_ns;
                return {frame.data, frame.data + frame.len};
            }
            pollfd readable = {port->poll_fd(), POLLIN, 0};
            if (poll(&readable, 1, timeout_ms) == 0)
                return {};
        }
    }

    // A datagram from a kernel socket. Not connected: that the adapter's kernel refuses it is of no interest.
    void send_datagram(int fd, const std::string &payload)
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(5000);
        inet_pton(AF_INET, lab.adapter.address, &to.sin_addr);
        ASSERT_EQ(sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)),
                  static_cast<ssize_t>(payload.size()))
            << strerror(errno);
    }

    // The host's view of the link follows changes after a moment.
    bool link_becomes(bool up)
    {
        for (int i = 0; i < 500 && port->link_up() != up; i++)
            usleep(10000);
        return port->link_up() == up;
    }

    std::unique_ptr<Port> port;
    int wire = -1;
    uint64_t arrival_ns = 0;
};

std::string payload_of(const Bytes &frame)
{
    const size_t udp = 14 + (frame.at(14) & 15u) * 4;
    return {frame.begin() + static_cast<ptrdiff_t>(udp) + 8,
            frame.begin() + static_cast<ptrdiff_t>(udp) + get16(frame, udp + 4)};
}

std::string text_of(size_t n)
{
    std::string s(n, 0);
    for (size_t i = 0; i < n; i++)
        s[i] = static_cast<char>('!' + (i * 7 + i / 90) % 90);
    return s;
}

#ifndef __SANITIZE_THREAD__
// This process gets that many more bytes of addresses, and no more.
bool limit_addresses(rlim_t bytes)
{
    std::ifstream statm("/proc/self/statm");
    rlim_t pages = 0;
    if (!(statm >> pages))
        return false;
    const rlim_t most = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + bytes;
    const rlimit limit = {most, most};
    return setrlimit(RLIMIT_AS, &limit) == 0;
}
#endif

// What a socket of the kernel tells about the next frame of the adapter's interface.
uint32_t kernel_status_of_next_frame(int fd)
{
    char data[2048], control[256];
    iovec part = {data, sizeof(data)};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (recvmsg(fd, &message, 0) < 0)
        return 0;
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
            tpacket_auxdata aux;
            memcpy(&aux, CMSG_DATA(c), sizeof(aux));
            return aux.tp_status;
        }
    }
    return 0;
}

} // namespace

TEST_F(PacketPortTest, KernelLeftChecksumOpen_FrameHandedOut_ChecksumComplete)
{
    const int spy = lab.packet_socket(lab.adapter);
    const int one = 1;
    ASSERT_EQ(setsockopt(spy, SOL_PACKET, PACKET_AUXDATA, &one, sizeof(one)), 0);
    ASSERT_EQ(setsockopt(spy, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof(one)), 0);
    const int fd = lab.udp_socket(lab.peer, 40000);
    for (size_t size : {size_t{1}, size_t{2}, size_t{23}, size_t{1471}, size_t{1472}}) {
        const std::string text = text_of(size);
        send_datagram(fd, text);
        EXPECT_NE(kernel_status_of_next_frame(spy) & TP_STATUS_CSUMNOTREADY, 0u) << "nothing was left to complete";
        const Bytes frame = next();
        ASSERT_FALSE(frame.empty());
        EXPECT_TRUE(checksums_hold(frame)) << size;
        EXPECT_EQ(payload_of(frame), text);
    }
    close(fd);
    close(spy);
}

TEST_F(PacketPortTest, ChecksumThatComesOutAsZero_FrameHandedOut_FieldIsAllOnes)
{
    // The payload's two bytes are chosen so that the sum over everything else and them is all ones.
    UdpFrame model;
    model.payload = std::string(2, '\0');
    const Bytes zero = model.bytes();
    const uint16_t field = get16(zero, 14 + 26);
    const std::string text = {static_cast<char>(field >> 8), static_cast<char>(field)};
    const int fd = lab.udp_socket(lab.peer, 40000);
    send_datagram(fd, text);
    const Bytes frame = next();
    ASSERT_FALSE(frame.empty());
    EXPECT_EQ(get16(frame, 14 + 26), 0xFFFF);
    close(fd);
}

TEST_F(PacketPortTest, UdpSuperframe_HandedOut_AsTheDatagramsItStandsFor)
{
    const int fd = lab.udp_socket(lab.peer, 40000);
    const int segment = 1000;
    ASSERT_EQ(setsockopt(fd, IPPROTO_UDP, 103 /* UDP_SEGMENT */, &segment, sizeof(segment)), 0) << strerror(errno);
    // The first fits a slot of the ring, the second does not.
    for (size_t size : {size_t{1100}, size_t{58500}}) {
        const std::string text = text_of(size);
        send_datagram(fd, text);
        std::string got;
        uint16_t first_id = 0;
        for (size_t i = 0; got.size() < size; i++) {
            const Bytes frame = next();
            ASSERT_FALSE(frame.empty()) << "after " << got.size() << " bytes";
            EXPECT_TRUE(checksums_hold(frame));
            const std::string part = payload_of(frame);
            EXPECT_EQ(part.size(), std::min(size - got.size(), size_t{segment}));
            EXPECT_EQ(frame.size(), 14 + 28 + part.size());
            EXPECT_EQ(get16(frame, 14 + 2), 28 + part.size());
            first_id = i == 0 ? get16(frame, 14 + 4) : first_id;
            EXPECT_EQ(get16(frame, 14 + 4), static_cast<uint16_t>(first_id + i));
            got += part;
        }
        EXPECT_EQ(got, text);
    }
    EXPECT_EQ(port->counters().received, 2u + 59u);
    EXPECT_EQ(next(100), Bytes());
    close(fd);
}

TEST_F(PacketPortTest, TcpSuperframes_HandedOut_AsSegmentsOfTheWire)
{
    int listener = -1;
    lab.on(lab.adapter, [&] { listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); });
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(7000);
    inet_pton(AF_INET, lab.adapter.address, &address.sin_addr);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    int client = -1;
    lab.on(lab.peer, [&] { client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); });
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0) << strerror(errno);
    const int server = accept(listener, nullptr, nullptr);
    ASSERT_GE(server, 0);

    const std::string text = text_of(60000);
    ASSERT_EQ(send(client, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    std::string stream(text.size(), 0);
    std::vector<bool> seen(text.size());
    size_t missing = text.size(), large = 0;
    uint32_t start = 0;
    while (missing != 0) {
        const Bytes frame = next();
        ASSERT_FALSE(frame.empty()) << missing << " bytes are missing";
        ASSERT_LE(frame.size(), 1514u);
        if (frame.at(14 + 9) != 6)
            continue;
        EXPECT_TRUE(checksums_hold(frame));
        const size_t tcp = 14 + 20, header = (frame.at(tcp + 12) >> 4) * 4u, end = 14 + get16(frame, 14 + 2);
        const uint32_t seq = get32(frame, tcp + 4);
        if ((frame.at(tcp + 13) & 2) != 0)
            start = seq + 1;
        large += end - tcp - header > 1000;
        for (size_t i = tcp + header; i < end; i++) {
            const size_t at = seq - start + (i - tcp - header);
            ASSERT_LT(at, stream.size());
            stream[at] = static_cast<char>(frame[i]);
            missing -= !seen[at];
            seen[at] = true;
        }
    }
    EXPECT_EQ(stream, text);
    EXPECT_GE(large, 30u);
    for (int fd : {listener, client, server})
        close(fd);
}

TEST_F(PacketPortTest, TaggedFrame_HandedOut_TagInPlace)
{
    for (const std::vector<uint32_t> &tags : std::vector<std::vector<uint32_t>>{
             {0x81000005}, {0x8100E005}, {0x81008000}, {0x88A80007}, {0x88A80007, 0x81000009}}) {
        UdpFrame frame;
        frame.tags = tags;
        frame.payload = text_of(100);
        inject(frame.bytes());
        EXPECT_EQ(next(), frame.bytes()) << std::hex << tags[0];
    }
}

TEST_F(PacketPortTest, ShortFrame_HandedOut_PaddedWithZeroesToSixty)
{
    UdpFrame frame;
    frame.payload = "abc";
    Bytes expected = frame.bytes();
    inject(expected);
    ASSERT_EQ(expected.size(), 45u);
    expected.resize(60);
    EXPECT_EQ(next(), expected);

    frame.tags = {0x81000005};
    expected = frame.bytes();
    inject(expected);
    expected.resize(60);
    EXPECT_EQ(next(), expected);

    Bytes arp(expected.begin(), expected.begin() + 12);
    put16(&arp, 0x0806);
    put(&arp, "0123456789", 10);
    inject(arp);
    arp.resize(60);
    EXPECT_EQ(next(), arp);
}

TEST_F(PacketPortTest, ShortFrameWithATrailer_HandedOut_PaddedBeforeTheTrailer)
{
    std::string error;
    port = softnic::make_packet_port(lab.adapter.ifname, &error, true);
    ASSERT_TRUE(port) << error;
    for (const uint32_t tag : {0u, 0x81000005u})
        for (size_t size = 1; size <= 20; size++) {
            UdpFrame frame;
            if (tag != 0)
                frame.tags = {tag};
            frame.payload.assign(size, 'x');
            Bytes expected = frame.bytes();
            Bytes with_trailer = expected;
            put32(&with_trailer, 0xDEADBEEF);
            inject(with_trailer);
            expected.resize(std::max<size_t>(expected.size(), 60));
            put32(&expected, 0xDEADBEEF);
            EXPECT_EQ(next(), expected) << size;
        }
    // A datagram whose last bytes would be taken for the trailer.
    UdpFrame without;
    without.payload = "abcdefgh";
    inject(without.bytes());
    without.payload.assign(18, 'y');
    Bytes whole = without.bytes();
    put32(&whole, 0x01020304);
    inject(whole);
    EXPECT_EQ(next(), whole);
    EXPECT_EQ(port->counters().rx_malformed, 1u);
}

TEST_F(PacketPortTest, LongDatagramThatReachesIntoTheTrailersPlace_Arrives_HandedOutAsItIs)
{
    std::string error;
    port = softnic::make_packet_port(lab.adapter.ifname, &error, true);
    ASSERT_TRUE(port) << error;
    for (const uint32_t tag : {0u, 0x81000005u})
        for (const size_t size : {22, 23, 40, 1000}) { // 64 bytes and more of frame
            UdpFrame frame;
            if (tag != 0)
                frame.tags = {tag};
            frame.payload = text_of(size);
            const Bytes datagram = frame.bytes();
            for (size_t there = 0; there <= 4; there++) { // bytes behind the datagram
                Bytes bytes = datagram;
                bytes.resize(datagram.size() + there, 0xEE);
                inject(bytes);
                EXPECT_EQ(next(), bytes) << size << " " << there;
            }
        }
    EXPECT_EQ(port->counters().rx_malformed, 0u);
}

TEST_F(PacketPortTest, DatagramCutOffByTheFramesEnd_Arrives_CountedNotPadded)
{
    UdpFrame frame;
    frame.payload = "abcdefgh";
    Bytes cut = frame.bytes();
    cut.resize(cut.size() - 1);
    inject(cut);
    inject(frame.bytes());
    Bytes expected = frame.bytes();
    expected.resize(60);
    EXPECT_EQ(next(), expected);
    EXPECT_EQ(port->counters().rx_malformed, 1u);
    EXPECT_EQ(port->counters().received, 1u);
}

TEST_F(PacketPortTest, FramesForOthersAndForAll_Arrive_HandedOutAsTheyAre)
{
    UdpFrame frame;
    frame.payload = text_of(50);
    for (const auto &to : {"\x02\x6F\x78\x00\x00\x01", "\xFF\xFF\xFF\xFF\xFF\xFF", "\x01\x00\x5E\x01\x02\x03",
                           "\x02\x11\x22\x33\x44\x55"}) {
        memcpy(frame.to, to, 6);
        inject(frame.bytes());
        EXPECT_EQ(next(), frame.bytes());
    }
}

// A bridge hands frames to other stations up only while it is promiscuous, as a card does.
TEST_F(PacketPortTest, FramesToOtherStations_Arrive_WhileThePortIsPromiscuous)
{
    port.reset();
    lab.run(lab.adapter, "ip link add br7 address 02:6f:78:00:00:07 type bridge && ip link set oxel0 master br7 up"
                         " && ip link set br7 addrgenmode none up");
    std::string error;
    port = softnic::make_packet_port("br7", &error);
    ASSERT_TRUE(port) << error;
    Bytes other(60, 0x33), own(60, 0x11);
    const uint8_t other_mac[] = {0x02, 0, 0, 0, 0x77, 0x77}, own_mac[] = {0x02, 0x6F, 0x78, 0, 0, 7};
    memcpy(other.data(), other_mac, 6);
    memcpy(own.data(), own_mac, 6);
    for (Bytes *frame : {&other, &own}) {
        memcpy(frame->data() + 6, lab.peer.mac, 6);
        (*frame)[12] = 0x88;
        (*frame)[13] = 0xB5;
    }
    const auto next_of_test = [&] { // others may speak, too
        for (;;) {
            const Bytes frame = next();
            if (frame.empty() || frame == other || frame == own)
                return frame;
        }
    };
    inject(other);
    inject(own);
    EXPECT_EQ(next_of_test(), own);
    ASSERT_EQ(port->set_promiscuous(true), 0);
    inject(other);
    EXPECT_EQ(next_of_test(), other);
    ASSERT_EQ(port->set_promiscuous(false), 0);
    inject(other);
    inject(own);
    EXPECT_EQ(next_of_test(), own);
}

TEST_F(PacketPortTest, FrameSent_OnTheWire_SameBytesAndNotReceivedBack)
{
    UdpFrame frame;
    std::swap(frame.to, frame.from);
    frame.payload = text_of(200);
    const Bytes sent = frame.bytes();
    ASSERT_EQ(port->send(sent.data(), sent.size()), 0);
    Bytes got(2000);
    got.resize(static_cast<size_t>(recv(wire, got.data(), got.size(), 0)));
    EXPECT_EQ(got, sent);

    ASSERT_EQ(port->send(sent.data(), 20), 0);
    got.resize(2000);
    got.resize(static_cast<size_t>(recv(wire, got.data(), got.size(), 0)));
    Bytes padded(sent.begin(), sent.begin() + 20);
    padded.resize(60);
    EXPECT_EQ(got, padded);

    // What the host itself sends is no received frame either.
    const int fd = lab.udp_socket(lab.adapter);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(9);
    inet_pton(AF_INET, lab.peer.address, &to.sin_addr);
    ASSERT_EQ(sendto(fd, "x", 1, 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)), 1);
    close(fd);
    // ... but the peer's answer, that nobody listens there, is.
    const Bytes answer = next();
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(answer.at(14 + 9), 1);
    EXPECT_EQ(port->counters().sent, 2u);
    EXPECT_EQ(port->counters().received, 1u);
}

TEST_F(PacketPortTest, FrameTooLargeForTheInterface_Sent_RefusedAndCounted)
{
    const Bytes frame(3000);
    EXPECT_EQ(port->send(frame.data(), frame.size()), EMSGSIZE);
    EXPECT_EQ(port->counters().tx_errors, 1u);
    EXPECT_EQ(port->counters().sent, 0u);
}

TEST_F(PacketPortTest, FrameArrives_ArrivalTime_IsTheHostsRealTime)
{
    const auto now = [] {
        return static_cast<uint64_t>(
            std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count());
    };
    const uint64_t before = now();
    inject(UdpFrame().bytes());
    ASSERT_FALSE(next().empty());
    EXPECT_GE(arrival_ns, before);
    EXPECT_LE(arrival_ns, now());
}

TEST_F(PacketPortTest, MoreFramesThanTheRingHolds_EachIsHandedOutOrCounted)
{
    UdpFrame frame;
    frame.payload = "0123";
    const uint32_t sent = 6000;
    for (uint32_t i = 0; i < sent; i++) {
        memcpy(frame.payload.data(), &i, 4);
        inject(frame.bytes());
    }
    uint32_t got = 0;
    for (Bytes b = next(0); !b.empty(); b = next(0)) {
        uint32_t number;
        memcpy(&number, payload_of(b).data(), 4);
        ASSERT_EQ(number, got) << "the newest are dropped, not the oldest";
        got++;
    }
    const softnic::PortCounters c = port->counters();
    EXPECT_EQ(c.received, got);
    EXPECT_GT(c.rx_dropped, 0u);
    EXPECT_EQ(c.received + c.rx_dropped, sent);
    // The ring works on.
    inject(frame.bytes());
    EXPECT_FALSE(next().empty());
}

TEST_F(PacketPortTest, SuperframesThatFitNowhere_CountedByTheDatagramsInThem)
{
    const int fd = lab.udp_socket(lab.peer, 40000);
    const int segment = 1000;
    ASSERT_EQ(setsockopt(fd, IPPROTO_UDP, 103 /* UDP_SEGMENT */, &segment, sizeof(segment)), 0);
    const std::string text = text_of(60000);
    const int superframes = 600;
    for (int i = 0; i < superframes; i++)
        send_datagram(fd, text);
    uint64_t got = 0;
    while (!next(0).empty())
        got++;
    const softnic::PortCounters c = port->counters();
    EXPECT_EQ(c.received, got);
    EXPECT_GT(c.rx_dropped, 0u);
    EXPECT_EQ(got + c.rx_dropped, 60u * superframes);
    close(fd);
}

TEST_F(PacketPortTest, LargeMtu_FramesPassWhole)
{
    port.reset();
    lab.run(lab.adapter, std::string("ip link set mtu 9000 dev ") + lab.adapter.ifname);
    lab.run(lab.peer, std::string("ip link set mtu 9000 dev ") + lab.peer.ifname);
    std::string error;
    port = softnic::make_packet_port(lab.adapter.ifname, &error);
    ASSERT_TRUE(port) << error;
    UdpFrame frame;
    frame.payload = text_of(8972);
    frame.tags = {0x81000005};
    inject(frame.bytes());
    EXPECT_EQ(next(), frame.bytes());
    EXPECT_EQ(port->send(frame.bytes().data(), frame.bytes().size()), 0);
}

#ifndef __SANITIZE_THREAD__ // which needs addresses of its own all the time
// With room for another 20 MiB of addresses.
TEST_F(PacketPortTest, RingLargerThanTheProcessMayMap_IsHalvedUntilItFits_AndSaidOnce)
{
    const std::string text = test_support::written_in_child([&](int out) {
        dup2(out, STDERR_FILENO);
        port.reset();
        std::string error;
        const bool limited = limit_addresses(20u << 20);
        port = softnic::make_packet_port(lab.adapter.ifname, &error, false, 64u << 20);
        UdpFrame frame;
        frame.payload = text_of(40);
        // Once more than what the ring holds.
        unsigned whole = 0;
        for (unsigned i = 0; port && i < 10000; i++) {
            inject(frame.bytes());
            whole += next() == frame.bytes();
        }
        return limited && whole == 10000;
    });
    EXPECT_EQ(text, "softnic: oxel0: the host refuses a packet ring of 67108864 bytes; it has given one of 16777216\n");
}

TEST_F(PacketPortTest, ProcessThatMayMapNoRing_OpenFails_SaysSo)
{
    const std::string text = test_support::written_in_child([&](int out) {
        port.reset();
        std::string error;
        error.reserve(256);
        const bool limited = limit_addresses(200u << 10); // less than the smallest ring
        const bool refused = softnic::make_packet_port(lab.adapter.ifname, &error) == nullptr;
        return limited && refused && write(out, error.data(), error.size()) == static_cast<ssize_t>(error.size());
    });
    EXPECT_EQ(text, "receive ring on oxel0: Cannot allocate memory");
}

#endif

TEST_F(PacketPortTest, LinkGoesDownAndComesBack_ReportedAndFramesFlowAgain)
{
    EXPECT_TRUE(port->link_up());
    lab.run(lab.peer, std::string("ip link set down dev ") + lab.peer.ifname);
    EXPECT_TRUE(link_becomes(false));
    lab.run(lab.adapter, std::string("ip link set down dev ") + lab.adapter.ifname);
    EXPECT_TRUE(link_becomes(false));
    // The descriptor does not keep a sleeper awake for good.
    RxFrame none;
    for (int i = 0; i < 1000; i++)
        EXPECT_FALSE(port->receive(&none));
    pollfd readable = {port->poll_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 0), 0);

    lab.run(lab.adapter, std::string("ip link set up dev ") + lab.adapter.ifname);
    lab.run(lab.peer, std::string("ip link set up dev ") + lab.peer.ifname);
    EXPECT_TRUE(link_becomes(true));
    int down;
    socklen_t len = sizeof(down);
    getsockopt(wire, SOL_SOCKET, SO_ERROR, &down, &len); // the sending socket remembers as well
    while (!next(50).empty()) {
    }
    UdpFrame frame;
    frame.payload = text_of(40);
    inject(frame.bytes());
    EXPECT_EQ(next(), frame.bytes());
}

TEST_F(PacketPortTest, InterfaceThatIsNotThere_OpenFails_SaysSo)
{
    std::string error;
    EXPECT_FALSE(softnic::make_packet_port("nosuch0", &error));
    EXPECT_EQ(error, "no interface named nosuch0");
    EXPECT_FALSE(softnic::make_packet_port("", &error));
    EXPECT_FALSE(softnic::make_packet_port("a-name-longer-than-any", &error));
    EXPECT_EQ(error, "no interface can have the name 'a-name-longer-than-any'");
}

TEST_F(PacketPortTest, ChildForkedMeanwhile_PortGoes_NothingOfItStays)
{
    ASSERT_EQ(port->steer({0x0A4D0001, 5000, 0, 17}, true), 0);
    EXPECT_NE(lab.run(lab.adapter, "cat /proc/net/packet | wc -l"), "1\n");
    const pid_t child = fork();
    if (child == 0) {
        close(wire);
        pause();
        _exit(0);
    }
    EXPECT_NE(lab.run(lab.adapter, "nft list ruleset"), "");
    port.reset();
    EXPECT_EQ(lab.run(lab.adapter, "nft list ruleset"), "");
    EXPECT_EQ(lab.run(lab.adapter, "wc -l < /proc/net/packet"), "1\n") << "a packet socket lives on in the child";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
