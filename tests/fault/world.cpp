#include "world.h"
#include "tov.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace fault {

namespace {

/* What the kernel tells of the process, hundreds of thousands of times: its files stay open, and are no finding, as
   they are there each time. */
std::vector<std::string> lines_of(int fd, const char *only)
{
    std::vector<std::string> lines;
    std::string text;
    char part[4096];
    off_t at = 0;
    for (ssize_t n; (n = pread(fd, part, sizeof part, at)) > 0; at += n)
        text.append(part, static_cast<size_t>(n));
    for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\n', begin), text.size());
        std::string line = text.substr(begin, end - begin);
        if (line.find(only) != std::string::npos)
            lines.push_back(std::move(line));
    }
    return lines;
}

int kept_open(const char *path)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        abort();
    return fd;
}

/* Lines of one list that the other lacks; both sorted. */
std::string difference(const char *what, const std::vector<std::string> &here, const std::vector<std::string> &there)
{
    std::vector<std::string> more, fewer;
    std::set_difference(here.begin(), here.end(), there.begin(), there.end(), std::back_inserter(more));
    std::set_difference(there.begin(), there.end(), here.begin(), here.end(), std::back_inserter(fewer));
    std::string text;
    for (const std::string &line : more)
        text += std::string("  left: ") + what + " " + line + "\n";
    for (const std::string &line : fewer)
        text += std::string("  gone: ") + what + " " + line + "\n";
    return text;
}

} // namespace

Holdings Holdings::now()
{
    static const int maps = kept_open("/proc/self/maps");
    Holdings h = without_mappings();
    for (const std::string &line : lines_of(maps, "memfd:"))
        h.shared.push_back(line.substr(line.find('/')));
    std::sort(h.shared.begin(), h.shared.end());
    return h;
}

Holdings Holdings::without_mappings()
{
    static DIR *const fds = opendir("/proc/self/fd");
    static const int groups = kept_open("/proc/net/igmp"), sources = kept_open("/proc/net/mcfilter");
    Holdings h;
    rewinddir(fds);
    while (const struct dirent *entry = readdir(fds)) {
        char target[256];
        const ssize_t n = readlinkat(dirfd(fds), entry->d_name, target, sizeof target);
        if (n < 0)
            continue; /* "." and ".." */
        const std::string_view kind(target, static_cast<size_t>(n));
        if (kind.find("memfd:") == kind.npos || kind.find("memfd:routes") != kind.npos)
            h.descriptors.emplace_back(kind.substr(0, kind.find('['))); /* numbers of sockets differ each time */
    }
    /* Of the operations' group alone, which nobody else joins: users of it, not how long ago; its sources. */
    for (const std::string &line : lines_of(groups, "07014DEF"))
        h.memberships.push_back(line.substr(0, line.find(':') - 1));
    for (const std::string &line : lines_of(sources, "0xef4d0107"))
        h.memberships.push_back(line);
    struct stat tasks = {};
    stat("/proc/self/task", &tasks);
    h.threads = tasks.st_nlink - 2; /* a directory each */
    std::sort(h.descriptors.begin(), h.descriptors.end());
    std::sort(h.memberships.begin(), h.memberships.end());
    return h;
}

bool Holdings::operator==(const Holdings &other) const
{
    return descriptors == other.descriptors && shared == other.shared && memberships == other.memberships &&
           threads == other.threads;
}

std::string Holdings::minus(const Holdings &other) const
{
    return difference("descriptor", descriptors, other.descriptors) + difference("mapping", shared, other.shared) +
           difference("membership", memberships, other.memberships) +
           (threads != other.threads ? "  threads: " + std::to_string(threads) + "\n" : "");
}

/* The wire's own initialisation of the library comes before the faults. */
World::World(const BoardChange &change)
    : wire([&](softnic_board_config_t &board) {
          board.endpoints = 2;
          board.recvq_size = 16384; /* less to map: worlds come by the thousand */
          board.sendq_size = 4096;
          if (change)
              change(board);
      })
{
    auto &sockets = wire.host.sockets;
    sockets.sendto = [this](int, const void *, size_t n, int, const struct sockaddr *, socklen_t) {
        prompts++;
        if (answers_a_prompt)
            know_neighbour();
        return static_cast<ssize_t>(n);
    };
    sockets.select = [](int, fd_set *, fd_set *, fd_set *, struct timeval *) { return 0; };
}

/* A wait for events brings a datagram, or the endpoint's close; one for time passes at once. */
bool World::answer_waits()
{
    hooks->poll = [this](struct pollfd *fds, nfds_t, int) {
        if (closes_asleep)
            ruk_close(dev);
        else
            arrive();
        fds[0].revents = POLLIN;
        return 1;
    };
    hooks->usleep = [this](useconds_t usecs) {
        clock.tv_usec += static_cast<suseconds_t>(usecs);
        clock.tv_sec += clock.tv_usec / 1000000;
        clock.tv_usec %= 1000000;
        return 0;
    };
    hooks->gettimeofday = [this](struct timeval *tv) {
        *tv = clock;
        return 0;
    };
    return true;
}

World::~World() { release(); }

void World::release()
{
    seam.disarm();
    close();
    seam.library([&] {
        if (raw) {
            close_raw_handle();
            oxel_raw_close_endpoint(raw);
        }
        tov_freeifaddrs(list);
    });
    raw = nullptr;
    list = nullptr;
}

void World::open(int flags)
{
    seam.library([&] {
        in_addr addr = {htonl(HOST)};
        ASSERT_EQ(ruk_open(&addr, flags, &dev), 0);
    });
}

void World::bind(int flags)
{
    seam.library([&] { ASSERT_EQ(ruk_bind(dev, flags, 0, this, &ch), 0); });
}

void World::know_neighbour()
{
    wire.host.arp.clear();
    wire.host.arp.push_back({"127.0.0.2", {0x02, 0, 0, 0, 0, 2}});
}

void World::route() { wire.host.add_route("oxel0", "127.0.0.0", "0.0.0.0", "255.0.0.0"); }

void World::arrive()
{
    sockaddr_in sin = {};
    ASSERT_EQ(ruk_getaddress(ch, &sin), 0);
    wire.inject(adapter_rig::frame_for(ntohs(sin.sin_port), {'a', 'b', 'c'}));
    softnic_run(wire.nic);
}

void World::connect()
{
    const sockaddr_in sin = peer_address();
    seam.library([&] { ASSERT_EQ(ruk_send_connect(ch, &sin, 0, 0, &handle), 0); });
}

void World::fill()
{
    seam.library([&] {
        int rc = 0;
        for (int i = 0; rc == 0 && i < 1000; i++)
            rc = ruk_send(handle, buf, 64, RUK_NONBLOCK);
        ASSERT_EQ(rc, EAGAIN);
    });
}

void World::close()
{
    seam.library([&] {
        if (soft != -1)
            tov_close(soft);
        if (dev)
            ruk_close(dev);
    });
    soft = -1;
    forget_endpoint();
}

void World::forget_endpoint()
{
    dev = nullptr;
    ch = second = nullptr;
    handle = nullptr;
}

void World::close_raw_handle()
{
    seam.library([&] { tov_close(oxel_raw_handle(raw)); });
}

void World::close_left_handle()
{
    seam.library([&] {
        if (left_handle != -1)
            tov_close(left_handle);
    });
    left_handle = -1;
}

struct sockaddr_in peer_address()
{
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(5001);
    sin.sin_addr.s_addr = htonl(PEER);
    return sin;
}

struct in_addr group_address() { return {htonl(0xef4d0107)}; /* 239.77.1.7 */ }

} // namespace fault
