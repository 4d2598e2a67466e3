#include "Discovery.h"

#include <QtCore/QCryptographicHash>

#include <algorithm>
#include <array>
#include <cmath>

namespace micro850::gateway {

namespace {

using host::Json;

struct KnownUnits
{
    const char* deviceClass;
    const char* stateClass;
    const char* units; ///< between blanks
};

const char kIdBegin[] = "micro850_";
const char kMeasurement[] = "measurement";
const char kCounter[] = "total_increasing";

// Only units that leave no doubt: % can be a humidity, a battery or a valve; m³ can be a counter or
// what a tank holds.
const std::array<KnownUnits, 14> kUnits = {{
    {"temperature", kMeasurement, " °C °F K "},
    {"pressure", kMeasurement, " Pa hPa kPa mbar cbar bar psi mmHg inHg "},
    {"voltage", kMeasurement, " V mV "},
    {"current", kMeasurement, " A mA "},
    {"power", kMeasurement, " W kW "},
    {"apparent_power", kMeasurement, " VA "},
    {"reactive_power", kMeasurement, " var "},
    {"energy", kCounter, " Wh kWh MWh "},
    {"frequency", kMeasurement, " Hz kHz MHz GHz "},
    {"duration", kMeasurement, " ms s min h d "},
    {"speed", kMeasurement, " m/s mm/s km/h "},
    {"volume_flow_rate", kMeasurement, " m³/h L/min "},
    {"weight", kMeasurement, " mg g kg "},
    {"distance", kMeasurement, " mm cm m km "},
}};

// How people write the units above on a keyboard.
const std::array<std::array<const char*, 2>, 11> kSpellings = {{
    {"degC", "°C"},
    {"deg C", "°C"},
    {"\xE2\x84\x83", "°C"},
    {"degF", "°F"},
    {"deg F", "°F"},
    {"m3/h", "m³/h"},
    {"l/min", "L/min"},
    {"sec", "s"},
    {"hours", "h"},
    {"kwh", "kWh"},
    {"VAr", "var"},
}};

bool isText(const CatalogueVariable& variable)
{
    return variable.type->kind == CipKind::String;
}

// A number that is not finite is a text, which would be an error: the state is unknown.
const char kNumberTemplate[] = "{{ value_json.value if value_json.value is number else 'None' }}";

bool isNumberOf(const CatalogueVariable& variable)
{
    return variable.type->kind != CipKind::Boolean && !isText(variable);
}

// Home Assistant calculates with floating point numbers, which do not hold all of these.
bool isWide(const CatalogueVariable& variable)
{
    const int kBytes = 8;
    return variable.type->kind != CipKind::Real && !isText(variable) && !variable.isScaled &&
           variable.type->size == kBytes;
}

const char* componentOf(const CatalogueVariable& variable, bool isWritable)
{
    if (variable.length > 1)
        return "sensor";
    if (variable.type->kind == CipKind::Boolean)
        return isWritable ? "switch" : "binary_sensor";
    if (!isWritable)
        return "sensor";
    return isText(variable) || isWide(variable) ? "text" : "number";
}

// Rounded as the product of the shortest decimal numbers is: 32767 * 0.1 is 3276.7.
std::array<double, 2> shownRange(const CatalogueVariable& variable,
                                 const std::array<double, 2>& range)
{
    if (!variable.isScaled)
        return range;
    const auto shown = [&variable](double number) {
        const int kDigits = 15; // that a double holds exactly
        return QString::number(number * variable.gain + variable.offset, 'g', kDigits).toDouble();
    };
    const double first = shown(range[0]);
    const double second = shown(range[1]);
    return {std::min(first, second), std::max(first, second)};
}

// Of all that a variable of the type can show. Home Assistant takes 1 to 100 without it.
std::array<double, 2> rangeOf(const CatalogueVariable& variable)
{
    const double kMostReal = 3.4e38;
    if (variable.type->kind == CipKind::Real)
        return {-kMostReal, kMostReal};
    const int kBitsOfByte = 8;
    const int bits = variable.type->size * kBitsOfByte;
    const bool isSigned = variable.type->kind == CipKind::Signed;
    const double count = std::ldexp(1.0, bits);
    const double least = isSigned ? -count / 2 : 0;
    return shownRange(variable, {least, least + count - 1});
}

// A whole number without a fraction.
Json numberOf(double number)
{
    const double kMostExact = 9007199254740991;
    if (number >= -kMostExact && number <= kMostExact &&
        number == static_cast<double>(static_cast<qint64>(number)))
        return Json(static_cast<qint64>(number));
    return Json(number);
}

void addNumberKeys(Json& to, const CatalogueVariable& variable)
{
    const double kFinestStep = 0.001; // that Home Assistant takes
    const std::array<double, 2> range = rangeOf(variable);
    to["min"] = numberOf(variable.minimum.value_or(range[0]));
    to["max"] = numberOf(variable.maximum.value_or(range[1]));
    to["step"] =
        variable.isScaled || variable.type->kind == CipKind::Real ? Json(kFinestStep) : Json(1);
    to["mode"] = "box";
}

void addTextKeys(Json& to, const CatalogueVariable& variable)
{
    if (isText(variable)) {
        to["max"] = kLongestText;
        // Whatever the text begins with, it is the text.
        to["command_template"] = R"({"value": {{ value | tojson }}})";
    } else {
        to["pattern"] = "-?[0-9]+";
    }
}

void addBooleanKeys(Json& to, bool isWritable)
{
    to["value_template"] = "{{ 'on' if value_json.value == true else 'off' if value_json.value == "
                           "false else 'None' }}";
    if (isWritable) {
        to["state_on"] = "on";
        to["state_off"] = "off";
        to["payload_on"] = "true";
        to["payload_off"] = "false";
    } else {
        to["payload_on"] = "on";
        to["payload_off"] = "off";
    }
}

// A state has 255 characters at most; the attribute has all elements.
void addArrayKeys(Json& to, const QByteArray& topic)
{
    to["value_template"] = "{{ value_json.value | join(', ') | truncate(250, true, '...', 0) }}";
    to["json_attributes_topic"] = topic.toStdString();
    to["json_attributes_template"] = "{{ {'elements': value_json.value} | tojson }}";
}

void addUnit(Json& to, const CatalogueVariable& variable, bool isSensor)
{
    if (!isNumberOf(variable) || variable.length > 1)
        return;
    const UnitClass known = unitClassOf(variable.unit);
    const bool isText = isWide(variable) && !isSensor;
    if (isText)
        return;
    if (!known.unit.isEmpty())
        to["unit_of_measurement"] = known.unit.toStdString();
    if (*known.deviceClass)
        to["device_class"] = known.deviceClass;
    if (isSensor)
        to["state_class"] = known.stateClass;
}

// What an identifier in a topic of Home Assistant can hold.
QByteArray plain(const QString& name)
{
    const int kLongest = 64;
    QByteArray text;
    for (const QChar c : name.left(kLongest)) {
        const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || c == '_' || c == '-';
        text += isPlain ? c.toLatin1() : '_';
    }
    return text;
}

} // namespace

UnitClass unitClassOf(const QString& unit)
{
    UnitClass found;
    found.unit = unit;
    for (const auto& spelling : kSpellings) {
        if (unit == QString::fromUtf8(spelling[0]))
            found.unit = QString::fromUtf8(spelling[1]);
    }
    if (found.unit.isEmpty() || found.unit.contains(' '))
        return found;
    const QString wanted = ' ' + found.unit + ' ';
    for (const KnownUnits& known : kUnits) {
        if (QString::fromUtf8(known.units).contains(wanted)) {
            found.deviceClass = known.deviceClass;
            found.stateClass = known.stateClass;
        }
    }
    return found;
}

Discovery::Discovery(const QString& discoveryPrefix, const QString& prefix, bool takesOrders)
    : m_prefix(discoveryPrefix.toUtf8()), m_ownPrefix(prefix), m_topics(prefix),
      m_takesOrders(takesOrders)
{
}

// The same as long as prefix, line and name, or station, are the same.
QByteArray Discovery::idOf(const CatalogueVariable& variable, bool isDevice) const
{
    const int kDigits = 16;
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(topicLevel(m_ownPrefix) + '/' + topicLevel(variable.line) + '/');
    if (isDevice)
        hash.addData('/' + QByteArray::number(variable.station));
    else
        hash.addData(topicLevel(variable.name));
    return kIdBegin + hash.result().toHex().left(kDigits);
}

Json Discovery::deviceOf(const CatalogueVariable& variable) const
{
    return {{"identifiers", {idOf(variable, true).toStdString()}},
            {"name", m_ownPrefix.toStdString() + ' ' + variable.line.toStdString() + " station " +
                         std::to_string(variable.station)}};
}

DiscoveryEntry Discovery::entryOf(const CatalogueVariable& variable) const
{
    const bool isWritable = m_takesOrders && variable.isWritable && variable.length == 1;
    const char* const component = componentOf(variable, isWritable);
    const QByteArray id = idOf(variable, false);
    const QByteArray topic = m_topics.value(variable.line, variable.station, variable.name);
    Json entry = {{"name", variable.name.toStdString()},
                  {"unique_id", id.toStdString()},
                  {"state_topic", topic.toStdString()},
                  {"value_template", isNumberOf(variable) && !isWide(variable)
                                         ? kNumberTemplate
                                         : "{{ value_json.value }}"}};
    entry["availability_mode"] = "all";
    entry["availability"] = {
        {{"topic", m_topics.status().toStdString()}, {"value_template", "{{ value_json.state }}"}},
        {{"topic", topic.toStdString()},
         {"value_template", "{{ 'online' if value_json.quality == 'good' else 'offline' }}"}}};
    if (isWritable)
        entry["command_topic"] = Topics::set(topic).toStdString();
    if (variable.length > 1)
        addArrayKeys(entry, topic);
    else if (variable.type->kind == CipKind::Boolean)
        addBooleanKeys(entry, isWritable);
    if (qstrcmp(component, "number") == 0)
        addNumberKeys(entry, variable);
    else if (qstrcmp(component, "text") == 0)
        addTextKeys(entry, variable);
    addUnit(entry, variable, qstrcmp(component, "sensor") == 0);
    entry["device"] = deviceOf(variable);
    entry["origin"] = {{"name", "micro850-gateway"}};
    return {topicOf(variable, component), entry};
}

QByteArray Discovery::topicOf(const CatalogueVariable& variable, const char* component) const
{
    return m_prefix + '/' + component + '/' + plain(variable.line) + '/' + plain(variable.name) +
           '_' + idOf(variable, false).mid(static_cast<int>(sizeof(kIdBegin)) - 1) + "/config";
}

QVector<QByteArray> Discovery::topicsOf(const CatalogueVariable& variable) const
{
    QVector<QByteArray> topics;
    for (const char* const component : {"sensor", "binary_sensor", "number", "switch", "text"})
        topics.append(topicOf(variable, component));
    return topics;
}

} // namespace micro850::gateway
