// Workers, their supervision and the reload, with real processes.

#include "gateway_fixture.h"

#include <csignal>

namespace {

const char kTags[] = R"({"name": "Speed", "type": "INT", "value": 1234},
                        {"name": "Level", "type": "REAL", "value": 41.5})";
const char kVariables[] = R"({"name": "Speed", "tag": "Speed"}, {"name": "Level", "tag": "Level"})";
const char kShortHeartbeat[] = "MICRO850_GATEWAY_HEARTBEAT_MS=2000";

class GatewayLinesTest : public GatewayTest
{
protected:
    void startTwoLines(const QStringList& environment = QStringList())
    {
        addLine(QStringLiteral("press"), kTags, kVariables);
        addLine(QStringLiteral("oven"), kTags, kVariables);
        startGateway(environment);
        for (const char* name : {"press", "oven"})
            ASSERT_TRUE(waitForConnection(name)) << log().toStdString();
    }
    bool waitForConnection(const char* name, int times = 1)
    {
        return waitForLog(QString::fromLatin1(name) + ": station 1: connected", times);
    }
    int count(const char* text) { return log().count(QLatin1String(text)); }
    static bool exists(qint64 pid) { return ::kill(static_cast<pid_t>(pid), 0) == 0; }
    static void send(qint64 pid, int signal)
    {
        ASSERT_GT(pid, 0);
        ::kill(static_cast<pid_t>(pid), signal);
    }
};

} // namespace

TEST_F(GatewayLinesTest, EndsInOrderWithItsWorkers)
{
    startTwoLines();
    const std::vector<qint64> started = workers();
    EXPECT_EQ(started.size(), 2U);
    EXPECT_EQ(stopGateway(), 0) << log().toStdString();
    for (const qint64 pid : started)
        EXPECT_FALSE(exists(pid));
    // The connections of both controllers were closed.
    for (const char* name : {"press", "oven"})
        EXPECT_TRUE(
            simulatorStatus(QString::fromLatin1(name)).contains(QStringLiteral("0 connections")))
            << simulatorStatus(QString::fromLatin1(name)).toStdString();
}

TEST_F(GatewayLinesTest, StartsAWorkerAgainThatWasKilled)
{
    startTwoLines();
    const qint64 other = workerOf(QStringLiteral("oven"));
    const qint64 killed = workerOf(QStringLiteral("press"));
    send(killed, SIGKILL);
    ASSERT_TRUE(waitForLog(QStringLiteral(
        "press: the worker of this line ended (signal 9); it is started again in 1 s")))
        << log().toStdString();
    ASSERT_TRUE(waitForConnection("press", 2)) << log().toStdString();
    EXPECT_NE(workerOf(QStringLiteral("press")), killed);
    EXPECT_EQ(workerOf(QStringLiteral("oven")), other);
    EXPECT_EQ(count("oven: station 1"), 1);
    EXPECT_EQ(count("worker of this line ended"), 1);
}

TEST_F(GatewayLinesTest, EndsAndStartsAWorkerThatHangs)
{
    startTwoLines({QLatin1String(kShortHeartbeat)});
    const qint64 stopped = workerOf(QStringLiteral("press"));
    send(stopped, SIGSTOP);
    ASSERT_TRUE(waitForLog(QStringLiteral(
        "press: the worker of this line ended (it did not answer for 2 s); it is started again")))
        << log().toStdString();
    ASSERT_TRUE(waitForConnection("press", 2)) << log().toStdString();
    EXPECT_FALSE(exists(stopped));
    EXPECT_EQ(count("oven: the worker"), 0);
}

TEST_F(GatewayLinesTest, LeavesTheLinesFreeWhenItIsKilled)
{
    startTwoLines();
    const std::vector<qint64> left = workers();
    ASSERT_EQ(left.size(), 2U);
    killGateway();
    for (const qint64 pid : left)
        EXPECT_TRUE(waitUntil([pid] { return !exists(pid); }));
    startGateway();
    for (const char* name : {"press", "oven"})
        EXPECT_TRUE(waitForConnection(name)) << log().toStdString();
}

TEST_F(GatewayLinesTest, LeavesTheLineFreeWhenItIsKilledDuringALongExchange)
{
    startTwoLines();
    const std::vector<qint64> left = workers();
    signalSimulator(QStringLiteral("press"), SIGSTOP);
    ASSERT_TRUE(waitForLog(QStringLiteral("press: station 1: dead"))) << log().toStdString();
    killGateway();
    for (const qint64 pid : left)
        EXPECT_TRUE(waitUntil([pid] { return !exists(pid); }));
    signalSimulator(QStringLiteral("press"), SIGCONT);
}

TEST_F(GatewayLinesTest, GoesOnWhenTheDeviceComesBack)
{
    startTwoLines();
    killSimulator(QStringLiteral("press"));
    ASSERT_TRUE(waitForLog(QStringLiteral("press: line "), 2)) << log().toStdString();
    const int lost = count("press: ");
    startSimulator(QStringLiteral("press"));
    ASSERT_TRUE(waitForConnection("press", 2)) << log().toStdString();
    EXPECT_EQ(count("oven: station 1"), 1);
    EXPECT_LE(count("press: ") - lost, 3) << log().toStdString();
    EXPECT_EQ(count("worker of this line ended"), 0);
}

TEST_F(GatewayLinesTest, StartsWithoutTheDevice)
{
    addLineOnly(QStringLiteral("press"), kTags, kVariables);
    startGateway();
    ASSERT_TRUE(waitForLog(QStringLiteral("press: line "))) << log().toStdString();
    EXPECT_EQ(workers().size(), 1U);
    startSimulator(QStringLiteral("press"));
    EXPECT_TRUE(waitForConnection("press")) << log().toStdString();
}

TEST_F(GatewayLinesTest, ReloadsOnlyTheLinesThatChanged)
{
    startTwoLines();
    const qint64 oven = workerOf(QStringLiteral("oven"));
    const qint64 press = workerOf(QStringLiteral("press"));
    changeProject(QStringLiteral("press"), R"({"name": "Speed", "tag": "Speed"})");
    reloadGateway();
    ASSERT_TRUE(waitForConnection("press", 2)) << log().toStdString();
    EXPECT_EQ(workerOf(QStringLiteral("oven")), oven);
    EXPECT_NE(workerOf(QStringLiteral("press")), press);
    EXPECT_FALSE(exists(press));
    EXPECT_EQ(count("oven: station 1"), 1);
}

TEST_F(GatewayLinesTest, RefusesAWrongConfigurationWholeAndGoesOn)
{
    startTwoLines();
    const std::vector<qint64> before = workers();
    changeProject(QStringLiteral("press"),
                  R"({"name": "Speed", "tag": "Speed", "intervalMs": -1})");
    changeProject(QStringLiteral("oven"), R"({"name": "Level", "tagg": "Level"})");
    reloadGateway();
    EXPECT_EQ(count("intervalMs"), 1) << log().toStdString();
    EXPECT_EQ(count("tagg"), 1);
    EXPECT_EQ(count("the new configuration is refused"), 1);
    EXPECT_EQ(workers(), before);
}

TEST_F(GatewayLinesTest, AddsAndRemovesLines)
{
    startTwoLines();
    const qint64 oven = workerOf(QStringLiteral("oven"));
    const qint64 press = workerOf(QStringLiteral("press"));
    removeLine(QStringLiteral("press"));
    addLine(QStringLiteral("mixer"), kTags, kVariables);
    configure();
    reloadGateway();
    ASSERT_TRUE(waitForConnection("mixer")) << log().toStdString();
    EXPECT_TRUE(waitUntil([&] { return !exists(press); }));
    EXPECT_EQ(workerOf(QStringLiteral("oven")), oven);
    EXPECT_EQ(workers().size(), 2U);
}

TEST_F(GatewayLinesTest, EndsThoughAWorkerHangs)
{
    startTwoLines();
    const qint64 stopped = workerOf(QStringLiteral("press"));
    send(stopped, SIGSTOP);
    EXPECT_EQ(stopGateway(), 0);
    EXPECT_FALSE(exists(stopped));
}
