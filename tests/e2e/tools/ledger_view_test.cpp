// The account of an adapter in words.
#include "ledger_view.h"

#include <gtest/gtest.h>

TEST(LedgerView, FramesThatARawEndpointDidNotFetch_ReasonAndRemedy)
{
    softnic::LedgerPage page = {};
    EXPECT_TRUE(tools::adapter_drops(page).empty());
    page.raw_dropped = 44;
    const std::vector<tools::Drop> drops = tools::adapter_drops(page);
    ASSERT_EQ(drops.size(), 1u);
    EXPECT_EQ(tools::drop_text(drops[0]),
              "raw_dropped (board): 44: frames for a raw endpoint that had 256 waiting already; call "
              "oxel_raw_next_event() more often, from a thread of its own");
}
