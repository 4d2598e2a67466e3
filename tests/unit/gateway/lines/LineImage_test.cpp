#include "LineImage.h"

#include "UserError.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace std::chrono_literals;
using host::Quality;

namespace {

const char kVariables[] = R"({"name": "Speed", "tag": "SPEED"},
                             {"name": "Level", "tag": "LEVEL", "length": 2},
                             {"name": "Recipe", "tag": "RECIPE", "poll": "once"})";
// 2026-11-22T13:30:00Z
const qint64 kHalfPastOne = 1795354200000;

LineSettings settingsOf(const std::string& variables)
{
    LineSettings settings;
    settings.name = QStringLiteral("press");
    settings.project = host::Project::fromText(
        QString::fromStdString(R"({"port": {"device": "/dev/x"}, "staleAfterMs": 5000,
                                   "stations": [{"number": 1}], "variables": [)" +
                               variables + "]}"),
        QStringLiteral("p.json"));
    return settings;
}

Json valueOf(const char* name, int number, int ageMs, const char* quality = "good",
             const char* error = "")
{
    const char low = static_cast<char>(number & 0xFF);
    const char high = static_cast<char>(number >> 8);
    return {{"line", "press"},
            {"name", name},
            {"station", 1},
            {"tag", "T"},
            {"element", 0},
            {"type", "INT"},
            {"value", number},
            {"bytes", QByteArray().append(low).append(high).toHex().toStdString()},
            {"quality", quality},
            {"time", "1970-01-01T00:00:00.000Z"},
            {"error", error},
            {"ageMs", ageMs}};
}

Json neverOf(const char* name, const char* error)
{
    return {{"line", "press"}, {"name", name},    {"station", 1},     {"tag", "T"},
            {"element", 0},    {"type", nullptr}, {"value", nullptr}, {"quality", "never"},
            {"time", nullptr}, {"error", error}};
}

class LineImageTest : public ::testing::Test
{
protected:
    VirtualClock clock;
    SettableWallClock wall{kHalfPastOne};
    LineSettings settings = settingsOf(kVariables);
    LineImage image{settings, clock, wall};
};

} // namespace

TEST_F(LineImageTest, HasAllVariablesBeforeTheFirstValue)
{
    ASSERT_EQ(image.size(), 3);
    EXPECT_EQ(image.value(1).name, QStringLiteral("Level"));
    EXPECT_EQ(image.value(1).line, QStringLiteral("press"));
    EXPECT_EQ(image.value(1).tag, QStringLiteral("LEVEL"));
    EXPECT_EQ(image.value(1).quality, Quality::Never);
    EXPECT_FALSE(image.value(1).time);
    EXPECT_LT(image.ageMs(1), 0);
    EXPECT_FALSE(image.oldestMs());
}

TEST_F(LineImageTest, StampsByItsOwnWallClockLessTheAge)
{
    EXPECT_EQ(image.take(valueOf("Speed", 7, 40)), 0);
    EXPECT_EQ(image.value(0).value, 7);
    EXPECT_EQ(*image.value(0).time, kHalfPastOne - 40);
    clock.advance(100ms);
    EXPECT_EQ(image.ageMs(0), 140);
}

TEST_F(LineImageTest, TellsOnlyWhatChanged)
{
    image.take(valueOf("Speed", 7, 0));
    EXPECT_EQ(image.take(valueOf("Speed", 7, 0)), -1);
    EXPECT_EQ(image.take(valueOf("Speed", 8, 0)), 0);
    EXPECT_EQ(image.take(valueOf("Speed", 8, 0, "stale")), 0);
    EXPECT_EQ(image.take(valueOf("Speed", 8, 0, "stale", "no answer")), 0);
}

TEST_F(LineImageTest, KeepsTheStampOfAValueThatOnlyGotStale)
{
    image.take(valueOf("Speed", 7, 0));
    clock.advance(6000ms);
    wall.advance(6000);
    image.take(valueOf("Speed", 7, 5997, "stale"));
    EXPECT_EQ(*image.value(0).time, kHalfPastOne);
    EXPECT_EQ(image.ageMs(0), 6000);
}

TEST_F(LineImageTest, MovesTheStampOfAnUnchangedValueWithItsAge)
{
    image.take(valueOf("Speed", 7, 0));
    clock.advance(1000ms);
    wall.advance(1000);
    image.takeAges(0, {15, nullptr, nullptr});
    EXPECT_EQ(*image.value(0).time, kHalfPastOne + 985);
    EXPECT_EQ(image.ageMs(0), 15);
}

TEST_F(LineImageTest, MeasuresAgesByTheMonotonicClockWhenTheWallClockSteps)
{
    image.take(valueOf("Speed", 7, 0));
    wall.set(0);
    clock.advance(2000ms);
    EXPECT_EQ(image.ageMs(0), 2000);
    EXPECT_TRUE(image.markOld(true).isEmpty());
    image.take(valueOf("Speed", 8, 0));
    EXPECT_EQ(*image.value(0).time, 0);
    wall.set(kHalfPastOne + 10 * 365 * 86400000LL);
    EXPECT_EQ(image.ageMs(0), 0);
    EXPECT_TRUE(image.markOld(true).isEmpty());
}

TEST_F(LineImageTest, MarksAllValuesStaleWithTheReasonOnce)
{
    image.take(valueOf("Speed", 7, 0));
    const QString reason = QStringLiteral("the worker of this line ended (signal 9)");
    EXPECT_EQ(image.markStale(reason), (QVector<int>{0, 1, 2}));
    EXPECT_EQ(image.value(0).quality, Quality::Stale);
    EXPECT_EQ(image.value(0).value, 7);
    EXPECT_EQ(image.value(0).error, reason);
    EXPECT_EQ(image.value(1).quality, Quality::Never);
    EXPECT_EQ(image.value(1).error, reason);
    EXPECT_TRUE(image.markStale(reason).isEmpty());
}

TEST_F(LineImageTest, KeepsAValueThatTheNextWorkerHasNotReadYet)
{
    image.take(valueOf("Speed", 7, 0));
    image.markStale(QStringLiteral("ended"));
    EXPECT_EQ(image.take(neverOf("Speed", "the device is gone")), 0);
    EXPECT_EQ(image.value(0).quality, Quality::Stale);
    EXPECT_EQ(image.value(0).value, 7);
    EXPECT_EQ(image.value(0).error, QStringLiteral("the device is gone"));
    EXPECT_EQ(image.take(valueOf("Speed", 7, 0)), 0);
    EXPECT_EQ(image.value(0).quality, Quality::Good);
    EXPECT_TRUE(image.value(0).error.isEmpty());
}

TEST_F(LineImageTest, TellsWhyAVariableHasNoValueYet)
{
    EXPECT_EQ(image.take(neverOf("Speed", "no answer")), 0);
    EXPECT_EQ(image.take(neverOf("Speed", "no answer")), -1);
    EXPECT_EQ(image.value(0).error, QStringLiteral("no answer"));
}

TEST_F(LineImageTest, MarksValuesOldOnlyBeyondTheTimeOfTheProject)
{
    image.take(valueOf("Speed", 7, 0));
    image.take(valueOf("Recipe", 1, 0));
    clock.advance(5000ms);
    EXPECT_TRUE(image.markOld(true).isEmpty());
    clock.advance(1ms);
    EXPECT_TRUE(image.markOld(false).isEmpty());
    EXPECT_EQ(image.markOld(true), QVector<int>{0}); // one that is read once does not get old
    EXPECT_EQ(image.value(0).quality, Quality::Stale);
    EXPECT_TRUE(image.markOld(true).isEmpty());
}

TEST_F(LineImageTest, MarksValuesThatAreReadSeldomOldOnlyBeyondTwoIntervals)
{
    settings = settingsOf(R"({"name": "Speed", "tag": "SPEED", "intervalMs": 2000},
                             {"name": "Level", "tag": "LEVEL", "intervalMs": 2600},
                             {"name": "Recipe", "tag": "RECIPE", "intervalMs": 60000})");
    LineImage seldom(settings, clock, wall);
    for (const char* name : {"Speed", "Level", "Recipe"})
        seldom.take(valueOf(name, 7, 0));
    clock.advance(5000ms);
    EXPECT_TRUE(seldom.markOld(true).isEmpty());
    clock.advance(1ms);
    EXPECT_EQ(seldom.markOld(true), QVector<int>{0}); // the time of the project is longer
    clock.advance(199ms);
    EXPECT_TRUE(seldom.markOld(true).isEmpty());
    clock.advance(1ms);
    EXPECT_EQ(seldom.markOld(true), QVector<int>{1});
    clock.advance(114799ms);
    EXPECT_TRUE(seldom.markOld(true).isEmpty());
    clock.advance(1ms);
    EXPECT_EQ(seldom.markOld(true), QVector<int>{2});
}

TEST_F(LineImageTest, KeepsValuesOfUnchangedVariablesThroughANewProject)
{
    image.take(valueOf("Speed", 7, 0));
    image.take(valueOf("Level", 3, 0));
    LineSettings next = settingsOf(R"({"name": "Level", "tag": "LEVEL", "length": 3},
                                      {"name": "New", "tag": "NEW"},
                                      {"name": "Speed", "tag": "SPEED", "deadband": 2})");
    LineImage after(next, clock, wall);
    after.keepValues(image);
    EXPECT_EQ(after.value(0).quality, Quality::Never);
    EXPECT_EQ(after.value(1).quality, Quality::Never);
    EXPECT_EQ(after.value(2).quality, Quality::Good);
    EXPECT_EQ(after.value(2).value, 7);
    // The worker of the new project begins without values.
    EXPECT_EQ(after.take(neverOf("Speed", "")), -1);
    EXPECT_EQ(after.value(2).quality, Quality::Good);
    clock.advance(5001ms);
    EXPECT_EQ(after.markOld(false), QVector<int>{2});
}

TEST_F(LineImageTest, KeepsNoValuesOfAnotherDevice)
{
    image.take(valueOf("Speed", 7, 0));
    LineSettings next = settings;
    next.project.port.device += QStringLiteral("x");
    LineImage after(next, clock, wall);
    after.keepValues(image);
    EXPECT_EQ(after.value(0).quality, Quality::Never);
    EXPECT_EQ(after.ageMs(0), -1);
}

TEST_F(LineImageTest, RefusesWhatIsNoValueOfTheLine)
{
    EXPECT_THROW(image.take(valueOf("Other", 1, 0)), UserError);
    EXPECT_THROW(image.take(Json(5)), UserError);
    Json value = valueOf("Speed", 1, 0);
    value.erase("ageMs");
    EXPECT_THROW(image.take(value), UserError);
    value["ageMs"] = -1;
    EXPECT_THROW(image.take(value), UserError);
    value["ageMs"] = "soon";
    EXPECT_THROW(image.take(value), UserError);
    EXPECT_EQ(image.value(0).quality, Quality::Never);
}

TEST_F(LineImageTest, RefusesAgesThatAreNotThoseOfItsVariables)
{
    EXPECT_THROW(image.takeAges(0, {1, 2, 3, 4}), UserError);
    EXPECT_THROW(image.takeAges(3, {1}), UserError);
    EXPECT_THROW(image.takeAges(-1, {1}), UserError);
    EXPECT_THROW(image.takeAges(0, Json(1)), UserError);
    EXPECT_THROW(image.takeAges(0, {"old"}), UserError);
    EXPECT_NO_THROW(image.takeAges(3, Json::array()));
    EXPECT_NO_THROW(image.takeAges(1, {1, 2}));
}

TEST_F(LineImageTest, TellsTheAgeOfTheOldestValueThatIsReadAgainAndAgain)
{
    image.take(valueOf("Recipe", 1, 90000)); // read once
    EXPECT_FALSE(image.oldestMs());
    image.take(valueOf("Speed", 7, 20));
    image.take(valueOf("Level", 7, 40));
    EXPECT_EQ(image.oldestMs(), 40);
}

// The first message waited for 40 ms while this process stood still: its value was read before it.
TEST_F(LineImageTest, GivesALaterReadingNoEarlierTimeAfterThisProcessStoodStill)
{
    clock.advance(40ms);
    wall.advance(40);
    image.take(valueOf("Speed", 1, 5));
    const qint64 first = *image.value(0).time;
    clock.advance(10ms);
    wall.advance(10);
    image.take(valueOf("Speed", 2, 30));
    EXPECT_EQ(*image.value(0).time, first);
    clock.advance(100ms);
    wall.advance(100);
    image.take(valueOf("Speed", 3, 0));
    EXPECT_EQ(*image.value(0).time, kHalfPastOne + 150);
}

// The news of the first reading waited for 40 ms; its age, which came next, did not wait.
TEST_F(LineImageTest, GivesALaterReadingNoEarlierTimeAfterAgesThatCameFaster)
{
    clock.advance(40ms);
    wall.advance(40);
    image.take(valueOf("Speed", 1, 0));
    const qint64 first = *image.value(0).time;
    EXPECT_EQ(first, kHalfPastOne + 40);
    image.takeAges(0, {20, nullptr, nullptr});
    EXPECT_EQ(*image.value(0).time, first);
    image.take(valueOf("Speed", 2, 10));
    EXPECT_EQ(*image.value(0).time, first);
}

TEST_F(LineImageTest, FollowsAWallClockThatIsSetBack)
{
    image.take(valueOf("Speed", 1, 0));
    clock.advance(10ms);
    wall.advance(10 - 50);
    image.take(valueOf("Speed", 2, 0));
    EXPECT_EQ(*image.value(0).time, kHalfPastOne - 40);
    clock.advance(10ms);
    wall.advance(10 - 50);
    image.takeAges(0, {5, nullptr, nullptr});
    EXPECT_EQ(*image.value(0).time, kHalfPastOne - 85);
}
