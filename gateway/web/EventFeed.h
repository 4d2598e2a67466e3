#ifndef MICRO850_GATEWAY_WEB_EVENTFEED_H
#define MICRO850_GATEWAY_WEB_EVENTFEED_H

#include "Router.h"
#include "WebContext.h"

#include <QtCore/QTimer>

#include <deque>
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

    /// A new reader. `lastId` is the id of the last event that it got; empty: none.
    std::shared_ptr<HttpStream> open(const Caller& caller, const QByteArray& lastId);

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

    /// About how many bytes are kept for readers that were disconnected.
    static constexpr qint64 kMostBytes = qint64{2} * 1024 * 1024;

private:
    friend class EventStream;
    enum class Kind : quint8 { Values, Ages, Status, Reloaded, Other };
    struct Frame
    {
        Kind kind = Kind::Other;
        QByteArray bytes; ///< empty: a later one replaces it
    };

    void append(Kind kind, const char* event, const QByteArray& data);
    void forgetFrame(Frame& frame);
    void forgetAll();
    void endUnwanted();
    void wakeAll();
    bool isNeeded();
    QByteArray agesText() const;
    QByteArray encoded(const char* event, const QByteArray& data, qint64 id) const;
    qint64 firstKept() const { return m_last - static_cast<qint64>(m_frames.size()) + 1; }
    Frame& frame(qint64 number) { return m_frames[static_cast<std::size_t>(number - firstKept())]; }

    WebContext& m_context;
    const IsAdmitted m_isAdmitted;
    const QByteArray m_run; ///< tells ids of this run from those of others
    std::deque<Frame> m_frames;
    qint64 m_bytes = 0;
    /// The number of the last event. No event has the numbers 0 and 1.
    qint64 m_last = 1;
    qint64 m_lastAges = 0;
    qint64 m_lastStatus = 0;
    qint64 m_lastReload = 0;
    QVector<qint64> m_changedBy; ///< the last event with a value of each variable
    QVector<int> m_changed;      ///< variables with a new value for the next event
    QVector<bool> m_isChanged;
    std::unordered_set<EventStream*> m_streams;
    QTimer m_soon;
    QTimer m_times;
    Duration m_neededUntil{0};
    bool m_isKept = false; ///< nothing since the oldest event was left out
};

/// What one reader of the events gets.
///
/// It follows the feed event by event. Where it is too slow for that, or begins, it passes over all
/// variables instead and sends the newest value of each that changed since; what changed during the
/// pass is for a further pass. So a value never goes back to an earlier one.
class EventStream : public HttpStream
{
public:
    EventStream(EventFeed& feed, Caller caller) : m_feed(&feed), m_caller(std::move(caller)) {}
    ~EventStream() override;
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    /// Begins with a snapshot. `anew`: the reader knows variables that may have gone.
    void begin(bool anew);
    /// Goes on with the event of this number, which is kept.
    void resume(qint64 number);
    /// Numbers of variables are no longer valid.
    void handleReload();
    const Caller& caller() const { return m_caller; }
    /// The feed is gone, or the reader may no longer read: the body ends.
    void detach() { m_feed = nullptr; }

    int read(char* bytes, int size) override;

    /// About how many bytes an event has at most: so much a reader holds that does not read.
    static constexpr int kUsualPart = 16 * 1024;

private:
    QByteArray next();
    QByteArray nextOfPass();
    QByteArray nextOfFeed();
    void startPass(bool isSnapshot);

    EventFeed* m_feed;
    const Caller m_caller;
    QByteArray m_text;
    int m_taken = 0;
    qint64 m_next = 0; ///< the number of the next event of the feed
    /// All values up to this event are sent, by it or by a pass.
    qint64 m_valuesUpTo = 0;
    /// Values of events up to this one are sent by a pass.
    qint64 m_catchUpTo = 0;

    bool m_inPass = false;
    bool m_isSnapshot = false;
    qint64 m_since = 0;     ///< values that changed after this event
    qint64 m_passBegan = 0; ///< the last event when the pass began
    int m_variable = 0;     ///< the next one
};

} // namespace micro850::gateway

#endif
