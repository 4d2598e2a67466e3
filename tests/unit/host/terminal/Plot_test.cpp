#include "Plot.h"

#include <gtest/gtest.h>

#include <limits>

using micro850::host::Plot;
using namespace std::chrono_literals;

namespace {

const double kNone = std::numeric_limits<double>::quiet_NaN();

std::string drawn(const Plot& plot, int width, int rows, micro850::Duration now)
{
    return plot.lines(width, rows, now).join('|').toStdString();
}

} // namespace

// Ten columns of a second each.
TEST(Plot, DrawsTheValueOfEachColumnWithTheNewestAtTheRight)
{
    Plot plot(10000ms);
    for (int second = 0; second < 8; ++second)
        plot.add(13s + second * 1s, second);
    EXPECT_EQ(drawn(plot, 10, 1, 20000ms), u8"  ▁▂▃▄▅▆▇█");
    EXPECT_EQ(plot.range(20000ms).toStdString(), "0 to 7");
}

TEST(Plot, StacksCellsToItsHeight)
{
    Plot plot(4000ms);
    plot.add(0ms, 0);
    plot.add(2000ms, 15);
    plot.add(3000ms, 7);
    EXPECT_EQ(drawn(plot, 4, 2, 3500ms), u8"  █ |▁▁██");
}

TEST(Plot, MovesByWholeColumns)
{
    Plot plot(10000ms);
    plot.add(10000ms, 1);
    plot.add(15000ms, 2);
    const QString before = plot.lines(10, 1, 18000ms).first();
    EXPECT_EQ(plot.lines(10, 1, 18900ms).first(), before);
    EXPECT_EQ(plot.lines(10, 1, 19000ms).first(), before.mid(1) + before.at(9));
}

TEST(Plot, LeavesAGapWhereThereIsNoValue)
{
    Plot plot(5000ms);
    plot.add(0ms, 1);
    plot.add(2000ms, kNone);
    plot.add(4000ms, 2);
    EXPECT_EQ(drawn(plot, 5, 1, 4500ms), u8"▁▁  █");
    EXPECT_EQ(Plot(5000ms).range(4500ms), QString());
    EXPECT_EQ(drawn(Plot(5000ms), 3, 1, 4500ms), "   ");
}

TEST(Plot, DrawsAConstantValueInTheMiddle)
{
    Plot plot(4000ms);
    plot.add(0ms, -7.5);
    EXPECT_EQ(drawn(plot, 2, 2, 4000ms), u8"▁▁|██");
    EXPECT_EQ(plot.range(4000ms).toStdString(), "-7.5 to -7.5");
}

TEST(Plot, ForgetsValuesOlderThanItsSpan)
{
    Plot plot(1000ms);
    plot.add(0ms, 100);
    plot.add(1000ms, 1);
    for (int i = 0; i < 100; ++i)
        plot.add(2s + i * 100ms, 2 + i % 2);
    EXPECT_EQ(plot.range(11900ms).toStdString(), "2 to 3");
}
