#include "Resampler.h"

#include "CipType.h"
#include "DateText.h"
#include "UserError.h"

#include <QtCore/QDateTime>

#include <algorithm>
#include <cmath>
#include <utility>

namespace micro850::host {

namespace {

const qint64 kDay = qint64(24) * 60 * 60 * 1000;
// Between two rows. More would be a mistake in the period or in a clock.
const qint64 kMostPeriods = 1000000;

qint64 floored(qint64 number, qint64 step)
{
    const qint64 rest = number % step;
    return number - (rest < 0 ? rest + step : rest);
}

qint64 midnight(const QDate& date)
{
    return QDateTime(date, QTime(0, 0)).toMSecsSinceEpoch();
}

bool isNumeric(const Json& value)
{
    return value.is_number() || value.is_boolean();
}

double numberOf(const Json& value)
{
    return value.is_boolean() ? (value.get<bool>() ? 1 : 0) : value.get<double>();
}

// "10", "-1.5", "true", "0x12" of a log's array; null for any other text.
Json numberOf(const QString& text)
{
    if (text == QLatin1String("true") || text == QLatin1String("false"))
        return Json(text == QLatin1String("true"));
    bool good = false;
    if (text.startsWith(QLatin1String("0x"))) {
        const qulonglong bits = text.mid(2).toULongLong(&good, 16);
        return good ? Json(static_cast<std::uint64_t>(bits)) : Json();
    }
    const qlonglong whole = text.toLongLong(&good);
    if (good)
        return Json(static_cast<std::int64_t>(whole));
    const qulonglong large = text.toULongLong(&good);
    if (good)
        return Json(static_cast<std::uint64_t>(large));
    const double real = text.toDouble(&good);
    return good && std::isfinite(real) ? Json(real) : Json();
}

// Whether a log has several values of this type as one text of numbers.
bool hasNumbers(const QString& type)
{
    for (const CipType& known : cipTypes()) {
        if (type == QLatin1String(known.name))
            return known.kind != CipKind::String && dateExample(known) == nullptr;
    }
    return false;
}

QString keyOf(const HistoryVariable& variable)
{
    return variable.line + QChar(0) + variable.name + QChar(0) + variable.unit;
}

} // namespace

std::vector<Json> elementsOf(const HistoryValue& row)
{
    if (row.value.is_array())
        return row.value.get<std::vector<Json>>();
    if (!row.value.is_string() || !hasNumbers(row.variable->type))
        return {row.value};
    std::vector<Json> elements;
    const QString text = QString::fromStdString(row.value.get<std::string>());
    for (const QString& part : text.split(' ')) {
        const Json number = numberOf(part);
        if (number.is_null())
            return {row.value};
        elements.push_back(number);
    }
    return elements;
}

Resampler::Resampler(const ResampleSettings& settings, Each each)
    : m_settings(settings), m_each(std::move(each))
{
}

qint64 Resampler::startOf(qint64 time) const
{
    if (m_settings.period % kDay != 0)
        return floored(time, m_settings.period);
    const QDate date = QDateTime::fromMSecsSinceEpoch(time).date();
    const qint64 days = m_settings.period / kDay;
    return midnight(QDate::fromJulianDay(floored(date.toJulianDay(), days)));
}

qint64 Resampler::endOf(qint64 start) const
{
    if (m_settings.period % kDay != 0)
        return start + m_settings.period;
    const QDate date = QDateTime::fromMSecsSinceEpoch(start).date();
    return midnight(date.addDays(m_settings.period / kDay));
}

void Resampler::beginPeriod(qint64 time)
{
    m_start = startOf(time);
    m_end = endOf(m_start);
}

// Counts what is held, from where it was counted, up to a time of the same period.
void Resampler::count(Series& series, qint64 until) const
{
    const bool hasEnd = m_settings.hold > 0;
    const qint64 end = hasEnd ? std::min(until, series.recorded + m_settings.hold) : until;
    const double milliseconds = static_cast<double>(std::max<qint64>(0, end - series.since));
    const bool isNew = series.since == series.recorded;
    for (std::size_t i = 0; i < series.held.size() && (milliseconds > 0 || isNew); ++i) {
        if (series.elements.size() <= i)
            series.elements.resize(i + 1);
        Element& element = series.elements[i];
        const Json& value = series.held[i];
        element.last = value;
        if (!isNumeric(value))
            continue;
        if (element.least.is_null() || numberOf(value) < numberOf(element.least))
            element.least = value;
        if (element.most.is_null() || numberOf(value) > numberOf(element.most))
            element.most = value;
        element.sum += numberOf(value) * milliseconds;
        element.weight += milliseconds;
    }
    if (hasEnd && end < until)
        series.held.clear();
    series.since = until;
}

Json Resampler::taken(const Element& element) const
{
    switch (m_settings.take) {
    case Take::Mean:
        if (!isNumeric(element.last))
            return Json();
        return element.weight > 0 ? Json(element.sum / element.weight)
                                  : Json(numberOf(element.last));
    case Take::Minimum:
        return element.least;
    case Take::Maximum:
        return element.most;
    case Take::Last:
        break;
    }
    return element.last;
}

bool Resampler::tell(const Series& series, qint64 time)
{
    HistoryValue row;
    row.variable = series.variable;
    row.time = time;
    row.sequence = -1;
    row.quality = QStringLiteral("good");
    Json values = Json::array();
    for (const Element& element : series.elements)
        values.push_back(taken(element));
    const bool isText = std::all_of(values.begin(), values.end(),
                                    [](const Json& value) { return value.is_null(); });
    if (isText) {
        const QString key = keyOf(*series.variable);
        if (!m_texts.contains(key))
            m_leftOut += series.variable->name;
        m_texts.insert(key);
        return true;
    }
    row.value = series.isArray ? values : values.front();
    return m_each(row);
}

bool Resampler::closePeriod(qint64 end)
{
    const bool isTold = !m_settings.from || m_start >= *m_settings.from;
    for (Series& series : m_series) {
        count(series, end);
        if (isTold && !series.elements.empty() && !tell(series, m_start))
            return false;
        series.elements.clear();
    }
    return true;
}

bool Resampler::holdsAny() const
{
    return std::any_of(m_series.begin(), m_series.end(),
                       [](const Series& series) { return !series.held.empty(); });
}

bool Resampler::advanceTo(qint64 time)
{
    // The clock was set back: the period ends here.
    if (time < m_start) {
        const bool goesOn = closePeriod(m_last);
        for (Series& series : m_series)
            series.since = time;
        beginPeriod(time);
        return goesOn;
    }
    for (qint64 count = 0; time >= m_end; ++count) {
        if (count > kMostPeriods)
            throw UserError("more than " + std::to_string(kMostPeriods) +
                            " periods lie between two rows, at " + utcText(m_start).toStdString() +
                            " and " + utcText(time).toStdString() +
                            " (choose a longer --every, or --hold)");
        if (!closePeriod(m_end))
            return false;
        if (holdsAny())
            beginPeriod(m_end);
        else
            beginPeriod(time);
    }
    return true;
}

bool Resampler::add(const HistoryValue& row)
{
    if (!std::exchange(m_begun, true))
        beginPeriod(row.time);
    if (!advanceTo(row.time))
        return false;
    m_last = row.time;
    const QString key = keyOf(*row.variable);
    auto place = m_places.constFind(key);
    if (place == m_places.constEnd()) {
        place = m_places.insert(key, static_cast<int>(m_series.size()));
        m_series.emplace_back();
    }
    Series& series = m_series[static_cast<std::size_t>(*place)];
    count(series, row.time);
    series.variable = row.variable;
    const bool isGood = row.quality == QLatin1String("good") && !row.value.is_null();
    series.held = isGood ? elementsOf(row) : std::vector<Json>();
    series.isArray = row.value.is_array() || series.held.size() > 1;
    series.since = series.recorded = row.time;
    return true;
}

bool Resampler::finish()
{
    return !m_begun || closePeriod(m_last);
}

} // namespace micro850::host
