#include "Plot.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

QStringList drawn(const Plot& plot, int width, int rows, micro850::Duration now,
                  const QVector<PlotLabel>& labels)
{
    QStringList lines;
    for (const PageLine& line : plot.page(width, rows, now, 14h + now, labels)) {
        QString text = line.text;
        while (text.endsWith(' '))
            text.chop(1);
        lines += text;
    }
    return lines;
}

} // namespace

// A staircase over ten seconds. A column of 31 is 0.32258 seconds: the last one begins 40 us before
// now, the first one at 10.32 s, and the steps at 12.5, 15 and 17.5 s are in columns 6, 14 and 22.
TEST(Plot, DrawsValuesOverClockTimesWithRoundNumbersAndUnit)
{
    Plot plot({"mm"}, {10s, false, false});
    for (int i = 0; i < 4; ++i)
        plot.add(0, 10s + i * 2500ms, i * 10);
    const QStringList lines = drawn(plot, 34, 14, 20s, {{"Level", "30 mm", ""}});
    EXPECT_EQ(lines.join('\n').toStdString(), "Level = 30 mm\n"
                                              "mm\n"
                                              "30+                      *********\n"
                                              "  |                      *\n"
                                              "  |                      *\n"
                                              "20+              *********\n"
                                              "  |              *\n"
                                              "  |              *\n"
                                              "10+      *********\n"
                                              "  |      *\n"
                                              "  |      *\n"
                                              " 0+*******\n"
                                              "  ++--------------+--------------+\n"
                                              "14:00:10      14:00:15    14:00:20");
}

TEST(Plot, PutsSeriesOfOneUnitIntoOneChartWithALegendAndTheirNumbers)
{
    Plot plot({"", ""}, {10s, false, false});
    plot.add(0, 1s, 0);
    plot.add(1, 1s, 10);
    const QStringList lines = drawn(plot, 40, 12, 10s, {{"A", "0", ""}, {"B", "10", " (stale)"}});
    EXPECT_EQ(lines.at(0), QString("1 A = 0   2 B = 10 (stale)"));
    EXPECT_TRUE(lines.at(1).startsWith("10+")) << lines.join('\n').toStdString();
    EXPECT_TRUE(lines.at(1).endsWith("+++2"));
    EXPECT_TRUE(lines.at(9).endsWith("***1")) << lines.join('\n').toStdString();
}

TEST(Plot, DrawsAChartForEachUnit)
{
    Plot plot({"mm", "rpm", "mm"}, {10s, false, true});
    plot.add(0, 1s, 5);
    plot.add(1, 1s, 1000);
    plot.add(2, 1s, 6);
    const QStringList lines =
        drawn(plot, 60, 24, 10s, {{"A", "5", ""}, {"B", "6", ""}, {"C", "7", ""}});
    EXPECT_EQ(lines.at(0), QString("1 A = 5   3 C = 7"));
    EXPECT_EQ(lines.at(11), QString("2 B = 6"));
    EXPECT_TRUE(lines.at(1).endsWith("mm"));
    EXPECT_TRUE(lines.at(12).endsWith("rpm"));
}

TEST(Plot, BeginsAtZeroWhenItIsAskedTo)
{
    Plot plot({""}, {10s, true, false});
    plot.add(0, 1s, 95);
    plot.add(0, 5s, 99);
    EXPECT_EQ(drawn(plot, 40, 12, 10s, {{"A", "", ""}}).at(9).left(4), QString("  0+"));
    Plot without({""}, {10s, false, false});
    without.add(0, 1s, 95);
    without.add(0, 5s, 99);
    EXPECT_EQ(drawn(without, 40, 12, 10s, {{"A", "", ""}}).at(9).left(4), QString(" 94+"));
}

TEST(Plot, NeverDrawsMoreThanTheWindowHolds)
{
    Plot plot({"mm", "rpm", ""}, {10s, false, true});
    plot.add(0, 1s, 1e300);
    plot.add(1, 1s, -1e-300);
    const QVector<PlotLabel> labels(3, {"A name", "12345", ""});
    for (const int rows : {3, 7, 8, 9, 24, 100}) {
        for (const int width : {1, 10, 30, 40, 300}) {
            const QStringList lines = drawn(plot, width, rows, 10s, labels);
            EXPECT_LE(lines.size(), rows);
            for (const QString& line : lines)
                EXPECT_LE(line.size(), width) << rows << ' ' << line.toStdString();
        }
    }
}
