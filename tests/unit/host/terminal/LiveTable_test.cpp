#include "LiveTable.h"

#include "poll_fixture.h"

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

class LiveTableTest : public PollTest
{
protected:
    QString stationLine() const
    {
        return LiveTable(*loop, project).stationLines(clock.now()).first();
    }
};

} // namespace

TEST_F(LiveTableTest, ShowsTheStationWithItsCounters)
{
    start(R"({"tag": "Speed"}, {"tag": "Nope"})", R"([{"number": 1, "name": "filler"}])");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && !error(1).empty(); }));
    EXPECT_TRUE(stationLine().startsWith("station 1 (filler): connected; sent "));
    EXPECT_TRUE(stationLine().endsWith("; 1x status 05"));
}

TEST_F(LiveTableTest, ShowsHowBusyTheLineIs)
{
    start(R"({"tag": "Speed"})");
    const LiveTable table(*loop, project);
    EXPECT_EQ(table.lineStatistics(),
              QString("0.0 transactions/s, 0 % in use, round trip -, 99 % within -, retries 0, "
                      "reopened 0"));
    ASSERT_TRUE(runUntilRead());
    EXPECT_TRUE(table.lineStatistics().startsWith("- transactions/s, - % in use, round trip 1 ms"))
        << table.lineStatistics().toStdString();
    runFor(2000);
    EXPECT_FALSE(table.lineStatistics().startsWith("-"));
    // The controller answers after one millisecond, and nothing else takes time.
    EXPECT_TRUE(table.lineStatistics().contains("round trip 1 ms, 99 % within 1 ms"))
        << table.lineStatistics().toStdString();
}

TEST_F(LiveTableTest, ShowsThatAStationIsDeadAndItsValuesAreStale)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Dead; }));
    EXPECT_TRUE(stationLine().startsWith("station 1: dead, no answer, last answer "));
    EXPECT_EQ(LiveTable(*loop, project).changeLine(0), QString("Speed = 1234 (stale)"));
}

TEST_F(LiveTableTest, ShowsThatTheLineIsDown)
{
    start(R"({"tag": "Speed"})");
    line.setPresent(false);
    loop->step();
    const QString state = LiveTable(*loop, project).lineState();
    EXPECT_TRUE(state.endsWith("DOWN, no such device")) << state.toStdString();
    EXPECT_TRUE(stationLine().startsWith("station 1: line down; sent 0, "))
        << stationLine().toStdString();
}

TEST_F(LiveTableTest, ShowsAStationThatWasConnectedAsDownWithItsLine)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    line.setPresent(false);
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    EXPECT_TRUE(stationLine().startsWith("station 1: line down, last answer 0.0 s ago; sent "))
        << stationLine().toStdString();
}

TEST_F(LiveTableTest, PrintsAnEmptyStringAsAValue)
{
    plc.tags["Text"] = {0x00DA, {wire::hex("00")}};
    start(R"({"tag": "Text"})");
    EXPECT_EQ(LiveTable(*loop, project).changeLine(0), QString("Text"));
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(LiveTable(*loop, project).changeLine(0), QString("Text = "));
}

TEST_F(LiveTableTest, IsCompleteWhenEveryVariableWasRead)
{
    start(R"({"tag": "Speed"}, {"tag": "Level"})");
    const LiveTable table(*loop, project);
    EXPECT_FALSE(table.complete());
    ASSERT_TRUE(runUntilRead());
    EXPECT_TRUE(table.complete());
    EXPECT_EQ(table.changeLine(0), QString("Speed = 1234"));
}

TEST(AgeText, NamesAnAgeInItsUnit)
{
    EXPECT_EQ(ageText(std::nullopt), QString("-"));
    EXPECT_EQ(ageText(0ms), QString("0.0 s"));
    EXPECT_EQ(ageText(9999ms), QString("9.9 s"));
    EXPECT_EQ(ageText(10000ms), QString("10 s"));
    EXPECT_EQ(ageText(119999ms), QString("119 s"));
    EXPECT_EQ(ageText(120000ms), QString("2 min"));
    EXPECT_EQ(ageText(7200000ms), QString("2 h"));
}
