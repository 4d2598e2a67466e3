#ifndef MICRO850_HOST_STATION_H
#define MICRO850_HOST_STATION_H

#include "Counters.h"
#include "GrowingPause.h"
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
        Dead,    ///< did not answer; taken out of the cycle and probed at growing intervals
        Disabled ///< by the project
    };

    Station() = default;
    explicit Station(const StationSettings& settings);

    int number() const { return m_number; }
    QString name() const { return m_name; }
    State state() const { return m_state; }
    /// Why the last connection set-up failed; empty once connected.
    QString error() const { return m_error; }
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
    bool isProbeDue(Duration now) const
    {
        return m_state == State::Dead && !m_probing && now >= m_nextProbe;
    }

    void noteAnswer(Duration now) { m_lastAnswer = now; }
    /// The first request of the connection set-up was answered.
    void noteIdentity() { m_refusedOpens = 0; }
    /// The connection is open.
    void connect();
    /// The connection was given up; the driver sets it up again.
    void loseConnection() { m_state = State::Connecting; }
    /// A request of the connection set-up failed; `opens` for the second one, which opens the
    /// connection. True when the station does not answer and has to be taken out of service.
    bool failSetUp(bool opens, const QString& why);
    /// The station is taken out of service until the next probe.
    void markDead(Duration now);
    void beginProbe() { m_probing = true; }

private:
    int m_number = 1;
    QString m_name;
    State m_state = State::Connecting;
    QString m_error;
    int m_failedSetUps = 0; ///< in a row
    int m_refusedOpens = 0; ///< connection requests without a valid answer, in this set-up
    GrowingPause m_probePause{std::chrono::seconds(1), std::chrono::seconds(5)};
    Duration m_nextProbe{0};
    bool m_probing = false;
    std::optional<Duration> m_lastAnswer;
    bool m_wasConnected = false;
    Counters m_counters;
};

/// "connected", "dead", ...
QString stateText(Station::State state);

} // namespace micro850::host

#endif
