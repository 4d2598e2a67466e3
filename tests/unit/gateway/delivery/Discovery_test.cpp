#include "Discovery.h"

#include <QtCore/QSet>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <regex>

using namespace micro850;
using namespace micro850::gateway;
using Plain = nlohmann::json;

namespace {

CatalogueVariable variable(const char* type, const QString& unit = QString())
{
    CatalogueVariable variable;
    variable.line = "press";
    variable.name = "Level";
    variable.type = &cipTypeNamed(type);
    variable.unit = unit;
    return variable;
}

CatalogueVariable writable(const char* type)
{
    CatalogueVariable made = variable(type);
    made.isWritable = true;
    return made;
}

const Discovery kReading("homeassistant", "plant/p7", false);
const Discovery kWriting("homeassistant", "plant/p7", true);

Plain configurationOf(const Discovery& discovery, const CatalogueVariable& variable)
{
    return Plain::parse(discovery.entryOf(variable).configuration.dump());
}

std::string componentOf(const Discovery& discovery, const CatalogueVariable& variable)
{
    return discovery.entryOf(variable).topic.split('/').value(1).toStdString();
}

TEST(Discovery, AnnouncesANumberAsASensor)
{
    const Plain entry = configurationOf(kReading, variable("REAL", "bar"));
    EXPECT_EQ(componentOf(kReading, variable("REAL")), "sensor");
    EXPECT_EQ(entry["name"], "Level");
    EXPECT_EQ(entry["state_topic"], "plant/p7/press/1/Level");
    EXPECT_EQ(entry["unit_of_measurement"], "bar");
    EXPECT_EQ(entry["device_class"], "pressure");
    EXPECT_EQ(entry["state_class"], "measurement");
    EXPECT_EQ(entry["availability_mode"], "all");
    ASSERT_EQ(entry["availability"].size(), 2U);
    EXPECT_EQ(entry["availability"][0]["topic"], "plant/p7/status");
    EXPECT_EQ(entry["availability"][1]["topic"], "plant/p7/press/1/Level");
    EXPECT_EQ(entry["device"]["name"], "plant/p7 press station 1");
    EXPECT_EQ(entry["device"]["identifiers"].size(), 1U);
    EXPECT_FALSE(entry.contains("command_topic"));
    EXPECT_FALSE(entry.contains("options"));
}

TEST(Discovery, ChoosesTheComponentByTypeAndWhetherItCanBeWritten)
{
    EXPECT_EQ(componentOf(kReading, variable("BOOL")), "binary_sensor");
    EXPECT_EQ(componentOf(kReading, variable("STRING")), "sensor");
    EXPECT_EQ(componentOf(kReading, variable("LINT")), "sensor");
    EXPECT_EQ(componentOf(kWriting, writable("BOOL")), "switch");
    EXPECT_EQ(componentOf(kWriting, writable("REAL")), "number");
    EXPECT_EQ(componentOf(kWriting, writable("WORD")), "number");
    EXPECT_EQ(componentOf(kWriting, writable("STRING")), "text");
    // More digits than Home Assistant's numbers hold.
    EXPECT_EQ(componentOf(kWriting, writable("LINT")), "text");
    // Orders are not taken, or not of this variable.
    EXPECT_EQ(componentOf(kReading, writable("BOOL")), "binary_sensor");
    EXPECT_EQ(componentOf(kReading, writable("REAL")), "sensor");
    EXPECT_EQ(componentOf(kWriting, variable("REAL")), "sensor");
    CatalogueVariable array = writable("REAL");
    array.length = 4;
    EXPECT_EQ(componentOf(kWriting, array), "sensor");
    EXPECT_FALSE(configurationOf(kWriting, array).contains("command_topic"));
}

TEST(Discovery, GivesANumberItsLimits)
{
    CatalogueVariable limited = writable("REAL");
    limited.minimum = -2.5;
    limited.maximum = 80;
    const Plain entry = configurationOf(kWriting, limited);
    EXPECT_EQ(entry["min"], -2.5);
    EXPECT_EQ(entry["max"].dump(), "80");
    EXPECT_EQ(entry["step"], 0.001);
    EXPECT_EQ(entry["command_topic"], "plant/p7/press/1/Level/set");
    EXPECT_FALSE(entry.contains("state_class"));
}

// Home Assistant takes 1 to 100 for a number without limits.
TEST(Discovery, GivesANumberWithoutLimitsThoseOfItsType)
{
    const auto range = [](CatalogueVariable variable) {
        const Plain entry = configurationOf(kWriting, variable);
        return entry["min"].dump() + ' ' + entry["max"].dump() + ' ' + entry["step"].dump();
    };
    EXPECT_EQ(range(writable("SINT")), "-128 127 1");
    EXPECT_EQ(range(writable("UINT")), "0 65535 1");
    EXPECT_EQ(range(writable("DINT")), "-2147483648 2147483647 1");
    EXPECT_EQ(range(writable("DWORD")), "0 4294967295 1");
    EXPECT_EQ(range(writable("REAL")), "-3.4e+38 3.4e+38 0.001");
}

TEST(Discovery, GivesAScaledNumberWithoutLimitsWhatItsTypeCanShow)
{
    const auto range = [](const char* type, double gain, double offset) {
        CatalogueVariable scaled = writable(type);
        scaled.isScaled = true;
        scaled.gain = gain;
        scaled.offset = offset;
        const Plain entry = configurationOf(kWriting, scaled);
        return entry["min"].dump() + ' ' + entry["max"].dump() + ' ' + entry["step"].dump();
    };
    EXPECT_EQ(range("INT", 0.1, 0), "-3276.8 3276.7 0.001");
    EXPECT_EQ(range("INT", -0.1, 5), "-3271.7 3281.8 0.001");
    EXPECT_EQ(range("USINT", 1, -40), "-40 215 0.001");
    EXPECT_EQ(range("REAL", 0.1, 0), "-3.4e+38 3.4e+38 0.001");
}

TEST(Discovery, TakesClassesFromUnitsThatLeaveNoDoubt)
{
    const std::vector<std::array<const char*, 4>> cases = {
        {"degC", "\xC2\xB0\x43", "temperature", "measurement"},
        {"\xC2\xB0\x46", "\xC2\xB0\x46", "temperature", "measurement"},
        {"K", "K", "temperature", "measurement"},
        {"mbar", "mbar", "pressure", "measurement"},
        {"V", "V", "voltage", "measurement"},
        {"mA", "mA", "current", "measurement"},
        {"kW", "kW", "power", "measurement"},
        {"kWh", "kWh", "energy", "total_increasing"},
        {"Hz", "Hz", "frequency", "measurement"},
        {"m3/h", "m\xC2\xB3/h", "volume_flow_rate", "measurement"},
        {"kg", "kg", "weight", "measurement"},
        {"%", "%", "", "measurement"},
        {"rpm", "rpm", "", "measurement"},
        {"a r", "a r", "", "measurement"},
        {" ", " ", "", "measurement"},
        {"", "", "", "measurement"},
    };
    for (const auto& expected : cases) {
        const UnitClass found = unitClassOf(QString::fromUtf8(expected[0]));
        EXPECT_EQ(found.unit.toStdString(), expected[1]);
        EXPECT_STREQ(found.deviceClass, expected[2]) << expected[0];
        EXPECT_STREQ(found.stateClass, expected[3]) << expected[0];
    }
}

TEST(Discovery, GivesATextNeitherUnitNorClass)
{
    for (const char* const type : {"STRING", "BOOL"}) {
        const Plain entry = configurationOf(kReading, variable(type, "bar"));
        for (const char* const key : {"unit_of_measurement", "device_class", "state_class"})
            EXPECT_FALSE(entry.contains(key)) << type << ' ' << key;
    }
}

TEST(Discovery, MakesTopicsOfPlainCharactersThatDifferForEachVariable)
{
    const std::regex plain("homeassistant/sensor/[A-Za-z0-9_-]+/[A-Za-z0-9_-]+/config");
    QSet<QByteArray> topics;
    QSet<QString> ids;
    const QStringList names = {
        "a/b", "a+b", "a b", "a_b", QString::fromUtf8("\xC3\xBC"), "a%2Fb", QString(300, 'x')};
    for (const QString& name : names) {
        CatalogueVariable made = variable("REAL");
        made.name = name;
        const DiscoveryEntry entry = kReading.entryOf(made);
        EXPECT_TRUE(std::regex_match(entry.topic.toStdString(), plain))
            << entry.topic.toStdString();
        topics.insert(entry.topic);
        ids.insert(QString::fromStdString(entry.configuration["unique_id"].get<std::string>()));
        EXPECT_TRUE(kReading.topicsOf(made).contains(entry.topic));
        EXPECT_EQ(kReading.topicsOf(made).size(), 5);
    }
    EXPECT_EQ(topics.size(), names.size());
    EXPECT_EQ(ids.size(), names.size());
}

// The begin of the SHA-1 of "plant%2Fp7/press/Level". It stays when the unit, the limits or the
// type change, and another gateway has another one.
TEST(Discovery, KeepsTheIdOfAVariable)
{
    const std::string id = "micro850_1793fe6a4fc316af";
    EXPECT_EQ(configurationOf(kReading, variable("REAL", "bar"))["unique_id"], id);
    EXPECT_EQ(configurationOf(kWriting, writable("BOOL"))["unique_id"], id);
    const Discovery other("homeassistant", "plant/p8", false);
    EXPECT_NE(configurationOf(other, variable("REAL"))["unique_id"], id);
    EXPECT_NE(configurationOf(other, variable("REAL"))["device"]["identifiers"],
              configurationOf(kReading, variable("REAL"))["device"]["identifiers"]);
}

} // namespace
