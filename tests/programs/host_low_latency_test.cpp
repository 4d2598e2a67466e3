// How the host asks serial devices for low latency, and puts back what was there. A pseudo-terminal
// has no such flag: serial_flags.cpp, preloaded into the host, gives it one.

#include "program_fixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <cerrno>
#include <csignal>

namespace {

class HostLowLatency : public ProgramTest
{
protected:
    QStringList environment(const QStringList& more) const
    {
        // The sanitizers' own libraries then need not come first.
        return QStringList{"LD_PRELOAD=" SERIAL_FLAGS, "ASAN_OPTIONS=verify_asan_link_order=0",
                           "LOW_LATENCY_LOG=" + path("flags.log")} +
               more;
    }
    Result hostWithFlags(const QStringList& arguments, const QStringList& more = {}) const
    {
        return runProgram(MICRO850_HOST, arguments, environment(more), path("."));
    }
    // What was done to the flag, in turn, since the last call.
    QStringList changes() const
    {
        QFile log(path("flags.log"));
        if (!log.exists())
            return {};
        const QStringList lines = linesOf(textOf("flags.log"));
        EXPECT_TRUE(log.remove());
        return lines;
    }
    /// Every command that opens a line, with its arguments.
    QVector<QStringList> commands(const QString& device) const
    {
        const QString project =
            file("p.json", R"({"variables": [{"tag": "Speed", "type": "INT"}]})");
        QVector<QStringList> commands = {{"read", "Speed"},
                                         {"write", "Speed=5"},
                                         {"poll", project},
                                         {"watch", "Speed"},
                                         {"log", project, "--csv", path("log.csv")},
                                         {"probe", "--scan"},
                                         {"check", project}};
        for (QStringList& command : commands)
            command += QStringList{"--port", device, "--timeout", "200"};
        return commands;
    }
    static bool endsByItself(const QString& command)
    {
        return command != "poll" && command != "watch" && command != "log";
    }
};

const QStringList kSetAndCleared = {"set", "cleared"};

TEST_F(HostLowLatency, IsOnWhileEveryCommandRuns)
{
    simulate();
    for (QStringList command : commands(port())) {
        if (!endsByItself(command.first()))
            command << "--seconds"
                    << "0.5";
        const Result result = hostWithFlags(command);
        EXPECT_EQ(result.status, 0) << command.first().toStdString() << ": " << result.err;
        EXPECT_EQ(changes(), kSetAndCleared) << command.first().toStdString();
    }
}

// The signal comes before the command has had time for anything else.
TEST_F(HostLowLatency, IsPutBackAtASignalThatComesWhenTheLineHasJustBeenOpened)
{
    const SilentPort silent;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        for (const QStringList& command : commands(silent.path())) {
            const Result result =
                hostWithFlags(command, {QStringLiteral("LOW_LATENCY_SIGNAL=%1").arg(signal)});
            EXPECT_EQ(result.status, 1) << command.first().toStdString() << ' ' << signal;
            EXPECT_EQ(changes(), kSetAndCleared) << command.first().toStdString() << ' ' << signal;
        }
    }
}

TEST_F(HostLowLatency, IsPutBackAtASignalThatComesWhileACommandWaits)
{
    const SilentPort silent;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        for (const QStringList& command : commands(silent.path())) {
            QProcess program;
            program.setEnvironment(QProcess::systemEnvironment() + environment({}));
            program.start(MICRO850_HOST, command);
            QElapsedTimer timer;
            timer.start();
            while (!QFile::exists(path("flags.log")) && timer.elapsed() < 60000)
                QThread::msleep(1);
            ::kill(static_cast<pid_t>(program.processId()), signal);
            ASSERT_TRUE(program.waitForFinished(60000));
            EXPECT_EQ(program.exitStatus(), QProcess::NormalExit) << command.first().toStdString();
            EXPECT_EQ(changes(), kSetAndCleared) << command.first().toStdString() << ' ' << signal;
        }
    }
}

TEST_F(HostLowLatency, IsPutBackWhenACommandFailsAfterTheLineWasOpened)
{
    simulate();
    for (const QStringList& command : commands(port())) {
        const Result result =
            hostWithFlags(command + QStringList{"--trace", path("no/such/folder/t.txt")});
        EXPECT_NE(result.status, 0) << command.first().toStdString();
        EXPECT_EQ(changes(), kSetAndCleared) << command.first().toStdString();
    }
    const Result full = runProgram(
        "bash", {"-c", "\"$0\" read Speed --port \"$1\" > /dev/full", MICRO850_HOST, port()},
        environment({}));
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(changes(), kSetAndCleared);
}

TEST_F(HostLowLatency, IsLeftAloneIfTheUserOrTheProjectSaysSo)
{
    simulate();
    for (QStringList command : commands(port())) {
        if (!endsByItself(command.first()))
            command << "--seconds"
                    << "0.5";
        const Result result = hostWithFlags(command << "--no-low-latency");
        EXPECT_EQ(result.status, 0) << command.first().toStdString() << ": " << result.err;
        EXPECT_EQ(changes(), QStringList()) << command.first().toStdString();
    }
    for (const char* wanted : {"false", "true"}) {
        const QString project = file("q.json", R"({"port": {"lowLatency": )" + std::string(wanted) +
                                                   R"(}, "variables": [{"tag": "Speed"}]})");
        EXPECT_EQ(hostWithFlags({"check", project, "--port", port()}).status, 0);
        EXPECT_EQ(changes(), wanted == std::string("true") ? kSetAndCleared : QStringList());
    }
}

TEST_F(HostLowLatency, StaysOnWhereItWasFoundOn)
{
    simulate();
    const Result result =
        hostWithFlags({"read", "Speed", "--port", port()}, {"LOW_LATENCY_FOUND=1"});
    EXPECT_EQ(result.out, "Speed  INT  1234\n") << result.err;
    EXPECT_EQ(changes(), QStringList());
}

TEST_F(HostLowLatency, IsNoConditionForAnyCommand)
{
    simulate();
    for (const int error : {EPERM, EINVAL, ENOTTY, EIO}) {
        for (QStringList command : commands(port())) {
            if (!endsByItself(command.first()))
                command << "--seconds"
                        << "0.5"
                        << "--quiet";
            const Result result = hostWithFlags(
                command << "--quiet", {QStringLiteral("LOW_LATENCY_ERROR=%1").arg(error)});
            EXPECT_EQ(result.status, 0) << command.first().toStdString() << ' ' << error;
            EXPECT_EQ(result.err, "") << command.first().toStdString() << ' ' << error;
            EXPECT_EQ(changes(), QStringList());
        }
    }
}

TEST_F(HostLowLatency, IsOneNoteOfProbeForAUserWhoMayNotSetIt)
{
    simulate();
    const auto probe = [this](int error) {
        return hostWithFlags({"probe", "--port", port()},
                             {QStringLiteral("LOW_LATENCY_ERROR=%1").arg(error)});
    };
    const Result refused = probe(EPERM);
    EXPECT_EQ(refused.status, 0);
    EXPECT_EQ(linesOf(refused.err).size(), 1) << refused.err;
    EXPECT_NE(refused.err.find("sudo setserial " + port().toStdString() + " low_latency"),
              std::string::npos)
        << refused.err;
    EXPECT_NE(refused.err.find("60-micro850-adapters.rules"), std::string::npos) << refused.err;
    EXPECT_NE(refused.out.find("low latency   this user may not set it\n"), std::string::npos);
    for (const int error : {EINVAL, ENOTTY, EIO}) // nothing would help
        EXPECT_EQ(probe(error).err, "") << error;
}

TEST_F(HostLowLatency, IsToldByProbeEvenIfNothingAnswers)
{
    const SilentPort silent;
    const QStringList command = {"probe", "--port", silent.path(), "--timeout", "20"};
    const Result text = hostWithFlags(command);
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.out, "low latency   on while the line is open\n");
    const Result refused =
        hostWithFlags(command, {QStringLiteral("LOW_LATENCY_ERROR=%1").arg(EPERM)});
    EXPECT_NE(refused.err.find("60-micro850-adapters.rules"), std::string::npos) << refused.err;
    const Result json = hostWithFlags(command + QStringList("--json"));
    EXPECT_EQ(json.status, 1);
    EXPECT_EQ(linesOf(json.out).size(), 1) << json.out;
    EXPECT_NE(json.out.find(R"("answered":false,"adapter":{"lowLatency":"set"})"),
              std::string::npos)
        << json.out;
}

// A cable that is pulled and put back is a new device.
TEST_F(HostLowLatency, IsAskedForAgainWhenALineIsOpenedAgain)
{
    simulate();
    QProcess watch;
    watch.setEnvironment(QProcess::systemEnvironment() + environment({}));
    watch.start(MICRO850_HOST, {"watch", "Speed", "--port", port()});
    ASSERT_TRUE(watch.waitForReadyRead(60000));
    stopSimulator();
    simulate();
    QElapsedTimer timer;
    timer.start();
    while (linesOf(textOf("flags.log")).size() < 3 && timer.elapsed() < 60000)
        QThread::msleep(1);
    watch.terminate();
    ASSERT_TRUE(watch.waitForFinished(60000));
    EXPECT_EQ(changes(), kSetAndCleared + kSetAndCleared);
}

} // namespace
