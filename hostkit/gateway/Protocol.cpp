#include "Protocol.h"

#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QDateTime>

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

} // namespace

QString timeText(qint64 milliseconds)
{
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC).toString(Qt::ISODateWithMs);
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
    value.bytes = QByteArray::fromHex(textIn(object, "bytes").toLatin1());
    value.value = object.value("value", Json());
    value.unit = textIn(object, "unit");
    value.quality = qualityOf(textIn(object, "quality"));
    const QString time = textIn(object, "time");
    if (!time.isEmpty()) {
        const QDateTime parsed = QDateTime::fromString(time, Qt::ISODateWithMs);
        if (!parsed.isValid())
            throw UserError("time: " + inQuotes(time.toStdString()) + " is no time");
        value.time = parsed.toMSecsSinceEpoch();
    }
    value.error = textIn(object, "error");
    return value;
}

} // namespace micro850::host
