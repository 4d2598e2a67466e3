#include "Rfc2217Line.h"

namespace micro850::host {

namespace {

const std::chrono::seconds kNegotiationTime(3);
// How long a server may keep this host from sending.
const std::chrono::seconds kSuspensionTime(1);
const int kMostArrived = 64 * 1024;

} // namespace

TcpLine::Start Rfc2217Line::start(QString& error)
{
    m_session.emplace(settings(), address().text());
    m_arrived.clear();
    m_stuck = false;
    bool alive = socket().write(m_session->begin());
    const Duration until = clock().now() + kNegotiationTime;
    while (alive && m_session->state() == Rfc2217Session::State::Negotiating) {
        const Duration now = clock().now();
        if (now >= until) {
            error = m_session->missing();
            return Start::Failed;
        }
        QByteArray bytes;
        alive = socket().read(bytes, until - now);
        if (alive && bytes.isEmpty() && clock().now() < until) {
            error = QStringLiteral("interrupted");
            return Start::Failed;
        }
        alive = alive &&
                (pass(bytes, m_arrived) || m_session->state() == Rfc2217Session::State::Failed);
    }
    if (m_session->state() == Rfc2217Session::State::Ready)
        return Start::Ready;
    error = alive ? m_session->error() : busyText();
    return alive ? Start::Failed : Start::Busy;
}

// Passes bytes of the server to the session, and the session's answers to the server. False when
// the connection or the session has ended.
bool Rfc2217Line::pass(const QByteArray& bytes, QByteArray& data)
{
    const QByteArray answers = m_session->feed(bytes, data);
    if (!answers.isEmpty() && !socket().write(answers))
        return false;
    return m_session->state() != Rfc2217Session::State::Failed;
}

void Rfc2217Line::discardInput()
{
    m_arrived.clear();
    QByteArray bytes;
    socket().readArrived(bytes);
    if (m_session) {
        QByteArray dropped;
        pass(bytes, dropped);
    }
}

bool Rfc2217Line::send(const QByteArray& bytes)
{
    return m_session && m_session->state() == Rfc2217Session::State::Ready && awaitPermission() &&
           socket().write(Rfc2217Session::escaped(bytes));
}

// Waits while the server wants no data. False when it does not want any for long.
bool Rfc2217Line::awaitPermission()
{
    const Duration until = clock().now() + kSuspensionTime;
    while (m_session->isSuspended()) {
        const Duration now = clock().now();
        m_stuck = now >= until;
        QByteArray bytes;
        if (m_stuck || !socket().read(bytes, until - now) || !pass(bytes, m_arrived))
            return false;
        m_arrived.truncate(kMostArrived);
    }
    return true;
}

bool Rfc2217Line::receive(QByteArray& bytes, Duration wait)
{
    if (!m_arrived.isEmpty()) {
        bytes += m_arrived;
        m_arrived.clear();
        return true;
    }
    const int before = bytes.size();
    const Duration until = clock().now() + wait;
    Duration left = wait;
    // Notices of the server are no bytes of the line: after them the wait goes on.
    while (bytes.size() == before) {
        QByteArray arrived;
        if (!m_session || !socket().read(arrived, left) || !pass(arrived, bytes))
            return false;
        left = until - clock().now();
        if (arrived.isEmpty() || left <= Duration(0))
            break;
    }
    return true;
}

QString Rfc2217Line::lossReason() const
{
    if (m_stuck)
        return QStringLiteral("%1 lets no bytes through (flow control at the server?)")
            .arg(address().text());
    if (m_session && m_session->state() == Rfc2217Session::State::Failed)
        return m_session->error();
    return TcpLine::lossReason();
}

} // namespace micro850::host
