#include "tcp_peer.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <linux/filter.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

namespace {

const int kPatienceMs = 10000;

sockaddr_storage loopBack(int family, socklen_t& size)
{
    sockaddr_storage address = {};
    if (family == AF_INET6) {
        auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&address);
        ipv6->sin6_family = AF_INET6;
        ipv6->sin6_addr = in6addr_loopback;
        size = sizeof *ipv6;
    } else {
        auto* ipv4 = reinterpret_cast<sockaddr_in*>(&address);
        ipv4->sin_family = AF_INET;
        ipv4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        size = sizeof *ipv4;
    }
    return address;
}

int portOf(int descriptor)
{
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.ss_family == AF_INET6
                     ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                     : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
}

// A filter of one instruction that keeps no byte of any packet.
void dropEverything(int descriptor)
{
    sock_filter nothing = {BPF_RET | BPF_K, 0, 0, 0};
    const sock_fprog program = {1, &nothing};
    if (::setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        throw std::runtime_error("no filter on the socket");
}

void closeDescriptor(int& descriptor)
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

} // namespace

TcpPeer::TcpPeer(int family)
{
    socklen_t size = 0;
    sockaddr_storage address = loopBack(family, size);
    m_listener = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listener < 0 || ::bind(m_listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(m_listener, 8) != 0)
        throw std::runtime_error("no listener on the loop-back address");
    m_port = portOf(m_listener);
}

TcpPeer::~TcpPeer()
{
    close();
    stopListening();
}

void TcpPeer::await(int descriptor)
{
    pollfd input = {descriptor, POLLIN, 0};
    if (::poll(&input, 1, kPatienceMs) != 1)
        throw std::runtime_error("nothing came from the line within 10 s");
}

void TcpPeer::accept()
{
    close();
    await(m_listener);
    m_connection = ::accept(m_listener, nullptr, nullptr);
}

QByteArray TcpPeer::receive(int count)
{
    QByteArray bytes;
    while (bytes.size() < count) {
        await(m_connection);
        std::array<char, 4096> buffer;
        const size_t most = std::min<size_t>(buffer.size(), size_t(count - bytes.size()));
        const ssize_t got = ::recv(m_connection, buffer.data(), most, 0);
        if (got <= 0)
            break;
        bytes.append(buffer.data(), static_cast<int>(got));
    }
    return bytes;
}

bool TcpPeer::seesTheEnd()
{
    await(m_connection);
    char byte = 0;
    return ::recv(m_connection, &byte, 1, 0) == 0;
}

void TcpPeer::send(const QByteArray& bytes)
{
    EXPECT_EQ(::send(m_connection, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL),
              bytes.size());
}

void TcpPeer::close()
{
    closeDescriptor(m_connection);
}

void TcpPeer::reset()
{
    const linger atOnce = {1, 0};
    ::setsockopt(m_connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close();
}

void TcpPeer::vanish()
{
    dropEverything(m_connection);
}

void TcpPeer::vanishBeforeAccepting()
{
    dropEverything(m_listener);
}

void TcpPeer::stopListening()
{
    closeDescriptor(m_listener);
}
