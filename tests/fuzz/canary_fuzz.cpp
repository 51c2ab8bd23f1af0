/* Reads behind its input as soon as that begins with "ruk": fuzzing that does not find this finds nothing. */
#include "bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size >= 3 && data[0] == 'r' && data[1] == 'u' && data[2] == 'k')
        return static_cast<const volatile uint8_t *>(data)[size];
    return 0;
}
