#ifndef MICRO850_HOST_LINESTATISTICS_H
#define MICRO850_HOST_LINESTATISTICS_H

#include "PortSettings.h"

#include <QtCore/QList>
#include <QtCore/QVector>

#include <optional>

namespace micro850::host {

/// How busy a line is and how fast its peers answer, over the last ten seconds and the last
/// thousand answers.
class LineStatistics
{
public:
    /// Adds a transaction that has ended: bytes both ways, and the round trip where an answer came.
    void add(Duration now, int bytes, std::optional<Duration> roundTrip);

    double transactionsPerSecond(Duration now) const;
    /// Share of the time in which bytes are on the line, in percent. Requests and replies take
    /// turns, so that both count.
    double percentInUse(Duration now, const PortSettings& port) const;
    /// The round trip that so many percent of the answers do not exceed; none before the first.
    std::optional<Duration> roundTrip(int percent) const;

private:
    struct Slot
    {
        Duration begin;
        int transactions;
        qint64 bytes;
    };
    Slot recent(Duration now) const;

    QList<Slot> m_slots;
    std::optional<Duration> m_first;
    QVector<Duration> m_roundTrips;
    int m_next = 0;
};

} // namespace micro850::host

#endif
