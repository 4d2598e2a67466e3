#ifndef MICRO850_GATEWAY_WEB_RECENTRECORDS_H
#define MICRO850_GATEWAY_WEB_RECENTRECORDS_H

#include "LineService.h"

#include <QtCore/QVector>

#include <deque>
#include <optional>

namespace micro850::gateway {

/// What happened since the start, the last of it: for a gateway that has no history.
class RecentRecords
{
public:
    void add(qint64 time, const Json& object);
    /// The newest `limit` of the times from `from` on and before `to`, newest first: as JSON,
    /// which takes no further memory while it is kept here.
    QVector<QByteArray> newest(std::optional<qint64> from, std::optional<qint64> to,
                               int limit) const;

    static constexpr int kMost = 1000;

private:
    struct Record
    {
        qint64 time = 0;
        QByteArray text;
    };
    std::deque<Record> m_records;
};

} // namespace micro850::gateway

#endif
