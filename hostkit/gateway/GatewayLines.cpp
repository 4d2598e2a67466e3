#include "GatewayLines.h"

#include <algorithm>

namespace micro850::host {

namespace {

// Beyond what any line can read; a gateway sends what it likes.
const qint64 kMostElements = qint64(4) * 1024 * 1024;
const int kMostIndex = 65535;
const int kDayMs = 86400 * 1000;

int integerIn(const JsonNode& object, const char* key, int least, int absent)
{
    return static_cast<int>(object.integer(key, least, kMostIndex, absent));
}

Variable variableOf(const JsonNode& object)
{
    Variable variable;
    variable.name = QString::fromStdString(object.at("name").text());
    variable.tag = QString::fromStdString(object.at("tag").text());
    variable.station = integerIn(object, "station", 0, 1);
    variable.element = integerIn(object, "element", 0, 0);
    variable.length = integerIn(object, "length", 1, 1);
    variable.unit = QString::fromStdString(object.text("unit", ""));
    variable.gain = object.number("gain", 1);
    variable.offset = object.number("offset", 0);
    variable.writable = object.boolean("writable", false);
    if (object.has("intervalMs"))
        variable.intervalMs = static_cast<int>(object.integer("intervalMs", 0, INT32_MAX, 0));
    if (object.has("type") && !object.at("type").value().is_null())
        variable.type = &cipTypeNamed(object.at("type").text());
    return variable;
}

} // namespace

QVector<GatewayLine> linesOf(GatewayClient& gateway, Duration now)
{
    QVector<GatewayLine> lines;
    try {
        for (const JsonNode& part : gateway.ask({{"request", "status"}})) {
            for (const JsonNode& line : part.at("lines").elements())
                lines.append(
                    {QString::fromStdString(line.at("line").text()), lineStatusOf(line, now)});
        }
    } catch (const GatewayLost&) {
        throw;
    } catch (const UserError& error) {
        throw GatewayLost(gateway.path(),
                          std::string("sent a status that cannot be used: ") + error.what());
    }
    return lines;
}

QVector<Variable> variablesOf(GatewayClient& gateway, const QString& line)
{
    const GatewayClient::Reply reply =
        gateway.ask({{"request", "list"}, {"line", line.toStdString()}});
    QVector<Variable> variables;
    try {
        qint64 elements = 0;
        for (const JsonNode& part : reply) {
            for (const JsonNode& object : part.at("variables").elements()) {
                variables.append(variableOf(object));
                elements += variables.last().length;
                if (elements > kMostElements)
                    object.fail("the list is too long");
            }
        }
    } catch (const UserError& error) {
        throw GatewayLost(gateway.path(),
                          std::string("sent a list that cannot be used: ") + error.what());
    }
    return variables;
}

Project projectOf(GatewayClient& gateway, const GatewayLine& line)
{
    Project project;
    project.port.device = line.status.line.device;
    project.variables = variablesOf(gateway, line.name);
    project.staleAfterMs = kDayMs;
    for (const StationView& station : line.status.stations) {
        StationSettings settings;
        settings.number = station.number;
        settings.name = station.name;
        settings.enabled = station.state != QStringLiteral("disabled");
        project.stations.append(settings);
    }
    for (const Variable& variable : qAsConst(project.variables)) {
        if (project.hasStation(variable.station))
            continue;
        StationSettings settings;
        settings.number = variable.station;
        project.stations.append(settings);
    }
    if (project.stations.isEmpty())
        project.stations.append(StationSettings());
    return project;
}

} // namespace micro850::host
