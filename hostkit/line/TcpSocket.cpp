#include "TcpSocket.h"

#include "PollTimeout.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace micro850::host {

namespace {

const std::chrono::seconds kLookupTime(5);
const std::chrono::seconds kConnectTime(3);
// Of a name with many addresses: each may take its time.
const size_t kMostAddresses = 3;
// What the socket's buffers take at once in every case; only a far end that stands still fills
// them.
const std::chrono::seconds kWriteTime(1);
const int kMostArrived = 64 * 1024;
// A silent connection is tested every second. One without an answer, to that or to data, ends.
const int kSecondsToTest = 1;
const int kFewTests = 3;
const unsigned int kUnansweredMs = 4000;

template<typename Value> void setOption(int descriptor, int level, int name, Value value)
{
    ::setsockopt(descriptor, level, name, &value, sizeof value);
}

// Many servers send a reply in two pieces, the second only when the first is acknowledged. The
// system would acknowledge it 40 ms later. It forgets this option with the next packets: set it
// before each wait.
void acknowledgeAtOnce(int descriptor)
{
    setOption(descriptor, IPPROTO_TCP, TCP_QUICKACK, 1);
}

void setOptions(int descriptor)
{
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kSecondsToTest);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kSecondsToTest);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kFewTests);
    setOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnansweredMs);
}

// The outcome of a connection that was begun: 0 or the system's error.
int awaitConnection(int descriptor)
{
    pollfd output = {descriptor, POLLOUT, 0};
    const int ready = ::poll(&output, 1, pollTimeout(kConnectTime));
    if (ready <= 0)
        return ready == 0 ? ETIMEDOUT : errno;
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

QString refusalText(const QString& place, int error)
{
    switch (error) {
    case ECONNREFUSED:
        return QStringLiteral("%1 refuses the connection (does the device server run there, on "
                              "this port?)")
            .arg(place);
    case ETIMEDOUT:
        return QStringLiteral("%1 does not answer within %2 s (check address and firewall)")
            .arg(place)
            .arg(kConnectTime.count());
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EADDRNOTAVAIL:
        return QStringLiteral("no way leads to %1 (check address and network)").arg(place);
    case EINTR:
        return QStringLiteral("interrupted");
    default:
        return QStringLiteral("no connection to %1: %2")
            .arg(place, QString::fromLocal8Bit(std::strerror(error)));
    }
}

QString lossText(const QString& place, int error)
{
    switch (error) {
    case 0:
        return QStringLiteral("%1 closed the connection (another client uses it, it was started "
                              "again, or it is no device server)")
            .arg(place);
    case ECONNRESET:
    case EPIPE:
        return QStringLiteral("%1 broke off the connection (another client uses it, it was "
                              "started again, or it is no device server)")
            .arg(place);
    case ETIMEDOUT:
    case EHOSTUNREACH:
    case ENETUNREACH:
        return QStringLiteral("%1 does not answer any more").arg(place);
    case EAGAIN:
        return QStringLiteral("%1 takes no more bytes").arg(place);
    default:
        return QStringLiteral("the connection to %1 is lost: %2")
            .arg(place, QString::fromLocal8Bit(std::strerror(error)));
    }
}

} // namespace

bool TcpSocket::open(QString& error)
{
    close();
    const std::vector<SocketAddress> addresses = m_lookup.addresses(kLookupTime, error);
    const size_t count = std::min(addresses.size(), kMostAddresses);
    for (size_t i = 0; i < count; ++i) {
        const int failure = connectTo(addresses[i]);
        if (failure == 0) {
            m_lossReason.clear();
            return true;
        }
        error = refusalText(m_address.text(), failure);
        if (failure == EINTR)
            return false;
    }
    return false;
}

int TcpSocket::connectTo(const SocketAddress& address)
{
    const int descriptor =
        ::socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int failure = descriptor < 0 ? errno : 0;
    if (failure == 0) {
        setOptions(descriptor);
        const auto* bytes = reinterpret_cast<const sockaddr*>(&address.bytes);
        if (::connect(descriptor, bytes, address.size) != 0)
            failure = errno == EINPROGRESS ? awaitConnection(descriptor) : errno;
    }
    if (failure == 0)
        m_descriptor = descriptor;
    else if (descriptor >= 0)
        ::close(descriptor);
    return failure;
}

void TcpSocket::close()
{
    if (m_descriptor < 0)
        return;
    // Bytes that nobody has read would break the connection off, and what was sent last with it.
    QByteArray dropped;
    ::shutdown(m_descriptor, SHUT_WR);
    readArrived(dropped);
    ::close(m_descriptor);
    m_descriptor = -1;
}

bool TcpSocket::lose(int systemError)
{
    if (m_lossReason.isEmpty())
        m_lossReason = lossText(m_address.text(), systemError);
    return false;
}

TcpSocket::Got TcpSocket::receiveOnce(QByteArray& bytes)
{
    std::array<char, 4096> buffer;
    const ssize_t count = ::recv(m_descriptor, buffer.data(), buffer.size(), 0);
    if (count > 0) {
        bytes.append(buffer.data(), static_cast<int>(count));
        return Got::Bytes;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return Got::Nothing;
    lose(count == 0 ? 0 : errno);
    return Got::End;
}

bool TcpSocket::read(QByteArray& bytes, Duration wait)
{
    if (!m_lossReason.isEmpty() || !isOpen())
        return false;
    acknowledgeAtOnce(m_descriptor);
    pollfd input = {m_descriptor, POLLIN, 0};
    // A signal ends the wait, like a silence does, so that the caller sees what its handler set.
    if (::poll(&input, 1, pollTimeout(wait)) <= 0)
        return true;
    return receiveOnce(bytes) != Got::End;
}

bool TcpSocket::readArrived(QByteArray& bytes)
{
    if (!m_lossReason.isEmpty() || !isOpen())
        return false;
    const int most = bytes.size() + kMostArrived;
    Got got = Got::Bytes;
    while (got == Got::Bytes && bytes.size() < most)
        got = receiveOnce(bytes);
    return got != Got::End;
}

bool TcpSocket::write(const QByteArray& bytes)
{
    if (!m_lossReason.isEmpty() || !isOpen())
        return false;
    int sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::send(m_descriptor, bytes.constData() + sent,
                                     static_cast<size_t>(bytes.size() - sent), MSG_NOSIGNAL);
        if (count > 0) {
            sent += static_cast<int>(count);
            continue;
        }
        pollfd output = {m_descriptor, POLLOUT, 0};
        if (errno != EAGAIN && errno != EINTR)
            return lose(errno);
        if (::poll(&output, 1, pollTimeout(kWriteTime)) == 0)
            return lose(EAGAIN);
    }
    return true;
}

Duration TcpSocket::roundTrip() const
{
    tcp_info info = {};
    socklen_t size = sizeof info;
    if (!isOpen() || ::getsockopt(m_descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return Duration(0);
    return std::chrono::microseconds(info.tcpi_rtt);
}

} // namespace micro850::host
