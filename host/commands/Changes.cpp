#include "Changes.h"

#include <algorithm>

namespace micro850::host {

// A value that becomes stale, or good again, has changed too.
QVector<int> Changes::popVariables()
{
    const ValueStore& values = m_loop.values();
    QSet<int> changed = m_loop.values().popChanged();
    m_qualities.resize(values.size());
    for (int i = 0; i < m_qualities.size(); ++i) {
        const Quality quality = m_loop.quality(i);
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
    for (const Station& station : m_loop.stations())
        states += QStringLiteral("station %1: %2")
                      .arg(station.number())
                      .arg(conditionText(station, m_loop.lineIsUp()));
    QStringList changed;
    for (int i = 0; i < states.size(); ++i) {
        if (states.at(i) != m_states.value(i))
            changed += states.at(i);
    }
    m_states = states;
    return changed;
}

} // namespace micro850::host
