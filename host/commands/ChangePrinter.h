#ifndef MICRO850_HOST_COMMANDS_CHANGEPRINTER_H
#define MICRO850_HOST_COMMANDS_CHANGEPRINTER_H

#include "LiveTable.h"
#include "Output.h"
#include "TableView.h"

#include <QtCore/QDateTime>

namespace micro850::host {

/// Prints a line, or a JSON object, for each variable whose value or quality has changed.
class ChangePrinter
{
public:
    ChangePrinter(PollLoop& loop, const Project& project, const LiveTable& table,
                  const Output& output)
        : m_loop(loop), m_project(project), m_table(table), m_output(output)
    {
    }

    /// Prints only variables that match.
    void setMatch(const QString& match) { m_match = match; }
    /// The variables that changed since the last call and have something to show, in order.
    QVector<int> popChanged();
    /// Prints what changed.
    void print();
    /// Tells on standard error what became of the line and the stations, where that changed.
    void tellStates();

private:
    PollLoop& m_loop;
    const Project& m_project;
    const LiveTable& m_table;
    const Output& m_output;
    QVector<Quality> m_qualities;
    QStringList m_states;
    QString m_match;
};

/// A variable as it stands, with the time given.
Json changeObject(const PollLoop& loop, const Project& project, int variable,
                  const QDateTime& time);
/// The line and each station at the end of a command.
void summarise(const PollLoop& loop, const Project& project, const LiveTable& table,
               const Output& output, Duration now);

} // namespace micro850::host

#endif
