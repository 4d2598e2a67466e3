#include "DeliverySettings.h"

#include "JsonFile.h"

namespace micro850::gateway {

namespace {

using host::Json;

const int kMostPort = 65535;
const std::int64_t kMostNumber = 2147483647;

QString textIn(const JsonNode& object, const char* key)
{
    return QString::fromStdString(object.at(key).text());
}

QString textIn(const JsonNode& object, const char* key, const QString& absent)
{
    return object.has(key) ? textIn(object, key) : absent;
}

int numberIn(const JsonNode& object, const char* key, std::int64_t least, int absent)
{
    return static_cast<int>(object.integer(key, least, kMostNumber, absent));
}

Json jsonOf(const BrokerAddress& address)
{
    return {{"host", address.host.toStdString()},
            {"port", address.port},
            {"clientId", address.clientId.toStdString()},
            {"isVersion5", address.isVersion5},
            {"keepAliveSeconds", address.keepAliveSeconds},
            {"spreadMs", address.spreadMs},
            {"credentialsFile", address.credentialsFile.toStdString()},
            {"isEncrypted", address.isEncrypted},
            {"authoritiesFile", address.authoritiesFile.toStdString()},
            {"certificateFile", address.certificateFile.toStdString()},
            {"keyFile", address.keyFile.toStdString()},
            {"revokedFile", address.revokedFile.toStdString()}};
}

BrokerAddress addressOf(const JsonNode& object)
{
    BrokerAddress address;
    address.host = textIn(object, "host");
    address.port = static_cast<int>(object.integer("port", 1, kMostPort, address.port));
    address.clientId = textIn(object, "clientId", QString());
    address.isVersion5 = object.boolean("isVersion5", address.isVersion5);
    address.keepAliveSeconds = static_cast<int>(object.integer(
        "keepAliveSeconds", kLeastKeepAlive, kMostKeepAlive, address.keepAliveSeconds));
    address.spreadMs = numberIn(object, "spreadMs", 0, address.spreadMs);
    address.credentialsFile = textIn(object, "credentialsFile", QString());
    address.isEncrypted = object.boolean("isEncrypted", address.isEncrypted);
    address.authoritiesFile = textIn(object, "authoritiesFile", QString());
    address.certificateFile = textIn(object, "certificateFile", QString());
    address.keyFile = textIn(object, "keyFile", QString());
    address.revokedFile = textIn(object, "revokedFile", QString());
    return address;
}

Json jsonOf(const DeliveryQueueSettings& queue)
{
    return {{"file", queue.file.toStdString()},
            {"keepMegabytes", queue.keepMegabytes},
            {"keepHours", queue.keepHours},
            {"historyPerSecond", queue.historyPerSecond}};
}

DeliveryQueueSettings queueOf(const JsonNode& object)
{
    DeliveryQueueSettings queue;
    queue.file = textIn(object, "file");
    queue.keepMegabytes = numberIn(object, "keepMegabytes", 1, queue.keepMegabytes);
    queue.keepHours = numberIn(object, "keepHours", 1, queue.keepHours);
    queue.historyPerSecond = numberIn(object, "historyPerSecond", 1, queue.historyPerSecond);
    return queue;
}

JsonNode nodeOf(const Json& object)
{
    return JsonNode::fromText(object.dump(-1, ' ', false, Json::error_handler_t::replace),
                              "settings");
}

} // namespace

Json jsonOf(const MqttSettings& settings)
{
    return {{"broker", jsonOf(settings.broker)},
            {"queue", jsonOf(settings.queue)},
            {"prefix", settings.prefix.toStdString()},
            {"intervalMs", settings.intervalMs},
            {"statisticsSeconds", settings.statisticsSeconds},
            {"takesOrders", settings.takesOrders},
            {"maximumAgeMs", settings.maximumAgeMs},
            {"discoveryPrefix", settings.discoveryPrefix.toStdString()}};
}

Json jsonOf(const SparkplugSettings& settings)
{
    return {{"broker", jsonOf(settings.broker)},
            {"queue", jsonOf(settings.queue)},
            {"group", settings.group.toStdString()},
            {"node", settings.node.toStdString()},
            {"primaryHost", settings.primaryHost.toStdString()},
            {"takesOrders", settings.takesOrders},
            {"maximumAgeMs", settings.maximumAgeMs}};
}

MqttSettings mqttSettingsOf(const Json& object)
{
    const JsonNode node = nodeOf(object);
    MqttSettings settings;
    settings.broker = addressOf(node.at("broker"));
    settings.queue = queueOf(node.at("queue"));
    settings.prefix = textIn(node, "prefix");
    settings.intervalMs = numberIn(node, "intervalMs", 0, settings.intervalMs);
    settings.statisticsSeconds = numberIn(node, "statisticsSeconds", 1, settings.statisticsSeconds);
    settings.takesOrders = node.boolean("takesOrders", settings.takesOrders);
    settings.maximumAgeMs = numberIn(node, "maximumAgeMs", 1, settings.maximumAgeMs);
    settings.discoveryPrefix = textIn(node, "discoveryPrefix", QString());
    return settings;
}

SparkplugSettings sparkplugSettingsOf(const Json& object)
{
    const JsonNode node = nodeOf(object);
    SparkplugSettings settings;
    settings.broker = addressOf(node.at("broker"));
    settings.queue = queueOf(node.at("queue"));
    settings.group = textIn(node, "group");
    settings.node = textIn(node, "node");
    settings.primaryHost = textIn(node, "primaryHost", QString());
    settings.takesOrders = node.boolean("takesOrders", settings.takesOrders);
    settings.maximumAgeMs = numberIn(node, "maximumAgeMs", 1, settings.maximumAgeMs);
    return settings;
}

} // namespace micro850::gateway
