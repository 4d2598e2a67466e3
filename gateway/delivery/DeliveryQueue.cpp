#include "DeliveryQueue.h"

#include "DeliveryFile.h"
#include "FileLock.h"
#include "HistoryFile.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QSet>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <utility>

namespace micro850::gateway {

namespace {

// A commit blocks the event loop: it takes at most so much at once.
const qint64 kMostBytesOfCommit = qint64(1024) * 1024;
const int kMostMessagesOfCommit = 4096;
// What is kept while the disk refuses.
const std::size_t kMostInMemory = 65536;
const qint64 kMostBytesInMemory = qint64(16) * 1024 * 1024;
// A message costs about so much beside its texts.
const qint64 kBytesOfMessage = 128;

const std::chrono::seconds kRetryInterval(2);
// A disk that damages everything does not get a new file every second.
const std::chrono::minutes kSetAsideInterval(1);
// Without messages to store the time of use is stored, and what is too old is removed, so often.
const std::chrono::minutes kIdleInterval(1);
// So much to remove does not hold up the rest for long.
const int kRetentionSteps = 8;

// Ids begin here when the file cannot be opened at the start: the messages that it has, which get
// the ids before, may be read later.
const qint64 kFirstIdInMemory = qint64(1) << 40;

qint64 bytesOf(const QueuedMessage& message)
{
    return kBytesOfMessage + message.body.size() +
           qint64(2) * (message.line.size() + message.name.size());
}

// A panel without a clock of its own begins with the same time again and again, and with a clock
// that was set back the time is no help: a process that was killed may have sent a series that no
// file knows. Chance keeps them apart. The number is one that a receiver can hold in a double.
qint64 seriesAfter(qint64 last, qint64 now)
{
    static std::mt19937 random{std::random_device()()};
    const qint64 next = last + 1 + static_cast<qint64>(random() % 1000000);
    return std::max(next, now * 1000 + static_cast<qint64>(random() % 1000));
}

} // namespace

class DeliveryQueue::Private
{
public:
    Private(const DeliveryQueueSettings& settings, const Clock& clock, const WallClock& wallClock,
            const char* fileSystem);

    void add(QueuedMessage message);
    void remove(qint64 id);
    bool isFull() const;
    QVector<QueuedMessage> commit();
    void retry() { m_retryAt = m_clock.now(); }
    bool hasChanges() const;
    QVector<QueuedMessage> after(qint64 id, int most);
    QVector<QueuedMessage> latest();
    void keep(const QString& key, const QString& value);
    qint64 size() const;
    host::Json status();

    const DeliveryQueueSettings m_settings;
    Fed m_fed;           ///< committed
    Fed m_lastFed;       ///< to be committed
    qint64 m_lastId = 0; ///< committed
    qint64 m_lost = 0;
    int m_generation = 0;
    /// Null: it cannot be used at all. In memory there may be a file that is only full: what is in
    /// it is sent, and remembered as removed.
    std::unique_ptr<DeliveryFile> m_file;
    std::set<qint64> m_removed; ///< from the file, not committed
    QMap<QString, QString> m_kept;

    bool isOnDisk() const { return m_file && !m_inMemory; }

private:
    qint64 recorded() const;
    qint64 expired() const;
    void open();
    void adopt(const DeliveryState& state);
    void goOnWith(const DeliveryState& state);
    void tryToOpen();
    void store(const QVector<QueuedMessage>& messages);
    void storeMemory();
    void write(const QVector<StoredMessage>& added, const Fed& fed);
    void retain();
    void hold(const QVector<QueuedMessage>& messages);
    void dropOldestInMemory();
    void giveNumbers(QVector<QueuedMessage>& messages);
    void beginSeries();
    void handleFailure(const UserError& error);
    bool giveUpFile(const UserError& error);
    bool keepFull(const UserError& error);
    bool setAside();
    void forgetFile();
    void tryToGoOn();
    void beginAnew();
    qint64 mostOfTransaction() const;
    QVector<QueuedMessage> inMemoryAfter(qint64 id, int most) const;

    const Clock& m_clock;
    const WallClock& m_wallClock;
    const char* const m_fileSystem;
    const host::HistoryBudget m_budget;
    const Duration m_start;
    std::unique_ptr<host::FileLock> m_lock;

    QVector<QueuedMessage> m_pending;
    qint64 m_pendingBytes = 0;

    qint64 m_series = 0;
    QHash<QString, qint64> m_sequence; ///< the last one of each line, in this series
    QSet<QString> m_changedLines;      ///< whose sequence the file does not have

    // What is known of the file, also while it is not open.
    QString m_identity; ///< empty: it was never open
    qint64 m_seriesOfFile = 0;
    qint64 m_lastOnDisk = 0; ///< id
    qint64 m_shift = 0;      ///< the id in the file is this much greater
    qint64 m_waitingOnDisk = 0;
    qint64 m_lostOnDisk = 0;
    qint64 m_recordedBefore = 0; ///< m_start
    QMap<QString, QString> m_keptToStore;
    /// Whether what was removed was there tells nothing: the last commit may have been done.
    bool m_isUncertain = false;

    bool m_inMemory = false; ///< not all of m_memory is in the file, and nothing is written to it
    std::map<qint64, StoredMessage> m_memory;
    qint64 m_memoryBytes = 0;
    QString m_reason;
    Duration m_retryAt{0};
    Duration m_storedAt{0};
    std::optional<Duration> m_setAsideAt;
    QString m_setAsideAs; ///< the damaged file's name now
};

DeliveryQueue::Private::Private(const DeliveryQueueSettings& settings, const Clock& clock,
                                const WallClock& wallClock, const char* fileSystem)
    : m_settings(settings), m_clock(clock), m_wallClock(wallClock), m_fileSystem(fileSystem),
      m_budget(qint64(settings.keepMegabytes) * 1024 * 1024), m_start(clock.now())
{
    beginSeries();
    try {
        m_lock = host::FileLock::take(settings.file);
        if (!m_lock)
            throw UserError(settings.file.toStdString() +
                            ": another program uses this queue (name another file)");
        open();
    } catch (const UserError& error) {
        // A person named the wrong file. What is damaged, or refused by the disk, is another thing.
        if (error.status() == kExitUsage && !dynamic_cast<const host::DatabaseError*>(&error))
            throw;
        handleFailure(error);
    }
    if (!m_file)
        m_lastId = std::max(m_lastId, kFirstIdInMemory);
}

// ---- Numbers ------------------------------------------------------------------------------------

qint64 DeliveryQueue::Private::recorded() const
{
    return m_recordedBefore + wholeMilliseconds(m_clock.now() - m_start);
}

qint64 DeliveryQueue::Private::expired() const
{
    return recorded() - qint64(m_settings.keepHours) * 3600 * 1000;
}

void DeliveryQueue::Private::beginSeries()
{
    m_series = seriesAfter(m_series, m_wallClock.now());
    m_sequence.clear();
    m_changedLines.clear();
}

void DeliveryQueue::Private::giveNumbers(QVector<QueuedMessage>& messages)
{
    for (QueuedMessage& message : messages) {
        message.series = m_series;
        message.sequence = ++m_sequence[message.line];
        m_changedLines.insert(message.line);
    }
}

// ---- The file -----------------------------------------------------------------------------------

// Throws UserError.
void DeliveryQueue::Private::open()
{
    const qint64 bytes = qint64(m_settings.keepMegabytes) * 1024 * 1024;
    auto file = std::make_unique<DeliveryFile>(m_settings.file, bytes, m_series, m_fileSystem);
    const DeliveryState state = file->state();
    if (state.waiting == 0)
        file->removeSources();
    if (m_identity.isEmpty()) {
        m_file = std::move(file);
        adopt(state);
    } else if (state.identity == m_identity) {
        file->removeAfter(m_lastOnDisk + m_shift);
        m_file = std::move(file);
        goOnWith(m_file->state());
    } else if (state.waiting == 0) {
        m_file = std::move(file);
        forgetFile();
        goOnWith(state);
        m_seriesOfFile = 0;
    } else {
        throw UserError(m_settings.file.toStdString() +
                            ": was replaced by another queue (start the service again to use it)",
                        kExitRefused);
    }
    ++m_generation;
    m_reason.clear();
    m_storedAt = m_clock.now();
}

// The file of an earlier process.
void DeliveryQueue::Private::adopt(const DeliveryState& state)
{
    const bool atStart = m_lastId == 0;
    if (atStart) {
        m_lastId = state.lastId;
        m_series = state.series;
        m_sequence = state.sequence;
    }
    if (m_fed.run.isEmpty())
        m_fed = state.fed;
    if (m_lastFed.run.isEmpty())
        m_lastFed = state.fed;
    m_lastOnDisk = atStart ? state.lastId : kFirstIdInMemory;
    m_shift = state.lastId - m_lastOnDisk;
    m_recordedBefore = state.recorded;
    for (auto& [id, stored] : m_memory)
        stored.recorded += state.recorded;
    for (auto each = state.kept.constBegin(); each != state.kept.constEnd(); ++each) {
        if (!m_kept.contains(each.key()))
            m_kept[each.key()] = each.value();
    }
    goOnWith(state);
}

void DeliveryQueue::Private::goOnWith(const DeliveryState& state)
{
    // Of a removal that was done though it seemed to fail.
    m_lost += std::max<qint64>(0, state.lost - m_lostOnDisk);
    m_lostOnDisk = state.lost;
    m_identity = state.identity;
    m_seriesOfFile = state.series;
    m_waitingOnDisk = state.waiting;
}

// Another file stands in its place.
void DeliveryQueue::Private::forgetFile()
{
    m_lost += m_waitingOnDisk - static_cast<qint64>(m_removed.size());
    m_lostOnDisk = 0;
    m_removed.clear();
    m_shift = 0;
    m_isUncertain = false;
    m_keptToStore = m_kept;
}

void DeliveryQueue::Private::tryToOpen()
{
    m_retryAt = m_clock.now() + kRetryInterval;
    for (bool isToBeTried = true; isToBeTried;) {
        try {
            if (!m_lock)
                m_lock = host::FileLock::take(m_settings.file);
            if (!m_lock)
                throw UserError(m_settings.file.toStdString() + ": another program uses this queue",
                                kExitRefused);
            open();
            storeMemory();
            m_inMemory = false;
            isToBeTried = false;
        } catch (const UserError& error) {
            // What is in the file by now comes before what is not.
            isToBeTried = !keepFull(error) && giveUpFile(error);
        }
    }
}

// The disk was full, and all that the file has is at hand.
void DeliveryQueue::Private::tryToGoOn()
{
    m_retryAt = m_clock.now() + kRetryInterval;
    try {
        m_file->emptyLog();
        write({}, m_fed); // what is removed makes room
        storeMemory();
        m_inMemory = false;
        m_reason.clear();
        ++m_generation;
    } catch (const UserError& error) {
        handleFailure(error);
        if (m_file && m_inMemory && m_waitingOnDisk <= static_cast<qint64>(m_removed.size()))
            beginAnew();
    }
}

// A full file without any message takes room that a new one can use: to write into the old one may
// need more than there is.
void DeliveryQueue::Private::beginAnew()
{
    m_file.reset();
    for (const char* part : {"-wal", "-shm", ""})
        QFile::remove(m_settings.file + QLatin1String(part));
    tryToOpen();
}

qint64 DeliveryQueue::Private::mostOfTransaction() const
{
    return m_file ? m_file->bytesOfTransaction() : m_budget.bytesOfTransaction();
}

// Throws UserError.
void DeliveryQueue::Private::storeMemory()
{
    while (!m_memory.empty()) {
        QVector<StoredMessage> part;
        qint64 bytes = 0;
        for (const auto& [id, stored] : m_memory) {
            bytes += bytesOf(stored.message);
            if (!part.isEmpty() && bytes > mostOfTransaction())
                break;
            part.append(stored);
        }
        retain();
        write(part, m_fed); // what is pending comes with another transaction
        for (const StoredMessage& each : part) {
            m_memoryBytes -= bytesOf(each.message);
            m_memory.erase(each.message.id);
        }
    }
}

// Throws UserError.
void DeliveryQueue::Private::store(const QVector<QueuedMessage>& messages)
{
    retain();
    QVector<StoredMessage> added;
    for (const QueuedMessage& message : messages)
        added.append({message, recorded()});
    write(added, m_lastFed);
}

// Throws UserError.
void DeliveryQueue::Private::write(const QVector<StoredMessage>& added, const Fed& fed)
{
    DeliveryChanges changes;
    changes.added = added;
    for (StoredMessage& each : changes.added)
        each.message.id += m_shift;
    for (const qint64 id : m_removed)
        changes.removed.append(id + m_shift);
    changes.series = m_series;
    changes.isNewSeries = m_seriesOfFile != m_series;
    if (changes.isNewSeries)
        changes.sequence = m_sequence;
    else
        for (const QString& line : m_changedLines)
            changes.sequence[line] = m_sequence[line];
    const qint64 last = added.isEmpty() ? m_lastOnDisk : added.last().message.id;
    changes.lastId = last + m_shift;
    changes.lost = m_lost;
    changes.recorded = recorded();
    changes.fed = fed;
    changes.kept = m_keptToStore;
    m_lostOnDisk = m_lost;
    const qint64 found = m_file->write(changes);

    // Those that were not there had been counted as lost, but the broker has them.
    if (!m_isUncertain)
        m_lost -= static_cast<qint64>(m_removed.size()) - found;
    m_isUncertain = false;
    m_waitingOnDisk += added.size() - found;
    m_lastOnDisk = last;
    m_seriesOfFile = m_series;
    m_removed.clear();
    m_changedLines.clear();
    m_keptToStore.clear();
    m_storedAt = m_clock.now();
}

// Throws UserError.
void DeliveryQueue::Private::retain()
{
    for (int i = 0; i < kRetentionSteps; ++i) {
        const DeliveryFile::Removed removed = m_file->retain(expired());
        m_lost += removed.count;
        m_lostOnDisk += removed.count;
        m_waitingOnDisk -= removed.count;
        if (!removed.more)
            return;
    }
}

// ---- What goes wrong ----------------------------------------------------------------------------

void DeliveryQueue::Private::handleFailure(const UserError& error)
{
    if (keepFull(error))
        return;
    if (giveUpFile(error))
        tryToOpen();
}

// The file has what it had before: it can still be read.
bool DeliveryQueue::Private::keepFull(const UserError& error)
{
    const auto* refused = dynamic_cast<const host::DatabaseError*>(&error);
    if (!m_file || !refused || !refused->isFull())
        return false;
    try {
        m_file->rollBack();
        const DeliveryState state = m_file->state();
        if (state.lastId != m_lastOnDisk + m_shift)
            return false;
        goOnWith(state);
    } catch (const UserError&) {
        return false;
    }
    if (!std::exchange(m_inMemory, true)) {
        ++m_generation;
        beginSeries();
    }
    m_retryAt = m_clock.now() + kRetryInterval;
    m_reason = QString::fromUtf8(error.what());
    return true;
}

// What was to be stored may be in the file or not. It is sent with other numbers, from memory. True
// when another file can be begun.
bool DeliveryQueue::Private::giveUpFile(const UserError& error)
{
    m_file.reset();
    m_isUncertain = true;
    ++m_generation;
    // What waits in memory has its numbers, whether another attempt fails or not.
    if (!std::exchange(m_inMemory, true))
        beginSeries();
    m_retryAt = m_clock.now() + kRetryInterval;
    m_reason = QString::fromUtf8(error.what());
    const auto* refused = dynamic_cast<const host::DatabaseError*>(&error);
    return refused && refused->isDamage() && setAside();
}

bool DeliveryQueue::Private::setAside()
{
    if (m_setAsideAt && m_clock.now() - *m_setAsideAt < kSetAsideInterval)
        return false;
    m_setAsideAt = m_clock.now();
    try {
        m_setAsideAs = host::HistoryFile::setAside(m_settings.file, m_wallClock.now());
    } catch (const UserError& failure) {
        m_reason = QString::fromUtf8(failure.what());
        return false;
    }
    return true;
}

// ---- Memory -------------------------------------------------------------------------------------

void DeliveryQueue::Private::hold(const QVector<QueuedMessage>& messages)
{
    for (const QueuedMessage& message : messages) {
        m_memory[message.id] = {message, recorded()};
        m_memoryBytes += bytesOf(message);
    }
    while (m_memory.size() > kMostInMemory || m_memoryBytes > kMostBytesInMemory ||
           (!m_memory.empty() && m_memory.begin()->second.recorded < expired()))
        dropOldestInMemory();
}

void DeliveryQueue::Private::dropOldestInMemory()
{
    m_memoryBytes -= bytesOf(m_memory.begin()->second.message);
    m_memory.erase(m_memory.begin());
    ++m_lost;
}

QVector<QueuedMessage> DeliveryQueue::Private::inMemoryAfter(qint64 id, int most) const
{
    QVector<QueuedMessage> messages;
    for (auto each = m_memory.upper_bound(id); each != m_memory.end() && messages.size() < most;
         ++each)
        messages.append(each->second.message);
    return messages;
}

// ---- For the caller -----------------------------------------------------------------------------

void DeliveryQueue::Private::add(QueuedMessage message)
{
    const qint64 bytes = bytesOf(message);
    if (bytes > mostOfTransaction()) {
        ++m_lost;
        return;
    }
    m_pendingBytes += bytes;
    m_pending.append(std::move(message));
}

void DeliveryQueue::Private::remove(qint64 id)
{
    const auto held = m_memory.find(id);
    if (held != m_memory.end()) {
        m_memoryBytes -= bytesOf(held->second.message);
        m_memory.erase(held);
    } else if (id > m_lastOnDisk) {
        --m_lost; // it was dropped, but the broker has it
    } else {
        m_removed.insert(id);
    }
}

bool DeliveryQueue::Private::isFull() const
{
    return m_pending.size() >= kMostMessagesOfCommit ||
           m_pendingBytes >= std::min(kMostBytesOfCommit, mostOfTransaction() / 2);
}

bool DeliveryQueue::Private::hasChanges() const
{
    return !m_pending.isEmpty() || (isOnDisk() && !m_removed.empty()) ||
           m_fed.run != m_lastFed.run || m_fed.number != m_lastFed.number;
}

QVector<QueuedMessage> DeliveryQueue::Private::commit()
{
    if (!isOnDisk() && m_clock.now() >= m_retryAt) {
        if (m_file)
            tryToGoOn();
        else
            tryToOpen();
    }
    const bool isIdle = m_clock.now() - m_storedAt < kIdleInterval || size() == 0;
    if (!hasChanges() && isIdle)
        return {};
    QVector<QueuedMessage> added;
    added.swap(m_pending);
    m_pendingBytes = 0;
    qint64 id = m_lastId;
    for (QueuedMessage& message : added)
        message.id = ++id;
    giveNumbers(added);
    // Twice: a damaged file is replaced at once.
    bool stored = false;
    for (int attempt = 0; attempt < 2 && isOnDisk() && !stored; ++attempt) {
        try {
            store(added);
            stored = true;
        } catch (const UserError& error) {
            handleFailure(error);
            giveNumbers(added);
        }
    }
    if (!stored)
        hold(added);
    m_lastId = id;
    m_fed = m_lastFed;
    return added;
}

QVector<QueuedMessage> DeliveryQueue::Private::after(qint64 id, int most)
{
    QVector<QueuedMessage> messages;
    while (m_file && messages.size() < most) {
        QVector<QueuedMessage> rows;
        const int wanted = most - messages.size();
        try {
            rows = m_file->after(id + m_shift, wanted);
        } catch (const UserError& error) {
            handleFailure(error);
            return inMemoryAfter(id, most);
        }
        for (QueuedMessage& row : rows) {
            row.id -= m_shift;
            id = row.id;
            if (m_removed.count(row.id) == 0)
                messages.append(row);
        }
        if (rows.size() < wanted)
            break;
    }
    return messages + inMemoryAfter(id, most - messages.size());
}

QVector<QueuedMessage> DeliveryQueue::Private::latest()
{
    if (!m_file)
        return {};
    try {
        QVector<QueuedMessage> messages = m_file->latest();
        for (QueuedMessage& message : messages)
            message.id -= m_shift;
        return messages;
    } catch (const UserError& error) {
        handleFailure(error);
        return {};
    }
}

void DeliveryQueue::Private::keep(const QString& key, const QString& value)
{
    if (m_kept.contains(key) && m_kept[key] == value)
        return;
    m_kept[key] = value;
    m_keptToStore[key] = value;
    if (!isOnDisk())
        return;
    try {
        write({}, m_fed); // what is pending comes with its messages
    } catch (const UserError& error) {
        handleFailure(error);
    }
}

qint64 DeliveryQueue::Private::size() const
{
    return std::max<qint64>(0, m_waitingOnDisk - static_cast<qint64>(m_removed.size())) +
           static_cast<qint64>(m_memory.size()) + m_pending.size();
}

host::Json DeliveryQueue::Private::status()
{
    qint64 oldest = m_memory.empty() ? 0 : m_memory.begin()->second.message.time;
    qint64 bytes = 0;
    try {
        if (m_file) {
            if (m_waitingOnDisk > static_cast<qint64>(m_removed.size()))
                oldest = m_file->oldest();
            bytes = m_file->bytes();
        }
    } catch (const UserError& error) {
        handleFailure(error);
    }
    host::Json object = {{"state", isOnDisk() ? "on disk" : "in memory"}};
    if (!isOnDisk())
        object["reason"] = m_reason.toStdString();
    object["waiting"] = size();
    object["lost"] = m_lost;
    object["bytes"] = bytes;
    object["oldest"] = size() > 0 && oldest != 0 ? host::Json(oldest) : host::Json();
    object["series"] = m_series;
    if (!m_setAsideAs.isEmpty())
        object["setAside"] = m_setAsideAs.toStdString();
    return object;
}

// ---- DeliveryQueue ------------------------------------------------------------------------------

DeliveryQueue::DeliveryQueue(const DeliveryQueueSettings& settings, const Clock& clock,
                             const WallClock& wallClock, const char* fileSystem)
    : m_private(new Private(settings, clock, wallClock, fileSystem))
{
}

DeliveryQueue::~DeliveryQueue() = default;

void DeliveryQueue::add(QueuedMessage message, const Fed& fed)
{
    m_private->m_lastFed = fed;
    m_private->add(std::move(message));
}

void DeliveryQueue::skip(const Fed& fed)
{
    m_private->m_lastFed = fed;
}

void DeliveryQueue::remove(qint64 id)
{
    m_private->remove(id);
}

bool DeliveryQueue::isFull() const
{
    return m_private->isFull();
}

QVector<QueuedMessage> DeliveryQueue::commit()
{
    return m_private->commit();
}

void DeliveryQueue::retry()
{
    m_private->retry();
}

bool DeliveryQueue::hasChanges() const
{
    return m_private->hasChanges();
}

DeliveryQueue::Fed DeliveryQueue::fed() const
{
    return m_private->m_fed;
}

QVector<QueuedMessage> DeliveryQueue::after(qint64 id, int most)
{
    return m_private->after(id, most);
}

QVector<QueuedMessage> DeliveryQueue::latest()
{
    return m_private->latest();
}

qint64 DeliveryQueue::lastId() const
{
    return m_private->m_lastId;
}

int DeliveryQueue::generation() const
{
    return m_private->m_generation;
}

int DeliveryQueue::removing() const
{
    return m_private->isOnDisk() ? static_cast<int>(m_private->m_removed.size()) : 0;
}

qint64 DeliveryQueue::size() const
{
    return m_private->size();
}

qint64 DeliveryQueue::lost() const
{
    return m_private->m_lost;
}

void DeliveryQueue::keep(const QString& key, const QString& value)
{
    m_private->keep(key, value);
}

QString DeliveryQueue::kept(const QString& key) const
{
    return m_private->m_kept.value(key);
}

host::Json DeliveryQueue::status() const
{
    return m_private->status();
}

} // namespace micro850::gateway
