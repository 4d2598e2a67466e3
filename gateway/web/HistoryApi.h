#ifndef MICRO850_GATEWAY_WEB_HISTORYAPI_H
#define MICRO850_GATEWAY_WEB_HISTORYAPI_H

#include "RecentRecords.h"
#include "Router.h"
#include "WebContext.h"

namespace micro850::gateway {

/// Trends, alarms and the journal of writes. Alarms and journal come from memory where there is no
/// history.
class HistoryApi
{
public:
    explicit HistoryApi(WebContext& context) : m_context(context) {}
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
    void countQuery();

    WebContext& m_context;
    RecentRecords m_events;
    RecentRecords m_writes;
    int m_queries = 0; ///< that wait for the history
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace micro850::gateway

#endif
