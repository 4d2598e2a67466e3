#ifndef MICRO850_GATEWAY_DELIVERY_PUBLISHER_H
#define MICRO850_GATEWAY_DELIVERY_PUBLISHER_H

#include "Catalogue.h"
#include "Clock.h"
#include "DeliveryFlow.h"
#include "WallClock.h"

#include <functional>

namespace micro850::gateway {

/// A line, a station or the gateway changed its state, or has something to tell.
struct DeliveryEvent
{
    qint64 time = 0;  ///< milliseconds since 1970 UTC
    QString line;     ///< empty: the gateway itself
    int station = -1; ///< below 0: the line itself
    QString state;
    QString text;
    bool isNotice = false; ///< no change of the state
};

/// A write that somebody orders through the broker.
struct Order
{
    QString line;
    QString name;
    int element = 0;
    host::Json value; ///< as the variable shows it
    /// It is not sent to the controller later than that: it is cancelled. 0: whenever it is its
    /// turn.
    int withinMs = 0;
    /// Where the variable was when the order was given; the order is for no other station.
    int station = 1;
};

/// What a publisher needs of the process that it runs in. Everything happens on the thread of the
/// event loop.
class PublisherNeeds
{
public:
    virtual ~PublisherNeeds() = default;
    virtual const Clock& clock() const = 0;
    virtual const WallClock& wallClock() const = 0;
    virtual DeliveryFlow& flow() = 0;
    virtual DeliveryQueue& queue() = 0;
    /// Asks the service, whose rules decide, to write. `answer` gets the reply of the protocol
    /// ("written", or an error), once; not when the process ends before.
    virtual void write(const Order& order,
                       const std::function<void(const host::Json& reply)>& answer) = 0;
    /// Logs one line. The first of each kind is logged, further ones are counted; the count is in
    /// the status. Bytes of others in it are made visible.
    virtual void warn(const QString& kind, const QString& text) = 0;
    /// Logs what happens, other than to the connection.
    virtual void note(const QString& text) = 0;
};

/// Speaks with one broker in one way: it makes messages of values and orders of messages.
class Publisher
{
public:
    virtual ~Publisher() = default;
    /// Called before anything else, and whenever lines or variables came, went or changed.
    virtual void setCatalogue(const Catalogue& catalogue) = 0;
    /// The state of a line or a station; also of those that did not change, after a start.
    virtual void handleEvent(const DeliveryEvent& event) = 0;
    /// The status of a line, as the reply to "status" has it, about once a second.
    virtual void handleStatus(const host::Json& lines) = 0;
    /// Does what is due. Called several times a second.
    virtual void tick() = 0;
    /// The service ends: says goodbye within `limit`.
    virtual void stop(Duration limit) = 0;
    /// With the status of the MqttConnection as "connection": its changes are logged.
    virtual host::Json status() const = 0;
};

} // namespace micro850::gateway

#endif
