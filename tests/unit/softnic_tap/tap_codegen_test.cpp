// Requests stored by code of every compiler and level arrive in every mode.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tap_test_support.h"

#define POSTER(name) extern const PosterSet name;
#include "tap_poster_list.inc"
#undef POSTER

namespace {

using namespace softnic;
using namespace softnic::test;

const PosterSet *const posters[] = {
#define POSTER(name) &name,
#include "tap_poster_list.inc"
#undef POSTER
};

class TapCodegen : public testing::TestWithParam<const PosterSet *> {
protected:
    static TrafficResult expect_complete(TapMode mode, PosterFunction poster, const char *which)
    {
        TrafficPlan plan{.requests = 1000, .dma_of_ten = 5, .poster = poster};
        plan.one_dma_outstanding = mode == TapMode::fast;
        Window window;
        TrafficResult result = run_traffic(window, mode, plan);
        EXPECT_EQ(result.mode, mode);
        EXPECT_TRUE(complete(result, plan)) << which << ": " << describe(result);
        return result;
    }

    static void expect_all_complete(TapMode mode)
    {
        const PosterSet &set = *GetParam();
        expect_complete(mode, set.one_by_one, "one by one");
        expect_complete(mode, set.looped, "looped");
        expect_complete(mode, set.released, "released");
        expect_complete(mode, set.halves, "halves");
        expect_complete(mode, set.doubled, "doubled");
        expect_complete(mode, set.block, "block");
    }
};

TEST_P(TapCodegen, Fast_AllArrive) { expect_all_complete(TapMode::fast); }
TEST_P(TapCodegen, Exact_AllArrive) { expect_all_complete(TapMode::exact); }
TEST_P(TapCodegen, Fallback_AllArrive) { expect_all_complete(TapMode::fallback); }

// The library's own order of stores needs no single step, whatever compiler it was built with: each store is
// performed by the handler.
TEST_P(TapCodegen, Fallback_LibraryOrder_EachStoreIsPerformedByTheHandler)
{
    for (PosterFunction poster : {GetParam()->one_by_one, GetParam()->looped, GetParam()->released}) {
        TrafficResult result = expect_complete(TapMode::fallback, poster, "library order");
        EXPECT_EQ(result.counters.emulated, 16u * 1000u);
        EXPECT_EQ(result.counters.stepped, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Compilers, TapCodegen, testing::ValuesIn(posters),
                         [](const testing::TestParamInfo<const PosterSet *> &info) { return info.param->name; });

// Without this, a host that lacks a compiler would test less and say nothing.
TEST(TapCompilers, EachAtEachLevel_IsAmongThePosters)
{
    const std::string missing =
#include "tap_missing_compilers.inc"
        ;
    if (!missing.empty())
        GTEST_SKIP() << "posting code is not tested with" << missing << ", which this host lacks";
    std::set<std::string> names;
    for (const PosterSet *set : posters)
        names.insert(set->name);
    std::set<std::string> expected;
    for (const char *compiler : {"gxx", "clangxx"})
        for (const char *level : {"O0", "O1", "O2", "O3", "O3native"})
            expected.insert(std::string("poster_") + compiler + "_" + level);
    EXPECT_EQ(names, expected);
}

#if defined(__SSE2__)
// Instructions that store a request, or most of it, at once: the handler does not know them and steps.
void post_by_vectors(volatile uint32_t *slot, const uint32_t *words)
{
    for (int i = 0; i < 16; i += 4)
        __asm__ __volatile__("movdqu (%0), %%xmm0\n\tmovups %%xmm0, (%1)" ::"r"(words + i), "r"(slot + i)
                             : "xmm0", "memory");
}

void post_by_string_move(volatile uint32_t *slot, const uint32_t *words)
{
    unsigned long count = 16;
    __asm__ __volatile__("rep movsl" : "+S"(words), "+D"(slot), "+c"(count)::"memory");
}

void post_by_exchange(volatile uint32_t *slot, const uint32_t *words)
{
    for (int i = 0; i < 16; i++) {
        uint32_t word = words[i];
        __asm__ __volatile__("xchgl %0, %1" : "+r"(word), "+m"(slot[i])::"memory");
    }
}

TEST(TapStepping, InstructionsOtherThanMov_Fallback_AllArrive)
{
    for (PosterFunction poster : {post_by_vectors, post_by_string_move, post_by_exchange}) {
        TrafficPlan plan{.requests = 2000, .threads = 2, .dma_of_ten = 5, .poster = poster};
        plan.one_dma_outstanding = false;
        Window window;
        TrafficResult result = run_traffic(window, TapMode::fallback, plan);
        EXPECT_TRUE(complete(result, plan)) << describe(result);
        EXPECT_GT(result.counters.stepped, 0u);
        EXPECT_EQ(result.counters.emulated, 0u);
    }
}
#endif

} // namespace
