#ifndef MICRO850_HOST_HISTORYFILE_H
#define MICRO850_HOST_HISTORYFILE_H

#include "Clock.h"
#include "Database.h"
#include "FileLock.h"
#include "HistoryBudget.h"
#include "HistoryRollups.h"
#include "HistoryRows.h"

#include <QtCore/QHash>

#include <map>
#include <memory>
#include <tuple>
#include <unordered_map>

namespace micro850::host {

struct HistoryStatements;

/// Thrown when a file belongs to somebody else: to another program that records, or to a later
/// version.
class HistoryRefused : public UserError
{
public:
    using UserError::UserError;
};

/// The writer's side of a history. Everything between begin() and commit() is recorded as a whole
/// or not at all. After an exception the object must be destroyed.
class HistoryFile
{
public:
    /// Opens a history or creates it. Throws HistoryRefused, or DatabaseError, which says whether
    /// the file is damaged. `fileSystem` is the name of one that SQLite knows, for tests.
    HistoryFile(const QString& path, const HistoryLimits& limits, const char* fileSystem = nullptr);
    ~HistoryFile();
    HistoryFile(const HistoryFile&) = delete;
    HistoryFile& operator=(const HistoryFile&) = delete;

    void setLimits(const HistoryLimits& limits);
    const HistoryBudget& budget() const { return m_budget; }
    /// False when the file was removed or replaced.
    bool isInPlace() const;
    /// The sequence of the last row.
    qint64 sequence() const { return m_sequence; }
    qint64 bytes() const;

    void begin();
    /// The row's own sequence does not matter: it gets the next one.
    void add(const HistoryValue& value);
    void add(const HistoryWrite& write);
    void add(const HistoryEvent& event);
    /// So much time has passed since the last call, by the monotonic clock.
    void advance(Duration passed);
    /// The clock on the wall was set: what follows belongs to another period. Not between begin()
    /// and commit().
    void endPeriod();
    /// Whether the values that were added are known to hold on until the next ones: the recording
    /// has gone on since, with a steady clock.
    bool isGoingOn() const { return m_isGoingOn; }
    /// Whether the rest must wait for another transaction.
    bool isTransactionFull() const;
    /// Throws DatabaseError also when another program keeps the log from being emptied.
    void commit();

    /// Removes some of what is too old or too much, and gives free pages back where the limit asks
    /// for it. Returns whether more is to be done.
    bool retain();
    /// Gives rollups to a period of a history that an earlier version began. Returns whether more
    /// is to be done.
    bool convert();

    /// Renames a damaged file and its log; nothing is deleted. Returns the new name.
    static QString setAside(const QString& path, qint64 time);

private:
    /// A part of the recording during which the clock on the wall was steady.
    struct Period
    {
        qint64 id = 0;
        qint64 first = 0; ///< sequences
        qint64 last = 0;
        qint64 earliest = 0; ///< times
        qint64 latest = 0;
        qint64 recorded = 0;    ///< the time of recording at its end, in milliseconds
        qint64 until = 0;       ///< the time up to which the recording went on
        bool continues = false; ///< the recording had not stopped since the period before
    };
    /// What was added.
    struct Amount
    {
        qint64 rows = 0;
        qint64 bytes = 0;
        qint64 names = 0; ///< of variables and conditions
        void add(qint64 rowBytes);
        /// The values of a variable are together in a page or more of their own.
        qint64 pages() const;
    };
    /// Quality, state and error.
    using Condition = std::tuple<QString, QString, QString>;

    void lock();
    void create() const;
    void prepare();
    void readState();
    void applyLimits();
    void requireRoomInLog();
    qint64 logBytes() const;
    /// In milliseconds.
    qint64 recorded() const;
    void takeSequence(qint64 time, qint64 bytes);
    void countName();
    bool periodIsOver() const;
    void closePeriod();
    void storeState();
    qint64 variableId(const std::shared_ptr<const HistoryVariable>& variable);
    qint64 conditionId(const HistoryValue& value);
    bool isTooOld(qint64 recorded) const;
    std::optional<Period> oldestPeriod();
    bool removeOldestPeriod(bool full);
    void removePeriod(const Period& period);
    void addRollups(const Period& period);
    static Statement& bindPeriod(Statement& statement, qint64 variable, const Period& period);
    bool removeOldWrites(bool full);
    bool givePagesBack();

    QString m_path;
    HistoryLimits m_limits;
    HistoryBudget m_budget;
    /// Before the database: the file is closed before the next program may open it.
    std::unique_ptr<FileLock> m_lock;
    std::unique_ptr<Database> m_database;
    std::unique_ptr<HistoryStatements> m_statements;
    quint64 m_device = 0;
    quint64 m_inode = 0;

    qint64 m_sequence = 0;
    qint64 m_recordedBefore = 0; ///< in milliseconds, when the file was opened
    Duration m_recordedSince{0};
    qint64 m_recordedStored = 0; ///< as the file has it
    qint64 m_writes = 0;

    Period m_period; ///< the last one; `id` is 0 in an empty file
    /// Its rows are in recent_values. A file that was just opened goes on with another period.
    bool m_periodOpen = false;
    bool m_endsPeriod = true;
    bool m_isGoingOn = false;
    qint64 m_wallAtStart = 0; ///< the clock on the wall when the time of recording was 0
    /// Older periods, from this one down, have no rollups yet; 0: all have.
    qint64 m_unrolled = 0;
    qint64 m_periodBegan = 0; ///< time of recording
    bool m_added = false;     ///< since begin()
    Amount m_ofPeriod;
    Amount m_ofTransaction;

    // Of this period. The variables are kept, so that no other one gets the address.
    std::unordered_map<const HistoryVariable*,
                       std::pair<std::shared_ptr<const HistoryVariable>, qint64>>
        m_variables;
    std::map<Condition, qint64> m_conditions;
};

} // namespace micro850::host

#endif
