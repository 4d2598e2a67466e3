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

} // namespace

TagAddress TagAddress::fromText(const QString& text)
{
    static const QRegularExpression form(
        QStringLiteral("^([!-<>-Z\\\\^-~]+)(?:\\[(\\d+)(?:\\.\\.(\\d+))?\\])?$"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch() || match.captured(1).size() > kLongestTag) {
        throw UserError('"' + text.toStdString() +
                        "\" is not a tag (write TAG, TAG[INDEX] or TAG[FIRST..LAST])");
    }
    TagAddress address;
    address.tag = match.captured(1);
    if (match.captured(2).isEmpty())
        return address;
    address.indexed = true;
    address.element = indexOf(match.captured(2), text);
    if (match.captured(3).isEmpty())
        return address;
    const int last = indexOf(match.captured(3), text);
    if (last < address.element) {
        throw UserError('"' + text.toStdString() +
                        "\": the last index is before the first (write TAG[FIRST..LAST])");
    }
    address.elements = last - address.element + 1;
    return address;
}

QString TagAddress::elementName(int offset) const
{
    return indexed ? QStringLiteral("%1[%2]").arg(tag, QString::number(element + offset)) : tag;
}

QString TagAddress::text() const
{
    if (elements == 1)
        return elementName(0);
    return QStringLiteral("%1[%2..%3]")
        .arg(tag, QString::number(element), QString::number(element + elements - 1));
}

QStringList Assignment::valuesFor(const TagAddress& elements) const
{
    if (elements.elements == 1)
        return {value};
    QStringList values = value.split(',');
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

Assignment Assignment::fromText(const QString& text)
{
    const int at = text.indexOf('=');
    if (at < 0) {
        throw UserError('"' + text.toStdString() +
                        "\" is not a write (write TAG=VALUE or TAG[INDEX]=VALUE)");
    }
    Assignment assignment;
    assignment.address = TagAddress::fromText(text.left(at));
    assignment.value = text.mid(at + 1);
    return assignment;
}

} // namespace micro850::host
