#ifndef MICRO850_HOST_COMMANDS_CHANGEPRINTER_H
#define MICRO850_HOST_COMMANDS_CHANGEPRINTER_H

#include "Changes.h"
#include "Output.h"
#include "RunLoop.h"

#include <QtCore/QDateTime>

namespace micro850::host {

/// A variable of the project at a time, as --json prints it.
Json changeObject(const Plant& plant, const Project& project, int variable, const QDateTime& time);

/// Prints a line, or a JSON object, for each variable that changed. Reports on standard error the
/// line and the stations whose state changed.
class ChangePrinter : public LoopView
{
public:
    /// Prints once in each interval; with an interval of 0 after each step.
    ChangePrinter(RunLoop& run, const Project& project, const Output& output,
                  Duration interval = Duration(0))
        : ChangePrinter(run.plant(), project, run.table(), output, interval)
    {
    }
    ChangePrinter(Plant& plant, const Project& project, const LiveTable& table,
                  const Output& output, Duration interval = Duration(0))
        : m_plant(plant), m_project(project), m_table(table), m_output(output),
          m_changes(plant, project, m_table), m_interval(interval)
    {
    }

    /// What stands behind the error of each variable while its type is unknown.
    void setHints(const QStringList& hints) { m_hints = hints; }
    /// Line and stations are told only when their state changes from now on.
    void skipStates() { m_changes.popStates(); }
    void update(Duration now) override;
    /// Prints what changed since the last time.
    void close(Duration now) override;

private:
    void print(Duration now);
    QString hintFor(int variable) const;

    const Plant& m_plant;
    const Project& m_project;
    const LiveTable& m_table;
    const Output& m_output;
    Changes m_changes;
    QStringList m_hints;
    Duration m_interval;
    Duration m_next{0};
};

} // namespace micro850::host

#endif
