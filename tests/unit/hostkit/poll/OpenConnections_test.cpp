#include "OpenConnections.h"

#include "poll_fixture.h"

#include <set>

using namespace micro850::host;
using namespace std::chrono_literals;
using wire::hex;

namespace {

// The driver's request with the serial number 123456, and a second one with another.
const char kFirst[] = "00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 "
                      "00 34 12 56 34 12 02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 "
                      "20 02 24 01";
const char kFirstClosed[] = "4E 02 20 06 24 01 05 F7 02 00 34 12 56 34 12 02 02 00 20 02 24 01";
const char kSecondClosed[] = "4E 02 20 06 24 01 05 F7 02 00 34 12 57 34 12 02 02 00 20 02 24 01";

using Closed = std::vector<std::string>;

class OpenConnectionsTest : public ::testing::Test
{
protected:
    OpenConnectionsTest()
    {
        QString error;
        line.open(error);
    }

    QByteArray openRequest(quint8 serial = 0x56) const
    {
        QByteArray data = hex(kFirst);
        data[28] = static_cast<char>(serial);
        return wire::framed(data);
    }
    // Sends a request as the poll loop does.
    Answer exchange(const QByteArray& frame, int station = 1)
    {
        const Answer answer = line_.run(frame, counters);
        connections.note(station, frame, answer);
        return answer;
    }
    // The services of what was sent, in order.
    std::vector<int> services() const
    {
        std::vector<int> all;
        for (const FakeController::Request& request : plc.requests)
            all.push_back(request.service);
        return all;
    }

    micro850::VirtualClock clock;
    FakeLine line{clock};
    FakeController plc{line};
    PortSettings port;
    Exchange line_{line, clock, port};
    Counters counters;
    OpenConnections connections{line_, port};
};

} // namespace

TEST_F(OpenConnectionsTest, AreClosedWithTheNumbersTheyWereOpenedWith)
{
    exchange(openRequest());
    connections.closeAll();
    EXPECT_EQ(plc.closed, Closed{kFirstClosed});
    EXPECT_TRUE(plc.open().isEmpty());
    connections.closeAll();
    EXPECT_EQ(plc.closed.size(), 1u) << "once only";
}

TEST_F(OpenConnectionsTest, AreClosedWithoutBeingCounted)
{
    exchange(openRequest());
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        reply = wire::framed(hex("01 00 4B 00") + wire::little(request.tns, 2) +
                             hex("00 00 CE 00 08 00"));
    };
    connections.closeAll();
    EXPECT_EQ(services(), (std::vector<int>{0x54, 0x4E})) << "an unknown service ends it";
    EXPECT_EQ(counters.sent, 1);
    EXPECT_TRUE(counters.errors.isEmpty());
}

// A peer takes a request with the number of the previous one for its repetition.
TEST_F(OpenConnectionsTest, AreClosedWithTransactionNumbersThatDifferFromTheirNeighbours)
{
    for (quint8 serial = 1; serial <= 4; ++serial)
        exchange(openRequest(serial));
    connections.closeAll();
    ASSERT_EQ(plc.requests.size(), 8u);
    std::set<int> numbers;
    for (std::size_t i = 4; i < plc.requests.size(); ++i) {
        numbers.insert(plc.requests[i].tns);
        EXPECT_NE(plc.requests[i].tns, plc.requests[i - 1].tns);
        EXPECT_NE(plc.requests[i].tns, 3) << "the next number of the driver";
        EXPECT_GT(plc.requests[i].tns, 1) << "the first number of the next host";
    }
    EXPECT_EQ(numbers.size(), 4u);
}

TEST_F(OpenConnectionsTest, DoNotIncludeOneThatWasRefused)
{
    plc.connectionLimit = 0;
    exchange(openRequest());
    connections.closeAll();
    EXPECT_EQ(plc.closed, Closed());
}

TEST_F(OpenConnectionsTest, IncludeOneWhoseReplyWasLost)
{
    plc.silent = true;
    EXPECT_EQ(exchange(openRequest(0x56)).outcome, Answer::Outcome::TimedOut);
    plc.silent = false;
    exchange(openRequest(0x57));
    connections.close(1);
    EXPECT_EQ(plc.closed, (Closed{kFirstClosed, kSecondClosed}));
    EXPECT_TRUE(plc.open().isEmpty());
}

TEST_F(OpenConnectionsTest, AreListedOnceAndNeverManyOfThem)
{
    for (int i = 0; i < 3; ++i)
        exchange(openRequest());
    connections.close(1);
    EXPECT_EQ(plc.closed.size(), 1u);
    for (quint8 serial = 0; serial < 100; ++serial)
        exchange(openRequest(serial));
    connections.close(1);
    EXPECT_EQ(plc.closed.size(), 9u);
}

TEST_F(OpenConnectionsTest, OfAStationThatDidNotAnswerLastAreNotWaitedFor)
{
    exchange(openRequest());
    plc.silent = true;
    exchange(wire::readRequest(9, hex("5A 3C"), wire::tagPath("A"), 1));
    const micro850::Duration before = clock.now();
    const std::size_t sent = plc.requests.size();
    connections.closeAll();
    EXPECT_EQ(plc.requests.size(), sent);
    EXPECT_EQ(clock.now(), before);
}

// The normal time-out is 0.9 seconds.
TEST_F(OpenConnectionsTest, AreGivenUpSoonWhenTheControllerFallsSilent)
{
    exchange(openRequest(0x56), 1);
    exchange(openRequest(0x57), 1);
    exchange(openRequest(0x58), 2);
    plc.silent = true;
    const micro850::Duration before = clock.now();
    connections.closeAll();
    EXPECT_EQ(plc.count(0x4E), 1) << "the first that gets no answer is the last";
    EXPECT_LE(clock.now() - before, 310ms);
}

TEST_F(OpenConnectionsTest, AreLeftToTheControllerWhenTheDeviceIsGone)
{
    exchange(openRequest());
    line.setPresent(false);
    connections.closeAll();
    EXPECT_EQ(plc.count(0x4E), 0);
}

namespace {

class ClosingPollTest : public PollTest
{
};

} // namespace

TEST_F(ClosingPollTest, ClosesItsConnectionAtTheEndAndAcknowledgesTheReply)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    ASSERT_EQ(plc.open().size(), 1);
    const qint64 sent = station().counters().sent;
    loop->finish();
    EXPECT_TRUE(plc.open().isEmpty());
    EXPECT_EQ(plc.closed.size(), 1u);
    EXPECT_EQ(wire::text(line.sent.back()), "10 06");
    EXPECT_EQ(station().counters().sent, sent);
}

TEST_F(ClosingPollTest, SendsNothingAtTheEndWhenItHasNoConnection)
{
    plc.connectionLimit = 0;
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Dead; }));
    loop->finish();
    EXPECT_EQ(plc.count(0x4E), 0);
}

// A device that has one connection only.
TEST_F(ClosingPollTest, ClosesTheOldConnectionBeforeItOpensANewOne)
{
    plc.connectionLimit = 1;
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Dead; }));
    plc.silent = false;
    plc.tags["Speed"].elements[0] = hex("07 00");
    ASSERT_TRUE(runUntil([&] { return text(0) == "7"; }, 10000)) << station().error().toStdString();
    EXPECT_EQ(plc.open().size(), 1);
    EXPECT_EQ(plc.count(0x4E), 1);
    loop->finish();
    EXPECT_TRUE(plc.open().isEmpty());
}

TEST_F(ClosingPollTest, GoesOnWhenTheControllerIgnoresTheRequestToClose)
{
    plc.onReply = [](const FakeController::Request& request, QByteArray& reply) {
        if (request.service == 0x4E)
            reply.clear();
    };
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.forgetConnections();
    plc.tags["Speed"].elements[0] = hex("07 00");
    ASSERT_TRUE(runUntil([&] { return text(0) == "7"; }, 1000));
    const micro850::Duration before = clock.now();
    loop->finish();
    EXPECT_LE(clock.now() - before, 310ms);
}
