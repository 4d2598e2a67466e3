#ifndef MICRO850_GATEWAY_WEB_EVENTSTREAM_H
#define MICRO850_GATEWAY_WEB_EVENTSTREAM_H

#include "EventFeed.h"

namespace micro850::gateway {

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
