// Programs that follow each other on a line. A controller ignores a message that has the number of
// the one before, and each driver begins with the same numbers.

#include "program_fixture.h"

#include <QtCore/QRegularExpression>

#include <csignal>

namespace {

const char kSpeed[] = R"({"name": "Speed", "type": "INT", "value": 1234})";

class FollowingProgram : public ProgramTest
{
protected:
    /// Runs a command on the line of a station. With its trace, it must end well, and its first
    /// request must be answered without being asked for again. The time-out is so long that only a
    /// request that was ignored reaches it, and the half of it at which the first reply is asked
    /// for. Later ones may be asked for again, where the machine is busy: whether one was ignored
    /// is what repeated() tells.
    std::string run(const QStringList& command, int station = 0)
    {
        const QString trace = QStringLiteral("run%1.txt").arg(++m_runs);
        const Result result = host(
            command + QStringList{"--port", port(station), "--timeout", "40000", "--trace", trace});
        const std::string name = command.join(' ').toStdString();
        EXPECT_EQ(result.status, 0) << name << ": " << result.err;
        EXPECT_EQ(sentBeforeFirstReply(trace), 1) << name << '\n' << textOf(trace);
        const std::string summary = host({"trace", trace, "--summary", "--json"}).out;
        EXPECT_NE(summary.find(R"("repeated":0,)"), std::string::npos) << name << summary;
        return result.out;
    }

    /// The messages that the controller ignored because they had the number of the one before; -1
    /// if it does not tell.
    int repeated(int station = 0)
    {
        static const QRegularExpression count(QStringLiteral(", (\\d+) repeated, "));
        const QRegularExpressionMatch match = count.match(simulatorStatus(station));
        return match.hasMatch() ? match.captured(1).toInt() : -1;
    }

    /// Starts to watch a tag, and kills the program between a request and its reply: the controller
    /// does not answer while it is stopped.
    void killInTheMiddle(int station = 0)
    {
        QProcess watch;
        watch.start(MICRO850_HOST, {"watch", "Speed", "--port", port(station)});
        ASSERT_TRUE(watch.waitForReadyRead(60000)) << watch.readAllStandardError().toStdString();
        signalSimulator(SIGSTOP);
        watch.kill();
        ASSERT_TRUE(watch.waitForFinished(60000));
        signalSimulator(SIGCONT);
    }

private:
    /// How often the program sent something before it got more than a link control.
    int sentBeforeFirstReply(const QString& trace) const
    {
        int sent = 0;
        for (const QString& line : linesOf(textOf(trace))) {
            const QStringList words = line.section('#', 0, 0).simplified().split(' ');
            sent += words.value(1) == QLatin1String(">") ? 1 : 0;
            if (words.value(1) == QLatin1String("<") && words.size() > 12)
                return sent;
        }
        return -1;
    }

    int m_runs = 0;
};

TEST_F(FollowingProgram, ProbesAfterAProbe)
{
    simulate();
    for (int i = 0; i < 4; ++i)
        EXPECT_NE(run({"probe"}).find("vendor        4660\n"), std::string::npos);
    EXPECT_EQ(repeated(), 0);
}

TEST_F(FollowingProgram, ReadsAfterAProbeAndProbesAfterARead)
{
    simulate();
    run({"probe"});
    EXPECT_EQ(run({"read", "Speed"}), "Speed  INT  1234\n");
    run({"probe"});
    EXPECT_EQ(run({"read", "Speed", "Level[3]"}), "Speed     INT  1234\nLevel[3]  INT  13\n");
    EXPECT_EQ(repeated(), 0);
}

TEST_F(FollowingProgram, WritesAfterAReadAndReadsAfterAWrite)
{
    simulate();
    for (const char* value : {"7", "8", "8", "9"}) {
        run({"write", QStringLiteral("Speed=%1").arg(value)});
        EXPECT_EQ(run({"read", "Speed"}), std::string("Speed  INT  ") + value + '\n');
    }
    // Without a read in between, too: each write is carried out.
    run({"write", "Speed=10"});
    run({"write", "Speed=11"});
    EXPECT_EQ(run({"read", "Speed"}), "Speed  INT  11\n");
    EXPECT_EQ(repeated(), 0);
}

TEST_F(FollowingProgram, ReadsOrWritesAfterOneThatWasKilledInTheMiddle)
{
    simulate(kSpeed, {"--connections", "100"}); // nobody closes those of the killed programs
    const QStringList followers[] = {{"probe"}, {"read", "Speed"}, {"write", "Speed=1234"}};
    for (const QStringList& follower : followers) {
        killInTheMiddle();
        run(follower);
        EXPECT_EQ(repeated(), 0) << follower.first().toStdString();
    }
}

TEST_F(FollowingProgram, TakesTurnsWithAnotherTenTimes)
{
    simulate();
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(run({"read", "Speed"}), "Speed  INT  1234\n");
        EXPECT_EQ(run({"read", "Setpoint"}), "Setpoint  REAL  21.5\n");
    }
    EXPECT_EQ(repeated(), 0);
}

TEST_F(FollowingProgram, PollsWithoutATimeOut)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed"}]})");
    for (const QStringList& before :
         {QStringList{"probe"}, QStringList{"read", "Speed"}, QStringList{"write", "Speed=5"}})
    {
        run(before);
        const std::string polled = run({"poll", project, "--seconds", "0.5", "--json"});
        EXPECT_NE(polled.find(R"("quality":"good"})"), std::string::npos) << polled;
        EXPECT_NE(polled.find(R"("state":"connected")"), std::string::npos) << polled;
        EXPECT_NE(polled.find(R"("timedOut":0,)"), std::string::npos) << polled;
        EXPECT_EQ(repeated(), 0) << before.first().toStdString();
    }
}

TEST_F(FollowingProgram, UsesOneOfSeveralControllers)
{
    simulateStations({kSpeed, kSpeed, kSpeed});
    for (int round = 0; round < 2; ++round) {
        for (int station = 1; station <= 3; ++station) {
            run({"probe"}, station);
            run({"read", "Speed"}, station);
            run({"write", "Speed=1234"}, station);
        }
    }
    killInTheMiddle(2);
    for (int station = 1; station <= 3; ++station) {
        EXPECT_EQ(run({"read", "Speed"}, station), "Speed  INT  1234\n");
        EXPECT_EQ(repeated(station), 0) << station;
    }
}

// Each program has other numbers than the one that was recorded.
TEST_F(FollowingProgram, IsAnsweredFromATrace)
{
    simulate();
    for (const char* name : {"t.txt", "t.pcapng"}) {
        EXPECT_EQ(hostOnPort({"read", "Speed", "Level[3]", "--trace", path(name)}).status, 0);
        stopSimulator();
        simulateFrom(path(name));
        for (int i = 0; i < 3; ++i) {
            EXPECT_NE(run({"probe"}).find("vendor        4660\n"), std::string::npos);
            EXPECT_EQ(run({"read", "Speed", "Level[3]"}),
                      "Speed     INT  1234\nLevel[3]  INT  13\n");
        }
        killInTheMiddle();
        EXPECT_EQ(run({"read", "Level[3]", "Speed"}), "Level[3]  INT  13\nSpeed     INT  1234\n");
        EXPECT_EQ(repeated(), 0) << name;
        stopSimulator();
        simulate();
    }
}

} // namespace
