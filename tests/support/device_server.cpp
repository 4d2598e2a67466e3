#include "device_server.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QThread>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const int kLimitMs = 60000;
// Below the ports that the system gives to clients, so that none of them takes one by chance.
const int kFirstPort = 20000;
const int kLastPort = 29999;

// True if nobody listens at the port.
bool isFree(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<quint16>(port));
    const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int reuse = 1;
    ::setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    const bool free = ::bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(made);
    return free;
}

// A name that only one process can have; the system frees it when the process ends.
int lockFor(int port)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int length =
        std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "micro850-test-%d", port);
    const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto size =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(length));
    if (::bind(made, reinterpret_cast<sockaddr*>(&address), size) == 0)
        return made;
    ::close(made);
    return -1;
}

} // namespace

void PrintTo(DeviceServer::Protocol protocol, std::ostream* out)
{
    *out << (protocol == DeviceServer::Protocol::Raw ? "tcp" : "rfc2217");
}

DeviceServer::DeviceServer(const Settings& settings) : m_settings(settings)
{
    EXPECT_TRUE(m_dir.isValid());
    takePort();
}

DeviceServer::~DeviceServer()
{
    stop();
    ::close(m_lock);
}

void DeviceServer::takePort()
{
    const int count = kLastPort - kFirstPort + 1;
    // Tests that run at the same time begin at different ports.
    const int start = static_cast<int>(::getpid() * 7) % count;
    for (int i = 0; i < count && m_lock < 0; ++i) {
        m_port = kFirstPort + (start + i) % count;
        m_lock = lockFor(m_port);
        if (m_lock >= 0 && !isFree(m_port)) {
            ::close(m_lock);
            m_lock = -1;
        }
    }
    EXPECT_GE(m_lock, 0) << "no port is free";
}

QString DeviceServer::address() const
{
    const char* const scheme = m_settings.protocol == Protocol::Raw ? "tcp" : "rfc2217";
    return QStringLiteral("%1://127.0.0.1:%2").arg(QLatin1String(scheme)).arg(m_port);
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
            .arg(m_port)
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
            .arg(QString::number(m_port, 16).toUpper().rightJustified(4, QLatin1Char('0')));
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
