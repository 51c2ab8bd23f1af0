/* A route file of any bytes. */
#include "bytes.h"

#include "libc_seam.h"
#include "ruk_core.h"

#include <net/route.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static auto *ep = static_cast<ruk__ep *>(calloc(1, sizeof(ruk__ep)));
    static char name[] = "eth0", other[] = "eth1";
    static tov_ifaddrs interfaces[2];
    static const uint8_t *text;
    static size_t text_size;
    static test_support::LibcHookGuard hooks;
    static const bool ready = [] {
        interfaces[0].tov_ifa_name = name;
        interfaces[0].tov_ifa_next = &interfaces[1];
        interfaces[1].tov_ifa_name = other;
        interfaces[1].tov_ifa_boardnum = 1;
        ep->rep_mif = ep->rep_mif_addrs = interfaces;
        hooks->fopen = [](const char *, const char *mode) -> FILE * {
            return text_size != 0 ? fmemopen(const_cast<uint8_t *>(text), text_size, mode) : nullptr;
        };
        return true;
    }();
    (void)ready;
    text = data;
    text_size = size;
    FUZZ_REQUIRE(ruk__arp_init(ep) == 0);
    FUZZ_REQUIRE(ep->rep_num_valid_rts <= ep->rep_max_routes);
    for (uint32_t i = 0; i < ep->rep_num_valid_rts; i++)
        FUZZ_REQUIRE((ep->rep_routes[i].flags & RTF_UP) != 0);
    return 0;
}
