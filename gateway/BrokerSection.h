#ifndef MICRO850_GATEWAY_BROKERSECTION_H
#define MICRO850_GATEWAY_BROKERSECTION_H

#include "BrokerSettings.h"
#include "ConfigurationPart.h"

namespace micro850::gateway {

/// Reads the sections "mqtt" and "sparkplug" of the configuration, if they are there. Relative
/// paths begin at `folder`.
void readBrokers(const JsonNode& root, const QString& folder, BrokerSettings& brokers,
                 Mistakes& mistakes);

} // namespace micro850::gateway

#endif
