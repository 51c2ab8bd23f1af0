/*
 * The event ring and the flow window as bytes of anybody's, within what the firmware guarantees: an event of whole
 * slots that ends in a zero byte, with one to five packets somewhere behind a 32-byte header. Lengths, tags, times and
 * all that the frames hold are free. Datagrams and whole frames are received, and a channel is unbound meanwhile, which
 * counts the packets to come. Nothing outside the ring is ever read: the pages around it cannot be touched.
 */
#include "bytes.h"

#include "recv_rig.h"

#include <utility>

using namespace recv_rig;

namespace {

constexpr uint16_t unbound_tag = 3;
constexpr size_t flow_bytes = sizeof(oxel_endpt_flow_t);

struct Event {
    size_t end; /* bytes from the start of the first to the end of this one */
    unsigned packets;
};

/* An entry in use by a channel that may be unbound. */
ruk_channel_t bind_channel(RigEndpoint &rig)
{
    auto *ch = static_cast<ruk__channel *>(calloc(1, sizeof(ruk__channel)));
    ch->ch_rep = rig.ep;
    ch->ch_fd = -1;
    ch->ch_mif = &rig.mif;
    for (ruk__send_queue &queue : ch->ch_sendhandleq)
        TAILQ_INIT(&queue);
    TAILQ_INIT(&ch->ch_tag_multiq);
    TAILQ_INIT(&ch->ch_mreq_blocked);
    ch->ch_uni_entry = &rig.entry(unbound_tag);
    TAILQ_INIT(&rig.ep->rep_tag_filterq);
    TAILQ_INIT(&rig.ep->rep_tag_delayq);
    TAILQ_INIT(&rig.ep->rep_tag_uniq);
    TAILQ_INSERT_TAIL(&rig.ep->rep_tag_uniq, ch->ch_uni_entry, tage_link);
    ch->ch_uni_entry->tage_channel = ch;
    ch->ch_uni_entry->tage_nuv_tag = unbound_tag;
    TAILQ_INSERT_TAIL(&rig.ep->rep_chanq, ch, ch_link);
    return ch;
}

/*
 * The reader tells the driver how far it is, and writes no other word of the window: the senders' lie there as well.
 * Where it has consumed nothing all is as before.
 */
void check_flow(const RigEndpoint &rig, const uint8_t *before, size_t events, size_t consumed, size_t offset)
{
    oxel_endpt_flow_t flow;
    memcpy(&flow, before, sizeof flow);
    if (events != 0) {
        flow.rx_flow.flow_desc += static_cast<uint32_t>(events);
        flow.rx_flow.flow_data = static_cast<uint32_t>(consumed >> 12);
        flow.rx_flow.flow_data_off = offset;
    }
    FUZZ_REQUIRE(memcmp(rig.flow_memory.data(), &flow, sizeof flow) == 0);
}

/* The tag is kept back for all packets of the events that are there, the current one's counted whole. */
void unbind_channel(RigEndpoint &rig, ruk_channel_t ch, size_t consumed, const std::vector<Event> &events)
{
    unsigned pending = 0;
    for (const Event &event : events)
        pending += event.end > consumed ? event.packets : 0;
    FUZZ_REQUIRE(ruk_unbind(ch) == 0);
    const ruk__tag_entry &entry = rig.entry(unbound_tag);
    FUZZ_REQUIRE(entry.tage_nuv_tag == (pending != 0 ? unbound_tag | RUK_TAG_DELAYED : unbound_tag));
    FUZZ_REQUIRE(pending == 0 || entry.tage_recycle == rig.ep->rep_num_packets + pending);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static RigEndpoint rig;
    static const bool ready = [] {
        rig.bind(0, 0x0a4d0001, 5000);
        rig.bind(1, 0xe0010203, 5000, 0x0a4d0002);
        rig.bind(70, 0xffffffff, 5001);
        rig.entry(unbound_tag).tage_ip_addr = 0x0a4d0001;
        rig.entry(unbound_tag).tage_udp_port = 5002;
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
    const uint8_t order = in.u8(); /* two readers in turn, of two bits each, and when the unbind comes */
    const size_t start = in.u8() * size_t{NUV_UEVT_SLOT} % ring_size;
    evq.evq_recvq_offset = start;
    evq.evq_recvq_flow = start;
    evq.evq_recvq_state = {};
    evq.evq_recvq_state.evs_uevt_cur = reinterpret_cast<volatile nuv_uevt_ruk_t *>(ring + start);
    uint8_t flow[flow_bytes]; /* 16 bytes of the input, from which the others follow; none of them is always zero */
    in.fill(flow, 16);
    for (size_t i = 16; i < flow_bytes; i++)
        flow[i] = static_cast<uint8_t>(flow[i - 16] + 1 + i / 16);
    memcpy(rig.flow_memory.data(), flow, flow_bytes);
    ep->arista_control.arct_status = (choice & 8) != 0 ? ARISTA_STATUS_ACTIVE : ARISTA_STATUS_DISABLED;
    ep->arista_control.arct_kf_hasskew = (choice & 16) != 0;
    const unsigned how = choice >> 5;

    /* The ring's bytes, then what the firmware guarantees of them. */
    in.fill(ring, 8);
    for (size_t i = 8; i < ring_size; i += 8)
        memcpy(ring + i, ring, 8);
    unsigned left = 1 + in.u8() % 3;
    std::vector<Event> events;
    size_t at = start, used = 0;
    while (left-- != 0) {
        const size_t slots = 1 + in.u8() % 32;
        const size_t length = slots * NUV_UEVT_SLOT;
        if (used + length + NUV_UEVT_SLOT > ring_size)
            break;
        std::vector<uint8_t> bytes(length);
        in.fill(bytes.data(), std::min<size_t>(length, 2 + in.left() / (left + 1)));
        bytes[28] = static_cast<uint8_t>(length >> 8);
        bytes[29] = static_cast<uint8_t>(length);
        bytes[NUV_UEVT_PRESENT] = static_cast<uint8_t>(1 + bytes[NUV_UEVT_PRESENT] % NUV_UEVT_MAX_PKTS);
        bytes[31] = static_cast<uint8_t>(32 + bytes[31] % 224);
        bytes[length - 1] = 0;
        for (size_t i = 0; i < length; i++)
            ring[(at + i) % ring_size] = bytes[i];
        at = (at + length) % ring_size;
        used += length;
        events.push_back({used, bytes[NUV_UEVT_PRESENT]});
    }
    ring[at + NUV_UEVT_PRESENT] = 0;
    ring[at + NUV_UEVT_COMPLETE] = NUV_UEVT_FREE_BYTE;

    static uint8_t buffer[70000];
    ruk_recv_info info;
    ruk_channel_t unbound = bind_channel(rig);
    const unsigned unbind_at = order >> 4;
    for (unsigned n = 0; n < 3 * NUV_UEVT_MAX_PKTS + 1; n++) {
        if (n == unbind_at)
            unbind_channel(rig, std::exchange(unbound, nullptr), evq.evq_recvq_flow - start, events);
        if ((how & 1) != 0)
            ruk_recvfrom(ep, RUK_RECV_PEEK, buffer, sizeof buffer, &info);
        if ((how & 2) != 0)
            ruk_recvfrom(ep, RUK_RECV_PEEK_MSG, buffer, sizeof buffer, &info);
        ruk_raw_recv_peek(ep);
        size_t len = 0;
        int rc, tag;
        uint64_t time;
        switch (n % 2 == 0 ? order & 3 : order >> 2 & 3) {
        case 0:
            rc = ruk_raw_recv(ep, RUK_RECV_NONBLOCK, buffer, &len, &time);
            break;
        case 1:
            rc = ruk_raw_recv_nb(ep, buffer, &len, &time, &tag);
            break;
        case 2:
            ruk_raw_recv(ep, RUK_RECV_PEEK_MSG, buffer, &len, &time);
            [[fallthrough]];
        default:
            rc = ruk_recvfrom(ep, RUK_RECV_NONBLOCK, buffer, (how & 4) != 0 ? 16 : sizeof buffer, &info);
            break;
        }
        FUZZ_REQUIRE(len <= UINT16_MAX);
        if (rc != 0)
            break;
    }
    if (unbound)
        unbind_channel(rig, unbound, evq.evq_recvq_flow - start, events);
    FUZZ_REQUIRE(_eventq_present(&evq) == 0); /* all was consumed */
    FUZZ_REQUIRE(evq.evq_recvq_flow - start == used);
    check_flow(rig, flow, events.size(), start + used, at);
    return 0;
}
