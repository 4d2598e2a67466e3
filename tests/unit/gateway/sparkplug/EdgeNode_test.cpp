// What an edge node tells a broker and what it is ordered, without a broker. Another library
// decodes the messages and encodes the commands.

#include "delivery_queue.h"
#include "sparkplug_message.h"

#include "EdgeNode.h"

#include <gtest/gtest.h>

#include <map>

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::sparkplug;
using nlohmann::json;

namespace {

const qint64 kNow = 1795352400000;
const std::string kNbirth = "spBv1.0/plant/NBIRTH/panel7";
const std::string kDbirth = "spBv1.0/plant/DBIRTH/panel7/press-1";
const std::string kDdata = "spBv1.0/plant/DDATA/panel7/press-1";
const std::string kDdeath = "spBv1.0/plant/DDEATH/panel7/press-1";
const std::string kNdata = "spBv1.0/plant/NDATA/panel7";
const std::string kNdeath = "spBv1.0/plant/NDEATH/panel7";
const std::string kNcmd = "spBv1.0/plant/NCMD/panel7";
const std::string kDcmd = "spBv1.0/plant/DCMD/panel7/press-1";
const std::string kState = "spBv1.0/STATE/scada";

class FakeLink : public Link
{
public:
    bool publish(const MqttMessage& message) override
    {
        if (room == 0)
            return false;
        --room;
        Seen each;
        each.topic = message.topic.toStdString();
        each.payload = SparkplugWitness::instance().decode(message.payload.toStdString());
        each.qos = message.qos;
        each.isRetained = message.isRetained;
        seen.push_back(each);
        return true;
    }
    void subscribe(const QByteArray& topic) override { topics.push_back(topic.toStdString()); }
    void ping(int number) override { pings.push_back(number); }
    void reconnect(const QString& reason) override { reconnects.push_back(reason.toStdString()); }

    int room = 1000000;
    std::vector<Seen> seen;
    std::vector<std::string> topics;
    std::vector<int> pings;
    std::vector<std::string> reconnects;
};

class FakeNeeds : public PublisherNeeds
{
public:
    FakeNeeds(const DeliveryQueueSettings& settings, const Clock& clock, const WallClock& wallClock)
        : m_clock(clock), m_wallClock(wallClock), m_queue(settings, clock, wallClock),
          m_flow(m_queue, settings, clock)
    {
    }

    const Clock& clock() const override { return m_clock; }
    const WallClock& wallClock() const override { return m_wallClock; }
    DeliveryFlow& flow() override { return m_flow; }
    DeliveryQueue& queue() override { return m_queue; }
    void write(const Order& order,
               const std::function<void(const host::Json& reply)>& answer) override
    {
        orders.push_back(order.line.toStdString() + "/" + order.name.toStdString() + "[" +
                         std::to_string(order.element) + "]=" + order.value.dump());
        withinMs.push_back(order.withinMs);
        answers.push_back(answer);
    }
    void warn(const QString& kind, const QString& text) override
    {
        ++warnings[kind.toStdString()];
        lastWarning = text.toStdString();
    }
    void note(const QString& text) override { notes.push_back(text.toStdString()); }

    std::vector<std::string> orders;
    std::vector<int> withinMs; ///< of the orders
    std::vector<std::function<void(const host::Json& reply)>> answers;
    std::map<std::string, int> warnings;
    std::string lastWarning;
    std::vector<std::string> notes;

private:
    const Clock& m_clock;
    const WallClock& m_wallClock;
    DeliveryQueue m_queue;
    DeliveryFlow m_flow;
};

CatalogueVariable variable(const char* name, int station = 1, const char* type = nullptr)
{
    CatalogueVariable variable;
    variable.line = QStringLiteral("press");
    variable.name = QString::fromUtf8(name);
    variable.station = station;
    variable.tag = variable.name.toUpper();
    variable.type = type ? &cipTypeNamed(type) : nullptr;
    return variable;
}

class EdgeNodeTest : public DeliveryQueueFixture
{
protected:
    void SetUp() override
    {
        m_node.group = QStringLiteral("plant");
        m_node.node = QStringLiteral("panel7");
        m_node.broker.spreadMs = 0;
        m_node.takesOrders = true;
        m_catalogue.lines = QStringList{QStringLiteral("press")};
        CatalogueVariable level = variable("Level", 1, "INT");
        level.unit = QStringLiteral("mm");
        level.isWritable = true;
        level.minimum = -10;
        level.maximum = 100;
        CatalogueVariable speed = variable("Speed", 1, "REAL");
        speed.isWritable = true;
        m_catalogue.variables = {level, speed, variable("Heat", 2, "DINT")};
    }
    void TearDown() override { m_edge.reset(); }

    /// The process begins.
    void start()
    {
        m_edge.reset();
        m_needs.reset();
        m_needs = std::make_unique<FakeNeeds>(m_settings, m_clock, m_wallClock);
        m_edge = std::make_unique<EdgeNode>(m_node, *m_needs, m_link);
        m_edge->setCatalogue(m_catalogue);
    }
    void connect()
    {
        m_will = m_edge->will();
        m_edge->handleConnected();
    }
    /// A node whose station 1 answers, connected to its broker.
    void goOnline()
    {
        start();
        tellLine("up");
        tellStation(1, "connected");
        connect();
        pass();
    }
    void tellLine(const char* state) { tellStation(-1, state); }
    void tellStation(int station, const char* state)
    {
        DeliveryEvent event;
        event.time = m_wallClock.now();
        event.line = QStringLiteral("press");
        event.station = station;
        event.state = QString::fromUtf8(state);
        event.text = QStringLiteral("text of ") + event.state;
        m_edge->handleEvent(event);
    }
    /// A value of a variable, as the service feeds it.
    void feed(const char* name, const char* type, const char* bytes,
              host::Quality quality = host::Quality::Good)
    {
        host::GatewayValue value;
        value.line = QStringLiteral("press");
        value.name = QString::fromUtf8(name);
        value.type = type ? &cipTypeNamed(type) : nullptr;
        value.bytes = QByteArray::fromHex(bytes);
        value.value = value.bytes.isEmpty() ? host::Json() : host::Json(1);
        value.quality = quality;
        m_needs->flow().add(message(value), {QStringLiteral("run"), ++m_number});
    }
    void remember(const char* name, const char* type, const char* bytes)
    {
        host::GatewayValue value;
        value.line = QStringLiteral("press");
        value.name = QString::fromUtf8(name);
        value.type = &cipTypeNamed(type);
        value.bytes = QByteArray::fromHex(bytes);
        value.value = 1;
        value.quality = host::Quality::Good;
        m_needs->flow().remember(message(value));
    }
    QueuedMessage message(const host::GatewayValue& value)
    {
        QueuedMessage message;
        message.line = value.line;
        message.name = value.name;
        message.time = m_wallClock.now();
        message.body = host::encoded(value);
        return message;
    }
    void feedEvent(int station, const char* state)
    {
        QueuedMessage message;
        message.line = QStringLiteral("press");
        message.station = station;
        message.time = m_wallClock.now();
        message.body = QByteArray(R"({"state":")") + state + R"(","text":"why"})";
        m_needs->flow().add(message, {QStringLiteral("run"), ++m_number});
    }
    /// So much time passes, in steps in which everything does what is due.
    void pass(std::chrono::milliseconds time = std::chrono::milliseconds(200))
    {
        const std::chrono::milliseconds step(50);
        for (std::chrono::milliseconds done(0); done < time; done += step) {
            m_clock.advance(step);
            m_wallClock.advance(step.count());
            m_edge->tick();
            m_needs->flow().tick();
            if (m_answersPings) {
                for (const int ping : std::exchange(m_link.pings, {}))
                    m_edge->handlePong(ping);
            }
        }
    }
    void disconnect()
    {
        m_edge->handleDisconnected();
        m_link.pings.clear();
    }
    void receive(const std::string& topic, const json& payload, bool isRetained = false)
    {
        receiveBytes(topic, SparkplugWitness::instance().encode(payload), isRetained);
    }
    void receiveBytes(const std::string& topic, const std::string& payload, bool isRetained = false)
    {
        MqttMessage message;
        message.topic = QByteArray::fromStdString(topic);
        message.payload = QByteArray::fromStdString(payload);
        message.isRetained = isRetained;
        m_edge->handleMessage(message);
    }
    void tellHost(bool isOnline, qint64 timestamp)
    {
        receiveBytes(kState, json{{"online", isOnline}, {"timestamp", timestamp}}.dump(), true);
    }
    void orderRebirth()
    {
        receive(kNcmd,
                {{"metrics", {{{"name", "Node Control/Rebirth"}, {"boolean_value", true}}}}});
    }
    std::vector<Seen> pop() { return std::exchange(m_link.seen, {}); }
    /// "NBIRTH 0, DBIRTH press-1 1", and forgets it.
    std::string popText()
    {
        std::string text;
        for (const Seen& each : pop()) {
            const std::string device = each.topic.substr(each.topic.rfind('/') + 1);
            text += (text.empty() ? "" : ", ") + each.type() +
                    (device == "panel7" ? "" : " " + device) + " " + std::to_string(each.seq());
        }
        return text;
    }
    /// The next message on a topic that was published; forgets it and those before.
    Seen popOn(const std::string& topic)
    {
        for (auto each = m_link.seen.begin(); each != m_link.seen.end(); ++each) {
            if (each->topic != topic)
                continue;
            const Seen found = *each;
            m_link.seen.erase(m_link.seen.begin(), each + 1);
            return found;
        }
        ADD_FAILURE() << "nothing on " << topic;
        return Seen();
    }
    qint64 waiting() { return m_needs->queue().size(); }
    json will() { return SparkplugWitness::instance().decode(m_will.payload.toStdString()); }

    SparkplugSettings m_node;
    Catalogue m_catalogue;
    FakeLink m_link;
    std::unique_ptr<FakeNeeds> m_needs;
    std::unique_ptr<EdgeNode> m_edge;
    MqttMessage m_will;
    qint64 m_number = 0;
    bool m_answersPings = true;
};

} // namespace

// ---- Births ------------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, SubscribesToItsCommandsBeforeItIsBorn)
{
    start();
    connect();
    EXPECT_EQ(m_link.topics, (std::vector<std::string>{kNcmd, "spBv1.0/plant/DCMD/panel7/+"}));
    EXPECT_TRUE(m_link.seen.empty());
}

TEST_F(EdgeNodeTest, TakesNoCommandsForDevicesUnlessItIsConfiguredSo)
{
    m_node.takesOrders = false;
    start();
    connect();
    EXPECT_EQ(m_link.topics, std::vector<std::string>{kNcmd});
    receive(kDcmd, {{"metrics", {{{"name", "Level"}, {"int_value", 5}}}}});
    EXPECT_TRUE(m_needs->orders.empty());
}

TEST_F(EdgeNodeTest, TellsTheBirthOfTheNodeThenThoseOfItsDevicesThenData)
{
    start();
    tellLine("up");
    tellStation(1, "connected");
    tellStation(2, "connected");
    feed("Level", "INT", "0100");
    pass();
    connect();
    pass();
    feed("Level", "INT", "0200");
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1, DBIRTH press-2 2, DDATA press-1 3");
}

TEST_F(EdgeNodeTest, TellsInItsBirthWhatItIsAndTheStatesOfItsLines)
{
    goOnline();
    const Seen birth = popOn(kNbirth);
    EXPECT_EQ(birth.qos, 0);
    EXPECT_FALSE(birth.isRetained);
    EXPECT_EQ(birth.payload.at("seq"), "0");
    EXPECT_EQ(birth.payload.at("timestamp"), std::to_string(kNow + 50));
    EXPECT_EQ(birth.metric("bdSeq"), (json{{"name", "bdSeq"},
                                           {"timestamp", std::to_string(kNow + 50)},
                                           {"datatype", 4},
                                           {"long_value", "0"}}));
    const json rebirth = birth.metric("Node Control/Rebirth");
    EXPECT_EQ(rebirth.at("datatype"), 11);
    EXPECT_EQ(rebirth.at("boolean_value"), false);
    EXPECT_FALSE(rebirth.contains("alias"));
    EXPECT_EQ(birth.metric("Lines/press/State").at("string_value"), "up");
    EXPECT_EQ(birth.metric("Lines/press/State").at("datatype"), 12);
    EXPECT_EQ(birth.metric("Lines/press/Text").at("string_value"), "text of up");
    EXPECT_EQ(birth.metric("Lines/press/Station 1/State").at("string_value"), "connected");
    EXPECT_EQ(birth.metric("Lines/press/Station 2/State").at("is_null"), true);
    EXPECT_EQ(birth.size(), 8U);
}

TEST_F(EdgeNodeTest, TellsInADevicesBirthEveryVariableWithItsValue)
{
    m_catalogue.variables[1].isWritable = false;
    start();
    tellStation(1, "connected");
    feed("Level", "INT", "feff");
    pass();
    connect();
    pass();
    const Seen birth = popOn(kDbirth);
    EXPECT_EQ(birth.qos, 0);
    EXPECT_FALSE(birth.isRetained);
    EXPECT_EQ(birth.payload.at("timestamp"), std::to_string(kNow + 250));
    const json level = birth.metric("Level");
    EXPECT_EQ(level.at("datatype"), 2);
    EXPECT_EQ(level.at("int_value"), 4294967294U);
    EXPECT_EQ(level.at("timestamp"), std::to_string(kNow));
    EXPECT_TRUE(level.contains("alias"));
    EXPECT_FALSE(level.contains("is_null"));
    EXPECT_EQ(property(level, "Quality"), (json{{"type", 3}, {"int_value", 192}}));
    EXPECT_EQ(property(level, "readOnly"), (json{{"type", 11}, {"boolean_value", false}}));
    EXPECT_EQ(property(level, "engUnit"), (json{{"type", 12}, {"string_value", "mm"}}));
    EXPECT_EQ(property(level, "engLow"), (json{{"type", 10}, {"double_value", -10.0}}));
    EXPECT_EQ(property(level, "engHigh"), (json{{"type", 10}, {"double_value", 100.0}}));
    EXPECT_EQ(level.at("properties").at("keys").size(), level.at("properties").at("values").size());
    const json speed = birth.metric("Speed");
    EXPECT_EQ(speed.at("datatype"), 9);
    EXPECT_EQ(speed.at("is_null"), true);
    EXPECT_FALSE(speed.contains("float_value"));
    EXPECT_EQ(property(speed, "Quality"), (json{{"type", 3}, {"int_value", 0}}));
    EXPECT_EQ(property(speed, "readOnly"), (json{{"type", 11}, {"boolean_value", true}}));
    EXPECT_EQ(birth.size(), 2U);
}

TEST_F(EdgeNodeTest, GivesEveryMetricOfTheNodeAnAliasOfItsOwnThatOutlivesARestart)
{
    m_catalogue.variables.clear();
    for (int i = 0; i < 500; ++i)
        m_catalogue.variables.append(variable(("V" + std::to_string(i)).c_str(), 1 + i % 2, "INT"));
    const auto aliases = [this] {
        start();
        tellStation(1, "connected");
        tellStation(2, "connected");
        connect();
        pass();
        std::map<std::string, std::string> names;
        for (const Seen& each : pop()) {
            for (const json& metric : each.payload.value("metrics", json::array())) {
                if (metric.contains("alias"))
                    names[metric.at("alias")] = metric.at("name");
            }
        }
        return names;
    };
    const auto first = aliases();
    EXPECT_EQ(first.size(), 500U + 6U);
    m_catalogue.variables.removeFirst();
    const auto second = aliases();
    EXPECT_EQ(second.size(), 499U + 6U);
    for (const auto& [alias, name] : second)
        EXPECT_EQ(first.at(alias), name);
}

TEST_F(EdgeNodeTest, CountsItsMessagesFrom0To255AndOn)
{
    goOnline();
    for (int i = 0; i < 300; ++i) {
        feed("Level", "INT", i % 2 == 0 ? "0100" : "0200");
        pass();
    }
    int expected = 0;
    for (const Seen& each : pop()) {
        EXPECT_EQ(each.seq(), expected);
        expected = (expected + 1) % 256;
    }
    EXPECT_EQ(expected, (2 + 300) % 256);
}

TEST_F(EdgeNodeTest, UsesNoNumberForAMessageThatTheNetworkDoesNotTake)
{
    start();
    tellStation(1, "connected");
    tellStation(2, "connected");
    connect();
    m_link.room = 1;
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0");
    m_link.room = 1;
    pass();
    EXPECT_EQ(popText(), "DBIRTH press-1 1");
    m_link.room = 100;
    pass();
    EXPECT_EQ(popText(), "DBIRTH press-2 2");
    m_link.room = 0;
    feed("Level", "INT", "0100");
    pass();
    m_link.room = 100;
    pass();
    EXPECT_EQ(popText(), "DDATA press-1 3");
}

TEST_F(EdgeNodeTest, WaitsARandomTimeBeforeItIsBorn)
{
    m_node.broker.spreadMs = 60000;
    start();
    int bornEarly = 0;
    for (int i = 0; i < 20; ++i) {
        connect();
        pass(std::chrono::seconds(30));
        bornEarly += m_link.seen.empty() ? 0 : 1;
        pass(std::chrono::seconds(31));
        EXPECT_EQ(popText(), "NBIRTH 0");
        disconnect();
    }
    // All on one side happens once in a million runs.
    EXPECT_GT(bornEarly, 0);
    EXPECT_LT(bornEarly, 20);
}

// ---- bdSeq and the Will
// --------------------------------------------------------------------------

TEST_F(EdgeNodeTest, GivesEachConnectionAWillWithTheNumberOfItsBirth)
{
    start();
    connect();
    EXPECT_EQ(m_will.topic.toStdString(), kNdeath);
    EXPECT_EQ(m_will.qos, 1);
    EXPECT_FALSE(m_will.isRetained);
    EXPECT_FALSE(will().contains("seq"));
    EXPECT_EQ(will().at("metrics").size(), 1U);
    EXPECT_EQ(will().at("metrics").at(0).at("name"), "bdSeq");
    EXPECT_EQ(will().at("metrics").at(0).at("long_value"), "0");
    pass();
    EXPECT_EQ(popOn(kNbirth).metric("bdSeq").at("long_value"), "0");
    disconnect();
    connect();
    EXPECT_EQ(will().at("metrics").at(0).at("long_value"), "1");
    pass();
    EXPECT_EQ(popOn(kNbirth).metric("bdSeq").at("long_value"), "1");
}

TEST_F(EdgeNodeTest, CountsConnectionsOverRestartsAndFrom255To0)
{
    for (int i = 0; i < 258; ++i) {
        if (i % 16 == 0)
            start(); // killed before the connection is made
        EXPECT_EQ(m_edge->will().qos, 1);
        EXPECT_EQ(m_needs->queue().kept(QStringLiteral("bdSeq")).toInt(), i % 256);
    }
}

TEST_F(EdgeNodeTest, TellsItsDeathBeforeItLeaves)
{
    goOnline();
    pop();
    feed("Level", "INT", "0100");
    pass(std::chrono::milliseconds(50));
    m_needs->flow().tick();
    m_edge->stop();
    const std::vector<Seen> seen = pop();
    ASSERT_GE(seen.size(), 1U);
    EXPECT_EQ(seen.back().topic, kNdeath);
    EXPECT_EQ(seen.back().qos, 1);
    EXPECT_FALSE(seen.back().isRetained);
    EXPECT_FALSE(seen.back().payload.contains("seq"));
    EXPECT_EQ(seen.back().only().at("long_value"), "0");
    pass();
    EXPECT_EQ(popText(), "");
}

// ---- Rebirth
// -------------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, IsBornAgainOnOrderWithTheSameNumberOfTheConnection)
{
    goOnline();
    feed("Level", "INT", "0700");
    pass();
    pop();
    pass(std::chrono::seconds(1));
    orderRebirth();
    const std::vector<Seen> births = pop();
    ASSERT_EQ(births.size(), 2U);
    EXPECT_EQ(births.at(0).topic, kNbirth);
    EXPECT_EQ(births.at(0).seq(), 0);
    EXPECT_EQ(births.at(0).metric("bdSeq").at("long_value"), "0");
    EXPECT_EQ(births.at(1).topic, kDbirth);
    EXPECT_EQ(births.at(1).seq(), 1);
    EXPECT_EQ(births.at(1).metric("Level").at("int_value"), 7);
    feed("Level", "INT", "0800");
    pass();
    EXPECT_EQ(popText(), "DDATA press-1 2");
}

TEST_F(EdgeNodeTest, IsBornAgainAtMostOnceASecondWhateverIsOrdered)
{
    goOnline();
    pass(std::chrono::seconds(2));
    pop();
    for (int i = 0; i < 100; ++i) {
        orderRebirth();
        pass(std::chrono::milliseconds(50));
    }
    int births = 0;
    for (const Seen& each : pop())
        births += each.type() == "NBIRTH" ? 1 : 0;
    EXPECT_GE(births, 5);
    EXPECT_LE(births, 6);
}

TEST_F(EdgeNodeTest, TellsNoDataBetweenTheOrderOfARebirthAndTheBirths)
{
    goOnline();
    pass(std::chrono::seconds(1));
    pop();
    feed("Level", "INT", "0800");
    m_clock.advance(std::chrono::milliseconds(200));
    m_needs->flow().tick(); // gathered, not told
    m_link.room = 0;
    orderRebirth();
    m_link.room = 1;
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0");
    m_link.room = 100;
    pass();
    const std::vector<Seen> rest = pop();
    ASSERT_EQ(rest.size(), 1U);
    EXPECT_EQ(rest.at(0).topic, kDbirth);
    EXPECT_EQ(rest.at(0).metric("Level").at("int_value"), 8);
}

TEST_F(EdgeNodeTest, IsNotBornAgainForAnythingElse)
{
    goOnline();
    pass(std::chrono::seconds(2));
    pop();
    receive(kNcmd, {{"metrics", {{{"name", "Node Control/Rebirth"}, {"boolean_value", false}}}}});
    EXPECT_TRUE(m_needs->warnings.empty());
    receive(kNcmd, {{"metrics", {{{"name", "Node Control/Rebirth"}, {"int_value", 1}}}}});
    receive(kNcmd,
            {{"metrics",
              {{{"name", "Node Control/Rebirth"}, {"boolean_value", true}, {"is_null", true}}}}});
    receive(kNcmd, {{"metrics", {{{"name", "Node Control/Reboot"}, {"boolean_value", true}}}}});
    receive(kNcmd, {{"metrics", {{{"name", "Node Control/Rebirth"}, {"boolean_value", true}}}}},
            true);
    receiveBytes(kNcmd, "\xff\xff");
    receiveBytes(kNcmd, std::string(10 * 1024 * 1024, '\x12'));
    pass(std::chrono::seconds(2));
    EXPECT_EQ(popText(), "");
    EXPECT_EQ(m_needs->warnings, (std::map<std::string, int>{{"a value of another type", 2},
                                                             {"an unknown metric", 1},
                                                             {"a retained command", 1},
                                                             {"a malformed command", 2}}));
}

TEST_F(EdgeNodeTest, IsBornAgainWhenTheConfigurationIsAnother)
{
    goOnline();
    tellStation(2, "connected");
    pass();
    pop();
    m_edge->setCatalogue(m_catalogue);
    pass();
    EXPECT_EQ(popText(), "") << "the same one";
    m_catalogue.variables.removeLast(); // station 2 has no other
    m_catalogue.variables.append(variable("New", 1, "BOOL"));
    m_edge->setCatalogue(m_catalogue);
    pass();
    const std::vector<Seen> seen = pop();
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen.at(0).topic, "spBv1.0/plant/DDEATH/panel7/press-2");
    EXPECT_EQ(seen.at(1).topic, kNbirth);
    EXPECT_EQ(seen.at(1).metric("bdSeq").at("long_value"), "0");
    EXPECT_TRUE(seen.at(1).metric("Lines/press/Station 2/State").is_null());
    EXPECT_EQ(seen.at(2).topic, kDbirth);
    EXPECT_EQ(seen.at(2).metric("New").at("datatype"), 11);
}

TEST_F(EdgeNodeTest, KeepsValuesAndStatesWhenTheConfigurationIsAnother)
{
    goOnline();
    feed("Level", "INT", "0700");
    pass();
    pop();
    m_catalogue.variables.append(variable("New", 1, "BOOL"));
    m_edge->setCatalogue(m_catalogue);
    pass();
    EXPECT_EQ(popOn(kNbirth).metric("Lines/press/State").at("string_value"), "up");
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("int_value"), 7);
    EXPECT_EQ(waiting(), 0);
}

// ---- Devices
// -------------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, TellsTheDeathOfADeviceWhoseStationDiesAndItsBirthWhenItIsBack)
{
    goOnline();
    pop();
    tellStation(1, "dead");
    pass(std::chrono::seconds(1));
    const Seen death = popOn(kDdeath);
    EXPECT_EQ(death.qos, 0);
    EXPECT_FALSE(death.isRetained);
    EXPECT_EQ(death.seq(), 2);
    EXPECT_TRUE(death.payload.contains("timestamp"));
    EXPECT_EQ(death.size(), 0U);
    feed("Level", "INT", "0700", host::Quality::Stale);
    pass();
    EXPECT_EQ(popText(), "") << "that its values are stale is told by its death";
    EXPECT_EQ(waiting(), 0);
    tellStation(1, "connected");
    pass();
    const Seen birth = popOn(kDbirth);
    EXPECT_EQ(birth.seq(), 3);
    EXPECT_EQ(property(birth.metric("Level"), "Quality").at("int_value"), 500);
}

TEST_F(EdgeNodeTest, TellsTheDeathsOfAllDevicesOfALineThatIsDown)
{
    goOnline();
    tellStation(2, "connected");
    pass();
    pop();
    tellLine("down");
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "DDEATH press-1 3, DDEATH press-2 4");
    tellLine("up");
    pass();
    EXPECT_EQ(popText(), "") << "how its stations are is not known yet";
    tellStation(2, "connected");
    pass();
    EXPECT_EQ(popText(), "DBIRTH press-2 5");
}

TEST_F(EdgeNodeTest, TellsTheLastValuesOfAStationBeforeItsDeath)
{
    goOnline();
    pop();
    tellStation(1, "dead");
    feed("Level", "INT", "0700");
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "DDATA press-1 2, DDEATH press-1 3");
}

TEST_F(EdgeNodeTest, TellsNoDeathOfAStationThatAnswersAgainAtOnce)
{
    goOnline();
    pop();
    tellStation(1, "dead");
    pass(std::chrono::milliseconds(200));
    tellStation(1, "connected");
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "");
}

TEST_F(EdgeNodeTest, BuriesADeviceThatDiedWhileBirthsWereOrdered)
{
    goOnline();
    pass(std::chrono::seconds(1));
    pop();
    tellStation(1, "dead");
    orderRebirth();
    pass(std::chrono::seconds(2));
    EXPECT_EQ(popText(), "DDEATH press-1 2, NBIRTH 0");
}

TEST_F(EdgeNodeTest, BuriesADeviceThatDiedBeforeTheConfigurationBecameAnother)
{
    goOnline();
    pop();
    tellStation(1, "dead");
    m_catalogue.variables.append(variable("New", 1, "BOOL"));
    m_edge->setCatalogue(m_catalogue);
    pass(std::chrono::seconds(2));
    EXPECT_EQ(popText(), "DDEATH press-1 2, NBIRTH 0");
    tellStation(1, "connected");
    pass();
    EXPECT_EQ(popText(), "DBIRTH press-1 1");
}

TEST_F(EdgeNodeTest, BuriesADeviceThatDiesBeforeAnotherConfigurationIsTold)
{
    goOnline();
    pop();
    m_catalogue.variables.append(variable("New", 1, "BOOL"));
    m_edge->setCatalogue(m_catalogue);
    tellStation(1, "dead");
    pass(std::chrono::seconds(2));
    EXPECT_EQ(popText(), "DDEATH press-1 2, NBIRTH 0");
}

// ---- Data
// ----------------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, TellsChangesByTheAliasAlone)
{
    goOnline();
    const json alias = popOn(kDbirth).metric("Level").at("alias");
    feed("Level", "INT", "0400");
    pass();
    pop();
    feed("Level", "INT", "0500");
    pass();
    const Seen data = popOn(kDdata);
    EXPECT_EQ(data.qos, 0);
    EXPECT_FALSE(data.isRetained);
    EXPECT_TRUE(data.payload.contains("timestamp"));
    EXPECT_EQ(
        data.only(),
        (json{{"alias", alias}, {"timestamp", std::to_string(kNow + 400)}, {"int_value", 5}}));
    pass(std::chrono::seconds(10));
    EXPECT_EQ(popText(), "") << "nothing changed";
}

TEST_F(EdgeNodeTest, GathersChangesOfADeviceInOneMessage)
{
    goOnline();
    pop();
    feed("Level", "INT", "0500");
    feed("Speed", "REAL", "0000c841");
    feed("Level", "INT", "0600");
    pass();
    const json metrics = popOn(kDdata).payload.at("metrics");
    ASSERT_EQ(metrics.size(), 3U);
    EXPECT_EQ(metrics.at(0).at("int_value"), 5);
    EXPECT_EQ(metrics.at(1).at("float_value"), 25.0);
    EXPECT_EQ(metrics.at(2).at("int_value"), 6);
}

TEST_F(EdgeNodeTest, BoundsTheSizeOfItsMessages)
{
    m_settings.historyPerSecond = 100000;
    goOnline();
    pop();
    for (int i = 0; i < 900; ++i)
        feed("Level", "INT", i % 2 == 0 ? "0100" : "0200");
    pass(std::chrono::seconds(1));
    std::size_t values = 0;
    for (const Seen& each : pop()) {
        EXPECT_LE(each.size(), 200U);
        values += each.size();
    }
    EXPECT_EQ(values, 900U);
}

TEST_F(EdgeNodeTest, TellsTheQualityWhenItIsNotGoodAndWhenItIsGoodAgain)
{
    goOnline();
    feed("Level", "INT", "0400");
    pass();
    EXPECT_EQ(property(popOn(kDdata).only(), "Quality").at("int_value"), 192) << "it was bad";
    feed("Level", "INT", "0500");
    pass();
    EXPECT_TRUE(property(popOn(kDdata).only(), "Quality").is_null());
    feed("Level", "INT", "0500", host::Quality::Stale);
    pass();
    const json stale = popOn(kDdata).only();
    EXPECT_EQ(property(stale, "Quality"), (json{{"type", 3}, {"int_value", 500}}));
    EXPECT_EQ(stale.at("int_value"), 5);
    feed("Level", "INT", "0500");
    pass();
    EXPECT_EQ(property(popOn(kDdata).only(), "Quality"), (json{{"type", 3}, {"int_value", 192}}));
    feed("Level", "INT", "0600");
    pass();
    EXPECT_TRUE(property(popOn(kDdata).only(), "Quality").is_null());
    feed("Speed", nullptr, "", host::Quality::Never);
    pass();
    const json never = popOn(kDdata).only();
    EXPECT_EQ(never.at("is_null"), true);
    EXPECT_EQ(property(never, "Quality"), (json{{"type", 3}, {"int_value", 0}}));
}

TEST_F(EdgeNodeTest, TellsATypeByABirthWhenItBecomesKnown)
{
    m_catalogue.variables = {variable("Known", 1, "INT"), variable("A"), variable("B")};
    goOnline();
    EXPECT_EQ(popOn(kDbirth).size(), 1U) << "those whose types are not known are left out";
    feed("A", "REAL", "0000c841");
    pass(std::chrono::milliseconds(100));
    feed("B", "BOOL", "01");
    feed("A", "REAL", "00002041");
    pass(std::chrono::seconds(1));
    const std::vector<Seen> seen = pop();
    ASSERT_EQ(seen.size(), 2U) << "one birth tells both types";
    EXPECT_EQ(seen.at(0).topic, kDbirth);
    EXPECT_EQ(seen.at(0).seq(), 2);
    EXPECT_EQ(seen.at(0).metric("A").at("datatype"), 9);
    EXPECT_EQ(seen.at(0).metric("A").at("float_value"), 10.0);
    EXPECT_EQ(seen.at(0).metric("B").at("boolean_value"), true);
    const json earlier = seen.at(1).only();
    EXPECT_EQ(earlier.at("float_value"), 25.0);
    EXPECT_EQ(earlier.at("is_historical"), true);
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, TellsABirthWhenAControllerHasAnotherType)
{
    goOnline();
    pop();
    feed("Level", "DINT", "01000000");
    pass(std::chrono::seconds(1));
    const std::vector<Seen> seen = pop();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen.at(0).topic, kDbirth);
    EXPECT_EQ(seen.at(0).metric("Level").at("datatype"), 3);
    EXPECT_EQ(seen.at(0).metric("Level").at("int_value"), 1);
}

TEST_F(EdgeNodeTest, TellsStatesOfLinesAndStationsAsDataOfTheNode)
{
    goOnline();
    const json alias = popOn(kNbirth).metric("Lines/press/Station 2/State").at("alias");
    feedEvent(2, "dead");
    tellStation(2, "dead");
    pass();
    const Seen data = popOn(kNdata);
    EXPECT_EQ(data.qos, 0);
    EXPECT_FALSE(data.isRetained);
    EXPECT_EQ(data.seq(), 2);
    EXPECT_TRUE(data.payload.contains("timestamp"));
    ASSERT_EQ(data.size(), 2U);
    EXPECT_EQ(data.payload.at("metrics").at(0), (json{{"alias", alias},
                                                      {"timestamp", std::to_string(kNow + 200)},
                                                      {"string_value", "dead"}}));
    EXPECT_EQ(data.payload.at("metrics").at(1).at("string_value"), "why");
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, WarnsOfNamesThatDifferOnlyInCase)
{
    m_catalogue.variables.append(variable("LEVEL", 2, "INT"));
    start();
    EXPECT_TRUE(m_needs->warnings.empty()) << "in another device";
    m_catalogue.variables.append(variable("LEVEL", 1, "INT"));
    start();
    EXPECT_EQ(m_needs->warnings["names that are alike"], 1);
    EXPECT_NE(m_needs->lastWarning.find("\"Level\" and \"LEVEL\""), std::string::npos);
}

TEST_F(EdgeNodeTest, WarnsOfDevicesThatDifferOnlyInCase)
{
    m_catalogue.lines.append(QStringLiteral("Press"));
    CatalogueVariable other = variable("Other", 1, "INT");
    other.line = QStringLiteral("Press");
    m_catalogue.variables.append(other);
    start();
    EXPECT_NE(m_needs->lastWarning.find("\"press-1\" and \"Press-1\""), std::string::npos);
}

// ---- The queue
// -----------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, DeletesARowOnceTheBrokerAnsweredAPingAfterIt)
{
    goOnline();
    m_answersPings = false;
    feed("Level", "INT", "0500");
    pass();
    EXPECT_EQ(popOn(kDdata).size(), 1U);
    pass(std::chrono::seconds(5));
    EXPECT_EQ(waiting(), 1);
    ASSERT_FALSE(m_link.pings.empty());
    m_edge->handlePong(m_link.pings.back());
    pass();
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, TellsWhatWaitedAsHistoricalAfterTheBirthsAndTheLatestInThem)
{
    start();
    tellStation(1, "connected");
    feed("Level", "INT", "0100");
    pass();
    feed("Level", "INT", "0200");
    pass();
    feed("Level", "INT", "0300");
    pass();
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("int_value"), 3);
    const std::vector<Seen> data = pop();
    ASSERT_EQ(data.size(), 1U);
    const json metrics = data.at(0).payload.at("metrics");
    ASSERT_EQ(metrics.size(), 2U) << "the latest was in the birth";
    EXPECT_EQ(metrics.at(0).at("int_value"), 1);
    EXPECT_EQ(metrics.at(0).at("is_historical"), true);
    EXPECT_EQ(metrics.at(0).at("timestamp"), std::to_string(kNow));
    EXPECT_EQ(metrics.at(1).at("int_value"), 2);
    EXPECT_EQ(metrics.at(1).at("is_historical"), true);
    EXPECT_EQ(metrics.at(1).at("timestamp"), std::to_string(kNow + 200));
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, TellsAgainAsHistoricalWhatNoPingFollowed)
{
    goOnline();
    m_answersPings = false;
    feed("Level", "INT", "0100");
    pass();
    feed("Level", "INT", "0200");
    pass();
    pop();
    disconnect();
    m_answersPings = true;
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("int_value"), 2);
    const json again = popOn(kDdata).only();
    EXPECT_EQ(again.at("int_value"), 1);
    EXPECT_EQ(again.at("is_historical"), true);
    EXPECT_EQ(popText(), "");
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, TellsNothingAgainThatTheBrokerConfirmedWhileTheNodeLeft)
{
    goOnline();
    m_answersPings = false;
    feed("Level", "INT", "0100");
    pass();
    feed("Level", "INT", "0200");
    pass(std::chrono::milliseconds(50));
    m_needs->flow().tick();
    m_edge->stop();
    EXPECT_EQ(m_link.seen.back().topic, kNdeath);
    ASSERT_FALSE(m_link.pings.empty());
    m_edge->handlePong(m_link.pings.back());
    disconnect();
    m_needs->flow().tick();
    EXPECT_EQ(waiting(), 0);
    pop();
    connect();
    m_answersPings = true;
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1");
}

TEST_F(EdgeNodeTest, TellsInItsBirthsWhatTheServiceRemembers)
{
    start();
    tellStation(1, "connected");
    remember("Level", "INT", "0900");
    connect();
    pass();
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("int_value"), 9);
    EXPECT_EQ(popText(), "") << "it is not repeated";
    m_clock.advance(std::chrono::seconds(1));
    m_wallClock.advance(1000);
    feed("Level", "INT", "0a00");
    pass();
    const json data = popOn(kDdata).only();
    EXPECT_EQ(data.at("int_value"), 10);
    EXPECT_FALSE(data.contains("is_historical"));
    pass(std::chrono::seconds(1));
    orderRebirth();
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("int_value"), 10);
}

TEST_F(EdgeNodeTest, BearsADeadDeviceForAsLongAsItsHistoryIsTold)
{
    start();
    feed("Level", "INT", "0100");
    pass();
    feed("Level", "INT", "0200");
    pass();
    tellStation(1, "dead");
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popOn(kNbirth).seq(), 0);
    const Seen birth = popOn(kDbirth);
    EXPECT_EQ(property(birth.metric("Level"), "Quality").at("int_value"), 500);
    EXPECT_EQ(birth.metric("Level").at("int_value"), 2);
    const Seen data = popOn(kDdata);
    EXPECT_EQ(data.only().at("int_value"), 1);
    EXPECT_EQ(data.only().at("is_historical"), true);
    EXPECT_EQ(popText(), "");
    pass(std::chrono::seconds(3));
    EXPECT_EQ(popText(), "DDEATH press-1 3");
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, TellsHistoryOfAnotherTypeWithThatType)
{
    start();
    tellStation(1, "connected");
    feed("Level", "INT", "0100");
    pass();
    feed("Level", "DINT", "02000000");
    pass();
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("datatype"), 3);
    const json data = popOn(kDdata).only();
    EXPECT_EQ(data.at("datatype"), 2);
    EXPECT_EQ(data.at("int_value"), 1);
    EXPECT_EQ(data.at("is_historical"), true);
}

TEST_F(EdgeNodeTest, CountsAndDropsWhatWaitedForAVariableThatIsGone)
{
    start();
    tellStation(1, "connected");
    feed("Gone", "INT", "0100");
    feed("Gone", "INT", "0200");
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1");
    EXPECT_EQ(m_needs->warnings["a value without a variable"], 2);
    EXPECT_EQ(m_edge->status().at("dropped"), 2);
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, TellsStatesThatWaitedAsHistorical)
{
    start();
    feedEvent(-1, "down");
    tellLine("down");
    pass();
    tellLine("up");
    feedEvent(-1, "up");
    pass();
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popOn(kNbirth).metric("Lines/press/State").at("string_value"), "up");
    const Seen first = popOn(kNdata);
    EXPECT_EQ(first.payload.at("metrics").at(0).at("string_value"), "down");
    EXPECT_EQ(first.payload.at("metrics").at(0).at("is_historical"), true);
    EXPECT_EQ(first.payload.at("metrics").at(0).at("timestamp"), std::to_string(kNow));
}

// ---- The primary host
// ------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, WaitsForItsPrimaryHostBeforeItIsBorn)
{
    m_node.primaryHost = QStringLiteral("scada");
    goOnline();
    EXPECT_EQ(m_link.topics.back(), kState);
    pass(std::chrono::seconds(60));
    EXPECT_EQ(popText(), "");
    tellHost(false, 1000);
    receiveBytes("spBv1.0/STATE/other", R"({"online":true,"timestamp":2000})", true);
    pass(std::chrono::seconds(60));
    EXPECT_EQ(popText(), "");
    EXPECT_TRUE(m_link.reconnects.empty());
    orderRebirth();
    pass();
    EXPECT_EQ(popText(), "") << "nor on order";
    tellHost(true, 1000);
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1");
}

TEST_F(EdgeNodeTest, IgnoresAStateThatIsOlderThanTheOneBefore)
{
    m_node.primaryHost = QStringLiteral("scada");
    goOnline();
    tellHost(false, 1000);
    tellHost(true, 999);
    pass();
    EXPECT_EQ(popText(), "");
    tellHost(true, 1001);
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1");
    tellHost(false, 1000);
    pass();
    EXPECT_EQ(popText(), "");
    EXPECT_TRUE(m_link.reconnects.empty());
    EXPECT_EQ(m_needs->warnings["an outdated state"], 2);
}

TEST_F(EdgeNodeTest, DiesAndConnectsAnewWhenItsPrimaryHostGoes)
{
    m_node.primaryHost = QStringLiteral("scada");
    goOnline();
    tellHost(true, 1000);
    pass();
    pop();
    tellHost(false, 1000);
    const std::vector<Seen> seen = pop();
    ASSERT_EQ(seen.size(), 1U);
    EXPECT_EQ(seen.at(0).topic, kNdeath);
    EXPECT_EQ(seen.at(0).only().at("long_value"), "0");
    EXPECT_EQ(m_link.reconnects.size(), 1U);
    feed("Level", "INT", "0500");
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "");
    disconnect();
    connect();
    EXPECT_EQ(will().at("metrics").at(0).at("long_value"), "1");
    tellHost(false, 1000);
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "");
    tellHost(true, 2000);
    pass();
    EXPECT_EQ(popOn(kNbirth).metric("bdSeq").at("long_value"), "1");
    EXPECT_EQ(popOn(kDbirth).metric("Level").at("int_value"), 5);
    EXPECT_EQ(waiting(), 0);
}

TEST_F(EdgeNodeTest, AsksAgainForItsPrimaryHostOnEachConnection)
{
    m_node.primaryHost = QStringLiteral("scada");
    goOnline();
    tellHost(true, 1000);
    pass();
    pop();
    disconnect();
    connect();
    pass(std::chrono::seconds(1));
    EXPECT_EQ(popText(), "");
    tellHost(true, 1000);
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1");
}

TEST_F(EdgeNodeTest, IgnoresWhatIsNoStateOfAHost)
{
    m_node.primaryHost = QStringLiteral("scada");
    goOnline();
    const char* const malformed[] = {"ONLINE",
                                     "",
                                     "[]",
                                     "true",
                                     R"({"online":true})",
                                     R"({"timestamp":1000})",
                                     R"({"online":1,"timestamp":1000})",
                                     R"({"online":"true","timestamp":1000})",
                                     R"({"online":true,"timestamp":"1000"})",
                                     R"({"online":true,"timestamp":-1})",
                                     R"({"online":true,"timestamp":1.5})",
                                     R"({"online":true,"online":false,"timestamp":1})"};
    for (const char* const payload : malformed)
        receiveBytes(kState, payload, true);
    receiveBytes(kState, R"({"online":true,"timestamp":1)" + std::string(5000, ' ') + "}", true);
    pass();
    EXPECT_EQ(popText(), "");
    EXPECT_EQ(m_needs->warnings["a malformed state"], int(std::size(malformed)) + 1);
    receiveBytes(kState, R"({"online":true,"timestamp":1000,"more":[1]})", true);
    pass();
    EXPECT_EQ(popText(), "NBIRTH 0, DBIRTH press-1 1");
}

// ---- Orders
// ----------------------------------------------------------------------------------------

TEST_F(EdgeNodeTest, WritesWhatADeviceIsOrderedByNameOrByAlias)
{
    goOnline();
    const json alias = popOn(kDbirth).metric("Level").at("alias");
    receive(kDcmd, {{"timestamp", std::to_string(kNow)},
                    {"metrics", {{{"name", "Level"}, {"int_value", 5}, {"datatype", 2}}}}});
    receive(kDcmd, {{"metrics", {{{"alias", alias}, {"int_value", 4294967295U}}}}});
    receive(kDcmd, {{"metrics", {{{"name", "Level"}, {"alias", alias}, {"int_value", 7}}}}});
    EXPECT_EQ(m_needs->orders, (std::vector<std::string>{"press/Level[0]=5", "press/Level[0]=-1",
                                                         "press/Level[0]=7"}));
    for (const auto& answer : m_needs->answers)
        answer({{"outcome", "written"}});
    EXPECT_TRUE(m_needs->warnings.empty());
    EXPECT_EQ(m_edge->status().at("orders"),
              (host::Json{{"written", 3}, {"refused", 0}, {"waiting", 0}}));
}

TEST_F(EdgeNodeTest, WritesTheValuesOfACommandOneAfterTheOther)
{
    CatalogueVariable gate = variable("Gate", 1, "BOOL");
    gate.isWritable = true;
    m_catalogue.variables.append(gate);
    goOnline();
    receive(kDcmd, {{"metrics",
                     {{{"name", "Level"}, {"int_value", 5}},
                      {{"name", "Speed"}, {"float_value", 0.1}},
                      {{"name", "Gate"}, {"boolean_value", true}}}}});
    ASSERT_EQ(m_needs->orders.size(), 1U);
    m_needs->answers.at(0)({{"outcome", "written"}});
    ASSERT_EQ(m_needs->orders.size(), 2U);
    EXPECT_EQ(m_needs->orders.at(1), "press/Speed[0]=0.1");
    m_needs->answers.at(1)({{"error", {{"code", "not-allowed"}, {"text", "Speed is locked"}}}});
    EXPECT_EQ(m_needs->orders.size(), 2U) << "what comes after a refusal is not written";
    EXPECT_EQ(m_needs->warnings["a write that the service refuses"], 1);
    EXPECT_NE(m_needs->lastWarning.find("press/Speed: Speed is locked, and 1 value"),
              std::string::npos)
        << m_needs->lastWarning;
}

TEST_F(EdgeNodeTest, RefusesACommandAsAWholeBeforeAnythingIsWritten)
{
    m_catalogue.variables.append(variable("Fixed", 1, "INT"));
    CatalogueVariable gauge = variable("Gauge", 1, "REAL");
    gauge.isWritable = true;
    gauge.maximum = 0.1;
    m_catalogue.variables.append(gauge);
    CatalogueVariable gate = variable("Gate", 1, "BOOL");
    gate.isWritable = true;
    m_catalogue.variables.append(gate);
    goOnline();
    const Seen birth = popOn(kDbirth);
    const json alias = birth.metric("Level").at("alias");
    const json good = {{"name", "Gate"}, {"boolean_value", true}};
    const std::vector<std::pair<std::string, json>> bad = {
        {"an unknown metric", {{"name", "Level2"}, {"int_value", 5}}},
        {"an unknown metric", {{"name", "level"}, {"int_value", 5}}},
        {"an unknown metric", {{"name", "Heat"}, {"int_value", 5}}}, // of another device
        {"an unknown metric", {{"alias", "12345"}, {"int_value", 5}}},
        {"an unknown metric", {{"name", "Speed"}, {"alias", alias}, {"float_value", 5}}},
        {"an unknown metric", {{"int_value", 5}}},
        {"a value of another type", {{"name", "Level"}, {"float_value", 5}}},
        {"a value of another type", {{"name", "Level"}, {"int_value", 5}, {"datatype", 3}}},
        {"a value of another type", {{"name", "Level"}, {"int_value", 40000}}},
        {"a value of another type", {{"name", "Level"}, {"is_null", true}}},
        {"a value of another type", {{"name", "Speed"}, {"float_value", "NaN"}}},
        {"a metric that is not writable", {{"name", "Fixed"}, {"int_value", 3}}},
        {"a value outside of its limits", {{"name", "Gauge"}, {"float_value", 0.2}}},
        {"a malformed command", good},
        {"a malformed command",
         {{"alias", birth.metric("Gate").at("alias")}, {"boolean_value", false}}},
        {"a historical value", {{"name", "Speed"}, {"float_value", 1}, {"is_historical", true}}}};
    std::map<std::string, int> expected;
    for (const auto& [kind, metric] : bad) {
        receive(kDcmd, {{"metrics", {good, metric}}});
        ++expected[kind];
        EXPECT_EQ(m_needs->warnings, expected) << metric;
    }
    EXPECT_TRUE(m_needs->orders.empty());
    EXPECT_EQ(m_edge->status().at("orders").at("refused"), bad.size());
}

TEST_F(EdgeNodeTest, RefusesCommandsThatAreRetainedLateOrMalformed)
{
    goOnline();
    const json good = {{{"name", "Level"}, {"int_value", 5}}};
    receive(kDcmd, {{"metrics", good}}, true);
    EXPECT_EQ(m_needs->warnings["a retained command"], 1);
    const qint64 now = m_wallClock.now();
    receive(kDcmd, {{"timestamp", std::to_string(now - 10001)}, {"metrics", good}});
    EXPECT_EQ(m_needs->warnings["a late command"], 1);
    receiveBytes(kDcmd, "{\"value\": 5}");
    receiveBytes(kDcmd, "");
    receiveBytes(kDcmd, std::string(10 * 1024 * 1024, '\0'));
    receive(kDcmd, {{"metrics", json::array()}});
    EXPECT_EQ(m_needs->warnings["a malformed command"], 4);
    receive("spBv1.0/plant/DCMD/panel7/press-3", {{"metrics", good}});
    receive("spBv1.0/plant/DCMD/panel7/press-1/more", {{"metrics", good}});
    EXPECT_EQ(m_needs->warnings["an unknown device"], 2);
    EXPECT_TRUE(m_needs->orders.empty());
    receive(kDcmd, {{"timestamp", std::to_string(now - 10000)}, {"metrics", good}});
    EXPECT_EQ(m_needs->orders.size(), 1U);
}

TEST_F(EdgeNodeTest, RefusesCommandsOfTheFutureWhateverNumberTheirTimeIs)
{
    goOnline();
    const json good = {{{"name", "Level"}, {"int_value", 5}}};
    const auto now = static_cast<quint64>(m_wallClock.now());
    const quint64 half = quint64(1) << 63;
    int refused = 0;
    for (const quint64 time : {now + 10001, now + 3600000, half - 1, half, half + 5, half + now,
                               std::numeric_limits<quint64>::max()})
    {
        receive(kDcmd, {{"timestamp", std::to_string(time)}, {"metrics", good}});
        EXPECT_EQ(m_needs->warnings["a command of the future"], ++refused) << time;
    }
    receive(kDcmd, {{"timestamp", "0"}, {"metrics", good}});
    EXPECT_EQ(m_needs->warnings["a late command"], 1);
    EXPECT_TRUE(m_needs->orders.empty());
    receive(kDcmd, {{"timestamp", std::to_string(now + 10000)}, {"metrics", good}});
    EXPECT_EQ(m_needs->orders.size(), 1U);
}

TEST_F(EdgeNodeTest, TakesTheOldestTimeOfItsMetricsForACommandThatHasNone)
{
    goOnline();
    const qint64 now = m_wallClock.now();
    const json level = {
        {"name", "Level"}, {"int_value", 5}, {"timestamp", std::to_string(now - 10001)}};
    const json speed = {{"name", "Speed"}, {"float_value", 5}, {"timestamp", std::to_string(now)}};
    receive(kDcmd, {{"metrics", {speed, level}}});
    EXPECT_TRUE(m_needs->orders.empty());
    EXPECT_EQ(m_needs->warnings["a late command"], 1);
    receive(kDcmd, {{"timestamp", std::to_string(now)}, {"metrics", {level}}});
    EXPECT_EQ(m_needs->orders.size(), 1U);
}

TEST_F(EdgeNodeTest, LetsTheServiceWriteNothingThatIsOlderThanAllowed)
{
    goOnline();
    receive(kDcmd,
            {{"timestamp", std::to_string(m_wallClock.now() - 4000)},
             {"metrics",
              {{{"name", "Level"}, {"int_value", 5}}, {{"name", "Speed"}, {"float_value", 5}}}}});
    EXPECT_EQ(m_needs->withinMs, std::vector<int>{6001});
    pass(std::chrono::seconds(2));
    m_needs->answers.at(0)({{"outcome", "written"}});
    EXPECT_EQ(m_needs->withinMs, (std::vector<int>{6001, 4001}));
}

TEST_F(EdgeNodeTest, RefusesACommandThatWaitedTooLongOrWhoseEndIsMissing)
{
    goOnline();
    MqttMessage message;
    message.topic = QByteArray::fromStdString(kDcmd);
    message.payload = QByteArray::fromStdString(SparkplugWitness::instance().encode(
        {{"metrics", {{{"name", "Level"}, {"int_value", 5}}}}}));
    message.waited = std::chrono::milliseconds(10001);
    m_edge->handleMessage(message);
    EXPECT_EQ(m_needs->warnings["a late command"], 1);
    message.waited = Duration(0);
    message.isCut = true;
    m_edge->handleMessage(message);
    EXPECT_EQ(m_needs->warnings["a malformed command"], 1);
    EXPECT_TRUE(m_needs->orders.empty());
    message.isCut = false;
    message.waited = std::chrono::milliseconds(4000);
    m_edge->handleMessage(message);
    ASSERT_EQ(m_needs->orders.size(), 1U);
    EXPECT_EQ(m_needs->withinMs.at(0), 6001);
}

TEST_F(EdgeNodeTest, RefusesAnOrderForAVariableWhoseTypeIsNotKnown)
{
    m_catalogue.variables.append(variable("Unread"));
    goOnline();
    receive(kDcmd, {{"metrics", {{{"name", "Unread"}, {"int_value", 5}}}}});
    EXPECT_TRUE(m_needs->orders.empty());
    EXPECT_EQ(m_needs->warnings["an unknown metric"], 1);
}

TEST_F(EdgeNodeTest, WritesAnArrayElementByElementOnlyWhenAllAreWithinTheLimits)
{
    CatalogueVariable list = variable("List", 1, "INT");
    list.length = 3;
    list.isWritable = true;
    list.minimum = 0;
    list.maximum = 100;
    m_catalogue.variables.append(list);
    goOnline();
    // 1, 2, 101
    receive(kDcmd, {{"metrics", {{{"name", "List"}, {"bytes_value", "AQACAGUA"}}}}});
    EXPECT_TRUE(m_needs->orders.empty());
    EXPECT_EQ(m_needs->warnings["a value outside of its limits"], 1);
    // 1, 2, 3
    receive(kDcmd, {{"metrics", {{{"name", "List"}, {"bytes_value", "AQACAAMA"}}}}});
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(m_needs->orders.size(), i + 1);
        m_needs->answers.at(i)({{"outcome", "written"}});
    }
    EXPECT_EQ(m_needs->orders,
              (std::vector<std::string>{"press/List[0]=1", "press/List[1]=2", "press/List[2]=3"}));
}

TEST_F(EdgeNodeTest, LetsOnlySoManyCommandsWait)
{
    CatalogueVariable list = variable("List", 1, "SINT");
    list.length = 1001;
    list.isWritable = true;
    m_catalogue.variables.append(list);
    goOnline();
    for (int i = 0; i < 100; ++i)
        receive(kDcmd, {{"metrics", {{{"name", "Level"}, {"int_value", 5}}}}});
    EXPECT_EQ(m_needs->orders.size(), 64U);
    EXPECT_EQ(m_needs->warnings["too many commands"], 36);
    for (std::size_t i = 0; i < 64; ++i)
        m_needs->answers.at(i)({{"outcome", "written"}});
    receive(kDcmd, {{"metrics", {{{"name", "Level"}, {"int_value", 5}}}}});
    EXPECT_EQ(m_needs->orders.size(), 65U);
    // 1,001 bytes, in base 64.
    receive(kDcmd,
            {{"metrics", {{{"name", "List"}, {"bytes_value", std::string(1335, 'A') + "="}}}}});
    EXPECT_EQ(m_needs->warnings["a malformed command"], 1) << m_needs->lastWarning;
    EXPECT_NE(m_needs->lastWarning.find("more than 1000 values"), std::string::npos)
        << m_needs->lastWarning;
    EXPECT_EQ(m_needs->orders.size(), 65U);
}

TEST_F(EdgeNodeTest, WritesNothingMoreOfACommandThatGotTooOld)
{
    goOnline();
    receive(kDcmd,
            {{"metrics",
              {{{"name", "Level"}, {"int_value", 5}}, {{"name", "Speed"}, {"float_value", 6}}}}});
    pass(std::chrono::seconds(11));
    m_needs->answers.at(0)({{"outcome", "written"}});
    EXPECT_EQ(m_needs->orders.size(), 1U);
    EXPECT_EQ(m_needs->warnings["a late command"], 1);
}

TEST_F(EdgeNodeTest, SurvivesRepliesThatComeAfterItsEnd)
{
    goOnline();
    receive(kDcmd,
            {{"metrics",
              {{{"name", "Level"}, {"int_value", 5}}, {{"name", "Speed"}, {"float_value", 6}}}}});
    m_edge.reset();
    m_needs->answers.at(0)({{"outcome", "written"}});
    EXPECT_EQ(m_needs->orders.size(), 1U);
}
