#ifndef MICRO850_GATEWAY_DELIVERY_DELIVERYFLOW_H
#define MICRO850_GATEWAY_DELIVERY_DELIVERYFLOW_H

#include "DeliveryQueue.h"

#include <functional>
#include <memory>

namespace micro850::gateway {

/// How a message is sent.
enum class Delivery {
    Live,    ///< as it comes
    History, ///< it waited while the broker was away; never retained
    Repeated ///< the broker had it before: the latest value again, after a new connection
};

/// Takes messages to a connection.
class Outlet
{
public:
    virtual ~Outlet() = default;
    /// Sends it. False when the connection takes no more now; it is offered again. What was sent
    /// is acknowledged by DeliveryFlow::acknowledge(), repeated ones too.
    virtual bool send(const QueuedMessage& message, Delivery delivery) = 0;
};

/// Decides what is sent when: first the latest value of each variable, then what comes, and what
/// waited while the broker was away at a bounded rate behind it. At most kWindow messages are sent
/// that are not known on disk to be acknowledged, so that no more come twice after a crash.
class DeliveryFlow
{
public:
    /// All must outlive it.
    DeliveryFlow(DeliveryQueue& queue, const DeliveryQueueSettings& settings, const Clock& clock);
    ~DeliveryFlow();
    DeliveryFlow(const DeliveryFlow&) = delete;
    DeliveryFlow& operator=(const DeliveryFlow&) = delete;

    /// A message of the service; `number` is that of its feed.
    void add(QueuedMessage message, const DeliveryQueue::Fed& fed);
    /// What the service fed up to there needs no message.
    void skip(const DeliveryQueue::Fed& fed);
    /// What a variable has now, when the service or this process begins anew: not queued, but the
    /// latest value unless a later one was added. It is sent as Repeated, without a series.
    void remember(QueuedMessage message);
    /// Visits the latest value of each variable, sent or not, also while there is no outlet: what
    /// begin() sends first. Its sequence is 0 when it was only remembered.
    void visitLatest(const std::function<void(const QueuedMessage& message)>& visit) const;
    /// Called by the outlet's owner once messages may be sent, and when they may not any more: what
    /// was not acknowledged is sent again.
    void begin(Outlet& outlet);
    void end();
    void acknowledge(qint64 id);
    /// The broker does not take it, now or later: it is given up and counted.
    void refuse(qint64 id);
    /// Variables that are gone have no latest value any more.
    void forget(const QString& line, const QString& name);

    /// Commits and sends what is due. Call it when something was added or acknowledged, and
    /// several times a second. Returns what is committed by now, for the service.
    DeliveryQueue::Fed tick();

    /// The queue's, and how many messages were sent, acknowledged, repeated and refused, are
    /// inFlight, and wait as history.
    host::Json status() const;

    static constexpr int kWindow = 1000;

private:
    class Private;
    std::unique_ptr<Private> m_private;
};

} // namespace micro850::gateway

#endif
