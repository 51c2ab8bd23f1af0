// The account of an adapter in words.
#include "ledger_view.h"

#include "common.h"

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
    // Keyframes are counted apart only where the endpoint recognises them.
    EXPECT_EQ(tools::drop_text(drops[1]),
              "dropped_badfilter (library): 2: datagrams for another port, address or source than the membership's, or "
              "a switch's keyframes where the adapter dates datagrams; none for sources that were not joined; for "
              "keyframes open without RUK_OPEN_HW_TIMESTAMPING; else a filter mode lets in more than the ports");
    EXPECT_NE(drops[2].meaning.find("a switch's keyframes where the adapter dates"), std::string::npos);
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

namespace {

std::string interface_in_json(const char *name)
{
    softnic::LedgerPage page = {};
    strcpy(page.interface, name);
    const std::string text = softnic::ledger_json(page);
    EXPECT_TRUE(json::accept(text)) << text;
    return text.substr(0, text.find(",\"port\""));
}

} // namespace

TEST(LedgerJson, InterfaceNameWithQuotesAndBackslashes_IsEscaped)
{
    EXPECT_EQ(interface_in_json("oxel0"), R"({"interface":"oxel0")");
    EXPECT_EQ(interface_in_json(R"(a"b\c)"), R"({"interface":"a\"b\\c")");
    EXPECT_EQ(interface_in_json("a\x01\x1f\x7f"), "{\"interface\":\"a\\u0001\\u001f\x7f\"");
}

TEST(LedgerJson, InterfaceNameThatIsNotUtf8_HasReplacementsInPlaceOfTheWrongBytes)
{
    const std::string replacement = "\xef\xbf\xbd", head = "{\"interface\":\"";
    for (const char *good : {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xed\x9f\xbf", "\xf4\x8f\xbf\xbf"})
        EXPECT_EQ(interface_in_json(good), head + good + "\"");
    for (const char *one : {"\xff", "\xc3", "\x80"})
        EXPECT_EQ(interface_in_json(one), head + replacement + "\"");
    EXPECT_EQ(interface_in_json("a\xc3z"), head + "a" + replacement + "z\"");
    for (const char *two : {"\xc0\xaf", "\xe2\x82", "\xf5\x80"})
        EXPECT_EQ(interface_in_json(two), head + replacement + replacement + "\"");
    // A longer form than needed, a surrogate, beyond the last character.
    for (const char *three : {"\xe0\x80\xaf", "\xed\xa0\x80"})
        EXPECT_EQ(interface_in_json(three), head + replacement + replacement + replacement + "\"");
    for (const char *four : {"\xf0\x80\x80\xaf", "\xf4\x90\x80\x80"})
        EXPECT_EQ(interface_in_json(four), head + replacement + replacement + replacement + replacement + "\"");
}

TEST(LedgerView, NamesThatAreNotUtf8_PrintAsJsonAllTheSame)
{
    softnic::LiveLedger ledger = {7, "caf\xc3", {}};
    strcpy(ledger.page.interface, "\"\xff\\");
    const json printed = json::parse(tools::json_text(tools::ledger_object(ledger)));
    EXPECT_EQ(printed.at("program"), "caf\xef\xbf\xbd");
    EXPECT_EQ(printed.at("interface"), "\"\xef\xbf\xbd\\");
}

TEST(LedgerView, NamesWithBytesForATerminal_AreEscapedInTheText)
{
    softnic::LiveLedger ledger = {7, "~ \x1b[31m\x7f\x1f\xc3", {}};
    strcpy(ledger.page.interface, "a\"b\\c\x9b");
    const std::string board = R"(~ \x1b[31m\x7f\x1f\xc3 (process 7), board 0 on a"b\\c\x9b)";
    EXPECT_EQ(tools::board_text(ledger), board);
    EXPECT_EQ(tools::ledger_lines(ledger).at(0), board + ":");
}
