#include "LinkLayer.h"

#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

// A good message; its CRC was worked out by hand from the polynomial.
const Bytes kIdentity = hex("10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35");
const Bytes kIdentityData = hex("00 01 0B 00 01 00 00 00 01 02 20 01 24 01");
// The same request with transaction number 2.
const Bytes kSecond = framed(hex("00 01 0B 00 02 00 00 00 01 02 20 01 24 01"));
const Bytes kAck = hex("10 06");
const Bytes kNak = hex("10 15");
const Bytes kEnq = hex("10 05");

class LinkTest : public ::testing::Test
{
protected:
    std::string afterReceiving(const Bytes& bytes)
    {
        link.receive(bytes);
        return text(link.transmit());
    }
    std::string afterWaiting(Duration time)
    {
        clock.advance(time);
        link.tick();
        return text(link.transmit());
    }

    VirtualClock clock;
    std::vector<Bytes> messages;
    std::optional<Bytes> reply;
    LinkLayer::Handler handler = [this](const Bytes& data) {
        messages.push_back(data);
        return reply;
    };
    LinkLayer link{clock, handler};
};

TEST_F(LinkTest, AcknowledgesAGoodMessageAndPassesItsDataToTheHandler)
{
    EXPECT_EQ(afterReceiving(kIdentity), "10 06");
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0], kIdentityData);
}

TEST_F(LinkTest, AcceptsAMessageInSingleBytesAfterNoise)
{
    link.receive(hex("00 FF 10 10 03 42"));
    for (std::uint8_t byte : kIdentity)
        link.receive({byte});
    EXPECT_EQ(messages.size(), 1u);
}

TEST_F(LinkTest, RefusesAMessageWhoseCrcIsWrong)
{
    for (std::size_t position = 2; position < kIdentity.size() - 4; ++position) {
        Bytes corrupt = kIdentity;
        corrupt[position] ^= 0x40;
        if (corrupt[position] == 0x10)
            continue;
        EXPECT_EQ(afterReceiving(corrupt), "10 15") << position;
    }
    EXPECT_TRUE(messages.empty());
    EXPECT_GT(link.counters().corrupt, 10u);
}

TEST_F(LinkTest, DoublesEachDleOfAReply)
{
    reply = hex("01 00 4B 00 10 00 00 00 10 10");
    EXPECT_EQ(afterReceiving(kIdentity).substr(0, 53),
              "10 06 10 02 01 00 4B 00 10 10 00 00 00 10 10 10 10 10");
}

TEST_F(LinkTest, ReadsADoubledDleAsOneByte)
{
    link.receive(hex("10 02 00 01 0B 00 10 10 00 00 00 01 02 20 01 24 01 10 03 DE 09"));
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(text(messages[0]), "00 01 0B 00 10 00 00 00 01 02 20 01 24 01");
}

TEST_F(LinkTest, AcknowledgesARepeatedMessageAndDoesNotExecuteItAgain)
{
    link.receive(kIdentity);
    link.transmit();
    EXPECT_EQ(afterReceiving(kIdentity), "10 06");
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(link.counters().duplicates, 1u);
}

TEST_F(LinkTest, ExecutesARepeatedMessageWhenDetectionIsOff)
{
    LinkOptions options;
    options.duplicateDetection = false;
    LinkLayer trusting(clock, handler, options);
    trusting.receive(kIdentity);
    trusting.receive(kIdentity);
    EXPECT_EQ(messages.size(), 2u);
}

TEST_F(LinkTest, AnswersAnEnquiryWithItsLastResponse)
{
    EXPECT_EQ(afterReceiving(kEnq), "10 15") << "nothing has been acknowledged yet";
    link.receive(kIdentity);
    link.transmit();
    EXPECT_EQ(afterReceiving(kEnq), "10 06");
}

TEST_F(LinkTest, RepeatsARefusedReplyThreeTimes)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    const std::string sent = afterReceiving(kIdentity).substr(6);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(afterReceiving(kNak), sent);
    EXPECT_EQ(afterReceiving(kNak), "");
    EXPECT_EQ(link.counters().undelivered, 1u);
}

TEST_F(LinkTest, AsksThreeTimesForAMissingAcknowledgementOneSecondApart)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    link.receive(kIdentity);
    link.transmit();
    EXPECT_EQ(afterWaiting(Duration(999999)), "");
    EXPECT_EQ(afterWaiting(Duration(1)), "10 05");
    EXPECT_EQ(afterWaiting(Duration(1000000)), "10 05");
    EXPECT_EQ(afterWaiting(Duration(1000000)), "10 05");
    EXPECT_EQ(afterWaiting(Duration(1000000)), "");
    EXPECT_EQ(link.counters().undelivered, 1u);
}

TEST_F(LinkTest, SendsNothingMoreOnceItsReplyIsAcknowledged)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    link.receive(kIdentity);
    link.transmit();
    link.receive(kAck);
    EXPECT_EQ(afterWaiting(Duration(10000000)), "");
    EXPECT_EQ(afterReceiving(kNak), "") << "there is nothing to repeat";
}

TEST_F(LinkTest, FollowsItsOptionsForTheTimeOutAndBothLimits)
{
    LinkOptions options;
    options.ackTimeout = Duration(200000);
    options.enquiryLimit = 1;
    options.nakLimit = 2;
    LinkLayer hasty(clock, handler, options);
    const auto afterWaitingForIt = [&](int microseconds) {
        clock.advance(Duration(microseconds));
        hasty.tick();
        return text(hasty.transmit());
    };
    reply = hex("01 00 4B 00 01 00 00 00 81");
    hasty.receive(kIdentity);
    const std::string sent = text(hasty.transmit()).substr(6);
    for (int i = 0; i < 2; ++i) {
        hasty.receive(kNak);
        EXPECT_EQ(text(hasty.transmit()), sent);
    }
    EXPECT_EQ(afterWaitingForIt(199999), "");
    EXPECT_EQ(afterWaitingForIt(1), "10 05");
    EXPECT_EQ(afterWaitingForIt(200000), "");
    EXPECT_EQ(hasty.counters().undelivered, 1u);

    hasty.receive(kSecond);
    hasty.transmit();
    for (int i = 0; i < 3; ++i)
        hasty.receive(kNak);
    EXPECT_EQ(hasty.counters().retransmissions, 2u + 2u);
    EXPECT_EQ(hasty.counters().undelivered, 2u);
}

TEST_F(LinkTest, RepeatsAReplyThatIsRefusedAfterAnEnquiry)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    const std::string sent = afterReceiving(kIdentity).substr(6);
    EXPECT_EQ(afterWaiting(Duration(1000000)), "10 05");
    EXPECT_EQ(afterReceiving(kNak), sent);
    EXPECT_EQ(afterWaiting(Duration(999999)), "") << "the time-out starts again";
    EXPECT_EQ(afterReceiving(kAck), "");
    EXPECT_EQ(afterWaiting(Duration(5000000)), "");
}

TEST_F(LinkTest, HoldsAReplyBackUntilThePreviousOneIsAcknowledged)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    const std::string first = afterReceiving(kIdentity).substr(6);
    reply = hex("01 00 4B 00 02 00 00 00 81");
    EXPECT_EQ(afterReceiving(kSecond), "10 06") << "a request came instead of the acknowledgement";
    EXPECT_EQ(afterReceiving(kNak), first);
    EXPECT_EQ(afterReceiving(kAck).substr(0, 29), "10 02 01 00 4B 00 02 00 00 00");
    EXPECT_EQ(afterReceiving(kAck), "");
}

TEST_F(LinkTest, AwaitsAnAcknowledgementUntilEveryReplyIsAcknowledgedOrGivenUp)
{
    EXPECT_FALSE(link.awaitsAcknowledgement());
    reply = hex("01 00 4B 00 01 00 00 00 81");
    link.receive(kIdentity);
    link.receive(kSecond);
    link.receive(kAck);
    EXPECT_TRUE(link.awaitsAcknowledgement()) << "of the second reply";
    link.receive(kAck);
    EXPECT_FALSE(link.awaitsAcknowledgement());
    link.receive(kIdentity);
    EXPECT_TRUE(link.awaitsAcknowledgement());
    for (int i = 0; i < 4; ++i)
        afterWaiting(Duration(1000000));
    EXPECT_FALSE(link.awaitsAcknowledgement());
}

TEST_F(LinkTest, SendsTheNextReplyOnceThePreviousOneIsGivenUp)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    link.receive(kIdentity);
    reply = hex("01 00 4B 00 02 00 00 00 81");
    link.receive(kSecond);
    link.transmit();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(afterWaiting(Duration(1000000)), "10 05");
    EXPECT_EQ(afterWaiting(Duration(1000000)).substr(0, 29), "10 02 01 00 4B 00 02 00 00 00");
}

TEST_F(LinkTest, RefusesMessagesOfAPeerThatAcknowledgesNoReply)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    link.receive(kIdentity);
    for (int i = 0; i < 2; ++i) {
        link.receive(kSecond);
        link.receive(kIdentity);
    }
    EXPECT_EQ(messages.size(), 5u) << "one reply is on the wire and four wait";
    link.transmit();
    EXPECT_EQ(afterReceiving(kSecond), "10 15");
    EXPECT_EQ(messages.size(), 5u);
    EXPECT_EQ(link.counters().full, 1u);
    link.receive(kAck);
    link.receive(kSecond);
    EXPECT_EQ(messages.size(), 6u);
}

TEST_F(LinkTest, RefusesAMessageWithAnEscapeWithoutAMeaning)
{
    Bytes escaped = kIdentity;
    const Bytes noise = hex("10 41");
    escaped.insert(escaped.begin() + 5, noise.begin(), noise.end());
    EXPECT_EQ(afterReceiving(escaped), "10 15");
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(afterReceiving(kIdentity), "10 06");
}

TEST_F(LinkTest, HandlesAnEnquiryAndANakWithinAMessage)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    const std::string sent = afterReceiving(kIdentity).substr(6);
    EXPECT_EQ(afterReceiving(hex("10 02 00 01 10 05")), "10 06");
    EXPECT_EQ(afterReceiving(hex("0B 00 10 15")), sent);
    link.receive(kAck);
    reply.reset();
    const Bytes rest(kSecond.begin() + 6, kSecond.end());
    EXPECT_EQ(afterReceiving(rest), "10 06");
    EXPECT_EQ(messages.size(), 2u);
}

TEST_F(LinkTest, RecognisesARepeatBySourceCommandAndTransactionNumberOnly)
{
    const Bytes data = kIdentityData;
    const auto executed = [&](std::size_t position, std::uint8_t value) {
        link.receive(kIdentity);
        const std::size_t before = messages.size();
        Bytes other = data;
        other[position] = value;
        link.receive(framed(other));
        return messages.size() - before;
    };
    EXPECT_EQ(executed(1, 0x07), 1u) << "source";
    EXPECT_EQ(executed(2, 0x0A), 1u) << "command";
    EXPECT_EQ(executed(4, 0x02), 1u) << "low byte of the number";
    EXPECT_EQ(executed(5, 0x01), 1u) << "high byte of the number";
    EXPECT_EQ(executed(0, 0x05), 0u) << "destination";
    EXPECT_EQ(executed(3, 0x01), 0u) << "status";
    EXPECT_EQ(executed(8, 0x0E), 0u) << "content";
}

TEST_F(LinkTest, ForgetsItsCountersAtAReset)
{
    link.receive(kIdentity);
    link.receive(kIdentity);
    link.reset();
    EXPECT_EQ(link.counters().messages, 0u);
    EXPECT_EQ(link.counters().duplicates, 0u);
}

TEST_F(LinkTest, HandlesAnAcknowledgementWithinAMessage)
{
    reply = hex("01 00 4B 00 01 00 00 00 81");
    link.receive(kIdentity);
    link.transmit();
    reply.reset();
    link.receive(hex("10 02 00 01 0B 00 10 06 02 00 00 00 01 02 20 01 24 01 10 03"));
    EXPECT_EQ(afterReceiving({kSecond.end() - 2, kSecond.end()}), "10 06");
    EXPECT_EQ(messages.size(), 2u);
    EXPECT_EQ(afterWaiting(Duration(5000000)), "") << "the embedded ACK was for the reply";
}

TEST_F(LinkTest, StartsAgainWhenANewMessageCutsOffTheCurrentOne)
{
    link.receive(hex("10 02 00 01 0B 00 01"));
    EXPECT_EQ(afterReceiving(kIdentity), "10 06");
    EXPECT_EQ(messages.size(), 1u);
    EXPECT_EQ(link.counters().abandoned, 1u);
}

TEST_F(LinkTest, GivesUpAMessageWithoutEnd)
{
    link.receive(hex("10 02"));
    link.receive(Bytes(100000, 0x41));
    EXPECT_EQ(afterReceiving(kIdentity), "10 06");
}

} // namespace
} // namespace micro850::sim
