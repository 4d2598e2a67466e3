#ifndef MICRO850_GATEWAY_SPARKPLUG_MESSAGES_H
#define MICRO850_GATEWAY_SPARKPLUG_MESSAGES_H

// What the messages of an edge node hold.

#include "DeliverySettings.h"
#include "NodeModel.h"

namespace micro850::gateway::sparkplug {

constexpr const char* kBdSeq = "bdSeq";
constexpr const char* kRebirth = "Node Control/Rebirth";

/// "spBv1.0/GROUP/NBIRTH/NODE" or "spBv1.0/GROUP/DBIRTH/NODE/DEVICE".
QByteArray topicOf(const SparkplugSettings& settings, const char* type,
                   const QByteArray& device = QByteArray());

/// `now` is in milliseconds since 1970 UTC, as every time here.
Payload nodeDeath(int bdSeq, qint64 now);
QVector<Metric> nodeBirth(std::vector<StateMetrics>& states, int bdSeq, qint64 now);
/// With what is known of every variable; those whose type is not known are left out.
QVector<Metric> deviceBirth(const Device& device, qint64 now);

/// A value for a metric that is born, and since when it is so.
Metric dataOf(const VariableMetric& metric, const host::GatewayValue& value, bool isHistorical,
              qint64 time);
/// The two metrics of a state.
QVector<Metric> dataOf(const StateMetrics& metrics, const QString& state, const QString& text,
                       bool isHistorical, qint64 time);

} // namespace micro850::gateway::sparkplug

#endif
