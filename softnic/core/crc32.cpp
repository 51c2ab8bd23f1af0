#include "crc32.h"

#include <array>
#include <cstring>

namespace softnic {
namespace {

constexpr uint32_t kPolynomial = 0xEDB88320u; // bit-reversed 0x04C11DB7

using Tables = std::array<std::array<uint32_t, 256>, 8>;

// tables[k][b]: the remainder of byte b followed by k zero bytes, so that eight bytes are folded at once.
constexpr Tables make_tables()
{
    Tables t{};
    for (uint32_t b = 0; b < 256; b++) {
        uint32_t r = b;
        for (int bit = 0; bit < 8; bit++)
            r = (r >> 1) ^ ((r & 1) ? kPolynomial : 0);
        t[0][b] = r;
    }
    for (size_t k = 1; k < t.size(); k++)
        for (size_t b = 0; b < 256; b++)
            t[k][b] = (t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF];
    return t;
}

constexpr Tables kTables = make_tables();

} // namespace

uint32_t crc32(const uint8_t *data, size_t len)
{
    uint32_t r = ~0u;
    while (len >= 8) {
        uint32_t low, high;
        memcpy(&low, data, 4);
        memcpy(&high, data + 4, 4);
        low ^= r;
        r = kTables[7][low & 0xFF] ^ kTables[6][(low >> 8) & 0xFF] ^ kTables[5][(low >> 16) & 0xFF] ^
            kTables[4][low >> 24] ^ kTables[3][high & 0xFF] ^ kTables[2][(high >> 8) & 0xFF] ^
            kTables[1][(high >> 16) & 0xFF] ^ kTables[0][high >> 24];
        data += 8;
        len -= 8;
    }
    while (len--)
        r = (r >> 8) ^ kTables[0][(r ^ *data++) & 0xFF];
    return ~r;
}

} // namespace softnic
