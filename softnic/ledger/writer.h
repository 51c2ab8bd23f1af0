// A board's account as its firmware keeps it.
#pragma once

#include "../driver/card.h"
#include "ledger.h"

namespace softnic {

// With the card's lock held.
void take_ledger(Card &card, unsigned board, LedgerPage *page);

// The shared page of a board. It vanishes with the process.
class LedgerWriter {
public:
    LedgerWriter() = default;
    ~LedgerWriter();
    LedgerWriter(const LedgerWriter &) = delete;
    LedgerWriter &operator=(const LedgerWriter &) = delete;

    // 0 or an errno value. A board without a page works all the same.
    int create(Card &card, unsigned board);

    // Brings the page up to date; takes the card's lock.
    void publish(Card &card);

    // In the child of a fork: the page goes on being the parent's.
    void forget();

private:
    void close_fd();

    unsigned board_ = 0;
    LedgerPage *page_ = nullptr;
    int fd_ = -1; // only there to be found
    dev_t dev_ = 0;
    ino_t ino_ = 0;
};

} // namespace softnic
