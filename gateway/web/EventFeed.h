#ifndef MICRO850_GATEWAY_WEB_EVENTFEED_H
#define MICRO850_GATEWAY_WEB_EVENTFEED_H

#include "RecentEvents.h"
#include "Router.h"

#include <QtCore/QTimer>

#include <unordered_set>

namespace micro850::gateway {

class EventStream;

/// What happens, as server-sent events. Each event is encoded once for all readers; the last ones
/// are kept for readers that were disconnected. A reader that is slow, or was away for long, gets
/// the newest value of each variable, never those between.
class EventFeed
{
public:
    using IsAdmitted = std::function<bool(const Caller&)>;
    /// `isAdmitted` tells whether a reader may go on.
    EventFeed(WebContext& context, IsAdmitted isAdmitted);
    ~EventFeed();
    EventFeed(const EventFeed&) = delete;
    EventFeed& operator=(const EventFeed&) = delete;

    /// "/api/v1/events"
    void addRoutes(Router& router);
    int readers() const { return static_cast<int>(m_streams.size()); }

    /// The id of the last event. What happens from now on is kept for a reader that begins after
    /// it.
    QByteArray lastEvent();
    /// A new reader. `lastId` is the id of the last event that it got; empty: none.
    std::shared_ptr<HttpStream> open(const Caller& caller, const QByteArray& lastId);
    /// A new reader that knows all values as they were with the event `id`, or newer ones.
    std::shared_ptr<HttpStream> openAfter(const Caller& caller, const QByteArray& id);

    void addValue(int number);
    /// `event` is "state" or "notice".
    void addEvent(const char* event, const LineEvent& what);
    void addWrite(const JournalEntry& entry);
    /// The index and the texts were rebuilt.
    void handleReload();

    // Timers call these; tests may, too.

    /// Makes events of the values that changed.
    void flush();
    /// Makes the events that come every two seconds. Ends what is read by those who may no longer.
    void tellTimes();

private:
    std::shared_ptr<EventStream> newStream(const Caller& caller);
    /// The number after that of the event, when it is kept or the next one.
    std::optional<qint64> kept(const QByteArray& lastId) const;
    void keepFromNowOn();
    void forgetAll();
    void endUnwanted();
    void wakeAll();
    bool isNeeded();

    WebContext& m_context;
    const IsAdmitted m_isAdmitted;
    RecentEvents m_log;
    qint64 m_lastAges = 0;
    qint64 m_lastStatus = 0;
    QVector<int> m_changed; ///< variables with a new value for the next event
    QVector<bool> m_isChanged;
    std::unordered_set<EventStream*> m_streams;
    QTimer m_soon;
    QTimer m_times;
    Duration m_neededUntil{0};
    bool m_isKept = false; ///< nothing since the oldest event was left out
};

} // namespace micro850::gateway

#endif
