// Send requests: from the window to the wire, and their completions.
#include "rig.h"

#include <thread>

namespace softnic_test {
namespace {

Bytes sent(Nic &nic)
{
    Bytes frame(2000);
    frame.resize(softnic_take_sent(nic, 0, frame.data(), frame.size()));
    return frame;
}

Bytes header(size_t n = 42)
{
    Bytes h(n);
    for (size_t i = 0; i < n; i++)
        h[i] = static_cast<uint8_t>(0x80 + i);
    return h;
}

Bytes join(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Send, PioRequest_TakesItsPayloadFromTheWindowAtItsOffset)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    const Bytes payload(30, 0x61);
    memcpy(dev.sram + 4099, payload.data(), payload.size());
    dev.post(13, 4099, header(), 30);
    EXPECT_EQ(dev.completions(), 0u);
    softnic_run(nic);
    EXPECT_EQ(sent(nic), join(header(), payload));
    EXPECT_EQ(dev.completions(), 1u);
    EXPECT_EQ(nic.counters().frames_sent, 1u);
}

TEST(Send, DmaRequest_TakesItsPayloadFromTheSendQueue)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    const Bytes payload(1472, 0x62);
    memcpy(dev.sendq + (256 << 10) - 1472, payload.data(), payload.size());
    dev.post(14, (256 << 10) - 1472, header(), 1472);
    softnic_run(nic);
    EXPECT_EQ(sent(nic), join(header(), payload));
}

TEST(Send, ShortFrame_IsPaddedTo60Bytes)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    dev.post(13, 0, header(), 0);
    softnic_run(nic);
    EXPECT_EQ(sent(nic), join(header(), Bytes(18, 0)));
}

TEST(Send, SlotsAreClearedSoThatARequestIsSentOnce)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    dev.post(13, 0, header(), 0);
    softnic_run(nic);
    softnic_run(nic);
    EXPECT_EQ(softnic_sent_count(nic, 0), 1u);
    EXPECT_EQ(dev.zreq[13 * 256 + 63], 0);
}

TEST(Send, CompletionCounter_IsBigEndianInTheEndpointsPlaceAndWraps)
{
    Nic nic;
    Device a, b;
    ASSERT_EQ(a.set_up(0), 0);
    ASSERT_EQ(b.set_up(5), 0);
    for (int i = 0; i < 258; i++) {
        b.post(13, 0, header(), 0);
        softnic_run(nic);
    }
    EXPECT_EQ(b.compcnt[10], 1);
    EXPECT_EQ(b.compcnt[11], 2);
    EXPECT_EQ(a.completions(0), 0u);
    softnic_bump_completions(nic, 0, 5, 65536 - 258);
    EXPECT_EQ(b.completions(5), 0u);
    b.post(13, 0, header(), 0);
    softnic_run(nic);
    EXPECT_EQ(b.completions(5), 1u);
}

struct Hostile {
    const char *name;
    uint8_t type;
    uint8_t header_length;
    uint32_t offset;
    uint16_t length;
    const char *counter; // null: the request is good
};

class HostileRequest : public testing::TestWithParam<Hostile> {};

TEST_P(HostileRequest, Request_IsCountedAndNeverReadsOutsideItsRing)
{
    const Hostile &h = GetParam();
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    nuv_ureq_t r = {};
    const uint32_t offset = __builtin_bswap32(h.offset);
    const uint16_t length = __builtin_bswap16(h.length);
    memcpy(r.bytes, &offset, 4);
    memcpy(r.bytes + 4, &length, 2);
    r.bytes[62] = h.header_length;
    r.bytes[63] = h.type;
    ASSERT_EQ(softnic_post_request(nic, 0, 0, &r), 1);
    softnic_run(nic);
    const auto c = nic.counters();
    EXPECT_EQ(c.requests, 1u);
    const std::string counter = h.counter != nullptr ? h.counter : "";
    EXPECT_EQ(c.bad_type, counter == "type" ? 1u : 0u);
    EXPECT_EQ(c.bad_header, counter == "header" ? 1u : 0u);
    EXPECT_EQ(c.bad_payload, counter == "payload" ? 1u : 0u);
    EXPECT_EQ(softnic_sent_count(nic, 0), counter.empty() ? 1u : 0u);
    // The library waits for the requests that it posts, good or not; an unknown type is none of them.
    EXPECT_EQ(dev.completions(), counter == "type" ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, HostileRequest,
    testing::Values(
        Hostile{"longestHeader", 13, 56, 0, 10, nullptr}, Hostile{"headerTooLong", 13, 57, 0, 10, "header"},
        Hostile{"headerOf255", 14, 255, 0, 10, "header"}, Hostile{"noHeader", 13, 0, 0, 10, "header"},
        Hostile{"wholePioRing", 13, 42, 0, 8192, nullptr}, Hostile{"pastThePioRing", 13, 42, 1, 8192, "payload"},
        Hostile{"atThePioRingsEnd", 13, 42, 8192, 0, nullptr}, Hostile{"intoTheDoorbell", 13, 42, 16376, 8, "payload"},
        Hostile{"beyondThePioRing", 13, 42, 8193, 0, "payload"},
        Hostile{"offsetThatWraps", 13, 42, 0xFFFFFFFF, 2, "payload"}, Hostile{"longestDma", 14, 42, 0, 65535, nullptr},
        Hostile{"pastTheSendQueue", 14, 42, (256 << 10) - 100, 101, "payload"},
        Hostile{"farPastTheSendQueue", 14, 42, 0x80000000, 1, "payload"}, Hostile{"type12", 12, 42, 0, 1, "type"},
        Hostile{"type15", 15, 42, 0, 1, "type"}, Hostile{"type255", 255, 42, 0, 1, "type"},
        Hostile{"type0", 0, 42, 0, 1, "type"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(Send, ArbitraryRequestBytes_AreAllAccountedFor)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    uint64_t random = 99;
    for (int i = 0; i < 20000; i++) {
        nuv_ureq_t r;
        for (uint8_t &byte : r.bytes) {
            random = random * 6364136223846793005u + 1442695040888963407u;
            byte = static_cast<uint8_t>(random >> 56);
        }
        if (i % 2)
            r.bytes[63] = static_cast<uint8_t>(13 + i / 2 % 2);
        if (i % 3)
            r.bytes[62] %= 57;
        if (i % 5)
            r.bytes[0] = r.bytes[1] = 0;
        ASSERT_EQ(softnic_post_request(nic, 0, 0, &r), 1);
        softnic_run(nic);
    }
    const auto c = nic.counters();
    EXPECT_EQ(c.requests, 20000u);
    EXPECT_EQ(c.requests, c.frames_sent + c.bad_type + c.bad_header + c.bad_payload);
    EXPECT_GT(c.frames_sent, 100u);
    EXPECT_GT(c.bad_payload, 100u);
}

TEST(Send, UnknownTypeInItsSlot_IsTakenAndCounted)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    nuv_ureq_t r = {};
    r.bytes[62] = 42;
    r.bytes[63] = 3;
    dev.post_raw(3, r);
    softnic_run(nic);
    EXPECT_EQ(nic.counters().bad_type, 1u);
}

TEST(Send, MoreRequestsThanCanWait_AreCountedAsLost)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.manual_sends = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    nuv_ureq_t r = {};
    r.bytes[62] = 42;
    r.bytes[63] = 13;
    unsigned accepted = 0;
    for (int i = 0; i < 200; i++)
        accepted += static_cast<unsigned>(softnic_post_request(nic, 0, 0, &r));
    EXPECT_EQ(accepted, 128u);
    EXPECT_EQ(nic.counters().post_overflow, 72u);
    EXPECT_EQ(softnic_posted_requests(nic, 0, 0), 128u);
}

TEST(Send, ManualBoard_TakesAndCompletesWhenTold)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.manual_sends = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    nuv_ureq_t r = {};
    r.bytes[62] = 42;
    r.bytes[63] = 13;
    for (int i = 0; i < 5; i++) {
        r.bytes[6] = static_cast<uint8_t>(i);
        softnic_post_request(nic, 0, 0, &r);
    }
    softnic_run(nic);
    EXPECT_EQ(softnic_sent_count(nic, 0), 0u);
    EXPECT_EQ(softnic_complete_requests(nic, 0, 0, 1), 0u); // none taken
    EXPECT_EQ(softnic_take_requests(nic, 0, 0, 3), 3u);
    EXPECT_EQ(softnic_sent_count(nic, 0), 3u);
    EXPECT_EQ(dev.completions(), 0u);
    EXPECT_EQ(softnic_complete_requests(nic, 0, 0, 1), 1u);
    EXPECT_EQ(dev.completions(), 1u);
    EXPECT_EQ(softnic_take_requests(nic, 0, 0, 99), 2u);
    EXPECT_EQ(softnic_complete_requests(nic, 0, 0, 99), 4u);
    EXPECT_EQ(dev.completions(), 5u);
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(sent(nic)[0], i); // in order
}

TEST(Send, TakenRequests_CanBeLookedAtByteForByte)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(2), 0);
    dev.post(13, 0x01020304, header(), 0x0506);
    softnic_run(nic);
    uint8_t bytes[64];
    unsigned endpoint = 99;
    ASSERT_EQ(softnic_next_request(nic, 0, &endpoint, bytes), 1);
    EXPECT_EQ(endpoint, 2u);
    EXPECT_EQ(Bytes(bytes, bytes + 6), (Bytes{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(Bytes(bytes + 6, bytes + 48), header());
    EXPECT_EQ(bytes[62], 42);
    EXPECT_EQ(bytes[63], 13);
    EXPECT_EQ(softnic_next_request(nic, 0, &endpoint, bytes), 0);
}

TEST(Send, WireThatRefuses_CompletesTheRequestAndCountsTheError)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    softnic_fail_sends(nic, 0, ENOBUFS, 1);
    for (int i = 0; i < 2; i++) {
        dev.post(13, 0, header(), 0);
        softnic_run(nic);
    }
    EXPECT_EQ(dev.completions(), 2u);
    EXPECT_EQ(nic.counters().send_errors, 1u);
    EXPECT_EQ(nic.counters().frames_sent, 1u);
}

TEST(Send, PostedBeforeTheClose_StillLeaves)
{
    Nic nic;
    {
        Device dev;
        ASSERT_EQ(dev.set_up(), 0);
        dev.post(13, 0, header(), 0);
    }
    EXPECT_EQ(softnic_sent_count(nic, 0), 1u);
}

TEST(WaitSend, CompletionsNotReaped_ReturnAtOnce)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.manual_sends = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    softnic_bump_completions(nic, 0, 0, 1);
    int32_t timeo = -1;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    dev.flow->tx_flow.flow_desc = 1; // reaped: now there is nothing to return for
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), EDEADLK);
}

TEST(WaitSend, RunsTheFirmwareOfASteppedAdapter)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    dev.post(13, 0, header(), 0);
    int32_t timeo = -1;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    EXPECT_EQ(dev.completions(), 1u);
}

TEST(WaitSend, LimitThatPasses_IsNoErrorAndMovesVirtualTime)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    int32_t timeo = 250;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    EXPECT_EQ(softnic_now(nic), kStart + 250000000u);
    timeo = 0;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    timeo = -2;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), EINVAL);
}

TEST(WaitSend, EndpointClaimedButNotEnabled_EinvalWithoutWaiting)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.claim(0), 0);
    for (int32_t timeo : {-1, 0, 250})
        EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), EINVAL) << timeo;
    EXPECT_EQ(softnic_now(nic), kStart);
    ASSERT_EQ(dev.enable(), 0);
    int32_t timeo = 250;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    EXPECT_EQ(softnic_now(nic), kStart + 250000000u);
}

TEST(WaitSend, Hook_DecidesWhatHappensWhileItWaits)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.manual_sends = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    struct Context {
        softnic_t *nic;
        int calls;
    } context = {nic, 0};
    softnic_set_wait_hook(
        nic,
        [](void *c, unsigned board) {
            auto *ctx = static_cast<Context *>(c);
            if (++ctx->calls == 3)
                softnic_bump_completions(ctx->nic, board, 0, 1);
            return ctx->calls > 3 ? EINTR : 0;
        },
        &context);
    int32_t timeo = -1;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    EXPECT_EQ(context.calls, 3);
    dev.flow->tx_flow.flow_desc = 1;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), EINTR);
}

TEST(WaitSend, BlockingWaits_EndWhenAnotherThreadCompletes)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.manual_sends = 1; });
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    softnic_set_blocking_waits(nic, 1);
    std::thread completer([&] {
        usleep(20000);
        softnic_bump_completions(nic, 0, 0, 1);
    });
    int32_t timeo = -1;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    completer.join();
    EXPECT_EQ(dev.completions(), 1u);
}

TEST(WaitSend, HandleClosedMeanwhile_EndsTheWait)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    softnic_set_blocking_waits(nic, 1);
    std::thread closer([&] {
        usleep(20000);
        close(dev.fd);
    });
    int32_t timeo = -1;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), EBADF);
    closer.join();
    dev.fd = -1;
}

} // namespace
} // namespace softnic_test
