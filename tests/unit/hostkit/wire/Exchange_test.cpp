#include "Exchange.h"

#include "fake_line.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>

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
    // How the request ends whose device is there as long as this holds. It is asked at each message
    // on the line.
    Outcome runWhile(const std::function<bool(const QByteArray& message)>& isPresent)
    {
        Exchange exchange(line, clock, settings);
        exchange.setObserver([&](Exchange::Direction, const QByteArray& bytes, micro850::Duration) {
            line.setPresent(isPresent(bytes));
        });
        return exchange.run(request, counters).outcome;
    }
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

// It is there while the host waits, and gone when the host sends.
TEST_F(ExchangeTest, ReportsADeviceThatGoesWhenTheReplyIsAskedFor)
{
    EXPECT_EQ(runWhile([](const QByteArray& bytes) { return bytes != kNakBytes; }),
              Outcome::DeviceGone);
    EXPECT_EQ(counters.timedOut, 0);
}

TEST_F(ExchangeTest, ReportsADeviceThatGoesWhenACorruptReplyIsAskedForAgain)
{
    QByteArray damaged = reply;
    damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
    line.onSend = [&](const QByteArray&) { line.arrive(damaged, 5); };
    EXPECT_EQ(runWhile([](const QByteArray& bytes) { return bytes != kNakBytes; }),
              Outcome::DeviceGone);
}

TEST_F(ExchangeTest, ReportsADeviceThatGoesWhenARefusedRequestIsRepeated)
{
    line.onSend = [this](const QByteArray&) { line.arrive(kNakBytes, 5); };
    EXPECT_EQ(runWhile([this](const QByteArray&) { return counters.sent < 2; }),
              Outcome::DeviceGone);
}

TEST_F(ExchangeTest, StopsRepeatingARequestThatThePeerAlwaysRefuses)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(kNakBytes, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::TimedOut);
    EXPECT_EQ(sent(), "request, request, request, request, 10 15");
    EXPECT_EQ(counters.refusedByPeer, 4);
}

TEST_F(ExchangeTest, SendsNothingMoreForWhatComesBehindTheReply)
{
    QByteArray damaged = reply;
    damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
    line.onSend = [&](const QByteArray&) { line.arrive(reply + damaged + kNakBytes, 5); };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request");
    EXPECT_EQ(counters.corrupt, 1);
    EXPECT_EQ(counters.refusedByPeer, 1);
}

TEST_F(ExchangeTest, RepeatsItsResponseToAnEnquiryBehindTheReply)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply + hex("10 05"), 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request, 10 06");
}

TEST_F(ExchangeTest, AcknowledgesAReplyToAnotherRequestBehindItsOwn)
{
    line.onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply + wire::readReply(4, 0x00C3, hex("FF FF")), 5);
    };
    const Answer answer = run();
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(counters.late, 1);
    EXPECT_EQ(sent(), "request, 10 06");
}

// Its CRC is right, but it has no transaction number.
TEST_F(ExchangeTest, AsksAgainForAReplyThatIsTooShort)
{
    line.onSend = [this](const QByteArray& piece) {
        line.arrive(piece == request ? wire::framed(hex("01 00 4A 00")) : reply, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(counters.corrupt, 1);
    EXPECT_EQ(counters.late, 0);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(ExchangeTest, AcknowledgesNothingOnALineThatIsClosed)
{
    line.onSend = [this](const QByteArray&) { line.arrive(reply); };
    Exchange exchange(line, clock, settings);
    exchange.run(request, counters);
    line.close();
    exchange.acknowledge();
    EXPECT_EQ(sent(), "request");
}

TEST_F(ExchangeTest, EndsAShortTimeAfterAnInterruptUnlessTheReplyComesUntilThen)
{
    Exchange exchange(line, clock, settings);
    exchange.setInterrupt([this] { return clock.now() >= 100ms; });
    const micro850::Duration start = clock.now();
    EXPECT_EQ(exchange.run(request, counters, 5s).outcome, Outcome::Interrupted);
    EXPECT_GE(clock.now() - start, 600ms);
    EXPECT_LE(clock.now() - start, 800ms) << "500 ms after it was noticed";
    EXPECT_EQ(counters.timedOut, 0);
    line.onSend = [this](const QByteArray& piece) {
        if (piece.size() > 2)
            line.arrive(reply, 300);
    };
    EXPECT_EQ(exchange.run(wire::readRequest(5, hex("5A 3C"), wire::tagPath("Level"), 1), counters)
                  .outcome,
              Outcome::Interrupted)
        << "the number is in use: the reply may be to the request before";
    line.onSend = [this](const QByteArray& piece) {
        if (piece.size() > 2)
            line.arrive(wire::readReply(9, 0x00C3, hex("D2 04")), 300);
    };
    EXPECT_EQ(exchange.run(wire::readRequest(9, hex("5A 3C"), wire::tagPath("Level"), 1), counters)
                  .outcome,
              Outcome::Answered);
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

namespace {

const QByteArray kIdentityData = hex("00 01 0B 00 01 00 00 00 01 02 20 01 24 01");

// A peer that usually answers after 5 ms, as the exchange has learnt.
class PacedExchangeTest : public ExchangeTest
{
protected:
    PacedExchangeTest()
    {
        line.onSend = [this](const QByteArray& piece) {
            sentAt.push_back(clock.now());
            if (onSend)
                onSend(piece);
            else
                line.arrive(replyTo(numberOf(piece)), 5);
        };
        for (quint16 number = 100; number < 150; ++number)
            exchange.run(requestOf(number), counters);
        line.sent.clear();
        counters = Counters();
        onSend = [](const QByteArray&) {};
    }
    static QByteArray requestOf(quint16 number)
    {
        return wire::readRequest(number, hex("5A 3C"), wire::tagPath("Speed"), 1);
    }
    static QByteArray replyTo(quint16 number)
    {
        return wire::readReply(number, 0x00C3, hex("D2 04"));
    }
    // Of a read; 0 for a control.
    static quint16 numberOf(const QByteArray& piece)
    {
        const QByteArray data = wire::unframed(piece);
        const int number = data.size() < 6 ? 0 : quint8(data.at(4)) | quint8(data.at(5)) << 8;
        return static_cast<quint16>(number);
    }
    static PortSettings fast(PortSettings settings)
    {
        settings.baud = 115200;
        return settings;
    }
    Answer run() { return exchange.run(request, counters); }
    // Since the first piece.
    std::vector<qint64> sentAfterMs() const
    {
        std::vector<qint64> times;
        for (const micro850::Duration at : sentAt)
            times.push_back(micro850::wholeMilliseconds(at - sentAt.front()));
        return times;
    }
    // "request", "again" for a request with another number, or the control.
    std::string sent() const
    {
        std::string text;
        for (const QByteArray& piece : line.sent) {
            text += text.empty() ? "" : ", ";
            text += piece == request ? "request" : piece.size() > 2 ? "again" : wire::text(piece);
        }
        return text;
    }

    Exchange exchange{line, clock, fast(settings)};
    std::function<void(const QByteArray&)> onSend;
    std::vector<micro850::Duration> sentAt;
};

} // namespace

TEST_F(PacedExchangeTest, AsksForALostReplyWithinFourRoundTripsButNotBefore20Ms)
{
    sentAt.clear();
    onSend = [this](const QByteArray& piece) {
        if (piece == kNakBytes)
            line.arrive(reply, 5);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request, 10 15");
    EXPECT_EQ(sentAfterMs(), (std::vector<qint64>{0, 20}));
    EXPECT_EQ(answer.roundTrip, 25ms);
    EXPECT_EQ(counters.retries, 1);
    EXPECT_EQ(counters.timedOut, 0);
}

TEST_F(PacedExchangeTest, AsksWithGrowingPausesAndRepeatsAReadUnderOtherNumbers)
{
    sentAt.clear();
    EXPECT_EQ(run().outcome, Outcome::TimedOut);
    EXPECT_EQ(clock.now() - sentAt.front(), 1000ms) << "the time-out that is set";
    EXPECT_EQ(sent(), "request, 10 15, again, 10 15, again, 10 15, again, again, again, again, "
                      "again, again, again");
    EXPECT_EQ(sentAfterMs(),
              (std::vector<qint64>{0, 20, 40, 80, 160, 260, 360, 460, 560, 660, 760, 860, 960}))
        << sent();
}

TEST_F(PacedExchangeTest, GetsTheReplyOfARequestThatWasLostItself)
{
    onSend = [this](const QByteArray& piece) {
        if (piece != request && piece.size() > 2)
            line.arrive(replyTo(numberOf(piece)), 5);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(sent(), "request, 10 15, again");
}

// It would be carried out twice where the peer does not detect repetitions.
TEST_F(PacedExchangeTest, AsksForTheReplyToAWriteButNeverRepeatsIt)
{
    const QByteArray write =
        wire::writeRequest(5, hex("5A 3C"), wire::tagPath("Speed"), 0x00C3, 1, hex("D2 04"));
    sentAt.clear();
    EXPECT_EQ(exchange.run(write, counters).outcome, Outcome::TimedOut);
    EXPECT_EQ(line.sent, (std::vector<QByteArray>{write, kNakBytes, kNakBytes, kNakBytes}));
    EXPECT_EQ(sentAfterMs(), (std::vector<qint64>{0, 20, 40, 80}));
}

TEST_F(PacedExchangeTest, AcknowledgesNoCopyThatItAskedFor)
{
    // Busy for 50 ms, it answers the request and both questions.
    onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply + reply, 50);
        else if (piece.size() > 2 && numberOf(piece) != 6)
            line.arrive(replyTo(numberOf(piece)), 15);
        else if (piece.size() > 2)
            line.arrive(replyTo(6), 30);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    const Answer next = exchange.run(requestOf(6), counters);
    EXPECT_EQ(next.outcome, Outcome::Answered);
    EXPECT_EQ(next.request.tns, 6);
    EXPECT_EQ(counters.late, 2);
    EXPECT_EQ(counters.timedOut + counters.corrupt, 0);
    for (const QByteArray& piece : line.sent)
        EXPECT_NE(wire::text(piece), "10 06");
}

// The acknowledgement at the head of the request was lost, so that the peer holds its reply back.
TEST_F(PacedExchangeTest, AcknowledgesACopyThatThePeerSendsBecauseItHasNoAcknowledgement)
{
    onSend = [this](const QByteArray& piece) {
        if (piece == kNakBytes)
            line.arrive(replyTo(149), 5);
        else if (piece == kAckBytes)
            line.arrive(reply, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request, 10 15, 10 06");
}

TEST_F(PacedExchangeTest, KeepsTheBeginningOfAReplyWhoseRestComesAfterAPause)
{
    onSend = [this](const QByteArray& piece) {
        if (piece == request) {
            line.arrive(reply.left(12), 5);
            line.arrive(reply.mid(12), 35);
        }
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    EXPECT_EQ(counters.corrupt, 0);
    EXPECT_EQ(sent(), "request, 10 15");
}

TEST_F(PacedExchangeTest, CountsAndShowsTheBeginningOfAReplyThatIsSentAgain)
{
    onSend = [this](const QByteArray& piece) {
        line.arrive(piece == request ? reply.left(12) : reply.mid(2), 5);
    };
    std::vector<QByteArray> received;
    exchange.setObserver(
        [&](Exchange::Direction direction, const QByteArray& bytes, micro850::Duration) {
            if (direction == Exchange::Direction::In)
                received.push_back(bytes);
        });
    const Answer answer = run();
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(answer.roundTrip, 5ms + 20ms + 5ms);
    EXPECT_EQ(counters.corrupt, 1);
    EXPECT_EQ(received, (std::vector<QByteArray>{reply.left(12), reply.mid(2)}));
}

TEST_F(PacedExchangeTest, GivesUpTheBeginningOfAReplyWhoseRestDoesNotCome)
{
    onSend = [this](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply.left(12), 5);
        else if (counters.corrupt == 1)
            line.arrive(replyTo(numberOf(piece)), 5); // of a repetition, which has a number
    };
    std::vector<QByteArray> received;
    exchange.setObserver(
        [&](Exchange::Direction direction, const QByteArray& bytes, micro850::Duration) {
            if (direction == Exchange::Direction::In)
                received.push_back(bytes);
        });
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(sent(), "request, 10 15, again");
    EXPECT_EQ(counters.corrupt, 1);
    ASSERT_EQ(received.size(), 2U);
    EXPECT_EQ(received.front(), reply.left(12)) << "what came is shown, once";
}

// A control within a frame is no new beginning of it.
TEST_F(PacedExchangeTest, KeepsTheBeginningOfAReplyWhoseRestComesAfterAControl)
{
    onSend = [this](const QByteArray& piece) {
        if (piece == request) {
            line.arrive(reply.left(12), 5);
            line.arrive(hex("10 05") + reply.mid(12), 35);
        }
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
}

TEST_F(PacedExchangeTest, CountsACorruptFrameThatWasSentFromItsBeginning)
{
    onSend = [this](const QByteArray& piece) {
        QByteArray damaged = reply.mid(2);
        damaged[7] = static_cast<char>(damaged.at(7) ^ 1);
        if (piece == request)
            line.arrive(reply.left(12), 5);
        else if (counters.corrupt == 0)
            line.arrive(damaged, 5);
        else
            line.arrive(reply.mid(2), 5);
    };
    const Answer answer = run();
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(wire::text(answer.reply.values().bytes()), "D2 04");
    EXPECT_EQ(counters.corrupt, 2) << "the beginning, and the damaged frame";
}

TEST_F(PacedExchangeTest, RepeatsAReadForARefusalThatMayBeOfTheReadBefore)
{
    const QByteArray next = requestOf(6);
    int refused = 0;
    onSend = [&](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply, 41);
        else if (piece == next && ++refused == 1)
            line.arrive(kNakBytes, 5);
        else if (piece == next)
            line.arrive(replyTo(6), 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    line.sent.clear();
    const Answer answer = exchange.run(next, counters);
    EXPECT_EQ(answer.outcome, Outcome::Answered);
    EXPECT_EQ(line.sent, (std::vector<QByteArray>{next, next}));
}

// Each copy shows that the one before it was only late.
TEST_F(PacedExchangeTest, WaitsLongerForAPeerThatHasBecomeSlow)
{
    onSend = [this](const QByteArray& piece) {
        line.arrive(piece == kNakBytes ? replyTo(numberOf(line.sent.at(line.sent.size() - 2)))
                                       : replyTo(numberOf(piece)),
                    60);
    };
    for (quint16 number = 200; number < 400; ++number)
        EXPECT_EQ(exchange.run(requestOf(number), counters).outcome, Outcome::Answered);
    const qint64 retries = counters.retries;
    for (quint16 number = 400; number < 500; ++number)
        exchange.run(requestOf(number), counters);
    EXPECT_EQ(counters.retries, retries);
    EXPECT_EQ(counters.timedOut, 0);
}

TEST_F(PacedExchangeTest, WaitsForALongReplyAfterShortOnes)
{
    settings.baud = 9600;
    Exchange slow(line, clock, settings);
    onSend = [this](const QByteArray& piece) {
        // Bytes of both at 9600 baud; the reply comes as a whole, as from a device server.
        const QByteArray data = wire::unframed(piece);
        const bool isLong = data.endsWith(hex("C8 00 00 00 00 00"));
        const QByteArray answer =
            wire::readReply(numberOf(piece), 0x00C3, QByteArray(isLong ? 400 : 2, '\x55'));
        line.arrive(answer, (piece.size() + answer.size()) * 10000 / 9600 + 3);
    };
    for (quint16 number = 200; number < 230; ++number)
        slow.run(requestOf(number), counters);
    const QByteArray longRead = wire::readRequest(231, hex("5A 3C"), wire::tagPath("Speed"), 200);
    EXPECT_EQ(slow.run(longRead, counters).outcome, Outcome::Answered);
    EXPECT_EQ(counters.retries, 0);
}

TEST_F(PacedExchangeTest, GivesEachIdentityRequestANumberOfItsOwn)
{
    const QByteArray identity = wire::framed(kIdentityData);
    std::set<quint16> numbers;
    onSend = [&](const QByteArray& piece) {
        numbers.insert(numberOf(piece));
        line.arrive(wire::identityReply(numberOf(piece)), 5);
    };
    for (int i = 0; i < 50; ++i) {
        const Answer answer = exchange.run(identity, counters);
        EXPECT_EQ(answer.outcome, Outcome::Answered);
        EXPECT_EQ(answer.reply.tns, answer.request.tns);
    }
    EXPECT_EQ(line.sent.size(), 50u) << "no message more";
    EXPECT_GE(numbers.size(), 49u);
    EXPECT_GT(*numbers.begin(), 0x1FFF) << "those that other programs begin with";
}

TEST_F(PacedExchangeTest, SendsAConnectionRequestUnchanged)
{
    const QByteArray open = wire::framed(hex("00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7"));
    onSend = [this](const QByteArray&) { line.arrive(wire::forwardOpenReply(2, hex("5A 3C")), 5); };
    EXPECT_EQ(exchange.run(open, counters).outcome, Outcome::Answered);
    EXPECT_EQ(line.sent, std::vector<QByteArray>{open});
}

TEST_F(ExchangeTest, LetsTheTimeOutGrowWithTheTimeThatTheLineTakes)
{
    settings.timeoutMs = 0;
    const Exchange exchange(line, clock, settings);
    const micro850::Duration here = exchange.timeoutFor(40);
    line.delay = 1200ms;
    EXPECT_EQ(exchange.timeoutFor(40), here + 2 * 1200ms);
}

TEST_F(ExchangeTest, LearnsFromALateReplyThatThePeerIsSlow)
{
    settings.timeoutMs = 0;
    settings.baud = 115200;
    settings.deviceBudgetMs = 300;
    line.onSend = [this](const QByteArray& piece) {
        const QByteArray data = wire::unframed(piece);
        if (!data.isEmpty())
            line.arrive(
                wire::readReply(static_cast<quint16>(quint8(data.at(4))), 0x00C3, hex("D2 04")),
                700);
    };
    Exchange exchange(line, clock, settings);
    int answered = 0;
    for (quint16 number = 100; number < 110; ++number)
        answered += exchange.run(wire::readRequest(number, hex("5A 3C"), wire::tagPath("Speed"), 1),
                                 counters)
                                .outcome == Outcome::Answered
                        ? 1
                        : 0;
    EXPECT_GE(answered, 8);
}

// ---- Requests with the number of another one

// The driver counts for each station from the same number on.
TEST_F(PacedExchangeTest, TakesNoCopyForTheReplyToAnotherStationsRequestWithItsNumber)
{
    const QByteArray other = wire::readRequest(5, hex("11 22"), wire::tagPath("Level"), 1);
    bool second = false;
    onSend = [&](const QByteArray& piece) {
        if (piece == request) {
            line.arrive(reply, 22); // asked for after 20 ms
            line.arrive(reply, 28); // the copy
        } else if (second && piece.size() > 2) {
            line.arrive(wire::readReply(numberOf(piece), 0x00C3, hex("99 99")), 9);
        }
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    second = true;
    const Answer next = exchange.run(other, counters);
    EXPECT_EQ(wire::text(next.reply.values().bytes()), "99 99");
}

TEST_F(PacedExchangeTest, TakesNoLateReplyForThatToAnotherStationsRequestWithItsNumber)
{
    const QByteArray other = wire::readRequest(5, hex("11 22"), wire::tagPath("Level"), 1);
    bool second = false;
    onSend = [&](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply, 990); // there before the other request is sent
        else if (second && piece.size() > 2)
            line.arrive(wire::readReply(numberOf(piece), 0x00C3, hex("99 99")), 9);
    };
    exchange.run(request, counters, 980ms);
    clock.advance(50ms);
    second = true;
    const Answer next = exchange.run(other, counters);
    EXPECT_EQ(wire::text(next.reply.values().bytes()), "99 99");
}

TEST_F(PacedExchangeTest, GivesAWriteOfAnotherStationANumberOfItsOwnAndKeepsIt)
{
    Counters others;
    const QByteArray write =
        wire::writeRequest(5, hex("11 22"), wire::tagPath("Speed"), 0x00C3, 1, hex("D2 04"));
    onSend = [&](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply, 9);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    line.sent.clear();
    EXPECT_EQ(exchange.run(write, others, 300ms).outcome, Outcome::TimedOut);
    EXPECT_EQ(exchange.run(write, others, 300ms).outcome, Outcome::TimedOut);
    std::vector<QByteArray> writes;
    for (const QByteArray& piece : line.sent) {
        if (piece.size() > 2)
            writes.push_back(piece);
    }
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_NE(numberOf(writes[0]), 5);
    EXPECT_EQ(kAckBytes + writes[1], writes[0]) << "without the acknowledgement, same number";
}

TEST_F(PacedExchangeTest, SendsNoWriteAgainForARefusalThatMayBeOfTheReadBefore)
{
    const QByteArray write =
        wire::writeRequest(6, hex("5A 3C"), wire::tagPath("Speed"), 0x00C3, 1, hex("D2 04"));
    onSend = [&](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply, 41);
        else if (piece == write)
            line.arrive(wire::writeReply(6), 9);
        else if (piece.size() > 2) // the repetition at 40 ms is damaged on its way
            line.arrive(kNakBytes, 5);
    };
    EXPECT_EQ(run().outcome, Outcome::Answered);
    line.sent.clear();
    EXPECT_EQ(exchange.run(write, counters).outcome, Outcome::Answered);
    EXPECT_EQ(line.sent, std::vector<QByteArray>{write});
}

TEST_F(PacedExchangeTest, AsksForALongReplyOfNarrowElementsWithinFourUsualRoundTrips)
{
    settings.baud = 9600;
    settings.timeoutMs = 5000;
    Exchange slow(line, clock, settings);
    qint64 took = 0;
    onSend = [&](const QByteArray& piece) {
        const QByteArray answer = wire::readReply(numberOf(piece), 0x00C1, QByteArray(60, '\x01'));
        took = (piece.size() + answer.size()) * 10000 / 9600 + 3;
        line.arrive(answer, static_cast<int>(took));
    };
    const auto bits = [](quint16 number) {
        return wire::readRequest(number, hex("5A 3C"), wire::tagPath("Speed"), 60);
    };
    for (quint16 number = 200; number < 260; ++number)
        slow.run(bits(number), counters);
    onSend = [](const QByteArray&) {};
    sentAt.clear();
    slow.run(bits(300), counters);
    ASSERT_GE(sentAt.size(), 2u);
    EXPECT_LE(sentAfterMs().at(1), 4 * took);
}

TEST_F(PacedExchangeTest, KeepsTheNumbersApartOfRequestsBeforeTheLastWithoutAnAnswer)
{
    onSend = [](const QByteArray&) {};
    exchange.run(request, counters, 300ms);
    exchange.run(requestOf(6), counters, 300ms);
    line.sent.clear();
    const QByteArray other = wire::readRequest(5, hex("11 22"), wire::tagPath("Level"), 1);
    exchange.run(other, counters, 300ms);
    ASSERT_FALSE(line.sent.empty());
    EXPECT_NE(numberOf(line.sent[0]), 5) << "a reply to the first request may still come";
}

TEST_F(PacedExchangeTest, SendsTheDriversOwnNumbersAgainOnceThePeerAnswers)
{
    onSend = [](const QByteArray&) {};
    exchange.run(request, counters, 300ms);
    exchange.run(requestOf(6), counters, 300ms);
    onSend = [&](const QByteArray& piece) {
        if (piece.size() > 2)
            line.arrive(replyTo(numberOf(piece)), 9);
    };
    EXPECT_EQ(exchange.run(requestOf(7), counters).outcome, Outcome::Answered);
    line.sent.clear();
    EXPECT_EQ(exchange.run(request, counters).outcome, Outcome::Answered);
    EXPECT_EQ(line.sent, std::vector<QByteArray>{request});
}

// The acknowledgement would be taken for that of the next reply.
TEST_F(ExchangeTest, AcknowledgesNoCopyOfTheVeryFirstReplyWhileTheNextRequestWaits)
{
    const QByteArray next = wire::readRequest(6, hex("5A 3C"), wire::tagPath("Speed"), 1);
    line.onSend = [&](const QByteArray& piece) {
        if (piece == request)
            line.arrive(reply, 505);
        else if (piece == kNakBytes)
            line.arrive(reply, 8);
        else if (piece == next)
            line.arrive(wire::readReply(6, 0x00C3, hex("D2 04")), 30);
    };
    Exchange exchange(line, clock, settings);
    exchange.run(request, counters);
    line.sent.clear();
    EXPECT_EQ(exchange.run(next, counters).outcome, Outcome::Answered);
    for (const QByteArray& piece : line.sent)
        EXPECT_NE(wire::text(piece), "10 06");
}

TEST_F(PacedExchangeTest, LetsSlowRepliesMakeThePeersTimeFourTimesAsLongAtMost)
{
    settings.timeoutMs = 0;
    Exchange slow(line, clock, settings);
    onSend = [&](const QByteArray& piece) {
        if (piece.size() > 2)
            line.arrive(replyTo(numberOf(piece)), 9000);
    };
    for (quint16 number = 200; number < 300; ++number)
        slow.run(requestOf(number), counters, 20s);
    EXPECT_EQ(slow.delayFor(500ms), 2000ms);
}
