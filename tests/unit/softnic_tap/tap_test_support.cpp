#include "tap_test_support.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tov_io.h"

namespace softnic::test {

using Clock = std::chrono::steady_clock;

Window::Window()
{
    int fd = memfd_create("request window", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, bytes) != 0)
        throw std::runtime_error("memfd");
    app = static_cast<uint8_t *>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    alias = static_cast<uint8_t *>(mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    close(fd);
    if (app == MAP_FAILED || alias == MAP_FAILED)
        throw std::runtime_error("mmap");
}

Window::~Window()
{
    unmap_app();
    munmap(alias, bytes);
}

void Window::unmap_app()
{
    if (app)
        munmap(app, bytes);
    app = nullptr;
}

void post_words(volatile uint32_t *slot, const uint32_t *words)
{
    for (int i = 0; i < 16; i++)
        tov_st32(slot + i, words[i]);
    tov_wmb();
}

void make_request(uint32_t serial, unsigned type, uint32_t words[16])
{
    uint32_t state = serial * 2654435761u + 12345;
    words[0] = serial;
    for (int i = 1; i < 15; i++) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        words[i] = state;
    }
    words[15] = type << 24 | 42u << 16 | (serial & 0xffff);
}

namespace {

unsigned type_of(uint32_t serial, const TrafficPlan &plan)
{
    return (serial * 2654435761u >> 16) % 10 < plan.dma_of_ten ? 14 : 13;
}

// One stream of requests and the adapter's side of it.
struct Stream {
    Window &window;
    const TrafficPlan &plan;
    RequestTap *tap = nullptr;

    std::mutex lock = {}; // the endpoint lock
    uint32_t posted = 0;
    uint32_t dma_posted_at = 0; // count of requests posted up to the last of type 14
    std::atomic<uint32_t> completed{0};
    std::atomic<bool> abandoned{false};
    std::atomic<bool> may_post{false};

    bool has_room(unsigned type) const
    {
        uint32_t done = completed.load(std::memory_order_acquire);
        if (posted - done >= 64)
            return false;
        return !(type == 14 && plan.one_dma_outstanding && done < dma_posted_at);
    }

    // Posts one request unless all are; false then.
    bool post_next()
    {
        std::lock_guard held(lock);
        if (posted == plan.requests)
            return false;
        unsigned type = type_of(posted, plan);
        while (!has_room(type)) {
            if (abandoned)
                return false;
            sched_yield();
        }
        uint32_t words[16];
        make_request(posted, type, words);
        plan.poster(window.slot(type), words);
        posted++;
        if (type == 14)
            dma_posted_at = posted;
        return true;
    }

    void posting_thread()
    {
        if (plan.thread_setup)
            plan.thread_setup();
        while (!may_post)
            sched_yield();
        for (uint32_t n = 1; post_next(); n++)
            if (plan.pause_every && n % plan.pause_every == 0)
                std::this_thread::sleep_for(std::chrono::microseconds(300));
    }

    void sleep_until_posted(TrafficResult *result)
    {
        TapIdle idle = tap->arm_idle();
        if (idle == TapIdle::work)
            return;
        struct pollfd wake = {tap->wake_fd(), POLLIN, 0};
        if (poll(&wake, 1, idle == TapIdle::timed ? 1 : 4000) == 0 && idle == TapIdle::armed)
            result->missed_wakes++;
        tap->disarm_idle();
        result->sleeps++;
    }

    void firmware_thread(TrafficResult *result)
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        // On a loaded machine the whole may take its time; what hangs stands still.
        Clock::time_point last_progress = Clock::now();
        bool progress = false;
        for (uint32_t expected = 0; result->received < plan.requests;) {
            nuv_ureq_t got;
            if (tap->pop(&got)) {
                uint32_t words[16];
                make_request(expected, type_of(expected, plan), words);
                if (std::memcmp(words, got.words, sizeof words) != 0)
                    result->wrong++;
                expected = got.words[0] + 1;
                result->received++;
                completed.store(result->received, std::memory_order_release);
                progress = true;
                continue;
            }
            if (plan.firmware_sleeps)
                sleep_until_posted(result);
            else
                sched_yield();
            const Clock::time_point now = Clock::now();
            if (progress)
                last_progress = now;
            progress = false;
            if (now > last_progress + std::chrono::seconds(40)) {
                result->timed_out = true;
                break;
            }
        }
        abandoned = true;
    }
};

} // namespace

TrafficResult run_traffic(Window &window, TapMode preferred, const TrafficPlan &plan)
{
    Stream stream{window, plan};
    TrafficResult result;
    std::vector<std::thread> posters;
    std::unique_ptr<RequestTap> tap;
    auto start_posters = [&] {
        for (unsigned i = 0; i < plan.threads; i++)
            posters.emplace_back([&] { stream.posting_thread(); });
    };
    if (plan.threads_before_tap)
        start_posters();
    tap = window.tap(preferred);
    if (!tap)
        throw std::runtime_error("no tap");
    stream.tap = tap.get();
    if (!plan.threads_before_tap)
        start_posters();
    result.mode = tap->mode();
    std::thread firmware([&] { stream.firmware_thread(&result); });
    stream.may_post = true;
    for (std::thread &poster : posters)
        poster.join();
    firmware.join();
    nuv_ureq_t more;
    while (tap->pop(&more))
        (result.timed_out ? result.left_over : result.wrong)++; // nothing was posted that a complete run could leave
    result.counters = tap->counters();
    return result;
}

bool complete(const TrafficResult &result, const TrafficPlan &plan)
{
    return result.received == plan.requests && result.wrong == 0 && result.missed_wakes == 0 && !result.timed_out &&
           result.counters.overflows == 0 && result.counters.async_hits == 0;
}

std::string describe(const TrafficResult &result)
{
    char text[400];
    std::snprintf(text, sizeof text,
                  "mode %s, received %u, wrong %u, missed wakes %u, timed out %d, left over %u, queued %llu, polled "
                  "%llu, late %llu, "
                  "overflows %llu, "
                  "emulated %llu, stepped %llu, sleeps %llu, wakes %llu",
                  tap_mode_name(result.mode), result.received, result.wrong, result.missed_wakes, result.timed_out,
                  result.left_over, (unsigned long long)result.counters.queued,
                  (unsigned long long)result.counters.polled, (unsigned long long)result.counters.async_hits,
                  (unsigned long long)result.counters.overflows, (unsigned long long)result.counters.emulated,
                  (unsigned long long)result.counters.stepped, (unsigned long long)result.sleeps,
                  (unsigned long long)result.counters.idle_wakes);
    return text;
}

ChildResult in_child(const std::function<int()> &body)
{
    int pipe_ends[2];
    if (pipe2(pipe_ends, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe");
    std::fflush(nullptr);
    pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork");
    if (child == 0) {
        dup2(pipe_ends[1], STDERR_FILENO);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(60);
        int status = 255;
        try {
            status = body();
        } catch (const std::exception &error) {
            std::fprintf(stderr, "exception: %s\n", error.what());
        }
        std::fflush(nullptr);
        _exit(status);
    }
    close(pipe_ends[1]);
    ChildResult result;
    char buffer[1024];
    for (;;) {
        ssize_t got = read(pipe_ends[0], buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        result.err.append(buffer, size_t(got));
    }
    close(pipe_ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        ;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

namespace {

void refuse(unsigned number)
{
    struct sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog filter = {sizeof program / sizeof *program, program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        throw std::runtime_error("seccomp");
}

} // namespace

void refuse_perf_event_open() { refuse(SYS_perf_event_open); }
void refuse_userfaultfd() { refuse(SYS_userfaultfd); }

bool become_ordinary_user()
{
    constexpr unsigned nobody = 65534;
    if (geteuid() != 0)
        return true;
    return setresgid(nobody, nobody, nobody) == 0 && setresuid(nobody, nobody, nobody) == 0 &&
           prctl(PR_SET_DUMPABLE, 1) == 0; // as it is for a program that this user has started
}

unsigned open_descriptors_of(const std::string &text)
{
    unsigned count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += std::filesystem::read_symlink(entry.path(), gone).string().find(text) != std::string::npos;
    }
    return count;
}

size_t count_of(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        count++;
    return count;
}

} // namespace softnic::test
