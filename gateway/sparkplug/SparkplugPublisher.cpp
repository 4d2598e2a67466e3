#include "SparkplugPublisher.h"

#include "EdgeNode.h"

namespace micro850::gateway {

namespace {

// A broker that does not answer holds up everything else for so long.
const std::chrono::milliseconds kTimeToLeave(500);

} // namespace

using host::Json;

class SparkplugPublisher::Private : public MqttConnection::Owner, public sparkplug::Link
{
public:
    Private(const SparkplugSettings& settings, PublisherNeeds& needs)
        : m_settings(settings), m_needs(needs), m_node(m_settings, needs, *this),
          m_connection(*this, m_settings.broker, needs.clock())
    {
    }

    MqttMessage will() override { return m_node.will(); }
    void handleConnected() override { m_node.handleConnected(); }
    void handleDisconnected(const QString&) override { m_node.handleDisconnected(); }
    void handleAcknowledged(int) override {}
    void handleRefused(int, const QString& reason) override
    {
        m_needs.warn(QStringLiteral("refused by the broker"), reason);
    }
    void handleMessage(const MqttMessage& message) override { m_node.handleMessage(message); }
    void handlePong(int number) override { m_node.handlePong(number); }

    bool publish(const MqttMessage& message) override { return m_connection.publish(message) != 0; }
    void subscribe(const QByteArray& topic) override { m_connection.subscribe(topic); }
    void ping(int number) override { m_connection.ping(number); }
    // In order, so that the broker does not tell the node's death a second time.
    void reconnect(const QString& reason) override
    {
        m_needs.note(QStringLiteral("leaving the broker: ") + reason);
        m_connection.stop(kTimeToLeave);
        m_node.handleDisconnected();
        m_connection.start();
    }

    void setCatalogue(const Catalogue& catalogue)
    {
        m_node.setCatalogue(catalogue);
        if (!m_isStarted)
            m_connection.start();
        m_isStarted = true;
    }
    void tick()
    {
        m_connection.tick();
        m_node.tick();
    }
    void stop(Duration limit)
    {
        m_node.stop();
        m_connection.stop(limit);
        m_node.handleDisconnected();
    }
    Json status() const
    {
        return {{"connection", m_connection.status()}, {"node", m_node.status()}};
    }
    sparkplug::EdgeNode& node() { return m_node; }

private:
    SparkplugSettings m_settings;
    PublisherNeeds& m_needs;
    sparkplug::EdgeNode m_node;
    MqttConnection m_connection;
    bool m_isStarted = false;
};

SparkplugPublisher::SparkplugPublisher(const SparkplugSettings& settings, PublisherNeeds& needs)
    : m_private(std::make_unique<Private>(settings, needs))
{
}

SparkplugPublisher::~SparkplugPublisher() = default;

void SparkplugPublisher::setCatalogue(const Catalogue& catalogue)
{
    m_private->setCatalogue(catalogue);
}

void SparkplugPublisher::handleEvent(const DeliveryEvent& event)
{
    m_private->node().handleEvent(event);
}

// What a station's counters are is no value of the plant.
void SparkplugPublisher::handleStatus(const Json&) {}

void SparkplugPublisher::tick()
{
    m_private->tick();
}

void SparkplugPublisher::stop(Duration limit)
{
    m_private->stop(limit);
}

Json SparkplugPublisher::status() const
{
    return m_private->status();
}

} // namespace micro850::gateway
