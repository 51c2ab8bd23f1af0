// A stepped adapter and an endpoint reached through plain system calls, without the library.
#pragma once

#include "frames.h"

#include "nuv_events.h"
#include "nuv_requests.h"
#include "nuv_types.h"
#include "softnic.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace softnic_test {

constexpr uint64_t kStart = 1700000000000000000u;

class Nic {
public:
    explicit Nic(unsigned boards = 1, const std::function<void(softnic_board_config_t &)> &change = {})
    {
        std::vector<softnic_board_config_t> configs(boards);
        for (unsigned b = 0; b < boards; b++) {
            softnic_board_defaults(&configs[b], b);
            if (change)
                change(configs[b]);
        }
        nic = softnic_create(configs.data(), boards, kStart);
        attached = softnic_attach(nic);
    }
    ~Nic() { softnic_destroy(nic); }
    Nic(const Nic &) = delete;
    Nic &operator=(const Nic &) = delete;
    operator softnic_t *() const { return nic; }

    void inject(const Bytes &frame, unsigned board = 0) { softnic_inject(nic, board, frame.data(), frame.size()); }
    softnic_endpoint_counters_t counters(unsigned endpoint = 0, unsigned board = 0) const
    {
        softnic_endpoint_counters_t c;
        softnic_endpoint_counters(nic, board, endpoint, &c);
        return c;
    }
    softnic_board_counters_t board_counters(unsigned board = 0) const
    {
        softnic_board_counters_t c;
        softnic_board_counters(nic, board, &c);
        return c;
    }

    softnic_t *nic;
    int attached;
};

// errno of a command, 0 when it succeeded.
inline int command(int fd, unsigned long cmd, void *arg = nullptr) { return ioctl(fd, cmd, arg) == 0 ? 0 : errno; }

template <typename T> int command(int fd, unsigned long cmd, T *arg)
{
    return command(fd, cmd, static_cast<void *>(arg));
}

inline bool readable(int fd)
{
    pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
}

// One open device file, with an endpoint claimed and enabled, and its regions mapped, when asked.
class Device {
public:
    explicit Device(unsigned board = 0) : fd(open(("/dev/oxelB" + std::to_string(board)).c_str(), O_RDWR)) {}
    ~Device()
    {
        unmap();
        close_now();
    }
    Device(const Device &) = delete;
    Device &operator=(const Device &) = delete;

    void close_now()
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    int claim(int endpoint, uint32_t type = OXEL_ES_RUK)
    {
        oxel_set_endpt_t set = {endpoint, type};
        return command(fd, OXEL_SET_ENDPT, &set);
    }

    int set_up(int endpoint = 0)
    {
        if (int rc = claim(endpoint))
            return rc;
        return enable();
    }

    int enable()
    {
        if (int rc = command(fd, OXEL_ENABLE_ENDPT))
            return rc;
        if (int rc = command(fd, OXEL_GET_COPYBLOCK, &block))
            return rc;
        recvq = static_cast<uint8_t *>(map(block.recvq_offset, block.recvq_len));
        sendq = static_cast<uint8_t *>(map(block.sendq_offset, block.sendq_len));
        sram = static_cast<uint8_t *>(map(block.user_mmapped_sram_offset, block.user_mmapped_sram_len));
        zreq = static_cast<uint8_t *>(map(block.user_mmapped_zreq_offset, block.user_mmapped_zreq_len));
        flow = static_cast<oxel_endpt_flow_t *>(map(block.flow_window_offset, block.flow_window_len));
        window = static_cast<const kz_kernel_window_t *>(
            map(block.kernel_window_offset, block.kernel_window_len, PROT_READ));
        compcnt = static_cast<const uint8_t *>(map(block.send_compcnt_offset, block.send_compcnt_len, PROT_READ));
        return 0;
    }

    void *map(uint32_t offset, size_t len, int prot = PROT_READ | PROT_WRITE)
    {
        void *p = mmap(nullptr, len, prot, MAP_SHARED, fd, offset);
        if (p != MAP_FAILED)
            maps_.push_back({p, len});
        return p;
    }

    void unmap()
    {
        for (auto &[p, len] : maps_)
            munmap(p, len);
        maps_.clear();
    }

    int filter(uint16_t tag, uint32_t ip = 0x0A4D0001, uint16_t port = 5000, uint16_t vlan = 0, bool remove = false,
               uint8_t tcp = OXEL_FILTER_UDP, bool kernel = false)
    {
        oxel_rx_filter_t f = {};
        f.ip_addr = ip;
        f.port = port;
        f.vlan = vlan;
        f.tag = tag;
        f.remove = remove;
        f.kernel = kernel;
        f.tcp = tcp;
        return command(fd, OXEL_RX_FILTER, &f);
    }
    int unfilter(uint16_t tag, uint32_t ip = 0x0A4D0001, uint16_t port = 5000, uint16_t vlan = 0)
    {
        return filter(tag, ip, port, vlan, true);
    }
    int mode(uint32_t m) { return command(fd, OXEL_SET_FILTER_MODE, &m); }

    // The tags of the packets of all waiting events, which are consumed.
    std::vector<uint16_t> take_tags()
    {
        std::vector<uint16_t> tags;
        while (recvq[at + 30] != 0) {
            for (unsigned i = 0; i < recvq[at + 30]; i++)
                tags.push_back(static_cast<uint16_t>(recvq[at + 10 + 4 * i] << 8 | recvq[at + 11 + 4 * i]));
            consume();
        }
        return tags;
    }

    void consume()
    {
        const uint32_t len = recvq[at + 28] << 8 | recvq[at + 29];
        for (uint32_t k = 0; k < len; k += 64) {
            recvq[(at + k) % block.recvq_len + 30] = 0;
            recvq[(at + k) % block.recvq_len + 63] = 0xFF;
        }
        at = (at + len) % block.recvq_len;
        flow->rx_flow.flow_desc++;
    }

    // Writes a request as the library does: words in ascending order, the one with the type last.
    void post(uint8_t type, uint32_t offset, const Bytes &header, uint16_t length)
    {
        nuv_ureq_t r = {};
        const uint32_t be_offset = __builtin_bswap32(offset);
        const uint16_t be_length = __builtin_bswap16(length);
        memcpy(r.bytes, &be_offset, 4);
        memcpy(r.bytes + 4, &be_length, 2);
        memcpy(r.bytes + 6, header.data(), std::min<size_t>(header.size(), 56));
        r.bytes[62] = static_cast<uint8_t>(header.size());
        r.bytes[63] = type;
        post_raw(type, r);
    }
    void post_raw(uint8_t slot, const nuv_ureq_t &r)
    {
        auto *words = reinterpret_cast<volatile uint32_t *>(zreq + slot * 256u);
        for (int i = 0; i < 16; i++)
            words[i] = r.words[i];
    }
    unsigned completions(unsigned endpoint = 0) const { return compcnt[2 * endpoint] << 8 | compcnt[2 * endpoint + 1]; }

    int fd;
    kz_get_copyblock_t block = {};
    uint8_t *recvq = nullptr, *sendq = nullptr, *sram = nullptr, *zreq = nullptr;
    oxel_endpt_flow_t *flow = nullptr;
    const kz_kernel_window_t *window = nullptr;
    const uint8_t *compcnt = nullptr;
    uint32_t at = 0; // in the ring: the consumer's position

private:
    std::vector<std::pair<void *, size_t>> maps_;
};

} // namespace softnic_test
