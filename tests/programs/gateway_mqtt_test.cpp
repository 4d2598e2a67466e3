// A gateway that brings values to a broker as JSON and takes orders from there: the real gateway
// and broker, simulated controllers.

#include "broker.h"
#include "gateway_fixture.h"
#include "mqtt_proxy.h"
#include "mqtt_receiver.h"
#include "program_fixture.h"

#include <QtCore/QDateTime>
#include <QtCore/QStandardPaths>

#include <csignal>
#include <map>
#include <set>

namespace {

using Json = nlohmann::json;
using Message = MqttReceiver::Message;
using Messages = MqttReceiver::Messages;

const std::string kPrefix = "plant/p7";
const std::string kPress = kPrefix + "/press/1/";

const char kTags[] = R"({"name": "Level", "type": "REAL", "value": 41.5},
    {"name": "Speed", "type": "DINT", "value": 1000},
    {"name": "Total", "type": "LINT", "value": 9007199254740993},
    {"name": "Serial", "type": "ULINT", "value": 18446744073709551615},
    {"name": "Recipe", "type": "INT", "length": 3, "value": [1, -2, 3]},
    {"name": "Run", "type": "BOOL", "value": true},
    {"name": "Label", "type": "SHORT_STRING", "value": "a\u001b[2Jb"})";
const char kVariables[] = R"(
    {"name": "Level", "tag": "Level", "type": "REAL", "unit": "bar", "intervalMs": 100,
     "writable": true, "minimum": -50, "maximum": 50},
    {"name": "Speed", "tag": "Speed", "intervalMs": 100, "writable": true},
    {"name": "a/b+#%", "tag": "Total", "intervalMs": 100, "writable": true},
    {"name": "state", "tag": "Serial", "intervalMs": 100},
    {"name": "Recipe", "tag": "Recipe", "length": 3, "intervalMs": 100, "writable": true},
    {"name": "Run", "tag": "Run", "intervalMs": 100, "writable": true},
    {"name": "Label", "tag": "Label", "type": "SHORT_STRING", "intervalMs": 100, "writable": true})";

Json parsed(const std::string& text)
{
    return Json::parse(text, nullptr, false);
}

/// The last message on each topic.
std::map<std::string, Message> lastOf(const Messages& messages)
{
    std::map<std::string, Message> last;
    for (const Message& message : messages)
        last[message.topic] = message;
    return last;
}

class GatewayMqtt : public GatewayTest
{
protected:
    explicit GatewayMqtt(const TestBroker::Settings& settings = TestBroker::Settings())
        : broker(settings)
    {
    }

    /// `keys` are further keys of the section, each with a comma at its end.
    void deliver(const std::string& keys, int port = 0)
    {
        setConfigurationKeys(R"("mqtt": {"broker": {"host": "127.0.0.1", "port": )" +
                             std::to_string(port > 0 ? port : broker.port()) +
                             R"(, "clientId": "panel7", "spreadMs": 50}, "prefix": ")" + kPrefix +
                             R"(", )" + keys + R"("queue": {"file": "queue.sqlite"}}, )");
    }
    MqttReceiver::Settings receiving(const std::vector<std::string>& topics) const
    {
        MqttReceiver::Settings settings;
        settings.port = broker.port();
        settings.topics = topics;
        return settings;
    }
    /// Waits until a value on the topic is this one.
    static bool waitForValue(const MqttReceiver& receiver, const std::string& topic,
                             const Json& value)
    {
        return receiver.waitFor([&](const Messages& messages) {
            return std::any_of(messages.begin(), messages.end(), [&](const Message& message) {
                return message.topic == topic &&
                       parsed(message.payload).value("value", Json()) == value;
            });
        });
    }
    /// Sends an order and returns its result.
    static Json result(MqttReceiver& receiver, const std::string& variable,
                       const std::string& order, bool isRetained = false)
    {
        const std::size_t from = receiver.count();
        receiver.publish(kPress + variable + "/set", order, 1, isRetained);
        return parsed(receiver.messageOn(kPress + variable + "/result", from).payload);
    }
    /// What the broker keeps, for a client that comes now. The last message is our own.
    std::map<std::string, Message> retained() const
    {
        MqttReceiver receiver(receiving({"#"}));
        receiver.publish("end/of/retained", "", 1);
        receiver.messageOn("end/of/retained");
        std::map<std::string, Message> kept;
        for (const auto& [topic, message] : lastOf(receiver.messages())) {
            if (message.isRetained)
                kept[topic] = message;
        }
        return kept;
    }
    bool waitForRetained(const std::function<bool(const std::map<std::string, Message>&)>& wanted)
    {
        std::string topics;
        const bool came = waitUntil([&] {
            const std::map<std::string, Message> kept = retained();
            topics.clear();
            for (const auto& entry : kept)
                topics += entry.first + '\n';
            return wanted(kept);
        });
        EXPECT_TRUE(came) << "the broker keeps:\n" << topics;
        return came;
    }

    TestBroker broker;
};

/// A broker that keeps sessions over a restart.
class GatewayMqttPersistent : public GatewayMqtt
{
protected:
    GatewayMqttPersistent() : GatewayMqtt(persistent()) {}

private:
    static TestBroker::Settings persistent()
    {
        TestBroker::Settings settings;
        settings.isPersistent = true;
        return settings;
    }
};

TEST_F(GatewayMqtt, PublishesRetainedValuesStatesAndStatistics)
{
    deliver(R"("statisticsSeconds": 1, )");
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({kPrefix + "/#"}));
    for (const char* const name :
         {"Level", "Speed", "a%2Fb%2B%23%25", "%73tate", "Recipe", "Run", "Label"})
        ASSERT_TRUE(receiver.waitFor([&](const Messages& messages) {
            return std::any_of(messages.begin(), messages.end(), [&](const Message& message) {
                return message.topic == kPress + name &&
                       parsed(message.payload).value("quality", "") == "good";
            });
        })) << name
            << '\n'
            << log().toStdString();
    receiver.messageOn(kPress + "statistics");
    receiver.messageOn(kPress + "state");

    std::map<std::string, Message> kept = retained();
    const auto value = [&kept](const char* name) { return parsed(kept[kPress + name].payload); };
    const Json level = value("Level");
    EXPECT_EQ(level["value"], 41.5);
    EXPECT_EQ(level["quality"], "good");
    EXPECT_EQ(level["type"], "REAL");
    EXPECT_EQ(level["unit"], "bar");
    const QDateTime time = QDateTime::fromString(
        QString::fromStdString(level["time"].get<std::string>()), Qt::ISODateWithMs);
    EXPECT_LT(std::abs(time.msecsTo(QDateTime::currentDateTimeUtc())), kGatewayLimitMs);
    EXPECT_EQ(level["time"].get<std::string>().size(), 24U);
    EXPECT_EQ(value("a%2Fb%2B%23%25")["value"].dump(), "9007199254740993");
    EXPECT_EQ(value("%73tate")["value"].dump(), "18446744073709551615");
    EXPECT_EQ(value("Recipe")["value"], (Json{1, -2, 3}));
    EXPECT_EQ(value("Run")["value"], true);
    EXPECT_EQ(value("Label")["value"], "a\x1b[2Jb");
    EXPECT_EQ(parsed(kept[kPrefix + "/status"].payload)["state"], "online");
    EXPECT_EQ(parsed(kept[kPrefix + "/status"].payload)["version"], MICRO850_VERSION);
    EXPECT_EQ(parsed(kept[kPress + "state"].payload)["state"], "connected");
    EXPECT_EQ(parsed(kept[kPrefix + "/press/state"].payload)["state"], "up");
    EXPECT_EQ(parsed(kept[kPrefix + "/press/statistics"].payload)["line"], "press");
    for (const char* key : {"project", "memoryKb", "workerPid", "stations"})
        EXPECT_FALSE(parsed(kept[kPrefix + "/press/statistics"].payload).contains(key)) << key;
    // The first ones can be of the moment before the first answer.
    EXPECT_TRUE(parsed(kept[kPress + "statistics"].payload)["answered"].is_number_unsigned());
    for (const auto& [topic, message] : kept) {
        EXPECT_EQ(topic.find("/history"), std::string::npos);
        EXPECT_EQ(topic.find("/events"), std::string::npos);
        EXPECT_EQ(message.qos, 1) << topic;
    }

    // A change, and a station that dies: the value is stale, with the reason.
    killSimulator("press");
    const auto isStale = [](const Messages& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const Message& message) {
            const Json content = parsed(message.payload);
            return message.topic == kPress + "Speed" && content.value("quality", "") == "stale" &&
                   content.value("error", "") != "" && content["value"] == 1000;
        });
    };
    EXPECT_TRUE(receiver.waitFor(isStale));
    const Json event = parsed(receiver.messageOn(kPrefix + "/press/events").payload);
    EXPECT_TRUE(event.contains("sequence")) << event.dump();
    EXPECT_TRUE(receiver.waitFor([](const Messages& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const Message& message) {
            return message.topic == kPrefix + "/press/state" &&
                   parsed(message.payload).value("state", "") == "down";
        });
    }));
    // The sequence of the line has no gap.
    std::set<qint64> sequences;
    for (const Message& message : receiver.messages()) {
        const Json content = parsed(message.payload);
        if (content.contains("sequence") && !content.contains("repeated"))
            sequences.insert(content["sequence"].get<qint64>());
    }
    EXPECT_EQ(*sequences.rbegin() - *sequences.begin() + 1, static_cast<qint64>(sequences.size()));

    const std::size_t before = receiver.count();
    killGateway();
    EXPECT_EQ(parsed(receiver.messageOn(kPrefix + "/status", before).payload)["state"], "offline");
}

TEST_F(GatewayMqtt, ClearsRetainedTopicsOfWhatIsGoneAfterAReloadAndAfterARestart)
{
    deliver(R"("statisticsSeconds": 1, "discovery": {"prefix": "ha"}, )");
    addLine("press", kTags, kVariables);
    addLine("oven", R"({"name": "Heat", "type": "REAL", "value": 1})",
            R"({"name": "Heat", "tag": "Heat", "intervalMs": 100})");
    ASSERT_NO_FATAL_FAILURE(startGateway());
    const auto has = [](const std::map<std::string, Message>& kept, const std::string& part) {
        return std::any_of(kept.begin(), kept.end(), [&](const auto& entry) {
            return entry.first.find(part) != std::string::npos;
        });
    };
    ASSERT_TRUE(waitForRetained([&](const auto& kept) {
        return kept.count(kPress + "Speed") && kept.count(kPrefix + "/oven/1/Heat") &&
               kept.count(kPrefix + "/oven/statistics") && kept.count(kPrefix + "/oven/1/state") &&
               has(kept, "/Speed_") && has(kept, "ha/sensor/oven/Heat_");
    })) << log().toStdString();

    changeProject("press", R"({"name": "Pace", "tag": "Speed", "intervalMs": 100})");
    removeLine("oven");
    configure();
    reloadGateway();
    EXPECT_TRUE(waitForRetained([&](const auto& kept) {
        return kept.count(kPress + "Pace") && has(kept, "/Pace_") && !has(kept, "oven") &&
               !has(kept, "Speed") && !has(kept, "Recipe") && kept.count(kPress + "state");
    })) << log().toStdString();

    EXPECT_EQ(stopGateway(), 0);
    changeProject("press", R"({"name": "Tempo", "tag": "Speed", "intervalMs": 100})");
    ASSERT_NO_FATAL_FAILURE(startGateway());
    EXPECT_TRUE(waitForRetained([&](const auto& kept) {
        return kept.count(kPress + "Tempo") && !has(kept, "Pace");
    })) << log().toStdString();

    EXPECT_EQ(stopGateway(), 0);
    EXPECT_EQ(parsed(retained()[kPrefix + "/status"].payload)["state"], "offline");
}

TEST_F(GatewayMqtt, CarriesOrdersOutByItsRulesAndAnswersEachOne)
{
    deliver(R"("orders": {"maximumAgeMs": 3000}, )");
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({kPress + "+", kPress + "+/result", kPrefix + "/status"}));
    ASSERT_TRUE(waitForValue(receiver, kPress + "Label", "a\x1b[2Jb")) << log().toStdString();

    Json done = result(receiver, "Level", "42.25");
    EXPECT_EQ(done["outcome"], "written") << done.dump();
    EXPECT_EQ(done["value"], 42.25);
    EXPECT_EQ(done["old"], 41.5);
    EXPECT_EQ(done["verified"], true);
    EXPECT_TRUE(waitForValue(receiver, kPress + "Level", 42.25));
    EXPECT_EQ(result(receiver, "Speed", "-12")["value"], -12);
    EXPECT_EQ(result(receiver, "Run", "false")["value"], false);
    EXPECT_EQ(result(receiver, "a%2Fb%2B%23%25", "9223372036854775807")["value"].dump(),
              "9223372036854775807");
    EXPECT_EQ(result(receiver, "Label", "42")["value"], "42");
    done = result(receiver, "Recipe", R"({"value": 7, "element": 2, "id": "r-1"})");
    EXPECT_EQ(done["value"], 7) << done.dump();
    EXPECT_EQ(done["id"], "r-1");
    EXPECT_TRUE(waitForValue(receiver, kPress + "Recipe", Json{1, -2, 7}));

    // By the client of the distribution, with correlation data and an expiry.
    const QString publisher = QStandardPaths::findExecutable("mosquitto_pub");
    ASSERT_FALSE(publisher.isEmpty());
    const std::size_t from = receiver.count();
    const Result sent = runProgram(
        publisher, {"-p", QString::number(broker.port()), "-V", "mqttv5", "-q", "1", "-t",
                    QString::fromStdString(kPress + "Level/set"), "-m", "1.5", "-D", "publish",
                    "correlation-data", "c-17", "-D", "publish", "message-expiry-interval", "30"});
    EXPECT_EQ(sent.status, 0) << sent.err;
    const Message answer = receiver.messageOn(kPress + "Level/result", from);
    EXPECT_EQ(answer.correlation, "c-17");
    EXPECT_FALSE(answer.isRetained);
    EXPECT_EQ(parsed(answer.payload)["value"], 1.5);

    const auto outcome = [&](const char* variable, const std::string& order) {
        return result(receiver, variable, order)["outcome"].get<std::string>();
    };
    EXPECT_EQ(outcome("Level", "50.5"), "not-allowed");
    EXPECT_EQ(outcome("Level", "NaN"), "not-allowed");
    EXPECT_EQ(outcome("%73tate", "1"), "not-allowed"); // not writable
    EXPECT_EQ(outcome("Level", "much"), "bad-request");
    EXPECT_EQ(outcome("Speed", "2147483648"), "bad-request");
    EXPECT_EQ(outcome("Recipe", "[1, 2, 3]"), "bad-request");
    EXPECT_EQ(outcome("Recipe", "78"), "bad-request"); // which element?
    EXPECT_EQ(outcome("Recipe", R"({"value": 1, "element": 3})"), "bad-request");
    EXPECT_EQ(outcome("Levl", "1"), "unknown-name");
    EXPECT_EQ(outcome("Speed", R"({"value": 5, "time": "2026-01-01T00:00:00.000Z"})"), "expired");
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const auto timed = [&now](qint64 ms) {
        return R"({"value": 6, "time": )" + std::to_string(now.toMSecsSinceEpoch() + ms) + "}";
    };
    EXPECT_EQ(outcome("Speed", timed(10 * kGatewayLimitMs)), "expired");
    EXPECT_EQ(outcome("Speed", ""), "bad-request");
    EXPECT_EQ(outcome("Speed", std::string(10 * 1024 * 1024, '7')), "bad-request");
    EXPECT_EQ(outcome("Speed", "\xFF"), "bad-request");
    EXPECT_EQ(result(receiver, "Speed", "99", true)["outcome"], "retained");
    receiver.publish(kPress + "Speed/set", "", 1, true);       // the broker forgets it
    EXPECT_EQ(result(receiver, "Speed", "-13")["value"], -13); // as if nothing had been

    // Each kind is logged once. The journal of writes has those that came to the rules.
    EXPECT_EQ(log().count("is not carried out"), 5) << log().toStdString();
    const auto client = connect();
    Json outcomes;
    EXPECT_TRUE(waitUntil([&] {
        const Json status = client->request({{"request", "status"}});
        outcomes = status["delivery"]["mqtt"]["orders"]["outcomes"];
        return outcomes.value("written", 0) == 8;
    })) << outcomes.dump();
    EXPECT_EQ(outcomes, Json::parse(R"({"written": 8, "not-allowed": 3, "bad-request": 8,
        "unknown-name": 1, "expired": 2, "retained": 1})"));

    // The line takes nothing for a while: what waits for it is not carried out when it goes on.
    const auto worker = static_cast<pid_t>(workerOf("press"));
    ASSERT_GT(worker, 0);
    ::kill(worker, SIGSTOP);
    const std::size_t before = receiver.count();
    const auto resultOf = [&](const std::string& id) {
        Json found;
        EXPECT_TRUE(receiver.waitFor([&](const Messages& messages) {
            for (std::size_t i = before; i < messages.size(); ++i) {
                const Json content = parsed(messages[i].payload);
                if (content.value("id", "") == id)
                    found = content;
            }
            return found.is_object();
        })) << id;
        return found;
    };
    for (const char* const id : {"1", "2", "3"})
        receiver.publish(kPress + "Speed/set",
                         R"({"value": 10)" + std::string(id) + R"(, "id": ")" + id + "\"}");
    EXPECT_EQ(resultOf("2")["outcome"], "expired");
    EXPECT_EQ(resultOf("3")["outcome"], "expired");
    ::kill(worker, SIGCONT);
    resultOf("1"); // the worker had it
    done = result(receiver, "Speed", "8");
    EXPECT_EQ(done["outcome"], "written") << done.dump();
    EXPECT_NE(done["old"], 102);
    EXPECT_NE(done["old"], 103);

    // The line is down.
    killSimulator("press");
    EXPECT_TRUE(waitForLog("press: ")) << log().toStdString();
    EXPECT_EQ(outcome("Speed", "8"), "unreachable");
    EXPECT_EQ(stopGateway(), 0);
}

// A reload ends the process that took them; the line may carry them out all the same.
TEST_F(GatewayMqtt, AnswersTheOrdersUnderWayWhenTheConfigurationChanges)
{
    deliver(R"("orders": {}, )");
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({kPress + "+", kPress + "+/result"}));
    ASSERT_TRUE(waitForValue(receiver, kPress + "Speed", 1000)) << log().toStdString();
    const auto worker = static_cast<pid_t>(workerOf("press"));
    ASSERT_GT(worker, 0);
    ::kill(worker, SIGSTOP);
    for (const char* const id : {"1", "2", "3"})
        receiver.publish(kPress + "Speed/set", R"({"value": 7, "id": )" + std::string(id) + "}");
    const auto client = connect();
    EXPECT_TRUE(waitUntil([&] {
        const Json status = client->request({{"request", "status"}});
        return status["delivery"]["mqtt"]["orders"].value("received", 0) == 3;
    }));
    deliver(R"("orders": {}, "statisticsSeconds": 30, )");
    configure();
    reloadGateway();
    std::map<int, Json> outcomes;
    EXPECT_TRUE(receiver.waitFor([&](const Messages& messages) {
        for (const Message& message : messages) {
            const Json content = parsed(message.payload);
            if (content.contains("outcome"))
                outcomes[content.value("id", 0)] = content["outcome"];
        }
        return outcomes.size() == 3;
    }));
    EXPECT_EQ(outcomes[1], "unknown-outcome");
    EXPECT_EQ(outcomes[2], "unknown-outcome");
    EXPECT_EQ(outcomes[3], "busy");
    ::kill(worker, SIGCONT);
    EXPECT_EQ(stopGateway(), 0);
}

// A client that is away misses nothing else: the broker keeps what it would get with a session.
TEST_F(GatewayMqttPersistent, NeverCarriesOutAnOrderThatWasGivenWhileItWasAway)
{
    MqttProxy proxy(broker.port());
    deliver(R"("orders": {}, )", proxy.port());
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({kPress + "Speed", kPress + "+/result", kPrefix + "/status"}));
    ASSERT_TRUE(waitForValue(receiver, kPress + "Speed", 1000)) << log().toStdString();
    EXPECT_EQ(result(receiver, "Speed", "1001")["value"], 1001);

    const auto orderWhileAwayThenCompare = [&](const std::function<void()>& comeBack,
                                               int unwanted) {
        EXPECT_TRUE(receiver.waitFor([](const Messages& messages) {
            return parsed(lastOf(messages)[kPrefix + "/status"].payload)["state"] == "offline";
        }));
        receiver.publish(kPress + "Speed/set", std::to_string(unwanted));
        receiver.clear();
        comeBack();
        receiver.messageOn(kPrefix + "/status");
        // Whatever the broker had kept would come first.
        const Json done = result(receiver, "Speed", std::to_string(unwanted + 1));
        EXPECT_EQ(done["value"], unwanted + 1);
        EXPECT_EQ(done["old"], unwanted - 1) << done.dump();
        for (const Message& message : receiver.messages())
            EXPECT_NE(parsed(message.payload).value("value", Json()), unwanted);
    };
    // Killed and started again.
    killGateway();
    orderWhileAwayThenCompare([this] { startGateway(); }, 1002);
    // Ended in order.
    EXPECT_EQ(stopGateway(), 0);
    orderWhileAwayThenCompare([this] { startGateway(); }, 1004);
    // The network was cut.
    proxy.refuse(true);
    proxy.cut();
    orderWhileAwayThenCompare([&proxy] { proxy.refuse(false); }, 1006);
}

TEST_F(GatewayMqtt, TakesNoOrdersUnlessConfigured)
{
    deliver("");
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({kPress + "Speed", kPress + "+/result"}));
    ASSERT_TRUE(waitForValue(receiver, kPress + "Speed", 1000)) << log().toStdString();
    receiver.publish(kPress + "Speed/set", "7");
    const auto client = connect();
    const Json written =
        client->request({{"request", "write"}, {"name", "Speed"}, {"value", 1001}});
    EXPECT_EQ(written["old"], 1000);
    ASSERT_TRUE(waitForValue(receiver, kPress + "Speed", 1001));
    for (const Message& message : receiver.messages()) {
        EXPECT_NE(message.topic, kPress + "Speed/result");
        EXPECT_NE(parsed(message.payload).value("value", Json()), 7);
    }
}

TEST_F(GatewayMqtt, AnnouncesVariablesAnewAfterTheBirthOfHomeAssistant)
{
    deliver(R"("orders": {}, "discovery": {"prefix": "ha"}, )");
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({"ha/#", kPrefix + "/#"}));
    const auto configurations = [](const Messages& messages) {
        std::map<std::string, Json> found; // by component and name
        for (const auto& [topic, message] : lastOf(messages)) {
            const Json content = parsed(message.payload);
            if (topic.rfind("ha/", 0) == 0 && content.contains("unique_id"))
                found[topic.substr(3, topic.find('/', 3) - 3) + ' ' +
                      content["name"].get<std::string>()] = content;
        }
        return found;
    };
    const auto all = [&](const Messages& messages) { return configurations(messages).size() == 7; };
    ASSERT_TRUE(receiver.waitFor(all)) << log().toStdString();
    std::map<std::string, Json> found = configurations(receiver.messages());
    std::string names;
    for (const auto& entry : found)
        names += entry.first + ", ";
    EXPECT_EQ(names, "number Level, number Speed, sensor Recipe, sensor state, switch Run, "
                     "text Label, text a/b+#%, ");
    EXPECT_EQ(found["number Level"]["min"], -50);
    EXPECT_EQ(found["number Level"]["max"], 50);
    EXPECT_EQ(found["number Level"]["device_class"], "pressure");
    EXPECT_EQ(found["sensor state"]["state_topic"], kPress + "%73tate");
    // A switch of Home Assistant sends its "payload_on" to its "command_topic".
    EXPECT_EQ(found["switch Run"]["command_topic"], kPress + "Run/set");
    EXPECT_EQ(result(receiver, "Run", found["switch Run"]["payload_off"])["value"], false);

    receiver.clear();
    receiver.publish("ha/status", "offline");
    receiver.publish("ha/status", "online");
    ASSERT_TRUE(receiver.waitFor(all)) << log().toStdString();
    EXPECT_EQ(configurations(receiver.messages()), found);
    EXPECT_EQ(stopGateway(), 0);
}

TEST_F(GatewayMqtt, PublishesAllValuesAgainAndAgainAtAnInterval)
{
    deliver(R"("intervalMs": 100, )");
    addLine("press", kTags, kVariables);
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving({kPress + "+"}));
    EXPECT_TRUE(receiver.waitFor([](const Messages& messages) {
        std::map<std::string, int> live;
        for (const Message& message : messages)
            live[message.topic] += parsed(message.payload).contains("repeated") ? 0 : 1;
        return live[kPress + "Speed"] >= 5 && live[kPress + "%73tate"] >= 5;
    })) << log().toStdString();
}

} // namespace
