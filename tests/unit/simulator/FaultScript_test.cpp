#include "FaultScript.h"

#include "UserError.h"
#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

FaultScript scriptOf(const std::string& rules)
{
    return faultsFromText("{\"faults\": [" + rules + "]}", "f.json");
}

std::string complaintAbout(const std::string& rules)
{
    try {
        scriptOf(rules);
    } catch (const UserError& error) {
        return error.what();
    }
    return "none";
}

TEST(FaultScript, StrikesAnyByteOfRepliesByDefault)
{
    const FaultScript script = scriptOf(R"({"fault": "lose", "rate": 0.25})");
    ASSERT_EQ(script.size(), 1u);
    EXPECT_EQ(script[0].kind, FaultKind::LoseByte);
    EXPECT_EQ(script[0].side, Side::Replies);
    EXPECT_EQ(script[0].rate, 0.25);
    EXPECT_TRUE(script[0].messages.empty());
    EXPECT_EQ(script[0].byte, 0u);
}

TEST(FaultScript, AcceptsOneMessageOrAListOfMessages)
{
    const FaultScript script = scriptOf(
        R"({"fault": "flip", "on": "requests", "message": 3, "byte": 7, "bit": 2},
           {"fault": "insert", "message": [1, 5], "bytes": "10 15"})");
    EXPECT_EQ(script[0].side, Side::Requests);
    EXPECT_EQ(script[0].messages, std::vector<unsigned>{3});
    EXPECT_EQ(script[0].byte, 7u);
    EXPECT_EQ(script[0].bit, 2);
    EXPECT_EQ(script[1].messages, (std::vector<unsigned>{1, 5}));
    EXPECT_EQ(text(script[1].bytes), "10 15");
}

TEST(FaultScript, KnowsEveryFaultByItsName)
{
    const FaultScript script = scriptOf(R"(
        {"fault": "lose", "message": 1}, {"fault": "flip", "message": 1},
        {"fault": "double", "message": 1}, {"fault": "insert", "message": 1},
        {"fault": "noise", "message": 1, "length": 5},
        {"fault": "delay", "message": 1, "later": 2}, {"fault": "duplicate", "message": 1},
        {"fault": "split", "message": 1, "seconds": 0.01}, {"fault": "withhold", "message": 1},
        {"fault": "withhold-ack", "message": 1}, {"fault": "nak", "message": 1},
        {"fault": "hang-up", "message": 1, "seconds": 2}, {"fault": "previous", "message": 1},
        {"fault": "cip-error", "message": 1, "status": 255, "extended": 8453})");
    ASSERT_EQ(script.size(), faultNames().size());
    for (std::size_t i = 0; i < script.size(); ++i)
        EXPECT_EQ(static_cast<std::size_t>(script[i].kind), i) << faultNames()[i];
    EXPECT_EQ(script[4].length, 5u);
    EXPECT_EQ(script[5].later, 2u);
    EXPECT_EQ(script[7].time, Duration(10000));
    EXPECT_EQ(script[11].time, Duration(2000000));
    EXPECT_EQ(script[13].side, Side::Requests);
    EXPECT_EQ(script[13].failure.status, 0xFF);
    EXPECT_EQ(script[13].failure.extended, 0x2105);
}

TEST(FaultScript, ErrorNamesThePlaceAndTheRemedy)
{
    EXPECT_EQ(complaintAbout(R"({"fault": "dely", "rate": 1})").substr(0, 78),
              "f.json: faults[0].fault: \"dely\" is not a fault (did you mean delay?) (lose, fl");
    EXPECT_EQ(complaintAbout(R"({"fault": "lose", "rate": 1, "on": "both"})"),
              "f.json: faults[0].on: \"both\" is not a side of the line (requests or replies)");
    EXPECT_EQ(complaintAbout(R"({"fault": "previous", "rate": 1, "on": "requests"})"),
              "f.json: faults[0].on: this fault strikes replies only");
    EXPECT_EQ(complaintAbout(R"({"fault": "cip-error", "rate": 1, "status": 8, "on": "replies"})"),
              "f.json: faults[0].on: this fault strikes requests only");
    EXPECT_EQ(complaintAbout(R"({"fault": "lose", "rate": 1.5})"),
              "f.json: faults[0].rate: a rate is 0 to 1");
    EXPECT_EQ(complaintAbout(R"({"fault": "lose"})"),
              "f.json: faults[0]: give either \"rate\" (0 to 1) or \"message\" (a number or a list "
              "of them)");
    EXPECT_EQ(complaintAbout(R"({"fault": "lose", "message": []})"),
              "f.json: faults[0].message: name at least one message; the first is 1");
    EXPECT_EQ(complaintAbout(R"({"fault": "insert", "message": 1, "bytes": "1 06"})"),
              "f.json: faults[0].bytes: not bytes in hexadecimal, like \"10 06\"");
    EXPECT_EQ(complaintAbout(R"({"fault": "insert", "message": 1, "bytes": "0x10"})"),
              "f.json: faults[0].bytes: not bytes in hexadecimal, like \"10 06\"");
    EXPECT_EQ(complaintAbout(R"({"fault": "delay", "message": 1, "seconds": 4000})"),
              "f.json: faults[0].seconds: a time is 0 to 3600 seconds");
    EXPECT_EQ(complaintAbout(R"({"fault": "delay", "message": 1, "seconds": 1, "later": 1})"),
              "f.json: faults[0]: a delay is either \"seconds\" or \"later\" messages long");
    EXPECT_NE(complaintAbout(R"({"fault": "lose", "message": 1, "bit": 1})").find("faults[0]"),
              std::string::npos);
    EXPECT_NE(complaintAbout(R"({"fault": "cip-error", "message": 1})").find("status"),
              std::string::npos);
}

} // namespace
} // namespace micro850::sim
