#include "Plot.h"

#include <gtest/gtest.h>

#include <limits>

using micro850::host::Plot;

namespace {

const double kNone = std::numeric_limits<double>::quiet_NaN();

std::string drawn(const Plot& plot, int width, int rows, qint64 now)
{
    return plot.lines(width, rows, now).join('|').toStdString();
}

} // namespace

// Ten columns of a second each.
TEST(Plot, DrawsTheValueOfEachColumnWithTheNewestAtTheRight)
{
    Plot plot(10000);
    for (int second = 0; second < 8; ++second)
        plot.add(13000 + second * 1000, second);
    EXPECT_EQ(drawn(plot, 10, 1, 20000), u8"  ▁▂▃▄▅▆▇█");
    EXPECT_EQ(plot.range(20000).toStdString(), "0 to 7");
}

TEST(Plot, StacksCellsToItsHeight)
{
    Plot plot(4000);
    plot.add(0, 0);
    plot.add(2000, 15);
    plot.add(3000, 7);
    EXPECT_EQ(drawn(plot, 4, 2, 3500), u8"  █ |▁▁██");
}

TEST(Plot, MovesByWholeColumns)
{
    Plot plot(10000);
    plot.add(10000, 1);
    plot.add(15000, 2);
    const QString before = plot.lines(10, 1, 18000).first();
    EXPECT_EQ(plot.lines(10, 1, 18900).first(), before);
    EXPECT_EQ(plot.lines(10, 1, 19000).first(), before.mid(1) + before.at(9));
}

TEST(Plot, LeavesAGapWhereThereIsNoValue)
{
    Plot plot(5000);
    plot.add(0, 1);
    plot.add(2000, kNone);
    plot.add(4000, 2);
    EXPECT_EQ(drawn(plot, 5, 1, 4500), u8"▁▁  █");
    EXPECT_EQ(Plot(5000).range(4500), QString());
    EXPECT_EQ(drawn(Plot(5000), 3, 1, 4500), "   ");
}

TEST(Plot, PutsAValueThatDoesNotMoveIntoTheMiddle)
{
    Plot plot(4000);
    plot.add(0, -7.5);
    EXPECT_EQ(drawn(plot, 2, 2, 4000), u8"▁▁|██");
    EXPECT_EQ(plot.range(4000).toStdString(), "-7.5 to -7.5");
}

TEST(Plot, ForgetsWhatHasLeftTheSpan)
{
    Plot plot(1000);
    plot.add(0, 100);
    plot.add(1000, 1);
    for (int i = 0; i < 100; ++i)
        plot.add(2000 + i * 100, 2 + i % 2);
    EXPECT_EQ(plot.range(11900).toStdString(), "2 to 3");
}
