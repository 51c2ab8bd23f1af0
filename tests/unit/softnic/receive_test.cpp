// Frames through filters and modes into the rings of endpoints.
#include "rig.h"

namespace softnic_test {
namespace {

TEST(Receive, MatchedFrame_ReachesTheRingWithItsTagAndMakesTheDescriptorReadable)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(7), 0);
    EXPECT_FALSE(readable(dev.fd));
    const Bytes frame = make_frame();
    nic.inject(frame);
    EXPECT_FALSE(readable(dev.fd)); // firmware has not run
    softnic_run(nic);
    EXPECT_TRUE(readable(dev.fd));
    EXPECT_EQ(Bytes(dev.recvq + 40, dev.recvq + 40 + frame.size()), frame);
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{7});
    softnic_run(nic);
    EXPECT_FALSE(readable(dev.fd)); // drained
    EXPECT_EQ(nic.counters().delivered, 1u);
    EXPECT_EQ(nic.board_counters().matched, 1u);
}

TEST(Receive, WaitingFrames_AreCoalescedFiveAnEvent)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(7), 0);
    for (int i = 0; i < 12; i++)
        nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(nic.counters().events, 3u);
    EXPECT_EQ(dev.recvq[30], 5);
    EXPECT_EQ(dev.take_tags().size(), 12u);
}

TEST(Receive, MaxPacketsOne_EachFrameIsAnEvent)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(7), 0);
    softnic_set_max_packets(nic, 0, 1);
    for (int i = 0; i < 3; i++)
        nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(nic.counters().events, 3u);
}

TEST(Receive, SingleSteps_TakeFramesOneByOneAndPublishLast)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(7), 0);
    nic.inject(make_frame());
    nic.inject(make_frame());
    EXPECT_EQ(softnic_step(nic, 0), 1);
    EXPECT_EQ(softnic_step(nic, 0), 1);
    EXPECT_EQ(dev.recvq[30], 0);
    EXPECT_EQ(softnic_step(nic, 0), 1);
    EXPECT_EQ(dev.recvq[30], 2);
    EXPECT_EQ(softnic_step(nic, 0), 0);
}

TEST(Receive, NoFilterMatches_FrameIsCountedAsUnmatched)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(7), 0);
    FrameSpec other;
    other.dst_port = 5001;
    nic.inject(make_frame(other));
    other = {};
    other.dst_ip++;
    nic.inject(make_frame(other));
    other = {};
    other.proto = 6;
    nic.inject(make_frame(other));
    softnic_run(nic);
    EXPECT_TRUE(dev.take_tags().empty());
    EXPECT_EQ(nic.board_counters().unmatched, 3u);
    EXPECT_EQ(nic.board_counters().arrived, 3u);
}

TEST(Receive, FilterOfAVlan_MatchesByIdentifierAlone)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(1, 0x0A4D0001, 5000, 0xE007), 0);
    FrameSpec f;
    f.vlan_tci = 0x0007;
    nic.inject(make_frame(f));
    f.vlan_tci = 0x2007; // another priority
    nic.inject(make_frame(f));
    f.vlan_tci = 0x0008;
    nic.inject(make_frame(f));
    f.vlan_tci = -1;
    nic.inject(make_frame(f));
    f.vlan_tci = 0xE000; // a priority tag
    nic.inject(make_frame(f));
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), (std::vector<uint16_t>{1, 1}));
}

TEST(Receive, UntaggedFilter_DoesNotMatchTaggedFrames)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(1), 0);
    FrameSpec f;
    for (int tci : {0x0007, 0xE000, 0x0000}) {
        f.vlan_tci = tci;
        nic.inject(make_frame(f));
    }
    softnic_run(nic);
    EXPECT_TRUE(dev.take_tags().empty());
}

TEST(Receive, FilterOfProtocol253_LooksAtNoPort)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(0, 0x01010100, 4711, 0, false, OXEL_FILTER_IP253), 0);
    FrameSpec f;
    f.dst_ip = 0x01010100;
    f.proto = 253;
    f.dst_port = 1;
    nic.inject(make_frame(f));
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{0});
    EXPECT_EQ(dev.filter(0, 0x01010100, 99, 0, true, OXEL_FILTER_IP253), 0);
}

struct Header {
    const char *name;
    std::function<void(FrameSpec &)> change;
    bool matches;
};

class ReceiveHeader : public testing::TestWithParam<Header> {};

// What the host's own ingress filter would take for this destination, and what not.
TEST_P(ReceiveHeader, Frame_IsSteeredExactlyWhenTheHeaderHoldsUp)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(4), 0);
    FrameSpec f;
    GetParam().change(f);
    nic.inject(make_frame(f));
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags().size(), GetParam().matches ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ReceiveHeader,
    testing::Values(Header{"plain", [](FrameSpec &) {}, true},
                    Header{"options", [](FrameSpec &f) { f.ihl = 15; }, true},
                    Header{"ihl4", [](FrameSpec &f) { f.ihl = 4; }, false},
                    Header{"version6", [](FrameSpec &f) { f.version = 6; }, false},
                    Header{"ipv6type", [](FrameSpec &f) { f.ethertype = 0x86DD; }, false},
                    Header{"arp", [](FrameSpec &f) { f.ethertype = 0x0806; }, false},
                    Header{"serviceTag", [](FrameSpec &f) { f.ethertype = 0x88A8; }, false},
                    Header{"firstFragment", [](FrameSpec &f) { f.fragment = 0x2000; }, true},
                    Header{"dontFragment", [](FrameSpec &f) { f.fragment = 0x4000; }, true},
                    Header{"laterFragment", [](FrameSpec &f) { f.fragment = 0x2001; }, false},
                    Header{"lastFragment", [](FrameSpec &f) { f.fragment = 0x00B9; }, false},
                    Header{"totalLengthTooLong", [](FrameSpec &f) { f.total_length = 47; }, false},
                    Header{"totalLengthOfThePadding", [](FrameSpec &f) { f.total_length = 46; }, true},
                    Header{"totalLengthBelowHeader", [](FrameSpec &f) { f.total_length = 19; }, false},
                    Header{"totalLengthOfTheHeader", [](FrameSpec &f) { f.total_length = 20; }, true},
                    Header{"headerBeyondTheFrame",
                           [](FrameSpec &f) {
                               f.ihl = 15;
                               f.payload = 0;
                               f.total_length = 200;
                           },
                           false}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(Receive, FramesTooShortForTheirHeaders_AreNeverMatchedNorReadBeyond)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(4), 0);
    const Bytes whole = make_frame();
    for (size_t n = 0; n < 38; n++) // up to and with the destination port 38 bytes are needed
        nic.inject(Bytes(whole.begin(), whole.begin() + static_cast<long>(n)));
    softnic_run(nic);
    EXPECT_TRUE(dev.take_tags().empty());
    EXPECT_EQ(nic.board_counters().arrived, 38u);
    EXPECT_EQ(nic.board_counters().malformed, 14u); // shorter than an Ethernet header
    EXPECT_EQ(nic.board_counters().unmatched, 24u);
}

TEST(Receive, FrameLongerThanALengthFieldCanSay_IsMalformed)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.mode(2), 0);
    nic.inject(Bytes(65532, 0));
    softnic_run(nic);
    EXPECT_EQ(nic.board_counters().malformed, 1u);
    nic.inject(Bytes(65531, 0)); // with its check sequence 65535, but no event holds it
    softnic_run(nic);
    EXPECT_EQ(nic.counters().oversize, 1u);
    nic.inject(Bytes(65424, 0)); // 32 + 65440 bytes make 65472, the largest event
    softnic_run(nic);
    EXPECT_EQ(nic.counters().delivered, 1u);
}

TEST(Receive, SeveralFiltersOfADestination_NewestTagWinsOneCopyAnEndpoint)
{
    Nic nic;
    Device a, b;
    ASSERT_EQ(a.set_up(0), 0);
    ASSERT_EQ(b.set_up(1), 0);
    ASSERT_EQ(a.filter(1), 0);
    ASSERT_EQ(a.filter(2), 0);
    ASSERT_EQ(b.filter(9), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(a.take_tags(), std::vector<uint16_t>{2});
    EXPECT_EQ(b.take_tags(), std::vector<uint16_t>{9});
    EXPECT_EQ(nic.board_counters().matched, 1u);

    ASSERT_EQ(a.unfilter(2), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(a.take_tags(), std::vector<uint16_t>{1});

    ASSERT_EQ(a.filter(2), 0);
    ASSERT_EQ(a.filter(1), 0); // installed again: now the newest
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(a.take_tags(), std::vector<uint16_t>{1});
}

TEST(Receive, OneTag_SteersSeveralDestinations)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    ASSERT_EQ(dev.filter(5, 0xE0000105, 6000), 0);
    nic.inject(make_frame());
    FrameSpec group;
    group.dst_ip = 0xE0000105;
    group.dst_port = 6000;
    group.mac[0] = 0x01;
    nic.inject(make_frame(group));
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), (std::vector<uint16_t>{5, 5}));
    ASSERT_EQ(dev.unfilter(5), 0);
    nic.inject(make_frame());
    nic.inject(make_frame(group));
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags().size(), 1u);
}

TEST(Receive, RemovalWhileFramesWaitInAnEvent_PublishesThemFirstAndNoEventAfterItBearsTheTag)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    nic.inject(make_frame());
    softnic_step(nic, 0); // into an event that is not published yet
    ASSERT_EQ(dev.recvq[30], 0);
    nic.inject(make_frame()); // still on the wire
    ASSERT_EQ(dev.unfilter(5), 0);
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{5});
    softnic_run(nic);
    EXPECT_TRUE(dev.take_tags().empty());
    EXPECT_EQ(nic.board_counters().unmatched, 1u);
}

TEST(Receive, AllMulti_AddsGroupFramesUnderATagThatNoFilterHas)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    ASSERT_EQ(dev.mode(1), 0);
    FrameSpec f;
    nic.inject(make_frame(f)); // by the filter
    f.dst_port = 9;
    nic.inject(make_frame(f)); // to this host, nobody's
    f.mac[0] = 0x01;
    nic.inject(make_frame(f)); // a group
    memset(f.mac, 0xFF, 6);
    f.ethertype = 0x0806;
    nic.inject(make_frame(f)); // broadcast, not IP
    f = {};
    f.mac[0] = 0x01;
    nic.inject(make_frame(f)); // a group, by the filter
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), (std::vector<uint16_t>{5, 0xFFFF, 0xFFFF, 5}));
    EXPECT_EQ(nic.board_counters().unmatched, 1u);
}

TEST(Receive, Raw_GetsEveryFrameAndKeepsTheTagsOfFilters)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    ASSERT_EQ(dev.mode(2), 0);
    FrameSpec f;
    nic.inject(make_frame(f));
    f.ethertype = 0x0806;
    nic.inject(make_frame(f));
    nic.inject(Bytes(14, 0));
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), (std::vector<uint16_t>{5, 0xFFFF, 0xFFFF}));
    ASSERT_EQ(dev.mode(0), 0);
    nic.inject(make_frame(f));
    softnic_run(nic);
    EXPECT_TRUE(dev.take_tags().empty());
}

// A card lets frames to other stations in only while somebody wants them.
TEST(Receive, InterfaceIsPromiscuous_WhileAnEnabledEndpointIsRaw)
{
    Nic nic;
    Device first;
    ASSERT_EQ(first.claim(0), 0);
    ASSERT_EQ(first.mode(2), 0);
    EXPECT_EQ(softnic_promiscuous(nic, 0), 0);
    ASSERT_EQ(first.enable(), 0);
    EXPECT_EQ(softnic_promiscuous(nic, 0), 1);
    ASSERT_EQ(first.mode(1), 0);
    EXPECT_EQ(softnic_promiscuous(nic, 0), 0);
    ASSERT_EQ(first.mode(2), 0);
    {
        Device second;
        ASSERT_EQ(second.set_up(1), 0);
        EXPECT_EQ(softnic_promiscuous(nic, 0), 1);
        ASSERT_EQ(second.mode(2), 0);
        ASSERT_EQ(first.mode(0), 0);
        EXPECT_EQ(softnic_promiscuous(nic, 0), 1);
    }
    EXPECT_EQ(softnic_promiscuous(nic, 0), 0);
}

TEST(Receive, ClaimedEndpointThatIsNotEnabled_CountsItsFramesAsDisabled)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    ASSERT_EQ(dev.filter(5), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(nic.counters().disabled, 1u);
    EXPECT_EQ(nic.counters().steered, 1u);
    ASSERT_EQ(dev.enable(), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{5});
}

TEST(Receive, SmallRing_OverloadIsAccountedForFrameByFrame)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.recvq_size = 16384; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    size_t got = 0;
    for (int burst = 0; burst < 50; burst++) {
        for (int i = 0; i < 100 + burst; i++) {
            FrameSpec f;
            f.payload = static_cast<size_t>((burst * 37 + i * 11) % 1400);
            nic.inject(make_frame(f));
        }
        softnic_run(nic);
        got += dev.take_tags().size();
    }
    const auto c = nic.counters();
    EXPECT_EQ(c.delivered, got);
    EXPECT_GT(c.ring_full, 0u);
    EXPECT_EQ(c.steered, c.delivered + c.ring_full);
    EXPECT_EQ(c.steered, 100u * 50 + 49 * 50 / 2);
    EXPECT_LE(c.high_water, 16384u);
}

TEST(Receive, SteeringOfTheHost_FollowsTheFilters)
{
    Nic nic;
    Device a, b;
    ASSERT_EQ(a.set_up(0), 0);
    ASSERT_EQ(b.set_up(1), 0);
    const auto steered = [&] { return softnic_steered(nic, 0, 0x0A4D0001, 5000, 0, 17); };
    EXPECT_EQ(steered(), 0);
    ASSERT_EQ(a.filter(1), 0);
    EXPECT_EQ(steered(), 1);
    ASSERT_EQ(b.filter(1, 0x0A4D0001, 5000, 0, false, OXEL_FILTER_UDP, true), 0); // with a copy for the host
    EXPECT_EQ(steered(), 0);
    ASSERT_EQ(b.unfilter(1), 0);
    EXPECT_EQ(steered(), 1);
    a.close_now(); // gone with its filters
    EXPECT_EQ(steered(), 0);
}

TEST(Receive, SteeringRefused_InstallsNoFilter)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    softnic_fail_steering(nic, 0, ENOMEM);
    EXPECT_EQ(dev.filter(1), ENOMEM);
    softnic_fail_steering(nic, 0, 0);
    EXPECT_EQ(dev.unfilter(1), ENOENT);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_TRUE(dev.take_tags().empty());
}

TEST(Receive, ReclaimedEndpoint_StartsWithEverySlotFreeAndNoFilter)
{
    Nic nic;
    {
        Device dev;
        ASSERT_EQ(dev.set_up(), 0);
        ASSERT_EQ(dev.filter(5), 0);
        for (int i = 0; i < 100; i++)
            nic.inject(make_frame());
        softnic_run(nic);
        dev.post(13, 0, Bytes(42, 1), 4);
        softnic_run(nic);
        EXPECT_EQ(dev.completions(), 1u);
    }
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    for (uint32_t slot = 0; slot < dev.block.recvq_len; slot += 64) {
        ASSERT_EQ(dev.recvq[slot + 30], 0);
        ASSERT_EQ(dev.recvq[slot + 63], 0xFF);
    }
    EXPECT_EQ(dev.completions(), 0u);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(nic.board_counters().unmatched, 1u);
}

TEST(Receive, EnabledAgain_StartsAnewInTheSameMemory)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    ASSERT_EQ(dev.recvq[30], 1);
    uint8_t *const first_view = dev.recvq;
    ASSERT_EQ(dev.enable(), 0);
    EXPECT_EQ(first_view[30], 0);
    EXPECT_EQ(first_view[63], 0xFF);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(first_view[30], 1);
}

TEST(Receive, HardwareOrderBoard_ShowsTheEventAStepBeforeItIsComplete)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.hardware_order = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    softnic_hold_events(nic, 0, 0, 1);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(dev.recvq[30], 1);
    EXPECT_EQ(dev.recvq[127], 0xFF);
    softnic_hold_events(nic, 0, 0, 0);
    softnic_run(nic);
    EXPECT_EQ(dev.recvq[127], 0);
}

// As the host sees it, which has let go of such a frame by its key.
TEST(Receive, TrailerOnTheWire_DatagramReachesIntoIt_DeliveredByItsFilter)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.trailer_on_wire = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    const Bytes frame = make_frame();
    ASSERT_EQ(14u + (frame[16] << 8 | frame[17]), frame.size());
    nic.inject(frame);
    softnic_run(nic);
    EXPECT_EQ(dev.recvq[8] << 8 | dev.recvq[9], static_cast<int>(frame.size()));
    EXPECT_EQ(dev.recvq[10] << 8 | dev.recvq[11], 5);
}

TEST(Receive, TrailerOnTheWire_BehindAWholeDatagram_IsDeliveredAsItCame)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.trailer_on_wire = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    Bytes frame = make_frame();
    frame.insert(frame.end(), {0xDE, 0xAD, 0xBE, 0xEF});
    nic.inject(frame);
    softnic_run(nic);
    EXPECT_EQ(dev.recvq[8] << 8 | dev.recvq[9], 64);
    EXPECT_EQ(Bytes(dev.recvq + 40, dev.recvq + 104), frame);
}

} // namespace
} // namespace softnic_test
