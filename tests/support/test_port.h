#ifndef MICRO850_TESTS_TEST_PORT_H
#define MICRO850_TESTS_TEST_PORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// A port of the loop-back address that nobody has, and that no other test takes while this object
/// lives, whether or not somebody listens there. It is below those that the system gives to
/// clients.
class TestPort
{
public:
    TestPort()
    {
        const int first = 20000;
        const int count = 10000;
        // Tests that run at the same time begin at different ports.
        const int start = static_cast<int>(::getpid() * 7) % count;
        for (int i = 0; i < count; ++i) {
            m_number = first + (start + i) % count;
            m_lock = lockFor(m_number);
            if (m_lock >= 0 && isFree(m_number))
                return;
            if (m_lock >= 0)
                ::close(m_lock);
        }
        throw std::runtime_error("no port is free");
    }
    ~TestPort() { ::close(m_lock); }
    TestPort(const TestPort&) = delete;
    TestPort& operator=(const TestPort&) = delete;

    int number() const { return m_number; }

private:
    static bool isFree(int port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        const int made = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int reuse = 1;
        ::setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
        const bool free = ::bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        ::close(made);
        return free;
    }
    // A name that only one process can have; the system frees it when the process ends. free_port()
    // of tests/page/plant.py uses the same.
    static int lockFor(int port)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const int length = std::snprintf(address.sun_path + 1, sizeof address.sun_path - 1,
                                         "micro850-test-%d", port);
        const int made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
                                                 static_cast<std::size_t>(length));
        if (::bind(made, reinterpret_cast<sockaddr*>(&address), size) == 0)
            return made;
        ::close(made);
        return -1;
    }

    int m_number = 0;
    int m_lock = -1;
};

#endif
