#ifndef MICRO850_GATEWAY_HTTP_PEERADDRESS_H
#define MICRO850_GATEWAY_HTTP_PEERADDRESS_H

#include <QtCore/QByteArray>

#include <optional>
#include <sys/socket.h>

namespace micro850::gateway {

/// An address and how long it is.
struct SocketAddress
{
    sockaddr_storage address{};
    socklen_t size = 0;
};

/// The address of an IPv4 or IPv6 address as text, with an interface of a link-local one
/// ("fe80::1%eth0"); nothing for anything else.
std::optional<SocketAddress> socketAddress(const QByteArray& text, int port);

/// The one text of an address, without its interface: an IPv4 address that is written as an IPv6
/// one ("::ffff:10.0.0.1") is that IPv4 address.
QByteArray addressText(const sockaddr_storage& address);

/// The one text of an address that was written in any way; nothing for what is no address.
std::optional<QByteArray> canonicalAddress(const QByteArray& text);

/// Of one of the texts above: an address by which only this machine can be reached.
bool isLoopbackAddress(const QByteArray& canonical);

} // namespace micro850::gateway

#endif
