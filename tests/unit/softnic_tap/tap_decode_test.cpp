// Store instructions as the processor's manual encodes them, against what they store.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tap_decode.h"

namespace {

using namespace softnic;

struct Decode : testing::Test {
    ucontext_t context = {};
    TapStore store = {};

    Decode()
    {
        greg_t *r = context.uc_mcontext.gregs;
#if defined(__x86_64__)
        r[REG_RAX] = 0x1122334455667788;
        r[REG_RCX] = 0x2122232425262728;
        r[REG_RDX] = 0x3132333435363738;
        r[REG_RBX] = 0x4142434445464748;
        r[REG_RSI] = 0x5152535455565758;
        r[REG_R9] = 0x6162636465666768;
        r[REG_R15] = 0x7172737475767778;
#else
        r[REG_EAX] = 0x55667788;
        r[REG_ECX] = 0x25262728;
        r[REG_EDX] = 0x35363738;
        r[REG_EBX] = 0x45464748;
        r[REG_ESI] = 0x55565758;
#endif
    }

    // Decodes exactly these bytes; behind them lies what no instruction should take for its own.
    bool decode(std::vector<uint8_t> code)
    {
        size_t length = code.size();
        code.insert(code.end(), 16, 0xcc);
        bool known = tap_decode_store(code.data(), &context, &store);
        if (known) {
            EXPECT_EQ(store.length, length);
        }
        return known;
    }

    void expect(std::vector<uint8_t> code, unsigned size, uint64_t value)
    {
        SCOPED_TRACE(testing::PrintToString(code));
        ASSERT_TRUE(decode(code));
        EXPECT_EQ(store.size, size);
        EXPECT_EQ(store.value, value);
    }
};

TEST_F(Decode, MovRegister_EachAddressingForm_SizeValueAndLength)
{
    expect({0x89, 0x08}, 4, 0x25262728);                   // mov [eax], ecx
    expect({0x89, 0x48, 0x3c}, 4, 0x25262728);             // mov [eax+3c], ecx
    expect({0x89, 0x88, 0x3c, 0x0d, 0, 0}, 4, 0x25262728); // mov [eax+d3c], ecx
    expect({0x89, 0x14, 0x24}, 4, 0x35363738);             // mov [esp], edx
    expect({0x89, 0x54, 0x24, 0x10}, 4, 0x35363738);       // mov [esp+10], edx
    expect({0x89, 0x14, 0x88}, 4, 0x35363738);             // mov [eax+4*ecx], edx
    expect({0x89, 0x54, 0x88, 0x3c}, 4, 0x35363738);       // mov [eax+4*ecx+3c], edx
    expect({0x89, 0x94, 0x88, 0, 1, 0, 0}, 4, 0x35363738); // mov [eax+4*ecx+100], edx
    expect({0x89, 0x14, 0x8d, 0, 1, 0, 0}, 4, 0x35363738); // mov [4*ecx+100], edx
    expect({0x89, 0x15, 0, 1, 0, 0}, 4, 0x35363738);       // mov [100 or ip+100], edx
    expect({0x89, 0x5d, 0x00}, 4, 0x45464748);             // mov [ebp], ebx
    expect({0x65, 0x89, 0x08}, 4, 0x25262728);             // through a segment
}

TEST_F(Decode, MovRegister_EachWidth)
{
    expect({0x88, 0x08}, 1, 0x28);                     // mov [eax], cl
    expect({0x88, 0x30}, 1, 0x37);                     // mov [eax], dh
    expect({0x66, 0x89, 0x08}, 2, 0x2728);             // mov [eax], cx
    expect({0x0f, 0xc3, 0x08}, 4, 0x25262728);         // movnti [eax], ecx
    expect({0x0f, 0x38, 0xf1, 0x08}, 4, 0x28272625);   // movbe [eax], ecx
    expect({0x66, 0x0f, 0x38, 0xf1, 0x08}, 2, 0x2827); // movbe [eax], cx
}

TEST_F(Decode, MovImmediate_EachWidth)
{
    expect({0xc6, 0x00, 0x0d}, 1, 0x0d);
    expect({0xc6, 0x40, 0x3f, 0xff}, 1, 0xff);
    expect({0x66, 0xc7, 0x00, 0x34, 0x92}, 2, 0x9234);
    expect({0xc7, 0x00, 0x78, 0x56, 0x34, 0x92}, 4, 0x92345678);
    expect({0xc7, 0x80, 0x3c, 0x0d, 0, 0, 1, 2, 3, 0x0d}, 4, 0x0d030201);
    expect({0xc7, 0x44, 0x88, 0x3c, 1, 2, 3, 0x0d}, 4, 0x0d030201);
}

#if defined(__x86_64__)
TEST_F(Decode, LongMode_ExtendedRegistersAndWidths)
{
    expect({0x44, 0x89, 0x08}, 4, 0x65666768);             // mov [rax], r9d
    expect({0x4c, 0x89, 0x08}, 8, 0x6162636465666768);     // mov [rax], r9
    expect({0x45, 0x89, 0x3e}, 4, 0x75767778);             // mov [r14], r15d
    expect({0x45, 0x89, 0x7c, 0x24, 0x08}, 4, 0x75767778); // mov [r12+8], r15d
    expect({0x48, 0x89, 0x08}, 8, 0x2122232425262728);     // mov [rax], rcx
    expect({0x44, 0x88, 0x08}, 1, 0x68);                   // mov [rax], r9b
    expect({0x40, 0x88, 0x30}, 1, 0x58);                   // mov [rax], sil: no high half with this prefix
    expect({0x66, 0x44, 0x89, 0x08}, 2, 0x6768);           // mov [rax], r9w
    expect({0x48, 0xc7, 0x00, 0xfe, 0xff, 0xff, 0xff}, 8, 0xfffffffffffffffe);
    expect({0x67, 0x89, 0x08}, 4, 0x25262728);             // mov [eax], ecx
    expect({0xa3, 1, 2, 3, 4, 5, 6, 7, 8}, 4, 0x55667788); // mov [0807060504030201], eax
    expect({0x48, 0xa3, 1, 2, 3, 4, 5, 6, 7, 8}, 8, 0x1122334455667788);
    expect({0xa2, 1, 2, 3, 4, 5, 6, 7, 8}, 1, 0x88);
    expect({0x4c, 0x0f, 0xc3, 0x08}, 8, 0x6162636465666768);       // movnti [rax], r9
    expect({0x48, 0x0f, 0x38, 0xf1, 0x08}, 8, 0x2827262524232221); // movbe [rax], rcx
}
#else
TEST_F(Decode, ProtectedMode_ShortAddressesAndOffsets)
{
    expect({0x67, 0x89, 0x0f}, 4, 0x25262728);       // mov [bx], ecx
    expect({0x67, 0x89, 0x0e, 1, 2}, 4, 0x25262728); // mov [0201], ecx
    expect({0x67, 0x89, 0x4f, 1}, 4, 0x25262728);    // mov [bx+1], ecx
    expect({0x67, 0x89, 0x8f, 1, 2}, 4, 0x25262728); // mov [bx+0201], ecx
    expect({0xa3, 1, 2, 3, 4}, 4, 0x55667788);       // mov [04030201], eax
    expect({0xa2, 1, 2, 3, 4}, 1, 0x88);
    EXPECT_FALSE(decode({0x41})) << "inc ecx here, no prefix";
}
#endif

// Whatever else stores runs by itself on the open page instead.
TEST_F(Decode, EverythingElse_IsLeftToTheProcessor)
{
    EXPECT_FALSE(decode({0x89, 0xc8})) << "mov eax, ecx";
    EXPECT_FALSE(decode({0x8b, 0x08})) << "mov ecx, [eax]";
    EXPECT_FALSE(decode({0x01, 0x08})) << "add [eax], ecx";
    EXPECT_FALSE(decode({0x87, 0x08})) << "xchg [eax], ecx";
    EXPECT_FALSE(decode({0xf0, 0x0f, 0xc1, 0x08})) << "lock xadd [eax], ecx";
    EXPECT_FALSE(decode({0xf3, 0xab})) << "rep stos";
    EXPECT_FALSE(decode({0xa5})) << "movs";
    EXPECT_FALSE(decode({0xc6, 0xf8, 0x00})) << "xabort";
    EXPECT_FALSE(decode({0xc7, 0x08, 0, 0, 0, 0})) << "not mov";
    EXPECT_FALSE(decode({0x0f, 0x11, 0x00})) << "movups [eax], xmm0";
    EXPECT_FALSE(decode({0xc5, 0xfe, 0x7f, 0x00})) << "vmovdqu [eax], ymm0";
    EXPECT_FALSE(decode({0x0f, 0x38, 0xf0, 0x08})) << "movbe ecx, [eax]";
}

} // namespace
