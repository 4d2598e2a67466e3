#include "program_fixture.h"

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>

namespace {

class HostWrite : public ProgramTest
{
protected:
    /// Runs a write on the simulator, with the project if there is one, and records its frames.
    Result write(QStringList arguments)
    {
        QFile::remove(path("t.txt"));
        arguments.prepend("write");
        if (!project.isEmpty())
            arguments << "--project" << project;
        return hostOnPort(arguments << "--trace" << path("t.txt"));
    }
    /// The requests to write that the last write() sent.
    int writesSent()
    {
        int sent = 0;
        if (QFile::exists(path("t.txt"))) {
            for (const QString& line : linesOf(host({"trace", path("t.txt")}).out))
                sent += line.contains(" write ") && line.contains("Z > ") ? 1 : 0;
        }
        return sent;
    }
    std::string valueOf(const QString& tag) { return hostOnPort({"read", tag, "--raw"}).out; }

    QString project;
};

const char kStringIndex[] =
    ": of a string only element 0 can be read and written (leave the index out)\n";

TEST_F(HostWrite, WritesSeveralAndReadsThemBack)
{
    simulate();
    const Result result = hostOnPort({"write", "Speed=-5", "Level[1]=0x10", "Setpoint=1.25",
                                      "Running=false", "Name=Pear juice"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "Speed: 1234 -> -5\nLevel[1]: 11 -> 16\nSetpoint: 21.5 -> 1.25\n"
                          "Running: true -> false\nName: Apple -> Pear juice\n");
    EXPECT_EQ(hostOnPort({"read", "Speed", "Level[0..2]"}).out,
              "Speed     INT  -5\nLevel[0]  INT  10\nLevel[1]  INT  16\nLevel[2]  INT  12\n");
    EXPECT_EQ(valueOf("Name"), "Name  SHORT_STRING  Pear juice\n");
}

TEST_F(HostWrite, WritesARunOfElements)
{
    simulate();
    EXPECT_EQ(hostOnPort({"write", "Level[2..4]=7,-8,9", "Recipe[0..1]=5"}).out,
              "Level[2]: 12 -> 7\nLevel[3]: 13 -> -8\nLevel[4]: 14 -> 9\nRecipe[0]: 70000 -> 5\n"
              "Recipe[1]: -1 -> 5\n");
    EXPECT_EQ(hostOnPort({"read", "Level[1..5]"}).out,
              "Level[1]  INT  11\nLevel[2]  INT  7\nLevel[3]  INT  -8\nLevel[4]  INT  9\nLevel[5]  "
              "INT  15\n");
}

TEST_F(HostWrite, PrintsJsonWithTheValueThatWasReadBack)
{
    simulate();
    EXPECT_EQ(hostOnPort({"write", "Speed=7", "--json"}).out,
              R"({"name":"Speed","station":1,"tag":"Speed","element":0,"type":"INT",)"
              R"("outcome":"written","old":1234,"written":7,"value":7,"verified":true})"
              "\n");
    EXPECT_EQ(hostOnPort({"write", "Speed=8", "--json", "--no-verify"}).out,
              R"({"name":"Speed","station":1,"tag":"Speed","element":0,"type":"INT",)"
              R"("outcome":"written","old":7,"written":8})"
              "\n");
}

TEST_F(HostWrite, ReportsThatTheControllersProgramOverwroteTheValue)
{
    simulate(R"({"name": "Moving", "type": "DINT",
                 "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.001}})");
    const Result result = hostOnPort({"write", "Moving=-7"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(" was read back after -7 was written (the program may set it)"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(hostOnPort({"write", "Moving=-7", "--no-verify"}).status, 0);
}

TEST_F(HostWrite, WritesNothingWhenOneValueDoesNotFitItsType)
{
    simulate();
    const Result result = hostOnPort({"write", "Speed=1", "Level[0]=32768"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: Level[0]: \"32768\" is not a value of type INT "
                          "(-32768 to 32767)\n"
                          "micro850-host: nothing was written: 1 refused, 1 not tried\n");
    EXPECT_EQ(hostOnPort({"read", "Speed"}).out, "Speed  INT  1234\n");
}

TEST_F(HostWrite, RefusesAnIndexIntoAStringBeforeAnythingIsSent)
{
    simulate();
    for (const char* verify : {"--verify", "--no-verify"}) {
        for (const char* index : {"[2]", "[0..1]", "[1..2]"}) {
            QStringList arguments = {"Speed=7", QStringLiteral("Name%1=Q").arg(index)};
            if (QString(verify) == "--no-verify")
                arguments << verify;
            const Result result = write(arguments << "--quiet");
            EXPECT_EQ(result.status, 2);
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err, std::string("micro850-host: Name") + index + kStringIndex);
            EXPECT_EQ(writesSent(), 0);
        }
    }
    EXPECT_EQ(valueOf("Name"), "Name  SHORT_STRING  Apple\n");
    EXPECT_EQ(write({"Name[0]=Pear"}).out, "Name[0]: Apple -> Pear\n");
    EXPECT_EQ(writesSent(), 1);
}

TEST_F(HostWrite, RefusesAnIndexIntoAStringOfTheProjectWithoutTheLine)
{
    simulate();
    project = file("p.json", R"({"variables": [
        {"name": "Label", "tag": "Name", "type": "SHORT_STRING"}, {"name": "Any", "tag": "Name"}]})");
    const Result typed = write({"Label[2]=Q", "--no-verify"});
    EXPECT_EQ(typed.status, 2);
    EXPECT_EQ(typed.err, std::string("micro850-host: Label[2]") + kStringIndex);
    EXPECT_FALSE(QFile::exists(path("t.txt")));
    EXPECT_EQ(write({"Any[2]=Q"}).status, 2);
    EXPECT_EQ(write({"Any=Q", "Label=R"}).status, 2); // the same element
    EXPECT_EQ(valueOf("Name"), "Name  SHORT_STRING  Apple\n");
}

TEST_F(HostWrite, WritesNothingOfARunThatReachesBeyondTheTag)
{
    simulate();
    for (const char* verify : {"", "--no-verify"}) {
        const Result result = write(
            QStringList({"Level[7..12]=1", "Speed=5", verify}).filter(QRegularExpression(".")));
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.find("micro850-host: Level[10]: "), 0u) << result.err;
        EXPECT_NE(result.err.find("\nmicro850-host: nothing was written: 1 refused, 6 not tried\n"),
                  std::string::npos)
            << result.err;
        EXPECT_EQ(writesSent(), 0);
    }
    EXPECT_EQ(write({"Speed=5", "Level[10]=1"}).status, 1);
    EXPECT_EQ(writesSent(), 0);
    EXPECT_EQ(write({"Speed=5", "Nope=1"}).status, 1);
    EXPECT_EQ(writesSent(), 0);
    EXPECT_EQ(valueOf("Speed"), "Speed  INT  1234\n");
}

TEST_F(HostWrite, NamesTheElementOfARunWhoseValueIsWrong)
{
    simulate();
    const Result result = write({"Level[2..5]=1,2,x,99999"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err.find("micro850-host: Level[4]: \"x\" is not a value of type INT "), 0u)
        << result.err;
    EXPECT_EQ(writesSent(), 0);
}

TEST_F(HostWrite, HasAnObjectForEachTargetWhenOneIsRefusedBeforehand)
{
    simulate();
    const Result result = write({"Speed=5", "Level[9..10]=1", "Set=", "Set", "--json"});
    EXPECT_EQ(result.status, 2);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 5) << result.out;
    EXPECT_EQ(lines.at(0), QString(R"({"name":"Speed","station":1,"tag":"Speed","element":0,)"
                                   R"("outcome":"not tried","error":"another one is refused"})"));
    EXPECT_EQ(lines.at(4),
              QString(R"x({"name":"Set","outcome":"refused","error":"\"Set\" is not a write )x"
                      R"x((write TAG=VALUE or TAG[INDEX]=VALUE)"})x"));
    EXPECT_FALSE(QFile::exists(path("t.txt")));

    const Result beyond = write({"Speed=5", "Level[9..10]=1", "--json"});
    EXPECT_EQ(beyond.status, 1);
    EXPECT_EQ(linesOf(beyond.out).size(), 3);
    EXPECT_NE(beyond.out.find(R"("element":9,"type":"INT","outcome":"not tried")"),
              std::string::npos)
        << beyond.out;
    EXPECT_NE(beyond.out.find(R"("element":10,"type":"INT","outcome":"refused","error":")"),
              std::string::npos)
        << beyond.out;
    EXPECT_EQ(writesSent(), 0);
}

TEST_F(HostWrite, TriesTheRestAfterTheControllerRefusedOne)
{
    simulate(R"({"name": "A", "type": "INT"}, {"name": "Locked", "type": "INT", "readOnly": true},
                {"name": "B", "type": "INT"})");
    const Result result = write({"A=1", "Locked=2", "B=3"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "A: 0 -> 1\nB: 0 -> 3\n");
    const QStringList errors = linesOf(result.err);
    ASSERT_EQ(errors.size(), 2) << result.err;
    EXPECT_TRUE(errors.at(0).startsWith("micro850-host: Locked: attribute not settable "));
    EXPECT_EQ(errors.at(1), QString("micro850-host: 2 written, 1 refused"));

    const Result json = write({"A=4", "Locked=2", "B=5", "--json", "--no-verify"});
    EXPECT_EQ(json.status, 1);
    const QStringList lines = linesOf(json.out);
    ASSERT_EQ(lines.size(), 3) << json.out;
    EXPECT_TRUE(lines.at(0).contains(R"("outcome":"written","old":1,"written":4})"));
    EXPECT_TRUE(lines.at(1).contains(R"("outcome":"refused","error":"attribute not settable)"));
    EXPECT_TRUE(lines.at(2).contains(R"("outcome":"written","old":3,"written":5})"));
}

TEST_F(HostWrite, ContinuesAfterAReadBackThatDiffers)
{
    simulate(R"({"name": "Moving", "type": "DINT",
                 "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.001}},
                {"name": "A", "type": "INT"}, {"name": "B", "type": "INT"})");
    const Result result = write({"A=1", "Moving=-7", "B=2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "A: 0 -> 1\nB: 0 -> 2\n");
    EXPECT_NE(result.err.find(" was read back after -7 was written (the program may set it)"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(writesSent(), 3);
    const Result json = write({"Moving=-7", "--json"});
    EXPECT_NE(json.out.find(R"(,"written":-7,"value":)"), std::string::npos);
    EXPECT_NE(json.out.find(R"("verified":false})"), std::string::npos) << json.out;
}

TEST_F(HostWrite, ListsWhatWasNotTriedWhenNobodyAnswersAnyMore)
{
    // A write is the request with four bytes of value at its end; none is answered.
    simulate(R"({"name": "A", "type": "INT", "length": 6})",
             {"--faults", file(
                              "f.json", R"({"faults": [{"fault": "withhold", "message": [)" + [] {
                                  std::string all = "6";
                                  for (int i = 7; i < 400; ++i)
                                      all += "," + std::to_string(i);
                                  return all;
                              }() + "]}]}")});
    const Result result = write({"A[1..4]=5", "A[0]=3", "--json", "--timeout", "30"});
    EXPECT_EQ(result.status, 1);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 5) << result.out << result.err;
    EXPECT_TRUE(lines.at(0).contains(R"("element":1,"type":"INT","outcome":")"));
    EXPECT_FALSE(lines.at(0).contains(R"("outcome":"not tried")")) << result.out;
    for (int i = 1; i < 5; ++i)
        EXPECT_TRUE(lines.at(i).contains(R"("outcome":"not tried","error":")")) << result.out;
    EXPECT_NE(result.err.find("micro850-host: A[2..4]: not tried\nmicro850-host: A[0]: not "
                              "tried\nmicro850-host: 1 "),
              std::string::npos)
        << result.err;
}

TEST_F(HostWrite, ListsWhatWasNotTriedWhenItIsInterrupted)
{
    // So slow that it cannot be done before the signal comes.
    simulate(R"({"name": "A", "type": "INT", "length": 200}, {"name": "B", "type": "INT"})",
             {"--faults", file("slow.json",
                               R"({"faults": [{"fault": "delay", "rate": 1, "seconds": 0.05}]})")});
    QProcess host;
    host.start(MICRO850_HOST, {"write", "A[0..199]=1", "B=2", "--no-verify", "--port", port()});
    ASSERT_TRUE(host.waitForReadyRead(60000)); // one is written
    host.terminate();
    ASSERT_TRUE(host.waitForFinished(60000));
    EXPECT_EQ(host.exitCode(), 1);
    const int written = linesOf(host.readAllStandardOutput().toStdString()).size();
    const QStringList errors = linesOf(host.readAllStandardError().toStdString());
    ASSERT_EQ(errors.size(), 4) << errors.join('\n').toStdString();
    EXPECT_EQ(errors.at(0), QStringLiteral("micro850-host: A[%1..199]: not tried").arg(written));
    EXPECT_EQ(errors.at(1), QString("micro850-host: B: not tried"));
    EXPECT_EQ(
        errors.at(2),
        QStringLiteral("micro850-host: %1 written, %2 not tried").arg(written).arg(201 - written));
    EXPECT_EQ(errors.at(3), QString("micro850-host: interrupted"));
}

TEST_F(HostWrite, RefusesTwoValuesForOneElement)
{
    simulate();
    project = file("p.json", R"({"variables": [
        {"name": "Tank", "tag": "Level", "element": 3, "length": 2}]})");
    const Result twice = write({"Speed=1", "speed=2", "--quiet"});
    EXPECT_EQ(twice.status, 2);
    EXPECT_EQ(twice.err, "micro850-host: speed: \"Speed=1\" and \"speed=2\" both write this "
                         "element (leave one out)\n");
    const Result overlapping = write({"Tank=1,2", "Level[4]=2", "--quiet"});
    EXPECT_EQ(overlapping.status, 2);
    EXPECT_EQ(overlapping.err, "micro850-host: Level[4]: \"Tank=1,2\" and \"Level[4]=2\" both "
                               "write this element (leave one out)\n");
    EXPECT_FALSE(QFile::exists(path("t.txt")));
}

TEST_F(HostWrite, TakesTheValueThatIsShown)
{
    simulate(R"({"name": "SetF", "type": "INT", "value": 10},
                {"name": "Day", "type": "DINT", "value": 1})");
    project = file("p.json", R"({"variables": [
        {"tag": "SetF", "gain": 1.8, "offset": 32, "unit": "F"}]})");
    const Result exact = write({"SetF=68"});
    EXPECT_EQ(exact.status, 0);
    EXPECT_EQ(exact.out, "SetF: 50 -> 68 F\n");
    EXPECT_EQ(exact.err, "");
    EXPECT_EQ(valueOf("SetF"), "SetF  INT  20\n");

    const Result rounded = write({"SetF=69.7"});
    EXPECT_EQ(rounded.status, 0);
    EXPECT_EQ(rounded.out, "SetF: 68 -> 69.8 F\n");
    EXPECT_EQ(rounded.err, "micro850-host: SetF: 69.7 is stored as 21, which is 69.8\n");
    EXPECT_EQ(valueOf("SetF"), "SetF  INT  21\n");

    EXPECT_NE(write({"SetF=50", "--json"})
                  .out.find(R"("written":50.0,"value":50.0,"verified":true,"unit":"F"})"),
              std::string::npos);
    EXPECT_EQ(write({"SetF=68", "--raw"}).out, "SetF: 10 -> 68\n");
    EXPECT_EQ(valueOf("SetF"), "SetF  INT  68\n");

    // 32767 * 1.8 + 32 is 59012.6; the next value is 59014.4.
    const Result beyond = write({"SetF=59014"});
    EXPECT_EQ(beyond.status, 2);
    EXPECT_NE(beyond.err.find("SetF: \"59014\" is not a value of type INT "), std::string::npos);
    EXPECT_NE(beyond.err.find("(-58950.4 to 59012.6)"), std::string::npos) << beyond.err;
    EXPECT_EQ(writesSent(), 0);
}

TEST_F(HostWrite, FindsVariablesWithAnyName)
{
    simulate();
    project = file("p.json", R"({"variables": [
        {"name": "Fill = 5", "tag": "Level", "element": 3, "length": 2},
        {"name": "Fill", "tag": "Speed"},
        {"name": "F\u00fcllh\u00f6he 1", "tag": "Level", "element": 6}]})");
    EXPECT_EQ(write({"Fill = 5=1,2", "F\u00fcllh\u00f6he 1=7", "\"Fill\"=5"}).out,
              "\"Fill = 5\"[0]: 13 -> 1\n\"Fill = 5\"[1]: 14 -> 2\n"
              "F\u00fcllh\u00f6he 1: 16 -> 7\nFill: 1234 -> 5\n");
    EXPECT_EQ(hostOnPort({"read", "Level[3..6]", "Speed"}).out,
              "Level[3]  INT  1\nLevel[4]  INT  2\nLevel[5]  INT  15\nLevel[6]  INT  7\nSpeed     "
              "INT  5\n");
}

TEST_F(HostWrite, SendsNothingWhenAValueDoesNotFitTheProjectsType)
{
    simulate();
    project = file("p.json", R"({"variables": [{"tag": "Speed", "type": "INT"}]})");
    const QString trace = path("t.txt");
    const Result result =
        hostOnPort({"write", "Speed=99999", "--project", project, "--trace", trace});
    EXPECT_EQ(result.status, 2);
    EXPECT_FALSE(QFile::exists(trace));
}

TEST_F(HostWrite, RefusesAProjectWhoseTypeDiffersFromTheController)
{
    simulate();
    project = file("p.json", R"({"variables": [{"tag": "Speed", "type": "DINT"}]})");
    const Result result = hostOnPort({"write", "Speed=5", "--project", project});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: Speed: is INT in the controller, DINT in the project "
                          "(correct the project)\n");
    EXPECT_EQ(hostOnPort({"read", "Speed"}).out, "Speed  INT  1234\n");
}

TEST_F(HostWrite, ReportsWhatIsWrongWithAValue)
{
    simulate();
    const std::pair<const char*, const char*> mistakes[] = {
        {"Speed=fast", "Speed: \"fast\" is not a value of type INT (-32768 to 32767)"},
        {"Speed=", "Speed: \"\" is not a value of type INT (-32768 to 32767)"},
        {"Running=2", "Running: \"2\" is not a value of type BOOL (true, false, on, off, 1 or 0)"},
        {"Setpoint=warm",
         "Setpoint: \"warm\" is not a value of type REAL (a number such as 1.5 or -2e10)"},
        {"Delay=PT3S", "Delay: the driver cannot write the type TIME, which it moves byte by byte "
                       "(write a DINT that the controller's program copies into it)"},
        {"Level[0..2]=1,2", "\"Level[0..2]=1,2\": 2 values for 3 elements (write one for all, or "
                            "one for each)"},
        {"Speed", "\"Speed\" is not a write (write TAG=VALUE or TAG[INDEX]=VALUE)"},
    };
    for (const auto& mistake : mistakes) {
        const Result result = hostOnPort({"write", mistake.first});
        EXPECT_EQ(result.status, 2) << mistake.first;
        EXPECT_EQ(result.err, std::string("micro850-host: ") + mistake.second + '\n');
        EXPECT_EQ(result.out, "");
    }
    EXPECT_EQ(hostOnPort({"write", "Nope=1"}).status, 1);
}

TEST_F(HostWrite, TakesEveryWordForABoolean)
{
    simulate();
    std::string before = "true";
    for (const char* word : {"off", "on", "FALSE", "TRUE", "false", "true", "0", "1", "Off", "ON"})
    {
        const char last = word[1] == '\0' ? word[0] : static_cast<char>(word[1] | 0x20);
        const std::string now = last == 'f' || last == 'a' || last == '0' ? "false" : "true";
        EXPECT_EQ(write({QStringLiteral("Running=") + word}).out,
                  "Running: " + before + " -> " + now + '\n');
        before = now;
    }
}

TEST_F(HostWrite, SaysThatItDidNotReadBack)
{
    simulate();
    EXPECT_EQ(write({"Speed=7", "--no-verify"}).out, "Speed: 1234 -> 7 (not read back)\n");
}

TEST_F(HostWrite, ShowsWhatItWouldSendInADryRun)
{
    simulate();
    project = file("p.json", R"({"variables": [
        {"tag": "Setpoint", "gain": 2, "unit": "C"}, {"tag": "Level"}]})");
    const Result dry = write({"Setpoint=50", "Level[0]=-2", "Name=AB", "--dry-run"});
    EXPECT_EQ(dry.status, 0);
    EXPECT_EQ(dry.out, "Setpoint: 43 -> 50 C would be written as REAL, bytes 00 00 c8 41\n"
                       "Level[0]: 10 -> -2 would be written as INT, bytes fe ff\n"
                       "Name: Apple -> AB would be written as SHORT_STRING, bytes 02 41 42\n");
    EXPECT_EQ(dry.err, "micro850-host: dry run on " + port().toStdString() +
                           ": types and values were read, nothing was written\n");
    EXPECT_EQ(writesSent(), 0);
    const Result json = write({"Setpoint=50", "--dry-run", "--json", "--quiet"});
    EXPECT_EQ(json.out, R"({"name":"Setpoint","station":1,"tag":"Setpoint","element":0,)"
                        R"("type":"REAL","outcome":"dry run","old":43.0,"new":50.0,)"
                        R"("bytes":"0000c841","unit":"C"})"
                        "\n");
    EXPECT_EQ(json.err, "");
    EXPECT_EQ(write({"Setpoint=x", "--dry-run"}).status, 2);
    EXPECT_EQ(write({"Nope=1", "--dry-run"}).status, 1);
    EXPECT_EQ(valueOf("Setpoint"), "Setpoint  REAL  21.5\n");
}

TEST_F(HostWrite, TakesAsManyValuesForABareVariableAsItHasElements)
{
    simulate();
    project = file("p.json", R"({"variables": [
        {"name": "Tank", "tag": "Level", "element": 3, "length": 3}]})");
    const Result one = write({"Tank=1", "Speed=5", "--quiet"});
    EXPECT_EQ(one.status, 2);
    EXPECT_EQ(one.out, "");
    EXPECT_EQ(one.err, "micro850-host: Tank: has 3 elements: 1 value is not enough (write "
                       "Tank[0..2]=1 for all, or one value for each)\n");
    EXPECT_EQ(write({"Tank=1,2"}).status, 2);
    EXPECT_EQ(write({"Tank=1,2,3,4"}).status, 2);
    EXPECT_FALSE(QFile::exists(path("t.txt")));
    EXPECT_EQ(valueOf("Level[2..6]"), "Level[2]  INT  12\nLevel[3]  INT  13\nLevel[4]  INT  "
                                      "14\nLevel[5]  INT  15\nLevel[6]  INT  16\n");
    EXPECT_EQ(write({"Tank=1,2,3"}).out, "Tank[0]: 13 -> 1\nTank[1]: 14 -> 2\nTank[2]: 15 -> 3\n");
    EXPECT_EQ(write({"Tank[0..2]=7"}).out, "Tank[0]: 1 -> 7\nTank[1]: 2 -> 7\nTank[2]: 3 -> 7\n");
    EXPECT_EQ(write({"Level=9"}).out, "Level: 10 -> 9\n"); // a tag is its element 0
    EXPECT_EQ(valueOf("Level[0..1]"), "Level[0]  INT  9\nLevel[1]  INT  11\n");
}

TEST_F(HostWrite, TellsWhenARealIsRounded)
{
    simulate();
    const Result rounded = write({"Setpoint=16777217"});
    EXPECT_EQ(rounded.status, 0);
    EXPECT_EQ(rounded.out, "Setpoint: 21.5 -> 16777216\n");
    EXPECT_EQ(rounded.err, "micro850-host: Setpoint: 16777217 is stored as 16777216\n");
    EXPECT_EQ(write({"Setpoint=0.1"}).err, "");
}

TEST_F(HostWrite, RefusesScaledIntegersThatAreNotExact)
{
    simulate(R"({"name": "Count", "type": "LINT", "value": 3})");
    project = file("p.json", R"({"variables": [{"tag": "Count", "offset": 1}]})");
    const Result result = write({"Count=9007199254740994"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("--raw"), std::string::npos) << result.err;
    EXPECT_EQ(writesSent(), 0);
    EXPECT_EQ(write({"Count=9007199254740993", "--raw"}).out, "Count: 3 -> 9007199254740993\n");
}

TEST_F(HostWrite, NamesTheKeyOfTheProjectThatAStringCannotHave)
{
    simulate();
    project = file("p.json", R"({"variables": [
        {"name": "Long", "tag": "Name", "length": 3}, {"name": "Late", "tag": "Name", "element": 2}]})");
    const std::string why = ": of a string only element 0 can be read and written, but its ";
    for (const char* name : {"Long", "Long[1]"})
        EXPECT_EQ(hostOnPort({"read", name, "--project", project}).err,
                  "micro850-host: Long" + why +
                      "\"length\" in the project is 3 (leave the key out)\n");
    EXPECT_EQ(write({"Late=Q", "--quiet"}).err,
              "micro850-host: Late" + why +
                  "\"element\" in the project is 2 (leave the key out)\n");
    EXPECT_EQ(hostOnPort({"read", "Long[0]", "--project", project}).out,
              "Long[0]  SHORT_STRING  Apple\n");
}

TEST_F(HostWrite, ShowsAValueThatWasOverwrittenInTheSameForm)
{
    simulate(R"({"name": "Count", "type": "DINT",
                 "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.001}})");
    project = file("p.json", R"({"variables": [{"tag": "Count", "gain": 0.5, "unit": "kg"}]})");
    const Result result = write({"Count=-7.50"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(" kg was read back after -7.5 kg was written (the program may"),
              std::string::npos)
        << result.err;
}

} // namespace
