// Percentiles of half round trips, against values worked out by hand.
#include "ping_report.h"

#include <cstdio>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <numeric>
#include <unistd.h>

namespace {

std::vector<uint32_t> one_to(uint32_t n)
{
    std::vector<uint32_t> values(n);
    std::iota(values.begin(), values.end(), 1);
    return values;
}

} // namespace

TEST(PingReport, Distribution_OfOneRoundTrip_IsThatRoundTripEverywhere)
{
    for (const auto &[name, ns] : tools::Distribution({3001}).figures())
        EXPECT_EQ(ns, 1500.5) << name;
}

TEST(PingReport, Distribution_OfAThousand_TakesTheNearestRank)
{
    const std::vector<std::pair<std::string, double>> expected = {{"min", 0.5},     {"p50", 250},     {"p90", 450},
                                                                  {"p99", 495},     {"p99.9", 499.5}, {"p99.99", 500},
                                                                  {"p99.999", 500}, {"max", 500}};
    EXPECT_EQ(tools::Distribution(one_to(1000)).figures(), expected);
}

TEST(PingReport, Distribution_InAnyOrder_IsTheSame)
{
    EXPECT_EQ(tools::Distribution({5, 1, 4, 2, 3}).half_ns(0.5), 1.5);
    EXPECT_EQ(tools::Distribution({5, 1, 4, 2, 3}).half_ns(1), 2.5);
}

TEST(PingReport, Distribution_ShareThatIsARank_IsNotRoundedUp)
{
    EXPECT_EQ(tools::Distribution(one_to(10)).half_ns(0.9), 4.5);
    EXPECT_EQ(tools::Distribution(one_to(100)).half_ns(0.99), 49.5);
}

TEST(PingReport, Csv_HoldsEachValueWithItsCountAndShare)
{
    char name[] = "/tmp/ruk-csv-XXXXXX";
    close(mkstemp(name));
    tools::Distribution({20, 10, 10, 31}).write_csv(name);
    std::ifstream in(name);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    unlink(name);
    EXPECT_EQ(text, "half_round_trip_ns,count,share\n5.0,2,0.500000000\n10.0,1,0.750000000\n15.5,1,1.000000000\n");
}
