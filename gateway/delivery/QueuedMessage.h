#ifndef MICRO850_GATEWAY_DELIVERY_QUEUEDMESSAGE_H
#define MICRO850_GATEWAY_DELIVERY_QUEUEDMESSAGE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::gateway {

/// What a broker shall get: a value of a variable, or an event of a line or a station.
struct QueuedMessage
{
    qint64 id = 0; ///< grows over all lines; the queue gives it
    /// Which numbering `sequence` belongs to: a new one begins with a new file, and when the disk
    /// refuses.
    qint64 series = 0;
    qint64 sequence = 0; ///< of its line, from 1 on, without gaps; the queue gives it
    QString line;
    int station = -1;
    QString name;    ///< of the variable; empty: an event
    qint64 time = 0; ///< milliseconds since 1970 UTC
    /// As JSON: the object of the value, as the gateway's protocol has it; of an event {"time",
    /// "state", "text"}, with "notice": true when the state did not change.
    QByteArray body;
};

/// How far a run of the service has fed.
struct FeedPosition
{
    QString run;
    qint64 number = 0; ///< of the last value or event
};

} // namespace micro850::gateway

#endif
