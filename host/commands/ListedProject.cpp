#include "ListedProject.h"

#include "VisibleText.h"

#include <QtCore/QSet>

namespace micro850::host {

namespace {

// In the order in which they come first.
QVector<int> stationsOf(const QVector<Variable>& variables)
{
    QVector<int> stations;
    QSet<int> known;
    for (const Variable& variable : variables) {
        if (!known.contains(variable.station))
            stations.append(variable.station);
        known.insert(variable.station);
    }
    return stations;
}

std::string lineOf(const Json& object)
{
    return visibleJson(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

} // namespace

Json projectObjectOf(const Variable& variable, int station)
{
    Json object = {{"tag", variable.tag.toStdString()}};
    if (variable.station != station)
        object["station"] = variable.station;
    if (variable.type)
        object["type"] = variable.type->name;
    if (variable.length != 1)
        object["length"] = variable.length;
    if (!variable.unit.isEmpty())
        object["unit"] = variable.unit.toStdString();
    if (!variable.comment.isEmpty())
        object["comment"] = variable.comment.toStdString();
    return object;
}

std::string projectTextOf(const QVector<Variable>& variables, const Json& port)
{
    const QVector<int> stations = stationsOf(variables);
    Json objects = Json::array();
    for (const int number : stations)
        objects.push_back({{"number", number}});
    std::string text = "{\n";
    if (!port.empty())
        text += "  \"port\": " + lineOf(port) + ",\n";
    text += "  \"stations\": " + lineOf(objects) + ",\n  \"variables\": [\n";
    for (int i = 0; i < variables.size(); ++i) {
        text += "    " + lineOf(projectObjectOf(variables.at(i), stations.first())) +
                (i + 1 < variables.size() ? ",\n" : "\n");
    }
    text += "  ]\n}\n";
    // It is a project, whatever the port is called.
    Project::fromText(QString::fromStdString(text), QStringLiteral("--port"));
    return text;
}

} // namespace micro850::host
