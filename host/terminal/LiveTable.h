#ifndef MICRO850_HOST_LIVETABLE_H
#define MICRO850_HOST_LIVETABLE_H

#include "Page.h"
#include "PollLoop.h"

#include <QtCore/QStringList>

namespace micro850::host {

/// The poll loop's values and stations as text.
class LiveTable
{
public:
    LiveTable(const PollLoop& loop, const Project& project) : m_loop(loop), m_project(project) {}

    int size() const { return m_project.variables.size(); }
    QString name(int variable) const { return m_project.variables.at(variable).name; }
    /// Time since the last good reply; the largest before the first.
    Duration age(int variable, Duration now) const;

    /// A heading and one row for each of these variables, for a window of that width.
    Page rows(const QVector<int>& variables, int width, Duration now) const;
    /// "Level = 41.5", followed by what is wrong with the value.
    QString changeLine(int variable) const;
    /// One line for each station: state and counters.
    QStringList stationLines(Duration now) const;
    /// The line's settings, and why it is down.
    QString lineState() const;
    /// The same with the reason that is to be reported when it changes.
    QString reportedLineState() const;
    /// How busy the line is: transactions, share in use, round trips, retries, reopenings.
    QString lineStatistics(Duration now) const;
    /// True when every variable was read at least once.
    bool complete() const;

private:
    QString lineStateWith(const QString& error) const;
    QStringList variableRow(int variable, Duration now) const;
    Style styleOf(int variable) const;

    const PollLoop& m_loop;
    const Project& m_project;
};

/// "0.3 s", "12 s", "5 min", "2 h"; "-" for none.
QString ageText(std::optional<Duration> age);

} // namespace micro850::host

#endif
