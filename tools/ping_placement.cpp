#include "ping_placement.h"

#include "common.h"

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <sstream>
#include <unistd.h>

namespace tools {

namespace {

namespace fs = std::filesystem;

std::string file_text(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<int> numbered_entries(const fs::path &directory)
{
    std::vector<int> numbers;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(directory, ignored)) {
        std::string name = entry.path().filename();
        if (!name.empty() && isdigit(static_cast<unsigned char>(name[0])))
            numbers.push_back(std::stoi(name));
    }
    return numbers;
}

/* The software adapter is a library in the process; a card has no part in the processors. */
bool has_software_adapter(const fs::path &process)
{
    return file_text(process / "maps").find("/liboxelsoft.so") != std::string::npos;
}

std::vector<std::string> arguments(const fs::path &process)
{
    std::vector<std::string> args;
    std::istringstream in(file_text(process / "cmdline"));
    for (std::string arg; std::getline(in, arg, '\0');)
        args.push_back(arg);
    return args;
}

const Party adapter_party = {"software adapter's thread", true};

} // namespace

std::string processors_text(const std::vector<int> &processors)
{
    std::string text;
    for (size_t i = 0; i < processors.size();) {
        size_t last = i;
        while (last + 1 < processors.size() && processors[last + 1] == processors[last] + 1)
            last++;
        text += text.empty() ? "" : ",";
        text += std::to_string(processors[i]);
        if (last > i)
            text += "-" + std::to_string(processors[last]);
        i = last + 1;
    }
    return text;
}

void pin_to_processor(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(processor), &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0)
        fail("cannot run on processor {}: {}", processor, errno_text(errno));
}

std::vector<Party> own_parties(const std::string &role, bool spins, bool kernel)
{
    std::vector<Party> parties = {{role + (kernel ? " through kernel sockets" : " through libruk"), spins}};
    if (!kernel && has_software_adapter("/proc/self"))
        parties.push_back(adapter_party);
    return parties;
}

std::vector<Party> other_parties()
{
    std::vector<Party> parties;
    for (int pid : numbered_entries("/proc")) {
        fs::path process = fs::path("/proc") / std::to_string(pid);
        if (pid == getpid() || file_text(process / "comm") != "ruk-ping\n")
            continue;
        bool server = false;
        bool kernel = false;
        std::string wait;
        std::vector<std::string> args = arguments(process);
        if (args.empty())
            continue; /* it has ended, and its parent has not looked yet */
        for (size_t i = 1; i < args.size(); i++) {
            server = server || args[i] == "server";
            kernel = kernel || args[i] == "--kernel";
            if (args[i] == "--wait" && i + 1 < args.size())
                wait = args[i + 1];
            else if (args[i].rfind("--wait=", 0) == 0)
                wait = args[i].substr(7);
        }
        bool spins = wait == "spin" || (wait.empty() && !server);
        parties.push_back({fmt::format("{} through {} (process {})", server ? "server" : "client",
                                       kernel ? "kernel sockets" : "libruk", pid),
                           spins});
        if (!kernel && has_software_adapter(process))
            parties.push_back({fmt::format("{} of process {}", adapter_party.who, pid), true});
    }
    return parties;
}

std::vector<ThreadUse> thread_use()
{
    std::vector<ThreadUse> threads;
    uint64_t tick_ns = 1'000'000'000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    for (int tid : numbered_entries("/proc/self/task")) {
        fs::path task = fs::path("/proc/self/task") / std::to_string(tid);
        std::string stat = file_text(task / "stat");
        size_t name_end = stat.rfind(')');
        size_t name_start = stat.find('(');
        if (name_end == std::string::npos || name_start == std::string::npos)
            continue;
        ThreadUse use;
        use.tid = tid;
        use.name = stat.substr(name_start + 1, name_end - name_start - 1);
        std::istringstream fields(stat.substr(name_end + 1));
        std::vector<std::string> field{std::istream_iterator<std::string>(fields), {}};
        /* The state is field 3 of the line; user and system time are 14 and 15, the processor is 39. */
        if (field.size() > 36) {
            use.cpu_ns = (std::stoull(field[11]) + std::stoull(field[12])) * tick_ns;
            use.processor = std::stoi(field[36]);
        }
        threads.push_back(use);
    }
    return threads;
}

} // namespace tools
