#ifndef MICRO850_GATEWAY_SPARKPLUG_NODEWRITER_H
#define MICRO850_GATEWAY_SPARKPLUG_NODEWRITER_H

#include "Messages.h"
#include "MqttConnection.h"
#include "WallClock.h"

namespace micro850::gateway::sparkplug {

/// The way to the broker, as MqttConnection is one.
class Link
{
public:
    virtual ~Link() = default;
    /// Gives it to the network. False when that takes no more now.
    virtual bool publish(const MqttMessage& message) = 0;
    virtual void subscribe(const QByteArray& topic) = 0;
    /// Is answered once the broker handled what was sent before.
    virtual void ping(int number) = 0;
    /// Ends the connection after what was published, and makes another one.
    virtual void reconnect(const QString& reason) = 0;
};

/// Publishes the messages of a node and numbers them.
class NodeWriter
{
public:
    /// All must outlive it.
    NodeWriter(const SparkplugSettings& settings, Link& link, const WallClock& clock)
        : m_settings(settings), m_link(link), m_clock(clock)
    {
    }

    /// False when the network takes no more now: then nothing was published, and no number is used.
    /// NBIRTH begins to number anew.
    bool publish(const char* type, const QByteArray& device, const QVector<Metric>& metrics);
    /// Without a number; as the broker would publish it as the Will.
    bool publishDeath(int bdSeq) { return m_link.publish(death(bdSeq)); }
    MqttMessage death(int bdSeq) const;

    qint64 now() const { return m_clock.now(); }
    Link& link() { return m_link; }
    const SparkplugSettings& settings() const { return m_settings; }
    /// The number that the next message gets.
    int nextSeq() const { return m_seq; }
    qint64 messages() const { return m_messages; }

private:
    const SparkplugSettings& m_settings;
    Link& m_link;
    const WallClock& m_clock;
    int m_seq = 0;
    qint64 m_messages = 0;
};

} // namespace micro850::gateway::sparkplug

#endif
