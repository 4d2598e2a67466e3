// The random number that becomes the originator serial number of a connection request.

#include "fixed_time_of_day.h"
#include "serial_numbers.h"
#include "tagcommunication.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

// Sets the time zone of the process. The tests use one that most test machines are not in.
class LocalTime
{
public:
    explicit LocalTime(const char* zone) : m_before(qgetenv("TZ"))
    {
        qputenv("TZ", zone);
        tzset();
    }
    ~LocalTime()
    {
        if (m_before.isNull())
            qunsetenv("TZ");
        else
            qputenv("TZ", m_before);
        tzset();
    }

private:
    QByteArray m_before;
};

TEST(RandomNumber, IsTheFirstNumberOfTheGeneratorSeededWithTheSecondsOfTheDay)
{
    FixedTimeOfDay clock(QTime(0, 0, 0));
    for (int second : {0, 1, 59, 60, 3600, 43200, 86399}) {
        clock.setSeconds(second);
        EXPECT_EQ(quint32(get_random_number()), serial_numbers::at(second)) << second;
    }
}

TEST(RandomNumber, IsEqualWithinOneSecond)
{
    FixedTimeOfDay clock(QTime(11, 22, 33, 0));
    const int first = get_random_number();
    EXPECT_EQ(get_random_number(), first);
    clock.set(QTime(11, 22, 33, 999));
    EXPECT_EQ(get_random_number(), first);
    clock.set(QTime(11, 22, 34, 0));
    EXPECT_NE(get_random_number(), first);
}

TEST(RandomNumber, StaysBelow16777215AllDay)
{
    FixedTimeOfDay clock(QTime(0, 0, 0));
    int least = 0xFFFFFF;
    int largest = 0;
    for (int second = 0; second < 86400; ++second) {
        clock.setSeconds(second);
        const int number = get_random_number();
        ASSERT_EQ(quint32(number), serial_numbers::at(second)) << second;
        least = qMin(least, number);
        largest = qMax(largest, number);
    }
    EXPECT_GE(least, 0);
    EXPECT_LE(largest, 16777214);
}

TEST(RandomNumber, UsesTheLocalTimeOfDay)
{
    const LocalTime elsewhere("XST-5:30");
    // The clock is real, so try again when the second changes during the call.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int before = serial_numbers::localSecondOfDay();
        const int number = get_random_number();
        if (serial_numbers::localSecondOfDay() == before) {
            EXPECT_EQ(quint32(number), serial_numbers::at(before));
            return;
        }
    }
    FAIL() << "the second changed during every attempt";
}

} // namespace
