#include "AttachedPlant.h"

#include "Session.h"
#include "poll_fixture.h"

using namespace micro850;
using namespace micro850::host;
using wire::hex;

namespace {

/// A loop without variables of its own, and plants on it.
class AttachedPlantTest : public PollTest
{
protected:
    AttachedPlantTest()
    {
        project.port.timeoutMs = 200;
        project.stations.append(StationSettings());
        loop = std::make_unique<PollLoop>(library.api(), line, clock, project);
    }
    static Project variables(const char* list, const char* stations = R"([{"number": 1}])")
    {
        const QString text = QStringLiteral(R"({"stations": %1, "variables": [%2]})");
        return Project::fromText(text.arg(stations, list), "p.json");
    }
    template<typename Condition> bool stepUntil(AttachedPlant& plant, Condition condition)
    {
        const Duration end = clock.now() + std::chrono::seconds(60);
        while (!condition() && clock.now() < end)
            plant.step();
        return condition();
    }
    void stepFor(AttachedPlant& plant, qint64 ms)
    {
        const Duration end = clock.now() + std::chrono::milliseconds(ms);
        while (clock.now() < end)
            plant.step();
    }
    bool stepUntilRead(AttachedPlant& plant)
    {
        return stepUntil(plant, [&] {
            for (int i = 0; i < plant.values().size(); ++i) {
                if (!plant.values().wasRead(i))
                    return false;
            }
            return true;
        });
    }
};

} // namespace

TEST_F(AttachedPlantTest, ReadsItsVariablesAgainAndAgain)
{
    const Project own = variables(R"({"tag": "Speed", "intervalMs": 100},
                                     {"tag": "Level", "element": 3, "length": 2, "gain": 0.5})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    EXPECT_EQ(plant.values().text(0).toStdString(), "1234");
    EXPECT_EQ(plant.values().text(1).toStdString(), "[51.5, 52]");
    EXPECT_EQ(plant.quality(0), Quality::Good);
    plc.tags["Speed"].elements[0] = hex("07 00");
    stepFor(plant, 300);
    EXPECT_EQ(plant.values().text(0).toStdString(), "7");
}

TEST_F(AttachedPlantTest, ReadsAVariableAtItsInterval)
{
    const Project own = variables(R"({"tag": "Speed", "intervalMs": 1000})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    const qint64 before = station().counters().sent;
    stepFor(plant, 10000);
    EXPECT_NEAR(static_cast<double>(station().counters().sent - before), 10, 1);
}

TEST_F(AttachedPlantTest, ReadsAVariableOnceUntilAnotherConnection)
{
    const Project own = variables(R"({"tag": "Speed", "poll": "once"})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    const qint64 before = station().counters().sent;
    stepFor(plant, 5000);
    EXPECT_EQ(station().counters().sent, before);
    EXPECT_EQ(plant.quality(0), Quality::Good);
}

TEST_F(AttachedPlantTest, SharesTheConnectionWithOthersAndWithSingleReads)
{
    const Project one = variables(R"({"tag": "Speed", "intervalMs": 100})");
    const Project other = variables(R"({"tag": "Level"})");
    AttachedPlant first(*loop, one, clock);
    AttachedPlant second(*loop, other, clock);
    const auto step = [&] {
        first.ask();
        second.ask();
        loop->step();
        first.collect();
        second.collect();
    };
    for (int i = 0; i < 200; ++i)
        step();
    EXPECT_TRUE(first.values().wasRead(0));
    EXPECT_TRUE(second.values().wasRead(0));
    Session session(*loop, project);
    EXPECT_EQ(wire::text(session.read({1, "Level"}, 2, 1).first()), "66 00");
    for (int i = 0; i < 10; ++i)
        step();
    EXPECT_EQ(plc.opened.size(), 1U);
}

TEST_F(AttachedPlantTest, EndsWithoutItsLoop)
{
    const Project own = variables(R"({"tag": "Speed"})");
    {
        AttachedPlant plant(*loop, own, clock);
        ASSERT_TRUE(stepUntilRead(plant));
        plant.ask();
    }
    Session session(*loop, project);
    EXPECT_EQ(wire::text(session.read({1, "Speed"}, 0, 1).first()), "D2 04");
    EXPECT_EQ(plc.opened.size(), 1U);
}

TEST_F(AttachedPlantTest, ReportsWhatTheControllerRefusesAndReadsTheRest)
{
    const Project own = variables(R"({"tag": "Nope"}, {"tag": "Level", "length": 4},
                                     {"name": "Beyond", "tag": "Level", "element": 4, "length": 9},
                                     {"tag": "Speed", "type": "DINT"})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntil(plant, [&] {
        return plant.values().wasRead(1) && !plant.values().error(0).isEmpty() &&
               !plant.values().error(2).isEmpty() && !plant.values().error(3).isEmpty();
    }));
    EXPECT_EQ(plant.values().error(0).toStdString(),
              "no such tag (names are as in the controller's program; status 05)");
    EXPECT_EQ(plant.values().error(2).toStdString(),
              "access beyond the end of the tag (status FF/2105)");
    EXPECT_EQ(plant.values().error(3).toStdString(),
              "is INT in the controller, DINT in the project");
    plc.tags["Nope"] = {0x00C3, {hex("05 00")}};
    stepFor(plant, 12000);
    EXPECT_EQ(plant.values().text(0).toStdString(), "5");
    EXPECT_EQ(plant.values().error(0).toStdString(), "");
    EXPECT_EQ(plant.quality(1), Quality::Good);
}

TEST_F(AttachedPlantTest, ShowsStaleValuesWhileTheControllerIsSilentAndFreshOnesAfterwards)
{
    const Project own = variables(R"({"tag": "Speed", "intervalMs": 200})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    plc.silent = true;
    ASSERT_TRUE(stepUntil(plant, [&] { return plant.quality(0) == Quality::Stale; }));
    plc.silent = false;
    plc.tags["Speed"].elements[0] = hex("08 00");
    ASSERT_TRUE(stepUntil(plant, [&] { return plant.quality(0) == Quality::Good; }));
    EXPECT_EQ(plant.values().text(0).toStdString(), "8");
}

TEST_F(AttachedPlantTest, ServesAStationThatTheLoopDidNotKnowAndNoneThatIsDisabled)
{
    const Project own =
        variables(R"({"tag": "Speed", "station": 7}, {"tag": "Level", "station": 8})",
                  R"([{"number": 7}, {"number": 8, "enabled": false}])");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntil(plant, [&] { return plant.values().wasRead(0); }));
    EXPECT_EQ(plant.values().error(1).toStdString(), "station 8 is disabled in the project");
}

TEST_F(AttachedPlantTest, TellsWhenTheLoopNeedsItsNextStep)
{
    const Project own = variables(R"({"tag": "Speed", "intervalMs": 5000})");
    AttachedPlant plant(*loop, own, clock);
    EXPECT_EQ(plant.wakeAt(), Duration(0));
    ASSERT_TRUE(stepUntilRead(plant));
    const Duration before = clock.now();
    while (plant.wakeAt() == Duration(0))
        plant.ask();
    EXPECT_GT(plant.wakeAt(), before + std::chrono::seconds(3));
}

TEST_F(AttachedPlantTest, NeedsItsNextStepAtOnceWhileItReadsAsOftenAsTheLineAllows)
{
    const Project own = variables(R"({"tag": "Speed"})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(plant.wakeAt(), Duration(0));
        plant.step();
    }
}

TEST_F(AttachedPlantTest, NeedsItsNextStepAtOnceWhileARequestIsUnderWay)
{
    const Project own = variables(R"({"tag": "Speed", "intervalMs": 5000})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    ASSERT_TRUE(stepUntil(plant, [&] { return plant.wakeAt() > clock.now(); }));
    clock.advance(std::chrono::seconds(5));
    plant.ask();
    EXPECT_EQ(plant.wakeAt(), Duration(0));
    loop->step();
    plant.collect();
    plant.ask();
    EXPECT_GT(plant.wakeAt(), clock.now());
}

TEST_F(AttachedPlantTest, NeedsNoStepBeforeItMayAskAgainForATypeThatWasRefused)
{
    const Project own = variables(R"({"tag": "Nope", "intervalMs": 5000})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntil(plant, [&] { return !plant.values().error(0).isEmpty(); }));
    const Duration refused = clock.now();
    plant.ask();
    EXPECT_EQ(plant.wakeAt(), refused + std::chrono::seconds(10));
}

TEST_F(AttachedPlantTest, AsksForATypeAgainAfterASecondWithoutAnAnswer)
{
    const Project own = variables(R"({"tag": "Speed"})");
    plc.silent = true;
    AttachedPlant plant(*loop, own, clock);
    stepFor(plant, 3000);
    EXPECT_EQ(plant.values().error(0).toStdString(), "") << "silence refuses no variable";
    plc.silent = false;
    ASSERT_TRUE(stepUntilRead(plant));
}

// Its values cannot be shown, whatever the controller says later.
TEST_F(AttachedPlantTest, AsksOnceForATypeThatItCannotShow)
{
    plc.tags["Recipe"] = {0x02A0, {hex("01 02")}};
    const Project own = variables(R"({"tag": "Recipe"})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntil(plant, [&] { return !plant.values().error(0).isEmpty(); }));
    EXPECT_EQ(plant.values().error(0).toStdString(), "type 02a0 is not an elementary type");
    const int before = plc.count(0x52, "Recipe");
    stepFor(plant, 30000);
    EXPECT_EQ(plc.count(0x52, "Recipe"), before);
    EXPECT_EQ(plant.wakeAt(), Duration::max());
}

TEST_F(AttachedPlantTest, ReadsNeighboursAloneWhenOneReachesBeyondTheTag)
{
    const Project own =
        variables(R"({"name": "last", "tag": "Level", "element": 9, "intervalMs": 200},
                     {"name": "beyond", "tag": "Level", "element": 10, "intervalMs": 200})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntil(
        plant, [&] { return plant.values().wasRead(0) && !plant.values().error(1).isEmpty(); }));
    EXPECT_EQ(plant.values().text(0).toStdString(), "109");
    EXPECT_EQ(plant.values().error(0).toStdString(), "");
    EXPECT_EQ(plant.values().error(1).toStdString(),
              "access beyond the end of the tag (status FF/2105)");
}

TEST_F(AttachedPlantTest, ReadsTheOthersNowAndThenWhenIntervalsAskForTheWholeLine)
{
    const Project own = variables(
        R"({"tag": "Speed"}, {"name": "a", "tag": "Level", "element": 0, "intervalMs": 1},
           {"name": "b", "tag": "Level", "element": 4, "intervalMs": 1},
           {"name": "c", "tag": "Level", "element": 8, "intervalMs": 1})");
    AttachedPlant plant(*loop, own, clock);
    ASSERT_TRUE(stepUntilRead(plant));
    stepFor(plant, 1000);
    const int others = plc.count(0x52, "Speed");
    const int timed = plc.count(0x52, "Level");
    stepFor(plant, 1000);
    const int othersThen = plc.count(0x52, "Speed") - others;
    const int timedThen = plc.count(0x52, "Level") - timed;
    EXPECT_GE(6 * othersThen + 6, timedThen + othersThen) << "one after five with an interval";
    EXPECT_GT(timedThen, 3 * othersThen);
}
