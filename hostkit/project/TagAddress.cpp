#include "TagAddress.h"

#include "UserError.h"

#include <QtCore/QRegularExpression>

#include <algorithm>

namespace micro850::host {

bool isPlain(const QString& tag)
{
    return std::all_of(tag.begin(), tag.end(), [](QChar c) {
        return c.unicode() > 0x20 && c.unicode() < 0x7F && c != '[' && c != ']' && c != '=';
    });
}

namespace {

// The widest types have 64 bits.
const int kLargestBit = 63;

// The parts of a text.
struct NamedPart
{
    QString name;
    QString index; ///< "[3]", "[0..9]", "[5..]", "[]" or nothing
    QString bit;   ///< ".3" or nothing
};

bool knows(const IsName& isName, const QString& name)
{
    return isName && isName(name);
}

int indexOf(const QString& digits, const QString& text)
{
    bool good = false;
    const int index = digits.toInt(&good);
    if (!good || index > kLargestElement) {
        throw UserError('"' + text.toStdString() + "\": the index " + digits.toStdString() +
                        " is not allowed (0 to " + std::to_string(kLargestElement) + ")");
    }
    return index;
}

[[noreturn]] void refuseTag(const QString& text)
{
    throw UserError('"' + text.toStdString() +
                    "\" is not a tag (write TAG, TAG[INDEX] or TAG[FIRST..LAST])");
}

[[noreturn]] void refuseWrite(const QString& text)
{
    throw UserError('"' + text.toStdString() +
                    "\" is not a write (write TAG=VALUE or TAG[INDEX]=VALUE)");
}

// Where the bit at the end of a text begins: at its last dot, or at its end when it has none.
int beginOfBit(const QString& text)
{
    static const QRegularExpression atEnd(QStringLiteral("\\.[0-9]+\\z"));
    const bool endsWithDigit = !text.isEmpty() && text.at(text.size() - 1).isDigit();
    const int at = endsWithDigit ? text.lastIndexOf('.') : -1;
    return at >= 0 && atEnd.match(text, at).hasMatch() ? at : text.size();
}

// The text without the index at its end.
NamedPart splitIndex(const QString& text)
{
    static const QRegularExpression atEnd(QStringLiteral("\\[(?:[0-9]+(?:\\.\\.[0-9]*)?)?\\]\\z"));
    const int at = text.endsWith(']') ? text.lastIndexOf('[') : -1;
    if (at < 0 || !atEnd.match(text, at).hasMatch())
        return {text, QString(), QString()};
    return {text.left(at), text.mid(at), QString()};
}

// The text without index and bit at its end, unless they belong to the name of a variable.
NamedPart splitName(const QString& text, const IsName& isName)
{
    if (knows(isName, text))
        return {text, QString(), QString()};
    const int at = beginOfBit(text);
    const QString whole = text.left(at);
    NamedPart part =
        knows(isName, whole) ? NamedPart{whole, QString(), QString()} : splitIndex(whole);
    part.bit = text.mid(at);
    return part;
}

// Where the closing quote of a text that begins with a quote is, or -1.
int closingQuote(const QString& text)
{
    for (int at = 1; at < text.size(); ++at) {
        if (text.at(at) == '"')
            return at;
        at += text.at(at) == '\\' ? 1 : 0;
    }
    return -1;
}

// What stands between the quotes.
QString unquoted(const QString& text)
{
    QString name;
    for (int at = 0; at < text.size(); ++at) {
        if (text.at(at) == '\\' && at + 1 < text.size())
            ++at;
        name += text.at(at);
    }
    return name;
}

int bitOf(const QString& digits, const QString& text)
{
    bool good = false;
    const int bit = digits.toInt(&good);
    if (!good || bit > kLargestBit) {
        throw UserError('"' + text.toStdString() + "\": no type has a bit " + digits.toStdString() +
                        " (0 to " + std::to_string(kLargestBit) +
                        "; a name that ends in .NUMBER stands in double quotes)");
    }
    return bit;
}

QString quoted(QString name)
{
    name.replace('\\', QLatin1String("\\\\")).replace('"', QLatin1String("\\\""));
    return '"' + name + '"';
}

TagAddress addressOf(const NamedPart& part, const QString& text, const IsName& isName)
{
    static const QRegularExpression form(
        QStringLiteral("^\\[(?:([0-9]+)(?:(\\.\\.)([0-9]*))?)?\\]$"));
    const bool isTag =
        !part.name.isEmpty() && part.name.size() <= kLongestTag && isPlain(part.name);
    if (!isTag && !knows(isName, part.name))
        refuseTag(text);
    TagAddress address;
    address.tag = part.name;
    address.looksLikeBit = beginOfBit(part.name) < part.name.size() && !knows(isName, part.name);
    if (!part.bit.isEmpty())
        address.bit = bitOf(part.bit.mid(1), text);
    if (part.index.isEmpty())
        return address;
    const QRegularExpressionMatch index = form.match(part.index);
    if (!index.hasMatch())
        refuseTag(text);
    address.indexed = true;
    address.toEnd = index.captured(3).isEmpty() &&
                    (index.captured(1).isEmpty() || !index.captured(2).isEmpty());
    if (!index.captured(1).isEmpty())
        address.element = indexOf(index.captured(1), text);
    if (index.captured(3).isEmpty())
        return address;
    const int last = indexOf(index.captured(3), text);
    if (last < address.element) {
        throw UserError('"' + text.toStdString() +
                        "\": the last index is before the first (write TAG[FIRST..LAST])");
    }
    address.elements = last - address.element + 1;
    return address;
}

// The longest name of a variable that is followed by "=" or by an index and "=".
int equalsSignAfterName(const QString& text, const IsName& isName)
{
    int found = text.indexOf('=');
    int longest = -1;
    for (int at = found; isName && at >= 0; at = text.indexOf('=', at + 1)) {
        const QString left = text.left(at);
        for (const QString& name : {left, splitName(left, isName).name}) {
            if (name.size() > longest && isName(name)) {
                longest = name.size();
                found = at;
            }
        }
    }
    return found;
}

QString nameText(const TagAddress& address)
{
    return address.looksLikeBit ? quoted(address.tag) : shownName(address.tag);
}

QString bitText(const TagAddress& address)
{
    return address.bit >= 0 ? '.' + QString::number(address.bit) : QString();
}

// What stands behind the name of one element.
QString elementText(const TagAddress& address, int offset)
{
    const QString element = QString::number(address.element + offset);
    return (address.indexed ? '[' + element + ']' : QString()) + bitText(address);
}

// What stands behind the name of all elements.
QString addressText(const TagAddress& address)
{
    if (address.elements == 1 && !address.toEnd)
        return elementText(address, 0);
    QString range;
    if (!address.toEnd || address.element > 0)
        range = QString::number(address.element) + QStringLiteral("..");
    if (!address.toEnd)
        range += QString::number(address.element + address.elements - 1);
    return '[' + range + ']' + bitText(address);
}

// Without an index, one value could be meant for the first element only.
[[noreturn]] void refuseValues(const TagAddress& all, const QStringList& values)
{
    const bool one = values.size() == 1;
    const QString count =
        one ? QStringLiteral("1 value is") : QStringLiteral("%1 values are").arg(values.size());
    const bool few = values.size() < all.elements;
    const QString example = one ? values.first() : QStringLiteral("VALUE");
    throw UserError((shownName(all.tag) + QStringLiteral(": has %1 elements: ").arg(all.elements) +
                     count + QLatin1String(few ? " not enough" : " too many") +
                     QStringLiteral(" (write ") + all.text() + '=' + example +
                     QStringLiteral(" for all, or one value for each)"))
                        .toStdString());
}

} // namespace

QString shownName(const QString& name)
{
    const bool clear = !name.isEmpty() && !name.startsWith('"') && name.trimmed() == name &&
                       !name.contains('=') && !name.contains('[') && !name.contains(']') &&
                       !name.contains(QLatin1String(": "));
    return clear ? name : quoted(name);
}

TagAddress TagAddress::fromText(const QString& text, const IsName& isName)
{
    if (!text.startsWith('"'))
        return addressOf(splitName(text, isName), text, isName);
    const int end = closingQuote(text);
    if (end < 0)
        refuseTag(text);
    const QString behind = text.mid(end + 1);
    const int bit = beginOfBit(behind);
    return addressOf({unquoted(text.mid(1, end - 1)), behind.left(bit), behind.mid(bit)}, text,
                     isName);
}

QString TagAddress::elementName(int offset) const
{
    return nameText(*this) + elementText(*this, offset);
}

QString TagAddress::exactElementName(int offset) const
{
    return tag + elementText(*this, offset);
}

QString TagAddress::text() const
{
    return nameText(*this) + addressText(*this);
}

QString TagAddress::exactText() const
{
    return tag + addressText(*this);
}

QStringList Assignment::valuesFor(const TagAddress& elements) const
{
    if (elements.elements == 1)
        return {value};
    QStringList values = value.split(',');
    if (!address.indexed && values.size() != elements.elements)
        refuseValues(elements, values);
    if (values.size() == 1) {
        while (values.size() < elements.elements)
            values.append(value);
    }
    if (values.size() == elements.elements)
        return values;
    throw UserError('"' + elements.text().toStdString() + '=' + value.toStdString() +
                    "\": " + std::to_string(values.size()) + " values for " +
                    std::to_string(elements.elements) +
                    " elements (write one for all, or one for each)");
}

Assignment Assignment::fromText(const QString& text, const IsName& isName)
{
    Assignment assignment;
    const int quote = text.startsWith('"') ? closingQuote(text) : 0;
    const int at = quote > 0 ? text.indexOf('=', quote) : equalsSignAfterName(text, isName);
    if (at < 0 || quote < 0)
        refuseWrite(text);
    assignment.address = TagAddress::fromText(text.left(at), isName);
    assignment.value = text.mid(at + 1);
    return assignment;
}

} // namespace micro850::host
