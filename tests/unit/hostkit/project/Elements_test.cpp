#include "Elements.h"

#include "UserError.h"
#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using wire::hex;

namespace {

std::string bytesOf(const char* name, const char* text)
{
    const micro850::CipType& type = micro850::cipTypeNamed(name);
    return wire::text(encodeElement(type, parseElement(type, QString::fromUtf8(text))));
}

std::string complaint(const char* type, const char* text)
{
    try {
        bytesOf(type, text);
    } catch (const micro850::UserError& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST(ParsedElement, HasTheBytesThatTheWireCarries)
{
    EXPECT_EQ(bytesOf("INT", "-2"), "FE FF");
    EXPECT_EQ(bytesOf("REAL", "21.5"), "00 00 AC 41");
    EXPECT_EQ(bytesOf("SHORT_STRING", "Pä"), "02 50 E4");
}

TEST(ParsedElement, MayBeADurationForATypeThatHoldsOne)
{
    EXPECT_EQ(bytesOf("TIME", "PT2.5S"), "C4 09 00 00");
    EXPECT_EQ(bytesOf("ITIME", "-PT1S"), "18 FC");
    EXPECT_EQ(bytesOf("STIME", "PT1S"), "E8 03 00 00");
    EXPECT_EQ(bytesOf("FTIME", "PT0.00025S"), "FA 00 00 00");
    EXPECT_EQ(bytesOf("LTIME", "PT1S"), "40 42 0F 00 00 00 00 00");
    EXPECT_EQ(bytesOf("TIME", "2500"), "C4 09 00 00");
}

TEST(ParsedElement, IsNoDurationForATypeThatCountsSomethingElse)
{
    EXPECT_EQ(complaint("DINT", "PT1S"),
              "\"PT1S\" is not a value of type DINT (-2147483648 to 2147483647)");
    EXPECT_EQ(bytesOf("SHORT_STRING", "PT1S"), "04 50 54 31 53");
}

TEST(ParsedElement, RefusesADurationThatTheTypeCannotHold)
{
    EXPECT_EQ(complaint("ITIME", "PT1M"),
              "\"PT1M\" is not a value of type ITIME (an ISO 8601 duration of whole "
              "milliseconds such as PT2.5S, -PT32.768S to PT32.767S)");
    EXPECT_EQ(complaint("TIME", "PT0.0005S"),
              "\"PT0.0005S\" is not a value of type TIME (an ISO 8601 duration of whole "
              "milliseconds such as PT2.5S, -P24DT20H31M23.648S to P24DT20H31M23.647S)");
    EXPECT_EQ(complaint("TIME", "P1M").find("\"P1M\" is not a value of type TIME"), 0u);
}

TEST(ParsedElement, RefusesCharactersThatTheWireCannotCarry)
{
    EXPECT_EQ(bytesOf("SHORT_STRING", "\xC3\xA4"), "01 E4");
    EXPECT_EQ(complaint("SHORT_STRING", "\xE2\x82\xAC"),
              "\"\xE2\x82\xAC\" is not a value of type SHORT_STRING (characters up to U+00FF)");
}

TEST(ValueText, ShowsEachTypeInItsOwnWay)
{
    const auto text = [](const char* name, const char* bytes) {
        return valueText(decodeElement(micro850::cipTypeNamed(name), hex(bytes))).toStdString();
    };
    EXPECT_EQ(text("BOOL", "01"), "true");
    EXPECT_EQ(text("BOOL", "00"), "false");
    EXPECT_EQ(text("SINT", "80"), "-128");
    EXPECT_EQ(text("UINT", "FF FF"), "65535");
    EXPECT_EQ(text("REAL", "00 00 AC 41"), "21.5");
    EXPECT_EQ(text("ULINT", "FF FF FF FF FF FF FF FF"), "18446744073709551615");
    EXPECT_EQ(text("WORD", "34 12"), "0x1234");
}

TEST(ShownText, ShowsDurationsInIsoFormAndOtherValuesUnchanged)
{
    const auto text = [](const char* name, const char* bytes) {
        const micro850::CipType& type = micro850::cipTypeNamed(name);
        return shownText(type, decodeElement(type, hex(bytes))).toStdString();
    };
    EXPECT_EQ(text("TIME", "C4 09 00 00"), "PT2.5S");
    EXPECT_EQ(text("STIME", "18 FC FF FF"), "-PT1S");
    EXPECT_EQ(text("FTIME", "FA 00 00 00"), "PT0.00025S");
    EXPECT_EQ(text("DINT", "C4 09 00 00"), "2500");
    EXPECT_EQ(text("WORD", "34 12"), "0x1234");
}

TEST(ParsedElement, MayBeADateOrATimeOfDayForATypeThatHoldsOne)
{
    EXPECT_EQ(bytesOf("DATE", "1972-02-29"), "3B 00");
    EXPECT_EQ(bytesOf("TIME_OF_DAY", "00:00:01"), "E8 03 00 00");
    EXPECT_EQ(bytesOf("DATE_AND_TIME", "1972-01-02T00:00:01"), "E8 03 00 00 01 00 00 00");
    EXPECT_EQ(bytesOf("DATE", "59"), "3B 00");
    EXPECT_EQ(complaint("DATE", "2023-02-29"),
              "\"2023-02-29\" is not a value of type DATE (ISO 8601 such as 2024-02-29 and no time "
              "zone, or 0 to 65535)");
    EXPECT_EQ(bytesOf("SHORT_STRING", "06:30"), "05 30 36 3A 33 30");
}

TEST(ParsedElement, MayBeAStringInDoubleQuotesWithEscapes)
{
    EXPECT_EQ(bytesOf("SHORT_STRING", R"("ab\x00cd")"), "05 61 62 00 63 64");
    EXPECT_EQ(bytesOf("SHORT_STRING", R"("\"\\\n\r\t\u00e4\x1B")"), "07 22 5C 0A 0D 09 E4 1B");
    EXPECT_EQ(bytesOf("SHORT_STRING", R"("")"), "00");
    EXPECT_EQ(bytesOf("SHORT_STRING", R"(a "b" \n)"), "08 61 20 22 62 22 20 5C 6E");
    for (const char* text : {R"(")", R"("a)", R"("a"b)", R"("a\")", R"("\q")", R"("\x1")",
                             R"("\x1g")", R"("\u0x1f")", R"("\u12")", R"("\)", R"("\x)"})
        EXPECT_NE(complaint("SHORT_STRING", text), "none") << text;
    EXPECT_NE(complaint("SHORT_STRING", R"("\u20ac")"), "none");
    EXPECT_NE(complaint("INT", R"("5")"), "none");
}

TEST(ValueText, HasAllCharactersOfATextWithAZeroByte)
{
    const micro850::CipValue value =
        decodeElement(micro850::cipTypeNamed("SHORT_STRING"), hex("05 61 62 00 63 64"));
    EXPECT_EQ(valueText(value), QString::fromLatin1("ab\0cd", 5));
}

TEST(ShownText, QuotesAStringThatATerminalWouldObey)
{
    const auto text = [](const char* bytes) {
        const micro850::CipType& type = micro850::cipTypeNamed("SHORT_STRING");
        return shownText(type, decodeElement(type, hex(bytes))).toStdString();
    };
    EXPECT_EQ(text("02 6F 6B"), "ok");
    EXPECT_EQ(text("03 6F 0A 6B"), R"("o\nk")");
    EXPECT_EQ(text("03 22 9B E4"), "\"\\\"\\u009b\xC3\xA4\"");
}

TEST(ElementsOf, ReturnsOnlyWholeElements)
{
    EXPECT_EQ(elementsOf(micro850::cipTypeNamed("INT"), hex("01 00 02 00 03")).size(), 2);
    EXPECT_EQ(elementsOf(micro850::cipTypeNamed("SHORT_STRING"), hex("02 41 42")).size(), 1);
}
