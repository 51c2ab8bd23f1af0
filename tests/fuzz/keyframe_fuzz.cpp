/* Keyframes, stamped frames and what looks like them, in each status of the switch feature. */
#include "bytes.h"

#include "recv_rig.h"

using namespace recv_rig;

namespace {

constexpr size_t longest = 1600;
constexpr unsigned frames = 200; /* of one input: time, not correctness */

/* An event of one frame where the endpoint reads next. */
void put(RigEndpoint &rig, std::span<const uint8_t> frame)
{
    const auto length = static_cast<uint16_t>(frame.size());
    nuv_uevt_ruk_t header = {};
    static uint8_t event[longest + 3 * NUV_UEVT_SLOT];
    const size_t bytes =
        (sizeof header + nuv_uevt_pkt_space(length) + NUV_UEVT_SLOT - 1) / NUV_UEVT_SLOT * NUV_UEVT_SLOT;
    header.pkts[0].length = tov_be16(length);
    header.batch_len = tov_be16(static_cast<uint16_t>(bytes));
    header.pkt_cnt = 1;
    header.offset = sizeof header;
    memset(event, 0, bytes);
    memcpy(event, &header, sizeof header);
    memcpy(event + sizeof header + NUV_UEVT_FRAME_OFFSET, frame.data(), length);

    uint8_t *ring = rig.ring_memory.data();
    const size_t at = rig.ep->rep_eventq.evq_recvq_offset, before_end = rig.ring_memory.size() - at;
    memcpy(ring + at, event, std::min(bytes, before_end));
    if (bytes > before_end)
        memcpy(ring, event + before_end, bytes - before_end);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static RigEndpoint rig;
    static const bool ready = [] {
        rig.bind(0, 0x0a4d0001, 5000);
        return true;
    }();
    (void)ready;
    fuzz::Bytes in(data, size);
    arista_control &ctl = rig.ep->arista_control;
    const uint8_t choice = in.u8();
    ctl = {};
    ctl.arct_status = static_cast<arista_tsp_status>(choice % 7);
    ctl.arct_kf_hasskew = (choice & 32) != 0;
    ctl.arct_kf_check_ptp = (choice & 64) != 0;
    ctl.arct_kf_ptp_wait = (choice & 128) != 0 ? UINT64_MAX : in.u64();
    in.fill(&ctl.arct_lastkf, sizeof ctl.arct_lastkf);

    uint64_t last = 0;
    for (unsigned n = 0; n < frames && !in.empty(); n++) {
        static constexpr uint8_t none[1] = {};
        const auto frame = in.stretch(std::max<size_t>(in.u16() % longest, 1));
        put(rig, frame.empty() ? none : frame);
        for (;;) {
            ruk_recv_info info = {};
            uint8_t buffer[64];
            if (ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, buffer, sizeof buffer, &info) != 0)
                break;
        }
        FUZZ_REQUIRE(ctl.arct_last_ts >= last); /* never backwards, whatever a keyframe claims */
        last = ctl.arct_last_ts;
    }
    return 0;
}
