/* Adapter identity, the list of adapters, and the element pool. */
#include "fake_driver.h"
#include "tov.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <vector>

using namespace test_support;

/* ------------------------------------------------------------------ identity */

TEST(AdapterIdentity, MacAddress_Converted_FirstByteMostSignificant)
{
    const uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    uint64_t id = UINT64_MAX;
    tov_macaddr_to_nic_id(mac, &id);
    EXPECT_EQ(id, 0x0000021122334455u);
    const uint8_t ones[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    tov_macaddr_to_nic_id(ones, &id);
    EXPECT_EQ(id, 0x0000ffffffffffffu);
}

TEST(AdapterIdentity, Number_Converted_SixBytesAndNoMore)
{
    uint8_t bytes[8];
    memset(bytes, 0xa5, sizeof bytes);
    tov_nic_id_to_macaddr(0xbeef021122334455u, bytes + 1);
    EXPECT_EQ(memcmp(bytes, "\xa5\x02\x11\x22\x33\x44\x55\xa5", 8), 0);
}

TEST(AdapterIdentity, Formatted_LowerCaseHexWithColons)
{
    char text[19];
    memset(text, 'z', sizeof text);
    tov_nic_id_to_str(text, 0x02abcdef0900, 18);
    EXPECT_STREQ(text, "02:ab:cd:ef:09:00");
    EXPECT_EQ(text[18], 'z');
    tov_nic_id_to_str(text, 0xffffffffffffffff, 18);
    EXPECT_STREQ(text, "ff:ff:ff:ff:ff:ff");
}

TEST(AdapterIdentity, BufferTooSmall_Formatted_CutAndTerminated)
{
    char text[18];
    memset(text, 'z', sizeof text);
    tov_nic_id_to_str(text, 0xffffffffffff, 10);
    EXPECT_STREQ(text, "ff:ff:ff:");
    EXPECT_EQ(text[10], 'z');
    tov_nic_id_to_str(text, 0xffffffffffff, 1);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(text[1], 'f');
    memset(text, 'z', sizeof text);
    tov_nic_id_to_str(text, 0xffffffffffff, 0);
    EXPECT_EQ(std::string(text, sizeof text), std::string(18, 'z')) << "no room, nothing written";
}

TEST(AdapterIdentity, BufferLargerThanTheText_Formatted_LastByteTerminatedToo)
{
    char text[24];
    memset(text, 'z', sizeof text);
    tov_nic_id_to_str(text, 0x021122334455, 22);
    EXPECT_STREQ(text, "02:11:22:33:44:55");
    EXPECT_EQ(text[18], 'z');
    EXPECT_EQ(text[21], '\0');
    EXPECT_EQ(text[22], 'z');
}

/* ------------------------------------------------------------------ adapter list */

namespace {

struct AdapterList : testing::Test {
    AdapterList() { driver.files["/dev/oxelBp0"] = 0; }
    ~AdapterList() override
    {
        if (list != untouched)
            tov_free_nicinfo(list);
    }

    /* The driver commands of one board's listing, in order. */
    static std::vector<unsigned long> board_commands() { return {0x4D0D, 0x4D0A, 0x4D32, 0x50B4, 0x4D37}; }

    struct tov_nic_info *const untouched = reinterpret_cast<struct tov_nic_info *>(16);
    struct tov_nic_info *list = untouched;
    int num = -5;
    FakeDriver driver;
};

} // namespace

TEST_F(AdapterList, TwoAdapters_Listed_FieldsAsTheDriverSays)
{
    driver.boards = {{0x026f78000001, 0x021234567890, 3, 0xfffffffe, 0}, {0x026f78000002, 0x026f78000002, 4, 0x3, 0}};
    driver.max_endpts = 12;
    ASSERT_EQ(tov_get_nicinfo(&list, &num), 0);
    ASSERT_EQ(num, 2);
    EXPECT_EQ(list[0].boardnum, 0u);
    EXPECT_EQ(list[0].nic_type, 3u);
    EXPECT_EQ(list[0].nic_id, 0x026f78000001u);
    EXPECT_EQ(list[0].nic_max_endpoints, 12u);
    EXPECT_EQ(list[0].nic_link_state, 0u) << "bit 0 alone counts";
    EXPECT_EQ(list[0].curr_nic_id, 0x021234567890u);
    EXPECT_EQ(list[1].boardnum, 1u);
    EXPECT_EQ(list[1].nic_type, 4u);
    EXPECT_EQ(list[1].nic_id, 0x026f78000002u);
    EXPECT_EQ(list[1].nic_max_endpoints, 12u);
    EXPECT_EQ(list[1].nic_link_state, 1u);
    EXPECT_EQ(list[1].curr_nic_id, 0x026f78000002u);
}

TEST_F(AdapterList, TwoAdapters_Listed_CommandsInOrderOnOneHandleThenClosed)
{
    driver.boards.resize(2);
    ASSERT_EQ(tov_get_nicinfo(&list, &num), 0);
    std::vector<unsigned long> expected = {0x4D05};
    for (int i = 0; i < 2; i++)
        for (unsigned long command : board_commands())
            expected.push_back(command);
    EXPECT_EQ(driver.table.ioctl_requests(), expected);
    for (const SocketCall &call : driver.table.log())
        EXPECT_EQ(call.fd, driver.handle);
    EXPECT_EQ(driver.table.log().back().slot, Slot::close);
    EXPECT_EQ(driver.table.count(Slot::close), 1u);
    EXPECT_EQ(driver.opens, std::vector<std::string>{"/dev/oxelBp0"});
}

TEST_F(AdapterList, ThirdBoard_Asked_BoardNumberStandsInTheArguments)
{
    driver.boards.resize(3);
    std::vector<uint32_t> words;
    for (unsigned long command : {0x4D0Dul, 0x4D37ul})
        driver.table.on_ioctl[command] = [&](int, void *arg) {
            unsigned char record[16];
            memcpy(record, arg, sizeof record);
            words.push_back(record[0] | record[1] << 8 | record[2] << 16 | static_cast<uint32_t>(record[3]) << 24);
            const uint64_t id = 0x0000010203040506;
            memcpy(static_cast<char *>(arg) + 8, &id, 8);
            return 0;
        };
    for (unsigned long command : {0x4D0Aul, 0x50B4ul})
        driver.table.on_ioctl[command] = [&](int, void *arg) {
            words.push_back(*static_cast<uint32_t *>(arg));
            return 0;
        };
    ASSERT_EQ(tov_get_nicinfo(&list, &num), 0);
    EXPECT_EQ(words, (std::vector<uint32_t>{0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2}));
    EXPECT_EQ(list[2].nic_id, 0x010203040506u);
    EXPECT_EQ(list[2].curr_nic_id, 0x010203040506u);
}

TEST_F(AdapterList, NoAdapter_Listed_SuccessWithNullAndZero)
{
    driver.boards.clear();
    AllocFault allocations;
    ASSERT_EQ(tov_get_nicinfo(&list, &num), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(num, 0);
    EXPECT_EQ(allocations.calls(), 0u);
    EXPECT_EQ(driver.table.count(Slot::close), 1u);
}

TEST_F(AdapterList, CurrentIdentityUnknown_Listed_FactoryIdentityInstead)
{
    driver.boards = {{0x026f78000001, 0x02aaaaaaaaaa, 1, 1, EINVAL}, {0x026f78000002, 0x02bbbbbbbbbb, 1, 1, 0}};
    ASSERT_EQ(tov_get_nicinfo(&list, &num), 0);
    ASSERT_EQ(num, 2);
    EXPECT_EQ(list[0].curr_nic_id, 0x026f78000001u);
    EXPECT_EQ(list[1].curr_nic_id, 0x02bbbbbbbbbbu);
}

TEST_F(AdapterList, CurrentIdentityCommandFailsHalfway_Listed_ItsScrapsIgnored)
{
    driver.table.on_ioctl[0x4D37] = [](int, void *arg) {
        memset(arg, 0xee, 16);
        errno = EIO;
        return -1;
    };
    ASSERT_EQ(tov_get_nicinfo(&list, &num), 0);
    EXPECT_EQ(list[0].curr_nic_id, 0x026f78000001u);
}

TEST_F(AdapterList, AnyOtherCommandFails_Listed_ItsErrorAndOutputsUntouched)
{
    driver.boards.resize(2);
    for (unsigned long command : {0x4D05ul, 0x4D0Dul, 0x4D0Aul, 0x4D32ul, 0x50B4ul})
        for (unsigned nth : {1u, 2u}) {
            if (command == 0x4D05 && nth == 2)
                continue;
            driver.table.clear();
            driver.table.fail_ioctl(command, nth, EPROTO);
            EXPECT_EQ(tov_get_nicinfo(&list, &num), EPROTO) << std::hex << command;
            EXPECT_EQ(list, untouched);
            EXPECT_EQ(num, -5);
            EXPECT_EQ(driver.table.ioctl_requests().back(), command) << "the listing stops there";
            EXPECT_EQ(driver.table.count(Slot::close), 1u);
            EXPECT_EQ(driver.table.log().back().slot, Slot::close);
        }
}

TEST_F(AdapterList, NoMemory_Listed_EnomemHandleClosedOutputsUntouched)
{
    {
        AllocFault fault(1);
        EXPECT_EQ(tov_get_nicinfo(&list, &num), ENOMEM);
        EXPECT_EQ(fault.calls(), 1u);
    }
    EXPECT_EQ(list, untouched);
    EXPECT_EQ(num, -5);
    EXPECT_EQ(driver.table.ioctl_requests(), std::vector<unsigned long>{0x4D05});
    EXPECT_EQ(driver.table.count(Slot::close), 1u);
}

TEST_F(AdapterList, AbsurdAdapterCount_Listed_Enomem)
{
    /* More than a 32-bit process can hold; elsewhere the allocator is told to refuse. */
    driver.table.on_ioctl[0x4D05] = [](int, void *arg) {
        *static_cast<uint32_t *>(arg) = UINT32_MAX;
        return 0;
    };
    AllocFault fault(sizeof(void *) == 4 ? 0 : 1);
    EXPECT_EQ(tov_get_nicinfo(&list, &num), ENOMEM);
    EXPECT_EQ(list, untouched);
}

TEST_F(AdapterList, DeviceCannotBeOpened_Listed_SearchResultUnchanged)
{
    const struct {
        int open_error, result;
    } cases[] = {{ENOENT, ENOENT}, {ENXIO, ENODEV}, {EACCES, EACCES}, {EMFILE, EBUSY}};
    for (auto c : cases) {
        driver.files["/dev/oxelBp0"] = c.open_error;
        driver.files["/dev/oxelB0"] = c.open_error;
        EXPECT_EQ(tov_get_nicinfo(&list, &num), c.result);
        EXPECT_EQ(list, untouched);
        EXPECT_EQ(num, -5);
    }
    EXPECT_TRUE(driver.table.log().empty()) << "nothing to command, nothing to close";
}

TEST(AdapterListRelease, NullList_Freed_Harmless) { tov_free_nicinfo(nullptr); }

/* ------------------------------------------------------------------ pool */

namespace {

struct Pool : testing::Test {
    void make(size_t size, size_t elem_sz)
    {
        storage.assign(size + 16, static_cast<char>(0xa5));
        ASSERT_EQ(tov_mpool_init(storage.data(), size, elem_sz, &pool), 0);
    }
    ~Pool() override { tov_mpool_fini(pool); }

    std::vector<char> storage;
    struct tov_mpool *pool = nullptr;
};

} // namespace

TEST_F(Pool, EightElements_AllTaken_AscendingThenNull)
{
    make(8 * 72, 72);
    EXPECT_EQ(pool->base, storage.data());
    EXPECT_EQ(pool->size, 576u);
    EXPECT_EQ(pool->elem_sz, 72u);
    EXPECT_EQ(pool->elem_avail, 8);
    EXPECT_EQ(pool->elem_next, storage.data());
    for (int k = 0; k < 8; k++) {
        EXPECT_FALSE(tov_mpool_isempty(pool));
        EXPECT_EQ(tov_mpool_alloc(pool), storage.data() + 72 * k);
        EXPECT_EQ(pool->elem_avail, 7 - k);
    }
    EXPECT_TRUE(tov_mpool_isempty(pool));
    EXPECT_EQ(pool->elem_next, nullptr);
    EXPECT_EQ(tov_mpool_alloc(pool), nullptr);
    EXPECT_EQ(tov_mpool_alloc(pool), nullptr);
    EXPECT_EQ(pool->elem_avail, 0);
}

TEST_F(Pool, NewPool_FreeList_ThreadedThroughFirstWordsOnly)
{
    make(3 * 24, 24);
    for (int k = 0; k < 3; k++) {
        char *elem = storage.data() + 24 * k;
        char *link;
        memcpy(&link, elem, sizeof link);
        EXPECT_EQ(link, k < 2 ? elem + 24 : nullptr);
        for (size_t b = sizeof link; b < 24; b++)
            EXPECT_EQ(elem[b], static_cast<char>(0xa5));
    }
}

TEST_F(Pool, TwoFreed_TakenAgain_LastFreedFirst)
{
    make(8 * 64, 64);
    void *elems[8];
    for (void *&e : elems)
        e = tov_mpool_alloc(pool);
    ASSERT_EQ(tov_mpool_alloc(pool), nullptr);
    tov_mpool_free(pool, elems[2]);
    tov_mpool_free(pool, elems[5]);
    EXPECT_EQ(pool->elem_avail, 2);
    EXPECT_FALSE(tov_mpool_isempty(pool));
    EXPECT_EQ(tov_mpool_alloc(pool), elems[5]);
    EXPECT_EQ(tov_mpool_alloc(pool), elems[2]);
    EXPECT_EQ(tov_mpool_alloc(pool), nullptr);
}

TEST_F(Pool, ElementFreedAndTaken_Contents_UntouchedBehindTheFirstWord)
{
    make(2 * 32, 32);
    char *a = static_cast<char *>(tov_mpool_alloc(pool));
    char *link;
    memcpy(&link, a, sizeof link);
    EXPECT_EQ(link, storage.data() + 32) << "the old link is still there";
    memset(a, 0x5a, 32);
    tov_mpool_free(pool, a);
    ASSERT_EQ(tov_mpool_alloc(pool), a);
    memcpy(&link, a, sizeof link);
    EXPECT_EQ(link, storage.data() + 32);
    for (size_t b = sizeof link; b < 32; b++)
        EXPECT_EQ(a[b], 0x5a);
}

TEST_F(Pool, StorageNotAMultiple_AllTaken_RestNeverHandedOut)
{
    make(3 * 20 + 19, 20);
    EXPECT_EQ(pool->elem_avail, 3);
    for (int k = 0; k < 3; k++)
        EXPECT_EQ(tov_mpool_alloc(pool), storage.data() + 20 * k);
    EXPECT_EQ(tov_mpool_alloc(pool), nullptr);
    for (size_t b = 60; b < storage.size(); b++)
        EXPECT_EQ(storage[b], static_cast<char>(0xa5));
}

TEST_F(Pool, OneElement_TakenAndFreed_RoundAndRound)
{
    make(sizeof(void *), sizeof(void *));
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(tov_mpool_alloc(pool), storage.data());
        EXPECT_EQ(tov_mpool_alloc(pool), nullptr);
        tov_mpool_free(pool, storage.data());
    }
}

TEST_F(Pool, InUse_TakingAndFreeing_AllocatesNothing)
{
    make(4 * 16, 16);
    AllocFault allocations;
    void *e = tov_mpool_alloc(pool);
    tov_mpool_free(pool, e);
    EXPECT_EQ(allocations.calls(), 0u);
}

TEST(PoolSetUp, NoMemory_Init_EnomemAndPoolUnset)
{
    char storage[64] = {};
    struct tov_mpool *pool = reinterpret_cast<struct tov_mpool *>(16);
    AllocFault fault(1);
    EXPECT_EQ(tov_mpool_init(storage, sizeof storage, 16, &pool), ENOMEM);
    EXPECT_EQ(pool, reinterpret_cast<struct tov_mpool *>(16));
}

TEST(PoolRelease, NullPool_Finished_Harmless) { tov_mpool_fini(nullptr); }

TEST(PoolRelease, Storage_PoolFinished_StillTheOwners)
{
    char *storage = static_cast<char *>(malloc(64));
    struct tov_mpool *pool;
    ASSERT_EQ(tov_mpool_init(storage, 64, 16, &pool), 0);
    tov_mpool_fini(pool);
    memset(storage, 1, 64); /* the address sanitizer objects if it was freed */
    free(storage);
}
