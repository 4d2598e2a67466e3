#include "JsonMessages.h"

#include "Protocol.h"

namespace micro850::gateway {

namespace {

using host::Json;

void copy(const Json& from, const char* key, Json& to)
{
    const auto found = from.find(key);
    if (found != from.end())
        to[key] = *found;
}

void addNumbers(Json& to, const QueuedMessage& message, Delivery delivery)
{
    // What was only remembered never had a number.
    if (message.sequence > 0) {
        to["series"] = message.series;
        to["sequence"] = message.sequence;
    }
    if (delivery == Delivery::History)
        to["history"] = true;
    if (delivery == Delivery::Repeated)
        to["repeated"] = true;
}

} // namespace

Json valueMessage(const Json& value, const QueuedMessage& message, Delivery delivery)
{
    Json object = Json::object();
    for (const char* const key : {"value", "time", "quality", "type", "unit", "error"})
        copy(value, key, object);
    addNumbers(object, message, delivery);
    return object;
}

Json eventMessage(const Json& event, const QueuedMessage& message, Delivery delivery)
{
    Json object = {{"time", host::timeText(message.time).toStdString()}};
    for (const char* const key : {"state", "text"})
        copy(event, key, object);
    addNumbers(object, message, delivery);
    return object;
}

Json stateMessage(const DeliveryEvent& event)
{
    return {{"time", host::timeText(event.time).toStdString()},
            {"state", event.state.toStdString()},
            {"text", event.text.toStdString()}};
}

QByteArray textOf(const Json& message)
{
    const std::string text = message.dump(-1, ' ', false, Json::error_handler_t::replace);
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

} // namespace micro850::gateway
