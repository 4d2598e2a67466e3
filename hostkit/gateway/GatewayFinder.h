#ifndef MICRO850_HOST_GATEWAY_GATEWAYFINDER_H
#define MICRO850_HOST_GATEWAY_GATEWAYFINDER_H

#include "GatewayLines.h"

#include <functional>
#include <optional>

namespace micro850::host {

/// The line of a gateway that has a port.
struct PortOwner
{
    QString path; ///< of the gateway's socket
    GatewayLine line;
};

/// Where sockets of gateways are looked for: what $MICRO850_GATEWAY names, and those in `folder`.
QStringList gatewaySockets(const QString& folder = QStringLiteral("/run/micro850"));

/// Whether both names mean the same device of this machine, by whatever path, or the same port of
/// the same device server.
bool isSamePort(const QString& one, const QString& other);

/// The gateway that owns this port, none when nobody tells so. What is no gateway, or hangs, costs
/// a second at most and a remark.
std::optional<PortOwner> ownerOf(const QString& device, const QStringList& sockets,
                                 const Clock& clock,
                                 const std::function<void(const QString&)>& remark);

} // namespace micro850::host

#endif
