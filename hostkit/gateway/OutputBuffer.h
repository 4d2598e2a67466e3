#ifndef MICRO850_HOST_OUTPUTBUFFER_H
#define MICRO850_HOST_OUTPUTBUFFER_H

#include <QtCore/QByteArray>

namespace micro850::host {

/// Bytes that wait for a socket which does not block; a limited number of them.
class OutputBuffer
{
public:
    enum class Outcome {
        Sent,    ///< nothing is left
        Waiting, ///< the peer takes no more now
        Broken   ///< the peer is gone
    };

    explicit OutputBuffer(qint64 most) : m_most(most) {}

    /// False, and nothing is added, when so many bytes have no room.
    bool add(const QByteArray& bytes);
    qint64 size() const { return m_bytes.size() - m_sent; }
    bool isEmpty() const { return size() == 0; }
    qint64 room() const { return m_most - size(); }
    /// Everything that waits; for tests, and for who has no socket.
    QByteArray takeAll();
    /// Sends what the socket takes now.
    Outcome sendTo(int socket);

private:
    void removeSent(int bytes);

    qint64 m_most;
    QByteArray m_bytes;
    int m_sent = 0;
};

} // namespace micro850::host

#endif
