#include "HistoryRollups.h"

#include "CipType.h"
#include "Json.h"

#include <QtCore/QByteArray>
#include <QtCore/QtEndian>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace micro850::host {

namespace {

// A rollup costs about as much as two values.
const int kRowsOfRollup = 64;
// A variable with fewer values in a period has no rollups there: its values are read instead.
const int kLeastRows = 16;
// No controller has a larger array; a file can say anything.
const qint64 kLongestArray = 65536;
// An unsigned number beyond 9223372036854775807 is text of so many digits.
const int kLargeDigits = 20;

double numberOf(const Json& value)
{
    if (value.is_boolean())
        return value.get<bool>() ? 1 : 0;
    return value.is_number() ? value.get<double>() : kNoNumber;
}

double finite(double number)
{
    return std::isfinite(number) ? number : kNoNumber;
}

void readArray(const Statement& row, int column, std::vector<double>& numbers)
{
    const QByteArray text = row.bytes(column);
    const Json array = Json::parse(text.constBegin(), text.constEnd(), nullptr, false);
    if (!array.is_array())
        return;
    const std::size_t count = std::min(numbers.size(), array.size());
    for (std::size_t i = 0; i < count; ++i)
        numbers[i] = finite(numberOf(array[i]));
}

double numberOfText(const QString& text, const NumberFormat& format)
{
    bool good = false;
    const quint64 number =
        format.isLarge && text.size() == kLargeDigits ? text.toULongLong(&good) : 0;
    return good ? static_cast<double>(number) : kNoNumber;
}

} // namespace

NumberFormat::NumberFormat(const QString& type, qint64 elements)
{
    isNumber = elements >= 1 && elements <= kLongestArray;
    length = isNumber ? static_cast<int>(elements) : 1;
    for (const CipType& each : cipTypes()) {
        if (type != QLatin1String(each.name))
            continue;
        isNumber = isNumber && each.kind != CipKind::String;
        isLarge = each.kind == CipKind::Unsigned || each.kind == CipKind::Bits;
    }
}

void readNumbers(const Statement& row, int column, const NumberFormat& format,
                 std::vector<double>& numbers)
{
    numbers.assign(static_cast<std::size_t>(format.length), kNoNumber);
    switch (row.kind(column)) {
    case Statement::Kind::Integer:
        numbers[0] = static_cast<double>(row.number(column));
        break;
    case Statement::Kind::Real:
        numbers[0] = finite(row.real(column));
        break;
    case Statement::Kind::Text:
        if (format.length > 1)
            readArray(row, column, numbers);
        else
            numbers[0] = numberOfText(row.text(column), format);
        break;
    case Statement::Kind::Null:
    case Statement::Kind::Blob:
        break;
    }
}

// ---- Conditions ---------------------------------------------------------------------------------

GoodConditions::GoodConditions(Database& database)
    : m_find(database, "SELECT quality = 'good' FROM conditions WHERE id = ?")
{
}

bool GoodConditions::contains(qint64 condition)
{
    const auto known = m_known.find(condition);
    if (known != m_known.end())
        return known->second;
    m_find.bind(1, condition);
    const bool isGood = m_find.step() && m_find.number(0) != 0;
    m_find.reset();
    return m_known[condition] = isGood;
}

// ---- Making -------------------------------------------------------------------------------------

RollupMaker::RollupMaker(Database& database)
    : m_findFormat(database, "SELECT type, length FROM variables WHERE id = ?"),
      m_insert(database, "INSERT OR REPLACE INTO rollups (variable, earliest, first, latest, last, "
                         "least, greatest, ending) VALUES (?, ?, ?, ?, ?, ?, ?, ?)"),
      m_good(database)
{
}

void RollupMaker::add(Statement& rows)
{
    m_variable = 0;
    m_rows = 0;
    while (rows.step()) {
        if (rows.number(0) != m_variable) {
            finishVariable();
            beginVariable(rows.number(0));
        }
        if (m_format.isNumber)
            addRow(rows);
    }
    finishVariable();
}

void RollupMaker::beginVariable(qint64 variable)
{
    m_variable = variable;
    m_hasStored = false;
    m_findFormat.bind(1, variable);
    m_format = m_findFormat.step() ? NumberFormat(m_findFormat.text(0), m_findFormat.number(1))
                                   : NumberFormat();
    m_findFormat.reset();
}

void RollupMaker::addRow(const Statement& row)
{
    if (m_rows == kRowsOfRollup)
        store();
    readNumbers(row, 4, m_format, m_numbers.ending);
    if (!m_good.contains(row.number(3)))
        m_numbers.ending.assign(m_numbers.ending.size(), kNoNumber);
    m_latest = row.number(1);
    m_last = row.number(2);
    if (m_rows++ == 0) {
        m_earliest = m_latest;
        m_first = m_last;
        m_numbers.least = m_numbers.greatest = m_numbers.ending;
        return;
    }
    // What is no number changes neither.
    for (std::size_t i = 0; i < m_numbers.ending.size(); ++i) {
        m_numbers.least[i] = std::fmin(m_numbers.least[i], m_numbers.ending[i]);
        m_numbers.greatest[i] = std::fmax(m_numbers.greatest[i], m_numbers.ending[i]);
    }
}

void RollupMaker::finishVariable()
{
    if (m_rows >= kLeastRows || (m_rows > 0 && m_hasStored))
        store();
    m_rows = 0;
}

void RollupMaker::store()
{
    m_insert.bind(1, m_variable).bind(2, m_earliest).bind(3, m_first).bind(4, m_latest);
    m_insert.bind(5, m_last);
    bindNumbers(6, m_numbers.least);
    bindNumbers(7, m_numbers.greatest);
    bindNumbers(8, m_numbers.ending);
    m_insert.run();
    m_hasStored = true;
    m_rows = 0;
}

void RollupMaker::bindNumbers(int parameter, const std::vector<double>& numbers)
{
    if (m_format.length == 1) {
        if (std::isnan(numbers[0]))
            m_insert.bindNull(parameter);
        else
            m_insert.bindReal(parameter, numbers[0]);
        return;
    }
    QByteArray bytes(static_cast<int>(numbers.size() * sizeof(quint64)), '\0');
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        quint64 bits = 0;
        std::memcpy(&bits, &numbers[i], sizeof bits);
        qToLittleEndian(bits, bytes.data() + i * sizeof bits);
    }
    m_insert.bindBytes(parameter, bytes);
}

double rolledNumber(const Statement& row, int column, const NumberFormat& format, int element)
{
    if (format.length == 1)
        return row.kind(column) == Statement::Kind::Null ? kNoNumber : row.real(column);
    const QByteArray bytes = row.bytes(column);
    const int at = element * static_cast<int>(sizeof(quint64));
    if (at + static_cast<int>(sizeof(quint64)) > bytes.size())
        return kNoNumber;
    const auto bits = qFromLittleEndian<quint64>(bytes.constData() + at);
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    return number;
}

} // namespace micro850::host
