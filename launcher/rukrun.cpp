// Runs a program with the software adapter in place of a card: the adapter is preloaded into it.
#include "nuv_types.h"
#include "ports/packet.h"
#include "ports/pcap.h"
#include "ports/switch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ifaddrs.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {

// As env(1) and its kind have them.
constexpr int kFailed = 125, kCannotExecute = 126, kNotFound = 127;

constexpr char kUsage[] =
    "Usage: rukrun --soft[=IF[,IF...]] [--mode=fast|exact|fallback] [--switch=KIND]\n"
    "              [--replay=FILE[,speed=N]] [--] PROGRAM [ARGUMENT...]\n"
    "\n"
    "Runs PROGRAM with the software adapter: in it, each of the interfaces IF is an adapter,\n"
    "/dev/oxelB0 and so on, whose driver and firmware are emulated over the interface.\n"
    "\n"
    "  --soft[=IF,...]  interfaces, in the order of the adapters' numbers; without names every\n"
    "                   interface that is up and whose MAC address begins with %02x:%02x:%02x,\n"
    "                   of those that share one the oldest\n"
    "  --mode=MODE      how posted send requests are noticed:\n"
    "                     fast      hardware watchpoint, small requests (default)\n"
    "                     exact     hardware watchpoints, sizes and depths as on the card\n"
    "                     fallback  page protection, where the host refuses watchpoints\n"
    "  --switch=wire    frames arrive with a timestamping switch's 4-byte trailer on\n"
    "  --switch=model[,KEY=VALUE...]\n"
    "                   a model of such a switch stands in front of each adapter: rate=HZ,\n"
    "                   interval=MS (of keyframes), skew=NUM/DEN, ptp-lost=FROM-TO (seconds),\n"
    "                   lose=CHANCE, mode=N@SECONDS, dst=ADDRESS, seed=N\n"
    "  --replay=FILE[,speed=N]\n"
    "                   the frames of a pcap file (not pcapng) arrive at the first adapter as well,\n"
    "                   as fast as captured or N times so, beginning when the program's first\n"
    "                   bind, join, ruk_filter_add() or filter mode has been followed by no other\n"
    "                   for 0.1 s (a filter of a switch's keyframes, protocol 253, does not count);\n"
    "                   what comes before a later join is lost, and so is a frame that was not\n"
    "                   captured whole (tcpdump -s 0)\n"
    "  --help           print this text\n"
    "  --version        print the version\n"
    "\n"
    "Needs the right to open packet sockets: run as root, with CAP_NET_RAW, or\n"
    "inside 'unshare -Urn'.\n"
    "Exit status: the program's; 125 when rukrun fails, 126 when PROGRAM cannot be executed,\n"
    "127 when it is not found.\n";

template <typename... Args> [[noreturn]] void fail(int status, const char *format, Args... args)
{
    fprintf(stderr, "rukrun: ");
    if constexpr (sizeof...(args) == 0)
        fputs(format, stderr);
    else
        fprintf(stderr, format, args...);
    fputc('\n', stderr);
    exit(status);
}

// After --help and --version.
[[noreturn]] void end_with_what_was_asked()
{
    if (fflush(stdout) != 0)
        fail(kFailed, "cannot write to standard output: %s", strerror(errno));
    exit(0);
}

struct Options {
    bool soft = false;
    std::vector<std::string> interfaces;
    std::string mode;
    std::string switch_kind;
    std::string replay;
    char **program = nullptr;
};

std::vector<std::string> split(std::string_view list)
{
    std::vector<std::string> names;
    for (size_t at = 0; at <= list.size();) {
        const size_t end = std::min(list.find(',', at), list.size());
        names.emplace_back(list.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

// What the program is told: the file by its absolute path, for the program may change its directory first.
std::string checked_replay(const std::string &text)
{
    std::string path, error;
    double speed;
    if (!softnic::parse_replay(text, &path, &speed, &error))
        fail(kFailed, "replay: %s", error.c_str());
    // A pipe would have lost what is read here.
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        fail(kFailed, "replay: %s is no regular file", path.c_str());
    if (!softnic::PcapReader::open(path, &error))
        fail(kFailed, "replay: %s", error.c_str());
    return std::filesystem::absolute(path).string() + text.substr(path.size());
}

// Options end at the program's name, so that its arguments are its own.
Options parse(int argc, char **argv)
{
    Options options;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        const std::string_view arg = argv[i];
        if (arg == "--") {
            i++;
            break;
        }
        if (arg == "--help" || arg == "-h") {
            printf(kUsage, OXEL_MAC_PREFIX_0, OXEL_MAC_PREFIX_1, OXEL_MAC_PREFIX_2);
            end_with_what_was_asked();
        }
        if (arg == "--version") {
            puts("rukrun " RUK_LIB_VERSION);
            end_with_what_was_asked();
        }
        if (arg == "--soft") {
            options.soft = true;
        } else if (arg.starts_with("--soft=")) {
            options.soft = true;
            options.interfaces = split(arg.substr(strlen("--soft=")));
        } else if (arg.starts_with("--mode=")) {
            options.mode = arg.substr(strlen("--mode="));
            if (options.mode != "fast" && options.mode != "exact" && options.mode != "fallback")
                fail(kFailed, "unknown mode '%s': it is fast, exact or fallback", options.mode.c_str());
        } else if (arg.starts_with("--switch=")) {
            options.switch_kind = arg.substr(strlen("--switch="));
            if (options.switch_kind != "wire" && options.switch_kind != "model" &&
                !options.switch_kind.starts_with("model,"))
                fail(kFailed, "unknown switch '%s': it is wire or model[,KEY=VALUE...]", options.switch_kind.c_str());
            softnic::SwitchOptions model;
            std::string error;
            if (options.switch_kind.starts_with("model,") &&
                !softnic::parse_switch_options(options.switch_kind.substr(strlen("model,")), &model, &error))
                fail(kFailed, "switch: %s", error.c_str());
        } else if (arg.starts_with("--replay=")) {
            options.replay = checked_replay(std::string(arg.substr(strlen("--replay="))));
        } else {
            fail(kFailed, "unknown option '%s' (see rukrun --help)", argv[i]);
        }
    }
    if (!options.soft)
        fail(kFailed, "say --soft or --soft=INTERFACE (see rukrun --help)");
    if (i >= argc)
        fail(kFailed, "no program given (see rukrun --help)");
    options.program = argv + i;
    return options;
}

void check_interfaces(const std::vector<std::string> &names)
{
    for (size_t i = 0; i < names.size(); i++) {
        const std::string &name = names[i];
        if (name.empty())
            fail(kFailed, "empty interface name");
        if (if_nametoindex(name.c_str()) == 0)
            fail(kFailed, "no interface named '%s'", name.c_str());
        if (std::find(names.begin(), names.begin() + static_cast<ptrdiff_t>(i), name) !=
            names.begin() + static_cast<ptrdiff_t>(i))
            fail(kFailed, "interface '%s' is named twice", name.c_str());
    }
}

// Interfaces that are up and have an address of the family, in the order of their indices.
std::vector<std::string> family_interfaces()
{
    ifaddrs *list;
    if (getifaddrs(&list) < 0)
        fail(kFailed, "cannot list the interfaces: %s", strerror(errno));
    struct Found {
        int index;
        std::string name;
        std::array<uint8_t, 6> mac;
    };
    std::vector<Found> found;
    for (const ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_PACKET || (i->ifa_flags & IFF_UP) == 0)
            continue;
        sockaddr_ll address;
        memcpy(&address, i->ifa_addr, sizeof(address));
        std::array<uint8_t, 6> mac = {};
        memcpy(mac.data(), address.sll_addr, mac.size());
        if (address.sll_halen == mac.size() && mac[0] == OXEL_MAC_PREFIX_0 && mac[1] == OXEL_MAC_PREFIX_1 &&
            mac[2] == OXEL_MAC_PREFIX_2)
            found.push_back({address.sll_ifindex, i->ifa_name, mac});
    }
    freeifaddrs(list);
    std::sort(found.begin(), found.end(), [](const Found &a, const Found &b) { return a.index < b.index; });
    // One adapter a MAC address. An interface that lies on another one, as a VLAN's does, bears the other's address
    // and is younger; the library finds the adapter of such an interface by that address, and what arrives on it
    // arrives on the one below. A second adapter there would see the same frames untagged and never be found.
    std::vector<std::string> names;
    std::set<std::array<uint8_t, 6>> taken;
    for (const Found &interface : found)
        if (taken.insert(interface.mac).second)
            names.push_back(interface.name);
    if (names.empty())
        fail(kFailed, "no interface is up and has a MAC address that begins with %02x:%02x:%02x: name one",
             OXEL_MAC_PREFIX_0, OXEL_MAC_PREFIX_1, OXEL_MAC_PREFIX_2);
    return names;
}

void check_privilege()
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0)
        fail(kFailed, "cannot open a packet socket: %s (run as root, with CAP_NET_RAW, or inside 'unshare -Urn')",
             strerror(errno));
    close(fd);
}

// Opens each adapter's port as the program is going to, if it comes to the worst with the smallest ring: what would
// leave it without an adapter is said here, before it runs. An interface that is down would open all the same and carry
// nothing.
void check_ports(const std::vector<std::string> &names)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    for (const std::string &name : names) {
        ifreq request = {};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        if (ioctl(fd, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_UP) == 0)
            fail(kFailed, "interface '%s' is not up", name.c_str());
        std::string error;
        if (!softnic::make_packet_port(name, &error, false, softnic::kMinPacketRing))
            fail(kFailed, "no adapter over '%s': %s", name.c_str(), error.c_str());
    }
    close(fd);
}

// Beside this program as in the build tree, or where it was installed.
std::string adapter_library()
{
    std::array<char, PATH_MAX> self;
    const ssize_t n = readlink("/proc/self/exe", self.data(), self.size());
    std::vector<std::string> places;
    if (n > 0 && static_cast<size_t>(n) < self.size()) {
        std::string dir(self.data(), static_cast<size_t>(n));
        dir.erase(dir.rfind('/'));
        dir.erase(std::min(dir.rfind('/'), dir.size()));
        places.push_back(dir + "/lib/liboxelsoft.so");
        places.push_back(dir + "/" RUK_LIBDIR "/liboxelsoft.so");
    }
    places.push_back(RUK_FULL_LIBDIR "/liboxelsoft.so");
    for (const std::string &place : places) {
        if (access(place.c_str(), R_OK) != 0)
            continue;
        if (place.find_first_of(" :") != std::string::npos)
            fail(kFailed, "'%s' cannot be preloaded: there is a blank or a colon in its path", place.c_str());
        return place;
    }
    fail(kFailed, "liboxelsoft.so is neither at %s nor at %s", places.front().c_str(), places.back().c_str());
}

// The file that a shell would run. Without value when there is none.
std::optional<std::string> find_program(const std::string &name)
{
    if (name.find('/') != std::string::npos)
        return access(name.c_str(), F_OK) == 0 ? std::optional(name) : std::nullopt;
    const char *path = getenv("PATH");
    std::optional<std::string> unusable;
    for (std::string dirs = path != nullptr ? path : "/bin:/usr/bin"; !name.empty();) {
        const size_t colon = dirs.find(':');
        std::string file = dirs.substr(0, colon);
        if (file.empty())
            file.push_back('.');
        file += '/';
        file += name;
        struct stat st;
        if (stat(file.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
            if (access(file.c_str(), X_OK) == 0)
                return file;
            if (!unusable)
                unusable = file;
        }
        if (colon == std::string::npos)
            break;
        dirs.erase(0, colon + 1);
    }
    return unusable;
}

// The loader preloads nothing into a program that gains rights when it starts: it would run without an adapter.
void check_preloadable(const std::string &file)
{
    struct stat st;
    if (stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return;
    const bool gains_user = (st.st_mode & S_ISUID) != 0 && st.st_uid != geteuid();
    const bool gains_group = (st.st_mode & S_ISGID) != 0 && st.st_gid != getegid();
    const bool gains_rights = geteuid() != 0 && getxattr(file.c_str(), "security.capability", nullptr, 0) > 0;
    if (gains_user || gains_group || gains_rights)
        fail(kCannotExecute, "%s gains rights when it starts, so nothing can be preloaded into it", file.c_str());
}

} // namespace

namespace {

// Preloaded libraries with the adapter before them, but for a sanitizer's run time, which has to stay first.
std::string with_adapter(const std::string &library, std::string_view preload)
{
    std::string sanitizers, others;
    for (size_t at = 0; at < preload.size();) {
        const size_t end = std::min(preload.find_first_of(": ", at), preload.size());
        const std::string entry(preload.substr(at, end - at));
        at = end + 1;
        const std::string_view base = std::string_view(entry).substr(entry.rfind('/') + 1);
        const bool sanitizer = base.starts_with("libasan.") || base.starts_with("libtsan.") ||
                               base.starts_with("libubsan.") || base.starts_with("liblsan.") ||
                               base.starts_with("libclang_rt.");
        if (entry.empty())
            continue;
        if (sanitizer)
            sanitizers.append(entry).append(1, ':');
        else
            others.append(1, ':').append(entry);
    }
    return sanitizers + library + others;
}

} // namespace

int main(int argc, char **argv)
{
    const Options options = parse(argc, argv);
    const std::optional<std::string> file = find_program(options.program[0]);
    if (!file)
        fail(kNotFound, "program '%s' not found", options.program[0]);
    if (access(file->c_str(), X_OK) != 0)
        fail(kCannotExecute, "cannot execute '%s': %s", options.program[0], strerror(errno));
    check_preloadable(*file);
    check_interfaces(options.interfaces);
    check_privilege();
    const std::vector<std::string> interfaces = options.interfaces.empty() ? family_interfaces() : options.interfaces;
    check_ports(interfaces);
    const std::string library = adapter_library();

    std::string names;
    for (const std::string &name : interfaces)
        names += (names.empty() ? "" : ",") + name;
    const char *preload = getenv("LD_PRELOAD");
    setenv("LD_PRELOAD", with_adapter(library, preload != nullptr ? preload : "").c_str(), 1);
    setenv("RUK_SOFTNIC", names.c_str(), 1);
    if (!options.mode.empty())
        setenv("RUK_SOFTNIC_MODE", options.mode.c_str(), 1);
    if (!options.switch_kind.empty())
        setenv("RUK_SOFTNIC_SWITCH", options.switch_kind.c_str(), 1);
    if (!options.replay.empty())
        setenv("RUK_SOFTNIC_REPLAY", options.replay.c_str(), 1);

    execvp(file->c_str(), options.program);
    fail(kCannotExecute, "cannot execute '%s': %s", options.program[0], strerror(errno)); // a script's interpreter, too
}
