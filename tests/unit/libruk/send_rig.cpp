#include "send_rig.h"

#include <algorithm>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace send_rig {

Bytes unhex(const std::string &digits)
{
    Bytes bytes;
    std::string clean;
    std::copy_if(digits.begin(), digits.end(), std::back_inserter(clean), [](char c) { return c != ' '; });
    for (size_t i = 0; i + 1 < clean.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(strtoul(clean.substr(i, 2).c_str(), nullptr, 16)));
    return bytes;
}

/* ------------------------------------------------------------------ Internet checksums */

uint16_t internet_sum(const Bytes &bytes)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i++)
        sum += static_cast<uint64_t>(bytes[i]) << (i % 2 == 0 ? 8 : 0);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

uint16_t as_internet_sum(uint32_t sum)
{
    uint64_t folded = sum;
    while (folded >> 16)
        folded = (folded & 0xffff) + (folded >> 16);
    return static_cast<uint16_t>(folded << 8 | folded >> 8);
}

/* ------------------------------------------------------------------ a datagram in a frame */

bool read_datagram(const Bytes &frame, Datagram *d)
{
    size_t at = 12;
    auto word = [&](size_t offset) { return static_cast<unsigned>(frame[offset] << 8 | frame[offset + 1]); };
    auto dotted = [&](size_t offset) {
        std::string text = std::to_string(frame[offset]);
        for (size_t i = 1; i < 4; i++)
            text += "." + std::to_string(frame[offset + i]);
        return text;
    };
    if (frame.size() < 60)
        return false;
    d->dst_mac = hex(frame.data(), 6);
    d->src_mac = hex(frame.data() + 6, 6);
    if (word(at) == 0x8100) {
        d->vlan = static_cast<int>(word(at + 2));
        at += 4;
    }
    if (word(at) != 0x0800 || frame[at + 2] != 0x45 || frame[at + 2 + 9] != 17)
        return false;
    const size_t ip = at + 2, udp = ip + 20;
    d->tos = frame[ip + 1];
    d->total_length = word(ip + 2);
    d->id = word(ip + 4);
    d->fragment_word = word(ip + 6);
    d->ttl = frame[ip + 8];
    d->protocol = frame[ip + 9];
    d->src = dotted(ip + 12) + ":" + std::to_string(word(udp));
    d->dst = dotted(ip + 16) + ":" + std::to_string(word(udp + 2));
    d->udp_length = word(udp + 4);
    d->udp_checksum = word(udp + 6);
    if (d->total_length < 28 || d->udp_length != d->total_length - 20 || frame.size() < ip + d->total_length)
        return false;
    const auto begin = frame.begin();
    auto part = [&](size_t from, size_t to) {
        return Bytes(begin + static_cast<ptrdiff_t>(from), begin + static_cast<ptrdiff_t>(to));
    };
    d->payload = part(udp + 8, ip + d->total_length);
    d->ip_checksum_good = internet_sum(part(ip, ip + 20)) == 0xffff;

    using recv_rig::operator+;
    Bytes covered = part(ip + 12, ip + 20) + Bytes{0, 17} + recv_rig::be16(d->udp_length);
    covered = covered + part(udp, ip + d->total_length);
    d->udp_checksum_good = d->udp_checksum != 0 && internet_sum(covered) == 0xffff;
    return true;
}

/* ------------------------------------------------------------------ an endpoint over memory */

RequestTest::RequestTest()
{
    for (size_t i = 0; i < sizeof header; i++)
        header[i] = static_cast<uint8_t>(i);
    Bytes content = pattern(sizeof buffer);
    std::copy(content.begin(), content.end(), buffer);
    host.sockets.on_ioctl[OXEL_WAIT_SEND_COMPLETION] = [this](int fd, void *arg) {
        EXPECT_EQ(fd, dev->rep_handle);
        const uint8_t *bytes = static_cast<const uint8_t *>(arg);
        waits.push_back(Bytes(bytes, bytes + 4));
        int rc = on_wait ? on_wait() : EIO;
        if (rc == 0)
            return 0;
        errno = rc;
        return -1;
    };
}

ruk_device_t RequestTest::open_with(uint32_t threshold, uint32_t records, int flags)
{
    driver.params.dmasend_threshold = threshold;
    driver.sreqs_cnt = records;
    open(flags);
    memset(reinterpret_cast<void *>(dev->rep_map.map_zreq), 0xee, dev->rep_map.map_zreq_len);
    memset(reinterpret_cast<void *>(dev->rep_map.map_sram), 0xee, dev->rep_map.map_sram_len);
    memset(reinterpret_cast<void *>(dev->rep_map.map_sendq), 0xee, dev->rep_map.map_sendq_len);
    host.sockets.clear();
    return dev;
}

int RequestTest::send(const void *payload, int length, int flags)
{
    ruk__ep_lock(dev);
    int rc = ruk_raw_send(dev, header, sizeof header, 0, 0, static_cast<const uint8_t *>(payload), length, flags);
    ruk__ep_unlock(dev);
    return rc;
}

static Bytes memory(uintptr_t base, size_t offset, size_t length)
{
    const uint8_t *at = reinterpret_cast<const uint8_t *>(base) + offset;
    return Bytes(at, at + length);
}

Bytes RequestTest::window(size_t offset, size_t length) const { return memory(dev->rep_map.map_zreq, offset, length); }
Bytes RequestTest::pio(size_t offset, size_t length) const { return memory(dev->rep_map.map_sram, offset, length); }
Bytes RequestTest::dma(size_t offset, size_t length) const { return memory(dev->rep_map.map_sendq, offset, length); }

uint32_t RequestTest::data_offset(unsigned type) const
{
    Bytes s = slot(type);
    return static_cast<uint32_t>(s[0]) << 24 | static_cast<uint32_t>(s[1] << 16 | s[2] << 8 | s[3]);
}

void RequestTest::set_counter(uint16_t value)
{
    counter = value;
    const uint8_t bytes[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    off_t at = static_cast<off_t>(driver.block.send_compcnt_offset + 2 * dev->rep_epid);
    ASSERT_EQ(pwrite(dev->rep_handle, bytes, 2, at), 2);
}

bool RequestTest::State::operator==(const State &other) const
{
    auto same = [](const ruk__sendbuf &a, const ruk__sendbuf &b) {
        return a.sb_base == b.sb_base && a.sb_length == b.sb_length && a.sb_head == b.sb_head &&
               a.sb_tail == b.sb_tail && a.sb_avail == b.sb_avail;
    };
    return same(pio, other.pio) && same(dma, other.dma) && records == other.records && sends == other.sends &&
           in_flight == other.in_flight && window == other.window;
}

RequestTest::State RequestTest::state_now()
{
    return {pio_ring(),
            dma_ring(),
            dev->rep_sreq_pool->elem_avail,
            dev->rep_sreq_inflight,
            in_flight(),
            window(0, dev->rep_map.map_zreq_len)};
}

std::vector<ruk__request *> RequestTest::in_flight() const
{
    std::vector<ruk__request *> all;
    for (ruk__request *r = dev->rep_sreq_inflightq.stqh_first; r && all.size() < 100; r = r->req_link.stqe_next)
        all.push_back(r);
    return all;
}

bool RequestTest::lock_is_free()
{
    if (pthread_mutex_trylock(&dev->rep_lock) != 0)
        return false;
    pthread_mutex_unlock(&dev->rep_lock);
    return true;
}

/* ------------------------------------------------------------------ an endpoint of the software adapter */

SendTest::SendTest()
{
    host.interfaces = {{.name = "oxel0", .address = "10.77.0.1", .netmask = "255.255.255.0"},
                       {.name = "vlan7", .address = "10.77.7.1", .netmask = "255.255.255.0"}};
    host.add_route("oxel0", "0.0.0.0", "10.77.0.254", "0.0.0.0", RTF_UP | RTF_GATEWAY);
    host.add_route("oxel0", "10.77.0.0", "0.0.0.0", "255.255.255.0");
    host.add_route("vlan7", "10.77.7.0", "0.0.0.0", "255.255.255.0");
    host.arp = {{"10.77.0.2", {2, 0, 0, 0, 0, 2}, "oxel0"},
                {"10.77.0.254", {2, 0, 0, 0, 0, 0xfe}, "oxel0"},
                {"10.77.7.2", {2, 0, 0, 0, 7, 2}, "vlan7"}};
}

void SendTest::start(const std::function<void(softnic_board_config_t &)> &change)
{
    softnic_board_config_t config;
    softnic_board_defaults(&config, 0);
    if (change)
        change(config);
    nic = softnic_create(&config, 1, 1700000000000000000u);
    ASSERT_EQ(softnic_attach(nic), 0);
    struct in_addr address = in_addr_of("10.77.0.1"), vlan_address = in_addr_of("10.77.7.1");
    ASSERT_EQ(ruk_open(&address, RUK_OPEN_THREAD_SAFE, &dev), 0);
    ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
    ASSERT_EQ(ruk_bind_addr(dev, &vlan_address, 0, 5000, nullptr, &tagged), 0);
    host.sockets.clear();
}

SendTest::~SendTest()
{
    if (dev)
        ruk_close(dev);
    softnic_destroy(nic);
}

std::vector<Bytes> SendTest::sent()
{
    softnic_run(nic);
    std::vector<Bytes> frames;
    Bytes frame(10000);
    while (size_t length = softnic_take_sent(nic, 0, frame.data(), frame.size()))
        frames.push_back(Bytes(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(length)));
    return frames;
}

Datagram SendTest::sent_datagram()
{
    std::vector<Bytes> frames = sent();
    Datagram datagram;
    EXPECT_EQ(frames.size(), 1u);
    EXPECT_TRUE(frames.size() == 1 && read_datagram(frames[0], &datagram));
    return datagram;
}

Bytes SendTest::next_request()
{
    Bytes request(64);
    if (!softnic_next_request(nic, 0, nullptr, request.data()))
        request.clear();
    return request;
}

bool SendTest::lock_is_free()
{
    if (pthread_mutex_trylock(&dev->rep_lock) != 0)
        return false;
    pthread_mutex_unlock(&dev->rep_lock);
    return true;
}

std::vector<ruk_send_t> SendTest::bucket(ruk_channel_t channel, int index) const
{
    std::vector<ruk_send_t> all;
    for (ruk_send_t s = channel->ch_sendhandleq[index].tqh_first; s; s = s->dhs_link.tqe_next)
        all.push_back(s);
    return all;
}

size_t SendTest::handles(ruk_channel_t channel) const
{
    size_t n = 0;
    for (int i = 0; i < RUK_SEND_BUCKETS; i++)
        n += bucket(channel, i).size();
    return n;
}

} // namespace send_rig
