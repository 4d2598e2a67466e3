// How the poll loop does when a controller refuses a connection, or answers what nobody can use.

#include "fixed_time_of_day.h"
#include "poll_fixture.h"
#include "serial_numbers.h"

using namespace micro850::host;
using namespace std::chrono_literals;
using wire::hex;

namespace {

const int kNoon = 12 * 3600;

// The driver draws the serial number of a connection by the time of day, which goes with the
// virtual clock here and begins at 400 ms after noon.
class SetUpTest : public PollTest
{
protected:
    // Polls nothing.
    void start()
    {
        project.port.timeoutMs = 200;
        project.port.retryLimit = 2;
        project.stations.append(StationSettings());
        loop = std::make_unique<PollLoop>(library.api(), line, clock, project);
    }
    void goOn()
    {
        m_timeOfDay.set(QTime(12, 0).addMSecs(400 + static_cast<int>(clock.now() / 1ms)));
    }
    template<typename Condition> bool runUntil(Condition condition)
    {
        return PollTest::runUntil([&] {
            goOn();
            return condition();
        });
    }
    // The connection that the driver opens in a second of the day.
    static QByteArray keyAt(int second)
    {
        return hex("02 00 34 12") + wire::little(serial_numbers::at(second), 3) + hex("02");
    }
    Operation read()
    {
        const int id = loop->read({1, "Speed"}, 0, 1);
        EXPECT_TRUE(runUntil([&] { return loop->outcome(id); }));
        return loop->outcome(id) ? *loop->outcome(id) : Operation();
    }
    void answerOpensWith(const char* cip)
    {
        plc.onReply = [cip](const FakeController::Request& request, QByteArray& reply) {
            if (request.service == 0x54)
                reply = wire::framed(wire::unframed(reply).left(8) + hex(cip));
        };
    }

private:
    FixedTimeOfDay m_timeOfDay{QTime(12, 0, 0, 400)};
};

} // namespace

TEST_F(SetUpTest, OpensTheConnectionOfTheSecondWhenItIsFree)
{
    start();
    EXPECT_EQ(read().state, Operation::State::Done);
    EXPECT_EQ(plc.open(), QList<QByteArray>{keyAt(kNoon)});
    EXPECT_LT(clock.now(), 100ms);
}

TEST_F(SetUpTest, WaitsForTheNextSecondWhenAnotherHostHasTheConnectionOfThisOne)
{
    plc.refusesOpenAgain = true;
    plc.openOther(keyAt(kNoon));
    start();
    EXPECT_EQ(read().state, Operation::State::Done);
    EXPECT_EQ(plc.opened, (std::vector<QByteArray>{keyAt(kNoon), keyAt(kNoon + 1)}));
    EXPECT_GE(clock.now(), 600ms);
    EXPECT_LT(clock.now(), 800ms);
}

TEST_F(SetUpTest, ConnectsTheLastOfEightHostsThatStartInTheSameSecond)
{
    plc.refusesOpenAgain = true;
    for (int i = 0; i < 7; ++i)
        plc.openOther(keyAt(kNoon + i));
    start();
    EXPECT_EQ(read().state, Operation::State::Done);
    EXPECT_EQ(plc.opened.back(), keyAt(kNoon + 7));
    EXPECT_LT(clock.now(), 8s);
}

TEST_F(SetUpTest, GivesUpAfterEightSerialNumbersAndReportsTheReason)
{
    answerOpensWith("D4 00 01 01 00 01");
    start();
    const Operation refused = read();
    EXPECT_EQ(refused.state, Operation::State::Failed);
    EXPECT_EQ(refused.failure.cause, Failure::Cause::Refusal);
    EXPECT_EQ(refused.error,
              QString("the controller refuses the connection: connection in use, status 01/0100"));
    EXPECT_EQ(plc.count(0x54), 8);
    EXPECT_LT(clock.now(), 8s);
}

TEST_F(SetUpTest, AcknowledgesTheRefusalBeforeItWaits)
{
    plc.refusesOpenAgain = true;
    plc.openOther(keyAt(kNoon));
    PollTest::start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntil([&] { return plc.opened.size() == 1; }));
    loop->step();
    EXPECT_EQ(wire::text(line.sent.back()), "10 06");
    EXPECT_LT(clock.now(), 100ms) << "a step waits some milliseconds only";
    EXPECT_EQ(station().state(), Station::State::Connecting);
    EXPECT_NE(station().error(), QString());
}

TEST_F(SetUpTest, DoesNotWaitWhenTheControllerIsOutOfConnections)
{
    plc.connectionLimit = 0;
    start();
    const Operation refused = read();
    EXPECT_EQ(refused.error, QString("the controller refuses the connection: out of connections, "
                                     "status 01/0113"));
    EXPECT_TRUE(refused.failure.remedy.contains("32 seconds"));
    EXPECT_LT(clock.now(), 500ms);
}

TEST_F(SetUpTest, ReportsARefusalByTheLinkLayer)
{
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.service == 0x54)
            reply = wire::framed(hex("01 00 4B 10") + wire::little(request.tns, 2) + hex("00 00"));
    };
    start();
    EXPECT_EQ(read().error, QString("the controller refuses the connection: refused by the link "
                                    "layer, status 10"));
}

// Without an identifier every request would go to a connection that nobody opened.
TEST_F(SetUpTest, UsesNoConnectionWithoutAnIdentifier)
{
    answerOpensWith("D4 00 00 00");
    start();
    const Operation unusable = read();
    EXPECT_EQ(unusable.failure.cause, Failure::Cause::Garbage);
    EXPECT_EQ(unusable.error,
              QString("the controller answers, but the driver cannot use its answer"));
    EXPECT_EQ(plc.count(0x52), 0);
}

TEST_F(SetUpTest, ReportsSilence)
{
    plc.silent = true;
    start();
    const Operation silent = read();
    EXPECT_EQ(silent.failure.cause, Failure::Cause::Silence);
    EXPECT_EQ(silent.error, QString("no answer"));
}

TEST_F(SetUpTest, TellsGarbageFromSilence)
{
    plc.onReply = [](const FakeController::Request&, QByteArray& reply) { reply = hex("55 AA"); };
    start();
    const Operation garbled = read();
    EXPECT_EQ(garbled.failure.cause, Failure::Cause::Garbage);
    EXPECT_EQ(garbled.error, QString("bytes came, but no intact reply"));
}

// Each reply comes while the next request waits for its own.
TEST_F(SetUpTest, TellsLateRepliesFromSilence)
{
    QByteArray held;
    plc.onReply = [&held](const FakeController::Request&, QByteArray& reply) { held.swap(reply); };
    start();
    const Operation late = read();
    EXPECT_EQ(late.error, QString("replies come later than the time-out"));
    EXPECT_TRUE(late.failure.remedy.contains("--timeout"));
}

TEST_F(SetUpTest, NamesTheServerWhereThatSetsTheSpeed)
{
    plc.silent = true;
    project.port.device = "tcp://127.0.0.1:2000";
    start();
    EXPECT_EQ(read().failure.remedy, QString("check cable and the speed set at the server"));
}

// A controller that answers every request with "connection not found", each time it is connected.
TEST_F(SetUpTest, ReportsAConnectionThatTheControllerGivesUpAgainAndAgain)
{
    plc.onReply = [this](const FakeController::Request& request, QByteArray&) {
        if (request.service == 0x54)
            plc.forgetConnections();
    };
    start();
    const Operation lost = read();
    EXPECT_EQ(lost.failure.cause, Failure::Cause::Refusal);
    EXPECT_EQ(lost.error, QString("the controller gives up the connection again and again: "
                                  "connection not found, status 01/0107"));
}
