#include "SerialLine.h"

#include "PollTimeout.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QThread>

#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace micro850::host {

namespace {

QSerialPort::Parity portParity(Parity parity)
{
    switch (parity) {
    case Parity::Even:
        return QSerialPort::EvenParity;
    case Parity::Odd:
        return QSerialPort::OddParity;
    case Parity::None:
        break;
    }
    return QSerialPort::NoParity;
}

bool isDevice(const QString& path)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 && S_ISCHR(status.st_mode);
}

// The reason with a way out, if the port's own text does not name one.
QString reasonOf(const QString& name, const QSerialPort& port)
{
    const QString device = devicePath(name);
    const QFileInfo link(device);
    if (link.isSymLink() && !link.exists())
        return QStringLiteral("the link leads nowhere: %1 is gone").arg(link.symLinkTarget());
    if (!link.exists())
        return name.startsWith('/')
                   ? QStringLiteral("there is no such device")
                   : QStringLiteral("there is no such device in this folder or in /dev");
    if (!isDevice(device))
        return QStringLiteral("it is not a device");
    if (port.error() == QSerialPort::PermissionError) {
        const bool allowed = ::access(QFile::encodeName(device).constData(), R_OK | W_OK) == 0;
        return allowed ? QStringLiteral("another program uses it; end that one first")
                       : QStringLiteral("permission denied; users of the group \"dialout\" may");
    }
    return port.errorString();
}

const std::chrono::milliseconds kSendPatience(100);

} // namespace

// The port itself takes every name that does not begin with / or . for one in /dev.
QString devicePath(const QString& name)
{
    if (name.isEmpty() || name.startsWith('/'))
        return name;
    const QString here = QDir::current().absoluteFilePath(name);
    const QString inDev = QStringLiteral("/dev/") + name;
    return !isDevice(here) && isDevice(inDev) ? inDev : here;
}

SerialLine::SerialLine(const PortSettings& settings, const SerialControl& control)
    : m_settings(settings), m_latency(control)
{
}

bool SerialLine::open(QString& error)
{
    close();
    m_port.setPortName(devicePath(m_settings.device));
    m_port.setBaudRate(m_settings.baud);
    m_port.setDataBits(static_cast<QSerialPort::DataBits>(m_settings.dataBits));
    m_port.setParity(portParity(m_settings.parity));
    m_port.setStopBits(static_cast<QSerialPort::StopBits>(m_settings.stopBits));
    m_port.setFlowControl(QSerialPort::NoFlowControl);
    if (m_port.open(QIODevice::ReadWrite)) {
        m_return.reset();
        if (m_settings.lowLatency)
            m_latency.set(descriptor());
        return true;
    }
    error = reasonOf(m_settings.device, m_port);
    m_port.clearError();
    return false;
}

void SerialLine::close()
{
    if (m_port.isOpen()) {
        m_latency.putBack(descriptor());
        m_port.close();
    }
    m_port.clearError();
}

bool SerialLine::isOpen() const
{
    return m_port.isOpen();
}

// The port's own functions to read and write are made for an event loop. A blocking host does
// better with the descriptor: it saves a copy through a large buffer and some system calls.

void SerialLine::discardInput()
{
    ::tcflush(descriptor(), TCIFLUSH);
}

bool SerialLine::send(const QByteArray& bytes)
{
    int sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::write(descriptor(), bytes.constData() + sent,
                                      static_cast<size_t>(bytes.size() - sent));
        if (count > 0) {
            sent += static_cast<int>(count);
            continue;
        }
        // Twice the time of the bytes on the line: only a device that accepts nothing needs longer.
        const int patience = pollTimeout(kSendPatience + 2 * m_settings.timeOf(bytes.size()));
        pollfd output = {descriptor(), POLLOUT, 0};
        if ((errno != EAGAIN && errno != EINTR) || ::poll(&output, 1, patience) == 0)
            return false;
    }
    return true;
}

bool SerialLine::receive(QByteArray& bytes, Duration wait)
{
    pollfd input = {descriptor(), POLLIN, 0};
    // A signal ends the wait, like a silence does, so that the caller sees what its handler set.
    if (::poll(&input, 1, pollTimeout(wait)) <= 0)
        return true;
    std::array<char, 1024> buffer;
    const ssize_t count = ::read(descriptor(), buffer.data(), buffer.size());
    // A copy of its own size is cheaper than room to grow, which nobody uses.
    if (count > 0 && bytes.isEmpty())
        bytes = QByteArray(buffer.data(), static_cast<int>(count));
    else if (count > 0)
        bytes.append(buffer.data(), static_cast<int>(count));
    return count > 0 || (input.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
}

void SerialLine::pause(Duration time)
{
    QThread::usleep(static_cast<unsigned long>(time.count()));
}

bool SerialLine::awaitReturn(Duration time)
{
    if (!m_return) {
        const QString& name = m_settings.device;
        QStringList paths(QDir::current().absoluteFilePath(name)); // also of an absolute name
        if (!name.startsWith('/'))
            paths.append(QStringLiteral("/dev/") + name);
        m_return = std::make_unique<DeviceWatch>(paths);
    }
    return m_return->wait(time);
}

int SerialLine::descriptor() const
{
    return static_cast<int>(m_port.handle());
}

} // namespace micro850::host
