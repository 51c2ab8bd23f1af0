/* Every call of every operation to host, driver and allocator fails once, and for good. */
#include "own_network.h"
#include "ruk_core.h"
#include "sweep.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace fault;

class FaultSweep : public testing::Test {
protected:
    /* A network of its own where that is to be had: groups are then joined on nobody else's loopback. */
    static void SetUpTestSuite()
    {
        const std::string why_not = test_support::enter_own_network();
        if (!why_not.empty())
            printf("in the host's network: %s\n", why_not.c_str());
    }
};

TEST_F(FaultSweep, EveryCallOfEveryOperation_Fails_ResultAsSaid_NothingLeft_WorksAgain)
{
    unsigned failures = 0, calls = 0;
    std::vector<std::string> findings;
    for (const Operation &op : operations()) {
        const Report report = sweep(op);
        findings.insert(findings.end(), report.findings.begin(), report.findings.end());
        printf("%-60s %3u calls %5u failures\n", op.name.c_str(), report.calls, report.failures);
        calls += report.calls;
        failures += report.failures;
    }
    for (const std::string &finding : findings) /* not before: children would take it for theirs */
        ADD_FAILURE() << finding;
    printf("fault sweep: %zu operations x %u injected failures (of %u calls), %zu findings\n", operations().size(),
           failures, calls, findings.size());
    /* So that a list or a seam that has come undone does not pass. */
    EXPECT_GE(operations().size(), 100u);
    EXPECT_GE(calls, 800u);
    EXPECT_GE(failures, 15000u);
}

/* ------------------------------------------------------------------ the sweep notices */

/* Opens a device file, with a flaw where that fails. */
Operation flawed(const std::function<int(World &, int error)> &flaw)
{
    Operation op;
    op.name = "flawed";
    op.run = [flaw](World &w) {
        const int fd = open("/dev/oxelB0", O_RDWR);
        if (fd < 0)
            return flaw(w, errno);
        close(fd);
        return 0;
    };
    return op;
}

void expect_found(const Operation &op, const std::string &what)
{
    const Report report = sweep(op);
    EXPECT_EQ(report.calls, 2u); /* open and close */
    ASSERT_FALSE(report.findings.empty()) << what;
    EXPECT_NE(report.findings.front().find(what), std::string::npos) << report.findings.front();
}

TEST_F(FaultSweep, OperationWithoutFlaw_NothingFound)
{
    Operation op = flawed([](World &, int error) { return error; });
    op.answers = {{"close", 1, ignored}};
    EXPECT_EQ(sweep(op).findings, std::vector<std::string>{});
}

TEST_F(FaultSweep, WrongResult_Found)
{
    expect_found(flawed([](World &, int) { return EINVAL; }), "result EINVAL, should be result EMFILE");
}

TEST_F(FaultSweep, FailureThatIsHidden_Found)
{
    expect_found(flawed([](World &, int) { return 0; }), "result 0, should be result EMFILE");
}

TEST_F(FaultSweep, MemoryLeft_Found)
{
    static std::vector<void *> left;
    expect_found(flawed([](World &, int error) {
                     left.push_back(malloc(77));
                     return error;
                 }),
                 "left: memory of 77 bytes");
    for (void *block : left)
        free(block);
}

TEST_F(FaultSweep, DescriptorLeft_Found)
{
    static std::vector<int> left;
    expect_found(flawed([](World &, int error) {
                     left.push_back(socket(AF_INET, SOCK_DGRAM, 0));
                     return error;
                 }),
                 "left: descriptor socket");
    for (int fd : left)
        close(fd);
}

TEST_F(FaultSweep, MappingLeft_Found)
{
    static std::vector<void *> left;
    expect_found(flawed([](World &, int error) {
                     left.push_back(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
                     return error;
                 }),
                 "left: mapping of 4096 bytes");
    for (void *at : left)
        munmap(at, 4096);
}

TEST_F(FaultSweep, MembershipLeft_Found)
{
    static std::vector<int> left;
    expect_found(flawed([](World &, int error) {
                     left.push_back(socket(AF_INET, SOCK_DGRAM, 0));
                     const struct ip_mreq mreq = {group_address(), {htonl(HOST)}};
                     EXPECT_EQ(setsockopt(left.back(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof mreq), 0);
                     return error;
                 }),
                 "left: membership");
    for (int fd : left)
        close(fd);
}

TEST_F(FaultSweep, EndpointLockKept_Found)
{
    Operation op = flawed([](World &w, int error) {
        ruk__ep_lock(w.dev);
        return error;
    });
    op.prepare = [](World &w) { w.open(); };
    expect_found(op, "left: endpoint lock held");
}

TEST_F(FaultSweep, TagEntryLost_Found)
{
    Operation op = flawed([](World &w, int error) {
        struct ruk__tag_entry *entry;
        EXPECT_EQ(ruk__get_tag_entry(w.dev, htonl(HOST), 0, 0, &entry), 0);
        return error;
    });
    op.prepare = [](World &w) {
        w.open();
        w.bind();
    };
    expect_found(op, "left: tag entry on no queue");
}

TEST_F(FaultSweep, FailureDoneWithout_LeavesLessThanIsSaid_Found)
{
    Operation op = flawed([](World &, int) { return 0; });
    auto run = op.run;
    op.run = [run](World &w) {
        const int rc = run(w);
        return w.seam.failed() == 0 ? ruk_bind(w.dev, 0, 0, &w, &w.ch) : rc;
    };
    op.prepare = [](World &w) { w.open(); };
    op.answers = {{"open /dev/oxelB0", 1, ignored}};
    const Report report = sweep(op);
    ASSERT_FALSE(report.findings.empty());
    EXPECT_NE(report.findings.front().find("not as an undisturbed one:\n  gone: channel, own entry\n"),
              std::string::npos)
        << report.findings.front();
}

TEST_F(FaultSweep, ExceptionThatNothingNeeds_Found)
{
    Operation op = flawed([](World &, int error) { return error; });
    op.answers = {{"close", 1, ignored}};
    op.leaves = interface_list;
    expect_found(op, "nothing is left of what may be");
}

TEST_F(FaultSweep, FilterThatIsNotRemoved_FoundUnlessItMayStay)
{
    Operation op;
    op.name = "flawed";
    op.prepare = [](World &w) { w.open(); };
    op.run = [](World &w) {
        const int rc = ruk_filter_add(w.dev, 17, 0, htonl(HOST), htons(5000), 77, 0);
        if (rc == 0)
            ruk_filter_del(w.dev, 17, 0, htonl(HOST), htons(5000), 77);
        return rc;
    };
    op.answers = {{"ioctl RX_FILTER", 2, ignored}};
    const Report report = sweep(op);
    ASSERT_FALSE(report.findings.empty());
    EXPECT_NE(report.findings.front().find("left: filter in the adapter"), std::string::npos)
        << report.findings.front();
    op.leaves = kept_filter;
    EXPECT_EQ(sweep(op).findings, std::vector<std::string>{});
}

/* An entry that a bind has given back damages the queues of tags; all but two places of these is compared still. */
TEST_F(FaultSweep, MemoryLeftAfterABindHasGivenItsEntryBack_Found)
{
    static std::vector<void *> left;
    static bool given_back;
    const std::vector<Operation> &list = operations();
    const auto bind = std::find_if(list.begin(), list.end(), [](const Operation &op) { return op.name == "ruk_bind"; });
    ASSERT_NE(bind, list.end());
    Operation op = *bind;
    op.prepare = [bind](World &w) {
        bind->prepare(w);
        given_back = false;
    };
    op.run = [bind](World &w) {
        const int rc = bind->run(w);
        given_back |= rc != 0 && !TAILQ_EMPTY(&w.dev->rep_tag_uniq);
        return rc;
    };
    op.undo = [bind](World &w) {
        bind->undo(w);
        if (given_back)
            w.seam.library([] { left.push_back(malloc(77)); });
    };
    const Report report = sweep(op);
    ASSERT_FALSE(report.findings.empty());
    EXPECT_NE(report.findings.front().find("undone, not as before:\n  left: memory of 77 bytes\n"), std::string::npos)
        << report.findings.front();
    for (void *block : left)
        free(block);
}

TEST_F(FaultSweep, RefusesToBeTriedAgain_Found)
{
    static bool broken;
    broken = false;
    Operation op = flawed([](World &, int error) {
        broken = true;
        return error;
    });
    auto run = op.run;
    op.run = [run](World &w) { return broken ? EIO : run(w); };
    op.prepare = [](World &) { broken = false; };
    expect_found(op, "tried again: result 5");
}

TEST_F(FaultSweep, RuleThatFitsNoCall_Found)
{
    Operation op = flawed([](World &, int error) { return error; });
    op.answers = {{"close", 1, ignored}, {"mmap", 1, ignored}};
    expect_found(op, "the rule for \"mmap\" 1 fits no call");
}

} // namespace
