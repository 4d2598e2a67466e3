#include "Elements.h"

#include "DateText.h"
#include "DurationText.h"
#include "UserError.h"

namespace micro850::host {

namespace {

[[noreturn]] void refuse(const CipType& type, const QString& text, const std::string& allowed)
{
    throw UserError('"' + text.toStdString() + "\" is not a value of type " + type.name + " (" +
                    allowed + ')');
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
    if (QString::fromLatin1(text.toLatin1()) != text)
        refuse(type, text, "characters up to U+00FF");
    return CipValue::parse(type, text.toLatin1().toStdString());
}

QString valueText(const CipValue& value)
{
    const std::string text = value.text();
    return QString::fromLatin1(text.data(), static_cast<int>(text.size())); // also behind a 00
}

CipValue isoValue(const CipType& type, const CipValue& value)
{
    if (!dateExample(type))
        return value;
    const std::optional<std::string> date = dateText(type, value.unsignedNumber());
    return date ? CipValue::ofText(*date) : value;
}

QString shownText(const CipType& type, const CipValue& value)
{
    const int perUnit = microsecondsPerUnit(type);
    return perUnit == 0 ? valueText(isoValue(type, value))
                        : QString::fromStdString(durationText(value.signedNumber() * perUnit));
}

} // namespace micro850::host
