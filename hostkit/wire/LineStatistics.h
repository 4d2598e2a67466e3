#ifndef MICRO850_HOST_LINESTATISTICS_H
#define MICRO850_HOST_LINESTATISTICS_H

#include "PortSettings.h"

#include <QtCore/QList>
#include <QtCore/QVector>

namespace micro850::host {

/// How busy a line is and how fast its peers answer, over the last ten seconds and the last
/// thousand answers.
class LineStatistics
{
public:
    /// A transaction that has ended: bytes both ways, and the round trip, below 0 without an
    /// answer.
    void add(qint64 now, int bytes, qint64 roundTripMs);

    double transactionsPerSecond(qint64 now) const;
    /// Share of the time in which bytes are on the line, in percent. Requests and replies take
    /// turns, so that both count.
    double percentInUse(qint64 now, const PortSettings& port) const;
    /// The round trip that so many percent of the answers do not exceed; -1 before the first.
    qint64 roundTripMs(int percent) const;

private:
    struct Slot
    {
        qint64 begin;
        int transactions;
        qint64 bytes;
    };
    Slot recent(qint64 now) const;

    QList<Slot> m_slots;
    qint64 m_first = -1;
    QVector<qint64> m_roundTrips;
    int m_next = 0;
};

} // namespace micro850::host

#endif
