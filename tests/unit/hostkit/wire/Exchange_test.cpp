#include "Exchange.h"

#include "fake_line.h"
#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;
using wire::hex;
using Outcome = Answer::Outcome;

namespace {

const QByteArray kAckBytes = hex("10 06");
const QByteArray kNakBytes = hex("10 15");

class ExchangeTest : public ::testing::Test
{
protected:
    ExchangeTest()
    {
        settings.timeoutMs = 1000;
        QString error;
        line.open(error);
    }
    Answer run() { return Exchange(line, clock, settings).run(request, counters); }
    // Everything sent, the request as "request".
    std::string sent() const
    {
        std::string text;
        for (const QByteArray& piece : line.sent)
            text += (text.empty() ? "" : ", ") +
                    (piece == request ? std::string("request") : wire::text(piece));
        return text;
    }

    micro850::VirtualClock clock;
    FakeLine line{clock};
    PortSettings settings;
    Counters counters;
    const QByteArray request = wire::readRequest(5, hex("5A 3C"), wire::tagPath("Speed"), 1);
    const QByteArray reply = wire::readReply(5, 0x00C3, hex("D2 04"));
};

} // namespace

TEST_F(ExchangeTest, ReturnsTheReplyToItsRequest)
{
    line.onSend = [this](const QByteArray&) { line.arrive(reply, 7); };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(wire::text(answer.frame), wire::text(reply));
    EXPECT_EQ(answer.roundTrip, 7ms);
    EXPECT_EQ(sent(), "request");
    EXPECT_EQ(counters.sent, 1);
    EXPECT_EQ(counters.answered, 1);
    EXPECT_EQ(counters.bytesReceived, reply.size());
}

TEST_F(ExchangeTest, JoinsAReplyThatComesInPieces)
{
    line.onSend = [this](const QByteArray& piece) {
        for (int i = 0; piece == request && i < reply.size(); ++i)
            line.arrive(reply.mid(i, 1), 10 * (i + 1));
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request");
}

TEST_F(ExchangeTest, DropsBytesThatArrivedBeforeItSends)
{
    line.arrive(wire::readReply(5, 0x00C3, hex("FF FF")), 0);
    line.onSend = [this](const QByteArray&) { line.arrive(reply); };
    EXPECT_EQ(wire::text(run().reply.values().bytes()), "D2 04");
    EXPECT_EQ(counters.late, 0);
}

TEST_F(ExchangeTest, DropsAReplyToAnotherRequestAndGoesOnWaitingWithinTheSameTime)
{
    const micro850::Duration start = clock.now();
    line.onSend = [this](const QByteArray& piece) {
        if (piece != request)
            return;
        line.arrive(wire::readReply(4, 0x00C3, hex("FF FF")), 100);
        line.arrive(reply, 400);
    };
    const Answer answer = run();
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(counters.late, 1);
    EXPECT_EQ(clock.now() - start, 400ms);
    EXPECT_EQ(sent(), "request, 10 06");
}

TEST_F(ExchangeTest, TimesOutInTimeEvenWhileOtherRepliesKeepArriving)
{
    const micro850::Duration start = clock.now();
    line.onSend = [this](const QByteArray& piece) {
        for (int ms = 50; piece == request && ms < 3000; ms += 50)
            line.arrive(wire::readReply(4, 0x00C3, hex("FF FF")), ms);
    };
    EXPECT_EQ(run().outcome, Outcome::TimedOut);
    EXPECT_EQ(clock.now() - start, 1000ms);
    EXPECT_EQ(counters.timedOut, 1);
}

TEST_F(ExchangeTest, AsksOnceForAReplyThatIsLateAndThenTimesOut)
{
    const micro850::Duration start = clock.now();
    EXPECT_EQ(run().outcome, Outcome::TimedOut);
    EXPECT_EQ(clock.now() - start, 1000ms);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(ExchangeTest, GetsALostReplyAfterAskingForIt)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == kNakBytes)
            line.arrive(reply);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(answer.roundTrip, 501ms);
    EXPECT_EQ(counters.sent, 1);
}

TEST_F(ExchangeTest, AsksForACorruptReplyAgainAtOnce)
{
    line.onSend = [this](const QByteArray& piece) {
        QByteArray damaged = reply;
        damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
        line.arrive(piece == request ? damaged : reply, 5);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(answer.roundTrip, 10ms);
    EXPECT_EQ(counters.corrupt, 1);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(ExchangeTest, StopsAskingForAReplyThatStaysCorrupt)
{
    line.onSend = [this](const QByteArray&) {
        QByteArray damaged = reply;
        damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
        line.arrive(damaged, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::TimedOut);
    EXPECT_EQ(counters.corrupt, 4);
    EXPECT_EQ(sent(), "request, 10 15, 10 15, 10 15");
}

// The CRC begins with 0.
TEST_F(ExchangeTest, AsksAgainForAReplyThatBytes00BeforeTheDataHaveShifted)
{
    const QByteArray shifted = wire::framed(QByteArray(1, '\0') + wire::unframed(reply));
    ASSERT_EQ(shifted.right(2), reply.right(2)) << "the same CRC";
    line.onSend = [&](const QByteArray& piece) {
        line.arrive(piece == request ? shifted : reply.mid(2), 5);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(counters.corrupt, 1);
    EXPECT_EQ(counters.late, 0);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(ExchangeTest, AsksAgainForAReplyThatStopsInTheMiddle)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply.left(20), 5);
        else if (piece == kNakBytes)
            line.arrive(reply.mid(2), 5);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(answer.roundTrip, 5ms + 250ms + 5ms);
    EXPECT_EQ(counters.corrupt, 1);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(ExchangeTest, WaitsForASlowReplyAsLongAsBytesCome)
{
    line.onSend = [this](const QByteArray& piece) {
        for (int i = 0; piece == request && i < 4; ++i)
            line.arrive(reply.mid(9 * i, 9), 240 * (i + 1));
    };
    ASSERT_GT(reply.size(), 27);
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(counters.corrupt, 0);
    EXPECT_EQ(sent(), "request");
}

TEST_F(ExchangeTest, RepeatsARequestThatThePeerReceivedCorrupt)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(counters.sent == 1 ? kNakBytes : reply, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request, request");
    EXPECT_EQ(counters.refusedByPeer, 1);
    EXPECT_EQ(counters.sent, 2);
}

TEST_F(ExchangeTest, AnswersAnEnquiryWithANakWhileItHasNoReply)
{
    // The peer asks whether its reply arrived; it did not.
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(hex("10 05"), 5);
        else if (piece == kNakBytes)
            line.arrive(reply, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(ExchangeTest, UsesTheFirstOfTwoEqualReplies)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply + reply);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(counters.answered, 1);
    EXPECT_EQ(counters.late, 1);
}

TEST_F(ExchangeTest, CountsRefusalsByTheirStatus)
{
    line.onSend = [this](const QByteArray&) { line.arrive(wire::errorReply(5, 0x52, 0x05)); };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_FALSE(answer.reply.good());
    EXPECT_EQ(counters.errors.value("05"), 1);
}

TEST_F(ExchangeTest, ReportsADeviceThatIsGoneAndNotATimeOut)
{
    line.setPresent(false);
    EXPECT_EQ(run().outcome, Outcome::DeviceGone);
    EXPECT_EQ(counters.timedOut, 0);
}

TEST_F(ExchangeTest, ComputesTheTimeOutFromTheSpeedAndTheDeviceUnlessItIsSet)
{
    settings.timeoutMs = 0;
    settings.baud = 9600;
    settings.deviceBudgetMs = 500;
    // A request of 40 bytes and the longest reply, 10 bits a byte, and the device's budget.
    EXPECT_EQ(Exchange(line, clock, settings).timeoutFor(40), 1125ms + 500ms);
    settings.timeoutMs = 321;
    EXPECT_EQ(Exchange(line, clock, settings).timeoutFor(40), 321ms);
}

TEST_F(ExchangeTest, AcknowledgesTheLastReplyOnceWhenNoRequestFollows)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply);
    };
    Exchange exchange(line, clock, settings);
    exchange.acknowledge();
    exchange.run(request, counters);
    exchange.acknowledge();
    exchange.acknowledge();
    EXPECT_EQ(sent(), "request, 10 06");
}

TEST_F(ExchangeTest, ReportsEveryFrameInBothDirectionsToItsObserver)
{
    line.onSend = [this](const QByteArray&) { line.arrive(reply, 3); };
    Exchange exchange(line, clock, settings);
    std::string seen;
    exchange.setObserver(
        [&](Exchange::Direction direction, const QByteArray& frame, micro850::Duration now) {
            seen += (direction == Exchange::Direction::Out ? ">" : "<") +
                    std::string(frame == request ? "request"
                                : frame == reply ? "reply"
                                                 : "other") +
                    std::to_string(now.count()) + " ";
        });
    exchange.run(request, counters);
    EXPECT_EQ(seen, ">request0 <reply3000 ");
}

TEST_F(ExchangeTest, ReportsCorruptFramesAndItsOwnControlsToItsObserver)
{
    QByteArray damaged = reply;
    damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
    int asked = 0;
    line.onSend = [&](const QByteArray& piece) {
        if (piece == request)
            line.arrive(hex("10 05") + damaged);
        else if (piece == kNakBytes && ++asked == 2)
            line.arrive(hex("10 06 10 06") + reply.mid(2));
    };
    Exchange exchange(line, clock, settings);
    std::string seen;
    exchange.setObserver(
        [&](Exchange::Direction direction, const QByteArray& bytes, micro850::Duration) {
            const bool out = direction == Exchange::Direction::Out;
            seen += std::string(seen.empty() ? "" : ", ") + (out ? "> " : "< ") +
                    (bytes == request   ? "request"
                     : bytes == damaged ? "damaged"
                     : bytes == reply   ? "reply"
                                        : wire::text(bytes));
        });
    exchange.run(request, counters);
    exchange.acknowledge();
    EXPECT_EQ(seen, "> request, < 10 05, > 10 15, < damaged, > 10 15, < reply, > 10 06");
}
