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
      {"orders", json::object()}}},
    {"web", {{"tokenFile", "t"}, {"certificate", "c.pem"}, {"key", "k.pem"}}}};

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
    for (const char* section : {"socket", "history", "mqtt", "sparkplug", "web"})
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

TEST(ConfigurationSchema, AgreesWithTheParserOnAddressesAndHostsOfThePage)
{
    const json schema = schemaFile();
    const auto compare = [&](const char* key, const json& value, bool isGood) {
        json document = kDocument;
        document["web"][key] = value;
        EXPECT_EQ(accepts(schema, document), isGood) << key << ' ' << value;
        EXPECT_EQ(complaint(document).empty(), isGood) << key << ' ' << complaint(document);
    };
    for (const char* address :
         {"127.0.0.1", "0.0.0.0", "255.255.255.255", "10.0.0.7", "::", "::1", "0:0:0:0:0:0:0:1",
          "1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7::", "::2:3:4:5:6:7:8", "fe80::1", "2001:DB8::a:b",
          "::ffff:10.0.0.7", "1:2:3:4:5:6:1.2.3.4", "1::6:1.2.3.4", "::1.2.3.4"})
    {
        compare("address", address, true);
        compare("proxies", {address}, true);
        compare("hosts", {address}, true);
    }
    for (const char* address :
         {"", "localhost", "10.0.0", "10.0.0.256", "10.0.0.07", "10.0.0.7:80", "[::1]",
          "fe80::1%eth0", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:8:9", "1::2::3",
          ":::", "12345::", "1:2:3:4:5:6:7:1.2.3.4", "http://10.0.0.7", "*"})
    {
        compare("address", address, false);
        compare("proxies", {address}, false);
    }
    for (const char* host :
         {"panel7", "panel7.plant.example", "panel7.plant.example.", "Panel_7", "_a"})
        compare("hosts", {host}, true);
    for (const char* host : {"", "panel7:8850", "http://panel7", "a b", "-a", "me@panel7", "[::1]",
                             "*", ".", "a\n", "\u00e4"})
        compare("hosts", {"panel7", host}, false);
    compare("hosts", json::array(), true);
    compare("hosts", json(64, "a"), true);
    compare("hosts", json(65, "a"), false);
    compare("hosts", {7}, false);
}

TEST(ConfigurationSchema, AgreesWithTheParserOnWhatNeedsATokenOrAPair)
{
    const json schema = schemaFile();
    const auto compare = [&](const json& web, bool isGood) {
        json document = kDocument;
        document["web"] = web;
        EXPECT_EQ(accepts(schema, document), isGood) << web;
        EXPECT_EQ(complaint(document).empty(), isGood) << web << complaint(document);
    };
    compare(json::object(), true);
    compare({{"writes", false}}, true);
    compare({{"writes", true}}, false);
    compare({{"writes", true}, {"tokenFile", "t"}}, true);
    for (const char* address :
         {"127.0.0.1", "127.9.9.9", "::1", "0:0:0:0:0:0:0:1", "::ffff:127.0.0.1"})
        compare({{"address", address}}, true);
    for (const char* address :
         {"0.0.0.0", "::", "10.0.0.7", "::ffff:10.0.0.7", "fe80::1", "::127.0.0.1"})
    {
        compare({{"address", address}}, false);
        compare({{"address", address}, {"tokenFile", "t"}}, true);
    }
    compare({{"proxies", json::array()}}, true);
    compare({{"proxies", {"127.0.0.1"}}}, false);
    compare({{"proxies", {"127.0.0.1"}}, {"tokenFile", "t"}}, true);
    compare({{"certificate", "c.pem"}}, false);
    compare({{"key", "k.pem"}}, false);
    compare({{"certificate", "c.pem"}, {"key", "k.pem"}}, true);
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
