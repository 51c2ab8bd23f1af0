#include "ping_report.h"

#include "common.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace tools {

Distribution::Distribution(std::vector<uint32_t> round_trips_ns) : sorted_(std::move(round_trips_ns))
{
    std::sort(sorted_.begin(), sorted_.end());
}

double Distribution::half_ns(double share) const
{
    /* Nearest rank. The product is taken a little smaller, so that 0.9 of 10 is the 9th and not the 10th. */
    double rank = std::ceil(share * static_cast<double>(sorted_.size()) - 1e-6);
    size_t index = rank < 1 ? 0 : std::min(static_cast<size_t>(rank), sorted_.size()) - 1;
    return sorted_[index] / 2.0;
}

std::vector<std::pair<std::string, double>> Distribution::figures() const
{
    return {{"min", half_ns(0)},           {"p50", half_ns(0.5)},     {"p90", half_ns(0.9)},
            {"p99", half_ns(0.99)},        {"p99.9", half_ns(0.999)}, {"p99.99", half_ns(0.9999)},
            {"p99.999", half_ns(0.99999)}, {"max", half_ns(1)}};
}

void Distribution::write_csv(const std::string &file) const
{
    std::ofstream out(file);
    out << "half_round_trip_ns,count,share\n";
    for (size_t i = 0; i < sorted_.size();) {
        size_t next = std::upper_bound(sorted_.begin() + static_cast<std::ptrdiff_t>(i), sorted_.end(), sorted_[i]) -
                      sorted_.begin();
        out << fmt::format("{:.1f},{},{:.9f}\n", sorted_[i] / 2.0, next - i,
                           static_cast<double>(next) / static_cast<double>(sorted_.size()));
        i = next;
    }
    out.flush();
    if (!out)
        fail("cannot write {}: {}", file, errno_text(errno));
}

void require_gnuplot()
{
    const char *path = getenv("PATH");
    std::istringstream directories(path ? path : "/usr/bin:/bin");
    for (std::string directory; std::getline(directories, directory, ':');)
        if (access((directory + "/gnuplot").c_str(), X_OK) == 0)
            return;
    fail("--plot needs gnuplot, which is not installed (package gnuplot-nox)");
}

namespace {

/* In gnuplot's single quotes a quote is doubled. */
std::string quoted(const std::string &text)
{
    std::string result = "'";
    for (char c : text)
        result += c == '\'' ? std::string("''") : std::string(1, c);
    return result + "'";
}

} // namespace

void plot(const Distribution &distribution, const std::string &title, const std::string &file)
{
    /* Without the preloaded adapter: gnuplot has no use for it. */
    FILE *gnuplot = popen("env -u LD_PRELOAD gnuplot", "w");
    if (!gnuplot)
        fail("cannot start gnuplot: {}", errno_text(errno));
    fmt::print(gnuplot,
               "set terminal png size 900,600\nset output {}\nset title {}\n"
               "set xlabel 'percentile'\nset ylabel 'half round trip, microseconds'\n"
               "set logscale x\nset logscale y\nset grid\nset key off\n"
               "set xtics ('0' 1, '50' 2, '90' 10, '99' 100, '99.9' 1e3, '99.99' 1e4, '99.999' 1e5)\n"
               "plot '-' using 1:2 with lines lw 2\n",
               quoted(file), quoted(title));
    /* One point each 2 % of the way to the next nine, as far as the number of round trips reaches. */
    double reach = static_cast<double>(distribution.size());
    for (double x = 1; x <= reach; x *= 1.02)
        fmt::print(gnuplot, "{} {}\n", x, distribution.half_ns(1 - 1 / x) / 1000);
    fmt::print(gnuplot, "e\n");
    if (pclose(gnuplot) != 0 || !std::filesystem::exists(file))
        fail("gnuplot could not write {}", file);
}

} // namespace tools
