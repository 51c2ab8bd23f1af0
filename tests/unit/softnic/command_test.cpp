// Every driver command: what it answers, and how it refuses.
#include "rig.h"

#include <thread>

namespace softnic_test {
namespace {

constexpr unsigned long kAll[] = {OXEL_GET_VERSION,
                                  OXEL_GET_BOARD_CNT,
                                  OXEL_GET_NIC_TYPE,
                                  OXEL_GET_NIC_ID,
                                  OXEL_GET_NIC_TICKS,
                                  OXEL_GET_MAX_ENDPTS,
                                  OXEL_ARP_RESOLVE,
                                  OXEL_GET_CURR_NIC_ID,
                                  OXEL_RAW_SEND,
                                  OXEL_RAW_NEXT_EVENT,
                                  OXEL_WAIT_SEND_COMPLETION,
                                  OXEL_GET_RUK_PARAMS,
                                  OXEL_SET_RUK_PARAMS,
                                  OXEL_SET_FILTER_MODE,
                                  OXEL_ATTACH_SOFT,
                                  OXEL_POST_SOFT_DATA,
                                  OXEL_GET_COPYBLOCK,
                                  OXEL_GET_SREQS_CNT,
                                  OXEL_GET_LINK_STATE,
                                  OXEL_RAW_OPEN,
                                  OXEL_SET_ENDPT,
                                  OXEL_ENABLE_ENDPT,
                                  OXEL_RX_FILTER};

constexpr unsigned long kWithArgument[] = {
    OXEL_GET_VERSION,     OXEL_GET_BOARD_CNT,  OXEL_GET_NIC_TYPE,    OXEL_GET_NIC_ID,
    OXEL_GET_NIC_TICKS,   OXEL_GET_MAX_ENDPTS, OXEL_GET_CURR_NIC_ID, OXEL_WAIT_SEND_COMPLETION,
    OXEL_GET_RUK_PARAMS,  OXEL_SET_RUK_PARAMS, OXEL_RAW_SEND,        OXEL_RAW_NEXT_EVENT,
    OXEL_SET_FILTER_MODE, OXEL_ATTACH_SOFT,    OXEL_GET_COPYBLOCK,   OXEL_GET_SREQS_CNT,
    OXEL_GET_LINK_STATE,  OXEL_SET_ENDPT,      OXEL_RX_FILTER};

TEST(Command, NullArgumentWhereDataIsNeeded_IsEfault)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    for (unsigned long cmd : kWithArgument)
        EXPECT_EQ(command(dev.fd, cmd), EFAULT) << std::hex << cmd;
}

TEST(Command, ArgumentOutsideTheProgramsMemory_IsEfaultAndNoCrash)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    void *hole = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (unsigned long cmd : kWithArgument)
        EXPECT_EQ(command(dev.fd, cmd, hole), EFAULT) << std::hex << cmd;
    munmap(hole, 4096);
}

TEST(Command, UnknownCommand_IsEnotty)
{
    Nic nic;
    Device dev;
    uint8_t argument[256] = {};
    for (unsigned long cmd : {0x4D00ul, 0x50ECul, 0ul, 0x5421ul, ~0ul})
        EXPECT_EQ(command(dev.fd, cmd, argument), ENOTTY) << std::hex << cmd;
}

TEST(Command, ArpResolve_IsEnottyForGood)
{
    Nic nic;
    Device dev;
    uint32_t hop = 0;
    EXPECT_EQ(command(dev.fd, OXEL_ARP_RESOLVE, &hop), ENOTTY);
    ASSERT_EQ(dev.set_up(), 0);
    EXPECT_EQ(command(dev.fd, OXEL_ARP_RESOLVE, &hop), ENOTTY);
}

TEST(Command, EndpointCommandsOnAHandleWithoutEndpoint_AreEinval)
{
    Nic nic;
    Device dev;
    uint8_t argument[256] = {};
    for (unsigned long cmd : {OXEL_WAIT_SEND_COMPLETION, OXEL_GET_RUK_PARAMS, OXEL_SET_RUK_PARAMS, OXEL_SET_FILTER_MODE,
                              OXEL_GET_COPYBLOCK, OXEL_GET_SREQS_CNT, OXEL_ENABLE_ENDPT, OXEL_RX_FILTER, OXEL_RAW_SEND,
                              OXEL_RAW_NEXT_EVENT, OXEL_POST_SOFT_DATA})
        EXPECT_EQ(command(dev.fd, cmd, argument), EINVAL) << std::hex << cmd;
}

TEST(Command, GetVersion_TellsTheInterfaceAndTexts)
{
    Nic nic(1, [](softnic_board_config_t &c) {
        c.driver_api_magic = 0x0412;
        strcpy(c.driver_version, "9.8.7");
        strcpy(c.driver_build, "a build");
    });
    Device dev;
    oxel_get_version_t v;
    memset(&v, 0xFF, sizeof(v));
    ASSERT_EQ(command(dev.fd, OXEL_GET_VERSION, &v), 0);
    EXPECT_EQ(v.driver_api_magic, 0x0412u);
    EXPECT_STREQ(v.version_str, "9.8.7");
    EXPECT_STREQ(v.build_str, "a build");
}

TEST(Command, DefaultVersion_IsMajor4Minor0)
{
    Nic nic;
    Device dev;
    oxel_get_version_t v;
    ASSERT_EQ(command(dev.fd, OXEL_GET_VERSION, &v), 0);
    EXPECT_EQ(v.driver_api_magic, 0x0400u);
}

TEST(Command, BoardQueries_AnswerForTheNamedBoard)
{
    Nic nic(2, [](softnic_board_config_t &c) {
        c.nic_type = 40u + c.mac[5];
        c.endpoints = 7u + c.mac[5];
        c.link_up = c.mac[5] == 1;
        if (c.mac[5] == 2)
            c.current_mac[5] = 9;
    });
    Device a(0), b(1);
    for (Device *dev : {&a, &b}) {
        uint32_t word = 99;
        ASSERT_EQ(command(dev->fd, OXEL_GET_BOARD_CNT, &word), 0);
        EXPECT_EQ(word, 2u);
        for (uint32_t board : {0u, 1u}) {
            word = board;
            ASSERT_EQ(command(dev->fd, OXEL_GET_NIC_TYPE, &word), 0);
            EXPECT_EQ(word, 41 + board);
            word = board;
            ASSERT_EQ(command(dev->fd, OXEL_GET_LINK_STATE, &word), 0);
            EXPECT_EQ(word, 1 - board);
            oxel_get_nic_id_t id = {board, 0, 0};
            ASSERT_EQ(command(dev->fd, OXEL_GET_NIC_ID, &id), 0);
            EXPECT_EQ(id.nic_id, 0x026F78000001u + board);
            id.nic_id = 0;
            ASSERT_EQ(command(dev->fd, OXEL_GET_CURR_NIC_ID, &id), 0);
            EXPECT_EQ(id.nic_id, board == 0 ? 0x026F78000001u : 9u);
        }
        for (unsigned long cmd : {OXEL_GET_NIC_TYPE, OXEL_GET_LINK_STATE}) {
            word = 2;
            EXPECT_EQ(command(dev->fd, cmd, &word), ENODEV);
        }
        oxel_get_nic_id_t id = {0x80000000u, 0, 0};
        EXPECT_EQ(command(dev->fd, OXEL_GET_NIC_ID, &id), ENODEV);
        EXPECT_EQ(command(dev->fd, OXEL_GET_CURR_NIC_ID, &id), ENODEV);
    }
    uint32_t endpoints = 0; // of the board that was opened
    ASSERT_EQ(command(a.fd, OXEL_GET_MAX_ENDPTS, &endpoints), 0);
    EXPECT_EQ(endpoints, 8u);
    ASSERT_EQ(command(b.fd, OXEL_GET_MAX_ENDPTS, &endpoints), 0);
    EXPECT_EQ(endpoints, 9u);
}

TEST(Command, LinkState_FollowsTheLink)
{
    Nic nic;
    Device dev;
    softnic_set_link(nic, 0, 0);
    uint32_t word = 0;
    ASSERT_EQ(command(dev.fd, OXEL_GET_LINK_STATE, &word), 0);
    EXPECT_EQ(word, 0u);
}

TEST(Command, GetNicTicks_PairsTheClockWithHostTime)
{
    Nic nic(1, [](softnic_board_config_t &c) {
        c.clock_ns_numerator = 4;
        c.clock_ns_denominator = 1;
        c.clock_first_ticks = 1000;
    });
    Device dev;
    softnic_advance(nic, 4000);
    oxel_get_nic_ticks_t t;
    memset(&t, 0xFF, sizeof(t));
    t.board = 0;
    ASSERT_EQ(command(dev.fd, OXEL_GET_NIC_TICKS, &t), 0);
    EXPECT_EQ(t.nic_ticks, 2000u);
    EXPECT_EQ(t.host_nsecs, kStart + 4000);
    EXPECT_EQ(t.host_nsecs_delay, 0u);
}

TEST(Claim, EachEndpointOnce_TakenOnesAreBusyAndComeFreeAtClose)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.endpoints = 3; });
    Device a, b;
    EXPECT_EQ(a.claim(2), 0);
    EXPECT_EQ(b.claim(2), EBUSY);
    EXPECT_EQ(b.claim(3), EINVAL);
    EXPECT_EQ(b.claim(-1), EINVAL);
    EXPECT_EQ(b.claim(1), 0);
    EXPECT_EQ(b.claim(0), EINVAL); // one endpoint a handle
    EXPECT_EQ(softnic_claimed(nic, 0), 0b110u);
    a.close_now();
    EXPECT_EQ(softnic_claimed(nic, 0), 0b010u);
    Device c;
    EXPECT_EQ(c.claim(2), 0);
}

TEST(Claim, TypesThatAreNotClaimedThisWay_AreEinval)
{
    Nic nic;
    Device dev;
    for (uint32_t type : {0u, 1u, 100u, 199u, 202u, ~0u})
        EXPECT_EQ(dev.claim(0, type), EINVAL) << type;
    EXPECT_EQ(dev.claim(0), 0);
}

TEST(Claim, AtLeastEightEndpointsABoardByDefault_AllUsableAtOnce)
{
    Nic nic;
    std::vector<std::unique_ptr<Device>> devs;
    for (int e = 0; e < 8; e++) {
        devs.push_back(std::make_unique<Device>());
        ASSERT_EQ(devs.back()->set_up(e), 0) << e;
        ASSERT_EQ(devs.back()->filter(static_cast<uint16_t>(100 + e)), 0);
    }
    nic.inject(make_frame());
    softnic_run(nic);
    for (int e = 0; e < 8; e++)
        EXPECT_EQ(devs[static_cast<size_t>(e)]->take_tags(), std::vector<uint16_t>{static_cast<uint16_t>(100 + e)});
}

TEST(Params, BeforeEnabling_QueueSizeIsTakenAndMadeAPowerOfTwo)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    oxel_ruk_params_t p = {};
    ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
    EXPECT_EQ(p.recvq_size, 1u << 20);
    EXPECT_EQ(p.dmasend_threshold, 1024u);
    EXPECT_EQ(p.recvq_filter_mode, 0u);
    const std::pair<uint32_t, uint32_t> sizes[] = {{100000, 131072}, {1, 16384}, {65536, 65536}, {0, 65536}};
    for (auto [asked, given] : sizes) {
        p.recvq_size = asked;
        p.recvq_filter_mode = 1;
        ASSERT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), 0);
        ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
        EXPECT_EQ(p.recvq_size, given) << asked;
        EXPECT_EQ(p.recvq_filter_mode, 1u);
        EXPECT_EQ(p.reserved_0, 0u);
    }
    ASSERT_EQ(dev.enable(), 0);
    EXPECT_EQ(dev.block.recvq_len, 65536u);

    p.recvq_size = 1 << 20; // too late
    ASSERT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), 0);
    ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
    EXPECT_EQ(p.recvq_size, 65536u);
}

TEST(Params, ValuesThatCannotBe_AreEinvalAndChangeNothing)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    const oxel_ruk_params_t bad[] = {{1024, 1 << 20, 3, 0}, {8193, 1 << 20, 0, 0}, {1024, 0xFFFFFFFF, 0, 0}};
    for (oxel_ruk_params_t p : bad)
        EXPECT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), EINVAL);
    EXPECT_EQ(dev.mode(3), EINVAL);
    oxel_ruk_params_t p = {};
    ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
    EXPECT_EQ(p.recvq_size, 1u << 20);
    EXPECT_EQ(p.dmasend_threshold, 1024u);
    EXPECT_EQ(p.recvq_filter_mode, 0u);
}

TEST(Params, ModeSetBeforeEnabling_IsInForceAfterIt)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    oxel_ruk_params_t p = {1024, 0, 2, 0};
    ASSERT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), 0);
    ASSERT_EQ(dev.enable(), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{0xFFFF});
}

TEST(Params, ReclaimedEndpoint_HasTheDefaultsAgain)
{
    Nic nic;
    {
        Device dev;
        ASSERT_EQ(dev.claim(0), 0);
        oxel_ruk_params_t p = {99, 65536, 2, 0};
        ASSERT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), 0);
    }
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    oxel_ruk_params_t p = {};
    ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
    EXPECT_EQ(p.dmasend_threshold, 1024u);
    EXPECT_EQ(p.recvq_size, 1u << 20);
    EXPECT_EQ(p.recvq_filter_mode, 0u);
}

TEST(Regions, Description_GivesDistinctPageAlignedOffsetsThatMap)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    EXPECT_EQ(command(dev.fd, OXEL_GET_COPYBLOCK, &dev.block), EINVAL); // nothing is enabled yet
    ASSERT_EQ(dev.enable(), 0);
    const kz_get_copyblock_t &b = dev.block;
    const std::pair<uint32_t, uint32_t> regions[] = {{b.sendq_offset, b.sendq_len},
                                                     {b.recvq_offset, b.recvq_len},
                                                     {b.user_mmapped_sram_offset, b.user_mmapped_sram_len},
                                                     {b.user_mmapped_zreq_offset, b.user_mmapped_zreq_len},
                                                     {b.kernel_window_offset, b.kernel_window_len},
                                                     {b.flow_window_offset, b.flow_window_len},
                                                     {b.send_compcnt_offset, b.send_compcnt_len}};
    EXPECT_EQ(b.recvq_len, 1u << 20);
    EXPECT_EQ(b.sendq_len, 256u << 10);
    EXPECT_EQ(b.user_mmapped_sram_len, 16384u);
    EXPECT_EQ(b.user_mmapped_zreq_len, 4096u);
    EXPECT_EQ(b.eventq_len, 0u);
    for (auto [offset, len] : regions) {
        EXPECT_EQ(offset % 4096, 0u);
        EXPECT_LT(offset, 0x80000000u); // a 32-bit offset of mmap()
        for (auto [other, other_len] : regions)
            EXPECT_TRUE(offset == other || offset + len <= other || other + other_len <= offset);
        void *p = mmap(nullptr, len, PROT_READ, MAP_SHARED, dev.fd, offset);
        EXPECT_NE(p, MAP_FAILED);
        munmap(p, len);
    }
}

TEST(Regions, MappingsOfOneRegion_AreOneMemory)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    auto *again = static_cast<uint8_t *>(dev.map(dev.block.sendq_offset, dev.block.sendq_len));
    dev.sendq[12345] = 0x5C;
    EXPECT_EQ(again[12345], 0x5C);
    softnic_regions_t regions;
    ASSERT_EQ(softnic_regions(nic, 0, 0, &regions), 0);
    EXPECT_EQ(regions.sendq[12345], 0x5C);
}

TEST(Regions, ReadOnlyOnes_CannotBeMappedNorMadeWritable)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    for (uint32_t offset : {dev.block.kernel_window_offset, dev.block.send_compcnt_offset}) {
        EXPECT_EQ(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, dev.fd, offset), MAP_FAILED);
        EXPECT_EQ(errno, EACCES);
        void *p = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, dev.fd, offset);
        ASSERT_NE(p, MAP_FAILED);
        EXPECT_EQ(mprotect(p, 4096, PROT_READ | PROT_WRITE), -1);
        EXPECT_EQ(errno, EACCES);
        munmap(p, 4096);
    }
}

TEST(Regions, ImpossibleMappings_AreRefused)
{
    Nic nic;
    Device dev, plain;
    ASSERT_EQ(dev.set_up(), 0);
    const uint32_t flow = dev.block.flow_window_offset;
    const struct {
        int fd;
        size_t len;
        int prot, flags;
        uint32_t offset;
        int error;
    } cases[] = {{dev.fd, 0, PROT_READ, MAP_SHARED, flow, EINVAL},
                 {dev.fd, 4097, PROT_READ, MAP_SHARED, flow, EINVAL},
                 {dev.fd, ~size_t{0} - 4095, PROT_READ, MAP_SHARED, flow, EINVAL},
                 {dev.fd, 4096, PROT_READ, MAP_PRIVATE, flow, EINVAL},
                 {dev.fd, 4096, PROT_READ | PROT_EXEC, MAP_SHARED, flow, EACCES},
                 {dev.fd, 4096, PROT_READ, MAP_SHARED, 0, EINVAL},
                 {dev.fd, 4096, PROT_READ, MAP_SHARED, flow + 4096, EINVAL},
                 {dev.fd, 4096, PROT_READ, MAP_SHARED, 0x7FFFF000, EINVAL},
                 {dev.fd, 100, PROT_READ, MAP_SHARED, flow + 64, EINVAL},
                 {plain.fd, 4096, PROT_READ, MAP_SHARED, flow, EINVAL}};
    for (const auto &c : cases) {
        EXPECT_EQ(mmap(nullptr, c.len, c.prot, c.flags, c.fd, c.offset), MAP_FAILED) << &c - cases;
        EXPECT_EQ(errno, c.error) << &c - cases;
    }
}

TEST(Regions, FixedAddress_IsHonoured)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    void *place = mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void *p = mmap(place, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, dev.fd, dev.block.flow_window_offset);
    ASSERT_EQ(p, place);
    static_cast<oxel_endpt_flow_t *>(p)->pad_rx[5] = 42;
    EXPECT_EQ(dev.flow->pad_rx[5], 42);
    munmap(place, 8192);
}

TEST(Regions, OneAddressAsked_ProgramAndAdapterShareItAndAnUnmappingLeavesIt)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.one_address = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(5), 0);
    softnic_regions_t regions;
    ASSERT_EQ(softnic_regions(nic, 0, 0, &regions), 0);
    EXPECT_EQ(dev.recvq, regions.recvq);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(dev.flow), regions.flow);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{5});
    dev.unmap();
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(regions.recvq[dev.at + 30], 1);
}

TEST(Regions, SurviveTheCloseOfTheirHandle)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    dev.close_now();
    dev.flow->pad_rx[0] = 1;
    dev.recvq[dev.block.recvq_len - 1] = 1;
    EXPECT_EQ(dev.recvq[dev.block.recvq_len - 1], 1);
}

TEST(SreqsCount, IsTheConfiguredOne)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    uint32_t n = 0;
    ASSERT_EQ(command(dev.fd, OXEL_GET_SREQS_CNT, &n), 0);
    EXPECT_EQ(n, 64u);
}

TEST(RxFilter, RemovalOfWhatIsNotThere_IsEnoent)
{
    Nic nic;
    Device a, b;
    ASSERT_EQ(a.set_up(0), 0);
    ASSERT_EQ(b.set_up(1), 0);
    EXPECT_EQ(a.unfilter(1), ENOENT);
    ASSERT_EQ(a.filter(1, 0x0A4D0001, 5000, 0xE007), 0);
    EXPECT_EQ(a.unfilter(2, 0x0A4D0001, 5000, 0xE007), ENOENT); // tag
    EXPECT_EQ(a.unfilter(1, 0x0A4D0002, 5000, 0xE007), ENOENT); // address
    EXPECT_EQ(a.unfilter(1, 0x0A4D0001, 5001, 0xE007), ENOENT); // port
    EXPECT_EQ(a.unfilter(1, 0x0A4D0001, 5000, 0xE008), ENOENT); // VLAN
    EXPECT_EQ(a.filter(1, 0x0A4D0001, 5000, 0xE007, true, OXEL_FILTER_TCP), ENOENT);
    EXPECT_EQ(b.unfilter(1, 0x0A4D0001, 5000, 0xE007), ENOENT); // another endpoint's
    EXPECT_EQ(a.unfilter(1, 0x0A4D0001, 5000, 0x0007), 0);      // priority bits are no part of it
    EXPECT_EQ(a.unfilter(1, 0x0A4D0001, 5000, 0x0007), ENOENT);
}

TEST(RxFilter, UnknownProtocol_IsEinval)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    EXPECT_EQ(dev.filter(1, 1, 1, 0, false, 3), EINVAL);
    EXPECT_EQ(dev.filter(1, 1, 1, 0, true, 255), EINVAL);
}

TEST(RxFilter, InstalledTwice_IsOneFilter)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(1), 0);
    ASSERT_EQ(dev.filter(1), 0);
    EXPECT_EQ(dev.unfilter(1), 0);
    EXPECT_EQ(dev.unfilter(1), ENOENT);
}

TEST(RxFilter, AWholeTagSpaceOfFilters_IsHeldAndFound)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    for (uint16_t t = 0; t < 3968; t++)
        ASSERT_EQ(dev.filter(t, 0xE0000000u + t, 5000), 0);
    for (uint16_t t : {0, 1, 2000, 3967}) {
        FrameSpec f;
        f.dst_ip = 0xE0000000u + t;
        nic.inject(make_frame(f));
    }
    softnic_run(nic);
    EXPECT_EQ(dev.take_tags(), (std::vector<uint16_t>{0, 1, 2000, 3967}));
    for (uint16_t t = 0; t < 3968; t++)
        ASSERT_EQ(dev.unfilter(t, 0xE0000000u + t, 5000), 0);
}

TEST(Soft, AttachedToAClaimedEndpoint_MayPost)
{
    Nic nic;
    Device owner, soft;
    ASSERT_EQ(owner.set_up(3), 0);
    EXPECT_EQ(command(soft.fd, OXEL_POST_SOFT_DATA), EINVAL);
    ASSERT_EQ(soft.claim(3, OXEL_ES_RUK_SOFT), 0);
    EXPECT_EQ(command(soft.fd, OXEL_POST_SOFT_DATA), EINVAL); // not attached yet
    uint32_t fd = static_cast<uint32_t>(soft.fd);
    EXPECT_EQ(command(soft.fd, OXEL_ATTACH_SOFT, &fd), 0);
    EXPECT_EQ(command(soft.fd, OXEL_ATTACH_SOFT, &fd), EBUSY);
    EXPECT_EQ(command(soft.fd, OXEL_POST_SOFT_DATA), 0);
    EXPECT_EQ(command(owner.fd, OXEL_POST_SOFT_DATA), EINVAL);
}

TEST(Soft, OwnerCloses_NeitherPostsNorIsAttached_NotToTheNextOwnerEither)
{
    Nic nic;
    Device attached, unattached;
    uint32_t fd = static_cast<uint32_t>(attached.fd), other = static_cast<uint32_t>(unattached.fd);
    {
        Device owner;
        ASSERT_EQ(owner.set_up(3), 0);
        ASSERT_EQ(attached.claim(3, OXEL_ES_RUK_SOFT), 0);
        ASSERT_EQ(unattached.claim(3, OXEL_ES_RUK_SOFT), 0);
        ASSERT_EQ(command(attached.fd, OXEL_ATTACH_SOFT, &fd), 0);
        ASSERT_EQ(command(attached.fd, OXEL_POST_SOFT_DATA), 0);
    }
    EXPECT_EQ(command(attached.fd, OXEL_POST_SOFT_DATA), EINVAL);
    EXPECT_EQ(command(unattached.fd, OXEL_ATTACH_SOFT, &other), EINVAL);
    Device next;
    ASSERT_EQ(next.set_up(3), 0);
    EXPECT_EQ(command(attached.fd, OXEL_POST_SOFT_DATA), EINVAL);
    EXPECT_EQ(command(unattached.fd, OXEL_ATTACH_SOFT, &other), EINVAL);
    EXPECT_EQ(command(next.fd, OXEL_ATTACH_SOFT, &other), EINVAL);
}

TEST(Soft, EndpointThatNobodyClaimed_IsRefused)
{
    Nic nic;
    Device soft;
    EXPECT_EQ(soft.claim(3, OXEL_ES_RUK_SOFT), EINVAL);
    EXPECT_EQ(soft.claim(99, OXEL_ES_RUK_SOFT), EINVAL);
}

TEST(Soft, DescriptorThatIsNoSoftHandle_IsRefused)
{
    Nic nic(2);
    Device owner, soft, other_board(1);
    ASSERT_EQ(owner.set_up(0), 0);
    ASSERT_EQ(soft.claim(0, OXEL_ES_RUK_SOFT), 0);
    uint32_t fd = 0; // standard input
    EXPECT_EQ(command(soft.fd, OXEL_ATTACH_SOFT, &fd), EBADF);
    fd = 0xFFFFFFFF;
    EXPECT_EQ(command(soft.fd, OXEL_ATTACH_SOFT, &fd), EBADF);
    fd = static_cast<uint32_t>(owner.fd);
    EXPECT_EQ(command(soft.fd, OXEL_ATTACH_SOFT, &fd), EINVAL);
    fd = static_cast<uint32_t>(soft.fd);
    EXPECT_EQ(command(other_board.fd, OXEL_ATTACH_SOFT, &fd), EINVAL);
    EXPECT_EQ(command(owner.fd, OXEL_ATTACH_SOFT, &fd), 0); // the owner may attach it as well
}

TEST(CommandHook, FailingCommand_GivesItsErrnoAndDoesNothing)
{
    Nic nic;
    Device dev;
    struct Context {
        unsigned long cmd;
        int error;
    } context = {OXEL_SET_ENDPT, EIO};
    softnic_set_command_hook(
        nic,
        [](void *c, unsigned, unsigned long cmd) {
            auto *ctx = static_cast<Context *>(c);
            return cmd == ctx->cmd ? ctx->error : 0;
        },
        &context);
    EXPECT_EQ(dev.claim(0), EIO);
    EXPECT_EQ(softnic_claimed(nic, 0), 0u);
    context.cmd = 0;
    context.error = EACCES;
    EXPECT_EQ(open("/dev/oxelB0", O_RDWR), -1);
    EXPECT_EQ(errno, EACCES);
    softnic_set_command_hook(nic, nullptr, nullptr);
    EXPECT_EQ(dev.claim(0), 0);
}

TEST(CommandLog, TellsCommandsInOrder)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    command(dev.fd, OXEL_ENABLE_ENDPT);
    unsigned long list[8] = {};
    ASSERT_EQ(softnic_commands(nic, list, 8), 3u);
    EXPECT_EQ(list[0], 0u); // the open
    EXPECT_EQ(list[1], 0x50E9u);
    EXPECT_EQ(list[2], 0x50EAu);
    softnic_clear_commands(nic);
    EXPECT_EQ(softnic_commands(nic, list, 8), 0u);
}

TEST(Command, EveryCommandWithArbitraryBytes_EndsAndHarmsNobody)
{
    Nic nic;
    Device bystander;
    ASSERT_EQ(bystander.set_up(7), 0);
    ASSERT_EQ(bystander.filter(77, 0x01020304, 9), 0);
    uint64_t random = 12345;
    const auto next = [&] {
        random = random * 6364136223846793005u + 1442695040888963407u;
        return random >> 33;
    };
    for (int round = 0; round < 300; round++) {
        Device dev;
        if (round % 2)
            dev.claim(round % 7);
        if (round % 4 == 1)
            dev.enable();
        for (int i = 0; i < 40; i++) {
            uint8_t argument[256];
            for (uint8_t &byte : argument)
                byte = static_cast<uint8_t>(next() % 3 == 0 ? next() : next() % 3);
            const unsigned long cmd = kAll[next() % (sizeof(kAll) / sizeof(kAll[0]))];
            const int rc = command(dev.fd, cmd, argument);
            ASSERT_TRUE(rc == 0 || rc == EINVAL || rc == ENOTTY || rc == EFAULT || rc == ENODEV || rc == EBADF ||
                        rc == EBUSY || rc == ENOENT || rc == EDEADLK || rc == ETIMEDOUT)
                << rc << " from " << std::hex << cmd;
        }
    }
    FrameSpec f;
    f.dst_ip = 0x01020304;
    f.dst_port = 9;
    nic.inject(make_frame(f));
    softnic_run(nic);
    EXPECT_EQ(bystander.take_tags(), std::vector<uint16_t>{77});
}

} // namespace
} // namespace softnic_test
