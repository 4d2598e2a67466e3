#include "Changes.h"

#include <algorithm>

namespace micro850::host {

// A value that becomes stale, or good again, has changed too.
QVector<int> Changes::popVariables(Duration now)
{
    const ValueStore& values = m_plant.values();
    QSet<int> changed = m_plant.values().popChanged();
    m_qualities.resize(values.size());
    for (int i = 0; i < m_qualities.size(); ++i) {
        const Quality quality = m_plant.quality(i);
        if (quality != m_qualities.at(i))
            changed.insert(i);
        m_qualities[i] = quality;
    }
    QVector<int> shown;
    for (const int variable : changed) {
        if (hasSomething(variable) &&
            m_filter.isNews(variable,
                            {values.type(variable), values.bytes(variable),
                             m_qualities.at(variable), values.error(variable)},
                            now))
            shown.append(variable);
    }
    shown += m_filter.popHeartbeats(now);
    std::sort(shown.begin(), shown.end());
    return shown;
}

bool Changes::hasSomething(int variable) const
{
    const ValueStore& values = m_plant.values();
    return values.wasRead(variable) || !values.error(variable).isEmpty();
}

QStringList Changes::popStates()
{
    QStringList states(m_table.reportedLineState());
    for (const StationView& station : m_plant.stationViews())
        states += QStringLiteral("station %1: ").arg(station.number) + conditionText(station);
    QStringList changed;
    for (int i = 0; i < states.size(); ++i) {
        if (states.at(i) != m_states.value(i))
            changed += states.at(i);
    }
    m_states = states;
    const QString overload = m_plant.figures().overload;
    if (overload != m_overload)
        changed +=
            overload.isEmpty() ? QStringLiteral("the line holds every interval again") : overload;
    m_overload = overload;
    return changed;
}

} // namespace micro850::host
