#include "Elements.h"

#include "DateText.h"
#include "DurationText.h"
#include "UserError.h"
#include "Visible.h"

#include <algorithm>
#include <cctype>
#include <optional>

namespace micro850::host {

namespace {

[[noreturn]] void refuse(const CipType& type, const QString& text, const std::string& allowed)
{
    throw UserError('"' + text.toStdString() + "\" is not a value of type " + type.name + " (" +
                    allowed + ')');
}

const int kHexadecimal = 16;

// The number that only these hexadecimal digits describe; nothing for other characters.
std::optional<ushort> hexadecimal(const QStringRef& digits)
{
    const auto isDigit = [](QChar c) { return c.unicode() < 0x80 && std::isxdigit(c.unicode()); };
    if (digits.isEmpty() || !std::all_of(digits.begin(), digits.end(), isDigit))
        return std::nullopt;
    return digits.toUShort(nullptr, kHexadecimal);
}

// The character after a backslash, at `at`, which goes on to the next one.
QChar escapedCharacter(const CipType& type, const QString& text, int& at)
{
    const QString codes = QStringLiteral("\"\\nrt");
    const QString meant = QStringLiteral("\"\\\n\r\t");
    const QChar code = at < text.size() ? text.at(at) : QChar();
    const int simple = codes.indexOf(code);
    const int digits = code == 'x' ? 2 : code == 'u' ? 4 : 0;
    const std::optional<ushort> number = hexadecimal(text.midRef(at + 1, digits));
    if ((simple < 0 && !number) || at + digits >= text.size() - 1)
        refuse(type, text, R"(in double quotes, with \" \\ \n \r \t \xHH and \uHHHH)");
    at += 1 + digits;
    return simple >= 0 ? meant.at(simple) : QChar(*number);
}

// The characters of a value in double quotes, as it is shown when it has some that must not be
// seen.
QString unquoted(const CipType& type, const QString& text)
{
    QString characters;
    int at = 1;
    while (at < text.size() && text.at(at) != '"') {
        const QChar next = text.at(at++);
        characters += next == '\\' ? escapedCharacter(type, text, at) : next;
    }
    if (at != text.size() - 1)
        refuse(type, text, "a text that begins with a double quote ends with its second one");
    return characters;
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

CipValue parseElement(const CipType& type, const QString& given)
{
    const bool quoted = type.kind == CipKind::String && given.startsWith('"');
    const QString text = quoted ? unquoted(type, given) : given;
    const bool fits =
        std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() <= 0xFF; });
    if (!fits)
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
    if (type.kind == CipKind::String)
        return visibleValue(valueText(value));
    const int perUnit = microsecondsPerUnit(type);
    return perUnit == 0 ? valueText(isoValue(type, value))
                        : QString::fromStdString(durationText(value.signedNumber() * perUnit));
}

} // namespace micro850::host
