#include "HistoryFile.h"

#include "HistoryFormat.h"
#include "HistoryStatements.h"
#include "OutputFile.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace micro850::host {

namespace {

// A period is moved at once, and every reader reads the one that is not moved yet.
const qint64 kRowsOfPeriod = 16384;
const qint64 kPeriodMs = qint64(60) * 60 * 1000;
// The time of recording is written with rows, and without them so often.
const qint64 kStoreRecordedMs = qint64(60) * 1000;

QString logOf(const QString& path)
{
    return path + QStringLiteral("-wal");
}

QString indexOf(const QString& path)
{
    return path + QStringLiteral("-shm");
}

} // namespace

void HistoryFile::Amount::add(qint64 rowBytes)
{
    ++rows;
    bytes += rowBytes;
}

qint64 HistoryFile::Amount::pages() const
{
    return names + 2 * bytes / HistoryBudget::kPageSize;
}

HistoryFile::HistoryFile(const QString& path, const HistoryLimits& limits, const char* fileSystem)
    : m_path(path), m_limits(limits), m_budget(limits.bytes)
{
    lock();
    if (!fileSystem)
        create();
    m_database = std::make_unique<Database>(path, Database::Access::Write, fileSystem);
    prepare();
    readState();
}

HistoryFile::~HistoryFile() = default;

// Two programs that record into one file would give the same sequences.
void HistoryFile::lock()
{
    m_lock = FileLock::take(m_path);
    if (!m_lock)
        throw HistoryRefused(m_path.toStdString() + ": another program records into it",
                             kExitRefused);
}

// The group reads it, and nobody else; the database gives its log the same rights. An error shows
// when the database is opened.
void HistoryFile::create() const
{
    const int made = ::open(QFile::encodeName(m_path).constData(),
                            O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (made >= 0)
        ::close(made);
}

void HistoryFile::prepare()
{
    const bool fresh = isEmpty(*m_database);
    if (!fresh)
        requireHistory(*m_database);
    else
        m_database->run(QStringLiteral("PRAGMA auto_vacuum = INCREMENTAL"));
    if (m_database->text("PRAGMA journal_mode = WAL") != QLatin1String("wal"))
        throw UserError(m_path.toStdString() + ": this file system cannot share memory, which the "
                                               "write-ahead log needs (use a local disk)",
                        kExitRefused);
    // Each commit waits until the log is on the disk. NORMAL would do so only at a checkpoint: a
    // power cut could lose minutes.
    m_database->run(QStringLiteral("PRAGMA synchronous = FULL"));
    if (fresh)
        createHistory(*m_database);
    else if (m_database->number("PRAGMA user_version") < kHistoryVersion)
        convertHistory(*m_database);
    applyLimits();
    m_statements = std::make_unique<HistoryStatements>(*m_database);
    struct stat status = {};
    if (::stat(QFile::encodeName(m_path).constData(), &status) != 0)
        failToWrite(m_path.toStdString(), errno);
    m_device = status.st_dev;
    m_inode = status.st_ino;
}

void HistoryFile::readState()
{
    Statement last(*m_database, "SELECT id, first, last, earliest, latest, recorded FROM periods "
                                "ORDER BY id DESC LIMIT 1");
    if (last.step())
        m_period = {last.number(0),
                    last.number(1),
                    last.number(2),
                    last.number(3),
                    last.number(4),
                    last.number(5),
                    0,
                    false};
    last.reset();
    m_period.id =
        std::max(m_period.id, m_database->number("SELECT value FROM meta WHERE key = 'period'"));
    m_sequence = std::max(m_period.last,
                          m_database->number("SELECT value FROM meta WHERE key = 'sequence'"));
    m_recordedBefore = std::max(
        m_period.recorded, m_database->number("SELECT value FROM meta WHERE key = 'recorded'"));
    m_recordedStored = m_recordedBefore;
    m_unrolled = m_database->number("SELECT value FROM meta WHERE key = 'unrolled'");
    m_writes = m_database->number("SELECT count(*) FROM writes");
    m_periodOpen = m_database->number("SELECT count(*) FROM recent_values") > 0;
}

void HistoryFile::setLimits(const HistoryLimits& limits)
{
    m_limits = limits;
    m_budget = HistoryBudget(limits.bytes);
    applyLimits();
}

void HistoryFile::applyLimits()
{
    const qint64 checkpoint = std::min<qint64>(1000, m_budget.log() / 4 / HistoryBudget::kPageSize);
    m_database->run(QStringLiteral("PRAGMA wal_autocheckpoint = %1; PRAGMA journal_size_limit = "
                                   "%2; PRAGMA max_page_count = %3")
                        .arg(checkpoint)
                        .arg(m_budget.log())
                        .arg(m_budget.mostPages()));
}

bool HistoryFile::isInPlace() const
{
    struct stat status = {};
    return ::stat(QFile::encodeName(m_path).constData(), &status) == 0 &&
           status.st_dev == m_device && status.st_ino == m_inode;
}

qint64 HistoryFile::logBytes() const
{
    return QFileInfo(logOf(m_path)).size();
}

qint64 HistoryFile::bytes() const
{
    return QFileInfo(m_path).size() + logBytes() + QFileInfo(indexOf(m_path)).size();
}

qint64 HistoryFile::recorded() const
{
    return m_recordedBefore + wholeMilliseconds(m_recordedSince);
}

void HistoryFile::advance(Duration passed)
{
    m_recordedSince += passed;
}

// The log is emptied by the commits themselves unless another program reads for long: then it would
// grow without a limit.
void HistoryFile::requireRoomInLog()
{
    if (logBytes() <= m_budget.log() / 2)
        return;
    Statement checkpoint(*m_database, "PRAGMA wal_checkpoint(TRUNCATE)");
    const bool busy = checkpoint.step() && checkpoint.number(0) != 0;
    checkpoint.reset();
    if (busy)
        throw UserError(m_path.toStdString() + ": another program has been reading it for so long "
                                               "that its log is full (end that program)",
                        kExitRefused);
}

void HistoryFile::begin()
{
    requireRoomInLog();
    if (periodIsOver())
        closePeriod();
    m_database->run(QStringLiteral("BEGIN IMMEDIATE"));
    m_added = false;
    m_ofTransaction = Amount();
}

bool HistoryFile::isTransactionFull() const
{
    return m_ofTransaction.pages() >= m_budget.pagesOfPeriod() ||
           m_ofTransaction.bytes >= m_budget.bytesOfTransaction();
}

void HistoryFile::commit()
{
    storeState();
    m_database->run(QStringLiteral("COMMIT"));
}

bool HistoryFile::periodIsOver() const
{
    const bool isLong = recorded() - m_periodBegan >= kPeriodMs;
    return m_periodOpen && (m_endsPeriod || isLong || m_ofPeriod.rows >= kRowsOfPeriod ||
                            m_ofPeriod.pages() >= m_budget.pagesOfPeriod());
}

void HistoryFile::endPeriod()
{
    m_endsPeriod = true;
    m_isGoingOn = false;
}

void HistoryFile::closePeriod()
{
    m_database->run(QStringLiteral(
        "BEGIN IMMEDIATE; INSERT INTO stored_values (variable, time, sequence, condition, value) "
        "SELECT variable, time, sequence, condition, value FROM recent_values "
        "ORDER BY variable, time, sequence"));
    Statement rows(*m_database, "SELECT variable, time, sequence, condition, value FROM "
                                "recent_values ORDER BY variable, time, sequence");
    RollupMaker(*m_database).add(rows);
    m_database->run(QStringLiteral("DELETE FROM recent_values; COMMIT"));
    m_periodOpen = false;
    m_endsPeriod = false;
}

void HistoryFile::storeState()
{
    const qint64 now = recorded();
    if (m_isGoingOn)
        m_period.until = std::max({m_period.until, m_period.latest, m_wallAtStart + now});
    if (m_added) {
        m_period.recorded = now;
        m_statements->storePeriod.bind(1, m_period.id)
            .bind(2, m_period.first)
            .bind(3, m_period.last)
            .bind(4, m_period.earliest)
            .bind(5, m_period.latest)
            .bind(6, m_period.recorded)
            .bind(7, m_period.until)
            .bind(8, qint64(m_period.continues ? 1 : 0))
            .run();
    }
    if (now - m_recordedStored < kStoreRecordedMs)
        return;
    if (m_isGoingOn)
        m_statements->storeUntil.bind(1, m_period.until).bind(2, m_period.id).run();
    m_statements->storeRecorded.bind(1, now).run();
    m_recordedStored = now;
}

void HistoryFile::takeSequence(qint64 time, qint64 bytes)
{
    ++m_sequence;
    if (!m_periodOpen) {
        m_period = {m_period.id + 1, m_sequence, m_sequence, time, time,
                    recorded(),      time,       m_isGoingOn};
        m_endsPeriod = false;
        m_variables.clear();
        m_conditions.clear();
        m_ofPeriod = Amount();
        m_periodBegan = recorded();
        m_periodOpen = true;
    }
    m_period.last = m_sequence;
    m_period.earliest = std::min(m_period.earliest, time);
    m_period.latest = std::max(m_period.latest, time);
    m_ofPeriod.add(bytes);
    m_ofTransaction.add(bytes);
    m_wallAtStart = time - recorded();
    m_isGoingOn = true;
    m_added = true;
}

void HistoryFile::countName()
{
    ++m_ofPeriod.names;
    ++m_ofTransaction.names;
}

qint64 HistoryFile::variableId(const std::shared_ptr<const HistoryVariable>& variable)
{
    const auto found = m_variables.find(variable.get());
    if (found != m_variables.end())
        return found->second.second;
    const auto bound = [&variable](Statement& statement) -> Statement& {
        return statement.bind(1, variable->line)
            .bind(2, variable->name)
            .bind(3, qint64(variable->station))
            .bind(4, variable->tag)
            .bind(5, qint64(variable->element))
            .bind(6, qint64(variable->length))
            .bind(7, variable->type)
            .bind(8, variable->unit);
    };
    bound(m_statements->useVariable).bind(9, m_period.id).run();
    Statement& find = bound(m_statements->findVariable);
    const qint64 id = find.step() ? find.number(0) : 0;
    find.reset();
    m_variables[variable.get()] = {variable, id};
    countName();
    return id;
}

qint64 HistoryFile::conditionId(const HistoryValue& value)
{
    const Condition condition(value.quality, value.state, value.error);
    const auto found = m_conditions.find(condition);
    if (found != m_conditions.end())
        return found->second;
    const auto bound = [&value](Statement& statement) -> Statement& {
        return statement.bind(1, value.quality).bind(2, value.state).bind(3, value.error);
    };
    bound(m_statements->useCondition).bind(4, m_period.id).run();
    Statement& find = bound(m_statements->findCondition);
    const qint64 id = find.step() ? find.number(0) : 0;
    find.reset();
    m_conditions[condition] = id;
    countName();
    return id;
}

void HistoryFile::add(const HistoryValue& value)
{
    takeSequence(value.time, sizeOf(value));
    Statement& insert = m_statements->addValue;
    insert.bind(1, m_sequence)
        .bind(2, variableId(value.variable))
        .bind(3, value.time)
        .bind(4, conditionId(value));
    bindValue(insert, 5, value.value);
    insert.run();
}

void HistoryFile::add(const HistoryWrite& write)
{
    takeSequence(write.time, sizeOf(write));
    const auto json = [](const Json& value) {
        return QString::fromStdString(value.dump(-1, ' ', false, Json::error_handler_t::replace));
    };
    m_statements->addWrite.bind(1, m_sequence)
        .bind(2, write.time)
        .bind(3, qint64(write.uid))
        .bind(4, qint64(write.pid))
        .bind(5, write.client)
        .bind(6, write.line)
        .bind(7, write.name)
        .bind(8, qint64(write.element))
        .bind(9, json(write.oldValue))
        .bind(10, json(write.newValue))
        .bind(11, write.outcome)
        .bind(12, write.error)
        .bind(13, recorded())
        .run();
    ++m_writes;
}

void HistoryFile::add(const HistoryEvent& event)
{
    takeSequence(event.time, sizeOf(event));
    Statement& insert = m_statements->addEvent;
    insert.bind(1, m_sequence).bind(2, event.time).bind(3, event.line);
    if (event.station < 0)
        insert.bindNull(4);
    else
        insert.bind(4, qint64(event.station));
    insert.bind(5, event.state).bind(6, event.text).run();
}

QString HistoryFile::setAside(const QString& path, qint64 time)
{
    const QString stamp =
        QDateTime::fromMSecsSinceEpoch(time, Qt::UTC).toString(QStringLiteral("yyyyMMddTHHmmss"));
    const QString name = path + QStringLiteral(".damaged-") + stamp + QLatin1Char('Z');
    QString free = name;
    for (int i = 2; QFileInfo::exists(free); ++i)
        free = name + QLatin1Char('-') + QString::number(i);
    // The log goes with its file: it may have what is whole.
    for (const char* part : {"-wal", "-shm", ""}) {
        const QByteArray from = QFile::encodeName(path) + part;
        const QByteArray to = QFile::encodeName(free) + part;
        if (::rename(from.constData(), to.constData()) != 0 && errno != ENOENT)
            failToWrite(from.toStdString(), errno);
    }
    return free;
}

} // namespace micro850::host
