#include "program_fixture.h"

#include <QtCore/QFile>

namespace {

using HostWrite = ProgramTest;

TEST_F(HostWrite, WritesSeveralAndReadsThemBack)
{
    simulate();
    const Result result = hostOnPort({"write", "Speed=-5", "Level[1]=0x10", "Setpoint=1.25",
                                      "Running=false", "Name=Pear juice"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "Speed = -5\nLevel[1] = 16\nSetpoint = 1.25\nRunning = false\n"
                          "Name = Pear juice\n");
    EXPECT_EQ(hostOnPort({"read", "Speed", "Level[0..2]", "Name"}).out,
              "Speed = -5\nLevel[0] = 10\nLevel[1] = 16\nLevel[2] = 12\nName = Pear juice\n");
}

TEST_F(HostWrite, WritesARunOfElements)
{
    simulate();
    EXPECT_EQ(hostOnPort({"write", "Level[2..4]=7,-8,9", "Recipe[0..1]=5"}).out,
              "Level[2] = 7\nLevel[3] = -8\nLevel[4] = 9\nRecipe[0] = 5\nRecipe[1] = 5\n");
    EXPECT_EQ(hostOnPort({"read", "Level[1..5]"}).out,
              "Level[1] = 11\nLevel[2] = 7\nLevel[3] = -8\nLevel[4] = 9\nLevel[5] = 15\n");
}

TEST_F(HostWrite, PrintsJsonWithTheValueThatWasReadBack)
{
    simulate();
    EXPECT_EQ(hostOnPort({"write", "Speed=7", "--json"}).out,
              R"({"name":"Speed","station":1,"tag":"Speed","element":0,"type":"INT","written":7,)"
              R"("value":7,"verified":true})"
              "\n");
    EXPECT_EQ(hostOnPort({"write", "Speed=8", "--json", "--no-verify"}).out,
              R"({"name":"Speed","station":1,"tag":"Speed","element":0,"type":"INT","written":8})"
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
                          "(-32768 to 32767)\n");
    EXPECT_EQ(hostOnPort({"read", "Speed"}).out, "Speed = 1234\n");
}

TEST_F(HostWrite, SendsNothingWhenAValueDoesNotFitTheProjectsType)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed", "type": "INT"}]})");
    const QString trace = path("t.txt");
    const Result result =
        hostOnPort({"write", "Speed=99999", "--project", project, "--trace", trace});
    EXPECT_EQ(result.status, 2);
    EXPECT_FALSE(QFile::exists(trace));
}

TEST_F(HostWrite, RefusesAProjectWhoseTypeDiffersFromTheController)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed", "type": "DINT"}]})");
    const Result result = hostOnPort({"write", "Speed=5", "--project", project});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: Speed: is INT in the controller, DINT in the project "
                          "(correct the project)\n");
    EXPECT_EQ(hostOnPort({"read", "Speed"}).out, "Speed = 1234\n");
}

TEST_F(HostWrite, ReportsWhatIsWrongWithAValue)
{
    simulate();
    const std::pair<const char*, const char*> mistakes[] = {
        {"Speed=fast", "Speed: \"fast\" is not a value of type INT (-32768 to 32767)"},
        {"Speed=", "Speed: \"\" is not a value of type INT (-32768 to 32767)"},
        {"Running=2", "Running: \"2\" is not a value of type BOOL (true, false, 1 or 0)"},
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

} // namespace
