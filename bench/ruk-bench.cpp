/*
 * ruk-bench: what the library costs, in memory alone and beside the kernel, each case in turn with its floor.
 */
#include "cases.h"
#include "ruk.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <sched.h>
#include <stdexcept>
#include <sys/utsname.h>
#include <thread>

namespace bench {

double now_ns()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

double reading_ns()
{
    static const double least = [] {
        double ns = 1e9;
        for (int i = 0; i < 10000; ++i) {
            const double began = now_ns();
            ns = std::min(ns, now_ns() - began);
        }
        return ns;
    }();
    return least;
}

double time_of(size_t n, const std::function<void()> &work)
{
    const double began = now_ns();
    work();
    return (now_ns() - began) / double(n);
}

alignas(4096) uint8_t receive_buffer[2048];
alignas(4096) uint8_t send_payload[2048];

void wrong(const char *what) { throw std::runtime_error(what); }

std::vector<int> two_processors()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    std::vector<int> two;
    if (sched_getaffinity(0, sizeof set, &set) == 0)
        for (int i = 0; i < CPU_SETSIZE && two.size() < 2; ++i)
            if (CPU_ISSET(size_t(i), &set))
                two.push_back(i);
    return two;
}

} // namespace bench

namespace {

using namespace bench;
using nlohmann::json;

struct Result {
    std::vector<double> ns, floor_ns;
    std::string skipped; /* why there are none */
    bool failed = false;
};

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return (v[v.size() / 2] + v[(v.size() - 1) / 2]) / 2;
}
double least(const std::vector<double> &v) { return *std::min_element(v.begin(), v.end()); }
double most(const std::vector<double> &v) { return *std::max_element(v.begin(), v.end()); }

Result measure(const Case &c, bool tiny)
{
    Result result;
    result.skipped = c.skipped;
    if (!c.skipped.empty())
        return result;
    const unsigned n = tiny ? 1 : c.rounds != 0 ? c.rounds : 63;
    try {
        const Measured measured = c.make();
        measured.subject(); /* caches, branches and pages */
        if (measured.floor)
            measured.floor();
        for (unsigned i = 0; i < n; ++i) {
            const bool floor_first = i % 2 != 0 && measured.floor;
            if (floor_first)
                result.floor_ns.push_back(measured.floor());
            result.ns.push_back(measured.subject());
            if (!floor_first && measured.floor)
                result.floor_ns.push_back(measured.floor());
        }
    } catch (const Unavailable &e) {
        result = {};
        result.skipped = e.what();
    } catch (const std::exception &e) {
        result = {};
        result.skipped = e.what();
        result.failed = true;
    }
    return result;
}

/* What a case is judged by; NaN where there is nothing to judge. */
double judged(const Case &c, double ns, double floor)
{
    switch (c.compare) {
    case Compare::ratio:
    case Compare::faster:
        return ns / floor;
    case Compare::speed:
        return floor / ns;
    case Compare::difference:
        return ns - floor;
    case Compare::none:
        break;
    }
    return NAN;
}

bool holds(const Case &c, double value)
{
    switch (c.compare) {
    case Compare::speed:
        return value >= c.must;
    case Compare::faster:
        return value < c.must;
    default:
        return value <= c.must;
    }
}

json describe_machine()
{
    std::string model;
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
        if (line.rfind("model name", 0) == 0) {
            model = line.substr(line.find(':') + 2);
            break;
        }
    auto file = [](const char *path) {
        std::ifstream in(path);
        std::string text;
        std::getline(in, text);
        return text;
    };
    utsname uts;
    uname(&uts);
    std::ifstream cpuinfo("/proc/cpuinfo");
    const std::string all((std::istreambuf_iterator<char>(cpuinfo)), {});
    return {{"processor", model},
            {"processors", std::thread::hardware_concurrency()},
            {"virtual", all.find(" hypervisor") != std::string::npos},
            {"cache_l2", file("/sys/devices/system/cpu/cpu0/cache/index2/size")},
            {"cache_l3", file("/sys/devices/system/cpu/cpu0/cache/index3/size")},
            {"governor", file("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor")},
            {"load", file("/proc/loadavg")},
            {"kernel", std::string(uts.sysname) + " " + uts.release},
            {"architecture", uts.machine},
            {"compiler", __VERSION__},
            {"adapter", "none: rings and windows are plain memory; in veth cases the software adapter"}};
}

json as_json(const Case &c, const Result &r)
{
    json j = {{"name", c.name}, {"what", c.what}, {"spins", c.spinner}};
    if (r.ns.empty()) {
        j[r.failed ? "failed" : "skipped"] = r.skipped;
        return j;
    }
    auto rounded = [](double v) { return std::round(v * 1000) / 1000; };
    const double ns = median(r.ns);
    j["ns"] = rounded(ns);
    j["min"] = rounded(least(r.ns));
    j["max"] = rounded(most(r.ns));
    if (c.bytes)
        j["gbytes_per_second"] = rounded(double(c.bytes) / ns);
    if (r.floor_ns.empty())
        return j;
    const double floor = median(r.floor_ns);
    j["floor_ns"] = rounded(floor);
    j["floor_min"] = rounded(least(r.floor_ns));
    j["floor_max"] = rounded(most(r.floor_ns));
    if (c.compare == Compare::none) {
        j["ratio"] = rounded(ns / floor);
        return j;
    }
    const double value = judged(c, ns, floor);
    j[c.compare == Compare::difference ? "difference_ns" : "ratio"] = rounded(value);
    j["ratio_of_minima"] = rounded(judged(c, least(r.ns), least(r.floor_ns)));
    if (c.compare == Compare::difference)
        j["ratio"] = rounded(ns / floor);
    j["bound"] = c.compare == Compare::speed ? "at least" : c.compare == Compare::faster ? "below" : "at most";
    j["must"] = c.must;
    if (c.aim != 0)
        j["aim"] = c.aim;
    j["met"] = holds(c, value);
    return j;
}

void print_row(const Case &c, const Result &r)
{
    if (r.ns.empty()) {
        fmt::print("{:<28} {}: {}\n", c.name, r.failed ? "FAILED" : "skipped", r.skipped);
    } else {
        const double ns = median(r.ns);
        fmt::print("{:<28} {:>9.1f} {:>9.1f} {:>9.1f}", c.name, ns, least(r.ns), most(r.ns));
        if (!r.floor_ns.empty()) {
            const double floor = median(r.floor_ns);
            const double value = c.compare == Compare::none ? ns / floor : judged(c, ns, floor);
            fmt::print(" {:>9.1f} {:>6.2f}{}", floor, value, c.compare == Compare::difference ? " ns" : "   ");
            if (c.compare != Compare::none) {
                const char *sign = c.compare == Compare::speed ? ">=" : c.compare == Compare::faster ? "<" : "<=";
                fmt::print(" {:>2} {:<5g}", sign, c.must);
                fmt::print("{:>5}", c.aim != 0 ? fmt::format("{:g}", c.aim) : "");
                fmt::print("  {}", holds(c, value) ? "met" : "NOT MET");
            }
        }
        if (c.bytes)
            fmt::print("  ({:.1f} GB/s)", double(c.bytes) / ns);
        fmt::print("\n");
    }
    fmt::print("    {}; {}\n", c.what, c.spinner);
    std::fflush(stdout);
}

/* Last of all: DPDK's environment stays for the rest of the process. */
void add_dpdk(std::vector<Case> &cases, Effort effort, bool asked)
{
#ifdef RUK_BENCH_DPDK
    if (asked)
        return add_dpdk_cases(cases, effort);
    const char *why = "not asked for (--dpdk)";
#else
    const char *why = "not part of this build (-DRUK_BENCH_DPDK=ON)";
#endif
    cases.push_back({.name = "dpdk",
                     .what = "receive and send over a ring by DPDK, against the library",
                     .spinner = one_thread,
                     .skipped = why,
                     .make = {}});
}

std::vector<Case> all_cases(Effort effort, bool dpdk)
{
    std::vector<Case> cases;
    add_receive_cases(cases, effort);
    add_send_cases(cases, effort);
    add_face_cases(cases, effort);
    add_pair_case(cases, effort);
    add_kernel_cases(cases, effort);
    add_veth_cases(cases, effort);
    add_dpdk(cases, effort, dpdk);
    return cases;
}

/* The names of all cases; "dpdk" for those with DPDK, which all begin so. */
std::string case_names()
{
    std::string names;
    for (const Case &c : all_cases({}, false))
        names += (names.empty() ? "" : ", ") + c.name;
    return names;
}

/* What was printed is out; says so when it is not. */
bool written()
{
    if (std::cout.flush() && fflush(stdout) == 0 && ferror(stdout) == 0)
        return true;
    fmt::print(stderr, "ruk-bench: cannot write to standard output: {}\n", strerror(errno));
    return false;
}

} // namespace

int main(int argc, char **argv)
{
    bool as_json_text = false, tiny = false, dpdk = false;
    std::vector<std::string> only;
    CLI::App app("Measures what libruk costs: nanoseconds a datagram, each case in turn with the least that could do "
                 "the same; takes less than a minute",
                 "ruk-bench");
    app.set_version_flag("--version", "ruk-bench " RUK_VERSION, "Print the version and exit");
    app.add_flag("--json", as_json_text, "Result as one JSON object");
    app.add_flag("--tiny", tiny, "A moment of each case: shows that they run, measures nothing");
    app.add_option("--only", only,
                   "Only the case of this name, or those whose names begin so (repeatable): " + case_names())
        ->type_name("NAME");
    app.add_flag("--dpdk", dpdk, "DPDK beside the library too, where it is part of the build");
    app.footer("Exit status: 0 it ran, whatever the ratios; 1 a case failed; 2 usage error.");
    app.failure_message([](const CLI::App *, const CLI::Error &e) { return fmt::format("ruk-bench: {}\n", e.what()); });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        const int code = app.exit(e); // --help and --version arrive here too
        return written() && code == 0 ? 0 : 2;
    }

    std::vector<Case> cases = all_cases({tiny ? 0.01 : 1.0}, dpdk);
    if (!only.empty())
        std::erase_if(cases, [&, all = cases](const Case &c) {
            return std::none_of(only.begin(), only.end(), [&](const auto &name) {
                const bool one = std::any_of(all.begin(), all.end(), [&](const Case &any) { return any.name == name; });
                return one ? c.name == name : c.name.rfind(name, 0) == 0;
            });
        });
    if (cases.empty()) {
        fmt::print(stderr, "ruk-bench: no case of that name; there are: {}\n", case_names());
        return 2;
    }

    const json machine = describe_machine();
    if (!as_json_text) {
        fmt::print("{}, {} processors{}; {}; load {}\n", machine["processor"].get<std::string>(),
                   machine["processors"].get<unsigned>(), machine["virtual"].get<bool>() ? " (a virtual machine)" : "",
                   machine["kernel"].get<std::string>(), machine["load"].get<std::string>());
        fmt::print("No card was involved: rings and windows are plain memory, but for kernel_* (sockets) and veth_*\n"
                   "(the software adapter). Times are ns an operation.\n\n");
        fmt::print("{:<28} {:>9} {:>9} {:>9} {:>9} {:>6}    {:>2} {:<5}{:>5}\n", "case", "median", "min", "max",
                   "floor", "ratio", "", "must", "aim");
    }
    json report = {{"machine", machine}, {"cases", json::array()}};
    bool failed = false;
    for (const Case &c : cases) {
        const Result result = measure(c, tiny);
        failed |= result.failed;
        if (as_json_text)
            report["cases"].push_back(as_json(c, result));
        else
            print_row(c, result);
    }
    if (as_json_text)
        fmt::print("{}\n", report.dump(2));
    return !written() ? 2 : failed ? 1 : 0;
}
