#include "RecentRecords.h"

#include "Problem.h"

namespace micro850::gateway {

void RecentRecords::add(qint64 time, const Json& object)
{
    m_records.push_back({time, jsonText(object)});
    if (m_records.size() > static_cast<std::size_t>(kMost))
        m_records.pop_front();
}

QVector<QByteArray> RecentRecords::newest(std::optional<qint64> from, std::optional<qint64> to,
                                          int limit) const
{
    QVector<QByteArray> found;
    for (auto record = m_records.rbegin(); record != m_records.rend() && found.size() < limit;
         ++record) {
        if ((!from || record->time >= *from) && (!to || record->time < *to))
            found.append(record->text);
    }
    return found;
}

} // namespace micro850::gateway
