/*
 * The lab of two hosts with what tests of the programs need: programs over the software adapter, datagrams and
 * frames of the other host.
 */
#pragma once

#include "lab.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tool_test {

inline std::string bin(const std::string &name) { return std::string(RUK_BINARY_DIR) + "/bin/" + name; }

/* A directory of the test's own. */
class ScratchDir {
public:
    ScratchDir()
    {
        std::string name = std::filesystem::temp_directory_path() / "ruk-test-XXXXXX";
        if (!mkdtemp(name.data()))
            abort();
        path_ = name;
    }
    ~ScratchDir() { std::filesystem::remove_all(path_); }
    std::string file(const std::string &name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

inline std::string contents(const std::string &file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/* A kernel socket of one of the hosts. */
class KernelSocket {
public:
    KernelSocket(test_support::Lab &lab, const test_support::LabHost &host, uint16_t port)
        : fd_(lab.udp_socket(host, port))
    {}
    ~KernelSocket() { close(fd_); }
    KernelSocket(const KernelSocket &) = delete;
    KernelSocket &operator=(const KernelSocket &) = delete;

    int fd() const { return fd_; }

    void send(const std::string &payload, const char *address, uint16_t port)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        inet_pton(AF_INET, address, &to.sin_addr);
        EXPECT_EQ(sendto(fd_, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
                  static_cast<ssize_t>(payload.size()))
            << strerror(errno);
    }

    /* "address:port payload" of the next datagram; "nothing" when none came in time. */
    std::string receive(int timeout_ms = 10000)
    {
        pollfd waiting = {fd_, POLLIN, 0};
        if (poll(&waiting, 1, timeout_ms) != 1)
            return "nothing";
        char buf[65536], address[INET_ADDRSTRLEN];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (n < 0)
            return "nothing";
        inet_ntop(AF_INET, &from.sin_addr, address, sizeof address);
        return std::string(address) + ":" + std::to_string(ntohs(from.sin_port)) + " " +
               std::string(buf, static_cast<size_t>(n));
    }

private:
    int fd_;
};

/* IP packet of a datagram of 18 bytes from 10.77.0.2:40000 to 10.77.0.1:5000 whose UDP header tells another length. */
inline std::string datagram_with_length_field(uint16_t udp_length)
{
    std::string ip = {0x45, 0, 0, 46, 0, 0, 0x40, 0, 64, 17, 0, 0, 10, 77, 0, 2, 10, 77, 0, 1};
    std::string udp = {static_cast<char>(40000 >> 8), static_cast<char>(40000 & 0xff), 5000 >> 8,
                       static_cast<char>(5000 & 0xff)};
    udp += static_cast<char>(udp_length >> 8);
    udp += static_cast<char>(udp_length & 0xff);
    return ip + udp + std::string(2, '\0') + "eighteen bytes....";
}

class ToolTest : public test_support::LabTest {
protected:
    /* A program on the adapter's host, over the software adapter. */
    std::unique_ptr<test_support::Program> soft(std::vector<std::string> command)
    {
        command[0] = command[0].find('/') == std::string::npos ? bin(command[0]) : command[0];
        std::vector<std::string> words = {bin("rukrun"), "--soft=oxel0", "--"};
        words.insert(words.end(), command.begin(), command.end());
        return lab.start(lab.adapter, words);
    }

    /* The same over one that differs in a way, or several, that differing_adapter.cpp knows. */
    std::unique_ptr<test_support::Program> soft_differing(const std::string &how, std::vector<std::string> command)
    {
        command[0] = bin(command[0]);
        std::vector<std::string> words = {"/bin/sh", "-c",
                                          "how=$1; shift; DIFFERS=$how LD_PRELOAD=$0:$LD_PRELOAD exec \"$@\"",
                                          std::string(RUK_BINARY_DIR) + "/tests/libdiffering_adapter.so", how};
        words.insert(words.end(), command.begin(), command.end());
        return soft(words);
    }

    /* ruk-recv on oxel0, listening when this returns. */
    std::unique_ptr<test_support::Program> receiver(const std::vector<std::string> &options)
    {
        std::vector<std::string> command = {"ruk-recv", "-i", "oxel0"};
        command.insert(command.end(), options.begin(), options.end());
        auto program = soft(command);
        EXPECT_TRUE(program->wait_for_err("listening")) << *program;
        return program;
    }

    /* One object a line. */
    static nlohmann::json parse(const std::string &line)
    {
        nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
        EXPECT_TRUE(object.is_object()) << line;
        return object;
    }

    /* Puts a frame on the wire at the other host: to the adapter, of the EtherType, zero-padded to 60 bytes. */
    void put_frame(uint16_t ether_type, const std::string &body)
    {
        std::string frame(reinterpret_cast<const char *>(lab.adapter.mac), 6);
        frame.append(reinterpret_cast<const char *>(lab.peer.mac), 6);
        frame += static_cast<char>(ether_type >> 8);
        frame += static_cast<char>(ether_type & 0xff);
        frame += body;
        if (frame.size() < 60)
            frame.resize(60);
        int fd = lab.packet_socket(lab.peer);
        EXPECT_EQ(write(fd, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        close(fd);
    }
};

} // namespace tool_test
