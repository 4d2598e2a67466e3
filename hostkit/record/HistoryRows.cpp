#include "HistoryRows.h"

#include <QtCore/QDateTime>

namespace micro850::host {

namespace {

const qint64 kRowBytes = 64;

qint64 sizeOf(const Json& value)
{
    if (value.is_string())
        return static_cast<qint64>(value.get_ref<const std::string&>().size());
    if (!value.is_structured())
        return 9;
    return static_cast<qint64>(value.dump(-1, ' ', false, Json::error_handler_t::replace).size());
}

// A character has at most three bytes of UTF-8 for each of its units.
qint64 sizeOf(const QString& text)
{
    return qint64(3) * text.size();
}

} // namespace

qint64 sizeOf(const HistoryValue& row)
{
    return kRowBytes + sizeOf(row.value) + sizeOf(row.error);
}

qint64 sizeOf(const HistoryWrite& row)
{
    return 2 * kRowBytes + sizeOf(row.oldValue) + sizeOf(row.newValue) + sizeOf(row.client) +
           sizeOf(row.error);
}

qint64 sizeOf(const HistoryEvent& row)
{
    return kRowBytes + sizeOf(row.text);
}

QString utcText(qint64 milliseconds)
{
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC).toString(Qt::ISODateWithMs);
}

Json jsonOf(const HistoryValue& row)
{
    const HistoryVariable& variable = *row.variable;
    Json object = Json::object();
    if (!variable.line.isEmpty())
        object["line"] = variable.line.toStdString();
    object.update({{"name", variable.name.toStdString()},
                   {"station", variable.station},
                   {"tag", variable.tag.toStdString()},
                   {"element", variable.element},
                   {"type", variable.type.isEmpty() ? Json() : Json(variable.type.toStdString())},
                   {"value", row.value},
                   {"quality", row.quality.toStdString()},
                   {"time", utcText(row.time).toStdString()}});
    if (!variable.unit.isEmpty())
        object["unit"] = variable.unit.toStdString();
    if (!row.error.isEmpty())
        object["error"] = row.error.toStdString();
    if (!row.state.isEmpty())
        object["state"] = row.state.toStdString();
    object["sequence"] = row.sequence;
    return object;
}

Json jsonOf(const HistoryWrite& row)
{
    Json object = {{"time", utcText(row.time).toStdString()},
                   {"uid", row.uid},
                   {"pid", row.pid},
                   {"client", row.client.toStdString()},
                   {"line", row.line.toStdString()},
                   {"name", row.name.toStdString()},
                   {"element", row.element},
                   {"old", row.oldValue},
                   {"new", row.newValue},
                   {"outcome", row.outcome.toStdString()}};
    if (!row.error.isEmpty())
        object["error"] = row.error.toStdString();
    object["sequence"] = row.sequence;
    return object;
}

Json jsonOf(const HistoryEvent& row)
{
    Json object = {{"time", utcText(row.time).toStdString()}, {"line", row.line.toStdString()}};
    if (row.station >= 0)
        object["station"] = row.station;
    object["state"] = row.state.toStdString();
    object["text"] = row.text.toStdString();
    object["sequence"] = row.sequence;
    return object;
}

} // namespace micro850::host
