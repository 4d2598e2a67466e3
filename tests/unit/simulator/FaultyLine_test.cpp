#include "FaultyLine.h"

#include "bytes.h"

#include <gtest/gtest.h>
#include <set>

namespace micro850::sim {
namespace {

// Get_Attributes_All of the Identity object with the transaction numbers 1 and 2, after the host's
// acknowledgement.
const Bytes kFirst = hex("10 06 10 02 00 01 0B 00 01 00 00 00 01 02 20 01 24 01 10 03 8E 35");
const Bytes kSecondData = hex("00 01 0B 00 02 00 00 00 01 02 20 01 24 01");

const Bytes kSecond = hex("10 06") + framed(kSecondData);

class FaultyLineTest : public ::testing::Test
{
protected:
    FaultyLineTest()
    {
        // The controller's replies on a good line.
        Controller good(clock, TagTable());
        good.receive(kFirst);
        firstReply = good.transmit();
        good.receive(kSecond);
        secondReply = good.transmit();
    }

    void script(const std::string& rules, std::uint64_t seed = 1)
    {
        controller = std::make_unique<Controller>(clock, TagTable());
        line = std::make_unique<FaultyLine>(
            clock, *controller, faultsFromText("{\"faults\": [" + rules + "]}", "f"), seed);
        line->setObserver(
            [this](const FaultyLine::Event& event) { events.push_back(describe(event)); });
    }
    std::string after(const Bytes& request)
    {
        line->receive(request);
        return text(line->transmit());
    }
    std::string afterWaiting(int ms)
    {
        clock.advance(std::chrono::milliseconds(ms));
        line->tick();
        return text(line->transmit());
    }

    VirtualClock clock;
    Bytes firstReply;
    Bytes secondReply;
    std::unique_ptr<Controller> controller;
    std::unique_ptr<FaultyLine> line;
    std::vector<std::string> events;
};

TEST_F(FaultyLineTest, ChangesNothingWithoutAScript)
{
    script("");
    EXPECT_EQ(after(kFirst), text(firstReply));
    EXPECT_EQ(after(kSecond), text(secondReply));
    EXPECT_TRUE(line->counts().empty());
}

TEST_F(FaultyLineTest, CountsARequestInPiecesAsOne)
{
    script("");
    EXPECT_EQ(after({kFirst.begin(), kFirst.begin() + 9}), "");
    EXPECT_EQ(after({kFirst.begin() + 9, kFirst.end()}), text(firstReply));
    EXPECT_EQ(line->messages(Side::Requests), 1u);
}

TEST_F(FaultyLineTest, PassesOnAnUnfinishedRequestAfterASilence)
{
    script("");
    after({kFirst.begin(), kFirst.begin() + 9});
    afterWaiting(60);
    EXPECT_EQ(after(kSecond), text(secondReply));
    EXPECT_EQ(controller->counters().abandoned, 1u);
}

TEST_F(FaultyLineTest, LosesOneByteOfOneReply)
{
    script(R"({"fault": "lose", "message": 2, "byte": 5})");
    EXPECT_EQ(after(kFirst), text(firstReply));
    Bytes expected = secondReply;
    expected.erase(expected.begin() + 4);
    EXPECT_EQ(after(kSecond), text(expected));
    EXPECT_EQ(events, std::vector<std::string>{"reply 2: byte 5: 01 lost"});
}

TEST_F(FaultyLineTest, FlipsTheNamedBitOfTheNamedByte)
{
    script(R"({"fault": "flip", "message": 1, "byte": 1, "bit": 3})");
    Bytes expected = firstReply;
    expected[0] = 0x18;
    EXPECT_EQ(after(kFirst), text(expected));
    EXPECT_EQ(events, std::vector<std::string>{"reply 1: byte 1: bit 3 flipped, 10 becomes 18"});
}

TEST_F(FaultyLineTest, MakesTheControllerRefuseARequestWithAFlippedBit)
{
    script(R"({"fault": "flip", "on": "requests", "message": 1, "byte": 7, "bit": 0})");
    EXPECT_EQ(after(kFirst), "10 15");
    EXPECT_EQ(controller->counters().corrupt, 1u);
}

TEST_F(FaultyLineTest, DoublesAndInsertsBytes)
{
    script(R"({"fault": "double", "message": 1, "byte": 2},
              {"fault": "insert", "message": 1, "byte": 1, "bytes": "10 15"})");
    EXPECT_EQ(after(kFirst), "10 15 10 06 06" + text(firstReply).substr(5));
}

TEST_F(FaultyLineTest, InsertsNoiseOfTheGivenLength)
{
    script(R"({"fault": "noise", "message": 1, "byte": 4, "length": 5})");
    line->receive(kFirst);
    const Bytes got = line->transmit();
    ASSERT_EQ(got.size(), firstReply.size() + 5);
    EXPECT_TRUE(std::equal(firstReply.begin(), firstReply.begin() + 3, got.begin()));
    EXPECT_TRUE(std::equal(firstReply.begin() + 3, firstReply.end(), got.begin() + 8));
}

TEST_F(FaultyLineTest, DoesNothingWhenTheByteIsBeyondTheEndOfTheMessage)
{
    script(R"({"fault": "lose", "message": 1, "byte": 5000})");
    EXPECT_EQ(after(kFirst), text(firstReply));
    EXPECT_TRUE(events.empty());
}

TEST_F(FaultyLineTest, DelaysAReplyByATime)
{
    script(R"({"fault": "delay", "message": 1, "seconds": 0.3})");
    EXPECT_EQ(after(kFirst), "");
    EXPECT_EQ(afterWaiting(299), "");
    EXPECT_EQ(afterWaiting(1), text(firstReply));
    EXPECT_EQ(events, std::vector<std::string>{"reply 1: delayed by 0.3 s"});
}

TEST_F(FaultyLineTest, KeepsTheOrderAfterADelayedReply)
{
    script(R"({"fault": "delay", "message": 1, "seconds": 0.3})");
    after(kFirst);
    EXPECT_EQ(after(kSecond), "");
    EXPECT_EQ(afterWaiting(300), text(firstReply + secondReply));
}

TEST_F(FaultyLineTest, HoldsAReplyUntilALaterReplyComes)
{
    script(R"({"fault": "delay", "message": 1, "later": 1})");
    EXPECT_EQ(after(kFirst), "");
    EXPECT_EQ(after(kSecond), text(firstReply + secondReply));
}

TEST_F(FaultyLineTest, SendsAReplyTwice)
{
    script(R"({"fault": "duplicate", "message": 1})");
    EXPECT_EQ(after(kFirst), text(firstReply + firstReply));
}

TEST_F(FaultyLineTest, SendsARequestTwiceAndTheControllerRecognisesTheRepeat)
{
    script(R"({"fault": "duplicate", "on": "requests", "message": 1})");
    EXPECT_EQ(after(kFirst), text(firstReply + hex("10 06")));
    EXPECT_EQ(controller->counters().duplicates, 1u);
}

TEST_F(FaultyLineTest, SendsAReplyInSingleBytesWithGaps)
{
    script(R"({"fault": "split", "message": 1, "seconds": 0.01})");
    EXPECT_EQ(after(kFirst), "10");
    EXPECT_EQ(afterWaiting(9), "");
    EXPECT_EQ(afterWaiting(1), "06");
    std::string rest;
    for (std::size_t i = 2; i < firstReply.size(); ++i)
        rest += " " + afterWaiting(10);
    EXPECT_EQ("10 06" + rest, text(firstReply));
}

TEST_F(FaultyLineTest, WithholdsAReplyButNotItsAcknowledgement)
{
    script(R"({"fault": "withhold", "message": 1})");
    EXPECT_EQ(after(kFirst), "10 06");
}

TEST_F(FaultyLineTest, WithholdsAnAcknowledgementButNotItsReply)
{
    script(R"({"fault": "withhold-ack", "message": 1})");
    EXPECT_EQ(after(kFirst), text(firstReply).substr(6));
}

TEST_F(FaultyLineTest, MakesTheControllerAskForALostAcknowledgement)
{
    script(R"({"fault": "withhold-ack", "on": "requests", "message": 2})");
    after(kFirst);
    after(kSecond);
    EXPECT_EQ(afterWaiting(1000), "10 05");
}

TEST_F(FaultyLineTest, RefusesARequestWithoutExecutingIt)
{
    script(R"({"fault": "nak", "on": "requests", "message": 1})");
    EXPECT_EQ(after(kFirst), "10 15");
    EXPECT_EQ(controller->counters().messages, 0u);
}

TEST_F(FaultyLineTest, ReplacesTheAckBeforeAReplyByANak)
{
    script(R"({"fault": "nak", "message": 1})");
    EXPECT_EQ(after(kFirst), "10 15" + text(firstReply).substr(5));
}

TEST_F(FaultyLineTest, SendsThePreviousReplyInsteadOfTheCurrentOne)
{
    script(R"({"fault": "previous", "message": [1, 2]})");
    EXPECT_EQ(after(kFirst), text(firstReply));
    EXPECT_EQ(after(kSecond), text(firstReply));
    EXPECT_EQ(line->counts().at(FaultKind::Previous), 1u);
}

TEST_F(FaultyLineTest, CarriesNothingInEitherDirectionWhileHungUp)
{
    script(R"({"fault": "hang-up", "message": 1, "seconds": 2})");
    EXPECT_EQ(after(kFirst), "");
    EXPECT_TRUE(line->isHungUp());
    EXPECT_EQ(after(kSecond), "");
    EXPECT_EQ(controller->counters().messages, 1u);
    afterWaiting(2000);
    EXPECT_FALSE(line->isHungUp());
    EXPECT_EQ(after(kSecond), text(secondReply));
}

TEST_F(FaultyLineTest, AnswersARequestWithAnErrorInsteadOfExecutingIt)
{
    script(R"({"fault": "cip-error", "message": 1, "status": 1, "extended": 263})");
    const Bytes error = hex("10 06") + framed(hex("01 00 4B 00 01 00 00 00 81 00 01 01 07 01"));
    EXPECT_EQ(after(kFirst), text(error));
    EXPECT_EQ(after(kSecond), text(secondReply));
    EXPECT_EQ(events, std::vector<std::string>{"request 1: answered with status 01"});
}

TEST_F(FaultyLineTest, AppliesARuleToItsOwnSideOnly)
{
    script(R"({"fault": "withhold", "on": "requests", "message": 2})");
    EXPECT_EQ(after(kFirst), text(firstReply));
    EXPECT_EQ(after(kSecond), "");
    EXPECT_EQ(line->messages(Side::Requests), 2u);
    EXPECT_EQ(line->messages(Side::Replies), 1u);
}

TEST_F(FaultyLineTest, HoldsTheNextReplyBackAfterALostAcknowledgement)
{
    script(R"({"fault": "withhold-ack", "on": "requests", "message": 2})");
    after(kFirst);
    EXPECT_EQ(after(kSecond), "10 06") << "the reply waits until the previous one is acknowledged";
    EXPECT_EQ(after(hex("10 06")), "") << "a message that belongs to it may follow at once";
    EXPECT_EQ(afterWaiting(5), text(secondReply).substr(6));
}

/// A fault in the second of two requests and its effect at the controller's end. Bytes 1 to 4 are
/// the acknowledgement and DLE STX; the data begin at byte 5.
struct RequestCase
{
    const char* fault;
    const char* answer; ///< how the answer begins
    unsigned corrupt;
    unsigned messages;
    const char* event;
};

const RequestCase kRequestCases[] = {
    {R"("fault": "lose", "byte": 6)", "10 15", 1, 1, "request 2: byte 6: 01 lost"},
    {R"("fault": "flip", "byte": 6, "bit": 7)", "10 15", 1, 1,
     "request 2: byte 6: bit 7 flipped, 01 becomes 81"},
    {R"("fault": "double", "byte": 6)", "10 15", 1, 1, "request 2: byte 6: 01 doubled"},
    {R"("fault": "insert", "byte": 6, "bytes": "55 AA")", "10 15", 1, 1,
     "request 2: byte 6: 55 AA inserted"},
    {R"("fault": "insert", "byte": 6, "bytes": "10 06")", "10 06 10 02", 0, 2,
     "request 2: byte 6: 10 06 inserted"},
    {R"("fault": "duplicate")", "10 06 10 02", 0, 2, "request 2: sent twice"},
    {R"("fault": "withhold")", "", 0, 1, "request 2: withheld"},
    {R"("fault": "nak")", "10 15", 0, 1, "request 2: refused with DLE NAK"},
    {R"("fault": "hang-up", "seconds": 3)", "", 0, 1, "request 2: the line hung up for 3 s"},
    {R"("fault": "delay", "later": 1)", "", 0, 1, "request 2: held until 1 later"},
};

TEST_F(FaultyLineTest, StrikesRequestsAsWellAsReplies)
{
    for (const RequestCase& each : kRequestCases) {
        script(std::string(R"({"on": "requests", "message": 2, )") + each.fault + "}");
        events.clear();
        after(kFirst);
        const std::string begin = each.answer;
        const std::string answer = after(kSecond);
        EXPECT_EQ(answer.substr(0, begin.empty() ? answer.size() : begin.size()), begin)
            << each.fault;
        EXPECT_EQ(controller->counters().corrupt, each.corrupt) << each.fault;
        EXPECT_EQ(controller->counters().messages, each.messages) << each.fault;
        EXPECT_EQ(events, std::vector<std::string>{each.event});
    }
}

TEST_F(FaultyLineTest, DelaysARequestAndSplitsItIntoSingleBytes)
{
    script(R"({"fault": "delay", "on": "requests", "message": 1, "seconds": 0.3},
              {"fault": "split", "on": "requests", "message": 1, "seconds": 0.01})");
    EXPECT_EQ(after(kFirst), "");
    EXPECT_EQ(afterWaiting(299 + 10 * static_cast<int>(kFirst.size() - 1)), "")
        << "the last byte has not arrived";
    EXPECT_EQ(afterWaiting(1), text(firstReply));
}

TEST_F(FaultyLineTest, InsertsNoiseIntoARequestWhichIsThenRefused)
{
    script(R"({"fault": "noise", "on": "requests", "message": 1, "byte": 9, "length": 7})");
    after(kFirst);
    EXPECT_EQ(controller->counters().messages, 0u);
    EXPECT_EQ(line->counts().at(FaultKind::Noise), 1u);
}

TEST_F(FaultyLineTest, DeliversAHeldRequestBeforeTheOneThatReleasesIt)
{
    script(R"({"fault": "delay", "on": "requests", "message": 1, "later": 1})");
    EXPECT_EQ(after(kFirst), "");
    EXPECT_EQ(after(kSecond), text(firstReply + secondReply));
}

// The faults and replies of 300 requests, with every fault at a rate.
std::vector<std::string> busyRun(std::uint64_t seed)
{
    std::string rules;
    std::size_t kinds = 0;
    for (const std::string& name : faultNames()) {
        for (const std::string side : {"requests", "replies"}) {
            if (name == (side == "requests" ? "previous" : "cip-error"))
                continue;
            ++kinds;
            rules += std::string(rules.empty() ? "" : ",") + "{\"fault\": \"" + name +
                     "\", \"on\": \"" + side + "\", \"rate\": 0.05" +
                     (name == "cip-error" ? ", \"status\": 8}"
                      : name == "hang-up" ? ", \"seconds\": 0.1}"
                                          : "}");
        }
    }
    VirtualClock clock;
    Controller controller(clock, TagTable());
    FaultyLine line(clock, controller, faultsFromText("{\"faults\": [" + rules + "]}", "f"), seed);
    std::vector<std::string> record;
    std::set<std::pair<Side, FaultKind>> seen;
    line.setObserver([&](const FaultyLine::Event& event) {
        record.push_back(describe(event));
        seen.insert({event.side, event.kind});
    });
    for (unsigned i = 0; i < 300; ++i) {
        Bytes data = kSecondData;
        data[4] = static_cast<std::uint8_t>(i % 16 + 32);
        data[5] = static_cast<std::uint8_t>(i / 16 + 32);
        line.receive(hex("10 06") + framed(data));
        record.push_back(text(line.transmit()));
        clock.advance(Duration(100000));
        line.tick();
        record.push_back(text(line.transmit()));
    }
    EXPECT_EQ(line.counts().size(), faultNames().size());
    EXPECT_EQ(seen.size(), kinds) << "each fault on each side that it can strike";
    return record;
}

TEST(FaultyLineRun, RepeatsWithTheSameSeedAndDiffersWithAnother)
{
    const std::vector<std::string> run = busyRun(42);
    EXPECT_EQ(run, busyRun(42));
    EXPECT_NE(run, busyRun(43));
}

} // namespace
} // namespace micro850::sim
