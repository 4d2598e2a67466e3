#include "terminal_fixture.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>

#include <csignal>

namespace {

const char kTags[] = R"({"name": "Speed", "type": "INT", "value": 1234},
    {"name": "Level", "type": "INT", "length": 10, "value": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10]},
    {"name": "Zone", "type": "DINT", "length": 300},
    {"name": "Label", "type": "SHORT_STRING", "value": "Apple"})";

const char kNotThere[] = "no such tag (names are as in the controller's program; status 05)";

/// Speed, and so many names that the controller does not have.
std::string longList(int names)
{
    std::string list = "Speed\n";
    for (int i = 0; i < names; ++i)
        list += "Nope" + std::to_string(i) + '\n';
    return list;
}

using HostFind = TerminalTest;

TEST_F(HostFind, PrintsTypeAndLengthOfWhatIsThere)
{
    simulate(kTags);
    const QString list = file("names.txt", "Speed\r\nNope\n\nLevel\nZone\nLabel\n");
    const Result result = hostOnPort({"find", list});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Speed  INT\n"
                          "Level  INT[10]\n"
                          "Zone   DINT[300]\n"
                          "Label  SHORT_STRING\n");
    EXPECT_EQ(result.err, std::string("micro850-host: Nope: ") + kNotThere + "\nmicro850-host: " +
                              list.toStdString() + ": 4 of 5 names found, 1 not there\n");
    EXPECT_EQ(hostOnPort({"find", list, "--quiet"}).err, "");
}

TEST_F(HostFind, PrintsAnObjectForEachNameWithJson)
{
    simulate(kTags);
    const Result result =
        hostOnPort({"find", file("names.txt", "Nope\nLevel\n"), "--json", "--station", "7"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, std::string(R"({"name":"Nope","station":7,"tag":"Nope","error":")") +
                              kNotThere + "\"}\n" +
                              R"({"name":"Level","station":7,"tag":"Level","type":"INT",)"
                              R"("length":10})"
                              "\n");
}

TEST_F(HostFind, ReadsTheExportOfAProgrammingToolAndWritesAProject)
{
    simulate(kTags);
    const QString list = file("v.csv", "Name;Datentyp;Kommentar;Einheit\nSpeed;DINT;Belt;rpm\n"
                                       "Timer1;TON;;\nGone;INT;;\nLevel;INT;;\n");
    const QString project = path("found.json");
    const Result result = hostOnPort({"find", list, "--output", project});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Speed  INT\nLevel  INT[10]\n");
    const std::string place = "micro850-host: " + list.toStdString();
    EXPECT_EQ(result.err, place +
                              ": line 3: Timer1: \"TON\" is not an elementary type such as INT, "
                              "and structures are not read (left out)\n" +
                              "micro850-host: Speed: is INT in the controller, DINT in the list\n" +
                              "micro850-host: Gone: " + kNotThere + "\n" + place +
                              ": 2 of 3 names found, 1 not there\n" + "micro850-host: " +
                              project.toStdString() + ": a project of what was found\n");
    EXPECT_EQ(
        textOf("found.json"),
        "{\n  \"port\": {\"device\":\"" + port().toStdString() +
            "\",\"baud\":38400},\n  \"stations\": [{\"number\":1}],\n  \"variables\": [\n"
            "    {\"tag\":\"Speed\",\"type\":\"INT\",\"unit\":\"rpm\",\"comment\":\"Belt\"},\n"
            "    {\"tag\":\"Level\",\"type\":\"INT\",\"length\":10}\n  ]\n}\n");
    EXPECT_EQ(host({"check", project, "--quiet"}).out, "Speed: ok, INT\nLevel: ok, INT\n");
}

TEST_F(HostFind, ReplacesNoFileAndLeavesNoneWhenNothingIsThere)
{
    simulate(kTags);
    const QString project = file("mine.json", "{}");
    const QString list = file("names.txt", "Speed\n");
    const Result there = hostOnPort({"find", list, "-o", project});
    EXPECT_EQ(there.status, 2);
    EXPECT_EQ(there.out, "");
    EXPECT_EQ(there.err, "micro850-host: --output: " + project.toStdString() +
                             " is there already (name another file)\n");
    EXPECT_EQ(textOf("mine.json"), "{}");
    const QString none = file("none.txt", "Nope\nNothing\nNever\nNowhere\nNada\n");
    const Result nothing = hostOnPort({"find", none, "-o", path("new.json")});
    EXPECT_EQ(nothing.status, 1);
    EXPECT_EQ(nothing.out, "");
    EXPECT_EQ(nothing.err, std::string("micro850-host: Nope, Nothing, Never and 2 more: ") +
                               kNotThere + "\nmicro850-host: " + none.toStdString() +
                               ": 0 of 5 names found, 5 not there\n");
    EXPECT_FALSE(QFile::exists(path("new.json")));
    EXPECT_EQ(hostOnPort({"find", list, "-o", "/none/p.json"}).status, 2);
}

TEST_F(HostFind, ReadsStandardInput)
{
    simulate(kTags);
    const QString list = file("names", "Speed\nNope\n");
    const Result result = runProgram(
        "sh", {"-c", "exec \"$0\" find - -p \"$1\" <\"$2\"", MICRO850_HOST, port(), list});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "Speed  INT\n");
    EXPECT_NE(result.err.find("standard input: 1 of 2 names found, 1 not there\n"),
              std::string::npos)
        << result.err;
}

TEST_F(HostFind, TellsWhenNobodyAnswers)
{
    const SilentPort nobody;
    const QString list = file("names.txt", "Speed\nLevel\n");
    const Result result =
        host({"find", list, "--timeout", "20", "--port", nobody.path(), "-o", path("new.json")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(": 0 of 2 names found, 0 not there, 2 not tried\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(result.err.find("no such tag"), std::string::npos);
    EXPECT_NE(linesOf(result.err).last().toStdString().find("no answer"), std::string::npos)
        << result.err;
    EXPECT_FALSE(QFile::exists(path("new.json")));
}

TEST_F(HostFind, KeepsWhatWasFoundWhenItIsInterrupted)
{
    simulate(kTags);
    QProcess find;
    find.start(MICRO850_HOST,
               {"find", file("long.txt", longList(30000)), "-p", port(), "-o", path("part.json")});
    QElapsedTimer timer;
    timer.start();
    while (!find.canReadLine() && timer.elapsed() < 60000)
        find.waitForReadyRead(100);
    EXPECT_EQ(find.readLine(), "Speed      INT\n");
    ::kill(static_cast<pid_t>(find.processId()), SIGINT);
    ASSERT_TRUE(find.waitForFinished());
    EXPECT_EQ(find.exitCode(), 1);
    const QString err = QString::fromUtf8(find.readAllStandardError());
    EXPECT_TRUE(err.contains(" not tried\n")) << err.toStdString();
    EXPECT_TRUE(err.endsWith("micro850-host: interrupted\n")) << err.toStdString();
    EXPECT_NE(textOf("part.json").find("{\"tag\":\"Speed\",\"type\":\"INT\"}\n"),
              std::string::npos);
}

TEST_F(HostFind, CountsWhatWasFoundAndRefusedWhenItsOutputCannotBeWritten)
{
    simulate(kTags);
    const QString list = file("names.txt", "Nope\nSpeed\nLevel\n");
    const Result result = runProgram(
        "bash", {"-c", R"("$0" find "$1" --port "$2" >/dev/full)", MICRO850_HOST, list, port()});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(": 1 of 3 names found, 1 not there, 1 not tried\n"),
              std::string::npos)
        << result.err;
}

TEST_F(HostFind, ShowsItsProgressOnATerminal)
{
    simulate(kTags);
    file("long.txt", longList(60000));
    open("$HOST find long.txt -p $PORT", 80, 12);
    EXPECT_TRUE(sees("Speed      INT\nfinding ["));
    EXPECT_TRUE(sees("/60001"));
    type({"C-c"});
    EXPECT_TRUE(sees("[status 1]"));
    EXPECT_TRUE(seesNo("finding ["));
}

TEST_F(HostFind, IsACommandOfTheShell)
{
    simulate(kTags);
    const QString names = file("names", "Level\n");
    const Result result = runProgram(
        "sh", {"-c", "printf 'find %s\\nfind -\\n' \"$2\" | \"$0\" shell -p \"$1\" --quiet",
               MICRO850_HOST, port(), names});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "Level  INT[10]\n");
    EXPECT_NE(result.err.find("-: standard input has the commands of the shell (name a file)\n"),
              std::string::npos)
        << result.err;
}

TEST_F(HostFind, SaysWhatIsWrongWithAList)
{
    simulate(kTags);
    const auto complaint = [this](const QStringList& arguments) {
        const Result result = hostOnPort(QStringList("find") + arguments);
        EXPECT_EQ(result.status, 2) << result.err;
        return result.err;
    };
    EXPECT_EQ(complaint({"/none.txt"}), "micro850-host: /none.txt: cannot be read: No such file or "
                                        "directory (name the exported list)\n");
    const QString blank = file("blank.txt", "\n two words\n");
    EXPECT_EQ(complaint({blank}),
              "micro850-host: " + blank.toStdString() +
                  ": line 2: two words: is not a tag (letters, digits and signs without blanks) "
                  "(left out)\nmicro850-host: " +
                  blank.toStdString() +
                  ": lists no name that a tag can have (a name in each line, or a list that a "
                  "programming tool exported)\n");
    const QString heading = file("v.csv", "A,B\n");
    EXPECT_NE(complaint({heading}).find("v.csv: line 1: no column \"Name\""), std::string::npos);
    const QString stations = file("s.csv", "Name,Type,Station\nSpeed,INT,1\n");
    EXPECT_NE(complaint({stations, "--station", "2"})
                  .find("s.csv: names the stations itself (leave out --station)"),
              std::string::npos);
}

} // namespace
