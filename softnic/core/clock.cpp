#include "clock.h"

#include "tov_io.h"

#include <algorithm>
#include <cstring>

namespace softnic {

constexpr uint64_t kBillion = 1000000000u;
constexpr size_t kClksyncOffset = 64;
constexpr uint64_t kReferenceAge = 3600 * kBillion;

uint64_t mul_div(uint64_t a, uint64_t b, uint64_t c)
{
#ifdef __SIZEOF_INT128__
    __extension__ typedef unsigned __int128 u128;
    return static_cast<uint64_t>(static_cast<u128>(a) * b / c);
#else
    // 64 x 64 bits in 32-bit halves, then a division bit by bit.
    const uint64_t al = a & 0xFFFFFFFFu, ah = a >> 32, bl = b & 0xFFFFFFFFu, bh = b >> 32;
    const uint64_t mid = ah * bl + ((al * bl) >> 32);
    const uint64_t mid2 = al * bh + (mid & 0xFFFFFFFFu);
    uint64_t high = ah * bh + (mid >> 32) + (mid2 >> 32);
    uint64_t low = (mid2 << 32) | ((al * bl) & 0xFFFFFFFFu);
    if (high == 0)
        return low / c;
    high %= c;
    for (int bit = 0; bit < 64; bit++) {
        const bool carry = (high >> 63) != 0;
        high = high << 1 | low >> 63;
        low <<= 1;
        if (carry || high >= c) {
            high -= c;
            low |= 1;
        }
    }
    return low;
#endif
}

Clock::Clock(const ClockConfig &config, Now power_up) : config_(config), power_up_(power_up)
{
    if (config_.ns_numerator == 0)
        config_.ns_numerator = 1;
    if (config_.ns_denominator == 0)
        config_.ns_denominator = 1;
    if (config_.drift_ppb <= -static_cast<int64_t>(kBillion))
        config_.drift_ppb = 1 - static_cast<int64_t>(kBillion);
}

uint64_t Clock::ticks(uint64_t mono_ns) const
{
    const uint64_t elapsed = mono_ns - power_up_.mono_ns;
    const uint64_t counted =
        mul_div(elapsed, static_cast<uint64_t>(static_cast<int64_t>(kBillion) + config_.drift_ppb), kBillion);
    const uint64_t t = config_.first_ticks + mul_div(counted, config_.ns_denominator, config_.ns_numerator);
    return config_.ticks_mask != 0 ? t & config_.ticks_mask : t;
}

uint64_t Clock::reach() const
{
    // Readers multiply the ticks since the reference by the numerator in 64 bits.
    return std::min(kReferenceAge, (uint64_t{1} << 63) / config_.ns_denominator);
}

void Clock::publish(kz_kernel_window_t *window, Now now) const
{
    struct {
        oxel_clksync_params_t clkp;
        oxel_clksync_nticks_t nticks;
    } record = {};
    const uint64_t t = ticks(now.mono_ns);
    record.nticks.nt_numerator = config_.ns_numerator;
    record.nticks.nt_denominator = config_.ns_denominator;
    record.nticks.ticks_mask = config_.ticks_mask;
    if (config_.ticks_mask == 0) {
        const uint64_t age = std::min(now.mono_ns - power_up_.mono_ns, reach());
        record.nticks.ticks = ticks(now.mono_ns - age);
        record.nticks.nsecs = now.real_ns - (t - record.nticks.ticks) * config_.ns_numerator / config_.ns_denominator;
    } else {
        const uint64_t first = config_.first_ticks & config_.ticks_mask;
        const uint64_t since = (t - first) & config_.ticks_mask;
        const uint64_t nominal = since * config_.ns_numerator / config_.ns_denominator + power_up_.real_ns;
        record.nticks.ticks = first;
        record.nticks.nsecs = power_up_.real_ns;
        record.clkp.nsecs_base = nominal;
        record.clkp.hostnic_drift_nsecs = static_cast<int64_t>(now.real_ns - nominal);
        // Host ns a nominal ns, less one, with 30 fraction bits: -drift / (1 + drift).
        const double drift = static_cast<double>(config_.drift_ppb) / 1e9;
        record.clkp.multiplier = static_cast<int64_t>(-drift / (1.0 + drift) * (1 << 30));
    }

    auto *words = reinterpret_cast<uint32_t *>(reinterpret_cast<uint8_t *>(window) + kClksyncOffset);
    const uint32_t seq = tov_ld32(words);
    tov_st32(words, seq | 1); // odd before the first word of the record changes
    tov_wmb();
    uint32_t image[sizeof(record) / 4];
    memcpy(image, &record, sizeof(record));
    for (size_t i = 0; i < sizeof(record) / 4; i++)
        tov_st32(words + 1 + i, image[i]);
    tov_st32_rel(words, (seq | 1) + 1); // even again, and another value than before, after the last word
}

} // namespace softnic
