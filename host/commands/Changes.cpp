#include "Changes.h"

#include <algorithm>

namespace micro850::host {

// A value that becomes stale, or good again, has changed too.
QVector<int> Changes::popVariables()
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
        if (values.wasRead(variable) || !values.error(variable).isEmpty())
            shown.append(variable);
    }
    std::sort(shown.begin(), shown.end());
    return shown;
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
    return changed;
}

} // namespace micro850::host
