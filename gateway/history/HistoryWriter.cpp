#include "HistoryWriter.h"

#include "DurationText.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

using SteadyTime = std::chrono::steady_clock;

// A kill or a power cut loses what came since the last commit.
const std::chrono::milliseconds kCommitInterval(250);
const std::chrono::seconds kRetryInterval(1);
const std::chrono::seconds kIdleInterval(1);
// A disk that damages everything does not get a new file every second.
const std::chrono::minutes kSetAsideInterval(1);
const std::size_t kMostItems = 4096;
// Steps of retention after a transaction, so that much to remove does not hold up the recording.
const int kRetentionSteps = 8;
// And so long for rollups of what an earlier version recorded.
const std::chrono::milliseconds kConversionTime(50);
// The clock on the wall was set when it differs by more from the monotonic one than a moment ago.
const qint64 kStepMs = 1000;

host::HistoryLimits limitsOf(const HistorySettings& settings)
{
    return {std::chrono::hours(24) * settings.keepDays,
            qint64(settings.keepMegabytes) * 1024 * 1024};
}

qint64 offsetOf(const HistoryStamp& stamp)
{
    return stamp.wall - wholeMilliseconds(stamp.monotonic);
}

} // namespace

HistoryWriter::HistoryWriter(const HistorySettings& settings, const HistoryStamp& now, Alarm alarm,
                             const char* fileSystem)
    : m_alarm(std::move(alarm)), m_fileSystem(fileSystem), m_now(now), m_newSettings(settings)
{
    m_status.state = settings.file.isEmpty() ? QStringLiteral("off") : QStringLiteral("recording");
    m_thread = std::thread([this] { run(); });
}

HistoryWriter::~HistoryWriter()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ending = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

// ---- For other threads --------------------------------------------------------------------------

void HistoryWriter::add(HistoryItem item)
{
    bool first = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_status.state == QLatin1String("off"))
            return;
        first = m_queue.empty();
        m_now = item.stamp;
        m_queue.add(std::move(item));
    }
    if (first)
        m_wake.notify_one();
}

void HistoryWriter::tick(const HistoryStamp& now)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_now = now;
}

void HistoryWriter::change(const HistorySettings& settings)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_newSettings = settings;
        // Before the thread looks: what comes from now on is wanted, or not.
        m_status.state = settings.file.isEmpty()                      ? QStringLiteral("off")
                         : m_status.state == QLatin1String("stopped") ? m_status.state
                                                                      : QStringLiteral("recording");
    }
    m_wake.notify_one();
}

HistoryWriter::Status HistoryWriter::status() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Status status = m_status;
    status.waiting = static_cast<qint64>(m_queue.size());
    return status;
}

void HistoryWriter::flush()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const qint64 wanted = ++m_flushWanted;
    m_wake.notify_one();
    m_flushed.wait(lock, [this, wanted] { return m_flushDone >= wanted; });
}

// ---- The thread ---------------------------------------------------------------------------------

void HistoryWriter::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (waitForWork(lock))
        work(lock);
    // The disk may have room again.
    if (!m_queue.empty() || !m_batch.empty())
        work(lock);
}

// Rows come together for a while, so that one commit takes many. False when there is no more to do.
bool HistoryWriter::waitForWork(std::unique_lock<std::mutex>& lock)
{
    const auto urgent = [this] {
        return m_ending || m_newSettings || m_flushWanted > m_flushDone ||
               (!m_failed && m_queue.size() >= kMostItems);
    };
    const auto somethingToDo = [this, &urgent] {
        return urgent() || (!m_failed && !m_queue.empty());
    };
    m_wake.wait_for(lock, m_failed ? kRetryInterval : kIdleInterval, somethingToDo);
    if (!m_failed && !m_queue.empty())
        m_wake.wait_for(lock, kCommitInterval, urgent);
    return !m_ending || ((!m_queue.empty() || !m_batch.empty()) && !m_failed);
}

void HistoryWriter::work(std::unique_lock<std::mutex>& lock)
{
    const std::optional<HistorySettings> settings = std::exchange(m_newSettings, std::nullopt);
    const qint64 flush = m_flushWanted;
    if (m_batch.empty()) {
        for (HistoryItem& item : m_queue.take(kMostItems))
            m_batch.push_back(std::move(item));
    }
    const qint64 leftOut = m_queue.popLeftOut();
    m_leftOut += leftOut;
    m_status.leftOut += leftOut;
    m_tick = m_queue.empty() || m_batch.empty() ? m_now : m_batch.back().stamp;
    lock.unlock();
    if (settings)
        useSettings(*settings);
    tryToRecord();
    lock.lock();
    if (m_failed || m_queue.empty() || m_settings.file.isEmpty())
        m_flushDone = std::max(m_flushDone, flush);
    m_flushed.notify_all();
}

void HistoryWriter::useSettings(const HistorySettings& settings)
{
    const bool sameFile = m_settings.file == settings.file;
    if (!sameFile && m_file)
        tryToRecord(); // what came before the change belongs to the old file
    m_settings = settings;
    m_failed = false;
    if (!sameFile) {
        m_file.reset();
        m_wasOpen = std::exchange(m_hadSettings, true);
        m_uncertainItems = 0;
    }
    if (m_file) {
        try {
            m_file->setLimits(limitsOf(m_settings));
        } catch (const UserError& error) {
            handleFailure(error);
        }
    }
}

void HistoryWriter::tryToRecord()
{
    if (m_settings.file.isEmpty()) {
        m_batch.clear();
        m_leftOut = 0;
        setState(QStringLiteral("off"), QString());
        return;
    }
    for (bool isToBeTried = true; isToBeTried;) {
        try {
            open();
            record();
            m_failed = false;
            setState(QStringLiteral("recording"), QString());
            isToBeTried = false;
        } catch (const UserError& error) {
            isToBeTried = handleFailure(error);
        }
    }
}

void HistoryWriter::open()
{
    if (m_file && !m_file->isInPlace()) {
        m_file.reset();
        note(QStringLiteral("history recording"),
             m_settings.file + QStringLiteral(" was removed: a new file is begun"));
    }
    if (m_file)
        return;
    m_file =
        std::make_unique<host::HistoryFile>(m_settings.file, limitsOf(m_settings), m_fileSystem);
    if (std::exchange(m_wasOpen, true))
        countBreak();
    // A commit that failed may be in the file all the same.
    if (m_uncertainItems > 0 && m_file->sequence() == m_uncertainSequence)
        m_batch.erase(m_batch.begin(), m_batch.begin() + static_cast<long>(m_uncertainItems));
    m_uncertainItems = 0;
    if (!m_stopped.isEmpty())
        note(QStringLiteral("history stopped"), m_stopped);
    m_stopped.clear();
}

// Into the history, before what waits.
void HistoryWriter::note(const QString& state, const QString& text)
{
    host::HistoryEvent event;
    event.time = m_tick.wall;
    event.state = state;
    event.text = text;
    const HistoryStamp stamp = m_batch.empty() ? m_tick : m_batch.front().stamp;
    m_batch.push_front({stamp, event, sizeOf(event)});
}

void HistoryWriter::record()
{
    const bool hasGap = m_leftOut > 0;
    if (hasGap) {
        // It is before the batch, or after it. No value is taken to hold on over it.
        m_file->endPeriod();
        countBreak();
        note(QStringLiteral("history gap"),
             QStringLiteral("%1 rows were not recorded: the disk was too slow, or full")
                 .arg(m_leftOut));
    }
    m_leftOut = 0;
    do {
        followClock(m_batch.empty() ? m_tick : m_batch.front().stamp);
        m_file->begin();
        std::size_t count = 0;
        for (; count < m_batch.size() && !m_file->isTransactionFull(); ++count) {
            if (isStep(m_batch[count].stamp))
                break;
            advance(m_batch[count].stamp);
            addRow(m_batch[count]);
        }
        if (count == m_batch.size() && !isStep(m_tick))
            advance(m_tick);
        m_uncertainSequence = m_file->sequence();
        m_uncertainItems = count;
        m_file->commit();
        m_uncertainItems = 0;
        m_batch.erase(m_batch.begin(), m_batch.begin() + static_cast<long>(count));
        finishTransaction(static_cast<qint64>(count));
    } while (!m_batch.empty() || isStep(m_tick));
    if (hasGap)
        m_file->endPeriod();
}

void HistoryWriter::addRow(const HistoryItem& item)
{
    if (item.bytes <= m_file->budget().bytesOfTransaction()) {
        std::visit([this](const auto& row) { m_file->add(row); }, item.row);
        return;
    }
    host::HistoryEvent event;
    event.time = item.stamp.wall;
    event.state = QStringLiteral("history gap");
    event.text = QStringLiteral("a row of %1 bytes was not recorded: it is too large for a history "
                                "of %2 megabytes")
                     .arg(item.bytes)
                     .arg(m_settings.keepMegabytes);
    m_file->add(event);
}

bool HistoryWriter::isStep(const HistoryStamp& stamp) const
{
    return m_last && std::abs(offsetOf(stamp) - offsetOf(*m_last)) > kStepMs;
}

// The values before and after are of different periods, and so are removed in the order in which
// they were recorded, whatever their stamps say.
void HistoryWriter::followClock(const HistoryStamp& stamp)
{
    if (!isStep(stamp))
        return;
    const qint64 step = offsetOf(stamp) - offsetOf(*m_last);
    m_last->wall += step;
    m_file->endPeriod();
    countBreak();
    host::HistoryEvent event;
    event.time = stamp.wall;
    event.state = QStringLiteral("clock");
    event.text = QStringLiteral("the clock was set %1 by %2")
                     .arg(step > 0 ? QStringLiteral("forward") : QStringLiteral("back"),
                          QString::fromStdString(durationText(std::abs(step) * 1000)));
    m_batch.push_front({stamp, event, sizeOf(event)});
}

void HistoryWriter::advance(const HistoryStamp& stamp)
{
    if (m_last && stamp.monotonic > m_last->monotonic)
        m_file->advance(stamp.monotonic - m_last->monotonic);
    if (!m_last || stamp.monotonic >= m_last->monotonic)
        m_last = stamp;
}

void HistoryWriter::finishTransaction(qint64 rows)
{
    bool hasMore = true;
    for (int i = 0; i < kRetentionSteps && hasMore; ++i)
        hasMore = m_file->retain();
    if (!hasMore)
        convert();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_status.rows += rows;
    m_status.bytes = m_file->bytes();
    m_status.isGoingOn = m_file->isGoingOn();
}

void HistoryWriter::convert()
{
    const auto end = SteadyTime::now() + kConversionTime;
    while (m_file->convert() && SteadyTime::now() < end) {
    }
}

void HistoryWriter::countBreak()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_status.isGoingOn = false;
    ++m_status.breaks;
}

// ---- What goes wrong ----------------------------------------------------------------------------

// True when the recording can go on with a new file.
bool HistoryWriter::handleFailure(const UserError& error)
{
    m_file.reset();
    const auto* refused = dynamic_cast<const host::DatabaseError*>(&error);
    if (refused && refused->isDamage() && setAside(error))
        return true;
    const QString reason = QString::fromUtf8(error.what());
    // Each attempt that follows belongs to the same stop.
    if (!m_failed)
        m_stopped = reason;
    m_failed = true;
    setState(QStringLiteral("stopped"), reason);
    return false;
}

bool HistoryWriter::setAside(const UserError& error)
{
    const auto now = SteadyTime::now();
    if (m_setAsideAt && now - *m_setAsideAt < kSetAsideInterval)
        return false;
    m_setAsideAt = now;
    try {
        const QString name = host::HistoryFile::setAside(m_settings.file, m_tick.wall);
        host::HistoryEvent event;
        event.time = m_tick.wall;
        event.state = QStringLiteral("history set aside");
        event.text = QString::fromUtf8(error.what()) + QStringLiteral(": it is kept as ") + name +
                     QStringLiteral(", and a new one is begun");
        m_alarm(event);
        m_uncertainItems = 0;
        note(event.state, event.text);
    } catch (const UserError& failure) {
        setState(QStringLiteral("stopped"), QString::fromUtf8(failure.what()));
        return false;
    }
    return true;
}

// Each change is told once.
void HistoryWriter::setState(const QString& state, const QString& reason)
{
    host::HistoryEvent event;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_newSettings || (m_status.state == state && m_status.reason == reason))
            return;
        m_status.state = state;
        m_status.reason = reason;
        m_status.isGoingOn = m_status.isGoingOn && state == QLatin1String("recording");
    }
    if (state == QLatin1String("off"))
        return;
    event.time = m_tick.wall;
    event.state = QStringLiteral("history ") + state;
    event.text = reason.isEmpty() ? m_settings.file + QStringLiteral(": recording") : reason;
    m_alarm(event);
}

} // namespace micro850::gateway
