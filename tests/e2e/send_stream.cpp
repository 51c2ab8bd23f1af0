// A program under test: threads that send numbered datagrams through libruk, as far ahead as the receiver allows.
//
//     send_stream IF ADDR PORT KEY=VALUE...
//
// threads=T count=N (datagrams of each thread) window=W (0: without waiting for the receiver) endpoints=E
// sizes=MAX (payloads up to it) empty=K (every K-th is empty, 0: none) block_signals=1 refuse=perf|uffd|both
// rest_ms=MS (be idle that long after the first half) end=close|exit
//
// The receiver answers to the source address with the number of datagrams it has, a native uint32_t, on CREDIT_PORT.
// Prints "cpu_idle_us N" when it was idle, and "accepted N".
#include "ruk.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "send_stream.h"

namespace {

std::map<std::string, std::string> g_options;
std::atomic<uint32_t> g_sent{0}, g_credited{0};

unsigned long option(const char *name, unsigned long fallback)
{
    auto it = g_options.find(name);
    return it == g_options.end() ? fallback : strtoul(it->second.c_str(), nullptr, 0);
}

[[noreturn]] void fail(const char *what, int rc)
{
    fprintf(stderr, "send_stream: %s: %s\n", what, strerror(abs(rc)));
    _exit(3);
}

void check(int rc, const char *what)
{
    if (rc != 0)
        fail(what, rc);
}

void refuse(unsigned number)
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter = {sizeof program / sizeof *program, program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        fail("seccomp", errno);
}

void take_credits()
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_port = htons(kCreditPort);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&here), sizeof here) != 0)
        fail("credit socket", errno);
    std::thread([fd] {
        uint32_t have;
        while (recv(fd, &have, sizeof have, 0) == sizeof have)
            if (have > g_credited)
                g_credited = have;
    }).detach();
}

uint64_t cpu_us()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return uint64_t(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000 +
           uint64_t(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void send_numbers(ruk_send_t handle, uint32_t thread, uint32_t from, uint32_t to)
{
    if (option("block_signals", 0)) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
    }
    const uint32_t window = uint32_t(option("window", 32)), empty = uint32_t(option("empty", 0));
    const size_t largest = option("sizes", 1472);
    std::vector<char> payload(largest);
    for (uint32_t n = from; n < to; n++) {
        while (window != 0 && int32_t(g_sent - g_credited) >= int32_t(window))
            usleep(20);
        g_sent++;
        size_t size = 0;
        if (empty == 0 || n % empty != 0) {
            size = stream_size(n, largest);
            fill_stream_payload(payload.data(), size, thread, n);
        }
        check(ruk_send(handle, payload.data(), int(size), 0), "ruk_send");
    }
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 4; i < argc; i++) {
        std::string word = argv[i];
        g_options[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
    }
    const std::string refused = g_options["refuse"];
    if (refused == "perf" || refused == "both")
        refuse(SYS_perf_event_open);
    if (refused == "uffd" || refused == "both")
        refuse(SYS_userfaultfd);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(atoi(argv[3])));
    inet_pton(AF_INET, argv[2], &to.sin_addr);

    check(ruk_init(RUK_API_VERSION), "ruk_init");
    if (option("window", 32) != 0)
        take_credits();
    const unsigned endpoints = unsigned(option("endpoints", 1)), threads = unsigned(option("threads", 1));
    std::vector<ruk_device_t> devices(endpoints);
    std::vector<ruk_send_t> handles(endpoints);
    for (unsigned i = 0; i < endpoints; i++) {
        ruk_channel_t channel;
        check(ruk_open_if(argv[1], RUK_OPEN_THREAD_SAFE, &devices[i]), "ruk_open_if");
        check(ruk_bind(devices[i], 0, 0, nullptr, &channel), "ruk_bind");
        check(ruk_send_connect(channel, &to, 0, 0, &handles[i]), "ruk_send_connect");
    }
    const uint32_t count = uint32_t(option("count", 1000)), rest_ms = uint32_t(option("rest_ms", 0));
    const auto run = [&](uint32_t from, uint32_t until) {
        std::vector<std::thread> running;
        for (uint32_t t = 0; t < threads; t++)
            running.emplace_back([&, t] { send_numbers(handles[t % endpoints], t, from, until); });
        for (std::thread &thread : running)
            thread.join();
    };
    if (rest_ms != 0) {
        run(0, count / 2);
        usleep(100000);
        const uint64_t before = cpu_us();
        usleep(rest_ms * 1000);
        printf("cpu_idle_us %llu\n", (unsigned long long)(cpu_us() - before));
        run(count / 2, count);
    } else {
        run(0, count);
    }
    printf("accepted %u\n", g_sent.load());
    fflush(stdout);
    if (g_options["end"] == "exit")
        exit(0);
    for (ruk_device_t device : devices)
        check(ruk_close(device), "ruk_close");
    return 0;
}
