#include "terminal_fixture.h"

#include <QtCore/QRegularExpression>

#include <csignal>

namespace {

/// The shell in a terminal.
class HostShell : public TerminalTest
{
protected:
    void shell(const QString& options = QString(), int width = 160, int rows = 30,
               const QString& terminal = QStringLiteral("$TERM"))
    {
        open("XDG_STATE_HOME=state TERM=" + terminal + " $HOST shell -p $PORT " + options, width,
             rows);
        ASSERT_TRUE(isAsked());
    }
    /// Waits until the last line is the prompt with this text behind it. What is typed before would
    /// be shown twice, and is not edited: the terminal takes it as before the shell was started.
    bool isAsked(const QString& typed = QString())
    {
        const auto withoutBlanks = [](QString text) {
            return text.remove(QRegularExpression("\\s"));
        };
        const bool asked = holds([&] {
            return withoutBlanks(screen().join(QString())).endsWith(withoutBlanks("plc>" + typed));
        });
        EXPECT_TRUE(asked) << typed.toStdString() << " is not at the prompt:\n"
                           << screen().join('\n').toStdString();
        return asked;
    }
    /// Enters the line, whose beginning may be typed already.
    void enter(const QString& rest, const QString& typed = QString())
    {
        if (isAsked(typed))
            type({"-l", rest});
        if (isAsked(typed + rest))
            type({"Enter"});
    }
    /// The same with a result whose form is a program's.
    void enterJson(const QString& rest, const QString& typed = QString())
    {
        enter(rest + " --json", typed);
    }
    /// Into the shell that runs the program.
    void enterOutside(const QString& line) { type({"-l", line}), type({"Enter"}); }
    /// The requests and replies of the trace; without those that a busy machine repeats.
    QStringList traced(const QStringList& options = {}) const
    {
        QStringList lines;
        for (const QString& line :
             linesOf(runProgram(MICRO850_HOST, QStringList{"trace", path("t.txt")} + options).out))
        {
            if (!line.contains("(again: ") && !line.contains("(of another request)"))
                lines += line;
        }
        return lines;
    }
    /// The lines of the screen that contain the text.
    int count(const QString& text) const { return screen().filter(text).size(); }
    Result script(const QString& commands, const QStringList& options = {}) const
    {
        const QString in = file("commands", commands.toStdString());
        return runProgram(
            "sh",
            QStringList{"-c", "exec \"$@\" <" + in, "sh", MICRO850_HOST, "shell", "-p", port()} +
                options,
            QStringList(), path("."));
    }
    void simulateRamp()
    {
        simulate(R"({"name": "Speed", "type": "INT", "value": 1234},
                    {"name": "Setpoint", "type": "REAL", "value": 21.5},
                    {"name": "Level", "type": "DINT",
                     "motion": {"kind": "ramp", "min": 0, "max": 1000000, "period": 1000}})");
    }
};

} // namespace

TEST_F(HostShell, CarriesOutCommandsOverOneConnection)
{
    simulate();
    shell("--trace t.txt");
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    enterJson("write Setpoint=42.25");
    ASSERT_TRUE(sees(R"("written":42.25)"));
    enter("micro850-host read 'Level[1..2]' --json # as it was copied");
    ASSERT_TRUE(sees(R"("value":12})"));
    enter("quit");
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(screen().filter(QRegularExpression("^-?icanon")).value(0), "icanon");
    EXPECT_EQ(traced().filter(" open connection").size(), 2) << traced().join('\n').toStdString();
}

TEST_F(HostShell, GoesOnAfterAMistakeAndAfterARefusal)
{
    simulate();
    shell();
    enter("raed Speed");
    ASSERT_TRUE(sees("\"raed\" is not a command (did you mean read?)"));
    enter("read Nope");
    ASSERT_TRUE(sees("Nope: no such tag"));
    enter("read 'Speed");
    ASSERT_TRUE(sees("the quote ' is not closed (write it a second time)"));
    enter("read Speed --port other");
    ASSERT_TRUE(sees("--port: the shell has its line already"));
    enter("shell");
    ASSERT_TRUE(sees("shell: this is one already (leave it with quit)"));
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    ASSERT_TRUE(isAsked());
    type({"C-d"});
    ASSERT_TRUE(sees("[status 0]"));
}

TEST_F(HostShell, ShowsAWatchAboveThePromptWhileALineIsTyped)
{
    simulateRamp();
    shell(QString(), 160, 200);
    enter("watch Level --interval 0.2");
    ASSERT_TRUE(sees("watch 1: Level (\"stop 1\" ends it)"));
    ASSERT_TRUE(sees(" Level = "));
    ASSERT_TRUE(isAsked());
    type({"-l", "write Setp"});
    ASSERT_TRUE(isAsked("write Setp"));
    const int before = count(" Level = ");
    ASSERT_TRUE(holds([&] { return count(" Level = ") > before + 3; }));
    // While a line is printed above it, the prompt is away.
    QStringList shown;
    ASSERT_TRUE(holds([&] {
        shown = screen().filter(QRegularExpression("."));
        return shown.last() == "plc> write Setp";
    }));
    EXPECT_EQ(shown.filter("plc> write Setp").size(), 1) << shown.join('\n').toStdString();
    enterJson("oint=3", "write Setp");
    ASSERT_TRUE(sees(R"("written":3)"));
    enter("stop 1");
    enter("stop 1");
    ASSERT_TRUE(sees("stop: there is no watch \"1\" (\"stop\" ends all)"));
}

TEST_F(HostShell, TakesAtMost32Watches)
{
    simulate();
    shell("", 160, 50);
    for (int i = 1; i <= 32; ++i)
        enter("watch Speed");
    ASSERT_TRUE(sees("watch 32: Speed"));
    enter("watch Setpoint");
    EXPECT_TRUE(sees("watch: 32 watches go on already (end one with stop NUMBER, or name several "
                     "tags in one watch)"));
    enter("stop 32");
    enter("watch Setpoint");
    EXPECT_TRUE(sees("watch 33: Setpoint"));
}

TEST_F(HostShell, CompletesCommandsOptionsNamesAndSettings)
{
    simulate();
    file("p.json", R"({"variables": [{"tag": "Speed"}, {"tag": "Setpoint"},
                                                {"name": "My Tank", "tag": "Level"}]})");
    shell("--project p.json");
    type({"pro", "Tab"});
    ASSERT_TRUE(sees("plc> probe"));
    type({"C-u", "read My", "Tab"});
    ASSERT_TRUE(sees("plc> read 'My Tank'"));
    type({"C-u", "read S", "Tab", "Tab"});
    ASSERT_TRUE(sees("Setpoint  Speed"));
    type({"p", "Tab", "--json", "Enter"});
    ASSERT_TRUE(sees(R"("value":1234)"));
    ASSERT_TRUE(isAsked());
    type({"write Set", "Tab", "7 --json", "Enter"});
    ASSERT_TRUE(sees(R"("written":7)"));
    ASSERT_TRUE(isAsked());
    type({"set inte", "Tab", "0.2", "Enter"});
    enter("set");
    ASSERT_TRUE(sees("interval  0.2"));
    ASSERT_TRUE(isAsked());
    type({"read --r", "Tab"});
    enterJson(" Running", "read --raw");
    ASSERT_TRUE(sees(R"("value":true)"));
    ASSERT_TRUE(isAsked());
    type({"watch R", "Tab"}); // a tag that was read
    ASSERT_TRUE(sees("plc> watch Running"));
}

TEST_F(HostShell, RemembersItsLinesForTheNextTime)
{
    simulate();
    shell();
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    ASSERT_TRUE(isAsked());
    type({"C-d"});
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(QFile(path("state/micro850/shell-history")).permissions() &
                  (QFile::ReadGroup | QFile::ReadOther),
              QFile::Permissions());
    shell();
    type({"C-r", "Spe"});
    ASSERT_TRUE(sees("read Speed"));
    type({"C-g"});
    ASSERT_TRUE(seesNo("Spe"));
    type({"Up"});
    ASSERT_TRUE(sees("plc> read Speed"));
}

TEST_F(HostShell, DropsTheLineAtCtrlCAndEndsACommandWithIt)
{
    simulate();
    file("p.json", R"({"variables": [{"tag": "Speed"}]})");
    shell();
    type({"-l", "write Setp"});
    ASSERT_TRUE(sees("plc> write Setp"));
    type({"C-c"});
    ASSERT_TRUE(sees("plc> write Setp^C"));
    enter("poll p.json");
    ASSERT_TRUE(sees("QUALITY"));
    type({"C-c"});
    ASSERT_TRUE(sees("reopened 0"));
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
}

TEST_F(HostShell, EndsInOrderAtCtrlBackslash)
{
    simulate();
    shell();
    type({"-l", "read Spe"});
    ASSERT_TRUE(sees("plc> read Spe"));
    type({"C-\\"});
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_TRUE(sees("plc> read Spe\nicanon\n[status 0]"));
}

// The shell that started it finds its terminal as it was, and the line is edited further.
TEST_F(HostShell, GoesOnWithItsLineAfterCtrlZ)
{
    simulate();
    open("XDG_STATE_HOME=state bash --norc -i", 160, 30);
    enterOutside(MICRO850_HOST " shell -p " + port());
    ASSERT_TRUE(isAsked());
    type({"-l", "read Spe"});
    ASSERT_TRUE(sees("plc> read Spe"));
    type({"C-z"});
    ASSERT_TRUE(sees("Stopped"));
    enterOutside("stty -a | grep -o -- '-*icanon'");
    ASSERT_TRUE(sees("\nicanon\n"));
    enterOutside("fg");
    ASSERT_TRUE(holds([this] { return count("plc> read Spe") == 2; }))
        << screen().join('\n').toStdString();
    enterJson("ed", "read Spe");
    EXPECT_TRUE(sees(R"("value":1234)"));
}

TEST_F(HostShell, SetsWhatItsCommandsThenUse)
{
    simulate();
    shell();
    enter("set json on");
    enter("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    enter("set json no");
    ASSERT_TRUE(sees("\"no\" is not a setting (on or off)"));
    enter("set interval fast");
    ASSERT_TRUE(sees("set interval: \"fast\" is no time (seconds such as 0.2, or default)"));
    enter("set intervall 1");
    ASSERT_TRUE(sees("set: \"intervall\" is not a setting (did you mean interval?)"));
}

TEST_F(HostShell, IdentifiesTheControllerAndWatchesOnAfterwards)
{
    simulateRamp();
    shell();
    enter("watch Level --interval 0.2");
    ASSERT_TRUE(sees(" Level = "));
    enter("probe");
    ASSERT_TRUE(sees("product code  850"));
    ASSERT_TRUE(isAsked());
    type({"C-l"});
    ASSERT_TRUE(seesNo("product code"));
    ASSERT_TRUE(sees(" Level = "));
}

TEST_F(HostShell, WorksOnWhenTheControllerWasAway)
{
    simulateRamp();
    shell("--timeout 500");
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    signalSimulator(SIGSTOP);
    enter("read Speed");
    ASSERT_TRUE(sees("no answer"));
    signalSimulator(SIGCONT);
    ASSERT_TRUE(isAsked());
    type({"C-l"});
    ASSERT_TRUE(seesNo("no answer"));
    enterJson("read Setpoint");
    ASSERT_TRUE(sees(R"("value":21.5)"));
}

TEST_F(HostShell, TakesLinesInATerminalThatCanDoNothing)
{
    simulate();
    shell("", 20, 10, "dumb");
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    ASSERT_TRUE(isAsked());
    type({"C-d"});
    ASSERT_TRUE(sees("[status 0]"));
}

TEST_F(HostShell, ReadsCommandsFromAFileUpToTheFirstThatFails)
{
    simulate();
    const Result good = script("# a recipe\nset json on\nwrite Setpoint=3\n\nread Setpoint -q");
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(linesOf(good.out).filter(R"("value":3)").size(), 2) << good.out;
    const Result bad = script("write Setpoint=4\nwrite Nope=1\nwrite Setpoint=5\n");
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(linesOf(hostOnPort({"read", "Setpoint", "--json"}).out).filter(R"("value":4)").size(),
              1);
    EXPECT_EQ(linesOf(bad.err).last(),
              "micro850-host: standard input, line 2: this command failed, "
              "and what follows is not done");
    EXPECT_EQ(script("read 'Speed\n").status, 2);
    EXPECT_EQ(script("").status, 0);
}

TEST_F(HostShell, WatchesInTheForegroundWithoutATerminal)
{
    simulate();
    const Result result = script("watch Speed --seconds 0.5\nread Speed\n");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(linesOf(result.out).value(0).section(' ', 1), "Speed = 1234");
    EXPECT_EQ(linesOf(result.out).size(), 2) << result.out;
}

TEST_F(HostShell, RefusesALineThatHasNoEnd)
{
    simulate();
    const Result result = script(QString(70000, 'x'));
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(linesOf(result.err).last(),
              "micro850-host: a command has more than 65536 bytes (end it with a new line)");
}

TEST_F(HostShell, EndsWhenItsTerminalIsGone)
{
    simulate();
    shell("--trace t.txt");
    enterJson("read Speed");
    ASSERT_TRUE(sees(R"("value":1234)"));
    ASSERT_TRUE(isAsked());
    type({"-l", "read Set"});
    ASSERT_TRUE(sees("plc> read Set"));
    closeTerminal();
    // The port is free again.
    Result again = hostOnPort({"read", "Speed"});
    for (int i = 0; i < 600 && again.status != 0; ++i) {
        QThread::msleep(50);
        again = hostOnPort({"read", "Speed"});
    }
    EXPECT_EQ(again.status, 0) << again.err;
}

TEST_F(HostShell, TellsOfTheOtherElementsOfAnArrayAndRemembersHowManyThereAre)
{
    simulate();
    shell("--trace t.txt");
    const QString told = "Level: this is the first of 10 elements (Level[] reads all, Level[0..9] "
                         "some)";
    enter("read Level");
    ASSERT_TRUE(sees(told));
    enter("read 'Level[8..]' 'Level[0]' Speed");
    ASSERT_TRUE(sees("Speed     INT  1234"));
    enter("read Level -q --json");
    ASSERT_TRUE(sees(R"("value":10})"));
    enter("quit");
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(count(told), 1);
    const QStringList trace = traced({"--match", "Level"});
    EXPECT_EQ(trace.filter("Z > TNS ").size(), 13) << trace.join('\n').toStdString();
    EXPECT_EQ(trace.filter("failed 1x read Level[16] x1").size(), 1)
        << trace.join('\n').toStdString();
}
