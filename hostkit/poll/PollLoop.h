#ifndef MICRO850_HOST_POLLLOOP_H
#define MICRO850_HOST_POLLLOOP_H

#include "DeferredValues.h"
#include "Driver.h"
#include "Exchange.h"
#include "LineState.h"
#include "LineStatistics.h"
#include "OpenConnections.h"
#include "OperationQueue.h"
#include "OverloadNote.h"
#include "Plant.h"
#include "Project.h"
#include "ReadSchedule.h"
#include "RenewalPace.h"
#include "Station.h"
#include "TypeRegistry.h"
#include "ValueStore.h"

#include <functional>
#include <utility>

namespace micro850::host {

/// Polls a project's variables and carries out single reads and writes, one transaction a step. The
/// driver only decides whether a reply is complete. The rest is done here and by the classes that
/// this one uses: statuses of replies, types, stations that do not answer, a device that went away.
class PollLoop final : public Plant
{
public:
    /// The arguments must live longer than this object.
    PollLoop(const DriverApi& api, Line& line, const Clock& clock, const Project& project);

    /// One transaction, or a pause of some milliseconds when there is nothing to do.
    void step() override;
    /// Stores the last values, closes the connections that were opened, and acknowledges the last
    /// reply. Call it before the line is closed; call step() no more.
    void finish() override;
    /// Ends a transaction; see interrupted().
    void setInterrupt(const std::function<bool()>& interrupt) override
    {
        m_exchange.setInterrupt(interrupt);
    }

    /// Sets a function that is called when values or errors may have changed: while the next
    /// request is on the line, and when there is none. It must not call step().
    void setPublish(std::function<void()> publish) { m_publish = std::move(publish); }
    /// Sets a function that replaces the pause of an idle loop. It waits at most for this time, and
    /// returns earlier when there is something to do: a caller can wait for its own input with it.
    void setWait(std::function<void(Duration)> wait) { m_wait = std::move(wait); }

    /// Makes a tag known that no variable names.
    void declare(const TagKey& key) { m_operations.declare(key); }
    /// Makes a station known that the project does not name. One that is known stays as it is.
    void addStation(const StationSettings& settings);
    /// Dead stations are probed at the next step: somebody waits for them.
    void probeSoon();
    // Each of these three queues an operation and returns its id. Call forget() with the id once
    // the outcome is there.

    /// Reads a run of elements.
    int read(const TagKey& key, int element, int elements);
    /// Writes one element. `value` is in the controller's byte order.
    int write(const TagKey& key, int element, const QByteArray& value);
    /// Learns the type of a tag.
    int learn(const TagKey& key);
    /// The finished operation; null while it is under way.
    const Operation* outcome(int id) const { return m_operations.outcome(id); }
    void forget(int id) { m_operations.forget(id); }
    /// Ends an operation that nobody waits for any more, also a finished one. True for a write
    /// that was not carried out and never will be.
    bool abandon(int id) { return m_operations.abandon(id); }

    Tag tag(const TagKey& key) const { return m_types.tag(key); }
    /// A tag that has another type than before; only a new process can read it.
    const std::optional<TagKey>& changedTag() const { return m_types.changedTag(); }
    const ValueStore& values() const override { return m_values; }
    ValueStore& values() override { return m_values; }
    Quality quality(int variable) const override;
    /// When the station was last connected over the open line; none while it is not. What was read
    /// before is no longer known to be true.
    std::optional<Duration> aliveSince(int station) const;
    LineView line() const override;
    LineFigures figures() const override;
    QVector<StationView> stationViews() const override;
    /// By number.
    const QMap<int, Station>& stations() const { return m_stations; }
    bool lineIsUp() const { return m_line.isOpen(); }
    /// Why the line is down.
    QString lineError() const { return m_line.error(); }
    /// The reason to report when it changes, as LineState::reportedError().
    QString reportedLineError() const { return m_line.reportedError(); }
    qint64 lineReconnects() const { return m_line.reconnects(); }
    const LineStatistics& statistics() const { return m_statistics; }
    /// True when the interrupt of the exchange has ended a transaction; call step() no more.
    bool interrupted() const { return m_interrupted; }
    Exchange& exchange() { return m_exchange; }

private:
    /// What is known of a read after the driver has finished its frame.
    struct Asked
    {
        TagKey key;
        int varIndex;
        int element; ///< the first one
    };
    Station& stationNumbered(int number);
    void probeDeadStations(Duration now);
    bool noneIsServed() const;
    void askForTypes(Duration now);
    void planCycle(Duration now);
    bool startTimedRead(Duration now);
    void transactTimed(Protocol& next, Duration began);
    void keepConnections(Duration now);
    void readOnce(int variable);
    void readOnceAgain(const Station& station);
    void handleReopenedLine();
    bool waitsForOtherSerial();
    void idle();
    void pause(Duration time);
    void storeValues();

    bool transact(Protocol& sent);
    void takeBack(Protocol& next);
    bool mayHaveWritten(const Protocol& sent);
    void handleLostLine(Protocol& sent, Station& station, ReplyStatus& status, qint64 strayBytes);
    Answer runExchange(const Protocol& sent, Counters& counters);
    void handleSilence(Protocol& sent, const Answer& answer, Station& station, ReplyStatus& status);
    void handleSetUpReply(Protocol& sent, const Answer& answer, Station& station);
    void handleDataReply(Protocol& sent, const Answer& answer, Station& station,
                         ReplyStatus& status);
    void handleVerdict(Verdict verdict, Station& station, const ReplyStatus& status);
    void handleValues(const Asked& asked, const Answer& answer);
    void handleRefusedRead(const Asked& asked, const QString& why);
    void handleConnected(Station& station);
    void handleRefusedOpen(Protocol& sent, const Reply& reply, Station& station);
    void handleFailedSetUp(bool opens, const Failure& failure, Station& station);

    const Project& m_project;
    const Clock& m_clock;
    LineState m_line;
    Exchange m_exchange;
    LineStatistics m_statistics;
    Driver m_driver;
    ValueStore m_values;
    TypeRegistry m_types;
    OperationQueue m_operations;
    DeferredValues m_deferred;
    OpenConnections m_connections;
    std::function<void()> m_publish;
    std::function<void(Duration)> m_wait;
    bool m_setsSpeed;
    QMap<int, Station> m_stations;
    Station* m_latest = nullptr; ///< one of them
    bool m_interrupted = false;
    bool m_someAreDead = false; ///< false: no station is dead
    /// When the driver draws another serial number for the connection that was refused.
    std::optional<Duration> m_nextSerialAt;
    Duration m_nextLook{0};  ///< when types to ask for are looked for again
    RenewalPace m_cycle;     ///< of the driver's cyclic list and the schedule
    ReadSchedule m_schedule; ///< of variables with an interval
    int m_timedRead = 0;     ///< the operation that reads a run of it; 0: none
    OverloadNote m_overload;
    qint64 m_reopened = 0; ///< times that handleReopenedLine() handled
    int m_idleSteps = 0;   ///< in a row
    Duration m_endedAt{0}; ///< the last transaction
};

} // namespace micro850::host

#endif
