#ifndef MICRO850_GATEWAY_CLIENTS_LISTENINGSOCKET_H
#define MICRO850_GATEWAY_CLIENTS_LISTENINGSOCKET_H

#include <QtCore/QString>

#include <sys/types.h>

namespace micro850::gateway {

/// A Unix socket on which clients connect; user and group of the process may, and nobody else. It
/// does not block.
class ListeningSocket
{
public:
    /// Replaces a socket that a dead gateway has left. Throws UserError when another gateway
    /// listens there, or the socket cannot be made.
    explicit ListeningSocket(const QString& path);
    /// Removes the socket, unless something else has its path now.
    ~ListeningSocket();
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;

    const QString& path() const { return m_path; }
    int descriptor() const { return m_socket; }
    /// The next client's socket, which does not block; below 0 when there is none.
    int accept();

private:
    void bindTo(const QByteArray& path);

    QString m_path;
    int m_socket = -1;
    int m_reserve = -1; ///< is given up to turn a client away when there are no descriptors left
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

} // namespace micro850::gateway

#endif
