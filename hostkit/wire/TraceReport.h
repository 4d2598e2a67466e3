#ifndef MICRO850_HOST_TRACEREPORT_H
#define MICRO850_HOST_TRACEREPORT_H

#include "Frame.h"
#include "ReplyCollector.h"
#include "Trace.h"

#include <QtCore/QMap>
#include <QtCore/QStringList>

namespace micro850::host {

/// One thing that a recorded trace holds.
struct TraceEvent
{
    enum class Kind { Request, Repetition, Reply, StrayReply, Corrupt, Control };
    Kind kind;
    Direction direction;
    qint64 microseconds; ///< since 1970-01-01 UTC
    QByteArray data;     ///< application data of an intact frame
    QString text;        ///< one-line decode
    double roundTripMs;  ///< of a reply that belongs to a request; else below 0
};

/// What a recorded trace says: its frames decoded, each reply put to its request.
class TraceReport
{
public:
    /// Takes the records in order.
    void add(const TraceRecord& record);
    /// After the last one: a request that is still open has no answer.
    void finish();

    const QVector<TraceEvent>& events() const { return m_events; }
    int requests() const { return m_requests; }
    int repetitions() const { return m_repetitions; }
    int answered() const { return m_roundTrips.size(); }
    int unanswered() const { return m_unanswered.size(); }
    int stray() const { return m_stray; }
    int corrupt() const { return m_corrupt; }
    /// What had no answer, or was refused, and how often: "read Level[3] x1: no answer".
    const QMap<QString, int>& failures() const { return m_failures; }
    /// Replies by their status, see statusKey().
    const QMap<QString, int>& statuses() const { return m_statuses; }
    /// Milliseconds that so many percent of the answers do not exceed; below 0 without one.
    double roundTripMs(int percent) const;
    /// Answers by round trip: the upper limit of each class, and how many. The last has no limit.
    QVector<QPair<double, int>> histogram() const;
    /// The whole as text: counts, round trips, histogram, failures.
    QStringList statistics() const;

private:
    void take(const ReplyCollector::Event& event, const TraceRecord& record);
    void takeRequest(TraceEvent& event);
    void takeReply(TraceEvent& event);
    void giveUp();

    ReplyCollector m_sent;
    ReplyCollector m_received;
    QVector<TraceEvent> m_events;
    QVector<double> m_roundTrips;
    QStringList m_unanswered;
    QMap<QString, int> m_failures;
    QMap<QString, int> m_statuses;
    Request m_open;
    qint64 m_openSince = 0;
    QByteArray m_openData;
    int m_requests = 0;
    int m_repetitions = 0;
    int m_stray = 0;
    int m_corrupt = 0;
};

} // namespace micro850::host

#endif
