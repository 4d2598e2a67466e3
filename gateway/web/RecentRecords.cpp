#include "RecentRecords.h"

namespace micro850::gateway {

void RecentRecords::add(qint64 time, Json object)
{
    m_records.push_back({time, std::move(object)});
    if (m_records.size() > static_cast<std::size_t>(kMost))
        m_records.pop_front();
}

std::vector<Json> RecentRecords::newest(std::optional<qint64> from, std::optional<qint64> to,
                                        int limit) const
{
    std::vector<Json> found;
    for (auto record = m_records.rbegin();
         record != m_records.rend() && found.size() < static_cast<std::size_t>(limit); ++record)
    {
        if ((!from || record->time >= *from) && (!to || record->time < *to))
            found.push_back(record->object);
    }
    return found;
}

} // namespace micro850::gateway
