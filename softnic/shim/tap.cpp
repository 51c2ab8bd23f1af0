#include "tap.h"

#include "../driver/sys.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "tap_decode.h"
#include "tap_queue.h"
#include "tap_signals.h"
#include "tap_watch.h"
#include "tov_io.h"

namespace softnic {

namespace {

constexpr size_t slot_bytes = sizeof(nuv_ureq_t);
constexpr size_t last_word = slot_bytes - sizeof(uint32_t);
constexpr unsigned watched_types[] = {NUV_UREQ_RUK_PIO, NUV_UREQ_RUK_DMA};
constexpr unsigned max_taps = 1024;

constexpr size_t slot_offset(unsigned type) { return size_t(type) * NUV_UREQ_STRIDE; }

// Of the watched types, the first ones.
unsigned watchpoints_of(TapMode mode) { return mode == TapMode::fast ? 1 : mode == TapMode::exact ? 2 : 0; }

} // namespace

// Everything that a signal handler touches. States are recycled and never freed: a handler may be late.
struct TapState {
    // Set while no handler can see the tap.
    TapMode mode = TapMode::fallback;
    unsigned index = 0;
    uintptr_t app = 0;
    uint8_t *alias = nullptr;
    size_t len = 0;
    int eventfd = -1;
    dev_t app_device = 0;
    ino_t app_inode = 0;
    char name[64] = "";
    TapWatch watch;

    std::atomic<bool> active{false};   // handlers serve it
    std::atomic<bool> detached{false}; // the application's addresses are no longer its
    std::atomic<bool> sleeping{false}; // the firmware sleeps, or is about to
    std::atomic<bool> taking{false};   // a handler takes requests from watched slots
    TapQueue queue;

    std::atomic<uint32_t> queued{0}, polled{0}, async_hits{0}, overflows{0}, emulated{0}, stepped{0}, idle_wakes{0};

    volatile uint32_t *word(size_t offset) { return reinterpret_cast<volatile uint32_t *>(alias + offset); }
    bool covers(uintptr_t address) const { return address >= app && address - app < len; }

    void snapshot(unsigned type, nuv_ureq_t *out);
    void push(const nuv_ureq_t &request);
    bool claim(unsigned type, nuv_ureq_t *out);
    void on_posted(unsigned type);
    bool on_lost_hit();
    void wake();
    bool protect(bool on);
};

namespace {

std::mutex table_mutex;
std::atomic<TapState *> table[max_taps];
std::atomic<unsigned> table_used{0};

// The instruction that this thread is allowed to run on an unprotected page. The linker resolves the offset of
// such a variable at start, so that a handler may use it.
struct Stepping {
    TapState *tap;
    uint32_t before[2]; // last words of the watched slots, under the marks
};
__attribute__((tls_model("initial-exec"))) thread_local Stepping stepping;

constexpr greg_t trap_flag = 0x100;
// Stands in a slot's last word while one instruction runs: no request has that type.
constexpr uint32_t unwritten_mark = 0xee5aa5eeu;

void say(const char *name, const char *text)
{
    // One write, no stdio: handlers say things too.
    char line[256];
    size_t at = 0;
    for (const char *part : {"softnic: ", name, ": ", text, "\n"})
        while (*part && at < sizeof line)
            line[at++] = *part++;
    (void)!write(STDERR_FILENO, line, at);
}

} // namespace

// ------------------------------------------------------------ posting side: handlers

void TapState::snapshot(unsigned type, nuv_ureq_t *out)
{
    for (size_t i = 0; i < slot_bytes / 4; i++)
        out->words[i] = tov_ld32(word(slot_offset(type) + 4 * i));
}

void TapState::push(const nuv_ureq_t &request)
{
    if (queue.push(request))
        queued.fetch_add(1, std::memory_order_relaxed);
    else if (overflows.fetch_add(1, std::memory_order_relaxed) == 0)
        say(name, "requests are lost: more of them in flight than the adapter allows");
}

// The request in a slot, if one is there. Whoever zeroes the last word owns it; the rest stays as it is until the
// thread that posted it goes on, or, in the polled slot, until the completion counter has moved.
bool TapState::claim(unsigned type, nuv_ureq_t *out)
{
    volatile uint32_t *last = word(slot_offset(type) + last_word);
    if (tov_ld32_acq(last) == 0)
        return false;
    uint32_t taken = __atomic_exchange_n(last, 0, __ATOMIC_ACQ_REL);
    if (taken == 0)
        return false;
    snapshot(type, out);
    out->words[last_word / 4] = taken;
    return true;
}

void TapState::on_posted(unsigned type)
{
    nuv_ureq_t request;
    // Whoever looks for a lost hit may take this thread's request: it stays in its slot until that is done.
    const bool shared = mode != TapMode::fallback;
    while (shared && taking.exchange(true, std::memory_order_acquire))
        ;
    // What still lies in the polled slot was posted before this.
    if (mode == TapMode::fast && claim(NUV_UREQ_RUK_DMA, &request))
        push(request);
    if (claim(type, &request))
        push(request);
    if (shared)
        taking.store(false, std::memory_order_release);
    wake();
}

// A hit somewhere was lost: posts what lies in the watched slots. False when this tap watches none.
bool TapState::on_lost_hit()
{
    const bool watches = active.load(std::memory_order_acquire) && !detached.load(std::memory_order_acquire);
    const unsigned count = watches ? watchpoints_of(mode) : 0;
    for (unsigned i = 0; i < count; i++)
        if (tov_ld32_acq(word(slot_offset(watched_types[i]) + last_word)) != 0)
            on_posted(watched_types[i]);
    return count != 0;
}

// The exchange is a full fence: either the firmware's look at the queue after it said so sees what was pushed,
// or this sees that it sleeps.
void TapState::wake()
{
    if (sleeping.exchange(false)) {
        idle_wakes.fetch_add(1, std::memory_order_relaxed);
        uint64_t one = 1;
        (void)!write(eventfd, &one, sizeof one);
    }
}

bool TapState::protect(bool on)
{
    return syscall(SYS_mprotect, app, len, on ? PROT_READ : PROT_READ | PROT_WRITE) == 0;
}

namespace {

// Slots whose last word lies in [offset, offset + size) of the window.
void post_stored(TapState *tap, size_t offset, size_t size)
{
    for (unsigned type : watched_types) {
        if (type == NUV_UREQ_RUK_DMA && tap->mode == TapMode::fast)
            continue; // polled
        size_t last = slot_offset(type) + last_word;
        if (offset < last + 4 && offset + size > last)
            tap->on_posted(type);
    }
}

bool perform_store(TapState *tap, size_t offset, const TapStore &store)
{
    if (offset + store.size > tap->len)
        return false;
    uint8_t *to = tap->alias + offset;
    switch (store.size) {
    case 1:
        tov_st8_rel(to, uint8_t(store.value));
        break;
    case 2:
        tov_st16_rel(reinterpret_cast<uint16_t *>(to), uint16_t(store.value));
        break;
    case 4:
        tov_st32_rel(reinterpret_cast<uint32_t *>(to), uint32_t(store.value));
        break;
    case 8:
        tov_st64_rel(reinterpret_cast<uint64_t *>(to), store.value);
        break;
    default:
        return false;
    }
    tap->emulated.fetch_add(1, std::memory_order_relaxed);
    post_stored(tap, offset, store.size);
    return true;
}

// Any other instruction runs by itself, alone, on the unprotected page; its trap comes back to end_step().
void begin_step(TapState *tap, ucontext_t *context)
{
    stepping.tap = tap;
    for (unsigned i = 0; i < 2; i++) {
        volatile uint32_t *last = tap->word(slot_offset(watched_types[i]) + last_word);
        stepping.before[i] = tov_ld32(last);
        tov_st32(last, unwritten_mark);
    }
    tap->protect(false);
    context->uc_mcontext.gregs[REG_EFL] |= trap_flag;
}

void end_step(ucontext_t *context)
{
    TapState *tap = stepping.tap;
    stepping.tap = nullptr;
    tap->protect(true);
    context->uc_mcontext.gregs[REG_EFL] &= ~trap_flag;
    tap->stepped.fetch_add(1, std::memory_order_relaxed);
    bool posted[2];
    for (unsigned i = 0; i < 2; i++) {
        volatile uint32_t *last = tap->word(slot_offset(watched_types[i]) + last_word);
        posted[i] = tov_ld32_acq(last) != unwritten_mark;
        if (!posted[i])
            tov_st32(last, stepping.before[i]);
    }
    for (unsigned i = 0; i < 2; i++)
        if (posted[i])
            tap->on_posted(watched_types[i]);
}

TapState *tap_covering(uintptr_t address)
{
    unsigned used = table_used.load(std::memory_order_acquire);
    for (unsigned i = 0; i < used; i++) {
        TapState *tap = table[i].load(std::memory_order_acquire);
        if (tap->active.load(std::memory_order_acquire) && !tap->detached.load(std::memory_order_acquire) &&
            tap->covers(address))
            return tap;
    }
    return nullptr;
}

// A hypervisor may lose the cause of a debug exception (the guest's DR6) when it has the processor between that and the
// guest's look at it. The kernel then takes a hit for an int1 of the program.
bool take_lost_hit(const siginfo_t *info, ucontext_t *context)
{
    constexpr uint8_t int1 = 0xf1;
    if (info->si_code != TRAP_BRKPT || reinterpret_cast<const uint8_t *>(tap_instruction_pointer(context))[-1] == int1)
        return false;
    bool watching = false;
    unsigned used = table_used.load(std::memory_order_acquire);
    for (unsigned i = 0; i < used; i++)
        watching |= table[i].load(std::memory_order_acquire)->on_lost_hit();
    return watching;
}

bool on_trap(siginfo_t *info, ucontext_t *context)
{
    TapHit hit;
    if (tap_read_hit(info, &hit)) {
        unsigned index = hit.cookie >> 1;
        TapState *tap =
            index < table_used.load(std::memory_order_acquire) ? table[index].load(std::memory_order_acquire) : nullptr;
        if (tap && tap->active.load(std::memory_order_acquire)) {
            if (hit.late && tap->async_hits.fetch_add(1, std::memory_order_relaxed) == 0)
                say(tap->name, "error: a thread that blocks SIGTRAP posts requests: some of them are lost");
            tap->on_posted(watched_types[hit.cookie & 1]);
        }
        return true; // a late hit of a tap that is gone is no one else's either
    }
    if (stepping.tap && info->si_code > 0) {
        end_step(context);
        return true;
    }
    return take_lost_hit(info, context);
}

bool on_fault(siginfo_t *info, ucontext_t *context)
{
    if (stepping.tap) // the instruction faults elsewhere, too
        end_step(context);
    if (info->si_code != SEGV_ACCERR)
        return false;
    uintptr_t address = reinterpret_cast<uintptr_t>(info->si_addr);
    TapState *tap = tap_covering(address);
    if (!tap)
        return false;
    // Also the store that ends an idle period is performed here and not done again, or a firmware that falls
    // asleep once more before the thread goes on could hold it up forever.
    TapStore store;
    greg_t &ip = tap_instruction_pointer(context);
    const uint8_t *code = reinterpret_cast<const uint8_t *>(ip);
    bool performed = tap_decode_store(code, context, &store) && perform_store(tap, address - tap->app, store);
    if (performed)
        ip += store.length;
    if (tap->mode != TapMode::fallback) {
        tap->protect(false);
        tap->wake();
    } else if (!performed) {
        begin_step(tap, context);
    }
    return true;
}

// ------------------------------------------------------------ creation

// Calls use(line) for each line of a file of /proc.
template <typename Use> void for_each_line(const char *path, Use use)
{
    FILE *file = std::fopen(path, "re");
    if (!file)
        return;
    char line[512];
    while (std::fgets(line, sizeof line, file))
        use(line);
    std::fclose(file);
}

bool is_traced()
{
    unsigned tracer = 0;
    for_each_line("/proc/self/status", [&](const char *line) { std::sscanf(line, "TracerPid: %u", &tracer); });
    return tracer != 0;
}

// What is mapped at address: 0 when nothing, or no file.
void mapped_file(uintptr_t address, dev_t *device, ino_t *inode)
{
    *device = 0;
    *inode = 0;
    for_each_line("/proc/self/maps", [&](const char *line) {
        unsigned long from, to, file;
        unsigned major, minor;
        if (std::sscanf(line, "%lx-%lx %*s %*x %x:%x %lu", &from, &to, &major, &minor, &file) == 5 && address >= from &&
            address < to) {
            *device = (dev_t(major) << 20) | minor;
            *inode = file;
        }
    });
}

// error is 0 under a debugger.
void say_refused(const char *name, TapMode preferred, int error)
{
    std::string why =
        error ? std::string("no watchpoint (") + std::strerror(error) + ")" : "a debugger has this process";
    say(name, (std::string(tap_mode_name(preferred)) + " mode: " + why + ": using fallback mode").c_str());
}

int open_watch(TapState *tap, TapMode mode)
{
    TapWatch::Word words[TapWatch::max_words];
    for (unsigned i = 0; i < watchpoints_of(mode); i++)
        words[i] = {reinterpret_cast<volatile uint32_t *>(tap->app + slot_offset(watched_types[i]) + last_word),
                    tap->index << 1 | i};
    return tap->watch.open(words, watchpoints_of(mode));
}

int take_signals()
{
    int error = tap_take_signal(SIGTRAP, on_trap);
    return error ? error : tap_take_signal(SIGSEGV, on_fault);
}

TapState *free_state()
{
    unsigned used = table_used.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < used; i++)
        if (TapState *tap = table[i].load(std::memory_order_relaxed); tap->app == 0)
            return tap;
    if (used == max_taps)
        return nullptr;
    TapState *tap = new TapState;
    tap->index = used;
    table[used].store(tap, std::memory_order_release);
    table_used.store(used + 1, std::memory_order_release);
    return tap;
}

void release_state(TapState *tap)
{
    tap->active.store(false, std::memory_order_release);
    tap->watch.close();
    if (tap->eventfd >= 0)
        sys::close(tap->eventfd);
    tap->eventfd = -1;
    tap->app = 0;
}

} // namespace

const char *tap_mode_name(TapMode mode)
{
    return mode == TapMode::fast ? "fast" : mode == TapMode::exact ? "exact" : "fallback";
}

bool tap_mode_from_name(const char *name, TapMode *mode)
{
    for (TapMode known : {TapMode::fast, TapMode::exact, TapMode::fallback})
        if (std::strcmp(name, tap_mode_name(known)) == 0) {
            *mode = known;
            return true;
        }
    return false;
}

TapMode RequestTap::available(TapMode preferred, const char *name)
{
    if (preferred == TapMode::fallback)
        return preferred;
    bool traced = is_traced();
    int error = traced ? 0 : TapWatch::probe(watchpoints_of(preferred));
    if (!traced && error == 0)
        return preferred;
    if (name)
        say_refused(name, preferred, error);
    return TapMode::fallback;
}

std::unique_ptr<RequestTap> RequestTap::create(TapMode preferred, void *app, void *alias, size_t len, const char *name)
{
    std::lock_guard lock(table_mutex);
    TapState *tap = app != alias && take_signals() == 0 ? free_state() : nullptr;
    if (!tap)
        return nullptr;
    tap->app = reinterpret_cast<uintptr_t>(app);
    tap->alias = static_cast<uint8_t *>(alias);
    tap->len = len;
    std::snprintf(tap->name, sizeof tap->name, "%s", name);
    mapped_file(tap->app, &tap->app_device, &tap->app_inode);
    tap->queue.clear();
    tap->detached = tap->sleeping = false;
    for (auto *counter : {&tap->queued, &tap->polled, &tap->async_hits, &tap->overflows, &tap->emulated, &tap->stepped,
                          &tap->idle_wakes})
        *counter = 0;
    tap->eventfd = sys::keep(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    tap->mode = preferred;

    if (preferred != TapMode::fallback) {
        int error = 0;
        bool traced = is_traced();
        if (traced || (error = open_watch(tap, preferred)) != 0) {
            say_refused(name, preferred, error);
            tap->mode = TapMode::fallback;
        }
    }
    tap->active.store(true, std::memory_order_release);
    if (tap->eventfd < 0 || (tap->mode == TapMode::fallback && !tap->protect(true))) {
        release_state(tap);
        return nullptr;
    }
    return std::unique_ptr<RequestTap>(new RequestTap(tap));
}

RequestTap::~RequestTap()
{
    // The window may be gone, and something else in its place.
    dev_t device;
    ino_t inode;
    mapped_file(state_->app, &device, &inode);
    if (device == state_->app_device && inode == state_->app_inode)
        detach();
    std::lock_guard lock(table_mutex);
    release_state(state_);
}

void RequestTap::detach()
{
    if (state_->detached)
        return;
    disarm_idle();
    if (state_->mode == TapMode::fallback)
        state_->protect(false);
    state_->detached = true;
    state_->watch.close();
}

// ------------------------------------------------------------ firmware side

TapMode RequestTap::mode() const { return state_->mode; }

bool RequestTap::pop(nuv_ureq_t *out)
{
    // The slot is looked at before the queue: when the queue is empty after it, what lies in the slot is the
    // oldest, for every watched request posted before it was queued by then, and one posted later takes the slot
    // along.
    bool waiting =
        state_->mode == TapMode::fast && tov_ld32_acq(state_->word(slot_offset(NUV_UREQ_RUK_DMA) + last_word)) != 0;
    if (state_->queue.pop(out))
        return true;
    if (!waiting || !state_->claim(NUV_UREQ_RUK_DMA, out))
        return false;
    state_->polled.fetch_add(1, std::memory_order_relaxed);
    return true;
}

TapIdle RequestTap::arm_idle()
{
    TapState &tap = *state_;
    tap.sleeping.store(true);
    bool armed = true;
    if (tap.mode == TapMode::fast && !tap.detached)
        armed = tap.protect(true);
    bool work = !tap.queue.empty() ||
                (tap.mode == TapMode::fast && tov_ld32_acq(tap.word(slot_offset(NUV_UREQ_RUK_DMA) + last_word)) != 0);
    if (work) {
        disarm_idle();
        return TapIdle::work;
    }
    return armed ? TapIdle::armed : TapIdle::timed;
}

void RequestTap::disarm_idle()
{
    TapState &tap = *state_;
    if (tap.mode == TapMode::fast && !tap.detached)
        tap.protect(false);
    tap.sleeping.store(false);
    // Read in any case: whoever ended an earlier sleep may have come to his write only after that sleep was over, and
    // what nobody reads would end every further sleep at once.
    uint64_t count;
    (void)!read(tap.eventfd, &count, sizeof count);
}

int RequestTap::wake_fd() const { return state_->eventfd; }

TapCounters RequestTap::counters() const
{
    return {state_->queued,   state_->polled,  state_->async_hits, state_->overflows,
            state_->emulated, state_->stepped, state_->idle_wakes};
}

} // namespace softnic
