#include "LiveTable.h"

#include "poll_fixture.h"

using namespace host;

namespace {

class LiveTableTest : public PollTest
{
protected:
    QStringList lines(int width = 100, int rows = 30) const
    {
        return LiveTable(*loop, project).lines(width, rows, clock.now());
    }
};

} // namespace

TEST_F(LiveTableTest, ShowsNameTypeValueAgeAndQuality)
{
    start(R"({"tag": "Speed"}, {"tag": "Level", "length": 3}, {"tag": "Nope"})",
          R"([{"number": 1, "name": "filler"}])");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && loop->values().wasRead(1); }));
    const QStringList table = lines();
    EXPECT_EQ(table.at(0).simplified(), QString("NAME TYPE VALUE AGE QUALITY ERROR"));
    EXPECT_EQ(table.at(1).simplified(), QString("Speed INT 1234 0.0 s good"));
    EXPECT_EQ(table.at(2).simplified(), QString("Level INT [100, 101, 102] 0.0 s good"));
    EXPECT_EQ(table.at(3).simplified(),
              QString("Nope ? - never path destination unknown (status…"));
    EXPECT_TRUE(table.last().startsWith("station 1 (filler): connected; sent "));
    EXPECT_TRUE(lines(200).last().endsWith("; 1x status 05"));
}

TEST_F(LiveTableTest, KeepsToTheSizeOfTheWindow)
{
    start(R"({"tag": "Level", "length": 10}, {"tag": "Speed"}, {"tag": "Nope"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0); }));
    for (const int width : {1, 20, 40, 80}) {
        for (const QString& text : lines(width))
            EXPECT_LE(text.size(), width);
    }
    const QStringList small = lines(60, 6);
    EXPECT_EQ(small.size(), 6);
    EXPECT_TRUE(small.contains("... and 2 more"));
}

TEST_F(LiveTableTest, SaysThatAStationIsDeadAndItsValuesAreStale)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().state == Station::State::Dead; }));
    EXPECT_TRUE(lines().at(1).contains("stale"));
    EXPECT_TRUE(lines().last().startsWith("station 1: dead, no answer, last answer "));
    EXPECT_EQ(LiveTable(*loop, project).changeLine(0), QString("Speed = 1234 (stale)"));
}

TEST_F(LiveTableTest, SaysThatTheLineIsDown)
{
    start(R"({"tag": "Speed"})");
    line.setPresent(false);
    loop->step();
    EXPECT_TRUE(lines().at(3).endsWith("DOWN, no such device")) << lines().at(3).toStdString();
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
    EXPECT_EQ(ageText(-1), QString("-"));
    EXPECT_EQ(ageText(0), QString("0.0 s"));
    EXPECT_EQ(ageText(9999), QString("9.9 s"));
    EXPECT_EQ(ageText(10000), QString("10 s"));
    EXPECT_EQ(ageText(119999), QString("119 s"));
    EXPECT_EQ(ageText(120000), QString("2 min"));
    EXPECT_EQ(ageText(7200000), QString("2 h"));
}
