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
    EXPECT_EQ(result.out,
              "{\n  \"stations\": [{\"number\":1}],\n  \"variables\": [\n"
              "    {\"tag\":\"Speed\",\"type\":\"INT\",\"comment\":\"rotations\"},\n"
              "    {\"tag\":\"Level\",\"type\":\"INT\",\"length\":10,\"comment\":\"tank, "
              "all\"},\n"
              "    {\"tag\":\"Name\"}\n  ]\n}\n");
    const std::string place = "micro850-host: " + list.toStdString();
    EXPECT_EQ(result.err, place +
                              ": line 4: Timer1: \"TON\" is not an elementary type such as INT, "
                              "and structures are not read (left out)\n" +
                              place + ": 3 variables in the project, 1 line left out\n");
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
    EXPECT_EQ(linesOf(result.err).size(), 2) << result.err; // the timer, and the count
    const Result check = hostOnPort({"check", file("p.json", result.out), "--quiet"});
    EXPECT_EQ(check.status, 0) << check.out;
    EXPECT_EQ(linesOf(check.out).size(), 6);
}

TEST_F(HostImport, PrintsAnObjectForEachVariableWithJson)
{
    const Result result = host({"import", file("v.csv", kList), "--json", "--quiet"});
    EXPECT_EQ(result.out, "{\"tag\":\"Speed\",\"type\":\"INT\",\"comment\":\"rotations\"}\n"
                          "{\"tag\":\"Level\",\"type\":\"INT\",\"length\":10,\"comment\":\"tank, "
                          "all\"}\n"
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
    file("wide.csv", std::string("\xFF\xFEN\0a", 5));
    EXPECT_EQ(complaint("wide.csv"), "micro850-host: wide.csv: is UTF-16, and its last character "
                                     "is cut short (save the list again)\n");
}

// A list as a German tool writes it, and the whole way to values.
TEST_F(HostImport, MakesAProjectWithPortStationCommentsAndUnitsThatIsReadAtOnce)
{
    simulate();
    const std::string list = "Bezeichner;Datentyp;Dimension;Einheit;Kommentar;Adresse\r\n"
                             "Speed;INT;;1/min;F\u00f6rderband;4\r\n"
                             "Level;ARRAY[0..9] OF INT;;mm;;5\r\n"
                             "Name;STRING(40);;;;6\r\n";
    QByteArray utf16("\xFF\xFE");
    for (const QChar c : QString::fromStdString(list)) {
        utf16 += char(c.unicode() & 0xFF);
        utf16 += char(c.unicode() >> 8);
    }
    const QString name = file("v.csv", utf16.toStdString());
    const Result result =
        host({"import", name, "--port", port(), "--baud", "115200", "--station", "5"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "micro850-host: " + name.toStdString() +
                              ": line 1: a project has no place for these columns: Adresse\n");
    EXPECT_EQ(result.out.find("{\n  \"port\": {\"device\":\"" + port().toStdString() +
                              "\",\"baud\":115200},\n  \"stations\": [{\"number\":5}],\n"),
              0u)
        << result.out;
    EXPECT_NE(result.out.find("{\"tag\":\"Speed\",\"type\":\"INT\",\"unit\":\"1/min\",\"comment\":"
                              "\"F\u00f6rderband\"}"),
              std::string::npos)
        << result.out;
    const Result check = host({"check", file("p.json", result.out), "--json", "--quiet"});
    EXPECT_EQ(check.status, 0) << check.err;
    const QStringList lines = linesOf(check.out);
    ASSERT_EQ(lines.size(), 3) << check.out;
    EXPECT_TRUE(lines.at(0).contains("\"ok\":true")) << check.out;
    EXPECT_TRUE(lines.at(0).contains(QString::fromUtf8("\"comment\":\"F\u00f6rderband\"")))
        << check.out;
}

TEST_F(HostImport, KeepsTheStationsOfTheList)
{
    const QString list = file("v.csv", "Name,Type,Station\nA,INT,3\nB,INT,4\nC,INT,3\n");
    EXPECT_EQ(host({"import", list}).out,
              "{\n  \"stations\": [{\"number\":3},{\"number\":4}],\n  \"variables\": [\n"
              "    {\"tag\":\"A\",\"type\":\"INT\"},\n"
              "    {\"tag\":\"B\",\"station\":4,\"type\":\"INT\"},\n"
              "    {\"tag\":\"C\",\"type\":\"INT\"}\n  ]\n}\n");
    const Result both = host({"import", list, "--station", "1"});
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.out, "");
    EXPECT_EQ(both.err, "micro850-host: " + list.toStdString() +
                            ": names the stations itself (leave out --station)\n");
    const Result wrong = host({"import", list, "--port", "tcp://x"});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_EQ(wrong.out, "");
    EXPECT_EQ(wrong.err.find("micro850-host: --port: port.device: "), 0u) << wrong.err;
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
