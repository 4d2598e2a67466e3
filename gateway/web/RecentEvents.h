#ifndef MICRO850_GATEWAY_WEB_RECENTEVENTS_H
#define MICRO850_GATEWAY_WEB_RECENTEVENTS_H

#include "WebContext.h"

#include <deque>
#include <optional>

namespace micro850::gateway {

/// The last events, each encoded once for all readers, and which event has the newest value of each
/// variable. The events are numbered without a gap.
class RecentEvents
{
public:
    enum class Kind : quint8 { Values, Ages, Status, Reloaded, Other };
    struct Event
    {
        Kind kind = Kind::Other;
        QByteArray bytes; ///< empty: a later one replaces it
    };

    explicit RecentEvents(WebContext& context);

    /// The number of the last event. No event has the numbers 0 and 1.
    qint64 last() const { return m_last; }
    /// The number of the oldest event that is kept; after the last one: none is.
    qint64 firstKept() const { return m_last - static_cast<qint64>(m_events.size()) + 1; }
    /// The number of the last event of the kind Reloaded, also when it is not kept any more.
    qint64 lastReload() const { return m_lastReload; }
    const Event& event(qint64 number) const { return m_events[positionOf(number)]; }
    QByteArray idOf(qint64 number) const { return m_run + '-' + QByteArray::number(number); }
    /// The number in the id of an event that this run sent; nothing for other texts.
    std::optional<qint64> numberOf(const QByteArray& id) const;

    void append(Kind kind, const char* event, const QByteArray& data);
    /// The values of these variables, in as many events as they need.
    void appendValues(const QVector<int>& variables);
    /// Leaves only the number of an event. Does nothing where it is not kept.
    void forget(qint64 number);
    void forgetAll();
    /// The index was rebuilt: forgets what tells of variables by their numbers.
    void handleReload();

    int variables() const { return m_changedBy.size(); }
    /// The last event with a value of the variable.
    qint64 changedBy(int variable) const { return m_changedBy.at(variable); }
    QByteArray valueText(int variable) { return m_context.values.text(variable); }
    QByteArray agesText() const;

    /// An event as it is sent.
    QByteArray encoded(const char* event, const QByteArray& data, qint64 id) const;

    /// About how many bytes are kept for readers that were disconnected.
    static constexpr qint64 kMostBytes = qint64{2} * 1024 * 1024;
    /// About how many bytes an event has at most: so much a reader holds that does not read.
    static constexpr int kUsualPart = 16 * 1024;

private:
    std::size_t positionOf(qint64 number) const
    {
        return static_cast<std::size_t>(number - firstKept());
    }
    void empty(Event& event);

    WebContext& m_context;
    const QByteArray m_run; ///< tells ids of this run from those of others
    std::deque<Event> m_events;
    qint64 m_bytes = 0;
    qint64 m_last = 1;
    qint64 m_lastReload = 0;
    QVector<qint64> m_changedBy;
};

} // namespace micro850::gateway

#endif
