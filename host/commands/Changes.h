#ifndef MICRO850_HOST_COMMANDS_CHANGES_H
#define MICRO850_HOST_COMMANDS_CHANGES_H

#include "LiveTable.h"

namespace micro850::host {

/// What changed in a plant since the last call.
class Changes
{
public:
    Changes(Plant& plant, const LiveTable& table) : m_plant(plant), m_table(table) {}

    /// The variables whose value, error or quality changed and that have something to show, in the
    /// project's order.
    QVector<int> popVariables();
    /// A text for the line and for each station whose state changed.
    QStringList popStates();

private:
    Plant& m_plant;
    const LiveTable& m_table;
    QVector<Quality> m_qualities;
    QStringList m_states;
};

} // namespace micro850::host

#endif
