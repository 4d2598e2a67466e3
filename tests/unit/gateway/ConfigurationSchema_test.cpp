#include "Configuration.h"

#include "json_schema.h"

#include <gtest/gtest.h>

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <fstream>
#include <functional>

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

const json kDocument = {
    {"lines", {{{"name", "press"}, {"project", "p.json"}}}},
    {"socket", json::object()},
    {"history", {{"file", "h.sqlite"}}},
    {"mqtt",
     {{"broker", {{"host", "broker.plant"}, {"tls", {{"certificate", "c.pem"}, {"key", "k.pem"}}}}},
      {"prefix", "plant/hall2"},
      {"queue", {{"file", "m.sqlite"}}},
      {"orders", json::object()},
      {"discovery", json::object()}}},
    {"sparkplug",
     {{"broker", {{"host", "broker.plant"}, {"tls", {{"certificate", "c.pem"}, {"key", "k.pem"}}}}},
      {"queue", {{"file", "s.sqlite"}}},
      {"group", "hall2"},
      {"node", "panel7"},
      {"orders", json::object()}}}};

// Each object of the configuration with its place in kDocument.
std::vector<std::pair<json, std::string>> objectsOf(const json& schema)
{
    const json& properties = schema["properties"];
    std::vector<std::pair<json, std::string>> objects = {
        {schema, ""}, {properties["lines"]["items"], "/lines/0"}};
    const std::function<void(const json&, const std::string&)> add = [&](const json& object,
                                                                         const std::string& place) {
        objects.emplace_back(object, place);
        for (const auto& property : object["properties"].items()) {
            if (property.value()["type"] == "object")
                add(property.value(), place + '/' + property.key());
        }
    };
    for (const char* section : {"socket", "history", "mqtt", "sparkplug"})
        add(properties[section], std::string("/") + section);
    return objects;
}

} // namespace

TEST(ConfigurationSchema, AgreesWithTheParserOnEveryKeyAndLimit)
{
    const json schema = schemaFile();
    ASSERT_TRUE(accepts(schema, kDocument));
    ASSERT_EQ(complaint(kDocument), "");
    for (const auto& [object, place] : objectsOf(schema))
        schema::compareAll(schema, object, kDocument, json::json_pointer(place), complaint,
                           isBeyondASchema);
}

TEST(ConfigurationSchema, KnowsEveryKeyThatTheParserNamesAsAllowed)
{
    const json schema = schemaFile();
    for (const auto& [object, place] : objectsOf(schema))
        schema::compareKeys(object, kDocument, json::json_pointer(place), complaint);
}

TEST(ConfigurationSchema, AgreesWithTheParserOnHostsPrefixesAndNamesOfBrokers)
{
    const json schema = schemaFile();
    const auto compare = [&](const char* place, const char* value, bool isGood) {
        json document = kDocument;
        document[json::json_pointer(place)] = value;
        EXPECT_EQ(accepts(schema, document), isGood) << place << ' ' << value;
        EXPECT_EQ(complaint(document).empty(), isGood) << place << ' ' << complaint(document);
    };
    for (const json& tls : {json::object(), json{{"key", "k.pem"}}, json{{"certificate", "c.pem"}}})
    {
        json document = kDocument;
        document["sparkplug"]["broker"]["tls"] = tls;
        EXPECT_EQ(accepts(schema, document), tls.empty());
        EXPECT_EQ(complaint(document).empty(), tls.empty()) << complaint(document);
    }
    for (const char* host : {"broker", "broker.plant.example", "10.0.0.7", "fe80::1%eth0", "::1",
                             "::ffff:10.0.0.7", "_b"})
        compare("/mqtt/broker/host", host, true);
    for (const char* host :
         {"", "broker:1883", "mqtt://broker", "a b", "[::1]", "broker/x", "-b", "me@broker"})
        compare("/mqtt/broker/host", host, false);
    for (const char* prefix :
         {"a", "plant/hall 2/panel-7", "a/$b", "\u00e4", "spBv1.01", "a/spBv1.0"})
        compare("/mqtt/prefix", prefix, true);
    for (const char* prefix :
         {"", "/a", "a/", "a//b", "a/+", "#", "$SYS/a", "a\nb", "spBv1.0", "spBv1.0/a"})
        compare("/mqtt/prefix", prefix, false);
    for (const char* name : {"hall2", "hall 2", "$hall", "\u00e4"})
        compare("/sparkplug/group", name, true);
    for (const char* name : {"", "a/b", "a+", "a#", "a\tb"})
        compare("/sparkplug/node", name, false);
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

TEST(ConfigurationSchema, AcceptsTheExamplesAndTheirProjects)
{
    const json schema = schemaFile();
    const json project = schema::fileNamed("project.schema.json");
    const auto example = [](const std::string& name) {
        std::ifstream file(MICRO850_SOURCE_DIR "/examples/" + name);
        EXPECT_TRUE(file) << name;
        return json::parse(file, nullptr, true, true);
    };
    for (const char* const name : {"gateway.json", "gateway-broker.json"}) {
        const json configuration = example(name);
        EXPECT_TRUE(accepts(schema, configuration)) << name;
        EXPECT_EQ(configuration.contains("mqtt"), name != std::string("gateway.json"));
        for (const json& line : configuration["lines"])
            EXPECT_TRUE(accepts(project, example(line["project"]))) << line.dump();
        std::vector<std::string> mistakes;
        micro850::gateway::Configuration::fromFile(
            QStringLiteral(MICRO850_SOURCE_DIR "/examples/") + name, mistakes);
        EXPECT_EQ(mistakes, std::vector<std::string>()) << name;
    }
}
