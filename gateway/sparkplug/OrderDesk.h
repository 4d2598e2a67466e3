#ifndef MICRO850_GATEWAY_SPARKPLUG_ORDERDESK_H
#define MICRO850_GATEWAY_SPARKPLUG_ORDERDESK_H

#include "NodeModel.h"
#include "Publisher.h"

#include <QtCore/QMap>

#include <deque>
#include <memory>

namespace micro850::gateway::sparkplug {

/// Takes commands for devices and has the service write what they order. What cannot be meant, and
/// what is known not to be writable or outside of its limits, is refused as a whole before anything
/// is written; every kind of it is told once and counted.
class OrderDesk
{
public:
    /// `needs` must outlive it.
    OrderDesk(PublisherNeeds& needs, int maximumAgeMs);

    /// The payload of a command for this device, which came so long ago.
    void take(const NodeModel& model, const Device& device, const QByteArray& payload,
              Duration waited);
    /// A command that is refused for a reason that its payload does not tell.
    void refuse(const QString& kind, const QString& text);
    /// A peer of the broker decides what comes, so that only so many commands wait.
    static constexpr int kMostCommands = 64;
    static constexpr int kMostOrders = 1000;

    /// orders: written, refused, waiting.
    host::Json status() const;

private:
    /// The orders of a command: each is written after the one before was.
    struct Command
    {
        std::deque<Order> orders;
        Duration came{0}; ///< as its time tells
    };
    struct State
    {
        QMap<int, Command> commands;
        int lastNumber = 0;
        qint64 written = 0;
        qint64 refused = 0;
    };

    Command commandOf(const NodeModel& model, const Device& device,
                      const QByteArray& payload) const;
    Duration ageOf(const Payload& payload) const;
    void proceed(int number);
    void handleReply(int number, const Order& order, const host::Json& reply);

    PublisherNeeds& m_needs;
    Duration m_maximumAge;
    State m_state;
    /// Replies that come after the end of this object find it gone.
    std::shared_ptr<OrderDesk*> m_self;
};

} // namespace micro850::gateway::sparkplug

#endif
