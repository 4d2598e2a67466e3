#ifndef MICRO850_HOST_LINESTATISTICS_H
#define MICRO850_HOST_LINESTATISTICS_H

#include "PortSettings.h"
#include "RoundTripHistogram.h"

#include <QtCore/QList>
#include <QtCore/QVector>

#include <optional>

namespace micro850::host {

/// How busy a line is, over the last ten seconds, and how fast its peers answer, over the last
/// thousand answers and since the beginning. Times must not go back.
class LineStatistics
{
public:
    /// Adds a transaction that has ended: bytes both ways, and the round trip where an answer came.
    void add(Duration now, int bytes, std::optional<Duration> roundTrip);

    /// False within a second of the first transaction: it would be multiplied.
    bool hasRates(Duration now) const;
    double transactionsPerSecond(Duration now) const;
    /// The share of the time in which bytes are on the line, in percent. Both directions count,
    /// because requests and replies take turns.
    double percentInUse(Duration now, const PortSettings& port) const;
    /// The round trip that this percentage of the answers do not exceed; none before the first.
    std::optional<Duration> roundTrip(int percent) const;
    /// Of all answers.
    const RoundTripHistogram& roundTrips() const { return m_histogram; }

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
    RoundTripHistogram m_histogram;
};

} // namespace micro850::host

#endif
