#include "LiveTable.h"

namespace micro850::host {

QString LiveTable::lineStatistics() const
{
    return lineFiguresText(m_plant.figures(), m_plant.stationViews());
}

QStringList LiveTable::stationLines(Duration now) const
{
    QStringList lines;
    for (const StationView& station : m_plant.stationViews())
        lines += stationText(station, now);
    return lines;
}

QString LiveTable::changeLine(int variable) const
{
    const ValueStore& values = m_plant.values();
    const QString text = values.text(variable);
    QString line = m_project.variables.at(variable).shownName();
    if (!text.isEmpty() || values.wasRead(variable)) // a string can be empty
        line += QStringLiteral(" = ") + text;
    const QString error = values.error(variable);
    if (!error.isEmpty())
        return line + QStringLiteral(" (%1)").arg(error);
    const bool stale = m_plant.quality(variable) == Quality::Stale;
    return stale ? line + QStringLiteral(" (stale)") : line;
}

bool LiveTable::complete() const
{
    for (int i = 0; i < m_plant.values().size(); ++i) {
        if (!m_plant.values().wasRead(i))
            return false;
    }
    return true;
}

} // namespace micro850::host
