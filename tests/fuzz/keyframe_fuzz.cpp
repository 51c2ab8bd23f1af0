/* Keyframes, stamped frames and what looks like them, in each status of the switch feature. */
#include "bytes.h"

#include "recv_rig.h"

using namespace recv_rig;

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
    while (!in.empty()) {
        const size_t length = in.u16() % 1600;
        Bytes frame = in.some(std::max<size_t>(length, 1));
        rig.ring.put({{std::move(frame), 0}});
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
