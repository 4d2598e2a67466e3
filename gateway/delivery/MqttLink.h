#ifndef MICRO850_GATEWAY_DELIVERY_MQTTLINK_H
#define MICRO850_GATEWAY_DELIVERY_MQTTLINK_H

#include "Clock.h"
#include "Json.h"
#include "MqttMessage.h"

namespace micro850::gateway {

/// What a publisher of JSON does with its connection to a broker; MqttConnection.h tells more.
class MqttLink
{
public:
    virtual ~MqttLink() = default;
    virtual void start() = 0;
    virtual void stop(Duration limit) = 0;
    virtual void tick() = 0;
    virtual bool isConnected() const = 0;
    virtual void subscribe(const QByteArray& topic) = 0;
    virtual int publish(const MqttMessage& message) = 0;
    virtual bool isFull() const = 0;
    virtual host::Json status() const = 0;
};

} // namespace micro850::gateway

#endif
