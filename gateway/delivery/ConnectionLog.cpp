#include "ConnectionLog.h"

#include <utility>

namespace micro850::gateway {

namespace {

// Two clients with one id take the connection from each other at pauses of at most a minute.
const std::chrono::minutes kSteadyAfter(2);
const int kMostReasons = 100;

} // namespace

QVector<ConnectionLog::Line> ConnectionLog::take(const host::Json& connection, Duration now)
{
    const auto text = [&connection](const char* key) {
        return QString::fromStdString(connection.value(key, ""));
    };
    const QString broker = text("broker");
    const QString reason = text("reason");
    const qint64 connections = connection.value("connections", qint64(0));
    const bool isConnected = text("state") == QLatin1String("connected");
    const bool isNew = connections > std::exchange(m_connections, connections);
    if (std::exchange(m_isConnected, isConnected) != isConnected || isNew)
        m_since = now;
    const bool isSteady = now - m_since >= kSteadyAfter;
    QVector<Line> lines;
    if (!isConnected && !reason.isEmpty()) {
        const bool isTold = m_toldReasons.contains(reason) || m_toldReasons.size() >= kMostReasons;
        if (!isTold || (m_saidConnected && isSteady)) {
            m_toldReasons.insert(reason);
            m_saidConnected = false;
            lines.append({true, QStringLiteral("no connection to %1: %2").arg(broker, reason)});
        }
    }
    if (isConnected && !m_saidConnected) {
        m_saidConnected = true;
        lines.append(
            {false, QStringLiteral("connected to %1 with MQTT %2").arg(broker, text("version"))});
    }
    if (isConnected && isSteady)
        m_toldReasons.clear();
    return lines;
}

} // namespace micro850::gateway
