#ifndef MICRO850_GATEWAY_DELIVERY_DELIVERYSETTINGS_H
#define MICRO850_GATEWAY_DELIVERY_DELIVERYSETTINGS_H

#include "Json.h"

#include <QtCore/QString>

namespace micro850::gateway {

constexpr int kLeastKeepAlive = 5;
constexpr int kMostKeepAlive = 3600;

/// Where a broker is and how the gateway shows who it is. All paths are absolute.
struct BrokerAddress
{
    QString host; ///< a name or an address
    int port = 1883;
    /// Unique among the clients of the broker; empty: made from the name of the machine.
    QString clientId;
    bool isVersion5 = true; ///< MQTT 5; else 3.1.1, which is also tried when the broker refuses 5
    int keepAliveSeconds = 15; ///< from kLeastKeepAlive to kMostKeepAlive
    /// After it is connected the gateway waits for a random time up to this before it announces its
    /// variables, so that a hall of panels does not do so at once.
    int spreadMs = 1000;
    QString credentialsFile; ///< JSON with "user" and "password"; empty: none
    bool isEncrypted = false;
    QString authoritiesFile; ///< certificates of those who may sign; empty: those of the system
    QString certificateFile; ///< of this client; empty: none
    QString keyFile;
    QString revokedFile; ///< certificates that are revoked; empty: none
};

/// Where values wait that the broker has not acknowledged.
struct DeliveryQueueSettings
{
    QString file; ///< SQLite database
    int keepMegabytes = 256;
    int keepHours = 168;
    int historyPerSecond = 200; ///< messages, after the broker was away
};

/// The section "mqtt" of the configuration.
struct MqttSettings
{
    BrokerAddress broker;
    DeliveryQueueSettings queue;
    QString prefix; ///< of all topics
    /// 0: values are published on change, by their dead bands and heartbeats; else all of them
    /// again and again.
    int intervalMs = 0;
    int statisticsSeconds = 60;
    bool takesOrders = false;
    int maximumAgeMs = 10000; ///< an older order is refused
    QString discoveryPrefix;  ///< empty: nothing is announced
};

/// The section "sparkplug" of the configuration.
struct SparkplugSettings
{
    BrokerAddress broker;
    DeliveryQueueSettings queue;
    QString group;
    QString node;
    QString primaryHost; ///< nothing is published while it is offline; empty: none
    bool takesOrders = false;
    int maximumAgeMs = 10000; ///< an older order is refused
};

/// The settings as the service sends them to the process that delivers.
host::Json jsonOf(const MqttSettings& settings);
host::Json jsonOf(const SparkplugSettings& settings);
/// Throw UserError, which names the key.
MqttSettings mqttSettingsOf(const host::Json& object);
SparkplugSettings sparkplugSettingsOf(const host::Json& object);

} // namespace micro850::gateway

#endif
