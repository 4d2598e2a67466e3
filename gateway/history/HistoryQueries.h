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
    /// Is told the answer on the thread of the queries.
    using Done = std::function<void(HistoryAnswer answer)>;

    HistoryQueries();
    /// Ends the query that runs; those that wait are dropped.
    ~HistoryQueries();
    HistoryQueries(const HistoryQueries&) = delete;
    HistoryQueries& operator=(const HistoryQueries&) = delete;

    /// False when too many wait.
    bool add(const QString& file, const HistoryQuery& query, Done done);

private:
    struct Task
    {
        QString file;
        HistoryQuery query;
        Done done;
    };
    void run();
    bool isEnding() const;
    HistoryAnswer answer(const Task& task) const;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Task> m_tasks;
    bool m_ending = false;
    std::thread m_thread; ///< last, so that everything is there when it begins
};

} // namespace micro850::gateway

#endif
