#include "Rfc2217Line.h"

#include "LineFactory.h"
#include "SerialLine.h"
#include "UserError.h"
#include "tcp_peer.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

using namespace micro850::host;
using namespace std::chrono_literals;
using micro850::Duration;
using wire::hex;

namespace {

const auto kLong = 10s;
const int kOffersSize = 15;
// Speed, three of one byte, four controls, two masks, a purge: with 6 bytes of telnet each.
const int kSettingsSize = 10 + 10 * 7;

class Rfc2217LineTest : public ::testing::Test
{
protected:
    // The answers of a server to the offers and settings of the line.
    void negotiate()
    {
        peer.accept();
        EXPECT_EQ(peer.receive(kOffersSize), hex("FF FB 2C FF FB 00 FF FB 03 FF FD 00 FF FD 03"));
        peer.send(hex("FF FD 2C FF FD 00 FF FD 03 FF FB 00 FF FB 03"));
        EXPECT_TRUE(peer.receive(kSettingsSize).startsWith(hex("FF FA 2C 01 00 00 96 00 FF F0")));
        peer.send(hex("FF FA 2C 65 00 00 96 00 FF F0 FF FA 2C 66 08 FF F0 "
                      "FF FA 2C 67 01 FF F0 FF FA 2C 68 01 FF F0"));
    }
    void connect()
    {
        auto opened = beginToOpen();
        negotiate();
        ASSERT_TRUE(opened.get()) << error.toStdString();
    }
    std::future<bool> beginToOpen()
    {
        return std::async(std::launch::async, [this] { return line.open(error); });
    }
    QByteArray receive(int count) { return receivedFrom(line, count); }
    std::string at() const { return "127.0.0.1:" + std::to_string(peer.port()); }

    TcpPeer peer;
    Rfc2217Line line = {{NetworkAddress::Protocol::Rfc2217, "127.0.0.1", peer.port()},
                        PortSettings()};
    micro850::SystemClock clock;
    QString error;
};

} // namespace

TEST_F(Rfc2217LineTest, DoublesByteFfOnlyOnTheNetwork)
{
    connect();
    EXPECT_TRUE(line.send(hex("10 02 FF 0D 00 FF FF 03")));
    EXPECT_EQ(peer.receive(11), hex("10 02 FF FF 0D 00 FF FF FF FF 03"));
    peer.send(hex("10 02 FF FF 0D 00 FF FF FF FF 03"));
    EXPECT_EQ(receive(8), hex("10 02 FF 0D 00 FF FF 03"));
}

TEST_F(Rfc2217LineTest, WaitsOnAfterNoticesOfTheServer)
{
    connect();
    auto received = std::async(std::launch::async, [this] {
        QByteArray bytes;
        EXPECT_TRUE(line.receive(bytes, kLong));
        return bytes;
    });
    peer.send(hex("FF FA 2C 6A 60 FF F0"));
    std::this_thread::sleep_for(50ms); // so that they come apart, as a rule
    peer.send("data");
    EXPECT_EQ(received.get(), QByteArray("data"));
    // And no longer than for the time that it was given.
    peer.send(hex("FF FA 2C 6A 60 FF F0"));
    QByteArray bytes;
    EXPECT_TRUE(line.receive(bytes, 100ms));
    EXPECT_EQ(bytes, QByteArray());
}

TEST_F(Rfc2217LineTest, DiscardsDataButNoCommandsOfTheServer)
{
    connect();
    peer.send(hex("41 42 FF FC 00")); // ends the transmission of all bytes
    const Duration start = clock.now();
    while (line.send("a") && clock.now() - start < kLong)
        line.discardInput();
    EXPECT_NE(line.lossReason().indexOf("refuses to pass all bytes on unaltered"), -1)
        << line.lossReason().toStdString();
}

TEST_F(Rfc2217LineTest, SendsNothingWhileTheServerWantsNothing)
{
    connect();
    peer.send(hex("FF FA 2C 6C FF F0 41"));
    EXPECT_EQ(receive(1), QByteArray("A"));
    auto sent = std::async(std::launch::async, [this] { return line.send("a"); });
    peer.send(hex("42 FF FA 2C 6D FF F0"));
    EXPECT_TRUE(sent.get());
    EXPECT_EQ(peer.receive(1), QByteArray("a"));
    // What came meanwhile is not lost.
    EXPECT_EQ(receive(1), QByteArray("B"));
}

TEST_F(Rfc2217LineTest, EndsWithAServerThatWantsNothingForLong)
{
    connect();
    peer.send(hex("FF FA 2C 6C FF F0 41"));
    EXPECT_EQ(receive(1), QByteArray("A"));
    EXPECT_FALSE(line.send("a"));
    EXPECT_EQ(line.lossReason().toStdString(),
              at() + " lets no bytes through (flow control at the server?)");
}

TEST_F(Rfc2217LineTest, RefusesAServerThatSpeaksNoTelnet)
{
    auto opened = beginToOpen();
    peer.accept();
    peer.send("no telnet");
    EXPECT_FALSE(opened.get());
    EXPECT_EQ(error.toStdString(), at() +
                                       " does not negotiate: it seems to speak no RFC 2217 "
                                       "(use tcp://" +
                                       at() + ")");
    EXPECT_FALSE(line.isOpen());
}

TEST_F(Rfc2217LineTest, RefusesAServerThatEchoesEverything)
{
    auto opened = beginToOpen();
    peer.accept();
    // The offers come back as the server's own: it seems to agree to everything, and to confirm
    // nothing.
    peer.send(peer.receive(kOffersSize));
    EXPECT_FALSE(opened.get());
    EXPECT_NE(error.indexOf("use tcp://"), -1) << error.toStdString();
}

TEST_F(Rfc2217LineTest, RefusesAServerThatDoesNotKnowThePortsOption)
{
    auto opened = beginToOpen();
    peer.accept();
    peer.send(hex("FF FE 2C"));
    EXPECT_FALSE(opened.get());
    EXPECT_EQ(error.toStdString(), at() +
                                       " speaks telnet, but no RFC 2217 (enable it at the server, "
                                       "or set the server to raw TCP and use tcp://" +
                                       at() + ")");
    EXPECT_FALSE(line.refusesSettings());
}

TEST_F(Rfc2217LineTest, TellsASpeedThatTheServerDoesNotSet)
{
    auto opened = beginToOpen();
    peer.accept();
    peer.send(hex("FF FD 2C FF FD 00 FF FB 00"));
    peer.receive(kOffersSize + kSettingsSize);
    peer.send(hex("FF FA 2C 65 00 00 25 80 FF F0"));
    EXPECT_FALSE(opened.get());
    EXPECT_EQ(error.toStdString(),
              at() + " sets 9600 baud instead of 38400 baud (choose what its port can do)");
    EXPECT_TRUE(line.refusesSettings());
}

TEST_F(Rfc2217LineTest, GivesUpTheNegotiationAtASignal)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = [](int) {};
    ::sigaction(SIGUSR1, &action, &before);
    std::atomic<bool> ended{false};
    std::thread opening([this, &ended] {
        EXPECT_FALSE(line.open(error));
        ended = true;
    });
    peer.accept();
    peer.receive(kOffersSize);
    const Duration start = clock.now();
    // Again and again: the first one may come before the line waits.
    while (!ended && clock.now() - start < kLong) {
        ::pthread_kill(opening.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(20ms);
    }
    opening.join();
    EXPECT_EQ(error, QString("interrupted"));
    EXPECT_LT(clock.now() - start, 2900ms);
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(Rfc2217LineTest, TellsThatTheServerServesAnotherClient)
{
    auto opened = beginToOpen();
    peer.accept();
    peer.send("Port already in use\r\n");
    peer.stopListening();
    peer.close();
    EXPECT_FALSE(opened.get());
    // The next attempt was refused, because the test closed the listener.
    EXPECT_NE(error.indexOf("refuses the connection"), -1) << error.toStdString();
}

TEST_F(Rfc2217LineTest, TriesAgainWithAServerThatIsStillBusy)
{
    auto opened = beginToOpen();
    peer.accept();
    peer.send("Port already in use\r\n");
    peer.close();
    negotiate();
    EXPECT_TRUE(opened.get()) << error.toStdString();
    peer.send("x");
    EXPECT_EQ(receive(1), QByteArray("x"));
}

TEST_F(Rfc2217LineTest, TellsThatTheServerClosed)
{
    connect();
    peer.close();
    QByteArray bytes;
    EXPECT_FALSE(line.receive(bytes, kLong));
    EXPECT_EQ(line.lossReason().toStdString(),
              at() + " closed the connection (another client uses it, it was started again, or it "
                     "is no device server)");
    // Opened again, it knows nothing of that.
    connect();
    EXPECT_EQ(line.lossReason(), QString());
    EXPECT_TRUE(line.send("a"));
}

TEST_F(Rfc2217LineTest, FailsWhileItIsClosed)
{
    QByteArray bytes;
    EXPECT_FALSE(line.send("a"));
    EXPECT_FALSE(line.receive(bytes, 1s));
    line.discardInput();
    EXPECT_FALSE(line.refusesSettings());
    EXPECT_EQ(line.lossReason(), QString());
}

TEST(LineFactory, MakesTheLineThatTheDevicesTextNames)
{
    PortSettings port;
    port.device = "/dev/a:b";
    EXPECT_NE(dynamic_cast<SerialLine*>(lineFor(port).get()), nullptr);
    port.device = "rfc2217://plc:2000";
    EXPECT_NE(dynamic_cast<Rfc2217Line*>(lineFor(port).get()), nullptr);
    port.device = "tcp://plc:2000";
    const std::unique_ptr<Line> raw = lineFor(port);
    EXPECT_NE(dynamic_cast<TcpLine*>(raw.get()), nullptr);
    EXPECT_EQ(dynamic_cast<Rfc2217Line*>(raw.get()), nullptr);
    port.device = "udp://plc:2000";
    EXPECT_THROW(lineFor(port), micro850::UserError);
}
