#include "Configuration.h"

#include "json_schema.h"

#include <gtest/gtest.h>

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <fstream>

using schema::accepts;
using schema::json;

namespace {

json schemaFile()
{
    return schema::fileNamed("gateway.schema.json");
}

void write(const QString& path, const std::string& text)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(QByteArray::fromStdString(text));
}

/// The folder has each project that the document names, if a file can have that name.
std::string complaint(const json& document)
{
    const QTemporaryDir folder;
    int number = 0;
    for (const json& line : document.value("lines", json())) {
        const json name = line.is_object() ? line.value("project", json()) : json();
        if (name.is_string() && name != "")
            write(folder.filePath(QString::fromStdString(name)),
                  R"({"variables": [{"tag": "A"}], "port": {"device": "/dev/ttyUSB)" +
                      std::to_string(number++) + "\"}}");
    }
    write(folder.filePath("gateway.json"), document.dump());
    std::vector<std::string> mistakes;
    micro850::gateway::Configuration::fromFile(folder.filePath("gateway.json"), mistakes);
    return mistakes.empty() ? "" : mistakes.front();
}

// That a project of this name can be there.
bool isBeyondASchema(const std::string& key, const json& value)
{
    if (key != "project" || !value.is_string())
        return false;
    const auto name = value.get<std::string>();
    return name.size() > 255 || name.find('/') != std::string::npos;
}

const json kDocument = {{"lines", {{{"name", "press"}, {"project", "p.json"}}}},
                        {"socket", json::object()},
                        {"history", {{"file", "h.sqlite"}}}};

} // namespace

TEST(ConfigurationSchema, AgreesWithTheParserOnEveryKeyAndLimit)
{
    const json schema = schemaFile();
    const json& properties = schema["properties"];
    ASSERT_TRUE(accepts(schema, kDocument));
    ASSERT_EQ(complaint(kDocument), "");
    const auto compare = [&](const json& object, const char* place) {
        schema::compareAll(schema, object, kDocument, json::json_pointer(place), complaint,
                           isBeyondASchema);
    };
    compare(schema, "");
    compare(properties["lines"]["items"], "/lines/0");
    compare(properties["socket"], "/socket");
    compare(properties["history"], "/history");
}

TEST(ConfigurationSchema, KnowsEveryKeyThatTheParserNamesAsAllowed)
{
    const json schema = schemaFile();
    const json& properties = schema["properties"];
    const auto compare = [](const json& object, const char* place) {
        schema::compareKeys(object, kDocument, json::json_pointer(place), complaint);
    };
    compare(schema, "");
    compare(properties["lines"]["items"], "/lines/0");
    compare(properties["socket"], "/socket");
    compare(properties["history"], "/history");
}

TEST(ConfigurationSchema, AgreesWithTheParserOnNamesAndTheirNumber)
{
    const json schema = schemaFile();
    for (const char* name :
         {"p", "0", "Press-2_left.a", "", ".a", "-a", "a b", "a/b", "a*", "\u00e4"}) {
        json document = kDocument;
        document["lines"][0]["name"] = name;
        EXPECT_EQ(complaint(document).empty(), accepts(schema, document)) << name;
    }
    for (const int count : {0, 1, 64, 65}) {
        json document = kDocument;
        document["lines"] = json::array();
        for (int i = 0; i < count; ++i)
            document["lines"].push_back(
                {{"name", "l" + std::to_string(i)}, {"project", "p" + std::to_string(i)}});
        EXPECT_EQ(complaint(document).empty(), accepts(schema, document)) << count;
        EXPECT_EQ(accepts(schema, document), count == 1 || count == 64);
    }
}

TEST(ConfigurationSchema, AcceptsTheExampleAndItsProjects)
{
    const json schema = schemaFile();
    const json project = schema::fileNamed("project.schema.json");
    const auto example = [](const std::string& name) {
        std::ifstream file(MICRO850_SOURCE_DIR "/examples/" + name);
        EXPECT_TRUE(file) << name;
        return json::parse(file, nullptr, true, true);
    };
    const json configuration = example("gateway.json");
    EXPECT_TRUE(accepts(schema, configuration));
    for (const json& line : configuration["lines"])
        EXPECT_TRUE(accepts(project, example(line["project"]))) << line.dump();
    std::vector<std::string> mistakes;
    micro850::gateway::Configuration::fromFile(MICRO850_SOURCE_DIR "/examples/gateway.json",
                                               mistakes);
    EXPECT_EQ(mistakes, std::vector<std::string>());
}
