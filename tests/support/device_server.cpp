#include "device_server.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QThread>

#include <csignal>
#include <gtest/gtest.h>

namespace {

const int kLimitMs = 60000;

} // namespace

void PrintTo(DeviceServer::Protocol protocol, std::ostream* out)
{
    *out << (protocol == DeviceServer::Protocol::Raw ? "tcp" : "rfc2217");
}

DeviceServer::DeviceServer(const Settings& settings) : m_settings(settings)
{
    EXPECT_TRUE(m_dir.isValid());
}

DeviceServer::~DeviceServer()
{
    stop();
}

QString DeviceServer::address() const
{
    const char* const scheme = m_settings.protocol == Protocol::Raw ? "tcp" : "rfc2217";
    return QStringLiteral("%1://127.0.0.1:%2").arg(QLatin1String(scheme)).arg(port());
}

bool DeviceServer::start()
{
    QFile configuration(m_dir.filePath(QStringLiteral("ser2net.yaml")));
    EXPECT_TRUE(configuration.open(QIODevice::WriteOnly));
    configuration.write(
        QStringLiteral("%YAML 1.1\n---\n"
                       "connection: &line\n"
                       "    accepter: %1tcp,127.0.0.1,%2\n"
                       "    connector: \"serialdev(nouucplock),%3,%4n81,local\"\n"
                       "    options:\n"
                       "        kickolduser: %5\n")
            .arg(QLatin1String(m_settings.protocol == Protocol::Raw ? "" : "telnet(rfc2217),"))
            .arg(port())
            .arg(m_settings.device)
            .arg(m_settings.baud)
            .arg(QLatin1String(m_settings.newClientReplacesOld ? "true" : "false"))
            .toLocal8Bit());
    configuration.close();
    m_process = std::make_unique<QProcess>();
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    // In the foreground; Debian has it where only root looks for programs.
    m_process->start(QStringLiteral("/usr/sbin/ser2net"),
                     {QStringLiteral("-n"), QStringLiteral("-c"), configuration.fileName()});
    if (!m_process->waitForStarted(kLimitMs)) {
        ADD_FAILURE() << "ser2net does not start (scripts/setup test installs it)";
        m_process.reset();
        return false;
    }
    const QDeadlineTimer limit(kLimitMs);
    while (!listens() && !limit.hasExpired()) {
        if (m_process->waitForFinished(10))
            break;
    }
    EXPECT_TRUE(listens()) << m_process->readAll().toStdString();
    return listens();
}

void DeviceServer::stop()
{
    if (!m_process)
        return;
    resume();
    m_process->terminate();
    if (!m_process->waitForFinished(kLimitMs)) {
        m_process->kill();
        m_process->waitForFinished();
    }
    m_process.reset();
}

void DeviceServer::kill()
{
    if (!m_process)
        return;
    m_process->kill();
    m_process->waitForFinished(kLimitMs);
    m_process.reset();
}

void DeviceServer::stall()
{
    signal(SIGSTOP);
}

void DeviceServer::resume()
{
    signal(SIGCONT);
}

void DeviceServer::signal(int number)
{
    ::kill(static_cast<pid_t>(m_process->processId()), number);
}

// In the system's list, and not by a connection: that would be a client.
bool DeviceServer::listens() const
{
    QFile list(QStringLiteral("/proc/net/tcp"));
    if (!list.open(QIODevice::ReadOnly))
        return false;
    const QString listening =
        QStringLiteral(": 0100007F:%1 00000000:0000 0A ")
            .arg(QString::number(port(), 16).toUpper().rightJustified(4, QLatin1Char('0')));
    return QString::fromLatin1(list.readAll()).contains(listening);
}

std::unique_ptr<DeviceServer::Protocol> protocolOfTheRun()
{
    const QByteArray line = qgetenv("MICRO850_TEST_LINE");
    if (line.isEmpty())
        return nullptr;
    EXPECT_TRUE(line == "tcp" || line == "rfc2217") << line.toStdString();
    return std::make_unique<DeviceServer::Protocol>(
        line == "tcp" ? DeviceServer::Protocol::Raw : DeviceServer::Protocol::Rfc2217);
}
