#include "PlantTexts.h"
#include "Station.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;
using State = Station::State;

namespace {

const bool kIdentity = false;
const bool kOpen = true;
const bool kWithOthers = false;
const bool kAlone = true;
const Failure kSilence = {Failure::Cause::Silence, "no answer", "check the cable"};
const Failure kRefusal = {Failure::Cause::Refusal, "refused because", ""};

Station enabledStation()
{
    StationSettings settings;
    settings.number = 7;
    settings.name = "filler";
    return Station(settings);
}

Station deadStation(micro850::Duration now)
{
    Station station = enabledStation();
    station.failSetUp(kIdentity, kSilence);
    station.failSetUp(kIdentity, kSilence);
    station.markDead(now);
    return station;
}

} // namespace

TEST(Station, BeginsByConnectingUnlessItIsDisabled)
{
    const Station station = enabledStation();
    EXPECT_EQ(station.number(), 7);
    EXPECT_EQ(station.name(), QString("filler"));
    EXPECT_EQ(station.state(), State::Connecting);
    EXPECT_TRUE(station.inService());
    EXPECT_FALSE(station.alive());
    EXPECT_FALSE(station.lastAnswer());

    StationSettings off;
    off.enabled = false;
    EXPECT_EQ(Station(off).state(), State::Disabled);
    EXPECT_FALSE(Station(off).inService());
}

TEST(Station, IsToBeTakenOutAfterTwoSetUpsWithoutIdentity)
{
    Station station = enabledStation();
    EXPECT_FALSE(station.failSetUp(kIdentity, kSilence));
    EXPECT_TRUE(station.failSetUp(kIdentity, kSilence));
    EXPECT_EQ(station.error(), QString("no answer"));
}

// The driver sends the second request of a set-up four times.
TEST(Station, CountsFourRefusedConnectionRequestsAsOneFailedSetUp)
{
    Station station = enabledStation();
    for (int i = 0; i < 7; ++i)
        EXPECT_FALSE(station.failSetUp(kOpen, kRefusal)) << i;
    EXPECT_TRUE(station.failSetUp(kOpen, kRefusal));
}

TEST(Station, CountsConnectionRequestsFromTheIdentityOn)
{
    Station station = enabledStation();
    for (int i = 0; i < 3; ++i)
        station.failSetUp(kOpen, kRefusal);
    station.noteIdentity();
    for (int i = 0; i < 7; ++i)
        EXPECT_FALSE(station.failSetUp(kOpen, kRefusal)) << i;
    EXPECT_TRUE(station.failSetUp(kOpen, kRefusal));
}

TEST(Station, ForgetsFailedSetUpsWhenItConnects)
{
    Station station = enabledStation();
    station.failSetUp(kIdentity, kSilence);
    station.connect(30s);
    EXPECT_EQ(station.error(), QString());
    EXPECT_TRUE(station.alive());
    EXPECT_FALSE(station.failSetUp(kIdentity, kSilence));
}

TEST(Station, IsProbedAtGrowingIntervalsWhileItIsDead)
{
    Station station = deadStation(10s);
    EXPECT_FALSE(station.inService());
    EXPECT_FALSE(station.isProbeDue(10999ms, kWithOthers));
    EXPECT_TRUE(station.isProbeDue(11s, kWithOthers));

    station.beginProbe();
    EXPECT_TRUE(station.inService());
    EXPECT_TRUE(station.isProbing());
    EXPECT_FALSE(station.isProbeDue(60s, kWithOthers));

    // One failed set-up ends the probe.
    EXPECT_TRUE(station.failSetUp(kIdentity, kSilence));
    station.markDead(20s);
    EXPECT_FALSE(station.isProbing());
    EXPECT_FALSE(station.isProbeDue(21999ms, kWithOthers));
    EXPECT_TRUE(station.isProbeDue(22s, kWithOthers));
}

TEST(Station, IsNotProbedUnlessItIsDead)
{
    EXPECT_FALSE(enabledStation().isProbeDue(60s, kAlone));
}

TEST(Station, ReturnsToServiceWhenAProbeConnects)
{
    Station station = deadStation(10s);
    station.beginProbe();
    station.connect(30s);
    EXPECT_EQ(station.state(), State::Connected);
    EXPECT_FALSE(station.isProbing());
    station.markDead(20s); // the interval is the shortest again
    EXPECT_TRUE(station.isProbeDue(21s, kWithOthers));
}

TEST(Station, CountsEveryConnectionAfterTheFirst)
{
    Station station = enabledStation();
    station.connect(30s);
    EXPECT_EQ(station.counters().reconnects, 0);
    EXPECT_EQ(station.connectedAt(), 30s);
    station.loseConnection();
    EXPECT_EQ(station.state(), State::Connecting);
    station.connect(40s);
    EXPECT_EQ(station.connectedAt(), 40s);
    EXPECT_EQ(station.counters().reconnects, 1);
}

TEST(Station, TriesSevenOtherSerialNumbersUntilItIsConnected)
{
    Station station = enabledStation();
    for (int i = 0; i < 7; ++i)
        EXPECT_TRUE(station.triesOtherSerial()) << i;
    EXPECT_FALSE(station.triesOtherSerial());
    EXPECT_FALSE(station.triesOtherSerial());
    station.connect(30s);
    EXPECT_TRUE(station.triesOtherSerial());
}

TEST(StateText, NamesEveryState)
{
    Station station = enabledStation();
    EXPECT_EQ(stateText(station, true), QString("connecting"));
    station.connect(30s);
    EXPECT_EQ(stateText(station, true), QString("connected"));
    StationSettings off;
    off.enabled = false;
    EXPECT_EQ(stateText(Station(off), true), QString("disabled"));
}

TEST(StateText, TellsAStationThatRefusesFromOneThatIsSilent)
{
    Station station = deadStation(10s);
    EXPECT_EQ(stateText(station, true), QString("dead"));
    EXPECT_EQ(conditionText(viewOf(station, true, "gone")), QString("dead, no answer"));
    station.failSetUp(kOpen, kRefusal);
    EXPECT_EQ(stateText(station, true), QString("refused"));
    EXPECT_EQ(conditionText(viewOf(station, true, "gone")), QString("refused, refused because"));
    station.connect(30s);
    EXPECT_EQ(conditionText(viewOf(station, true, "gone")), QString("connected"));
}

TEST(StateText, SaysLineDownWhateverTheStationWas)
{
    Station station = enabledStation();
    EXPECT_EQ(stateText(station, false), QString("line down"));
    station.connect(30s);
    EXPECT_EQ(stateText(station, false), QString("line down"));
    EXPECT_EQ(conditionText(viewOf(deadStation(10s), false, "gone")), QString("line down"));
    StationSettings off;
    off.enabled = false;
    EXPECT_EQ(stateText(Station(off), false), QString("disabled"));
}

TEST(StationView, HasTheReasonOfTheLineWhileThatIsDown)
{
    Station station = enabledStation();
    station.connect(30s);
    EXPECT_EQ(viewOf(station, false, "gone").problem, QString("gone"));
    EXPECT_FALSE(viewOf(station, false, "gone").isConnected);
    EXPECT_EQ(viewOf(station, true, "gone").problem, QString());
    EXPECT_TRUE(viewOf(station, true, "gone").isConnected);
    EXPECT_EQ(viewOf(deadStation(10s), true, "gone").problem, QString("no answer"));
    StationSettings off;
    off.enabled = false;
    EXPECT_EQ(viewOf(Station(off), false, "gone").problem, QString());
}

TEST(Station, IsProbedAlmostAtOnceWhenNoOtherStationWaitsMeanwhile)
{
    Station station = deadStation(10s);
    EXPECT_FALSE(station.isProbeDue(10s, kAlone)) << "the host needs a moment for other tasks";
    EXPECT_TRUE(station.isProbeDue(10s + 50ms, kAlone));
    EXPECT_FALSE(station.isProbeDue(10s + 50ms, kWithOthers));
    for (int i = 0; i < 10; ++i) {
        station.beginProbe();
        station.markDead(20s);
    }
    EXPECT_TRUE(station.isProbeDue(20s + 50ms, kAlone)) << "its pauses do not grow";
}

// It may have no connection free, and every request keeps it from its other tasks.
TEST(Station, ThatRefusesIsProbedAtGrowingIntervalsAlsoAlone)
{
    Station station = enabledStation();
    station.failSetUp(kIdentity, kRefusal);
    station.failSetUp(kIdentity, kRefusal);
    station.markDead(10s);
    EXPECT_FALSE(station.isProbeDue(10s + 999ms, kAlone));
    EXPECT_TRUE(station.isProbeDue(11s, kAlone));
}

TEST(Station, IsProbedSoonWhenAnotherAnswersAgain)
{
    Station station = deadStation(10s);
    EXPECT_FALSE(station.isProbeDue(10s + 1ms, kWithOthers));
    station.probeSoon(10s + 1ms);
    EXPECT_TRUE(station.isProbeDue(10s + 1ms, kWithOthers));
}
