#include "program_fixture.h"

namespace {

class HostPoll : public ProgramTest
{
protected:
    QString project(const std::string& variables) const
    {
        return file(QStringLiteral("p.json"), R"({"port": {"device": ")" + port().toStdString() +
                                                  R"("}, "variables": [)" + variables + "]}");
    }
};

TEST_F(HostPoll, PrintsALineForEachChangeWithoutATerminal)
{
    simulate();
    const Result result =
        host({"poll", project(R"({"tag": "Speed"}, {"tag": "Name"})"), "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 2) << result.out;
    // A time of day, then the variable, in the order of the replies.
    const QStringList changes = {lines.at(0).mid(13), lines.at(1).mid(13)};
    EXPECT_TRUE(changes.contains("Speed = 1234")) << result.out;
    EXPECT_TRUE(changes.contains("Name = Apple")) << result.out;
}

TEST_F(HostPoll, ReportsLineAndStationsAtTheEndUnlessQuiet)
{
    simulate();
    const QString file = project(R"({"tag": "Speed"})");
    const Result loud = host({"poll", file, "--seconds", "1"});
    EXPECT_NE(loud.err.find(" transactions/s, "), std::string::npos) << loud.err;
    EXPECT_NE(loud.err.find("station 1: connected; sent "), std::string::npos) << loud.err;
    const Result quiet = host({"poll", file, "--seconds", "1", "--quiet"});
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(linesOf(quiet.out).size(), 1);
}

TEST_F(HostPoll, PrintsAnObjectForEachChangeAndASummaryWithJson)
{
    simulate();
    const Result result =
        host({"poll", project(R"({"tag": "Speed", "gain": 0.5, "unit": "rpm"}, {"tag": "Nope"})"),
              "--seconds", "1", "--json"});
    EXPECT_EQ(result.status, 1); // Nope was never read
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 3) << result.out;
    EXPECT_TRUE(lines.at(0).startsWith(R"({"time":"20)")) << result.out;
    const QStringList changes = {lines.at(0).section("Z\",", 1), lines.at(1).section("Z\",", 1)};
    EXPECT_TRUE(changes.contains(
        R"("name":"Speed","station":1,"tag":"Speed","element":0,"type":"INT","value":617.0,)"
        R"("quality":"good","unit":"rpm"})"))
        << result.out;
    EXPECT_TRUE(changes.contains(
        R"("name":"Nope","station":1,"tag":"Nope","element":0,"type":null,"value":null,)"
        R"_("quality":"never","error":"path destination unknown (status 05)"})_"))
        << result.out;
    EXPECT_TRUE(lines.at(2).startsWith(R"({"summary":{"port":")")) << result.out;
    EXPECT_TRUE(lines.at(2).contains(R"("state":"connected")")) << result.out;
    EXPECT_TRUE(lines.at(2).contains(R"("errors":{"05":1})")) << result.out;
}

TEST_F(HostPoll, ShowsOnlyWhatMatches)
{
    simulate();
    const QString file = project(R"({"tag": "Speed"}, {"tag": "Setpoint"}, {"tag": "Name"})");
    const Result result = host({"poll", file, "--seconds", "1", "--match", "s*"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(linesOf(result.out).size(), 2) << result.out;
    EXPECT_EQ(result.out.find("Name"), std::string::npos) << result.out;
    const Result none = host({"poll", file, "--match", "zzz"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "micro850-host: --match: no variable of " + file.toStdString() +
                            " matches \"zzz\" (a part of a name, or a pattern with * and ?)\n");
}

TEST_F(HostPoll, ReportsWhatIsWrongWithTheProject)
{
    const Result missing = host({"poll", "/none.json"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err.find("micro850-host: /none.json: "), 0u) << missing.err;
    const Result wrong = host({"poll", project(R"({"tag": "Speed", "type": "INTT"})")});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_NE(wrong.err.find("p.json: variables[0].type: \"INTT\" is not a CIP type (did you mean "
                             "INT?)"),
              std::string::npos)
        << wrong.err;
}

} // namespace
