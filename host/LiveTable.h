#ifndef MICRO850_HOST_LIVETABLE_H
#define MICRO850_HOST_LIVETABLE_H

#include "PollLoop.h"

#include <QtCore/QStringList>

namespace host {

/// The poll loop's values and stations as text.
class LiveTable
{
public:
    LiveTable(const PollLoop& loop, const Project& project) : m_loop(loop), m_project(project) {}

    /// A table of at most `rows` lines, each cut to `width` characters: the variables, then the
    /// stations. Variables that find no room are counted in a line of their own.
    QStringList lines(int width, int rows, qint64 now) const;
    /// "Level = 41.5", with what is wrong with the value behind it.
    QString changeLine(int variable) const;
    /// One line a station: state and counters.
    QStringList stationLines(qint64 now) const;
    /// The line's settings, and what is wrong with it.
    QString lineState() const;
    /// True when every variable was read at least once.
    bool complete() const;

private:
    QStringList variableRow(int variable, qint64 now) const;

    const PollLoop& m_loop;
    const Project& m_project;
};

/// "0.3 s", "12 s", "5 min", "2 h"; "-" below 0.
QString ageText(qint64 ms);

} // namespace host

#endif
