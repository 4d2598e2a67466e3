#include "HistoryReader.h"

#include "HistoryFormat.h"
#include "NamePattern.h"
#include "UserError.h"

#include <QtCore/QDateTime>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <limits>
#include <queue>
#include <unordered_map>

namespace micro850::host {

namespace {

// So many rows of all variables together are read ahead.
const int kRowsAhead = 16384;
const int kRowsOfStep = 1000;
// The version of the table of a log.
const int kLogVersion = 1;

const qint64 kFirst = std::numeric_limits<qint64>::min();
const qint64 kLast = std::numeric_limits<qint64>::max();

QString existing(const QString& path)
{
    const QFileInfo file(path);
    if (!file.exists())
        throw UserError(path.toStdString() + ": there is no such file");
    if (!file.isFile())
        throw UserError(path.toStdString() + ": is no file (name a history or a log)");
    if (!file.isReadable())
        throw UserError(path.toStdString() + ": cannot be read: Permission denied", kExitRefused);
    if (file.size() == 0)
        throw UserError(path.toStdString() + ": is empty, and no database");
    return path;
}

Json jsonOfText(const QString& text)
{
    return Json::parse(text.toStdString(), nullptr, false);
}

} // namespace

HistoryReader::HistoryReader(const QString& path)
    : m_database(existing(path), Database::Access::Read)
{
    const bool hasSamples = m_database.hasTable(QStringLiteral("samples"));
    const qint64 application = m_database.number("PRAGMA application_id");
    if (application == kHistoryApplication) {
        requireHistory(m_database);
    } else if (application == 0 && hasSamples) {
        m_log = true;
        if (m_database.number("PRAGMA user_version") > kLogVersion)
            throw UserError(path.toStdString() + ": was written by a later version of "
                                                 "micro850-host (use that version)");
    } else {
        throw UserError(path.toStdString() + ": is a database, but neither a history of "
                                             "micro850-gateway nor a log of micro850-host");
    }
}

// ---- Values in the order of time ----------------------------------------------------------------

/// Merges the values of many variables. Those of one are read with one search; a few of each are
/// kept, so that the memory is the same for an hour and for a year.
class HistoryReader::Merge
{
public:
    Merge(Database& database, const HistoryFilter& filter);
    void run(const Each<HistoryValue>& each);

private:
    struct Row
    {
        qint64 time;
        qint64 sequence;
        qint64 condition;
        Json value;
    };
    struct Source
    {
        std::shared_ptr<const HistoryVariable> variable;
        qint64 id;
        std::vector<Row> rows;
        std::size_t next;
        bool goesOn; ///< more rows are in the file
    };
    struct Condition
    {
        QString quality;
        QString state;
        QString error;
    };
    void findVariables(const HistoryFilter& filter);
    void readRecent();
    void refill(Source& source);
    const Condition& condition(qint64 id);

    Database& m_database;
    Statement m_step;
    qint64 m_from;
    qint64 m_after;
    qint64 m_to;
    qint64 m_lastSequence = kLast; ///< of the values that are stored
    int m_rowsAhead = kRowsAhead;
    std::vector<Source> m_sources;
    std::unordered_map<qint64, std::shared_ptr<const HistoryVariable>> m_variables;
    std::unordered_map<qint64, Condition> m_conditions;
};

HistoryReader::Merge::Merge(Database& database, const HistoryFilter& filter)
    : m_database(database),
      m_step(database, "SELECT time, sequence, condition, value FROM stored_values WHERE variable "
                       "= ?1 AND (time, sequence) > (?2, ?3) AND time < ?4 AND sequence <= ?5 "
                       "ORDER BY time, sequence LIMIT ?6"),
      m_from(filter.from.value_or(kFirst)), m_after(filter.after), m_to(filter.to.value_or(kLast))
{
    // One look at everything that may move while the rest is read.
    m_database.run(QStringLiteral("BEGIN"));
    findVariables(filter);
    readRecent();
    m_database.run(QStringLiteral("COMMIT"));
}

void HistoryReader::Merge::findVariables(const HistoryFilter& filter)
{
    Statement row(m_database, "SELECT id, line, name, station, tag, element, length, type, unit "
                              "FROM variables");
    while (row.step()) {
        HistoryVariable variable{row.text(1),
                                 row.text(2),
                                 static_cast<int>(row.number(3)),
                                 row.text(4),
                                 static_cast<int>(row.number(5)),
                                 static_cast<int>(row.number(6)),
                                 row.text(7),
                                 row.text(8)};
        if (!nameMatches(variable.line, filter.line) || !nameMatches(variable.name, filter.name))
            continue;
        const auto shared = std::make_shared<const HistoryVariable>(std::move(variable));
        m_variables[row.number(0)] = shared;
        m_sources.push_back({shared, row.number(0), {}, 0, true});
    }
    m_rowsAhead = std::max<int>(16, kRowsAhead / std::max<int>(1, int(m_sources.size())));
}

// Values are moved from here to the others. All that has not moved yet is read now; of the others,
// only what was there by now.
void HistoryReader::Merge::readRecent()
{
    Statement end(m_database, "SELECT coalesce((SELECT min(sequence) - 1 FROM recent_values), "
                              "(SELECT max(last) FROM periods), 0)");
    m_lastSequence = end.step() ? end.number(0) : 0;
    end.reset();
    Statement row(m_database, "SELECT variable, time, sequence, condition, value FROM "
                              "recent_values WHERE (time, sequence) > (?, ?) AND time < ? "
                              "ORDER BY variable, time, sequence");
    row.bind(1, m_from).bind(2, m_after).bind(3, m_to);
    while (row.step()) {
        const auto variable = m_variables.find(row.number(0));
        if (variable == m_variables.end())
            continue;
        if (m_sources.empty() || m_sources.back().goesOn || m_sources.back().id != row.number(0))
            m_sources.push_back({variable->second, row.number(0), {}, 0, false});
        const HistoryVariable& known = *variable->second;
        m_sources.back().rows.push_back({row.number(1), row.number(2), row.number(3),
                                         valueOf(row, 4, known.type, known.length)});
    }
}

void HistoryReader::Merge::refill(Source& source)
{
    const bool begun = !source.rows.empty();
    m_step.bind(1, source.id)
        .bind(2, begun ? source.rows.back().time : m_from)
        .bind(3, begun ? source.rows.back().sequence : m_after)
        .bind(4, m_to)
        .bind(5, m_lastSequence)
        .bind(6, qint64(m_rowsAhead));
    std::vector<Row> rows;
    while (m_step.step()) {
        rows.push_back({m_step.number(0), m_step.number(1), m_step.number(2),
                        valueOf(m_step, 3, source.variable->type, source.variable->length)});
    }
    source.goesOn = static_cast<int>(rows.size()) == m_rowsAhead;
    source.rows = std::move(rows);
    source.next = 0;
}

const HistoryReader::Merge::Condition& HistoryReader::Merge::condition(qint64 id)
{
    const auto known = m_conditions.find(id);
    if (known != m_conditions.end())
        return known->second;
    Condition found;
    Statement row(m_database, "SELECT quality, state, error FROM conditions WHERE id = ?");
    row.bind(1, id);
    if (row.step())
        found = {row.text(0), row.text(1), row.text(2)};
    return m_conditions[id] = found;
}

void HistoryReader::Merge::run(const Each<HistoryValue>& each)
{
    using Head = std::tuple<qint64, qint64, std::size_t>;
    std::priority_queue<Head, std::vector<Head>, std::greater<>> heads;
    const auto push = [this, &heads](std::size_t index) {
        Source& source = m_sources[index];
        if (source.next == source.rows.size() && source.goesOn)
            refill(source);
        if (source.next < source.rows.size())
            heads.emplace(source.rows[source.next].time, source.rows[source.next].sequence, index);
    };
    for (std::size_t i = 0; i < m_sources.size(); ++i)
        push(i);
    HistoryValue value;
    while (!heads.empty()) {
        const std::size_t index = std::get<2>(heads.top());
        heads.pop();
        Row& row = m_sources[index].rows[m_sources[index].next++];
        const Condition& condition = this->condition(row.condition);
        value.variable = m_sources[index].variable;
        value.time = row.time;
        value.sequence = row.sequence;
        value.value = std::move(row.value);
        value.quality = condition.quality;
        value.state = condition.state;
        value.error = condition.error;
        if (!each(value))
            return;
        push(index);
    }
}

void HistoryReader::values(const HistoryFilter& filter, const Each<HistoryValue>& each)
{
    if (m_log)
        loggedValues(filter, each);
    else
        Merge(m_database, filter).run(each);
}

// ---- Rows in the order of recording -------------------------------------------------------------

namespace {

/// Goes through the rows of a table in steps, from the sequence `last` on. `take` returns false to
/// end.
void inSteps(Statement& statement, qint64 last, const std::function<bool(const Statement&)>& take)
{
    for (int count = kRowsOfStep; count == kRowsOfStep;) {
        count = 0;
        statement.bind(1, last).bind(2, qint64(kRowsOfStep));
        while (statement.step()) {
            ++count;
            last = statement.number(0);
            if (!take(statement)) {
                statement.reset();
                return;
            }
        }
    }
}

qint64 startOf(const HistoryFilter& filter)
{
    return filter.lastFirst ? kLast : kFirst;
}

std::string stepsOf(const char* select, const HistoryFilter& filter)
{
    return select + std::string(filter.lastFirst
                                    ? " WHERE sequence < ? ORDER BY sequence DESC LIMIT ?"
                                    : " WHERE sequence > ? ORDER BY sequence LIMIT ?");
}

bool isWanted(const HistoryFilter& filter, qint64 time, const QString& line)
{
    return time >= filter.from.value_or(kFirst) && time < filter.to.value_or(kLast) &&
           nameMatches(line, filter.line);
}

// The column of a log has numbers of large types as text of digits, and true as 1.
HistoryValue loggedValue(const Statement& row)
{
    HistoryVariable variable;
    variable.name = row.text(2);
    variable.station = static_cast<int>(row.number(3));
    variable.tag = row.text(4);
    variable.element = static_cast<int>(row.number(5));
    variable.type = row.text(6);
    variable.unit = row.text(8);
    HistoryValue value;
    value.sequence = row.number(0);
    value.time = QDateTime::fromString(row.text(1), Qt::ISODateWithMs).toMSecsSinceEpoch();
    value.value = valueOf(row, 7, variable.type, 1);
    value.quality = row.text(9);
    value.error = row.text(10);
    value.variable = std::make_shared<const HistoryVariable>(std::move(variable));
    return value;
}

} // namespace

void HistoryReader::loggedValues(const HistoryFilter& filter, const Each<HistoryValue>& each)
{
    Statement rows(m_database,
                   "SELECT rowid, time, name, station, tag, element, type, value, unit, quality, "
                   "error FROM samples WHERE rowid > ? ORDER BY rowid LIMIT ?");
    inSteps(rows, kFirst, [&](const Statement& row) {
        if (!nameMatches(row.text(2), filter.name))
            return true;
        const HistoryValue value = loggedValue(row);
        return !isWanted(filter, value.time, QString()) || each(value);
    });
}

void HistoryReader::writes(const HistoryFilter& filter, const Each<HistoryWrite>& each)
{
    if (m_log)
        return;
    Statement rows(m_database, stepsOf("SELECT sequence, time, uid, pid, client, line, name, "
                                       "element, old, new, outcome, error FROM writes",
                                       filter)
                                   .c_str());
    inSteps(rows, startOf(filter), [&](const Statement& row) {
        const HistoryWrite write{row.number(1),
                                 row.number(0),
                                 static_cast<int>(row.number(2)),
                                 static_cast<int>(row.number(3)),
                                 row.text(4),
                                 row.text(5),
                                 row.text(6),
                                 static_cast<int>(row.number(7)),
                                 jsonOfText(row.text(8)),
                                 jsonOfText(row.text(9)),
                                 row.text(10),
                                 row.text(11)};
        return !isWanted(filter, write.time, write.line) || !nameMatches(write.name, filter.name) ||
               each(write);
    });
}

void HistoryReader::events(const HistoryFilter& filter, const Each<HistoryEvent>& each)
{
    if (m_log)
        return;
    Statement rows(
        m_database,
        stepsOf("SELECT sequence, time, line, station, state, text FROM events", filter).c_str());
    inSteps(rows, startOf(filter), [&](const Statement& row) {
        const bool hasStation = row.kind(3) != Statement::Kind::Null;
        const HistoryEvent event{row.number(1), row.number(0),
                                 row.text(2),   hasStation ? static_cast<int>(row.number(3)) : -1,
                                 row.text(4),   row.text(5)};
        return !isWanted(filter, event.time, event.line) || each(event);
    });
}

} // namespace micro850::host
