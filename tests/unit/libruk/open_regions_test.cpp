/* Setting up an endpoint's regions and queues, and releasing them. */
#include "endpoint_test.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

using namespace test_support;

namespace {

class RegionsTest : public EndpointTest {
protected:
    /* Bytes of a region before it is mapped. */
    void write_device(uint32_t offset, const void *data, size_t size)
    {
        ASSERT_EQ(pwrite(dev->rep_handle, data, size, offset), static_cast<ssize_t>(size));
    }
    const Lines release = {"munmap 10000+4000", "munmap 10000+4000", "munmap 20000+8000", "munmap 40000+4000",
                           "munmap 50000+1000", "munmap 60000+1000", "munmap 70000+1000", "munmap 80000+1000"};
};

TEST_F(RegionsTest, Enabled_RegionsInTheirFields)
{
    open(RUK_OPEN_DISABLED);
    const uint32_t marks[7] = {0x11111111, 0x22222222, 0x33333333, 0x44444444, 0x55555555, 0x66666666, 0x77777777};
    const uint32_t offsets[7] = {0x10000, 0x20000, 0x40000, 0x50000, 0x60000, 0x70000, 0x80000};
    for (int i = 0; i < 7; i++) /* past what the set-up itself writes */
        write_device(offsets[i] + 200, &marks[i], 4);
    ASSERT_EQ(ruk_device_enable(dev), 0);

    const struct ruk__map *map = &dev->rep_map;
    const uintptr_t bases[7] = {map->map_sendq,   map->map_recvq,        map->map_sram,        map->map_zreq,
                                map->map_kwindow, map->map_kflow_window, map->map_send_compcnt};
    for (int i = 0; i < 7; i++)
        EXPECT_EQ(*reinterpret_cast<uint32_t *>(bases[i] + 200), marks[i]) << i;
    EXPECT_EQ(map->map_sendq_len, 0x4000u);
    EXPECT_EQ(map->map_recvq_len, 0x8000u);
    EXPECT_EQ(map->map_recvq_end, map->map_recvq + 0x8000);
    EXPECT_EQ(map->map_sram_len, 0x4000u);
    EXPECT_EQ(map->map_zreq_len, 0x1000u);
    EXPECT_EQ(map->map_kwindow_len, 0x1000u);
    EXPECT_EQ(map->map_kflow_window_len, 0x1000u);
    EXPECT_EQ(map->map_send_compcnt_len, 0x1000u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(dev->rep_flow), map->map_kflow_window);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(dev->rep_kwindow), map->map_kwindow);
}

TEST_F(RegionsTest, Enabled_EventQueueAtTheStartOfTheReceiveRegion)
{
    open();
    const struct ruk__eventq *evq = &dev->rep_eventq;
    const struct ruk__event_state *evs = &evq->evq_recvq_state;
    EXPECT_EQ(evq->evq_recvq_base, dev->rep_map.map_recvq);
    EXPECT_EQ(evq->evq_recvq_size, 0x8000u);
    EXPECT_EQ(evq->evq_recvq_offset, 0u);
    EXPECT_EQ(evq->evq_recvq_end, dev->rep_map.map_recvq + 0x8000);
    EXPECT_EQ(evq->evq_recvq_flow, 0u);
    EXPECT_EQ(evs->evs_length, 0);
    EXPECT_EQ(evs->evs_length_pkts, 0);
    EXPECT_EQ(evs->evs_pkt_cnt, 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(evs->evs_uevt_cur), dev->rep_map.map_recvq);
    EXPECT_EQ(evs->evs_pkt_cur, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(evq->evq_flow), dev->rep_map.map_kflow_window);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(evq->evq_flow_be64), dev->rep_map.map_sram + 16376);
    EXPECT_EQ(dev->rep_inlinesend_threshold, 0u);
}

/* Of the flow region three words are cleared, the others keep what the driver put there. */
TEST_F(RegionsTest, Enabled_FlowCountersCleared)
{
    open(RUK_OPEN_DISABLED);
    const std::string junk(128, '\x5a');
    write_device(0x70000, junk.data(), junk.size());
    ASSERT_EQ(ruk_device_enable(dev), 0);
    std::string expected = junk;
    for (size_t at : {0, 8, 64}) /* receive: events and data; send: completions */
        expected.replace(at, 4, std::string(4, '\0'));
    EXPECT_EQ(hex(dev->rep_flow, 128), hex(expected.data(), 128));
}

TEST_F(RegionsTest, Enabled_ClockParametersCopied)
{
    open(RUK_OPEN_DISABLED);
    const uint32_t seqnum = 6;
    write_device(0x60000 + 64, &seqnum, 4);
    unsigned char params[32];
    for (int i = 0; i < 32; i++)
        params[i] = static_cast<unsigned char>(0xA0 + i);
    write_device(0x60000 + 100, params, sizeof params);
    ASSERT_EQ(ruk_device_enable(dev), 0);
    EXPECT_EQ(hex(&dev->rep_nticks, 32), hex(params, 32));
}

/* The driver is rewriting the parameters: they are taken only once it is done. */
TEST_F(RegionsTest, Enabled_WhileAThreadRewritesTheClock_WaitsForTheNewParameters)
{
    open(RUK_OPEN_DISABLED);
    unsigned char *window = static_cast<unsigned char *>(
        real::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, dev->rep_handle, 0x60000));
    ASSERT_NE(window, MAP_FAILED);
    uint32_t *seqnum = reinterpret_cast<uint32_t *>(window + 64);
    uint64_t *ticks = reinterpret_cast<uint64_t *>(window + 100);
    __atomic_store_n(seqnum, 7u, __ATOMIC_RELEASE);
    uint32_t old_half[2] = {0xdead, 0xbeef};
    memcpy(ticks, old_half, 8);
    std::thread writer([&] {
        usleep(30000);
        uint32_t *half = reinterpret_cast<uint32_t *>(window + 100);
        __atomic_store_n(&half[0], 0x1234u, __ATOMIC_RELAXED);
        __atomic_store_n(&half[1], 0x5678u, __ATOMIC_RELAXED);
        __atomic_store_n(seqnum, 8u, __ATOMIC_RELEASE);
    });
    EXPECT_EQ(ruk_device_enable(dev), 0);
    writer.join();
    EXPECT_EQ(dev->rep_nticks.ticks, UINT64_C(0x567800001234));
    real::munmap(window, 4096);
}

TEST_F(RegionsTest, Enabled_SendRingsEmpty)
{
    driver.taken = {0, 1};
    open();
    EXPECT_EQ(dev->rep_dmabuf.sb_base, dev->rep_map.map_sendq);
    EXPECT_EQ(dev->rep_dmabuf.sb_length, 0x4000u);
    EXPECT_EQ(dev->rep_dmabuf.sb_avail, 0x4000u);
    EXPECT_EQ(dev->rep_dmabuf.sb_head, 0u);
    EXPECT_EQ(dev->rep_dmabuf.sb_tail, 0u);
    const struct ruk__pioreq *pio = &dev->rep_pioreq;
    EXPECT_EQ(pio->pio_sb.sb_base, dev->rep_map.map_sram);
    EXPECT_EQ(pio->pio_sb.sb_length, 8192u);
    EXPECT_EQ(pio->pio_sb.sb_avail, 8192u);
    EXPECT_EQ(pio->pio_sb.sb_head, 0u);
    EXPECT_EQ(pio->pio_sb.sb_tail, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pio->pio_req_db), dev->rep_map.map_zreq);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pio->compl_done), dev->rep_map.map_send_compcnt + 2 * 2)
        << "the 16-bit counter of endpoint 2";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pio->tx_flow), dev->rep_map.map_kflow_window + 64);
    EXPECT_EQ(dev->rep_sreq_inflight, 0);
    EXPECT_TRUE(STAILQ_EMPTY(&dev->rep_sreq_inflightq));
}

TEST_F(RegionsTest, Enabled_RequestRecordsNumberedAndPooled)
{
    for (uint32_t count : {8u, 64u}) {
        driver.sreqs_cnt = count;
        driver.taken.clear();
        open();
        ASSERT_NE(dev->rep_sreq_alloc, nullptr);
        for (uint32_t i = 0; i < count; i++)
            EXPECT_EQ(dev->rep_sreq_alloc[i].req_num, static_cast<int>(i));
        EXPECT_EQ(dev->rep_sreq_pool->elem_avail, static_cast<int>(count));
        EXPECT_EQ(dev->rep_sreq_pool->elem_sz, sizeof(struct ruk__request));
        for (uint32_t i = 0; i < count; i++)
            EXPECT_EQ(tov_mpool_alloc(dev->rep_sreq_pool), &dev->rep_sreq_alloc[i]);
        EXPECT_EQ(tov_mpool_alloc(dev->rep_sreq_pool), nullptr);
        close();
    }
}

/* Whatever was in the memory before. */
TEST_F(RegionsTest, Enabled_RequestRecordsZeroed)
{
    open(RUK_OPEN_DISABLED);
    const size_t size = driver.sreqs_cnt * sizeof(struct ruk__request);
    std::vector<void *> blocks;
    for (int i = 0; i < 16; i++)
        blocks.push_back(malloc(size));
    for (void *block : blocks) {
        memset(block, 0xA5, size);
        __asm__ volatile("" : : "r"(block) : "memory"); /* stores to memory that goes back are stores all the same */
    }
    for (void *block : blocks)
        free(block);
    ASSERT_EQ(ruk_device_enable(dev), 0);
    for (uint32_t i = 0; i < driver.sreqs_cnt; i++) {
        const struct ruk__request &req = dev->rep_sreq_alloc[i];
        EXPECT_EQ(req.req_buf, 0u) << i;
        EXPECT_EQ(req.req_size, 0u) << i;
        EXPECT_EQ(req.req_qoff, 0u) << i;
        EXPECT_EQ(static_cast<unsigned>(req.req_type), 0u) << i;
    }
}

TEST_F(RegionsTest, RequestCountOutOfRange_Aborts)
{
    struct {
        uint32_t count;
        std::string text;
    } const cases[] = {{7, "sreqs_cnt >= 8"}, {0, "sreqs_cnt >= 8"}, {65, "sreqs_cnt <= 64"}};
    for (const auto &c : cases) {
        driver.sreqs_cnt = c.count;
        ChildResult child = run_in_child([&] { return ruk_open(&loopback, 0, &dev); });
        EXPECT_TRUE(child.killed_by(SIGABRT)) << child;
        const std::string start = "ruk: assertion: <<" + c.text + ">>  failed at line ";
        const std::string end = ", file ruk_open\n";
        EXPECT_EQ(child.out.substr(0, start.size()), start);
        ASSERT_GT(child.out.size(), end.size());
        EXPECT_EQ(child.out.substr(child.out.size() - end.size()), end);
    }
}

TEST_F(RegionsTest, SetUpOfAnOpenEndpoint_Aborts)
{
    open();
    ChildResult child = run_in_child([&] { return enable_endpoint(dev); });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child;
    const std::string start = "ruk: assertion: <<rep->rep_state == REP_STATE_ALLOC>>  failed at line ";
    EXPECT_EQ(child.out.substr(0, start.size()), start);
}

/* Every page of the receive queue is in the process's page table, so that no receive faults. */
TEST_F(RegionsTest, Enabled_ReceiveQueuePrefaulted)
{
    driver.block.recvq_offset = 0x100000;
    driver.block.recvq_len = 0x100000;
    open();
    int pagemap = real::open("/proc/self/pagemap", O_RDONLY);
    ASSERT_GE(pagemap, 0);
    const uintptr_t page = 4096;
    for (uintptr_t at = 0; at < 0x100000; at += page) {
        uint64_t entry = 0;
        off_t offset = static_cast<off_t>((dev->rep_map.map_recvq + at) / page * sizeof entry);
        ASSERT_EQ(pread(pagemap, &entry, sizeof entry, offset), 8);
        EXPECT_TRUE(entry >> 63) << at;
    }
    real::close(pagemap);
}

/* ------------------------------------------------------------------ regions that are not there */

TEST_F(RegionsTest, LengthZero_NotMappedAndNotUnmapped)
{
    driver.block.sendq_len = 0;
    open();
    EXPECT_EQ(dev->rep_map.map_sendq, 0u);
    EXPECT_EQ(dev->rep_map.map_sendq_len, 0u);
    EXPECT_EQ(driver.count("mmap"), 6u);
    EXPECT_EQ(driver.count("mmap 10000"), 0u);
    driver.take_trace();
    close();
    EXPECT_EQ(driver.trace, (Lines{"munmap 20000+8000", "munmap 40000+4000", "munmap 50000+1000", "munmap 60000+1000",
                                   "munmap 70000+1000", "munmap 80000+1000", "close"}));
}

TEST_F(RegionsTest, FlowRegionCannotBeMapped_AllGivenBack_MayBeTriedAgain)
{
    open(RUK_OPEN_DISABLED);
    driver.take_trace();
    driver.mmap_errors[0x70000] = EAGAIN;
    EXPECT_EQ(ruk_device_enable(dev), EINVAL);
    EXPECT_EQ(driver.take_trace(),
              (Lines{"50EA", "5091", "mmap 20000+8000 rw", "mmap 10000+4000 rw", "mmap 40000+4000 rw",
                     "mmap 50000+1000 rw", "mmap 60000+1000 ro", "mmap 70000+1000 rw", "munmap 10000+4000",
                     "munmap 10000+4000", "munmap 20000+8000", "munmap 40000+4000", "munmap 50000+1000",
                     "munmap 60000+1000", "munmap ffffffff+1000"}));
    EXPECT_EQ(dev->rep_state, REP_STATE_ALLOC);
    EXPECT_EQ(dev->rep_map.map_kflow_window, UINTPTR_MAX);
    EXPECT_EQ(dev->rep_map.map_kflow_window_len, 0x1000u);
    EXPECT_NE(dev->rep_map.map_recvq, 0u) << "the fields keep their values";
    EXPECT_EQ(dev->rep_map.map_recvq_len, 0x8000u);
    EXPECT_EQ(dev->rep_map.map_send_compcnt, 0u);

    driver.mmap_errors.clear();
    EXPECT_EQ(ruk_device_enable(dev), 0);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
    driver.take_trace();
    close();
    EXPECT_EQ(driver.trace, release + Lines{"close"});
}

/* ------------------------------------------------------------------ one region */

/* The offset is a 32-bit number without a sign, the file's offsets are wider. */
TEST(Region, OffsetInTheUpperHalf_PassedOnAsItStands)
{
    LibcHookGuard hooks;
    int64_t told = -1;
    size_t told_length = 0;
    hooks->mmap = [&](void *, size_t length, int, int, int, off_t offset) {
        told = offset;
        told_length = length;
        return reinterpret_cast<void *>(0x5000);
    };
    uintptr_t addr = 0, len = 0;
    EXPECT_EQ(map_region("far", 3, &addr, &len, 0x80001000, 0x2000, 0), 0);
    EXPECT_EQ(told, INT64_C(0x80001000));
    EXPECT_EQ(told_length, 0x2000u);
    EXPECT_EQ(addr, 0x5000u);
    EXPECT_EQ(len, 0x2000u);
    EXPECT_EQ(map_region("farthest", 3, &addr, &len, 0xfffff000, 0x1000, 0), 0);
    EXPECT_EQ(told, INT64_C(0xfffff000));
}

TEST(Region, AddressOrLengthZero_NothingUnmapped)
{
    LibcHookGuard hooks;
    std::vector<std::pair<void *, size_t>> unmapped;
    hooks->munmap = [&](void *start, size_t length) {
        unmapped.push_back({start, length});
        return 0;
    };
    unmap_region(0x5000, 0);
    unmap_region(0, 0x1000);
    unmap_region(0, 0);
    EXPECT_TRUE(unmapped.empty());
    unmap_region(0x5000, 0x1000);
    ASSERT_EQ(unmapped.size(), 1u);
    EXPECT_EQ(unmapped[0], std::make_pair(reinterpret_cast<void *>(0x5000), size_t{0x1000}));
}

struct RegionCase {
    const char *name;
    uint32_t offset;
    size_t mapped_before;
};
void PrintTo(const RegionCase &r, std::ostream *os) { *os << r.name; }

class RegionFailureTest : public RegionsTest, public testing::WithParamInterface<RegionCase> {};

TEST_P(RegionFailureTest, MappingFails_InvalidAndReleased)
{
    open(RUK_OPEN_DISABLED);
    driver.take_trace();
    driver.mmap_errors[GetParam().offset] = ENOMEM;
    EXPECT_EQ(ruk_device_enable(dev), EINVAL);
    EXPECT_EQ(driver.count("mmap"), GetParam().mapped_before + 1);
    size_t twice = GetParam().mapped_before >= 1; /* the send queue comes second, and is released twice */
    EXPECT_EQ(driver.count("munmap"), GetParam().mapped_before + 1 + twice);
    EXPECT_EQ(dev->rep_state, REP_STATE_ALLOC);
    EXPECT_EQ(dev->rep_sreq_alloc, nullptr);
    driver.mmap_errors.clear();
    EXPECT_EQ(ruk_device_enable(dev), 0);
}

INSTANTIATE_TEST_SUITE_P(Regions, RegionFailureTest,
                         testing::Values(RegionCase{"ReceiveQueue", 0x20000, 0}, RegionCase{"SendQueue", 0x10000, 1},
                                         RegionCase{"AdapterMemory", 0x40000, 2},
                                         RegionCase{"RequestWindow", 0x50000, 3},
                                         RegionCase{"KernelWindow", 0x60000, 4}, RegionCase{"Flow", 0x70000, 5},
                                         RegionCase{"CompletionVector", 0x80000, 6}),
                         [](const auto &info) { return info.param.name; });

TEST_F(RegionsTest, LaterStepsFail_ErrorReturned_AllGivenBack)
{
    open(RUK_OPEN_DISABLED);
    driver.take_trace();
    driver.fail(OXEL_GET_SREQS_CNT, 1, EIO);
    EXPECT_EQ(ruk_device_enable(dev), EIO);
    EXPECT_EQ(_eventq_current(&dev->rep_eventq.evq_recvq_state), 0u) << "in a ring that is gone";
    EXPECT_EQ(ruk__eventq_count(&dev->rep_eventq), 0);
    Lines trace = driver.take_trace();
    ASSERT_GT(trace.size(), release.size());
    EXPECT_EQ(Lines(trace.end() - static_cast<long>(release.size()), trace.end()), release);
    for (unsigned nth : {1u, 2u}) { /* the records, the pool */
        AllocFault fault(nth);
        EXPECT_EQ(ruk_device_enable(dev), ENOMEM);
        EXPECT_EQ(dev->rep_sreq_alloc, nullptr);
        EXPECT_EQ(dev->rep_sreq_pool, nullptr);
        EXPECT_EQ(dev->rep_state, REP_STATE_ALLOC);
        EXPECT_EQ(driver.count("munmap"), release.size());
        driver.take_trace();
    }
    for (unsigned long command : {OXEL_ENABLE_ENDPT, OXEL_GET_COPYBLOCK}) {
        driver.fail(command, 1, ENOLINK);
        EXPECT_EQ(ruk_device_enable(dev), ENOLINK);
    }
    EXPECT_EQ(driver.count("mmap"), 0u);
}

/* The fields keep their values, so a close unmaps them again. */
TEST_F(RegionsTest, ClosedAfterAFailedSetUp_RegionsUnmappedAgain)
{
    open(RUK_OPEN_DISABLED);
    driver.fail(OXEL_GET_SREQS_CNT, 1, EIO);
    EXPECT_EQ(ruk_device_enable(dev), EIO);
    driver.take_trace();
    close();
    EXPECT_EQ(driver.trace, release + Lines{"close"});
}

/* ------------------------------------------------------------------ debug lines */

TEST_F(RegionsTest, Debug_OneLineARegion)
{
    __ruk_debug = 1;
    driver.block.sendq_len = 0;
    StreamCapture streams;
    open();
    std::string text = streams.err();
    auto pointer = [](uintptr_t p) {
        char hexa[32];
        snprintf(hexa, sizeof hexa, "%#lx", static_cast<unsigned long>(p));
        return std::string(hexa) + "\n";
    };
    const struct ruk__map *m = &dev->rep_map;
    EXPECT_EQ(
        text,
        "RUK (map_region): map recv dataq             off=      131072 len=   32768 ptr=" + pointer(m->map_recvq) +
            "RUK (map_region): map send dataq      SKIP   off=       65536 len=       0 ptr=(nil)\n"
            "RUK (map_region): map j6 ummap               off=      262144 len=   16384 ptr=" +
            pointer(m->map_sram) + "RUK (map_region): map j6 requests            off=      327680 len=    4096 ptr=" +
            pointer(m->map_zreq) + "RUK (map_region): map kwindow                off=      393216 len=    4096 ptr=" +
            pointer(m->map_kwindow) +
            "RUK (map_region): map flow                   off=      458752 len=    4096 ptr=" +
            pointer(m->map_kflow_window) +
            "RUK (map_region): map j6 tx compvec          off=      524288 len=    4096 ptr=" +
            pointer(m->map_send_compcnt));
    EXPECT_EQ(streams.out(), "");
}

TEST_F(RegionsTest, Debug_FailedRegionSaysSo)
{
    __ruk_debug = 1;
    driver.mmap_errors[0x20000] = EPERM;
    StreamCapture streams;
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EINVAL);
    const std::string all_ones = sizeof(void *) == 8 ? "0xffffffffffffffff" : "0xffffffff";
    EXPECT_EQ(streams.err(),
              "RUK (map_region): map recv dataq      FAILED off=      131072 len=   32768 ptr=" + all_ones + "\n");
}

TEST_F(RegionsTest, NotDebugging_Silent)
{
    driver.mmap_errors[0x20000] = EPERM;
    StreamCapture streams;
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EINVAL);
    EXPECT_EQ(streams.out() + streams.err(), "");
}

} // namespace
