#ifndef MICRO850_HOST_TRACEREPORT_H
#define MICRO850_HOST_TRACEREPORT_H

#include "Frame.h"
#include "ReplyCollector.h"
#include "TraceFile.h"

#include <QtCore/QMap>
#include <QtCore/QStringList>

#include <functional>
#include <utility>

namespace micro850::host {

/// One frame or link control of a recorded trace.
struct TraceEvent
{
    enum class Kind {
        Request,
        Repetition,
        Reply,
        StrayReply,
        Corrupt,
        Control,
        NoAnswer ///< no message: a request is given up, because the next one follows
    };
    Kind kind = Kind::Control;
    Direction direction = Direction::Sent;
    int number = 0;          ///< of the messages of the trace, from 1; 0 for NoAnswer
    qint64 microseconds = 0; ///< since 1970-01-01 UTC
    QByteArray raw;          ///< the bytes on the line
    QByteArray data;         ///< application data of an intact frame
    QString text;            ///< its contents in one line
    int station = -1;        ///< below 0 when the trace does not tell it
    Request request;         ///< the one that it is, or that it belongs to
    double roundTripMs = -1; ///< of a reply that belongs to a request; else below 0
    double gapMs = -1;       ///< since the message before; below 0 for the first one
    int attempt = 1;         ///< of a request: how often it was sent by now
    bool failed = false;     ///< something went wrong: no good reply, or not at once
};

/// Which requests are wanted, with their replies and what else happens meanwhile: by the tag, which
/// is empty for a request of a connection, and by the microseconds since 1970 UTC.
using TraceFilter = std::function<bool(const QString& tag, qint64 microseconds)>;

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
    /// Only requests that the filter wants are returned and counted; they keep their numbers.
    explicit TraceReport(TraceFilter filter = nullptr) : m_filter(std::move(filter)) {}

    /// Adds a record. Call it in the order of the trace. Returns the frames and link controls that
    /// end with this record.
    QVector<TraceEvent> add(const TraceRecord& record);
    /// Call it after the last record. The recording may have ended before the answer to a request
    /// that is still open. It has failed only if it, or its reply, was asked for again; then its
    /// event is returned.
    QVector<TraceEvent> finish();

    /// Messages so far, wanted or not.
    int messages() const { return m_messages; }
    /// The longest time between two messages; below 0 with less than two.
    double longestGapMs() const { return m_longestGapMs; }

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
    void handleFrame(TraceEvent& event, QVector<TraceEvent>& events);
    void handleRequest(TraceEvent& event, QVector<TraceEvent>& events);
    void handleReply(TraceEvent& event);
    void closeUnanswered(qint64 microseconds, QVector<TraceEvent>& events);
    bool isWanted(const TraceEvent& event) const;

    TraceFilter m_filter;
    ReplyCollector m_sent;
    ReplyCollector m_received;
    QVector<double> m_roundTrips;
    QMap<QString, int> m_failures;
    QMap<QString, int> m_statuses;
    Request m_open;
    qint64 m_openSince = -1; ///< below 0 before the first request
    qint64 m_sentAt = 0; ///< the last time
    int m_openStation = -1;
    int m_openAttempts = 0;
    bool m_openIsWanted = true;
    int m_messages = 0;
    qint64 m_lastAt = -1;
    double m_longestGapMs = -1;
    bool m_openIsRepeated = false;
    int m_corruptBefore = 0;
    QString m_openAtEnd;
    QByteArray m_openData;
    QByteArray m_lastRequest; ///< the one before, when it was not answered
    int m_unanswered = 0;
    int m_requests = 0;
    int m_repetitions = 0;
    int m_stray = 0;
    int m_corrupt = 0;
};

} // namespace micro850::host

#endif
