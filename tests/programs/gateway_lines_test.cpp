// Workers, their supervision and the reload, with real processes.

#include "gateway_fixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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
    // How many messages its controller got.
    int messagesOf(const QString& name)
    {
        const QStringList words = simulatorStatus(name).split(' ');
        const int at = words.indexOf(QRegularExpression(QStringLiteral("messages?,")));
        EXPECT_GT(at, 0);
        return words.value(at - 1).toInt();
    }
    static bool exists(qint64 pid) { return ::kill(static_cast<pid_t>(pid), 0) == 0; }
    static void send(qint64 pid, int signal)
    {
        ASSERT_GT(pid, 0);
        ::kill(static_cast<pid_t>(pid), signal);
    }
};

const char kWritable[] = R"({"name": "Speed", "tag": "Speed", "writable": true},
                            {"name": "Level", "tag": "Level", "intervalMs": 100})";

bool isStale(const GatewayClient::Json& value)
{
    return value["quality"] == "stale";
}

bool isGood(const GatewayClient::Json& value)
{
    return value["quality"] == "good";
}

/// The datagrams that a service manager gets.
class NoticeSocket
{
public:
    explicit NoticeSocket(const QString& path)
        : m_socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const QByteArray name = path.toLocal8Bit();
        std::copy(name.begin(), name.end(), std::begin(address.sun_path));
        EXPECT_EQ(::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~NoticeSocket() { ::close(m_socket); }
    NoticeSocket(const NoticeSocket&) = delete;
    NoticeSocket& operator=(const NoticeSocket&) = delete;

    /// Waits until so many datagrams with this text came.
    bool waitFor(const std::string& text, int times = 1)
    {
        return waitUntil([&] {
            std::array<char, 4096> bytes = {};
            for (ssize_t got = 0;
                 (got = ::recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0;)
                m_all.emplace_back(bytes.data(), static_cast<std::size_t>(got));
            return std::count_if(m_all.begin(), m_all.end(), [&](const std::string& one) {
                       return one.find(text) != std::string::npos;
                   }) >= times;
        });
    }
    const std::vector<std::string>& all() const { return m_all; }

private:
    int m_socket;
    std::vector<std::string> m_all;
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

TEST_F(GatewayLinesTest, TakesOverTypesThatAnotherProgramOfTheControllerHas)
{
    startTwoLines();
    const auto client = connect();
    client->send({{"request", "subscribe"}, {"line", "press"}});
    EXPECT_EQ(client->value("Speed", isGood)["type"], "INT");
    file(QStringLiteral("press.tags.json"),
         R"({"tags": [{"name": "Speed", "type": "REAL", "value": 2.5},
                                                          {"name": "Level", "type": "REAL"}]})");
    signalSimulator(QStringLiteral("press"), SIGHUP);
    const GatewayClient::Json value = client->value("Speed", [](const GatewayClient::Json& told) {
        return isGood(told) && told["type"] == "REAL";
    });
    EXPECT_EQ(value["value"], 2.5) << log().toStdString();
    EXPECT_TRUE(log().contains(QStringLiteral("the type of \"Speed\" changed")));
    EXPECT_EQ(count("oven: the worker"), 0);
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

TEST_F(GatewayLinesTest, TellsSubscribersAtOnceWhyValuesAreStale)
{
    startTwoLines();
    const auto client = connect();
    client->request({{"request", "subscribe"}});
    const auto other = connect();
    other->request({{"request", "subscribe"}, {"line", "oven"}});
    ASSERT_TRUE(client->value("Speed", isGood).is_object());
    send(workerOf(QStringLiteral("press")), SIGKILL);
    const GatewayClient::Json stale = client->value("Speed", isStale);
    EXPECT_EQ(stale["line"], "press");
    EXPECT_EQ(stale["value"], 1234);
    EXPECT_EQ(stale["error"],
              "the worker of this line ended (signal 9); it is started again in 1 s");
    const GatewayClient::Json good = client->value(
        "Speed", [](const auto& value) { return value["line"] == "press" && isGood(value); });
    EXPECT_FALSE(good.contains("error"));
    // Nothing of that concerned the other line.
    other->request({{"request", "hello"}, {"client", "test"}});
    EXPECT_EQ(other->waiting([](const GatewayClient::Json& message) {
        return message.dump().find("stale") != std::string::npos;
    }),
              0);
}

TEST_F(GatewayLinesTest, SaysThatNobodyKnowsTheOutcomeOfAWriteWhoseWorkerDied)
{
    addLine(QStringLiteral("press"), kTags, kWritable);
    startGateway();
    ASSERT_TRUE(waitForConnection("press"));
    const auto client = connect();
    ASSERT_EQ(client->request({{"request", "write"}, {"name", "Speed"}, {"value", 5}})["outcome"],
              "written");
    const qint64 worker = workerOf(QStringLiteral("press"));
    send(worker, SIGSTOP);
    const int first = client->send({{"request", "write"}, {"name", "Speed"}, {"value", 6}});
    const int second = client->send({{"request", "write"}, {"name", "Speed"}, {"value", 7}});
    // The requests have arrived when a later one is answered. The service hands the first one over
    // in its next turn, which is over with a further answer.
    for (int turn = 0; turn < 3; ++turn)
        client->request({{"request", "read"}, {"names", {"Speed"}}});
    send(worker, SIGKILL);
    EXPECT_EQ(client->reply(first)["error"]["code"], "unknown-outcome");
    EXPECT_EQ(client->reply(second)["error"]["code"], "unreachable");
    ASSERT_TRUE(waitForConnection("press", 2)) << log().toStdString();
    const GatewayClient::Json after =
        client->request({{"request", "read"}, {"names", {"Speed"}}, {"fresh", true}});
    EXPECT_EQ(after["values"][0]["value"], 5) << after.dump();
}

TEST_F(GatewayLinesTest, NeverWritesForAClientThatWentAway)
{
    addLine(QStringLiteral("press"), kTags, kWritable);
    startGateway();
    ASSERT_TRUE(waitForConnection("press"));
    const auto reader = connect();
    reader->request({{"request", "read"}, {"names", {"Speed"}}, {"fresh", true}});
    const qint64 worker = workerOf(QStringLiteral("press"));
    send(worker, SIGSTOP);
    {
        const auto writer = connect();
        for (int value = 1; value <= 5; ++value)
            writer->send({{"request", "write"}, {"name", "Speed"}, {"value", value}});
        writer->request({{"request", "hello"}, {"client", "test"}});
    }
    // The service has noticed that the writer is gone.
    EXPECT_TRUE(waitUntil([&] {
        return reader->request({{"request", "status"}})["clients"] == 1;
    }));
    send(worker, SIGCONT);
    const GatewayClient::Json after =
        reader->request({{"request", "read"}, {"names", {"Speed"}}, {"fresh", true}});
    EXPECT_EQ(after["values"][0]["value"], 1234) << after.dump();
}

TEST_F(GatewayLinesTest, ServesOtherLinesWithoutAGapWhileItIsReloadedAgainAndAgain)
{
    startTwoLines();
    const auto client = connect();
    client->request({{"request", "subscribe"}, {"line", "oven"}});
    client->value("Speed", isGood);
    const qint64 oven = workerOf(QStringLiteral("oven"));
    for (int i = 0; i < 10; ++i) {
        changeProject(QStringLiteral("press"),
                      i % 2 ? kVariables : R"({"name": "Speed", "tag": "Speed"})");
        reloadGateway();
        const GatewayClient::Json read =
            client->request({{"request", "read"}, {"line", "oven"}, {"names", {"Speed"}}});
        EXPECT_EQ(read["values"][0]["quality"], "good") << read.dump();
    }
    EXPECT_EQ(client->waiting([](const GatewayClient::Json& message) {
        return message.dump().find("stale") != std::string::npos;
    }),
              0);
    EXPECT_EQ(workerOf(QStringLiteral("oven")), oven);
    EXPECT_TRUE(waitUntil([this] { return workers().size() == 2; }));
    EXPECT_TRUE(waitUntil([&] {
        const GatewayClient::Json read =
            client->request({{"request", "read"}, {"line", "press"}, {"names", {"Speed"}}});
        return read["values"][0]["quality"] == "good";
    }));
}

TEST_F(GatewayLinesTest, KeepsItsWorkersWhenItStoodStillItself)
{
    startTwoLines({QLatin1String(kShortHeartbeat)});
    const std::vector<qint64> before = workers();
    const int limitMs = 2000;
    const QString press = QStringLiteral("press");
    signalGateway(SIGSTOP);
    // Meanwhile the worker goes on reading. It ends when it has done so for longer than the time
    // after which a silent worker is ended.
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(waitUntil([&] {
        const int first = messagesOf(press);
        return waitUntil([&] { return messagesOf(press) > first; }) && timer.hasExpired(limitMs);
    }));
    signalGateway(SIGCONT);
    const auto client = connect();
    client->request(
        {{"request", "read"}, {"line", "press"}, {"names", {"Speed"}}, {"fresh", true}});
    EXPECT_EQ(workers(), before);
    EXPECT_EQ(count("the worker of this line ended"), 0);
}

// All stations of a line are one controller: the number is not on the wire.
TEST_F(GatewayLinesTest, ServesSeveralStationsOfALineAndSaysWhichOneIsDisabled)
{
    addLine(QStringLiteral("press"), kTags, kVariables);
    file(QStringLiteral("press.json"),
         R"({"port": {"device": ")" + device(QStringLiteral("press")).toStdString() +
             R"("}, "stations": [{"number": 1}, {"number": 5, "name": "filler"},
                 {"number": 9, "enabled": false}], "variables": [
                 {"name": "Near", "tag": "Speed"},
                 {"name": "Far", "tag": "Speed", "station": 5, "writable": true},
                 {"name": "Off", "tag": "Level", "station": 9}]})");
    startGateway();
    const auto client = connect();
    client->request({{"request", "subscribe"}});
    EXPECT_EQ(client->value("Near", isGood)["station"], 1);
    const GatewayClient::Json far = client->value("Far", isGood);
    EXPECT_EQ(far["value"], 1234);
    EXPECT_EQ(far["station"], 5);
    ASSERT_TRUE(waitForConnection("press")) << log().toStdString();
    ASSERT_TRUE(waitForLog(QStringLiteral("press: station 5: connected"))) << log().toStdString();
    const auto read = [&client](const char* name, bool isFresh) {
        return client->request({{"request", "read"}, {"names", {name}}, {"fresh", isFresh}});
    };
    const GatewayClient::Json off = read("Off", false)["values"][0];
    EXPECT_EQ(off["quality"], "never");
    EXPECT_NE(off["error"].get<std::string>().find("disabled"), std::string::npos) << off.dump();
    EXPECT_EQ(read("Off", true)["error"]["code"], "unreachable");
    const GatewayClient::Json written =
        client->request({{"request", "write"}, {"name", "Far"}, {"value", 77}});
    EXPECT_EQ(written["outcome"], "written") << written.dump();
    EXPECT_EQ(client->value("Far", [](const auto& value) { return value["value"] == 77; })["line"],
              "press");
    EXPECT_TRUE(
        client->value("Near", [](const auto& value) { return value["value"] == 77; }).is_object());
    GatewayClient::Json stations;
    // The worker tells it once a second.
    EXPECT_TRUE(waitUntil([&] {
        stations = client->request({{"request", "status"}})["lines"][0]["stations"];
        return stations.size() == 3 && stations[0]["state"] == "connected" &&
               stations[1]["state"] == "connected";
    })) << stations.dump();
    ASSERT_EQ(stations.size(), 3U) << stations.dump();
    EXPECT_EQ(stations[2]["state"], "disabled");
    EXPECT_EQ(stations[2]["sent"], 0);
}

TEST_F(GatewayLinesTest, TellsTheServiceManagerHowItDoes)
{
    const QString path = this->path(QStringLiteral("notice"));
    NoticeSocket manager(path);
    addLineOnly(QStringLiteral("press"), kTags, kVariables); // ready also without the device
    startGateway({QStringLiteral("NOTIFY_SOCKET=") + path, QStringLiteral("WATCHDOG_USEC=600000")});
    EXPECT_TRUE(manager.waitFor("READY=1"));
    EXPECT_TRUE(manager.waitFor("STATUS=0 of 1 line up"));
    startSimulator(QStringLiteral("press"));
    EXPECT_TRUE(manager.waitFor("STATUS=1 of 1 line up"));
    EXPECT_TRUE(manager.waitFor("WATCHDOG=1", 3));
    reloadGateway();
    EXPECT_TRUE(manager.waitFor("RELOADING=1\nMONOTONIC_USEC="));
    EXPECT_TRUE(manager.waitFor("READY=1", 2));
    EXPECT_EQ(stopGateway(), 0);
    EXPECT_TRUE(manager.waitFor("STOPPING=1"));
}

TEST_F(GatewayLinesTest, WritesPrioritiesForTheJournal)
{
    struct stat log = {};
    addLine(QStringLiteral("press"), kTags, kVariables);
    const QString file = path(QStringLiteral("journal"));
    // A shell opens the file, so that its numbers are known before the gateway starts.
    const int descriptor =
        ::open(file.toLocal8Bit().constData(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ASSERT_EQ(::fstat(descriptor, &log), 0);
    ::close(descriptor);
    QProcess gateway;
    gateway.setStandardErrorFile(file);
    gateway.setEnvironment(
        QProcess::systemEnvironment()
        << QStringLiteral("JOURNAL_STREAM=%1:%2").arg(log.st_dev).arg(log.st_ino));
    gateway.start(QStringLiteral(MICRO850_GATEWAY), {configure()});
    const auto text = [&] {
        QFile in(file);
        EXPECT_TRUE(in.open(QIODevice::ReadOnly));
        return QString::fromUtf8(in.readAll());
    };
    EXPECT_TRUE(waitUntil([&] {
        return text().contains(QStringLiteral("<6>press: station 1: connected"));
    })) << text().toStdString();
    killSimulator(QStringLiteral("press"));
    EXPECT_TRUE(waitUntil([&] { return text().contains(QStringLiteral("<4>press: line ")); }));
    gateway.terminate();
    EXPECT_TRUE(gateway.waitForFinished(kGatewayLimitMs));
}
