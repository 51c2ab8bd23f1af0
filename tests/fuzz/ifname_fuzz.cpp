/*
 * Interface names of any bytes, through all that read them: the VLAN rule, the query of an open by name, the query of
 * a hardware address, the check of subnets, and the list of interfaces, whose names then come from the host. The name
 * lies in memory of just its size, so that a read behind its end is seen however short it is.
 */
#include "bytes.h"

#include "adapter_rig.h"
#include "ruk_core.h"
#include "tov_ifaddrs.h"
#include "tov_io.h"

#include <string>

namespace {

/* A host whose one interface has the name, as far as a kernel's interface can. */
struct Host {
    adapter_rig::Wire wire;
    test_support::LibcHookGuard hooks;
    ifaddrs entry = {};
    sockaddr_in address = test_support::ipv4("10.77.0.1"), netmask = test_support::ipv4("255.255.255.0");

    Host()
    {
        entry.ifa_addr = reinterpret_cast<sockaddr *>(&address);
        entry.ifa_netmask = reinterpret_cast<sockaddr *>(&netmask);
        hooks->getifaddrs = [this](ifaddrs **list) {
            *list = &entry;
            return 0;
        };
        hooks->freeifaddrs = [](ifaddrs *) {};
    }
};

void read_as_vlan(const char *name)
{
    const uint16_t tag = tov_be16(tov_get_vlan_tag(name));
    FUZZ_REQUIRE(tag == 0 || tag >> 13 == 7); /* priority 7 */
}

void read_as_query(Host &host, const char *name)
{
    const bool fits = strlen(name) < IFNAMSIZ; /* a longer one is nobody's */
    in_addr addr = {};
    FUZZ_REQUIRE(iface_to_interface_addr(name, &addr) == (fits ? 0 : ENXIO));
    FUZZ_REQUIRE(addr.s_addr == (fits ? htonl(adapter_rig::HOST) : 0));
    uint8_t mac[6];
    FUZZ_REQUIRE(tov_get_macaddr(name, mac) == 0);
    FUZZ_REQUIRE(memcmp(mac, host.wire.host.interfaces[0].mac.data(), sizeof mac) == 0);
}

void read_as_list(Host &host, const std::string &cut)
{
    tov_ifaddrs *list = nullptr;
    int n = 0;
    FUZZ_REQUIRE(tov_getifaddrs(&list, 1, &n) == 0);
    FUZZ_REQUIRE(n == 1 && cut == list->tov_ifa_name && list->tov_ifa_ipaddr == host.address.sin_addr.s_addr);
    tov_freeifaddrs(list);
    FUZZ_REQUIRE(krel_verify_ipsubnet() == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Host host;
    const size_t length = strnlen(reinterpret_cast<const char *>(data), size);
    char *name = static_cast<char *>(malloc(length + 1));
    memcpy(name, data, length);
    name[length] = '\0';

    const std::string cut(name, std::min<size_t>(length, IFNAMSIZ - 1));
    host.wire.host.interfaces[0].name = cut;
    host.wire.host.sockets.clear();        /* its log of calls only grows */
    softnic_clear_commands(host.wire.nic); /* and so does that of commands */
    host.entry.ifa_name = name;
    read_as_vlan(name);
    read_as_query(host, name);
    read_as_list(host, cut);
    free(name);
    return 0;
}
