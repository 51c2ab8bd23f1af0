#include "doctor.h"

#include "common.h"

#include "nuv_types.h"
#include "ports/steer.h"
#include "ruk_core.h"
#include "tov.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <ifaddrs.h>
#include <iterator>
#include <linux/hw_breakpoint.h>
#include <linux/perf_event.h>
#include <map>
#include <memory>
#include <net/if.h>
#include <net/route.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/timex.h>
#include <unistd.h>

namespace tools {

const char *health_name(Health health)
{
    return health == Health::ok ? "ok" : health == Health::warning ? "warning" : "failure";
}

namespace {

constexpr unsigned library_major = 4;
constexpr const char *hidden_tables = "see whether /proc/sys/net and /proc/net are there: a container may hide them";
constexpr int default_memberships = 20, default_sources = 10;
constexpr int small_socket_buffer = 200000;

/* The first line of a file; without value when it cannot be read. */
std::optional<std::string> first_line(const std::string &file)
{
    std::ifstream in(file);
    std::string line;
    if (!std::getline(in, line))
        return std::nullopt;
    return line;
}

std::optional<int> setting(const std::string &name)
{
    const auto line = first_line("/proc/sys/net/" + name);
    return line ? std::optional(atoi(line->c_str())) : std::nullopt;
}

/* "eth0" of "eth0:1" */
std::string device_of(const std::string &interface) { return interface.substr(0, interface.find(':')); }

/* The setting of a device as sysctl(8) takes it, which reads a dot as a step down: "net.ipv4.conf.eth0/5.rp_filter". */
std::string sysctl_name(std::string device, const char *setting)
{
    std::ranges::replace(device, '.', '/');
    return "net.ipv4.conf." + device + "." + setting;
}

struct Address {
    std::string interface;
    uint32_t address; /* network byte order */
    bool multicast;
    bool link_up;
};

struct Board {
    uint32_t endpoints = 0;
    std::vector<std::string> interfaces;
};

/* An IPv4 address of the host that is on some subnet, as an open looks at them. */
struct HostAddress {
    std::string interface;
    in_addr address;
    uint32_t subnet;
    bool adapter; /* the interface has a MAC address of the adapters' family */
};

/* All of them in the host's order; 0 or an errno value. */
int host_addresses(std::vector<HostAddress> &list)
{
    constexpr uint8_t family[] = {OXEL_MAC_PREFIX_0, OXEL_MAC_PREFIX_1, OXEL_MAC_PREFIX_2};
    ifaddrs *entries = nullptr;
    if (getifaddrs(&entries) != 0)
        return errno;
    int rc = 0;
    for (const ifaddrs *e = entries; e != nullptr && rc == 0; e = e->ifa_next) {
        if (e->ifa_addr == nullptr || e->ifa_netmask == nullptr || e->ifa_addr->sa_family != AF_INET ||
            e->ifa_netmask->sa_family != AF_INET)
            continue;
        uint8_t mac[6];
        rc = tov_get_macaddr(e->ifa_name, mac);
        sockaddr_in address{}, netmask{};
        memcpy(&address, e->ifa_addr, sizeof address);
        memcpy(&netmask, e->ifa_netmask, sizeof netmask);
        const uint32_t subnet = address.sin_addr.s_addr & netmask.sin_addr.s_addr;
        if (rc == 0 && subnet != 0)
            list.push_back({e->ifa_name, address.sin_addr, subnet, std::equal(family, std::end(family), mac)});
    }
    freeifaddrs(entries);
    return rc;
}

/* What the kernel knows of IGMP on a device. */
struct IgmpState {
    int version = 0; /* spoken now: that of the oldest querier heard lately; 0 = unknown */
    int groups = 0;  /* that sockets have joined */
};

IgmpState igmp_state(const std::string &device)
{
    std::ifstream table("/proc/net/igmp");
    std::string line;
    IgmpState state;
    bool of_device = false;
    std::getline(table, line);
    while (std::getline(table, line)) {
        std::ranges::replace(line, ':', ' '); /* it stands right behind a long name */
        std::istringstream fields(line);
        if (isdigit(static_cast<unsigned char>(line[0])) != 0) { /* "4\teth0      :     1      V3" */
            std::string number, name, count, querier;
            of_device = fields >> number >> name >> count >> querier && name == device && querier.size() == 2;
            if (of_device)
                state.version = querier[1] - '0';
            continue;
        }
        /* A group of the device above: "\t\t\t\t010000E0     1 0:00000000\t\t0". */
        in_addr group{};
        int users = 0;
        if (of_device && fields >> std::hex >> group.s_addr >> std::dec >> users &&
            (group.s_addr != htonl(INADDR_ALLHOSTS_GROUP) || users > 1)) /* which the kernel joins on each device */
            state.groups++;
    }
    return state;
}

class Examination {
public:
    explicit Examination(const std::string &interface) : wanted_(interface) {}

    std::vector<Finding> all()
    {
        if (device_files() && driver() && adapters()) {
            link();
            endpoints();
        } else if (addresses_.empty()) {
            host_interface();
        }
        if (!addresses_.empty()) {
            addresses();
            subnets();
        }
        for (const std::vector<std::string> &interfaces : adapters_interfaces())
            routes(interfaces);
        for (const std::string &device : devices()) {
            neighbours(device);
            multicast(device);
            reverse_path(device);
        }
        socket_buffer();
        packet_socket();
        steering();
        watchpoints();
        processors();
        governor();
        clock_source();
        clock_steering();
        return std::move(findings_);
    }

private:
    void ok(const char *check, std::string found) { findings_.push_back({check, Health::ok, std::move(found), {}}); }
    void warn(const char *check, std::string found, std::string remedy)
    {
        findings_.push_back({check, Health::warning, std::move(found), std::move(remedy)});
    }
    bool bad(const char *check, std::string found, std::string remedy)
    {
        findings_.push_back({check, Health::failure, std::move(found), std::move(remedy)});
        return false;
    }

    static void add_new(std::vector<std::string> &names, const std::string &name)
    {
        if (std::ranges::find(names, name) == names.end())
            names.push_back(name);
    }

    std::vector<std::string> devices() const
    {
        std::vector<std::string> names;
        for (const Address &a : addresses_)
            add_new(names, device_of(a.interface));
        return names;
    }

    /* By their names: of each adapter all, also those that were not asked for; without adapters those of the host. */
    std::vector<std::vector<std::string>> adapters_interfaces() const
    {
        std::vector<std::vector<std::string>> all;
        for (const auto &[number, board] : boards_)
            all.push_back(board.interfaces);
        if (boards_.empty())
            for (const std::string &device : devices())
                all.push_back({device});
        return all;
    }

    /* ---------------------------------------------------------- driver and adapter */

    bool device_files()
    {
        int rc = tov_open_any_board(&handle_, TOV_PRODUCT);
        if (rc == 0) {
            ok("device_files", preloaded() ? "an adapter opens (the software adapter of this process)"
                                           : "an adapter's device file opens");
            return true;
        }
        std::string file = "/dev/oxelB*";
        bool refused = false, there = true;
        for (int board = 0; board < TOV_MAX_BOARDS && there && !refused; board++)
            refused = refused_file(board, file, rc, there);
        if (rc == ENOENT && !refused)
            return bad("device_files", "there is no " + file,
                       "load the driver, or run this under 'rukrun --soft=IF --' for the software adapter");
        return bad("device_files", file + " cannot be opened: " + errno_text(rc), remedy_of_refusal(file, rc));
    }

    /* A board's file has one of two names, and an open tells only of the second: looks at both, and gives the first
     * file that is there and refuses. */
    static bool refused_file(int board, std::string &file, int &error, bool &there)
    {
        there = false;
        for (const char *form : {"p", ""}) {
            const std::string name = fmt::format("/dev/oxelB{}{}", form, board);
            const int fd = open(name.c_str(), O_RDWR | O_CLOEXEC);
            if (fd >= 0) {
                close(fd);
                there = true;
            } else if (errno != ENOENT) {
                error = errno;
                file = name;
                return true;
            }
        }
        return false;
    }

    static std::string remedy_of_refusal(const std::string &file, int error)
    {
        return error == EACCES || error == EPERM ? "give this user read and write permission on " + file
                                                 : "see what the driver says in the kernel's log";
    }

    static bool preloaded()
    {
        const char *preload = getenv("LD_PRELOAD");
        return preload != nullptr && strstr(preload, "liboxelsoft") != nullptr;
    }

    bool driver()
    {
        oxel_get_version_t version{};
        const int rc = tov_ioctl(handle_, OXEL_GET_VERSION, &version, sizeof version);
        tov_close(handle_);
        if (rc != 0)
            return bad("driver_interface", "the driver does not tell its version: " + errno_text(rc),
                       "install the driver that belongs to this library");
        const unsigned major = version.driver_api_magic >> 8, minor = version.driver_api_magic & 0xff;
        if (major != library_major)
            return bad("driver_interface",
                       fmt::format("the driver has interface {}.{}, the library {}.x", major, minor, library_major),
                       "install driver and library of one release");
        ok("driver_interface", fmt::format("interface {}.{}", major, minor));
        return true;
    }

    bool adapters()
    {
        tov_nic_info *nics = nullptr;
        int count = 0;
        if (const int rc = tov_get_nicinfo(&nics, &count); rc != 0 || count == 0) {
            return bad("adapter", "the driver has no adapter" + (rc != 0 ? ": " + errno_text(rc) : std::string()),
                       "see what the driver says in the kernel's log");
        }
        ok("adapter", fmt::format("{} adapter{}, {} endpoints on the first", count, count == 1 ? "" : "s",
                                  nics[0].nic_max_endpoints));
        tov_free_nicinfo(nics);

        tov_ifaddrs *list = nullptr;
        if (const int rc = tov_getifaddrs(&list, 1, &count); rc != 0)
            return bad("address", "the interfaces cannot be listed: " + errno_text(rc), "try again");
        for (const tov_ifaddrs *i = list; i != nullptr; i = i->tov_ifa_next)
            if (wanted_.empty() || device_of(i->tov_ifa_name) == device_of(wanted_)) {
                addresses_.push_back({i->tov_ifa_name, i->tov_ifa_ipaddr, (i->tov_ifa_flags & TOV_IFF_MULTICAST) != 0,
                                      i->tov_ifa_link_state != 0});
                boards_[i->tov_ifa_boardnum].endpoints = i->tov_ifa_max_endpoints;
            }
        for (const tov_ifaddrs *i = list; i != nullptr; i = i->tov_ifa_next) {
            add_new(devices_on_adapters_, device_of(i->tov_ifa_name));
            if (const auto board = boards_.find(i->tov_ifa_boardnum); board != boards_.end())
                add_new(board->second.interfaces, i->tov_ifa_name);
        }
        tov_freeifaddrs(list);
        if (!addresses_.empty())
            return true;
        if (wanted_.empty())
            return bad("address", "no interface on an adapter has an IPv4 address",
                       "give the adapter's interface an address: ip addr add ADDRESS/LENGTH dev IF");
        if (if_nametoindex(device_of(wanted_).c_str()) == 0)
            return no_interface();
        host_interface();
        if (addresses_.empty())
            return false;
        return bad("address", wanted_ + " is on no adapter: sockets there are not accelerated",
                   "name one that is, or for the software adapter this one in 'rukrun --soft=" + device_of(wanted_) +
                       " --'");
    }

    /* Where no adapter tells of an interface: what the host has of the one that was asked for. */
    void host_interface()
    {
        const bool told = std::ranges::any_of(findings_, [](const Finding &f) { return f.check == "address"; });
        ifaddrs *entries = nullptr;
        if (wanted_.empty() || getifaddrs(&entries) != 0)
            return;
        for (const ifaddrs *e = entries; e != nullptr; e = e->ifa_next) {
            if (e->ifa_addr == nullptr || e->ifa_addr->sa_family != AF_INET ||
                device_of(e->ifa_name) != device_of(wanted_))
                continue;
            sockaddr_in address{};
            memcpy(&address, e->ifa_addr, sizeof address);
            addresses_.push_back({e->ifa_name, address.sin_addr.s_addr, (e->ifa_flags & IFF_MULTICAST) != 0,
                                  (e->ifa_flags & IFF_RUNNING) != 0});
        }
        freeifaddrs(entries);
        if (!addresses_.empty() || told)
            return;
        if (if_nametoindex(device_of(wanted_).c_str()) == 0)
            no_interface();
        else
            bad("address", wanted_ + " has no IPv4 address",
                "give it one: ip addr add ADDRESS/LENGTH dev " + device_of(wanted_));
    }

    bool no_interface() { return bad("address", "there is no interface " + wanted_, "name one that 'ip link' shows"); }

    void link()
    {
        for (const Address &a : addresses_) {
            if (a.link_up)
                ok("link", a.interface + ": up");
            else
                bad("link", a.interface + ": the adapter has no link",
                    "set the interface up (ip link set IF up) and look at the cable and the switch");
        }
    }

    /* No command tells which are taken: one that is free is claimed, as an open does, and given back at once. Programs
     * take them from the first, so the last ones are tried first. */
    void endpoints()
    {
        for (const auto &[board, of_board] : boards_) {
            const uint32_t count = of_board.endpoints;
            int rc = ENODEV;
            for (uint32_t number = count; number > 0 && (rc = claim(board, number - 1)) == EBUSY; number--) {
            }
            if (rc == 0)
                ok("endpoints", fmt::format("board {}: not all of its {} are taken", board, count));
            else if (rc == EBUSY)
                bad("endpoints",
                    fmt::format("board {}: all of its {} are taken: an open fails with EBUSY", board, count),
                    "end a program that has one; 'fuser -v /dev/oxel*' tells which have");
            else
                no_endpoint(board, rc);
        }
    }

    void no_endpoint(uint32_t board, int rc)
    {
        std::string file;
        bool there;
        if (refused_file(static_cast<int>(board), file, rc, there))
            bad("endpoints", fmt::format("board {}: {} cannot be opened: {}", board, file, errno_text(rc)),
                remedy_of_refusal(file, rc));
        else
            bad("endpoints", fmt::format("board {}: none can be had: {}", board, errno_text(rc)),
                "see what the driver says in the kernel's log");
    }

    static int claim(uint32_t board, uint32_t number)
    {
        tov_handle_t handle;
        int rc = tov_open(static_cast<int>(board), static_cast<int>(number), &handle, TOV_PRODUCT);
        if (rc != 0)
            return rc;
        oxel_set_endpt_t endpoint = {static_cast<int32_t>(number), OXEL_ES_RUK};
        rc = tov_ioctl(handle, OXEL_SET_ENDPT, &endpoint, sizeof endpoint);
        tov_close(handle);
        return rc;
    }

    void addresses()
    {
        for (const Address &a : addresses_) {
            const std::string text = a.interface + ": " + addr_text(in_addr{a.address});
            if ((ntohl(a.address) & 0xff) == 0xff)
                warn("address", text + " ends in .255, which the library takes for a broadcast",
                     "give the interface another address");
            else
                ok("address", text);
        }
    }

    bool on_adapter(const HostAddress &a) const
    {
        return std::ranges::find(devices_on_adapters_, device_of(a.interface)) != devices_on_adapters_.end();
    }

    /* The rule of an open: it asks for all of the host, whatever interface it is for. A software adapter may be on an
     * interface that an open does not know for one. */
    void subnets()
    {
        std::vector<HostAddress> list;
        if (const int rc = host_addresses(list); rc != 0) {
            bad("subnets",
                "the host's addresses cannot be listed, which ends the process at an open: " + errno_text(rc),
                "try again");
            return;
        }
        const char *variable = nullptr;
        for (const char *name : {"RUK_BYPASS_CHECK", "RUK_IP_ACCELERATION"})
            variable = getenv(name) != nullptr ? name : variable;
        bool clean = true;
        for (size_t i = 0; i < list.size(); i++)
            for (size_t j = 0; j < i; j++) {
                const HostAddress &a = list[j], &b = list[i];
                const bool seen = a.adapter || b.adapter;
                if (a.subnet != b.subnet || (!seen && !on_adapter(a) && !on_adapter(b)))
                    continue;
                clean = false;
                const std::string found = fmt::format("{} ({}) and {} ({}) are on one subnet", a.interface,
                                                      addr_text(a.address), b.interface, addr_text(b.address));
                if (!seen)
                    warn("subnets",
                         found + fmt::format("; an open knows adapters by MAC addresses that begin with "
                                             "{:02x}:{:02x}:{:02x} and does not see it, but on a card it ends the "
                                             "process",
                                             OXEL_MAC_PREFIX_0, OXEL_MAC_PREFIX_1, OXEL_MAC_PREFIX_2),
                         "leave one address on an adapter's subnet");
                else if (variable != nullptr)
                    warn("subnets", fmt::format("{}; {} is set, so an open does not look", found, variable),
                         "leave one address on an adapter's subnet, or see that each is reached as is meant");
                else
                    bad("subnets", found + ": an open ends the process",
                        "leave one address on an adapter's subnet, or set RUK_IP_ACCELERATION when it is meant");
            }
        if (clean)
            ok("subnets",
               std::string("no other address is on the subnet of an adapter's") +
                   (variable != nullptr ? fmt::format(" ({} is set: an open does not look)", variable) : ""));
    }

    /* ---------------------------------------------------------- the host's tables */

    /* The endpoint's rule: those that are up, over any interface of its adapter. */
    void routes(const std::vector<std::string> &interfaces)
    {
        std::ifstream table("/proc/net/route");
        std::string line, name, over;
        int count = 0, by_gateway = 0;
        std::getline(table, line);
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            uint32_t destination = 0, hop = 0, flags = 0;
            if (fields >> name >> std::hex >> destination >> hop >> flags && (flags & RTF_UP) != 0 &&
                std::ranges::find(interfaces, name) != interfaces.end()) {
                count++;
                by_gateway += hop != 0;
            }
        }
        for (const std::string &interface : interfaces)
            over += (over.empty() ? "" : ", ") + interface;
        const auto plain = std::ranges::find_if(interfaces, [](const std::string &i) { return i == device_of(i); });
        if (count == 0 && plain == interfaces.end())
            warn("routes", over + ": no route, so nothing can be sent but to groups and to addresses that end in .255",
                 "routes are told by the names of devices, and this is a label: give " + device_of(interfaces[0]) +
                     " an address without one");
        else if (count == 0)
            warn("routes", over + ": no route, so nothing can be sent but to groups and to addresses that end in .255",
                 "set the interface up, or add a route: ip route add NET dev " + *plain);
        else
            ok("routes",
               fmt::format("{}: {} route{}{}; an endpoint reads them when it opens", over, count, count == 1 ? "" : "s",
                           by_gateway != 0 ? fmt::format(", {} by a gateway", by_gateway) : ""));
    }

    void neighbours(const std::string &device)
    {
        std::ifstream table("/proc/net/arp");
        std::string line, address, type, flags, mac, mask, name;
        int known = 0;
        std::string unresolved;
        std::getline(table, line);
        while (std::getline(table, line)) {
            std::istringstream fields(line);
            if (!(fields >> address >> type >> flags >> mac >> mask >> name) || name != device)
                continue;
            if (flags == "0x0")
                unresolved += (unresolved.empty() ? "" : ", ") + address;
            else
                known++;
        }
        if (!unresolved.empty())
            warn("neighbours", device + ": no answer to ARP from " + unresolved,
                 "see whether that host is up and on this network: ping it");
        else
            ok("neighbours", fmt::format("{}: {} known to the kernel", device, known));
    }

    void multicast(const std::string &device)
    {
        const auto interface =
            std::ranges::find_if(addresses_, [&](const Address &a) { return device_of(a.interface) == device; });
        if (!interface->multicast) {
            warn("multicast", device + ": multicast is off, so groups cannot be joined",
                 "ip link set " + device + " multicast on");
            return;
        }
        ok("multicast", device + ": on");
        const IgmpState igmp = igmp_state(device);
        igmp_version(device, igmp);
        memberships(device, igmp);
    }

    void igmp_version(const std::string &device, const IgmpState &igmp)
    {
        const auto all = setting("ipv4/conf/all/force_igmp_version"),
                   own = setting("ipv4/conf/" + device + "/force_igmp_version");
        const int forced = all == 1 || own == 1 ? 1 : all == 2 || own == 2 ? 2 : 0; /* the older wins */
        if (forced != 0)
            warn("igmp_version",
                 fmt::format("{}: IGMP is held to version {}: switches are not told of sources", device, forced),
                 "sysctl " + sysctl_name(device, "force_igmp_version") + "=0 (and .all.)");
        else if (igmp.version == 1 || igmp.version == 2)
            warn(
                "igmp_version",
                fmt::format("{}: a querier of version {} was heard: the kernel does as it, and tells nobody of sources",
                            device, igmp.version),
                "let the querier of this network (a router or switch) speak version 3");
        else if (!all || !own || igmp.version == 0)
            warn("igmp_version", device + ": the kernel does not tell", hidden_tables);
        else
            ok("igmp_version", device + ": version 3");
    }

    void memberships(const std::string &device, const IgmpState &igmp)
    {
        const auto groups = setting("ipv4/igmp_max_memberships"), senders = setting("ipv4/igmp_max_msf");
        if (!groups || !senders || igmp.version == 0) {
            warn("memberships", device + ": the kernel does not tell", hidden_tables);
            return;
        }
        const int most = *groups, sources = *senders;
        const std::string found =
            fmt::format("{}: {} group{} joined, a channel can join {}, each from {} source{}", device, igmp.groups,
                        igmp.groups == 1 ? "" : "s", most, sources, sources == 1 ? "" : "s");
        if (most < default_memberships || sources < default_sources)
            warn("memberships", found,
                 std::string("sysctl") + (most < default_memberships ? " net.ipv4.igmp_max_memberships=1000" : "") +
                     (sources < default_sources ? " net.ipv4.igmp_max_msf=100" : "") + ", if that is too few");
        else if (igmp.groups >= most)
            warn("memberships", found + ": if it was one that joined them, it gets no more",
                 "sysctl net.ipv4.igmp_max_memberships=1000");
        else
            ok("memberships", found);
    }

    void reverse_path(const std::string &device)
    {
        const auto all = setting("ipv4/conf/all/rp_filter"), own = setting("ipv4/conf/" + device + "/rp_filter");
        const int mode = std::max(all.value_or(0), own.value_or(0)); /* 2 counts whatever the other is */
        if (mode == 1)
            warn("reverse_path",
                 device + ": strict: the kernel drops datagrams whose source it would reach by another interface; "
                          "accelerated ones are not checked",
                 "sysctl " + sysctl_name(device, "rp_filter") + "=2 (and .all.), if kernel sockets miss datagrams");
        else if ((!all || !own) && mode != 2)
            warn("reverse_path", device + ": the kernel does not tell", hidden_tables);
        else
            ok("reverse_path", device + (mode == 0 ? ": off" : ": loose"));
    }

    void socket_buffer()
    {
        const auto bytes = setting("core/rmem_max");
        if (!bytes)
            warn("socket_buffer", "the kernel does not tell how much its sockets may hold", hidden_tables);
        else if (*bytes < small_socket_buffer)
            warn("socket_buffer", fmt::format("kernel sockets hold {} bytes at most", *bytes),
                 "sysctl net.core.rmem_max=4194304, for programs that are not accelerated");
        else
            ok("socket_buffer", fmt::format("kernel sockets may hold {} bytes", *bytes));
    }

    /* ---------------------------------------------------------- what the software adapter needs */

    void packet_socket()
    {
        const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            warn("packet_socket", "packet sockets are refused: " + errno_text(errno),
                 "the software adapter needs root, CAP_NET_RAW, or 'unshare -Urn'");
            return;
        }
        close(fd);
        ok("packet_socket", "packet sockets can be opened");
    }

    void steering()
    {
        const int error = softnic::try_steering();
        if (error == 0)
            ok("steering", "the host's own stack can be kept from the software adapter's frames");
        else
            warn("steering",
                 "the host's own stack cannot be kept from the software adapter's frames, and gets them as well: " +
                     errno_text(error),
                 error == EPERM || error == EACCES
                     ? "for that the software adapter needs root, CAP_NET_ADMIN, or 'unshare -Urn'"
                     : "modprobe nf_tables; before version 5.12 kernels cannot do it");
    }

    void watchpoints()
    {
        static uint32_t word;
        perf_event_attr attr = {};
        attr.type = PERF_TYPE_BREAKPOINT;
        attr.size = sizeof attr;
        attr.sample_period = 1;
        attr.bp_type = HW_BREAKPOINT_W;
        attr.bp_addr = reinterpret_cast<uintptr_t>(&word);
        attr.bp_len = HW_BREAKPOINT_LEN_4;
        attr.disabled = 1;
        attr.exclude_kernel = 1;
        attr.exclude_hv = 1;
        attr.remove_on_exec = 1;
        attr.sigtrap = 1;
        const long fd = syscall(SYS_perf_event_open, &attr, 0, -1, -1, PERF_FLAG_FD_CLOEXEC);
        if (fd < 0) {
            const int error = errno;
            warn("watchpoints",
                 "hardware watchpoints are refused, so the software adapter sends more slowly: " + errno_text(error),
                 error == ENOSPC || error == EBUSY ? "all are taken: end the debugger or tracer that has them"
                 : error == EACCES || error == EPERM
                     ? "sysctl kernel.perf_event_paranoid=2 or less, or run with CAP_PERFMON"
                     : "this kernel or machine has none: nothing to do");
            return;
        }
        close(static_cast<int>(fd));
        ok("watchpoints", "hardware watchpoints can be had");
    }

    /* ---------------------------------------------------------- processors and clocks */

    void processors()
    {
        const size_t count = allowed_processors().size();
        if (count < 2)
            warn("processors", "this process has one processor: whoever spins keeps the others waiting",
                 "use the blocking receive mode, or more processors");
        else
            ok("processors", fmt::format("{} for this process", count));
    }

    void governor()
    {
        std::string slow;
        std::error_code error;
        for (const auto &cpu : std::filesystem::directory_iterator("/sys/devices/system/cpu", error)) {
            const std::string name = cpu.path().filename();
            if (!name.starts_with("cpu") || name.size() < 4 || isdigit(static_cast<unsigned char>(name[3])) == 0)
                continue;
            const auto mode = first_line(cpu.path() / "cpufreq/scaling_governor");
            if (mode && *mode != "performance")
                slow = *mode;
        }
        if (!slow.empty())
            warn("governor", "processors run under the governor '" + slow + "'",
                 "cpupower frequency-set -g performance");
        else
            ok("governor", "no frequency governor slows the processors");
    }

    void clock_source()
    {
        const std::string source =
            first_line("/sys/devices/system/clocksource/clocksource0/current_clocksource").value_or("");
        std::ifstream cpuinfo("/proc/cpuinfo");
        const std::string text{std::istreambuf_iterator<char>(cpuinfo), {}};
        if (text.find("constant_tsc") == std::string::npos)
            warn("clock",
                 "the processor's time stamp counter changes its rate" +
                     (source.empty() ? "" : " (clock source " + source + ")"),
                 "timed waits of the library will be inexact: use another machine");
        else if (source.empty())
            warn("clock", "the kernel does not tell its clock source", "see whether /sys is mounted");
        else if (source != "tsc" && source != "kvm-clock" && source != "hyperv_clocksource_tsc_page")
            warn("clock", "the kernel's clock source is " + source + ": reading the time is slow",
                 "see why the kernel distrusts the time stamp counter (dmesg | grep -i tsc)");
        else
            ok("clock", "clock source " + source + ", constant rate");
    }

    void clock_steering()
    {
        timex state = {};
        adjtimex(&state);
        if ((state.status & STA_UNSYNC) != 0)
            warn("clock_sync", "nothing keeps the host's clock right, and with it adapter timestamps",
                 "run chronyd, ntpd or phc2sys");
        else
            ok("clock_sync", fmt::format("the host's clock is kept right, to about {} us", state.maxerror));
    }

    std::string wanted_;
    tov_handle_t handle_{};
    std::vector<Address> addresses_;
    std::vector<std::string> devices_on_adapters_;
    std::map<uint32_t, Board> boards_; /* of the addresses' adapters, by number */
    std::vector<Finding> findings_;
};

} // namespace

std::vector<Finding> examine(const std::string &interface) { return Examination(interface).all(); }

} // namespace tools
