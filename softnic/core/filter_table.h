// The receive filters of a board.
#pragma once

#include "../ports/port.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace softnic {

// One filter of an endpoint, under the key it is filed by.
struct Filter {
    uint16_t tag = 0;
    uint8_t endpoint = 0;
    bool kernel = false; // matching frames also go to the host's stack
};

// Several filters may share a key, and several keys a tag. The same key and tag of one endpoint is one filter:
// installing it again makes it the newest and takes the new kernel flag.
class FilterTable {
public:
    void install(uint8_t endpoint, const SteerKey &key, uint16_t tag, bool kernel);

    // False when there is no such filter.
    bool remove(uint8_t endpoint, const SteerKey &key, uint16_t tag);

    bool contains(uint8_t endpoint, const SteerKey &key, uint16_t tag) const;

    // All filters of a key, oldest first; null when there is none.
    const std::vector<Filter> *find(const SteerKey &key) const;

    // The host is to be spared the frames of this key: there are filters and none of them asks for a copy.
    bool takes_from_host(const SteerKey &key) const;

    // Keys under which this endpoint has a filter, each once.
    std::vector<SteerKey> keys_of(uint8_t endpoint) const;

    void remove_all(uint8_t endpoint);
    size_t count(uint8_t endpoint) const { return counts_[endpoint]; }

private:
    struct Hash {
        size_t operator()(const SteerKey &key) const;
    };
    std::unordered_map<SteerKey, std::vector<Filter>, Hash> filters_;
    std::array<size_t, 256> counts_ = {}; // filters of each endpoint
};

} // namespace softnic
