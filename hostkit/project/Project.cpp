#include "Project.h"

#include "ExactNumbers.h"
#include "JsonFile.h"
#include "JsonPlaces.h"
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

/// Where the mistakes of a file go: the first is thrown, or all are collected.
class Mistakes
{
public:
    explicit Mistakes(std::vector<JsonMistake>* list = nullptr) : m_list(list) {}

    /// Carries out a step of the reading. False when it found a mistake.
    template<typename Step> bool runs(Step step)
    {
        if (!m_list) {
            step();
            return true;
        }
        try {
            step();
            return true;
        } catch (const JsonMistake& mistake) {
            add(mistake);
            return false;
        }
    }
    void add(const JsonMistake& mistake)
    {
        if (!m_list)
            throw JsonMistake(mistake);
        if (m_list->size() < std::size_t(kMostMistakes))
            m_list->push_back(mistake);
    }
    std::size_t count() const { return m_list ? m_list->size() : 0; }
    bool isFull() const { return count() == std::size_t(kMostMistakes); }

private:
    std::vector<JsonMistake>* m_list;
};

/// What the part of the file read so far uses. With it each name and number is looked up once,
/// however many there are.
struct Used
{
    Mistakes mistakes;
    bool knowsStations = true; ///< false after a mistake in the list of them
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

PortSettings portOf(const JsonNode& node, Mistakes& mistakes)
{
    PortSettings port;
    const auto report = [&mistakes](const JsonMistake& mistake) { mistakes.add(mistake); };
    node.expectKeys({"device", "baud", "dataBits", "parity", "stopBits", "deviceBudgetMs",
                     "timeoutMs", "retryLimit", "lowLatency"},
                    report);
    const auto readInteger = [&](const char* key, int least, int most, int& value) {
        mistakes.runs([&] { value = static_cast<int>(node.integer(key, least, most, value)); });
    };
    mistakes.runs([&] {
        if (node.has("device"))
            port.device = deviceOf(node.at("device"));
    });
    readInteger("baud", 300, 4000000, port.baud);
    readInteger("dataBits", 7, 8, port.dataBits);
    mistakes.runs([&] {
        if (node.has("parity"))
            port.parity = parityOf(node.at("parity"));
    });
    readInteger("stopBits", 1, 2, port.stopBits);
    readInteger("deviceBudgetMs", 0, 60000, port.deviceBudgetMs);
    readInteger("timeoutMs", 0, 60000, port.timeoutMs);
    readInteger("retryLimit", 0, 100, port.retryLimit);
    mistakes.runs([&] { port.lowLatency = node.boolean("lowLatency", port.lowLatency); });
    return port;
}

StationSettings stationOf(const JsonNode& node, Used& used)
{
    Mistakes& mistakes = used.mistakes;
    node.expectKeys({"number", "name", "enabled"},
                    [&mistakes](const JsonMistake& mistake) { mistakes.add(mistake); });
    StationSettings station;
    mistakes.runs([&] {
        const JsonNode number = node.at("number");
        station.number = static_cast<int>(number.integer(0, 65535));
        if (used.stations.contains(station.number))
            number.fail("station " + std::to_string(station.number) +
                        " is listed twice (remove one)");
        used.stations.insert(station.number);
    });
    mistakes.runs([&] {
        if (node.has("name"))
            station.name = printableText(node.at("name"), "a name");
    });
    mistakes.runs([&] { station.enabled = node.boolean("enabled", true); });
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
    if (used.knowsStations && !used.stations.contains(number)) {
        station.fail("station " + std::to_string(number) +
                     " is not among the stations (add it to \"stations\")");
    }
    return number;
}

// Only the first element of a string array can be read: the driver sends no index with a string.
void checkElements(const JsonNode& node, const Variable& variable, Used& used)
{
    // Told once, by the variable with which they become too many.
    const bool fitted = used.elements <= kMostElements;
    used.elements = std::min(used.elements, kMostElements) + variable.length;
    if (fitted && used.elements > kMostElements)
        node.fail("the variables have more than " + std::to_string(kMostElements) +
                  " elements together (leave some out)");
    if (variable.element + variable.length - 1 > kLargestElement)
        node.fail("element and length reach beyond element " + std::to_string(kLargestElement));
    const bool string = variable.type && variable.type->kind == CipKind::String;
    if (string && (variable.element != 0 || variable.length != 1))
        node.fail("of a string only element 0 and length 1 can be read");
}

// What depends on the type is checked by requireNumberType().
void parseScaling(const JsonNode& node, Variable& variable, Mistakes& mistakes)
{
    mistakes.runs([&] {
        variable.gain = node.number("gain", 1);
        if (variable.gain == 0)
            node.at("gain").fail("0 would show every value as the offset (leave it out for 1)");
    });
    mistakes.runs([&] { variable.offset = node.number("offset", 0); });
    mistakes.runs([&] {
        if (node.has("unit"))
            variable.unit = printableText(node.at("unit"), "a unit");
    });
    mistakes.runs([&] {
        if (node.has("comment"))
            variable.comment = printableText(node.at("comment"), "a comment");
    });
}

void requireNumberType(const JsonNode& node, const Variable& variable)
{
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

void requireOrderedLimits(const JsonNode& node, const Variable& variable)
{
    if (variable.minimum && variable.maximum &&
        compareNumbers(*variable.minimum, *variable.maximum) > 0)
        node.at("minimum").fail(node.at("minimum").found() + " is above maximum, " +
                                node.at("maximum").found() + " (swap them)");
}

// Follows parseScaling().
void parseLimits(const JsonNode& node, Variable& variable)
{
    if (node.has("deadband"))
        variable.deadband = deadbandOf(node.at("deadband"), variable);
    for (const char* key : {"deadband", "minimum", "maximum"}) {
        if (variable.type && node.has(key) && !hasSpan(*variable.type, variable.isScaled()))
            node.at(key).fail(std::string(key) + " is for numbers, not for " + variable.type->name +
                              " (leave it out)");
    }
    requireReachableLimits(node, variable);
}

void parseRates(const JsonNode& node, Variable& variable, Mistakes& mistakes)
{
    mistakes.runs([&] {
        if (node.has("intervalMs"))
            variable.intervalMs = static_cast<int>(node.at("intervalMs").integer(0, kDay));
        if (variable.intervalMs && variable.poll == PollMode::Once)
            node.at("intervalMs")
                .fail(R"(a variable that is read once has no interval (leave it out, )"
                      R"(or leave "poll" out))");
    });
    mistakes.runs([&] {
        if (node.has("heartbeatMs"))
            variable.heartbeatMs =
                static_cast<int>(node.at("heartbeatMs").integer(kShortestHeartbeat, kDay));
    });
    mistakes.runs([&] {
        variable.writable = node.boolean("writable", false);
        variable.isProtected = node.has("writable") && !variable.writable;
    });
    mistakes.runs([&] {
        if (node.has("writesPerMinute"))
            variable.writesPerMinute =
                static_cast<int>(node.at("writesPerMinute").integer(1, kMostWritesPerMinute));
    });
}

// What names the variable in the project and in the controller.
void parseNames(const JsonNode& node, const Project& before, Variable& variable, Used& used)
{
    Mistakes& mistakes = used.mistakes;
    const bool hasTag = mistakes.runs([&] { variable.tag = tagOf(node.at("tag")); });
    // A tag that is none is no name, either, and is told once.
    if (hasTag || node.has("name"))
        mistakes.runs(
            [&] { variable.name = nameOf(node.at(node.has("name") ? "name" : "tag"), used); });
    mistakes.runs([&] { variable.station = stationNumberOf(node, before, used); });
}

void parseElements(const JsonNode& node, Variable& variable, Mistakes& mistakes)
{
    const auto readInteger = [&](const char* key, int least, int most, int& value) {
        mistakes.runs([&] { value = static_cast<int>(node.integer(key, least, most, value)); });
    };
    mistakes.runs([&] {
        if (node.has("type"))
            variable.type = typeOf(node.at("type"));
    });
    readInteger("element", 0, kLargestElement, variable.element);
    readInteger("length", 1, kLargestElement + 1, variable.length);
    readInteger("area", 0, 255, variable.area);
    mistakes.runs([&] {
        if (node.has("poll"))
            variable.poll = pollOf(node.at("poll"));
    });
}

// What one key says of another is checked when each of them is right for itself.
Variable variableOf(const JsonNode& node, const Project& before, Used& used)
{
    static const std::vector<std::string> keys = {
        "name",        "tag",      "station", "type",    "element",        "length",     "area",
        "poll",        "gain",     "offset",  "unit",    "comment",        "intervalMs", "deadband",
        "heartbeatMs", "writable", "minimum", "maximum", "writesPerMinute"};
    Mistakes& mistakes = used.mistakes;
    node.expectKeys(keys, [&mistakes](const JsonMistake& mistake) { mistakes.add(mistake); });
    Variable variable;
    parseNames(node, before, variable, used);
    const std::size_t mistakesBefore = mistakes.count();
    parseElements(node, variable, mistakes);
    parseScaling(node, variable, mistakes);
    for (const auto& [key, limit] :
         {std::pair("minimum", &variable.minimum), std::pair("maximum", &variable.maximum)})
    {
        if (node.has(key))
            mistakes.runs([&, key = key, limit = limit] { *limit = exactNumberOf(node.at(key)); });
    }
    mistakes.runs([&] { requireOrderedLimits(node, variable); });
    parseRates(node, variable, mistakes);
    if (mistakes.count() != mistakesBefore)
        return variable;
    mistakes.runs([&] { requireNumberType(node, variable); });
    mistakes.runs([&] { parseLimits(node, variable); });
    mistakes.runs([&] { checkElements(node, variable, used); });
    return variable;
}

void readStations(const JsonNode& root, Project& project, Used& used)
{
    if (!root.has("stations")) {
        project.stations.append(StationSettings());
        used.stations.insert(project.stations.first().number);
        return;
    }
    const std::size_t before = used.mistakes.count();
    used.mistakes.runs([&] {
        for (const JsonNode& station : root.at("stations").elements())
            used.mistakes.runs([&] { project.stations.append(stationOf(station, used)); });
        if (project.stations.isEmpty() && used.mistakes.count() == before)
            root.at("stations").fail("lists no station (leave it out for station 1)");
    });
    used.knowsStations = used.mistakes.count() == before;
    if (project.stations.isEmpty())
        project.stations.append(StationSettings());
}

void readVariables(const JsonNode& root, Project& project, Used& used)
{
    const JsonNode list = root.at("variables");
    for (const JsonNode& variable : list.elements()) {
        used.mistakes.runs([&] { project.variables.append(variableOf(variable, project, used)); });
        if (used.mistakes.isFull())
            return;
    }
    if (list.elements().empty())
        list.fail(R"(lists no variable (add one, for example {"tag": "Speed"}))");
}

Project projectOf(const JsonNode& root, Mistakes& given)
{
    if (root.has("lines") && !root.has("variables"))
        root.fail("is a configuration of micro850-gateway, not a project (check it with "
                  "micro850-gateway --check, or name one of its projects)");
    Used used;
    used.mistakes = given;
    Mistakes& mistakes = used.mistakes;
    root.expectKeys({"$schema", "port", "staleAfterMs", "stations", "variables"},
                    [&mistakes](const JsonMistake& mistake) { mistakes.add(mistake); });
    Project project;
    mistakes.runs([&] { root.text("$schema", ""); }); // for editors
    mistakes.runs([&] {
        if (root.has("port"))
            project.port = portOf(root.at("port"), mistakes);
    });
    mistakes.runs([&] {
        project.staleAfterMs =
            static_cast<int>(root.integer("staleAfterMs", 100, kDay, project.staleAfterMs));
    });
    readStations(root, project, used);
    mistakes.runs([&] { readVariables(root, project, used); });
    return project;
}

Project projectOf(const JsonNode& root)
{
    Mistakes first;
    return projectOf(root, first);
}

// ": variables[3].type: ..." with the line in front of it.
ProjectMistake located(const std::string& file, const JsonMistake& mistake, int line)
{
    const bool namesLine = mistake.line() > 0 || line == 0;
    const std::size_t begin = mistake.text().find(' ') + 1;
    return {
        mistake.line() > 0 ? mistake.line() : line, mistake.pointer(),
        visible(mistake.text().substr(begin)),
        UserError(file + (namesLine ? "" : ':' + std::to_string(line)) + mistake.text()).what()};
}

// In the order of the file.
std::vector<ProjectMistake> mistakesOf(const std::string& text, const std::string& file)
{
    std::vector<JsonMistake> found;
    Mistakes mistakes(&found);
    mistakes.runs([&] { projectOf(JsonNode::fromText(text, file), mistakes); });
    std::vector<std::string> pointers;
    pointers.reserve(found.size());
    for (const JsonMistake& mistake : found)
        pointers.push_back(mistake.pointer());
    const std::vector<int> lines = linesOf(text, pointers);
    std::vector<ProjectMistake> all;
    all.reserve(found.size());
    for (std::size_t i = 0; i < found.size(); ++i)
        all.push_back(located(file, found[i], lines[i]));
    std::stable_sort(all.begin(), all.end(), [](const ProjectMistake& a, const ProjectMistake& b) {
        return a.line < b.line;
    });
    return all;
}

// The first mistake, and where to find the others.
std::string summaryOf(const std::vector<ProjectMistake>& mistakes, const std::string& file)
{
    const std::size_t more = mistakes.size() - 1;
    if (more == 0)
        return mistakes.front().message;
    return mistakes.front().message + " (and " + std::to_string(more) +
           " more: micro850-host check " + file + " lists them)";
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
    const std::string text = fileContent(path.toStdString());
    try {
        return projectOf(JsonNode::fromText(text, path.toStdString()));
    } catch (const JsonMistake&) {
        throw UserError(summaryOf(mistakesOf(text, path.toStdString()), path.toStdString()));
    }
}

Project Project::fromText(const QString& text, const QString& name)
{
    return projectOf(JsonNode::fromText(text.toStdString(), name.toStdString()));
}

std::vector<ProjectMistake> Project::mistakesIn(const QString& path)
{
    return mistakesOf(fileContent(path.toStdString()), path.toStdString());
}

std::vector<ProjectMistake> Project::mistakesInText(const QString& text, const QString& name)
{
    return mistakesOf(text.toStdString(), name.toStdString());
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
