#include "MqttConnection.h"

#include "broker.h"
#include "connection_owner.h"
#include "mqtt_proxy.h"
#include "mqtt_receiver.h"

#include <gtest/gtest.h>

#include <memory>

using namespace micro850;
using namespace micro850::gateway;

namespace {

MqttMessage message(const char* topic, const QByteArray& payload, int qos = 1,
                    bool isRetained = false)
{
    MqttMessage made;
    made.topic = topic;
    made.payload = payload;
    made.qos = qos;
    made.isRetained = isRetained;
    return made;
}

BrokerAddress addressOf(int port, bool isVersion5 = true)
{
    BrokerAddress address;
    address.host = QStringLiteral("127.0.0.1");
    address.port = port;
    address.clientId = QStringLiteral("gateway");
    address.isVersion5 = isVersion5;
    return address;
}

MqttReceiver::Settings receiverOf(const TestBroker& broker)
{
    MqttReceiver::Settings settings;
    settings.port = broker.port();
    return settings;
}

/// A connection, with an event loop, to a broker behind a network that can be disturbed.
class MqttConnectionTest : public ::testing::TestWithParam<bool>
{
protected:
    MqttConnectionTest() { owner.nextWill = message("gateway/status", "offline", 1, true); }

    void connect(const BrokerAddress& address)
    {
        connection = std::make_unique<MqttConnection>(owner, address, clock);
        connection->start();
        ASSERT_TRUE(run([this] { return owner.connections == 1; }))
            << qPrintable(owner.reasons.join(QLatin1Char('\n')));
    }
    bool run(const std::function<bool()>& done) { return ConnectionOwner::run(*connection, done); }

    int argc = 1;
    char name[5] = "test";
    char* argv[2] = {name, nullptr};
    QCoreApplication application{argc, argv};
    SystemClock clock;
    TestBroker broker;
    MqttProxy proxy{broker.port()};
    ConnectionOwner owner;
    std::unique_ptr<MqttConnection> connection;
};

class MqttConnectionOfEachVersion : public MqttConnectionTest
{
};

INSTANTIATE_TEST_SUITE_P(Version, MqttConnectionOfEachVersion, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "V5" : "V3"; });

} // namespace

TEST_P(MqttConnectionOfEachVersion, PublishesMessagesAndTellsTheirAcknowledgement)
{
    MqttReceiver receiver(receiverOf(broker));
    connect(addressOf(proxy.port(), GetParam()));
    const int first = connection->publish(message("a/b", "one", 1, true));
    const int second = connection->publish(message("a/c", "two", 0));
    EXPECT_GT(first, 0);
    EXPECT_GT(second, first);
    ASSERT_TRUE(run([this] { return owner.acknowledged.size() == 2; }));
    EXPECT_TRUE(owner.acknowledged.contains(first));
    EXPECT_TRUE(owner.acknowledged.contains(second));
    EXPECT_EQ(receiver.messageOn("a/b").payload, "one");
    EXPECT_EQ(receiver.messageOn("a/c").payload, "two");
    ASSERT_EQ(proxy.acknowledged().size(), 1u);
    EXPECT_TRUE(proxy.acknowledged()[0].isRetained);
    EXPECT_EQ(connection->status()["state"], "connected");
    EXPECT_EQ(connection->status()["version"], GetParam() ? "5" : "3.1.1");
}

TEST_P(MqttConnectionOfEachVersion, ReceivesWhatItSubscribed)
{
    MqttReceiver other(receiverOf(broker));
    other.publish("orders/kept", "early", 1, true);
    connect(addressOf(broker.port(), GetParam()));
    connection->subscribe("orders/#");
    ASSERT_TRUE(run([this] { return owner.messages.size() == 1; }));
    EXPECT_EQ(owner.messages[0].payload, "early");
    EXPECT_TRUE(owner.messages[0].isRetained);
    MqttReceiver::Message order;
    order.topic = "orders/a";
    order.payload = std::string("\0\xff", 2);
    order.qos = 1;
    order.correlation = "me";
    order.expirySeconds = 100;
    other.publish(order);
    ASSERT_TRUE(run([this] { return owner.messages.size() == 2; }));
    EXPECT_EQ(owner.messages[1].topic, "orders/a");
    EXPECT_EQ(owner.messages[1].payload, QByteArray("\0\xff", 2));
    EXPECT_FALSE(owner.messages[1].isRetained);
    EXPECT_EQ(owner.messages[1].correlation, GetParam() ? QByteArray("me") : QByteArray());
    EXPECT_EQ(owner.messages[1].expirySeconds.has_value(), GetParam());
}

TEST_P(MqttConnectionOfEachVersion, AnswersAPingAfterTheBrokerHasWhatWasSentBefore)
{
    MqttReceiver receiver(receiverOf(broker));
    connect(addressOf(proxy.port(), GetParam()));
    for (int i = 0; i < 100; ++i)
        connection->publish(message("data", QByteArray::number(i), 0));
    connection->ping(7);
    connection->ping(8);
    ASSERT_TRUE(run([this] { return owner.pongs.size() == 2; }));
    EXPECT_EQ(owner.pongs, (QVector<int>{7, 8}));
    EXPECT_EQ(proxy.published().size(), 100u);
    EXPECT_TRUE(receiver.waitFor([](const auto& messages) { return messages.size() == 100; }));
}

TEST_P(MqttConnectionOfEachVersion, CutsAPayloadThatIsTooLongAndGoesOn)
{
    connect(addressOf(broker.port(), GetParam()));
    connection->subscribe("orders/#");
    MqttReceiver other(receiverOf(broker));
    connection->ping(1);
    ASSERT_TRUE(run([this] { return owner.pongs.size() == 1; }));
    other.publish("orders/long", std::string(10 * 1024 * 1024, 'x'));
    other.publish("orders/short", "fine");
    ASSERT_TRUE(run([this] { return owner.messages.size() == 2; }));
    EXPECT_TRUE(owner.messages[0].isCut);
    EXPECT_EQ(owner.messages[0].topic, "orders/long");
    EXPECT_LE(owner.messages[0].payload.size(), 256 * 1024);
    EXPECT_FALSE(owner.messages[1].isCut);
    EXPECT_EQ(owner.messages[1].payload, "fine");
    EXPECT_TRUE(owner.reasons.isEmpty());
}

TEST_P(MqttConnectionOfEachVersion, LetsTheBrokerPublishTheWillWhenItEndsWithoutGoodbye)
{
    MqttReceiver receiver(receiverOf(broker));
    connect(addressOf(broker.port(), GetParam()));
    connection.reset();
    const auto will = receiver.messageOn("gateway/status");
    EXPECT_EQ(will.payload, "offline");
}

TEST_P(MqttConnectionOfEachVersion, SaysGoodbyeSoThatTheBrokerKeepsTheWill)
{
    MqttReceiver receiver(receiverOf(broker));
    connect(addressOf(proxy.port(), GetParam()));
    for (int i = 0; i < 300; ++i)
        connection->publish(message("data", QByteArray::number(i)));
    connection->ping(7);
    connection->stop(std::chrono::seconds(20));
    EXPECT_EQ(owner.acknowledged.size(), 300);
    EXPECT_EQ(owner.pongs, QVector<int>{7});
    EXPECT_EQ(connection->status()["state"], "stopped");
    ASSERT_TRUE(proxy.waitFor([this] { return proxy.openConnections() == 0; }));
    receiver.publish("last", "");
    receiver.messageOn("last");
    for (const auto& received : receiver.messages())
        EXPECT_NE(received.topic, "gateway/status");
    EXPECT_EQ(receiver.count(), 301u);
}

TEST_F(MqttConnectionTest, ConnectsAgainAfterACutWithAFreshWill)
{
    MqttReceiver receiver(receiverOf(broker));
    connect(addressOf(proxy.port()));
    owner.nextWill = message("gateway/status", "offline again", 1, false);
    proxy.cut();
    ASSERT_TRUE(run([this] { return owner.connections == 2; }));
    EXPECT_EQ(owner.reasons.size(), 1);
    EXPECT_EQ(owner.wills, 2);
    EXPECT_EQ(receiver.messageOn("gateway/status").payload, "offline");
    connection.reset();
    EXPECT_EQ(receiver.messageOn("gateway/status", 1).payload, "offline again");
}

TEST_F(MqttConnectionTest, EndsTheConnectionThatItsOwnerDoesNotWantAnyMore)
{
    connect(addressOf(broker.port()));
    connection->reconnect(QStringLiteral("a new Will"));
    EXPECT_FALSE(connection->isConnected());
    EXPECT_EQ(connection->publish(message("a", "b")), 0);
    ASSERT_TRUE(run([this] { return owner.connections == 2; }));
    EXPECT_EQ(owner.reasons, QStringList{QStringLiteral("a new Will")});
}

TEST_F(MqttConnectionTest, SendsNothingTwiceThatTheOldConnectionHad)
{
    connect(addressOf(proxy.port()));
    proxy.dropAcknowledgements(true);
    connection->publish(message("a", "1"));
    ASSERT_TRUE(proxy.waitFor([this] { return proxy.published().size() == 1; }));
    proxy.cut();
    proxy.dropAcknowledgements(false);
    ASSERT_TRUE(run([this] { return owner.connections == 2; }));
    connection->publish(message("a", "2"));
    ASSERT_TRUE(run([this] { return owner.acknowledged.size() == 1; }));
    ASSERT_EQ(proxy.published().size(), 2u);
    EXPECT_EQ(proxy.published()[1].payload, "2");
}

TEST_F(MqttConnectionTest, NoticesAConnectionThatIsHalfOpen)
{
    BrokerAddress address = addressOf(proxy.port());
    address.keepAliveSeconds = 5;
    connect(address);
    proxy.stall(true);
    ASSERT_TRUE(run([this] { return owner.reasons.size() == 1; }));
    EXPECT_EQ(owner.reasons[0], QStringLiteral("the broker does not answer any more"));
}

TEST_F(MqttConnectionTest, TakesNoMoreThanItMayHoldWhenTheBrokerReadsNothing)
{
    connect(addressOf(proxy.port()));
    proxy.stall(true);
    const QByteArray payload(10000, 'x');
    int taken = 0;
    while (taken < 10000 && connection->publish(message("a", payload)) > 0)
        ++taken;
    EXPECT_TRUE(connection->isFull());
    EXPECT_LT(taken, 1000);
    EXPECT_GT(taken, 100);
    proxy.stall(false);
    ASSERT_TRUE(run([&] { return owner.acknowledged.size() == taken; }));
    EXPECT_FALSE(connection->isFull());
}

TEST_F(MqttConnectionTest, RefusesATopicThatNoBrokerTakes)
{
    connect(addressOf(broker.port()));
    const int wild = connection->publish(message("a/#", "x"));
    const int bad = connection->publish(message("a/\xff", "x"));
    const int empty = connection->publish(message("", "x"));
    const int good = connection->publish(message("a", "x"));
    ASSERT_TRUE(run([this] { return owner.acknowledged.size() == 1; }));
    EXPECT_EQ(owner.acknowledged[0], good);
    EXPECT_EQ(owner.refused.keys(), (QList<int>{wild, bad, empty}));
    EXPECT_TRUE(owner.refused[bad].contains(QStringLiteral("\\xff")));
}
