/*
 * The library's half of an account: what became of the frames that the adapter put into an endpoint's ring.
 */
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ledger/ledger.h"
#include "ruk.h"

namespace tools {

struct ReceiveAccount {
    unsigned board = 0, endpoint = 0;

    /* Frames, by the adapter's own account; none where it gives none. */
    std::optional<uint64_t> in_ring;

    /* Each of these frames is one of: received, malformed, keyframes ..., dropped_... (all of the library's), waiting.
     */
    std::vector<std::pair<std::string, uint64_t>> parts;

    uint64_t sum() const;
    uint64_t part(const std::string &name) const;
};

/*
 * Of an endpoint that nobody receives from any more, while frames may go on coming: what the adapter put into the ring
 * after its account was taken is left out. received and malformed are the caller's to tell, counters are those of
 * endpoint_counters(). ledgers are of this process; where the endpoint's board is among them its account covers all
 * that the endpoint has consumed, or it is no use and left aside.
 */
ReceiveAccount receive_account(ruk_device_t dev, uint64_t received, uint64_t malformed,
                               const std::vector<std::pair<std::string, uint64_t>> &counters,
                               const std::vector<softnic::LiveLedger> &ledgers);

/* The boards in this process, once that of the endpoint accounts for all that the endpoint has consumed. */
std::vector<softnic::LiveLedger> own_ledgers_covering(ruk_device_t dev);

/*
 * Bytes of the frame of the datagram that this thread has just received from the endpoint. Without the trailer; where
 * a switch's timestamps are on, which are the trailer and leave with the time, with any that is still there.
 */
size_t last_frame_bytes(ruk_device_t dev);

nlohmann::ordered_json account_object(const ReceiveAccount &account);

/* The same as lines of text. */
std::vector<std::string> account_lines(const ReceiveAccount &account);

} // namespace tools
