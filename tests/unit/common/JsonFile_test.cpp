#include "JsonFile.h"

#include "UserError.h"

#include <cstdio>
#include <fstream>
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

TEST(JsonFile, SaysThatAFileIsEmpty)
{
    for (const char* text : {"", " \r\n"})
        EXPECT_EQ(complaintOf([text] { parsed(text); }),
                  "plant.json: is empty (a JSON object is expected)");
}

TEST(JsonFile, AsksForACommaOnlyWhereOneCanBeMissing)
{
    const char kHint[] = " (is a comma missing?)";
    for (const char* text : {R"({"a": 1 "b": 2})", "[1 2]", "[{} {}]", "[1 [2]]", "[1 true]",
                             R"({"a": {} "b": 2})", R"(["x" null])"})
    {
        const std::string complaint = complaintOf([text] { parsed(text); });
        EXPECT_NE(complaint.find(kHint), std::string::npos) << text << ": " << complaint;
    }
    for (const char* text : {R"({"a": 1,, "b": 2})", "[1 }", R"({"a" 1})", "[1, ", "{} {}", "{1}"})
    {
        const std::string complaint = complaintOf([text] { parsed(text); });
        EXPECT_NE(complaint.find("syntax error"), std::string::npos) << text;
        EXPECT_EQ(complaint.find(kHint), std::string::npos) << text << ": " << complaint;
    }
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
              "plant.json:1:13: number overflow parsing '1e999'");
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
              "plant.json: unknown key \"a\\nb\\x1b\" (allowed: port, tags)");
}

TEST(JsonFile, RefusesAKeyThatIsGivenTwice)
{
    EXPECT_EQ(complaintOf([] { parsed(R"({"a": 1, "b": 2, "a": 3})"); }),
              "plant.json: the key \"a\" is given twice (remove one)");
    EXPECT_EQ(complaintOf(
                  [] { parsed(R"({"a": {"b": [0, {}, {"c": 1, "d": {"c": 2}, "\u0063": 3}]}})"); }),
              "plant.json: a.b[2]: the key \"c\" is given twice (remove one)");
    EXPECT_EQ(complaintOf([] { parsed(R"([{"a": 1, "b": {"a": 2}}, {"a": {"b": 0}}])"); }), "none");
}

TEST(JsonFile, RefusesAByteZeroWithItsPlace)
{
    const std::string reason = ": a byte 00 (save the file as UTF-8 text)";
    const auto complaint = [](const std::string& text) {
        return complaintOf([&] { JsonNode::fromText(text, "plant.json"); });
    };
    EXPECT_EQ(complaint(std::string("{}\n\0garbage", 11)), "plant.json:2:1" + reason);
    EXPECT_EQ(complaint(std::string("{\"a\0b\": 1}", 10)), "plant.json:1:4" + reason);
    EXPECT_EQ(complaint(std::string("{} // \0", 7)), "plant.json:1:7" + reason);
}

TEST(JsonFile, RefusesTextThatIsNotUtf8)
{
    const std::string complaint = complaintOf([] { parsed("{\"a\": \"\xff\"}"); });
    EXPECT_EQ(complaint.rfind("plant.json:1:8: syntax error while parsing value - invalid string: "
                              "ill-formed UTF-8 byte",
                              0),
              0U)
        << complaint;
}

TEST(JsonFile, ShortensWhatItQuotes)
{
    const std::string digits(1000000, '1');
    const auto length = [](const std::string& text) {
        const std::string complaint = complaintOf([&] {
            const JsonNode root = JsonNode::fromText(text, "plant.json");
            root.expectKeys({"a"});
            root.at("a").integer(0, 9);
        });
        EXPECT_EQ(complaint.rfind("plant.json:", 0), 0U);
        return complaint.size();
    };
    EXPECT_LT(length("{\"a\": " + digits + "}"), 350U);     // too large for any number
    EXPECT_LT(length("{\"a\": 0." + digits + "}"), 350U);   // not whole
    EXPECT_LT(length("{\"a\": " + digits + "x}"), 350U);    // no number
    EXPECT_LT(length("{\"a\": \"" + digits + "\"}"), 350U); // no number either
    EXPECT_LT(length("{\"" + digits + "\": 1}"), 350U);     // unknown
    EXPECT_LT(length("{\"" + digits + "\": 1, \"" + digits + "\": 2}"), 350U);
}

TEST(JsonFile, ReportsThatADirectoryCannotBeRead)
{
    EXPECT_EQ(complaintOf([] { JsonNode::fromFile("/"); }),
              "/: cannot be read: Is a directory (check the path)");
}

TEST(JsonFile, RefusesAFileThatHasNoEnd)
{
    EXPECT_EQ(complaintOf([] { JsonNode::fromFile("/dev/zero"); }),
              "/dev/zero: is longer than 64 MB (divide it into several files)");
}

TEST(JsonFile, ReadsAFileOfTheLargestSizeAndNoLonger)
{
    const std::string path = testing::TempDir() + "largest.json";
    const auto write = [&path](std::size_t size) {
        std::ofstream(path) << "{}" << std::string(size - 2, ' ');
    };
    write(std::size_t{64} << 20);
    EXPECT_EQ(complaintOf([&] { JsonNode::fromFile(path); }), "none");
    write((std::size_t{64} << 20) + 1);
    EXPECT_NE(complaintOf([&] { JsonNode::fromFile(path); }), "none");
    std::remove(path.c_str());
}

TEST(JsonElements, AreTheNodesOfTheArrayInItsOrder)
{
    const JsonNode::Elements elements = parsed("[10, 11, 12]").elements();
    ASSERT_EQ(elements.size(), 3U);
    std::int64_t expected = 10;
    for (const JsonNode& node : elements)
        EXPECT_EQ(node.integer(0, 99), expected++);
    EXPECT_EQ(expected, 13);
    EXPECT_EQ(complaintOf([&] { elements[2].text(); }),
              "plant.json: [2]: 12 is not a text in quotes");
    EXPECT_TRUE(parsed("[]").elements().empty());
}

} // namespace
} // namespace micro850
