#ifndef MICRO850_GATEWAY_BROKER_BROKERSETTINGS_H
#define MICRO850_GATEWAY_BROKER_BROKERSETTINGS_H

#include "DeliverySettings.h"

#include <optional>

namespace micro850::gateway {

/// The sections of the configuration that bring values to brokers. None: nothing is delivered.
struct BrokerSettings
{
    std::optional<MqttSettings> mqtt;
    std::optional<SparkplugSettings> sparkplug;
};

} // namespace micro850::gateway

#endif
