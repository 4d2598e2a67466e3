#ifndef MICRO850_HOST_TRACEREPORT_H
#define MICRO850_HOST_TRACEREPORT_H

#include "Frame.h"
#include "ReplyCollector.h"
#include "TraceFile.h"

#include <QtCore/QMap>
#include <QtCore/QStringList>

namespace micro850::host {

/// One frame or link control of a recorded trace.
struct TraceEvent
{
    enum class Kind { Request, Repetition, Reply, StrayReply, Corrupt, Control };
    Kind kind;
    Direction direction;
    qint64 microseconds; ///< since 1970-01-01 UTC
    QByteArray data;     ///< application data of an intact frame
    QString text;        ///< its contents in one line
    double roundTripMs;  ///< of a reply that belongs to a request; else below 0
};

/// Answers with a round trip up to a limit, and above the limit of the class before.
struct RoundTripClass
{
    double limitMs; ///< below 0 for no limit
    int answers;
};

/// A recorded trace: its frames, decoded, and each reply matched with its request. Of a frame only
/// its time is kept, so that a trace of any length needs little memory.
class TraceReport
{
public:
    /// Adds a record. Call it in the order of the trace. Returns the frames and link controls that
    /// end with this record.
    QVector<TraceEvent> add(const TraceRecord& record);
    /// Call it after the last record. The recording may have ended before the answer to a request
    /// that is still open. It has failed only if it, or its reply, was asked for again.
    void finish();

    int requests() const { return m_requests; }
    int repetitions() const { return m_repetitions; }
    int answered() const { return m_roundTrips.size(); }
    int unanswered() const { return m_unanswered; }
    /// The request that was not answered when the trace ended, such as "read Level[3] x1"; else
    /// empty. It counts as a request only.
    const QString& openAtEnd() const { return m_openAtEnd; }
    int stray() const { return m_stray; }
    int corrupt() const { return m_corrupt; }
    /// Requests without an answer, or refused, and how often: "read Level[3] x1: no answer".
    const QMap<QString, int>& failures() const { return m_failures; }
    /// Replies by their status, see statusKey().
    const QMap<QString, int>& statuses() const { return m_statuses; }
    /// Milliseconds that this percentage of the answers do not exceed; below 0 without an answer.
    double roundTripMs(int percent) const;
    /// Answers by round trip, in classes that grow. The last one has no limit.
    QVector<RoundTripClass> histogram() const;
    /// All of it as text: counts, round trips, histogram, failures.
    QStringList statistics() const;

private:
    void handle(const ReplyCollector::Event& event, const TraceRecord& record,
                QVector<TraceEvent>& events);
    void handleRequest(TraceEvent& event);
    void handleReply(TraceEvent& event);
    void closeUnanswered();

    ReplyCollector m_sent;
    ReplyCollector m_received;
    QVector<double> m_roundTrips;
    QMap<QString, int> m_failures;
    QMap<QString, int> m_statuses;
    Request m_open;
    qint64 m_openSince = 0;
    bool m_openIsRepeated = false;
    int m_corruptBefore = 0;
    QString m_openAtEnd;
    QByteArray m_openData;
    int m_unanswered = 0;
    int m_requests = 0;
    int m_repetitions = 0;
    int m_stray = 0;
    int m_corrupt = 0;
};

} // namespace micro850::host

#endif
