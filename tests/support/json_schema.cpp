#include "json_schema.h"

#include <gtest/gtest.h>

#include <QtCore/QString>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>

namespace schema {

namespace {

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

// Each is translated once: that takes longer than a match.
const std::wregex& expressionOf(const json& schema)
{
    static std::map<std::string, std::wregex> known;
    const auto pattern = schema["pattern"].get<std::string>();
    const auto found = known.find(pattern);
    return found != known.end() ? found->second
                                : known.emplace(pattern, std::wregex(wide(pattern))).first->second;
}

bool acceptsText(const json& schema, const std::string& text)
{
    if (text.size() < schema.value("minLength", 0u) ||
        text.size() > schema.value("maxLength", 1000000u))
        return false;
    return !schema.contains("pattern") || std::regex_match(wide(text), expressionOf(schema));
}

// What stands under "not": a value, or a pattern that is looked for in a text.
bool excludes(const json& schema, const json& value)
{
    if (schema.contains("const"))
        return value == schema["const"];
    return value.is_string() &&
           std::regex_search(wide(value.get<std::string>()), expressionOf(schema));
}

} // namespace

json fileNamed(const char* name)
{
    std::ifstream file(std::string(MICRO850_SOURCE_DIR "/share/micro850/") + name);
    EXPECT_TRUE(file) << name;
    return json::parse(file);
}

bool accepts(const json& schema, const json& value)
{
    static const std::set<std::string> known = {
        "$schema",    "title",     "description", "type",     "required", "additionalProperties",
        "properties", "items",     "minItems",    "maxItems", "enum",     "minimum",
        "maximum",    "minLength", "maxLength",   "pattern",  "default",  "not",
        "if",         "then",      "allOf"};
    for (const auto& keyword : schema.items())
        EXPECT_TRUE(known.count(keyword.key())) << keyword.key();
    if (schema.contains("type") && !hasType(value, schema["type"]))
        return false;
    if (schema.contains("if") && accepts(schema["if"], value) && !accepts(schema["then"], value))
        return false;
    for (const json& part : schema.value("allOf", json::array())) {
        if (!accepts(part, value))
            return false;
    }
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
        if (value.size() < schema.value("minItems", 0u) ||
            value.size() > schema.value("maxItems", 1000000u))
            return false;
        return std::all_of(value.begin(), value.end(),
                           [&](const json& item) { return accepts(schema["items"], item); });
    }
    return true;
}

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

void compareAll(const json& schema, const json& objectSchema, const json& document,
                const json::json_pointer& place, const Parser& complaint, const Beyond& isBeyond)
{
    int good = 0;
    for (const auto& property : objectSchema["properties"].items()) {
        int goodOfProperty = 0;
        for (const json& value : candidates(property.value())) {
            json changed = document;
            changed[place][property.key()] = value;
            if (isBeyond(property.key(), value) && accepts(schema, changed))
                continue;
            EXPECT_EQ(complaint(changed).empty(), accepts(schema, changed))
                << changed.dump() << complaint(changed);
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
    EXPECT_NE(complaint(unknown), "");
}

void compareKeys(const json& objectSchema, const json& document, const json::json_pointer& place,
                 const Parser& complaint)
{
    json unknown = document;
    unknown[place]["#"] = 1;
    const std::string what = complaint(unknown);
    const std::size_t begin = what.find("(allowed: ");
    ASSERT_NE(begin, std::string::npos) << what;
    const std::size_t first = begin + std::string("(allowed: ").size();
    const std::string allowed = what.substr(first, what.find(')', first) - first) + ", ";
    std::size_t count = 0;
    for (std::size_t at = 0; at < allowed.size(); ++count) {
        const std::size_t comma = allowed.find(", ", at);
        const std::string key = allowed.substr(at, comma - at);
        EXPECT_TRUE(objectSchema["properties"].contains(key)) << key;
        at = comma + 2;
    }
    EXPECT_EQ(count, objectSchema["properties"].size()) << place.to_string();
}

} // namespace schema
