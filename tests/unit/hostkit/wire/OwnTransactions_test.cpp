#include "OwnTransactions.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

using micro850::host::OwnTransactions;

TEST(OwnTransactions, AreNotThoseThatProgramsBeginWith)
{
    OwnTransactions own;
    for (int i = 0; i < 20000; ++i)
        ASSERT_GE(own.next(1), 0x2000);
}

TEST(OwnTransactions, NeverFollowThemselves)
{
    OwnTransactions own;
    EXPECT_EQ(own.last(), 0);
    for (int last = 0, i = 0; i < 100000; ++i) {
        const int next = own.next(0x1234);
        ASSERT_NE(next, last);
        ASSERT_EQ(own.last(), next);
        last = next;
    }
}

// The sequence byte is the low byte plus 7; it must differ from those of the driver's requests
// around it.
TEST(OwnTransactions, HaveALowByteFarFromTheDrivers)
{
    OwnTransactions own;
    for (unsigned driver = 0; driver < 0x10000; driver += 7) {
        const int distance =
            static_cast<signed char>(own.next(static_cast<quint16>(driver)) - driver);
        ASSERT_GE(std::abs(distance), 64) << driver;
    }
}

TEST(OwnTransactions, HaveNoByteThatIsDoubledOnTheLine)
{
    OwnTransactions own;
    for (int i = 0; i < 100000; ++i) {
        const int next = own.next(static_cast<quint16>(i));
        ASSERT_NE(next & 0xFF, 0x10);
        ASSERT_NE((next + 7) & 0xFF, 0x10);
        ASSERT_NE(next >> 8, 0x10);
    }
}

TEST(OwnTransactions, DifferBetweenPrograms)
{
    std::set<quint16> first;
    for (int i = 0; i < 100; ++i)
        first.insert(OwnTransactions().next(1));
    EXPECT_GT(first.size(), 90u);
}
