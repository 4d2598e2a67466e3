#include "CipValue.h"

#include "UserError.h"

#include <gtest/gtest.h>

#include <cmath>

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

TEST(CipValue, AcceptsTimesAndDatesAsIso8601)
{
    EXPECT_EQ(bytesOf("TIME", "PT2.5S"), (Bytes{0xC4, 0x09, 0, 0}));
    EXPECT_EQ(bytesOf("DATE", "1972-02-29"), (Bytes{59, 0}));
    EXPECT_EQ(bytesOf("TIME_OF_DAY", "00:00:01"), (Bytes{0xE8, 0x03, 0, 0}));
    EXPECT_EQ(bytesOf("DATE_AND_TIME", "1972-01-02T00:00:01"),
              (Bytes{0xE8, 0x03, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(refusalOf("TIME_OF_DAY", "24:00"),
              "\"24:00\" is not a value of type TIME_OF_DAY (ISO 8601 such as 06:30:00.250 and no "
              "time zone, or 0 to 4294967295)");
    EXPECT_NE(refusalOf("UINT", "1972-02-29"), "accepted");
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

TEST(CipValue, DecodesEachTypeToItsKind)
{
    const auto kind = [](const char* type) {
        return CipValue::decode(cipTypeNamed(type), Bytes(8, 0xFF)).kind();
    };
    for (const CipType& type : cipTypes())
        EXPECT_EQ(kind(type.name), type.kind) << type.name;
}

TEST(CipValue, KeepsEveryBitOfAWideNumber)
{
    const Bytes ones(8, 0xFF);
    EXPECT_EQ(CipValue::decode(cipTypeNamed("LINT"), ones).signedNumber(), -1);
    EXPECT_EQ(CipValue::decode(cipTypeNamed("ULINT"), ones).unsignedNumber(), ~std::uint64_t{0});
    EXPECT_EQ(CipValue::decode(cipTypeNamed("LWORD"), ones).unsignedNumber(), ~std::uint64_t{0});
}

TEST(CipValue, IsANumberOfItsOwnDigits)
{
    EXPECT_EQ(CipValue::ofReal(0.1f).number(), 0.1);
    EXPECT_EQ(CipValue::ofReal(0.1).number(), 0.1);
    EXPECT_EQ(CipValue::ofSigned(-5).number(), -5.0);
    EXPECT_EQ(CipValue::ofUnsigned(5).number(), 5.0);
    EXPECT_EQ(CipValue::ofBits(0x10, 1).number(), 16.0);
    EXPECT_EQ(CipValue::ofBoolean(true).number(), 1.0);
    EXPECT_TRUE(std::isnan(CipValue::ofText("5").number()));
}

// A processor may set the sign of a result that is not a number.
TEST(CipValue, StaysNotANumberWhateverItsSign)
{
    for (const std::uint8_t sign : {std::uint8_t{0x7F}, std::uint8_t{0xFF}}) {
        const CipValue value = CipValue::decode(cipTypeNamed("REAL"), {0, 0, 0xC0, sign});
        EXPECT_TRUE(std::isnan(value.number())) << value.text();
        EXPECT_EQ(value.text(), "nan");
    }
}

TEST(CipValue, NamesTheLimitsOfARealThatIsOutOfRange)
{
    for (const char* text : {"1e39", "-1e39", "1e-60"})
        EXPECT_EQ(refusalOf("REAL", text),
                  '"' + std::string(text) +
                      "\" is out of range for type REAL (-3.4028235e+38 to 3.4028235e+38, and 0 or "
                      "not nearer to 0 than 1e-45)");
    for (const char* text : {"1e400", "-1e-400"})
        EXPECT_EQ(refusalOf("LREAL", text),
                  '"' + std::string(text) +
                      "\" is out of range for type LREAL (-1.7976931348623157e+308 to "
                      "1.7976931348623157e+308, and 0 or not nearer to 0 than 5e-324)");
    EXPECT_EQ(bytesOf("REAL", "3.4028235e38"), (Bytes{0xFF, 0xFF, 0x7F, 0x7F}));
    EXPECT_EQ(bytesOf("REAL", "1e-45"), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(refusalOf("REAL", "1e39x"),
              "\"1e39x\" is not a value of type REAL (a number such as 1.5 or -2e10)");
}

} // namespace
} // namespace micro850
