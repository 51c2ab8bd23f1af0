/*
 * An endpoint whose regions are plain memory, and a writer that puts events into its ring byte by byte.
 *
 *     RigEndpoint rig;
 *     rig.bind(0, 0x0a4d0001, 5000);                       // tag 0 is 10.77.0.1:5000
 *     rig.ring.put({{udp_frame("abc"), 0}});
 *     Received got = rig.recv(RUK_RECV_NONBLOCK);
 *
 * The writer shares no header with the library: offsets, byte orders and paddings are written out here. Behind
 * each region lies a page that may not be touched, so that a read past the ring's end ends the test.
 */
#pragma once

#include "libc_seam.h"
#include "recv_frames.h"
#include "ruk_core.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace recv_rig {

/* ------------------------------------------------------------------ the ring's writer */

struct Packet {
    Bytes frame; /* trailer included */
    uint16_t tag = 0;
};

struct EventOptions {
    uint64_t ticks = 0;
    uint8_t offset = 32;      /* of the first packet slot */
    unsigned extra_slots = 0; /* 64-byte slots of padding at the end */
    bool complete = true;     /* the last byte reads 0 */
};

class RingWriter {
public:
    RingWriter(uint8_t *base, size_t size) : base_(base), size_(size) {}

    /* Writes an event behind the last one; its offset in the ring. Overwrites what is there. */
    size_t put(const std::vector<Packet> &packets, const EventOptions &options = {});
    /* Writes the last byte of the event put last. */
    void complete();
    /* The next event goes there. */
    void seek(size_t offset) { at_ = offset; }
    size_t position() const { return at_; }
    /* Bytes of the event put last, header and padding included. */
    size_t last_length() const { return length_; }
    uint8_t &at(size_t offset) { return base_[offset % size_]; }
    uint8_t *base() { return base_; }
    size_t size() const { return size_; }

private:
    uint8_t *base_;
    size_t size_;
    size_t at_ = 0;
    size_t event_ = 0;
    size_t length_ = 0;
};

/* ------------------------------------------------------------------ memory that watches itself */

/* Readable and writable bytes that end where an untouchable page begins; another one precedes their first page. */
class GuardedBytes {
public:
    explicit GuardedBytes(size_t size);
    ~GuardedBytes();
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;

    uint8_t *data() const { return data_; }
    size_t size() const { return size_; }
    void forbid() const; /* any access faults from now on */
    void allow() const;

private:
    uint8_t *map_;
    size_t map_len_;
    uint8_t *data_;
    size_t size_;
};

/*
 * Runs once, in the accessing thread, when the page of that address is touched next; the access then goes
 * through. For what must be seen in the middle of a library call. One at a time.
 */
class PageTrap {
public:
    PageTrap(void *address, void (*action)());
    ~PageTrap();
    PageTrap(const PageTrap &) = delete;
    PageTrap &operator=(const PageTrap &) = delete;
    bool sprung() const;
};

/* ------------------------------------------------------------------ the endpoint */

enum class Dating { off, window, own_parameters };

struct Received {
    int rc = -1;
    ruk_recv_info info = {};
    Bytes data = {}; /* the whole buffer */
};

class RigEndpoint {
public:
    struct Options {
        size_t ring = 8192;
        bool locks = false;
        bool timestamping = false;
    };
    RigEndpoint() : RigEndpoint(Options()) {}
    explicit RigEndpoint(const Options &options);
    ~RigEndpoint(); /* closes the endpoint if nobody has */
    RigEndpoint(const RigEndpoint &) = delete;
    RigEndpoint &operator=(const RigEndpoint &) = delete;

    /* Gives the tag to a channel of its own: entry address and port in host order. Grows the tag table. */
    ruk__channel *bind(uint16_t tag, uint32_t dst, uint16_t port, uint32_t src = 0);
    ruk__tag_entry &entry(uint16_t tag);

    Received recv(enum ruk_recvmode mode = RUK_RECV_NONBLOCK, size_t buffer = 2048);
    int close(); /* ruk_close() */
    /* What the close unmapped, in order: region names "sendq", "recvq", "sram", "zreq", "kwindow", "flow". */
    std::vector<std::string> unmapped() const { return unmapped_; }
    bool closed() const { return unmapped_.size() != 0; }
    bool rx_lock_free(); /* tried on another thread */

    /* The clock record of the kernel window, by its byte offsets. */
    void window32(size_t offset, uint32_t v);
    void window64(size_t offset, uint64_t v);
    /* Identity clock: host time = ticks, through the window (no mask). */
    void clock_is_ticks();
    /* That clock, through the window or the endpoint's own parameters, or no adapter timestamps. */
    void date_by(Dating dating);

    uint32_t flow32(size_t offset) const; /* flow window, host order */
    uint64_t flow64(size_t offset) const;
    Bytes doorbell() const; /* its 8 bytes */

    ruk__ep *ep;
    tov_ifaddrs mif = {};
    GuardedBytes ring_memory, flow_memory, sram_memory, window_memory;
    RingWriter ring;

private:
    friend struct UnmapLog;
    test_support::LibcHookGuard hooks_;
    std::vector<std::string> unmapped_;
    std::vector<std::unique_ptr<ruk__channel>> channels_;
};

/* A library global for a scope. */
template <typename T> class Scoped {
public:
    Scoped(T &where, T value) : where_(where), old_(where) { where_ = value; }
    ~Scoped() { where_ = old_; }
    Scoped(const Scoped &) = delete;
    Scoped &operator=(const Scoped &) = delete;

private:
    T &where_;
    T old_;
};

} // namespace recv_rig
