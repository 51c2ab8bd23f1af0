/*
 * DPDK beside the library: the same datagrams through a port whose queue is a ring in memory. Where other cases have
 * a floor these have the library, so that their ratio tells how many times its time DPDK takes.
 */
#include "cases.h"
#include "memory_endpoint.h"

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_eth_ring.h>
#include <rte_ethdev.h>
#include <rte_ether.h>
#include <rte_hash.h>
#include <rte_hash_crc.h>
#include <rte_ip.h>
#include <rte_mbuf.h>
#include <rte_memcpy.h>
#include <rte_prefetch.h>
#include <rte_udp.h>

#include <sched.h>
#include <stdexcept>
#include <unistd.h>

namespace bench {

namespace {

constexpr uint16_t burst = 32;
constexpr unsigned deep = 1024; /* queued: no longer in the nearest cache */
constexpr unsigned kept = 256;  /* buffers that the thread keeps for itself */
/* No more than are needed: a pool goes round all of its buffers, and more of them would only be further away. */
constexpr unsigned buffers = deep + 2 * kept;

struct Headers {
    rte_ether_hdr ethernet;
    rte_ipv4_hdr ip;
    rte_udp_hdr udp;
};
static_assert(sizeof(Headers) == header_bytes);

[[noreturn]] void refused(const char *what, int reason = rte_errno)
{
    throw std::runtime_error(std::string("DPDK: ") + what + ": " + rte_strerror(reason));
}

/*
 * DPDK's environment: ordinary pages, no device, no files, one processor. It binds the thread to that processor, which
 * threads of the program made later are not to inherit, and makes a directory that it leaves empty.
 */
void start_environment()
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0)
        wrong("which processors are allowed is not known");
    std::string words[] = {"ruk-bench",
                           "--no-huge",
                           "-m64",
                           "--no-pci",
                           "--no-shconf",
                           "--no-telemetry",
                           "--iova-mode=va",
                           "--log-level=error",
                           "--file-prefix=ruk-bench-" + std::to_string(getpid()),
                           "--lcores=0@" + std::to_string(sched_getcpu())};
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    const int result = rte_eal_init(int(arguments.size()), arguments.data());
    const int reason = rte_errno;
    const int restored = sched_setaffinity(0, sizeof allowed, &allowed);
    const std::string directory = rte_eal_get_runtime_dir();
    rmdir(directory.c_str());
    rmdir(directory.substr(0, directory.rfind('/')).c_str()); /* common to all such programs: unless others run */
    if (result < 0)
        refused("its environment does not start", reason);
    if (restored != 0)
        wrong("the processors that were allowed are not any more");
}

/* A port; what is sent on it arrives at it. */
class Port {
public:
    Port()
    {
        start_environment();
        rte_ring *wire = rte_ring_create("wire", 2 * deep, SOCKET_ID_ANY, RING_F_SP_ENQ | RING_F_SC_DEQ);
        pool_ = rte_pktmbuf_pool_create("datagrams", buffers, kept, 0, RTE_MBUF_DEFAULT_BUF_SIZE, SOCKET_ID_ANY);
        if (!wire || !pool_)
            refused("no memory for a ring and its datagrams");
        const int port = rte_eth_from_ring(wire);
        if (port < 0)
            refused("no port of a ring");
        port_ = uint16_t(port);
        const rte_eth_conf plain = {};
        if (rte_eth_dev_configure(port_, 1, 1, &plain) != 0 ||
            rte_eth_rx_queue_setup(port_, 0, deep, SOCKET_ID_ANY, nullptr, pool_) != 0 ||
            rte_eth_tx_queue_setup(port_, 0, deep, SOCKET_ID_ANY, nullptr) != 0 || rte_eth_dev_start(port_) != 0)
            refused("the port of a ring does not start");
    }
    ~Port()
    {
        rte_eth_dev_stop(port_);
        rte_eth_dev_close(port_);
        rte_eal_cleanup();
    }
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;

    rte_mbuf *buffer() { return rte_pktmbuf_alloc(pool_); }
    uint16_t receive(rte_mbuf **to, uint16_t most) { return rte_eth_rx_burst(port_, 0, to, most); }
    bool send(rte_mbuf *m) { return rte_eth_tx_burst(port_, 0, &m, 1) == 1; }

private:
    rte_mempool *pool_ = nullptr;
    uint16_t port_ = 0;
};

/* Made when it is first needed; a process has one environment, once, so what failed is not tried again. */
Port &port()
{
    static std::string failure;
    if (!failure.empty())
        throw std::runtime_error(failure);
    try {
        static Port it;
        return it;
    } catch (const std::exception &e) {
        failure = e.what();
        throw;
    }
}

/* What is sent, and the headers that the library puts before it. */
struct Datagram {
    explicit Datagram(size_t bytes) : bytes(bytes)
    {
        for (size_t i = 0; i < bytes; ++i)
            payload[i] = uint8_t(i * 7 + 1);
        MemoryEndpoint endpoint(4096);
        if (ruk_send(endpoint.connected(), payload, int(bytes), RUK_NONBLOCK) != 0)
            wrong("the library refused a datagram");
        std::memcpy(&headers, endpoint.slot(NUV_UREQ_RUK_PIO)->ruk.ruk_header, sizeof headers);
    }
    bool is_in(const rte_mbuf *m) const
    {
        const uint8_t *frame = rte_pktmbuf_mtod(m, const uint8_t *);
        return m->data_len == sizeof headers + bytes && std::memcmp(frame, &headers, sizeof headers) == 0 &&
               std::memcmp(frame + sizeof headers, payload, bytes) == 0;
    }
    size_t bytes;
    Headers headers;
    alignas(64) uint8_t payload[2048];
};

/* ------------------------------------------------------------------ receive */

/* The record that ruk_recvfrom() fills, and the payload. */
inline void deliver(const Headers *h, ruk_channel_t channel, uint8_t *buffer, size_t length, ruk_recv_info *info)
{
    info->chan = channel;
    info->chan_context = nullptr;
    info->sin_from.sin_family = AF_INET;
    info->sin_from.sin_port = h->udp.src_port;
    info->sin_from.sin_addr.s_addr = h->ip.src_addr;
    info->sin_to.sin_family = AF_INET;
    info->sin_to.sin_port = h->udp.dst_port;
    info->sin_to.sin_addr.s_addr = h->ip.dst_addr;
    info->timestamp = 0;
    info->msg_len = rte_be_to_cpu_16(h->udp.dgram_len) - uint32_t(sizeof h->udp);
    rte_memcpy(buffer, h + 1, std::min<size_t>(info->msg_len, length));
}

/* A UDP datagram over IPv4 without options, in one piece, that ends where its frame does or before. */
inline bool is_datagram(const Headers *h, size_t frame_bytes)
{
    return frame_bytes >= sizeof *h && h->ethernet.ether_type == rte_cpu_to_be_16(RTE_ETHER_TYPE_IPV4) &&
           h->ip.version_ihl == 0x45 && h->ip.next_proto_id == IPPROTO_UDP &&
           (h->ip.fragment_offset & rte_cpu_to_be_16(0x3FFF)) == 0 &&
           rte_be_to_cpu_16(h->udp.dgram_len) >= sizeof h->udp &&
           rte_be_to_cpu_16(h->udp.dgram_len) + sizeof h->ethernet + sizeof h->ip <= frame_bytes;
}

/* A burst at a time, the receiver found by port alone in a table of all ports. Each returns how many it delivered. */
class ByPort {
public:
    explicit ByPort(Port &port) : port_(port) { channels_[peer_port] = &bound_; }

    unsigned receive(uint8_t *buffer, size_t length, ruk_recv_info *info)
    {
        constexpr unsigned ahead = 4;
        rte_mbuf *m[burst];
        unsigned delivered = 0;
        const uint16_t n = port_.receive(m, burst);
        for (unsigned i = 0; i < n && i < ahead; ++i)
            rte_prefetch0(rte_pktmbuf_mtod(m[i], void *));
        for (unsigned i = 0; i < n; ++i) {
            if (i + ahead < n)
                rte_prefetch0(rte_pktmbuf_mtod(m[i + ahead], void *));
            const Headers *h = rte_pktmbuf_mtod(m[i], const Headers *);
            if (!is_datagram(h, m[i]->data_len))
                continue;
            if (ruk_channel_t channel = channels_[rte_be_to_cpu_16(h->udp.dst_port)]) {
                deliver(h, channel, buffer, length, info);
                ++delivered;
            }
        }
        rte_pktmbuf_free_bulk(m, n);
        return delivered;
    }

private:
    Port &port_;
    ruk__channel bound_ = {};
    std::vector<ruk_channel_t> channels_ = std::vector<ruk_channel_t>(1 << 16);
};

/* One at a time, the receiver found by address and port in a hash table. */
class ByHash {
public:
    explicit ByHash(Port &port) : port_(port)
    {
        rte_hash_parameters parameters = {};
        parameters.name = "channels";
        parameters.entries = deep;
        parameters.key_len = sizeof(Key);
        parameters.hash_func = rte_hash_crc;
        parameters.socket_id = SOCKET_ID_ANY;
        channels_ = rte_hash_create(&parameters);
        const Key key = {rte_cpu_to_be_32(peer_address), rte_cpu_to_be_16(peer_port)};
        if (!channels_ || rte_hash_add_key_data(channels_, &key, &bound_) != 0)
            refused("no table of channels");
    }
    ~ByHash() { rte_hash_free(channels_); }
    ByHash(const ByHash &) = delete;
    ByHash &operator=(const ByHash &) = delete;

    unsigned receive(uint8_t *buffer, size_t length, ruk_recv_info *info)
    {
        rte_mbuf *m;
        if (port_.receive(&m, 1) == 0)
            return 0;
        const Headers *h = rte_pktmbuf_mtod(m, const Headers *);
        const Key key = {h->ip.dst_addr, h->udp.dst_port};
        void *channel;
        const bool ours = is_datagram(h, m->data_len) && rte_hash_lookup_data(channels_, &key, &channel) >= 0;
        if (ours)
            deliver(h, static_cast<ruk_channel_t>(channel), buffer, length, info);
        rte_pktmbuf_free(m);
        return ours;
    }

private:
    struct Key {
        rte_be32_t address;
        uint32_t port; /* its bytes in network order, and two of 0: a key without padding */
    };
    static_assert(sizeof(Key) == 8);

    Port &port_;
    ruk__channel bound_ = {};
    rte_hash *channels_;
};

/* So many datagrams wait, put there outside the measured time, and are then received. */
template <typename Receiver> Measure receive(size_t bytes, unsigned queued, size_t datagrams)
{
    Port &wire = port();
    auto receiver = std::make_shared<Receiver>(wire);
    auto datagram = std::make_shared<Datagram>(bytes);
    return [=, &wire] {
        alignas(64) static uint8_t buffer[2048];
        ruk_recv_info info = {};
        double ns = 0;
        size_t done = 0;
        while (done < datagrams) {
            for (unsigned i = 0; i < queued; ++i) {
                rte_mbuf *m = wire.buffer();
                if (!m)
                    wrong("DPDK has no buffer left");
                auto *frame = reinterpret_cast<uint8_t *>(rte_pktmbuf_append(m, uint16_t(sizeof(Headers) + bytes)));
                std::memcpy(frame, &datagram->headers, sizeof(Headers));
                std::memcpy(frame + sizeof(Headers), datagram->payload, bytes);
                if (!wire.send(m))
                    wrong("the ring is full");
            }
            unsigned received = 0, calls = 0;
            const double began = now_ns();
            while (received < queued && calls++ < queued)
                received += receiver->receive(buffer, sizeof buffer, &info);
            ns += now_ns() - began;
            done += queued;
            if (received != queued || info.msg_len != bytes || std::memcmp(buffer, datagram->payload, bytes) != 0 ||
                info.sin_from.sin_port != rte_cpu_to_be_16(own_port) ||
                info.sin_from.sin_addr.s_addr != rte_cpu_to_be_32(own_address))
                wrong("a datagram did not arrive as it was sent");
        }
        if (receiver->receive(buffer, sizeof buffer, &info) != 0)
            wrong("more arrived than was sent");
        return ns / double(done);
    };
}

/* ------------------------------------------------------------------ send */

/* Headers from a template, the payload copied, both checksums made by the processor. */
inline bool send_one(Port &wire, const Headers &fixed, const uint8_t *payload, size_t bytes)
{
    rte_mbuf *m = wire.buffer();
    if (!m)
        return false;
    auto *h = reinterpret_cast<Headers *>(rte_pktmbuf_append(m, uint16_t(sizeof(Headers) + bytes)));
    *h = fixed;
    h->ip.total_length = rte_cpu_to_be_16(uint16_t(sizeof h->ip + sizeof h->udp + bytes));
    h->udp.dgram_len = rte_cpu_to_be_16(uint16_t(sizeof h->udp + bytes));
    rte_memcpy(h + 1, payload, bytes);
    h->ip.hdr_checksum = rte_ipv4_cksum(&h->ip);
    h->udp.dgram_cksum = rte_ipv4_udptcp_cksum(&h->ip, &h->udp);
    return wire.send(m);
}

/* Within the measured time what was sent is taken from the ring and freed, a burst at a time, as drivers free it. */
Measure send(size_t bytes, size_t datagrams)
{
    Port &wire = port();
    auto datagram = std::make_shared<Datagram>(bytes);
    return [=, &wire] {
        Headers fixed = datagram->headers;
        fixed.ip.total_length = fixed.ip.hdr_checksum = fixed.udp.dgram_len = fixed.udp.dgram_cksum = 0;
        rte_mbuf *sent[burst];
        bool all = true;
        size_t done = 0;
        const double began = now_ns();
        for (; done < datagrams && all; done += burst) {
            for (unsigned i = 0; i < burst; ++i)
                all &= send_one(wire, fixed, datagram->payload, bytes);
            const uint16_t n = wire.receive(sent, burst);
            all &= n == burst;
            rte_pktmbuf_free_bulk(sent, n);
        }
        const double ns = now_ns() - began;
        all = all && send_one(wire, fixed, datagram->payload, bytes) && wire.receive(sent, 1) == 1;
        if (!all)
            wrong("a datagram was refused");
        const bool same = datagram->is_in(sent[0]);
        rte_pktmbuf_free(sent[0]);
        if (!same)
            wrong("DPDK sent another frame than the library");
        return ns / double(done);
    };
}

} // namespace

void add_dpdk_cases(std::vector<Case> &cases, Effort effort)
{
    const size_t many = effort.of(50000);
    auto add = [&](const char *name, const char *what, size_t bytes, std::function<Measured()> make) {
        cases.push_back({name, what, one_thread, Compare::none, 0, 0, bytes > 64 ? bytes : 0, "", 0, std::move(make)});
    };
    auto bursts = [=](size_t bytes, unsigned queued) {
        return [=] { return Measured{receive<ByPort>(bytes, queued, many), library_receive(bytes, queued, many)}; };
    };
    auto singly = [=](size_t bytes) {
        return [=] { return Measured{receive<ByHash>(bytes, deep, many), library_receive(bytes, deep, many)}; };
    };
    auto sends = [=](size_t bytes) { return [=] { return Measured{send(bytes, many), library_send(bytes, many)}; }; };

    add("dpdk_receive_burst_64", "DPDK, bursts of 32, table of ports, 64 B, 32 queued, against the library", 64,
        bursts(64, burst));
    add("dpdk_receive_burst_1400", "DPDK, bursts of 32, table of ports, 1400 B, 32 queued, against the library", 1400,
        bursts(1400, burst));
    add("dpdk_receive_burst_64_deep", "DPDK, bursts of 32, table of ports, 64 B, 1024 queued, against the library", 64,
        bursts(64, deep));
    add("dpdk_receive_burst_1400_deep", "DPDK, bursts of 32, table of ports, 1400 B, 1024 queued, against the library",
        1400, bursts(1400, deep));
    add("dpdk_receive_hash_64", "DPDK, one at a time, hash table, 64 B, 1024 queued, against the library", 64,
        singly(64));
    add("dpdk_receive_hash_1400", "DPDK, one at a time, hash table, 1400 B, 1024 queued, against the library", 1400,
        singly(1400));
    add("dpdk_send_64", "DPDK, one at a time, software checksums, 64 B, against the library", 64, sends(64));
    add("dpdk_send_1400", "DPDK, one at a time, software checksums, 1400 B, against the library", 1400, sends(1400));
}

} // namespace bench
