#include "NamePattern.h"

#include <gtest/gtest.h>

using namespace micro850::host;

TEST(Match, AcceptsAPartOfANameInUpperOrLowerCase)
{
    EXPECT_TRUE(nameMatches("TankLevel", ""));
    EXPECT_TRUE(nameMatches("TankLevel", "klev"));
    EXPECT_FALSE(nameMatches("TankLevel", "levels"));
}

TEST(Match, ComparesAPatternWithTheWholeName)
{
    EXPECT_TRUE(nameMatches("TankLevel", "tank*"));
    EXPECT_TRUE(nameMatches("Level[3]", "Level[?]"));
    EXPECT_FALSE(nameMatches("TankLevel", "*Lev"));
    EXPECT_FALSE(nameMatches("Level[30]", "Level[?]"));
    EXPECT_FALSE(nameMatches("LevelX", "Level.*"));
}
