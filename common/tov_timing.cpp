/*
 * The rate of the processor's cycle counter, and the host's wall-clock time.
 */
#include "tov.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

uint64_t cycles_per_second;
double seconds_per_cycle;

/*
 * Two threads may find the rate at once; what the last one finds stays. The period is stored before the rate, so that
 * whoever sees the rate has a period as well.
 */
static void set_rate(uint64_t rate)
{
    double period = 1.0 / static_cast<double>(rate);
    __atomic_store(&seconds_per_cycle, &period, __ATOMIC_RELAXED);
    __atomic_store_n(&cycles_per_second, rate, __ATOMIC_RELEASE);
}

static uint64_t known_rate(void) { return __atomic_load_n(&cycles_per_second, __ATOMIC_ACQUIRE); }

int cmp_uint64(const void *ap, const void *bp)
{
    uint64_t a = *static_cast<const uint64_t *>(ap);
    uint64_t b = *static_cast<const uint64_t *>(bp);
    return a == b ? 0 : a < b ? -1 : 1;
}

/* Rate set by the environment, 0 when it sets none. */
static uint64_t rate_from_environment(void)
{
    const char *text = getenv("TOV_CYCLES_PER_SECOND");
    if (!text || !*text)
        text = getenv("KZ_CYCLES_PER_SECOND");

    long long rate = 0;
    if (!text || sscanf(text, "%lld", &rate) != 1)
        return 0;
    return static_cast<uint64_t>(rate);
}

static uint64_t microseconds(const struct timeval *from, const struct timeval *to)
{
    return static_cast<uint64_t>(to->tv_sec - from->tv_sec) * 1000000 +
           static_cast<uint64_t>(to->tv_usec - from->tv_usec);
}

/* Times the counter against the system clock over 0.2 seconds. */
static uint64_t sample_rate(void)
{
    struct timeval before, after;

    tov_cycles_t start = tov_get_cycles();
    gettimeofday(&before, nullptr);
    usleep(200000);
    tov_cycles_t end = tov_get_cycles();
    gettimeofday(&after, nullptr);

    uint64_t elapsed = microseconds(&before, &after);
    /* A system clock set back just now can make the two readings equal. */
    return elapsed ? (end - start) * 1000000 / elapsed : 0;
}

void tov_cycles_counter_init(void)
{
    uint64_t rate = rate_from_environment();
    if (rate == 0) {
        uint64_t samples[4];
        for (uint64_t &sample : samples)
            sample = sample_rate();
        qsort(samples, 4, sizeof samples[0], cmp_uint64);
        rate = samples[2];
    }
    set_rate(rate);
}

tov_cycles_t tov_cycles_per_second(void)
{
    if (known_rate() == 0)
        tov_cycles_counter_init();
    return known_rate();
}

double tov_seconds_per_cycle(void)
{
    if (known_rate() == 0)
        tov_cycles_counter_init();
    double period;
    __atomic_load(&seconds_per_cycle, &period, __ATOMIC_RELAXED);
    return period;
}

uint64_t tov_host_nsecs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}
