#ifndef MICRO850_HOST_LIVETABLE_H
#define MICRO850_HOST_LIVETABLE_H

#include "Page.h"
#include "PlantTexts.h"

#include <QtCore/QStringList>

namespace micro850::host {

/// A plant's values and stations as text.
class LiveTable
{
public:
    LiveTable(const Plant& plant, const Project& project) : m_plant(plant), m_project(project) {}

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
    QString lineState() const { return lineStateText(m_plant.line()); }
    /// The same with the reason that is to be reported when it changes.
    QString reportedLineState() const { return reportedLineStateText(m_plant.line()); }
    /// How busy the line is: transactions, share in use, round trips, retries, reopenings.
    QString lineStatistics() const;
    /// What the line cannot hold; empty while it holds every interval.
    QString overload() const { return m_plant.figures().overload; }
    /// True when every variable was read at least once.
    bool complete() const;

private:
    QStringList variableRow(int variable, Duration now) const;
    Style styleOf(int variable) const;

    const Plant& m_plant;
    const Project& m_project;
};

} // namespace micro850::host

#endif
