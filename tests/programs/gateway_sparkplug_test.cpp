// A gateway as an edge node of Sparkplug B: the real gateway and broker, a simulated controller,
// and another library that decodes the messages and encodes the commands.

#include "broker.h"
#include "gateway_fixture.h"
#include "mqtt_proxy.h"
#include "mqtt_receiver.h"
#include "program_fixture.h"
#include "sparkplug_message.h"

#include <csignal>

namespace {

using nlohmann::json;
using Message = MqttReceiver::Message;
using Messages = MqttReceiver::Messages;

const std::string kNbirth = "spBv1.0/plant/NBIRTH/panel7";
const std::string kNdeath = "spBv1.0/plant/NDEATH/panel7";
const std::string kNcmd = "spBv1.0/plant/NCMD/panel7";
const std::string kDbirth = "spBv1.0/plant/DBIRTH/panel7/press-1";
const std::string kDdata = "spBv1.0/plant/DDATA/panel7/press-1";
const std::string kDdeath = "spBv1.0/plant/DDEATH/panel7/press-1";
const std::string kDcmd = "spBv1.0/plant/DCMD/panel7/press-1";
const std::string kState = "spBv1.0/STATE/scada";

const char kTags[] = R"({"name": "Level", "type": "REAL", "value": 41.5},
    {"name": "Speed", "type": "DINT", "value": 1000},
    {"name": "Total", "type": "LINT", "value": -9007199254740993},
    {"name": "Recipe", "type": "INT", "length": 3, "value": [1, -2, 3]},
    {"name": "Label", "type": "SHORT_STRING", "value": "a\u001b[2Jb"},
    {"name": "Scaled", "type": "INT", "value": 25})";
const char kVariables[] = R"(
    {"name": "Level", "tag": "Level", "type": "REAL", "unit": "bar", "intervalMs": 100,
     "writable": true, "minimum": -50, "maximum": 50},
    {"name": "Speed", "tag": "Speed", "intervalMs": 100},
    {"name": "Counters/Total", "tag": "Total", "intervalMs": 100},
    {"name": "Recipe", "tag": "Recipe", "length": 3, "intervalMs": 100, "writable": true},
    {"name": "Label", "tag": "Label", "type": "SHORT_STRING", "intervalMs": 100},
    {"name": "Scaled", "tag": "Scaled", "gain": 0.5, "intervalMs": 100})";

Seen seenOf(const Message& message)
{
    Seen seen;
    seen.topic = message.topic;
    seen.payload = SparkplugWitness::instance().decode(message.payload);
    seen.qos = message.qos;
    seen.isRetained = message.isRetained;
    return seen;
}

json rebirth()
{
    return {{"timestamp", "1"},
            {"metrics", {{{"name", "Node Control/Rebirth"}, {"boolean_value", true}}}}};
}

class GatewaySparkplug : public GatewayTest
{
protected:
    /// `keys` are further keys of the section, each with a comma at its end.
    void configureNode(const std::string& keys, const std::string& version)
    {
        setConfigurationKeys(R"("sparkplug": {"broker": {"host": "127.0.0.1", "port": )" +
                             std::to_string(m_network.port()) + R"(, "version": ")" + version +
                             R"(", "spreadMs": 0}, "group": "plant", "node": "panel7", )" + keys +
                             R"("queue": {"file": "queue.sqlite"}}, )");
    }
    void begin(const std::string& keys = "", const std::string& version = "5")
    {
        configureNode(keys, version);
        addLine("press", kTags, kVariables);
        listen();
        startGateway();
    }
    void listen()
    {
        MqttReceiver::Settings settings;
        settings.port = m_broker.port();
        settings.topics = {"spBv1.0/plant/#"};
        m_receiver = std::make_unique<MqttReceiver>(settings);
    }
    /// All messages of the node so far; commands are not among them.
    std::vector<Seen> seen(std::size_t from = 0) const
    {
        std::vector<Seen> all;
        const Messages messages = m_receiver->messages();
        for (std::size_t i = from; i < messages.size(); ++i) {
            if (messages.at(i).topic.find("CMD/") == std::string::npos)
                all.push_back(seenOf(messages.at(i)));
        }
        return all;
    }
    /// The first message on the topic from a position on that is wanted; waits for it.
    Seen wait(const std::string& topic, const std::function<bool(const Seen&)>& wanted,
              std::size_t from = 0)
    {
        Seen found;
        const bool came = waitUntil([&] {
            for (const Seen& each : seen(from)) {
                if (each.topic == topic && wanted(each)) {
                    found = each;
                    return true;
                }
            }
            return false;
        });
        EXPECT_TRUE(came) << topic << '\n' << log().toStdString();
        return found;
    }
    Seen wait(const std::string& topic, std::size_t from = 0)
    {
        return wait(
            topic, [](const Seen&) { return true; }, from);
    }
    /// The birth of the device that knows the types of all its variables.
    Seen waitForFullBirth(std::size_t from = 0)
    {
        return wait(
            kDbirth, [](const Seen& each) { return each.size() == 6; }, from);
    }
    void order(const json& metrics, bool isRetained = false)
    {
        m_receiver->publish(kDcmd, SparkplugWitness::instance().encode({{"metrics", metrics}}), 1,
                            isRetained);
    }
    std::size_t count() const { return m_receiver->count(); }
    /// An order that is given while the gateway is away is not carried out when it is back.
    void expectCleanSession(const std::string& version)
    {
        begin(R"("orders": {}, )", version);
        waitForFullBirth();
        killGateway();
        wait(kNdeath);
        const std::size_t from = count();
        order({{{"name", "Level"}, {"float_value", 7.5}}});
        startGateway();
        waitForFullBirth(from);
        order({{{"name", "Level"}, {"float_value", 9.75}}});
        wait(
            kDdata,
            [](const Seen& each) { return each.payload.dump().find("9.75") != std::string::npos; },
            from);
        for (const Seen& each : seen(from))
            EXPECT_EQ(each.payload.dump().find("7.5"), std::string::npos) << each.payload;
    }

    TestBroker m_broker;
    MqttProxy m_network{m_broker.port()}; ///< between the gateway and the broker
    std::unique_ptr<MqttReceiver> m_receiver;
};

std::string bdSeqOf(const Seen& message)
{
    return message.metric("bdSeq").value("long_value", "none");
}

} // namespace

TEST_F(GatewaySparkplug, TellsItsBirthAndThoseOfItsStationsThenWhatChanges)
{
    ASSERT_NO_FATAL_FAILURE(begin(R"("orders": {}, )"));
    const Seen birth = waitForFullBirth();
    const auto born = [&birth](const char* name) { return birth.metric(name); };
    EXPECT_EQ(born("Level").at("datatype"), 9);
    EXPECT_EQ(born("Speed").at("datatype"), 3);
    EXPECT_EQ(born("Counters/Total").at("datatype"), 4);
    EXPECT_EQ(born("Recipe").at("datatype"), 23);
    EXPECT_EQ(born("Label").at("datatype"), 12);
    EXPECT_EQ(born("Scaled").at("datatype"), 10);
    EXPECT_EQ(property(born("Level"), "engUnit").at("string_value"), "bar");
    EXPECT_EQ(property(born("Level"), "readOnly").at("boolean_value"), false);
    EXPECT_EQ(property(born("Speed"), "readOnly").at("boolean_value"), true);

    // Asked for again, when all were read: the birth has all values.
    const std::size_t asked = count();
    m_receiver->publish(kNcmd, SparkplugWitness::instance().encode(rebirth()));
    wait(kNbirth, asked);
    const Seen full = wait(
        kDbirth, [](const Seen& each) { return each.metric("Scaled").contains("double_value"); },
        asked);
    EXPECT_EQ(full.metric("Level").at("float_value"), 41.5);
    EXPECT_EQ(full.metric("Speed").at("int_value"), 1000);
    EXPECT_EQ(full.metric("Counters/Total").at("long_value"), "18437736874454810623");
    EXPECT_EQ(full.metric("Recipe").at("bytes_value"), "AQD+/wMA");
    EXPECT_EQ(full.metric("Label").at("string_value"), "a\x1b[2Jb");
    EXPECT_EQ(full.metric("Scaled").at("double_value"), 12.5);
    EXPECT_EQ(property(full.metric("Level"), "Quality").at("int_value"), 192);

    // An order by name is written and read back.
    const json alias = full.metric("Level").at("alias");
    const std::size_t ordered = count();
    order({{{"name", "Level"}, {"float_value", 7.25}}});
    const auto shows = [&alias](double value) {
        return [&alias, value](const Seen& each) {
            for (const json& metric : each.payload.value("metrics", json::array())) {
                if (metric.value("alias", json()) == alias &&
                    metric.value("float_value", 0.0) == value)
                    return !metric.contains("name") && !metric.contains("datatype");
            }
            return false;
        };
    };
    wait(kDdata, shows(7.25), ordered);
    order({{{"alias", alias}, {"float_value", 8.5}}});
    wait(kDdata, shows(8.5), ordered);
    order({{{"name", "Recipe"}, {"bytes_value", "BQAGAAcA"}}});
    wait(
        kDdata,
        [](const Seen& each) {
            return each.payload.dump().find("\"bytes_value\":\"BQAGAAcA\"") != std::string::npos;
        },
        ordered);

    // Everything is sent with QoS 0, not retained, and numbered without a gap.
    int next = 0;
    bool isBorn = false;
    for (const Seen& each : seen()) {
        EXPECT_FALSE(each.isRetained);
        EXPECT_EQ(each.qos, 0) << each.topic;
        EXPECT_TRUE(each.payload.contains("timestamp"));
        if (each.type() == "NBIRTH") {
            next = 0;
            isBorn = true;
        }
        EXPECT_TRUE(isBorn) << each.topic << " before the birth of the node";
        EXPECT_EQ(each.seq(), next) << each.topic;
        next = (next + 1) % 256;
    }
}

TEST_F(GatewaySparkplug, RefusesOrdersThatMustNotBeAndTellsEachKindOnce)
{
    listen();
    order({{{"name", "Level"}, {"float_value", 7.0}}}, true); // before the gateway is there
    ASSERT_NO_FATAL_FAILURE(begin(R"("orders": {}, )"));
    EXPECT_EQ(waitForFullBirth().metric("Level").value("float_value", 41.5), 41.5);
    order({{{"name", "Level"}, {"float_value", 51.0}}});
    order({{{"name", "Speed"}, {"int_value", 5}}});
    order({{{"name", "Le\nvel"}, {"float_value", 5.0}}});
    order({{{"name", "Level"}, {"int_value", 5}}});
    m_receiver->publish(kDcmd, std::string(10 * 1024 * 1024, 'x'));
    m_receiver->publish("spBv1.0/plant/DCMD/panel7/other", "x");
    for (int i = 0; i < 50; ++i)
        order({{{"name", "Nothing"}, {"float_value", 5.0}}});
    // What comes after them is carried out.
    order({{{"name", "Level"}, {"float_value", 9.75}}});
    wait(kDdata,
         [](const Seen& each) { return each.payload.dump().find("9.75") != std::string::npos; });
    ASSERT_TRUE(waitForLog("outside of its limits"));
    const QString text = log();
    EXPECT_EQ(text.count("retained"), 1) << text.toStdString();
    EXPECT_EQ(text.count("has no metric"), 1) << text.toStdString();
    EXPECT_EQ(text.count("is not of its type"), 1) << text.toStdString();
    EXPECT_EQ(text.count("there is no device"), 1) << text.toStdString();
    EXPECT_EQ(text.count("Speed is not writable"), 1) << text.toStdString();
    EXPECT_FALSE(text.contains("Le\nvel"));
    auto client = connect();
    ASSERT_TRUE(waitUntil([&] {
        const json status = client->request({{"request", "status"}});
        const json node = status.at("delivery").at("sparkplug").value("node", json::object());
        return node.value("orders", json::object()).value("refused", 0) >= 57;
    })) << client->request({{"request", "status"}}).dump();
}

TEST_F(GatewaySparkplug, TellsTheDeathOfAStationAndItsBirthWhenItIsBack)
{
    ASSERT_NO_FATAL_FAILURE(begin());
    waitForFullBirth();
    std::size_t from = count();
    killSimulator("press");
    const Seen death = wait(kDdeath, from);
    EXPECT_EQ(death.size(), 0U);
    for (const Seen& each : seen(from))
        EXPECT_FALSE(each.topic == kDdata && each.seq() > death.seq()) << "data after its death";
    from = count();
    startSimulator("press");
    const Seen birth = wait(kDbirth, from);
    EXPECT_EQ(birth.size(), 6U);
    wait(
        kDdata,
        [](const Seen& each) { return each.payload.dump().find("41.5") != std::string::npos; },
        from);
}

TEST_F(GatewaySparkplug, LeavesTheWillWhenItIsKilledAndItsDeathWhenItStops)
{
    ASSERT_NO_FATAL_FAILURE(begin());
    waitForFullBirth();
    EXPECT_EQ(bdSeqOf(wait(kNbirth)), "0");
    std::size_t from = count();
    // The process that delivers goes with the service.
    killGateway();
    const Seen will = wait(kNdeath, from);
    EXPECT_EQ(bdSeqOf(will), "0");
    EXPECT_EQ(will.qos, 1);
    EXPECT_FALSE(will.isRetained);
    EXPECT_FALSE(will.payload.contains("seq"));

    from = count();
    startGateway();
    EXPECT_EQ(bdSeqOf(wait(kNbirth, from)), "1");
    waitForFullBirth(from);
    from = count();
    EXPECT_EQ(stopGateway(), 0);
    EXPECT_EQ(bdSeqOf(wait(kNdeath, from)), "1");

    from = count();
    startGateway();
    EXPECT_EQ(bdSeqOf(wait(kNbirth, from)), "2");
    int deaths = 0;
    for (const Seen& each : seen())
        deaths += each.topic == kNdeath ? 1 : 0;
    EXPECT_EQ(deaths, 2) << "the broker told no Will of a node that had told its death";
}

TEST_F(GatewaySparkplug, TellsWhatWaitedAsHistoryWhenTheBrokerIsBack)
{
    ASSERT_NO_FATAL_FAILURE(begin("", "3.1.1"));
    waitForFullBirth();
    m_network.refuse(true);
    m_network.cut();
    const std::size_t from = count();
    auto client = connect();
    for (const double value : {1.5, 2.5, 3.5}) {
        const json written = client->request(
            {{"request", "write"}, {"line", "press"}, {"name", "Level"}, {"value", value}});
        ASSERT_EQ(written.value("outcome", ""), "written") << written.dump();
        // It was read back: the value is delivered by the next reading.
        client->request({{"request", "read"}, {"names", {"Level"}}, {"fresh", true}});
    }
    m_network.refuse(false);
    const auto last = [](const Seen& each) {
        return each.metric("Level").value("float_value", 0.0) == 3.5;
    };
    const Seen birth = wait(kDbirth, last, from);
    const json alias = birth.metric("Level").at("alias");
    std::vector<double> history;
    ASSERT_TRUE(waitUntil([&] {
        history.clear();
        for (const Seen& each : seen(from)) {
            for (const json& metric : each.payload.value("metrics", json::array())) {
                if (metric.value("alias", json()) == alias && metric.value("is_historical", false))
                    history.push_back(metric.value("float_value", 0.0));
            }
        }
        return history.size() >= 2 && history.back() == 2.5;
    }));
    EXPECT_TRUE(std::is_sorted(history.end() - 2, history.end()));
    EXPECT_EQ(history.at(history.size() - 2), 1.5);
}

TEST_F(GatewaySparkplug, IsBornOnlyWhileItsPrimaryHostIsOnline)
{
    ASSERT_NO_FATAL_FAILURE(begin(R"("primaryHost": "scada", )"));
    ASSERT_TRUE(waitForLog("waiting for the primary host scada"));
    m_receiver->publish(kState, R"({"online": false, "timestamp": 1000})", 1, true);
    m_receiver->publish(kState, R"({"online": true, "timestamp": 2000})", 1, true);
    EXPECT_EQ(bdSeqOf(wait(kNbirth)), "0");
    std::size_t from = count();
    m_receiver->publish(kState, R"({"online": false, "timestamp": 1999})", 1, true);
    m_receiver->publish(kState, R"({"online": false, "timestamp": 3000})", 1, true);
    EXPECT_EQ(bdSeqOf(wait(kNdeath, from)), "0");
    ASSERT_TRUE(waitForLog("waiting for the primary host scada", 2));
    EXPECT_EQ(log().count("older than the one before"), 1);
    from = count();
    m_receiver->publish(kState, R"({"online": true, "timestamp": 3000})", 1, true);
    EXPECT_EQ(bdSeqOf(wait(kNbirth, from)), "1");
    int deaths = 0;
    for (const Seen& each : seen())
        deaths += each.topic == kNdeath ? 1 : 0;
    EXPECT_EQ(deaths, 1);
}

TEST_F(GatewaySparkplug, IsBornAnewWhenItsConfigurationIsReadAgain)
{
    ASSERT_NO_FATAL_FAILURE(begin());
    waitForFullBirth();
    std::size_t from = count();
    changeProject("press",
                  R"({"name": "Speed", "tag": "Speed", "type": "DINT", "intervalMs": 100})");
    reloadGateway();
    EXPECT_EQ(bdSeqOf(wait(kNbirth, from)), "0");
    const Seen birth = wait(
        kDbirth, [](const Seen& each) { return each.size() == 1; }, from);
    EXPECT_EQ(birth.metric("Speed").at("datatype"), 3);
}

TEST_F(GatewaySparkplug, TakesNoOrderOfTheTimeWhenItWasAwayWithMqtt5)
{
    expectCleanSession("5");
}

TEST_F(GatewaySparkplug, TakesNoOrderOfTheTimeWhenItWasAwayWithMqtt311)
{
    expectCleanSession("3.1.1");
}
