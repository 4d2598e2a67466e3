#ifndef MICRO850_GATEWAY_HISTORY_HISTORYWRITER_H
#define MICRO850_GATEWAY_HISTORY_HISTORYWRITER_H

#include "HistoryFile.h"
#include "HistoryQueue.h"
#include "HistorySettings.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace micro850::gateway {

/// Records on a thread of its own. It has no clock for stamps and ages: those come with the rows,
/// and with tick().
class HistoryWriter
{
public:
    struct Status
    {
        /// "off", "recording" or "stopped".
        QString state;
        QString reason; ///< why it stopped
        qint64 bytes = 0;
        qint64 rows = 0;    ///< recorded since the start
        qint64 leftOut = 0; ///< not recorded since the start
        qint64 waiting = 0;
        /// What is in the file holds on until now, see HistoryFile::isGoingOn().
        bool isGoingOn = false;
        /// How often that ended since the start: the clock was set, rows were left out, or the file
        /// was opened again.
        qint64 breaks = 0;
    };
    /// Is told on the writer's thread when the recording stops, goes on, or sets a file aside.
    using Alarm = std::function<void(const host::HistoryEvent& event)>;

    /// `fileSystem` is the name of one that SQLite knows, for tests.
    HistoryWriter(const HistorySettings& settings, const HistoryStamp& now, Alarm alarm,
                  const char* fileSystem = nullptr);
    /// Records what waits, unless the disk refuses.
    ~HistoryWriter();
    HistoryWriter(const HistoryWriter&) = delete;
    HistoryWriter& operator=(const HistoryWriter&) = delete;

    /// None of these waits for the disk.
    void add(HistoryItem item);
    void tick(const HistoryStamp& now);
    void change(const HistorySettings& settings);
    Status status() const;

    /// Waits until everything so far is recorded, or was tried in vain.
    void flush();

private:
    void run();
    bool waitForWork(std::unique_lock<std::mutex>& lock);
    void work(std::unique_lock<std::mutex>& lock);
    void useSettings(const HistorySettings& settings);
    void tryToRecord();
    void open();
    void record();
    void addRow(const HistoryItem& item);
    void finishTransaction(qint64 rows);
    void convert();
    void countBreak();
    bool isStep(const HistoryStamp& stamp) const;
    void followClock(const HistoryStamp& stamp);
    void advance(const HistoryStamp& stamp);
    void note(const QString& state, const QString& text);
    bool handleFailure(const UserError& error);
    bool setAside(const UserError& error);
    void setState(const QString& state, const QString& reason);

    const Alarm m_alarm;
    const char* const m_fileSystem;

    mutable std::mutex m_mutex; ///< guards what follows
    std::condition_variable m_wake;
    std::condition_variable m_flushed;
    HistoryQueue m_queue;
    HistoryStamp m_now;
    Status m_status;
    std::optional<HistorySettings> m_newSettings;
    qint64 m_flushWanted = 0;
    qint64 m_flushDone = 0;
    bool m_ending = false;

    // Of the thread alone.
    HistorySettings m_settings;
    std::unique_ptr<host::HistoryFile> m_file;
    /// Taken from the queue and not yet recorded for certain.
    std::deque<HistoryItem> m_batch;
    HistoryStamp m_tick;
    std::optional<HistoryStamp> m_last;
    qint64 m_leftOut = 0; ///< not yet told in the history
    bool m_failed = false;
    bool m_hadSettings = false;
    bool m_wasOpen = false; ///< the first opening since the start is no break
    QString m_stopped;      ///< the reason, until it is told in the history
    /// A commit failed, and nobody knows whether it is in the file: it is when the file ends with
    /// this sequence.
    qint64 m_uncertainSequence = 0;
    std::size_t m_uncertainItems = 0;
    std::chrono::steady_clock::time_point m_nextTry;
    std::optional<std::chrono::steady_clock::time_point> m_setAsideAt;

    std::thread m_thread; ///< last, so that everything is there when it begins
};

} // namespace micro850::gateway

#endif
