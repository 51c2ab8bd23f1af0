#include "filter_table.h"

#include <algorithm>

namespace softnic {

size_t FilterTable::Hash::operator()(const SteerKey &key) const
{
    uint64_t h = static_cast<uint64_t>(key.ip_addr) << 32 | static_cast<uint32_t>(key.port) << 16 | key.vlan;
    h ^= static_cast<uint64_t>(key.proto) << 56;
    h *= 0x9E3779B97F4A7C15u; // golden ratio: spreads neighbouring ports and groups
    return static_cast<size_t>(h ^ h >> 32);
}

static bool is(const Filter &f, uint8_t endpoint, uint16_t tag) { return f.endpoint == endpoint && f.tag == tag; }

void FilterTable::install(uint8_t endpoint, const SteerKey &key, uint16_t tag, bool kernel)
{
    std::vector<Filter> &list = filters_[key];
    counts_[endpoint] += 1 - std::erase_if(list, [&](const Filter &f) { return is(f, endpoint, tag); });
    list.push_back(Filter{tag, endpoint, kernel});
}

bool FilterTable::remove(uint8_t endpoint, const SteerKey &key, uint16_t tag)
{
    auto it = filters_.find(key);
    if (it == filters_.end())
        return false;
    const bool found = std::erase_if(it->second, [&](const Filter &f) { return is(f, endpoint, tag); }) != 0;
    if (it->second.empty())
        filters_.erase(it);
    counts_[endpoint] -= found ? 1 : 0;
    return found;
}

bool FilterTable::contains(uint8_t endpoint, const SteerKey &key, uint16_t tag) const
{
    const std::vector<Filter> *list = find(key);
    return list != nullptr && std::ranges::any_of(*list, [&](const Filter &f) { return is(f, endpoint, tag); });
}

const std::vector<Filter> *FilterTable::find(const SteerKey &key) const
{
    auto it = filters_.find(key);
    return it == filters_.end() ? nullptr : &it->second;
}

bool FilterTable::takes_from_host(const SteerKey &key) const
{
    const std::vector<Filter> *list = find(key);
    return list != nullptr && std::ranges::none_of(*list, [](const Filter &f) { return f.kernel; });
}

std::vector<SteerKey> FilterTable::keys_of(uint8_t endpoint) const
{
    std::vector<SteerKey> keys;
    for (const auto &[key, list] : filters_)
        if (std::ranges::any_of(list, [&](const Filter &f) { return f.endpoint == endpoint; }))
            keys.push_back(key);
    std::ranges::sort(keys);
    return keys;
}

void FilterTable::remove_all(uint8_t endpoint)
{
    for (auto it = filters_.begin(); it != filters_.end();) {
        std::erase_if(it->second, [&](const Filter &f) { return f.endpoint == endpoint; });
        it = it->second.empty() ? filters_.erase(it) : std::next(it);
    }
    counts_[endpoint] = 0;
}

} // namespace softnic
