#ifndef MICRO850_GATEWAY_LINES_WORKERREQUESTS_H
#define MICRO850_GATEWAY_LINES_WORKERREQUESTS_H

#include "LineReport.h"
#include "Message.h"
#include "Session.h"

#include <QtCore/QSet>

#include <deque>

namespace micro850::gateway {

/// The requests of a worker: read, type and write, carried out one after the other while the loop
/// goes on polling, and cancel.
class WorkerRequests
{
public:
    using Reply = std::function<void(const Json&)>;

    /// The arguments must live longer than this object; `reply` is called with each reply.
    WorkerRequests(host::PollLoop& loop, const host::Project& project, const LineReport& report,
                   Reply reply);

    /// Takes a request in, or answers it at once when it cannot be understood or too many wait. A
    /// cancel takes effect at once, also on the request that is carried out.
    void add(const QByteArray& line);
    /// Carries out the oldest one, and steps the loop meanwhile. False when none waits.
    bool runNext();
    bool hasWaiting() const { return !m_waiting.empty(); }
    bool isRunning() const { return m_isRunning; }

private:
    struct Waiting
    {
        Json id;
        JsonNode request;
    };
    /// The elements that a write changes, and the value that it writes.
    struct Target
    {
        host::TagKey key;
        int element = 0;
        QString what; ///< for messages
        host::Scaling scaling;
    };
    struct Refusal;

    void cancel(const Json& id);
    void throwIfCancelled() const;
    Json carryOut(const JsonNode& request);
    Json read(const JsonNode& request);
    Json readNames(const JsonNode& request);
    Json type(const JsonNode& request);
    Json write(const JsonNode& request);
    void send(const Target& target, const QByteArray& bytes);
    void readBack(const Target& target, const CipType& type, const QByteArray& written,
                  Json& reply);
    static void requireType(const JsonNode& request, const CipType& type, const QString& what);
    host::TagKey keyIn(const JsonNode& request);
    int variableNamed(const QString& name) const;
    Target targetOf(const JsonNode& request);
    void requireRoomFor(const host::TagKey& key);

    host::PollLoop& m_loop;
    const host::Project& m_project;
    const LineReport& m_report;
    Reply m_reply;
    host::Session m_session;
    QHash<QString, int> m_variables; ///< by name
    QSet<host::TagKey> m_otherTags;  ///< that no variable names
    std::deque<Waiting> m_waiting;
    bool m_isRunning = false;
    Json m_runningId;
    bool m_runningIsCancelled = false;
    bool m_isWritten = false; ///< it cannot be taken back any more
};

} // namespace micro850::gateway

#endif
