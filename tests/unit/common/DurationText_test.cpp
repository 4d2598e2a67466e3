#include "DurationText.h"

#include <gtest/gtest.h>

#include <limits>

namespace micro850 {
namespace {

std::int64_t microseconds(const char* text)
{
    return parseDuration(text).value_or(-999);
}

TEST(ParsedDuration, AddsUpWeeksDaysAndSmallerUnits)
{
    EXPECT_EQ(microseconds("PT2.5S"), 2500000);
    EXPECT_EQ(microseconds("PT0.000001S"), 1);
    EXPECT_EQ(microseconds("PT1H2M3S"), 3723000000);
    EXPECT_EQ(microseconds("P1DT12H"), 129600000000);
    EXPECT_EQ(microseconds("P2W"), 1209600000000);
    EXPECT_EQ(microseconds("P1W2DT3M"), 777780000000);
    EXPECT_EQ(microseconds("-PT1S"), -1000000);
    EXPECT_EQ(microseconds("+P1D"), 86400000000);
    EXPECT_EQ(microseconds("PT0S"), 0);
    EXPECT_EQ(microseconds("PT999999999999.999999S"), 999999999999999999);
}

TEST(DurationText, UsesTheLargestUnitsThatFit)
{
    EXPECT_EQ(durationText(0), "PT0S");
    EXPECT_EQ(durationText(2500000), "PT2.5S");
    EXPECT_EQ(durationText(1), "PT0.000001S");
    EXPECT_EQ(durationText(10000000), "PT10S");
    EXPECT_EQ(durationText(60000000), "PT1M");
    EXPECT_EQ(durationText(3723000000), "PT1H2M3S");
    EXPECT_EQ(durationText(129600000000), "P1DT12H");
    EXPECT_EQ(durationText(86400000000), "P1D");
    EXPECT_EQ(durationText(-1000000), "-PT1S");
    EXPECT_EQ(durationText(std::numeric_limits<std::int64_t>::min()), "-P106751991DT4H54.775808S");
}

TEST(ParsedDuration, RefusesATextThatIsNotADurationOrHasNoFixedLength)
{
    for (const char* text : {"",
                             "P",
                             "PT",
                             "P1",
                             "2.5S",
                             "PT2.5",
                             "P1Y",
                             "P1M",
                             "P1DT",
                             "PT1.5H",
                             "PT1S ",
                             "PT-1S",
                             "PT1.S",
                             "PT.5S",
                             "--P1D",
                             "PT1S1M",
                             "P1D1W",
                             "PT1M1H",
                             "PT0.0000001S",
                             "P1DT1D",
                             "P1234567890D",
                             "PT1234567890123S"})
        EXPECT_FALSE(parseDuration(text)) << text;
}

TEST(ParsedDuration, RefusesADurationThatSixtyFourBitsDoNotHold)
{
    EXPECT_TRUE(parseDuration("P999999D"));
    EXPECT_FALSE(parseDuration("P999999999D"));
}

TEST(MicrosecondsPerUnit, AreKnownForTheTypesThatHoldADuration)
{
    EXPECT_EQ(microsecondsPerUnit(cipTypeNamed("TIME")), 1000);
    EXPECT_EQ(microsecondsPerUnit(cipTypeNamed("LTIME")), 1);
    EXPECT_EQ(microsecondsPerUnit(cipTypeNamed("TIME_OF_DAY")), 0);
}

} // namespace
} // namespace micro850
