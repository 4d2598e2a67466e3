#ifndef MICRO850_GATEWAY_DELIVERY_MQTTCONNECTION_H
#define MICRO850_GATEWAY_DELIVERY_MQTTCONNECTION_H

#include "Clock.h"
#include "DeliverySettings.h"
#include "MqttLink.h"

#include <memory>

namespace micro850::gateway {

/// A client id for a gateway that was given none: made of the machine's name and of what the
/// connection is for ("mqtt", "sparkplug"), so that two connections of a gateway differ.
QString machineClientId(const QString& kind);

/// The connection to a broker: libmosquitto on a thread of its own, so that neither a name server
/// nor a broker that hangs blocks the event loop. It connects again and again, with a growing
/// pause. Every connection has a clean session and a Will of its own.
class MqttConnection : public MqttLink
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
        /// The broker refused a message, or no broker takes it: it is gone. Token 0: a
        /// subscription. `reason` is one line for people.
        virtual void handleRefused(int token, const QString& reason) = 0;
        virtual void handleMessage(const MqttMessage& message) = 0;
        /// The broker has everything that was sent before ping(number).
        virtual void handlePong(int number) = 0;
    };

    /// The arguments must outlive it. Reads the files of the address whenever it connects. It does
    /// not connect before start().
    /// `patience` is for each step of a connection: each address of the host, the encryption, the
    /// broker's acceptance. Tests set a shorter one.
    MqttConnection(Owner& owner, const BrokerAddress& address, const Clock& clock,
                   Duration patience = std::chrono::seconds(15));
    /// Closes the connection at once, so that the broker publishes the Will.
    ~MqttConnection() override;
    MqttConnection(const MqttConnection&) = delete;
    MqttConnection& operator=(const MqttConnection&) = delete;

    void start() override;
    /// Ends the connection, so that the broker publishes the Will, and connects anew after a pause.
    /// The owner is told with `reason`, from the event loop.
    void reconnect(const QString& reason);
    /// Sends what waits, waits for the acknowledgements and disconnects in order: the broker does
    /// not publish the Will. What takes longer than `limit` is broken off, and the broker publishes
    /// the Will. The owner is told of the acknowledgements and of answers to pings, and of nothing
    /// more afterwards.
    void stop(Duration limit) override;
    /// Does what is due. Call it several times a second.
    void tick() override;

    bool isConnected() const override;
    /// Topics that are subscribed with QoS 1 now, at once when connected; forgotten when the
    /// connection ends.
    void subscribe(const QByteArray& topic) override;
    /// Gives it to the network. Returns its token, above 0; 0 when not connected or when too much
    /// waits already. Never blocks.
    int publish(const MqttMessage& message) override;
    /// Asks the broker for an answer that comes after everything sent so far was handled. The
    /// library offers no call for the ping of MQTT, which it sends by itself to keep the connection
    /// alive; this asks to unsubscribe from a topic that is not subscribed, which every broker
    /// answers, in the order of what it received.
    void ping(int number);
    /// Bytes that wait to be sent are more than a connection should hold.
    bool isFull() const override;

    /// state ("connected", "connecting", "waiting", "stopped"), broker, reason (why there is no
    /// connection), version ("5", "3.1.1"), since (of the state; milliseconds since 1970 UTC),
    /// attempts, connections. No credential is in it.
    host::Json status() const override;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
