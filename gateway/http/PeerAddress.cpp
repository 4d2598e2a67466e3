#include "PeerAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <array>
#include <cstring>

namespace micro850::gateway {

namespace {

std::optional<SocketAddress> ipv4Address(const QByteArray& text, int port)
{
    SocketAddress found;
    auto& address = reinterpret_cast<sockaddr_in&>(found.address);
    if (::inet_pton(AF_INET, text.constData(), &address.sin_addr) != 1)
        return std::nullopt;
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    found.size = sizeof address;
    return found;
}

// Only this function of the system knows the names of interfaces. It asks no server.
std::optional<SocketAddress> ipv6Address(const QByteArray& text, int port)
{
    addrinfo wish{};
    wish.ai_family = AF_INET6;
    wish.ai_socktype = SOCK_STREAM;
    wish.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    if (::getaddrinfo(text.constData(), QByteArray::number(port).constData(), &wish, &list) != 0)
        return std::nullopt;
    SocketAddress found;
    found.size = list->ai_addrlen;
    std::memcpy(&found.address, list->ai_addr, found.size);
    ::freeaddrinfo(list);
    return found;
}

} // namespace

std::optional<SocketAddress> socketAddress(const QByteArray& text, int port)
{
    if (text.contains('\0'))
        return std::nullopt;
    return text.contains(':') ? ipv6Address(text, port) : ipv4Address(text, port);
}

QByteArray addressText(const sockaddr_storage& address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address.ss_family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
        ::inet_ntop(AF_INET, &ipv4.sin_addr, text.data(), text.size());
    } else if (address.ss_family == AF_INET6) {
        const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
        if (IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr))
            ::inet_ntop(AF_INET, &ipv6.sin6_addr.s6_addr[12], text.data(), text.size());
        else
            ::inet_ntop(AF_INET6, &ipv6.sin6_addr, text.data(), text.size());
    }
    return text.data();
}

std::optional<QByteArray> canonicalAddress(const QByteArray& text)
{
    const std::optional<SocketAddress> address = socketAddress(text, 0);
    if (!address)
        return std::nullopt;
    return addressText(address->address);
}

bool isLoopbackAddress(const QByteArray& canonical)
{
    return canonical == "::1" || (canonical.startsWith("127.") && !canonical.contains(':'));
}

} // namespace micro850::gateway
