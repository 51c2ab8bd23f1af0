#include "tap_decode.h"

#include <cstring>

namespace softnic {
namespace {

#if defined(__x86_64__)
constexpr bool long_mode = true;
constexpr int general_registers[] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                                     REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
#else
constexpr bool long_mode = false;
constexpr int general_registers[] = {REG_EAX, REG_ECX, REG_EDX, REG_EBX, REG_ESP, REG_EBP, REG_ESI, REG_EDI};
#endif

struct Prefixes {
    bool operand_size = false; // 66
    bool address_size = false; // 67
    uint8_t rex = 0;           // 40 to 4f, long mode

    bool wide() const { return rex & 8; }
    unsigned reg_extension() const { return rex & 4 ? 8 : 0; }
};

// Prefixes that leave a mov what it is; false for those that do not (lock, repeat).
bool read_prefixes(const uint8_t *&at, Prefixes *out)
{
    for (unsigned i = 0; i < 14; i++) {
        switch (*at) {
        case 0x66:
            out->operand_size = true;
            break;
        case 0x67:
            out->address_size = true;
            break;
        case 0x26:
        case 0x2e:
        case 0x36:
        case 0x3e:
        case 0x64:
        case 0x65:
            break; // segments: the address is known
        case 0xf0:
        case 0xf2:
        case 0xf3:
            return false;
        default:
            if (long_mode && (*at & 0xf0) == 0x40)
                out->rex = *at++;
            return true;
        }
        at++;
    }
    return false;
}

// Skips the bytes that name a memory operand, the mode byte included; false when it names a register.
bool skip_memory_operand(const uint8_t *&at, const Prefixes &prefixes)
{
    uint8_t mode_byte = *at++;
    unsigned mod = mode_byte >> 6, rm = mode_byte & 7;
    if (mod == 3)
        return false;
    if (!long_mode && prefixes.address_size) { // 16-bit addressing
        at += mod == 2 || (mod == 0 && rm == 6) ? 2 : mod == 1 ? 1 : 0;
        return true;
    }
    bool wide_displacement = mod == 2 || (mod == 0 && rm == 5);
    if (rm == 4) {
        uint8_t scaled = *at++;
        wide_displacement |= mod == 0 && (scaled & 7) == 5;
    }
    at += wide_displacement ? 4 : mod == 1 ? 1 : 0;
    return true;
}

uint64_t register_value(const ucontext_t *context, unsigned number)
{
    return static_cast<unsigned long>(context->uc_mcontext.gregs[general_registers[number]]);
}

uint64_t byte_register_value(const ucontext_t *context, unsigned number, const Prefixes &prefixes)
{
    bool high_half = number >= 4 && number < 8 && !prefixes.rex; // ah ch dh bh
    return high_half ? register_value(context, number - 4) >> 8 & 0xff : register_value(context, number) & 0xff;
}

uint64_t swap_bytes(uint64_t value, unsigned size) { return __builtin_bswap64(value) >> (64 - 8 * size); }

} // namespace

bool tap_decode_store(const uint8_t *code, const ucontext_t *context, TapStore *out)
{
    const uint8_t *at = code;
    Prefixes prefixes;
    if (!read_prefixes(at, &prefixes))
        return false;
    unsigned operand = prefixes.wide() ? 8 : prefixes.operand_size ? 2 : 4;
    unsigned reg = 0;
    uint8_t opcode = *at++;
    switch (opcode) {
    case 0x88: // mov memory, register
    case 0x89:
        reg = (*at >> 3 & 7) + prefixes.reg_extension();
        if (!skip_memory_operand(at, prefixes))
            return false;
        out->size = opcode == 0x88 ? 1 : operand;
        out->value = opcode == 0x88 ? byte_register_value(context, reg, prefixes) : register_value(context, reg);
        break;
    case 0xa2: // mov offset, accumulator
    case 0xa3:
        at += long_mode ? (prefixes.address_size ? 4 : 8) : (prefixes.address_size ? 2 : 4);
        out->size = opcode == 0xa2 ? 1 : operand;
        out->value = register_value(context, 0);
        break;
    case 0xc6: // mov memory, immediate
        if ((*at >> 3 & 7) != 0 || !skip_memory_operand(at, prefixes))
            return false;
        out->size = 1;
        out->value = *at++;
        break;
    case 0xc7: {
        if ((*at >> 3 & 7) != 0 || !skip_memory_operand(at, prefixes))
            return false;
        out->size = operand;
        unsigned immediate = operand == 2 ? 2 : 4;
        int32_t extended = 0;
        std::memcpy(&extended, at, immediate);
        out->value = uint64_t(int64_t(extended));
        at += immediate;
        break;
    }
    case 0x0f: {
        bool swapped = false;
        if (*at == 0x38) {
            at++;
            swapped = true;
        }
        // movnti and movbe, to memory
        if (*at++ != (swapped ? 0xf1 : 0xc3) || (!swapped && prefixes.operand_size))
            return false;
        reg = (*at >> 3 & 7) + prefixes.reg_extension();
        if (!skip_memory_operand(at, prefixes))
            return false;
        out->size = operand;
        out->value = register_value(context, reg);
        if (swapped)
            out->value = swap_bytes(out->value, operand);
        break;
    }
    default:
        return false;
    }
    if (out->size < 8)
        out->value &= (uint64_t(1) << 8 * out->size) - 1;
    out->length = unsigned(at - code);
    return true;
}

} // namespace softnic
