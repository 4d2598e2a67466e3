#include "PlotCanvas.h"

#include <gtest/gtest.h>

using namespace micro850::host;

TEST(PlotCanvas, DrawsDotsAsBraille)
{
    PlotCanvas canvas(2, 1, true);
    EXPECT_EQ(canvas.dotColumns(), 4);
    EXPECT_EQ(canvas.dotRows(), 4);
    canvas.line(0, 0, 0, 0); // bottom left
    canvas.line(1, 3, 3, 0); // top right
    canvas.line(3, 0, 3, 1); // the right column of the second cell
    // Dots 7 and 4; dots 4, 5, 6 and 8.
    EXPECT_EQ(canvas.row(0).text, QString::fromUtf8("⡈⢸"));
    ASSERT_EQ(canvas.row(0).marks.size(), 2);
    EXPECT_EQ(canvas.row(0).marks.at(1).column, 1);
    EXPECT_EQ(canvas.row(0).marks.at(1).style, Style::Series2);
}

TEST(PlotCanvas, DrawsASignForEachSeriesWithoutUnicode)
{
    PlotCanvas canvas(3, 2, false);
    canvas.line(0, 0, 1, 0);
    canvas.line(2, 1, 1, 1);
    EXPECT_EQ(canvas.row(0).text, QString("* +"));
    EXPECT_EQ(canvas.row(1).text, QString("*  "));
}

TEST(PlotCanvas, DrawsNothingOutside)
{
    PlotCanvas canvas(2, 2, false);
    canvas.line(-1, 0, 1, 0);
    canvas.line(2, 0, 1, 0);
    canvas.line(0, 5, 9, 0);
    EXPECT_EQ(canvas.row(0).text + canvas.row(1).text, QString("    "));
}
