#ifndef MICRO850_HOST_LIVETABLE_H
#define MICRO850_HOST_LIVETABLE_H

#include "PlantTexts.h"

#include <QtCore/QStringList>

namespace micro850::host {

/// A plant's line, stations and changes as text.
class LiveTable
{
public:
    LiveTable(const Plant& plant, const Project& project) : m_plant(plant), m_project(project) {}

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
    const Plant& m_plant;
    const Project& m_project;
};

} // namespace micro850::host

#endif
