#ifndef MICRO850_GATEWAY_WEB_EVENTSTREAM_H
#define MICRO850_GATEWAY_WEB_EVENTSTREAM_H

#include "RecentEvents.h"
#include "Router.h"

#include <functional>

namespace micro850::gateway {

/// What one reader of the events gets.
///
/// It follows the log event by event. Where it is too slow for that, or begins, it passes over all
/// variables instead and sends the newest value of each that changed since; what changed during the
/// pass is for a further pass. So a value never goes back to an earlier one.
class EventStream : public HttpStream
{
public:
    using Left = std::function<void(EventStream*)>;
    /// Calls `left` when its connection is gone, if it was not detached before.
    EventStream(RecentEvents& log, Caller caller, Left left)
        : m_log(&log), m_caller(std::move(caller)), m_left(std::move(left))
    {
    }
    ~EventStream() override;
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    /// Begins with a snapshot. `anew`: the reader knows variables that may have gone.
    void begin(bool anew);
    /// Goes on with the event of this number, which is kept.
    void resume(qint64 number);
    /// Its reader may know newer values than those of the events up to now: it gets the newest
    /// ones.
    void catchUp() { m_catchUpTo = m_missedUpTo; }
    /// Numbers of variables are no longer valid.
    void handleReload();
    const Caller& caller() const { return m_caller; }
    /// The feed is gone, or the reader may no longer read: the body ends.
    void detach() { m_log = nullptr; }

    int read(char* bytes, int size) override;

private:
    QByteArray next();
    QByteArray nextOfPass();
    QByteArray nextOfLog();
    void startPass(bool isSnapshot);

    RecentEvents* m_log;
    const Caller m_caller;
    const Left m_left;
    QByteArray m_text;
    int m_taken = 0;
    qint64 m_next = 0; ///< the number of the next event of the log
    /// All values up to this event are sent, by it or by a pass.
    qint64 m_valuesUpTo = 0;
    /// Values of events up to this one are sent by a pass.
    qint64 m_catchUpTo = 0;
    qint64 m_missedUpTo = 0; ///< the last event that it missed while it was away
    bool m_owesAges = false; ///< as soon as those are sent

    bool m_inPass = false;
    bool m_isSnapshot = false;
    qint64 m_since = 0;     ///< values that changed after this event
    qint64 m_passBegan = 0; ///< the last event when the pass began
    int m_variable = 0;     ///< the next one
};

} // namespace micro850::gateway

#endif
