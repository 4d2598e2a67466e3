#ifndef MICRO850_HOST_STATION_H
#define MICRO850_HOST_STATION_H

#include "Counters.h"
#include "Failure.h"
#include "GrowingPause.h"
#include "Plant.h"
#include "Project.h"

#include <optional>

namespace micro850::host {

/// One controller as the host sees it: the state of its connection, and when to probe it after it
/// stopped answering. It sends nothing; PollLoop reports to it what happened.
class Station
{
public:
    enum class State {
        Connecting, ///< asked for its connection, no answer yet
        Connected,
        /// Did not answer, or refused the connection; taken out of the cycle and probed at growing
        /// intervals.
        Dead,
        Disabled ///< by the project
    };

    Station() = default;
    explicit Station(const StationSettings& settings);

    int number() const { return m_number; }
    QString name() const { return m_name; }
    State state() const { return m_state; }
    /// Why the last connection set-up failed; its cause is None once connected.
    const Failure& failure() const { return m_failure; }
    /// The text of failure(); empty once connected.
    QString error() const { return m_failure.text; }
    /// When the last reply came.
    std::optional<Duration> lastAnswer() const { return m_lastAnswer; }
    const Counters& counters() const { return m_counters; }
    Counters& counters() { return m_counters; }

    bool alive() const { return m_state == State::Connected; }
    /// True while requests for it are given to the driver.
    bool inService() const
    {
        return m_state == State::Connecting || m_state == State::Connected || m_probing;
    }
    /// True for a dead station that is asked for its connection at present.
    bool isProbing() const { return m_probing; }
    /// Each probe delays the other stations of the line by a time-out. `alone`: none of them is in
    /// service, so that a silent one can be probed again almost at once.
    bool isProbeDue(Duration now, bool alone) const;
    /// Another station of the line answers again; this one may, too.
    void probeSoon(Duration now) { m_nextProbe = std::min(m_nextProbe, now); }

    void noteAnswer(Duration now) { m_lastAnswer = now; }
    /// The first request of the connection set-up was answered.
    void noteIdentity() { m_refusedOpens = 0; }
    /// The connection is open.
    void connect(Duration now);
    /// When the connection was last opened.
    Duration connectedAt() const { return m_connectedAt; }
    /// The connection was given up; the driver sets it up again.
    void loseConnection() { m_state = State::Connecting; }
    /// A request of the connection set-up failed; `opens` for the second one, which opens the
    /// connection. True when the station has to be taken out of service.
    bool failSetUp(bool opens, const Failure& failure);
    /// The controller has another connection with the serial numbers that the driver drew. True
    /// when to try with others: so many times until a connection is open.
    bool triesOtherSerial();
    /// `failure` is why the station waits.
    void waitForOtherSerial(const Failure& failure) { m_failure = failure; }
    /// The station is taken out of service until the next probe.
    void markDead(Duration now);
    void beginProbe() { m_probing = true; }

private:
    int m_number = 1;
    QString m_name;
    State m_state = State::Connecting;
    Failure m_failure;
    int m_failedSetUps = 0; ///< in a row
    int m_refusedOpens = 0; ///< connection requests without a valid answer, in this set-up
    int m_serialsInUse = 0; ///< since the last connection
    GrowingPause m_probePause{std::chrono::seconds(1), std::chrono::seconds(5)};
    Duration m_nextProbe{0};
    Duration m_deadSince{0}; ///< the last probe failed
    bool m_probing = false;
    std::optional<Duration> m_lastAnswer;
    bool m_wasConnected = false;
    Duration m_connectedAt{0};
    Counters m_counters;
};

/// "connected", "dead", ...; "refused" for a dead station that answers and refuses the connection,
/// "line down" for one that cannot be reached because its line is not open.
QString stateText(const Station& station, bool lineIsUp);
/// The station as commands show it. `lineError` is why its line is down; empty while it is up.
StationView viewOf(const Station& station, bool lineIsUp, const QString& lineError);

} // namespace micro850::host

#endif
