// Connections over loopback, served step by step on one thread.

#include "NetworkPort.h"

#include "UserError.h"
#include "bytes.h"
#include "client.h"

#include <gtest/gtest.h>
#include <memory>
#include <netinet/tcp.h>

namespace micro850::sim {
namespace {

constexpr int kAttempts = 5000; // a millisecond apart

class NetworkPortTest : public ::testing::Test
{
protected:
    std::unique_ptr<NetworkPort> listening(const std::string& address = "tcp://127.0.0.1:0")
    {
        return std::make_unique<NetworkPort>(
            parseListenAddress(address), m_clock,
            [this](const std::string& note) { m_notes.push_back(note); });
    }
    /// Reads until `count` bytes have arrived at the port.
    static std::string received(NetworkPort& port, std::size_t count)
    {
        Bytes got;
        for (int i = 0; i < kAttempts && got.size() < count; ++i) {
            bool gone = false;
            got = got + port.read(gone);
            EXPECT_FALSE(gone);
            ::usleep(1000);
        }
        return text(got);
    }
    /// Serves until `count` bytes have arrived at the client.
    static std::string received(NetworkPort& port, Client& client, std::size_t count)
    {
        Bytes got;
        for (int i = 0; i < kAttempts && got.size() < count; ++i) {
            port.write(Bytes());
            got = got + client.read();
            ::usleep(1000);
        }
        return text(got);
    }
    /// Serves until the port has sent the client away.
    static bool sendsAway(NetworkPort& port, Client& client)
    {
        for (int i = 0; i < kAttempts && !client.wasSentAway(); ++i) {
            bool gone = false;
            port.read(gone);
            client.read();
            ::usleep(1000);
        }
        return client.wasSentAway();
    }
    /// Serves until the port has this many descriptors to wait for.
    static bool reaches(NetworkPort& port, std::size_t descriptors)
    {
        for (int i = 0; i < kAttempts && port.waits().size() != descriptors; ++i) {
            bool gone = false;
            port.read(gone);
            ::usleep(1000);
        }
        return port.waits().size() == descriptors;
    }

    VirtualClock m_clock;
    std::vector<std::string> m_notes;
};

TEST_F(NetworkPortTest, CarriesBytesBothWaysOverBothFamilies)
{
    for (const char* address : {"tcp://127.0.0.1:0", "tcp://[::1]:0"}) {
        const auto port = listening(address);
        EXPECT_NE(port->address().port, 0);
        EXPECT_EQ(port->path(), port->address().text());
        Client client(port->address());
        ASSERT_TRUE(client.isConnected()) << address;
        EXPECT_EQ(client.send(hex("00 FF 10 03")), 4u);
        EXPECT_EQ(received(*port, 4), "00 FF 10 03");
        port->write(hex("FF 00 10"));
        EXPECT_EQ(received(*port, client, 3), "FF 00 10");
    }
}

TEST_F(NetworkPortTest, SendsSmallPiecesAtOnce)
{
    const auto port = listening();
    Client client(port->address());
    ASSERT_TRUE(reaches(*port, 2));
    int value = 0;
    socklen_t size = sizeof value;
    ASSERT_EQ(::getsockopt(port->waits()[1].fd, IPPROTO_TCP, TCP_NODELAY, &value, &size), 0);
    EXPECT_NE(value, 0);
    ASSERT_EQ(::getsockopt(port->waits()[1].fd, SOL_SOCKET, SO_KEEPALIVE, &value, &size), 0);
    EXPECT_NE(value, 0) << "a client whose machine is gone would keep the line";
}

TEST_F(NetworkPortTest, SendsASecondClientAwayAndServesTheFirst)
{
    const auto port = listening();
    Client first(port->address());
    ASSERT_TRUE(reaches(*port, 2));
    Client second(port->address());
    EXPECT_TRUE(sendsAway(*port, second));
    ASSERT_EQ(m_notes.size(), 1u);
    EXPECT_EQ(m_notes[0].find("a second client, tcp://127.0.0.1:"), 0u) << m_notes[0];
    EXPECT_EQ(first.send(hex("01")), 1u);
    EXPECT_EQ(received(*port, 1), "01");
    EXPECT_FALSE(first.wasSentAway());
}

TEST_F(NetworkPortTest, TellsOfOneClientThatItSendsAwayAndOfTheirNumberWhenTheFirstGoes)
{
    const auto port = listening();
    {
        const Client first(port->address());
        ASSERT_TRUE(reaches(*port, 2));
        for (int i = 0; i < 3; ++i) {
            Client other(port->address());
            EXPECT_TRUE(sendsAway(*port, other));
        }
        EXPECT_EQ(m_notes.size(), 1u);
    }
    ASSERT_TRUE(reaches(*port, 1));
    ASSERT_EQ(m_notes.size(), 2u);
    EXPECT_EQ(m_notes[1], "the client has gone; meanwhile 3 others were sent away");
}

TEST_F(NetworkPortTest, ServesTheNextClientAfterTheFirstHasGoneHoweverItWent)
{
    const auto port = listening();
    for (const bool reset : {false, true}) {
        Client client(port->address());
        ASSERT_TRUE(reaches(*port, 2));
        port->write(hex("55"));
        if (reset) {
            client.reset();
            ASSERT_TRUE(reaches(*port, 1));
        }
    }
    ASSERT_TRUE(reaches(*port, 1));
    Client next(port->address());
    EXPECT_EQ(next.send(hex("02")), 1u);
    EXPECT_EQ(received(*port, 1), "02");
    EXPECT_EQ(text(next.read()), "") << "nothing that was meant for the one before";
    EXPECT_TRUE(m_notes.empty());
}

TEST_F(NetworkPortTest, ServesAClientThatComesRightAfterOthersHaveComeAndGone)
{
    const auto port = listening();
    for (int i = 0; i < 6; ++i) {
        Client before(port->address());
        ASSERT_TRUE(before.isConnected());
        EXPECT_EQ(before.send(Bytes(5000, 0x11)), 5000u);
        if (i == 0) {
            ASSERT_TRUE(reaches(*port, 2));
        }
    }
    Client last(port->address());
    EXPECT_EQ(last.send(hex("22")), 1u);
    Bytes got;
    for (int i = 0; i < kAttempts && (got.empty() || got.back() != 0x22); ++i) {
        bool gone = false;
        got = got + port->read(gone);
        ::usleep(1000);
    }
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.back(), 0x22);
    EXPECT_TRUE(m_notes.empty()) << m_notes[0];
}

TEST_F(NetworkPortTest, LosesWhatIsSentWhileThereIsNoClient)
{
    const auto port = listening();
    port->write(hex("01 02 03"));
    Client client(port->address());
    ASSERT_TRUE(reaches(*port, 2));
    port->write(hex("04"));
    EXPECT_EQ(received(*port, client, 1), "04");
}

TEST_F(NetworkPortTest, NeitherWaitsNorGrowsForAClientThatDoesNotRead)
{
    const auto port = listening();
    Client client(port->address());
    ASSERT_TRUE(reaches(*port, 2));
    // Many times what the system holds for a connection.
    const Bytes piece(OutputQueue::kCapacity, 0x55);
    for (int i = 0; i < 1000; ++i)
        port->write(piece);
    ASSERT_EQ(port->waits().size(), 2u);
    EXPECT_EQ(port->waits()[1].events, POLLIN | POLLOUT) << "bytes wait";
    m_clock.advance(OutputQueue::kPatience);
    port->write(Bytes());
    EXPECT_EQ(port->waits()[1].events, POLLIN) << "they are lost, as on a wire";
    EXPECT_EQ(client.send(hex("03")), 1u);
    EXPECT_EQ(received(*port, 1), "03") << "the client is served as before";
}

TEST_F(NetworkPortTest, RefusesConnectionsWhenItIsGoneAndCanListenThereAgain)
{
    auto port = listening();
    const ListenAddress address = port->address();
    Client client(address);
    ASSERT_TRUE(reaches(*port, 2));
    port.reset();
    for (int i = 0; i < kAttempts && !client.wasSentAway(); ++i) {
        client.read();
        ::usleep(1000);
    }
    EXPECT_TRUE(client.wasSentAway());
    EXPECT_FALSE(Client(address).isConnected());
    port = listening(address.text());
    EXPECT_EQ(port->path(), address.text());
    EXPECT_TRUE(Client(address).isConnected());
}

TEST_F(NetworkPortTest, SaysWhyItCannotListen)
{
    const auto port = listening();
    const auto complaint = [this](const std::string& address) {
        try {
            listening(address);
        } catch (const UserError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(complaint(port->path()), "--listen " + port->path() +
                                           ": Address already in use (choose another port, or 0 "
                                           "for any free one)");
    // An address for documents, which no machine has.
    EXPECT_EQ(complaint("tcp://192.0.2.1:0"), "--listen tcp://192.0.2.1:0: Cannot assign requested "
                                              "address (name an address of this machine)");
}

} // namespace
} // namespace micro850::sim
