#include "Catalogue.h"

#include "JsonFile.h"

namespace micro850::gateway {

namespace {

using host::Json;

const int kMostNumber = 65535;
const int kMostLength = 2147483647;

CatalogueVariable variableOf(const JsonNode& node)
{
    CatalogueVariable variable;
    variable.line = QString::fromStdString(node.at("line").text());
    variable.name = QString::fromStdString(node.at("name").text());
    variable.station = static_cast<int>(node.at("station").integer(0, kMostNumber));
    variable.tag = QString::fromStdString(node.at("tag").text());
    variable.element = static_cast<int>(node.at("element").integer(0, kMostLength));
    variable.length = static_cast<int>(node.at("length").integer(1, kMostLength));
    if (node.has("type"))
        variable.type = &cipTypeNamed(node.at("type").text());
    variable.isScaled = node.boolean("scaled", false);
    if (variable.isScaled) {
        variable.gain = node.at("gain").number();
        variable.offset = node.at("offset").number();
    }
    variable.unit = QString::fromStdString(node.text("unit", ""));
    variable.isWritable = node.boolean("writable", false);
    if (node.has("minimum"))
        variable.minimum = node.at("minimum").number();
    if (node.has("maximum"))
        variable.maximum = node.at("maximum").number();
    return variable;
}

Json jsonOf(const CatalogueVariable& variable)
{
    Json object = {{"line", variable.line.toStdString()}, {"name", variable.name.toStdString()},
                   {"station", variable.station},         {"tag", variable.tag.toStdString()},
                   {"element", variable.element},         {"length", variable.length}};
    if (variable.type)
        object["type"] = variable.type->name;
    if (variable.isScaled) {
        object["scaled"] = true;
        object["gain"] = variable.gain;
        object["offset"] = variable.offset;
    }
    if (!variable.unit.isEmpty())
        object["unit"] = variable.unit.toStdString();
    if (variable.isWritable)
        object["writable"] = true;
    if (variable.minimum)
        object["minimum"] = *variable.minimum;
    if (variable.maximum)
        object["maximum"] = *variable.maximum;
    return object;
}

} // namespace

Catalogue Catalogue::of(const Json& object)
{
    const JsonNode node = JsonNode::fromText(
        object.dump(-1, ' ', false, Json::error_handler_t::replace), "catalogue");
    Catalogue catalogue;
    for (const JsonNode& line : node.at("lines").elements())
        catalogue.lines.append(QString::fromStdString(line.text()));
    for (const JsonNode& variable : node.at("variables").elements())
        catalogue.variables.append(variableOf(variable));
    return catalogue;
}

Json jsonOf(const Catalogue& catalogue)
{
    Json object = {{"lines", Json::array()}, {"variables", Json::array()}};
    for (const QString& line : catalogue.lines)
        object["lines"].push_back(line.toStdString());
    for (const CatalogueVariable& variable : catalogue.variables)
        object["variables"].push_back(jsonOf(variable));
    return object;
}

} // namespace micro850::gateway
