#ifndef MICRO850_GATEWAY_DELIVERY_MQTTMESSAGE_H
#define MICRO850_GATEWAY_DELIVERY_MQTTMESSAGE_H

#include "Clock.h"

#include <QtCore/QByteArray>

#include <optional>

namespace micro850::gateway {

/// A message to or from a broker.
struct MqttMessage
{
    QByteArray topic; ///< UTF-8
    QByteArray payload;
    int qos = 1;
    bool isRetained = false;
    // Of MQTT 5 only.
    QByteArray correlation;               ///< empty: none
    std::optional<quint32> expirySeconds; ///< of what comes: what is left
    /// Of what comes: the message was too long, so that its payload is left out.
    bool isCut = false;
    /// Of what comes: how long ago, at most, it came.
    Duration waited{0};
};

} // namespace micro850::gateway

#endif
