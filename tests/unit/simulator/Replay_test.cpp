#include "Replay.h"

#include "UserError.h"
#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

TraceRecord sent(const std::string& data)
{
    return {std::chrono::microseconds(0), Direction::Sent, hex("10 06") + framed(hex(data)), ""};
}

TraceRecord received(const std::string& data)
{
    return {std::chrono::microseconds(0), Direction::Received, hex("10 06") + framed(hex(data)),
            ""};
}

std::string answerOf(Replay& replay, const std::string& data)
{
    const std::optional<Bytes> reply = replay.answer(hex(data));
    return reply ? text(*reply) : "none";
}

// A read of a one-letter tag on connection 5A 3C, with this transaction number and sequence byte.
std::string readOf(const std::string& number, const std::string& sequence, const std::string& tag)
{
    return "00 01 0A 00 " + number + " 00 00 5A 3C " + sequence + " 45 52 02 91 01 " + tag +
           " 00 01 00 00 00 00 00";
}

std::string replyOf(const std::string& number, const std::string& sequence,
                    const std::string& value)
{
    return "01 00 4A 00 " + number + " 00 00 01 00 " + sequence + " 45 D2 00 00 00 C3 00 " + value;
}

TEST(Replay, AnswersAsRecordedWithTheNumbersOfTheNewRequest)
{
    Replay replay({sent(readOf("01 00", "08", "41")), received(replyOf("01 00", "08", "34 12"))},
                  "t");
    EXPECT_EQ(answerOf(replay, readOf("77 01", "7E", "41")), replyOf("77 01", "7E", "34 12"));
}

TEST(Replay, SendsTheRecordedRepliesInOrderAndStartsAgain)
{
    Replay replay({sent(readOf("01 00", "08", "41")), received(replyOf("01 00", "08", "01 00")),
                   sent(readOf("02 00", "09", "41")), received(replyOf("02 00", "09", "02 00"))},
                  "t");
    EXPECT_EQ(replay.size(), 1u);
    for (const char* value : {"01 00", "02 00", "01 00"})
        EXPECT_EQ(answerOf(replay, readOf("05 00", "0C", "41")), replyOf("05 00", "0C", value));
}

TEST(Replay, DoesNotAnswerARequestWithoutARecordedReply)
{
    Replay replay({sent(readOf("01 00", "08", "41")), received(replyOf("01 00", "08", "01 00")),
                   sent(readOf("02 00", "09", "42"))},
                  "t");
    EXPECT_EQ(answerOf(replay, readOf("03 00", "0A", "42")), "none");
    EXPECT_EQ(answerOf(replay, readOf("03 00", "0A", "43")), "none");
}

TEST(Replay, IgnoresRepliesToOtherRequestsAndRepeatedRequests)
{
    Replay replay({sent(readOf("01 00", "08", "41")), sent(readOf("01 00", "08", "41")),
                   received(replyOf("00 00", "07", "66 66")),
                   received(replyOf("01 00", "08", "01 00"))},
                  "t");
    EXPECT_EQ(answerOf(replay, readOf("03 00", "0A", "41")), replyOf("03 00", "0A", "01 00"));
}

TEST(Replay, RecognisesAForwardOpenWithAnySerialNumber)
{
    Replay replay({sent("00 01 0B 00 01 00 00 00 54 02 20 06 24 01 05 F7 11 22 33"),
                   received("01 00 4B 00 01 00 00 00 D4 00 00 00 5A 3C")},
                  "t");
    EXPECT_EQ(answerOf(replay, "00 01 0B 00 09 00 00 00 54 02 20 06 24 01 05 F7 44 55 66"),
              "01 00 4B 00 09 00 00 00 D4 00 00 00 5A 3C");
}

TEST(Replay, RecognisesAForwardCloseWithAnySerialNumber)
{
    Replay replay({sent("00 01 0B 00 01 00 00 00 4E 02 20 06 24 01 05 F7 11 22 33"),
                   received("01 00 4B 00 01 00 00 00 CE 00 00 00 11 22")},
                  "t");
    EXPECT_EQ(answerOf(replay, "00 01 0B 00 09 00 00 00 4E 02 20 06 24 01 05 F7 44 55 66"),
              "01 00 4B 00 09 00 00 00 CE 00 00 00 11 22");
}

TEST(Replay, RefusesATraceWithoutAnyAnswer)
{
    try {
        Replay replay({sent(readOf("01 00", "08", "41"))}, "t.txt");
        FAIL();
    } catch (const UserError& error) {
        EXPECT_STREQ(error.what(),
                     "t.txt: no request in it has a reply (record a session that worked)");
    }
}

} // namespace
} // namespace micro850::sim
