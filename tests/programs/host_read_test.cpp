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
    EXPECT_EQ(result.out, "Speed = 1234\nLevel[8] = 18\nLevel[9] = 19\nRecipe[1] = -1\n"
                          "Setpoint = 21.5\nRunning = true\nBits = 0x1234\nDelay = PT2.5S\n"
                          "Name = Apple\n");
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
    EXPECT_NE(host({"read", "Speed", "--port", port() + ".1"}).out.find("11"), std::string::npos);
    EXPECT_NE(host({"read", "Speed", "--port", port() + ".2"}).out.find("22"), std::string::npos);
    const Result third = host({"read", "Speed", "--port", port() + ".3"});
    EXPECT_NE((third.out + third.err).find("path destination unknown"), std::string::npos)
        << third.out << third.err;
}

TEST_F(HostRead, ContinuesAfterATagThatTheControllerDoesNotKnow)
{
    simulate();
    const Result result = hostOnPort({"read", "Nope", "Speed"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "Speed = 1234\n");
    EXPECT_EQ(result.err, "micro850-host: Nope: path destination unknown (status 05)\n");
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
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("cannot be opened: another program uses it; end that one first "
                              "(choose the port with --port)\n"),
              std::string::npos)
        << result.err;
}

TEST_F(HostRead, ReportsThatItsOutputCannotBeWritten)
{
    simulate();
    const Result result = runProgram(
        "bash", {"-c", "\"$0\" read Speed --port \"$1\" > /dev/full", MICRO850_HOST, port()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "micro850-host: standard output cannot be written (is its disk full?)\n");
}

TEST_F(HostRead, RefusesElementsThatTheTagDoesNotHave)
{
    simulate();
    const Result result = hostOnPort({"read", "Level[5..12]"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("micro850-host: Level[5]: "), std::string::npos) << result.err;
}

TEST_F(HostRead, KnowsTheVariablesOfAProject)
{
    simulate();
    const QString project = file("p.json", R"({"port": {"device": ")" + port().toStdString() +
                                               R"("}, "variables": [
        {"name": "Tank", "tag": "Level", "element": 3, "length": 2}]})");
    const Result result = host({"read", "Tank", "Tank[1]", "Speed", "--project", project});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Tank[3] = 13\nTank[4] = 14\nTank[4] = 14\nSpeed = 1234\n");
}

TEST_F(HostRead, ReportsThatNothingAnswersWithinTheTimeout)
{
    const SilentPort nobody;
    const Result result = host({"read", "Speed", "--timeout", "20", "--port", nobody.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("micro850-host: Speed: station 1 does not answer ("),
              std::string::npos)
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
        {{"read", "Speed"}, "no port is given (name it with --port DEVICE or --project FILE)"},
        {{"read", "Speed", "--port", "/none"},
         "/none: cannot be opened: there is no such device (choose the port with --port)"},
        {{"read", "Level[", "--port", "/none"},
         "\"Level[\" is not a tag (write TAG, TAG[INDEX] or TAG[FIRST..LAST])"},
        {{"read", "Level[9..3]", "--port", "/none"},
         "\"Level[9..3]\": the last index is before the first (write TAG[FIRST..LAST])"},
        {{"read", "Level[65536]", "--port", "/none"},
         "\"Level[65536]\": the index 65536 is not allowed (0 to 65535)"},
        {{"read", "Speed", "--project", "/none.json"}, "/none.json: "},
        {{"read", "Speed", "--port", "/none", "--driver", "/none.so"}, "/none.so"},
        {{"read", "Speed", "--port", "/none", "--baud", "3"}, "--baud: "},
        {{"read", "Speed", "--port", "/none", "--trace", "x.pdf"}, "x.pdf"},
        {{"read", "Speed", "--fast"},
         "\"--fast\" is not expected here (see micro850-host read --help)"},
        {{"read", "Speed", "--jsn"}, "\"--jsn\" is not expected here (did you mean json?)"},
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
