// A gateway with ser2net between it and the simulated controller: raw TCP and RFC 2217.

#include "device_server.h"
#include "gateway_fixture.h"

namespace {

using Json = GatewayClient::Json;
using Protocol = DeviceServer::Protocol;

const char kTags[] = R"({"name": "Speed", "type": "INT", "value": 1234},
                        {"name": "Level", "type": "REAL", "value": 41.5})";
const char kVariables[] = R"({"name": "Speed", "tag": "Speed", "writable": true},
                             {"name": "Level", "tag": "Level"})";

class GatewayDeviceServer : public GatewayTest, public ::testing::WithParamInterface<Protocol>
{
protected:
    // The line "press" over the network, and the line "oven" as it is.
    void SetUp() override
    {
        addLine(QStringLiteral("press"), kTags, kVariables);
        addLine(QStringLiteral("oven"), kTags, kVariables);
        DeviceServer::Settings settings;
        settings.protocol = GetParam();
        settings.device = device(QStringLiteral("press"));
        server = std::make_unique<DeviceServer>(settings);
        ASSERT_TRUE(server->start());
        file(QStringLiteral("press.json"),
             R"({"port": {"device": ")" + server->address().toStdString() +
                 R"("}, "stations": [{"number": 1}], "variables": [)" + kVariables + "]}");
        startGateway();
    }
    std::unique_ptr<GatewayClient> subscriber(const char* line)
    {
        auto client = connect();
        EXPECT_TRUE(
            client->request({{"request", "subscribe"}, {"line", line}}).contains("subscription"));
        return client;
    }
    static bool isGood(const Json& value) { return value["quality"] == "good"; }

    /// Takes events in their order until both variables have this quality, and returns them.
    static std::map<std::string, Json> bothBecome(GatewayClient& client, const char* quality)
    {
        std::map<std::string, Json> latest;
        const auto isThere = [&](const char* name) {
            return latest.count(name) > 0 && latest[name]["quality"] == quality;
        };
        while (!isThere("Speed") || !isThere("Level")) {
            const Json event = client.message(
                [](const Json& message) { return message.value("event", "") == "values"; });
            if (!event.is_object())
                return {};
            for (const Json& value : event["values"])
                latest[value["name"].get<std::string>()] = value;
        }
        return latest;
    }

    std::unique_ptr<DeviceServer> server;
};

} // namespace

TEST_P(GatewayDeviceServer, ReadsAndWritesThroughIt)
{
    const auto client = subscriber("press");
    EXPECT_EQ(client->value("Speed", isGood)["value"], 1234);
    EXPECT_EQ(client->value("Level", isGood)["value"], 41.5);
    const Json written = client->request(
        {{"request", "write"}, {"line", "press"}, {"name", "Speed"}, {"value", -5}});
    EXPECT_EQ(written["outcome"], "written") << written.dump();
    EXPECT_EQ(written["old"], 1234);
    EXPECT_EQ(written["verified"], true);
    EXPECT_TRUE(
        client->value("Speed", [](const Json& value) { return value["value"] == -5; }).is_object());
    const Json other = client->request(
        {{"request", "read"}, {"line", "oven"}, {"names", {"Speed"}}, {"fresh", true}});
    EXPECT_EQ(other["values"][0]["value"], 1234) << other.dump();
    const Json status = client->request({{"request", "status"}})["lines"][0];
    EXPECT_EQ(status["port"], server->address().toStdString());
    EXPECT_EQ(status["up"], true);
}

TEST_P(GatewayDeviceServer, SaysWhyValuesAreStaleWhileItIsGoneAndGoesOnAfterwards)
{
    const auto press = subscriber("press");
    const auto oven = subscriber("oven");
    ASSERT_FALSE(bothBecome(*press, "good").empty()) << log().toStdString();
    ASSERT_FALSE(bothBecome(*oven, "good").empty()) << log().toStdString();
    server->kill();
    auto stale = bothBecome(*press, "stale");
    ASSERT_FALSE(stale.empty()) << log().toStdString();
    EXPECT_EQ(stale["Speed"]["value"], 1234);
    EXPECT_EQ(stale["Level"]["value"], 41.5);
    for (const char* name : {"Speed", "Level"})
        EXPECT_NE(stale[name].value("error", "").find("127.0.0.1"), std::string::npos)
            << stale[name].dump();
    ASSERT_TRUE(waitForLog(QStringLiteral("press: line "), 2)) << log().toStdString();
    Json status;
    // The worker tells it once a second.
    EXPECT_TRUE(waitUntil([&] {
        status = press->request({{"request", "status"}})["lines"];
        return status[0]["up"] == false;
    })) << status.dump();
    EXPECT_NE(status[0]["error"].dump().find("127.0.0.1"), std::string::npos) << status.dump();
    EXPECT_EQ(status[1]["up"], true);
    const Json refused =
        press->request({{"request", "write"}, {"line", "press"}, {"name", "Speed"}, {"value", 9}});
    EXPECT_EQ(refused["error"]["code"], "unreachable") << refused.dump();

    ASSERT_TRUE(server->start());
    auto good = bothBecome(*press, "good");
    ASSERT_FALSE(good.empty()) << log().toStdString();
    EXPECT_FALSE(good["Level"].contains("error")) << good["Level"].dump();
    // The write was not carried out later, and the other line did not notice anything.
    const Json after = press->request(
        {{"request", "read"}, {"line", "press"}, {"names", {"Speed"}}, {"fresh", true}});
    EXPECT_EQ(after["values"][0]["value"], 1234) << after.dump();
    oven->request({{"request", "hello"}, {"client", "test"}});
    EXPECT_EQ(oven->waiting([](const Json& message) {
        return message.dump().find("stale") != std::string::npos;
    }),
              0);
    EXPECT_EQ(log().count(QStringLiteral("oven: ")), 2) << log().toStdString(); // up, connected
    EXPECT_EQ(log().count(QStringLiteral("the worker of this line ended")), 0);
}

INSTANTIATE_TEST_SUITE_P(Of, GatewayDeviceServer,
                         ::testing::Values(Protocol::Raw, Protocol::Rfc2217),
                         ::testing::PrintToStringParamName());
