// micro850-host with ser2net between it and the simulated controller: raw TCP and RFC 2217.

#include "program_fixture.h"
#include "simulator_thread.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QSet>
#include <QtCore/QThread>

#include <array>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using Protocol = DeviceServer::Protocol;

const int kLimitMs = 120000;

/// micro850-host while it runs. Each wait ends when what it waits for is there, or fails after a
/// limit that only a fault reaches.
class RunningHost
{
public:
    explicit RunningHost(const QStringList& arguments)
    {
        m_process.start(QStringLiteral(MICRO850_HOST), arguments, QIODevice::ReadOnly);
        EXPECT_TRUE(m_process.waitForStarted(kLimitMs));
    }
    ~RunningHost()
    {
        m_process.kill();
        m_process.waitForFinished(kLimitMs);
    }
    RunningHost(const RunningHost&) = delete;
    RunningHost& operator=(const RunningHost&) = delete;

    template<typename Condition> bool runsUntil(Condition condition)
    {
        const QDeadlineTimer limit(kLimitMs);
        for (;;) {
            m_out += m_process.readAllStandardOutput();
            m_err += m_process.readAllStandardError();
            if (condition())
                return true;
            if (limit.hasExpired())
                return false;
            m_process.waitForReadyRead(20);
        }
    }
    bool says(const char* text)
    {
        return runsUntil([&] { return m_err.contains(text); });
    }
    /// Waits until both variables have a value of this quality after the first `after` values.
    bool prints(const char* quality, int after = 0)
    {
        return runsUntil([&] {
            QSet<QString> names;
            for (const QJsonObject& value : values().mid(after)) {
                if (value["quality"].toString() == QLatin1String(quality))
                    names.insert(value["name"].toString());
            }
            return names.size() == 2;
        });
    }
    /// Everything that `poll --json` has printed so far.
    QList<QJsonObject> values() const
    {
        QList<QJsonObject> found;
        for (const QByteArray& line : m_out.left(m_out.lastIndexOf('\n') + 1).split('\n')) {
            const QJsonObject object = QJsonDocument::fromJson(line).object();
            if (object.contains("quality"))
                found += object;
        }
        return found;
    }
    int count() const { return values().size(); }
    const QByteArray& messages() const { return m_err; }
    /// Ends the program as a user does and returns its exit status.
    int end()
    {
        ::kill(static_cast<pid_t>(m_process.processId()), SIGINT);
        return m_process.waitForFinished(kLimitMs) ? m_process.exitCode() : -1;
    }

private:
    QProcess m_process;
    QByteArray m_out;
    QByteArray m_err;
};

/// A connection that is cut after some bytes from the server, again and again.
class CuttingProxy
{
public:
    /// Passes each connection on to `port` and cuts the first ones after so many bytes.
    CuttingProxy(int port, std::vector<int> cuts) : m_target(port), m_cuts(std::move(cuts))
    {
        sockaddr_in address = loopback(0);
        socklen_t size = sizeof address;
        m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::bind(m_listener, reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(m_listener, 4), 0);
        EXPECT_EQ(::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { run(); });
    }
    ~CuttingProxy()
    {
        m_stop = true;
        m_thread.join();
        ::close(m_listener);
    }
    CuttingProxy(const CuttingProxy&) = delete;
    CuttingProxy& operator=(const CuttingProxy&) = delete;

    int port() const { return m_port; }
    /// How many connections it has cut.
    int cut() const { return m_cut; }

private:
    static sockaddr_in loopback(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<quint16>(port));
        return address;
    }
    bool waitFor(int one, int other)
    {
        std::array<pollfd, 2> waits = {pollfd{one, POLLIN, 0}, pollfd{other, POLLIN, 0}};
        return ::poll(waits.data(), waits.size(), 20) > 0;
    }
    void run()
    {
        while (!m_stop) {
            if (!waitFor(m_listener, -1))
                continue;
            const int host = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const sockaddr_in address = loopback(m_target);
            if (::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
                pass(host, server);
            ::close(server);
            ::close(host);
        }
    }
    void pass(int host, int server)
    {
        const bool isToBeCut = m_cut < static_cast<int>(m_cuts.size());
        int left = isToBeCut ? m_cuts[static_cast<size_t>(m_cut)] : -1;
        std::array<char, 4096> buffer;
        while (!m_stop && left != 0) {
            if (!waitFor(host, server))
                continue;
            const ssize_t sent = ::recv(host, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (sent == 0 || (sent > 0 && ::send(server, buffer.data(), static_cast<size_t>(sent),
                                                 MSG_NOSIGNAL) != sent))
                return;
            const size_t most = left < 0 ? buffer.size() : static_cast<size_t>(left);
            const ssize_t got = ::recv(server, buffer.data(), most, MSG_DONTWAIT);
            if (got == 0 || (got > 0 && ::send(host, buffer.data(), static_cast<size_t>(got),
                                               MSG_NOSIGNAL) != got))
                return;
            if (left > 0 && got > 0)
                left -= static_cast<int>(got);
        }
        if (left == 0)
            ++m_cut;
    }

    int m_target;
    std::vector<int> m_cuts;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<int> m_cut{0};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class DeviceServerTest : public ProgramTest, public ::testing::WithParamInterface<Protocol>
{
protected:
    /// A server in front of the simulator's pseudo-terminal. It is started, unless told otherwise.
    DeviceServer& serve(bool started = true)
    {
        DeviceServer::Settings settings;
        settings.protocol = GetParam();
        settings.device = device();
        m_server = std::make_unique<DeviceServer>(settings);
        EXPECT_TRUE(!started || m_server->start());
        return *m_server;
    }
    /// A counter, which never goes back, and a number of which every byte is special to some layer.
    void simulateCounter()
    {
        simulate(R"({"name": "Count", "type": "DINT",
                     "motion": {"kind": "counter", "min": 0, "max": 2000000000, "period": 0.02}},
                    {"name": "Special", "type": "UDINT", "value": 4279177471})"); // FF 10 0F FF
    }
    QString project(const QString& address) const
    {
        return file("p.json", R"({"port": {"device": ")" + address.toStdString() +
                                  R"("}, "variables": [{"tag": "Count", "type": "DINT"},
                                                       {"tag": "Special", "type": "UDINT"}]})");
    }
    /// Every value that was printed is one that the controller had, in the controller's order.
    static void expectThatNoValueIsWrong(const RunningHost& host)
    {
        qint64 last = 0;
        for (const QJsonObject& value : host.values()) {
            const auto number = static_cast<qint64>(value["value"].toDouble());
            if (value["name"].toString() == "Special") {
                EXPECT_EQ(number, 4279177471);
            } else {
                EXPECT_GE(number, last);
                EXPECT_LT(number, last + 60 * 100) << "two minutes";
                last = number;
            }
        }
    }

    std::unique_ptr<DeviceServer> m_server;
};

// The bytes that telnet, DF1 or a terminal's driver could change, in each other's neighbourhood.
const std::vector<int> kSpecialBytes = {
    255, 255, 16, 255, 240, 255, 250, 13, 0,   13, 10, 10, 13, 13, 16,  16,  3,   16, 2,  17,
    19,  0,   3,  4,   26,  28,  127, 8,  255, 16, 0,  16, 6,  16, 255, 251, 255, 44, 16, 5};

// The lines with one blank between two columns.
QStringList withoutColumns(const std::string& text)
{
    QStringList lines = linesOf(text);
    for (QString& line : lines)
        line = line.simplified();
    return lines;
}

TEST_P(DeviceServerTest, PassesEveryByteOfAValueBothWays)
{
    QStringList initial;
    QStringList expected;
    for (int i = 0; i < 256; ++i) {
        initial << QString::number(i);
        expected << QStringLiteral("All[%1] USINT %1").arg(i);
    }
    QStringList targets;
    for (size_t i = 0; i < kSpecialBytes.size(); ++i)
        targets << QStringLiteral("Special[%1]=%2").arg(i).arg(kSpecialBytes[i]);
    simulate(R"({"name": "All", "type": "USINT", "length": 256, "value": [)" +
             initial.join(',').toStdString() +
             R"(]}, {"name": "Special", "type": "USINT", "length": 40},
                {"name": "Long", "type": "DINT", "length": 200}, {"name": "Real", "type": "LREAL"})");
    const QString address = serve().address();

    const Result read = host({"read", "All[0..255]", "--port", address});
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(withoutColumns(read.out), expected);
    const Result written =
        host(QStringList{"write"} + targets +
             QStringList{"Long[0..199]=-1", "Real=-5.486124068793689e303", "--port", address});
    EXPECT_EQ(written.status, 0) << written.err;

    // On the terminal itself, what has arrived.
    m_server->stop();
    const Result there =
        host({"read", "Special[0..39]", "Long[0..199]", "Real", "--port", device()});
    QStringList arrived;
    for (size_t i = 0; i < kSpecialBytes.size(); ++i)
        arrived << QStringLiteral("Special[%1] USINT %2").arg(i).arg(kSpecialBytes[i]);
    for (int i = 0; i < 200; ++i)
        arrived << QStringLiteral("Long[%1] DINT -1").arg(i);
    arrived << QStringLiteral("Real LREAL -5.486124068793689e+303");
    EXPECT_EQ(withoutColumns(there.out), arrived) << there.err;
}

TEST_P(DeviceServerTest, MayBeRestartedWhileAHostPolls)
{
    simulateCounter();
    RunningHost host({"poll", project(serve().address()), "--json"});
    ASSERT_TRUE(host.prints("good"));
    m_server->stop();
    ASSERT_TRUE(host.prints("stale"));
    EXPECT_TRUE(host.says("DOWN"));
    const int before = host.count();
    ASSERT_TRUE(m_server->start());
    ASSERT_TRUE(host.prints("good", before)) << host.messages().toStdString();
    EXPECT_EQ(host.end(), 0);
    expectThatNoValueIsWrong(host);
}

TEST_P(DeviceServerTest, MayBeRestartedWhileAHostRecords)
{
    simulateCounter();
    const QString project = this->project(serve().address());
    {
        RunningHost host({"log", project, "--csv", path("log.csv")});
        const auto recorded = [this](const char* quality, qint64 from) {
            QFile log(path("log.csv"));
            QSet<QString> names;
            if (log.open(QIODevice::ReadOnly) && log.seek(from)) {
                for (const QString& row : linesOf(log.readAll().toStdString())) {
                    if (row.section(',', 8, 8) == QLatin1String(quality))
                        names.insert(row.section(',', 1, 1));
                }
            }
            return names.size() == 2;
        };
        ASSERT_TRUE(host.runsUntil([&] { return recorded("good", 0); }));
        m_server->stop();
        ASSERT_TRUE(host.runsUntil([&] { return recorded("stale", 0); }));
        const qint64 before = QFileInfo(path("log.csv")).size();
        ASSERT_TRUE(m_server->start());
        ASSERT_TRUE(host.runsUntil([&] { return recorded("good", before); }))
            << host.messages().toStdString();
        EXPECT_EQ(host.end(), 0);
    }
    qint64 last = 0;
    for (const QString& row : linesOf(textOf("log.csv")).mid(1)) {
        const qint64 number = row.section(',', 6, 6).toLongLong();
        if (row.section(',', 1, 1) == "Special") {
            EXPECT_EQ(number, 4279177471) << row.toStdString();
        } else {
            EXPECT_GE(number, last) << row.toStdString();
            last = number;
        }
    }
    EXPECT_GT(last, 0);
}

TEST_P(DeviceServerTest, LetsTheHostComeBackToAControllerThatWasRestarted)
{
    simulate(R"({"name": "Count", "type": "DINT", "value": 1111},
                {"name": "Special", "type": "UDINT", "value": 4279177471})");
    RunningHost host({"poll", project(serve().address()), "--json"});
    ASSERT_TRUE(host.prints("good"));
    stopSimulator();
    ASSERT_TRUE(host.prints("stale"));
    const int before = host.count();
    simulate(R"({"name": "Count", "type": "DINT", "value": 2222},
                {"name": "Special", "type": "UDINT", "value": 4279177471})");
    ASSERT_TRUE(host.prints("good", before)) << host.messages().toStdString();
    EXPECT_EQ(host.end(), 0);
    std::set<qint64> seen;
    for (const QJsonObject& value : host.values())
        seen.insert(static_cast<qint64>(value["value"].toDouble()));
    EXPECT_EQ(seen, (std::set<qint64>{1111, 2222, 4279177471}));
}

TEST_P(DeviceServerTest, ThatDoesNotRunRefusesTheConnection)
{
    const DeviceServer& server = serve(false);
    const QString port = QString::number(server.port());
    for (const char* const command : {"read", "watch"}) {
        const Result result = host({command, "Speed", "--port", server.address()});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(linesOf(result.err),
                  QStringList("micro850-host: " + server.address() +
                              ": cannot be opened: 127.0.0.1:" + port +
                              " refuses the connection (does the device server run there, on "
                              "this port?)"));
    }
}

TEST_P(DeviceServerTest, TellsASecondClientThatTheLineIsInUseAndServesTheFirst)
{
    simulateCounter();
    RunningHost first({"poll", project(serve().address()), "--json"});
    ASSERT_TRUE(first.prints("good"));
    const Result second = host({"read", "Count", "--port", m_server->address()});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(linesOf(second.err).size(), 1) << second.err;
    EXPECT_NE(second.err.find("another client uses it"), std::string::npos) << second.err;
    const int before = first.count();
    EXPECT_TRUE(first.runsUntil([&] { return first.count() > before; })) << "the counter goes on";
    EXPECT_FALSE(first.messages().contains("DOWN")) << first.messages().toStdString();
    EXPECT_EQ(first.end(), 0);
    for (const QJsonObject& value : first.values())
        EXPECT_EQ(value["quality"].toString(), QString("good"));
    expectThatNoValueIsWrong(first);
    const Result third = host({"read", "Special", "--port", m_server->address()});
    EXPECT_EQ(third.out, "Special  UDINT  4279177471\n") << third.err;
}

TEST_P(DeviceServerTest, MayStandStillForThreeSeconds)
{
    simulateCounter();
    RunningHost host({"poll", project(serve().address()), "--json"});
    ASSERT_TRUE(host.prints("good"));
    m_server->stall();
    QThread::sleep(3);
    ASSERT_TRUE(host.prints("stale"));
    const int before = host.count();
    m_server->resume();
    ASSERT_TRUE(host.prints("good", before)) << host.messages().toStdString();
    EXPECT_FALSE(host.messages().contains("DOWN")) << "the connection held\n"
                                                   << host.messages().toStdString();
    EXPECT_EQ(host.end(), 0);
    expectThatNoValueIsWrong(host);
}

TEST_P(DeviceServerTest, LetsTheHostComeBackToAControllerThatStoodStillForThreeSeconds)
{
    simulateCounter();
    RunningHost host({"poll", project(serve().address()), "--json"});
    ASSERT_TRUE(host.prints("good"));
    signalSimulator(SIGSTOP);
    QThread::sleep(3);
    ASSERT_TRUE(host.prints("stale"));
    const int before = host.count();
    signalSimulator(SIGCONT);
    ASSERT_TRUE(host.prints("good", before)) << host.messages().toStdString();
    EXPECT_EQ(host.end(), 0);
    expectThatNoValueIsWrong(host);
}

// In the identity, in the reply to a connection request and in a value; the telnet negotiation adds
// bytes of its own before them.
TEST_P(DeviceServerTest, MayCutTheConnectionInTheMiddleOfAReply)
{
    simulateCounter();
    CuttingProxy proxy(serve().port(), {30, 111, 150, 1000});
    const QString address =
        m_server->address().section(':', 0, 1) + ':' + QString::number(proxy.port());
    RunningHost host({"poll", project(address), "--json"});
    ASSERT_TRUE(host.runsUntil([&] { return proxy.cut() == 4; }))
        << proxy.cut() << host.messages().toStdString();
    const int before = host.count();
    ASSERT_TRUE(host.prints("good", before)) << host.messages().toStdString();
    EXPECT_EQ(host.end(), 0);
    expectThatNoValueIsWrong(host);
}

TEST_P(DeviceServerTest, ShowsInATraceTheBytesOfTheLineAndNoOthers)
{
    simulateCounter();
    EXPECT_EQ(
        host({"read", "Special", "--port", serve().address(), "--trace", path("t.txt")}).status, 0);
    const Result trace = host({"trace", path("t.txt")});
    EXPECT_EQ(trace.status, 0) << trace.err;
    for (const QString& line : linesOf(trace.out)) {
        const bool isMessage = line.contains("Z > ") || line.contains("Z < ");
        EXPECT_TRUE(!isMessage || line.contains(" TNS ") || line.contains(" ACK"))
            << line.toStdString();
    }
    EXPECT_NE(trace.out.find("requests 5, answered 5, without an answer 0, "), std::string::npos)
        << trace.out;
    EXPECT_NE(trace.out.find("corrupt 0\n"), std::string::npos) << trace.out;
    const Result raw = runProgram("grep", {"-c", "FF 10 10 0F FF 10 03", path("t.txt")});
    EXPECT_EQ(raw.out, "2\n") << "the value, with the doubling of DF1 and no other";
}

std::string nameOf(const ::testing::TestParamInfo<Protocol>& protocol)
{
    return protocol.param == Protocol::Raw ? "Raw" : "Rfc2217";
}

INSTANTIATE_TEST_SUITE_P(Over, DeviceServerTest,
                         ::testing::Values(Protocol::Raw, Protocol::Rfc2217), nameOf);

/// A controller that understands only one speed.
class SpeedTest : public ProgramTest
{
protected:
    SpeedTest()
        : m_simulator(
              file("tags.json", R"({"tags": [{"name": "Speed", "type": "INT", "value": 7}]})")
                  .toStdString(),
              device().toStdString()),
          m_server({Protocol::Rfc2217, device(), 1200, false})
    {
        EXPECT_TRUE(m_server.start());
    }

    SimulatorThread m_simulator;
    DeviceServer m_server;
};

TEST_F(SpeedTest, IsSetAtTheFarEndWithRfc2217)
{
    m_simulator.listenOnlyAt(B115200);
    const Result right = host({"read", "Speed", "--port", m_server.address(), "--baud", "115200"});
    EXPECT_EQ(right.out, "Speed  INT  7\n") << right.err;
    const Result wrong = host({"read", "Speed", "--port", m_server.address(), "--baud", "57600"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.out, "");
    const QString project =
        file("p.json", R"({"port": {"device": ")" + m_server.address().toStdString() +
                           R"(", "baud": 115200}, "variables": [{"tag": "Speed"}]})");
    const Result named = host({"read", "Speed", "--project", project});
    EXPECT_EQ(named.out, "Speed  INT  7\n") << named.err;
}

TEST_F(SpeedTest, IsFoundByAScanWithRfc2217)
{
    m_simulator.listenOnlyAt(B57600);
    const Result result =
        host({"probe", "--scan", "--json", "--timeout", "200", "--port", m_server.address()});
    EXPECT_EQ(result.status, 0) << result.err;
    QStringList lines = linesOf(result.out);
    ASSERT_FALSE(lines.isEmpty());
    EXPECT_TRUE(lines.last().contains(R"("baud":57600,"answered":true,"vendor":4660)"))
        << result.out;
    lines.removeLast();
    for (const QString& line : lines)
        EXPECT_TRUE(line.contains(R"("answered":false)")) << line.toStdString();
}

TEST_F(SpeedTest, CannotBeSetAtAServerThatPassesBytesOnAsTheyAre)
{
    m_simulator.listenOnlyAt(B1200);
    DeviceServer raw({Protocol::Raw, device(), 1200, false});
    ASSERT_TRUE(raw.start());
    const Result read = host({"read", "Speed", "--port", raw.address()});
    EXPECT_EQ(read.out, "Speed  INT  7\n") << read.err;
    const Result scan = host({"probe", "--scan", "--port", raw.address()});
    EXPECT_EQ(scan.status, 2);
    EXPECT_EQ(linesOf(scan.err).size(), 1) << scan.err;
    EXPECT_NE(scan.err.find("sets the speed itself"), std::string::npos) << scan.err;
}

TEST_F(SpeedTest, IsNotAskedOfAServerOfTheOtherProtocol)
{
    DeviceServer raw({Protocol::Raw, device(), 1200, false});
    ASSERT_TRUE(raw.start());
    const QString rawPlace = "127.0.0.1:" + QString::number(raw.port());
    const Result telnet = host({"read", "Speed", "--port", "rfc2217://" + rawPlace});
    EXPECT_EQ(telnet.status, 1);
    EXPECT_EQ(linesOf(telnet.err).size(), 1) << telnet.err;
    EXPECT_NE(telnet.err.find("(use tcp://" + rawPlace.toStdString() + ")"), std::string::npos)
        << telnet.err;
    const QString place = "127.0.0.1:" + QString::number(m_server.port());
    const Result plain = host({"read", "Speed", "--port", "tcp://" + place});
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(linesOf(plain.err).size(), 1) << plain.err;
    EXPECT_NE(plain.err.find("speaks telnet (use rfc2217://" + place.toStdString()),
              std::string::npos)
        << plain.err;
}

} // namespace
