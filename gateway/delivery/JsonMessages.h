#ifndef MICRO850_GATEWAY_DELIVERY_JSONMESSAGES_H
#define MICRO850_GATEWAY_DELIVERY_JSONMESSAGES_H

#include "DeliveryFlow.h"
#include "Publisher.h"

namespace micro850::gateway {

/// What a broker gets of a value: what a receiver needs to know besides the topic.
host::Json valueMessage(const host::Json& value, const QueuedMessage& message, Delivery delivery);
/// What a broker gets of an event that was queued.
host::Json eventMessage(const host::Json& event, const QueuedMessage& message, Delivery delivery);
/// The state of a line or a station.
host::Json stateMessage(const DeliveryEvent& event);

/// The text of a message. Bytes that are not UTF-8 are replaced.
QByteArray textOf(const host::Json& message);

} // namespace micro850::gateway

#endif
