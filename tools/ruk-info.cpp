/*
 * ruk-info: library, driver, adapters and the host interfaces on them.
 *
 * Asks the driver as the library itself does, through the library's own platform layer: it is linked with the
 * archive, whose inner operations the shared object does not export.
 */
#include "common.h"
#include "doctor.h"
#include "ledger_view.h"
#include "options.h"

#include "nuv_types.h"
#include "ruk_core.h"
#include "tov.h"

#include <nlohmann/json.hpp>

#include <cstring>

using namespace tools;
using nlohmann::ordered_json;

namespace {

constexpr int library_interface = 0x0400;

std::string interface_version(uint32_t magic) { return fmt::format("{}.{}", magic >> 8, magic & 0xff); }

std::string mac_text(uint64_t nic_id)
{
    char text[18];
    tov_nic_id_to_str(text, nic_id, sizeof text);
    return text;
}

/* Text of the driver's, terminated or not. */
template <size_t N> std::string driver_text(const char (&text)[N]) { return {text, strnlen(text, N)}; }

ordered_json library_info()
{
    return {{"version", std::string(ruk__lib_version)},
            {"build", std::string(ruk__lib_build)},
            {"interface", interface_version(library_interface)}};
}

/* 0 or an errno value. */
int driver_info(ordered_json &driver)
{
    tov_handle_t handle;
    int rc = tov_open_any_board(&handle, TOV_PRODUCT);
    if (rc != 0)
        return rc;
    oxel_get_version_t version{};
    rc = tov_ioctl(handle, OXEL_GET_VERSION, &version, sizeof version);
    tov_close(handle);
    if (rc == 0)
        driver = {{"version", driver_text(version.version_str)},
                  {"build", driver_text(version.build_str)},
                  {"interface", interface_version(version.driver_api_magic)}};
    return rc;
}

ordered_json interface_info(const tov_ifaddrs &ifa)
{
    auto text = [](uint32_t be32) { return addr_text(in_addr{be32}); };
    ordered_json info = {{"name", ifa.tov_ifa_name},
                         {"address", text(ifa.tov_ifa_ipaddr)},
                         {"netmask", text(ifa.tov_ifa_netmask)},
                         {"broadcast", nullptr},
                         {"multicast", (ifa.tov_ifa_flags & TOV_IFF_MULTICAST) != 0},
                         {"vlan", nullptr}};
    if (ifa.tov_ifa_flags & TOV_IFF_BROADCAST)
        info["broadcast"] = text(ifa.tov_ifa_bcastaddr);
    if (uint16_t tag = tov_get_vlan_tag(ifa.tov_ifa_name))
        info["vlan"] = ntohs(tag) & 0xfff;
    return info;
}

/* 0 or an errno value. */
int board_info(ordered_json &boards)
{
    tov_nic_info *nics = nullptr;
    int num_nics = 0;
    if (int rc = tov_get_nicinfo(&nics, &num_nics); rc != 0)
        return rc;
    tov_ifaddrs *interfaces = nullptr;
    int num_interfaces = 0;
    int rc = tov_getifaddrs(&interfaces, 1, &num_interfaces);

    for (int i = 0; i < num_nics && rc == 0; i++) {
        const tov_nic_info &nic = nics[i];
        ordered_json on_board = ordered_json::array();
        for (const tov_ifaddrs *ifa = interfaces; ifa; ifa = ifa->tov_ifa_next)
            if (ifa->tov_ifa_boardnum == nic.boardnum)
                on_board.push_back(interface_info(*ifa));
        boards.push_back({{"board", nic.boardnum},
                          {"type", nic.nic_type},
                          {"mac", mac_text(nic.nic_id)},
                          {"current_mac", mac_text(nic.curr_nic_id)},
                          {"endpoints", nic.nic_max_endpoints},
                          {"link", nic.nic_link_state ? "up" : "down"},
                          {"interfaces", on_board}});
    }
    tov_freeifaddrs(interfaces);
    tov_free_nicinfo(nics);
    return rc;
}

std::string word(const ordered_json &value) { return value.is_string() ? value.get<std::string>() : value.dump(); }

void print_text(const ordered_json &info)
{
    auto versions = [](const ordered_json &of) {
        return fmt::format("{} (interface {}; {})", word(of["version"]), word(of["interface"]), word(of["build"]));
    };
    put_line("library: " + versions(info["library"]));
    if (info["driver"].is_null())
        put_line("driver:  none");
    else
        put_line("driver:  " + versions(info["driver"]));
    for (const ordered_json &board : info["boards"]) {
        std::string mac = word(board["mac"]);
        if (board["current_mac"] != board["mac"])
            mac += fmt::format(" (in use: {})", word(board["current_mac"]));
        put_line(fmt::format("board {}: type {}, MAC {}, {} endpoints, link {}", word(board["board"]),
                             word(board["type"]), mac, word(board["endpoints"]), word(board["link"])));
        for (const ordered_json &ifa : board["interfaces"]) {
            std::string line = fmt::format("  {}: address {}, netmask {}", word(ifa["name"]), word(ifa["address"]),
                                           word(ifa["netmask"]));
            if (!ifa["broadcast"].is_null())
                line += ", broadcast " + word(ifa["broadcast"]);
            if (!ifa["vlan"].is_null())
                line += ", VLAN " + word(ifa["vlan"]);
            if (!ifa["multicast"].get<bool>())
                line += ", no multicast";
            put_line(line);
        }
        if (board["interfaces"].empty())
            put_line("  no host interface with an IPv4 address");
    }
}

int show(bool json)
{
    ordered_json info = {{"library", library_info()}, {"driver", nullptr}, {"boards", ordered_json::array()}};
    int rc = driver_info(info["driver"]);
    if (rc == 0)
        rc = board_info(info["boards"]);
    if (rc != 0)
        info["error"] = adapter_error_text(rc);

    if (json)
        put_line(json_text(info));
    else
        print_text(info);
    if (rc != 0 && !json)
        note(word(info["error"]) +
             (rc == ENOENT ? "; for the software adapter run 'rukrun --soft=IF -- ruk-info'" : ""));
    if (rc != 0 && rc != ENOENT && rc != ENODEV && rc != ENXIO)
        return exit_error; /* there may be one */
    return rc == 0 && !info["boards"].empty() ? exit_ok : exit_incomplete;
}

/* Live accounts of the software adapter's boards, in whatever processes they are. */
int show_ledgers(const std::string &interface, bool json)
{
    ordered_json list = ordered_json::array();
    for (const softnic::LiveLedger &ledger : softnic::find_ledgers()) {
        if (!interface.empty() && interface != ledger.page.interface)
            continue;
        list.push_back(ledger_object(ledger));
        if (json)
            continue;
        for (const std::string &line : ledger_lines(ledger))
            put_line(line);
        put_drops(adapter_drops(ledger.page));
    }
    if (json)
        put_line(json_text({{"ledgers", list}}));
    else if (list.empty())
        note(no_ledgers_text(interface));
    return list.empty() ? exit_incomplete : exit_ok;
}

/* The worst finding is the status: 0, 1 or 2. */
int show_findings(const std::string &interface, bool json)
{
    Health worst = Health::ok;
    ordered_json list = ordered_json::array();
    for (const Finding &f : examine(interface)) {
        worst = std::max(worst, f.health);
        list.push_back(
            {{"check", f.check}, {"status", health_name(f.health)}, {"found", f.found}, {"remedy", f.remedy}});
        if (!json)
            put_line(fmt::format("{:<8} {:<16} {}{}", health_name(f.health), f.check, f.found,
                                 f.remedy.empty() ? "" : "\n         -> " + f.remedy));
    }
    if (json)
        put_line(json_text({{"status", health_name(worst)}, {"checks", list}}));
    return static_cast<int>(worst);
}

} // namespace

int main(int argc, char **argv)
{
    Program line("Shows the library, the driver, the adapters and the host interfaces on them.", "ruk-info");
    bool json = false;
    bool stats = false;
    std::string interface;
    line.flag("--json", json, "One JSON object");
    bool doctor = false;
    const Option live = line.flag("--stats", stats,
                                  "Where every frame went: live accounts of the software adapter's boards in all "
                                  "processes in this network namespace that this user may look into");
    line.flag("--doctor", doctor,
              "Check everything between an application and an accelerated datagram, and say what to do about it")
        .excludes(live);
    line.option("-i,--interface", interface, "With --stats or --doctor: only this interface").type_name("IF");
    line.footer("Exit status: 0 there is an adapter; 1 there is none; 2 error.\n"
                "Of --stats: 0 there is an account; 1 there is none; 2 error.\n"
                "Of --doctor: 0 all is well; 1 there are warnings; 2 there are failures, or an error.");
    return line.run(argc, argv, [&] {
        if (!interface.empty() && !stats && !doctor)
            fail("-i goes with --stats or --doctor");
        return doctor ? show_findings(interface, json) : stats ? show_ledgers(interface, json) : show(json);
    });
}
