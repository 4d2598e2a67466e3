#ifndef MICRO850_GATEWAY_HTTP_TCPLISTENER_H
#define MICRO850_GATEWAY_HTTP_TCPLISTENER_H

#include "PeerAddress.h"

#include <QtCore/QString>

namespace micro850::gateway {

/// A TCP port on which clients connect. It does not block.
class TcpListener
{
public:
    /// Throws UserError when the address is none of this machine, another program listens there, or
    /// the user may not.
    TcpListener(const QString& address, int port);
    ~TcpListener();
    TcpListener(const TcpListener&) = delete;
    TcpListener& operator=(const TcpListener&) = delete;

    int descriptor() const { return m_socket; }
    int port() const;
    /// The next client's socket, which does not block, and its address; below 0 when there is none.
    int accept(SocketAddress& peer);

private:
    int m_socket = -1;
    int m_reserve = -1; ///< is given up to turn a client away when there are no descriptors left
};

} // namespace micro850::gateway

#endif
