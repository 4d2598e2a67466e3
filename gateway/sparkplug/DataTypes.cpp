#include "DataTypes.h"

#include "Elements.h"
#include "UserError.h"

#include <QtCore/QDateTime>

#include <cmath>
#include <cstring>
#include <limits>

namespace micro850::gateway::sparkplug {

namespace {

using host::GatewayValue;
using host::Json;

const quint16 kDate = 0xCD;
const quint16 kDateAndTime = 0xCF;
// The controller's days count from 1972-01-01.
const qint64 kFirstDay = 730;
const qint64 kMillisecondsOfDay = 86400000;
// The data type of an array is that of its elements and this.
const quint32 kArrayOffset = 21;
const int kBitsOfByte = 8;

bool isArray(DataType type)
{
    return type >= DataType::Int8Array;
}

DataType elementTypeOf(DataType type)
{
    return isArray(type) ? static_cast<DataType>(static_cast<quint32>(type) - kArrayOffset) : type;
}

DataType arrayTypeOf(DataType element)
{
    return static_cast<DataType>(static_cast<quint32>(element) + kArrayOffset);
}

DataType signedTypeOf(int size)
{
    return size == 1   ? DataType::Int8
           : size == 2 ? DataType::Int16
           : size == 4 ? DataType::Int32
                       : DataType::Int64;
}

DataType unsignedTypeOf(int size)
{
    return size == 1   ? DataType::UInt8
           : size == 2 ? DataType::UInt16
           : size == 4 ? DataType::UInt32
                       : DataType::UInt64;
}

DataType elementTypeOf(const CipType& type)
{
    if (type.code == kDate || type.code == kDateAndTime)
        return DataType::DateTime;
    switch (type.kind) {
    case CipKind::Boolean:
        return DataType::Boolean;
    case CipKind::Signed:
        return signedTypeOf(type.size);
    case CipKind::Unsigned:
    case CipKind::Bits:
        return unsignedTypeOf(type.size);
    case CipKind::Real:
        return type.size == 4 ? DataType::Float : DataType::Double;
    case CipKind::String:
        break;
    }
    return DataType::String;
}

/// Bytes of an element in an array, and whether it is a signed number.
struct Width
{
    int bytes;
    bool isSigned;
};

Width widthOf(DataType element)
{
    switch (element) {
    case DataType::Int8:
        return {1, true};
    case DataType::UInt8:
        return {1, false};
    case DataType::Int16:
        return {2, true};
    case DataType::UInt16:
        return {2, false};
    case DataType::Int32:
        return {4, true};
    case DataType::UInt32:
    case DataType::Float:
        return {4, false};
    case DataType::Int64:
    case DataType::DateTime:
        return {8, true};
    default:
        return {8, false};
    }
}

template<typename To, typename From> To bitsOf(From from)
{
    static_assert(sizeof(To) == sizeof(From));
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

qint64 millisecondsOf(const CipType& type, quint64 number)
{
    if (type.code == kDate)
        return (static_cast<qint64>(number) + kFirstDay) * kMillisecondsOfDay;
    const qint64 days = static_cast<qint64>((number >> 32) & 0xFFFF);
    return (days + kFirstDay) * kMillisecondsOfDay + static_cast<qint64>(number & 0xFFFFFFFF);
}

double realOf(const Json& value)
{
    // One that is not finite is a text.
    if (value.is_string())
        return QString::fromStdString(value.get<std::string>()).toDouble();
    return value.is_number() ? value.get<double>() : std::nan("");
}

/// The elements of a value. Those of an array share the type.
class ElementReader
{
public:
    ElementReader(const GatewayValue& value, DataType element)
        : m_value(value), m_element(element),
          m_bytes(isShown() ? QVector<QByteArray>() : host::elementsOf(*value.type, value.bytes))
    {
    }

    int size() const
    {
        return !isShown()                 ? m_bytes.size()
               : m_value.value.is_array() ? static_cast<int>(m_value.value.size())
                                          : 1;
    }
    /// A number, true or false, or a text.
    WireValue at(int index) const
    {
        if (isShown())
            return realOf(m_value.value.is_array()
                              ? m_value.value.at(static_cast<std::size_t>(index))
                              : m_value.value);
        return valueOf(host::decodeElement(*m_value.type, m_bytes.at(index)));
    }

private:
    // One that is scaled, and one of 64 bits, which JSON holds to the last bit.
    bool isShown() const { return m_element == DataType::Double; }
    WireValue valueOf(const CipValue& value) const
    {
        switch (value.kind()) {
        case CipKind::Boolean:
            return value.boolean();
        case CipKind::Signed:
            return integer(static_cast<quint64>(value.signedNumber()));
        case CipKind::Unsigned:
        case CipKind::Bits:
            return m_element == DataType::DateTime ? WireValue(static_cast<quint64>(millisecondsOf(
                                                         *m_value.type, value.unsignedNumber())))
                                                   : integer(value.unsignedNumber());
        case CipKind::Real:
            return value.isSingle() ? WireValue(static_cast<float>(value.number()))
                                    : WireValue(value.number());
        case CipKind::String:
            break;
        }
        return Text{host::valueText(value).toUtf8()};
    }
    WireValue integer(quint64 number) const
    {
        return widthOf(m_element).bytes == 8 ? WireValue(number)
                                             : WireValue(static_cast<quint32>(number));
    }

    const GatewayValue& m_value;
    DataType m_element;
    QVector<QByteArray> m_bytes;
};

void appendNumber(QByteArray& to, quint64 number, int size)
{
    for (int i = 0; i < size; ++i)
        to.append(static_cast<char>(number >> (kBitsOfByte * i)));
}

quint64 bitsOf(const WireValue& value)
{
    if (const auto* number = std::get_if<quint32>(&value))
        return *number;
    if (const auto* real = std::get_if<float>(&value))
        return bitsOf<quint32>(*real);
    if (const auto* real = std::get_if<double>(&value))
        return bitsOf<quint64>(*real);
    return std::get<quint64>(value);
}

// The number of elements, then a bit for each, the first one in the highest bit.
QByteArray packedBits(const ElementReader& elements)
{
    QByteArray packed;
    appendNumber(packed, static_cast<quint64>(elements.size()), 4);
    packed.append(QByteArray((elements.size() + kBitsOfByte - 1) / kBitsOfByte, 0));
    for (int i = 0; i < elements.size(); ++i) {
        const int at = 4 + i / kBitsOfByte;
        if (std::get<bool>(elements.at(i)))
            packed[at] = static_cast<char>(packed.at(at) | (0x80 >> (i % kBitsOfByte)));
    }
    return packed;
}

QByteArray packed(const ElementReader& elements, DataType element)
{
    if (element == DataType::Boolean)
        return packedBits(elements);
    QByteArray packed;
    for (int i = 0; i < elements.size(); ++i) {
        const WireValue value = elements.at(i);
        if (const auto* text = std::get_if<Text>(&value))
            packed.append(text->utf8).append('\0');
        else
            appendNumber(packed, bitsOf(value), widthOf(element).bytes);
    }
    return packed;
}

const char* nameOf(DataType element)
{
    static const char* const names[] = {"Unknown", "Int8",    "Int16",  "Int32",   "Int64",
                                        "UInt8",   "UInt16",  "UInt32", "UInt64",  "Float",
                                        "Double",  "Boolean", "String", "DateTime"};
    return names[static_cast<quint32>(element)];
}

[[noreturn]] void refuseType(DataType element)
{
    throw UserError(std::string("the value is not of its type ") + nameOf(element));
}

[[noreturn]] void refuseRange(DataType element)
{
    throw UserError(std::string("the value is outside of its type ") + nameOf(element));
}

// A signed number is as wide as its field: -1 is FFFFFFFF, also as an Int8.
Json orderedSigned(const WireValue& value, DataType element)
{
    const int bytes = widthOf(element).bytes;
    if (bytes == 8) {
        const auto* number = std::get_if<quint64>(&value);
        if (!number)
            refuseType(element);
        return static_cast<qint64>(*number);
    }
    const auto* number = std::get_if<quint32>(&value);
    if (!number)
        refuseType(element);
    const qint64 signedNumber = static_cast<qint32>(*number);
    const qint64 most = (qint64(1) << (kBitsOfByte * bytes - 1)) - 1;
    if (signedNumber > most || signedNumber < -most - 1)
        refuseRange(element);
    return signedNumber;
}

// Some peers send a UInt32 in the field of 64 bits.
Json orderedUnsigned(const WireValue& value, DataType element)
{
    const int bytes = widthOf(element).bytes;
    const auto* narrow = std::get_if<quint32>(&value);
    const auto* wide = std::get_if<quint64>(&value);
    if (bytes == 8 ? !wide : !(narrow || (wide && element == DataType::UInt32)))
        refuseType(element);
    const quint64 number = narrow ? *narrow : *wide;
    if (bytes < 8 && number >> (kBitsOfByte * bytes) != 0)
        refuseRange(element);
    return number;
}

Json orderedReal(const WireValue& value, DataType element)
{
    if (element == DataType::Float) {
        const auto* number = std::get_if<float>(&value);
        if (!number)
            refuseType(element);
        if (!std::isfinite(*number))
            throw UserError("the value is no finite number");
        // In as few digits as describe it: limits are compared with 0.1, not with the next number.
        return QString::fromStdString(CipValue::ofReal(*number).text()).toDouble();
    }
    const auto* number = std::get_if<double>(&value);
    if (!number)
        refuseType(element);
    if (!std::isfinite(*number))
        throw UserError("the value is no finite number");
    return *number;
}

// As the ISO 8601 text that a date's or a time's variable takes.
Json orderedDate(const WireValue& value, const CipType& cipType)
{
    const auto* number = std::get_if<quint64>(&value);
    if (!number)
        refuseType(DataType::DateTime);
    const qint64 milliseconds = static_cast<qint64>(*number);
    const qint64 day = milliseconds / kMillisecondsOfDay - kFirstDay;
    const bool isDay = cipType.code == kDate;
    if (milliseconds < 0 || day < 0 || day > std::numeric_limits<quint16>::max() ||
        (isDay && milliseconds % kMillisecondsOfDay != 0))
        refuseRange(DataType::DateTime);
    const QDateTime time = QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC);
    const QString text = isDay ? time.date().toString(Qt::ISODate)
                               : time.toString(QStringLiteral("yyyy-MM-ddThh:mm:ss.zzz"));
    return text.toStdString();
}

Json orderedText(const WireValue& value)
{
    const auto* text = std::get_if<Text>(&value);
    if (!text)
        refuseType(DataType::String);
    if (QString::fromUtf8(text->utf8).toUtf8() != text->utf8)
        throw UserError("the text is not UTF-8");
    return text->utf8.toStdString();
}

Json orderedElement(const WireValue& value, DataType element, const CipType& cipType)
{
    switch (element) {
    case DataType::Int8:
    case DataType::Int16:
    case DataType::Int32:
    case DataType::Int64:
        return orderedSigned(value, element);
    case DataType::Float:
    case DataType::Double:
        return orderedReal(value, element);
    case DataType::Boolean:
        if (!std::holds_alternative<bool>(value))
            refuseType(element);
        return std::get<bool>(value);
    case DataType::String:
        return orderedText(value);
    case DataType::DateTime:
        return orderedDate(value, cipType);
    default:
        return orderedUnsigned(value, element);
    }
}

quint64 numberAt(const QByteArray& bytes, int at, int size)
{
    quint64 number = 0;
    for (int i = 0; i < size; ++i)
        number |= quint64{static_cast<quint8>(bytes.at(at + i))} << (kBitsOfByte * i);
    return number;
}

// An element of a packed array as it would travel alone.
WireValue elementAt(const QByteArray& bytes, int index, DataType element)
{
    if (element == DataType::Boolean)
        return (static_cast<quint8>(bytes.at(4 + index / kBitsOfByte)) &
                (0x80 >> (index % kBitsOfByte))) != 0;
    const Width width = widthOf(element);
    const quint64 number = numberAt(bytes, index * width.bytes, width.bytes);
    if (element == DataType::Float)
        return bitsOf<float>(static_cast<quint32>(number));
    if (element == DataType::Double)
        return bitsOf<double>(number);
    if (width.bytes == 8)
        return number;
    const int unused = 32 - kBitsOfByte * width.bytes;
    const quint32 narrow = static_cast<quint32>(number);
    return width.isSigned ? static_cast<quint32>(static_cast<qint32>(narrow << unused) >> unused)
                          : narrow;
}

bool hasSize(const QByteArray& bytes, DataType element, int elements)
{
    if (element != DataType::Boolean)
        return bytes.size() == elements * widthOf(element).bytes;
    return bytes.size() == 4 + (elements + kBitsOfByte - 1) / kBitsOfByte &&
           numberAt(bytes, 0, 4) == static_cast<quint64>(elements);
}

} // namespace

DataType dataTypeOf(const CipType& type, bool isScaled, int elements)
{
    const DataType element = isScaled && isNumber(type) ? DataType::Double : elementTypeOf(type);
    return elements > 1 ? arrayTypeOf(element) : element;
}

WireValue wireValueOf(const GatewayValue& value, DataType type)
{
    if (!value.type || value.value.is_null() || value.bytes.isEmpty())
        return std::monostate{};
    const DataType element = elementTypeOf(type);
    const ElementReader elements(value, element);
    if (elements.size() == 0)
        return std::monostate{};
    if (isArray(type))
        return Packed{packed(elements, element)};
    return elements.at(0);
}

QVector<Json> orderedValues(const Metric& metric, DataType type, const CipType& cipType,
                            int elements)
{
    if (metric.isNull || std::holds_alternative<std::monostate>(metric.value))
        throw UserError("there is no value to write");
    const DataType element = elementTypeOf(type);
    if (metric.datatype && *metric.datatype != static_cast<quint32>(type))
        throw UserError("the value has the data type " + std::to_string(*metric.datatype) +
                        ", the metric has " + std::to_string(static_cast<quint32>(type)));
    if (!isArray(type))
        return {orderedElement(metric.value, element, cipType)};
    const auto* packed = std::get_if<Packed>(&metric.value);
    if (!packed)
        throw UserError("the value is not an array");
    if (!hasSize(packed->bytes, element, elements))
        throw UserError("the value is not an array of " + std::to_string(elements) + " elements");
    QVector<Json> values;
    for (int i = 0; i < elements; ++i)
        values.append(orderedElement(elementAt(packed->bytes, i, element), element, cipType));
    return values;
}

} // namespace micro850::gateway::sparkplug
