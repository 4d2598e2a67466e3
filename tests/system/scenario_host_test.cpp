// The reference host on a line with faults, on virtual time.

#include "paced_simulated_line.h"
#include "simulated_host.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using micro850::host::Operation;
using micro850::host::Quality;
using micro850::host::Station;

class HostScenario : public ::testing::Test, protected SimulatedHost
{
protected:
    HostScenario()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 111},
                 {"name": "B", "type": "INT", "value": 222},
                 {"name": "C", "type": "DINT", "value": 333},
                 {"name": "W", "type": "INT", "value": 444})");
    }

    void defineTags(const std::string& tags)
    {
        controller.download(
            micro850::sim::TagTable::fromText("{\"tags\": [" + tags + "]}", "tags"));
    }
    void faults(const std::string& rules)
    {
        for (const auto& fault :
             micro850::sim::faultsFromText("{\"faults\": [" + rules + "]}", "faults"))
            line.add(fault);
    }
    void start(const char* variables = R"({"tag": "A"}, {"tag": "B"}, {"tag": "C"})",
               const char* stations = R"([{"number": 1}])")
    {
        const QString text = QStringLiteral(
            R"({"port": {"timeoutMs": 200, "retryLimit": 2}, "staleAfterMs": 2000,
                "stations": %1, "variables": [%2]})");
        project = micro850::host::Project::fromText(text.arg(stations, variables), "p.json");
        loop = std::make_unique<micro850::host::PollLoop>(library.api(), port, clock, project);
        port.pause(std::chrono::seconds(1));
    }

    bool showsAForeignValue() override
    {
        return !isOwnValue(0, "111") || !isOwnValue(1, "222") || !isOwnValue(2, "333");
    }
    bool isOwnValue(int variable, const char* value)
    {
        if (variable >= loop->values().size() || !loop->values().wasRead(variable))
            return true;
        const std::string text = shown(variable);
        return text == value || text == "5";
    }
    bool runUntilGood()
    {
        return runUntil([&] {
            for (int i = 0; i < loop->values().size(); ++i) {
                if (loop->quality(i) != Quality::Good)
                    return false;
            }
            return true;
        });
    }
    void runFor(qint64 ms)
    {
        const micro850::Duration end = clock.now() + std::chrono::milliseconds(ms);
        EXPECT_TRUE(runUntil([&] { return clock.now() >= end; }));
    }
    micro850::Bytes& written() { return controller.tags().find("W")->elements[0]; }
    // Polls, and writes 5 to W, so that its type is known.
    void startAndWrite()
    {
        start();
        ASSERT_TRUE(runUntilGood());
        const int first = loop->write({1, "W"}, 0, QByteArray::fromHex("0500"));
        ASSERT_TRUE(runUntil([&] { return loop->outcome(first); }));
        ASSERT_EQ(written()[0], 5);
    }
    // Writes 7 to W. The controller does so, and all its replies are lost from now on.
    int writeWithoutAnswer()
    {
        faults(R"({"fault": "withhold", "rate": 1})");
        const int id = loop->write({1, "W"}, 0, QByteArray::fromHex("0700"));
        EXPECT_TRUE(runUntil([&] { return written()[0] == 7; }));
        return id;
    }
    std::string shown(int variable) { return loop->values().text(variable).toStdString(); }
    void setValues(std::uint8_t value)
    {
        for (const char* tag : {"A", "B"})
            controller.tags().find(tag)->elements[0] = {value, 0};
        controller.tags().find("C")->elements[0] = {value, 0, 0, 0};
    }
    const micro850::host::Counters& counters(int station = 1)
    {
        return loop->stations().find(station)->counters();
    }
};

TEST_F(HostScenario, ALateReplyIsNeverShownUnderAnotherTag)
{
    start();
    ASSERT_TRUE(runUntilGood());
    for (const int late : {1, 2, 5}) {
        const unsigned next = line.messages(micro850::sim::Side::Replies) + 1;
        std::string points;
        for (unsigned i = 0; i < 40; ++i)
            points += (i == 0 ? "" : ", ") + std::to_string(next + 7 * i);
        faults(R"({"fault": "delay", "later": )" + std::to_string(late) + R"(, "message": [)" +
               points + "]}");
        runFor(20000);
        line.clear();
        ASSERT_TRUE(runUntilGood()) << late;
    }
    EXPECT_EQ(foreignValues, 0);
    EXPECT_GT(counters().late, 30);
}

TEST_F(HostScenario, AWriteWhoseAnswerWasLostIsNotWrittenAgainAfterTheControllerRestarted)
{
    startAndWrite();
    const int id = writeWithoutAnswer();
    ASSERT_EQ(loop->outcome(id), nullptr);
    controller.powerCycle(true);
    line.clear();
    written() = {9, 0}; // by another program
    runFor(5000);
    EXPECT_EQ(written()[0], 9);
    ASSERT_NE(loop->outcome(id), nullptr);
    EXPECT_EQ(loop->outcome(id)->state, Operation::State::Failed);
    EXPECT_TRUE(runUntilGood());
}

TEST_F(HostScenario, AWriteUnderWhichTheDeviceWentAwayIsNotWrittenAgain)
{
    startAndWrite();
    const int id = writeWithoutAnswer();
    line.clear();
    faults(R"({"fault": "hang-up", "message": )" +
           std::to_string(line.messages(micro850::sim::Side::Replies) + 1) + R"(, "seconds": 10})");
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    written() = {9, 0}; // by another program
    EXPECT_TRUE(runUntil([&] { return loop->lineIsUp(); }));
    line.clear();
    runFor(5000);
    EXPECT_EQ(written()[0], 9);
    ASSERT_NE(loop->outcome(id), nullptr);
    EXPECT_EQ(loop->outcome(id)->state, Operation::State::Failed);
    EXPECT_TRUE(runUntilGood());
}

TEST_F(HostScenario, AWriteIsTriedAgainWhenTheControllerDidNotKnowItsConnection)
{
    startAndWrite();
    controller.powerCycle(true);
    const int id = loop->write({1, "W"}, 0, QByteArray::fromHex("0700"));
    ASSERT_TRUE(runUntil([&] { return loop->outcome(id); }));
    EXPECT_EQ(loop->outcome(id)->state, Operation::State::Done);
    EXPECT_EQ(written()[0], 7);
}

TEST_F(HostScenario, AReplyThatIsSentAgainInsteadOfAnotherIsDroppedAndCountedAsLate)
{
    start();
    ASSERT_TRUE(runUntilGood());
    faults(R"({"fault": "previous", "rate": 0.2})");
    runFor(20000);
    EXPECT_EQ(foreignValues, 0);
    EXPECT_GT(counters().late, 10);
}

TEST_F(HostScenario, RepliesInSingleBytesWithPausesCostNoTimeOut)
{
    faults(R"({"fault": "split", "rate": 1, "seconds": 0.002})");
    start();
    ASSERT_TRUE(runUntilGood());
    runFor(5000);
    EXPECT_EQ(counters().timedOut, 0);
    EXPECT_EQ(counters().corrupt, 0);
}

TEST_F(HostScenario, ANakBeforeAReplyAStrayAckAndASecondCopyLoseNoValue)
{
    faults(R"({"fault": "nak", "rate": 0.2},
              {"fault": "insert", "rate": 0.2, "byte": 1, "bytes": "10 06"},
              {"fault": "duplicate", "rate": 0.2})");
    start();
    ASSERT_TRUE(runUntilGood());
    runFor(20000);
    ASSERT_TRUE(runUntilGood());
    EXPECT_EQ(foreignValues, 0);
    EXPECT_EQ(counters().reconnects, 0);
    EXPECT_EQ(line.counts().size(), 3u);
}

TEST_F(HostScenario, AnAckWithinAReplyIsRemovedFromIt)
{
    faults(R"({"fault": "insert", "rate": 1, "byte": 6, "bytes": "10 06"})");
    start();
    ASSERT_TRUE(runUntilGood());
    runFor(5000);
    EXPECT_EQ(foreignValues, 0);
    EXPECT_EQ(counters().timedOut, 0);
    EXPECT_EQ(counters().corrupt, 0);
    EXPECT_GT(line.counts().at(micro850::sim::FaultKind::InsertBytes), 100u);
}

// The host's acknowledgements are lost, so that the controller holds its next reply back.
TEST_F(HostScenario, LostAcknowledgementsOfTheHostCostNoConnection)
{
    start();
    ASSERT_TRUE(runUntilGood());
    faults(R"({"fault": "withhold-ack", "on": "requests", "rate": 0.2})");
    runFor(20000);
    line.clear();
    ASSERT_TRUE(runUntilGood());
    EXPECT_EQ(foreignValues, 0);
    EXPECT_EQ(counters().reconnects, 0);
    EXPECT_GT(counters().late, 30) << "the previous reply arrives before each of them";
}

TEST_F(HostScenario, ARequestWithACorruptReplyIsRepeatedWithoutATimeOut)
{
    start();
    ASSERT_TRUE(runUntilGood());
    faults(R"({"fault": "flip", "rate": 0.2})");
    runFor(20000);
    EXPECT_EQ(foreignValues, 0);
    EXPECT_GT(counters().corrupt, 50);
    // A flipped bit in the end of a frame costs a time-out; most bits do not.
    EXPECT_LT(counters().timedOut, counters().corrupt / 2);
}

TEST_F(HostScenario, FreshValuesFollowAPowerCycleOfTheControllerDuringPolling)
{
    start();
    ASSERT_TRUE(runUntilGood());
    controller.powerCycle(false);
    setValues(5);
    EXPECT_TRUE(runUntil([&] { return shown(0) == "5" && shown(1) == "5" && shown(2) == "5"; }));
    EXPECT_EQ(counters().reconnects, 1);
}

TEST_F(HostScenario, AConnectionThatTimedOutIsOpenedAgain)
{
    start();
    ASSERT_TRUE(runUntilGood());
    port.pause(std::chrono::milliseconds(33000));
    EXPECT_EQ(controller.server().openConnections(), 0u);
    setValues(5);
    EXPECT_TRUE(runUntil([&] { return shown(0) == "5" && shown(1) == "5" && shown(2) == "5"; }));
    EXPECT_EQ(controller.server().openConnections(), 1u);
}

TEST_F(HostScenario, AfterACableIsPulledAndPutBackFreshValuesArrive)
{
    start();
    ASSERT_TRUE(runUntilGood());
    faults(R"({"fault": "hang-up", "message": )" +
           std::to_string(line.messages(micro850::sim::Side::Replies) + 5) + R"(, "seconds": 10})");
    ASSERT_TRUE(runUntil([&] { return !loop->lineIsUp(); }));
    EXPECT_TRUE(runUntil([&] { return loop->quality(0) == Quality::Stale; }));
    setValues(5);
    EXPECT_TRUE(runUntilGood());
    EXPECT_EQ(shown(0), "5");
    EXPECT_EQ(loop->lineReconnects(), 1);
}

TEST_F(HostScenario, AnErrorReplyIsCountedAndNotShownAsAValue)
{
    start();
    ASSERT_TRUE(runUntilGood());
    faults(R"({"fault": "cip-error", "rate": 0.2, "status": 8})");
    runFor(10000);
    line.clear();
    EXPECT_EQ(foreignValues, 0);
    qint64 errors = 0;
    for (const qint64 count : counters().errors)
        errors += count;
    EXPECT_GE(errors, 3);
    EXPECT_TRUE(runUntilGood());
}

/// Two controllers on one line. Their frames look alike, so the test routes them: data by its tag,
/// and a connection set-up to the first controller while that has no connection.
class TwoStations : public HostScenario
{
protected:
    TwoStations()
    {
        farController.download(micro850::sim::TagTable::fromText(
            R"({"tags": [{"name": "FarTag", "type": "INT", "value": 222}]})", "far"));
        port.add(farLine);
        port.route = [this](const QByteArray& piece) { return lineFor(piece); };
    }

    /// The line that carries a piece. A link control goes to the controller of the last frame.
    micro850::sim::FaultyLine* lineFor(const QByteArray& piece)
    {
        if (piece.size() > 2) {
            const bool isSetUp = piece.at(6) == '\x0B';
            m_isFar =
                isSetUp ? controller.server().openConnections() > 0 : piece.contains("FarTag");
        }
        if (m_isFar && farIsDead)
            return nullptr;
        return m_isFar ? &farLine : &line;
    }

    bool farIsDead = false;
    micro850::sim::Controller farController{clock, micro850::sim::TagTable()};
    micro850::sim::FaultyLine farLine{clock, farController};

private:
    bool m_isFar = false;
};

TEST_F(TwoStations, ADeadStationIsProbedAtAnIntervalWhileTheLiveOneIsPolled)
{
    start(R"({"tag": "A"}, {"tag": "FarTag", "station": 2})", R"([{"number": 1}, {"number": 2}])");
    ASSERT_TRUE(runUntilGood());
    ASSERT_EQ(shown(1), "222");

    farIsDead = true;
    ASSERT_TRUE(runUntil([&] { return loop->stations()[2].state() == Station::State::Dead; }));
    const qint64 live = counters(1).answered;
    const qint64 probes = counters(2).sent;
    runFor(20000);
    EXPECT_GT(counters(1).answered - live, 1000);
    EXPECT_EQ(loop->quality(0), Quality::Good);
    EXPECT_EQ(loop->quality(1), Quality::Stale);
    EXPECT_GE(counters(2).sent - probes, 1);
    EXPECT_LE(counters(2).sent - probes, 40);

    farIsDead = false;
    EXPECT_TRUE(runUntilGood());
    EXPECT_EQ(foreignValues, 0);
}

/// A host at a line of some speed, with a controller that pauses again and again.
class PausingController : public HostScenario, public ::testing::WithParamInterface<int>
{
protected:
    void startAt(int baud)
    {
        project = micro850::host::Project::fromText(
            QStringLiteral(R"({"port": {"baud": %1}, "stations": [{"number": 1}], "variables":
                [{"tag": "A"}, {"tag": "B"}, {"tag": "C"}]})")
                .arg(baud),
            "p.json");
        paced = std::make_unique<PacedSimulatedLine>(clock, line, baud);
        loop = std::make_unique<micro850::host::PollLoop>(library.api(), *paced, clock, project);
    }

    std::unique_ptr<PacedSimulatedLine> paced;
};

TEST_P(PausingController, CostsNoFailedTransactionInAnHour)
{
    startAt(GetParam());
    ASSERT_TRUE(runUntilGood());
    micro850::sim::Dice dice(1);
    const int pauses = 360;
    for (int i = 0; i < pauses; ++i) {
        const micro850::Duration end = clock.now() + std::chrono::seconds(10);
        paced->plan(static_cast<qint64>(dice.below(1000000)), [this] { paced->hold(300000); });
        while (clock.now() < end) {
            loop->step();
            foreignValues +=
                !isOwnValue(0, "111") || !isOwnValue(1, "222") || !isOwnValue(2, "333");
        }
        ASSERT_EQ(shown(0) + shown(1) + shown(2), "111222333");
    }
    EXPECT_EQ(counters().timedOut, 0);
    EXPECT_EQ(counters().corrupt, 0);
    EXPECT_EQ(counters().reconnects, 0);
    EXPECT_GE(counters().retries, pauses) << "it was asked again meanwhile";
    EXPECT_LE(counters().retries, 6 * pauses);
    EXPECT_EQ(foreignValues, 0);
}

INSTANTIATE_TEST_SUITE_P(Speeds, PausingController, ::testing::Values(9600, 38400, 115200));

} // namespace
