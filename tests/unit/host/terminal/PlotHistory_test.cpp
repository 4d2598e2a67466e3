#include "PlotHistory.h"

#include <gtest/gtest.h>

#include <limits>

using micro850::host::PlotHistory;
using namespace std::chrono_literals;

namespace {

const double kNone = std::numeric_limits<double>::quiet_NaN();

/// "1 to 5", or "none".
std::string range(const PlotHistory& history, micro850::Duration from, micro850::Duration to)
{
    const auto found = history.range(from, to);
    if (!found)
        return "none";
    return std::to_string(static_cast<int>(found->least)) + " to " +
           std::to_string(static_cast<int>(found->most));
}

} // namespace

TEST(PlotHistory, HoldsAValueUntilTheNextOneComes)
{
    PlotHistory history(10s);
    history.add(1s, 5);
    history.add(4s, 7);
    EXPECT_EQ(range(history, 0s, 1s), "none");
    EXPECT_EQ(range(history, 1s, 2s), "5 to 5");
    EXPECT_EQ(range(history, 3s, 4s), "5 to 5");
    EXPECT_EQ(range(history, 3s, 5s), "5 to 7");
    EXPECT_EQ(range(history, 4s, 5s), "5 to 7"); // it was 5 until then
    EXPECT_EQ(range(history, 9s, 10s), "7 to 7");
}

TEST(PlotHistory, HasAGapWhereThereIsNoValue)
{
    PlotHistory history(10s);
    history.add(1s, 5);
    history.add(2s, kNone);
    history.add(4s, std::numeric_limits<double>::infinity());
    history.add(6s, 3);
    EXPECT_EQ(range(history, 3s, 6s), "none");
    EXPECT_EQ(history.newest(), 3);
    EXPECT_EQ(range(history, 1s, 7s), "3 to 5");
}

TEST(PlotHistory, KeepsTheExtremesOfValuesThatAreCloseTogether)
{
    PlotHistory history(2048s); // a place for each second
    for (int i = 0; i < 500; ++i)
        history.add(10s + i * 1ms, i == 250 ? 1000 : i % 10);
    EXPECT_EQ(range(history, 10s, 11s), "0 to 1000");
    EXPECT_EQ(range(history, 11s, 12s), "9 to 9"); // the last one
}

TEST(PlotHistory, ForgetsWhatIsOlderThanItsSpan)
{
    PlotHistory history(1s);
    history.add(0s, 100);
    history.add(1s, 1);
    for (int i = 0; i < 100; ++i)
        history.add(2s + i * 100ms, 2 + i % 2);
    EXPECT_EQ(range(history, 0s, 20s), "2 to 3");
    EXPECT_EQ(history.newest(), 3);
}
