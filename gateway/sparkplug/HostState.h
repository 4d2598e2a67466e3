#ifndef MICRO850_GATEWAY_SPARKPLUG_HOSTSTATE_H
#define MICRO850_GATEWAY_SPARKPLUG_HOSTSTATE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <optional>

namespace micro850::gateway::sparkplug {

/// Whether the primary host is there, as it tells on its topic.
class HostState
{
public:
    enum class News {
        None,      ///< it is as it was
        Online,    ///< it came
        Offline,   ///< it went
        Outdated,  ///< older than what it told before: ignored
        Malformed, ///< not what a host tells: ignored
    };

    explicit HostState(const QString& host) : m_topic("spBv1.0/STATE/" + host.toUtf8()) {}

    const QByteArray& topic() const { return m_topic; }
    bool isOnline() const { return m_isOnline; }
    /// A payload on its topic.
    News take(const QByteArray& payload);
    /// A new connection: nothing is known but how old news must not be.
    void forget() { m_isOnline = false; }

private:
    QByteArray m_topic;
    bool m_isOnline = false;
    std::optional<quint64> m_timestamp;
};

} // namespace micro850::gateway::sparkplug

#endif
