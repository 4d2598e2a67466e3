#ifndef MICRO850_HOST_TCPSOCKET_H
#define MICRO850_HOST_TCPSOCKET_H

#include "HostLookup.h"

#include <QtCore/QByteArray>

namespace micro850::host {

/// One TCP connection as a client. It carries bytes at once, without collecting them, and notices
/// within 5 s that the far end is gone, also when nothing is sent.
class TcpSocket
{
public:
    explicit TcpSocket(const NetworkAddress& address) : m_address(address), m_lookup(address) {}
    ~TcpSocket() { close(); }
    TcpSocket(const TcpSocket&) = delete;
    TcpSocket& operator=(const TcpSocket&) = delete;

    /// Connects to the first address of the host that accepts. A signal ends the attempt. False
    /// with the reason in `error`.
    bool open(QString& error);
    void close();
    bool isOpen() const { return m_descriptor >= 0; }

    /// Waits for bytes, at most for the time `wait` and until a signal comes, and appends those
    /// that are there. False when the connection has ended.
    bool read(QByteArray& bytes, Duration wait);
    /// Appends what has arrived, without waiting; at most some tens of kilobytes. False when the
    /// connection has ended.
    bool readArrived(QByteArray& bytes);
    /// False when the connection has ended or takes no bytes.
    bool write(const QByteArray& bytes);

    /// Why the last connection ended; empty for one that has not.
    QString lossReason() const { return m_lossReason; }
    /// The usual time of a packet to the far end and back; 0 without a connection.
    Duration roundTrip() const;

private:
    /// The system's error; 0 once connected.
    int connectTo(const SocketAddress& address);
    bool lose(int systemError);
    enum class Got { Bytes, Nothing, End };
    Got receiveOnce(QByteArray& bytes);

    NetworkAddress m_address;
    HostLookup m_lookup;
    int m_descriptor = -1;
    QString m_lossReason;
};

} // namespace micro850::host

#endif
