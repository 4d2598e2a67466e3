#include "VariableList.h"

#include "UserError.h"

#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

VariableList listOf(const char* text)
{
    return VariableList::fromCsv(QString::fromUtf8(text), QStringLiteral("v.csv"));
}

std::string complaint(const char* text)
{
    try {
        listOf(text);
    } catch (const micro850::UserError& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST(VariableList, FindsItsColumnsByTheirHeadings)
{
    const VariableList list = listOf("Comment,Data Type,NAME,Dimension\r\n"
                                     "\"a, b\",INT,Speed,\r\n"
                                     ",dint,Recipe,[0..19]\r\n"
                                     ",REAL,Zone,300\r\n");
    ASSERT_EQ(list.variables.size(), 3);
    EXPECT_EQ(list.variables.at(0).name, QString("Speed"));
    EXPECT_EQ(list.variables.at(0).tag, QString("Speed"));
    EXPECT_STREQ(list.variables.at(0).type->name, "INT");
    EXPECT_EQ(list.variables.at(0).length, 1);
    EXPECT_STREQ(list.variables.at(1).type->name, "DINT");
    EXPECT_EQ(list.variables.at(1).length, 20);
    EXPECT_EQ(list.variables.at(2).length, 300);
    EXPECT_TRUE(list.ignored.isEmpty());
}

TEST(VariableList, AcceptsTheSeparatorsOfSpreadsheets)
{
    EXPECT_EQ(listOf("Name;Data type\nA,B;INT\n").variables.at(0).name, QString("A,B"));
    EXPECT_EQ(listOf("Tag\tType\nA\tINT\n").variables.at(0).name, QString("A"));
    EXPECT_EQ(listOf("\xEF\xBB\xBFName,Type\nA,INT\n").variables.size(), 1);
}

TEST(VariableList, LeavesTheTypeOfAStringToTheController)
{
    const VariableList list = listOf("Name,Type\nTitle,STRING\n");
    ASSERT_EQ(list.variables.size(), 1);
    EXPECT_EQ(list.variables.at(0).type, nullptr);
}

TEST(VariableList, ReportsTheIgnoredLinesAndTheReasons)
{
    const VariableList list = listOf("Name,Type,Dimension\n"
                                     "Timer,TON,\n"
                                     "Grid,INT,\"[0..3,0..3]\"\n"
                                     "Back,INT,9..1\n"
                                     "\n"
                                     "A,INT,\n"
                                     "A,INT,\n"
                                     "Names,STRING,4\n");
    EXPECT_EQ(list.variables.size(), 1);
    EXPECT_EQ(
        list.ignored,
        (QStringList{
            "line 2: Timer: \"TON\" is not an elementary type (left out)",
            "line 3: Grid: the dimension \"[0..3,0..3]\" is not one run of elements (left out)",
            "line 4: Back: the dimension \"9..1\" is not one run of elements (left out)",
            "line 7: A: is listed twice (left out)",
            "line 8: Names: of several strings only the first can be read (left out)"}));
}

TEST(VariableList, IgnoresLinesThatAProjectWouldRefuse)
{
    const VariableList list = listOf("Name,Type,Dimension\n"
                                     "Fill level,INT,\n"
                                     "A[3],INT,\n"
                                     "F\xC3\xBCllung,INT,\n"
                                     "Titles,SHORT_STRING,4\n");
    EXPECT_TRUE(list.variables.isEmpty());
    const QString noTag = ": is not a tag (letters, digits and signs without blanks) (left out)";
    EXPECT_EQ(
        list.ignored,
        (QStringList{"line 2: Fill level" + noTag, "line 3: A[3]" + noTag,
                     QString::fromUtf8("line 4: F\xC3\xBCllung") + noTag,
                     "line 5: Titles: of several strings only the first can be read (left out)"}));
}

TEST(VariableList, NeedsAColumnForNameAndType)
{
    EXPECT_EQ(complaint("Name,Comment\nA,INT\n"),
              "v.csv: line 1: no column \"Data type\" (the first line names the columns: Name, "
              "Data type, Dimension)");
    EXPECT_EQ(complaint(""), "v.csv: line 1: no column \"Name\" (the first line names the columns: "
                             "Name, Data type, Dimension)");
}

TEST(CsvFields, KeepQuotedSeparatorsAndDoubledQuotes)
{
    EXPECT_EQ(csvFields(R"(a,"b,c","d""e",)", ','), (QStringList{"a", "b,c", "d\"e", ""}));
}

TEST(CsvFields, TakeAQuoteWithinAFieldForACharacter)
{
    EXPECT_EQ(csvFields("a,5\" pipe,b", ','), (QStringList{"a", "5\" pipe", "b"}));
}

TEST(VariableList, ReadsFieldsWithLineEndsAndCountsTheirLines)
{
    const VariableList list = listOf("Name,Comment,Type\n"
                                     "A,\"two\r\nlines, \"\"quoted\"\"\",INT\r\n"
                                     "B,,TON\n");
    ASSERT_EQ(list.variables.size(), 1);
    EXPECT_EQ(list.variables.at(0).name, QString("A"));
    EXPECT_EQ(list.ignored, QStringList("line 4: B: \"TON\" is not an elementary type (left out)"));
}

TEST(VariableList, RefusesAQuoteThatIsNeverClosed)
{
    EXPECT_EQ(complaint("Name,Type,Comment\nA,INT,\nB,INT,\"to the end\nC,INT,\n"),
              "v.csv: line 3: a field opens with \" that no other \" closes");
}

namespace {

std::string complaintAbout(const QByteArray& bytes)
{
    try {
        VariableList::fromBytes(bytes, QStringLiteral("v.csv"));
    } catch (const micro850::UserError& error) {
        EXPECT_EQ(error.status(), micro850::kExitUsage);
        return error.what();
    }
    return "none";
}

} // namespace

TEST(VariableList, RefusesAByteZeroAndNamesItsLine)
{
    EXPECT_EQ(complaintAbout(QByteArray("Name,Type\nA,INT\nB\0,INT\nC,INT\n", 30)),
              "v.csv: line 3: has a byte 00, so it is not a text (save the list as CSV UTF-8)");
}

TEST(VariableList, RefusesUtf16)
{
    const std::string why = "v.csv: is UTF-16 (save the list as CSV UTF-8)";
    EXPECT_EQ(complaintAbout(QByteArray("\xFF\xFEN\0a\0m\0e\0", 10)), why);
    EXPECT_EQ(complaintAbout(QByteArray("\xFE\xFF\0N\0a\0m\0e", 10)), why);
}

TEST(VariableList, ReadsTextThatIsNotUtf8AsLatin1AndReportsIt)
{
    const VariableList list = VariableList::fromBytes(
        "Name,Type,Comment\nA,INT,\xC3\xBC\nB,INT,F\xFCllung\nG\xFCte,INT,\n", "v.csv");
    EXPECT_EQ(list.variables.size(), 2);
    EXPECT_EQ(list.ignored,
              (QStringList{"line 3: is not UTF-8, so the file is read as Latin-1",
                           QString::fromUtf8("line 4: G\xC3\xBCte: is not a tag (letters, digits "
                                             "and signs without blanks) (left out)")}));
    EXPECT_TRUE(VariableList::fromBytes("Name,Type\nA,INT\n", "v.csv").ignored.isEmpty());
}

TEST(VariableList, RefusesAListThatIsTooLarge)
{
    QByteArray list = "Name,Type\nA,INT\n";
    list += QByteArray((16 << 20) - list.size(), '\n');
    EXPECT_EQ(VariableList::fromBytes(list, "v.csv").variables.size(), 1);
    EXPECT_EQ(complaintAbout(list + '\n'), "v.csv: is larger than 16 MiB (export fewer variables)");
}

TEST(VariableList, TellsOfAnArrayWhoseFirstIndexIsAnother)
{
    const VariableList list = listOf("Name;Type;Dimension\n"
                                     "Zero;DINT;[0..9]\n"
                                     "One;DINT;[1..10]\n"
                                     "Ten;DINT;10\n"
                                     "Far;DINT;65535..65535\n");
    ASSERT_EQ(list.variables.size(), 4);
    EXPECT_EQ(list.variables.at(1).element, 0);
    EXPECT_EQ(list.variables.at(1).length, 10);
    EXPECT_TRUE(list.ignored.isEmpty());
    EXPECT_EQ(list.notes,
              (QStringList{"line 3: One: index 1 of the program is element 0 here",
                           "line 5: Far: index 65535 of the program is element 0 here"}));
}

TEST(VariableList, IgnoresAnArrayThatIsTooLongAndSaysSo)
{
    const VariableList list = listOf("Name;Type;Dimension\n"
                                     "Longest;INT;[0..65535]\n"
                                     "A;INT;[0..65536]\n"
                                     "B;INT;[0..99999]\n"
                                     "C;INT;9999999999\n"
                                     "D;INT;0\n");
    ASSERT_EQ(list.variables.size(), 1);
    EXPECT_EQ(list.variables.first().length, 65536);
    const QString tooLong = "\" is too long (at most 65536 elements) (left out)";
    EXPECT_EQ(
        list.ignored,
        (QStringList{"line 3: A: the dimension \"[0..65536]" + tooLong,
                     "line 4: B: the dimension \"[0..99999]" + tooLong,
                     "line 5: C: the dimension \"9999999999" + tooLong,
                     "line 6: D: the dimension \"0\" is not one run of elements (left out)"}));
    EXPECT_TRUE(list.notes.isEmpty());
}

TEST(VariableList, ReportsALineWithoutANameUnlessItIsEmpty)
{
    const VariableList list = listOf("Name;Type;Comment\n;INT;\n;;\n  ; ;\n\n;;pump\nA;INT;\n");
    EXPECT_EQ(list.variables.size(), 1);
    EXPECT_EQ(list.ignored,
              (QStringList{"line 2: has no name (left out)", "line 6: has no name (left out)"}));
}
