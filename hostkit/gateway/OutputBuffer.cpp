#include "OutputBuffer.h"

#include <sys/socket.h>

#include <cerrno>

namespace micro850::host {

bool OutputBuffer::add(const QByteArray& bytes)
{
    if (bytes.size() > room())
        return false;
    m_bytes.append(bytes);
    return true;
}

QByteArray OutputBuffer::takeAll()
{
    const QByteArray all = m_bytes.mid(m_sent);
    removeSent(all.size());
    return all;
}

OutputBuffer::Outcome OutputBuffer::sendTo(int socket)
{
    while (!isEmpty()) {
        const ssize_t sent = ::send(socket, m_bytes.constData() + m_sent,
                                    static_cast<std::size_t>(size()), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? Outcome::Waiting : Outcome::Broken;
        removeSent(static_cast<int>(sent));
    }
    return Outcome::Sent;
}

// Moves what is left only when at least as much was sent, so that a byte is moved once on average.
// An empty buffer gives back memory that it seldom needs.
void OutputBuffer::removeSent(int bytes)
{
    const int kKept = 16 * 1024;
    m_sent += bytes;
    if (m_sent == m_bytes.size()) {
        m_sent = 0;
        if (m_bytes.capacity() > kKept)
            m_bytes = QByteArray();
        else
            m_bytes.resize(0);
    } else if (m_sent >= m_bytes.size() / 2) {
        m_bytes.remove(0, m_sent);
        m_sent = 0;
    }
}

} // namespace micro850::host
