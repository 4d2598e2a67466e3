// What a history forgets: the part of HistoryFile that keeps it within its limits.

#include "HistoryFile.h"
#include "HistoryStatements.h"

namespace micro850::host {

namespace {

// A step removes at most so many writes, and gives so many pages back.
const int kWritesOfStep = 100;
const int kPagesOfStep = 64;

// The rows of a period are found without an index of their own: for each variable, they are those
// of its times and sequences.
const char kValuesOfPeriod[] =
    "FROM stored_values WHERE variable = ? AND time BETWEEN ? AND ? AND sequence BETWEEN ? AND ?";
const char kRollupsOfPeriod[] =
    "FROM rollups WHERE variable = ? AND earliest BETWEEN ? AND ? AND first BETWEEN ? AND ?";

qint64 numberOf(Statement& statement)
{
    const qint64 number = statement.step() ? statement.number(0) : 0;
    statement.reset();
    return number;
}

} // namespace

bool HistoryFile::isTooOld(qint64 recorded) const
{
    return this->recorded() - recorded > m_limits.age.count();
}

std::optional<HistoryFile::Period> HistoryFile::oldestPeriod()
{
    Statement& row = m_statements->oldestPeriod;
    if (!row.step())
        return std::nullopt;
    const Period period = {
        row.number(0), row.number(1), row.number(2), row.number(3), row.number(4), row.number(5), 0,
        false};
    row.reset();
    return period;
}

bool HistoryFile::retain()
{
    requireRoomInLog();
    const qint64 used = numberOf(m_statements->pages) - numberOf(m_statements->freePages);
    const bool full = used > m_budget.fullPages();
    return removeOldestPeriod(full) || removeOldWrites(full) || givePagesBack();
}

bool HistoryFile::removeOldestPeriod(bool full)
{
    const std::optional<Period> oldest = oldestPeriod();
    if (!oldest || (!full && !isTooOld(oldest->recorded)))
        return false;
    if (m_periodOpen && oldest->id == m_period.id)
        closePeriod();
    removePeriod(*oldest);
    return true;
}

Statement& HistoryFile::bindPeriod(Statement& statement, qint64 variable, const Period& period)
{
    return statement.bind(1, variable)
        .bind(2, period.earliest)
        .bind(3, period.latest)
        .bind(4, period.first)
        .bind(5, period.last);
}

void HistoryFile::removePeriod(const Period& period)
{
    m_database->run(QStringLiteral("BEGIN IMMEDIATE"));
    Statement values(*m_database, (std::string("DELETE ") + kValuesOfPeriod).c_str());
    Statement rollups(*m_database, (std::string("DELETE ") + kRollupsOfPeriod).c_str());
    Statement variables(*m_database, "SELECT id FROM variables");
    while (variables.step()) {
        bindPeriod(values, variables.number(0), period).run();
        bindPeriod(rollups, variables.number(0), period).run();
    }
    Statement(*m_database, "DELETE FROM events WHERE sequence <= ?").bind(1, period.last).run();
    for (const char* rest :
         {"DELETE FROM variables WHERE period <= ?", "DELETE FROM conditions WHERE period <= ?",
          "DELETE FROM periods WHERE id <= ?"})
        Statement(*m_database, rest).bind(1, period.id).run();
    // Its number and its last sequence must not come again.
    Statement(*m_database, "INSERT OR REPLACE INTO meta VALUES ('sequence', ?)")
        .bind(1, m_sequence)
        .run();
    Statement(*m_database, "INSERT OR REPLACE INTO meta VALUES ('period', ?)")
        .bind(1, m_period.id)
        .run();
    m_database->run(QStringLiteral("COMMIT"));
}

// Writes are few. They stay as long as the age allows, also where values were removed for want of
// space, unless there are so many that they fill the file.
bool HistoryFile::removeOldWrites(bool full)
{
    if (m_writes == 0)
        return false;
    if (!full && m_writes <= m_budget.mostWrites() &&
        !isTooOld(numberOf(m_statements->oldestWrite)))
        return false;
    Statement remove(*m_database, "DELETE FROM writes WHERE sequence IN (SELECT sequence FROM "
                                  "writes ORDER BY sequence LIMIT ?)");
    const qint64 most =
        full ? kWritesOfStep
             : std::max<qint64>(1,
                                std::min<qint64>(kWritesOfStep, m_writes - m_budget.mostWrites()));
    remove.bind(1, most).run();
    m_writes -= m_database->changes();
    return true;
}

bool HistoryFile::convert()
{
    if (m_unrolled == 0)
        return false;
    requireRoomInLog();
    Statement next(*m_database, "SELECT id, first, last, earliest, latest FROM periods WHERE id <= "
                                "? ORDER BY id DESC LIMIT 1");
    next.bind(1, m_unrolled);
    Period period;
    if (next.step()) {
        period.id = next.number(0);
        period.first = next.number(1);
        period.last = next.number(2);
        period.earliest = next.number(3);
        period.latest = next.number(4);
    }
    next.reset();
    m_database->run(QStringLiteral("BEGIN IMMEDIATE"));
    if (period.id > 0)
        addRollups(period);
    m_unrolled = std::max<qint64>(0, period.id - 1);
    Statement(*m_database, "INSERT OR REPLACE INTO meta VALUES ('unrolled', ?)")
        .bind(1, m_unrolled)
        .run();
    m_database->run(QStringLiteral("COMMIT"));
    return m_unrolled > 0;
}

void HistoryFile::addRollups(const Period& period)
{
    Statement values(*m_database,
                     (std::string("SELECT variable, time, sequence, condition, value ") +
                      kValuesOfPeriod + " ORDER BY time, sequence")
                         .c_str());
    Statement variables(*m_database, "SELECT id FROM variables");
    RollupMaker maker(*m_database);
    while (variables.step())
        maker.add(bindPeriod(values, variables.number(0), period));
}

// Free pages are used again. They are given back only where the limit has become smaller.
bool HistoryFile::givePagesBack()
{
    if (numberOf(m_statements->pages) <= m_budget.mostPages() ||
        numberOf(m_statements->freePages) == 0)
        return false;
    m_database->run(QStringLiteral("PRAGMA incremental_vacuum(%1)").arg(kPagesOfStep));
    if (numberOf(m_statements->pages) <= m_budget.mostPages())
        applyLimits();
    return true;
}

} // namespace micro850::host
