// The published schema and the parser have to accept and refuse the same files. Documents are made
// from the schema itself, so that a key or a limit that only one of them knows is found.

#include "Project.h"

#include "UserError.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <regex>
#include <set>

using nlohmann::json;

namespace {

json schemaFile()
{
    std::ifstream file(MICRO850_SOURCE_DIR "/share/micro850/project.schema.json");
    EXPECT_TRUE(file);
    return json::parse(file);
}

bool hasType(const json& value, const json& types)
{
    if (types.is_array())
        return std::any_of(types.begin(), types.end(),
                           [&value](const json& type) { return hasType(value, type); });
    const std::string type = types;
    if (type == "object")
        return value.is_object();
    if (type == "array")
        return value.is_array();
    if (type == "string")
        return value.is_string();
    if (type == "integer")
        return value.is_number_integer();
    if (type == "number")
        return value.is_number();
    return type == "boolean" && value.is_boolean();
}

bool accepts(const json& schema, const json& value);

bool acceptsObject(const json& schema, const json& value)
{
    for (const json& key : schema.value("required", json::array())) {
        if (!value.contains(key.get<std::string>()))
            return false;
    }
    for (const auto& member : value.items()) {
        const bool known =
            schema.contains("properties") && schema["properties"].contains(member.key());
        if (!known && !schema.value("additionalProperties", true))
            return false;
        if (known && !accepts(schema["properties"][member.key()], member.value()))
            return false;
    }
    return true;
}

// Patterns are of characters, not of bytes.
std::wstring wide(const std::string& text)
{
    return QString::fromStdString(text).toStdWString();
}

bool acceptsText(const json& schema, const std::string& text)
{
    if (text.size() < schema.value("minLength", 0u) ||
        text.size() > schema.value("maxLength", 1000000u))
        return false;
    return !schema.contains("pattern") ||
           std::regex_match(wide(text), std::wregex(wide(schema["pattern"].get<std::string>())));
}

// What stands under "not": a value, or a pattern that is looked for in a text.
bool excludes(const json& schema, const json& value)
{
    if (schema.contains("const"))
        return value == schema["const"];
    return value.is_string() &&
           std::regex_search(wide(value.get<std::string>()),
                             std::wregex(wide(schema["pattern"].get<std::string>())));
}

// The keywords that the schema uses; any other is a failure.
bool accepts(const json& schema, const json& value)
{
    static const std::set<std::string> known = {
        "$schema",    "title",     "description", "type",    "required", "additionalProperties",
        "properties", "items",     "minItems",    "enum",    "minimum",  "maximum",
        "minLength",  "maxLength", "pattern",     "default", "not",      "if",
        "then"};
    for (const auto& keyword : schema.items())
        EXPECT_TRUE(known.count(keyword.key())) << keyword.key();
    if (schema.contains("type") && !hasType(value, schema["type"]))
        return false;
    if (schema.contains("if") && accepts(schema["if"], value) && !accepts(schema["then"], value))
        return false;
    if (schema.contains("not") && excludes(schema["not"], value))
        return false;
    if (schema.contains("enum") &&
        std::find(schema["enum"].begin(), schema["enum"].end(), value) == schema["enum"].end())
        return false;
    if (value.is_number() && (value < schema.value("minimum", json(-1e300)) ||
                              value > schema.value("maximum", json(1e300))))
        return false;
    if (value.is_string())
        return acceptsText(schema, value.get<std::string>());
    if (value.is_object())
        return acceptsObject(schema, value);
    if (value.is_array()) {
        if (value.size() < schema.value("minItems", 0u))
            return false;
        return std::all_of(value.begin(), value.end(),
                           [&](const json& item) { return accepts(schema["items"], item); });
    }
    return true;
}

bool parses(const json& document)
{
    try {
        micro850::host::Project::fromText(QString::fromStdString(document.dump()), "p.json");
        return true;
    } catch (const micro850::UserError&) {
        return false;
    }
}

/// Values for a property, good and bad, at its limits and of every other type.
std::vector<json> candidates(const json& property)
{
    std::vector<json> values = {true,
                                "text",
                                "",
                                1,
                                0,
                                -1,
                                1.5,
                                nullptr,
                                json::array(),
                                json::object(),
                                std::string(255, 'a'),
                                std::string(256, 'a'),
                                "two words",
                                "a=b",
                                "a[1]",
                                "Program:Main.x",
                                "a\tb",
                                "/dev/a:b",
                                "./tcp://plc",
                                "tcp://plc:2000",
                                "TCP://10.0.0.7:1",
                                "rfc2217://[fe80::1%eth0]:65535",
                                "tcp://plc",
                                "tcp://plc:0",
                                "tcp://plc:65536",
                                "tcp://plc:007",
                                "tcp://1.2:2000",
                                "tcp://256.1.1.1:2000",
                                "tcp://::1:2000",
                                "tcp://[::1]",
                                "tcp://plc:2000/x",
                                "tcp://me@plc:2000",
                                "tcp://:2000",
                                "udp://plc:2000",
                                u8"a\u0085b",
                                u8"a\u202eb",
                                u8"\u00e4"};
    for (const char* percent : {"2%", "0.5%", "100%", "100.0%", "100.1%", "101%", "007%", "-1%",
                                "%", "2", "2 %", ".5%", "5.%", "1e1%", "nan%", "2%%"})
        values.push_back(percent);
    for (const char* limit : {"minimum", "maximum"}) {
        if (property.contains(limit)) {
            const auto at = property[limit].get<long long>();
            values.insert(values.end(), {at - 1, at, at + 1});
        }
    }
    for (const json& name : property.value("enum", json::array()))
        values.push_back(name);
    if (property.contains("default"))
        values.push_back(property["default"]);
    return values;
}

/// Puts each candidate of each property into the object at `place` of the document, and compares.
void compareAll(const json& schema, const json& objectSchema, const json& document,
                const json::json_pointer& place)
{
    int good = 0;
    for (const auto& property : objectSchema["properties"].items()) {
        int goodOfProperty = 0;
        for (const json& value : candidates(property.value())) {
            json changed = document;
            changed[place][property.key()] = value;
            // That the station is listed is beyond a schema.
            const bool listed = property.key() != "station" || value == 1;
            if (!listed && accepts(schema, changed))
                continue;
            EXPECT_EQ(parses(changed), accepts(schema, changed)) << changed.dump();
            goodOfProperty += accepts(schema, changed);
        }
        EXPECT_TRUE(goodOfProperty > 0 || property.value()["type"] == "array" ||
                    property.value()["type"] == "object")
            << property.key();
        good += goodOfProperty;
    }
    EXPECT_GT(good, 0);
    json unknown = document;
    unknown[place]["unheardOf"] = 1;
    EXPECT_FALSE(accepts(schema, unknown));
    EXPECT_FALSE(parses(unknown));
}

const json kDocument = {
    {"port", json::object()}, {"stations", {{{"number", 1}}}}, {"variables", {{{"tag", "Speed"}}}}};

} // namespace

TEST(ProjectSchema, AgreesWithTheParserOnEveryKeyAndLimit)
{
    const json schema = schemaFile();
    const json& properties = schema["properties"];
    ASSERT_TRUE(accepts(schema, kDocument));
    ASSERT_TRUE(parses(kDocument));
    compareAll(schema, schema, kDocument, json::json_pointer(""));
    compareAll(schema, properties["port"], kDocument, json::json_pointer("/port"));
    compareAll(schema, properties["stations"]["items"], kDocument,
               json::json_pointer("/stations/0"));
    compareAll(schema, properties["variables"]["items"], kDocument,
               json::json_pointer("/variables/0"));
}

TEST(ProjectSchema, AgreesWithTheParserOnDeadBandsOfASpan)
{
    const json schema = schemaFile();
    const json& variable = schema["properties"]["variables"]["items"];
    int percentages = 0;
    for (const json& value : candidates(variable["properties"]["deadband"])) {
        for (const char* missing : {"", "minimum", "maximum"}) {
            json document = kDocument;
            document["variables"][0].update(
                {{"deadband", value}, {"minimum", -100}, {"maximum", 100}});
            document["variables"][0].erase(missing);
            EXPECT_EQ(parses(document), accepts(schema, document)) << document.dump();
            percentages += value.is_string() && accepts(schema, document) ? 1 : 0;
        }
    }
    EXPECT_EQ(percentages, 5); // 2%, 0.5%, 100%, 100.0% and 007%
}

TEST(ProjectSchema, KnowsEveryKeyThatTheParserNamesAsAllowed)
{
    const json schema = schemaFile();
    const std::pair<const char*, const json*> objects[] = {
        {"", &schema},
        {"/port", &schema["properties"]["port"]},
        {"/stations/0", &schema["properties"]["stations"]["items"]},
        {"/variables/0", &schema["properties"]["variables"]["items"]}};
    for (const auto& object : objects) {
        json unknown = kDocument;
        unknown[json::json_pointer(object.first)]["#"] = 1;
        std::string allowed;
        try {
            micro850::host::Project::fromText(QString::fromStdString(unknown.dump()), "p.json");
        } catch (const micro850::UserError& error) {
            const std::string what = error.what();
            const std::size_t at = what.find("(allowed: ");
            ASSERT_NE(at, std::string::npos) << what;
            allowed = what.substr(at + 10, what.size() - at - 11) + ", ";
        }
        std::size_t count = 0;
        for (std::size_t at = 0; at < allowed.size(); ++count) {
            const std::size_t comma = allowed.find(", ", at);
            const std::string key = allowed.substr(at, comma - at);
            EXPECT_TRUE((*object.second)["properties"].contains(key)) << key;
            at = comma + 2;
        }
        EXPECT_EQ(count, (*object.second)["properties"].size()) << object.first;
    }
}

TEST(ProjectSchema, NamesEveryTypeOfTheController)
{
    const json schema = schemaFile();
    const json& variable = schema["properties"]["variables"]["items"];
    std::set<std::string> published;
    for (const json& name : variable["properties"]["type"]["enum"])
        published.insert(name.get<std::string>());
    std::set<std::string> known;
    for (const micro850::CipType& type : micro850::cipTypes())
        known.insert(type.name);
    EXPECT_EQ(published, known);
}

TEST(ProjectSchema, AcceptsTheExample)
{
    std::ifstream file(MICRO850_SOURCE_DIR "/examples/plant.project.json");
    EXPECT_TRUE(accepts(schemaFile(), json::parse(file, nullptr, true, true)));
}

TEST(ProjectSchema, RefusesAFileWithoutVariables)
{
    for (const char* text : {"{}", R"({"variables": []})", R"({"stations": [],
                             "variables": [{"tag": "A"}]})",
                             "[]", "1"})
    {
        EXPECT_FALSE(accepts(schemaFile(), json::parse(text))) << text;
        EXPECT_FALSE(parses(json::parse(text))) << text;
    }
}
