// How the host opens connections and leaves none behind.

#include "program_fixture.h"

#include <QtCore/QDateTime>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFileInfo>
#include <QtCore/QThread>

#include <csignal>

namespace {

class HostConnection : public ProgramTest
{
protected:
    void simulateWithConnections(const char* limit)
    {
        simulate(R"({"name": "Speed", "type": "INT", "value": 1234},
                    {"name": "Level", "type": "INT", "length": 10})",
                 {"--connections", limit});
    }
    // Starts to watch a tag, and ends it with a signal when it has a value.
    void watchUntil(int signal)
    {
        QProcess watch;
        watch.start(MICRO850_HOST, {"watch", "Speed", "--port", port()});
        ASSERT_TRUE(watch.waitForReadyRead(60000));
        ::kill(static_cast<pid_t>(watch.processId()), signal);
        ASSERT_TRUE(watch.waitForFinished(60000));
    }
    // The number of open connections.
    int open() { return simulatorStatus().section(' ', 0, 0).toInt(); }
};

TEST_F(HostConnection, IsClosedAtTheEndOfEveryCommand)
{
    simulateWithConnections("6");
    const QString project =
        file("p.json", R"({"variables": [{"tag": "Speed"}, {"tag": "Level", "length": 10}]})");
    const QStringList commands[] = {
        {"read", "Speed", "Level[0..9]"},
        {"write", "Speed=5"},
        {"check", project},
        {"poll", project, "--seconds", "1"},
        {"watch", "Speed", "--seconds", "1"},
        {"log", project, "--csv", path("log.csv"), "--seconds", "1"},
    };
    for (const QStringList& command : commands) {
        const Result result = hostOnPort(command);
        EXPECT_EQ(result.status, 0) << command.first().toStdString() << result.err;
        EXPECT_EQ(open(), 0) << command.first().toStdString();
    }
}

TEST_F(HostConnection, IsClosedAfterATagThatIsRefused)
{
    simulateWithConnections("6");
    EXPECT_EQ(hostOnPort({"read", "Nope"}).status, 1);
    EXPECT_EQ(open(), 0);
    EXPECT_EQ(hostOnPort({"write", "Speed=5", "Level[12]=1"}).status, 1);
    EXPECT_EQ(open(), 0);
}

TEST_F(HostConnection, IsClosedWhenTheOutputCannotBeWritten)
{
    simulateWithConnections("6");
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed"}]})");
    const Result result = runProgram("bash", {"-c", "\"$0\" poll \"$2\" --port \"$1\" > /dev/full",
                                              MICRO850_HOST, port(), project});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(open(), 0);
}

TEST_F(HostConnection, IsClosedAfterCtrlCAndTermination)
{
    simulateWithConnections("6");
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        watchUntil(signal);
        EXPECT_EQ(open(), 0) << signal;
    }
}

// The time-out is longer than the test waits.
TEST_F(HostConnection, ASignalEndsEveryCommandThatWaitsForASilentController)
{
    const SilentPort nobody;
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed"}]})");
    const QStringList commands[] = {{"read", "Speed"},
                                    {"write", "Speed=5"},
                                    {"probe"},
                                    {"check", project},
                                    {"poll", project},
                                    {"watch", "Speed"},
                                    {"log", project, "--csv", path("log.csv")}};
    for (const QStringList& command : commands) {
        const std::string name = command.first().toStdString();
        const QString trace = path(command.first() + ".txt");
        QProcess host;
        host.start(MICRO850_HOST, command + QStringList{"--port", nobody.path(), "--timeout",
                                                        "60000", "--trace", trace});
        QElapsedTimer timer;
        timer.start();
        while (QFileInfo(trace).size() == 0 && timer.elapsed() < 20000)
            QThread::msleep(1);
        ::kill(static_cast<pid_t>(host.processId()), SIGINT);
        ASSERT_TRUE(host.waitForFinished(20000)) << name;
        EXPECT_EQ(host.exitStatus(), QProcess::NormalExit) << name;
        EXPECT_EQ(host.exitCode(), 1) << name;
        const bool polls = name == "poll" || name == "watch" || name == "log";
        const QByteArray errors = host.readAllStandardError();
        EXPECT_EQ(errors.contains("interrupted"), !polls) << name << ": " << errors.toStdString();
        EXPECT_FALSE(errors.contains("no answer")) << name << ": " << errors.toStdString();
    }
}

TEST_F(HostConnection, IsFreeForTenReadsInARowOfAControllerThatHasSix)
{
    simulateWithConnections("6");
    for (int i = 0; i < 10; ++i) {
        const Result result = hostOnPort({"read", "Speed"});
        EXPECT_EQ(result.status, 0) << i << ": " << result.err;
        EXPECT_EQ(result.err, "") << i;
    }
}

// A host that is killed closes nothing. The next one in the same second draws the same number.
TEST_F(HostConnection, IsTriedAgainInTheNextSecondWhenAKilledHostHasItsNumber)
{
    simulateWithConnections("100");
    bool clashed = false;
    for (int i = 0; i < 60 && !clashed; ++i) {
        const QString trace = QStringLiteral("%1.txt").arg(i);
        const qint64 begin = QDateTime::currentSecsSinceEpoch();
        watchUntil(SIGKILL);
        // It may begin in the same second, however long the first one took.
        const qint64 step = begin - QDateTime::currentSecsSinceEpoch();
        file("step", std::string(reinterpret_cast<const char*>(&step), sizeof step));
        const Result result =
            runProgram(MICRO850_HOST, {"read", "Speed", "--port", port(), "--trace", path(trace)},
                       {"LD_PRELOAD=" STEPPED_CLOCK, "STEPPED_CLOCK_FILE=" + path("step"),
                        "ASAN_OPTIONS=verify_asan_link_order=0"});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, "Speed  INT  1234\n");
        clashed = textOf(trace).find("(status 01/0100)") != std::string::npos;
    }
    EXPECT_TRUE(clashed) << "no two hosts opened their connections in the same second";
}

TEST_F(HostConnection, IsRefusedByAControllerWhoseConnectionsKilledHostsHave)
{
    simulateWithConnections("6");
    for (int i = 0; i < 6; ++i)
        watchUntil(SIGKILL);
    ASSERT_EQ(open(), 6);
    const Result read = hostOnPort({"read", "Speed"});
    EXPECT_EQ(read.status, 1);
    EXPECT_EQ(read.out, "");
    EXPECT_EQ(read.err, "micro850-host: Speed: the controller refuses the connection: out of "
                        "connections, status 01/0113 (" +
                            lineText().toStdString() +
                            "; end other programs that are connected; a connection that "
                            "was not closed ends after 32 seconds)\n");
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed"}]})");
    const Result poll = hostOnPort({"poll", project, "--seconds", "1"});
    EXPECT_EQ(poll.status, 1);
    EXPECT_NE(poll.err.find("station 1: refused, the controller refuses the connection: out of "
                            "connections, status 01/0113\n"),
              std::string::npos)
        << poll.err;
    const Result json = hostOnPort({"poll", project, "--json", "--seconds", "1"});
    EXPECT_NE(json.out.find(R"("state":"refused")"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find(R"("problem":"the controller refuses the connection: out of)"),
              std::string::npos)
        << json.out;
    for (const QStringList& command :
         {QStringList{"check", project}, QStringList{"write", "Speed=1"}}) {
        const Result result = hostOnPort(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE((result.out + result.err).find("the controller refuses the connection: out of"),
                  std::string::npos)
            << result.err;
        EXPECT_EQ((result.out + result.err).find("cable"), std::string::npos) << result.err;
    }
}

TEST_F(HostConnection, ShowsInATraceThatItIsClosed)
{
    simulateWithConnections("6");
    EXPECT_EQ(hostOnPort({"read", "Speed", "--trace", path("t.txt")}).status, 0);
    const Result result = host({"trace", path("t.txt")});
    EXPECT_NE(result.out.find(" close connection\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(" close connection reply"), std::string::npos) << result.out;
}

TEST_F(HostConnection, DelaysTheEndByLessThanASecondWhenTheControllerIgnoresItsClosing)
{
    // Identity, open, read and read again are answered; what closes the connection is not.
    simulate(R"({"name": "Speed", "type": "INT", "value": 1234})",
             {"--faults", file("faults.json", R"({"faults": [
                 {"fault": "withhold", "on": "requests", "message": [5, 6, 7, 8, 9]}]})")});
    QElapsedTimer timer;
    timer.start();
    const Result result = hostOnPort({"read", "Speed"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_LT(timer.elapsed(), 5000);
}

} // namespace
