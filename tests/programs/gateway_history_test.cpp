// The history of a gateway that runs: a disk that is full for a while, and a reload.

#include "gateway_fixture.h"
#include "program_fixture.h"
#include "small_disk.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <unistd.h>

namespace {

using Json = GatewayClient::Json;

const char kTags[] = R"({"name": "Speed", "type": "DINT", "value": 1000},
                        {"name": "Level", "type": "REAL", "value": 41.5})";
const char kVariables[] = R"({"name": "Speed", "tag": "Speed", "writable": true},
                             {"name": "Level", "tag": "Level", "intervalMs": 100})";

class GatewayHistory : public GatewayTest
{
protected:
    void keepHistory(const std::string& file)
    {
        setConfigurationKeys(R"("history": {"file": ")" + file + R"("}, )");
    }
    static Json writeSpeed(GatewayClient& client, int value)
    {
        return client.request({{"request", "write"}, {"name", "Speed"}, {"value", value}});
    }
    static std::string stateIn(GatewayClient& client)
    {
        const Json status = client.request({{"request", "status"}});
        return status["history"]["state"].get<std::string>();
    }
    /// What micro850-host reads in the file; nothing before there is a history.
    std::vector<Json> rowsOf(const QString& file, const QStringList& options)
    {
        const Result result = runProgram(
            MICRO850_HOST, QStringList{"history", path(file), "--json", "--quiet"} + options);
        readError = result.err;
        std::vector<Json> rows;
        for (const QString& line : linesOf(result.out)) {
            if (!line.isEmpty())
                rows.push_back(Json::parse(line.toStdString()));
        }
        return rows;
    }
    std::vector<int> speedsIn(const QString& file)
    {
        std::vector<int> speeds;
        for (const Json& row : rowsOf(file, {"--match", "Speed"})) {
            if (!row["value"].is_null()) // not read yet since a reload
                speeds.push_back(row["value"].get<int>());
        }
        return speeds;
    }
    int lastSpeedIn(const QString& file)
    {
        const std::vector<int> speeds = speedsIn(file);
        return speeds.empty() ? -1 : speeds.back();
    }

    std::string readError;
};

} // namespace

TEST_F(GatewayHistory, StopsAtAFullDiskWithAnAlarmWhileTheLinesGoOnAndContinuesByItself)
{
    const SmallDisk disk(path("disk"));
    keepHistory("disk/h.sqlite");
    addLine("press", kTags, kVariables);
    startGateway();
    const auto client = connect();
    client->request({{"request", "subscribe"}, {"match", "Speed"}});
    const auto watcher = connect();
    watcher->request({{"request", "subscribe"}, {"match", "Level"}});
    int speed = 1000;
    const auto next = [&] {
        const Json written = writeSpeed(*client, ++speed);
        EXPECT_EQ(written["outcome"], "written") << written.dump();
        const auto isNext = [&](const Json& value) { return value["value"] == speed; };
        EXPECT_TRUE(client->value("Speed", isNext).is_object());
    };
    next();
    ASSERT_TRUE(waitUntil([&] { return lastSpeedIn("disk/h.sqlite") == speed; })) << readError;
    disk.fill();
    ASSERT_TRUE(waitUntil([&] {
        next();
        return stateIn(*client) == "stopped";
    }));
    const auto isHistory = [](const char* state) {
        return [state](const Json& message) {
            return message.value("event", "") == "state" && message.value("state", "") == state;
        };
    };
    const Json alarm = watcher->message(isHistory("history stopped"));
    ASSERT_TRUE(alarm.is_object());
    EXPECT_NE(alarm["text"].get<std::string>().find("h.sqlite"), std::string::npos) << alarm.dump();
    const Json status = client->request({{"request", "status"}});
    EXPECT_EQ(status["history"]["reason"], alarm["text"]);
    EXPECT_EQ(status["lines"][0]["up"], true);

    // Readings and subscribers go on, for longer than some attempts to record take.
    const int lastRecorded = lastSpeedIn("disk/h.sqlite");
    EXPECT_GE(lastRecorded, 1001) << readError;
    const auto reader = connect();
    reader->request({{"request", "subscribe"}, {"match", "Level"}, {"ages", true}});
    for (int second = 0; second < 5; ++second) {
        next();
        const Json ages = reader->message([](const Json& message) {
            return message.value("event", "") == "ages" && message["ages"][0]["ageMs"] < 1000;
        });
        EXPECT_TRUE(ages.is_object()) << "Level is not read";
    }
    EXPECT_EQ(stateIn(*client), "stopped");
    EXPECT_EQ(lastSpeedIn("disk/h.sqlite"), lastRecorded) << readError;
    EXPECT_EQ(log().count("h.sqlite"), 1) << log().toStdString();
    EXPECT_EQ(watcher->waiting(isHistory("history stopped")), 0);

    disk.empty();
    EXPECT_TRUE(watcher->message(isHistory("history recording")).is_object());
    // What was written meanwhile waited. Behind it all values are recorded once more.
    std::vector<int> all;
    for (int value = 1000; value <= speed; ++value)
        all.push_back(value);
    all.push_back(speed);
    ASSERT_TRUE(waitUntil([&] { return speedsIn("disk/h.sqlite").size() >= all.size(); }))
        << readError;
    next();
    all.push_back(speed);
    ASSERT_TRUE(waitUntil([&] { return lastSpeedIn("disk/h.sqlite") == speed; })) << readError;
    EXPECT_EQ(log().count("h.sqlite"), 2) << log().toStdString();
    EXPECT_EQ(stateIn(*client), "recording");
    EXPECT_EQ(speedsIn("disk/h.sqlite"), all) << "nothing else is lost or there twice";
    int stops = 0;
    for (const Json& row : rowsOf("disk/h.sqlite", {"--events"}))
        stops += row["state"] == "history stopped" ? 1 : 0;
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(stopGateway(), 0);
}

TEST_F(GatewayHistory, GoesOnInAnotherFileWithNewDeadBandsUnderASubscriberAfterAReload)
{
    keepHistory("old.sqlite");
    addLine("press", kTags, kVariables);
    startGateway();
    const auto client = connect();
    client->request({{"request", "subscribe"}, {"match", "Speed"}});
    const auto isSpeed = [](int wanted) {
        return [wanted](const Json& value) {
            return value["value"] == wanted && value["quality"] == "good";
        };
    };
    ASSERT_TRUE(client->value("Speed", isSpeed(1000)).is_object());
    writeSpeed(*client, 1001);
    ASSERT_TRUE(client->value("Speed", isSpeed(1001)).is_object());
    ASSERT_TRUE(waitForLog("press: station 1: connected")) << log().toStdString();

    keepHistory("new.sqlite");
    configure();
    changeProject("press", R"({"name": "Speed", "tag": "Speed", "writable": true, "deadband": 10},
                              {"name": "Level", "tag": "Level"})");
    reloadGateway();
    EXPECT_TRUE(
        client
            ->message([](const Json& message) { return message.value("event", "") == "reloaded"; })
            .is_object());
    ASSERT_TRUE(waitForLog("press: station 1: connected", 2)) << log().toStdString();
    // Another file begins with what holds on.
    ASSERT_TRUE(waitUntil([this] { return lastSpeedIn("new.sqlite") == 1001; })) << readError;
    for (const int value : {1005, 1011, 1012, 1030, 1031, 1021, 1020, 1019}) {
        const Json written = writeSpeed(*client, value);
        EXPECT_EQ(written["outcome"], "written") << written.dump();
    }
    // 1001 was told last. The band is around what was told.
    std::vector<int> told;
    client->value("Speed", [&told](const Json& value) {
        if (!value["value"].is_null()) // as it was before the first reading
            told.push_back(value["value"].get<int>());
        return value["value"] == 1019;
    });
    EXPECT_EQ(told, (std::vector<int>{1012, 1030, 1019}));
    ASSERT_TRUE(waitUntil([this] { return lastSpeedIn("new.sqlite") == 1019; })) << readError;
    EXPECT_EQ(speedsIn("new.sqlite"), (std::vector<int>{1001, 1012, 1030, 1019}));
    EXPECT_EQ(speedsIn("old.sqlite"), (std::vector<int>{1000, 1001}));
    const Json history = client->request({{"request", "history"}, {"name", "Speed"}})["values"];
    ASSERT_EQ(history.size(), 4U) << history.dump();
    EXPECT_EQ(history[1]["value"], 1012);
    EXPECT_EQ(log().count("the worker of this line ended"), 0);
}
