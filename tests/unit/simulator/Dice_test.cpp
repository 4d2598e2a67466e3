#include "Dice.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

// The first outputs of the 64-bit Mersenne Twister from its default seed are published; the
// 10,000th is 9981545732273789042.
TEST(Dice, MatchAPublishedGenerator)
{
    Dice dice(5489);
    for (int i = 1; i < 10000; ++i)
        dice.below(2);
    EXPECT_EQ(dice.below(UINT64_MAX), 9981545732273789042u);
}

TEST(Dice, HitAtTheGivenRate)
{
    Dice dice(7);
    int hits = 0;
    for (int i = 0; i < 100000; ++i)
        hits += dice.hits(0.01);
    EXPECT_NEAR(hits, 1000, 120);
    EXPECT_FALSE(dice.hits(0));
    EXPECT_TRUE(dice.hits(1));
}

} // namespace
} // namespace micro850::sim
