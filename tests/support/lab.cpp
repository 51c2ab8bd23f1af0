#include "lab.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test_support {
namespace {

using Clock = std::chrono::steady_clock;

int ms_until(Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, 1 << 30));
}

bool write_file(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    const bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = errno;
    if (fd >= 0)
        close(fd);
    errno = error;
    return ok;
}

std::string because(const char *what) { return std::string(what) + ": " + strerror(errno); }

// Becomes root of a user namespace, as "unshare -Ur" does.
std::string enter_user_namespace()
{
    const std::string uid = std::to_string(geteuid()), gid = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER) < 0)
        return because("user namespace");
    write_file("/proc/self/setgroups", "deny");
    if (!write_file("/proc/self/uid_map", "0 " + uid + " 1") || !write_file("/proc/self/gid_map", "0 " + gid + " 1"))
        return because("user namespace");
    return {};
}

int this_namespace() { return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC); }

std::string mac_text(const uint8_t *mac)
{
    char text[18];
    snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

} // namespace

Program::~Program()
{
    if (!ended_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (int fd : {out_fd_, err_fd_})
        if (fd >= 0)
            close(fd);
}

void Program::signal(int sig)
{
    if (!ended_)
        kill(pid_, sig);
}

bool Program::pump(int timeout_ms)
{
    pollfd fds[] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
    if (out_fd_ < 0 && err_fd_ < 0)
        return false;
    if (poll(fds, 2, timeout_ms) <= 0)
        return true;
    for (int i = 0; i < 2; i++) {
        if (fds[i].revents == 0)
            continue;
        int &fd = i == 0 ? out_fd_ : err_fd_;
        char buf[65536];
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n > 0) {
            (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(n));
        } else if (n == 0) {
            close(fd);
            fd = -1;
        }
    }
    return true;
}

bool Program::read_line(std::string *line, int timeout_ms)
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const size_t newline = out_.find('\n', taken_);
        if (newline != std::string::npos) {
            *line = out_.substr(taken_, newline - taken_);
            taken_ = newline + 1;
            if (taken_ > (1u << 20)) { // a long stream is not kept
                out_.erase(0, taken_);
                taken_ = 0;
            }
            return true;
        }
        if (out_fd_ < 0 || Clock::now() >= end || !pump(ms_until(end)))
            return false;
    }
}

bool Program::wait_for(const std::string *text, const std::string &wanted, int timeout_ms)
{
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (text->find(wanted) == std::string::npos)
        if (Clock::now() >= end || !pump(ms_until(end)))
            return text->find(wanted) != std::string::npos;
    return true;
}

bool Program::wait_for_out(const std::string &text, int timeout_ms) { return wait_for(&out_, text, timeout_ms); }
bool Program::wait_for_err(const std::string &text, int timeout_ms) { return wait_for(&err_, text, timeout_ms); }

bool Program::finish(int timeout_ms)
{
    if (ended_)
        return true;
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (Clock::now() < end && pump(ms_until(end))) {
    }
    int status = 0;
    pid_t got;
    while ((got = waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() < end)
        usleep(1000);
    const bool in_time = got == pid_;
    if (!in_time) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    signal_ = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return in_time;
}

uint64_t Program::sleeps() const
{
    uint64_t sum = 0;
    const std::string tasks = "/proc/" + std::to_string(pid_) + "/task";
    DIR *dir = opendir(tasks.c_str());
    if (dir == nullptr)
        return 0;
    while (const dirent *entry = readdir(dir)) {
        std::ifstream file(tasks + "/" + entry->d_name + "/status");
        for (std::string line; std::getline(file, line);)
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                sum += std::stoull(line.substr(line.find(':') + 1));
    }
    closedir(dir);
    return sum;
}

bool Program::has_ended() const
{
    siginfo_t info = {};
    return ended_ ||
           (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_);
}

std::ostream &operator<<(std::ostream &os, const Program &program)
{
    return os << "exit status " << program.status() << "\nstandard output:\n"
              << program.out() << "\nstandard error:\n"
              << program.err() << "\n";
}

Lab::~Lab()
{
    // Leaves the adapter's host, which is then nobody's.
    if (adapter.netns >= 0 && (original_ < 0 || setns(original_, CLONE_NEWNET) < 0))
        unshare(CLONE_NEWNET);
    for (int fd : {adapter.netns, peer.netns, original_})
        if (fd >= 0)
            close(fd);
}

std::string Lab::up()
{
    static bool in_user_namespace;
    if (geteuid() != 0 && !in_user_namespace) {
        const std::string why = enter_user_namespace();
        if (!why.empty())
            return why;
        in_user_namespace = true;
    }
    if (!in_user_namespace)
        original_ = this_namespace();
    if (unshare(CLONE_NEWNET) < 0)
        return because("network namespace");
    peer.netns = this_namespace();
    if (unshare(CLONE_NEWNET) < 0)
        return because("network namespace");
    adapter.netns = this_namespace();
    if (adapter.netns < 0 || peer.netns < 0)
        return because("/proc/self/ns/net");

    // The peer's end is moved by the number of a descriptor that the tool inherits.
    fcntl(peer.netns, F_SETFD, 0);
    const std::string to_peer = "/proc/self/fd/" + std::to_string(peer.netns);
    auto made = start(
        adapter, {"ip", "link", "add", adapter.ifname, "type", "veth", "peer", "name", peer.ifname, "netns", to_peer});
    fcntl(peer.netns, F_SETFD, FD_CLOEXEC);
    if (!made->finish() || !made->exited_with(0))
        return "ip link add: " + made->err();

    for (const auto &[host, other] : {std::pair(&adapter, &peer), std::pair(&peer, &adapter)}) {
        const std::string dev = host->ifname;
        std::string commands = "link set lo up\n";
        commands += "link set " + dev + " address " + mac_text(host->mac) + " addrgenmode none\n";
        commands += "addr add " + std::string(host->address) + "/24 dev " + dev + "\n";
        commands += "link set " + dev + " up\n";
        commands += "neigh add " + std::string(other->address) + " lladdr " + mac_text(other->mac) + " dev " + dev +
                    " nud permanent\n";
        auto ip = start(*host, {"sh", "-c", "printf '%s' \"$0\" | ip -batch -", commands});
        if (!ip->finish() || !ip->exited_with(0))
            return "ip: " + ip->err();
    }
    return {};
}

void Lab::on(const LabHost &host, const std::function<void()> &f)
{
    if (setns(host.netns, CLONE_NEWNET) < 0) {
        ADD_FAILURE() << "cannot enter the host of " << host.ifname << ": " << strerror(errno);
        return;
    }
    f();
    if (setns(adapter.netns, CLONE_NEWNET) < 0) {
        perror("lab: cannot go back");
        abort();
    }
}

int Lab::udp_socket(const LabHost &host, uint16_t port)
{
    int fd = -1;
    on(host, [&] {
        fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        inet_pton(AF_INET, host.address, &address.sin_addr);
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) < 0) {
            ADD_FAILURE() << "bind: " << strerror(errno);
            close(fd);
            fd = -1;
        }
    });
    return fd;
}

int Lab::packet_socket(const LabHost &host)
{
    int fd = -1;
    on(host, [&] {
        fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(host.ifname));
        if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) < 0) {
            ADD_FAILURE() << "bind: " << strerror(errno);
            close(fd);
            fd = -1;
        }
    });
    return fd;
}

std::unique_ptr<Program> Lab::start(const LabHost &host, const std::vector<std::string> &command,
                                    const std::vector<std::string> &environment)
{
    int out[2], err[2];
    if (pipe2(out, O_CLOEXEC) < 0 || pipe2(err, O_CLOEXEC) < 0)
        abort();
    std::vector<char *> argv;
    for (const std::string &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);

    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0)
        abort();
    if (pid == 0) {
        // Not even a test that is killed leaves programs behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent || setns(host.netns, CLONE_NEWNET) < 0)
            _exit(126);
        const int null = open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (const std::string &variable : environment)
            putenv(const_cast<char *>(variable.c_str()));
        execvp(argv[0], argv.data());
        dprintf(STDERR_FILENO, "%s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    return std::make_unique<Program>(pid, out[0], err[0]);
}

std::string Lab::run(const LabHost &host, const std::string &command)
{
    auto program = start(host, {"sh", "-c", command});
    const bool in_time = program->finish();
    EXPECT_TRUE(in_time && program->exited_with(0)) << command << "\n" << *program;
    return program->out();
}

std::string written_in_child(const std::function<bool(int)> &run)
{
    int said[2];
    EXPECT_EQ(pipe(said), 0);
    const pid_t child = fork();
    if (child == 0)
        _exit(run(said[1]) && !testing::Test::HasFailure() ? 0 : 1);
    close(said[1]);
    std::string text;
    for (char c; read(said[0], &c, 1) == 1;)
        text += c;
    close(said[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << text;
    return text;
}

} // namespace test_support
