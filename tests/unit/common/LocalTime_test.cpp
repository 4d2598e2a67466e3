#include "LocalTime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <optional>

using micro850::exactLocalTimeText;
using micro850::localTimeText;

namespace {

/// The time zone is a rule and not a name, so that no list of zones is needed.
class LocalTime : public ::testing::Test
{
protected:
    LocalTime()
    {
        if (const char* zone = std::getenv("TZ"))
            m_before = zone;
    }
    ~LocalTime() override
    {
        if (m_before)
            setenv("TZ", m_before->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    static void setZone(const char* zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }
    static constexpr const char* kBerlin = "CET-1CEST,M3.5.0,M10.5.0/3";

private:
    std::optional<std::string> m_before;
};

} // namespace

// The seconds since 1970 are those that "date -u -d TIME +%s" prints.
TEST_F(LocalTime, HasTheOffsetOfItsMoment)
{
    setZone(kBerlin);
    EXPECT_EQ(localTimeText(1795354200000), "2026-11-22 14:30:00 +01:00"); // 13:30 UTC
    EXPECT_EQ(localTimeText(1782898200000), "2026-07-01 11:30:00 +02:00"); //  9:30 UTC
}

TEST_F(LocalTime, TellsTheRepeatedHourAtTheEndOfSummerTimeApart)
{
    setZone(kBerlin);
    // 2026-10-25, 0:30 and 1:30 UTC.
    EXPECT_EQ(localTimeText(1792888200000), "2026-10-25 02:30:00 +02:00");
    EXPECT_EQ(localTimeText(1792891800000), "2026-10-25 02:30:00 +01:00");
}

TEST_F(LocalTime, LeavesTheHourOutThatSummerTimeSkips)
{
    setZone(kBerlin);
    // 2026-03-29, 1:00 UTC, and a millisecond earlier.
    EXPECT_EQ(exactLocalTimeText(1774745999999), "2026-03-29 01:59:59.999 +01:00");
    EXPECT_EQ(exactLocalTimeText(1774746000000), "2026-03-29 03:00:00.000 +02:00");
}

TEST_F(LocalTime, HasOffsetsOfHalfHoursAndToTheWest)
{
    setZone("IST-5:30");
    EXPECT_EQ(localTimeText(0), "1970-01-01 05:30:00 +05:30");
    setZone("NST3:30");
    EXPECT_EQ(localTimeText(0), "1969-12-31 20:30:00 -03:30");
    setZone("UTC0");
    EXPECT_EQ(localTimeText(0), "1970-01-01 00:00:00 +00:00");
}

TEST_F(LocalTime, CutsMillisecondsOffAlsoBefore1970)
{
    setZone("UTC0");
    EXPECT_EQ(localTimeText(1999), "1970-01-01 00:00:01 +00:00");
    EXPECT_EQ(exactLocalTimeText(-1), "1969-12-31 23:59:59.999 +00:00");
    EXPECT_EQ(localTimeText(-1), "1969-12-31 23:59:59 +00:00");
}

TEST_F(LocalTime, SurvivesAMomentWithoutADate)
{
    setZone("UTC0");
    EXPECT_NE(localTimeText(INT64_MAX), "");
    EXPECT_NE(exactLocalTimeText(INT64_MIN), "");
}
