#ifndef MICRO850_GATEWAY_SPARKPLUG_PAYLOAD_H
#define MICRO850_GATEWAY_SPARKPLUG_PAYLOAD_H

#include <QtCore/QByteArray>
#include <QtCore/QVector>

#include <optional>
#include <variant>

namespace micro850::gateway::sparkplug {

/// What a value is, as births tell it.
enum class DataType : quint32 {
    Unknown = 0,
    Int8 = 1,
    Int16 = 2,
    Int32 = 3,
    Int64 = 4,
    UInt8 = 5,
    UInt16 = 6,
    UInt32 = 7,
    UInt64 = 8,
    Float = 9,
    Double = 10,
    Boolean = 11,
    String = 12,
    DateTime = 13,
    Int8Array = 22,
    Int16Array = 23,
    Int32Array = 24,
    Int64Array = 25,
    UInt8Array = 26,
    UInt16Array = 27,
    UInt32Array = 28,
    UInt64Array = 29,
    FloatArray = 30,
    DoubleArray = 31,
    BooleanArray = 32,
    StringArray = 33,
    DateTimeArray = 34
};

/// UTF-8.
struct Text
{
    QByteArray utf8;
};
/// The elements of an array.
struct Packed
{
    QByteArray bytes;
};
/// A data set or a template.
struct Unsupported
{
};

/// A value as it travels; nothing where there is none. Signed numbers are two's complement in the
/// unsigned ones.
using WireValue =
    std::variant<std::monostate, quint32, quint64, float, double, bool, Text, Packed, Unsupported>;

struct Property
{
    const char* key;
    DataType type;
    WireValue value; ///< a number, true or false, or a text
};

struct Metric
{
    QByteArray name; ///< UTF-8; empty: not given
    std::optional<quint64> alias;
    std::optional<quint64> timestamp; ///< milliseconds since 1970 UTC
    std::optional<quint32> datatype;  ///< of what comes: any number
    bool isHistorical = false;
    bool isNull = false;
    WireValue value;
    QVector<Property> properties; ///< only sent, passed over in what comes
};

struct Payload
{
    std::optional<quint64> timestamp; ///< milliseconds since 1970 UTC
    std::optional<quint64> seq;
    QVector<Metric> metrics;
};

QByteArray encoded(const Payload& payload);

/// A longer command is not looked at: what it decodes to would take a hundred times its memory.
const int kLongestCommand = 64 * 1024;
/// Nothing for bytes that are no payload, or are more than kLongestCommand.
std::optional<Payload> decoded(const QByteArray& bytes);

} // namespace micro850::gateway::sparkplug

#endif
