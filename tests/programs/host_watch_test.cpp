#include "terminal_fixture.h"

namespace {

using HostWatch = TerminalTest;

bool isDot(QChar c)
{
    return c.unicode() >= 0x2800 && c.unicode() <= 0x28FF;
}

const char kCounter[] = R"({"name": "Count", "type": "DINT",
    "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.05}},
    {"name": "Name", "type": "SHORT_STRING", "value": "Apple"})";

TEST_F(HostWatch, PrintsALineForEachChange)
{
    simulate(kCounter);
    const Result result = hostOnPort({"watch", "Count", "Name", "--seconds", "2"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    EXPECT_GE(lines.size(), 5) << result.out;
    int names = 0;
    int last = -1;
    for (const QString& line : lines) {
        if (line.mid(13) == "Name = Apple") {
            ++names;
            continue;
        }
        ASSERT_TRUE(line.mid(13).startsWith("Count = ")) << result.out;
        const int count = line.mid(21).toInt();
        EXPECT_GT(count, last);
        last = count;
    }
    EXPECT_EQ(names, 1); // it never changes
}

TEST_F(HostWatch, PrintsAnObjectForEachChangeWithJson)
{
    simulate();
    const Result result = hostOnPort({"watch", "Level[2..3]", "--seconds", "1", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 2) << result.out;
    EXPECT_TRUE(lines.at(0).endsWith(
        R"("name":"Level[2..3]","station":1,"tag":"Level","element":2,"type":"INT",)"
        R"("value":[12,13],"quality":"good"})"))
        << result.out;
    EXPECT_TRUE(lines.at(1).startsWith(R"({"summary":)"));
}

TEST_F(HostWatch, NamesPartsOfVariablesWithAnyName)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Fill = 5", "tag": "Level", "element": 3, "length": 2, "gain": 0.1, "unit": "%"},
        {"name": "Label", "tag": "Name", "type": "SHORT_STRING"}]})");
    const QStringList shared = {"--seconds", "0.5", "--quiet", "--project", project};
    const Result result = hostOnPort(QStringList{"watch", "Fill = 5", "Fill = 5[1]"} + shared);
    EXPECT_EQ(result.status, 0) << result.err;
    QStringList shown;
    for (const QString& line : linesOf(result.out))
        shown += line.mid(13);
    shown.sort();
    EXPECT_EQ(shown, (QStringList{"\"Fill = 5\"[0..1] = [1.3, 1.4] %", "\"Fill = 5\"[1] = 1.4 %"}))
        << result.out;

    const Result raw = hostOnPort(QStringList{"watch", "Fill = 5[0]", "--raw", "--json"} + shared);
    EXPECT_NE(raw.out.find(R"("name":"Fill = 5[0]","station":1,"tag":"Level","element":3,)"
                           R"("type":"INT","value":13,"quality":"good"})"),
              std::string::npos)
        << raw.out;

    const Result string = hostOnPort(QStringList{"watch", "Label[1]"} + shared);
    EXPECT_EQ(string.status, 2);
    EXPECT_EQ(string.err, "micro850-host: Label[1]: of a string only element 0 can be read and "
                          "written (leave the index out)\n");
}

TEST_F(HostWatch, ReportsThatATagIsUnknown)
{
    simulate();
    const Result result = hostOnPort({"watch", "Nope", "--seconds", "1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find(
                  " Nope (no such tag (names are as in the controller's program; status 05))"),
              std::string::npos)
        << result.out;
}

TEST_F(HostWatch, NamesTheVariableThatWasProbablyMeant)
{
    simulate();
    const QString project =
        file("p.json", R"({"variables": [{"name": "Outlet", "tag": "Speed"}, {"tag": "Level"}]})");
    const QStringList shared = {"--seconds", "1", "--project", project};
    const Result result = hostOnPort(QStringList{"watch", "Outled"} + shared);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find(" Outled (no such tag (names are as in the controller's program; "
                              "status 05)) (did you mean Outlet?)\n"),
              std::string::npos)
        << result.out;
    const Result json = hostOnPort(QStringList{"watch", "Outled", "--json"} + shared);
    EXPECT_NE(json.out.find("status 05) (did you mean Outlet?)\"}\n"), std::string::npos)
        << json.out;
    const Result none = hostOnPort(QStringList{"watch", "Zzz"} + shared);
    EXPECT_EQ(none.out.find("did you mean"), std::string::npos) << none.out;
}

TEST_F(HostWatch, NeedsATerminalForCharts)
{
    const Result result = hostOnPort({"watch", "Speed", "--plot"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "micro850-host: --plot needs a terminal (without it, each change is one line)\n");
}

TEST_F(HostWatch, DrawsChartsAsWideAsTheWindow)
{
    simulate(kCounter);
    open("$HOST watch Count Name Nope --plot --span 2 --port $PORT", 60, 20);
    ASSERT_TRUE(sees("1 Count = "));
    EXPECT_TRUE(sees("2 Name = Apple: not a number"));
    EXPECT_TRUE(sees("3 Nope (never): no such tag"));
    // The number of the counter stands at its newest value, in the last column.
    const auto endsAt = [this](int column) {
        const QStringList lines = screen();
        return std::any_of(lines.begin(), lines.end(), [column](const QString& line) {
            return line.size() == column && line.endsWith('1') && isDot(line.at(column - 2));
        });
    };
    EXPECT_TRUE(holds([&] { return endsAt(60); })) << screen().join('\n').toStdString();
    resize(90, 20);
    EXPECT_TRUE(holds([&] { return endsAt(90); })) << screen().join('\n').toStdString();
    type({"q"});
    EXPECT_TRUE(sees("[status 1]")); // Nope was never read
    EXPECT_TRUE(sees("\nicanon"));
}

// The elements of an array that are named, with the unit and the numbers of the project.
TEST_F(HostWatch, DrawsNamedElementsOverClockTimesWithTheUnit)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"name": "Fill", "tag": "Level", "length": 10, "unit": "mm"}]})");
    open("TZ=IST-5:30 $HOST watch 'Fill[2..4]' --plot --from-zero --span 30 --port $PORT "
         "--project " +
             project,
         80, 24);
    ASSERT_TRUE(sees("1 Fill[2] = 12 mm   2 Fill[3] = 13 mm   3 Fill[4] = 14 mm"));
    EXPECT_TRUE(sees(QString::fromUtf8("\nmm\n14┤")));
    EXPECT_TRUE(sees(QString::fromUtf8(" 0┤")));
    // The hour of one end of the axis at least.
    const QString hours = QString::fromStdString(
        runProgram("bash", {"-c", "export TZ=IST-5:30; date +%H; date -d '-40 seconds' +%H"}).out);
    const QString shown = screen().join('\n');
    EXPECT_TRUE(shown.contains(hours.left(2) + ':') || shown.contains(hours.mid(3, 2) + ':'))
        << hours.toStdString() << shown.toStdString();
}

TEST_F(HostWatch, HoldsTheChartWhileItIsPaused)
{
    simulate(R"({"name": "Count", "type": "DINT",
                 "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.05}})");
    open("$HOST watch Count --plot --port $PORT", 150, 24);
    ASSERT_TRUE(sees("Count = "));
    type({"p"});
    ASSERT_TRUE(sees("PAUSED 60 s   q quit, p pause   line " + lineText())); // drawn to its end
    const QStringList held = screen();
    resize(150, 25);
    resize(150, 24); // drawn again
    EXPECT_TRUE(holds([&] { return screen() == held; })) << screen().join('\n').toStdString();
    type({"p"});
    EXPECT_TRUE(seesNo("PAUSED"));
    EXPECT_TRUE(holds([&] { return screen().first() != held.first(); }));
}

TEST_F(HostWatch, DrawsChartsWithPlainSignsWithoutUnicode)
{
    simulate();
    open("LC_ALL=C $HOST watch Speed --plot --port $PORT", 80, 24);
    ASSERT_TRUE(sees("Speed = 1234"));
    EXPECT_TRUE(sees("******"));
    for (const QString& line : screen()) {
        for (const QChar c : line)
            EXPECT_LT(c.unicode(), 0x80) << line.toStdString();
    }
}

TEST_F(HostWatch, ShowsPlainTextsOnATerminalWithoutUnicode)
{
    simulate();
    const QString project =
        file("p.json", "{\"variables\": [{\"tag\": \"Setpoint\", \"unit\": \"\u00B0C\"}]}");
    const QString options = " Setpoint --port $PORT --project " + project;
    open("export LC_ALL=C; $HOST watch --plot" + options + "; $HOST read" + options +
             "; $HOST watch --seconds 0.5 --json" + options,
         120, 24);
    ASSERT_TRUE(sees("Setpoint = 21.5 deg C\ndeg C\n"));
    type({"q"});
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_TRUE(sees("21.5 deg C"));
    EXPECT_TRUE(sees(R"("unit":"\u00b0C")"));
}

TEST_F(HostWatch, PrintsLinesWhereTheWindowIsTooSmallForCharts)
{
    simulate();
    open("$HOST watch Speed --plot --seconds 1 --quiet --port $PORT", 30, 12);
    EXPECT_TRUE(sees(" Speed = 1234"));
    EXPECT_TRUE(sees("[status 0]"));
}

TEST_F(HostWatch, DrawsAtMostEightElements)
{
    simulate();
    open("$HOST watch Speed 'Level[0..7]' --plot --port $PORT", 200, 10);
    EXPECT_TRUE(sees("--plot shows at most 8 elements, and with Level[0..7] there are more (leave "
                     "some out, or name a part of an array: TAG[0..3])"));
    EXPECT_TRUE(sees("[status 2]"));
}

} // namespace
