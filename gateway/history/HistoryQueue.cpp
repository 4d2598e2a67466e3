#include "HistoryQueue.h"

#include <utility>

namespace micro850::gateway {

void HistoryQueue::add(HistoryItem item)
{
    item.bytes = std::visit([](const auto& row) { return sizeOf(row); }, item.row);
    m_bytes += item.bytes;
    m_items.push_back(std::move(item));
    while (m_items.size() > kMostItems || (m_bytes > kMostBytes && m_items.size() > 1))
        leaveOutOldest();
}

void HistoryQueue::leaveOutOldest()
{
    HistoryItem oldest = std::move(m_items.front());
    m_items.pop_front();
    m_bytes -= oldest.bytes;
    const bool isValue = std::holds_alternative<host::HistoryValue>(oldest.row);
    if (isValue || m_saved.size() >= kMostSaved)
        ++m_leftOut;
    else
        m_saved.push_back(std::move(oldest));
}

std::vector<HistoryItem> HistoryQueue::take(std::size_t most)
{
    std::vector<HistoryItem> taken;
    while (taken.size() < most && !empty()) {
        std::deque<HistoryItem>& from = m_saved.empty() ? m_items : m_saved;
        if (m_saved.empty())
            m_bytes -= from.front().bytes;
        taken.push_back(std::move(from.front()));
        from.pop_front();
    }
    return taken;
}

qint64 HistoryQueue::popLeftOut()
{
    return std::exchange(m_leftOut, 0);
}

} // namespace micro850::gateway
