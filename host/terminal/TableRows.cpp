#include "TableRows.h"

#include "PlantTexts.h"
#include "Visible.h"

#include <algorithm>

namespace micro850::host {

namespace {

const std::chrono::seconds kMarkTime(1);
// More do not fit into the widest window.
const int kMostElements = 200;
const int kAgeWidth = 6;
const int kQualityWidth = 7;
// Narrower windows do without the column.
const int kAgeFrom = 56;
const int kTypeFrom = 64;
const int kErrorFrom = 70;

QString trimmedEnd(QString text)
{
    while (text.endsWith(' '))
        text.chop(1);
    return text;
}

/// The columns of a window; 0: not shown.
struct Columns
{
    int name = 0;
    int type = 0;
    int value = 0;
    int age = 0;
    int quality = kQualityWidth;
    int error = 0;
    int valueAt = 0; ///< where the value begins

    QString line(const QStringList& cells) const;
};

QString Columns::line(const QStringList& cells) const
{
    QString line = fitted(cells.at(0), name);
    if (type > 0)
        line += ' ' + fitted(cells.at(1), type);
    line += ' ' + fitted(cells.at(2), value);
    if (age > 0)
        line += ' ' + rightAligned(cells.at(3), age);
    line += ' ' + fitted(cells.at(4), quality);
    if (error > 0)
        line += ' ' + fitted(cells.at(5), error);
    return trimmedEnd(line);
}

// The value has the room that is left, of which errors get at most a third.
Columns columnsFor(const TableNeeds& needs, int width)
{
    Columns columns;
    columns.name = std::min(needs.name, std::max(8, width / 3));
    columns.type = width >= kTypeFrom ? std::min(needs.type, width / 5) : 0;
    columns.age = width >= kAgeFrom ? kAgeWidth : 0;
    columns.valueAt = columns.name + 1 + (columns.type > 0 ? columns.type + 1 : 0);
    const int room =
        width - columns.valueAt - (columns.age > 0 ? columns.age + 1 : 0) - columns.quality - 1;
    const bool showsErrors = needs.error > 0 && width >= kErrorFrom;
    const int forErrors = showsErrors ? std::min(needs.error + 1, room / 3) : 0;
    // An error without a column of its own is shown where there is no value.
    const int wanted =
        std::max({needs.value, needs.number + needs.unit, showsErrors ? 0 : needs.error});
    columns.value = std::max(5, std::min(wanted, room - forErrors));
    columns.error = showsErrors ? std::min(needs.error, room - columns.value - 1) : 0;
    return columns;
}

// A number is at the right of so many columns. One that is longer is cut by itself.
QString valueCell(const TableRow& row, int forNumbers)
{
    const bool isAligned = row.isNumber && displayWidth(row.value) <= forNumbers;
    const QString value = isAligned ? rightAligned(row.value, forNumbers) : row.value;
    return row.unit.isEmpty() || row.value.isEmpty() ? value : value + ' ' + row.unit;
}

Style styleOf(const TableRow& row)
{
    if (!row.error.isEmpty())
        return Style::Error;
    return row.quality == Quality::Good ? Style::Plain : Style::Warning;
}

QString typeText(const CipType* type, const Variable& variable)
{
    const QString name = type ? QString::fromLatin1(type->name) : QStringLiteral("?");
    return variable.length > 1 ? QStringLiteral("%1[%2]").arg(name).arg(variable.length) : name;
}

} // namespace

TableRows::TableRows(Plant& plant, const Project& project)
    : m_plant(plant), m_project(project), m_rows(project.variables.size())
{
    for (int i = 0; i < m_rows.size(); ++i) {
        m_rows[i].name = visible(variable(i).name);
        m_rows[i].unit = visible(variable(i).unit);
        takeValue(i, Duration(0), true);
    }
    update(Duration(0));
}

void TableRows::hold(bool isHeld)
{
    m_heldAt = isHeld ? std::make_optional(m_now) : std::nullopt;
    if (isHeld)
        m_held.emplace(m_plant.values());
    else
        m_held.reset();
}

void TableRows::update(Duration now)
{
    if (m_heldAt)
        return;
    m_now = now;
    for (const int variable : m_plant.values().popChanged())
        takeValue(variable, now, false);
    const ValueStore& values = m_plant.values();
    for (int i = 0; i < m_rows.size(); ++i) {
        m_rows[i].quality = m_plant.quality(i);
        m_rows[i].refreshedAt = values.refreshedAt(i);
    }
}

void TableRows::takeValue(int variable, Duration now, bool isFirst)
{
    TableRow& row = m_rows[variable];
    const ValueStore& values = m_plant.values();
    const Variable& asked = m_project.variables.at(variable);
    const CipType* type = values.type(variable) ? values.type(variable) : asked.type;
    const QString value = visible(values.bareText(variable, kMostElements));
    const QString error = visible(values.error(variable));
    // The elements that are not shown can have changed.
    const bool hasChanged =
        value != row.value || (asked.length > kMostElements && error == row.error);
    if (!isFirst && hasChanged && row.refreshedAt)
        row.changedAt = now;
    row.type = typeText(type, asked);
    row.isNumber = asked.length == 1 && type && isNumber(*type);
    row.value = value;
    row.error = error;
    noteNeeds(row);
}

void TableRows::noteNeeds(const TableRow& row)
{
    if (row.isNumber) {
        m_needs.number = std::max(m_needs.number, displayWidth(row.value));
        m_needs.unit = std::max(m_needs.unit, row.unit.isEmpty() ? 0 : displayWidth(row.unit) + 1);
    } else {
        m_needs.value = std::max(m_needs.value, displayWidth(valueCell(row, 0)));
    }
    m_needs.name = std::max(m_needs.name, displayWidth(row.name));
    m_needs.type = std::max(m_needs.type, displayWidth(row.type));
    m_needs.error = std::max(m_needs.error, displayWidth(row.error));
}

bool TableRows::isEnabled(int variable) const
{
    const int number = m_project.variables.at(variable).station;
    return std::none_of(m_project.stations.begin(), m_project.stations.end(),
                        [number](const StationSettings& station) {
                            return station.number == number && !station.enabled;
                        });
}

Duration TableRows::age(int variable) const
{
    const std::optional<Duration> at = m_rows.at(variable).refreshedAt;
    return at ? m_now - *at : Duration::max();
}

bool TableRows::isMarked(int variable) const
{
    return isMarked(m_rows.at(variable).changedAt);
}

bool TableRows::isMarked(std::optional<Duration> changedAt) const
{
    return changedAt && m_now - *changedAt < kMarkTime;
}

Page TableRows::lines(const QVector<int>& variables, int width) const
{
    const Columns columns = columnsFor(m_needs, width);
    const int forNumbers = std::min(m_needs.number, std::max(0, columns.value - m_needs.unit));
    Page page;
    const QStringList heading = {QStringLiteral("NAME"),    QStringLiteral("TYPE"),
                                 QStringLiteral("VALUE"),   QStringLiteral("AGE"),
                                 QStringLiteral("QUALITY"), QStringLiteral("ERROR")};
    page.append({cut(columns.line(heading), width), Style::Heading});
    for (const int variable : variables) {
        const TableRow& row = m_rows.at(variable);
        const bool showsError = columns.error == 0 && row.value.isEmpty();
        const QString value = showsError ? row.error : valueCell(row, forNumbers);
        const QString age =
            ageText(row.refreshedAt ? std::make_optional(m_now - *row.refreshedAt) : std::nullopt);
        const QStringList cells = {row.name, row.type, value, age, qualityText(row.quality),
                                   row.error};
        PageLine line = {cut(columns.line(cells), width), styleOf(row)};
        if (isMarked(variable)) {
            const QString text = cut(value, columns.value);
            const int blanks = text.size() - text.trimmed().size();
            const int before = row.isNumber ? blanks : 0;
            line.marks.append(
                {columns.valueAt + before, displayWidth(text) - before, Style::Changed});
        }
        page.append(line);
    }
    return page;
}

} // namespace micro850::host
