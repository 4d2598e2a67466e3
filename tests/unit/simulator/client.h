#ifndef MICRO850_TESTS_SIMULATOR_CLIENT_H
#define MICRO850_TESTS_SIMULATOR_CLIENT_H

#include "Bytes.h"
#include "ListenAddress.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace micro850::sim {

/// A program that connects to a simulated controller. Its calls do not wait.
class Client
{
public:
    explicit Client(const ListenAddress& address)
        : m_socket(::socket(address.isIpv6() ? AF_INET6 : AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in v4{};
        sockaddr_in6 v6{};
        v4.sin_family = AF_INET;
        v6.sin6_family = AF_INET6;
        v4.sin_port = v6.sin6_port = htons(address.port);
        void* const bytes = address.isIpv6() ? static_cast<void*>(&v6.sin6_addr) : &v4.sin_addr;
        EXPECT_EQ(::inet_pton(address.isIpv6() ? AF_INET6 : AF_INET, address.host.c_str(), bytes),
                  1);
        m_isConnected =
            (address.isIpv6()
                 ? ::connect(m_socket, reinterpret_cast<sockaddr*>(&v6), sizeof v6)
                 : ::connect(m_socket, reinterpret_cast<sockaddr*>(&v4), sizeof v4)) == 0;
    }
    ~Client() { ::close(m_socket); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool isConnected() const { return m_isConnected; }
    int descriptor() const { return m_socket; }
    /// Sends as many of the bytes as the other end takes and returns their number.
    std::size_t send(const Bytes& bytes)
    {
        const ssize_t count =
            ::send(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    /// The bytes that are there; wasSentAway() is true once the other end has closed.
    Bytes read()
    {
        std::array<std::uint8_t, 65536> buffer;
        const ssize_t count = ::recv(m_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        m_wasSentAway |= count == 0 || (count < 0 && errno == ECONNRESET);
        return {buffer.begin(), buffer.begin() + std::max<ssize_t>(count, 0)};
    }
    bool wasSentAway() const { return m_wasSentAway; }
    /// Goes without a word, as a program that crashes with unread bytes.
    void reset()
    {
        const linger now = {1, 0};
        ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        ::close(m_socket);
        m_socket = -1;
    }

private:
    int m_socket;
    bool m_isConnected = false;
    bool m_wasSentAway = false;
};

} // namespace micro850::sim

#endif
