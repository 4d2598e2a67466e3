#include "Payload.h"

#include <deque>
#include <memory>
#include <sparkplug.pb-c.h>
#include <vector>

namespace micro850::gateway::sparkplug {

namespace {

using WireMetric = Micro850__Sparkplug__Metric;
using WirePayload = Micro850__Sparkplug__Payload;
using WirePropertySet = Micro850__Sparkplug__PropertySet;
using WirePropertyValue = Micro850__Sparkplug__PropertyValue;

// The library has no pointers to constant bytes; it only reads them.
ProtobufCBinaryData binary(const QByteArray& bytes)
{
    return {static_cast<std::size_t>(bytes.size()),
            reinterpret_cast<std::uint8_t*>(const_cast<char*>(bytes.constData()))};
}

ProtobufCBinaryData binary(const char* text)
{
    return {qstrlen(text), reinterpret_cast<std::uint8_t*>(const_cast<char*>(text))};
}

QByteArray bytesOf(const ProtobufCBinaryData& data)
{
    return QByteArray(reinterpret_cast<const char*>(data.data), static_cast<int>(data.len));
}

/// Puts a value into the fields of a message.
struct MetricWriter
{
    WireMetric& to;

    void operator()(std::monostate) const {}
    void operator()(quint32 value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_INT_VALUE;
        to.int_value = value;
    }
    void operator()(quint64 value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_LONG_VALUE;
        to.long_value = value;
    }
    void operator()(float value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_FLOAT_VALUE;
        to.float_value = value;
    }
    void operator()(double value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_DOUBLE_VALUE;
        to.double_value = value;
    }
    void operator()(bool value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_BOOLEAN_VALUE;
        to.boolean_value = value;
    }
    void operator()(const Text& value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_STRING_VALUE;
        to.string_value = binary(value.utf8);
    }
    void operator()(const Packed& value) const
    {
        to.value_case = MICRO850__SPARKPLUG__METRIC__VALUE_BYTES_VALUE;
        to.bytes_value = binary(value.bytes);
    }
    void operator()(Unsupported) const {}
};

struct PropertyWriter
{
    WirePropertyValue& to;

    void operator()(quint32 value) const
    {
        to.value_case = MICRO850__SPARKPLUG__PROPERTY_VALUE__VALUE_INT_VALUE;
        to.int_value = value;
    }
    void operator()(double value) const
    {
        to.value_case = MICRO850__SPARKPLUG__PROPERTY_VALUE__VALUE_DOUBLE_VALUE;
        to.double_value = value;
    }
    void operator()(bool value) const
    {
        to.value_case = MICRO850__SPARKPLUG__PROPERTY_VALUE__VALUE_BOOLEAN_VALUE;
        to.boolean_value = value;
    }
    void operator()(const Text& value) const
    {
        to.value_case = MICRO850__SPARKPLUG__PROPERTY_VALUE__VALUE_STRING_VALUE;
        to.string_value = binary(value.utf8);
    }
    template<typename Other> void operator()(const Other&) const
    {
        to.has_is_null = 1;
        to.is_null = 1;
    }
};

/// The properties of a metric in the library's form, which points into this and into the metric.
class Properties
{
public:
    explicit Properties(const QVector<Property>& properties)
    {
        micro850__sparkplug__property_set__init(&m_set);
        m_values.reserve(static_cast<std::size_t>(properties.size()));
        for (const Property& property : properties) {
            m_keys.push_back(binary(property.key));
            m_values.emplace_back();
            WirePropertyValue& value = m_values.back();
            micro850__sparkplug__property_value__init(&value);
            value.has_type = 1;
            value.type = static_cast<quint32>(property.type);
            std::visit(PropertyWriter{value}, property.value);
            m_pointers.push_back(&value);
        }
        m_set.n_keys = m_keys.size();
        m_set.keys = m_keys.data();
        m_set.n_values = m_pointers.size();
        m_set.values = m_pointers.data();
    }
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    WirePropertySet* set() { return &m_set; }

private:
    std::vector<ProtobufCBinaryData> m_keys;
    std::vector<WirePropertyValue> m_values;
    std::vector<WirePropertyValue*> m_pointers;
    WirePropertySet m_set{};
};

void fill(WireMetric& to, const Metric& metric)
{
    micro850__sparkplug__metric__init(&to);
    to.has_name = !metric.name.isEmpty();
    to.name = binary(metric.name);
    to.has_alias = metric.alias.has_value();
    to.alias = metric.alias.value_or(0);
    to.has_timestamp = metric.timestamp.has_value();
    to.timestamp = metric.timestamp.value_or(0);
    to.has_datatype = metric.datatype.has_value();
    to.datatype = metric.datatype.value_or(0);
    to.has_is_historical = metric.isHistorical;
    to.is_historical = metric.isHistorical;
    to.has_is_null = metric.isNull;
    to.is_null = metric.isNull;
    std::visit(MetricWriter{to}, metric.value);
}

WireValue valueOf(const WireMetric& metric)
{
    switch (metric.value_case) {
    case MICRO850__SPARKPLUG__METRIC__VALUE_INT_VALUE:
        return quint32{metric.int_value};
    case MICRO850__SPARKPLUG__METRIC__VALUE_LONG_VALUE:
        return quint64{metric.long_value};
    case MICRO850__SPARKPLUG__METRIC__VALUE_FLOAT_VALUE:
        return metric.float_value;
    case MICRO850__SPARKPLUG__METRIC__VALUE_DOUBLE_VALUE:
        return metric.double_value;
    case MICRO850__SPARKPLUG__METRIC__VALUE_BOOLEAN_VALUE:
        return metric.boolean_value != 0;
    case MICRO850__SPARKPLUG__METRIC__VALUE_STRING_VALUE:
        return Text{bytesOf(metric.string_value)};
    case MICRO850__SPARKPLUG__METRIC__VALUE_BYTES_VALUE:
        return Packed{bytesOf(metric.bytes_value)};
    case MICRO850__SPARKPLUG__METRIC__VALUE_DATASET_VALUE:
    case MICRO850__SPARKPLUG__METRIC__VALUE_TEMPLATE_VALUE:
        return Unsupported{};
    default:
        return std::monostate{};
    }
}

template<typename Field> std::optional<Field> optionalOf(protobuf_c_boolean has, Field value)
{
    return has ? std::make_optional(value) : std::nullopt;
}

Metric metricOf(const WireMetric& from)
{
    Metric metric;
    if (from.has_name)
        metric.name = bytesOf(from.name);
    metric.alias = optionalOf<quint64>(from.has_alias, from.alias);
    metric.timestamp = optionalOf<quint64>(from.has_timestamp, from.timestamp);
    metric.datatype = optionalOf<quint32>(from.has_datatype, from.datatype);
    metric.isHistorical = from.has_is_historical && from.is_historical;
    metric.isNull = from.has_is_null && from.is_null;
    metric.value = valueOf(from);
    return metric;
}

} // namespace

QByteArray encoded(const Payload& payload)
{
    const std::size_t count = static_cast<std::size_t>(payload.metrics.size());
    std::vector<WireMetric> metrics(count);
    std::vector<WireMetric*> pointers(count);
    std::deque<Properties> properties;
    for (std::size_t i = 0; i < count; ++i) {
        const Metric& metric = payload.metrics.at(static_cast<int>(i));
        fill(metrics[i], metric);
        if (!metric.properties.isEmpty())
            metrics[i].properties = properties.emplace_back(metric.properties).set();
        pointers[i] = &metrics[i];
    }
    WirePayload message;
    micro850__sparkplug__payload__init(&message);
    message.has_timestamp = payload.timestamp.has_value();
    message.timestamp = payload.timestamp.value_or(0);
    message.has_seq = payload.seq.has_value();
    message.seq = payload.seq.value_or(0);
    message.n_metrics = count;
    message.metrics = pointers.data();
    QByteArray bytes(static_cast<int>(micro850__sparkplug__payload__get_packed_size(&message)), 0);
    micro850__sparkplug__payload__pack(&message, reinterpret_cast<std::uint8_t*>(bytes.data()));
    return bytes;
}

std::optional<Payload> decoded(const QByteArray& bytes)
{
    if (bytes.size() > kLongestCommand)
        return std::nullopt;
    struct Free
    {
        void operator()(WirePayload* message) const
        {
            micro850__sparkplug__payload__free_unpacked(message, nullptr);
        }
    };
    const std::unique_ptr<WirePayload, Free> message(micro850__sparkplug__payload__unpack(
        nullptr, static_cast<std::size_t>(bytes.size()),
        reinterpret_cast<const std::uint8_t*>(bytes.constData())));
    if (!message)
        return std::nullopt;
    Payload payload;
    payload.timestamp = optionalOf<quint64>(message->has_timestamp, message->timestamp);
    payload.seq = optionalOf<quint64>(message->has_seq, message->seq);
    payload.metrics.reserve(static_cast<int>(message->n_metrics));
    for (std::size_t i = 0; i < message->n_metrics; ++i)
        payload.metrics.append(metricOf(*message->metrics[i]));
    return payload;
}

} // namespace micro850::gateway::sparkplug
