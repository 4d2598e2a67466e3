#include "terminal_fixture.h"

#include <QtCore/QFile>

#include <sys/syscall.h>

namespace {

/// What /proc says of a program that waits until it can write to its standard output.
const QByteArray kWritesOutput = QByteArray::number(SYS_write) + " 0x1 ";

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
    /// A shell that commands are entered into.
    void openShell() { open("bash --norc -i", 100, 24); }
    void enter(const QString& line) { type({"-l", line}), type({"Enter"}); }
    /// A gateway that owns the line, until the test ends.
    void startGateway()
    {
        simulate();
        const QString configuration =
            file("gateway.json", R"({"lines": [{"name": "press", "project": "p.json"}],
                                     "socket": {"path": "gateway.sock"}})");
        m_gateway.setReadChannel(QProcess::StandardError);
        m_gateway.start(MICRO850_GATEWAY, {configuration});
        QByteArray log;
        while (!log.contains("serving")) {
            ASSERT_TRUE(m_gateway.waitForReadyRead(60000)) << log.toStdString();
            log += m_gateway.readAllStandardError();
        }
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
    type({"Down", "Down", "Down", "Down"});
    EXPECT_TRUE(sees("2-5 of 13"));
    type({"NPage"});
    EXPECT_TRUE(sees("6-9 of 13"));
    typeBytes("\x1b[M`!!"); // the wheel, upwards
    EXPECT_TRUE(sees("3-6 of 13"));
    typeBytes("\x1b[Ma!!");
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
    EXPECT_TRUE(sees("s sort, p pause"));
    resize(20, 5);
    EXPECT_TRUE(sees("1-"));
    for (const QString& line : screen())
        EXPECT_LE(line.size(), 20);
    resize(300, 100);
    EXPECT_TRUE(sees("1-13 of 13"));
    EXPECT_TRUE(sees("names are as in the controller's program; status 05"));
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
    EXPECT_TRUE(sees("q quit"));
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

TEST_F(HostTable, EndsOnCtrlBackslashInTheSameWay)
{
    // The chart would be drawn over the summary: it waits until the summary was seen.
    poll(150, 40, "--match L; read; $HOST watch Speed --plot -p $PORT");
    ASSERT_TRUE(sees("1-10 of 10 that match"));
    type({"C-\\"});
    EXPECT_TRUE(sees("micro850-host: station 1 (filler): connected; sent "));
    type({"Enter"});
    ASSERT_TRUE(sees("Speed = 1234"));
    type({"C-\\"});
    EXPECT_TRUE(sees("[status 0]"));
    EXPECT_TRUE(sees("\nicanon"));
}

TEST_F(HostTable, GoesOnAfterCtrlZ)
{
    simulate();
    openShell();
    enter(MICRO850_HOST " poll p.json");
    ASSERT_TRUE(sees("1-13 of 13"));
    type({"C-z"});
    ASSERT_TRUE(sees("Stopped"));
    enter("stty -a | grep -o -- '-*icanon'");
    ASSERT_TRUE(sees("\nicanon\n"));
    enter("fg");
    ASSERT_TRUE(sees("1-13 of 13"));
    type({"p"});
    EXPECT_TRUE(sees("PAUSED 1-13 of 13"));
}

// The terminal takes nothing after Ctrl-S, so that the next picture waits in the middle.
TEST_F(HostTable, StopsAtCtrlZWhileAPictureIsDrawn)
{
    simulate();
    openShell();
    enter("sh -c 'echo $$ >process; exec " MICRO850_HOST " poll p.json'");
    ASSERT_TRUE(sees("1-13 of 13"));
    const QString process = linesOf(textOf("process")).value(0);
    const auto waitsToWrite = [&process] {
        QFile call("/proc/" + process + "/syscall");
        return call.open(QIODevice::ReadOnly) && call.readLine().startsWith(kWritesOutput);
    };
    type({"C-s"});
    ASSERT_TRUE(holds(waitsToWrite));
    type({"C-z"});
    EXPECT_TRUE(sees("Stopped"));
    enter("fg");
    EXPECT_TRUE(sees("1-13 of 13"));
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
    for (const char* colour : {"\x1b[3", "\x1b[0;3", "\x1b[4"}) // [39m and [49m are no colours
        EXPECT_FALSE(styledScreen().remove("\x1b[39m").remove("\x1b[49m").contains(colour))
            << styledScreen().toStdString();
}

TEST_F(HostTable, PrintsTheWholeTableAtTheEndNotOnlyTheVisibleRows)
{
    poll(100, 12);
    ASSERT_TRUE(sees("1-6 of 13"));
    type({"/", "N", "o", "Enter"});
    ASSERT_TRUE(sees("1-1 of 1 that match"));
    type({"q"});
    ASSERT_TRUE(sees("[status 1]"));
    resize(100, 60); // also what has scrolled out
    ASSERT_TRUE(sees("L0       INT "));
    EXPECT_EQ(names(), (QStringList{"L0", "L1", "L2", "L3", "L4", "L5", "L6", "L7", "L8", "L9",
                                    "Speed", "Setpoint", "Nope"}));
}

TEST_F(HostTable, WritesTheSelectedVariableAfterAskingWithOldAndNewValue)
{
    poll(100, 24);
    ASSERT_TRUE(sees("Setpoint REAL 21.5"));
    type({"/", "S", "e", "t", "Enter", "w"});
    EXPECT_TRUE(sees("Setpoint (REAL) is 21.5, new value: _"));
    type({"4", "2", ".", "2", "5", "Enter"});
    ASSERT_TRUE(sees("Write Setpoint: 21.5 -> 42.25 ?"));
    type({"n"});
    EXPECT_TRUE(sees("nothing was written"));
    type({"w", "4", "2", ".", "2", "5", "Enter"});
    ASSERT_TRUE(sees("Write Setpoint: 21.5 -> 42.25 ?"));
    type({"y"});
    EXPECT_TRUE(sees("Setpoint: 21.5 -> 42.25 written and read back"));
    EXPECT_TRUE(sees("Setpoint REAL 42.25"));
    type({"q"});
    ASSERT_TRUE(sees("[status 1]"));
    EXPECT_NE(hostOnPort({"read", "Setpoint"}).out.find("42.25"), std::string::npos);
}

// Someone who types ahead has not read the question.
TEST_F(HostTable, WritesNothingThatWasTypedBeforeTheQuestionAppeared)
{
    poll(100, 24, "--match Setpoint");
    ASSERT_TRUE(sees("Setpoint REAL 21.5"));
    typeBytes("w42\ry");
    ASSERT_TRUE(sees("Write Setpoint: 21.5 -> 42 ?"));
    type({"Escape"});
    EXPECT_TRUE(sees("nothing was written"));
    EXPECT_TRUE(sees("Setpoint REAL 21.5"));
}

TEST_F(HostTable, LooksIntoAnArrayAndWritesOneOfItsElements)
{
    simulate();
    const QString project =
        file("array.json", "{\"port\": {\"device\": \"" + port().toStdString() +
                               "\"}, \"variables\": [{\"tag\": \"Level\", \"length\": 10, "
                               "\"unit\": \"mm\"}]}");
    open("$HOST poll " + project, 40, 10);
    ASSERT_TRUE(sees("Level [10, 11, 12"));
    type({"w"});
    EXPECT_TRUE(sees("choose the element, then press w"));
    type({"Down", "Down"});
    EXPECT_TRUE(sees("[2] 12 mm"));
    type({"w", "7", "Enter"});
    ASSERT_TRUE(sees("Write Level[2]: 12 mm -> 7 mm ?"));
    type({"y"});
    EXPECT_TRUE(sees("Level[2]: 12 mm -> 7 mm written and"));
    EXPECT_TRUE(sees("[2]  7 mm"));
    type({"Escape"});
    EXPECT_TRUE(sees("Level [10, 11, 7"));
}

TEST_F(HostTable, WritesNothingThatTheProjectForbids)
{
    simulate();
    const QString project =
        file("rules.json",
             "{\"port\": {\"device\": \"" + port().toStdString() +
                 "\"}, \"variables\": [{\"tag\": \"Level\", \"length\": 10, \"writable\": false}, "
                 "{\"tag\": \"Setpoint\", \"minimum\": 0, \"maximum\": 80, \"unit\": \"°C\"}]}");
    open("$HOST poll " + project, 100, 15);
    ASSERT_TRUE(sees("Level    INT[10] [10, 11, 12"));
    ASSERT_TRUE(sees("21.5 °C"));
    type({"w"});
    EXPECT_TRUE(sees("Level: the project says \"writable\": false, so it is not written here"));
    type({"Down", "w", "8", "1", "Enter"});
    EXPECT_TRUE(sees("81 is outside its limits (minimum 0, maximum 80)"));
    type({"BSpace", "0", "Enter"});
    EXPECT_TRUE(sees("Write Setpoint: 21.5 °C -> 80 °C ?"));
}

TEST_F(HostTable, WritesThroughAGatewayAsItsRulesAllow)
{
    startGateway();
    open("$HOST poll --gateway " + path("gateway.sock") + " --match Setpoint", 150, 20);
    ASSERT_TRUE(sees("Setpoint REAL 21.5"));
    type({"w", "3", "Enter"});
    ASSERT_TRUE(sees("Write Setpoint: 21.5 -> 3 ?"));
    type({"y"});
    EXPECT_TRUE(sees("Setpoint: not written: "));
    EXPECT_TRUE(sees("writable"));
    EXPECT_TRUE(sees("Setpoint REAL 21.5"));
}

TEST_F(HostTable, ShowsErrorsOnlyAndHoldsThePicture)
{
    poll(100, 24);
    ASSERT_TRUE(sees("no such tag"));
    ASSERT_TRUE(sees("Speed    INT  1234"));
    type({"e"});
    EXPECT_TRUE(sees("1-1 of 1 with errors"));
    EXPECT_TRUE(seesNo("Speed "));
    type({"e", "p"});
    EXPECT_TRUE(sees("PAUSED 1-13 of 13"));
    type({"p"});
    EXPECT_TRUE(seesNo("PAUSED"));
    type({"h"});
    EXPECT_TRUE(sees("write the selected variable"));
    type({"Space"});
    EXPECT_TRUE(sees("1-13 of 13"));
}

TEST_F(HostTable, MarksAValueThatHasJustChanged)
{
    simulate(R"({"name": "Count", "type": "DINT",
                 "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.05}})");
    const QString project = file("count.json", "{\"port\": {\"device\": \"" + port().toStdString() +
                                                   "\"}, \"variables\": [{\"tag\": \"Count\"}]}");
    open("$HOST poll " + project, 80, 12);
    ASSERT_TRUE(sees("Count"));
    EXPECT_TRUE(seesStyle(QRegularExpression("\x1b\\[1;4m\x1b\\[32m[0-9]+")));
}

// A line for each change, and on standard error why there is no table.
TEST_F(HostTable, PrintsLinesOnATerminalThatCannotShowIt)
{
    poll(100, 30,
         "--seconds 1 --match Speed; TERM=dumb $HOST poll " + path("p.json") +
             " --seconds 1 --match Speed; LC_ALL=C $HOST poll " + path("p.json") +
             " --seconds 1 --match Speed");
    EXPECT_TRUE(sees("no table, a line for each change: TERM=dumb: this terminal cannot move its "
                     "cursor"));
    EXPECT_TRUE(sees("a line for each change: the locale has no UTF-8"));
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(screen().join('\n').count(" Speed = 1234"), 2) << screen().join('\n').toStdString();
}

TEST_F(HostTable, PrintsLinesInAWindowThatIsTooSmall)
{
    poll(20, 12, "--seconds 1 --match Speed --quiet");
    EXPECT_TRUE(sees("Speed ="));
    EXPECT_TRUE(sees("[status 0]"));
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
