#include "TcpListener.h"

#include "UserError.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace micro850::gateway {

namespace {

[[noreturn]] void refuseToListen(const QString& address, int port, int error)
{
    std::string what = std::strerror(error);
    if (error == EADDRINUSE)
        what = R"(another program listens there (end it, or give another "port"))";
    else if (error == EADDRNOTAVAIL || error == ENODEV)
        what = R"(this machine does not have this address (check "address"))";
    else if (error == EACCES)
        what = R"(the user of the service may not use this port (choose one above 1023))";
    throw UserError("web: address " + address.toStdString() + " port " + std::to_string(port) +
                        ": " + what,
                    kExitRefused);
}

} // namespace

TcpListener::TcpListener(const QString& address, int port)
{
    const std::optional<SocketAddress> wanted = socketAddress(address.toUtf8(), port);
    if (!wanted)
        throw UserError("web.address: " + address.toStdString() +
                        " is no IPv4 or IPv6 address (give one of this machine, or 127.0.0.1)");
    m_socket = ::socket(wanted->address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    const int off = 0;
    // A service that starts again takes its port, though old connections are not forgotten yet.
    ::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (wanted->address.ss_family == AF_INET6)
        ::setsockopt(m_socket, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    const auto* bound = reinterpret_cast<const sockaddr*>(&wanted->address);
    if (m_socket < 0 || ::bind(m_socket, bound, wanted->size) != 0 ||
        ::listen(m_socket, SOMAXCONN) != 0)
    {
        const int error = errno;
        if (m_socket >= 0)
            ::close(m_socket);
        refuseToListen(address, port, error);
    }
    m_reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TcpListener::~TcpListener()
{
    ::close(m_socket);
    if (m_reserve >= 0)
        ::close(m_reserve);
}

int TcpListener::port() const
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                               : reinterpret_cast<sockaddr_in&>(address).sin_port);
}

int TcpListener::accept(SocketAddress& peer)
{
    const auto next = [&] {
        peer.size = sizeof peer.address;
        return ::accept4(m_socket, reinterpret_cast<sockaddr*>(&peer.address), &peer.size,
                         SOCK_CLOEXEC | SOCK_NONBLOCK);
    };
    const int client = next();
    if (client >= 0 || (errno != EMFILE && errno != ENFILE) || m_reserve < 0)
        return client;
    // The client would wait for ever, and the socket report it for ever.
    ::close(m_reserve);
    const int turnedAway = next();
    if (turnedAway >= 0)
        ::close(turnedAway);
    m_reserve = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    return -1;
}

} // namespace micro850::gateway
