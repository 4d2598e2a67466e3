#ifndef MICRO850_GATEWAY_WEB_HISTORYAPI_H
#define MICRO850_GATEWAY_WEB_HISTORYAPI_H

#include "RecentRecords.h"
#include "Router.h"
#include "WebContext.h"

#include <QtCore/QHash>
#include <QtCore/QTimer>

namespace micro850::gateway {

/// Trends, alarms and the journal of writes. Alarms and journal come from memory where there is no
/// history.
class HistoryApi
{
public:
    explicit HistoryApi(WebContext& context);
    ~HistoryApi();
    HistoryApi(const HistoryApi&) = delete;
    HistoryApi& operator=(const HistoryApi&) = delete;

    void addRoutes(Router& router);
    void addEvent(const LineEvent& event);
    void addWrite(const JournalEntry& entry);

private:
    using Ask = void (HistorySource::*)(const RecordQuery&, const HistorySource::Answered&);

    void answerTrend(const HttpExchangePointer& exchange);
    void answerRecords(const HttpExchangePointer& exchange, RecordQuery query, Ask ask,
                       const char* key, const RecentRecords& recent);
    /// Throws RequestError when too many wait. Fills in what tells whether the query is wanted, and
    /// returns its number.
    template<typename Query> qint64 begin(const HttpExchangePointer& exchange, Query& query);
    void endUnwanted();

    WebContext& m_context;
    RecentRecords m_events;
    RecentRecords m_writes;
    struct Waiting
    {
        HttpExchangePointer exchange;
        std::shared_ptr<std::atomic<bool>> isUnwanted;
    };
    QHash<qint64, Waiting> m_queries; ///< that wait for the history, by their numbers
    qint64 m_lastQuery = 0;
    QTimer m_look; ///< whether they are still wanted
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace micro850::gateway

#endif
