#ifndef MICRO850_GATEWAY_SPARKPLUG_EDGENODE_H
#define MICRO850_GATEWAY_SPARKPLUG_EDGENODE_H

#include "HostState.h"
#include "OrderDesk.h"
#include "Session.h"

namespace micro850::gateway::sparkplug {

/// An edge node with its devices: when it is born and dies, and what it is ordered.
class EdgeNode
{
public:
    /// All must outlive it.
    EdgeNode(const SparkplugSettings& settings, PublisherNeeds& needs, Link& link);

    void setCatalogue(const Catalogue& catalogue);
    void handleEvent(const DeliveryEvent& event) { m_session.setState(event); }

    /// The Will of the next connection. Its number outlives this process before it is told.
    MqttMessage will();
    void handleConnected();
    void handleDisconnected();
    void handleMessage(const MqttMessage& message);
    void handlePong(int number) { m_session.handlePong(number); }
    void tick();
    /// Tells what was gathered, and the node's death. What the broker answers until
    /// handleDisconnected() is not told again.
    void stop();

    host::Json status() const;

private:
    bool isWaitingForHost() const;
    void becomeReady();
    void handleHost(const QByteArray& payload);
    void handleNodeCommand(const QByteArray& payload);
    void handleDeviceCommand(const MqttMessage& message);
    void die();
    QByteArray subscribedDevices() const;

    const SparkplugSettings& m_settings;
    PublisherNeeds& m_needs;
    Link& m_link;
    NodeWriter m_writer;
    Session m_session;
    OrderDesk m_orders;
    HostState m_host;
    std::string m_catalogue; ///< as text: the same one is no reason for births
    int m_bdSeq = 0;
    bool m_isConnected = false;
    std::optional<Duration> m_birthDue;
    std::optional<Duration> m_rebornAt; ///< when births were told last
    qint64 m_rebirths = 0;
};

} // namespace micro850::gateway::sparkplug

#endif
