#include "Page.h"

#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

QString text(const char* utf8)
{
    return QString::fromUtf8(utf8);
}

} // namespace

TEST(DisplayWidth, CountsTheColumnsOfATerminal)
{
    EXPECT_EQ(displayWidth("Speed"), 5);
    EXPECT_EQ(displayWidth(text("F\u00FCll")), 4);
    EXPECT_EQ(displayWidth(text("\u6E29\u5EA6")), 4);       // wide
    EXPECT_EQ(displayWidth(text("\uFF21\uFF76\uFF9E")), 4); // full width, half width, half width
    EXPECT_EQ(displayWidth(text("e\u0301u\u0308")), 2);     // combining
    EXPECT_EQ(displayWidth(text("\U0001F321")), 1);
    EXPECT_EQ(displayWidth(text("\U0001F600")), 2);
    EXPECT_EQ(displayWidth(text("m\u00B3/h \u00B0C \u00B5")), 9);
}

TEST(Cut, KeepsWholeCharactersWithWhatCombinesWithThem)
{
    EXPECT_EQ(cut("Speed", 5), QString("Speed"));
    EXPECT_EQ(cut("Speed", 4), text("Spe\u2026"));
    EXPECT_EQ(cut("Speed", 1), text("\u2026"));
    EXPECT_EQ(cut("Speed", 0), QString());
    EXPECT_EQ(cut(text("\u6E29\u5EA6\u8A08"), 6), text("\u6E29\u5EA6\u8A08"));
    EXPECT_EQ(cut(text("\u6E29\u5EA6\u8A08"), 5), text("\u6E29\u5EA6\u2026"));
    EXPECT_EQ(cut(text("\u6E29\u5EA6\u8A08"), 4), text("\u6E29\u2026"));
    EXPECT_EQ(cut(text("\u6E29"), 1), text("\u2026"));
    EXPECT_EQ(cut(text("e\u0301e\u0301e\u0301"), 2), text("e\u0301\u2026"));
    EXPECT_EQ(cut(text("\U0001F600\U0001F600"), 3), text("\U0001F600\u2026"));
}

TEST(Fitted, HasExactlyTheColumns)
{
    EXPECT_EQ(fitted("a", 3), QString("a  "));
    EXPECT_EQ(fitted(text("\u6E29"), 3), text("\u6E29 "));
    EXPECT_EQ(fitted(text("\u6E29\u5EA6"), 2), text("\u2026 "));
    EXPECT_EQ(fitted(text("e\u0301"), 2), text("e\u0301 "));
}

TEST(RightAligned, HasItsBlanksInFront)
{
    EXPECT_EQ(rightAligned("a", 3), QString("  a"));
    EXPECT_EQ(rightAligned(text("\u6E29"), 3), text(" \u6E29"));
    EXPECT_EQ(rightAligned("Speed", 3), text("Sp\u2026"));
}

TEST(Wrapped, BreaksAtBlanksWhereThereAreAny)
{
    EXPECT_EQ(wrapped("", 10), QStringList(QString()));
    EXPECT_EQ(wrapped("one two three", 7), (QStringList{"one two", "three"}));
    EXPECT_EQ(wrapped("one two three", 8), (QStringList{"one two", "three"}));
    EXPECT_EQ(wrapped("one two three", 6), (QStringList{"one", "two", "three"}));
    EXPECT_EQ(wrapped("abcdefgh", 3), (QStringList{"abc", "def", "gh"}));
    EXPECT_EQ(wrapped(text("\u6E29\u5EA6\u8A08"), 5),
              (QStringList{text("\u6E29\u5EA6"), text("\u8A08")}));
}
