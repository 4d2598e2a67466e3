#include "program_fixture.h"

namespace {

using HostRead = ProgramTest;

TEST_F(HostRead, PrintsALineForEachElement)
{
    simulate();
    const Result result = hostOnPort({"read", "Speed", "Level[8..9]", "Recipe[1]", "Setpoint",
                                      "Running", "Bits", "Delay", "Name"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "Speed      INT           1234\n"
                          "Level[8]   INT           18\n"
                          "Level[9]   INT           19\n"
                          "Recipe[1]  DINT          -1\n"
                          "Setpoint   REAL          21.5\n"
                          "Running    BOOL          true\n"
                          "Bits       WORD          0x1234\n"
                          "Delay      TIME          PT2.5S\n"
                          "Name       SHORT_STRING  Apple\n");
}

TEST_F(HostRead, ReadsArraysToTheirEnd)
{
    simulate(R"({"name": "Short", "type": "INT", "length": 3, "value": [7, -8, 9]},
                {"name": "Long", "type": "WORD", "length": 300, "value": [1, 2]},
                {"name": "One", "type": "LREAL", "value": 0.5},
                {"name": "Name", "type": "SHORT_STRING", "value": "Apple"})");
    const Result all = hostOnPort({"read", "Short[]", "Short[1..]", "One[]", "Name[]"});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.out, "Short[0]  INT           7\n"
                       "Short[1]  INT           -8\n"
                       "Short[2]  INT           9\n"
                       "Short[1]  INT           -8\n"
                       "Short[2]  INT           9\n"
                       "One[0]    LREAL         0.5\n"
                       "Name[0]   SHORT_STRING  Apple\n");
    EXPECT_EQ(linesOf(hostOnPort({"read", "Long[]"}).out).size(), 300);
    EXPECT_EQ(hostOnPort({"read", "Long[299..]", "--json"}).out,
              R"({"name":"Long[299]","station":1,"tag":"Long","element":299,"type":"WORD",)"
              R"("value":0})"
              "\n");
    const Result beyond = hostOnPort({"read", "Short[3..]", "One"});
    EXPECT_EQ(beyond.status, 1);
    EXPECT_EQ(beyond.out, "One  LREAL  0.5\n");
    EXPECT_EQ(beyond.err, "micro850-host: Short[3..]: the array has 3 elements\n");
}

TEST_F(HostRead, LooksForTheEndOnceByTwiceAndByHalfTheDistance)
{
    simulate();
    hostOnPort({"read", "Level[]", "Level[4..]", "--trace", path("t.txt")});
    QStringList reads;
    for (const QString& line : linesOf(host({"trace", path("t.txt")}).out)) {
        // A busy machine asks again for what comes late.
        if (line.contains(" > ") && line.contains(" read ") && !line.contains("(again: "))
            reads += line.section(" read ", 1).section(" x", 0, 0).trimmed();
    }
    // The type; the search; then ten and six elements.
    EXPECT_EQ(reads.join(' '),
              "Level[0] Level[1] Level[2] Level[4] Level[8] Level[16] Level[12] Level[10] Level[9] "
              "Level[0] Level[4]");
}

TEST_F(HostRead, ReadsAVariableOfTheProjectToItsEnd)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Tank", "tag": "Level", "element": 3, "length": 4}]})");
    EXPECT_EQ(hostOnPort({"read", "Tank[2..]", "--project", project}).out,
              "Tank[2]  INT  15\nTank[3]  INT  16\n");
    const Result beyond = hostOnPort({"read", "Tank[4..]", "--project", project});
    EXPECT_EQ(beyond.status, 2);
    EXPECT_EQ(beyond.err, "micro850-host: Tank[4]: is not among the elements of the project's "
                          "variable, Tank[0..3] (correct the index, or \"length\" in the "
                          "project)\n");
}

TEST_F(HostRead, ReadsBitsOfIntegersAndOfWords)
{
    simulate(R"({"name": "Word", "type": "WORD", "length": 2, "value": [4660, 32769]},
                {"name": "Minus", "type": "SINT", "value": -128},
                {"name": "Wide", "type": "ULINT", "value": 9223372036854775808},
                {"name": "Heat", "type": "REAL", "value": 1.5},
                {"name": "Run", "type": "BOOL", "value": true},
                {"name": "Timer.PRE", "type": "INT", "value": 5})");
    const Result bits = hostOnPort({"read", "Word.2", "Word[1].15", "Word[].0", "Minus.7",
                                    "Minus.6", "Wide.63", "Timer.PRE", "Timer.PRE.2"});
    EXPECT_EQ(bits.status, 0) << bits.err;
    EXPECT_EQ(bits.out, "Word.2       BOOL  true\n" // 0x1234
                        "Word[1].15   BOOL  true\n"
                        "Word[0].0    BOOL  false\n"
                        "Word[1].0    BOOL  true\n"
                        "Minus.7      BOOL  true\n"
                        "Minus.6      BOOL  false\n"
                        "Wide.63      BOOL  true\n"
                        "Timer.PRE    INT   5\n"
                        "Timer.PRE.2  BOOL  true\n");
    EXPECT_EQ(hostOnPort({"read", "Word[1].15", "--json"}).out,
              R"({"name":"Word[1].15","station":1,"tag":"Word","element":1,"bit":15,)"
              R"("type":"BOOL","value":true})"
              "\n");
    const std::pair<const char*, const char*> mistakes[] = {
        {"Word.16", "Word.16: is of type WORD, which has the bits 0 to 15"},
        {"Minus.8", "Minus.8: is of type SINT, which has the bits 0 to 7"},
        {"Heat.0", "Heat.0: is of type REAL, which has no bits that can be read"},
        {"Run.0", "Run.0: is of type BOOL, which has no bits that can be read"},
    };
    for (const auto& mistake : mistakes) {
        const Result result = hostOnPort({"read", "Minus", mistake.first, "--quiet"});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, std::string("micro850-host: ") + mistake.second +
                                  " (leave the bit out, or correct it)\n");
    }
}

TEST_F(HostRead, ReadsBitsOfAVariableAsTheControllerHasThem)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Valve 1.2", "tag": "Bits", "type": "WORD"},
        {"name": "Heat", "tag": "Level", "element": 2, "gain": 10, "unit": "F"}]})");
    const Result result =
        hostOnPort({"read", "Valve 1.2.2", "Valve 1.2", "Heat.2", "--project", project});
    EXPECT_EQ(result.out, "Valve 1.2.2  BOOL  true\n" // 0x1234
                          "Valve 1.2    WORD  0x1234\n"
                          "Heat.2       BOOL  true\n"); // 12, not 120
    EXPECT_EQ(host({"read", "Valve 1.2.16", "--port", "/none", "--project", project}).err,
              "micro850-host: Valve 1.2.16: is of type WORD, which has the bits 0 to 15 (leave the "
              "bit out, or correct it)\n");
}

TEST_F(HostRead, AloneTakesBitsAndEndsOfArrays)
{
    simulate();
    EXPECT_EQ(hostOnPort({"write", "Bits.3=1", "--quiet"}).err,
              "micro850-host: Bits.3: a bit can only be read, with read (name the whole Bits)\n");
    EXPECT_EQ(hostOnPort({"write", "Level[]=1", "--quiet"}).err,
              "micro850-host: Level[]: only read looks for the end of an array (name both indices, "
              "as in Level[0..9])\n");
    EXPECT_EQ(hostOnPort({"write", "Level[]=1"}).status, 2);
    const Result watch = hostOnPort({"watch", "Bits.3"});
    EXPECT_EQ(watch.status, 2);
    EXPECT_EQ(watch.err,
              "micro850-host: Bits.3: a bit can only be read, with read (name the whole Bits)\n");
}

TEST_F(HostRead, PrintsJsonValuesOfEachKind)
{
    simulate();
    const Result result =
        hostOnPort({"read", "--json", "Level[9]", "Setpoint", "Running", "Bits", "Delay", "Name"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(
        result.out,
        R"({"name":"Level[9]","station":1,"tag":"Level","element":9,"type":"INT","value":19})"
        "\n"
        R"({"name":"Setpoint","station":1,"tag":"Setpoint","element":0,"type":"REAL","value":21.5})"
        "\n"
        R"({"name":"Running","station":1,"tag":"Running","element":0,"type":"BOOL","value":true})"
        "\n"
        R"({"name":"Bits","station":1,"tag":"Bits","element":0,"type":"WORD","value":4660})"
        "\n"
        R"({"name":"Delay","station":1,"tag":"Delay","element":0,"type":"TIME","value":2500})"
        "\n"
        R"({"name":"Name","station":1,"tag":"Name","element":0,"type":"SHORT_STRING","value":"Apple"})"
        "\n");
}

TEST_F(HostRead, FindsTheTagsOfEachOfSeveralStations)
{
    simulateStations({R"({"name": "Speed", "type": "INT", "value": 11})",
                      R"({"name": "Speed", "type": "DINT", "value": 22})",
                      R"({"name": "Other", "type": "INT", "value": 33})"});
    EXPECT_NE(host({"read", "Speed", "--port", port(1)}).out.find("11"), std::string::npos);
    EXPECT_NE(host({"read", "Speed", "--port", port(2)}).out.find("22"), std::string::npos);
    const Result third = host({"read", "Speed", "--port", port(3)});
    EXPECT_NE((third.out + third.err).find("no such tag"), std::string::npos)
        << third.out << third.err;
}

TEST_F(HostRead, ContinuesAfterATagThatTheControllerDoesNotKnow)
{
    simulate();
    const Result result = hostOnPort({"read", "Nope", "Speed"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "Speed  INT  1234\n");
    EXPECT_EQ(
        result.err,
        "micro850-host: Nope: no such tag (names are as in the controller's program; status 05)\n");
}

TEST_F(HostRead, ReportsThatAnotherProgramUsesTheLine)
{
    simulate();
    QProcess other;
    other.start(MICRO850_HOST, {"watch", "Speed", "--port", port()});
    ASSERT_TRUE(other.waitForReadyRead(60000)); // it has the line, and a value
    const Result result = hostOnPort({"read", "Speed"});
    other.terminate();
    EXPECT_TRUE(other.waitForFinished());
    EXPECT_EQ(result.status, server() ? 1 : 2);
    EXPECT_NE(result.err.find(server() ? "closed the connection at once (another client uses it"
                                       : "cannot be opened: another program uses it; end that one "
                                         "first\n"),
              std::string::npos)
        << result.err;
}

TEST_F(HostRead, ReportsThatItsOutputCannotBeWritten)
{
    simulate();
    const Result result = runProgram(
        "bash", {"-c", "\"$0\" read Speed --port \"$1\" > /dev/full", MICRO850_HOST, port()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "micro850-host: standard output: cannot be written: No space left on "
                          "device\n");
}

TEST_F(HostRead, RefusesElementsThatTheTagDoesNotHave)
{
    simulate();
    const Result result = hostOnPort({"read", "Level[5..12]"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.find("micro850-host: Level[10]: "), 0u) << result.err;
    const Result json = hostOnPort({"read", "Level[5..12]", "--json"});
    EXPECT_EQ(json.out.find(R"({"name":"Level[5..12]","station":1,"tag":"Level","error":)"
                            R"("Level[10]: )"),
              0u)
        << json.out;
}

TEST_F(HostRead, RefusesAnIndexIntoAStringBeforeAnyTagIsRead)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Label", "tag": "Name", "type": "SHORT_STRING"}]})");
    const std::pair<QString, QString> mistakes[] = {
        {"Name[2]", "Name[2]"}, {"Name[0..1]", "Name[0..1]"}, {"Label[2]", "Label[2]"}};
    for (const auto& mistake : mistakes) {
        const Result result =
            hostOnPort({"read", "Speed", mistake.first, "--quiet", "--project", project});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err,
                  "micro850-host: " + mistake.second.toStdString() +
                      ": of a string only element 0 can be read and written (leave the index "
                      "out)\n");
    }
    EXPECT_EQ(hostOnPort({"read", "Name[0]"}).out, "Name[0]  SHORT_STRING  Apple\n");
}

TEST_F(HostRead, HasAnObjectForEachTagWithJson)
{
    simulate();
    const Result refused = hostOnPort({"read", "Nope", "Speed", "--json"});
    EXPECT_EQ(refused.status, 1);
    ASSERT_EQ(linesOf(refused.out).size(), 2) << refused.out;
    EXPECT_EQ(refused.out.find(R"({"name":"Nope","station":1,"tag":"Nope","error":")"), 0u)
        << refused.out;
    const Result mistaken = hostOnPort({"read", "Speed", "Level[", "--json"});
    EXPECT_EQ(mistaken.status, 2);
    EXPECT_EQ(mistaken.out,
              R"x({"name":"Speed","station":1,"tag":"Speed","error":"not tried: another tag )x"
              R"x(cannot be asked for"})x"
              "\n"
              R"x({"name":"Level[","error":"\"Level[\" is not a tag (write TAG, TAG[INDEX] or )x"
              R"x(TAG[FIRST..LAST])"})x"
              "\n");
    const SilentPort nobody;
    const Result silent =
        host({"read", "Speed", "Level", "--json", "--timeout", "20", "--port", nobody.path()});
    EXPECT_EQ(silent.status, 1);
    const QStringList lines = linesOf(silent.out);
    ASSERT_EQ(lines.size(), 2) << silent.out;
    EXPECT_TRUE(lines.at(1).startsWith(R"({"name":"Level","station":1,"tag":"Level","error":)"
                                       R"("not tried: Speed: no answer)"))
        << silent.out;
}

TEST_F(HostRead, FindsVariablesWithAnyName)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Fill = 5", "tag": "Level", "element": 3, "length": 2},
        {"name": "F\u00fcllh\u00f6he 1", "tag": "Level", "element": 6},
        {"name": "Level[2]", "tag": "Level", "element": 7}]})");
    const Result result = hostOnPort({"read", "Fill = 5", "F\u00fcllh\u00f6he 1", "\"Fill = 5\"[1]",
                                      "Level[2]", "\"Level\"[2]", "--project", project});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "\"Fill = 5\"[0]  INT  13\n"
                          "\"Fill = 5\"[1]  INT  14\n"
                          "F\u00fcllh\u00f6he 1     INT  16\n"
                          "\"Fill = 5\"[1]  INT  14\n"
                          "\"Level[2]\"     INT  17\n"
                          "Level[2]       INT  12\n");
    EXPECT_EQ(hostOnPort({"read", "Fill = 5[1]", "--json", "--project", project}).out,
              R"({"name":"Fill = 5[1]","station":1,"tag":"Level","element":4,"type":"INT",)"
              R"("value":14})"
              "\n");
}

TEST_F(HostRead, NamesTheVariableThatWasProbablyMeant)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Tank 1", "tag": "Level"}, {"name": "Outlet", "tag": "Speed"}]})");
    const Result blank = hostOnPort({"read", "Tank 2", "--project", project});
    EXPECT_EQ(blank.status, 2);
    EXPECT_NE(blank.err.find(" (did you mean Tank 1?)\n"), std::string::npos) << blank.err;
    const Result plain = hostOnPort({"read", "Outled", "--project", project});
    EXPECT_EQ(plain.status, 1);
    EXPECT_NE(plain.err.find(" (did you mean Outlet?)\n"), std::string::npos) << plain.err;
}

// The project of the folder is not used when the port is named, but it knows the tags.
TEST_F(HostRead, NamesTheTagOfTheProjectInTheFolderThatWasProbablyMeant)
{
    simulate();
    EXPECT_EQ(hostOnPort({"read", "Sped"}).err.find("did you mean"), std::string::npos);
    file("plant.json", R"({"variables": [{"name": "Outlet", "tag": "Speed"}]})");
    const Result read = hostOnPort({"read", "Sped"});
    EXPECT_EQ(read.status, 1);
    EXPECT_NE(read.err.find(" (did you mean Speed?)\n"), std::string::npos) << read.err;
    const Result write = hostOnPort({"write", "Sped=1"});
    EXPECT_EQ(write.status, 1);
    EXPECT_NE(write.err.find(" (did you mean Speed?)\n"), std::string::npos) << write.err;
    file("plant.json", "{ this is none");
    EXPECT_EQ(hostOnPort({"read", "Sped"}).err.find("did you mean"), std::string::npos);
}

TEST_F(HostRead, RefusesElementsThatTheVariableDoesNotHave)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Tank", "tag": "Level", "element": 3, "length": 2}]})");
    const Result result = hostOnPort({"read", "Tank[1..4]", "--project", project});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: Tank[2]: is not among the elements of the project's "
                          "variable, Tank[0..1] (correct the index, or \"length\" in the "
                          "project)\n");
}

TEST_F(HostRead, RefusesADisabledStationAndATypeThatIsNotTheProjects)
{
    simulate();
    const QString project = file("p.json", R"({
        "stations": [{"number": 1}, {"number": 2, "enabled": false}], "variables": [
        {"name": "Far", "tag": "Speed", "station": 2},
        {"name": "Wide", "tag": "Speed", "type": "DINT"}]})");
    const Result far = hostOnPort({"read", "Far", "--project", project});
    EXPECT_EQ(far.status, 2);
    EXPECT_EQ(far.err, "micro850-host: Far: station 2 is disabled in the project (set its "
                       "\"enabled\" to true)\n");
    const Result wide = hostOnPort({"read", "Wide", "--project", project});
    EXPECT_EQ(wide.status, 2);
    EXPECT_EQ(wide.out, "");
    EXPECT_EQ(wide.err, "micro850-host: Wide: is INT in the controller, DINT in the project "
                        "(correct the project)\n");
}

TEST_F(HostRead, RefusesATraceFileOfAnUnknownKind)
{
    simulate();
    const Result result = hostOnPort({"read", "Speed", "--trace", "x.pdf"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("x.pdf"), std::string::npos) << result.err;
}

TEST_F(HostRead, ScalesAsTheProjectSaysUnlessRaw)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Heat", "tag": "Level", "element": 2, "gain": 1.8, "offset": 32, "unit": "F"}]})");
    EXPECT_EQ(hostOnPort({"read", "Heat", "--project", project}).out, "Heat  INT  53.6 F\n");
    EXPECT_EQ(hostOnPort({"read", "Heat", "--raw", "--project", project}).out, "Heat  INT  12\n");
    EXPECT_EQ(hostOnPort({"read", "Heat", "--json", "--project", project}).out,
              R"({"name":"Heat","station":1,"tag":"Level","element":2,"type":"INT","value":53.6,)"
              R"("unit":"F"})"
              "\n");
    EXPECT_EQ(hostOnPort({"read", "Delay", "--raw"}).out, "Delay  TIME  2500\n");
}

TEST_F(HostRead, KnowsTheVariablesOfAProject)
{
    simulate();
    const QString project = file("p.json", R"({"port": {"device": ")" + port().toStdString() +
                                               R"("}, "variables": [
        {"name": "Tank", "tag": "Level", "element": 3, "length": 2}]})");
    const Result result = host({"read", "Tank", "Tank[1]", "Speed", "--project", project});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "Tank[0]  INT  13\nTank[1]  INT  14\nTank[1]  INT  14\nSpeed    INT  1234\n");
}

TEST_F(HostRead, ReportsThatNothingAnswersWithinTheTimeout)
{
    const SilentPort nobody;
    const Result result = host({"read", "Speed", "--timeout", "20", "--port", nobody.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("micro850-host: Speed: no answer ("), std::string::npos)
        << result.err;
}

// What the user gets wrong, and what the program reports.
struct Mistake
{
    QStringList arguments;
    const char* message;
};

TEST_F(HostRead, ReportsEveryMistakeInOneLineWithTheRemedy)
{
    const Mistake mistakes[] = {
        {{}, "A subcommand is required (see micro850-host --help)"},
        {{"raed"}, "\"raed\" is not a command (did you mean read?) (see micro850-host --help)"},
        {{"read"}, "TAG is required (see micro850-host read --help)"},
        {{"read", "Speed"},
         "no port is given (name it with -p DEVICE, in MICRO850_PORT, or in a project: --project "
         "FILE, "
         "or project.json or plant.json in this folder)"},
        {{"read", "Speed", "--port", "/none"}, "/none: cannot be opened: there is no such device"},
        {{"read", "Level[", "--port", "/none"},
         "\"Level[\" is not a tag (write TAG, TAG[INDEX] or TAG[FIRST..LAST])"},
        {{"read", "Level[9..3]", "--port", "/none"},
         "\"Level[9..3]\": the last index is before the first (write TAG[FIRST..LAST])"},
        {{"read", "Level[65536]", "--port", "/none"},
         "\"Level[65536]\": the index 65536 is not allowed (0 to 65535)"},
        {{"read", "Speed", "--project", "/none.json"}, "/none.json: "},
        {{"read", "Speed", "--port", "/none", "--driver", "/none.so"}, "/none.so"},
        {{"read", "Speed", "--port", "/none", "--baud", "3"}, "--baud: "},
        {{"read", "Speed", "--fast"},
         "\"--fast\" is not expected here (see micro850-host read --help)"},
        {{"read", "Speed", "--jsn"}, "\"--jsn\" is not expected here (did you mean --json?)"},
        {{"read", "Speed", "--fast", "--more"}, "\"--fast\" is not expected here"},
        {{"poll", "one.json", "two.json"}, "\"two.json\" is not expected here"},
    };
    for (const Mistake& mistake : mistakes) {
        const Result result = host(mistake.arguments);
        const std::string what = mistake.arguments.join(' ').toStdString();
        EXPECT_EQ(result.status, 2) << what;
        EXPECT_EQ(result.out, "") << what;
        EXPECT_EQ(linesOf(result.err).size(), 1) << what << '\n' << result.err;
        EXPECT_EQ(result.err.find("micro850-host: "), 0u) << what;
        EXPECT_NE(result.err.find(mistake.message), std::string::npos) << what << '\n'
                                                                       << result.err;
    }
}

TEST_F(HostRead, PrintsItsVersionAndItsHelpWithAnExample)
{
    EXPECT_EQ(host({"--version"}).out, "micro850-host " MICRO850_VERSION "\n");
    for (const char* command :
         {"probe", "poll", "read", "write", "watch", "log", "check", "import"}) {
        const Result result = host({command, "--help"});
        EXPECT_EQ(result.status, 0) << command;
        EXPECT_NE(result.out.find(std::string("Example:\n  micro850-host ") + command),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("Exit status: 0 "), std::string::npos) << result.out;
    }
}

} // namespace
