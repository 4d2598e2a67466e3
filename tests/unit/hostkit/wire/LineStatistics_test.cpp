#include "LineStatistics.h"

#include <gtest/gtest.h>

using micro850::host::LineStatistics;
using micro850::host::PortSettings;
using namespace std::chrono_literals;

TEST(LineStatistics, AreEmptyBeforeTheFirstTransaction)
{
    const LineStatistics line;
    EXPECT_EQ(line.transactionsPerSecond(5s), 0);
    EXPECT_EQ(line.percentInUse(5s, PortSettings()), 0);
    EXPECT_FALSE(line.roundTrip(50));
}

TEST(LineStatistics, CountTransactionsOfTheLastTenSeconds)
{
    LineStatistics line;
    for (micro850::Duration time = 1s; time <= 31s; time += 50ms) // 20 a second
        line.add(time, 0, 1ms);
    EXPECT_NEAR(line.transactionsPerSecond(31s), 20, 0.5);
    EXPECT_NEAR(line.transactionsPerSecond(36s), 10, 0.5); // five seconds of silence
    EXPECT_EQ(line.transactionsPerSecond(50s), 0);
}

TEST(LineStatistics, HaveNoRatesInTheFirstSecond)
{
    LineStatistics line;
    EXPECT_TRUE(line.hasRates(5s)); // of a line on which nothing is sent
    line.add(5s, 10, 1ms);
    EXPECT_FALSE(line.hasRates(5s));
    EXPECT_FALSE(line.hasRates(5999ms));
    EXPECT_TRUE(line.hasRates(6s));
}

TEST(LineStatistics, ComputeTheShareInUseFromTheSpeedOfTheLine)
{
    PortSettings port;
    port.baud = 9600; // 960 bytes a second of ten bits
    LineStatistics line;
    for (micro850::Duration time = 0s; time <= 10s; time += 1s)
        line.add(time, 240, 1ms);
    EXPECT_NEAR(line.percentInUse(10s, port), 27.5, 0.1); // 11 x 240 of 9600 bytes
    port.baud = 1200;
    EXPECT_EQ(line.percentInUse(10s, port), 100);
}

TEST(LineStatistics, RankTheLastThousandRoundTrips)
{
    LineStatistics line;
    line.add(0s, 0, std::nullopt); // without an answer
    EXPECT_FALSE(line.roundTrip(50));
    for (int i = 0; i < 1000; ++i)
        line.add(i * 1ms, 0, 900ms);
    for (int i = 1; i <= 1000; ++i)
        line.add(1s + i * 1ms, 0, i * 1ms);
    EXPECT_EQ(line.roundTrip(50), 500ms);
    EXPECT_EQ(line.roundTrip(99), 990ms);
    EXPECT_EQ(line.roundTrip(100), 1s);
}

TEST(LineStatistics, CountAllRoundTripsByTheirLength)
{
    using micro850::host::RoundTripHistogram;
    LineStatistics line;
    line.add(1s, 0, 20ms);
    line.add(1s, 0, 20001us); // just above a limit
    line.add(1s, 0, 5s);
    line.add(1s, 0, 5001ms);
    line.add(1s, 0, std::nullopt); // no answer
    for (int i = 0; i < 1500; ++i)
        line.add(2s, 0, 1ms);
    const RoundTripHistogram& roundTrips = line.roundTrips();
    ASSERT_EQ(RoundTripHistogram::kLimitsMs[3], 20);
    EXPECT_EQ(roundTrips.counts[0], 1500);
    EXPECT_EQ(roundTrips.counts[3], 1);
    EXPECT_EQ(roundTrips.counts[4], 1);
    EXPECT_EQ(roundTrips.counts[14], 1);
    EXPECT_EQ(roundTrips.counts[15], 1);
    EXPECT_TRUE(roundTrips.sum == 11541001us);
}
