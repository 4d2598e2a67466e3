#include "program_fixture.h"

#include <QtCore/QElapsedTimer>

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
        R"_("quality":"never","error":"no such tag (names are as in the controller's program; status 05)"})_"))
        << result.out;
    EXPECT_TRUE(lines.at(2).startsWith(R"({"summary":{"port":")")) << result.out;
    EXPECT_TRUE(lines.at(2).contains(R"("state":"connected")")) << result.out;
    EXPECT_TRUE(lines.at(2).contains(R"("errors":{"05":1})")) << result.out;
}

TEST_F(HostPoll, GivesTheReasonWhyAVariableOfADisabledStationHasNoValue)
{
    simulate();
    const QString disabled =
        file("disabled.json",
             R"({"port": {"device": ")" + port().toStdString() + R"("}, "stations": [{"number": 1},
        {"number": 2, "enabled": false}], "variables": [{"tag": "Speed"},
        {"name": "Far", "tag": "Speed", "station": 2}]})");
    const Result result = host({"poll", disabled, "--seconds", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find(" Far (station 2 is disabled in the project)\n"), std::string::npos)
        << result.out;
}

// Until the first reply of the new controller nobody knows whether the old value still holds.
TEST_F(HostPoll, ShowsNoOldValueAsGoodAfterTheControllerRestarted)
{
    simulate(R"({"name": "Speed", "type": "INT", "value": 107})");
    QProcess poll;
    poll.start(MICRO850_HOST, {"poll", project(R"({"tag": "Speed"})"), "--json"});
    ASSERT_TRUE(poll.waitForStarted());
    QByteArray out;
    QByteArray err;
    const auto says = [&](const QByteArray& all, const char* text) {
        QElapsedTimer timer;
        for (timer.start(); !all.contains(text) && timer.elapsed() < 60000;) {
            poll.waitForFinished(20);
            out += poll.readAllStandardOutput();
            err += poll.readAllStandardError();
        }
        return all.contains(text);
    };
    ASSERT_TRUE(says(out, R"("value":107,"quality":"good")"));
    stopSimulator();
    ASSERT_TRUE(says(out, R"("value":107,"quality":"stale")"));
    EXPECT_TRUE(says(err, "station 1: line down\n")) << err.toStdString();
    poll.waitForFinished(600); // it tries to open the device, in vain
    err += poll.readAllStandardError();
    if (!server()) { // the line to a device server is up again between two attempts
        EXPECT_EQ(err.count(": DOWN, "), 1) << err.toStdString();
    }
    simulate(R"({"name": "Speed", "type": "INT", "value": 1})");
    ASSERT_TRUE(says(out, R"("value":1,"quality":"good")"));
    stopSimulator();
    ASSERT_TRUE(says(out, R"("value":1,"quality":"stale")"));
    poll.terminate();
    ASSERT_TRUE(says(out, R"({"summary")")) << err.toStdString();
    EXPECT_TRUE(poll.state() == QProcess::NotRunning || poll.waitForFinished());
    out += poll.readAllStandardOutput();
    EXPECT_EQ(out.count(R"("value":107,"quality":"good")"), 1) << out.toStdString();
    EXPECT_TRUE(out.contains(R"("state":"line down")")) << out.toStdString();
    EXPECT_TRUE(out.contains(R"("problem":")")) << out.toStdString();
}

const char kTimes[] =
    R"({"name": "Temp", "type": "INT", "length": 2, "value": [20, 21]},
       {"name": "Day", "type": "DATE", "value": "2024-02-29"},
       {"name": "Shift", "type": "TIME_OF_DAY", "value": "06:30:00.25"},
       {"name": "Start", "type": "DATE_AND_TIME", "value": "2024-02-29T06:30"},
       {"name": "Delay", "type": "TIME", "value": "PT2.5S"})";
const char kTimeVariables[] =
    R"({"tag": "Temp", "length": 2, "gain": 1.8, "offset": 32, "unit": "F"},
       {"tag": "Day"}, {"tag": "Shift"}, {"tag": "Start"}, {"tag": "Delay"})";

// The changes without their times, sorted.
QStringList changesOf(const Result& result)
{
    QStringList changes;
    for (const QString& line : linesOf(result.out))
        changes += line.mid(13);
    changes.sort();
    return changes;
}

TEST_F(HostPoll, ShowsScaledNumbersAndDatesAndWithRawTheControllersNumbers)
{
    simulate(kTimes);
    const QString file = project(kTimeVariables);
    EXPECT_EQ(changesOf(host({"poll", file, "--seconds", "1"})),
              (QStringList{"Day = 2024-02-29", "Delay = PT2.5S", "Shift = 06:30:00.250",
                           "Start = 2024-02-29T06:30:00", "Temp = [68, 69.8] F"}));
    // 19052 days from 1972-01-01 to 2024-02-29.
    const qint64 start = (qint64(19052) << 32) + 23400000;
    EXPECT_EQ(changesOf(host({"poll", file, "--seconds", "1", "--raw"})),
              (QStringList{"Day = 19052", "Delay = 2500", "Shift = 23400250",
                           "Start = " + QString::number(start), "Temp = [20, 21]"}));
}

TEST_F(HostPoll, HasTheShownValuesInJson)
{
    simulate(kTimes);
    const QString file = project(kTimeVariables);
    const std::string shown = host({"poll", file, "--seconds", "1", "--json"}).out;
    for (const char* value :
         {R"("value":[68.0,69.8],"quality":"good","unit":"F"})", R"("value":"2024-02-29")",
          R"("value":"06:30:00.250")", R"("value":"2024-02-29T06:30:00")", R"("value":2500)"})
        EXPECT_NE(shown.find(value), std::string::npos) << value << '\n' << shown;
    const std::string raw = host({"poll", file, "--seconds", "1", "--json", "--raw"}).out;
    for (const char* value : {R"("value":[20,21],"quality":"good"})", R"("value":19052)",
                              R"("value":23400250)", R"("value":2500)"})
        EXPECT_NE(raw.find(value), std::string::npos) << value << '\n' << raw;
}

TEST_F(HostPoll, HasAllCharactersOfATextWithAZeroByteInJson)
{
    simulate(R"({"name": "Text", "type": "SHORT_STRING", "value": "ab\u0000cd"})");
    const Result result = host({"poll", project(R"({"tag": "Text"})"), "--seconds", "1", "--json"});
    EXPECT_NE(result.out.find(R"("value":"ab\u0000cd")"), std::string::npos) << result.out;
}

// In German a number has a comma. Numbers of programs are the same everywhere.
TEST_F(HostPoll, TakesAndPrintsNumbersAlikeInEveryLocale)
{
    ASSERT_EQ(runProgram("localedef", {"-i", "de_DE", "-f", "UTF-8", path("de_DE.UTF-8")}).status,
              0)
        << "install the package locales";
    const QStringList german = {"LC_ALL=de_DE.UTF-8", "LOCPATH=" + path(".")};
    ASSERT_EQ(runProgram("env", {"printf", "%.1f", "0,5"}, german).out, "0,5");
    simulate(R"({"name": "Flow", "type": "REAL", "value": 0.5})");
    const QString file = project(R"({"tag": "Flow", "gain": 2.5})");
    for (const char* json : {"--quiet", "--json"}) {
        const QStringList arguments = {
            "poll", file, "--seconds", "0.9", "--interval", "0.2", "--stale-after", "0.7", json};
        const Result result = runProgram(MICRO850_HOST, arguments, german);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_NE(result.out.find("1.25"), std::string::npos) << result.out;
    }
    const Result comma = runProgram(MICRO850_HOST, {"poll", file, "--seconds", "0,9"}, german);
    EXPECT_EQ(comma.status, 2) << comma.out;
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
    const Result near = host({"poll", file, "--match", "Sped"});
    EXPECT_EQ(near.status, 2);
    EXPECT_EQ(near.err, "micro850-host: --match: no variable of " + file.toStdString() +
                            " matches \"Sped\" (did you mean Speed?) (a part of a name, or a "
                            "pattern with * and ?)\n");
}

TEST_F(HostPoll, ReportsWhatIsWrongWithTheProject)
{
    const Result missing = host({"poll", "/none.json"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err.find("micro850-host: /none.json: "), 0u) << missing.err;
    const Result wrong = host({"poll", project(R"({"tag": "Speed", "type": "INTT"})")});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_NE(wrong.err.find("p.json:1: variables[0].type: \"INTT\" is not a CIP type (did you "
                             "mean INT?)\n"),
              std::string::npos)
        << wrong.err;
    const QString two = file("two.json", "{\"variables\": [\n{\"tag\": \"Speed\", \"lenght\": 2},\n"
                                         "{\"tag\": \"Level\", \"station\": 9},\n"
                                         "{\"tag\": \"Level\", \"name\": \"\"}]}");
    const Result both = host({"poll", two});
    EXPECT_EQ(both.status, 2);
    EXPECT_EQ(both.err,
              "micro850-host: " + two.toStdString() +
                  ":2: variables[0]: unknown key \"lenght\" (did you mean length?) (and 2 "
                  "more: micro850-host check " +
                  two.toStdString() + " lists them)\n");
}

TEST_F(HostPoll, SaysHowToGiveAProject)
{
    const Result result = runProgram(MICRO850_HOST, {"poll"}, QStringList(), path("."));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "micro850-host: no project is given, and this folder has no project.json and no "
              "plant.json (name the file; micro850-host import makes one from a list of "
              "variables)\n");
}

} // namespace
