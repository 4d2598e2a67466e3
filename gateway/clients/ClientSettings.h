#ifndef MICRO850_GATEWAY_CLIENTS_CLIENTSETTINGS_H
#define MICRO850_GATEWAY_CLIENTS_CLIENTSETTINGS_H

#include <QtCore/QString>

namespace micro850::gateway {

/// The section "socket" of the configuration.
struct ClientSettings
{
    QString path = QStringLiteral("/run/micro850/gateway.sock");
    /// More clients are turned away.
    int mostClients = 256;
};

} // namespace micro850::gateway

#endif
