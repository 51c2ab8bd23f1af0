#include "writer.h"

#include "../driver/sys.h"

#include <atomic>
#include <cstring>
#include <sys/stat.h>
#include <time.h>

namespace softnic {

void take_ledger(Card &card, unsigned board, LedgerPage *page)
{
    const PortCounters port = card.port().counters();
    const BoardCounters &b = card.board().counters();
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    page->board = board;
    page->endpoints = card.board().endpoints();
    page->time_ns = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
    card.config().name.copy(page->interface, sizeof(page->interface) - 1);
    page->received = port.received;
    page->rx_dropped = port.rx_dropped;
    page->rx_malformed = port.rx_malformed;
    page->sent = port.sent;
    page->tx_errors = port.tx_errors;
    page->arrived = b.arrived;
    page->matched = b.matched;
    page->unmatched = b.unmatched;
    page->malformed = b.malformed;
    page->raw_dropped = card.raw_dropped();
    for (unsigned ep = 0; ep < page->endpoints; ep++) {
        const EndpointCounters c = card.board().endpoint_counters(ep);
        LedgerEndpoint &e = page->endpoint[ep];
        e.claimed = card.owner(ep) != nullptr;
        e.enabled = card.board().enabled(ep);
        e.ring_bytes = c.ring.ring_bytes;
        e.unconsumed = e.enabled != 0 ? card.board().ring(ep).unconsumed_bytes() : 0;
        e.steered = c.steered;
        e.delivered = c.ring.delivered;
        e.disabled = c.disabled;
        e.ring_full = c.ring.ring_full;
        e.oversize = c.ring.oversize;
        e.pending = c.steered - c.ring.delivered - c.disabled - c.ring.ring_full - c.ring.oversize;
        e.events = c.ring.events;
        e.bad_flow = c.ring.bad_flow;
        e.high_water = c.ring.high_water;
        e.requests = c.requests;
        e.frames_sent = c.frames_sent;
        e.send_errors = c.send_errors;
        e.bad_type = c.bad_type;
        e.bad_header = c.bad_header;
        e.bad_payload = c.bad_payload;
        e.post_overflow = c.post_overflow;
        e.lost_requests = card.lost_requests(ep);
    }
}

LedgerWriter::~LedgerWriter()
{
    if (page_ != nullptr)
        sys::munmap(page_, sizeof(*page_));
    close_fd();
}

int LedgerWriter::create(Card &card, unsigned board)
{
    board_ = board;
    fd_ = sys::keep(static_cast<int>(::syscall(SYS_memfd_create, kLedgerName, MFD_CLOEXEC)));
    if (fd_ < 0)
        return errno;
    struct stat st;
    void *page = MAP_FAILED;
    if (::ftruncate(fd_, sizeof(LedgerPage)) == 0 && ::fstat(fd_, &st) == 0)
        page = sys::mmap(nullptr, sizeof(LedgerPage), PROT_READ | PROT_WRITE, MAP_SHARED, fd_);
    if (page == MAP_FAILED) {
        const int rc = errno;
        sys::close(fd_);
        fd_ = -1;
        return rc;
    }
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    page_ = static_cast<LedgerPage *>(page);
    publish(card);
    std::atomic_ref<uint64_t>(page_->magic).store(kLedgerMagic, std::memory_order_release);
    return 0;
}

void LedgerWriter::publish(Card &card)
{
    if (page_ == nullptr)
        return;
    const std::atomic_ref<uint64_t> sequence(page_->sequence);
    card.lock().lock();
    sequence.store(sequence.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    take_ledger(card, board_, page_);
    sequence.store(sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    card.lock().unlock();
}

void LedgerWriter::forget()
{
    page_ = nullptr;
    close_fd();
}

// The program may have closed the number, and another file may have it now.
void LedgerWriter::close_fd()
{
    struct stat st;
    if (fd_ >= 0 && ::fstat(fd_, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_)
        sys::close(fd_);
    fd_ = -1;
}

} // namespace softnic
