#include "TcpLine.h"

#include "tcp_peer.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <netdb.h>
#include <set>
#include <sys/time.h>
#include <thread>

using namespace micro850::host;
using namespace std::chrono_literals;
using micro850::Duration;
using wire::hex;

namespace {

// What comes at all comes within this time.
const auto kLong = 10s;

TcpLine lineTo(int port, const QString& host = "127.0.0.1")
{
    return TcpLine({NetworkAddress::Protocol::Raw, host, port}, PortSettings());
}

std::set<int> familiesOf(const char* host)
{
    std::set<int> families;
    addrinfo* found = nullptr;
    EXPECT_EQ(::getaddrinfo(host, nullptr, nullptr, &found), 0);
    for (const addrinfo* entry = found; entry; entry = entry->ai_next)
        families.insert(entry->ai_family);
    ::freeaddrinfo(found);
    return families;
}

class TcpLineTest : public ::testing::Test
{
protected:
    void connect()
    {
        ASSERT_TRUE(line.open(error)) << error.toStdString();
        peer.accept();
    }
    QByteArray receive(int count) { return receivedFrom(line, count); }
    // Whether the line tells its loss before the time is over.
    bool losesWithin(Duration time)
    {
        const Duration start = clock.now();
        QByteArray bytes;
        while (line.receive(bytes, 100ms)) {
            if (clock.now() - start > time)
                return false;
        }
        return true;
    }
    std::string reason() const { return line.lossReason().toStdString(); }
    std::string at() const { return "127.0.0.1:" + std::to_string(peer.port()); }

    TcpPeer peer;
    TcpLine line = {{NetworkAddress::Protocol::Raw, "127.0.0.1", peer.port()}, PortSettings()};
    micro850::SystemClock clock;
    QString error;
};

// A listener that closes so many connections at once and keeps the next ones.
class BusyServer
{
public:
    BusyServer(TcpPeer& peer, int refusals)
        : m_thread([&peer, refusals, this] {
              for (m_closed = 0; m_closed < refusals; ++m_closed) {
                  peer.accept();
                  peer.close();
              }
              peer.accept();
          })
    {
    }
    ~BusyServer() { m_thread.join(); }
    BusyServer(const BusyServer&) = delete;
    BusyServer& operator=(const BusyServer&) = delete;
    int closed() const { return m_closed; }

private:
    std::atomic<int> m_closed{0};
    std::thread m_thread;
};

void doNothing(int) {}

// Sends a signal after 200 ms, as Ctrl-C would.
class SignalSoon
{
public:
    SignalSoon()
    {
        struct sigaction action = {};
        action.sa_handler = doNothing;
        ::sigaction(SIGALRM, &action, &m_before);
        // Again and again: the first one may come too early.
        const itimerval time = {{0, 200000}, {0, 200000}};
        ::setitimer(ITIMER_REAL, &time, nullptr);
    }
    ~SignalSoon()
    {
        const itimerval never = {};
        ::setitimer(ITIMER_REAL, &never, nullptr);
        ::sigaction(SIGALRM, &m_before, nullptr);
    }
    SignalSoon(const SignalSoon&) = delete;
    SignalSoon& operator=(const SignalSoon&) = delete;

private:
    struct sigaction m_before = {};
};

} // namespace

TEST_F(TcpLineTest, CarriesBytesUnalteredBothWays)
{
    connect();
    QByteArray all;
    for (int byte = 0; byte < 256; ++byte)
        all.append(char(byte));
    all += hex("FF FF FF FB 2C 0D 00 0D 0A");
    EXPECT_TRUE(line.send(all));
    EXPECT_EQ(peer.receive(all.size()), all);
    peer.send(all);
    EXPECT_EQ(receive(all.size()), all);
    EXPECT_TRUE(line.isOpen());
}

TEST_F(TcpLineTest, TakesASilenceForNoLoss)
{
    connect();
    QByteArray bytes;
    EXPECT_TRUE(line.receive(bytes, 20ms));
    EXPECT_EQ(bytes, QByteArray());
}

TEST(TcpLine, ReachesAnIpv6Address)
{
    TcpPeer peer(AF_INET6);
    TcpLine line = lineTo(peer.port(), "::1");
    QString error;
    ASSERT_TRUE(line.open(error)) << error.toStdString();
    peer.accept();
    EXPECT_TRUE(line.send("ab"));
    EXPECT_EQ(peer.receive(2), QByteArray("ab"));
}

// The name stands for 127.0.0.1, ::1 or both, in an order that the machine chooses.
TEST(TcpLine, TriesEachAddressOfAName)
{
    for (const int family : familiesOf("localhost")) {
        TcpPeer peer(family);
        TcpLine line = lineTo(peer.port(), "localhost");
        QString error;
        ASSERT_TRUE(line.open(error)) << family << ": " << error.toStdString();
        peer.accept();
    }
}

TEST(TcpLine, TellsThatANameIsNotKnown)
{
    TcpLine line = lineTo(2000, "no-such-name.invalid");
    QString error;
    EXPECT_FALSE(line.open(error));
    EXPECT_FALSE(line.isOpen());
    // Without any name server the machine cannot know that there is no such name.
    EXPECT_TRUE(error == "the name no-such-name.invalid is not known" ||
                error == "no name server tells the address of no-such-name.invalid" ||
                error == "the name no-such-name.invalid was not resolved within 5 s")
        << error.toStdString();
}

TEST(TcpLine, TellsThatAnInterfaceIsMissing)
{
    TcpLine line = lineTo(2000, "fe80::1%nowhere");
    QString error;
    EXPECT_FALSE(line.open(error));
    EXPECT_EQ(error, QString("this machine has no interface nowhere"));
}

TEST_F(TcpLineTest, TellsThatTheServerRefuses)
{
    peer.stopListening();
    EXPECT_FALSE(line.open(error));
    EXPECT_EQ(error.toStdString(), at() + " refuses the connection (does the device server run "
                                          "there, on this port?)");
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TcpLineTest, TellsThatNothingAnswersWithinThreeSeconds)
{
    peer.vanishBeforeAccepting();
    const Duration start = clock.now();
    EXPECT_FALSE(line.open(error));
    EXPECT_GE(clock.now() - start, 3s);
    EXPECT_EQ(error.toStdString(),
              at() + " does not answer within 3 s (check address and firewall)");
}

TEST_F(TcpLineTest, GivesUpToConnectAtASignal)
{
    peer.vanishBeforeAccepting();
    const SignalSoon interrupt;
    const Duration start = clock.now();
    EXPECT_FALSE(line.open(error));
    EXPECT_LT(clock.now() - start, 2900ms);
    EXPECT_EQ(error, QString("interrupted"));
}

TEST_F(TcpLineTest, WaitsForAServerThatHasNotNoticedItsLastClientsEnd)
{
    const BusyServer server(peer, 3);
    EXPECT_TRUE(line.open(error)) << error.toStdString();
    EXPECT_EQ(server.closed(), 3);
}

TEST_F(TcpLineTest, TellsThatTheServerServesAnotherClient)
{
    {
        // 30 attempts would take far longer than the line tries.
        const BusyServer server(peer, 30);
        EXPECT_FALSE(line.open(error));
        EXPECT_EQ(error.toStdString(), at() + " closed the connection at once (another client "
                                              "uses it, or its serial port cannot be opened)");
        EXPECT_LT(server.closed(), 30);
        while (server.closed() < 30) {
            TcpLine other = lineTo(peer.port());
            other.open(error);
        }
        TcpLine last = lineTo(peer.port());
        last.open(error);
    }
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TcpLineTest, RefusesAServerThatBeginsWithTelnet)
{
    auto opened = std::async(std::launch::async, [this] { return line.open(error); });
    peer.accept();
    peer.send(hex("FF FB 03 FF FD 2C"));
    EXPECT_FALSE(opened.get());
    EXPECT_EQ(error.toStdString(),
              at() + " speaks telnet (use rfc2217://" + at() + ", or set the server to raw TCP)");
    EXPECT_FALSE(line.isOpen());
}

TEST_F(TcpLineTest, EndsWhenTheFirstBytesThatComeAreTelnets)
{
    connect();
    peer.send(hex("FF FD"));
    EXPECT_EQ(receive(2), hex("FF FD"));
    EXPECT_TRUE(line.send("a"));
    peer.send(hex("18"));
    EXPECT_TRUE(losesWithin(kLong));
    EXPECT_FALSE(line.send("b"));
    EXPECT_NE(reason().find("rfc2217://" + at()), std::string::npos) << reason();
}

TEST_F(TcpLineTest, SeesTelnetInWhatItDiscardsToo)
{
    connect();
    peer.send(hex("FF FD 18"));
    const Duration start = clock.now();
    while (line.send("a") && clock.now() - start < kLong)
        line.discardInput();
    EXPECT_NE(reason().find("speaks telnet"), std::string::npos) << reason();
}

TEST_F(TcpLineTest, PassesOnWhatOnlyResemblesTelnet)
{
    const char* const firsts[] = {"FF FF FB 03", "FF FB 2D 03", "10 FF FB 03", "FF FA 2C 65"};
    for (const char* first : firsts) {
        connect();
        peer.send(hex(first));
        peer.send(hex("FF FB 03"));
        EXPECT_EQ(receive(7), hex(first) + hex("FF FB 03"));
        EXPECT_TRUE(line.send("a")) << reason();
        line.close();
    }
}

TEST_F(TcpLineTest, TellsThatTheServerClosedInTheMiddleOfAReply)
{
    connect();
    peer.send(hex("10 06 10 02 00"));
    peer.close();
    EXPECT_EQ(receive(100), hex("10 06 10 02 00"));
    EXPECT_TRUE(losesWithin(kLong));
    EXPECT_EQ(reason(), at() + " closed the connection (another client uses it, it was started "
                               "again, or it is no device server)");
    EXPECT_FALSE(line.send("a"));
}

TEST_F(TcpLineTest, SendsNothingToAServerWhoseEndItDiscarded)
{
    connect();
    peer.close();
    const Duration start = clock.now();
    while (line.lossReason().isEmpty() && clock.now() - start < kLong)
        line.discardInput();
    EXPECT_FALSE(line.send("a"));
    EXPECT_EQ(reason(), at() + " closed the connection (another client uses it, it was started "
                               "again, or it is no device server)");
}

TEST_F(TcpLineTest, TellsThatTheConnectionWasBrokenOff)
{
    connect();
    peer.reset();
    EXPECT_TRUE(losesWithin(kLong));
    EXPECT_EQ(reason(), at() + " broke off the connection (another client uses it, it was started "
                               "again, or it is no device server)");
    EXPECT_FALSE(line.send("a")); // and no signal ends the program
}

TEST_F(TcpLineTest, NoticesASilentDeathWhileItWaitsForAReply)
{
    connect();
    peer.vanish();
    EXPECT_TRUE(line.send("request"));
    EXPECT_TRUE(losesWithin(5s));
    EXPECT_EQ(reason(), at() + " does not answer any more");
}

TEST_F(TcpLineTest, NoticesASilentDeathWhileNothingIsSent)
{
    connect();
    peer.vanish();
    const Duration start = clock.now();
    while (line.lossReason().isEmpty() && clock.now() - start < kLong) {
        line.pause(20ms);
        line.discardInput();
    }
    EXPECT_LE(clock.now() - start, 5s);
    EXPECT_EQ(reason(), at() + " does not answer any more");
    EXPECT_FALSE(line.send("a"));
}

TEST_F(TcpLineTest, OutlivesASilenceOfAPeerThatIsThere)
{
    connect();
    EXPECT_FALSE(losesWithin(6s)) << reason();
}

TEST_F(TcpLineTest, DiscardsWhatHasArrived)
{
    connect();
    peer.send("old");
    EXPECT_EQ(receive(1).left(1), QByteArray("o"));
    peer.send("old");
    const Duration start = clock.now();
    while (clock.now() - start < 100ms)
        line.discardInput();
    peer.send("new");
    EXPECT_EQ(receive(3), QByteArray("new"));
}

TEST_F(TcpLineTest, KeepsNothingOfAnEarlierConnection)
{
    connect();
    peer.send("old");
    line.close();
    EXPECT_FALSE(line.isOpen());
    connect();
    EXPECT_EQ(reason(), "");
    peer.send("new");
    EXPECT_EQ(receive(3), QByteArray("new"));
}

// An acknowledgement sent last must reach a controller whose last bytes nobody has read.
TEST_F(TcpLineTest, DeliversWhatWasSentLastAlthoughInputIsUnread)
{
    for (int round = 0; round < 20; ++round) {
        connect();
        peer.send("unread");
        EXPECT_TRUE(line.send("last"));
        line.close();
        EXPECT_EQ(peer.receive(4), QByteArray("last"));
    }
}

TEST_F(TcpLineTest, GivesUpOnAServerThatTakesNoMoreBytes)
{
    connect();
    const Duration start = clock.now();
    while (line.send(QByteArray(1000000, 'x')) && clock.now() - start < kLong) {
    }
    EXPECT_EQ(reason(), at() + " takes no more bytes");
}

TEST_F(TcpLineTest, MeasuresTheRoundTripOfTheNetwork)
{
    EXPECT_EQ(line.transportDelay(), 0us);
    connect();
    EXPECT_GT(line.transportDelay(), 0us);
    EXPECT_LT(line.transportDelay(), kLong);
    line.close();
    EXPECT_EQ(line.transportDelay(), 0us);
}

TEST_F(TcpLineTest, FailsWhileItIsClosed)
{
    QByteArray bytes;
    EXPECT_FALSE(line.isOpen());
    EXPECT_FALSE(line.send("a"));
    EXPECT_FALSE(line.receive(bytes, 1s));
    line.discardInput();
    line.close();
}
