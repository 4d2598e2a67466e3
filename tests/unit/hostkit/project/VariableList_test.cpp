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
            "line 2: Timer: \"TON\" is not an elementary type such as INT, and structures are not "
            "read (left out)",
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

TEST(VariableList, IsATextWithANameInEachLine)
{
    const VariableList list = VariableList::fromNames(
        QString::fromUtf8("\uFEFFSpeed\r\n\n  Level \nSpeed\na b\nEnd"), QStringLiteral("n"));
    QStringList tags;
    for (const Variable& variable : list.variables) {
        tags += variable.tag;
        EXPECT_EQ(variable.name, variable.tag);
        EXPECT_EQ(variable.type, nullptr);
        EXPECT_EQ(variable.length, 1);
    }
    EXPECT_EQ(tags, (QStringList{"Speed", "Level", "End"}));
    EXPECT_EQ(list.ignored,
              (QStringList{"line 4: Speed: is listed twice (left out)",
                           "line 5: a b: is not a tag (letters, digits and signs without blanks) "
                           "(left out)"}));
    EXPECT_FALSE(list.hasStations);
}

TEST(VariableList, IsReadAsAnExportWhenANameHasSeparators)
{
    const VariableList list =
        VariableList::fromNames(QStringLiteral("Name;Type\nSpeed;INT\n"), QStringLiteral("n"));
    ASSERT_EQ(list.variables.size(), 1);
    EXPECT_STREQ(list.variables.first().type->name, "INT");
}

TEST(VariableList, NeedsAColumnForNameAndType)
{
    EXPECT_EQ(complaint("Name,Comment\nA,INT\n"),
              "v.csv: line 1: no column \"Data type\" (a heading names the columns: Name, Data "
              "type, Dimension, Comment, Unit, Station)");
    EXPECT_EQ(complaint(""), "v.csv: line 1: no column \"Name\" (a heading names the columns: "
                             "Name, Data type, Dimension, Comment, Unit, Station)");
    EXPECT_EQ(complaint("Plant 3\n\nDatentyp;Adresse\nINT;4\n"),
              "v.csv: line 3: no column \"Name\" (a heading names the columns: Name, Data type, "
              "Dimension, Comment, Unit, Station)");
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
    EXPECT_EQ(list.ignored, QStringList("line 4: B: \"TON\" is not an elementary type such as INT, "
                                        "and structures are not read (left out)"));
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

namespace {

// A text of characters below U+0100 in two bytes each, with or without the mark in front.
QByteArray utf16(const QByteArray& latin1, bool bigEndian, bool marked)
{
    QByteArray bytes = !marked ? "" : bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char c : latin1) {
        bytes += bigEndian ? '\0' : c;
        bytes += bigEndian ? c : '\0';
    }
    return bytes;
}

} // namespace

TEST(VariableList, ReadsUtf16WithAndWithoutItsMark)
{
    for (const bool bigEndian : {false, true}) {
        for (const bool marked : {false, true}) {
            const VariableList list = VariableList::fromBytes(
                utf16("Name\tDatentyp\tKommentar\r\nSpeed\tINT\tF\xFCller\r\n", bigEndian, marked),
                "v.csv");
            ASSERT_EQ(list.variables.size(), 1) << bigEndian << marked;
            EXPECT_EQ(list.variables.first().comment, QString::fromUtf8("F\xC3\xBCller"));
            EXPECT_TRUE(list.ignored.isEmpty());
        }
    }
}

TEST(VariableList, RefusesUtf16ThatIsCutShortOrHasAZero)
{
    QByteArray cut = utf16("Name,Type\nA,INT\n", false, true);
    cut.chop(1);
    EXPECT_EQ(complaintAbout(cut),
              "v.csv: is UTF-16, and its last character is cut short (save the list again)");
    EXPECT_EQ(complaintAbout(utf16(QByteArray("Name,Type\nA\0,INT\n", 17), true, true)),
              "v.csv: line 2: has a byte 00, so it is not a text (save the list as CSV UTF-8)");
}

TEST(VariableList, ReadsTextThatIsNotUtf8AsWindows1252AndReportsIt)
{
    const VariableList list = VariableList::fromBytes(
        "Name,Type,Comment\nA,INT,\xC3\xBC\nB,INT,5 \x80\nG\xFCte,INT,\n", "v.csv");
    ASSERT_EQ(list.variables.size(), 2);
    EXPECT_EQ(list.variables.at(1).comment, QString::fromUtf8("5 \xE2\x82\xAC"));
    EXPECT_EQ(list.ignored,
              (QStringList{"line 3: is not UTF-8, so the file is read as Windows-1252",
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

TEST(VariableList, ReadsAnArrayWhoseIndexBeginsBelowZero)
{
    const VariableList list = VariableList::fromCsv(
        "Name,Type,Feldl\u00E4nge\nA,ARRAY[-5..5] OF INT,\nB,INT,-2..1\nC,INT,5..-5\n", "list.csv");
    ASSERT_EQ(list.variables.size(), 2);
    EXPECT_EQ(list.variables.at(0).length, 11);
    EXPECT_EQ(list.variables.at(1).length, 4);
    EXPECT_EQ(list.notes, (QStringList{"line 2: A: index -5 of the program is element 0 here",
                                       "line 3: B: index -2 of the program is element 0 here"}));
    EXPECT_EQ(list.ignored, QStringList("line 4: C: the dimension \"5..-5\" is not one run of "
                                        "elements (left out)"));
}

TEST(VariableList, TellsOfFieldsThatNoHeadingNames)
{
    const VariableList list = VariableList::fromCsv(
        "Name,Type,Comment\nA,INT,fast, not slow\nB,INT,slow,,\n", "list.csv");
    ASSERT_EQ(list.variables.size(), 2);
    EXPECT_EQ(list.variables.at(0).comment, QString("fast"));
    EXPECT_EQ(
        list.notes,
        QStringList("line 2: fields that no heading names are left out: not slow (a text with a "
                    "separator needs double quotes)"));
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

TEST(VariableList, ReadsTypesAsToolsWriteThem)
{
    const VariableList list = listOf("Name;Type;Dimension\n"
                                     "A;STRING(40);\n"
                                     "B;string[255];\n"
                                     "C;ARRAY[0..9] OF INT;\n"
                                     "D;Array [1 .. 4] of real;\n"
                                     "E;DINT[20];\n"
                                     "F;ARRAY[0..3] OF BOOL;[0..3]\n"
                                     "G;tod;\n"
                                     "H;DT;\n"
                                     "I;BIT;\n");
    EXPECT_EQ(list.ignored, QStringList());
    QStringList read;
    for (const Variable& variable : list.variables)
        read += QStringLiteral("%1 %2 %3")
                    .arg(variable.name, variable.type ? variable.type->name : "?",
                         QString::number(variable.length));
    EXPECT_EQ(read, (QStringList{"A ? 1", "B ? 1", "C INT 10", "D REAL 4", "E DINT 20", "F BOOL 4",
                                 "G TIME_OF_DAY 1", "H DATE_AND_TIME 1", "I BOOL 1"}));
    EXPECT_EQ(list.notes, QStringList("line 5: D: index 1 of the program is element 0 here"));
}

TEST(VariableList, TellsWhyATypeOfAToolCannotBeRead)
{
    EXPECT_EQ(listOf("Name;Type;Dimension\n"
                     "A;ARRAY[0..3,0..4] OF INT;\n"
                     "B;ARRAY[0..3] OF ARRAY[0..4] OF INT;\n"
                     "C;ARRAY[0..3] OF STRING(40);\n"
                     "D;ARRAY[0..3] OF TON;\n"
                     "E;ARRAY[0..3] OF INT;[0..4]\n"
                     "F;ARRAY[] OF INT;\n"
                     "G;STRING();\n"
                     "H;;\n")
                  .ignored,
              (QStringList{
                  "line 2: A: the dimension \"[0..3,0..4]\" is not one run of elements (left out)",
                  "line 3: B: the dimension \"[0..3][0..4]\" is not one run of elements (left out)",
                  "line 4: C: of several strings only the first can be read (left out)",
                  "line 5: D: \"TON\" is not an elementary type such as INT, and structures are "
                  "not read (left out)",
                  "line 6: E: its type has the dimension \"[0..3]\", and its dimension is "
                  "\"[0..4]\" (left out)",
                  "line 7: F: the dimension \"[]\" is not one run of elements (left out)",
                  "line 8: G: \"STRING()\" is not an elementary type such as INT, and structures "
                  "are not read (left out)",
                  "line 9: H: has no type (left out)"}));
}

TEST(VariableList, KnowsGermanHeadingsAndKeepsCommentsAndUnits)
{
    const VariableList list = listOf("Variablenname;Datentyp;Feldgr\xC3\xB6\xC3\x9F"
                                     "e;Ma\xC3\x9F"
                                     "einheit;Kommentar\n"
                                     "Temp;REAL;;\xC2\xB0"
                                     "C;\"Ofen,\n Zone 1\"\n");
    ASSERT_EQ(list.variables.size(), 1);
    EXPECT_EQ(list.variables.first().unit, QString::fromUtf8("\xC2\xB0"
                                                             "C"));
    EXPECT_EQ(list.variables.first().comment, QString("Ofen, Zone 1"));
    EXPECT_TRUE(list.notes.isEmpty());
}

// A project refuses a comment with such a character.
TEST(VariableList, ShowsWhatNobodySeesInACommentAsAnEscape)
{
    const VariableList list = listOf("Name,Type,Comment\nA,INT,a\x1b[2Jb\xE2\x80\xAE"
                                     "c\n");
    EXPECT_EQ(list.variables.first().comment, QString("a\\x1b[2Jb\\u202ec"));
}

TEST(VariableList, FindsItsHeadingBelowATitle)
{
    const VariableList list = listOf("sep=;\n\nPlant 3, \"north\"\nName;Type;Alias;Address\n"
                                     "A;INT;x;4\nB;TON;y;5\n");
    ASSERT_EQ(list.variables.size(), 1);
    EXPECT_EQ(list.ignored, QStringList("line 6: B: \"TON\" is not an elementary type such as INT, "
                                        "and structures are not read (left out)"));
    EXPECT_EQ(list.notes, QStringList("line 4: a project has no place for these columns: Alias, "
                                      "Address"));
}

TEST(VariableList, NeedsItsHeadingAmongItsFirstLines)
{
    const std::string heading = "Name,Type\nA,INT\n";
    EXPECT_EQ(listOf((std::string(19, '\n') + heading).c_str()).variables.size(), 1);
    EXPECT_NE(complaint((std::string(20, '\n') + heading).c_str()), "none");
}

TEST(VariableList, ReadsStationsAndRefusesWhatIsNone)
{
    const VariableList list =
        listOf("Name;Type;Station\nA;INT;3\nB;INT;\nC;INT;65536\nD;INT;x\nE;INT;-1\n");
    EXPECT_TRUE(list.hasStations);
    ASSERT_EQ(list.variables.size(), 2);
    EXPECT_EQ(list.variables.at(0).station, 3);
    EXPECT_EQ(list.variables.at(1).station, 1);
    EXPECT_EQ(
        list.ignored,
        (QStringList{"line 4: C: the station \"65536\" is not allowed (0 to 65535) (left out)",
                     "line 5: D: the station \"x\" is not allowed (0 to 65535) (left out)",
                     "line 6: E: the station \"-1\" is not allowed (0 to 65535) (left out)"}));
    EXPECT_FALSE(listOf("Name,Type\nA,INT\n").hasStations);
}

TEST(VariableList, TellsOfElementsThatFollowTheirArray)
{
    EXPECT_EQ(listOf("Name;Type\nLevel;ARRAY[0..1] OF INT\nLevel[0];INT\nOther[0];INT\n").ignored,
              (QStringList{"line 3: Level[0]: is an element of Level, which is in the list (left "
                           "out)",
                           "line 4: Other[0]: is not a tag (letters, digits and signs without "
                           "blanks) (left out)"}));
}
