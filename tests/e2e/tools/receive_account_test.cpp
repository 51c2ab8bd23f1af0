// What a receiver leaves in its ring is counted, and the account of the ring adds up: on the stepped adapter.
#include "../../unit/libruk/adapter_rig.h"
#include "common.h"
#include "receive_account.h"

#include <random>

using namespace adapter_rig;
using tools::ReceiveAccount;

namespace {

// The account that the adapter gives of itself, as a process's ledger has it.
std::vector<softnic::LiveLedger> ledger_of(const Wire &wire)
{
    const softnic_endpoint_counters_t counters = wire.counters();
    softnic::LiveLedger ledger = {getpid(), "test", {}};
    ledger.page.endpoints = 1;
    ledger.page.endpoint[0].events = counters.events;
    ledger.page.endpoint[0].delivered = counters.delivered;
    return {ledger};
}

class AccountOfRing : public testing::Test {
protected:
    ReceiveAccount account(const std::vector<softnic::LiveLedger> &ledgers)
    {
        return tools::receive_account(ep.dev, received, 0, tools::endpoint_counters(ep.dev), ledgers);
    }
    void burst(unsigned frames, size_t payload = 20)
    {
        for (unsigned i = 0; i < frames; i++)
            wire.inject(frame_for(port, Bytes(payload, 'x')));
        softnic_run(wire.nic);
    }
    void take(unsigned frames)
    {
        for (unsigned i = 0; i < frames; i++)
            ASSERT_EQ(recv(ep).rc, 0);
        received += frames;
    }

    Wire wire{[](softnic_board_config_t &config) { config.recvq_size = 16384; }};
    Endpoint ep;
    uint16_t port = ep.port_of(ep.bind());
    uint64_t received = 0;
};

} // namespace

TEST_F(AccountOfRing, NothingCame_EveryPartIsZero)
{
    const ReceiveAccount a = account(ledger_of(wire));
    EXPECT_EQ(a.in_ring, 0u);
    EXPECT_EQ(a.sum(), 0u);
    std::vector<std::string> names;
    for (const auto &[name, frames] : a.parts)
        names.push_back(name);
    const std::vector<std::string> expected = {"received",
                                               "malformed",
                                               "keyframes",
                                               "keyframes_malformed",
                                               "dropped_badproto",
                                               "dropped_badfilter",
                                               "dropped_nosock",
                                               "dropped_runts",
                                               "dropped_badlength",
                                               "dropped_csum",
                                               "dropped_oo_bouncebufs",
                                               "dropped_oo_events",
                                               "dropped_broadcast_filtered",
                                               "waiting"};
    EXPECT_EQ(names, expected);
}

TEST_F(AccountOfRing, AmidAnEvent_OnlyItsOtherPacketsWait)
{
    burst(5); // one event
    ASSERT_EQ(wire.counters().events, 1u);
    for (unsigned taken = 0; taken <= 5; taken++) {
        const ReceiveAccount a = account(ledger_of(wire));
        EXPECT_EQ(a.in_ring, 5u);
        EXPECT_EQ(a.part("received"), taken);
        EXPECT_EQ(a.part("waiting"), 5 - taken);
        EXPECT_EQ(a.sum(), 5u);
        if (taken < 5)
            take(1);
    }
}

TEST_F(AccountOfRing, FramesThatCameAfterTheAdaptersAccount_AreLeftOut)
{
    burst(7);
    take(1);
    const std::vector<softnic::LiveLedger> then = ledger_of(wire);
    burst(9);
    EXPECT_EQ(account(then).in_ring, 7u);
    EXPECT_EQ(account(then).part("waiting"), 6u);
    EXPECT_EQ(account(then).sum(), 7u);
    EXPECT_EQ(account(ledger_of(wire)).part("waiting"), 15u);
}

TEST_F(AccountOfRing, AccountOlderThanWhatWasConsumed_IsNoUse)
{
    burst(5);
    const std::vector<softnic::LiveLedger> then = ledger_of(wire);
    burst(5);
    take(10);
    const ReceiveAccount a = account(then);
    EXPECT_FALSE(a.in_ring);
    EXPECT_EQ(a.sum(), 10u);
}

TEST_F(AccountOfRing, RoundAndRoundAFullRing_AlwaysAddsUp)
{
    std::mt19937 random(7);
    uint64_t most = 0;
    for (int round = 0; round < 300; round++) {
        burst(random() % 40, random() % 1000);
        const softnic_endpoint_counters_t counters = wire.counters();
        const ReceiveAccount a = account(ledger_of(wire));
        ASSERT_EQ(a.in_ring, counters.delivered);
        ASSERT_EQ(a.part("waiting"), counters.delivered - received) << round;
        ASSERT_EQ(a.sum(), counters.delivered) << round;
        most = std::max(most, a.part("waiting"));
        for (unsigned n = random() % 40; n != 0 && recv(ep).rc == 0; n--)
            received++;
    }
    EXPECT_GT(wire.counters().ring_full, 0u);
    EXPECT_GT(most, 20u);
}

TEST_F(AccountOfRing, FramesThatTheLibraryDrops_AreInTheSum)
{
    ruk_channel_t other = ep.bind();
    const uint16_t other_port = ep.port_of(other);
    burst(3);
    wire.inject(frame_for(other_port, Bytes(10, 'y')));
    wire.inject(frame_for(other_port, Bytes(10, 'y')));
    softnic_run(wire.nic);
    ASSERT_EQ(ruk_unbind(other), 0);
    burst(1);
    take(4); // and the two of a channel that is gone between them
    const ReceiveAccount a = account(ledger_of(wire));
    EXPECT_EQ(a.in_ring, 6u);
    EXPECT_EQ(a.part("dropped_nosock"), 2u);
    EXPECT_EQ(a.part("waiting"), 0u);
    EXPECT_EQ(a.sum(), 6u);
}

TEST_F(AccountOfRing, AdapterWithoutAnAccount_WhatIsInTheRingIsCounted_AndTheAdaptersHalfIsUnknown)
{
    burst(12);
    take(5);
    const ReceiveAccount a = account({});
    EXPECT_FALSE(a.in_ring);
    EXPECT_EQ(a.part("received"), 5u);
    EXPECT_EQ(a.part("waiting"), 7u);
    EXPECT_EQ(a.sum(), 12u);
    EXPECT_TRUE(tools::account_object(a)["in_ring"].is_null());
    EXPECT_NE(tools::account_lines(a)[1].find("unknown"), std::string::npos);

    // That of another board is none either.
    std::vector<softnic::LiveLedger> other = ledger_of(wire);
    other[0].page.board = 1;
    EXPECT_FALSE(account(other).in_ring);
}

TEST_F(AccountOfRing, SumThatDoesNotHold_IsTold)
{
    burst(4);
    std::vector<softnic::LiveLedger> wrong = ledger_of(wire);
    EXPECT_EQ(tools::account_lines(account(wrong)).back(), "\tsum                        =            4");
    wrong[0].page.endpoint[0].delivered++;
    EXPECT_EQ(tools::account_lines(account(wrong)).back(),
              "\tthe two differ: something wrote over the ring, or an error of the software: report it");
}
