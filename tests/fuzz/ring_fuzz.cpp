/*
 * The event ring and the flow window as bytes of anybody's, within what the firmware guarantees: an event of whole
 * slots that ends in a zero byte, with one to five packets behind a 32-byte header. Lengths, tags, times and all
 * that the frames hold are free. Nothing outside the ring is ever read: the pages around it cannot be touched.
 */
#include "bytes.h"

#include "recv_rig.h"

using namespace recv_rig;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static RigEndpoint rig;
    static const bool ready = [] {
        rig.bind(0, 0x0a4d0001, 5000);
        rig.bind(1, 0xe0010203, 5000, 0x0a4d0002);
        rig.bind(70, 0xffffffff, 5001);
        rig.clock_is_ticks();
        return true;
    }();
    (void)ready;
    fuzz::Bytes in(data, size);
    ruk__ep *ep = rig.ep;
    ruk__eventq &evq = ep->rep_eventq;
    uint8_t *ring = rig.ring_memory.data();
    const size_t ring_size = rig.ring_memory.size();

    /* An endpoint as after enabling, at a place of the input's choice. */
    const uint8_t choice = in.u8();
    ep->rep_recvq_filter_mode = static_cast<ruk_filter_mode>(choice % 3);
    ep->rep_timestamping_enabled = (choice & 4) != 0;
    const size_t start = in.u8() * size_t{NUV_UEVT_SLOT} % ring_size;
    evq.evq_recvq_offset = start;
    evq.evq_recvq_flow = start;
    evq.evq_recvq_state = {};
    evq.evq_recvq_state.evs_uevt_cur = reinterpret_cast<volatile nuv_uevt_ruk_t *>(ring + start);
    in.fill(rig.flow_memory.data(), 16);
    ep->arista_control.arct_status = (choice & 8) != 0 ? ARISTA_STATUS_ACTIVE : ARISTA_STATUS_DISABLED;
    ep->arista_control.arct_kf_hasskew = (choice & 16) != 0;
    const unsigned how = choice >> 5;

    /* The ring's bytes, then what the firmware guarantees of them. */
    in.fill(ring, 8);
    for (size_t i = 8; i < ring_size; i += 8)
        memcpy(ring + i, ring, 8);
    unsigned events = 1 + in.u8() % 3;
    size_t at = start, used = 0;
    while (events-- != 0) {
        const size_t slots = 1 + in.u8() % 32;
        const size_t length = slots * NUV_UEVT_SLOT;
        if (used + length + NUV_UEVT_SLOT > ring_size)
            break;
        std::vector<uint8_t> bytes(length);
        in.fill(bytes.data(), std::min<size_t>(length, 2 + in.left() / (events + 1)));
        bytes[28] = static_cast<uint8_t>(length >> 8);
        bytes[29] = static_cast<uint8_t>(length);
        bytes[NUV_UEVT_PRESENT] = static_cast<uint8_t>(1 + bytes[NUV_UEVT_PRESENT] % NUV_UEVT_MAX_PKTS);
        bytes[31] = 32;
        bytes[length - 1] = 0;
        for (size_t i = 0; i < length; i++)
            ring[(at + i) % ring_size] = bytes[i];
        at = (at + length) % ring_size;
        used += length;
    }
    ring[at + NUV_UEVT_PRESENT] = 0;
    ring[at + NUV_UEVT_COMPLETE] = NUV_UEVT_FREE_BYTE;

    static uint8_t buffer[70000];
    ruk_recv_info info;
    for (unsigned n = 0; n < 3 * NUV_UEVT_MAX_PKTS + 1; n++) {
        if ((how & 1) != 0)
            ruk_recvfrom(ep, RUK_RECV_PEEK, buffer, sizeof buffer, &info);
        if ((how & 2) != 0)
            ruk_recvfrom(ep, RUK_RECV_PEEK_MSG, buffer, sizeof buffer, &info);
        ruk_raw_recv_peek(ep);
        if (ruk_recvfrom(ep, RUK_RECV_NONBLOCK, buffer, (how & 4) != 0 ? 16 : sizeof buffer, &info) != 0)
            break;
    }
    FUZZ_REQUIRE(_eventq_present(&evq) == 0); /* all was consumed */
    FUZZ_REQUIRE(evq.evq_recvq_flow - start == used);
    return 0;
}
