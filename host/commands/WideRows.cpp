#include "WideRows.h"

#include "Resampler.h"
#include "UserError.h"

#include <algorithm>

namespace micro850::host {

namespace {

const int kMostColumns = 100000;

QString labelOf(const HistoryVariable& variable)
{
    return variable.line.isEmpty() ? variable.name : variable.line + '/' + variable.name;
}

QString keyOf(const HistoryVariable& variable)
{
    return labelOf(variable) + QChar(0) + variable.unit;
}

} // namespace

// Numbers stay numbers, also those below 0.
QString cellOf(const CsvForm& form, const Json& value)
{
    if (value.is_null())
        return QString();
    const QString text = QString::fromStdString(
        value.is_string() ? value.get<std::string>()
                          : value.dump(-1, ' ', false, Json::error_handler_t::replace));
    if (value.is_string() || value.is_array())
        return csvText(text);
    return value.is_number_float() ? form.number(text) : text;
}

WideRows::WideRows(const CsvForm& form, bool holds, Line line)
    : m_form(form), m_holds(holds), m_line(std::move(line))
{
}

void WideRows::note(const HistoryValue& row)
{
    const HistoryVariable& variable = *row.variable;
    const QString key = keyOf(variable);
    auto place = m_places.constFind(key);
    if (place == m_places.constEnd()) {
        place = m_places.insert(key, m_columns.size());
        m_columns.append({{labelOf(variable), variable.unit, 0}, 0});
    }
    Column& column = m_columns[*place];
    const int length =
        std::max<int>({1, variable.length, static_cast<int>(elementsOf(row).size())});
    m_count += std::max(0, length - column.column.length);
    column.column.length = std::max(column.column.length, length);
    if (m_count > kMostColumns)
        throw UserError("--wide: the rows would have more than " + std::to_string(kMostColumns) +
                        " columns (choose variables with --match)");
}

QString WideRows::heading() const
{
    QStringList fields = {m_form.timeHeading()};
    for (const Column& column : m_columns) {
        for (const QString& heading : column.column.headings())
            fields += csvText(heading);
    }
    return m_form.line(fields);
}

bool WideRows::writeRow()
{
    return m_line(m_form.line(QStringList(m_form.timeText(*m_time)) + m_cells.toList()));
}

bool WideRows::add(const HistoryValue& row)
{
    if (m_cells.isEmpty()) {
        m_cells.resize(m_count);
        int first = 0;
        for (Column& column : m_columns) {
            column.first = first;
            first += column.column.length;
        }
    }
    if (m_time && *m_time != row.time) {
        if (!writeRow())
            return false;
        if (!m_holds)
            m_cells.fill(QString());
    }
    m_time = row.time;
    const auto place = m_places.constFind(keyOf(*row.variable));
    if (place == m_places.constEnd())
        return true; // recorded since the columns were counted
    const Column& column = m_columns.at(*place);
    const bool isGood = row.quality == QLatin1String("good");
    const std::vector<Json> values = isGood ? elementsOf(row) : std::vector<Json>();
    for (int i = 0; i < column.column.length; ++i)
        m_cells[column.first + i] = i < static_cast<int>(values.size())
                                        ? cellOf(m_form, values[static_cast<std::size_t>(i)])
                                        : QString();
    return true;
}

bool WideRows::finish()
{
    return !m_time || writeRow();
}

} // namespace micro850::host
