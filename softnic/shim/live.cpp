// The preloaded adapter: boards over the host interfaces that the launcher names in the environment.

#include "../driver/driver.h"
#include "../driver/sys.h"
#include "../ports/packet.h"
#include "../ports/pcap.h"
#include "../ports/switch.h"
#include "devices.h"
#include "firmware.h"
#include "tap_source.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace softnic {
namespace {

// Above this much payload a request does not fit the one-page DMA ring that the fast way of catching needs.
constexpr unsigned kFastMtu = 4000;
constexpr uint64_t kReadableGraceNs = 2000;

struct LiveSystem {
    LiveRunner runner;
    std::vector<std::unique_ptr<Port>> ports;
    std::unique_ptr<Driver> driver;
    std::vector<std::unique_ptr<Firmware>> firmware;
};

LiveSystem *g_system = nullptr;
bool g_failed = false;

void complain(const std::string &what) { fprintf(stderr, "softnic: %s\n", what.c_str()); }

// ---------------------------------------------------------------- settings

const char *setting(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// A number within the limits, or the fallback with a complaint when it is none.
uint64_t number(const char *name, uint64_t fallback, uint64_t least, uint64_t most)
{
    const char *value = setting(name);
    if (value == nullptr)
        return fallback;
    char *end;
    errno = 0;
    const unsigned long long n = strtoull(value, &end, 0);
    if (errno == 0 && *end == '\0' && end != value && value[0] != '-' && n >= least && n <= most)
        return n;
    complain(std::string(name) + "=" + value + " is not a number from " + std::to_string(least) + " to " +
             std::to_string(most) + ", using " + std::to_string(fallback));
    return fallback;
}

std::vector<std::string> split(const std::string &text, char at)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t end = std::min(text.find(at, start), text.size());
        if (end > start)
            parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

struct HostInterface {
    std::array<uint8_t, 6> mac = {};
    unsigned mtu = 1500;
};

bool look_up(const std::string &name, HostInterface *out)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    ifreq request = {};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    const auto ask = [&](unsigned long what) { return ::syscall(SYS_ioctl, fd, what, &request) == 0; };
    const bool ok = ask(SIOCGIFHWADDR);
    memcpy(out->mac.data(), request.ifr_hwaddr.sa_data, out->mac.size());
    if (ok && ask(SIOCGIFMTU))
        out->mtu = static_cast<unsigned>(request.ifr_mtu);
    sys::close(fd);
    return ok;
}

TapMode preferred_mode(unsigned mtu, const std::string &interface)
{
    TapMode mode = TapMode::fast;
    if (const char *name = setting("RUK_SOFTNIC_MODE"))
        if (!tap_mode_from_name(name, &mode))
            complain(std::string("RUK_SOFTNIC_MODE=") + name + " is none of fast, exact, fallback; using fast");
    if (mode == TapMode::fast && mtu > kFastMtu) {
        if (setting("RUK_SOFTNIC_MODE") != nullptr)
            complain(interface + ": an MTU of " + std::to_string(mtu) + " needs the exact mode");
        mode = TapMode::exact;
    }
    return mode;
}

// What the driver reports for an endpoint, and how its requests are caught. The way of catching is settled before
// the library learns the endpoint's threshold, so that one that has to do without watchpoints still has a full ring.
SendSetup send_setup(TapMode preferred, unsigned mtu, const char *name)
{
    const TapMode mode = preferred == TapMode::fast ? RequestTap::available(preferred, name) : preferred;
    SendSetup setup;
    setup.make_source = tap_source(mode);
    if (mode == TapMode::fast) {
        // At most one DMA request may be outstanding, and all that carries a payload has to be one.
        setup.dmasend_threshold = 0;
        setup.sendq_size = NUV_DMA_PAGE;
        setup.threshold_fixed = true;
        return setup;
    }
    const uint32_t pages = (mtu + NUV_DMA_PAGE - 1) / NUV_DMA_PAGE * NUV_DMA_PAGE;
    const uint32_t least = std::max(2 * pages, 2 * NUV_DMA_PAGE);
    setup.sendq_size =
        static_cast<uint32_t>(number("RUK_SOFTNIC_SENDQ", std::max(256u << 10, least), least, 16u << 20));
    setup.dmasend_threshold = static_cast<uint32_t>(number("RUK_SOFTNIC_THRESHOLD", 1024, 0, 4096));
    return setup;
}

CardConfig card_config(const std::string &interface, const HostInterface &host, unsigned board)
{
    CardConfig config;
    config.board.mac = host.mac;
    config.board.endpoints = static_cast<unsigned>(number("RUK_SOFTNIC_ENDPOINTS", 8, 1, kMaxEndpoints));
    config.recvq_size = static_cast<uint32_t>(number("RUK_SOFTNIC_RECVQ", 1u << 20, kMinRecvq, kMaxRecvq));
    config.name = interface;
    config.drain_before_removal = true;
    config.watch_consumers = true;
    config.readable_grace_ns = kReadableGraceNs;

    const TapMode mode = preferred_mode(host.mtu, interface);
    config.send_setup = [mode, mtu = host.mtu](const char *name) { return send_setup(mode, mtu, name); };
    (void)board;
    return config;
}

// Whether frames come with a switch's trailer on.
bool trailer_on_wire()
{
    const char *text = setting("RUK_SOFTNIC_SWITCH");
    return text != nullptr && strcmp(text, "wire") == 0;
}

// Puts the switch that is asked for in front of a port. False when the settings make no sense.
bool add_switch(std::unique_ptr<Port> *port, CardConfig *config)
{
    const char *text = setting("RUK_SOFTNIC_SWITCH");
    if (text == nullptr)
        return true;
    if (trailer_on_wire()) {
        config->board.trailer_on_wire = true;
        return true;
    }
    if (strcmp(text, "model") != 0 && strncmp(text, "model,", 6) != 0) {
        complain(std::string("RUK_SOFTNIC_SWITCH=") + text + " is neither wire nor model[,OPTIONS]");
        return false;
    }
    SwitchOptions options;
    std::string error;
    if (text[5] == ',' && !parse_switch_options(text + 6, &options, &error)) {
        complain("RUK_SOFTNIC_SWITCH: " + error);
        return false;
    }
    *port = std::make_unique<SwitchPort>(
        std::move(*port), options, [] { return LiveRunner().now().real_ns; }, true);
    config->board.trailer_on_wire = true;
    return true;
}

// What a capture file holds arrives at the first board as well: "FILE" or "FILE,speed=N". False, with a complaint,
// when there is no such thing.
bool add_replay(std::unique_ptr<Port> *port)
{
    const char *text = setting("RUK_SOFTNIC_REPLAY");
    if (text == nullptr)
        return true;
    std::string path, error;
    double speed;
    if (!parse_replay(text, &path, &speed, &error)) {
        complain("RUK_SOFTNIC_REPLAY: " + error);
        return false;
    }
    std::unique_ptr<PcapReader> file = PcapReader::open(path, &error, trailer_on_wire());
    if (!file) {
        complain(error);
        return false;
    }
    *port = std::make_unique<ReplayPort>(
        std::move(*port), std::move(file), speed, [] { return LiveRunner().now().mono_ns; },
        [path] { complain(path + " is cut off or damaged within a frame: the replay ends there"); });
    return true;
}

// ---------------------------------------------------------------- life

Driver *make_live_driver()
{
    const char *names = setting("RUK_SOFTNIC");
    if (names == nullptr || g_failed)
        return nullptr;
    auto system = std::make_unique<LiveSystem>();
    FirmwareOptions options;
    options.spin_ns = number("RUK_SOFTNIC_SPIN_US", 50, 0, 1000000) * 1000;
    options.cpu =
        setting("RUK_SOFTNIC_CPU") != nullptr ? static_cast<int>(number("RUK_SOFTNIC_CPU", 0, 0, CPU_SETSIZE - 1)) : -1;

    const auto packet_ring =
        static_cast<uint32_t>(number("RUK_SOFTNIC_PACKETQ", kPacketRing, kMinPacketRing, kMaxPacketRing));

    std::vector<std::unique_ptr<Card>> cards;
    for (const std::string &name : split(names, ',')) {
        HostInterface host;
        std::string error = "no such interface";
        std::unique_ptr<Port> port;
        if (look_up(name, &host))
            port = make_packet_port(name, &error, trailer_on_wire(), packet_ring);
        if (!port) {
            complain(std::string(name).append(": ").append(error));
            continue;
        }
        CardConfig config = card_config(name, host, static_cast<unsigned>(cards.size()));
        if ((cards.empty() && !add_replay(&port)) || !add_switch(&port, &config))
            continue;
        auto card = std::make_unique<Card>(config, *port, system->runner);
        if (int rc = card->power_up()) {
            complain(name + ": " + strerror(rc));
            continue;
        }
        system->ports.push_back(std::move(port));
        cards.push_back(std::move(card));
    }
    if (cards.empty()) {
        g_failed = true;
        return nullptr;
    }
    system->driver = std::make_unique<Driver>(std::move(cards));
    for (unsigned board = 0; board < system->driver->boards(); board++) {
        options.board = board;
        system->firmware.push_back(std::make_unique<Firmware>(system->driver->card(board), options));
        if (int rc = system->firmware.back()->start()) {
            // Boards that are never served would keep senders waiting for ever: better none.
            complain(std::string("no thread for the firmware: ") + strerror(rc));
            g_failed = true;
            return nullptr;
        }
    }
    g_system = system.release(); // lives as long as the process: its threads may be inside at any time
    return g_system->driver.get();
}

// The threads, sockets and mappings are the parent's. A child that opens a device gets boards of its own.
void forget_system()
{
    if (g_system != nullptr) {
        detach_driver(g_system->driver.get());
        for (auto &firmware : g_system->firmware)
            firmware->forget();
    }
    g_system = nullptr;
    g_failed = false;
    forget_firmware();
}

__attribute__((constructor(102))) void offer_driver()
{
    make_driver = make_live_driver;
    after_fork = forget_system;
}

// The ledger of all boards, as JSON, into the file that is asked for.
void write_ledger(const char *path)
{
    const int fd = sys::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC);
    FILE *out = fd >= 0 ? fdopen(fd, "w") : nullptr;
    if (out == nullptr) {
        complain(std::string(path) + ": " + strerror(errno));
        return;
    }
    std::string boards;
    auto page = std::make_unique<LedgerPage>();
    for (unsigned board = 0; board < g_system->driver->boards(); board++) {
        Card &card = g_system->driver->card(board);
        std::lock_guard guard(card.lock());
        *page = {};
        take_ledger(card, board, page.get());
        boards.append(board != 0 ? "," : "").append(ledger_json(*page));
    }
    fprintf(out, "{\"boards\":[%s]}\n", boards.c_str());
    fclose(out);
}

// What was posted before a normal exit still leaves.
__attribute__((destructor(102))) void drain()
{
    if (g_system == nullptr)
        return;
    detach_driver(g_system->driver.get());
    for (auto &firmware : g_system->firmware)
        firmware->stop();
    if (const char *path = setting("RUK_SOFTNIC_STATS"))
        write_ledger(path);
}

} // namespace
} // namespace softnic
