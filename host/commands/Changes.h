#ifndef MICRO850_HOST_COMMANDS_CHANGES_H
#define MICRO850_HOST_COMMANDS_CHANGES_H

#include "ChangeFilter.h"
#include "LiveTable.h"

namespace micro850::host {

/// What changed in a plant since the last call.
class Changes
{
public:
    Changes(Plant& plant, const Project& project, const LiveTable& table)
        : m_plant(plant), m_table(table), m_filter(project.variables)
    {
    }

    /// The variables that are to be told now and have something to show, in the project's order:
    /// those whose error or quality changed, whose value left its dead band, or whose heartbeat is
    /// due.
    QVector<int> popVariables(Duration now);
    /// A text for the line and for each station whose state changed, and for what the line cannot
    /// hold.
    QStringList popStates();

private:
    Plant& m_plant;
    const LiveTable& m_table;
    bool hasSomething(int variable) const;

    ChangeFilter m_filter;
    QVector<Quality> m_qualities;
    QStringList m_states;
    QString m_overload;
};

} // namespace micro850::host

#endif
