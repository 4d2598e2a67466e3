#include "LineStatistics.h"

#include <gtest/gtest.h>

using micro850::host::LineStatistics;
using micro850::host::PortSettings;

TEST(LineStatistics, SaysNothingBeforeTheFirstTransaction)
{
    const LineStatistics line;
    EXPECT_EQ(line.transactionsPerSecond(5000), 0);
    EXPECT_EQ(line.percentInUse(5000, PortSettings()), 0);
    EXPECT_EQ(line.roundTripMs(50), -1);
}

TEST(LineStatistics, CountsTransactionsOfTheLastTenSeconds)
{
    LineStatistics line;
    for (int ms = 0; ms <= 30000; ms += 50) // 20 a second
        line.add(1000 + ms, 0, 1);
    EXPECT_NEAR(line.transactionsPerSecond(31000), 20, 0.5);
    EXPECT_NEAR(line.transactionsPerSecond(36000), 10, 0.5); // five seconds of silence
    EXPECT_EQ(line.transactionsPerSecond(50000), 0);
}

TEST(LineStatistics, MeasuresTheShareOfTheLineFromItsSpeed)
{
    PortSettings port;
    port.baud = 9600; // 960 bytes a second of ten bits
    LineStatistics line;
    for (int ms = 0; ms <= 10000; ms += 1000)
        line.add(ms, 240, 1);
    EXPECT_NEAR(line.percentInUse(10000, port), 27.5, 0.1); // 11 x 240 of 9600 bytes
    port.baud = 1200;
    EXPECT_EQ(line.percentInUse(10000, port), 100);
}

TEST(LineStatistics, RanksTheLastThousandRoundTrips)
{
    LineStatistics line;
    line.add(0, 0, -1); // without an answer
    EXPECT_EQ(line.roundTripMs(50), -1);
    for (int i = 0; i < 1000; ++i)
        line.add(i, 0, 900);
    for (int i = 1; i <= 1000; ++i)
        line.add(1000 + i, 0, i);
    EXPECT_EQ(line.roundTripMs(50), 500);
    EXPECT_EQ(line.roundTripMs(99), 990);
    EXPECT_EQ(line.roundTripMs(100), 1000);
}
