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

using Draw = quint16 (OwnTransactions::*)(quint16);

const Draw kDraws[] = {&OwnTransactions::next, &OwnTransactions::last};

/// The numbers that are given beside this one of the driver, when every number is drawn in turn.
/// Ascending.
std::vector<quint16> allBeside(quint16 driver, Draw draw)
{
    unsigned drawn = 0;
    OwnTransactions own([&drawn] { return drawn++; });
    std::vector<quint16> given;
    while (drawn < 0x10000)
        given.push_back((own.*draw)(driver));
    given.pop_back(); // drawn in the second round, or the last of the first one
    return given;
}

/// Those of both kinds.
std::vector<quint16> allBeside(quint16 driver)
{
    std::vector<quint16> all;
    for (const Draw draw : kDraws) {
        const std::vector<quint16> given = allBeside(driver, draw);
        all.insert(all.end(), given.begin(), given.end());
    }
    return all;
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
    for (const quint16 driver : kDriverNumbers) {
        const std::vector<quint16> all = allBeside(driver);
        EXPECT_GE(*std::min_element(all.begin(), all.end()), 0x2000) << driver;
    }
    EXPECT_EQ(drawing({0x0070, 0x1FF0, 0x2070}).next(1), 0x2070);
}

// The number before the first one of a program is the last one of another.
TEST(OwnTransactions, BeginWithNoneOfThoseThatAreLast)
{
    for (const quint16 driver : kDriverNumbers) {
        const std::vector<quint16> ends = allBeside(driver, &OwnTransactions::last);
        const std::set<quint16> last(ends.begin(), ends.end());
        for (const quint16 begin : allBeside(1, &OwnTransactions::next))
            ASSERT_EQ(last.count(begin), 0u) << begin;
    }
}

TEST(OwnTransactions, NeverFollowThemselves)
{
    OwnTransactions own = drawing({0x7070, 0x7070, 0x7072, 0x7072, 0x7072});
    EXPECT_EQ(own.next(1), 0x7070);
    EXPECT_EQ(own.next(1), 0x7072);
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

// So many that two programs that end early hardly draw the same one after the other.
TEST(OwnTransactions, AreNearlyAQuarterOfAllNumbersForEachKind)
{
    for (const quint16 driver : kDriverNumbers) {
        for (const Draw draw : kDraws)
            EXPECT_GT(allBeside(driver, draw).size(), 14000u) << driver;
    }
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
