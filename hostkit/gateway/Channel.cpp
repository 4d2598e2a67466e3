#include "Channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace micro850::host {

Channel::Channel(int socket, int longestLine, qint64 mostWaiting)
    : m_socket(socket), m_input(longestLine), m_output(mostWaiting)
{
    ::fcntl(m_socket, F_SETFL, ::fcntl(m_socket, F_GETFL) | O_NONBLOCK);
}

Channel::~Channel()
{
    ::close(m_socket);
}

bool Channel::receive()
{
    std::array<char, std::size_t(64) * 1024>
        bytes; // NOLINT(cppcoreguidelines-pro-type-member-init)
    ssize_t got = -1;
    do {
        got = ::recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got <= 0)
        return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    m_input.add(bytes.data(), static_cast<int>(got));
    return true;
}

bool Channel::send(const QByteArray& line)
{
    return m_output.add(line) && flush();
}

bool Channel::flush()
{
    return m_output.sendTo(m_socket) != OutputBuffer::Outcome::Broken;
}

} // namespace micro850::host
