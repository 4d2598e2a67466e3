#include "program_fixture.h"

#include <QtCore/QFile>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

const int kLimitMs = 120000;

} // namespace

Result runProgram(const QString& program, const QStringList& arguments,
                  const QStringList& environment, const QString& directory)
{
    QProcess process;
    process.setWorkingDirectory(directory);
    if (!environment.isEmpty())
        process.setEnvironment(QProcess::systemEnvironment() + environment);
    process.start(program, arguments, QIODevice::ReadOnly);
    const bool ended = process.waitForFinished(kLimitMs);
    if (!ended) {
        process.kill();
        process.waitForFinished();
    }
    const bool exited = ended && process.exitStatus() == QProcess::NormalExit;
    return {exited ? process.exitCode() : -1, process.readAllStandardOutput().toStdString(),
            process.readAllStandardError().toStdString()};
}

QStringList linesOf(const std::string& text)
{
    QString whole = QString::fromStdString(text);
    if (whole.endsWith('\n'))
        whole.chop(1);
    return whole.isEmpty() ? QStringList() : whole.split('\n');
}

SilentPort::SilentPort() : m_master(posix_openpt(O_RDWR | O_NOCTTY))
{
    EXPECT_GE(m_master, 0);
    EXPECT_EQ(grantpt(m_master), 0);
    EXPECT_EQ(unlockpt(m_master), 0);
    m_path = QString::fromLocal8Bit(ptsname(m_master));
}

SilentPort::~SilentPort()
{
    ::close(m_master);
}

ProgramTest::ProgramTest()
{
    EXPECT_TRUE(m_dir.isValid());
    serve(0);
}

// Puts a device server in front of the station, if the run wants one. It opens the device for each
// client, so that simulators can come and go.
void ProgramTest::serve(int station)
{
    const auto protocol = protocolOfTheRun();
    if (!protocol)
        return;
    DeviceServer::Settings settings;
    settings.protocol = *protocol;
    settings.device = device(station);
    m_servers[station] = std::make_unique<DeviceServer>(settings);
}

DeviceServer* ProgramTest::server() const
{
    const auto found = m_servers.find(0);
    return found == m_servers.end() ? nullptr : found->second.get();
}

QString ProgramTest::device(int station) const
{
    return path(station == 0 ? QStringLiteral("plc") : QStringLiteral("plc.%1").arg(station));
}

QString ProgramTest::port(int station) const
{
    const auto found = m_servers.find(station);
    return found == m_servers.end() ? device(station) : found->second->address();
}

// A raw device server sets the speed itself.
QString ProgramTest::lineText() const
{
    return port().startsWith(QLatin1String("tcp:")) ? port() : port() + ", 38400 8N1";
}

ProgramTest::~ProgramTest()
{
    stopSimulator();
}

void ProgramTest::simulate(const std::string& tags, const QStringList& options)
{
    startSimulator(QStringList{file(QStringLiteral("tags.json"), "{\"tags\": [" + tags + "]}")} +
                   options);
    ASSERT_TRUE(QFile::exists(device()));
}

void ProgramTest::simulatePlant()
{
    startSimulator({QStringLiteral(MICRO850_SOURCE_DIR "/examples/plant.tags.json")});
    ASSERT_TRUE(QFile::exists(device()));
}

void ProgramTest::simulateFrom(const QString& trace)
{
    startSimulator({QStringLiteral("--replay"), trace});
    ASSERT_TRUE(QFile::exists(device()));
}

void ProgramTest::simulateStations(const std::vector<std::string>& tags)
{
    QStringList arguments;
    for (std::size_t i = 0; i < tags.size(); ++i) {
        const QString number = QString::number(i + 1);
        serve(static_cast<int>(i + 1));
        arguments << QStringLiteral("--station")
                  << number + '=' +
                         file("tags" + number + ".json", "{\"tags\": [" + tags[i] + "]}");
    }
    startSimulator(arguments);
    for (int station = 1; station <= static_cast<int>(tags.size()); ++station)
        ASSERT_TRUE(waitForDevice(station));
}

// The simulator prints each device as soon as the device can be opened.
bool ProgramTest::waitForDevice(int station)
{
    while (!QFile::exists(device(station))) {
        if (!m_simulator->waitForReadyRead(kLimitMs))
            return false;
    }
    return true;
}

void ProgramTest::startSimulator(const QStringList& arguments)
{
    m_simulator = std::make_unique<QProcess>();
    m_simulator->start(QStringLiteral(MICRO850_SIM),
                       arguments + QStringList{"--quiet", "--link", device()});
    ASSERT_TRUE(m_simulator->waitForReadyRead(kLimitMs))
        << m_simulator->readAllStandardError().toStdString();
    for (const auto& [station, server] : m_servers) {
        ASSERT_TRUE(server->isRunning() || server->start());
    }
}

void ProgramTest::simulate()
{
    simulate(R"({"name": "Speed", "type": "INT", "value": 1234},
                {"name": "Level", "type": "INT", "length": 10,
                 "value": [10, 11, 12, 13, 14, 15, 16, 17, 18, 19]},
                {"name": "Recipe", "type": "DINT", "length": 20, "value": [70000, -1]},
                {"name": "Setpoint", "type": "REAL", "value": 21.5},
                {"name": "Running", "type": "BOOL", "value": true},
                {"name": "Bits", "type": "WORD", "value": "0x1234"},
                {"name": "Delay", "type": "TIME", "value": 2500},
                {"name": "Name", "type": "SHORT_STRING", "value": "Apple"})");
}

void ProgramTest::commandSimulator(const QByteArray& command) const
{
    m_simulator->write(command + '\n');
    m_simulator->waitForBytesWritten(kLimitMs);
}

// The simulator also prints its devices, which may not have been read yet.
QString statusOf(QProcess& simulator, const QByteArray& command)
{
    simulator.write(command + '\n');
    QByteArray line;
    while (!line.contains(" connections open, ")) {
        if (!simulator.canReadLine() && !simulator.waitForReadyRead(kLimitMs))
            return QStringLiteral("no answer");
        if (simulator.canReadLine())
            line = simulator.readLine();
    }
    return QString::fromLatin1(line).trimmed();
}

QString ProgramTest::simulatorStatus(int station)
{
    return statusOf(*m_simulator,
                    station == 0 ? "status" : "status " + QByteArray::number(station));
}

void ProgramTest::stopSimulator()
{
    if (!m_simulator)
        return;
    m_simulator->terminate();
    if (!m_simulator->waitForFinished(kLimitMs))
        m_simulator->kill();
    m_simulator.reset();
}

void ProgramTest::signalSimulator(int signal) const
{
    ::kill(static_cast<pid_t>(m_simulator->processId()), signal);
}

Result ProgramTest::host(const QStringList& arguments) const
{
    return runProgram(QStringLiteral(MICRO850_HOST), arguments, QStringList(), m_dir.path());
}

Result ProgramTest::hostOnPort(QStringList arguments) const
{
    return host(arguments << QStringLiteral("--port") << port());
}

QString ProgramTest::file(const QString& name, const std::string& text) const
{
    QFile out(path(name));
    EXPECT_TRUE(out.open(QIODevice::WriteOnly));
    out.write(text.c_str(), static_cast<qint64>(text.size()));
    return path(name);
}

std::string ProgramTest::textOf(const QString& name) const
{
    QFile in(path(name));
    EXPECT_TRUE(in.open(QIODevice::ReadOnly)) << name.toStdString();
    return in.readAll().toStdString();
}
