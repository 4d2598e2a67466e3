#include "terminal_fixture.h"

#include <QtCore/QFile>

namespace {

/// The live table of the ten elements of Level and three more, in a terminal.
class HostTable : public TerminalTest
{
protected:
    HostTable()
    {
        std::string variables;
        for (int i = 0; i < 10; ++i) {
            const std::string n = std::to_string(i);
            variables += R"({"name": "L)" + n + R"(", "tag": "Level", "element": )" + n + "},";
        }
        file("p.json", R"({"port": {"device": ")" + port().toStdString() +
                           R"("}, "stations": [{"number": 1, "name": "filler"}], "variables": [)" +
                           variables +
                           R"({"tag": "Speed"}, {"tag": "Setpoint"}, {"tag": "Nope"}]})");
    }
    void poll(int width, int rows, const QString& options = QString())
    {
        simulate();
        open("$HOST poll " + path("p.json") + ' ' + options, width, rows);
    }
    /// A gateway that owns the line, until the test ends.
    void startGateway()
    {
        simulate();
        const QString configuration =
            file("gateway.json", R"({"lines": [{"name": "press", "project": "p.json"}],
                                     "socket": {"path": "gateway.sock"}})");
        m_gateway.start(MICRO850_GATEWAY, {configuration});
        while (!QFile::exists(path("gateway.sock")))
            ASSERT_FALSE(m_gateway.waitForFinished(20)) << m_gateway.readAll().toStdString();
    }
    ~HostTable() override { endGateway(); }
    void endGateway()
    {
        m_gateway.kill();
        m_gateway.waitForFinished();
    }
    QProcess m_gateway;
    /// The names in the rows of the table, from the top.
    QStringList names() const
    {
        QStringList names;
        for (const QString& line : screen().mid(1, 13))
            names += line.section(' ', 0, 0);
        return names;
    }
};

TEST_F(HostTable, ShowsValuesAndTheLineAndFollowsAChange)
{
    poll(120, 30);
    ASSERT_TRUE(sees("Speed    INT  1234"));
    EXPECT_TRUE(sees("Setpoint REAL 21.5"));
    EXPECT_TRUE(sees("no such tag"));
    EXPECT_TRUE(sees("transactions/s"));
    EXPECT_TRUE(sees("station 1 (filler): connected"));
    EXPECT_TRUE(sees("1-13 of 13 by project"));
}

// Where the type begins in each row, counted by Python's own table of characters.
TEST_F(HostTable, KeepsItsColumnsWithWideAndCombiningCharacters)
{
    simulate();
    const QString project =
        file("wide.json", "{\"port\": {\"device\": \"" + port().toStdString() +
                              "\"}, \"variables\": ["
                              "{\"tag\": \"Speed\", \"name\": \"温度計\"},"
                              "{\"tag\": \"Speed\", \"name\": \"Fu\u0308llstand e\u0301\"},"
                              "{\"tag\": \"Speed\", \"name\": \"plain\"},"
                              "{\"tag\": \"Speed\", \"name\": "
                              "\"温度温度温度温度温度温度温度温度温度温度温度温度\"}]}");
    open("$HOST poll " + project, 100, 30);
    ASSERT_TRUE(sees("transactions/s"));
    ASSERT_TRUE(sees("plain"));
    ASSERT_TRUE(seesNo("never"));
    const QString lines = file("screen", screen().mid(0, 5).join('\n').toStdString());
    const QString count = file("count.py", R"(
import sys, unicodedata
def width(c):
    return 0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in 'WF' else 1
for line in open(sys.argv[1], encoding='utf-8'):
    at = max(line.find(' TYPE'), line.find(' INT'))
    print(sum(width(c) for c in line[:at]), end=' ')
)");
    const Result result = runProgram("python3", {count, lines});
    EXPECT_EQ(result.out, "33 33 33 33 33 ") << screen().join('\n').toStdString() << result.err;
}

TEST_F(HostTable, ScrollsAndReturns)
{
    poll(100, 10);
    ASSERT_TRUE(sees("1-4 of 13"));
    type({"Down"});
    EXPECT_TRUE(sees("2-5 of 13"));
    type({"NPage"});
    EXPECT_TRUE(sees("6-9 of 13"));
    type({"End"});
    EXPECT_TRUE(sees("10-13 of 13"));
    EXPECT_TRUE(sees("Nope"));
    type({"Home"});
    EXPECT_TRUE(sees("1-4 of 13"));
}

TEST_F(HostTable, FollowsTheWindowWhenItIsResized)
{
    poll(100, 10);
    ASSERT_TRUE(sees("1-4 of 13"));
    resize(60, 12);
    EXPECT_TRUE(sees("1-6 of 13"));
    for (const QString& line : screen())
        EXPECT_LE(line.size(), 60);
    resize(120, 30);
    EXPECT_TRUE(sees("1-13 of 13"));
    EXPECT_TRUE(sees("s sort, arrows scroll"));
}

TEST_F(HostTable, FiltersWhileTyping)
{
    poll(100, 30);
    ASSERT_TRUE(sees("Speed"));
    type({"/", "s", "p"});
    EXPECT_TRUE(sees("match: sp_"));
    EXPECT_TRUE(seesNo("L9 "));
    EXPECT_TRUE(sees("Speed"));
    type({"Enter"});
    EXPECT_TRUE(sees("1-1 of 1 that match \"sp\""));
    type({"Escape"});
    EXPECT_TRUE(sees("1-13 of 13"));
}

TEST_F(HostTable, StartsWithTheMatchOfTheCommandLine)
{
    poll(100, 30, "--match 'L[?]' --sort name || $HOST poll " + path("p.json") + " --match 'L?'");
    EXPECT_TRUE(sees("1-10 of 10 that match \"L?\""));
    EXPECT_TRUE(seesNo("Speed"));
}

TEST_F(HostTable, EndsOnQWithTheTerminalRestoredAndTheSummaryShown)
{
    poll(150, 40);
    ASSERT_TRUE(sees("Speed    INT  1234"));
    type({"q"});
    ASSERT_TRUE(sees("[status 1]")); // Nope was never read
    const QString screenText = screen().join('\n');
    EXPECT_TRUE(screenText.contains("Speed    INT  1234")) << screenText.toStdString();
    EXPECT_TRUE(screenText.contains("micro850-host: some variables were never read"));
    EXPECT_FALSE(screenText.contains("q quit")) << screenText.toStdString();
    EXPECT_EQ(screenText.count("station 1 (filler): "), 1) << screenText.toStdString();
    EXPECT_TRUE(screenText.contains("micro850-host: station 1 (filler): connected"));
    // Lines are edited again, as before the table.
    EXPECT_TRUE(screenText.contains("\nicanon")) << screenText.toStdString();
}

TEST_F(HostTable, EndsOnCtrlCInTheSameWay)
{
    poll(150, 40, "--match L");
    ASSERT_TRUE(sees("1-10 of 10 that match"));
    type({"C-c"});
    EXPECT_TRUE(sees("[status "));
    EXPECT_TRUE(sees("\nicanon"));
    EXPECT_TRUE(sees("micro850-host: station 1 (filler): connected; sent "));
}

TEST_F(HostTable, SortsByNameAndByAge)
{
    poll(100, 30);
    ASSERT_TRUE(sees("Speed    INT  1234"));
    EXPECT_TRUE(sees("1-13 of 13 by project"));
    EXPECT_EQ(names().mid(10), (QStringList{"Speed", "Setpoint", "Nope"}));
    type({"s"});
    EXPECT_TRUE(sees("1-13 of 13 by name"));
    EXPECT_EQ(names().mid(10), (QStringList{"Nope", "Setpoint", "Speed"}));
    type({"s"});
    EXPECT_TRUE(sees("1-13 of 13 by age"));
    EXPECT_EQ(names().first(), QString("Nope")); // it was never read
    type({"s"});
    EXPECT_TRUE(sees("1-13 of 13 by project"));
}

TEST_F(HostTable, ColoursTheVariableThatFailed)
{
    poll(100, 30);
    ASSERT_TRUE(sees("no such tag"));
    EXPECT_TRUE(styledScreen().contains("\x1b[31mNope")) << styledScreen().toStdString();
}

TEST_F(HostTable, DrawsWithoutColoursWhenTheEnvironmentForbidsThem)
{
    simulate();
    open("NO_COLOR=1 $HOST poll " + path("p.json"), 100, 30);
    ASSERT_TRUE(sees("no such tag"));
    EXPECT_FALSE(styledScreen().contains('\x1b')) << styledScreen().toStdString();
}

TEST_F(HostTable, ShowsAGatewaysValuesAndThatTheGatewayIsGone)
{
    startGateway();
    open("$HOST poll --gateway " + path("gateway.sock"), 150, 40);
    ASSERT_TRUE(sees("Speed    INT  1234"));
    EXPECT_TRUE(sees("Setpoint REAL 21.5"));
    EXPECT_TRUE(sees("no such tag"));
    EXPECT_TRUE(sees("transactions/s"));
    EXPECT_TRUE(sees("station 1 (filler): connected"));
    type({"/", "s", "p"});
    EXPECT_TRUE(seesNo("L9 "));
    type({"Escape"});
    EXPECT_TRUE(sees("1-13 of 13 by project"));
    endGateway();
    EXPECT_TRUE(sees("stale"));
    type({"q"});
    ASSERT_TRUE(sees("[status 1]")); // Nope was never read
    EXPECT_TRUE(sees("\nicanon"));
}

TEST_F(HostTable, ReportsThatTheControllerIsGoneAndMarksItsValuesStale)
{
    poll(150, 30, "--stale-after 0.5 --timeout 50");
    ASSERT_TRUE(sees("Speed    INT  1234"));
    stopSimulator();
    EXPECT_TRUE(sees("stale"));
    EXPECT_TRUE(sees(": DOWN, "));
    EXPECT_TRUE(sees("station 1 (filler): line down, last answer "));
    simulate();
    EXPECT_TRUE(seesNo("stale"));
}

} // namespace
