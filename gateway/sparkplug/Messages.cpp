#include "Messages.h"

namespace micro850::gateway::sparkplug {

namespace {

using host::GatewayValue;
using host::Quality;

const quint32 kBad = 0;
const quint32 kGood = 192;
const quint32 kStale = 500;

Metric bdSeqMetric(int bdSeq, qint64 now)
{
    Metric metric;
    metric.name = kBdSeq;
    metric.timestamp = static_cast<quint64>(now);
    metric.datatype = static_cast<quint32>(DataType::Int64);
    metric.value = static_cast<quint64>(bdSeq);
    return metric;
}

// Without an alias: a host that knows nothing of the node asks by its name.
Metric rebirthMetric(qint64 now)
{
    Metric metric;
    metric.name = kRebirth;
    metric.timestamp = static_cast<quint64>(now);
    metric.datatype = static_cast<quint32>(DataType::Boolean);
    metric.value = false;
    return metric;
}

Property qualityOf(Quality quality)
{
    const quint32 number = quality == Quality::Good    ? kGood
                           : quality == Quality::Stale ? kStale
                                                       : kBad;
    return {"Quality", DataType::Int32, number};
}

void setValue(Metric& metric, WireValue value)
{
    metric.isNull = std::holds_alternative<std::monostate>(value);
    metric.value = std::move(value);
}

// No value of a station that does not answer is fresh.
Quality birthQuality(const VariableMetric& metric)
{
    const Quality quality = metric.latest.quality;
    return quality == Quality::Good && !metric.device->isConnected ? Quality::Stale : quality;
}

QVector<Property> birthProperties(const VariableMetric& metric)
{
    const CatalogueVariable& variable = metric.variable;
    QVector<Property> properties{qualityOf(birthQuality(metric)),
                                 {"readOnly", DataType::Boolean, !variable.isWritable}};
    if (!variable.unit.isEmpty())
        properties.append({"engUnit", DataType::String, Text{variable.unit.toUtf8()}});
    if (variable.minimum)
        properties.append({"engLow", DataType::Double, *variable.minimum});
    if (variable.maximum)
        properties.append({"engHigh", DataType::Double, *variable.maximum});
    return properties;
}

Metric textMetric(quint64 alias, const QString& text, bool isHistorical, qint64 time)
{
    Metric metric;
    metric.alias = alias;
    metric.timestamp = static_cast<quint64>(time);
    metric.isHistorical = isHistorical;
    metric.value = Text{text.toUtf8()};
    return metric;
}

// The type of a value that was kept can be an earlier one than that of the birth.
DataType typeOf(const VariableMetric& metric, const GatewayValue& value)
{
    const DataType born = metric.born ? metric.born->type : metric.dataType();
    if (!value.type)
        return born;
    const CatalogueVariable& variable = metric.variable;
    const int elements = value.value.is_array() ? 2 : variable.length;
    return dataTypeOf(*value.type, variable.isScaled, elements);
}

} // namespace

QByteArray topicOf(const SparkplugSettings& settings, const char* type, const QByteArray& device)
{
    QByteArray topic = "spBv1.0/" + settings.group.toUtf8() + '/' + type + '/';
    topic += settings.node.toUtf8();
    return device.isEmpty() ? topic : topic + '/' + device;
}

Payload nodeDeath(int bdSeq, qint64 now)
{
    Payload payload;
    payload.timestamp = static_cast<quint64>(now);
    payload.metrics = {bdSeqMetric(bdSeq, now)};
    return payload;
}

QVector<Metric> nodeBirth(std::vector<StateMetrics>& states, int bdSeq, qint64 now)
{
    QVector<Metric> metrics{bdSeqMetric(bdSeq, now), rebirthMetric(now)};
    for (const StateMetrics& state : states) {
        QVector<Metric> both =
            dataOf(state, state.state, state.text, false, state.isKnown ? state.time : now);
        both[0].name = state.stateName;
        both[1].name = state.textName;
        for (Metric& metric : both) {
            metric.datatype = static_cast<quint32>(DataType::String);
            if (!state.isKnown)
                setValue(metric, std::monostate{});
            metrics.append(metric);
        }
    }
    return metrics;
}

QVector<Metric> deviceBirth(const Device& device, qint64 now)
{
    QVector<Metric> metrics;
    for (const auto& variable : device.metrics) {
        if (!variable->type)
            continue;
        Metric metric;
        metric.name = variable->name;
        metric.alias = variable->alias;
        metric.timestamp = static_cast<quint64>(variable->latestTime.value_or(now));
        metric.datatype = static_cast<quint32>(variable->dataType());
        setValue(metric, wireValueOf(variable->latest, variable->dataType()));
        metric.properties = birthProperties(*variable);
        metrics.append(metric);
    }
    return metrics;
}

Metric dataOf(const VariableMetric& variable, const GatewayValue& value, bool isHistorical,
              qint64 time)
{
    const DataType type = typeOf(variable, value);
    Metric metric;
    metric.alias = variable.alias;
    metric.timestamp = static_cast<quint64>(time);
    metric.isHistorical = isHistorical;
    if (variable.born && variable.born->type != type)
        metric.datatype = static_cast<quint32>(type);
    setValue(metric, wireValueOf(value, type));
    if (value.quality != Quality::Good || (!isHistorical && !variable.toldGood))
        metric.properties = {qualityOf(value.quality)};
    return metric;
}

QVector<Metric> dataOf(const StateMetrics& metrics, const QString& state, const QString& text,
                       bool isHistorical, qint64 time)
{
    return {textMetric(metrics.stateAlias, state, isHistorical, time),
            textMetric(metrics.textAlias, text, isHistorical, time)};
}

} // namespace micro850::gateway::sparkplug
