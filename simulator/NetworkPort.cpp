#include "NetworkPort.h"

#include "UserError.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace micro850::sim {

namespace {

/// An address as the system takes it.
union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

struct SystemAddress
{
    SocketAddress address{};
    socklen_t size = sizeof(SocketAddress);
};

SystemAddress systemAddress(const ListenAddress& address)
{
    SystemAddress made;
    if (address.isIpv6()) {
        made.address.v6.sin6_family = AF_INET6;
        made.address.v6.sin6_port = htons(address.port);
        ::inet_pton(AF_INET6, address.host.c_str(), &made.address.v6.sin6_addr);
        made.size = sizeof(sockaddr_in6);
    } else {
        made.address.v4.sin_family = AF_INET;
        made.address.v4.sin_port = htons(address.port);
        ::inet_pton(AF_INET, address.host.c_str(), &made.address.v4.sin_addr);
        made.size = sizeof(sockaddr_in);
    }
    return made;
}

ListenAddress addressFrom(const SystemAddress& system)
{
    const bool isIpv6 = system.address.any.sa_family == AF_INET6;
    std::array<char, INET6_ADDRSTRLEN> host{};
    const void* const bytes = isIpv6 ? static_cast<const void*>(&system.address.v6.sin6_addr)
                                     : static_cast<const void*>(&system.address.v4.sin_addr);
    ::inet_ntop(system.address.any.sa_family, bytes, host.data(), host.size());
    return {host.data(), ntohs(isIpv6 ? system.address.v6.sin6_port : system.address.v4.sin_port)};
}

void setOption(int socket, int level, int option, int value)
{
    ::setsockopt(socket, level, option, &value, sizeof value);
}

[[noreturn]] void fail(const ListenAddress& address, int listener)
{
    const int reason = errno;
    if (listener >= 0)
        ::close(listener);
    const bool isPort = reason == EADDRINUSE || reason == EACCES;
    throw UserError("--listen " + address.text() + ": " + std::strerror(reason) +
                    (isPort ? " (choose another port, or 0 for any free one)"
                            : " (name an address of this machine)"));
}

int listenAt(const ListenAddress& address)
{
    const SystemAddress system = systemAddress(address);
    const int listener = ::socket(system.address.any.sa_family,
                                  SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (listener < 0)
        fail(address, listener);
    // The connections of the simulator before this one do not keep the port.
    setOption(listener, SOL_SOCKET, SO_REUSEADDR, 1);
    if (address.isIpv6())
        setOption(listener, IPPROTO_IPV6, IPV6_V6ONLY, 1);
    constexpr int kWaiting = 8; // clients
    if (::bind(listener, &system.address.any, system.size) != 0 ||
        ::listen(listener, kWaiting) != 0)
        fail(address, listener);
    return listener;
}

// A client whose machine is gone is noticed after some 30 seconds, so that the next one is served.
void noticeDeadPeer(int client)
{
    setOption(client, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(client, IPPROTO_TCP, TCP_KEEPIDLE, 15);
    setOption(client, IPPROTO_TCP, TCP_KEEPINTVL, 5);
    setOption(client, IPPROTO_TCP, TCP_KEEPCNT, 3);
    setOption(client, IPPROTO_TCP, TCP_USER_TIMEOUT, 30000);
}

} // namespace

NetworkPort::NetworkPort(const ListenAddress& address, const Clock& clock, Notes notes)
    : m_address(address), m_notes(std::move(notes)), m_listener(listenAt(address)), m_output(clock)
{
    SystemAddress system;
    if (::getsockname(m_listener, &system.address.any, &system.size) == 0)
        m_address = addressFrom(system);
}

NetworkPort::~NetworkPort()
{
    dropClient();
    ::close(m_listener);
}

std::vector<pollfd> NetworkPort::waits() const
{
    std::vector<pollfd> waits = {{m_listener, POLLIN, 0}};
    if (m_client >= 0)
        waits.push_back(
            {m_client, static_cast<short>(m_output.isEmpty() ? POLLIN : POLLIN | POLLOUT), 0});
    return waits;
}

// Before a client is accepted, those before it are read to their end: each can have come, sent and
// gone since the last call.
Bytes NetworkPort::read(bool& gone)
{
    constexpr int kClientsAtOnce = 8; // so that a flood of clients does not stop the other lines
    gone = false;                     // a client can go, the line stays
    Bytes bytes = receive();
    for (int i = 0; i < kClientsAtOnce && acceptClient(); ++i)
        append(bytes, receive());
    return bytes;
}

Bytes NetworkPort::receive()
{
    constexpr std::size_t kAtOnce = 65536; // so that no client stops the other lines
    Bytes bytes;
    std::array<std::uint8_t, 4096> buffer;
    while (m_client >= 0 && bytes.size() < kAtOnce) {
        const ssize_t count = ::recv(m_client, buffer.data(), buffer.size(), 0);
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            break;
        if (count <= 0)
            dropClient();
        else
            bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + count);
    }
    return bytes;
}

bool NetworkPort::acceptClient()
{
    SystemAddress peer;
    const int client =
        ::accept4(m_listener, &peer.address.any, &peer.size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (client >= 0)
        greet(client, addressFrom(peer).text());
    return client >= 0;
}

void NetworkPort::greet(int client, const std::string& peer)
{
    if (m_client >= 0) {
        ::close(client);
        if (++m_sentAway == 1)
            m_notes("a second client, " + peer +
                    ", is sent away: the line has one client at a time");
        return;
    }
    setOption(client, IPPROTO_TCP, TCP_NODELAY, 1);
    noticeDeadPeer(client);
    m_client = client;
}

void NetworkPort::dropClient()
{
    if (m_client >= 0)
        ::close(m_client);
    m_client = -1;
    m_output.clear();
    if (m_sentAway > 1)
        m_notes("the client has gone; meanwhile " + std::to_string(m_sentAway) +
                " others were sent away");
    m_sentAway = 0;
}

void NetworkPort::write(const Bytes& bytes)
{
    if (m_client < 0)
        return;
    m_output.add(bytes);
    m_output.flush([this](const std::uint8_t* data, std::size_t count) {
        return ::send(m_client, data, count, MSG_NOSIGNAL);
    });
}

} // namespace micro850::sim
