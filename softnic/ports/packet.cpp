#include "packet.h"

#include "../driver/sys.h"
#include "fork_guard.h"
#include "nuv_events.h"
#include "offload.h"
#include "steer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <vector>

namespace softnic {
namespace {

constexpr uint32_t kMinSlot = 2048, kMaxSlot = 16384;
constexpr uint32_t kBlockBytes = 64u << 10;
constexpr uint32_t kVlanTag = 4;
constexpr uint32_t kLargestFrame = 1u << 16;
constexpr unsigned kErrorCheckInterval = 256; // looks at an empty ring

// Before each frame the kernel puts what its offloads left open, as it would for a virtual machine. (The header
// of that interface is none for C++.)
struct OffloadHeader {
    uint8_t flags;
    uint8_t gso_type;
    uint16_t hdr_len;
    uint16_t gso_size; // payload of a segment, bytes
    uint16_t csum_start, csum_offset;
};
static_assert(sizeof(OffloadHeader) == 10);
constexpr uint8_t kNeedsChecksum = 1;
constexpr uint8_t kGsoNone = 0, kGsoTcp4 = 1, kGsoTcp6 = 4, kGsoUdp = 5, kGsoEcn = 0x80;

// Counted on one thread, read on any.
class Counter {
public:
    void add(uint64_t n = 1) { n_.store(n_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed); }
    uint64_t get() const { return n_.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> n_{0};
};

class Socket {
public:
    ~Socket()
    {
        guard_.release();
        if (fd_ >= 0)
            sys::close(fd_);
    }

    // Not bound to any protocol yet, so nothing arrives.
    bool open()
    {
        fd_ = sys::keep(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
        if (fd_ < 0)
            return false;
        guard_.guard(&fd_);
        return true;
    }
    bool bind(int ifindex, uint16_t protocol)
    {
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(protocol);
        address.sll_ifindex = ifindex;
        return ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }
    template <typename T> bool set(int level, int option, const T &value)
    {
        return setsockopt(fd_, level, option, &value, sizeof(value)) == 0;
    }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
    ForkGuard guard_;
};

class PacketPort final : public Port {
public:
    PacketPort(uint32_t trailer, uint32_t ring_bytes) : trailer_(trailer), ring_bytes_(std::bit_ceil(ring_bytes)) {}
    ~PacketPort() override
    {
        if (ring_ != nullptr)
            sys::munmap(ring_, ring_bytes_);
    }

    bool open(const std::string &ifname, std::string *error);

    int poll_fd() const override { return rx_.fd(); }
    bool receive(RxFrame *frame) override;
    int send(const uint8_t *frame, size_t len) override;
    int steer(const SteerKey &key, bool install) override;
    int set_promiscuous(bool on) override;
    bool link_up() const override;
    PortCounters counters() const override;

private:
    // What the ring tells about a frame besides its bytes.
    struct Arrival {
        uint64_t ns = 0;
        bool tagged = false;
        uint16_t tpid = 0, tci = 0;
    };

    packet_mreq membership(uint16_t type) const;
    bool set_up_ring(uint32_t mtu);
    bool make_ring();
    tpacket2_hdr *slot(uint32_t i) const { return reinterpret_cast<tpacket2_hdr *>(ring_ + size_t{i} * slot_bytes_); }
    void release_held();
    void look_for_error();
    bool take(tpacket2_hdr *slot, uint32_t status, RxFrame *frame);
    bool read_whole_frame(OffloadHeader *offload, uint8_t **data, uint32_t *len);
    bool hand_out(uint8_t *data, uint32_t len, RxFrame *frame);
    bool next_segment(RxFrame *frame);

    const uint32_t trailer_; // bytes that end each frame on the wire and are none of it
    std::string ifname_;
    int ifindex_ = 0;
    Socket rx_, tx_;
    uint8_t *ring_ = nullptr;
    uint32_t ring_bytes_, slot_bytes_ = 0, slots_ = 0;
    uint32_t next_ = 0;            // slot that the kernel fills next
    tpacket2_hdr *held_ = nullptr; // slot of the frame handed out last
    unsigned empty_looks_ = 0;
    Arrival arrival_;            // of the frame in hand
    Segmenter segments_;         // of the frame in hand
    std::vector<uint8_t> whole_; // a frame larger than a slot

    Steering steering_;
    bool steerable_ = true;

    Counter received_, malformed_, lost_large_, sent_, tx_errors_;
    mutable std::atomic<uint64_t> ring_full_{0};
};

std::string reason(const std::string &what)
{
    const int error = errno;
    return what + ": " + strerror(error);
}

bool PacketPort::open(const std::string &ifname, std::string *error)
{
    ifname_ = ifname;
    if (!rx_.open() || !tx_.open()) {
        *error = errno == EPERM || errno == EACCES
                     ? "no privilege to open packet sockets (CAP_NET_RAW in the interface's network namespace)"
                     : reason("packet socket");
        return false;
    }
    ifreq request = {};
    if (ifname.empty() || ifname.size() >= sizeof(request.ifr_name)) {
        *error = "no interface can have the name '" + ifname + "'";
        return false;
    }
    memcpy(request.ifr_name, ifname.c_str(), ifname.size());
    if (::ioctl(rx_.fd(), SIOCGIFHWADDR, &request) < 0) {
        *error = errno == ENODEV ? "no interface named " + ifname : reason(ifname);
        return false;
    }
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER && request.ifr_hwaddr.sa_family != ARPHRD_LOOPBACK) {
        *error = ifname + " is no Ethernet interface";
        return false;
    }
    if (::ioctl(rx_.fd(), SIOCGIFMTU, &request) < 0) {
        *error = reason(ifname);
        return false;
    }
    const auto mtu = static_cast<uint32_t>(request.ifr_mtu);
    ifindex_ = static_cast<int>(if_nametoindex(ifname.c_str()));

    // The order matters: the ring's layout is fixed by the options before it, and frames arrive from bind() on.
    if (!rx_.set(SOL_PACKET, PACKET_VERSION, int{TPACKET_V2}) || !rx_.set(SOL_PACKET, PACKET_VNET_HDR, 1) ||
        !set_up_ring(mtu)) {
        *error = reason("receive ring on " + ifname);
        return false;
    }
    rx_.set(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1); // else they are sorted out one by one
    // Frames larger than a slot wait in the socket's queue.
    rx_.set(SOL_PACKET, PACKET_COPY_THRESH, 1);
    const int queue_bytes = 16 << 20;
    if (!rx_.set(SOL_SOCKET, SO_RCVBUFFORCE, queue_bytes))
        rx_.set(SOL_SOCKET, SO_RCVBUF, queue_bytes);
    // Groups are the filters' business, and one endpoint may take them all: the interface always lets them in.
    rx_.set(SOL_PACKET, PACKET_ADD_MEMBERSHIP, membership(PACKET_MR_ALLMULTI));
    tx_.set(SOL_PACKET, PACKET_QDISC_BYPASS, 1);
    if (!tx_.bind(ifindex_, 0) || !rx_.bind(ifindex_, ETH_P_ALL)) {
        *error = reason(ifname);
        return false;
    }
    return true;
}

packet_mreq PacketPort::membership(uint16_t type) const
{
    packet_mreq request = {};
    request.mr_ifindex = ifindex_;
    request.mr_type = type;
    return request;
}

bool PacketPort::set_up_ring(uint32_t mtu)
{
    const uint32_t overhead =
        TPACKET_ALIGN(TPACKET2_HDRLEN + 16) + sizeof(OffloadHeader) + ETH_HLEN + 2 * kVlanTag + TPACKET_ALIGNMENT;
    slot_bytes_ = std::clamp(std::bit_ceil(std::min(mtu, kMaxSlot) + overhead), kMinSlot, kMaxSlot);
    if (slot_bytes_ > kMinSlot)
        ring_bytes_ *= 4;
    const uint32_t wanted = ring_bytes_;
    for (; !make_ring(); ring_bytes_ /= 2) {
        const bool too_much = errno == ENOMEM || errno == EAGAIN; // the latter of what may be locked
        if (!too_much || ring_bytes_ <= kMinPacketRing)
            return false;
    }
    if (ring_bytes_ != wanted)
        fprintf(stderr, "softnic: %s: the host refuses a packet ring of %u bytes; it has given one of %u\n",
                ifname_.c_str(), wanted, ring_bytes_);
    slots_ = ring_bytes_ / slot_bytes_;
    return true;
}

// The kernel's memory, and the addresses for it: 32-bit programs, and those with a limit, may have too few of these.
bool PacketPort::make_ring()
{
    tpacket_req request = {};
    request.tp_block_size = kBlockBytes;
    request.tp_block_nr = ring_bytes_ / kBlockBytes;
    request.tp_frame_size = slot_bytes_;
    request.tp_frame_nr = ring_bytes_ / slot_bytes_;
    if (!rx_.set(SOL_PACKET, PACKET_RX_RING, request))
        return false;
    void *ring = sys::mmap(nullptr, ring_bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, rx_.fd());
    if (ring == MAP_FAILED) {
        const int error = errno;
        rx_.set(SOL_PACKET, PACKET_RX_RING, tpacket_req{}); // or there can be no other
        errno = error;
        return false;
    }
    madvise(ring, ring_bytes_, MADV_DONTFORK);
    ring_ = static_cast<uint8_t *>(ring);
    return true;
}

void PacketPort::release_held()
{
    if (held_ != nullptr)
        __atomic_store_n(&held_->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
    held_ = nullptr;
}

// An interface that goes down leaves an error on the socket, which polls readable until somebody takes it.
void PacketPort::look_for_error()
{
    if (++empty_looks_ % kErrorCheckInterval != 0)
        return;
    int error;
    socklen_t len = sizeof(error);
    getsockopt(rx_.fd(), SOL_SOCKET, SO_ERROR, &error, &len);
}

bool PacketPort::receive(RxFrame *frame)
{
    if (segments_.active())
        return next_segment(frame);
    for (;;) {
        release_held();
        tpacket2_hdr *s = slot(next_);
        const uint32_t status = __atomic_load_n(&s->tp_status, __ATOMIC_ACQUIRE);
        if ((status & TP_STATUS_USER) == 0) {
            look_for_error();
            return false;
        }
        held_ = s;
        next_ = next_ + 1 == slots_ ? 0 : next_ + 1;
        if (take(s, status, frame))
            return true;
    }
}

bool PacketPort::take(tpacket2_hdr *s, uint32_t status, RxFrame *frame)
{
    auto *base = reinterpret_cast<uint8_t *>(s);
    const auto *from = reinterpret_cast<const sockaddr_ll *>(base + TPACKET_ALIGN(sizeof(*s)));
    uint8_t *data = base + s->tp_mac;
    uint32_t len = s->tp_snaplen;
    OffloadHeader offload;
    memcpy(&offload, data - sizeof(offload), sizeof(offload));

    arrival_.ns = uint64_t{s->tp_sec} * 1'000'000'000u + s->tp_nsec;
    arrival_.tagged = (status & TP_STATUS_VLAN_VALID) != 0;
    arrival_.tci = s->tp_vlan_tci;
    arrival_.tpid = (status & TP_STATUS_VLAN_TPID_VALID) != 0 ? s->tp_vlan_tpid : uint16_t{ETH_P_8021Q};

    if ((status & TP_STATUS_COPY) != 0) {
        if (!read_whole_frame(&offload, &data, &len)) {
            malformed_.add();
            return false;
        }
    } else if (len < s->tp_len) {
        // No room in the socket's queue either. What is cut off holds nothing but payload, so the frames that
        // this one stands for can be counted all the same.
        Segmenter part;
        const bool many = part.start(data, len, offload.gso_size);
        lost_large_.add(many ? (s->tp_len - part.headers() + offload.gso_size - 1) / offload.gso_size : 1);
        return false;
    }
    if (from->sll_pkttype == PACKET_OUTGOING)
        return false;

    const uint8_t gso = offload.gso_type & ~kGsoEcn;
    if (gso != kGsoNone) {
        const bool known = gso == kGsoTcp4 || gso == kGsoTcp6 || gso == kGsoUdp;
        if (known && segments_.start(data, len, offload.gso_size))
            return next_segment(frame);
        malformed_.add();
        return false;
    }
    if ((offload.flags & kNeedsChecksum) != 0 &&
        !complete_checksum(data, len, offload.csum_start, offload.csum_offset)) {
        malformed_.add();
        return false;
    }
    return hand_out(data, len, frame);
}

// The copy in the socket's queue of a frame that was larger than its slot.
bool PacketPort::read_whole_frame(OffloadHeader *offload, uint8_t **data, uint32_t *len)
{
    whole_.resize(kVlanTag + kLargestFrame + 1024);
    iovec parts[] = {{offload, sizeof(*offload)}, {whole_.data() + kVlanTag, whole_.size() - kVlanTag}};
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    const ssize_t n = ::recvmsg(rx_.fd(), &message, MSG_DONTWAIT);
    if (n < static_cast<ssize_t>(sizeof(*offload)) || (message.msg_flags & MSG_TRUNC) != 0)
        return false;
    *data = whole_.data() + kVlanTag;
    *len = static_cast<uint32_t>(n) - sizeof(*offload);
    return true;
}

bool PacketPort::next_segment(RxFrame *frame)
{
    uint32_t len;
    uint8_t *data = segments_.next(&len);
    return hand_out(data, len, frame);
}

// Before data there is room for a tag, behind it for padding.
bool PacketPort::hand_out(uint8_t *data, uint32_t len, RxFrame *frame)
{
    const bool padded = len + (arrival_.tagged ? kVlanTag : 0) < kMinFrame + trailer_;
    if (len < trailer_ || (padded && ends_inside_datagram(data, len - trailer_))) {
        malformed_.add();
        return false;
    }
    if (arrival_.tagged) {
        data -= kVlanTag;
        memmove(data, data + kVlanTag, 2 * ETH_ALEN);
        const uint16_t tag[] = {htons(arrival_.tpid), htons(arrival_.tci)};
        memcpy(data + 2 * ETH_ALEN, tag, sizeof(tag));
        len += kVlanTag;
    }
    frame->data = data;
    frame->len = pad_frame(data, len, trailer_);
    frame->arrival_ns = arrival_.ns;
    received_.add();
    return true;
}

int PacketPort::send(const uint8_t *frame, size_t len)
{
    uint8_t padded[kMinFrame];
    if (len < kMinFrame) {
        memcpy(padded, frame, len);
        len = pad_frame(padded, static_cast<uint32_t>(len), 0);
        frame = padded;
    }
    ssize_t n;
    do {
        n = ::send(tx_.fd(), frame, len, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n >= 0) {
        sent_.add();
        return 0;
    }
    tx_errors_.add();
    return errno;
}

int PacketPort::steer(const SteerKey &key, bool install)
{
    if (!steerable_)
        return 0;
    if (!steering_.is_open()) {
        const int error = steering_.open(ifname_);
        if (error != 0) {
            steerable_ = false;
            fprintf(stderr, "softnic: %s: the host cannot be kept from seeing the adapter's frames as well: %s\n",
                    ifname_.c_str(), strerror(error));
            return 0;
        }
    }
    return install ? steering_.install(key) : steering_.remove(key);
}

// The interface counts its memberships and drops this one with the socket, also when the process is killed.
int PacketPort::set_promiscuous(bool on)
{
    const int option = on ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP;
    return rx_.set(SOL_PACKET, option, membership(PACKET_MR_PROMISC)) ? 0 : errno;
}

bool PacketPort::link_up() const
{
    ifreq request = {};
    memcpy(request.ifr_name, ifname_.c_str(), ifname_.size());
    return ::ioctl(rx_.fd(), SIOCGIFFLAGS, &request) == 0 &&
           (request.ifr_flags & (IFF_UP | IFF_RUNNING)) == (IFF_UP | IFF_RUNNING);
}

PortCounters PacketPort::counters() const
{
    tpacket_stats stats = {}; // reading sets it to zero
    socklen_t len = sizeof(stats);
    if (getsockopt(rx_.fd(), SOL_PACKET, PACKET_STATISTICS, &stats, &len) == 0)
        ring_full_ += stats.tp_drops;
    PortCounters c;
    c.received = received_.get();
    c.rx_dropped = ring_full_ + lost_large_.get();
    c.rx_malformed = malformed_.get();
    c.sent = sent_.get();
    c.tx_errors = tx_errors_.get();
    return c;
}

} // namespace

std::unique_ptr<Port> make_packet_port(const std::string &ifname, std::string *error, bool trailer_on_wire,
                                       uint32_t ring_bytes)
{
    auto port = std::make_unique<PacketPort>(trailer_on_wire ? NUV_UEVT_FCS_LEN : 0, ring_bytes);
    std::string why;
    if (port->open(ifname, &why))
        return port;
    if (error != nullptr)
        *error = why;
    return nullptr;
}

} // namespace softnic
