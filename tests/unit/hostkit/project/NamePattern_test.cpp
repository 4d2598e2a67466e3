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

TEST(Match, LetsAStarTakeAnyNumberOfCharactersAndAQuestionMarkOne)
{
    EXPECT_TRUE(nameMatches("abcabd", "*ab?"));
    EXPECT_TRUE(nameMatches("abcabd", "a*b*d"));
    EXPECT_TRUE(nameMatches("abc", "***abc***"));
    EXPECT_TRUE(nameMatches("", "*"));
    EXPECT_FALSE(nameMatches("", "?"));
    EXPECT_FALSE(nameMatches("abcabd", "*abc"));
    EXPECT_FALSE(nameMatches("abc", "abc?"));
    EXPECT_TRUE(nameMatches(QString::fromUtf8("a🙂b"), "a?b"));
    EXPECT_TRUE(nameMatches(QString::fromUtf8("ÄB"), QString::fromUtf8("ä*")));
}

// With a regular expression each star multiplies the time.
TEST(Match, EndsSoonWithManyStars)
{
    EXPECT_FALSE(nameMatches(QString(2000, 'a'), QStringLiteral("*a").repeated(60) + "*b"));
}
