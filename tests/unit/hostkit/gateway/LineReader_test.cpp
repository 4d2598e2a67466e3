#include "LineReader.h"

#include <gtest/gtest.h>

using micro850::host::LineReader;

namespace {

// What a reader makes of bytes that come in pieces: the lines, "!" for one that is too long.
QList<QByteArray> linesOf(const QByteArray& bytes, int piece, int longest)
{
    LineReader reader(longest);
    QList<QByteArray> lines;
    for (int at = 0; at < bytes.size(); at += piece) {
        const QByteArray part = bytes.mid(at, piece);
        reader.add(part.constData(), part.size());
        while (const auto line = reader.next())
            lines << (line->tooLong ? QByteArray("!") : line->text);
    }
    return lines;
}

} // namespace

TEST(LineReader, GivesTheSameLinesHoweverTheBytesAreCut)
{
    const QByteArray bytes = "one\n\ntwo\r\n" + QByteArray(20, 'x') + "\nthree\npart";
    const QList<QByteArray> lines = {"one", "", "two\r", "!", "three"};
    for (int piece = 1; piece <= bytes.size(); ++piece)
        EXPECT_EQ(linesOf(bytes, piece, 10), lines) << piece;
}

TEST(LineReader, TakesALineOfTheLongestLengthAndDropsALongerOne)
{
    EXPECT_EQ(linesOf("123456789\n", 100, 10), (QList<QByteArray>{"123456789"}));
    EXPECT_EQ(linesOf("1234567890\nnext\n", 100, 10), (QList<QByteArray>{"!", "next"}));
    EXPECT_EQ(linesOf("1234567890\nnext\n", 1, 10), (QList<QByteArray>{"!", "next"}));
}

TEST(LineReader, ReportsALineThatIsTooLongBeforeItEndsAndOnlyOnce)
{
    LineReader reader(10);
    const QByteArray much(1000, 'x');
    int reported = 0;
    for (int i = 0; i < 1000; ++i) {
        reader.add(much.constData(), much.size());
        while (const auto line = reader.next())
            reported += line->tooLong ? 1 : 0;
        EXPECT_EQ(reported, 1);
        EXPECT_TRUE(reader.hasBegun());
    }
    reader.add("x\nok\n", 5);
    EXPECT_EQ(reader.next()->text, "ok");
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.hasBegun());
}

TEST(LineReader, TellsWhetherALineHasBegun)
{
    LineReader reader(10);
    EXPECT_FALSE(reader.hasBegun());
    reader.add("a\nb", 3);
    EXPECT_TRUE(reader.next());
    EXPECT_TRUE(reader.hasBegun());
    reader.add("\n", 1);
    EXPECT_TRUE(reader.next());
    EXPECT_FALSE(reader.hasBegun());
}
