/*
 * Two hosts joined by an Ethernet cable, in network namespaces of the test's own.
 *
 *     class PortTest : public test_support::LabTest {};
 *
 *     TEST_F(PortTest, ...)
 *     {
 *         int fd = lab.udp_socket(lab.peer);                    // a kernel socket on the other host
 *         auto recv = lab.start(lab.adapter, {"cat"});          // a program on this one
 *
 * Made as root, or by an ordinary user in a user namespace, which the process then stays in. The process itself is on
 * the adapter's host. All is gone with the Lab: namespaces by themselves, programs because they are killed.
 * Single-threaded processes only.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace test_support {

/* A program that the test started: killed when the object goes, waited for always. */
class Program {
public:
    Program(pid_t pid, int out, int err) : pid_(pid), out_fd_(out), err_fd_(err) {}
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int sig);

    /* The next line of standard output without its end. False when none came in time or at the end of the stream. */
    bool read_line(std::string *line, int timeout_ms = 20000);

    /* Reads until the text appears on the stream named; false when it did not in time. */
    bool wait_for_out(const std::string &text, int timeout_ms = 20000);
    bool wait_for_err(const std::string &text, int timeout_ms = 20000);

    /* Reads both streams to their ends and waits. False, and a kill, when it took longer. */
    bool finish(int timeout_ms = 30000);

    /* Whether it runs no more; finish() then reads the last of its output. */
    bool has_ended() const;

    bool exited_with(int status) const { return ended_ && signal_ == 0 && status_ == status; }
    bool killed_by(int sig) const { return ended_ && signal_ == sig; }
    int status() const { return status_; }
    const std::string &out() const { return out_; } /* read so far, the last lines taken included */
    const std::string &err() const { return err_; }

    /* Voluntary context switches of all its threads: how often something in it went to sleep. */
    uint64_t sleeps() const;

private:
    bool pump(int timeout_ms); /* reads what there is; false at the end of both streams */
    bool wait_for(const std::string *text, const std::string &wanted, int timeout_ms);

    pid_t pid_;
    int out_fd_, err_fd_;
    std::string out_, err_;
    size_t taken_ = 0; /* of out_, by read_line */
    bool ended_ = false;
    int status_ = -1, signal_ = 0;
};

std::ostream &operator<<(std::ostream &os, const Program &program);

struct LabHost {
    const char *ifname;
    const char *address;
    uint8_t mac[6];
    int netns = -1;
};

class Lab {
public:
    LabHost adapter = {"oxel0", "10.77.0.1", {0x02, 0x6F, 0x78, 0x00, 0x00, 0x01}};
    LabHost peer = {"peer0", "10.77.0.2", {0x02, 0x00, 0x00, 0x00, 0x00, 0x02}};

    Lab() = default;
    ~Lab();
    Lab(const Lab &) = delete;
    Lab &operator=(const Lab &) = delete;

    /* Makes the hosts, /24 addresses and permanent neighbour entries included. Empty, or why that cannot be done. */
    std::string up();

    /* Calls f on that host: sockets made in it are the host's. */
    void on(const LabHost &host, const std::function<void()> &f);

    /* Kernel sockets, bound to the host's interface or address; closed by the caller. -1 on failure. */
    int udp_socket(const LabHost &host, uint16_t port = 0);
    int packet_socket(const LabHost &host);

    std::unique_ptr<Program> start(const LabHost &host, const std::vector<std::string> &command,
                                   const std::vector<std::string> &environment = {});

    /* A shell command that must succeed; its standard output. */
    std::string run(const LabHost &host, const std::string &command);

private:
    int original_ = -1; /* network namespace to go back to, as root */
};

/*
 * Runs it in a process of its own, handing it a descriptor; what it writes there. A test's failure when it returns
 * false or anything in it fails.
 */
std::string written_in_child(const std::function<bool(int)> &run);

/* Skips every test, and says why, where there are no namespaces to be had. */
class LabTest : public testing::Test {
protected:
    void SetUp() override
    {
        const std::string why = lab.up();
        if (!why.empty())
            GTEST_SKIP() << "network namespaces cannot be had: " << why;
    }
    Lab lab;
};

} // namespace test_support
