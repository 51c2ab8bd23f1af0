/*
 * A host, a driver and an initialised library, for tests of endpoints and channels.
 *
 * Kernel sockets are real descriptors whose bind, name and options are answered here, so that ports are the test's
 * own; KernelSockets::real hands them to the kernel.
 */
#pragma once

#include "capture.h"
#include "child.h"
#include "driver_script.h"
#include "fake_host.h"
#include "ruk_core.h"
#include "scoped_env.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <regex.h>
#include <string.h>

namespace test_support {

/* The library's process-wide switches as after a first ruk_init(4), and as before when the scope ends. */
class LibraryState {
public:
    LibraryState()
    {
        ruk__api_version = 4;
        __ruk_verbose = __ruk_debug = ruk__init_ext = 0;
        banner = show_once = 1;
    }
    ~LibraryState()
    {
        ruk__api_version = api_version_;
        __ruk_verbose = verbose_;
        __ruk_debug = debug_;
        ruk__init_ext = init_ext_;
        banner = banner_;
        show_once = show_once_;
    }
    LibraryState(const LibraryState &) = delete;
    LibraryState &operator=(const LibraryState &) = delete;

private:
    uint32_t api_version_ = ruk__api_version;
    int verbose_ = __ruk_verbose, debug_ = __ruk_debug, init_ext_ = ruk__init_ext;
    int banner_ = banner, show_once_ = show_once;
};

/* Answers for the kernel sockets. */
class KernelSockets {
public:
    explicit KernelSockets(SocketTable &table) : table_(table)
    {
        table.bind = [this](int fd, const struct sockaddr *addr, socklen_t len) {
            if (real)
                return table_.next_bind(fd, addr, len);
            memcpy(&bound[fd], addr, sizeof(struct sockaddr_in));
            if (bound[fd].sin_port == 0)
                bound[fd].sin_port = htons(next_port++);
            return 0;
        };
        table.getsockname = [this](int fd, struct sockaddr *addr, socklen_t *len) {
            if (real || bound.find(fd) == bound.end())
                return table_.next_getsockname(fd, addr, len);
            EXPECT_EQ(*len, sizeof(struct sockaddr_in));
            memcpy(addr, &bound[fd], sizeof(struct sockaddr_in));
            return 0;
        };
        table.setsockopt = [this](int fd, int level, int name, const void *val, socklen_t len) {
            return real ? table_.next_setsockopt(fd, level, name, val, len) : set_option(fd, level, name, val);
        };
    }

    bool real = false;
    uint16_t next_port = 40001;
    std::map<int, struct sockaddr_in> bound;
    std::set<std::pair<int, uint32_t>> memberships; /* descriptor, group in network order */

private:
    int set_option(int fd, int level, int name, const void *val)
    {
        if (level != IPPROTO_IP)
            return 0;
        uint32_t group;
        memcpy(&group, val, sizeof group);
        if (name == IP_ADD_MEMBERSHIP || name == IP_ADD_SOURCE_MEMBERSHIP)
            memberships.insert({fd, group});
        if ((name == IP_DROP_MEMBERSHIP || name == IP_DROP_SOURCE_MEMBERSHIP) && !memberships.erase({fd, group})) {
            errno = EADDRNOTAVAIL;
            return -1;
        }
        return 0;
    }

    SocketTable &table_;
};

/* Traces are put together from pieces. */
inline Lines operator+(Lines a, const Lines &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/* Whether the whole text is of a form (POSIX extended; a dot takes newlines too). */
inline bool matches(const std::string &text, const std::string &form)
{
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + form + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        abort(); /* a slip of the test's author */
    bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return found;
}
const std::string version_form = "[0-9]+\\.[0-9]+\\.[0-9]+[^[:space:]]*";

inline uint32_t be32(const char *address) { return inet_addr(address); }
inline struct in_addr in_addr_of(const char *address) { return {inet_addr(address)}; }

/* Entries of a tag queue, in order, found by its links. */
inline std::vector<struct ruk__tag_entry *> entries_of(const struct ruk__tag_queue &queue, size_t limit = 5000)
{
    std::vector<struct ruk__tag_entry *> all;
    for (struct ruk__tag_entry *e = queue.tqh_first; e && all.size() < limit; e = e->tage_link.tqe_next)
        all.push_back(e);
    return all;
}

inline std::vector<int> tags_of(const struct ruk__tag_queue &queue)
{
    std::vector<int> tags;
    for (const struct ruk__tag_entry *e : entries_of(queue))
        tags.push_back(e->tage_nuv_tag);
    return tags;
}

class EndpointTest : public testing::Test {
protected:
    EndpointTest() = default;
    ~EndpointTest() override
    {
        close();
        EXPECT_EQ(driver.handles().size(), 0u) << "device descriptors left open";
        EXPECT_EQ(host.unreleased_lists(), 0u) << "host interface lists left";
    }

    /* Opens on 127.0.0.1, board 0. */
    ruk_device_t open(int flags = 0)
    {
        EXPECT_EQ(ruk_open(&loopback, flags, &dev), 0);
        return dev;
    }
    void close()
    {
        if (dev)
            ruk_close(dev);
        dev = nullptr;
    }

    LibraryState state;
    ScopedEnv no_check{"RUK_IP_ACCELERATION", "1"};
    ScopedEnv no_bypass{"RUK_BYPASS_CHECK", nullptr};
    ScopedEnv no_arista{"OXEL_ARISTA_ENABLE_TIMESTAMPING", nullptr};
    ScopedEnv no_debug{"RUK_DEBUG", nullptr};
    ScopedEnv no_verbose{"RUK_IP_VERBOSE", nullptr};
    ScopedEnv no_banner{"RUK_BANNER", nullptr};
    FakeHost host;
    KernelSockets kernel{host.sockets};
    ScriptedDriver driver{host.sockets};
    struct in_addr loopback = in_addr_of("127.0.0.1");
    ruk_device_t dev = nullptr;
};

} // namespace test_support
