#include "Project.h"

#include "UserError.h"
#include "json_schema.h"

#include <gtest/gtest.h>

#include <fstream>

using schema::accepts;
using schema::candidates;
using schema::json;

namespace {

json schemaFile()
{
    return schema::fileNamed("project.schema.json");
}

std::string complaint(const json& document)
{
    try {
        micro850::host::Project::fromText(QString::fromStdString(document.dump()), "p.json");
        return "";
    } catch (const micro850::UserError& error) {
        return error.what();
    }
}

bool parses(const json& document)
{
    return complaint(document).empty();
}

// That the station is listed.
bool isBeyondASchema(const std::string& key, const json& value)
{
    return key == "station" && value != 1;
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
    const auto compare = [&](const json& object, const char* place) {
        schema::compareAll(schema, object, kDocument, json::json_pointer(place), complaint,
                           isBeyondASchema);
    };
    compare(schema, "");
    compare(properties["port"], "/port");
    compare(properties["stations"]["items"], "/stations/0");
    compare(properties["variables"]["items"], "/variables/0");
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
    const json& properties = schema["properties"];
    const auto compare = [](const json& object, const char* place) {
        schema::compareKeys(object, kDocument, json::json_pointer(place), complaint);
    };
    compare(schema, "");
    compare(properties["port"], "/port");
    compare(properties["stations"]["items"], "/stations/0");
    compare(properties["variables"]["items"], "/variables/0");
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
