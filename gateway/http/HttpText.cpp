#include "HttpText.h"

#include <QtCore/QTextCodec>

#include <algorithm>
#include <cstring>

namespace micro850::gateway {

namespace {

const int kMostParts = 16;
const int kMostFields = 100;

// -1: none.
int hexDigit(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<QString> decoded(const QByteArray& text, bool plusIsSpace)
{
    QByteArray bytes;
    bytes.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        char byte = text.at(i);
        if (byte == '%') {
            const int high = i + 2 < text.size() ? hexDigit(text.at(i + 1)) : -1;
            const int low = high >= 0 ? hexDigit(text.at(i + 2)) : -1;
            if (low < 0)
                return std::nullopt;
            byte = static_cast<char>(high * 16 + low);
            i += 2;
        } else if (byte == '+' && plusIsSpace) {
            byte = ' ';
        }
        if (byte == '\0')
            return std::nullopt;
        bytes += byte;
    }
    QTextCodec::ConverterState state(QTextCodec::IgnoreHeader);
    const int kUtf8 = 106;
    const QString result =
        QTextCodec::codecForMib(kUtf8)->toUnicode(bytes.constData(), bytes.size(), &state);
    if (state.invalidChars > 0 || state.remainingChars > 0)
        return std::nullopt;
    return result;
}

} // namespace

std::optional<QStringList> decodedPath(const QByteArray& path)
{
    if (!path.startsWith('/') || path.count('/') > kMostParts)
        return std::nullopt;
    QStringList parts;
    if (path == "/")
        return parts;
    for (const QByteArray& part : path.mid(1).split('/')) {
        const std::optional<QString> text = decoded(part, false);
        if (!text)
            return std::nullopt;
        parts += *text;
    }
    return parts;
}

std::optional<QMap<QString, QStringList>> decodedForm(const QByteArray& form)
{
    QMap<QString, QStringList> fields;
    if (form.count('&') >= kMostFields)
        return std::nullopt;
    for (const QByteArray& field : form.split('&')) {
        if (field.isEmpty())
            continue;
        const std::optional<QString> name = decoded(before(field, '='), true);
        const std::optional<QString> value = decoded(after(field, '='), true);
        if (!name || !value)
            return std::nullopt;
        fields[*name] += *value;
    }
    return fields;
}

QByteArray before(const QByteArray& text, char separator)
{
    const int at = text.indexOf(separator);
    return at < 0 ? text : text.left(at);
}

QByteArray after(const QByteArray& text, char separator)
{
    const int at = text.indexOf(separator);
    return at < 0 ? QByteArray() : text.mid(at + 1);
}

bool isHttpToken(const QByteArray& bytes)
{
    const auto isTokenByte = [](char byte) {
        const char lower = static_cast<char>(byte | 0x20);
        return (byte >= '0' && byte <= '9') || (lower >= 'a' && lower <= 'z' && byte != 0x7F) ||
               (byte != '\0' && std::strchr("!#$%&'*+-.^_`|~", byte) != nullptr);
    };
    return !bytes.isEmpty() && std::all_of(bytes.begin(), bytes.end(), isTokenByte);
}

bool isHeaderValue(const QByteArray& bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) {
        const auto code = static_cast<unsigned char>(byte);
        return byte == '\t' || (code >= 0x20 && code != 0x7F);
    });
}

} // namespace micro850::gateway
