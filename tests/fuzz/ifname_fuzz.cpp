/* Interface names of any bytes: a VLAN tag is read out of them, or none. */
#include "bytes.h"

#include "tov_ifaddrs.h"
#include "tov_io.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string name(reinterpret_cast<const char *>(data), size);
    const uint16_t tag = tov_be16(tov_get_vlan_tag(name.c_str()));
    FUZZ_REQUIRE(tag == 0 || tag >> 13 == 7); /* priority 7 */
    return 0;
}
