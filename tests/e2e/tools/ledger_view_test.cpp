// The account of an adapter in words.
#include "ledger_view.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

using nlohmann::json;

TEST(LedgerView, FramesThatARawEndpointDidNotFetch_ReasonAndRemedy)
{
    softnic::LedgerPage page = {};
    EXPECT_TRUE(tools::adapter_drops(page).empty());
    page.raw_dropped = 44;
    const std::vector<tools::Drop> drops = tools::adapter_drops(page);
    ASSERT_EQ(drops.size(), 1u);
    EXPECT_EQ(tools::drop_text(drops[0]),
              "raw_dropped (board): 44: frames for a raw endpoint that had 256 waiting already; take "
              "the frames more often, from a thread of its own");
}

namespace {

// What the account tells besides losses.
const std::set<std::string> kNoLoss = {"received", "sent",    "arrived",    "matched",    "claimed",
                                       "enabled",  "events",  "ring_bytes", "unconsumed", "high_water",
                                       "steered",  "pending", "delivered",  "requests",   "frames_sent"};

} // namespace

TEST(LedgerView, EveryCounterOfAnAccount_IsExplainedOrNoLoss)
{
    // A number of its own in every place, so that also a counter that is added later has one.
    softnic::LedgerPage page = {};
    uint64_t number = 1000;
    const auto number_all = [&number](void *from, void *to) {
        for (auto *at = static_cast<uint8_t *>(from); at != to; at += sizeof number, number++)
            memcpy(at, &number, sizeof number);
    };
    number_all(&page.received, &page.endpoint);
    number_all(&page.endpoint[0], &page.endpoint[1]);
    page.endpoints = 1;

    std::map<std::string, std::pair<std::string, uint64_t>> told;
    for (const tools::Drop &drop : tools::adapter_drops(page)) {
        EXPECT_TRUE(told.emplace(drop.reason, std::pair(drop.where, drop.count)).second) << drop.reason;
        EXPECT_FALSE(drop.meaning.empty()) << drop.reason;
        EXPECT_FALSE(drop.remedy.empty()) << drop.reason;
        EXPECT_EQ(tools::drop_text(drop), drop.reason + " (" + drop.where + "): " + std::to_string(drop.count) + ": " +
                                              drop.meaning + "; " + drop.remedy);
    }
    const json account = json::parse(softnic::ledger_json(page));
    size_t losses = 0;
    const auto expect_explained = [&](const json &object, const std::string &where) {
        for (const auto &[name, value] : object.items()) {
            if (!value.is_number() || kNoLoss.contains(name))
                continue;
            losses++;
            ASSERT_TRUE(told.contains(name)) << name;
            EXPECT_EQ(told[name], std::pair(where, value.get<uint64_t>())) << name;
        }
    };
    expect_explained(account.at("port"), "interface");
    expect_explained(account, "board");
    expect_explained(account.at("endpoints").at(0), "endpoint 0");
    EXPECT_EQ(losses, told.size());
    EXPECT_EQ(losses, 16u);
}

TEST(LedgerView, EveryDropCounterOfTheLibrary_IsExplained)
{
    const std::vector<std::pair<std::string, uint64_t>> counters = {
        {"dropped_badproto", 1},      {"dropped_badfilter", 2}, {"dropped_nosock", 3},
        {"dropped_runts", 4},         {"dropped_badlength", 5}, {"dropped_csum", 6},
        {"dropped_oo_bouncebufs", 7}, {"dropped_oo_events", 8}, {"dropped_broadcast_filtered", 9},
        {"used_borrowbufs", 10},      {"used_bouncebufs", 11}};
    const std::vector<tools::Drop> drops = tools::library_drops(counters);
    ASSERT_EQ(drops.size(), 9u);
    for (size_t i = 0; i < drops.size(); i++) {
        EXPECT_EQ(drops[i].reason, counters[i].first);
        EXPECT_EQ(drops[i].count, i + 1);
        EXPECT_EQ(drops[i].where, "library");
        EXPECT_FALSE(drops[i].meaning.empty()) << drops[i].reason;
        EXPECT_FALSE(drops[i].remedy.empty()) << drops[i].reason;
    }
    // Those that this adapter never makes are no less told.
    EXPECT_EQ(tools::drop_text(drops[5]), "dropped_csum (library): 6: a counter of adapters that check and buffer "
                                          "differently, which is 0 with this one; report it");
    EXPECT_TRUE(tools::library_drops({{"dropped_runts", 0}, {"used_borrowbufs", 3}, {"keyframes", 4}}).empty());
    const std::vector<tools::Drop> keyframes = tools::library_drops({{"keyframes_malformed", 5}});
    ASSERT_EQ(keyframes.size(), 1u);
    EXPECT_EQ(tools::drop_text(keyframes[0]), "keyframes_malformed (library): 5: frames of the switch's keyframe "
                                              "protocol, of a length that keyframes do not have; set "
                                              "OXEL_ARISTA_ENABLE_SKEW as the switch has it");
}
