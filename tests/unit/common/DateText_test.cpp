#include "DateText.h"

#include <gtest/gtest.h>

namespace micro850 {
namespace {

std::string textOf(const char* type, std::uint64_t number)
{
    return dateText(cipTypeNamed(type), number).value_or("none");
}

std::optional<std::uint64_t> numberOf(const char* type, const char* text)
{
    return parseDate(cipTypeNamed(type), text);
}

constexpr std::uint64_t kDay = 1ull << 32;

} // namespace

// Days counted by `date -d`: 19700101 is 730 days before 19720101.
TEST(DateText, CountsTheDaysOfADateFrom1972)
{
    EXPECT_EQ(textOf("DATE", 0), "1972-01-01");
    EXPECT_EQ(textOf("DATE", 59), "1972-02-29");
    EXPECT_EQ(textOf("DATE", 60), "1972-03-01");
    EXPECT_EQ(textOf("DATE", 366), "1973-01-01");
    EXPECT_EQ(textOf("DATE", 19782 - 730), "2024-02-29");
    EXPECT_EQ(textOf("DATE", 65535), "2151-06-06");
}

TEST(DateText, HasNoFebruary29InTheYear2100)
{
    EXPECT_EQ(textOf("DATE", 47540 - 730), "2100-02-28");
    EXPECT_EQ(textOf("DATE", 47541 - 730), "2100-03-01");
    EXPECT_FALSE(numberOf("DATE", "2100-02-29"));
}

TEST(DateText, ShowsATimeOfDayWithMillisecondsOnlyWhenThereAreSome)
{
    EXPECT_EQ(textOf("TIME_OF_DAY", 0), "00:00:00");
    EXPECT_EQ(textOf("TIME_OF_DAY", 23400000), "06:30:00");
    EXPECT_EQ(textOf("TIME_OF_DAY", 23400007), "06:30:00.007");
    EXPECT_EQ(textOf("TIME_OF_DAY", 86399999), "23:59:59.999");
}

TEST(DateText, HasTheDaysOfADateAndTimeAboveItsMilliseconds)
{
    EXPECT_EQ(textOf("DATE_AND_TIME", 59 * kDay + 23400250), "1972-02-29T06:30:00.250");
    EXPECT_EQ(textOf("DATE_AND_TIME", 65535 * kDay + 86399999), "2151-06-06T23:59:59.999");
}

TEST(DateText, IsNoneForANumberThatIsNoDateOrTime)
{
    EXPECT_EQ(textOf("DATE", 65536), "none");
    EXPECT_EQ(textOf("TIME_OF_DAY", 86400000), "none");
    EXPECT_EQ(textOf("DATE_AND_TIME", 86400000), "none");
    EXPECT_EQ(textOf("DATE_AND_TIME", 65536 * kDay), "none");
    EXPECT_EQ(textOf("DINT", 0), "none");
}

TEST(DateText, IsParsedToTheNumberThatItShows)
{
    const std::pair<const char*, std::uint64_t> numbers[] = {
        {"DATE", 0},
        {"DATE", 59},
        {"DATE", 65535},
        {"TIME_OF_DAY", 23400007},
        {"TIME_OF_DAY", 86399999},
        {"DATE_AND_TIME", 0},
        {"DATE_AND_TIME", 65535 * kDay + 86399999}};
    for (const auto& [type, number] : numbers)
        EXPECT_EQ(numberOf(type, textOf(type, number).c_str()), number) << textOf(type, number);
}

TEST(DateText, MayLeaveSecondsOrDigitsOfTheFractionOut)
{
    EXPECT_EQ(numberOf("TIME_OF_DAY", "06:30"), 23400000u);
    EXPECT_EQ(numberOf("TIME_OF_DAY", "06:30:01.5"), 23401500u);
    EXPECT_EQ(numberOf("DATE_AND_TIME", "1972-01-02T00:00"), kDay);
}

TEST(DateText, IsRefusedWhenTheCalendarOrTheClockDoesNotHaveIt)
{
    for (const char* text : {"1971-12-31", "2151-06-07", "2023-02-29", "2024-13-01", "2024-00-01",
                             "2024-01-00", "2024-01-32", "2024-1-01", "24-01-01", "2024-01-01T",
                             "2024/01/01", "+024-01-01", "2024-01-01 ", ""})
        EXPECT_FALSE(numberOf("DATE", text)) << text;
    for (const char* text : {"24:00:00", "23:60", "23:59:60", "6:30", "06:30:", "06:30:1",
                             "06:30:00.", "06:30:00.0001", "06:30:00,5", "06:30Z", "-6:30", "06"})
        EXPECT_FALSE(numberOf("TIME_OF_DAY", text)) << text;
    for (const char* text : {"2024-01-01", "06:30", "2024-01-01 06:30", "2024-01-01T06:30Z",
                             "2024-01-01T06:30+01:00", "2024-01-01T24:00"})
        EXPECT_FALSE(numberOf("DATE_AND_TIME", text)) << text;
}

} // namespace micro850
