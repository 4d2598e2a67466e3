#include "TagTable.h"

#include "CipValue.h"
#include "UserError.h"
#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

TagTable tagTableOf(const std::string& tags)
{
    return TagTable::fromText("{\"tags\": [" + tags + "]}", "plant.json");
}

std::string complaintAbout(const std::string& tags)
{
    try {
        tagTableOf(tags);
    } catch (const UserError& error) {
        return error.what();
    }
    return "none";
}

std::string valueAt(TagTable& table, double seconds, std::size_t element = 0)
{
    table.move(fromSeconds(seconds));
    const Tag& tag = *table.find("T");
    return textFromValue(*tag.type, tag.elements[element]);
}

TEST(TagTable, RefusesMoreElementsThanFitIntoTheMemory)
{
    const auto tags = [](int last) {
        std::string all;
        for (int i = 0; i < 61; ++i)
            all += R"({"type": "BOOL", "length": 65536, "name": "A)" + std::to_string(i) + "\"},";
        return all + R"({"name": "B", "type": "BOOL", "length": )" + std::to_string(last) + '}';
    };
    EXPECT_EQ(complaintAbout(tags(4000000 - 61 * 65536)), "none");
    EXPECT_EQ(complaintAbout(tags(4000001 - 61 * 65536)),
              "plant.json: tags[61]: the tags have more than 4000000 elements together (leave some "
              "out)");
}

TEST(TagTable, FillsAnArrayWithOneValueOrWithAListAndZeros)
{
    const TagTable table = tagTableOf(R"({"name": "A", "type": "INT", "length": 3, "value": 7},
                                   {"name": "B", "type": "INT", "length": 3, "value": [1, 2]})");
    EXPECT_EQ(text(table.find("A")->elements[2]), "07 00");
    EXPECT_EQ(text(table.find("B")->elements[1]), "02 00");
    EXPECT_EQ(text(table.find("B")->elements[2]), "00 00");
    EXPECT_EQ(table.find("C"), nullptr);
}

TEST(TagTable, RampRisesFromLeastToMostAndStartsAgain)
{
    TagTable table = tagTableOf(R"({"name": "T", "type": "INT",
                              "motion": {"kind": "ramp", "min": 0, "max": 100, "period": 10}})");
    EXPECT_EQ(valueAt(table, 0), "0");
    EXPECT_EQ(valueAt(table, 5), "50");
    EXPECT_EQ(valueAt(table, 9.9), "99");
    EXPECT_EQ(valueAt(table, 10), "0");
}

TEST(TagTable, SineSwingsAroundTheMiddle)
{
    TagTable table = tagTableOf(R"({"name": "T", "type": "INT",
                              "motion": {"kind": "sine", "min": -100, "max": 100, "period": 4}})");
    EXPECT_EQ(valueAt(table, 0), "0");
    EXPECT_EQ(valueAt(table, 1), "100");
    EXPECT_EQ(valueAt(table, 3), "-100");
}

TEST(TagTable, CounterRisesByOneEachPeriod)
{
    TagTable table = tagTableOf(R"({"name": "T", "type": "DINT",
                              "motion": {"kind": "counter", "min": 5, "max": 7, "period": 2}})");
    EXPECT_EQ(valueAt(table, 1.9), "5");
    EXPECT_EQ(valueAt(table, 2), "6");
    EXPECT_EQ(valueAt(table, 5), "7");
    EXPECT_EQ(valueAt(table, 6), "5");
}

TEST(TagTable, ToggleChangesEachPeriod)
{
    TagTable table =
        tagTableOf(R"({"name": "T", "type": "BOOL", "motion": {"kind": "toggle", "period": 1}})");
    EXPECT_EQ(valueAt(table, 0.5), "false");
    EXPECT_EQ(valueAt(table, 1.5), "true");
    EXPECT_EQ(valueAt(table, 2.5), "false");
}

TEST(TagTable, ResetRestoresTheInitialValues)
{
    TagTable table = tagTableOf(R"({"name": "T", "type": "INT", "value": 3})");
    table.find("T")->elements[0] = hex("09 00");
    table.reset();
    EXPECT_EQ(text(table.find("T")->elements[0]), "03 00");
}

TEST(TagTable, ErrorOfAWrongTagFileNamesFileKeyAndRemedy)
{
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INTT"})"),
              "plant.json: tags[0].type: \"INTT\" is not a CIP type (did you mean INT?)");
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INT", "value": 40000})"),
              "plant.json: tags[0].value: \"40000\" is not a value of type INT (-32768 to 32767)");
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INT"}, {"name": "T", "type": "INT"})"),
              "plant.json: tags[1].name: the tag \"T\" is defined twice; remove or rename one");
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INT", "lenght": 3})"),
              "plant.json: tags[0]: unknown key \"lenght\" (did you mean length?)");
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INT", "length": 0})"),
              "plant.json: tags[0].length: 0 is not allowed (1 to 65536)");
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INT", "length": 1, "value": [1, 2]})"),
              "plant.json: tags[0].value: 2 values for 1 elements");
    EXPECT_EQ(complaintAbout(R"({"type": "INT"})"),
              "plant.json: tags[0]: the key \"name\" is missing");
    EXPECT_EQ(complaintAbout(R"({"name": "", "type": "INT"})"),
              "plant.json: tags[0].name: a tag name has 1 to 255 characters");
    EXPECT_EQ(complaintAbout(R"({"name": "T", "type": "INT", "motion": {"kind": "rmap"}})"),
              "plant.json: tags[0].motion.kind: \"rmap\" is not a motion (did you mean ramp?) "
              "(ramp, sine, counter or toggle)");
    EXPECT_EQ(
        complaintAbout(R"({"name": "T", "type": "SHORT_STRING", "motion": {"kind": "ramp"}})"),
        "plant.json: tags[0].motion: a SHORT_STRING cannot move; remove the motion");
}

TEST(TagTable, RefusesAMotionBeyondTheRangeOfTheType)
{
    const auto complaint = [](const char* type, const char* bounds) {
        return complaintAbout(std::string(R"({"name": "T", "type": ")") + type +
                              R"(", "motion": {"kind": "sine", )" + bounds + "}}");
    };
    EXPECT_EQ(complaint("INT", R"("max": 40000)"),
              "plant.json: tags[0].motion: min or max is beyond what a INT holds");
    EXPECT_EQ(complaint("INT", R"("min": -32768.4, "max": 32767.4)"), "none");
    EXPECT_NE(complaint("INT", R"("max": 32767.5)"), "none");
    EXPECT_NE(complaint("UINT", R"("min": -1)"), "none");
    EXPECT_NE(complaint("REAL", R"("max": 1e39)"), "none");
    EXPECT_NE(complaint("LREAL", R"("min": -1e308, "max": 1e308)"), "none");
    EXPECT_NE(complaint("LINT", R"("max": 9223372036854775808)"), "none");
}

TEST(TagTable, MotionReachesTheLargestAndSmallestValueOfAType)
{
    const auto at = [](const char* type, const char* bounds, double seconds) {
        TagTable table =
            tagTableOf(std::string(R"({"name": "T", "type": ")") + type +
                       R"(", "motion": {"kind": "sine", "period": 4, )" + bounds + "}}");
        return valueAt(table, seconds);
    };
    EXPECT_EQ(at("ULINT", R"("max": 18446744073709549568)", 1), "18446744073709549568");
    EXPECT_EQ(at("LINT", R"("min": -9223372036854775808, "max": 0)", 3), "-9223372036854775808");
    EXPECT_EQ(at("REAL", R"("min": -3.4028234e38, "max": 3.4028234e38)", 1), "3.4028235e+38");
    EXPECT_EQ(at("LREAL", R"("min": 0, "max": 1e-320)", 1), "1e-320");
}

TEST(TagTable, StoresATextWithOneByteACharacter)
{
    const TagTable table = tagTableOf("{\"name\": \"T\", \"type\": \"SHORT_STRING\", \"value\": "
                                      "\"Gr\xC3\xB6\xC3\x9F\x65 \\u00ff\\u0080~\"}");
    EXPECT_EQ(text(table.find("T")->elements[0]), "09 47 72 F6 DF 65 20 FF 80 7E");
}

TEST(TagTable, RefusesATextWithACharacterThatHasNoByte)
{
    const auto complaint = [](const char* value) {
        return complaintAbout(
            std::string(R"({"name": "T", "type": "SHORT_STRING", "length": 2, )") +
            R"("value": ["ok", ")" + value + R"("]})");
    };
    const std::string why = " has a character that a text of the controller cannot hold (U+0000 to "
                            "U+00FF)";
    EXPECT_EQ(complaint("5 \xE2\x82\xAC"),
              "plant.json: tags[0].value[1]: \"5 \xE2\x82\xAC\"" + why);
    EXPECT_EQ(complaint("\xC4\x80"), "plant.json: tags[0].value[1]: \"\xC4\x80\"" + why);
    EXPECT_EQ(complaint("\xF0\x9F\x99\x82"),
              "plant.json: tags[0].value[1]: \"\xF0\x9F\x99\x82\"" + why);
}

} // namespace
} // namespace micro850::sim
