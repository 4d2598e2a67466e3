#ifndef MICRO850_TESTS_TCP_PEER_H
#define MICRO850_TESTS_TCP_PEER_H

#include <QtCore/QByteArray>

#include <chrono>
#include <sys/socket.h>

/// The far end of a TCP connection: a listener on a free port of the loop-back address, with one
/// connection at a time. Waits take at most 10 s and fail the test then.
class TcpPeer
{
public:
    explicit TcpPeer(int family = AF_INET);
    ~TcpPeer();
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    int port() const { return m_port; }

    /// Takes the next connection in place of an earlier one, which it closes.
    void accept();
    /// Waits for so many bytes; fewer when the other end closes before.
    QByteArray receive(int count);
    /// True when the other end has closed in order and nothing more came.
    bool seesTheEnd();
    void send(const QByteArray& bytes);
    void close();
    /// Breaks the connection off.
    void reset();

    /// From now on the connection, or the listener, is as a machine without power: it drops every
    /// packet and answers none.
    void vanish();
    void vanishBeforeAccepting();
    /// Closes the listener: connections are refused.
    void stopListening();

private:
    void await(int descriptor);

    int m_listener = -1;
    int m_connection = -1;
    int m_port = 0;
};

/// Receives from a line until so many bytes are there, the connection is lost, or 10 s are over.
template<typename Line> QByteArray receivedFrom(Line& line, int count)
{
    const auto patience = std::chrono::seconds(10);
    const auto end = std::chrono::steady_clock::now() + patience;
    QByteArray bytes;
    while (bytes.size() < count && std::chrono::steady_clock::now() < end) {
        if (!line.receive(bytes, patience))
            break;
    }
    return bytes;
}

#endif
