#include "Project.h"

#include "ExactNumbers.h"
#include "JsonFile.h"
#include "NetworkAddress.h"
#include "TagAddress.h"
#include "UserError.h"
#include "Visible.h"

#include "DateText.h"

#include <QtCore/QSet>

#include <algorithm>
#include <cfloat>
#include <charconv>
#include <cmath>

namespace micro850::host {

namespace {

const int kDay = 24 * 60 * 60 * 1000;
const int kShortestHeartbeat = 100;
const int kMostWritesPerMinute = 60000;
// Of all variables together: the host keeps each element's value and time.
const int kMostElements = 4000000;

/// What the part of the file read so far uses. With it each name and number is looked up once,
/// however many there are.
struct Used
{
    QSet<int> stations;
    QSet<QString> names;
    int elements = 0;
};

// A name, a unit or a port stands in lines and tables: what is shown must be what it is.
QString printableText(const JsonNode& node, const char* what)
{
    const QString text = QString::fromStdString(node.text());
    if (visible(text) != text)
        node.fail(std::string(what) + " has no control or format characters, such as a line feed");
    return text;
}

Parity parityOf(const JsonNode& node)
{
    const std::string text = node.text();
    if (text == "none")
        return Parity::None;
    if (text == "even")
        return Parity::Even;
    if (text != "odd")
        node.fail(node.found() + " is not a parity (none, even or odd)");
    return Parity::Odd;
}

QString deviceOf(const JsonNode& node)
{
    const QString device = printableText(node, "a device");
    try {
        if (isNetworkAddress(device))
            networkAddress(device);
    } catch (const UserError& error) {
        node.fail(error.what());
    }
    return device;
}

PortSettings portOf(const JsonNode& node)
{
    node.expectKeys({"device", "baud", "dataBits", "parity", "stopBits", "deviceBudgetMs",
                     "timeoutMs", "retryLimit", "lowLatency"});
    PortSettings port;
    if (node.has("device"))
        port.device = deviceOf(node.at("device"));
    port.baud = static_cast<int>(node.integer("baud", 300, 4000000, port.baud));
    port.dataBits = static_cast<int>(node.integer("dataBits", 7, 8, port.dataBits));
    if (node.has("parity"))
        port.parity = parityOf(node.at("parity"));
    port.stopBits = static_cast<int>(node.integer("stopBits", 1, 2, port.stopBits));
    port.deviceBudgetMs =
        static_cast<int>(node.integer("deviceBudgetMs", 0, 60000, port.deviceBudgetMs));
    port.timeoutMs = static_cast<int>(node.integer("timeoutMs", 0, 60000, port.timeoutMs));
    port.retryLimit = static_cast<int>(node.integer("retryLimit", 0, 100, port.retryLimit));
    port.lowLatency = node.boolean("lowLatency", port.lowLatency);
    return port;
}

StationSettings stationOf(const JsonNode& node, Used& used)
{
    node.expectKeys({"number", "name", "enabled"});
    StationSettings station;
    const JsonNode number = node.at("number");
    station.number = static_cast<int>(number.integer(0, 65535));
    if (used.stations.contains(station.number))
        number.fail("station " + std::to_string(station.number) + " is listed twice (remove one)");
    used.stations.insert(station.number);
    if (node.has("name"))
        station.name = printableText(node.at("name"), "a name");
    station.enabled = node.boolean("enabled", true);
    return station;
}

QString tagOf(const JsonNode& node)
{
    const QString tag = QString::fromStdString(node.text());
    if (tag.isEmpty() || tag.size() > kLongestTag)
        node.fail("a tag has 1 to " + std::to_string(kLongestTag) + " characters");
    if (!isPlain(tag))
        node.fail(node.found() +
                  " is not a tag (letters, digits and signs without blanks; an index goes into "
                  "\"element\")");
    return tag;
}

QString nameOf(const JsonNode& node, Used& used)
{
    const QString name = printableText(node, "a name");
    if (name.isEmpty())
        node.fail("a name has at least one character");
    if (used.names.contains(name))
        node.fail("the name " + inQuotes(name.toStdString()) +
                  " is given to two variables (rename one)");
    used.names.insert(name);
    return name;
}

const CipType* typeOf(const JsonNode& node)
{
    try {
        return &cipTypeNamed(node.text());
    } catch (const UserError& error) {
        node.fail(error.what());
    }
}

PollMode pollOf(const JsonNode& node)
{
    const std::string text = node.text();
    if (text == "cyclic")
        return PollMode::Cyclic;
    if (text != "once")
        node.fail(node.found() + " is not a way to poll (cyclic or once)");
    return PollMode::Once;
}

int stationNumberOf(const JsonNode& node, const Project& project, const Used& used)
{
    if (!node.has("station"))
        return project.stations.first().number;
    const JsonNode station = node.at("station");
    const int number = static_cast<int>(station.integer(0, 65535));
    if (!used.stations.contains(number)) {
        station.fail("station " + std::to_string(number) +
                     " is not among the stations (add it to \"stations\")");
    }
    return number;
}

// Only the first element of a string array can be read: the driver sends no index with a string.
void checkElements(const JsonNode& node, const Variable& variable, Used& used)
{
    used.elements += variable.length;
    if (used.elements > kMostElements)
        node.fail("the variables have more than " + std::to_string(kMostElements) +
                  " elements together (leave some out)");
    if (variable.element + variable.length - 1 > kLargestElement)
        node.fail("element and length reach beyond element " + std::to_string(kLargestElement));
    const bool string = variable.type && variable.type->kind == CipKind::String;
    if (string && (variable.element != 0 || variable.length != 1))
        node.fail("of a string only element 0 and length 1 can be read");
}

void parseScaling(const JsonNode& node, Variable& variable)
{
    variable.gain = node.number("gain", 1);
    variable.offset = node.number("offset", 0);
    if (node.has("unit"))
        variable.unit = printableText(node.at("unit"), "a unit");
    if (variable.gain == 0)
        node.at("gain").fail("0 would show every value as the offset (leave it out for 1)");
    const bool number = !variable.type || isNumber(*variable.type);
    if (variable.isScaled() && !number)
        node.fail(std::string("gain and offset are for numbers, not for ") + variable.type->name);
}

// A number as exact as the file gives it: a double would round integers of 64 bits.
CipValue exactNumberOf(const JsonNode& node)
{
    const double number = node.number();
    const std::string text = node.scalar();
    const char* const end = text.data() + text.size();
    const auto isAll = [end](const std::from_chars_result& result) {
        return result.ec == std::errc() && result.ptr == end;
    };
    std::int64_t integer = 0;
    if (isAll(std::from_chars(text.data(), end, integer)))
        return CipValue::ofSigned(integer);
    std::uint64_t large = 0;
    if (isAll(std::from_chars(text.data(), end, large)))
        return CipValue::ofUnsigned(large);
    return CipValue::ofReal(number);
}

// "2%" as 0.02; none for any other text.
std::optional<double> shareOf(const std::string& text)
{
    double percent = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, percent, std::chars_format::fixed);
    const bool good = result.ec == std::errc() && end - result.ptr == 1 && *result.ptr == '%' &&
                      std::isdigit(static_cast<unsigned char>(text.front())) != 0 &&
                      std::isdigit(static_cast<unsigned char>(result.ptr[-1])) != 0;
    return good && percent <= 100 ? std::make_optional(percent / 100) : std::nullopt;
}

double deadbandOf(const JsonNode& node, const Variable& variable)
{
    if (!node.isText()) {
        const double deadband = node.number();
        if (deadband < 0)
            node.fail(node.found() + " is below 0 (0 tells every change)");
        return deadband;
    }
    const std::optional<double> share = shareOf(node.text());
    if (!share)
        node.fail(node.found() +
                  R"( is not a dead band (a number such as 0.5, or "2%" of the span )"
                  "from minimum to maximum)");
    if (!variable.minimum || !variable.maximum)
        node.fail("a percentage is one of the span (add minimum and maximum, or give a number)");
    const double deadband = *share * (variable.maximum->number() - variable.minimum->number());
    if (!std::isfinite(deadband))
        node.fail("the span from minimum to maximum is too large (give a number)");
    return deadband;
}

// Dates are shown as texts.
bool hasSpan(const CipType& type, bool scaled)
{
    return isNumber(type) && (scaled || !dateExample(type));
}

struct Range
{
    CipValue least;
    CipValue most;
};

// Of the values of a number type, as a variable with this gain and offset shows them.
Range rangeOf(const CipType& type, const Variable& variable)
{
    const int bits = 8 * type.size;
    Range range = {CipValue::ofSigned(0), CipValue::ofUnsigned(UINT64_MAX >> (64 - bits))};
    if (type.kind == CipKind::Signed)
        range = {CipValue::ofSigned(INT64_MIN >> (64 - bits)),
                 CipValue::ofSigned(INT64_MAX >> (64 - bits))};
    else if (type.kind == CipKind::Real && type.size == int(sizeof(float)))
        range = {CipValue::ofReal(-double(FLT_MAX)), CipValue::ofReal(double(FLT_MAX))};
    else if (type.kind == CipKind::Real)
        range = {CipValue::ofReal(-DBL_MAX), CipValue::ofReal(DBL_MAX)};
    if (!variable.isScaled())
        return range;
    const double one = range.least.number() * variable.gain + variable.offset;
    const double other = range.most.number() * variable.gain + variable.offset;
    return {CipValue::ofReal(std::min(one, other)), CipValue::ofReal(std::max(one, other))};
}

// Scaled, the ends of the range are rounded.
bool isBeyond(const CipValue& limit, const Range& range, bool scaled)
{
    if (compareNumbers(limit, range.least) >= 0 && compareNumbers(limit, range.most) <= 0)
        return false;
    const double kRounding = 1e-12;
    const double number = limit.number();
    const double slack =
        scaled ? kRounding * std::max(std::abs(range.least.number()), std::abs(range.most.number()))
               : 0;
    return !scaled || number < range.least.number() - slack || number > range.most.number() + slack;
}

// A limit that no value can reach is a mistake in the number or in the type.
void requireReachableLimits(const JsonNode& node, const Variable& variable)
{
    if (!variable.type || !hasSpan(*variable.type, variable.isScaled()))
        return;
    const Range range = rangeOf(*variable.type, variable);
    const auto require = [&](const char* key, const std::optional<CipValue>& limit) {
        if (limit && isBeyond(*limit, range, variable.isScaled()))
            node.at(key).fail(node.at(key).found() + " is beyond the range of " +
                              variable.type->name + (variable.isScaled() ? " as it is shown" : "") +
                              " (" + range.least.text() + " to " + range.most.text() + ')');
    };
    require("minimum", variable.minimum);
    require("maximum", variable.maximum);
}

// Follows parseScaling().
void parseLimits(const JsonNode& node, Variable& variable)
{
    if (node.has("minimum"))
        variable.minimum = exactNumberOf(node.at("minimum"));
    if (node.has("maximum"))
        variable.maximum = exactNumberOf(node.at("maximum"));
    if (variable.minimum && variable.maximum &&
        compareNumbers(*variable.minimum, *variable.maximum) > 0)
        node.at("minimum").fail(node.at("minimum").found() + " is above maximum, " +
                                node.at("maximum").found() + " (swap them)");
    if (node.has("deadband"))
        variable.deadband = deadbandOf(node.at("deadband"), variable);
    for (const char* key : {"deadband", "minimum", "maximum"}) {
        if (variable.type && node.has(key) && !hasSpan(*variable.type, variable.isScaled()))
            node.at(key).fail(std::string(key) + " is for numbers, not for " + variable.type->name +
                              " (leave it out)");
    }
    requireReachableLimits(node, variable);
}

void parseRates(const JsonNode& node, Variable& variable)
{
    if (node.has("intervalMs"))
        variable.intervalMs = static_cast<int>(node.at("intervalMs").integer(0, kDay));
    if (variable.intervalMs && variable.poll == PollMode::Once)
        node.at("intervalMs")
            .fail(R"(a variable that is read once has no interval (leave it out, )"
                  R"(or leave "poll" out))");
    if (node.has("heartbeatMs"))
        variable.heartbeatMs =
            static_cast<int>(node.at("heartbeatMs").integer(kShortestHeartbeat, kDay));
    variable.writable = node.boolean("writable", false);
    if (node.has("writesPerMinute"))
        variable.writesPerMinute =
            static_cast<int>(node.at("writesPerMinute").integer(1, kMostWritesPerMinute));
}

Variable variableOf(const JsonNode& node, const Project& before, Used& used)
{
    static const std::vector<std::string> keys = {
        "name",     "tag",         "station",  "type",    "element", "length",
        "area",     "poll",        "gain",     "offset",  "unit",    "intervalMs",
        "deadband", "heartbeatMs", "writable", "minimum", "maximum", "writesPerMinute"};
    node.expectKeys(keys);
    Variable variable;
    variable.tag = tagOf(node.at("tag"));
    variable.name = nameOf(node.at(node.has("name") ? "name" : "tag"), used);
    variable.station = stationNumberOf(node, before, used);
    if (node.has("type"))
        variable.type = typeOf(node.at("type"));
    variable.element = static_cast<int>(node.integer("element", 0, kLargestElement, 0));
    variable.length = static_cast<int>(node.integer("length", 1, kLargestElement + 1, 1));
    variable.area = static_cast<int>(node.integer("area", 0, 255, 0));
    if (node.has("poll"))
        variable.poll = pollOf(node.at("poll"));
    parseScaling(node, variable);
    parseLimits(node, variable);
    parseRates(node, variable);
    checkElements(node, variable, used);
    return variable;
}

Project projectOf(const JsonNode& root)
{
    if (root.has("lines") && !root.has("variables"))
        root.fail("is a configuration of micro850-gateway, not a project (check it with "
                  "micro850-gateway --check, or name one of its projects)");
    root.expectKeys({"$schema", "port", "staleAfterMs", "stations", "variables"});
    Project project;
    Used used;
    root.text("$schema", ""); // for editors
    if (root.has("port"))
        project.port = portOf(root.at("port"));
    project.staleAfterMs =
        static_cast<int>(root.integer("staleAfterMs", 100, kDay, project.staleAfterMs));
    if (root.has("stations")) {
        for (const JsonNode& station : root.at("stations").elements())
            project.stations.append(stationOf(station, used));
        if (project.stations.isEmpty())
            root.at("stations").fail("lists no station (leave it out for station 1)");
    } else {
        project.stations.append(StationSettings());
        used.stations.insert(project.stations.first().number);
    }
    for (const JsonNode& variable : root.at("variables").elements())
        project.variables.append(variableOf(variable, project, used));
    if (project.variables.isEmpty())
        root.at("variables").fail(R"(lists no variable (add one, for example {"tag": "Speed"}))");
    return project;
}

void unscaleLimits(Variable& variable)
{
    const auto unscaled = [&variable](const std::optional<CipValue>& limit) {
        return limit ? std::make_optional(
                           CipValue::ofReal((limit->number() - variable.offset) / variable.gain))
                     : std::nullopt;
    };
    variable.deadband /= std::abs(variable.gain);
    variable.minimum = unscaled(variable.minimum);
    variable.maximum = unscaled(variable.maximum);
    if (variable.gain < 0)
        std::swap(variable.minimum, variable.maximum);
}

} // namespace

QString Variable::shownName() const
{
    return label.isEmpty() ? host::shownName(name) : label;
}

Project Project::fromFile(const QString& path)
{
    return projectOf(JsonNode::fromFile(path.toStdString()));
}

Project Project::fromText(const QString& text, const QString& name)
{
    return projectOf(JsonNode::fromText(text.toStdString(), name.toStdString()));
}

void Project::showRaw()
{
    for (Variable& variable : variables) {
        if (variable.isScaled() && !variable.raw)
            unscaleLimits(variable);
        variable.raw = true;
        variable.unit.clear();
    }
}

void Project::setInterval(int milliseconds)
{
    for (Variable& variable : variables) {
        if (!variable.intervalMs)
            variable.intervalMs = milliseconds;
    }
}

void Project::readAllFast()
{
    for (Variable& variable : variables)
        variable.intervalMs = 0;
}

bool Project::hasStation(int number) const
{
    return std::any_of(stations.begin(), stations.end(),
                       [number](const StationSettings& s) { return s.number == number; });
}

const Variable* Project::variable(const QString& name) const
{
    const auto found = std::find_if(variables.begin(), variables.end(),
                                    [&name](const Variable& v) { return v.name == name; });
    return found == variables.end() ? nullptr : &*found;
}

} // namespace micro850::host
