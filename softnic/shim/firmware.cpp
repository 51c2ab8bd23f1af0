#include "firmware.h"

#include "../driver/sys.h"
#include "tap_watch.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <map>
#include <poll.h>
#include <sched.h>
#include <time.h>
#include <vector>

namespace softnic {
namespace {

constexpr unsigned kRoundFrames = 64;
// A woken receiver needs a moment to get to its events: worth more patience than an empty wire.
constexpr uint64_t kConsumerPatience = 4;
// On a single processor looking on keeps everybody else from making work.
constexpr uint64_t kSingleCpuSpinNs = 10000;
constexpr int64_t kTimedSleepNs = 1000000;
// Whoever was stopped at a protected page needs this long to be let go on and make its store. Protecting the page again
// any earlier would stop it at the same store, for ever when the two take turns.
constexpr uint64_t kWakeGraceNs = 200000;
// Under load the ledger is this old at most; an idle adapter's is exact.
constexpr uint64_t kLedgerPeriodNs = 5000000;
constexpr uint64_t kShortestWatch = 50000, kLongestWatch = 20000000;

uint64_t clock_ns(clockid_t clock)
{
    timespec t;
    ::clock_gettime(clock, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

// Never destroyed: the boards are stopped after the program's own objects are gone.
struct Registry {
    std::mutex mutex;
    std::map<Card *, Firmware *> boards;
};
Registry *g_registry = nullptr;

// The processors that the calling thread may use; empty when they cannot be told.
std::vector<cpu_set_t> allowed_cpus()
{
    // Larger until it holds all that the machine may have.
    std::vector<cpu_set_t> sets(1);
    while (::sched_getaffinity(0, sets.size() * sizeof(cpu_set_t), sets.data()) != 0) {
        if (errno != EINVAL || sets.size() == 1024)
            return {};
        sets.resize(2 * sets.size());
    }
    return sets;
}

// Keeps the calling thread on one processor. False where that is not to be had.
bool stay_on(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(cpu), &set);
    return ::pthread_setaffinity_np(::pthread_self(), sizeof(set), &set) == 0;
}

void cpu_relax() { __builtin_ia32_pause(); }

} // namespace

Now LiveRunner::now() { return Now{clock_ns(CLOCK_MONOTONIC), clock_ns(CLOCK_REALTIME)}; }

uint64_t LiveRunner::reading_delay()
{
    const uint64_t before = clock_ns(CLOCK_MONOTONIC);
    now();
    return clock_ns(CLOCK_MONOTONIC) - before;
}

int LiveRunner::wait(Card &card, std::unique_lock<CardLock> &lock, const std::function<bool()> &done, int timeout_ms)
{
    // What the caller waits for can often be done here and now, without a change of threads.
    while (!done())
        if (!card.service(0).progress)
            break;
    if (timeout_ms < 0) {
        card.progress().wait(lock, done);
        return 0;
    }
    return card.progress().wait_for(lock, std::chrono::milliseconds(timeout_ms), done) ? 0 : ETIMEDOUT;
}

void LiveRunner::kick(Card &card)
{
    if (Firmware *firmware = Firmware::of(card))
        firmware->kick();
}

Firmware *Firmware::of(Card &card)
{
    if (g_registry == nullptr)
        return nullptr;
    std::lock_guard guard(g_registry->mutex);
    auto it = g_registry->boards.find(&card);
    return it == g_registry->boards.end() ? nullptr : it->second;
}

void forget_firmware()
{
    g_registry = nullptr; // left as it is: its lock may have been held
    UnwatchedThread::forget_all();
}

Firmware::Firmware(Card &card, const FirmwareOptions &options) : card_(card), options_(options) {}

Firmware::~Firmware() { stop(); }

int Firmware::start()
{
    if (int rc = control_.create(true))
        return rc;
    control_.keep();
    const std::vector<cpu_set_t> cpus = allowed_cpus();
    const size_t bytes = cpus.size() * sizeof(cpu_set_t);
    single_cpu_ = CPU_COUNT_S(bytes, cpus.data()) < 2;
    cpu_is_the_programs_ = options_.cpu >= 0 && CPU_ISSET_S(static_cast<unsigned>(options_.cpu), bytes, cpus.data());
    (void)ledger_.create(card_, options_.board);
    if (g_registry == nullptr) // under the lock that boards are made under
        g_registry = new Registry;
    {
        std::lock_guard guard(g_registry->mutex);
        g_registry->boards[&card_] = this;
    }
    // The program's signals are for the program's threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int rc = ::pthread_create(&thread_, nullptr, entry, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    started_ = rc == 0;
    if (started_) {
        ::pthread_setname_np(thread_, "softnic");
        running_.wait(false); // it says there that it needs no watchpoint, before anybody opens one
    }
    return rc;
}

void Firmware::stop()
{
    if (g_registry != nullptr) {
        std::lock_guard guard(g_registry->mutex);
        g_registry->boards.erase(&card_);
    }
    if (started_) {
        stop_.store(true);
        kick();
        ::pthread_join(thread_, nullptr);
        started_ = false;
        running_.store(false);
        std::lock_guard guard(card_.lock());
        while (card_.service(0).progress) {
        }
    }
    control_.close();
}

void Firmware::kick()
{
    kicked_.store(true);
    if (asleep_.load() && control_.alive()) {
        const char byte = 0;
        sys::write(control_.fd(), &byte, 1);
    }
}

void *Firmware::entry(void *self)
{
    static_cast<Firmware *>(self)->loop();
    return nullptr;
}

void Firmware::loop()
{
    const UnwatchedThread unwatched;
    running_.store(true);
    running_.notify_all();
    if (options_.cpu >= 0 && stay_on(options_.cpu) && !cpu_is_the_programs_)
        single_cpu_ = false;
    const uint64_t spin_ns = single_cpu_ ? std::min(options_.spin_ns, kSingleCpuSpinNs) : options_.spin_ns;
    uint64_t last_work = clock_ns(CLOCK_MONOTONIC), awake_until = 0;
    while (!stop_.load(std::memory_order_relaxed)) {
        while (card_.lock().wanted() && !stop_.load(std::memory_order_relaxed))
            ::sched_yield(); // a command waits: it comes first
        card_.lock().lock();
        const Card::Round round = card_.service(kRoundFrames);
        card_.lock().unlock();
        if (round.progress) {
            last_work = clock_ns(CLOCK_MONOTONIC);
            if (last_work - ledger_at_ >= kLedgerPeriodNs)
                publish_ledger(last_work);
            continue;
        }
        const uint64_t now = clock_ns(CLOCK_MONOTONIC), idle = now - last_work;
        if (now < awake_until || idle < spin_ns * (round.unconsumed ? kConsumerPatience : 1)) {
            if (single_cpu_)
                ::sched_yield();
            else
                cpu_relax();
            continue;
        }
        publish_ledger(now);
        if (sleep(idle))
            awake_until = clock_ns(CLOCK_MONOTONIC) + kWakeGraceNs;
        if (kicked_.exchange(false))
            last_work = clock_ns(CLOCK_MONOTONIC);
    }
}

void Firmware::publish_ledger(uint64_t now)
{
    ledger_.publish(card_);
    ledger_at_ = now;
}

// Sleeps until there may be work. Whoever makes some finds the firmware either asleep, and wakes it, or awake. True
// when somebody did.
bool Firmware::sleep(uint64_t idle_ns)
{
    asleep_.store(true);
    card_.lock().lock();
    const Card::Arm armed = card_.arm(&fds_);
    card_.lock().unlock();
    if (armed == Card::Arm::Work || kicked_.load() || stop_.load()) {
        asleep_.store(false);
        card_.lock().lock();
        card_.disarm();
        card_.lock().unlock();
        return true;
    }

    std::vector<pollfd> waits;
    waits.push_back({control_.fd(), POLLIN, 0});
    for (int fd : fds_)
        if (fd >= 0)
            waits.push_back({fd, POLLIN, 0});
    bool broken = !control_.alive();
    timespec limit = {0, kTimedSleepNs};
    if (armed == Card::Arm::TimedConsumers)
        limit.tv_nsec = static_cast<long>(std::clamp(idle_ns / 4, kShortestWatch, kLongestWatch));
    const bool timed = armed != Card::Arm::Armed || broken;
    const bool woken = ::ppoll(waits.data(), waits.size(), timed ? &limit : nullptr, nullptr) > 0;
    // A descriptor that was closed behind our back would end every sleep at once.
    for (const pollfd &w : waits)
        broken |= (w.revents & (POLLNVAL | POLLERR)) != 0;
    if (broken)
        ::clock_nanosleep(CLOCK_MONOTONIC, 0, &limit, nullptr);

    asleep_.store(false);
    char byte;
    if (control_.alive())
        while (sys::read(control_.fd(), &byte, 1) == 1) {
        }
    card_.lock().lock();
    card_.disarm();
    card_.lock().unlock();
    return woken;
}

} // namespace softnic
