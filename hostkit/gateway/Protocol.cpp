#include "Protocol.h"

#include "Message.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QDate>
#include <QtCore/QTime>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace micro850::host {

namespace {

Quality qualityOf(const QString& text)
{
    for (const Quality quality : {Quality::Never, Quality::Good, Quality::Stale}) {
        if (qualityText(quality) == text)
            return quality;
    }
    throw UserError("quality: " + inQuotes(text.toStdString()) +
                    " is no quality (good, stale or never)");
}

QString textIn(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end() || found->is_null())
        return QString();
    if (!found->is_string())
        throw UserError(std::string(key) + " is no text");
    return QString::fromStdString(found->get<std::string>());
}

int numberIn(const Json& object, const char* key)
{
    const auto found = object.find(key);
    if (found == object.end())
        return 0;
    if (!found->is_number_integer() || *found < 0 || *found > 65535)
        throw UserError(std::string(key) + " is no number from 0 to 65535");
    return found->get<int>();
}

const qint64 kMillisecondsOfSecond = 1000;
const qint64 kMillisecondsOfDay = 86400 * kMillisecondsOfSecond;

// Most texts need no escapes; the library's function is much slower.
void appendText(QByteArray& to, const QString& text)
{
    const QByteArray utf8 = text.toUtf8();
    const bool isPlain = std::all_of(utf8.begin(), utf8.end(), [](char c) {
        return static_cast<quint8>(c) >= 0x20 && c != '"' && c != '\\' && c != 0x7F;
    });
    if (isPlain)
        to.append('"').append(utf8).append('"');
    else
        to.append(Json(utf8.toStdString()).dump().c_str());
}

void appendJson(QByteArray& to, const Json& value)
{
    const std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    to.append(text.data(), static_cast<int>(text.size()));
}

// The number that the digits from `at` make; below 0 when one of them is no digit.
int digitsAt(const QString& text, int at, int count)
{
    int number = 0;
    for (int i = at; i < at + count; ++i) {
        const int digit = text.at(i).unicode() - '0';
        if (digit < 0 || digit > 9)
            return -1;
        number = 10 * number + digit;
    }
    return number;
}

} // namespace

QString timeText(qint64 milliseconds)
{
    const qint64 rest =
        ((milliseconds % kMillisecondsOfSecond) + kMillisecondsOfSecond) % kMillisecondsOfSecond;
    const std::time_t seconds = (milliseconds - rest) / kMillisecondsOfSecond;
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 64> text{};
    const int size =
        std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                      parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                      parts.tm_min, parts.tm_sec, static_cast<int>(rest));
    return QString::fromLatin1(text.data(), size);
}

std::optional<qint64> timeOf(const QString& text)
{
    const QString form = QStringLiteral("0000-00-00T00:00:00.000Z");
    if (text.size() != form.size())
        return std::nullopt;
    for (int i = 0; i < form.size(); ++i) {
        if (form.at(i) != '0' && text.at(i) != form.at(i))
            return std::nullopt;
    }
    const QDate date(digitsAt(text, 0, 4), digitsAt(text, 5, 2), digitsAt(text, 8, 2));
    const QTime time(digitsAt(text, 11, 2), digitsAt(text, 14, 2), digitsAt(text, 17, 2),
                     digitsAt(text, 20, 3));
    if (!date.isValid() || !time.isValid())
        return std::nullopt;
    return QDate(1970, 1, 1).daysTo(date) * kMillisecondsOfDay + time.msecsSinceStartOfDay();
}

QByteArray encoded(const GatewayValue& value)
{
    const int kUsual = 320;
    QByteArray text;
    text.reserve(kUsual + value.bytes.size() * 2);
    text.append(R"({"line":)");
    appendText(text, value.line);
    text.append(R"(,"name":)");
    appendText(text, value.name);
    text.append(R"(,"station":)").append(QByteArray::number(value.station)).append(R"(,"tag":)");
    appendText(text, value.tag);
    text.append(R"(,"element":)").append(QByteArray::number(value.element));
    if (value.type)
        text.append(R"(,"type":")").append(value.type->name).append(R"(","value":)");
    else
        text.append(R"(,"type":null,"value":)");
    appendJson(text, value.value);
    text.append(R"(,"quality":")").append(qualityText(value.quality).toLatin1());
    if (value.time)
        text.append(R"(","time":")").append(timeText(*value.time).toLatin1()).append('"');
    else
        text.append(R"(","time":null)");
    if (!value.bytes.isEmpty())
        text.append(R"(,"bytes":")").append(value.bytes.toHex()).append('"');
    if (!value.unit.isEmpty()) {
        text.append(R"(,"unit":)");
        appendText(text, value.unit);
    }
    if (!value.error.isEmpty()) {
        text.append(R"(,"error":)");
        appendText(text, value.error);
    }
    return text.append('}');
}

Json jsonOf(const GatewayValue& value)
{
    Json object = {{"line", value.line.toStdString()},
                   {"name", value.name.toStdString()},
                   {"station", value.station},
                   {"tag", value.tag.toStdString()},
                   {"element", value.element},
                   {"type", value.type ? Json(value.type->name) : Json()},
                   {"value", value.value},
                   {"quality", qualityText(value.quality).toStdString()},
                   {"time", value.time ? Json(timeText(*value.time).toStdString()) : Json()}};
    if (!value.bytes.isEmpty())
        object["bytes"] = value.bytes.toHex().toStdString();
    if (!value.unit.isEmpty())
        object["unit"] = value.unit.toStdString();
    if (!value.error.isEmpty())
        object["error"] = value.error.toStdString();
    return object;
}

GatewayValue gatewayValueOf(const Json& object)
{
    if (!object.is_object())
        throw UserError("a value is no object");
    GatewayValue value;
    value.line = textIn(object, "line");
    value.name = textIn(object, "name");
    value.station = numberIn(object, "station");
    value.tag = textIn(object, "tag");
    value.element = numberIn(object, "element");
    const QString type = textIn(object, "type");
    value.type = type.isEmpty() ? nullptr : &cipTypeNamed(type.toStdString());
    value.bytes = bytesOf(textIn(object, "bytes"), "bytes");
    value.value = object.value("value", Json());
    value.unit = textIn(object, "unit");
    value.quality = qualityOf(textIn(object, "quality"));
    const QString time = textIn(object, "time");
    if (!time.isEmpty()) {
        value.time = timeOf(time);
        if (!value.time)
            throw UserError("time: " + inQuotes(time.toStdString()) +
                            " is no time such as 2026-11-22T13:30:00.125Z");
    }
    value.error = textIn(object, "error");
    return value;
}

} // namespace micro850::host
