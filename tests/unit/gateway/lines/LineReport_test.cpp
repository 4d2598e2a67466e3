#include "LineReport.h"

#include "poll_fixture.h"

using namespace micro850;
using namespace micro850::gateway;

namespace {

class LineReportTest : public PollTest
{
protected:
    void begin(const char* variables)
    {
        start(variables);
        report = std::make_unique<LineReport>(QStringLiteral("press"), project, *loop, clock);
    }
    // The values of all events that wait, by name; the last one of each.
    std::map<std::string, Json> news()
    {
        std::map<std::string, Json> all;
        report->collect();
        while (report->hasValues()) {
            const Json event = Json::parse(report->popValues().toStdString());
            for (const Json& value : event["values"]) {
                ++told;
                all[value["name"].get<std::string>()] = value;
            }
        }
        return all;
    }
    std::vector<Json> states()
    {
        std::vector<Json> all;
        report->collect();
        for (const QByteArray& event : report->popStates())
            all.push_back(Json::parse(event.toStdString()));
        return all;
    }
    void setSpeed(int value) { plc.tags["Speed"].elements[0] = wire::little(value, 2); }

    std::unique_ptr<LineReport> report;
    int told = 0;
};

const char kTwo[] = R"({"name": "Speed", "tag": "Speed"}, {"name": "Level", "tag": "Level"})";

} // namespace

TEST_F(LineReportTest, TellsAllVariablesAtFirst)
{
    begin(kTwo);
    const auto first = news();
    ASSERT_EQ(first.size(), 2U);
    EXPECT_EQ(first.at("Speed")["quality"], "never");
    EXPECT_TRUE(first.at("Speed")["value"].is_null());
    EXPECT_FALSE(first.at("Speed").contains("ageMs"));
    EXPECT_TRUE(news().empty());
}

TEST_F(LineReportTest, TellsAValueWithItsBytesAndAge)
{
    begin(kTwo);
    ASSERT_TRUE(runUntilRead());
    clock.advance(std::chrono::milliseconds(40));
    const Json value = news().at("Speed");
    EXPECT_EQ(value["line"], "press");
    EXPECT_EQ(value["type"], "INT");
    EXPECT_EQ(value["value"], 1234);
    EXPECT_EQ(value["bytes"], "d204");
    EXPECT_EQ(value["quality"], "good");
    EXPECT_GE(value["ageMs"], 40);
}

TEST_F(LineReportTest, KeepsOnlyTheNewestValueForASlowReader)
{
    begin(kTwo);
    ASSERT_TRUE(runUntilRead());
    news();
    told = 0;
    for (int value = 1; value <= 50; ++value) {
        setSpeed(value);
        runFor(300);
        report->collect();
    }
    const auto late = news();
    EXPECT_EQ(told, 1);
    EXPECT_EQ(late.at("Speed")["value"], 50);
}

TEST_F(LineReportTest, TellsThatValuesAreStaleWithTheReasonWhenTheLineIsLost)
{
    begin(kTwo);
    ASSERT_TRUE(runUntilRead());
    news();
    states();
    line.setPresent(false);
    ASSERT_TRUE(runUntil([this] { return !loop->lineIsUp(); }));
    const auto late = news();
    EXPECT_EQ(late.at("Speed")["quality"], "stale");
    EXPECT_EQ(late.at("Speed")["value"], 1234);
    EXPECT_EQ(late.at("Speed")["error"], "the device is gone");
    const std::vector<Json> down = states();
    ASSERT_EQ(down.size(), 1U);
    EXPECT_EQ(down[0]["state"], "down");
    EXPECT_FALSE(down[0].contains("station"));
    runFor(60000);
    EXPECT_TRUE(states().empty());
    EXPECT_TRUE(news().empty());
}

TEST_F(LineReportTest, TellsTheStationsAgainWhenTheLineIsBack)
{
    begin(kTwo);
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(states().size(), 2U);
    line.setPresent(false);
    ASSERT_TRUE(runUntil([this] { return !loop->lineIsUp(); }));
    states();
    line.setPresent(true);
    ASSERT_TRUE(runUntil([this] { return loop->lineIsUp(); }));
    runFor(1000);
    const std::vector<Json> back = states();
    ASSERT_EQ(back.size(), 2U);
    EXPECT_EQ(back[0]["state"], "up");
    EXPECT_EQ(back[1]["station"], 1);
    EXPECT_EQ(back[1]["state"], "connected");
    EXPECT_EQ(news().at("Speed")["quality"], "good");
}

TEST_F(LineReportTest, TellsTheReasonOfADeadStationOnce)
{
    begin(kTwo);
    ASSERT_TRUE(runUntilRead());
    states();
    plc.silent = true;
    std::vector<Json> all;
    for (int i = 0; i < 600; ++i) {
        runFor(1000);
        for (const Json& state : states())
            all.push_back(state);
    }
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0]["state"], "dead");
    EXPECT_EQ(news().at("Speed")["quality"], "stale");
}

TEST_F(LineReportTest, TellsTheAgesOfAllVariablesAndTheStatus)
{
    begin(kTwo);
    const QVector<QByteArray> before = report->ages();
    ASSERT_EQ(before.size(), 1);
    EXPECT_EQ(Json::parse(before[0].toStdString())["ages"], Json({nullptr, nullptr}));
    ASSERT_TRUE(runUntilRead());
    clock.advance(std::chrono::milliseconds(70));
    const Json event = Json::parse(report->ages()[0].toStdString());
    EXPECT_EQ(event["event"], "ages");
    EXPECT_EQ(event["first"], 0);
    EXPECT_GE(event["ages"][0], 70);
    EXPECT_LT(event["ages"][0], 1000);
    EXPECT_EQ(event["status"]["up"], true);
    EXPECT_EQ(event["status"]["stations"][0]["state"], "connected");
    EXPECT_GT(event["status"]["memoryKb"], 0);
}

TEST_F(LineReportTest, SplitsValuesAndAgesOfManyVariables)
{
    std::string many;
    for (int i = 0; i < 60000; ++i)
        many += (i ? ",{\"name\":\"V" : "{\"name\":\"V") + std::to_string(i) +
                "\",\"tag\":\"Level\",\"element\":" + std::to_string(i % 10) + "}";
    begin(many.c_str());
    const QVector<QByteArray> ages = report->ages();
    ASSERT_EQ(ages.size(), 2);
    const Json second = Json::parse(ages[1].toStdString());
    EXPECT_EQ(second["first"], 50000);
    EXPECT_EQ(second["ages"].size(), 10000U);
    int lines = 0;
    std::size_t longest = 0;
    report->collect();
    for (; report->hasValues(); ++lines)
        longest = std::max(longest, static_cast<std::size_t>(report->popValues().size()));
    EXPECT_GT(lines, 10);
    EXPECT_LT(longest, 128U * 1024);
}
