#ifndef MICRO850_GATEWAY_HISTORY_HISTORYQUEUE_H
#define MICRO850_GATEWAY_HISTORY_HISTORYQUEUE_H

#include "Clock.h"
#include "HistoryRows.h"

#include <deque>
#include <variant>
#include <vector>

namespace micro850::gateway {

/// A moment, by both clocks.
struct HistoryStamp
{
    Duration monotonic{0};
    qint64 wall = 0; ///< milliseconds since 1970 UTC
};

/// What is to be recorded, and when it came.
struct HistoryItem
{
    HistoryStamp stamp;
    std::variant<host::HistoryValue, host::HistoryWrite, host::HistoryEvent> row;
    qint64 bytes = 0;
};

/// What waits for the disk. When it is too much, the oldest values are left out and counted; writes
/// and events stay as long as they are not too many themselves.
class HistoryQueue
{
public:
    static const std::size_t kMostItems = 65536;
    static const qint64 kMostBytes = qint64(16) * 1024 * 1024;
    static const std::size_t kMostSaved = 4096;

    void add(HistoryItem item);
    /// Removes up to so many, the oldest first.
    std::vector<HistoryItem> take(std::size_t most);
    /// How many were left out since the last call.
    qint64 popLeftOut();

    bool empty() const { return m_items.empty() && m_saved.empty(); }
    std::size_t size() const { return m_items.size() + m_saved.size(); }

private:
    void leaveOutOldest();

    std::deque<HistoryItem> m_items;
    /// Writes and events that are older than all of m_items.
    std::deque<HistoryItem> m_saved;
    qint64 m_bytes = 0; ///< of m_items
    qint64 m_leftOut = 0;
};

} // namespace micro850::gateway

#endif
