#ifndef MICRO850_HOST_COUNTERS_H
#define MICRO850_HOST_COUNTERS_H

#include <QtCore/QMap>
#include <QtCore/QString>

namespace micro850::host {

/// What happened on the line for one station, errors included that did not change the outcome of a
/// request.
struct Counters
{
    qint64 sent = 0;          ///< requests, including repetitions
    qint64 answered = 0;      ///< replies that belong to their request
    qint64 timedOut = 0;      ///< requests without an answer in time
    qint64 corrupt = 0;       ///< frames with a wrong CRC
    qint64 late = 0;          ///< intact replies of another request
    qint64 retries = 0;       ///< requests sent again, and replies asked for again
    qint64 refusedByPeer = 0; ///< DLE NAK for a request
    qint64 reconnects = 0;    ///< connections that were set up again
    qint64 bytesSent = 0;
    qint64 bytesReceived = 0;
    QMap<QString, qint64> errors; ///< replies by their status, see statusKey()

    /// Counts a reply with this status. A peer can invent millions of them: those after the first
    /// fifty are counted together as "other".
    void countError(const QString& status)
    {
        const int kMost = 50;
        const bool listed = errors.contains(status) || errors.size() < kMost;
        ++errors[listed ? status : QStringLiteral("other")];
    }
    qint64 bytes() const { return bytesSent + bytesReceived; }
};

} // namespace micro850::host

#endif
