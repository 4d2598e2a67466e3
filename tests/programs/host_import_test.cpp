#include "program_fixture.h"

namespace {

using HostImport = ProgramTest;

const char kList[] = "Name,Data Type,Dimension,Comment\n"
                     "Speed,INT,,rotations\n"
                     "Level,INT,[0..9],\"tank, all\"\n"
                     "Timer1,TON,,\n"
                     "Name,STRING,,\n";

TEST_F(HostImport, MakesAProjectThatTheControllerAgreesWith)
{
    simulate();
    const QString list = file("v.csv", kList);
    const Result result = host({"import", list});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "{\n  \"variables\": [\n"
                          "    {\"tag\":\"Speed\",\"type\":\"INT\"},\n"
                          "    {\"tag\":\"Level\",\"type\":\"INT\",\"length\":10},\n"
                          "    {\"tag\":\"Name\"}\n  ]\n}\n");
    EXPECT_EQ(result.err, "micro850-host: " + list.toStdString() +
                              ": line 4: Timer1: \"TON\" is not an elementary type (left out)\n");
    const Result check = hostOnPort({"check", file("p.json", result.out), "--quiet"});
    EXPECT_EQ(check.status, 0) << check.err;
    EXPECT_EQ(check.out, "Speed: ok, INT\nLevel: ok, INT\nName: ok, SHORT_STRING\n");
}

TEST_F(HostImport, PrintsNothingThatMovesATerminalsCursor)
{
    const QString list = file("v.csv", "Name,Type\nSpeed,INT\nA\x1b[2J,TON\n");
    const Result result = host({"import", list});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err.find('\x1b'), std::string::npos) << result.err;
}

TEST_F(HostImport, ImportsTheExampleForTheExamplePlant)
{
    simulatePlant();
    const Result result = host({"import", MICRO850_SOURCE_DIR "/examples/variables.csv"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(linesOf(result.err).size(), 1) << result.err; // the timer
    const Result check = hostOnPort({"check", file("p.json", result.out), "--quiet"});
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_EQ(linesOf(check.out).size(), 6);
}

TEST_F(HostImport, PrintsAnObjectForEachVariableWithJson)
{
    const Result result = host({"import", file("v.csv", kList), "--json", "--quiet"});
    EXPECT_EQ(result.out, "{\"tag\":\"Speed\",\"type\":\"INT\"}\n"
                          "{\"tag\":\"Level\",\"type\":\"INT\",\"length\":10}\n"
                          "{\"tag\":\"Name\"}\n");
    EXPECT_EQ(result.err, "");
}

TEST_F(HostImport, ReportsWhatIsMissing)
{
    const Result missing = host({"import", "/none.csv"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "micro850-host: /none.csv: cannot be read: No such file or directory "
                           "(name the exported list)\n");
    const Result empty = host({"import", file("v.csv", "Name,Type\nT,TON\n"), "--quiet"});
    EXPECT_EQ(empty.status, 2);
    EXPECT_NE(empty.err.find("v.csv: lists no variable that can be read"), std::string::npos)
        << empty.err;
    const Result heading = host({"import", file("v.csv", "A,B\n")});
    EXPECT_EQ(heading.status, 2);
    EXPECT_NE(heading.err.find("v.csv: line 1: no column \"Name\""), std::string::npos)
        << heading.err;
}

TEST_F(HostImport, RefusesWhatIsNoListAndSaysWhy)
{
    const auto complaint = [this](const QString& name) {
        const Result result = host({"import", name});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(linesOf(result.err).size(), 1) << result.err;
        return result.err;
    };
    EXPECT_EQ(complaint("."), "micro850-host: .: is a directory (name the exported list)\n");
    EXPECT_EQ(complaint("/dev/zero"),
              "micro850-host: /dev/zero: is larger than 16 MiB (export fewer variables)\n");
    file("zero.csv", std::string("Name,Type\nA,INT\n\0,INT\nB,INT\n", 29));
    EXPECT_EQ(complaint("zero.csv"), "micro850-host: zero.csv: line 3: has a byte 00, so it is not "
                                     "a text (save the list as CSV UTF-8)\n");
    file("wide.csv", std::string("\xFF\xFEN\0a\0", 6));
    EXPECT_EQ(complaint("wide.csv"),
              "micro850-host: wide.csv: is UTF-16 (save the list as CSV UTF-8)\n");
}

TEST_F(HostImport, NotesAnArrayWhoseFirstIndexIsAnother)
{
    const QString list = file("v.csv", "Name;Type;Dimension\nArr1;DINT;[1..10]\n");
    const Result result = host({"import", list});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find(R"({"tag":"Arr1","type":"DINT","length":10})"), std::string::npos);
    EXPECT_EQ(result.err, "micro850-host: " + list.toStdString() +
                              ": line 2: Arr1: index 1 of the program is element 0 here\n");
}

} // namespace
