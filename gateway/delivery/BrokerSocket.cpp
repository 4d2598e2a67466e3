#include "BrokerSocket.h"

#include "UserError.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace micro850::gateway {

namespace {

// Most brokers send something at once after the handshake of TLS 1.3.
const std::chrono::milliseconds kVerdictLimit(500);
// At once, so that other work gets its turn.
const int kMostRead = 64 * 1024;

[[noreturn]] void refuse(const QString& reason)
{
    throw UserError(reason.toStdString(), kExitRefused);
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Of a connection that comes to nothing.
QString refusalText(int error)
{
    return errorText(error) + (error == ECONNREFUSED
                                   ? QStringLiteral(" (is the broker running, is the port right?)")
                                   : QString());
}

bool isForLater(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

BrokerSocket::BrokerSocket(const BrokerAddress& address, Duration patience, int wake)
    : m_address(address), m_patience(patience), m_wake(wake)
{
    if (address.isEncrypted)
        m_security = std::make_unique<BrokerSecurity>(address);
}

BrokerSocket::~BrokerSocket()
{
    close();
}

void BrokerSocket::close()
{
    SSL_free(m_tls);
    m_tls = nullptr;
    if (m_socket >= 0)
        ::close(m_socket);
    m_socket = -1;
}

void BrokerSocket::connect()
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(m_address.host.toUtf8().constData(),
                                    QByteArray::number(m_address.port).constData(), &hints, &found);
    if (error != 0)
        refuse(QStringLiteral("the name %1 has no address: %2")
                   .arg(m_address.host, error == EAI_SYSTEM
                                            ? errorText(errno)
                                            : QString::fromLocal8Bit(::gai_strerror(error))));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, ::freeaddrinfo);
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        try {
            connectTo(*address);
            break;
        } catch (const UserError&) {
            close();
            if (address->ai_next == nullptr)
                throw;
        }
    }
    const int yes = 1;
    ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (m_security)
        shakeHands();
}

void BrokerSocket::connectTo(const addrinfo& address)
{
    m_socket = ::socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (m_socket < 0)
        refuse(errorText(errno));
    if (::connect(m_socket, address.ai_addr, address.ai_addrlen) == 0)
        return;
    if (errno != EINPROGRESS)
        refuse(refusalText(errno));
    await(POLLOUT, std::chrono::steady_clock::now() + m_patience);
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(m_socket, SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0)
        refuse(refusalText(error));
}

void BrokerSocket::await(short events, Deadline deadline)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            refuse(QStringLiteral("the broker does not answer"));
        std::array<pollfd, 2> polled = {{{m_socket, events, 0}, {m_wake, POLLIN, 0}}};
        ::poll(polled.data(), polled.size(), static_cast<int>(left.count()) + 1);
        if (polled[1].revents != 0)
            refuse(QStringLiteral("it is not wanted any more"));
        if (polled[0].revents != 0)
            return;
    }
}

void BrokerSocket::shakeHands()
{
    m_tls = SSL_new(m_security->context());
    if (m_tls == nullptr || SSL_set_fd(m_tls, m_socket) != 1)
        refuse(QStringLiteral("TLS: no memory"));
    // A broker with several names chooses its certificate by it; an address is no name.
    in6_addr ignored = {};
    const QByteArray host = m_address.host.toUtf8();
    if (::inet_pton(AF_INET, host.constData(), &ignored) != 1 &&
        ::inet_pton(AF_INET6, host.constData(), &ignored) != 1)
        SSL_set_tlsext_host_name(m_tls, host.constData());
    const Deadline deadline = std::chrono::steady_clock::now() + m_patience;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        const int result = SSL_connect(m_tls);
        if (result == 1)
            break;
        const int kind = SSL_get_error(m_tls, result);
        if (kind != SSL_ERROR_WANT_READ && kind != SSL_ERROR_WANT_WRITE)
            refuse(m_security->reason(m_tls, result));
        await(kind == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline);
    }
    if (SSL_version(m_tls) == TLS1_3_VERSION)
        awaitVerdict();
}

// With TLS 1.3 the broker looks at the certificate of this client after the handshake. Had the
// client sent something by then, the connection would be reset and the broker's reason lost.
void BrokerSocket::awaitVerdict()
{
    std::array<pollfd, 2> polled = {{{m_socket, POLLIN, 0}, {m_wake, POLLIN, 0}}};
    ::poll(polled.data(), polled.size(), static_cast<int>(kVerdictLimit.count()));
    char ignored = 0;
    ERR_clear_error();
    errno = 0;
    const int result = SSL_peek(m_tls, &ignored, 1);
    if (result <= 0 && !handleResult(result))
        refuse(m_reason);
}

bool BrokerSocket::handleResult(int result)
{
    const int kind = SSL_get_error(m_tls, result);
    m_wantsToWrite = kind == SSL_ERROR_WANT_WRITE;
    if (kind == SSL_ERROR_WANT_READ || kind == SSL_ERROR_WANT_WRITE)
        return true;
    m_reason = m_security->reason(m_tls, result);
    return false;
}

// A broker that expects TLS ends a connection that begins without.
QString BrokerSocket::endText(int error) const
{
    const QString text =
        error == 0 ? QStringLiteral("the broker closed the connection") : errorText(error);
    const bool isEnded = error == 0 || error == ECONNRESET || error == EPIPE;
    return !m_hasAnswered && isEnded
               ? text + QStringLiteral(" (does this port expect TLS? set \"tls\")")
               : text;
}

bool BrokerSocket::read(QByteArray& bytes)
{
    std::array<char, kMostRead> buffer;
    if (m_tls != nullptr) {
        ERR_clear_error();
        errno = 0;
        const int got = SSL_read(m_tls, buffer.data(), kMostRead);
        if (got > 0)
            bytes.append(buffer.data(), got);
        return got > 0 || handleResult(got);
    }
    const ssize_t got = ::recv(m_socket, buffer.data(), buffer.size(), 0);
    if (got > 0) {
        m_hasAnswered = true;
        bytes.append(buffer.data(), static_cast<int>(got));
        return true;
    }
    if (got < 0 && isForLater(errno))
        return true;
    m_reason = endText(got == 0 ? 0 : errno);
    return false;
}

bool BrokerSocket::write(QByteArray& bytes)
{
    while (!bytes.isEmpty()) {
        int sent = 0;
        if (m_tls != nullptr) {
            ERR_clear_error();
            errno = 0;
            sent = SSL_write(m_tls, bytes.constData(), bytes.size());
            if (sent <= 0)
                return handleResult(sent);
        } else {
            sent = static_cast<int>(::send(m_socket, bytes.constData(),
                                           static_cast<size_t>(bytes.size()), MSG_NOSIGNAL));
            if (sent < 0 && isForLater(errno))
                return true;
            if (sent < 0) {
                m_reason = endText(errno);
                return false;
            }
        }
        bytes.remove(0, sent);
    }
    return true;
}

bool BrokerSocket::hasMore() const
{
    return m_tls != nullptr && SSL_pending(m_tls) > 0;
}

// A socket that is closed while bytes of the broker are unread resets the connection, and the
// broker may lose the last packets.
void BrokerSocket::finish(std::chrono::milliseconds limit)
{
    if (m_tls != nullptr)
        SSL_shutdown(m_tls);
    ERR_clear_error();
    ::shutdown(m_socket, SHUT_WR);
    const Deadline deadline = std::chrono::steady_clock::now() + limit;
    try {
        for (;;) {
            await(POLLIN, deadline);
            std::array<char, 4096> buffer;
            const ssize_t got = ::recv(m_socket, buffer.data(), buffer.size(), 0);
            if (got == 0 || (got < 0 && !isForLater(errno)))
                return;
        }
    } catch (const UserError&) {
        return; // it does not close: enough was waited
    }
}

} // namespace micro850::gateway
