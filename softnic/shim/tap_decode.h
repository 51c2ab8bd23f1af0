// Understands the store instruction that a write-protected page refused.
#pragma once

#include <ucontext.h>

#include <cstdint>

namespace softnic {

struct TapStore {
    unsigned size;   // bytes stored: 1, 2, 4 or 8
    unsigned length; // bytes of the instruction
    uint64_t value;  // little-endian, as it is to lie in memory
};

// Decodes the mov to memory at code, taking registers from context; its address is the caller's to know.
// False for every other instruction. Reads no byte beyond those of the instruction it recognises.
bool tap_decode_store(const uint8_t *code, const ucontext_t *context, TapStore *out);

// Where context goes on, and its flags: the field is wider on 64-bit builds.
inline greg_t &tap_instruction_pointer(ucontext_t *context)
{
#if defined(__x86_64__)
    return context->uc_mcontext.gregs[REG_RIP];
#else
    return context->uc_mcontext.gregs[REG_EIP];
#endif
}

} // namespace softnic
