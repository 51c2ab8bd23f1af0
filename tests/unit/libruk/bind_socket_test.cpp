/* The kernel socket beside a channel. */
#include "endpoint_test.h"

#include <unistd.h>

using namespace test_support;

namespace {

class SockbindTest : public testing::Test {
protected:
    int sockbind(const char *address, uint16_t port, int flags, int is_tcp = 0)
    {
        port_be16 = htons(port);
        return ruk__sockbind(be32(address), &port_be16, flags, &fd, is_tcp);
    }
    void close_fd()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    ~SockbindTest() override { close_fd(); }
    int option(int level, int name)
    {
        int value = -1;
        socklen_t len = sizeof value;
        EXPECT_EQ(getsockopt(fd, level, name, &value, &len), 0);
        return value;
    }

    SocketTable sockets;
    uint16_t port_be16 = 0;
    int fd = -1;
};

TEST_F(SockbindTest, PortZero_KernelsChoiceReported)
{
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0), 0);
    EXPECT_NE(port_be16, 0);
    struct sockaddr_in sin;
    socklen_t len = sizeof sin;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<struct sockaddr *>(&sin), &len), 0);
    EXPECT_EQ(sin.sin_port, port_be16);
    EXPECT_EQ(sin.sin_addr.s_addr, be32("127.0.0.1"));
    EXPECT_EQ(option(SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(option(SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_BROADCAST), 0);
}

TEST_F(SockbindTest, Calls_InOrderWithTheirArguments)
{
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0x2 | 0x10), 0);
    std::vector<SocketCall> log = sockets.log();
    ASSERT_EQ(log.size(), 6u);
    EXPECT_EQ(log[0].slot, Slot::socket);
    EXPECT_EQ(log[0].level, AF_INET);
    EXPECT_EQ(log[0].name, SOCK_DGRAM);
    const int names[] = {SO_REUSEADDR, SO_REUSEPORT, SO_BROADCAST};
    for (size_t i = 0; i < 3; i++) {
        const SocketCall &call = log[1 + i];
        EXPECT_EQ(call.slot, Slot::setsockopt);
        EXPECT_EQ(call.fd, fd);
        EXPECT_EQ(call.level, SOL_SOCKET);
        EXPECT_EQ(call.name, names[i]);
        EXPECT_EQ(hex(call.in.data(), call.in.size()), "01000000");
    }
    EXPECT_EQ(log[4].slot, Slot::bind);
    EXPECT_EQ(hex(log[4].to.data(), log[4].to.size()), "020000007f0000010000000000000000");
    EXPECT_EQ(log[5].slot, Slot::getsockname);
}

TEST_F(SockbindTest, OptionsFollowTheirFlags)
{
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0x2), 0);
    EXPECT_EQ(sockets.count(Slot::setsockopt), 2u);
    EXPECT_EQ(option(SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(option(SOL_SOCKET, SO_REUSEPORT), 1);
    EXPECT_EQ(option(SOL_SOCKET, SO_BROADCAST), 0);
    close_fd();
    sockets.clear();
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0x10), 0);
    EXPECT_EQ(sockets.count(Slot::setsockopt), 1u);
    EXPECT_EQ(option(SOL_SOCKET, SO_BROADCAST), 1);
    EXPECT_EQ(option(SOL_SOCKET, SO_REUSEPORT), 0);
    close_fd();
    sockets.clear();
    ASSERT_EQ(sockbind("127.0.0.1", 0, ~0x12), 0);
    EXPECT_EQ(sockets.count(Slot::setsockopt), 0u);
}

TEST_F(SockbindTest, Stream_NoOptionsWhateverTheFlags)
{
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0x12, 1), 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(sockets.count(Slot::setsockopt), 0u);
    EXPECT_NE(port_be16, 0);
}

TEST_F(SockbindTest, SocketCannotBeHad_SilentSuccess)
{
    sockets.fail(Slot::socket, 1, EMFILE);
    fd = -1;
    EXPECT_EQ(sockbind("127.0.0.1", 1234, 0x12), 0);
    EXPECT_EQ(fd, -1) << "not written";
    EXPECT_EQ(port_be16, htons(1234));
    EXPECT_EQ(sockets.log().size(), 1u);
}

TEST_F(SockbindTest, OptionRefused_ClosedAndTheCallsResult)
{
    for (unsigned nth : {1u, 2u, 3u}) {
        sockets.clear();
        sockets.fail(Slot::setsockopt, nth, EPERM);
        EXPECT_EQ(sockbind("127.0.0.1", 0, 0x12), -1);
        EXPECT_EQ(sockets.count(Slot::setsockopt), nth) << "those after it are not tried";
        EXPECT_EQ(sockets.count(Slot::bind), 0u);
        ASSERT_EQ(sockets.count(Slot::close), 1u);
        EXPECT_EQ(sockets.log().back().fd, sockets.log().front().result);
        EXPECT_EQ(fd, -1);
    }
}

TEST_F(SockbindTest, PortTaken_ClosedAndErrno)
{
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0), 0);
    int first = fd;
    uint16_t taken = ntohs(port_be16);
    fd = -1;
    EXPECT_EQ(sockbind("127.0.0.1", taken, 0), EADDRINUSE);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(sockets.count(Slot::close), 1u);
    EXPECT_EQ(sockbind("127.0.0.1", taken, 0x2), EADDRINUSE) << "both must be willing";
    ::close(first);
}

/* A failure that names no cause passes for success, but a socket there is none. */
TEST_F(SockbindTest, BindFailsWithoutErrno_ZeroAndTheSocketIsClosed)
{
    sockets.bind = [](int, const struct sockaddr *, socklen_t) {
        errno = 0;
        return -1;
    };
    fd = -1;
    EXPECT_EQ(sockbind("127.0.0.1", 1234, 0), 0);
    EXPECT_EQ(fd, -1) << "not written";
    EXPECT_EQ(port_be16, htons(1234));
    EXPECT_EQ(sockets.count(Slot::getsockname), 0u);
    ASSERT_EQ(sockets.count(Slot::close), 1u);
    EXPECT_EQ(sockets.log().back().fd, sockets.log().front().result);
}

/* The results of the other calls are returned as they are: without a cause they fail all the same. */
TEST_F(SockbindTest, OptionOrNameQueryFailsWithoutErrno_TheCallsResultAndClosed)
{
    sockets.setsockopt = [](int, int, int, const void *, socklen_t) {
        errno = 0;
        return -1;
    };
    EXPECT_EQ(sockbind("127.0.0.1", 0, RUK_BIND_REUSE), -1);
    EXPECT_EQ(sockets.count(Slot::bind), 0u);
    sockets.getsockname = [](int, struct sockaddr *, socklen_t *) {
        errno = 0;
        return -1;
    };
    EXPECT_EQ(sockbind("127.0.0.1", 0, 0), -1);
    EXPECT_EQ(sockets.count(Slot::close), 2u);
    EXPECT_EQ(fd, -1);
}

TEST_F(SockbindTest, CloseChangesErrno_ErrnoStaysTheRefusals)
{
    sockets.fail(Slot::setsockopt, 1, EPERM);
    sockets.close = [this](int s) {
        const int rc = sockets.next_close(s);
        errno = EIO;
        return rc;
    };
    EXPECT_EQ(sockbind("127.0.0.1", 0, 0x12), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(sockets.count(Slot::close), 1u);
}

TEST_F(SockbindTest, PortSharedByWillingSockets)
{
    ASSERT_EQ(sockbind("127.0.0.1", 0, 0x2), 0);
    int first = fd;
    uint16_t shared = ntohs(port_be16);
    EXPECT_EQ(sockbind("127.0.0.1", shared, 0x2), 0);
    EXPECT_EQ(port_be16, htons(shared));
    ::close(first);
}

TEST_F(SockbindTest, NameQueryRefused_ClosedAndTheCallsResult)
{
    sockets.fail(Slot::getsockname, 1, ENOBUFS);
    EXPECT_EQ(sockbind("127.0.0.1", 0, 0), -1);
    EXPECT_EQ(sockets.count(Slot::close), 1u);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(port_be16, 0);
}

} // namespace
