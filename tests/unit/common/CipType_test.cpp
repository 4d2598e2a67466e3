#include "CipType.h"

#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850 {
namespace {

Bytes bytesOf(const char* type, const char* text)
{
    return valueFromText(cipTypeNamed(type), text);
}

std::string refusalOf(const char* type, const char* text)
{
    try {
        valueFromText(cipTypeNamed(type), text);
    } catch (const UserError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(CipType, HasTheCodesOfTheElementaryTypesInOrder)
{
    std::uint16_t code = 0xC1;
    for (const CipType& type : cipTypes())
        EXPECT_EQ(type.code, code++) << type.name;
    EXPECT_STREQ(cipTypeOf(0xDA)->name, "SHORT_STRING");
    EXPECT_EQ(cipTypeOf(0x2A0), nullptr);
}

TEST(CipType, SuggestsTheNameThatWasProbablyMeant)
{
    try {
        cipTypeNamed("INTT");
        FAIL();
    } catch (const UserError& error) {
        EXPECT_STREQ(error.what(), "\"INTT\" is not a CIP type (did you mean INT?)");
    }
}

TEST(CipValue, IsEncodedLowByteFirst)
{
    EXPECT_EQ(bytesOf("INT", "1234"), (Bytes{0xD2, 0x04}));
    EXPECT_EQ(bytesOf("INT", "-2"), (Bytes{0xFE, 0xFF}));
    EXPECT_EQ(bytesOf("DINT", "0x80000001"), (Bytes{1, 0, 0, 0x80}));
    EXPECT_EQ(bytesOf("REAL", "1.5"), (Bytes{0, 0, 0xC0, 0x3F}));
    EXPECT_EQ(bytesOf("LREAL", "-2"), (Bytes{0, 0, 0, 0, 0, 0, 0, 0xC0}));
    EXPECT_EQ(bytesOf("BOOL", "true"), (Bytes{1}));
    EXPECT_EQ(bytesOf("SHORT_STRING", "AB"), (Bytes{2, 'A', 'B'}));
    EXPECT_EQ(bytesOf("STRING", "AB"), (Bytes{2, 0, 'A', 'B'}));
    EXPECT_EQ(bytesOf("STRING2", "A"), (Bytes{1, 0, 'A', 0}));
}

TEST(CipValue, AcceptsExactlyTheRangeOfItsType)
{
    EXPECT_EQ(bytesOf("SINT", "-128"), (Bytes{0x80}));
    EXPECT_EQ(refusalOf("SINT", "-129"), "\"-129\" is not a value of type SINT (-128 to 127)");
    EXPECT_EQ(refusalOf("SINT", "128"), "\"128\" is not a value of type SINT (-128 to 127)");
    EXPECT_EQ(bytesOf("ULINT", "18446744073709551615"), Bytes(8, 0xFF));
    EXPECT_NE(refusalOf("ULINT", "18446744073709551616"), "accepted");
    EXPECT_EQ(bytesOf("LINT", "-9223372036854775808"), (Bytes{0, 0, 0, 0, 0, 0, 0, 0x80}));
    EXPECT_EQ(refusalOf("USINT", "-1"), "\"-1\" is not a value of type USINT (0 to 255)");
}

TEST(CipValue, RejectsTextThatIsNotAValueOfItsType)
{
    EXPECT_NE(refusalOf("INT", ""), "accepted");
    EXPECT_NE(refusalOf("INT", "12x"), "accepted");
    EXPECT_NE(refusalOf("INT", "0x"), "accepted");
    EXPECT_NE(refusalOf("INT", "1.5"), "accepted");
    EXPECT_NE(refusalOf("BOOL", "yes"), "accepted");
    EXPECT_NE(refusalOf("REAL", "one"), "accepted");
    EXPECT_NE(refusalOf("SHORT_STRING", std::string(81, 'x').c_str()), "accepted");
}

TEST(CipValue, IsPrintedAsTheTextThatWasParsed)
{
    const std::pair<const char*, const char*> values[] = {
        {"BOOL", "false"},      {"SINT", "-1"},
        {"UINT", "65535"},      {"LINT", "-9223372036854775808"},
        {"REAL", "0.1"},        {"LREAL", "0.1"},
        {"REAL", "1e+30"},      {"WORD", "0x00AF"},
        {"SHORT_STRING", "ok"}, {"STRING2", "Level 1"},
        {"TIME", "-1500"},      {"LWORD", "0x0123456789ABCDEF"}};
    for (const auto& [type, text] : values)
        EXPECT_EQ(textFromValue(cipTypeNamed(type), bytesOf(type, text)), text) << type;
}

TEST(CipValue, IsPrintedWithZerosForMissingBytes)
{
    EXPECT_EQ(textFromValue(cipTypeNamed("DINT"), {5}), "5");
    EXPECT_EQ(textFromValue(cipTypeNamed("SHORT_STRING"), {9, 'A'}), "A");
    EXPECT_EQ(textFromValue(cipTypeNamed("LREAL"), {}), "0");
}

} // namespace
} // namespace micro850
