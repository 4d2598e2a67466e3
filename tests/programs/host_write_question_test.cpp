#include "terminal_fixture.h"

namespace {

/// Writes on a terminal.
class HostWriteQuestion : public TerminalTest
{
protected:
    void write(const QString& arguments, int width = 120)
    {
        open("$HOST write -p $PORT " + arguments, width, 40);
    }
    std::string valueOf(const QString& tag) const { return hostOnPort({"read", tag}).out; }
    QString question(const QString& what) const
    {
        return "write " + what + " to " + port() + "? [y/N]";
    }
};

} // namespace

TEST_F(HostWriteQuestion, ShowsOldAndNewValuesOfSeveralAndWritesThemWhenAPersonAgrees)
{
    simulate();
    write("Speed=7 Setpoint=16777217");
    ASSERT_TRUE(sees(question("these 2 values")));
    EXPECT_TRUE(sees("Speed: 1234 -> 7"));
    EXPECT_TRUE(sees("Setpoint: 21.5 -> 16777216 (16777217 is stored as 16777216)"));
    type({"yes", "Enter"});
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(screen().filter("Speed: 1234 -> 7").size(), 2);
    EXPECT_EQ(valueOf("Speed"), "Speed  INT  7\n");
}

TEST_F(HostWriteQuestion, WritesNothingWhenAPersonDoesNotAgree)
{
    simulate();
    for (const char* answer : {"Enter", "C-d", "n", "C-c"}) {
        write("'Level[0..1]=7'; echo asked");
        ASSERT_TRUE(sees(question("these 2 values"))) << answer;
        type({answer});
        if (QString(answer) == "n")
            type({"Enter"});
        ASSERT_TRUE(
            sees(QString(answer) == "C-c" ? "interrupted" : "nothing was written: not confirmed"))
            << answer;
        closeTerminal();
    }
    EXPECT_EQ(valueOf("Level[0]"), "Level[0]  INT  10\n");
}

TEST_F(HostWriteQuestion, DoesNotAskForOneValueNorWithYesNorWithoutATerminal)
{
    simulate();
    write("Speed=7; $HOST write -p $PORT --yes Speed=8 'Level[0..1]=9'; "
          "$HOST write -p $PORT Speed=9 Setpoint=1 </dev/null");
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_TRUE(screen().filter("[y/N]").isEmpty());
    EXPECT_EQ(valueOf("Speed"), "Speed  INT  9\n");
}

// The controller has closed the connection meanwhile, as it does after half a minute.
TEST_F(HostWriteQuestion, ConnectsAgainWhenTheAnswerTookLongAndReadsTheOldValuesAgain)
{
    simulate();
    write("Speed=7 Setpoint=1 --trace t.txt");
    ASSERT_TRUE(sees(question("these 2 values")));
    commandSimulator("power-cycle retain");
    EXPECT_TRUE(simulatorStatus().contains("0 connections open")) << simulatorStatus().toStdString();
    type({"y", "Enter"});
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(valueOf("Speed"), "Speed  INT  7\n");
    const std::string trace = host({"trace", path("t.txt")}).out;
    EXPECT_EQ(QString::fromStdString(trace).count(" > TNS"), 0);
    EXPECT_EQ(QString::fromStdString(trace).count("open connection\n"), 2) << trace;
    EXPECT_EQ(QString::fromStdString(trace).count(" write Speed"), 1) << trace;
}

TEST_F(HostWriteQuestion, ListsTwentyOfManyValues)
{
    simulate(R"({"name": "A", "type": "INT", "length": 30})");
    write("'A[0..29]=5'");
    ASSERT_TRUE(sees(question("these 30 values")));
    EXPECT_TRUE(sees("A[19]: 0 -> 5"));
    EXPECT_TRUE(sees("and 10 more"));
    EXPECT_TRUE(screen().filter("A[20]").isEmpty());
    type({"n", "Enter"});
    EXPECT_TRUE(sees("[status 1]"));
}
