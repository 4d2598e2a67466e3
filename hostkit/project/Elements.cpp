#include "Elements.h"

#include "DurationText.h"
#include "UserError.h"

namespace micro850::host {

namespace {

[[noreturn]] void refuse(const CipType& type, const QString& text, const std::string& allowed)
{
    throw UserError('"' + text.toStdString() + "\" is not a value of type " + type.name + " (" +
                    allowed + ')');
}

// Text that every type can parse: a duration becomes the number of the type's units.
std::string plainText(const CipType& type, const QString& text)
{
    const int perUnit = microsecondsPerUnit(type);
    const bool isDuration = perUnit != 0 && text.contains('P');
    if (!isDuration) {
        if (QString::fromLatin1(text.toLatin1()) != text)
            refuse(type, text, "characters up to U+00FF");
        return text.toLatin1().toStdString();
    }
    const std::optional<std::int64_t> microseconds = parseDuration(text.toStdString());
    if (!microseconds || *microseconds % perUnit != 0) {
        refuse(type, text,
               std::string("an ISO 8601 duration of whole ") +
                   (perUnit == 1 ? "microseconds" : "milliseconds") +
                   ", such as PT2.5S or P1DT12H");
    }
    return std::to_string(*microseconds / perUnit);
}

} // namespace

QVector<QByteArray> elementsOf(const CipType& type, const QByteArray& bytes)
{
    QVector<QByteArray> elements;
    if (type.kind == CipKind::String) {
        elements.append(bytes);
        return elements;
    }
    for (int at = 0; at + type.size <= bytes.size(); at += type.size)
        elements.append(bytes.mid(at, type.size));
    return elements;
}

CipValue decodeElement(const CipType& type, const QByteArray& element)
{
    return CipValue::decode(type, reinterpret_cast<const std::uint8_t*>(element.constData()),
                            static_cast<std::size_t>(element.size()));
}

QByteArray encodeElement(const CipType& type, const CipValue& value)
{
    const Bytes bytes = value.encode(type);
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

CipValue parseElement(const CipType& type, const QString& text)
{
    return CipValue::parse(type, plainText(type, text));
}

QString valueText(const CipValue& value)
{
    return QString::fromLatin1(QByteArray::fromStdString(value.text()));
}

QString shownText(const CipType& type, const CipValue& value)
{
    const int perUnit = microsecondsPerUnit(type);
    return perUnit == 0 ? valueText(value)
                        : QString::fromStdString(durationText(value.signedNumber() * perUnit));
}

} // namespace micro850::host
