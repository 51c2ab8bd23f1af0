// A program under test: what applications do with processes and descriptors while they have the adapter open.
//
//     shim_client SCENARIO
//
// Prints a line for each endpoint that is ready, and one for each datagram received; a line that begins with "wrong"
// tells what was not as it should be.
#include "nuv_types.h"
#include "ruk.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kSeconds = 20; // until a datagram is given up

void say(const std::string &line)
{
    const std::string whole = line + "\n"; // one write: lines of several processes do not mix
    if (write(STDOUT_FILENO, whole.data(), whole.size()) < 0)
        _exit(4);
}

void check(bool good, const std::string &what)
{
    if (!good)
        say("wrong: " + what + " (" + strerror(errno) + ")");
}

struct Endpoint {
    ruk_device_t dev = nullptr;
    ruk_channel_t channel = nullptr;

    Endpoint(const char *interface, int port, int flags = 0)
    {
        const int open_rc = ruk_open_if(interface, flags, &dev);
        check(open_rc == 0, std::string("open ") + interface + ": " + strerror(abs(open_rc)));
        const int bind_rc = open_rc == 0 ? ruk_bind(dev, 0, port, nullptr, &channel) : EINVAL;
        check(bind_rc == 0, "bind " + std::to_string(port) + ": " + strerror(abs(bind_rc)));
        if (bind_rc != 0)
            _exit(3);
    }
    int fd() const { return ruk_device_handle(dev); }

    // The next datagram; empty when none comes.
    std::string receive() const
    {
        char buf[2048];
        const time_t end = time(nullptr) + kSeconds;
        while (time(nullptr) < end) {
            ruk_recv_info info;
            const int rc = ruk_recvfrom(dev, RUK_RECV_NONBLOCK, buf, sizeof(buf), &info);
            if (rc == 0)
                return std::string(buf, info.msg_len);
            check(rc == EAGAIN, std::string("receive: ") + strerror(rc));
            usleep(200);
        }
        return "";
    }
    void close() const { check(ruk_close(dev) == 0, "close"); }
};

bool is_device(int fd)
{
    uint32_t n = 0;
    return ioctl(fd, OXEL_GET_SREQS_CNT, &n) == 0 || errno != ENOTTY;
}

void finished(pid_t pid)
{
    int status = 0;
    check(waitpid(pid, &status, 0) == pid, "waitpid");
    check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "child ended with status " + std::to_string(status));
}

// ---------------------------------------------------------------- processes

// A child, and a child of it, with endpoints of their own beside their parents'.
void generations(int depth)
{
    Endpoint mine("oxel0", 5000 + depth);
    say("ready " + std::to_string(depth));
    if (depth < 2) {
        const pid_t pid = fork();
        if (pid == 0) {
            check(!is_device(mine.fd()), "the parent's descriptor is a device in the child");
            generations(depth + 1);
            exit(0);
        }
        finished(pid); // the child has received and gone
    }
    say(std::to_string(depth) + " got " + mine.receive());
    mine.close();
}

void fork_and_reopen() { generations(0); }

// The child closes all that it inherited, as daemons do; nothing of it is the parent's loss.
void child_closes_everything()
{
    Endpoint mine("oxel0", 5000);
    const pid_t pid = fork();
    if (pid == 0) {
        closefrom(3);
        _exit(0);
    }
    finished(pid);
    pid_t spawned = 0; // shares memory with us for a while, and no fork handler runs
    const char *const words[] = {"shim_client", "nothing", nullptr};
    check(posix_spawn(&spawned, "/proc/self/exe", nullptr, nullptr, const_cast<char **>(words), environ) == 0, "spawn");
    finished(spawned);
    say("ready");
    say("got " + mine.receive());
    mine.close();
}

int descriptors()
{
    int n = 0;
    struct stat st;
    for (int fd = 3; fd < 256; fd++)
        n += fstat(fd, &st) == 0 ? 1 : 0;
    return n;
}

void exec_anew()
{
    const char *stage = getenv("SHIM_CLIENT_STAGE");
    if (stage == nullptr) {
        Endpoint mine("oxel0", 5000);
        say("ready first");
        say("first got " + mine.receive());
        const std::string kept = std::to_string(mine.fd());
        setenv("SHIM_CLIENT_STAGE", kept.c_str(), 1);
        execl("/proc/self/exe", "shim_client", "exec", nullptr);
        check(false, "exec");
        return;
    }
    check(!is_device(atoi(stage)), "the old device is there after exec");
    // Every endpoint of the board is free again.
    std::vector<Endpoint> all;
    for (int i = 0; i < 8; i++)
        all.emplace_back("oxel0", 5001 + i);
    say("ready second");
    say("second got " + all[7].receive());
    for (const Endpoint &endpoint : all)
        endpoint.close();
}

void send_last(const Endpoint &endpoint)
{
    ruk_send_t handle = nullptr;
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(40000);
    inet_pton(AF_INET, "10.77.0.2", &to.sin_addr);
    check(ruk_send_connect(endpoint.channel, &to, 0, 0, &handle) == 0, "connect");
    check(ruk_send(handle, "last words", 10, 0) == 0, "send");
}

void leave(void (*how)())
{
    Endpoint *one = new Endpoint("oxel0", 5000), *two = new Endpoint("oxel0", 5001);
    std::thread([two] { two->receive(); }).detach(); // is inside when the process goes
    say("ready");
    say("got " + one->receive());
    send_last(*one);
    how();
}

// ---------------------------------------------------------------- boards and threads

void two_boards()
{
    Endpoint first("oxel0", 5000), second("oxel1", 5000);
    say("ready");
    // In turn, so that what came to the wrong board would be seen.
    for (int i = 0; i < 3; i++) {
        say("first got " + first.receive());
        say("second got " + second.receive());
    }
    first.close();
    say("second got " + second.receive());
    second.close();
}

// Each thread has an endpoint of its own, and one more is shared by two.
void many_threads()
{
    constexpr int kOwn = 4, kEach = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kOwn; t++)
        threads.emplace_back([t] {
            Endpoint mine("oxel0", 5000 + t);
            say("ready");
            int n = 0;
            while (n < kEach && mine.receive() == std::to_string(n))
                n++;
            say("thread " + std::to_string(t) + ": " + std::to_string(n) + " in order");
            mine.close();
        });
    Endpoint shared("oxel0", 5000 + kOwn, RUK_OPEN_THREAD_SAFE);
    say("ready");
    std::set<std::string> got[2];
    std::thread pair[2];
    for (int i = 0; i < 2; i++)
        pair[i] = std::thread([&shared, &mine = got[i]] {
            for (std::string text; (text = shared.receive()) != "end";) {
                check(!text.empty(), "a shared datagram is missing");
                if (text.empty() || !mine.insert(text).second)
                    break;
            }
        });
    for (std::thread &t : pair)
        t.join();
    std::set<std::string> both = got[0];
    both.insert(got[1].begin(), got[1].end());
    check(both.size() == got[0].size() + got[1].size(), "a datagram came to both threads");
    say("shared: " + std::to_string(both.size()) + " of " + std::to_string(kEach));
    for (std::thread &t : threads)
        t.join();
    shared.close();
}

// ---------------------------------------------------------------- descriptors closed where nobody tells

// The number is an ordinary file's now; the adapter neither writes to it nor takes calls on it for its own.
void is_a_file(int fd, const std::string &how)
{
    check(!is_device(fd), how + ": a file is taken for the device");
    const char text[] = "the program's own";
    check(write(fd, text, sizeof(text)) == sizeof(text), how + ": write");
    usleep(50000);
    struct stat st;
    check(fstat(fd, &st) == 0 && st.st_size == sizeof(text), how + ": the file is not what was written");
    char back[sizeof(text)];
    check(pread(fd, back, sizeof(back), 0) == sizeof(back) && memcmp(back, text, sizeof(text)) == 0,
          how + ": read back");
    check(::close(fd) == 0 && fcntl(fd, F_GETFD) == -1, how + ": close");
}

int temporary_file()
{
    char name[] = "/tmp/ruk-shim-XXXXXX";
    const int fd = mkstemp(name);
    check(fd >= 0 && unlink(name) == 0, "temporary file");
    return fd;
}

// So that a new file gets the number, the lowest that is free.
int file_at(int number)
{
    const int fd = temporary_file();
    if (fd == number)
        return fd;
    check(dup2(fd, number) == number, "dup2");
    ::close(fd);
    return number;
}

// Frames come all the while to the endpoint that is lost.
void closed_behind(const std::string &how)
{
    Endpoint lost("oxel0", 5000);
    const int number = lost.fd();
    say("ready lost");
    say("lost got " + lost.receive());
    if (how == "close_range")
        check(syscall(SYS_close_range, number, number, 0) == 0, how);
    if (how == "close_range of all")
        check(close_range(3, ~0u, 0) == 0, how);
    if (how == "closefrom")
        closefrom(3);
    if (how == "close one by one")
        for (int fd = 3; fd < 1024; fd++)
            ::close(fd);
    is_a_file(file_at(number), how); // for dup2, too

    const int before = descriptors();
    Endpoint next("oxel0", 5001);
    say("ready next");
    say("next got " + next.receive());
    check(is_device(next.fd()), "the new device is none");
    send_last(next);
    next.close();
    check(descriptors() == before, "descriptors left behind");
}

// Twice, since a program may try again.
void no_device()
{
    for (int i = 0; i < 2; i++) {
        say(std::string("init: ") + strerror(ruk_init(RUK_API_VERSION)));
        check(open("/dev/oxelB0", O_RDWR) < 0, "there is a device");
        const std::filesystem::directory_iterator threads("/proc/self/task");
        check(std::distance(begin(threads), end(threads)) == 1, "threads left behind");
    }
}

} // namespace

int main(int argc, char **argv)
{
    const std::string scenario = argc > 1 ? argv[1] : "";
    if (scenario != "no-device" && ruk_init(RUK_API_VERSION) != 0)
        return 3;
    const std::map<std::string, void (*)()> scenarios = {
        {"fork", fork_and_reopen},
        {"child-closes", child_closes_everything},
        {"nothing", [] { _exit(0); }},
        {"exec", exec_anew},
        {"boards", two_boards},
        {"no-device", no_device},
        {"threads", many_threads},
        {"return", [] { leave([] {}); }},
        {"exit", [] { leave([] { exit(0); }); }},
        {"_exit", [] { leave([] { _exit(0); }); }},
        {"kill", [] { leave([] { raise(SIGKILL); }); }},
        {"abort", [] { leave([] { abort(); }); }},
        {"close_range", [] { closed_behind("close_range"); }},
        {"dup2", [] { closed_behind("dup2"); }},
        {"close_range of all", [] { closed_behind("close_range of all"); }},
        {"closefrom", [] { closed_behind("closefrom"); }},
        {"close one by one", [] { closed_behind("close one by one"); }},
    };
    auto it = scenarios.find(scenario);
    if (it == scenarios.end())
        return 3;
    it->second();
    say("done");
    return 0;
}
