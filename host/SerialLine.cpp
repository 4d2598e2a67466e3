#include "SerialLine.h"

#include <QtCore/QFileInfo>
#include <QtCore/QThread>

#include <poll.h>

namespace host {

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

// Says what to do where the port's own words do not.
QString reasonOf(const QString& device, const QSerialPort& port)
{
    if (!QFileInfo::exists(device))
        return QStringLiteral("there is no such device");
    if (port.error() == QSerialPort::PermissionError) {
        return QStringLiteral(
            "permission denied or in use by another program (a user needs to be in "
            "the group \"dialout\")");
    }
    return port.errorString();
}

} // namespace

SerialLine::SerialLine(const PortSettings& settings) : m_settings(settings) {}

bool SerialLine::open(QString& error)
{
    close();
    m_port.setPortName(m_settings.device);
    m_port.setBaudRate(m_settings.baud);
    m_port.setDataBits(static_cast<QSerialPort::DataBits>(m_settings.dataBits));
    m_port.setParity(portParity(m_settings.parity));
    m_port.setStopBits(static_cast<QSerialPort::StopBits>(m_settings.stopBits));
    m_port.setFlowControl(QSerialPort::NoFlowControl);
    if (m_port.open(QIODevice::ReadWrite))
        return true;
    error = reasonOf(m_settings.device, m_port);
    m_port.clearError();
    return false;
}

void SerialLine::close()
{
    if (m_port.isOpen())
        m_port.close();
    m_port.clearError();
}

bool SerialLine::isOpen() const
{
    return m_port.isOpen();
}

void SerialLine::discardInput()
{
    QByteArray dropped;
    while (receive(dropped, 0) && !dropped.isEmpty())
        dropped.clear();
}

bool SerialLine::send(const QByteArray& bytes)
{
    if (m_port.write(bytes) != bytes.size())
        return false;
    // Twice the line's own time, so that only a device that takes nothing runs into it.
    while (m_port.bytesToWrite() > 0) {
        if (!m_port.waitForBytesWritten(100 + 2 * m_settings.timeOf(bytes.size())))
            return false;
    }
    return deviceIsThere();
}

bool SerialLine::receive(QByteArray& bytes, int waitMs)
{
    if (m_port.bytesAvailable() == 0)
        m_port.waitForReadyRead(waitMs);
    bytes += m_port.readAll();
    return !bytes.isEmpty() || deviceIsThere();
}

void SerialLine::pause(int ms)
{
    QThread::msleep(static_cast<unsigned long>(ms));
}

// A time-out of the port's own is a silence. A hang-up is asked of the system, as the port reports
// it with its next read only.
bool SerialLine::deviceIsThere()
{
    const QSerialPort::SerialPortError error = m_port.error();
    m_port.clearError();
    if (error != QSerialPort::NoError && error != QSerialPort::TimeoutError)
        return false;
    pollfd descriptor = {static_cast<int>(m_port.handle()), POLLIN, 0};
    return ::poll(&descriptor, 1, 0) >= 0 &&
           (descriptor.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
}

} // namespace host
