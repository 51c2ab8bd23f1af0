/*
 * A small handler of a market data feed: numbered messages in UDP datagrams, over ruk.h alone.
 *
 * Each datagram is a sequence number (8 bytes, network byte order, from 1 on) and a price (8 bytes, the same). The feed
 * counts what is missing, what came twice and what came late, and keeps the newest price.
 */
#pragma once

#include "ruk.h"

#include <cstdint>
#include <set>

/* A number further ahead is damaged: each missing one is kept. */
constexpr uint64_t longest_gap = 100'000;

struct FeedState {
    uint64_t messages = 0;   /* different ones */
    uint64_t missing = 0;    /* never seen, below the highest number */
    uint64_t duplicates = 0; /* seen before */
    uint64_t late = 0;       /* with a number below the highest */
    uint64_t damaged = 0;    /* too short to be a message, or with a number that cannot be */
    uint64_t last = 0;       /* highest number */
    uint64_t price = 0;      /* of the message with the highest number */
    uint64_t time_ns = 0;    /* when that arrived; 0 = not known */
};

class Feed {
public:
    /* The device stays the caller's. */
    explicit Feed(ruk_device_t dev) : dev_(dev) {}

    /* Takes all that waits. Returns how many datagrams there were, or -1 for an error of the library. */
    int poll();

    const FeedState &state() const { return state_; }

private:
    void take(uint64_t number, uint64_t price, uint64_t time_ns);

    ruk_device_t dev_;
    FeedState state_;
    std::set<uint64_t> gaps_; /* numbers below the highest that have not come */
};
