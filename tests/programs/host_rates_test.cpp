// How often poll, watch and log read, and when they tell a value.

#include "program_fixture.h"

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;

const char kRamp[] = R"({"name": "Level", "type": "INT",
    "motion": {"kind": "ramp", "min": 0, "max": 10000, "period": 100}},
    {"name": "Speed", "type": "INT", "value": 1234})";

class HostRates : public ProgramTest
{
protected:
    QString project(const std::string& variables) const
    {
        return file(QStringLiteral("p.json"), R"({"port": {"device": ")" + port().toStdString() +
                                                  R"("}, "variables": [)" + variables + "]}");
    }
    /// The transactions that a command with --json counted.
    static int transactions(const Result& result)
    {
        EXPECT_EQ(result.status, 0) << result.err;
        const QStringList lines = linesOf(result.out);
        if (lines.isEmpty())
            return -1;
        return Json::parse(lines.last().toStdString())["summary"]["stations"][0]["answered"];
    }
    int pollsIn4Seconds(const QString& file, const QStringList& options) const
    {
        return transactions(host(QStringList{"poll", file, "--seconds", "4", "--json"} + options));
    }
    /// The values of a variable that poll tells in four seconds.
    int toldIn4Seconds(const std::string& variable) const
    {
        const Result result =
            host({"poll", project(variable), "--seconds", "4", "--interval", "0.1", "--quiet"});
        EXPECT_EQ(result.status, 0) << result.err;
        return linesOf(result.out).size();
    }
};

} // namespace

// Eight reads in four seconds, and a few transactions for the connection and the type.
TEST_F(HostRates, AreTwoReadsASecondUnlessTheUserSaysOtherwise)
{
    simulate(kRamp);
    const QString speed = project(R"({"tag": "Speed"})");
    const QStringList seconds = {"--seconds", "4", "--json"};
    for (const int count :
         {pollsIn4Seconds(speed, {}),
          transactions(hostOnPort(QStringList{"watch", "Speed"} + seconds)),
          transactions(host(QStringList{"log", speed, "--csv", path("v.csv")} + seconds))})
    {
        EXPECT_GE(count, 5);
        EXPECT_LE(count, 18);
    }
}

TEST_F(HostRates, FollowTheIntervalOfTheCommandLine)
{
    simulate(kRamp);
    const QString speed = project(R"({"tag": "Speed"})");
    const int often = pollsIn4Seconds(speed, {"--interval", "0.1"});
    EXPECT_GE(often, 20);
    EXPECT_LE(often, 55);
    EXPECT_LE(pollsIn4Seconds(speed, {"--interval", "3"}), 10);
    const Result watch =
        hostOnPort({"watch", "Speed", "--seconds", "4", "--interval", "0.1", "--json"});
    EXPECT_GE(transactions(watch), 20);
    EXPECT_GE(pollsIn4Seconds(speed, {"--interval", "0"}), 60);
}

TEST_F(HostRates, KeepAVariablesOwnIntervalUnlessItIsToBeFast)
{
    simulate(kRamp);
    const QString slow = project(R"({"tag": "Speed", "intervalMs": 3000})");
    EXPECT_LE(pollsIn4Seconds(slow, {"--interval", "0.1"}), 10);
    EXPECT_GE(pollsIn4Seconds(slow, {"--fast"}), 60);
    const Result watch =
        hostOnPort({"watch", "Speed", "--project", slow, "--seconds", "4", "--fast", "--json"});
    EXPECT_GE(transactions(watch), 60);
}

TEST_F(HostRates, OfALogAreItsRowsAndReadAtLeastAsOftenAsUsual)
{
    simulate(kRamp);
    const Result log = host({"log", project(R"({"tag": "Speed"})"), "--csv", path("v.csv"),
                             "--seconds", "4", "--interval", "1.5", "--json"});
    EXPECT_GE(transactions(log), 5);
    const int rows = linesOf(textOf("v.csv")).size() - 1;
    EXPECT_GE(rows, 2);
    EXPECT_LE(rows, 3);
    const Result fast = host({"log", project(R"({"tag": "Speed"})"), "--csv", path("f.csv"),
                              "--seconds", "4", "--fast", "--json"});
    EXPECT_GE(transactions(fast), 60);
}

// The ramp rises by 10 at each read: 400 in four seconds.
TEST_F(HostRates, LeaveOutChangesWithinTheDeadBand)
{
    simulate(kRamp);
    EXPECT_GE(toldIn4Seconds(R"({"tag": "Level"})"), 20);
    const int few = toldIn4Seconds(R"({"tag": "Level", "deadband": 100})");
    EXPECT_GE(few, 2);
    EXPECT_LE(few, 6);
    EXPECT_EQ(toldIn4Seconds(R"({"tag": "Level", "deadband": 9000})"), 1);
    const int percent =
        toldIn4Seconds(R"({"tag": "Level", "deadband": "10%", "minimum": 0, "maximum": 1000})");
    EXPECT_GE(percent, 2);
    EXPECT_LE(percent, 6);
}

TEST_F(HostRates, TellAValueThatStaysAtEachHeartbeat)
{
    simulate(kRamp);
    EXPECT_EQ(toldIn4Seconds(R"({"tag": "Speed"})"), 1);
    const int told = toldIn4Seconds(R"({"tag": "Speed", "heartbeatMs": 1000})");
    EXPECT_GE(told, 3);
    EXPECT_LE(told, 5);
    const int heard = toldIn4Seconds(R"({"tag": "Level", "deadband": 9000, "heartbeatMs": 1000})");
    EXPECT_GE(heard, 3);
    EXPECT_LE(heard, 5);
    const Result log = host({"log", project(R"({"tag": "Speed", "heartbeatMs": 1000})"), "--csv",
                             path("v.csv"), "--seconds", "4", "--quiet"});
    EXPECT_EQ(log.status, 0) << log.err;
    EXPECT_GE(linesOf(textOf("v.csv")).size(), 1 + 3);
}

// Each reply takes at least 30 ms, and one is wanted every 10 ms.
TEST_F(HostRates, ThatTheLineCannotHoldAreSaidWithFigures)
{
    simulate(kRamp, {"--faults", file("slow.json", R"({"faults": [
                        {"fault": "delay", "rate": 1, "seconds": 0.03}]})")});
    const QString busy = project(R"({"tag": "Speed", "intervalMs": 10})");
    const Result result = host({"poll", busy, "--seconds", "8"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QString err = QString::fromStdString(result.err);
    const QString said = err.mid(err.indexOf("the line is ")).section('\n', 0, 0);
    EXPECT_GE(said.section(' ', 3, 3).toInt(), 250) << result.err;
    EXPECT_TRUE(said.contains(" % asked for: Speed is read every 0.")) << result.err;
    EXPECT_TRUE(said.endsWith(" s instead of 0.01 s")) << result.err;
    const Result easy = host({"poll", project(R"({"tag": "Speed"})"), "--seconds", "4"});
    EXPECT_EQ(easy.err.find("asked for"), std::string::npos) << easy.err;
}
