#include "ReplySizes.h"

#include <gtest/gtest.h>

using micro850::host::ReplySizes;

TEST(ReplySizes, ExpectsTheReplyThatCameToAReadOfAsManyElements)
{
    ReplySizes sizes;
    EXPECT_EQ(sizes.expected(60, 504), 504);
    sizes.note(60, 84);
    EXPECT_EQ(sizes.expected(60, 504), 84);
    EXPECT_EQ(sizes.expected(1, 32), 32) << "of another number of elements nothing is known";
}

TEST(ReplySizes, KeepsTheSlotsOfNumbersApartThatShareOne)
{
    ReplySizes sizes;
    sizes.note(1, 26);
    sizes.note(65, 300);
    EXPECT_EQ(sizes.expected(1, 32), 32);
    EXPECT_EQ(sizes.expected(65, 504), 300);
}

TEST(ReplySizes, KeepsTheLargerOfTwoForSomeReplies)
{
    ReplySizes sizes;
    sizes.note(10, 104);
    sizes.note(10, 44);
    EXPECT_GE(sizes.expected(10, 0), 84);
    for (int i = 0; i < 20; ++i)
        sizes.note(10, 44);
    EXPECT_EQ(sizes.expected(10, 0), 44);
}
