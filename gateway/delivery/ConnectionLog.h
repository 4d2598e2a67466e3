#ifndef MICRO850_GATEWAY_DELIVERY_CONNECTIONLOG_H
#define MICRO850_GATEWAY_DELIVERY_CONNECTIONLOG_H

#include "Clock.h"
#include "Json.h"

#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::gateway {

/// Makes lines for the log of what becomes of a connection. A connection that ends again and again
/// fills no log: each reason is told once, until a connection has lasted; what was said last is
/// corrected when it is wrong for long.
class ConnectionLog
{
public:
    struct Line
    {
        bool isWarning;
        QString text;
    };

    /// `connection` is the status of the MqttConnection. Called about once a second.
    QVector<Line> take(const host::Json& connection, Duration now);

private:
    QSet<QString> m_toldReasons;
    qint64 m_connections = 0;
    bool m_isConnected = false;
    bool m_saidConnected = false;
    Duration m_since{0}; ///< that it is connected, or not
};

} // namespace micro850::gateway

#endif
