// Trends: the part of HistoryReader that joins rollups with the values at their edges and those of
// the open period.

#include "HistoryFormat.h"
#include "HistoryReader.h"
#include "HistoryRollups.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <vector>

namespace micro850::host {

namespace {

// Times of calendars end here; so the length of a span is a number, too.
const qint64 kLastTime = 8640000000000000;
// A look at whether to end, after so many rows.
const int kRowsOfStep = 1024;
// Where clocks were set back again and again, so many recordings are looked at for what `from`
// begins with.
const int kMostRecordings = 64;

/// The order in which values follow each other.
using Moment = std::pair<qint64, qint64>; // time, sequence

struct Record
{
    Moment at;
    double value;
};

struct Period
{
    qint64 first;
    qint64 last;
    qint64 earliest;
    qint64 latest;
};

/// Periods that continue each other: a value holds on through all of them.
struct Recording
{
    qint64 first;
    qint64 last;
    qint64 began;
    qint64 until;
};

/// What a part of the span has.
struct Part
{
    double least = kNoNumber;
    double greatest = kNoNumber;
    Record last = {Moment(), kNoNumber}; ///< good value
    /// The last value of each recording, good or not.
    std::map<std::size_t, Record> endings;
};

struct Variable
{
    qint64 id;
    NumberFormat format;
};

/// Values of one variable that are read one by one: those between two moments of one period.
struct Stretch
{
    Moment begin;
    Moment end;
    qint64 first; ///< sequences
    qint64 last;
};

/// Thrown to end early.
struct Ended
{
};

class TrendReader
{
public:
    TrendReader(Database& database, const TrendRequest& request,
                const std::function<bool()>& isEnding)
        : m_database(database), m_request(request), m_isEnding(isEnding),
          m_from(std::clamp(request.from, -kLastTime, kLastTime)),
          m_to(std::clamp(request.to, -kLastTime, kLastTime)), m_good(database)
    {
        m_isOfThisVersion = database.number("PRAGMA user_version") >= kHistoryVersion;
    }
    HistoryTrend read();

private:
    using Take = std::function<void(const Record& record)>;

    bool findVariables();
    void findPeriods();
    std::size_t recordingOf(qint64 sequence) const;
    void look();
    double numberAt(const Statement& row, const Variable& variable);
    void eachRow(Statement& rows, const Variable& variable, const Take& take);
    void eachRecent(const Variable& variable, const Take& take);

    void findCarried();
    void findCarried(const Variable& variable, std::size_t recording);
    void keepLater(std::size_t recording, const Record& record);
    double carriedAt(qint64 time) const;

    bool readRecords();
    void showRecords();

    void readParts();
    void readRollups(const Variable& variable);
    void readPeriods(const Variable& variable, const std::vector<bool>& isCovered);
    void readStretch(const Variable& variable, const Stretch& stretch);
    std::size_t partOf(qint64 time) const;
    void take(const Record& record);
    void takeRollup(std::size_t part, double least, double greatest, const Record& ending);
    void showParts();

    Database& m_database;
    const TrendRequest& m_request;
    const std::function<bool()>& m_isEnding;
    const qint64 m_from;
    const qint64 m_to;
    bool m_isOfThisVersion = true;
    GoodConditions m_good;
    int m_rows = 0;
    std::vector<double> m_numbers;
    HistoryTrend m_trend;

    std::vector<Variable> m_variables;
    std::vector<Period> m_periods;
    std::vector<Recording> m_recordings;
    std::vector<Record> m_records;
    std::vector<Part> m_parts;
    /// The last value of each recording so far.
    std::map<std::size_t, Record> m_carried;
};

HistoryTrend TrendReader::read()
{
    m_database.run(QStringLiteral("BEGIN"));
    try {
        if (findVariables() && m_from < m_to) {
            findPeriods();
            findCarried();
            if (readRecords()) {
                showRecords();
            } else {
                readParts();
                showParts();
            }
        }
    } catch (const Ended&) {
        m_trend = HistoryTrend();
        m_trend.outcome = HistoryTrend::Outcome::Ended;
    } catch (const UserError&) {
        m_database.rollBack();
        throw;
    }
    m_database.rollBack(); // nothing was written
    return m_trend;
}

void TrendReader::look()
{
    if (++m_rows % kRowsOfStep == 0 && m_isEnding())
        throw Ended();
}

// ---- What the history has -----------------------------------------------------------------------

bool TrendReader::findVariables()
{
    Statement row(m_database, "SELECT id, type, length, unit FROM variables WHERE line = ? AND "
                              "name = ? ORDER BY period DESC, id DESC");
    row.bind(1, m_request.line).bind(2, m_request.name);
    bool isKnown = false;
    bool hasElement = false;
    while (row.step()) {
        const NumberFormat format(row.text(1), row.number(2));
        if (!isKnown) {
            m_trend.unit = row.text(3);
            m_trend.length = format.length;
        }
        isKnown = true;
        if (row.text(3) != m_trend.unit || m_request.element < 0 ||
            m_request.element >= format.length)
            continue;
        hasElement = true;
        if (format.isNumber)
            m_variables.push_back({row.number(0), format});
    }
    m_trend.outcome = !isKnown              ? HistoryTrend::Outcome::Unknown
                      : !hasElement         ? HistoryTrend::Outcome::NoElement
                      : m_variables.empty() ? HistoryTrend::Outcome::NoNumber
                                            : HistoryTrend::Outcome::Done;
    return m_trend.outcome == HistoryTrend::Outcome::Done;
}

void TrendReader::findPeriods()
{
    Statement row(m_database, periodsWithContinuity(m_isOfThisVersion));
    qint64 before = 0;
    while (row.step()) {
        look();
        const qint64 id = row.number(0);
        const qint64 until = std::max(row.number(4), row.number(5));
        if (m_recordings.empty() || id != before + 1 || row.number(6) == 0)
            m_recordings.push_back({row.number(1), row.number(2), row.number(3), until});
        Recording& recording = m_recordings.back();
        recording.last = row.number(2);
        recording.began = std::min(recording.began, row.number(3));
        recording.until = std::max(recording.until, until);
        m_periods.push_back({row.number(1), row.number(2), row.number(3), row.number(4)});
        before = id;
    }
    if (m_request.recordedUntil && !m_recordings.empty())
        m_recordings.back().until = std::max(m_recordings.back().until, *m_request.recordedUntil);
}

std::size_t TrendReader::recordingOf(qint64 sequence) const
{
    const auto after = std::upper_bound(
        m_recordings.begin(), m_recordings.end(), sequence,
        [](qint64 wanted, const Recording& recording) { return wanted < recording.first; });
    return after == m_recordings.begin()
               ? 0
               : static_cast<std::size_t>(after - m_recordings.begin()) - 1;
}

// Columns: time, sequence, condition, value.
double TrendReader::numberAt(const Statement& row, const Variable& variable)
{
    if (!m_good.contains(row.number(2)))
        return kNoNumber;
    readNumbers(row, 3, variable.format, m_numbers);
    return m_numbers[static_cast<std::size_t>(m_request.element)];
}

void TrendReader::eachRow(Statement& rows, const Variable& variable, const Take& take)
{
    while (rows.step()) {
        look();
        take({{rows.number(0), rows.number(1)}, numberAt(rows, variable)});
    }
}

void TrendReader::eachRecent(const Variable& variable, const Take& take)
{
    Statement rows(m_database, "SELECT time, sequence, condition, value FROM recent_values WHERE "
                               "variable = ? AND time < ?");
    rows.bind(1, variable.id).bind(2, m_to);
    eachRow(rows, variable, take);
}

// ---- What the span begins with ------------------------------------------------------------------

void TrendReader::keepLater(std::size_t recording, const Record& record)
{
    const auto known = m_carried.find(recording);
    if (known == m_carried.end() || known->second.at < record.at)
        m_carried[recording] = record;
}

void TrendReader::findCarried()
{
    int looked = 0;
    for (std::size_t i = m_recordings.size(); i-- > 0 && looked < kMostRecordings;) {
        if (m_recordings[i].began >= m_from || m_recordings[i].until <= m_from)
            continue;
        ++looked;
        for (const Variable& variable : m_variables)
            findCarried(variable, i);
    }
    for (const Variable& variable : m_variables) {
        eachRecent(variable, [this](const Record& record) {
            if (record.at.first < m_from)
                keepLater(recordingOf(record.at.second), record);
        });
    }
}

void TrendReader::findCarried(const Variable& variable, std::size_t recording)
{
    Statement rows(m_database, "SELECT time, sequence, condition, value FROM stored_values WHERE "
                               "variable = ? AND time >= ? AND time < ? AND sequence BETWEEN ? AND "
                               "? ORDER BY time DESC, sequence DESC LIMIT 1");
    rows.bind(1, variable.id)
        .bind(2, m_recordings[recording].began)
        .bind(3, m_from)
        .bind(4, m_recordings[recording].first)
        .bind(5, m_recordings[recording].last);
    eachRow(rows, variable,
            [this, recording](const Record& record) { keepLater(recording, record); });
}

// The last recording that goes on at this time and knows a value says which.
double TrendReader::carriedAt(qint64 time) const
{
    for (auto each = m_carried.rbegin(); each != m_carried.rend(); ++each) {
        const Recording& recording = m_recordings[each->first];
        if (recording.began <= time && recording.until > time)
            return each->second.value;
    }
    return kNoNumber;
}

// ---- Records ------------------------------------------------------------------------------------

// False when there are more records than points.
bool TrendReader::readRecords()
{
    const auto most = static_cast<std::size_t>(std::max(1, m_request.points));
    const Take keep = [this](const Record& record) {
        if (record.at.first >= m_from)
            m_records.push_back(record);
    };
    for (const Variable& variable : m_variables) {
        Statement rows(m_database, "SELECT time, sequence, condition, value FROM stored_values "
                                   "WHERE variable = ? AND time >= ? AND time < ? LIMIT ?");
        rows.bind(1, variable.id).bind(2, m_from).bind(3, m_to).bind(4, qint64(most) + 1);
        eachRow(rows, variable, keep);
        eachRecent(variable, keep);
        if (m_records.size() > most)
            return false;
    }
    std::sort(m_records.begin(), m_records.end(),
              [](const Record& one, const Record& other) { return one.at < other.at; });
    return true;
}

void TrendReader::showRecords()
{
    QVector<TrendPoint>& points = m_trend.points;
    const auto show = [&points](qint64 time, double value) {
        points.append({time, value, value, value});
    };
    const auto isGood = [&points] { return !points.isEmpty() && !std::isnan(points.last().last); };
    const double carried = carriedAt(m_from);
    if (!std::isnan(carried) && (m_records.empty() || m_records.front().at.first > m_from))
        show(m_from, carried);
    qint64 until = m_from; // of the recordings so far
    for (const auto& [index, record] : m_carried)
        until = std::max(until, m_recordings[index].until);
    for (const Record& record : m_records) {
        const Recording& recording = m_recordings[recordingOf(record.at.second)];
        // The recording ended, and another one began later.
        const qint64 end = isGood() ? std::max(until, points.last().time + 1) : until;
        if (isGood() && recording.began > until && end < record.at.first)
            show(end, kNoNumber);
        show(record.at.first, record.value);
        until = std::max(until, recording.until);
    }
    const qint64 end = std::min(m_to, until);
    if (isGood() && end > points.last().time)
        show(end, points.last().last);
}

// ---- Parts --------------------------------------------------------------------------------------

std::size_t TrendReader::partOf(qint64 time) const
{
    return static_cast<std::size_t>((time - m_from) / m_trend.resolutionMs);
}

void TrendReader::take(const Record& record)
{
    takeRollup(partOf(record.at.first), record.value, record.value, record);
}

void TrendReader::takeRollup(std::size_t part, double least, double greatest, const Record& ending)
{
    Part& into = m_parts[part];
    into.least = std::fmin(into.least, least);
    into.greatest = std::fmax(into.greatest, greatest);
    if (!std::isnan(ending.value) && (std::isnan(into.last.value) || into.last.at < ending.at))
        into.last = ending;
    const std::size_t recording = recordingOf(ending.at.second);
    const auto known = into.endings.find(recording);
    if (known == into.endings.end() || known->second.at < ending.at)
        into.endings[recording] = ending;
}

void TrendReader::readParts()
{
    m_records.clear();
    const qint64 points = std::max(1, m_request.points);
    m_trend.resolutionMs = (m_to - m_from + points - 1) / points;
    m_parts.resize(partOf(m_to - 1) + 1);
    for (const Variable& variable : m_variables) {
        readRollups(variable);
        eachRecent(variable, [this](const Record& record) {
            if (record.at.first >= m_from)
                take(record);
        });
    }
}

void TrendReader::readRollups(const Variable& variable)
{
    std::vector<bool> isCovered(m_periods.size(), false);
    if (!m_isOfThisVersion) {
        readPeriods(variable, isCovered);
        return;
    }
    // A rollup may begin before the span, but not before its period.
    qint64 earliest = m_from;
    for (const Period& period : m_periods) {
        if (period.latest >= m_from)
            earliest = std::min(earliest, period.earliest);
    }
    Statement row(m_database, "SELECT earliest, first, latest, last, least, greatest, ending FROM "
                              "rollups WHERE variable = ? AND earliest >= ? AND earliest < ? ORDER "
                              "BY earliest, first");
    row.bind(1, variable.id).bind(2, earliest).bind(3, m_to);
    std::vector<Stretch> stretches;
    bool isAdjacent = false;
    while (row.step()) {
        look();
        const Moment begin(row.number(0), row.number(1));
        const Moment end(row.number(2), row.number(3));
        const auto after = std::upper_bound(
            m_periods.begin(), m_periods.end(), begin.second,
            [](qint64 sequence, const Period& period) { return sequence < period.first; });
        if (after == m_periods.begin())
            continue;
        const Period& period = *(after - 1);
        isCovered[static_cast<std::size_t>(after - m_periods.begin()) - 1] = true;
        if (end.first < m_from)
            continue;
        const double least = rolledNumber(row, 4, variable.format, m_request.element);
        const double ending = rolledNumber(row, 6, variable.format, m_request.element);
        const bool isWhole =
            begin.first >= m_from && end.first < m_to && partOf(begin.first) == partOf(end.first);
        // Which of its values is the last good one is not known.
        const bool endsBadly = std::isnan(ending) && !std::isnan(least);
        if (isWhole && !endsBadly) {
            takeRollup(partOf(begin.first), least,
                       rolledNumber(row, 5, variable.format, m_request.element), {end, ending});
            isAdjacent = false;
        } else if (isAdjacent && stretches.back().first == period.first) {
            stretches.back().end = end;
        } else {
            stretches.push_back({begin, end, period.first, period.last});
            isAdjacent = true;
        }
    }
    for (const Stretch& stretch : stretches)
        readStretch(variable, stretch);
    readPeriods(variable, isCovered);
}

void TrendReader::readStretch(const Variable& variable, const Stretch& stretch)
{
    Statement rows(m_database, "SELECT time, sequence, condition, value FROM stored_values WHERE "
                               "variable = ? AND time BETWEEN ? AND ? AND sequence BETWEEN ? AND "
                               "?");
    rows.bind(1, variable.id)
        .bind(2, std::max(m_from, stretch.begin.first))
        .bind(3, std::min(m_to - 1, stretch.end.first))
        .bind(4, stretch.first)
        .bind(5, stretch.last);
    eachRow(rows, variable, [this, &stretch](const Record& record) {
        if (record.at >= stretch.begin && record.at <= stretch.end)
            take(record);
    });
}

// Where a variable has few values there are no rollups. Periods that follow each other are read
// together.
void TrendReader::readPeriods(const Variable& variable, const std::vector<bool>& isCovered)
{
    const qint64 least = std::numeric_limits<qint64>::min();
    const qint64 most = std::numeric_limits<qint64>::max();
    std::optional<Stretch> together;
    for (std::size_t i = 0; i < m_periods.size(); ++i) {
        const Period& period = m_periods[i];
        const bool isOutside = period.latest < m_from || period.earliest >= m_to;
        if (isCovered[i] || isOutside) {
            if (together)
                readStretch(variable, *together);
            together.reset();
        } else if (together) {
            together->begin = std::min(together->begin, Moment(period.earliest, least));
            together->end = std::max(together->end, Moment(period.latest, most));
            together->last = period.last;
        } else {
            together = {{period.earliest, least}, {period.latest, most}, period.first, period.last};
        }
    }
    if (together)
        readStretch(variable, *together);
}

void TrendReader::showParts()
{
    m_trend.points.reserve(static_cast<int>(m_parts.size()));
    qint64 time = m_from;
    for (const Part& part : m_parts) {
        if (part.endings.empty()) {
            const double carried = carriedAt(time);
            m_trend.points.append({time, carried, carried, carried});
        } else {
            m_trend.points.append({time, part.least, part.greatest, part.last.value});
        }
        for (const auto& [recording, ending] : part.endings)
            keepLater(recording, ending);
        time += m_trend.resolutionMs;
    }
}

} // namespace

HistoryTrend HistoryReader::trend(const TrendRequest& request,
                                  const std::function<bool()>& isEnding)
{
    if (m_log)
        throw UserError(m_database.path().toStdString() + ": is a log, which has no trends");
    return TrendReader(m_database, request, isEnding).read();
}

} // namespace micro850::host
