// How the poll loop does when a station, a connection or the device is gone.

#include "poll_fixture.h"

#include <set>

using namespace micro850::host;
using namespace std::chrono_literals;
using State = Operation::State;
using wire::hex;

namespace {

const TagKey kSpeed = {1, "Speed"};

class PollLoopRecoveryTest : public PollTest
{
protected:
    // Steps until the variable is good again. False when it was good with another text than this.
    bool isGoodOnlyAs(const char* expected, int variable = 0)
    {
        const bool good = runUntil([&] { return loop->quality(variable) == Quality::Good; }, 10000);
        EXPECT_EQ(text(variable), expected);
        return good && text(variable) == expected;
    }
    // Polls two stations, of which the second one dies. The one controller in memory answers for
    // both; which station is meant shows in the tag.
    bool runUntilTheSecondStationIsDead()
    {
        plc.tags["Far"] = {0x00C3, {hex("63 00")}};
        start(R"({"tag": "Speed"}, {"tag": "Far", "station": 2})",
              R"([{"number": 1}, {"number": 2}])");
        EXPECT_TRUE(runUntilRead());
        plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
            // Its data requests and, with station 1 connected, every set-up are station 2's.
            if (request.tag == "Far" || request.service == 0x01)
                reply.clear();
        };
        return runUntil([&] { return station(2).state() == Station::State::Dead; });
    }
};

} // namespace

TEST_F(PollLoopRecoveryTest, GivesUpARequestAfterThreeTimeOutsWithARetryLimitOfTwo)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    plc.requests.clear();
    const micro850::Duration start = clock.now();
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Connecting; }));
    EXPECT_EQ(station().counters().timedOut, 3);
    EXPECT_EQ(clock.now() - start, 3 * 200ms) << "the time-out of the project";
    ASSERT_GE(plc.requests.size(), 3u);
    std::set<quint16> numbers;
    for (const FakeController::Request& request : plc.requests) {
        EXPECT_EQ(request.service, 0x52);
        EXPECT_EQ(request.tag, "Speed");
        numbers.insert(request.tns);
    }
    EXPECT_EQ(numbers.size(), plc.requests.size()) << "none is taken for a repetition";
}

// A peer that detects repetitions would not carry out a read, and must not carry out a write,
// twice.
TEST_F(PollLoopRecoveryTest, KeepsTheNumberOfAWriteThatTheDriverRepeats)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    loop->write(kSpeed, 0, hex("07 00"));
    plc.requests.clear();
    line.sent.clear();
    ASSERT_TRUE(runUntil([&] { return station().counters().timedOut == 3; }));
    std::set<quint16> numbers;
    for (const FakeController::Request& request : plc.requests) {
        if (request.service == 0x53)
            numbers.insert(request.tns);
    }
    EXPECT_EQ(numbers.size(), 1u);
    const auto isWrite = [](const QByteArray& piece) { return piece.contains(hex("53 04 91")); };
    std::vector<std::string> heads;
    for (const QByteArray& piece : line.sent) {
        if (isWrite(piece))
            heads.push_back(wire::text(piece.left(2)));
    }
    EXPECT_EQ(heads, (std::vector<std::string>{"10 06", "10 02", "10 02"}))
        << "an acknowledgement would make the peer forget the reply";
}

TEST_F(PollLoopRecoveryTest, AcceptsAReplyToARepeatedRequest)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().counters().timedOut == 1; }));
    plc.silent = false;
    plc.tags["Speed"].elements[0] = hex("07 00");
    ASSERT_TRUE(runUntil([&] { return text(0) == "7"; }, 100)) << "without another time-out";
    EXPECT_EQ(plc.count(0x54), 1) << "the connection was given up";
}

TEST_F(PollLoopRecoveryTest, ShowsTheLastValueAsStaleUntilTheStationAnswersAgain)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Dead; }));
    EXPECT_EQ(loop->quality(0), Quality::Stale);
    EXPECT_EQ(text(0), "1234");
    plc.silent = false;
    plc.tags["Speed"].elements[0] = hex("07 00");
    ASSERT_TRUE(runUntil([&] { return text(0) == "7"; }, 6000));
    EXPECT_EQ(loop->quality(0), Quality::Good);
    EXPECT_EQ(station().counters().reconnects, 1);
}

TEST_F(PollLoopRecoveryTest, ProbesADeadStationAtGrowingIntervalsWhileAnotherAnswers)
{
    ASSERT_TRUE(runUntilTheSecondStationIsDead());
    std::vector<micro850::Duration> probes;
    qint64 seen = station(2).counters().timedOut;
    ASSERT_TRUE(runUntil([&] {
        if (station(2).counters().timedOut > seen)
            probes.push_back(clock.now());
        seen = station(2).counters().timedOut;
        return probes.size() == 5;
    }));
    EXPECT_LT(probes.at(1) - probes.at(0), probes.at(2) - probes.at(1));
    EXPECT_LE(probes.at(4) - probes.at(3), 6s);
}

TEST_F(PollLoopRecoveryTest, ReadsASilentStationSoonAfterItAnswersWhenItIsAloneOnTheLine)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    for (const int silentMs : {1000, 7000, 20000, 20050, 20123, 60000}) {
        plc.silent = true;
        runFor(silentMs);
        plc.silent = false;
        plc.tags["Speed"].elements[0] = wire::little(static_cast<quint64>(silentMs % 30000), 2);
        const micro850::Duration back = clock.now();
        ASSERT_TRUE(runUntil([&] { return loop->quality(0) == Quality::Good; }));
        EXPECT_EQ(text(0), std::to_string(silentMs % 30000));
        EXPECT_LT(clock.now() - back, 500ms) << silentMs;
    }
}

TEST_F(PollLoopRecoveryTest, ReadsAStationThatWasDeadAtTheStartOnceItAnswers)
{
    plc.silent = true;
    start(R"({"tag": "Speed", "poll": "once"})");
    runFor(20000);
    plc.silent = false;
    EXPECT_TRUE(runUntilRead());
    EXPECT_EQ(text(0), "1234");
}

TEST_F(PollLoopRecoveryTest, ConnectsAgainWhenTheControllerForgotTheConnection)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.forgetConnections();
    plc.tags["Speed"].elements[0] = hex("07 00");
    ASSERT_TRUE(runUntil([&] { return text(0) == "7"; }, 100)); // without waiting for any time-out
    EXPECT_EQ(plc.count(0x54), 2);
    EXPECT_EQ(station().counters().timedOut, 0);
}

TEST_F(PollLoopRecoveryTest, RepeatsAnOperationAfterTheControllerForgotTheConnection)
{
    start(R"({"tag": "Speed", "poll": "once"})");
    ASSERT_TRUE(runUntilRead());
    plc.forgetConnections();
    EXPECT_EQ(finish(loop->write(kSpeed, 0, hex("07 00"))).state, State::Done);
    EXPECT_EQ(wire::text(plc.tags["Speed"].elements[0]), "07 00");
    plc.forgetConnections();
    EXPECT_EQ(finish(loop->read(kSpeed, 0, 1)).state, State::Done);
}

// Between the new connection and the first reply the host knows only the old value.
TEST_F(PollLoopRecoveryTest, ShowsNoValueFromBeforeTheConnectionAsGood)
{
    start(R"({"tag": "Speed"}, {"tag": "Level", "length": 10})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Connecting; }));
    plc.silent = false;
    plc.tags["Speed"].elements[0] = hex("01 00");
    EXPECT_TRUE(isGoodOnlyAs("1"));
    plc.forgetConnections();
    plc.tags["Speed"].elements[0] = hex("02 00");
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Connecting; }));
    EXPECT_TRUE(isGoodOnlyAs("2"));
}

TEST_F(PollLoopRecoveryTest, ShowsNoValueFromBeforeTheLineWasReopenedAsGood)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    line.setPresent(false);
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    plc.tags["Speed"].elements[0] = hex("01 00");
    line.setPresent(true);
    EXPECT_TRUE(isGoodOnlyAs("1"));
    EXPECT_EQ(plc.count(0x54), 1) << "the connection was given up";
}

TEST_F(PollLoopRecoveryTest, ShowsNoValueFromBeforeTheControllerRestartedWithItsLineAsGood)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    line.setPresent(false);
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    plc.forgetConnections();
    plc.tags["Speed"].elements[0] = hex("01 00");
    line.setPresent(true);
    EXPECT_TRUE(isGoodOnlyAs("1"));
    EXPECT_EQ(plc.count(0x54), 2);
}

TEST_F(PollLoopRecoveryTest, ReadsOnceAgainAfterEachNewConnection)
{
    start(R"({"tag": "Speed"}, {"tag": "Level", "poll": "once"})");
    ASSERT_TRUE(runUntilRead());
    runFor(1000);
    plc.forgetConnections();
    plc.tags["Level"].elements[0] = hex("01 00");
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Connecting; }));
    EXPECT_TRUE(isGoodOnlyAs("1", 1));
    const int reads = plc.count(0x52, "Level");
    runFor(5000);
    EXPECT_EQ(plc.count(0x52, "Level"), reads);
}

TEST_F(PollLoopRecoveryTest, ReadsOnceAgainAfterTheLineWasReopened)
{
    start(R"({"tag": "Speed"}, {"tag": "Level", "poll": "once"})");
    ASSERT_TRUE(runUntilRead());
    runFor(1000);
    line.setPresent(false);
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    plc.tags["Level"].elements[0] = hex("01 00");
    line.setPresent(true);
    EXPECT_TRUE(isGoodOnlyAs("1", 1));
    const int reads = plc.count(0x52, "Level");
    runFor(5000);
    EXPECT_EQ(plc.count(0x52, "Level"), reads);
    EXPECT_EQ(plc.count(0x54), 1) << "the connection was given up";
}

TEST_F(PollLoopRecoveryTest, QueuesReadsOnlyOnceHoweverOftenTheConnectionIsLost)
{
    plc.tags["Recipe"] = {0x00C4, QVector<QByteArray>(1000, hex("07 00 00 00"))};
    start(R"({"tag": "Speed"}, {"tag": "Recipe", "length": 1000, "poll": "once"})");
    ASSERT_TRUE(runUntilRead());
    runFor(1000);
    const int runs = plc.count(0x52, "Recipe");
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.tag == "Recipe")
            reply.clear();
    };
    for (int i = 0; i < 10; ++i) {
        plc.forgetConnections();
        ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Connecting; }));
        ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Connected; }));
    }
    plc.onReply = nullptr;
    const int before = plc.count(0x52, "Recipe");
    ASSERT_TRUE(runUntil([&] { return loop->quality(1) == Quality::Good; }));
    runFor(5000);
    EXPECT_LE(plc.count(0x52, "Recipe") - before, runs + 1);
}

TEST_F(PollLoopRecoveryTest, ReadsNothingWhenTheConnectionIsRefused)
{
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.service == 0x54) {
            const QByteArray head = wire::unframed(reply).left(8);
            reply = wire::framed(head + hex("D4 00 01 01 13 01"));
        }
    };
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Dead; }));
    EXPECT_EQ(station().error(),
              QString("the controller refuses the connection: out of connections, status 01/0113"));
    EXPECT_EQ(stateText(station(), true), QString("refused"));
    EXPECT_EQ(plc.count(0x52), 0);
}

TEST_F(PollLoopRecoveryTest, NeverShowsALateReplyUnderAnotherTag)
{
    plc.tags["Other"] = {0x00C3, {hex("63 00")}};
    start(R"({"tag": "Speed"}, {"tag": "Other"})");
    ASSERT_TRUE(runUntilRead());
    // From now on each reply comes together with the one before it.
    QByteArray previous;
    plc.onReply = [&](const FakeController::Request&, QByteArray& reply) {
        const QByteArray now = reply;
        reply = previous + reply;
        previous = now;
    };
    for (int i = 0; i < 200; ++i) {
        loop->step();
        ASSERT_EQ(text(0), "1234");
        ASSERT_EQ(text(1), "99");
    }
    EXPECT_GT(station().counters().late, 100);
}

TEST_F(PollLoopRecoveryTest, ReadsTheOtherStationWhileOneIsDead)
{
    ASSERT_TRUE(runUntilTheSecondStationIsDead());
    EXPECT_EQ(loop->quality(1), Quality::Stale);
    const int before = plc.count(0x52, "Speed");
    runFor(10000);
    EXPECT_GT(plc.count(0x52, "Speed") - before, 500);
    EXPECT_EQ(loop->quality(0), Quality::Good);
    plc.onReply = nullptr;
    ASSERT_TRUE(runUntil([&] { return loop->quality(1) == Quality::Good; }));
}

TEST_F(PollLoopRecoveryTest, SendsNothingToADisabledStation)
{
    start(R"({"tag": "Speed", "station": 2}, {"tag": "Level"})",
          R"([{"number": 1}, {"number": 2, "enabled": false}])");
    runFor(5000);
    EXPECT_EQ(plc.count(0x52, "Speed"), 0);
    EXPECT_TRUE(loop->values().wasRead(1));
    EXPECT_EQ(station(2).state(), Station::State::Disabled);
    EXPECT_EQ(error(0), "station 2 is disabled in the project");
    EXPECT_EQ(loop->quality(0), Quality::Never);
    EXPECT_EQ(error(1), "");
}

TEST_F(PollLoopRecoveryTest, TriesToOpenAMissingDeviceAtGrowingIntervalsAndResumes)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    line.setPresent(false);
    line.openedAt.clear();
    ASSERT_TRUE(runUntil([&] { return line.openedAt.size() == 8; }));
    EXPECT_FALSE(loop->lineIsUp());
    EXPECT_EQ(loop->quality(0), Quality::Stale);
    for (size_t i = 2; i < line.openedAt.size(); ++i) {
        const micro850::Duration pause = line.openedAt[i] - line.openedAt[i - 1];
        EXPECT_GE(pause, line.openedAt[i - 1] - line.openedAt[i - 2]);
        EXPECT_LE(pause, 5100ms);
    }
    line.setPresent(true);
    plc.tags["Speed"].elements[0] = hex("07 00");
    ASSERT_TRUE(runUntil([&] { return text(0) == "7"; }, 6000));
    EXPECT_EQ(loop->lineReconnects(), 1);
}

TEST_F(PollLoopRecoveryTest, LetsTheIntervalsGrowForADeviceThatOpensAndFailsAtOnce)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    line.setLoose(true);
    line.openedAt.clear();
    ASSERT_TRUE(runUntil([&] { return line.openedAt.size() == 8; }));
    EXPECT_GE(line.openedAt[1] - line.openedAt[0], 500ms);
    EXPECT_GE(line.openedAt[7] - line.openedAt[6], 5000ms);
    EXPECT_LE(line.openedAt[7] - line.openedAt[6], 5100ms);
    line.setLoose(false);
    ASSERT_TRUE(runUntil([&] { return loop->quality(0) == Quality::Good; }, 6000));
    line.setPresent(false);
    line.openedAt.clear();
    ASSERT_TRUE(runUntil([&] { return line.openedAt.size() == 2; }));
    EXPECT_LE(line.openedAt[1] - line.openedAt[0], 600ms)
        << "after an answer the pauses start again with the shortest one";
}

TEST_F(PollLoopRecoveryTest, KeepsThePortOpenForASilentPeer)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    runFor(30000);
    EXPECT_TRUE(loop->lineIsUp());
    EXPECT_EQ(line.openedAt.size(), 1u);
}

TEST_F(PollLoopRecoveryTest, AcknowledgesTheLastReplyWhenThereIsNothingToDo)
{
    start(R"({"tag": "Speed", "poll": "once"})");
    ASSERT_TRUE(runUntilRead());
    runFor(100);
    EXPECT_EQ(wire::text(line.sent.back()), "10 06");
    const size_t sent = line.sent.size();
    runFor(1000);
    EXPECT_EQ(line.sent.size(), sent);
}

TEST_F(PollLoopRecoveryTest, PollsOverANetworkOf600MillisecondsEachWayWithoutATimeOut)
{
    project = Project::fromText(R"({"port": {"baud": 115200}, "stations": [{"number": 1}],
                                    "variables": [{"tag": "Speed"}]})",
                                "p.json");
    line.delay = 1200ms;
    loop = std::make_unique<PollLoop>(library.api(), line, clock, project);
    runFor(60000);
    EXPECT_EQ(text(0), "1234");
    EXPECT_GE(station().counters().answered, 45);
    EXPECT_EQ(station().counters().timedOut, 0);
    EXPECT_EQ(station().counters().retries, 0);
}
