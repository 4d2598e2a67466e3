#include "Words.h"

#include "UserError.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

using namespace micro850::host;

TEST(Words, AreCutAtBlanks)
{
    EXPECT_EQ(wordsOf("read  Speed\tLevel[0..9] "), (QStringList{"read", "Speed", "Level[0..9]"}));
    EXPECT_EQ(wordsOf(""), QStringList());
    EXPECT_EQ(wordsOf("   "), QStringList());
}

TEST(Words, MayBeQuotedAsInAShell)
{
    EXPECT_EQ(wordsOf("read 'Level[0..9]'"), (QStringList{"read", "Level[0..9]"}));
    EXPECT_EQ(wordsOf("write 'Name=two words' \"Text=a \\\"b\\\" \\\\ \\n\""),
              (QStringList{"write", "Name=two words", "Text=a \"b\" \\ \\n"}));
    EXPECT_EQ(wordsOf("read '\"Fill = 5\"[2]'"), (QStringList{"read", "\"Fill = 5\"[2]"}));
    EXPECT_EQ(wordsOf("a\\ b ''"), (QStringList{"a b", ""}));
    EXPECT_EQ(wordsOf("Name='a b'c"), QStringList("Name=a bc"));
}

TEST(Words, EndAtAComment)
{
    EXPECT_EQ(wordsOf("read Speed # the first"), (QStringList{"read", "Speed"}));
    EXPECT_EQ(wordsOf("# nothing 'here"), QStringList());
    EXPECT_EQ(wordsOf("read Tank#2"), (QStringList{"read", "Tank#2"}));
}

TEST(Words, OfAnOpenQuoteAreRefusedWithTheRemedy)
{
    try {
        wordsOf("read 'Level");
        FAIL();
    } catch (const micro850::UserError& error) {
        EXPECT_STREQ(error.what(),
                     "\"read 'Level\": the quote ' is not closed (write it a second time)");
        EXPECT_EQ(error.status(), 2);
    }
}

TEST(TypedWords, AreThoseBeforeTheCursor)
{
    const TypedWords in = typedWords("read Speed 'My V");
    EXPECT_EQ(in.before, (QStringList{"read", "Speed"}));
    EXPECT_EQ(in.word, "My V");
    EXPECT_EQ(in.begin, 11);
    const TypedWords after = typedWords("read ");
    EXPECT_EQ(after.before, QStringList("read"));
    EXPECT_EQ(after.word, "");
    EXPECT_EQ(after.begin, 5);
    EXPECT_EQ(typedWords("").begin, 0);
}

RC_GTEST_PROP(QuotedWord, IsReadAsTheWord, (const std::string& text))
{
    const QString word = QString::fromUtf8(text.c_str());
    RC_ASSERT(wordsOf(quotedWord(word)) == QStringList(word));
}

TEST(QuotedWord, HasQuotesOnlyWhereTheyAreNeeded)
{
    EXPECT_EQ(quotedWord("Level[0..9]"), "Level[0..9]");
    EXPECT_EQ(quotedWord("My Speed"), "'My Speed'");
    EXPECT_EQ(quotedWord("it's"), "'it'\\''s'");
}
