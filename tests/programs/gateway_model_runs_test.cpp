// Runs of the model of the link that chance chose, as fault scripts of the simulator, with the
// programs: what the model proves of the host's care is what a client of the gateway sees.

#include "gateway_fixture.h"

#include <QtCore/QRegularExpression>

#include <algorithm>
#include <fstream>

namespace {

using Json = nlohmann::json;

const int kBefore = 3;
const int kWritten = 7;

class GatewayModelRun : public GatewayTest, public ::testing::WithParamInterface<int>
{
protected:
    GatewayModelRun()
    {
        std::ifstream sample(std::string(MODEL_RUNS) + "/sample-" + std::to_string(GetParam()) +
                             ".json");
        run = Json::parse(sample);
        file(QStringLiteral("faults.json"), Json{{"faults", run["faults"]}}.dump());
    }
    void start()
    {
        addLineOnly(QStringLiteral("press"),
                    R"({"name": "A", "type": "INT", "value": 111},
                       {"name": "B", "type": "INT", "value": 222},
                       {"name": "W", "type": "INT", "value": 3})",
                    R"({"tag": "A", "intervalMs": 50}, {"tag": "B", "intervalMs": 50},
                       {"tag": "W", "writable": true})",
                    R"("staleAfterMs": 2000,)");
        startSimulator(QStringLiteral("press"),
                       {QStringLiteral("--faults"), path(QStringLiteral("faults.json"))});
        startGateway();
        client = connect();
        ASSERT_TRUE(client->isConnected());
        ASSERT_TRUE(client->request({{"request", "subscribe"}}).contains("variables"));
    }
    unsigned messages()
    {
        const auto found = QRegularExpression(QStringLiteral("(\\d+) messages?"))
                               .match(simulatorStatus(QStringLiteral("press")));
        EXPECT_TRUE(found.hasMatch());
        return found.captured(1).toUInt();
    }
    // The value that the controller has now, asked for until it answers.
    int valueOf(const char* name)
    {
        int value = -1;
        EXPECT_TRUE(waitUntil([&] {
            const Json reply =
                client->request({{"request", "read"}, {"names", {name}}, {"fresh", true}});
            if (!reply.contains("values") || reply["values"][0]["quality"] != "good")
                return false;
            value = reply["values"][0]["value"];
            return true;
        })) << name;
        return value;
    }
    int foreignValues() const
    {
        return client->waiting([](const Json& message) {
            if (message.value("event", "") != "values")
                return false;
            for (const Json& value : message["values"]) {
                const int own = value["name"] == "A" ? 111 : value["name"] == "B" ? 222 : -1;
                if (own >= 0 && value["quality"] == "good" && value["value"] != own)
                    return true;
            }
            return false;
        });
    }

    Json run;
    std::unique_ptr<GatewayClient> client;
};

TEST_P(GatewayModelRun, KeepsWhatTheModelProves)
{
    start();
    const unsigned before = run["writesBefore"][0];
    ASSERT_TRUE(waitUntil([&] { return messages() + 1 >= before; }));
    const Json reply = client->request({{"request", "write"}, {"name", "W"}, {"value", kWritten}});
    const int value = valueOf("W");
    if (reply.contains("error")) {
        EXPECT_TRUE(value == kBefore || reply["error"]["code"] == "unknown-outcome") << reply;
    } else {
        EXPECT_EQ(reply["outcome"], "written");
        EXPECT_EQ(value, kWritten) << reply;
    }
    unsigned last = 0;
    for (const Json& fault : run["faults"])
        last = std::max(last, fault["message"].get<unsigned>());
    EXPECT_TRUE(waitUntil([&] { return messages() > last; })) << "all faults have struck";
    EXPECT_EQ(valueOf("A"), 111);
    EXPECT_EQ(valueOf("B"), 222);
    EXPECT_EQ(foreignValues(), 0);
}

INSTANTIATE_TEST_SUITE_P(Samples, GatewayModelRun, ::testing::Range(1, 25));

} // namespace
