#include "ChangeFilter.h"

#include "Elements.h"
#include "ExactNumbers.h"
#include "Scaling.h"

namespace micro850::host {

ChangeFilter::ChangeFilter(const QVector<Variable>& variables)
    : m_variables(variables), m_told(variables.size())
{
}

bool ChangeFilter::isNews(int variable, const State& state, Duration now)
{
    Told& told = m_told[variable];
    told.latest = state;
    const bool news = !told.any || told.state.quality != state.quality ||
                      told.state.error != state.error || hasMoved(variable, told.state, state);
    if (!news)
        return false;
    note(variable, now);
    told.state = state;
    told.any = true;
    return true;
}

// Most values are the ones that were told before: they are compared as bytes.
bool ChangeFilter::hasMoved(int variable, const State& from, const State& to) const
{
    if (from.type != to.type)
        return true;
    if (from.bytes == to.bytes)
        return false;
    const Variable& asked = m_variables.at(variable);
    if (asked.deadband == 0 || !to.type || from.bytes.size() != to.bytes.size())
        return true;
    const Scaling scaling(asked);
    const QVector<QByteArray> before = elementsOf(*to.type, from.bytes);
    const QVector<QByteArray> after = elementsOf(*to.type, to.bytes);
    for (int i = 0; i < after.size(); ++i) {
        const auto shown = [&](const QByteArray& element) {
            return scaling.shown(*to.type, decodeElement(*to.type, element));
        };
        if (before.at(i) != after.at(i) &&
            differsByMore(shown(before.at(i)), shown(after.at(i)), asked.deadband))
            return true;
    }
    return false;
}

void ChangeFilter::note(int variable, Duration now)
{
    Told& told = m_told[variable];
    const Duration pause = std::chrono::milliseconds(m_variables.at(variable).heartbeatMs);
    if (pause == Duration(0))
        return;
    m_heartbeats.erase({told.at + pause, variable});
    told.at = now;
    m_heartbeats.emplace(now + pause, variable);
}

QVector<int> ChangeFilter::popHeartbeats(Duration now, Duration ahead)
{
    QVector<int> due;
    for (const auto& [time, variable] : m_heartbeats) {
        if (time > now + ahead)
            break;
        due.append(variable);
    }
    for (const int variable : due) {
        m_told[variable].state = m_told.at(variable).latest;
        note(variable, now);
    }
    return due;
}

std::optional<Duration> ChangeFilter::nextHeartbeat() const
{
    return m_heartbeats.empty() ? std::nullopt : std::make_optional(m_heartbeats.begin()->first);
}

} // namespace micro850::host
