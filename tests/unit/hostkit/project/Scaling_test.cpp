#include "Scaling.h"

#include "UserError.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace micro850::host;
using micro850::CipType;
using micro850::CipValue;

namespace {

const CipType& type(const char* name)
{
    return micro850::cipTypeNamed(name);
}

std::string shown(const Scaling& scaling, const char* name, const CipValue& value)
{
    return scaling.text(type(name), value).toStdString();
}

// What is stored, as the controller's own number, with a star when it was rounded.
std::string stored(const Scaling& scaling, const char* name, const char* text)
{
    try {
        const StoredValue made = scaling.stored(type(name), text);
        return made.value.text() + (made.rounded ? "*" : "");
    } catch (const micro850::UserError& error) {
        return error.what();
    }
}

const Scaling kFahrenheit(1.8, 32);

} // namespace

TEST(Scaling, ShowsAndStoresANumberWithGainAndOffset)
{
    EXPECT_EQ(shown(kFahrenheit, "INT", CipValue::ofSigned(20)), "68");
    EXPECT_EQ(stored(kFahrenheit, "INT", "68"), "20");
    EXPECT_EQ(shown(kFahrenheit, "REAL", CipValue::ofReal(20.0f)), "68");
    EXPECT_EQ(stored(kFahrenheit, "REAL", "68"), "20");
    EXPECT_EQ(stored(kFahrenheit, "LREAL", "68"), "20");
    EXPECT_EQ(stored(Scaling(-0.5, 0), "USINT", "-4"), "8");
}

TEST(Scaling, TellsWhenAWholeNumberWasRounded)
{
    EXPECT_EQ(stored(kFahrenheit, "INT", "68.3"), "20*");
    EXPECT_EQ(stored(kFahrenheit, "INT", "69.0"), "21*");
    EXPECT_EQ(stored(kFahrenheit, "INT", "69.8"), "21");
    EXPECT_EQ(kFahrenheit.roundingNote(type("INT"), "68.3", CipValue::ofSigned(20)),
              QString("68.3 is stored as 20, which is 68"));
}

TEST(Scaling, IsExactToTheLastBitWithoutGainAndOffset)
{
    const Scaling none;
    EXPECT_EQ(stored(none, "LINT", "-9223372036854775807"), "-9223372036854775807");
    EXPECT_EQ(stored(none, "ULINT", "18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(shown(none, "LINT", CipValue::ofSigned(9007199254740993)), "9007199254740993");
    EXPECT_EQ(none.shown(type("LINT"), CipValue::ofSigned(9007199254740993)).signedNumber(),
              9007199254740993);
    EXPECT_EQ(stored(none, "LREAL", "0.30000000000000004"), "0.30000000000000004");
}

TEST(Scaling, RefusesWhatTheTypeCannotHoldWithTheRangeThatTheUserSees)
{
    EXPECT_EQ(stored(kFahrenheit, "USINT", "500"),
              "\"500\" is not a value of type USINT with gain 1.8 and offset 32 (32 to 491)");
    EXPECT_EQ(stored(kFahrenheit, "USINT", "491"), "255");
    EXPECT_EQ(stored(kFahrenheit, "USINT", "31"),
              "\"31\" is not a value of type USINT with gain 1.8 and offset 32 (32 to 491)");
    EXPECT_EQ(stored(Scaling(-0.1, 0), "SINT", "13"),
              "\"13\" is not a value of type SINT with gain -0.1 and offset 0 (-12.7 to 12.8)");
    EXPECT_EQ(stored(Scaling(1, 1), "LINT", "9223372036854775808").find("\"9223372036854775808\""),
              0u);
    EXPECT_EQ(stored(Scaling(2, 0), "ULINT", "36893488147419103232").find("\"3689348"), 0u);
    EXPECT_EQ(stored(Scaling(10, 0), "REAL", "4e39"),
              "\"4e39\" is not a value of type REAL with gain 10 and offset 0 "
              "(-3.40282e+39 to 3.40282e+39)");
    EXPECT_EQ(stored(Scaling(0.1, 0), "LREAL", "1e308"),
              "\"1e308\" is not a value of type LREAL with gain 0.1 and offset 0 "
              "(-1.7976931348623e+307 to 1.7976931348623e+307)");
}

// 2^53 - 1 is the last whole number that no other one is rounded to.
TEST(Scaling, RefusesScaledIntegersThatAreNotExact)
{
    const Scaling offset(1, 1);
    EXPECT_EQ(stored(offset, "LINT", "9007199254740991"), "9007199254740990");
    EXPECT_EQ(stored(offset, "LINT", "-9007199254740990"), "-9007199254740991");
    for (const char* text : {"9007199254740992", "9007199254740993", "9007199254740994",
                             "-9007199254740991", "-9007199254740993", "9223372036854775807"})
        EXPECT_EQ(stored(offset, "LINT", text),
                  '"' + std::string(text) +
                      "\" is not a value of type LINT with gain 1 and offset 1 (-9007199254740990 "
                      "to 9007199254740991; write the controller's own number with --raw for "
                      "others)");
    EXPECT_EQ(stored(Scaling(2, 0), "ULINT", "9007199254740990"), "4503599627370495");
    EXPECT_EQ(stored(Scaling(2, 0), "ULINT", "9007199254740994").front(), '"');
    EXPECT_EQ(stored(Scaling(0.5, 0), "ULINT", "4503599627370495.5"), "9007199254740991");
    EXPECT_EQ(stored(Scaling(0.5, 0), "ULINT", "4503599627370496").front(), '"');
    EXPECT_EQ(stored(Scaling::ofRaw(), "LINT", "9007199254740993"), "9007199254740993");
}

TEST(Scaling, TellsWhenARealIsShownAsAnotherNumberThanWasGiven)
{
    const Scaling none;
    EXPECT_EQ(stored(none, "REAL", "16777217"), "16777216*");
    EXPECT_EQ(stored(none, "REAL", "-3.14159265"), "-3.1415927*");
    EXPECT_EQ(stored(none, "REAL", "1e-46").front(), '"');
    EXPECT_EQ(stored(none, "LREAL", "9007199254740993"), "9007199254740992*");
    EXPECT_EQ(stored(none, "LREAL", "0.1000000000000000001"), "0.1*");
    EXPECT_EQ(stored(Scaling::ofRaw(), "REAL", "16777217"), "16777216*");
    EXPECT_EQ(none.roundingNote(type("REAL"), "16777217", CipValue::ofReal(16777216.0f)),
              QString("16777217 is stored as 16777216"));
    const std::pair<const char*, const char*> exact[] = {
        {"0.1", "0.1"},    {"00.10", "0.1"}, {".5", "0.5"},     {"-1.50", "-1.5"},
        {"100", "100"},    {"1E2", "100"},   {"0.01e4", "100"}, {"1e+2", "100"},
        {"-0.0", "-0"},    {"0e5", "0"},     {"5.", "5"},       {"16777216", "16777216"},
        {"1e20", "1e+20"}, {"nan", "nan"},   {"-inf", "-inf"},  {"0.05", "0.05"}};
    for (const auto& [text, expected] : exact) {
        EXPECT_EQ(stored(none, "REAL", text), expected);
        EXPECT_EQ(stored(none, "LREAL", text), expected);
    }
}

TEST(Scaling, TellsWhenAScaledRealIsShownAsAnotherNumberThanWasGiven)
{
    EXPECT_EQ(stored(Scaling(2, 0), "REAL", "33554434"), "16777216*");
    EXPECT_EQ(stored(Scaling(2, 0), "REAL", "33554432"), "16777216");
    EXPECT_EQ(stored(Scaling(2, 0), "LREAL", "0.2000000000000004").back(), '*');
}

TEST(Scaling, RefusesATextThatIsNoFiniteDecimalNumber)
{
    for (const char* text :
         {"", "nan", "inf", "-inf", "1e999", "68,3", "0x14", "68 F", " 68", "P1D"})
        EXPECT_EQ(stored(kFahrenheit, "REAL", text).find('"' + std::string(text) + "\" is not a"),
                  0u)
            << text;
}

TEST(Scaling, ShowsNoDigitsThatComeFromTheArithmetic)
{
    EXPECT_EQ(shown(Scaling(0.1, 0), "INT", CipValue::ofSigned(3)), "0.3");
    EXPECT_EQ(shown(Scaling(3, 0), "REAL", CipValue::ofReal(0.1f)), "0.3");
    EXPECT_EQ(shown(Scaling(3, 0), "LREAL", CipValue::ofReal(0.1)), "0.3");
    EXPECT_EQ(shown(Scaling(1.8, 32), "LREAL", CipValue::ofReal(-32 / 1.8)), "0");
    EXPECT_EQ(shown(Scaling(0.1, 0), "DINT", CipValue::ofSigned(0)), "0");
}

TEST(Scaling, ShowsEnoughDigitsToTellNeighbouringValuesApart)
{
    EXPECT_EQ(shown(Scaling(0.001, 0), "DINT", CipValue::ofSigned(2147483647)), "2147483.647");
    EXPECT_EQ(shown(Scaling(0.001, 0), "DINT", CipValue::ofSigned(2147483646)), "2147483.646");
    EXPECT_EQ(shown(Scaling(0.1, 0), "LREAL", CipValue::ofReal(1234567890.125)), "123456789.0125");
}

TEST(Scaling, ShowsWhatIsNoNumberAsItIs)
{
    EXPECT_EQ(shown(kFahrenheit, "BOOL", CipValue::ofBoolean(true)), "true");
    EXPECT_EQ(shown(kFahrenheit, "WORD", CipValue::ofBits(20, 2)), "0x0014");
    EXPECT_EQ(stored(kFahrenheit, "WORD", "0x14"), "0x0014");
    EXPECT_EQ(shown(kFahrenheit, "SHORT_STRING", CipValue::ofText("20")), "20");
    const float infinite = std::numeric_limits<float>::infinity();
    EXPECT_EQ(shown(kFahrenheit, "REAL", CipValue::ofReal(infinite)), "inf");
}

// The property that makes a setpoint safe: what is shown stores the value that it was shown for.
TEST(Scaling, StoresEveryShownTextAsTheValueItWasShownFor)
{
    const double gains[] = {1.8, 0.1, -0.001, 1 / 3.0, 1e-7, 1234.5678, 1};
    const double offsets[] = {0, 32, -273.15, 1e6, 0.5};
    for (const double gain : gains) {
        for (const double offset : offsets) {
            const Scaling scaling(gain, offset);
            for (std::int64_t raw = -32768; raw <= 32767; raw += 7) {
                const std::string text = shown(scaling, "INT", CipValue::ofSigned(raw));
                const std::string wide =
                    shown(scaling, "DINT", CipValue::ofSigned(raw * 65536 + 1));
                ASSERT_EQ(stored(scaling, "INT", text.c_str()), std::to_string(raw));
                ASSERT_EQ(stored(scaling, "DINT", wide.c_str()), std::to_string(raw * 65536 + 1));
            }
        }
    }
}

// Texts with as many digits as the type keeps are read back as they were written.
TEST(Scaling, ShowsAStoredRealAsTheTextThatWasGiven)
{
    const double gains[] = {1.8, 0.1, -0.001, 1 / 3.0, 1e-7, 1234.5678, 1};
    const double offsets[] = {0, 32, -273.15, 1000, 0.5};
    for (const double gain : gains) {
        for (const double offset : offsets) {
            const Scaling scaling(gain, offset);
            for (int tenths = -9999; tenths <= 9999; tenths += 13) {
                const std::string text = CipValue::ofReal(tenths / 10.0).text();
                for (const char* name : {"REAL", "LREAL"}) {
                    const CipValue value =
                        scaling.stored(type(name), QString::fromStdString(text)).value;
                    ASSERT_EQ(shown(scaling, name, value), text) << name << gain << ' ' << offset;
                }
            }
        }
    }
}

TEST(Scaling, GivesRecordsTheNumberThatIsShown)
{
    EXPECT_EQ(Scaling(0.1, 0).shown(type("INT"), CipValue::ofSigned(3)).number(), 0.3);
    EXPECT_EQ(Scaling().shown(type("TIME"), CipValue::ofSigned(2500)).signedNumber(), 2500);
    EXPECT_EQ(Scaling().shown(type("DATE"), CipValue::ofUnsigned(59)).text(), "1972-02-29");
    EXPECT_EQ(Scaling().shown(type("TIME_OF_DAY"), CipValue::ofUnsigned(86400000)).unsignedNumber(),
              86400000u);
}

TEST(RawScaling, ShowsTheControllersOwnNumbers)
{
    Variable variable;
    variable.gain = 1.8;
    variable.raw = true;
    for (const Scaling& raw : {Scaling::ofRaw(), Scaling(variable)}) {
        EXPECT_EQ(shown(raw, "INT", CipValue::ofSigned(20)), "20");
        EXPECT_EQ(shown(raw, "TIME", CipValue::ofSigned(2500)), "2500");
        EXPECT_EQ(shown(raw, "DATE", CipValue::ofUnsigned(59)), "59");
        EXPECT_EQ(raw.shown(type("DATE"), CipValue::ofUnsigned(59)).unsignedNumber(), 59u);
        EXPECT_EQ(stored(raw, "INT", "20"), "20");
    }
}

TEST(UnscaledValue, IsShownAsIso8601WhenItIsATimeOrADate)
{
    EXPECT_EQ(shown(Scaling(), "TIME", CipValue::ofSigned(2500)), "PT2.5S");
    EXPECT_EQ(shown(Scaling(), "DATE", CipValue::ofUnsigned(59)), "1972-02-29");
    EXPECT_EQ(shown(Scaling(), "DATE_AND_TIME", CipValue::ofUnsigned(0)), "1972-01-01T00:00:00");
    EXPECT_EQ(shown(Scaling(), "TIME_OF_DAY", CipValue::ofUnsigned(86400000)), "86400000");
    EXPECT_EQ(stored(Scaling(), "DATE", "1972-02-29"), "59");
    EXPECT_EQ(stored(Scaling(), "DATE", "59"), "59");
}
