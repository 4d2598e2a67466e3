#include "JsonPublisher.h"

#include "delivery_queue.h"

#include <QtCore/QFile>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>

using namespace micro850;
using namespace micro850::gateway;
using namespace std::chrono_literals;
using Plain = nlohmann::json;

namespace {

/// A connection that the test plays.
class FakeLink : public MqttLink
{
public:
    struct Sent
    {
        int token;
        MqttMessage message;
    };

    /// What the test keeps of it after its end.
    struct Record
    {
        std::vector<Sent> sent;
        bool isConnected = false;
        int room = 1000000; ///< it takes so many more
        int lastToken = 0;
        bool isStopped = false;
    };

    explicit FakeLink(Record& record) : m_record(record) {}

    void start() override {}
    void stop(Duration) override { m_record.isStopped = true; }
    void tick() override {}
    bool isConnected() const override { return m_record.isConnected; }
    void subscribe(const QByteArray&) override {}
    int publish(const MqttMessage& message) override
    {
        if (!m_record.isConnected || m_record.room <= 0)
            return 0;
        --m_record.room;
        m_record.sent.push_back({++m_record.lastToken, message});
        return m_record.lastToken;
    }
    bool isFull() const override { return m_record.room <= 0; }
    host::Json status() const override { return host::Json::object(); }

private:
    Record& m_record;
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
    void write(const Order& order, const std::function<void(const host::Json&)>& answer) override
    {
        if (isOver)
            return answer({{"error", {{"code", "busy"}, {"text", "the gateway ends"}}}});
        orders.push_back(order);
        answers.push_back(answer);
    }
    void warn(const QString& kind, const QString& text) override
    {
        ++warnings[kind.toStdString()];
        texts.push_back(text.toStdString());
    }
    void note(const QString&) override {}

    bool isOver = false;
    std::vector<Order> orders;
    std::vector<std::function<void(const host::Json&)>> answers;
    std::map<std::string, int> warnings;
    std::vector<std::string> texts;

private:
    const Clock& m_clock;
    const WallClock& m_wallClock;
    DeliveryQueue m_queue;
    DeliveryFlow m_flow;
};

class JsonPublisherTest : public DeliveryQueueFixture
{
protected:
    JsonPublisherTest()
    {
        m_mqtt.prefix = QStringLiteral("p");
        m_mqtt.broker.spreadMs = 0;
        m_mqtt.discoveryPrefix = QStringLiteral("ha");
        m_mqtt.takesOrders = true;
        m_mqtt.maximumAgeMs = 10000;
        m_catalogue.lines = QStringList{QStringLiteral("press")};
    }

    void addVariable(const QString& name)
    {
        CatalogueVariable variable;
        variable.line = QStringLiteral("press");
        variable.name = name;
        variable.station = 1;
        variable.isWritable = true;
        m_catalogue.variables.append(variable);
    }
    void start()
    {
        m_needs = std::make_unique<FakeNeeds>(m_settings, m_clock, m_wallClock);
        m_publisher =
            std::make_unique<JsonPublisher>(m_mqtt, *m_needs, [this](MqttConnection::Owner& owner) {
                m_owner = &owner;
                return std::make_unique<FakeLink>(m_link);
            });
        m_publisher->setCatalogue(m_catalogue);
    }
    void connect()
    {
        m_link.isConnected = true;
        m_owner->handleConnected();
        tick();
    }
    void disconnect()
    {
        m_link.isConnected = false;
        m_owner->handleDisconnected(QStringLiteral("cut"));
    }
    void tick()
    {
        m_publisher->tick();
        m_needs->flow().tick();
    }
    /// So many ticks, 50 ms apart; the broker acknowledges all.
    void run(int ticks)
    {
        for (int i = 0; i < ticks; ++i) {
            m_clock.advance(50ms);
            tick();
            acknowledge();
        }
    }
    void acknowledge()
    {
        for (; m_acknowledged < m_link.sent.size(); ++m_acknowledged)
            m_owner->handleAcknowledged(m_link.sent[m_acknowledged].token);
    }
    void give(const QByteArray& name, const QByteArray& payload)
    {
        MqttMessage message;
        message.topic = "p/press/1/" + name + "/set";
        message.payload = payload;
        m_owner->handleMessage(message);
        tick();
    }
    std::vector<MqttMessage> sentTo(const QByteArray& end) const
    {
        std::vector<MqttMessage> found;
        for (const FakeLink::Sent& each : m_link.sent) {
            if (each.message.topic.endsWith(end))
                found.push_back(each.message);
        }
        return found;
    }
    std::vector<std::string> outcomes() const
    {
        std::vector<std::string> all;
        for (const MqttMessage& message : sentTo("/result"))
            all.push_back(Plain::parse(message.payload.toStdString())["outcome"]);
        return all;
    }
    std::vector<std::string> idsOfResults() const
    {
        std::vector<std::string> all;
        for (const MqttMessage& message : sentTo("/result"))
            all.push_back(Plain::parse(message.payload.toStdString())["id"].dump());
        return all;
    }
    /// What this process has given to write() so far.
    static qint64 bytesWritten()
    {
        QFile file(QStringLiteral("/proc/self/io"));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().split('\n');
        for (const QByteArray& line : lines) {
            if (line.startsWith("wchar: "))
                return line.mid(7).toLongLong();
        }
        ADD_FAILURE() << "no count of what was written";
        return 0;
    }

    MqttSettings m_mqtt;
    Catalogue m_catalogue;
    FakeLink::Record m_link;
    std::size_t m_acknowledged = 0;
    MqttConnection::Owner* m_owner = nullptr;
    std::unique_ptr<FakeNeeds> m_needs;
    std::unique_ptr<JsonPublisher> m_publisher;
};

// The log had it twice: "the broker refuses p/status: the broker refuses the message: ...".
TEST_F(JsonPublisherTest, SaysOnceThatTheBrokerRefusesAMessageOrASubscription)
{
    start();
    connect();
    ASSERT_FALSE(m_link.sent.empty());
    const std::string topic = m_link.sent.front().message.topic.toStdString();
    m_owner->handleRefused(m_link.sent.front().token,
                           QStringLiteral("the broker refuses the message: Not authorized"));
    m_owner->handleRefused(0, QStringLiteral("the broker refuses the subscription of \"x\""));
    EXPECT_EQ(m_needs->texts,
              (std::vector<std::string>{topic + ": the broker refuses the message: Not authorized",
                                        "the broker refuses the subscription of \"x\""}));
}

// Each new topic was a row with all topics in it: 3,000 variables took 350 MB.
TEST_F(JsonPublisherTest, AnnouncesThousandsOfVariablesOfUnknownTypeWithoutFillingTheDisk)
{
    const int kVariables = 3000;
    for (int i = 0; i < kVariables; ++i)
        addVariable("Variable" + QString::number(i));
    start();
    connect();
    run(10);
    const qint64 before = bytesWritten();
    for (int i = 0; i < kVariables; ++i)
        m_needs->flow().add(messageOf("Variable" + QString::number(i),
                                      R"({"value": 1, "quality": "good", "type": "INT"})"),
                            {QStringLiteral("run"), i + 1});
    run(200);
    EXPECT_EQ(sentTo("/config").size(), std::size_t(kVariables));
    EXPECT_LT(bytesWritten() - before, 20 * 1000 * 1000);

    // Not one topic is forgotten: all are cleared when the variables are gone.
    m_publisher.reset();
    m_needs.reset();
    m_link.sent.clear();
    m_acknowledged = 0;
    m_catalogue.variables.clear();
    start();
    connect();
    run(100);
    std::size_t cleared = 0;
    for (const MqttMessage& message : sentTo("/config"))
        cleared += message.payload.isEmpty() ? 1 : 0;
    EXPECT_EQ(cleared, std::size_t(kVariables));
}

TEST_F(JsonPublisherTest, AnswersTheOrdersThatWaitWhenTheServiceEndsThenSaysOffline)
{
    addVariable(QStringLiteral("Level"));
    start();
    connect();
    run(10);
    for (const char* const id : {"1", "2", "3", "4"})
        give("Level", QByteArray(R"({"value": 5, "id": )") + id + "}");
    ASSERT_EQ(m_needs->orders.size(), 2U);
    m_needs->isOver = true;
    m_publisher->stop(2s);
    EXPECT_EQ(outcomes(),
              (std::vector<std::string>{"busy", "busy", "unknown-outcome", "unknown-outcome"}));
    EXPECT_EQ(idsOfResults(), (std::vector<std::string>{"3", "4", "1", "2"}));
    EXPECT_EQ(m_link.sent.back().message.topic, "p/status");
    EXPECT_TRUE(m_link.isStopped);
    for (const auto& answer : m_needs->answers) // too late
        answer({{"outcome", "written"}});
    EXPECT_EQ(outcomes().size(), 4U);
}

TEST_F(JsonPublisherTest, EndsWithoutAFarewellWhenTheConnectionDoesNotTakeTheStatus)
{
    start();
    connect();
    run(10);
    m_link.room = 0;
    m_publisher->stop(2s);
    EXPECT_FALSE(m_link.isStopped); // so that the broker publishes the Will
    EXPECT_NE(m_link.sent.back().message.payload, R"({"state":"offline"})");
}

TEST_F(JsonPublisherTest, SendsResultsThatWereNotAcknowledgedAgainWithTheNextConnection)
{
    addVariable(QStringLiteral("Level"));
    start();
    connect();
    run(10);
    give("Level", R"({"id": 1})");
    acknowledge();
    give("Level", R"({"id": 2})");
    give("Level", R"({"id": 3})");
    EXPECT_EQ(idsOfResults(), (std::vector<std::string>{"1", "2", "3"}));
    disconnect();
    m_link.sent.clear();
    m_acknowledged = 0;
    connect();
    run(10);
    EXPECT_EQ(idsOfResults(), (std::vector<std::string>{"2", "3"}));
    disconnect();
    m_link.sent.clear();
    m_acknowledged = 0;
    connect();
    run(10);
    EXPECT_EQ(idsOfResults(), (std::vector<std::string>{}));
}

TEST_F(JsonPublisherTest, CountsTheResultsThatItLoses)
{
    start();
    connect();
    run(10);
    m_link.room = 0;
    for (int i = 0; i < 1003; ++i)
        give("Missing", R"({"value": 1, "id": )" + QByteArray::number(i) + "}");
    EXPECT_EQ(m_publisher->status()["resultsLost"], 3);
    m_publisher->stop(2s);
    EXPECT_EQ(m_publisher->status()["resultsLost"], 1003);
    EXPECT_EQ(m_needs->warnings["order: result"], 1003);
}

// A process that is killed after it announced a variable must know the topic when it comes back.
TEST_F(JsonPublisherTest, AnnouncesAVariableOnlyOnceItsTopicIsKept)
{
    addVariable(QStringLiteral("Level"));
    addVariable(QStringLiteral("Speed"));
    start();
    connect();
    run(50);
    for (const char* const name : {"Level", "Speed"}) {
        m_needs->flow().add(messageOf(name, R"({"value": 1, "quality": "good", "type": "INT"})"),
                            {QStringLiteral("run"), 1});
        for (int i = 0; i < 100; ++i) {
            run(1);
            for (const MqttMessage& message : sentTo("/config"))
                ASSERT_TRUE(m_needs->queue().kept("retained").toUtf8().contains(message.topic));
        }
    }
    EXPECT_EQ(sentTo("/config").size(), 2U);
}

} // namespace
