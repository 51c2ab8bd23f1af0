/*
 * Frames of any content, from the wire of a stepped adapter through each filter mode to an application. Whatever
 * arrives is delivered or counted, and what is delivered lies within its frame.
 */
#include "bytes.h"

#include "adapter_rig.h"
#include "ruk_core.h"

#include <memory>

using namespace adapter_rig;

namespace {

constexpr uint16_t ports[] = {47123, 47124}; /* of the loopback interface */

struct Station {
    Wire wire;
    std::unique_ptr<Endpoint> plain = std::make_unique<Endpoint>(RUK_OPEN_HW_TIMESTAMPING);

    Station()
    {
        plain->bind(ports[0], 0);
        ruk_channel_t grouped = plain->bind(ports[1], RUK_BIND_BROADCAST);
        in_addr group = {htonl(GROUP)}, source = {htonl(PEER)}, other = {htonl(GROUP + 1)};
        FUZZ_REQUIRE(ruk_mcast_join(grouped, &group, nullptr) == 0);
        FUZZ_REQUIRE(ruk_mcast_join_source(grouped, &other, &source) == 0);
    }
};

uint64_t dropped(ruk_device_t dev)
{
    const ruk__epstats &s = reinterpret_cast<ruk__ep *>(dev)->rep_stats;
    return s.dropped_badproto + s.dropped_badfilter + s.dropped_nosock + s.dropped_runts + s.dropped_broadcast_filtered;
}

/* An application's buffer: what lies past the room that it names keeps its pattern. */
class Buffer {
public:
    Buffer()
    {
        memset(bytes_, kPattern, sizeof bytes_);
        memset(untouched_, kPattern, sizeof untouched_);
    }
    void set_room(size_t room)
    {
        if (room_ > room)
            memset(bytes_ + room, kPattern, room_ - room);
        room_ = room;
    }
    size_t room() const { return room_; }
    uint8_t *data() { return bytes_; }
    bool rest_is_untouched() const { return memcmp(bytes_ + room_, untouched_, sizeof bytes_ - room_) == 0; }

    static constexpr size_t kSize = 2048;

private:
    static constexpr uint8_t kPattern = 0xa5;
    size_t room_ = 0;
    uint8_t bytes_[kSize], untouched_[kSize];
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static Station station;
    static Buffer buffer;
    static int mode_now = -1;
    const ruk_device_t dev = station.plain->dev;
    fuzz::Bytes in(data, size);

    softnic_clear_commands(station.wire.nic); /* these logs only grow */
    station.wire.host.sockets.clear();
    const uint8_t choice = in.u8();
    const auto mode = static_cast<ruk_filter_mode>(choice % 3);
    const auto how = (choice & 4) != 0 ? RUK_RECV_PEEK_MSG : RUK_RECV_NONBLOCK;
    buffer.set_room((choice & 8) != 0 ? in.u8() : Buffer::kSize);
    if (mode != mode_now) { /* a command, and so a few system calls */
        FUZZ_REQUIRE(ruk_set_filter_mode(dev, mode) == 0);
        mode_now = mode;
    }
    softnic_set_max_packets(station.wire.nic, 0, 1 + (choice >> 4) % 5);

    const uint64_t drops = dropped(dev), arrived = station.wire.counters().delivered;
    size_t longest = 0;
    do {
        const auto frame = in.stretch(in.u16() % 1600); /* the wire copies it into memory of just its size */
        longest = std::max(longest, frame.size());
        softnic_inject(station.wire.nic, 0, frame.data(), frame.size());
    } while (!in.empty());
    softnic_run(station.wire.nic);

    uint64_t received = 0;
    ruk_recv_info info;
    for (;;) {
        memset(&info, 0, sizeof info);
        if (how != RUK_RECV_NONBLOCK && ruk_recvfrom(dev, how, buffer.data(), buffer.room(), &info) == 0)
            FUZZ_REQUIRE(buffer.rest_is_untouched());
        const int rc = ruk_recvfrom(dev, RUK_RECV_NONBLOCK, buffer.data(), buffer.room(), &info);
        if (rc == EAGAIN)
            break;
        FUZZ_REQUIRE(rc == 0);
        received++;
        FUZZ_REQUIRE(buffer.rest_is_untouched());
        if (mode == RUK_RECV_FILTER_RAW)
            FUZZ_REQUIRE(info.msg_len <= std::max<size_t>(longest, 60) + 4);
        else if (mode == RUK_RECV_FILTER_NORMAL)
            FUZZ_REQUIRE(info.chan != nullptr);
    }
    FUZZ_REQUIRE(station.wire.counters().delivered - arrived == received + dropped(dev) - drops);
    return 0;
}
