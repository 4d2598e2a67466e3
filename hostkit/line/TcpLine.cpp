#include "TcpLine.h"

#include <QtCore/QThread>

#include <algorithm>
#include <poll.h>

namespace micro850::host {

namespace {

// A server that serves another client closes a new connection at once, and one that speaks telnet
// begins to negotiate at once.
const std::chrono::milliseconds kFirstSigns(30);
// A server needs a moment to notice that its last client has gone.
const std::chrono::seconds kBusyTime(1);
const std::chrono::milliseconds kBusyPause(100);

// The first bytes that a telnet server sends: IAC, one of WILL, WONT, DO, DONT, and an option that
// is in use.
bool isNegotiation(const QByteArray& bytes)
{
    const auto at = [&bytes](int index) { return static_cast<unsigned char>(bytes.at(index)); };
    return bytes.size() >= 3 && at(0) == 0xFF && at(1) >= 0xFB && at(1) <= 0xFE && at(2) <= 44;
}

// False when a signal ends the sleep.
bool sleeps(std::chrono::milliseconds time)
{
    return ::poll(nullptr, 0, static_cast<int>(time.count())) == 0;
}

} // namespace

TcpLine::TcpLine(const NetworkAddress& address, const PortSettings& settings)
    : m_address(address), m_settings(settings), m_socket(address)
{
}

bool TcpLine::open(QString& error)
{
    const Duration until = m_clock.now() + kBusyTime;
    for (;;) {
        close();
        if (!m_socket.open(error))
            return false;
        const Start outcome = start(error);
        if (outcome == Start::Ready)
            return true;
        close();
        if (outcome == Start::Failed || m_clock.now() >= until)
            return false;
        if (!sleeps(kBusyPause)) {
            error = QStringLiteral("interrupted");
            return false;
        }
    }
}

TcpLine::Start TcpLine::start(QString& error)
{
    m_firstBytes.clear();
    m_telnet = false;
    m_asked = false;
    m_unasked = 0;
    const Duration until = m_clock.now() + kFirstSigns;
    for (Duration now = m_clock.now(); now < until; now = m_clock.now()) {
        QByteArray bytes;
        if (!m_socket.read(bytes, until - now)) {
            error = busyText();
            return Start::Busy;
        }
        if (bytes.isEmpty() && m_clock.now() < until) {
            error = QStringLiteral("interrupted");
            return Start::Failed;
        }
        noteUnasked(bytes);
        if (speaksTelnet(bytes)) {
            error = lossReason();
            return Start::Failed;
        }
    }
    return Start::Ready;
}

QString TcpLine::busyText() const
{
    return QStringLiteral("%1 closed the connection at once (another client uses it, or its serial "
                          "port cannot be opened)")
        .arg(m_address.text());
}

void TcpLine::close()
{
    m_socket.close();
}

void TcpLine::discardInput()
{
    QByteArray dropped;
    m_socket.readArrived(dropped);
    noteUnasked(dropped);
    speaksTelnet(dropped);
}

bool TcpLine::send(const QByteArray& bytes)
{
    m_asked = true;
    return !m_telnet && m_socket.write(bytes);
}

bool TcpLine::receive(QByteArray& bytes, Duration wait)
{
    const int before = bytes.size();
    const bool alive = m_socket.read(bytes, wait);
    if (m_firstBytes.size() < 3)
        speaksTelnet(bytes.mid(before));
    return alive && !m_telnet;
}

// The bytes of a server that speaks telnet cannot be told from data later on. Only the first ones
// of a connection are clear: no reply begins like them.
bool TcpLine::speaksTelnet(const QByteArray& bytes)
{
    if (m_firstBytes.size() < 3) {
        m_firstBytes += bytes.left(3 - m_firstBytes.size());
        m_telnet = isNegotiation(m_firstBytes);
    }
    return m_telnet;
}

void TcpLine::noteUnasked(const QByteArray& bytes)
{
    if (!m_asked)
        m_unasked += bytes.size();
}

void TcpLine::pause(Duration time)
{
    QThread::usleep(static_cast<unsigned long>(time.count()));
}

QString TcpLine::lossReason() const
{
    if (m_telnet)
        return QStringLiteral("%1 speaks telnet (use rfc2217://%1, or set the server to raw TCP)")
            .arg(m_address.text());
    return m_socket.lossReason();
}

} // namespace micro850::host
