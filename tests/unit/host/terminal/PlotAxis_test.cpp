#include "PlotAxis.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

std::string labels(double least, double most, int steps)
{
    const ValueAxis axis({least, most}, steps);
    QStringList labels;
    for (const double tick : axis.ticks())
        labels += axis.label(tick);
    return labels.join(' ').toStdString();
}

std::string times(micro850::Duration span, micro850::Duration timeOfDay, int most)
{
    QStringList texts;
    for (const TimeTick& tick : timeTicks(span, timeOfDay, most))
        texts += QStringLiteral("%1@%2").arg(tick.label).arg(tick.before / 1ms);
    return texts.join(' ').toStdString();
}

} // namespace

TEST(ValueAxis, HasRoundNumbersThatIncludeTheValues)
{
    EXPECT_EQ(labels(0, 100, 5), "0 20 40 60 80 100");
    EXPECT_EQ(labels(13, 87, 4), "0 20 40 60 80 100");
    EXPECT_EQ(labels(20.1, 21.9, 4), "20.0 20.5 21.0 21.5 22.0");
    EXPECT_EQ(labels(-3, 4, 2), "-5 0 5");
    EXPECT_EQ(labels(0.001, 0.004, 3), "0.001 0.002 0.003 0.004");
    EXPECT_EQ(labels(0, 1, 1), "0 1");
    EXPECT_EQ(labels(0, 3e9, 3), "0 1e+09 2e+09 3e+09");
}

TEST(ValueAxis, PutsAConstantValueInItsMiddle)
{
    EXPECT_EQ(labels(50, 50, 4), "45 50 55");
    EXPECT_EQ(labels(0, 0, 4), "-1 0 1");
    EXPECT_EQ(labels(-7.5, -7.5, 4), "-9 -8 -7 -6");
}

TEST(ValueAxis, HoldsTheLargestAndTheSmallestNumbers)
{
    const double most = 1.7e308;
    const ValueAxis large({-most, most}, 5);
    EXPECT_GE(large.ticks().size(), 2);
    EXPECT_LE(large.ticks().size(), 101);
    EXPECT_FALSE(labels(5e-324, 5e-324, 5).empty());
}

TEST(TimeTicks, AreRoundClockTimes)
{
    // 14:05:07.5: a minute back to 14:04:07.5, at most every 12 seconds.
    EXPECT_EQ(times(60s, 14h + 5min + 7500ms, 5),
              "14:04:15@52500 14:04:30@37500 14:04:45@22500 14:05:00@7500");
    EXPECT_EQ(times(1h, 14h + 5min, 4), "13:15@3000000 13:30@2100000 13:45@1200000 14:00@300000");
}

TEST(TimeTicks, GoBackBeyondMidnight)
{
    EXPECT_EQ(times(60s, 20s, 2), "23:59:30@50000 00:00:00@20000");
}
