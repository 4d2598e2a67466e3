#include "LiveTable.h"

#include "Visible.h"

#include <algorithm>
#include <limits>

namespace micro850::host {

namespace {

QString trimmedEnd(QString text)
{
    while (text.endsWith(' '))
        text.chop(1);
    return text;
}

// Widths of the columns. The value gets the rest of the line; the error column is empty when there
// is no error.
struct Widths
{
    int name = 4;
    int type = 4;
    int value = 5;
    int age = 7;
    int quality = 7;
    int error = 0;

    QString row(const QStringList& cells) const
    {
        return fitted(cells.at(0), name) + ' ' + fitted(cells.at(1), type) + ' ' +
               fitted(cells.at(2), value) + ' ' + fitted(cells.at(3), age) + ' ' +
               fitted(cells.at(4), quality) + ' ' + fitted(cells.at(5), error);
    }
};

Widths widthsFor(const QVector<QStringList>& rows, int width)
{
    Widths widths;
    for (const QStringList& row : rows) {
        widths.name = std::max(widths.name, displayWidth(row.at(0)));
        widths.type = std::max(widths.type, displayWidth(row.at(1)));
        widths.value = std::max(widths.value, displayWidth(row.at(2)));
        widths.error = std::max(widths.error, displayWidth(row.at(5)));
    }
    widths.name = std::min(widths.name, std::max(8, width / 3));
    widths.error = std::min(widths.error, width / 3);
    const int rest =
        width - widths.name - widths.type - widths.age - widths.quality - widths.error - 5;
    widths.value = std::max(5, std::min(widths.value, rest));
    return widths;
}

} // namespace

QStringList LiveTable::variableRow(int variable, Duration now) const
{
    const ValueStore& values = m_plant.values();
    const Variable& asked = m_project.variables.at(variable);
    const CipType* type = values.type(variable) ? values.type(variable) : asked.type;
    const std::optional<Duration> at = values.refreshedAt(variable);
    return {visible(asked.name),
            type ? QString::fromLatin1(type->name) : QStringLiteral("?"),
            visible(values.text(variable)),
            ageText(at ? std::make_optional(now - *at) : std::nullopt),
            qualityText(m_plant.quality(variable)),
            visible(values.error(variable))};
}

Duration LiveTable::age(int variable, Duration now) const
{
    const std::optional<Duration> at = m_plant.values().refreshedAt(variable);
    return at ? now - *at : Duration::max();
}

Style LiveTable::styleOf(int variable) const
{
    if (!m_plant.values().error(variable).isEmpty())
        return Style::Error;
    return m_plant.quality(variable) == Quality::Good ? Style::Plain : Style::Warning;
}

Page LiveTable::rows(const QVector<int>& variables, int width, Duration now) const
{
    QVector<QStringList> cells;
    for (const int variable : variables)
        cells.append(variableRow(variable, now));
    const Widths widths = widthsFor(cells, width);
    Page page;
    const QStringList heading = {"NAME", "TYPE", "VALUE", "AGE", "QUALITY", "ERROR"};
    page.append({trimmedEnd(cut(widths.row(heading), width)), Style::Heading});
    for (int i = 0; i < cells.size(); ++i)
        page.append({trimmedEnd(cut(widths.row(cells.at(i)), width)), styleOf(variables.at(i))});
    return page;
}

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
