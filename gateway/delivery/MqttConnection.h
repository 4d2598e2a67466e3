#ifndef MICRO850_GATEWAY_DELIVERY_MQTTCONNECTION_H
#define MICRO850_GATEWAY_DELIVERY_MQTTCONNECTION_H

#include "Clock.h"
#include "DeliverySettings.h"

#include <QtCore/QByteArray>

#include <memory>
#include <optional>

namespace micro850::gateway {

/// A message to or from a broker.
struct MqttMessage
{
    QByteArray topic; ///< UTF-8
    QByteArray payload;
    int qos = 1;
    bool isRetained = false;
    // Of MQTT 5 only.
    QByteArray correlation;               ///< empty: none
    std::optional<quint32> expirySeconds; ///< of what comes: what is left
};

/// The connection to a broker: libmosquitto on a thread of its own, so that neither a name server
/// nor a broker that hangs blocks the event loop. It connects again and again, with a growing
/// pause. Every connection has a clean session and a Will of its own.
class MqttConnection
{
public:
    /// Is told what happens, on the thread of the event loop.
    class Owner
    {
    public:
        virtual ~Owner() = default;
        /// The Will of the next connection, just before it is begun.
        virtual MqttMessage will() = 0;
        virtual void handleConnected() = 0;
        /// The connection is gone; tokens of messages that were not acknowledged are void. Also
        /// called when a connection could not be made. `reason` is one line for people.
        virtual void handleDisconnected(const QString& reason) = 0;
        /// The broker has it: the acknowledgement of a message of QoS 1. For QoS 0 it is called
        /// once the message was given to the network.
        virtual void handleAcknowledged(int token) = 0;
        /// The broker refused a message or a topic: it is gone. One of MQTT 5's reasons.
        virtual void handleRefused(int token, const QString& reason) = 0;
        virtual void handleMessage(const MqttMessage& message) = 0;
        /// The broker has everything that was sent before ping(number).
        virtual void handlePong(int number) = 0;
    };

    /// The arguments must outlive it. Reads the files of the address when it connects. It does not
    /// connect before start().
    MqttConnection(Owner& owner, const BrokerAddress& address, const Clock& clock);
    /// Closes the connection at once, so that the broker publishes the Will.
    ~MqttConnection();
    MqttConnection(const MqttConnection&) = delete;
    MqttConnection& operator=(const MqttConnection&) = delete;

    void start();
    /// Connects anew at once, or after a pause: ends the connection, with `reason`.
    void reconnect(const QString& reason);
    /// Sends what waits and disconnects in order: the broker does not publish the Will. Waits for
    /// at most `limit`.
    void stop(Duration limit);
    /// Does what is due. Call it several times a second.
    void tick();

    bool isConnected() const;
    /// Topics that are subscribed with QoS 1 now, at once when connected; forgotten when the
    /// connection ends.
    void subscribe(const QByteArray& topic);
    /// Gives it to the network. Returns its token, above 0; 0 when not connected or when too much
    /// waits already. Never blocks.
    int publish(const MqttMessage& message);
    /// Asks the broker for an answer that comes after everything sent so far was handled.
    void ping(int number);
    /// Bytes that wait to be sent are more than a connection should hold.
    bool isFull() const;

    /// state ("connected", "connecting", "waiting"), broker, reason, version, since, attempts.
    /// No credential is in it.
    host::Json status() const;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
