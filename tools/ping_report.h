/*
 * The distribution of half round trips: figures, table, picture.
 */
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tools {

class Distribution {
public:
    /* Round trips in nanoseconds, in any order. */
    explicit Distribution(std::vector<uint32_t> round_trips_ns);

    size_t size() const { return sorted_.size(); }

    /* Half of the smallest round trip that a share of them, 0 to 1, does not exceed. Needs one at least. */
    double half_ns(double share) const;

    /* min, p50, p90, p99, p99.9, p99.99, p99.999, max with their half round trips in ns. */
    std::vector<std::pair<std::string, double>> figures() const;

    /* Each half round trip that occurred, how often, and the share that does not exceed it. */
    void write_csv(const std::string &file) const;

private:
    std::vector<uint32_t> sorted_;
};

/* Fails the program when gnuplot is not installed. */
void require_gnuplot();

/* A picture of the distribution over the percentiles, in PNG format. */
void plot(const Distribution &distribution, const std::string &title, const std::string &file);

} // namespace tools
