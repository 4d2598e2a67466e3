#include "Station.h"

#include <algorithm>

namespace micro850::host {

namespace {

// Set-ups without an answer until a station counts as dead: one request that is lost is no reason.
const int kSetUpsUntilDead = 2;
// Connection requests that the driver sends within one set-up.
const int kOpensOfSetUp = 4;
// So many hosts that start in the same second all get their connection.
const int kMostSerials = 8;
// Leaves the host time for its other tasks.
const std::chrono::milliseconds kPauseAlone(50);

} // namespace

Station::Station(const StationSettings& settings)
    : m_number(settings.number), m_name(settings.name),
      m_state(settings.enabled ? State::Connecting : State::Disabled)
{
}

void Station::connect(Duration now)
{
    m_counters.reconnects += m_wasConnected ? 1 : 0;
    m_wasConnected = true;
    m_connectedAt = now;
    m_state = State::Connected;
    m_probing = false;
    m_failedSetUps = 0;
    m_probePause.reset();
    m_serialsInUse = 0;
    m_failure = Failure();
}

// The driver gives up a set-up when its first request is unanswered once, or its second one four
// times.
bool Station::failSetUp(bool opens, const Failure& failure)
{
    m_failure = failure;
    if (opens && ++m_refusedOpens < kOpensOfSetUp)
        return false;
    m_refusedOpens = 0;
    ++m_failedSetUps;
    return m_state == State::Dead || m_failedSetUps >= kSetUpsUntilDead;
}

bool Station::triesOtherSerial()
{
    m_serialsInUse = std::min(m_serialsInUse + 1, kMostSerials);
    return m_serialsInUse < kMostSerials;
}

void Station::markDead(Duration now)
{
    m_state = State::Dead;
    m_probing = false;
    m_deadSince = now;
    m_nextProbe = now + m_probePause.next();
}

bool Station::isProbeDue(Duration now, bool alone) const
{
    const bool often = alone && m_failure.cause == Failure::Cause::Silence;
    const Duration due = often ? std::min(m_nextProbe, m_deadSince + kPauseAlone) : m_nextProbe;
    return m_state == State::Dead && !m_probing && now >= due;
}

QString stateText(const Station& station, bool lineIsUp)
{
    if (!lineIsUp && station.state() != Station::State::Disabled)
        return QStringLiteral("line down");
    const bool refused = station.failure().cause == Failure::Cause::Refusal;
    switch (station.state()) {
    case Station::State::Connecting:
        return QStringLiteral("connecting");
    case Station::State::Connected:
        return QStringLiteral("connected");
    case Station::State::Dead:
        return refused ? QStringLiteral("refused") : QStringLiteral("dead");
    case Station::State::Disabled:
        break;
    }
    return QStringLiteral("disabled");
}

StationView viewOf(const Station& station, bool lineIsUp, const QString& lineError)
{
    const bool isDown = !lineIsUp && station.state() != Station::State::Disabled;
    StationView view;
    view.number = station.number();
    view.name = station.name();
    view.state = stateText(station, lineIsUp);
    view.problem = isDown ? lineError : station.error();
    view.isConnected = lineIsUp && station.alive();
    view.isServed = station.inService();
    view.lastAnswer = station.lastAnswer();
    view.counters = station.counters();
    return view;
}

} // namespace micro850::host
