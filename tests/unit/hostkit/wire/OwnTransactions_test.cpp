#include "OwnTransactions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <set>
#include <utility>
#include <vector>

using micro850::host::OwnTransactions;

namespace {

/// Draws these numbers in turn, again and again.
OwnTransactions drawing(std::vector<unsigned> numbers)
{
    return OwnTransactions([numbers = std::move(numbers), next = std::size_t(0)]() mutable {
        return numbers[next++ % numbers.size()];
    });
}

/// The numbers that are given beside this one of the driver, when every number is drawn in turn.
/// Ascending.
std::vector<quint16> allBeside(quint16 driver)
{
    unsigned drawn = 0;
    OwnTransactions own([&drawn] { return drawn++; });
    std::vector<quint16> given;
    while (drawn < 0x10000)
        given.push_back(own.next(driver));
    given.pop_back(); // drawn in the second round, or the last of the first one
    return given;
}

// From 0 to 128: how far apart two bytes are on the circle from 00 to FF and on to 00.
int distance(int one, int other)
{
    const int ahead = (one + 0x100 - other) % 0x100;
    return ahead <= 0x80 ? ahead : 0x100 - ahead;
}

const quint16 kDriverNumbers[] = {0,      1,      2,      0x0010, 0x0040, 0x007F,
                                  0x0080, 0x00C0, 0x1234, 0x20FF, 0x8000, 0xFFFF};

} // namespace

TEST(OwnTransactions, AreNotThoseThatProgramsBeginWith)
{
    for (const quint16 driver : kDriverNumbers)
        EXPECT_GE(allBeside(driver).front(), 0x2000) << driver;
    EXPECT_EQ(drawing({0x0070, 0x1FF0, 0x2070}).next(1), 0x2070);
}

TEST(OwnTransactions, NeverFollowThemselves)
{
    OwnTransactions own = drawing({0x7070, 0x7070, 0x7071, 0x7071, 0x7071});
    EXPECT_EQ(own.next(1), 0x7070);
    EXPECT_EQ(own.next(1), 0x7071);
    EXPECT_EQ(own.next(1), 0x7070);
}

// The sequence byte is the low byte plus 7; it must differ from those of the driver's requests
// around it.
TEST(OwnTransactions, HaveALowByteFarFromTheDrivers)
{
    for (const quint16 driver : kDriverNumbers) {
        int nearest = 0x80;
        for (const quint16 number : allBeside(driver))
            nearest = std::min(nearest, distance(number % 0x100, driver % 0x100));
        EXPECT_GE(nearest, 64) << driver;
    }
}

TEST(OwnTransactions, HaveNoByteThatIsDoubledOnTheLine)
{
    for (const quint16 driver : kDriverNumbers) {
        for (const quint16 number : allBeside(driver)) {
            ASSERT_NE(number & 0xFF, 0x10);
            ASSERT_NE((number + 7) & 0xFF, 0x10);
            ASSERT_NE(number >> 8, 0x10);
        }
    }
}

// So many that a program hardly draws the last number of the one before.
TEST(OwnTransactions, AreNearlyHalfOfAllNumbers)
{
    for (const quint16 driver : kDriverNumbers)
        EXPECT_GT(allBeside(driver).size(), 28000u) << driver;
}

TEST(OwnTransactions, UseTheLowerBitsOfWhatIsDrawn)
{
    EXPECT_EQ(drawing({0xFFFF4080}).next(1), 0x4080);
}

TEST(OwnTransactions, DifferBetweenPrograms)
{
    std::set<quint16> first;
    for (int i = 0; i < 100; ++i)
        first.insert(OwnTransactions().next(1));
    EXPECT_GT(first.size(), 90u);
}
