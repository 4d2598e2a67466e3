#include "LineStatus.h"

#include "Message.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

LineStatus pressStatus()
{
    LineStatus status;
    status.line = {"/dev/ttyUSB0", "/dev/ttyUSB0, 38400 8N1", false, "gone", "gone away"};
    status.figures = {12.5, 40, 3ms, std::nullopt, 2, 140, "the line is 140 % asked for", {}};
    status.figures.roundTrips.counts[4] = 3; // above 20 ms, up to 30 ms
    status.figures.roundTrips.counts.back() = 1;
    status.figures.roundTrips.sum = 5075500us;
    StationView station;
    station.number = 7;
    station.name = "press";
    station.state = "line down";
    station.problem = "gone";
    station.isConnected = false;
    station.isServed = false;
    station.lastAnswer = 60s;
    station.counters.sent = 100;
    station.counters.timedOut = 4;
    station.counters.bytesReceived = 5000000000;
    station.counters.errors["04"] = 3;
    status.stations = {station};
    return status;
}

micro850::JsonNode nodeOf(const Json& object)
{
    return messageIn(lineOf(object), "status");
}

} // namespace

TEST(LineStatusObject, BringsTheStatusToAnotherProgramWithAnotherClock)
{
    const LineStatus status = lineStatusOf(nodeOf(jsonOf(pressStatus(), 90s)), 1030s);
    EXPECT_EQ(status.line.device, QString("/dev/ttyUSB0"));
    EXPECT_EQ(status.line.text, QString("/dev/ttyUSB0, 38400 8N1"));
    EXPECT_FALSE(status.line.isUp);
    EXPECT_EQ(status.line.error, QString("gone"));
    EXPECT_EQ(status.line.reportedError, QString("gone away"));
    EXPECT_EQ(status.figures.transactionsPerSecond, 12.5);
    EXPECT_EQ(status.figures.percentInUse, 40);
    EXPECT_TRUE(status.figures.roundTripMedian == 3ms);
    EXPECT_FALSE(status.figures.roundTrip99);
    EXPECT_EQ(status.figures.reopened, 2);
    EXPECT_EQ(status.figures.percentAsked, 140);
    EXPECT_EQ(status.figures.overload, QString("the line is 140 % asked for"));
    EXPECT_EQ(status.figures.roundTrips.counts, pressStatus().figures.roundTrips.counts);
    EXPECT_TRUE(status.figures.roundTrips.sum == 5075500us);
    ASSERT_EQ(status.stations.size(), 1);
    const StationView& station = status.stations.first();
    EXPECT_EQ(station.number, 7);
    EXPECT_EQ(station.name, QString("press"));
    EXPECT_EQ(station.state, QString("line down"));
    EXPECT_EQ(station.problem, QString("gone"));
    EXPECT_FALSE(station.isConnected);
    EXPECT_FALSE(station.isServed);
    EXPECT_TRUE(station.lastAnswer == 1000s); // 30 seconds ago, too
    EXPECT_EQ(station.counters.sent, 100);
    EXPECT_EQ(station.counters.timedOut, 4);
    EXPECT_EQ(station.counters.bytesReceived, 5000000000);
    EXPECT_EQ(station.counters.errors.value("04"), 3);
}

TEST(LineStatusObject, HasTheKeysOfTheSummaryAndMore)
{
    const Json object = jsonOf(pressStatus(), 90s);
    const Json summary = summaryOf(pressStatus());
    for (const auto& item : summary.items())
        EXPECT_TRUE(object.contains(item.key())) << item.key();
    EXPECT_EQ(summary["stations"][0]["errors"]["04"], 3);
    EXPECT_FALSE(summary.contains("settings"));
}

TEST(LineStatusObject, TellsTheLimitsOfItsRoundTrips)
{
    const Json roundTrips = jsonOf(pressStatus(), 90s)["roundTrips"];
    EXPECT_EQ(roundTrips["limitsMs"][4], 30);
    EXPECT_EQ(roundTrips["counts"][4], 3);
    EXPECT_EQ(roundTrips["counts"].size(), roundTrips["limitsMs"].size() + 1);
    EXPECT_EQ(roundTrips["sumMs"], 5075.5);
}

TEST(LineStatusObject, MayHaveRoundTripsWithLimitsOfAnotherVersion)
{
    const char* const other =
        R"({"roundTrips": {"limitsMs": [1, 3], "counts": [7, 8, 9], "sumMs": 40}})";
    const LineStatus status = lineStatusOf(messageIn(other, "status"), 1s);
    for (const qint64 count : status.figures.roundTrips.counts)
        EXPECT_EQ(count, 0);
}

TEST(LineStatusObject, MayLackKeys)
{
    const LineStatus status = lineStatusOf(nodeOf(Json::object()), 1s);
    EXPECT_FALSE(status.line.isUp);
    EXPECT_TRUE(status.stations.isEmpty());
}

TEST(LineStatusObject, NamesTheKeyOfAValueThatIsNotAllowed)
{
    const char* const wrong[] = {
        R"({"port": 5})",
        R"({"up": "yes"})",
        R"({"reopened": -1})",
        R"({"roundTrips": 1})",
        R"({"roundTrips": {"limitsMs": [2, 5, 10, 20, 30, 50, 75, 100, 150, 200, 300, 500, 1000,)"
        R"( 2000, 5000], "counts": [1], "sumMs": 1}})",
        R"({"stations": 1})",
        R"({"stations": [{"station": 70000, "state": "dead"}]})",
        R"({"stations": [{"station": 1}]})",
        R"({"stations": [{"station": 1, "state": "dead", "errors": []}]})",
        R"({"stations": [{"station": 1, "state": "dead", "errors": {"04": "x"}}]})",
    };
    for (const char* const text : wrong)
        EXPECT_THROW(lineStatusOf(messageIn(text, "status"), 1s), micro850::UserError) << text;
}
