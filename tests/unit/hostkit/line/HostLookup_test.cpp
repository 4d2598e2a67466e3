#include "HostLookup.h"

#include "TcpSocket.h"
#include "tcp_peer.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

/// What the system's resolver answers in this program, in place of the system.
class Resolver
{
public:
    int lookUp(const char* port, addrinfo** found)
    {
        ++lookups;
        const Running running(m_running);
        std::unique_lock<std::mutex> guard(m_mutex);
        m_changed.wait(guard, [this] { return !m_slow; });
        for (auto address = addresses.rbegin(); address != addresses.rend(); ++address)
            *found = entry(address->c_str(), port, *found);
        return error;
    }
    void setSlow(bool slow)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_slow = slow;
        m_changed.notify_all();
    }
    /// Waits until no thread asks any more.
    void finish()
    {
        setSlow(false);
        while (m_running != 0)
            std::this_thread::yield();
    }

    std::atomic<int> lookups{0};
    int error = 0;
    std::vector<std::string> addresses;

private:
    struct Running
    {
        explicit Running(std::atomic<int>& running) : count(running) { ++count; }
        ~Running() { --count; }
        std::atomic<int>& count;
    };
    static addrinfo* entry(const char* address, const char* port, addrinfo* next)
    {
        auto* ipv4 = new sockaddr_in();
        ipv4->sin_family = AF_INET;
        ipv4->sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
        ::inet_pton(AF_INET, address, &ipv4->sin_addr);
        auto* made = new addrinfo();
        made->ai_family = AF_INET;
        made->ai_addr = reinterpret_cast<sockaddr*>(ipv4);
        made->ai_addrlen = sizeof *ipv4;
        made->ai_next = next;
        return made;
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<int> m_running{0};
    bool m_slow = false;
};

Resolver resolver;
bool descriptorsAreFree = true;

} // namespace

// The linker takes these instead of the system's.
extern "C" int getaddrinfo(const char*, const char* port, const addrinfo* hints, addrinfo** found)
{
    *found = nullptr;
    return (hints->ai_flags & AI_NUMERICHOST) != 0 ? EAI_NONAME : resolver.lookUp(port, found);
}

extern "C" int eventfd(unsigned int value, int flags) noexcept
{
    if (descriptorsAreFree)
        return static_cast<int>(::syscall(SYS_eventfd2, value, flags));
    errno = EMFILE;
    return -1;
}

extern "C" void freeaddrinfo(addrinfo* first)
{
    while (first) {
        addrinfo* const next = first->ai_next;
        delete reinterpret_cast<sockaddr_in*>(first->ai_addr);
        delete first;
        first = next;
    }
}

namespace {

class HostLookupTest : public ::testing::Test
{
protected:
    HostLookupTest() { setUp(0, {"127.0.0.1"}); }
    ~HostLookupTest() override { resolver.finish(); }

    static void setUp(int result, const std::vector<std::string>& addresses)
    {
        resolver.error = result;
        resolver.addresses = addresses;
        resolver.lookups = 0;
    }
    size_t found(micro850::Duration wait) { return lookup.addresses(wait, error).size(); }

    HostLookup lookup{{NetworkAddress::Protocol::Raw, "plc", 2000}};
    QString error;
};

} // namespace

TEST_F(HostLookupTest, FindsAllAddressesOfAName)
{
    setUp(0, {"127.0.0.1", "127.0.0.2"});
    EXPECT_EQ(found(10s), 2U);
    EXPECT_EQ(resolver.lookups, 1);
}

TEST_F(HostLookupTest, TellsWhyThereIsNone)
{
    const std::vector<std::pair<int, const char*>> reasons = {
        {EAI_NONAME, "the name plc is not known"},
        {EAI_NODATA, "the name plc is not known"},
        {EAI_AGAIN, "no name server tells the address of plc"}};
    for (const auto& [code, text] : reasons) {
        setUp(code, {});
        EXPECT_EQ(found(10s), 0U);
        EXPECT_EQ(error.toStdString(), text);
    }
    setUp(EAI_MEMORY, {});
    EXPECT_EQ(found(10s), 0U);
    EXPECT_TRUE(error.startsWith("the address of plc cannot be found: ")) << error.toStdString();
}

TEST_F(HostLookupTest, WaitsOnlySoLongAndTakesTheResultLater)
{
    resolver.setSlow(true);
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_EQ(found(20ms), 0U);
        EXPECT_EQ(error, QString("the name plc was not resolved within 0 s"));
    }
    resolver.setSlow(false);
    EXPECT_EQ(found(10s), 1U);
    // However often it was asked for.
    EXPECT_EQ(resolver.lookups, 1);
    EXPECT_EQ(found(10s), 1U);
    EXPECT_EQ(resolver.lookups, 2);
}

TEST_F(HostLookupTest, GivesUpAtASignal)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, &before);
    // Again and again: the first one may come too early.
    const itimerval often = {{0, 50000}, {0, 50000}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    resolver.setSlow(true);
    EXPECT_EQ(found(10s), 0U);
    EXPECT_EQ(error, QString("interrupted"));
    const itimerval never = {};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &before, nullptr);
}

TEST_F(HostLookupTest, MayEndBeforeItsResult)
{
    resolver.setSlow(true);
    {
        HostLookup other({NetworkAddress::Protocol::Raw, "plc", 2000});
        EXPECT_TRUE(other.addresses(20ms, error).empty());
    }
    resolver.setSlow(false);
    EXPECT_EQ(found(10s), 1U);
}

TEST_F(HostLookupTest, WithoutFreeDescriptorsItTellsWhyAndTriesAgainLater)
{
    descriptorsAreFree = false;
    EXPECT_EQ(found(10s), 0U);
    descriptorsAreFree = true;
    EXPECT_EQ(error, QString("the address of plc cannot be looked up: Too many open files"));
    EXPECT_EQ(resolver.lookups, 0);
    EXPECT_EQ(found(10s), 1U);
}

// The system drops what is sent to a listener whose queue is full, so that each of these addresses
// would take its time.
TEST_F(HostLookupTest, ASignalEndsConnectingToANameWithSeveralAddresses)
{
    TcpPeer peer;
    peer.vanishBeforeAccepting();
    setUp(0, {"127.0.0.1", "127.0.0.1", "127.0.0.1"});
    TcpSocket socket({NetworkAddress::Protocol::Raw, "plc", peer.port()});
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, &before);
    const itimerval once = {{0, 0}, {0, 300000}};
    ::setitimer(ITIMER_REAL, &once, nullptr);
    EXPECT_FALSE(socket.open(error));
    ::sigaction(SIGALRM, &before, nullptr);
    EXPECT_EQ(error, QString("interrupted"));
}

// Nobody listens at 127.0.0.2 and 127.0.0.3.
TEST_F(HostLookupTest, OfSeveralAddressesTheFirstThatAcceptsIsUsed)
{
    TcpPeer peer;
    const NetworkAddress address = {NetworkAddress::Protocol::Raw, "plc", peer.port()};
    setUp(0, {"127.0.0.2", "127.0.0.3", "127.0.0.1"});
    TcpSocket socket(address);
    EXPECT_TRUE(socket.open(error)) << error.toStdString();
    peer.accept();
    // Of a longer list, the others are not tried.
    setUp(0, {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.1"});
    EXPECT_FALSE(socket.open(error));
    EXPECT_NE(error.indexOf("refuses the connection"), -1) << error.toStdString();
}
