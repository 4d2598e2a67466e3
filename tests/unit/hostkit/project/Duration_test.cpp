#include "Duration.h"

#include "UserError.h"
#include "ValueStore.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <limits>

using namespace micro850::host;

namespace {

qint64 microseconds(const char* text)
{
    return durationFromText(QString::fromLatin1(text)).value_or(-999);
}

std::string bytesOf(const char* type, const char* text)
{
    return wire::text(elementFromText(micro850::cipTypeNamed(type), QString::fromUtf8(text)));
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

TEST(Duration, AddsUpDaysAndSmallerUnits)
{
    EXPECT_EQ(microseconds("PT2.5S"), 2500000);
    EXPECT_EQ(microseconds("PT0.000001S"), 1);
    EXPECT_EQ(microseconds("PT1H2M3S"), 3723000000);
    EXPECT_EQ(microseconds("P1DT12H"), 129600000000);
    EXPECT_EQ(microseconds("P2W"), 1209600000000);
    EXPECT_EQ(microseconds("-PT1S"), -1000000);
    EXPECT_EQ(microseconds("+P1D"), 86400000000);
    EXPECT_EQ(microseconds("PT0S"), 0);
}

TEST(Duration, IsShownInTheLargestUnits)
{
    EXPECT_EQ(durationText(0), QString("PT0S"));
    EXPECT_EQ(durationText(2500000), QString("PT2.5S"));
    EXPECT_EQ(durationText(1), QString("PT0.000001S"));
    EXPECT_EQ(durationText(60000000), QString("PT1M"));
    EXPECT_EQ(durationText(3723000000), QString("PT1H2M3S"));
    EXPECT_EQ(durationText(129600000000), QString("P1DT12H"));
    EXPECT_EQ(durationText(86400000000), QString("P1D"));
    EXPECT_EQ(durationText(-1000000), QString("-PT1S"));
    EXPECT_EQ(durationText(std::numeric_limits<qint64>::min()),
              QString("-P106751991DT4H54.775808S"));
}

TEST(Duration, RefusesWhatIsNoneOrHasNoFixedLength)
{
    for (const char* text : {"", "P", "PT", "P1", "2.5S", "PT2.5", "P1Y", "P1M", "P1DT", "PT1.5H",
                             "PT1S ", "PT-1S", "PT0.0000001S", "PT1S1M"})
        EXPECT_FALSE(durationFromText(QString::fromLatin1(text))) << text;
}

TEST(Duration, RefusesWhatSixtyFourBitsDoNotHold)
{
    EXPECT_TRUE(durationFromText("P999999D"));
    EXPECT_FALSE(durationFromText("P999999999D"));
}

TEST(Duration, IsAValueOfEveryTypeThatHoldsOne)
{
    EXPECT_EQ(bytesOf("TIME", "PT2.5S"), "C4 09 00 00");
    EXPECT_EQ(bytesOf("ITIME", "-PT1S"), "18 FC");
    EXPECT_EQ(bytesOf("STIME", "PT1S"), "E8 03 00 00");
    EXPECT_EQ(bytesOf("FTIME", "PT0.00025S"), "FA 00 00 00");
    EXPECT_EQ(bytesOf("LTIME", "PT1S"), "40 42 0F 00 00 00 00 00");
    EXPECT_EQ(bytesOf("TIME", "2500"), "C4 09 00 00");
}

TEST(Duration, IsNoValueOfATypeThatCountsSomethingElse)
{
    EXPECT_EQ(complaint("DINT", "PT1S"),
              "\"PT1S\" is not a value of type DINT (-2147483648 to 2147483647)");
    EXPECT_EQ(bytesOf("SHORT_STRING", "PT1S"), "04 50 54 31 53");
}

TEST(Duration, SaysWhatATypeCanHold)
{
    EXPECT_EQ(complaint("ITIME", "PT1M"),
              "\"60000\" is not a value of type ITIME (-32768 to 32767)");
    EXPECT_EQ(complaint("TIME", "PT0.0005S"),
              "\"PT0.0005S\" is not a value of type TIME (an ISO 8601 duration of whole "
              "milliseconds, such as PT2.5S or P1DT12H)");
    EXPECT_EQ(complaint("TIME", "P1M").find("\"P1M\" is not a value of type TIME"), 0u);
}

TEST(ValueText, RefusesCharactersThatAreNotOnTheWire)
{
    EXPECT_EQ(bytesOf("SHORT_STRING", "\xC3\xA4"), "01 E4");
    EXPECT_EQ(complaint("SHORT_STRING", "\xE2\x82\xAC"),
              "\"\xE2\x82\xAC\" is not a value of type SHORT_STRING (characters up to U+00FF)");
}
