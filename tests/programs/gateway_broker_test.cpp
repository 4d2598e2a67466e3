// The processes that deliver to brokers, and how the gateway watches over them: the real gateway
// and broker, a simulated controller.

#include "broker.h"
#include "gateway_fixture.h"
#include "mqtt_receiver.h"
#include "program_fixture.h"

#include <csignal>
#include <fstream>
#include <set>
#include <thread>

namespace {

using Json = nlohmann::json;
using Messages = MqttReceiver::Messages;

const char kTags[] = R"({"name": "Count", "type": "DINT",
                         "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.05}})";
const char kVariables[] = R"({"name": "Count", "tag": "Count", "type": "DINT", "intervalMs": 50})";

Json parsed(const std::string& text)
{
    return Json::parse(text, nullptr, false);
}

/// The sequence numbers of line "press" that came, with those of each series apart, and how many
/// came twice.
struct Account
{
    std::map<long long, std::set<long long>> sequences;
    int doubles = 0;

    explicit Account(const Messages& messages)
    {
        for (const auto& message : messages) {
            const Json object = parsed(message.payload);
            if (!object.is_object() || !object.contains("sequence") ||
                object.value("repeated", false))
                continue;
            doubles +=
                sequences[object["series"]].insert(object["sequence"].get<long long>()).second ? 0
                                                                                               : 1;
        }
    }
    bool isWithoutGaps() const
    {
        return std::all_of(sequences.begin(), sequences.end(), [](const auto& series) {
            return *series.second.begin() == 1 &&
                   *series.second.rbegin() == static_cast<long long>(series.second.size());
        });
    }
    long long last() const { return sequences.empty() ? 0 : *sequences.rbegin()->second.rbegin(); }
};

class GatewayBroker : public GatewayTest
{
protected:
    std::string section(const std::string& prefix = "plant",
                        const std::string& keys = std::string()) const
    {
        return R"("mqtt": {"broker": {"host": "127.0.0.1", "port": )" +
               std::to_string(broker.port()) + R"(, "spreadMs": 0}, "prefix": ")" + prefix +
               R"(", )" + keys + R"("queue": {"file": "queue.sqlite"}}, )";
    }
    void start(const QStringList& environment = QStringList())
    {
        setConfigurationKeys(section());
        addLine("press", kTags, kVariables);
        ASSERT_NO_FATAL_FAILURE(startGateway(environment));
    }
    MqttReceiver::Settings receiving(const std::string& topic = "plant/press/#") const
    {
        MqttReceiver::Settings settings;
        settings.port = broker.port();
        settings.topics = {topic};
        return settings;
    }
    Json delivery()
    {
        GatewayClient client(socketPath());
        return client.request({{"request", "status"}}).value("delivery", Json::object());
    }
    /// 0 while none runs.
    int process()
    {
        const Json pid = delivery().value("mqtt", Json::object()).value("pid", Json());
        return pid.is_number() ? pid.get<int>() : 0;
    }
    /// Waits until so many messages came, from now on.
    static bool waitForMore(const MqttReceiver& receiver, long long count)
    {
        const long long before = Account(receiver.messages()).last();
        return receiver.waitFor(
            [&](const Messages& messages) { return Account(messages).last() >= before + count; });
    }

    TestBroker broker;
};

TEST_F(GatewayBroker, LosesNothingWhenItsProcessIsKilledAgainAndAgain)
{
    ASSERT_NO_FATAL_FAILURE(start());
    MqttReceiver receiver(receiving());
    ASSERT_TRUE(waitForMore(receiver, 20));
    for (int i = 0; i < 3; ++i) {
        const int killed = process();
        ASSERT_GT(killed, 0);
        ASSERT_EQ(::kill(killed, SIGKILL), 0);
        ASSERT_TRUE(waitUntil([&] {
            const int now = process();
            return now > 0 && now != killed;
        }));
        ASSERT_TRUE(waitForMore(receiver, 20));
    }
    const Account account(receiver.messages());
    EXPECT_EQ(account.sequences.size(), 1u);
    EXPECT_TRUE(account.isWithoutGaps());
    EXPECT_LE(account.doubles, 3 * 1000);
    EXPECT_EQ(delivery()["mqtt"]["leftOut"], 0);
}

TEST_F(GatewayBroker, EndsAProcessThatStandsStillAndLosesNothing)
{
    ASSERT_NO_FATAL_FAILURE(start({QStringLiteral("MICRO850_GATEWAY_HEARTBEAT_MS=3000")}));
    MqttReceiver receiver(receiving());
    ASSERT_TRUE(waitForMore(receiver, 10));
    const int stopped = process();
    ASSERT_EQ(::kill(stopped, SIGSTOP), 0);
    ASSERT_TRUE(waitUntil([&] {
        const int now = process();
        return now > 0 && now != stopped;
    }));
    ASSERT_TRUE(waitForMore(receiver, 60));
    EXPECT_TRUE(Account(receiver.messages()).isWithoutGaps());
}

TEST_F(GatewayBroker, GoesOnWithItsQueueAfterAReloadThatChangedOrRemovedItsSection)
{
    ASSERT_NO_FATAL_FAILURE(start());
    MqttReceiver receiver(receiving("#"));
    ASSERT_TRUE(waitForMore(receiver, 10));
    const int first = process();
    const auto reload = [this](const std::string& keys) {
        setConfigurationKeys(keys);
        configure();
        reloadGateway();
    };
    reload(section());
    EXPECT_EQ(process(), first); // nothing changed
    reload(section("other"));
    ASSERT_TRUE(receiver.waitFor([](const Messages& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const auto& message) {
            return message.topic == "other/press/1/Count";
        });
    }));
    EXPECT_NE(process(), first);
    reload("");
    ASSERT_TRUE(waitUntil([this] { return delivery().empty(); }));
    EXPECT_EQ(parsed(receiver.messageOn("plant/status").payload)["state"], "online");
    const auto isOffline = [](const Messages& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const auto& message) {
            return message.topic == "other/status" && parsed(message.payload)["state"] == "offline";
        });
    };
    EXPECT_TRUE(receiver.waitFor(isOffline));
    EXPECT_TRUE(Account(receiver.messages()).isWithoutGaps());
}

TEST_F(GatewayBroker, RefusesAnOrderThatExpiredWhileAProcessStoodStill)
{
    setConfigurationKeys(section("plant", R"("orders": {}, )"));
    addLine("press", R"({"name": "Setpoint", "type": "INT", "value": 7})",
            R"({"name": "Setpoint", "tag": "Setpoint", "intervalMs": 50, "writable": true})");
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving());
    receiver.messageOn("plant/press/1/Setpoint");
    const int delivering = process();
    ASSERT_GT(delivering, 0);
    MqttReceiver::Message order;
    order.topic = "plant/press/1/Setpoint/set";
    order.payload = "8";
    order.qos = 1;
    order.expirySeconds = 60;
    const auto outcome = [&] {
        const std::size_t from = receiver.count();
        receiver.publish(order);
        return from;
    };
    const auto result = [&](std::size_t from) {
        return parsed(receiver.messageOn("plant/press/1/Setpoint/result", from).payload);
    };
    EXPECT_EQ(result(outcome())["outcome"], "written");
    order.expirySeconds = 1;
    order.payload = "9";
    for (const int stopped : {delivering, static_cast<int>(gatewayPid())}) {
        ASSERT_EQ(::kill(stopped, SIGSTOP), 0);
        const std::size_t from = outcome();
        // By then the order has expired.
        std::this_thread::sleep_for(std::chrono::milliseconds(2200));
        ASSERT_EQ(::kill(stopped, SIGCONT), 0);
        EXPECT_EQ(result(from)["outcome"], "expired");
    }
    order.payload = "10";
    order.expirySeconds = 60;
    const Json last = result(outcome());
    EXPECT_EQ(last["outcome"], "written");
    EXPECT_EQ(last["old"], 8);
}

} // namespace
