// Hosts and containers refuse watchpoints, userfaultfd or both, to the superuser and to others: nothing is lost.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tap_test_support.h"

namespace {

using namespace softnic;
using namespace softnic::test;

struct Host {
    bool watchpoints, userfault, ordinary_user;
};

std::string name_of(const Host &host)
{
    return std::string(host.watchpoints ? "Watchpoints" : "NoWatchpoints") +
           (host.userfault ? "Userfault" : "NoUserfault") + (host.ordinary_user ? "OrdinaryUser" : "ThisUser");
}

unsigned threads_of_process()
{
    unsigned count = 0;
    for ([[maybe_unused]] const auto &thread : std::filesystem::directory_iterator("/proc/self/task"))
        count++;
    return count;
}

class TapRefusal : public testing::TestWithParam<Host> {
protected:
    static int enter_host()
    {
        if (GetParam().ordinary_user && (!become_ordinary_user() || geteuid() == 0))
            return 100;
        if (!GetParam().watchpoints)
            refuse_perf_event_open();
        if (!GetParam().userfault)
            refuse_userfaultfd();
        return 0;
    }

    // Traffic of both types from two threads, with the firmware asleep at every pause.
    static int run(TapMode preferred, bool sleeps)
    {
        if (int error = enter_host())
            return error;
        TrafficPlan plan{.requests = 1500, .threads = 2, .dma_of_ten = 5, .firmware_sleeps = sleeps, .pause_every = 5};
        plan.one_dma_outstanding = preferred == TapMode::fast;
        TrafficResult result;
        {
            Window window;
            result = run_traffic(window, preferred, plan);
        }
        if (!complete(result, plan)) {
            fprintf(stderr, "%s\n", describe(result).c_str());
            return 1;
        }
        return result.mode == (GetParam().watchpoints ? preferred : TapMode::fallback) ? 0 : 2;
    }

    static void expect_complete(TapMode preferred)
    {
        for (bool sleeps : {false, true}) {
            ChildResult child = in_child([&] { return run(preferred, sleeps); });
            EXPECT_EQ(child.status, 0) << child.err;
            EXPECT_EQ(count_of(child.err, "using fallback mode"), GetParam().watchpoints ? 0u : 1u) << child.err;
        }
    }
};

TEST_P(TapRefusal, FastPreferred_Traffic_NothingLostAndSaidOnce) { expect_complete(TapMode::fast); }
TEST_P(TapRefusal, ExactPreferred_Traffic_NothingLostAndSaidOnce) { expect_complete(TapMode::exact); }

// The refusals are real, what is not refused is used, and nothing stays open.
TEST_P(TapRefusal, FastTap_UsesExactlyWhatTheHostGives)
{
    ChildResult child = in_child([] {
        if (int error = enter_host())
            return error;
        Window window;
        auto tap = window.tap(TapMode::fast);
        if (open_descriptors_of("perf_event") != (GetParam().watchpoints ? threads_of_process() : 0u))
            return 1;
        if (RequestTap::available(TapMode::exact) != (GetParam().watchpoints ? TapMode::exact : TapMode::fallback))
            return 2;
        tap.reset();
        return open_descriptors_of("perf_event") == 0 ? 0 : 3;
    });
    EXPECT_EQ(child.status, 0) << child.err;
}

INSTANTIATE_TEST_SUITE_P(Hosts, TapRefusal,
                         testing::Values(Host{true, true, false}, Host{true, false, false}, Host{false, true, false},
                                         Host{false, false, false}, Host{true, true, true}, Host{true, false, true},
                                         Host{false, true, true}, Host{false, false, true}),
                         [](const testing::TestParamInfo<Host> &info) { return name_of(info.param); });

} // namespace
