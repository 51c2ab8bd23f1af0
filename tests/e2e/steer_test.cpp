// Frames that the adapter delivers and frames that the host's own stack sees: together all, none in both.
#include "core/frame_key.h"
#include "lab.h"
#include "ports/packet.h"
#include "ports/steer.h"
#include "wire.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <net/if.h>
#include <poll.h>
#include <random>
#include <set>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using softnic::Port;
using softnic::RxFrame;
using softnic::SteerKey;
using test_support::Lab;
using test_support::LabTest;

namespace {

constexpr uint32_t kAdapter = 0x0A4D0001, kPeer = 0x0A4D0002, kGroup = 0xE0010203;
constexpr SteerKey kUdp5000 = {kAdapter, 5000, 0, 17};

std::unique_ptr<Port> open_port(const char *ifname, bool trailer = false)
{
    std::string error;
    auto port = softnic::make_packet_port(ifname, &error, trailer);
    EXPECT_TRUE(port) << error;
    return port;
}

void drain(Port *port, std::vector<Bytes> *to)
{
    for (RxFrame frame; port->receive(&frame);)
        to->emplace_back(frame.data, frame.data + frame.len);
}

// A kernel socket of the adapter's host gets what it is sent.
bool host_receives(int from, int to, uint16_t port_number)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_number);
    address.sin_addr.s_addr = htonl(kAdapter);
    EXPECT_EQ(sendto(from, "x", 1, 0, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 1);
    // The frame is across when the call returns, or shortly after.
    pollfd readable = {to, POLLIN, 0};
    if (poll(&readable, 1, 300) <= 0)
        return false;
    char byte;
    return recv(to, &byte, 1, MSG_DONTWAIT) == 1;
}

bool table_of(Lab *lab, pid_t pid)
{
    const std::string name = "ruk_" + std::to_string(pid) + "_";
    return lab->run(lab->adapter, "nft list tables").find(name) != std::string::npos;
}

// Drops a capability from all sets of this thread.
void drop_capability(int capability)
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
    data[0].effective &= ~(1u << capability);
    data[0].permitted &= ~(1u << capability);
    data[0].inheritable = 0;
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
}

// Frames around what the filters look at: most of them nearly right.
class FrameMaker {
public:
    explicit FrameMaker(uint32_t seed) : random_(seed) {}

    Bytes next()
    {
        Bytes b;
        put(&b, "\x02\x6F\x78\x00\x00\x01\x02\x00\x00\x00\x00\x02", 12);
        size_t tags = 0;
        for (uint32_t tag : pick<std::vector<uint32_t>>({{},
                                                         {},
                                                         {},
                                                         {0x81000005},
                                                         {0x8100F005},
                                                         {0x81000006},
                                                         {0x81000000},
                                                         {0x8100E000},
                                                         {0x88A80005},
                                                         {0x81000005, 0x81000005},
                                                         {0x88A80005, 0x81000005}})) {
            put32(&b, tag);
            tags++;
        }
        put16(&b, rarely() ? pick<uint32_t>({0x86DD, 0x0806, 0x88B5, 0x0000, 0x05DC}) : 0x0800);
        const size_t ip = b.size();
        const uint32_t words = rarely() ? below(16) : pick<uint32_t>({5, 5, 5, 6, 10, 15});
        const uint32_t payload = below(4) == 0 ? below(60) : 20 + below(100);
        const uint32_t real = std::max(words * 4, 20u) + payload;
        uint32_t total = real;
        if (rarely())
            total = pick<uint32_t>({0, 1, 19, 20, words * 4, words * 4 + 1, words * 4 + 3, words * 4 + 4, real - 1,
                                    real + 1, real + 40, 0xFFFF, below(65536)});
        b.push_back(static_cast<uint8_t>((rarely() ? below(16) : 4) << 4 | words));
        b.push_back(static_cast<uint8_t>(below(256)));
        put16(&b, total);
        put16(&b, below(65536));
        put16(&b, pick<uint32_t>({0, 0, 0, 0x4000, 0x2000, 0x2001, 0x00B9, 0x1FFF, 0x8000, 0x1000}));
        b.push_back(static_cast<uint8_t>(1 + below(64)));
        b.push_back(static_cast<uint8_t>(pick<uint32_t>({17, 17, 17, 6, 253, 253, 1, 2, 4, 47, 50, 132, 136, 254})));
        put16(&b, below(65536)); // header checksum: not the ingress hook's affair, nor the filters'
        put32(&b, kPeer);
        put32(&b, pick<uint32_t>({kAdapter, kAdapter, kGroup, kAdapter + 2}));
        // Options, then ports at the place that the header length gives.
        for (uint32_t i = 20; i < words * 4; i++)
            b.push_back(static_cast<uint8_t>(below(256)));
        const size_t l4 = b.size();
        put16(&b, below(65536));
        put16(&b, pick<uint32_t>({5000, 5000, 5001, 5002, 0x1300, 0}));
        while (b.size() < l4 + payload)
            b.push_back(static_cast<uint8_t>(below(256)));
        b.resize(ip + real);
        if (rarely()) // cut; the kernel itself drops what ends inside a tag
            b.resize(std::min(b.size(), tags == 0 ? 14 + below(60) : 14 + tags * 4 + 2 + below(60)));
        return b;
    }

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }

private:
    bool rarely() { return below(8) == 0; }
    template <typename T> T pick(std::vector<T> from) { return from[below(static_cast<uint32_t>(from.size()))]; }

    std::mt19937 random_;
};

class SteeringTest : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        if (IsSkipped())
            return;
        port = open_port(lab.adapter.ifname);
        ASSERT_TRUE(port);
        sender = lab.udp_socket(lab.peer);
        receiver = lab.udp_socket(lab.adapter, 5000);
    }
    void TearDown() override
    {
        for (int fd : {sender, receiver})
            if (fd >= 0)
                close(fd);
    }

    // Frames that are still there behind the port's table go to mirror0, and come out at mirror1.
    void mirror_what_the_host_sees()
    {
        lab.run(lab.adapter, "ip link add mirror0 address 02:00:00:00:01:00 mtu 2000 type veth"
                             " peer name mirror1 address 02:00:00:00:01:01 mtu 2000 &&"
                             " ip link set mirror0 up addrgenmode none && ip link set mirror1 up addrgenmode none &&"
                             " nft 'table netdev mirror { chain c { type filter hook ingress device " +
                                 std::string(lab.adapter.ifname) + " priority 0; fwd to mirror0; }; }'");
    }

    // With a trailer, frames end in four bytes that are none of theirs, but for one of eight.
    void random_frames_split_exactly(uint32_t seed, size_t frames, bool trailer = false);

    std::unique_ptr<Port> port;
    int sender = -1, receiver = -1;
};

void SteeringTest::random_frames_split_exactly(uint32_t seed, size_t frames, bool trailer)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    mirror_what_the_host_sees();
    if (trailer) {
        port = open_port(lab.adapter.ifname, trailer);
        ASSERT_TRUE(port);
    }
    auto mirror = open_port("mirror1", trailer);
    ASSERT_TRUE(mirror);
    const std::set<SteerKey> keys = {kUdp5000,
                                     {kAdapter, 0x1300, 0, 17},
                                     {kAdapter, 0, 0, 17},
                                     {kGroup, 5001, 0, 17},
                                     {kAdapter, 5000, 5, 17},
                                     {kGroup, 5000, 6, 17},
                                     {kAdapter, 5000, 0, 6},
                                     {kAdapter, 5001, 5, 6},
                                     {kAdapter, 0, 0, 253},
                                     {kGroup, 0, 5, 253}};
    for (const SteerKey &key : keys)
        ASSERT_EQ(port->steer(key, true), 0);

    const int wire = lab.packet_socket(lab.peer);
    FrameMaker maker(seed);
    std::vector<Bytes> arrived, host_saw;
    const auto matches = [&keys](const Bytes &frame, size_t len, SteerKey *key) {
        return softnic::parse_frame_key(frame.data(), static_cast<uint32_t>(len), key) && keys.contains(*key);
    };
    const size_t end = trailer ? 4 : 0;
    size_t reaching = 0; // into the trailer's place, with a key that the filters match
    size_t unpadded = 0; // of those, too short to be handed out: nobody could say where the padding goes
    for (size_t sent = 0; sent < frames; sent++) {
        Bytes frame = maker.next();
        if (trailer && maker.below(8) != 0)
            put32(&frame, 0xDEADBEEF);
        SteerKey key;
        if (matches(frame, frame.size(), &key) && !matches(frame, frame.size() - end, &key)) {
            reaching++;
            unpadded += frame.size() < 60 + end;
        }
        ASSERT_EQ(send(wire, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size())) << strerror(errno);
        if (sent % 64 != 63)
            continue;
        drain(port.get(), &arrived);
        drain(mirror.get(), &host_saw);
    }
    // The last ones may still be in a queue of the kernel's.
    for (int quiet = 0; quiet < 20; quiet++) {
        const size_t before = arrived.size() + host_saw.size();
        usleep(5000);
        drain(port.get(), &arrived);
        drain(mirror.get(), &host_saw);
        quiet = arrived.size() + host_saw.size() != before ? 0 : quiet;
    }
    close(wire);

    std::vector<Bytes> left;
    size_t delivered = 0;
    std::set<SteerKey> matched;
    for (const Bytes &frame : arrived) {
        SteerKey key;
        if (matches(frame, frame.size(), &key)) {
            delivered++;
            matched.insert(key);
        } else {
            left.push_back(frame);
        }
    }
    // A frame on one side only is the one that tells.
    for (size_t i = 0; i < std::max(left.size(), host_saw.size()); i++)
        ASSERT_EQ(i < left.size() ? left[i] : Bytes(), i < host_saw.size() ? host_saw[i] : Bytes()) << "frame " << i;
    // None vanished on both ways, those included that cannot be handed out.
    EXPECT_EQ(port->counters().received + port->counters().rx_malformed, frames);
    EXPECT_EQ(mirror->counters().received + mirror->counters().rx_malformed, frames - delivered - unpadded);
    EXPECT_GE(port->counters().rx_malformed, unpadded);
    EXPECT_EQ(port->counters().rx_dropped, 0u);
    // Each key had its frames, and there was enough that had none.
    EXPECT_EQ(matched.size(), keys.size());
    EXPECT_GT(delivered, frames / 100);
    EXPECT_GT(left.size(), frames / 4);
    EXPECT_EQ(reaching > unpadded, trailer);
}

} // namespace

TEST_F(SteeringTest, KeySteered_HostNoLongerReceives_UntilItIsGivenBack)
{
    EXPECT_TRUE(host_receives(sender, receiver, 5000));
    ASSERT_EQ(port->steer(kUdp5000, true), 0);
    EXPECT_FALSE(host_receives(sender, receiver, 5000));
    std::vector<Bytes> arrived;
    drain(port.get(), &arrived);
    EXPECT_EQ(arrived.size(), 2u) << "the adapter sees it either way";
    ASSERT_EQ(port->steer(kUdp5000, false), 0);
    EXPECT_TRUE(host_receives(sender, receiver, 5000));
}

TEST_F(SteeringTest, OtherKeysSteered_HostReceivesStill)
{
    for (const SteerKey &key :
         {SteerKey{kAdapter, 5001, 0, 17}, SteerKey{kAdapter, 5000, 0, 6}, SteerKey{kAdapter, 5000, 5, 17},
          SteerKey{kPeer, 5000, 0, 17}, SteerKey{kAdapter, 0, 0, 253}})
        ASSERT_EQ(port->steer(key, true), 0);
    EXPECT_TRUE(host_receives(sender, receiver, 5000));
}

TEST_F(SteeringTest, KeyNotInstalled_GivenBack_Refused)
{
    ASSERT_EQ(port->steer(kUdp5000, true), 0);
    EXPECT_EQ(port->steer(kUdp5000, true), EEXIST);
    ASSERT_EQ(port->steer(kUdp5000, false), 0);
    EXPECT_EQ(port->steer(kUdp5000, false), ENOENT);
    EXPECT_EQ(port->steer(kUdp5000, true), 0) << "an error does not spoil what follows";
    EXPECT_FALSE(host_receives(sender, receiver, 5000));
}

TEST_F(SteeringTest, TwoPortsOnOneInterface_EachSteersItsOwn)
{
    const int receiver2 = lab.udp_socket(lab.adapter, 5001);
    auto second = open_port(lab.adapter.ifname);
    ASSERT_EQ(port->steer(kUdp5000, true), 0);
    ASSERT_EQ(second->steer({kAdapter, 5001, 0, 17}, true), 0);
    EXPECT_FALSE(host_receives(sender, receiver, 5000));
    EXPECT_FALSE(host_receives(sender, receiver2, 5001));
    second.reset();
    EXPECT_FALSE(host_receives(sender, receiver, 5000));
    EXPECT_TRUE(host_receives(sender, receiver2, 5001));
    close(receiver2);
}

TEST_F(SteeringTest, ProcessKilled_TableGone)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
        port.reset();
        port = open_port(lab.adapter.ifname);
        char error = static_cast<char>(port->steer(kUdp5000, true));
        if (write(ready[1], &error, 1) == 1)
            pause();
        _exit(1);
    }
    char error = -1;
    ASSERT_EQ(read(ready[0], &error, 1), 1);
    ASSERT_EQ(error, 0);
    EXPECT_TRUE(table_of(&lab, child)) << "named after its process";
    EXPECT_FALSE(host_receives(sender, receiver, 5000));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_FALSE(table_of(&lab, child));
    EXPECT_TRUE(host_receives(sender, receiver, 5000));
    close(ready[0]);
    close(ready[1]);
}

TEST_F(SteeringTest, HostRefuses_SaidOnce_PortWorksOn)
{
    const std::string text = test_support::written_in_child([&](int out) {
        dup2(out, STDERR_FILENO);
        port.reset();
        port = open_port(lab.adapter.ifname);
        drop_capability(CAP_NET_ADMIN);
        const bool ok = port->steer(kUdp5000, true) == 0 && port->steer(kUdp5000, false) == 0 &&
                        port->steer({kAdapter, 5001, 0, 17}, true) == 0 && host_receives(sender, receiver, 5000);
        std::vector<Bytes> arrived;
        drain(port.get(), &arrived);
        return ok && arrived.size() == 1;
    });
    EXPECT_EQ(text, "softnic: oxel0: the host cannot be kept from seeing the adapter's frames as well: Operation not "
                    "permitted\n");
}

TEST_F(SteeringTest, TriedOnly_HostAllows_NothingIsLeftAndNothingDisturbed)
{
    ASSERT_EQ(port->steer(kUdp5000, true), 0);
    const std::string before = lab.run(lab.adapter, "nft list ruleset");
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(softnic::try_steering(), 0);
    EXPECT_EQ(lab.run(lab.adapter, "nft list ruleset"), before);
    EXPECT_FALSE(host_receives(sender, receiver, 5000));
}

TEST_F(SteeringTest, TriedOnly_HostRefuses_ErrorIsTold)
{
    const pid_t child = fork();
    if (child == 0) {
        drop_capability(CAP_NET_ADMIN);
        _exit(softnic::try_steering());
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), EPERM);
}

TEST_F(SteeringTest, RandomFrames_TakenFromHost_ExactlyThoseThatFiltersMatch)
{
    const uint32_t seed = std::random_device()();
    printf("seed %u\n", seed);
    random_frames_split_exactly(seed, 20000);
}

TEST_F(SteeringTest, RandomFramesOfAWireWithTrailers_TakenFromHost_DeliveredOrCounted)
{
    const uint32_t seed = std::random_device()();
    printf("seed %u\n", seed);
    random_frames_split_exactly(seed, 20000, true);
}

// As root the tests above run with all rights; here they run as an ordinary user would run them.
TEST(UnprivilegedSteering, UserNamespace_AllOfTheAbove_HoldsAllTheSame)
{
    if (geteuid() != 0) {
        SUCCEED() << "the tests of this program run in a user namespace anyway";
        return;
    }
    int said[2];
    ASSERT_EQ(pipe(said), 0);
    const int self = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        dup2(said[1], STDOUT_FILENO);
        close(said[0]);
        close(said[1]);
        if (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0)
            _exit(78);
        prctl(PR_SET_DUMPABLE, 1);
        alarm(60);
        const char *const args[] = {"e2e_ports", "--gtest_filter=SteeringTest.*", nullptr};
        fexecve(self, const_cast<char *const *>(args), environ);
        _exit(78);
    }
    close(self);
    close(said[1]);
    std::string text;
    char part[4096];
    for (ssize_t n; (n = read(said[0], part, sizeof(part))) > 0;)
        text.append(part, static_cast<size_t>(n));
    close(said[0]);
    int status = -1;
    waitpid(child, &status, 0);
    if (text.find("[  SKIPPED ]") != std::string::npos)
        GTEST_SKIP() << "an ordinary user gets no network namespaces here";
    EXPECT_EQ(status, 0) << text;
    EXPECT_NE(text.find("[       OK ] SteeringTest.RandomFrames"), std::string::npos) << text;
}
