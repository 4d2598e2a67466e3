#ifndef MICRO850_HOST_POLLLOOP_H
#define MICRO850_HOST_POLLLOOP_H

#include "Driver.h"
#include "Exchange.h"
#include "LineStatistics.h"
#include "Project.h"
#include "Station.h"
#include "ValueStore.h"

#include <QtCore/QHash>
#include <QtCore/QQueue>

#include <optional>

namespace micro850::host {

/// Polls a project's variables and carries out single reads and writes, one transaction a step. The
/// driver judges only whether a reply is complete; what a host must see to besides is seen to here
/// and in Exchange: statuses, types, stations that do not answer, a device that went away.
class PollLoop
{
public:
    PollLoop(const DriverApi& api, Line& line, const Clock& clock, const Project& project);

    /// One transaction, or a pause of some milliseconds when there is nothing to do.
    void step();
    /// Acknowledges the last reply: before the line is closed.
    void finish();

    /// Makes a tag known that no variable names.
    void declare(const TagKey& tag);
    /// Queues an operation and gives its id. The type of its tag is learnt first.
    int read(const TagKey& tag, int element, int elements);
    int write(const TagKey& tag, int element, const QByteArray& value);
    /// Queues the learning of a tag's type.
    int learn(const TagKey& tag);
    /// Null while the operation is under way; else its outcome.
    const Operation* outcome(int id) const;
    void forget(int id) { m_operations.remove(id); }

    Tag tag(const TagKey& key) const { return m_tags.value(key); }
    const ValueStore& values() const { return m_values; }
    ValueStore& values() { return m_values; }
    Quality quality(int variable) const;
    const QMap<int, Station>& stations() const { return m_stations; }
    bool lineIsUp() const { return m_line.isOpen(); }
    /// Why the line is down.
    QString lineError() const { return m_lineError; }
    qint64 lineReconnects() const { return m_lineReconnects; }
    const LineStatistics& statistics() const { return m_statistics; }
    Exchange& exchange() { return m_exchange; }

private:
    bool openLine();
    void loseLine();
    void pauseFor(Duration time);
    void idle();

    void probeDeadStations();
    void pumpOperations();
    void pumpStation(Station& station);
    bool isReady(Operation& operation);
    void lookAfterTags();
    void askFor(const TagKey& key);
    void replan();

    void transact(Protocol& sent);
    void takeSetUpReply(Protocol& sent, const Request& request, const Answer& answer);
    void setUpFailed(Station& station, const Request& request, const QString& why);
    void connected(Station& station);
    void takeDataReply(Protocol& sent, const Request& request, const Answer& answer);
    void takeSilence(Protocol& sent, const Request& request);
    void takeVerdict(Verdict verdict, Station& station);
    void markDead(Station& station);

    bool learnType(Tag& tag, const Reply& reply);
    void checkVariables(const TagKey& key);
    void checkVariable(int variable, const Tag& tag);
    void takeValues(const RW_VAR& sent, const Request& request, const Reply& reply);
    QByteArray storeArrived();
    void takeRefusal(const RW_VAR& sent, const Request& request);
    void refuseTag(const TagKey& key, const QString& why);
    void takeFinished();
    void takeOutcome(Operation& operation, bool succeeded);
    void end(Operation& operation, Operation::State state, const QString& error = QString());
    int add(const Operation& operation);
    void readOnce(int variable);

    /// A good reply whose values are fetched once the next request is on its way.
    struct Arrived
    {
        TagKey key;
        int element;
        QByteArray values;
        Duration at;
    };

    const Project& m_project;
    Line& m_line;
    const Clock& m_clock;
    Exchange m_exchange;
    LineStatistics m_statistics;
    Driver m_driver;
    ValueStore m_values;
    QMap<int, Station> m_stations;
    TagDirectory m_tags;
    QHash<int, Operation> m_operations;
    QMap<int, QQueue<int>> m_waiting; ///< ids, by station
    QMap<int, int> m_queued;          ///< the one operation of a station that the driver has
    QMap<int, Duration> m_leftOut;    ///< variables that are not read, and until when
    QMap<TagKey, QVector<int>> m_variablesOf;
    Duration m_nextLook{0};
    int m_lastId = 0;
    bool m_replan = true;
    std::optional<Arrived> m_arrived;
    QString m_refusal;             ///< status of the reply in hand, when it refuses
    bool m_connectionLost = false; ///< the reply in hand says so
    QString m_lineError;
    Duration m_nextOpen{0};
    Duration m_openPause{0};
    qint64 m_lineReconnects = 0;
    bool m_wasOpen = false;
    int m_idleSteps = 0;
};

} // namespace micro850::host

#endif
