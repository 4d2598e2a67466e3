#include "DeliveryFile.h"

#include "OutputFile.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QUuid>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace micro850::gateway {

using host::Database;
using host::HistoryBudget;
using host::Statement;

namespace {

const qint64 kApplication = 0x4d383551;
const qint64 kVersion = 1;
// A step of retention removes at most so much, and gives so many pages back.
const int kMessagesOfStep = 1024;
const qint64 kBytesOfStep = qint64(256) * 1024;
const int kPagesOfStep = 64;
// On a small disk the queue leaves this part to others, and takes so much even of the smallest.
const qint64 kPartForOthers = 8;
const qint64 kLeastBytes = qint64(768) * 1024;

// `recorded` is how long the queue was in use, in milliseconds, by the monotonic clock: the clock
// on the wall may be set. `waiting` is the number of messages: to count them takes long, and a disk
// that refuses is tried again and again. `latest` is the last message of a variable, also after
// that was deleted.
const char kTables[] = R"(
CREATE TABLE state (
  id INTEGER PRIMARY KEY CHECK (id = 1), identity TEXT NOT NULL, series INTEGER NOT NULL,
  last INTEGER NOT NULL, waiting INTEGER NOT NULL, lost INTEGER NOT NULL,
  recorded INTEGER NOT NULL, run TEXT NOT NULL, number INTEGER NOT NULL);
CREATE TABLE sources (
  id INTEGER PRIMARY KEY, line TEXT NOT NULL, station INTEGER NOT NULL, name TEXT NOT NULL,
  latest INTEGER NOT NULL, UNIQUE (line, station, name));
CREATE TABLE messages (
  id INTEGER PRIMARY KEY, series INTEGER NOT NULL, sequence INTEGER NOT NULL,
  source INTEGER NOT NULL, time INTEGER NOT NULL, recorded INTEGER NOT NULL, body BLOB NOT NULL);
CREATE TABLE sequences (line TEXT PRIMARY KEY, last INTEGER NOT NULL) WITHOUT ROWID;
CREATE TABLE kept (key TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID;
)";

const char kSelectMessages[] =
    "SELECT messages.id, series, sequence, line, station, name, time, body FROM messages "
    "JOIN sources ON sources.id = messages.source WHERE messages.id > ? ORDER BY messages.id "
    "LIMIT ?";

qint64 numberOf(Statement& statement)
{
    const qint64 number = statement.step() ? statement.number(0) : 0;
    statement.reset();
    return number;
}

QueuedMessage messageOf(const Statement& row)
{
    QueuedMessage message;
    message.id = row.number(0);
    message.series = row.number(1);
    message.sequence = row.number(2);
    message.line = row.text(3);
    message.station = static_cast<int>(row.number(4));
    message.name = row.text(5);
    message.time = row.number(6);
    message.body = row.bytes(7);
    return message;
}

void createTables(Database& database, qint64 series)
{
    database.run(QStringLiteral("BEGIN IMMEDIATE"));
    database.run(QString::fromLatin1(kTables));
    database.run(QStringLiteral("PRAGMA application_id = %1").arg(kApplication));
    database.run(QStringLiteral("PRAGMA user_version = %1").arg(kVersion));
    Statement(database, "INSERT INTO state VALUES (1, ?, ?, 0, 0, 0, 0, '', 0)")
        .bind(1, QUuid::createUuid().toString(QUuid::WithoutBraces))
        .bind(2, series)
        .run();
    database.run(QStringLiteral("COMMIT"));
}

void requireQueue(Database& database)
{
    const std::string name = database.path().toStdString();
    if (database.number("PRAGMA application_id") != kApplication)
        throw UserError(name + ": is a database of another program, and no queue of messages "
                               "(name another file)");
    const qint64 version = database.number("PRAGMA user_version");
    if (version > kVersion)
        throw UserError(name + ": was written by a later version of micro850-gateway (format " +
                        std::to_string(version) + ", this one knows " + std::to_string(kVersion) +
                        "; use the later version)");
}

} // namespace

struct DeliveryStatements
{
    explicit DeliveryStatements(Database& database)
        : begin(database, "BEGIN IMMEDIATE"), commit(database, "COMMIT"),
          remove(database, "DELETE FROM messages WHERE id = ?"),
          removeUpTo(database, "DELETE FROM messages WHERE id <= ?"),
          add(database, "INSERT INTO messages VALUES (?, ?, ?, ?, ?, ?, ?)"),
          addSource(database, "INSERT INTO sources (line, station, name, latest) VALUES (?, ?, ?, "
                              "0) ON CONFLICT (line, station, name) DO NOTHING"),
          findSource(database,
                     "SELECT id FROM sources WHERE line = ? AND station = ? AND name = ?"),
          storeLatest(database, "UPDATE sources SET latest = ? WHERE id = ?"),
          storeState(database, "UPDATE state SET series = ?, last = ?, lost = ?, recorded = ?, "
                               "run = ?, number = ?, waiting = waiting + ?"),
          storeSequence(database, "INSERT OR REPLACE INTO sequences VALUES (?, ?)"),
          keep(database, "INSERT OR REPLACE INTO kept VALUES (?, ?)"),
          addLost(database, "UPDATE state SET lost = lost + ?1, waiting = waiting - ?1"),
          after(database, kSelectMessages),
          oldestMessages(database, "SELECT id, recorded, length(body) FROM messages ORDER BY id "
                                   "LIMIT ?"),
          oldest(database, "SELECT time FROM messages ORDER BY id LIMIT 1"),
          pages(database, "PRAGMA page_count"), freePages(database, "PRAGMA freelist_count")
    {
    }

    Statement begin;
    Statement commit;
    Statement remove;
    Statement removeUpTo;
    Statement add;
    Statement addSource;
    Statement findSource;
    Statement storeLatest;
    Statement storeState;
    Statement storeSequence;
    Statement keep;
    Statement addLost;
    Statement after;
    Statement oldestMessages;
    Statement oldest;
    Statement pages;
    Statement freePages;
};

DeliveryFile::DeliveryFile(const QString& path, qint64 bytes, qint64 series, const char* fileSystem)
    : m_path(path), m_wantedBytes(bytes), m_budget(affordable())
{
    if (!fileSystem)
        create();
    m_database = std::make_unique<Database>(path, Database::Access::Write, fileSystem);
    prepare(series);
}

DeliveryFile::~DeliveryFile() = default;

// The group reads it, and nobody else; the database gives its log the same rights. An error shows
// when the database is opened.
void DeliveryFile::create() const
{
    const int made = ::open(QFile::encodeName(m_path).constData(),
                            O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (made >= 0)
        ::close(made);
}

void DeliveryFile::prepare(qint64 series)
{
    const bool fresh = m_database->number("SELECT count(*) FROM sqlite_master") == 0;
    if (!fresh)
        requireQueue(*m_database);
    else
        m_database->run(QStringLiteral("PRAGMA auto_vacuum = INCREMENTAL"));
    if (m_database->text("PRAGMA journal_mode = WAL") != QLatin1String("wal"))
        throw UserError(m_path.toStdString() + ": this file system cannot share memory, which the "
                                               "write-ahead log needs (use a local disk)",
                        kExitRefused);
    // A message is sent only when its number is on the disk, also after a power cut.
    m_database->run(QStringLiteral("PRAGMA synchronous = FULL"));
    if (fresh)
        createTables(*m_database, series);
    setLimits();
    m_statements = std::make_unique<DeliveryStatements>(*m_database);
    struct stat status = {};
    if (::stat(QFile::encodeName(m_path).constData(), &status) != 0)
        failToWrite(m_path.toStdString(), errno);
    m_device = status.st_dev;
    m_inode = status.st_ino;
}

void DeliveryFile::setLimits()
{
    const qint64 checkpoint = std::min<qint64>(1000, m_budget.log() / 4 / HistoryBudget::kPageSize);
    m_database->run(QStringLiteral("PRAGMA wal_autocheckpoint = %1; PRAGMA journal_size_limit = "
                                   "%2; PRAGMA max_page_count = %3")
                        .arg(checkpoint)
                        .arg(m_budget.log())
                        .arg(m_budget.mostPages()));
}

DeliveryState DeliveryFile::state()
{
    DeliveryState state;
    Statement row(*m_database, "SELECT identity, series, last, lost, recorded, run, number, "
                               "waiting FROM state");
    if (!row.step())
        m_database->fail(SQLITE_CORRUPT);
    state.identity = row.text(0);
    state.series = row.number(1);
    state.lastId = row.number(2);
    state.lost = row.number(3);
    state.recorded = row.number(4);
    state.fed = {row.text(5), row.number(6)};
    state.waiting = row.number(7);
    row.reset();
    Statement sequences(*m_database, "SELECT line, last FROM sequences");
    while (sequences.step())
        state.sequence[sequences.text(0)] = sequences.number(1);
    Statement kept(*m_database, "SELECT key, value FROM kept");
    while (kept.step())
        state.kept[kept.text(0)] = kept.text(1);
    return state;
}

// Sources that are gone would stay for ever. Without messages nothing refers to one.
void DeliveryFile::removeSources()
{
    m_sources.clear();
    try {
        m_database->run(QStringLiteral("DELETE FROM sources"));
    } catch (const UserError&) {
        m_database->rollBack();
    }
}

void DeliveryFile::rollBack()
{
    m_sources.clear();
    m_database->rollBack();
}

// A disk that is full has no room for the messages of this queue, whatever the settings say: it
// then removes the oldest, and never needs more to do so than it has.
qint64 DeliveryFile::affordable() const
{
    struct statvfs status = {};
    const QByteArray folder = QFile::encodeName(QFileInfo(m_path).absolutePath());
    if (::statvfs(folder.constData(), &status) != 0)
        return m_wantedBytes;
    const qint64 room =
        static_cast<qint64>(status.f_bavail) * static_cast<qint64>(status.f_frsize) + bytes();
    return std::min(m_wantedBytes, std::max(kLeastBytes, room - room / kPartForOthers));
}

void DeliveryFile::requireInPlace() const
{
    struct stat status = {};
    if (::stat(QFile::encodeName(m_path).constData(), &status) != 0 || status.st_dev != m_device ||
        status.st_ino != m_inode)
        throw UserError(m_path.toStdString() + ": was removed or replaced", kExitRefused);
}

// The log is emptied by the commits themselves unless another program reads for long: then it would
// grow without a limit.
void DeliveryFile::requireRoomInLog()
{
    if (QFileInfo(m_path + QStringLiteral("-wal")).size() > m_budget.log() / 2)
        emptyLog();
}

void DeliveryFile::emptyLog()
{
    Statement checkpoint(*m_database, "PRAGMA wal_checkpoint(TRUNCATE)");
    const bool busy = checkpoint.step() && checkpoint.number(0) != 0;
    checkpoint.reset();
    if (busy)
        throw UserError(m_path.toStdString() + ": another program has been reading it for so long "
                                               "that its log is full (end that program)",
                        kExitRefused);
}

void DeliveryFile::removeAfter(qint64 id)
{
    m_statements->begin.run();
    Statement(*m_database, "DELETE FROM messages WHERE id > ?").bind(1, id).run();
    const qint64 count = m_database->changes();
    Statement(*m_database, "UPDATE state SET waiting = waiting - ?").bind(1, count).run();
    m_statements->commit.run();
}

qint64 DeliveryFile::sourceOf(const QueuedMessage& message)
{
    const QString key =
        message.line + QChar(0) + QString::number(message.station) + QChar(0) + message.name;
    const auto found = m_sources.constFind(key);
    if (found != m_sources.constEnd())
        return *found;
    const auto bound = [&message](Statement& statement) -> Statement& {
        return statement.bind(1, message.line)
            .bind(2, qint64(message.station))
            .bind(3, message.name);
    };
    bound(m_statements->addSource).run();
    const qint64 id = numberOf(bound(m_statements->findSource));
    m_sources[key] = id;
    return id;
}

qint64 DeliveryFile::write(const DeliveryChanges& changes)
{
    requireInPlace();
    requireRoomInLog();
    m_statements->begin.run();
    qint64 found = 0;
    for (const qint64 id : changes.removed) {
        m_statements->remove.bind(1, id).run();
        found += m_database->changes();
    }
    QHash<qint64, qint64> latest;
    for (const StoredMessage& each : changes.added) {
        const QueuedMessage& message = each.message;
        const qint64 source = sourceOf(message);
        m_statements->add.bind(1, message.id)
            .bind(2, message.series)
            .bind(3, message.sequence)
            .bind(4, source)
            .bind(5, message.time)
            .bind(6, each.recorded)
            .bindBytes(7, message.body)
            .run();
        latest[source] = message.id;
    }
    for (auto each = latest.constBegin(); each != latest.constEnd(); ++each)
        m_statements->storeLatest.bind(1, each.value()).bind(2, each.key()).run();
    if (changes.isNewSeries)
        m_database->run(QStringLiteral("DELETE FROM sequences"));
    for (auto each = changes.sequence.constBegin(); each != changes.sequence.constEnd(); ++each)
        m_statements->storeSequence.bind(1, each.key()).bind(2, each.value()).run();
    for (auto each = changes.kept.constBegin(); each != changes.kept.constEnd(); ++each)
        m_statements->keep.bind(1, each.key()).bind(2, each.value()).run();
    m_statements->storeState.bind(1, changes.series)
        .bind(2, changes.lastId)
        .bind(3, changes.lost)
        .bind(4, changes.recorded)
        .bind(5, changes.fed.run)
        .bind(6, changes.fed.number)
        .bind(7, changes.added.size() - found)
        .run();
    m_statements->commit.run();
    return found;
}

QVector<QueuedMessage> DeliveryFile::after(qint64 id, int most)
{
    QVector<QueuedMessage> messages;
    Statement& rows = m_statements->after.bind(1, id).bind(2, qint64(most));
    while (rows.step())
        messages.append(messageOf(rows));
    return messages;
}

QVector<QueuedMessage> DeliveryFile::latest()
{
    QVector<QueuedMessage> messages;
    Statement rows(*m_database,
                   "SELECT messages.id, series, sequence, line, station, name, time, body "
                   "FROM sources JOIN messages ON messages.id = sources.latest "
                   "WHERE name <> '' ORDER BY messages.id");
    while (rows.step())
        messages.append(messageOf(rows));
    return messages;
}

// The disk may have more room than when the file was opened.
bool DeliveryFile::hasTooMuch()
{
    const qint64 used = numberOf(m_statements->pages) - numberOf(m_statements->freePages);
    if (used <= m_budget.fullPages())
        return false;
    const HistoryBudget now(affordable());
    if (now.mostPages() > m_budget.mostPages() + m_budget.mostPages() / 8) {
        m_budget = now;
        setLimits();
    }
    return used > m_budget.fullPages();
}

DeliveryFile::Removed DeliveryFile::retain(qint64 recorded)
{
    const bool full = hasTooMuch();
    qint64 last = -1;
    qint64 count = 0;
    qint64 bytes = 0;
    Statement& rows = m_statements->oldestMessages.bind(1, qint64(kMessagesOfStep));
    const qint64 most = std::min(kBytesOfStep, m_budget.log() / 2);
    while (bytes < most && rows.step()) {
        if (!full && rows.number(1) >= recorded)
            break;
        last = rows.number(0);
        bytes += rows.number(2);
        ++count;
    }
    rows.reset();
    givePagesBack();
    if (count == 0)
        return {};
    requireRoomInLog();
    m_statements->begin.run();
    m_statements->removeUpTo.bind(1, last).run();
    m_statements->addLost.bind(1, count).run();
    m_statements->commit.run();
    return {count, true};
}

// Free pages are used again. They are given back only where the limit has become smaller.
void DeliveryFile::givePagesBack()
{
    if (numberOf(m_statements->pages) <= m_budget.mostPages() ||
        numberOf(m_statements->freePages) == 0)
        return;
    m_database->run(QStringLiteral("PRAGMA incremental_vacuum(%1)").arg(kPagesOfStep));
    if (numberOf(m_statements->pages) <= m_budget.mostPages())
        m_database->run(QStringLiteral("PRAGMA max_page_count = %1").arg(m_budget.mostPages()));
}

qint64 DeliveryFile::bytes() const
{
    qint64 bytes = 0;
    for (const char* part : {"", "-wal", "-shm"})
        bytes += QFileInfo(m_path + QLatin1String(part)).size();
    return bytes;
}

qint64 DeliveryFile::oldest()
{
    return numberOf(m_statements->oldest);
}

} // namespace micro850::gateway
