#ifndef MICRO850_GATEWAY_HISTORY_HISTORYQUERIES_H
#define MICRO850_GATEWAY_HISTORY_HISTORYQUERIES_H

#include "HistorySource.h"

#include <QtCore/QString>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace micro850::gateway {

/// Answers queries one after the other on a thread of its own, with a connection of its own: the
/// recording does not wait for them.
class HistoryQueries
{
public:
    /// Runs on the thread of the queries. What takes long asks now and then whether it is to end.
    using Job = std::function<void(const std::function<bool()>& isEnding)>;

    HistoryQueries();
    /// Ends the query that runs; those that wait are dropped.
    ~HistoryQueries();
    HistoryQueries(const HistoryQueries&) = delete;
    HistoryQueries& operator=(const HistoryQueries&) = delete;

    /// False when too many wait.
    bool add(Job job);

private:
    void run();
    bool isEnding() const;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Job> m_jobs;
    bool m_ending = false;
    std::thread m_thread; ///< last, so that everything is there when it begins
};

/// The answers, from the file. None throws.
HistoryAnswer answerOf(const QString& file, const HistoryQuery& query,
                       const std::function<bool()>& isEnding);
/// `recordedUntil`: until now, while the recording goes on.
TrendAnswer trendOf(const QString& file, const TrendQuery& query,
                    const std::optional<qint64>& recordedUntil,
                    const std::function<bool()>& isEnding);
HistoryAnswer eventsOf(const QString& file, const RecordQuery& query,
                       const std::function<bool()>& isEnding);
HistoryAnswer writesOf(const QString& file, const RecordQuery& query,
                       const std::function<bool()>& isEnding);

} // namespace micro850::gateway

#endif
