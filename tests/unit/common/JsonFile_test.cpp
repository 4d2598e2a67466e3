#include "JsonFile.h"

#include "UserError.h"

#include <functional>
#include <gtest/gtest.h>

namespace micro850 {
namespace {

JsonNode parsed(const char* text)
{
    return JsonNode::fromText(text, "plant.json");
}

std::string complaintOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const UserError& error) {
        EXPECT_EQ(error.status(), kExitUsage);
        return error.what();
    }
    return "none";
}

TEST(JsonFile, ReportsLineAndColumnOfASyntaxError)
{
    const std::string complaint = complaintOf([] { parsed("{\n  \"a\": 1,,\n}"); });
    EXPECT_EQ(complaint.rfind("plant.json:2:10: syntax error", 0), 0u) << complaint;
}

TEST(JsonFile, AllowsComments)
{
    EXPECT_EQ(parsed("{ // a comment\n \"a\": 1 }").at("a").integer(0, 9), 1);
}

TEST(JsonFile, ReportsTheKeyPathOfAWrongValue)
{
    const JsonNode root = parsed(R"({"variables": [{"count": 1}, {"count": 0}]})");
    EXPECT_EQ(complaintOf([&] { root.at("variables").elements()[1].at("count").integer(1, 9); }),
              "plant.json: variables[1].count: 0 is not allowed (1 to 9)");
    EXPECT_EQ(complaintOf([&] { root.at("variables").text(); }),
              "plant.json: variables: [{\"count\":1},{\"count\":0}] is not a text in quotes");
    EXPECT_EQ(complaintOf([&] { root.at("stations"); }),
              "plant.json: the key \"stations\" is missing");
}

TEST(JsonFile, SuggestsTheKeyThatWasProbablyMeant)
{
    EXPECT_EQ(complaintOf([] {
                  parsed(R"({"statoin": 1})").expectKeys({"station", "port"});
              }),
              "plant.json: unknown key \"statoin\" (did you mean station?)");
    EXPECT_EQ(complaintOf([] {
                  parsed(R"({"x": 1})").expectKeys({"station", "port"});
              }),
              "plant.json: unknown key \"x\" (allowed: station, port)");
}

TEST(JsonFile, ReturnsTheDefaultOnlyForAnAbsentKey)
{
    const JsonNode root = parsed(R"({"baud": 9600, "big": 18446744073709551615})");
    EXPECT_EQ(root.integer("baud", 0, 115200, 38400), 9600);
    EXPECT_EQ(root.integer("other", 0, 9, 7), 7);
    EXPECT_EQ(complaintOf([&] { root.integer("big", 0, 9, 7); }),
              "plant.json: big: 18446744073709551615 is not allowed (0 to 9)");
    EXPECT_EQ(complaintOf([&] { root.boolean("baud", true); }),
              "plant.json: baud: 9600 is not true or false");
}

TEST(JsonFile, ReportsThatAFileCannotBeRead)
{
    EXPECT_EQ(complaintOf([] { JsonNode::fromFile("/no/such/file.json"); }),
              "/no/such/file.json: cannot be read: No such file or directory (check the path)");
}

TEST(JsonFile, RejectsANumberThatNoDoubleCanHold)
{
    EXPECT_EQ(complaintOf([] { parsed(R"({"max": 1e999})"); }),
              "plant.json: number overflow parsing '1e999'");
}

TEST(JsonFile, RejectsDeepNesting)
{
    const std::string deep(1000000, '[');
    EXPECT_EQ(complaintOf([&] { parsed(deep.c_str()); }),
              "plant.json: brackets are nested more than 64 deep");
    const std::string most = std::string(64, '[') + std::string(64, ']');
    EXPECT_EQ(complaintOf([&] { parsed(most.c_str()); }), "none");
}

TEST(JsonFile, ReportsAnErrorInOneLineWhateverTheFileContains)
{
    EXPECT_EQ(complaintOf([] {
                  parsed("{\"a\\nb\\u001b\": 1}").expectKeys({"port", "tags"});
              }),
              "plant.json: unknown key \"a b \" (allowed: port, tags)");
}

} // namespace
} // namespace micro850
