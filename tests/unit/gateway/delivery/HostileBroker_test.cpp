// Brokers, and what pretends to be one, that say anything at any time.
#include "IncomingPackets.h"
#include "MqttConnection.h"

#include "connection_owner.h"
#include "tcp_peer.h"
#include "watchdog.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <netdb.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <ostream>
#include <random>
#include <thread>

using namespace micro850;
using namespace micro850::gateway;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool kHasSanitizer = true;
#else
const bool kHasSanitizer = false;
#endif

std::atomic<bool> nameServerHangs{false};
std::atomic<int> hangingLookups{0};

} // namespace

/// The name server of the test, in place of the one of the C library.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result)
{
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    if (nameServerHangs) {
        ++hangingLookups;
        while (nameServerHangs)
            ::usleep(1000);
        --hangingLookups;
        return EAI_AGAIN;
    }
    return real(node, service, hints, result);
}

/// Failures show texts instead of their characters' codes.
static void PrintTo(const QString& text, std::ostream* out)
{
    *out << text.toStdString();
}

namespace {

QByteArray packet(int first, const QByteArray& body)
{
    QByteArray bytes(1, static_cast<char>(first));
    int length = body.size();
    do {
        const int low = length % 128;
        length /= 128;
        bytes.append(static_cast<char>(length > 0 ? low + 128 : low));
    } while (length > 0);
    return bytes + body;
}

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

// A topic or another text, with its length before it.
QByteArray text(const QByteArray& bytes)
{
    return QByteArray(1, static_cast<char>(bytes.size() / 256)) +
           QByteArray(1, static_cast<char>(bytes.size() % 256)) + bytes;
}

const QByteArray kAccepted5 = hex("2003000000");
const QByteArray kAccepted3 = hex("20020000");

/// A connection to a peer that a test plays.
class HostileBroker : public ::testing::Test
{
protected:
    HostileBroker()
    {
        address.host = QStringLiteral("127.0.0.1");
        address.port = peer.port();
        address.clientId = QStringLiteral("gateway");
        owner.nextWill.topic = "status";
        owner.nextWill.payload = "offline";
        owner.nextWill.isRetained = true;
    }

    // The connection has sent its first packet, which is returned.
    QByteArray begin(Duration patience = std::chrono::seconds(30))
    {
        connection = std::make_unique<MqttConnection>(owner, address, clock, patience);
        connection->start();
        return nextConnect();
    }
    QByteArray nextConnect()
    {
        peer.accept();
        return nextPacket();
    }
    QByteArray nextPacket()
    {
        QByteArray bytes = peer.receive(1);
        int length = 0;
        for (int shift = 0; shift < 28; shift += 7) {
            bytes += peer.receive(1);
            length |= (bytes.back() & 0x7f) << shift;
            if ((bytes.back() & 0x80) == 0)
                break;
        }
        return bytes + peer.receive(length);
    }
    void beginAccepted()
    {
        begin();
        peer.send(address.isVersion5 ? kAccepted5 : kAccepted3);
        ASSERT_TRUE(run([this] { return owner.connections == 1; }));
    }
    bool run(const std::function<bool()>& done) { return ConnectionOwner::run(*connection, done); }
    // Why the connection ended.
    QString reason()
    {
        EXPECT_TRUE(run([this] { return !owner.reasons.isEmpty(); }));
        const QString said = owner.reasons.value(0);
        EXPECT_FALSE(said.isEmpty());
        for (const QChar& character : said)
            EXPECT_TRUE(character.isPrint()) << qPrintable(said);
        return said;
    }

    int argc = 1;
    char name[5] = "test";
    char* argv[2] = {name, nullptr};
    QCoreApplication application{argc, argv};
    Watchdog watchdog{std::chrono::seconds(120)};
    VirtualClock clock;
    TcpPeer peer;
    BrokerAddress address;
    ConnectionOwner owner;
    std::unique_ptr<MqttConnection> connection;
};

MqttMessage toPublish(const char* topic, bool isRetained = false)
{
    MqttMessage message;
    message.topic = topic;
    message.payload = "x";
    message.isRetained = isRetained;
    return message;
}

} // namespace

TEST_F(HostileBroker, MayRefuseWithAnyCodeOfTheOldVersion)
{
    address.isVersion5 = false;
    for (int code = 1; code < 256; ++code) {
        owner.reasons.clear();
        begin();
        peer.send(packet(0x20, QByteArray(1, 0) + static_cast<char>(code)));
        const QString said = reason();
        EXPECT_FALSE(connection->isConnected());
        EXPECT_EQ(connection->status()["state"], "waiting");
        if (code <= 5) {
            EXPECT_TRUE(said.startsWith(QStringLiteral("the broker refuses the connection: ")))
                << qPrintable(said);
        }
    }
    EXPECT_EQ(owner.connections, 0);
}

TEST_F(HostileBroker, MayRefuseWithAnyCodeOfVersion5)
{
    for (int code = 0x80; code < 256; ++code) {
        owner.reasons.clear();
        begin();
        peer.send(packet(0x20, QByteArray(1, 0) + static_cast<char>(code) + '\0'));
        EXPECT_TRUE(reason().startsWith(QStringLiteral("the broker refuses the connection: ")));
    }
    EXPECT_EQ(owner.connections, 0);
}

TEST_F(HostileBroker, GivesAReasonThatDoesNothingToATerminal)
{
    begin();
    const QByteArray given = text("go \xe2\x80\xae away");
    peer.send(packet(0x20, hex("0088") + static_cast<char>(given.size() + 1) + '\x1f' + given));
    EXPECT_EQ(reason(), QStringLiteral("the broker refuses the connection: Server unavailable: "
                                       "\"go \\u202e away\""));
}

TEST_F(HostileBroker, IsAskedForTheOldVersionWhenItRefusesTheNewOneAndForTheNewOneAfterwards)
{
    EXPECT_EQ(begin().mid(4, 5), QByteArray("MQTT\x05"));
    peer.send(hex("20020001"));
    EXPECT_EQ(reason(),
              QStringLiteral("the broker refuses the connection: it does not speak MQTT 5"));
    connection->tick();
    EXPECT_EQ(nextConnect().mid(4, 5), QByteArray("MQTT\x04"));
    peer.send(kAccepted3);
    ASSERT_TRUE(run([this] { return owner.connections == 1; }));
    EXPECT_EQ(connection->status()["version"], "3.1.1");
    peer.close();
    ASSERT_TRUE(run([this] { return owner.reasons.size() == 2; }));
    clock.advance(std::chrono::minutes(1));
    connection->tick();
    EXPECT_EQ(nextConnect().mid(4, 5), QByteArray("MQTT\x05"));
}

TEST_F(HostileBroker, MayRefuseBothVersions)
{
    begin();
    peer.send(hex("2003008400"));
    EXPECT_EQ(reason(),
              QStringLiteral("the broker refuses the connection: it does not speak MQTT 5"));
    connection->tick();
    nextConnect();
    peer.send(hex("20020001"));
    ASSERT_TRUE(run([this] { return owner.reasons.size() == 2; }));
    EXPECT_EQ(owner.reasons[1],
              QStringLiteral("the broker refuses the connection: it does not speak MQTT 3.1.1"));
    connection->tick();
    EXPECT_EQ(connection->status()["state"], "waiting");
    EXPECT_EQ(owner.wills, 2);
}

TEST_F(HostileBroker, MaySendEveryByteAlone)
{
    begin();
    for (const char byte : kAccepted5)
        peer.send(QByteArray(1, byte));
    for (const char byte : packet(0x30, text("a/b") + '\0' + "value"))
        peer.send(QByteArray(1, byte));
    ASSERT_TRUE(run([this] { return owner.messages.size() == 1; }));
    EXPECT_EQ(owner.messages[0].topic, "a/b");
    EXPECT_EQ(owner.messages[0].payload, "value");
}

TEST_F(HostileBroker, MayEndInTheMiddleOfAPacket)
{
    beginAccepted();
    peer.send(packet(0x30, text("a/b") + '\0' + "value").left(6));
    peer.close();
    EXPECT_EQ(reason(), QStringLiteral("the broker closed the connection"));
    EXPECT_TRUE(owner.messages.isEmpty());
}

TEST_F(HostileBroker, IsNoBrokerWhenItSpeaksAnotherProtocol)
{
    for (const QByteArray& greeting :
         {QByteArray("HTTP/1.1 400 Bad Request\r\n\r\n"), QByteArray("SSH-2.0-x\r\n"),
          hex("15030100020228"), QByteArray("\0\0\0\0", 4), QByteArray(1000, '\xff'),
          packet(0x30, text("a") + '\0' + "early"), hex("d000")})
    {
        owner.reasons.clear();
        begin();
        peer.send(greeting);
        EXPECT_EQ(reason(), QStringLiteral("what answers there is no MQTT broker"));
    }
    EXPECT_TRUE(owner.messages.isEmpty());
}

TEST_F(HostileBroker, IsGivenUpWhenItSaysNothing)
{
    begin(std::chrono::milliseconds(200));
    EXPECT_EQ(reason(), QStringLiteral("the broker does not answer"));
}

TEST_F(HostileBroker, IsGivenUpWhenItSaysNothingToTls)
{
    address.isEncrypted = true;
    connection =
        std::make_unique<MqttConnection>(owner, address, clock, std::chrono::milliseconds(200));
    connection->start();
    peer.accept();
    EXPECT_EQ(reason(), QStringLiteral("the broker does not answer"));
}

TEST_F(HostileBroker, SendsGarbageOfAnyKind)
{
    const char* more = std::getenv("MICRO850_ROUNDS");
    const int rounds = more != nullptr ? std::atoi(more) : 300;
    std::mt19937 random(static_cast<unsigned>(rounds));
    const auto number = [&](int most) {
        return std::uniform_int_distribution<int>(0, most)(random);
    };
    const QByteArray kinds = hex("203040909ab0d0e0f0325062");
    for (int round = 0; round < rounds; ++round) {
        owner.reasons.clear();
        owner.connections = 0;
        address.isVersion5 = round % 2 == 0;
        beginAccepted();
        connection->subscribe("a");
        connection->publish(toPublish("a"));
        connection->ping(1);
        QByteArray garbage;
        for (int i = 0; i < 20; ++i) {
            QByteArray body;
            const int size = number(3) == 0 ? number(300) : number(8);
            for (int at = 0; at < size; ++at)
                body.append(static_cast<char>(number(2) == 0 ? number(255) : number(4)));
            const int first = static_cast<unsigned char>(kinds.at(number(kinds.size() - 1)));
            garbage += packet(first, body);
        }
        peer.send(garbage);
        peer.close();
        reason();
    }
}

TEST_F(HostileBroker, SendsPropertiesThatNobodyKnows)
{
    const QByteArray unknown = hex("02") + hex("7f00");
    const QByteArray cutOff = hex("03") + hex("1f0010");
    for (const QByteArray& properties : {unknown, cutOff, hex("ffffffff7f"), hex("0201")}) {
        for (const QByteArray& bytes :
             {packet(0x30, text("a") + properties),
              packet(0x32, text("a") + hex("0001") + properties),
              packet(0x40, hex("000100") + properties), packet(0x90, hex("0001") + properties),
              packet(0xb0, hex("0001") + properties), packet(0xe0, hex("80") + properties)})
        {
            owner.reasons.clear();
            owner.connections = 0;
            beginAccepted();
            peer.send(bytes);
            EXPECT_TRUE(reason().endsWith(QStringLiteral("properties that are not MQTT's")))
                << bytes.toHex().constData();
        }
        owner.reasons.clear();
        begin();
        peer.send(packet(0x20, hex("0000") + properties));
        EXPECT_TRUE(reason().endsWith(QStringLiteral("properties that are not MQTT's")));
    }
}

TEST_F(HostileBroker, MaySendEveryPropertyOfAMessage)
{
    beginAccepted();
    const QByteArray properties = hex("0101") + hex("0200000010") + hex("08") +
                                  text("answer/here") + hex("09") + text("data") + hex("0b01") +
                                  hex("03") + text("text/plain") + hex("26") + text("key") +
                                  text("value");
    peer.send(packet(0x30, text("a") + static_cast<char>(properties.size()) + properties + "x"));
    ASSERT_TRUE(run([this] { return !owner.messages.isEmpty() || !owner.reasons.isEmpty(); }));
    ASSERT_EQ(owner.messages.size(), 1) << qPrintable(owner.reasons.value(0));
    EXPECT_EQ(owner.messages[0].correlation, "data");
    EXPECT_EQ(owner.messages[0].expirySeconds.value_or(0), 16u);
    EXPECT_EQ(owner.messages[0].payload, "x");
}

TEST_F(HostileBroker, MayAnswerASubscriptionWithoutAVerdict)
{
    beginAccepted();
    connection->subscribe("orders");
    const QByteArray asked = nextPacket();
    peer.send(packet(0x90, asked.mid(2, 2) + '\0'));
    ASSERT_TRUE(run([this] { return !owner.refused.isEmpty() || !owner.reasons.isEmpty(); }));
}

TEST_F(HostileBroker, MayRefuseASubscription)
{
    beginAccepted();
    connection->subscribe("orders");
    const QByteArray asked = nextPacket();
    peer.send(packet(0x90, asked.mid(2, 2) + '\0' + '\x87'));
    ASSERT_TRUE(run([this] { return owner.refused.contains(0); }));
    EXPECT_EQ(owner.refused[0],
              QStringLiteral("the broker refuses the subscription of \"orders\""));
    EXPECT_TRUE(connection->isConnected());
}

TEST_F(HostileBroker, MayRefuseAMessage)
{
    beginAccepted();
    const int token = connection->publish(toPublish("a"));
    const QByteArray sent = nextPacket();
    // Header, topic of one letter, then the identifier; "not authorised".
    peer.send(packet(0x40, sent.mid(5, 2) + '\x87' + '\0'));
    ASSERT_TRUE(run([this] { return !owner.refused.isEmpty(); }));
    EXPECT_EQ(owner.refused.value(token),
              QStringLiteral("the broker refuses the message: Not authorized"));
    EXPECT_TRUE(owner.acknowledged.isEmpty());
}

TEST_F(HostileBroker, AcknowledgesWhatWasNotSent)
{
    beginAccepted();
    peer.send(hex("40021234"));
    peer.send(hex("b004123400") + '\0');
    peer.send(packet(0x30, text("a") + '\0' + "x"));
    ASSERT_TRUE(run([this] { return !owner.messages.isEmpty() || !owner.reasons.isEmpty(); }));
    EXPECT_TRUE(owner.acknowledged.isEmpty());
    EXPECT_TRUE(owner.pongs.isEmpty());
}

TEST_F(HostileBroker, EndsTheConnectionWithAnyReason)
{
    for (int code = 0x80; code < 256; ++code) {
        owner.reasons.clear();
        owner.connections = 0;
        beginAccepted();
        const QByteArray given = text("why\x07");
        peer.send(packet(0xe0, QByteArray(1, static_cast<char>(code)) +
                                   static_cast<char>(given.size() + 1) + '\x1f' + given));
        reason();
    }
    owner.reasons.clear();
    owner.connections = 0;
    beginAccepted();
    peer.send(packet(0xe0, hex("8e00")));
    EXPECT_EQ(reason(),
              QStringLiteral("another client came with the client id gateway: each needs its own"));
}

TEST_F(HostileBroker, MayCloseTheConnectionSoonAgainAndAgainAndIsAskedMoreAndMoreSeldom)
{
    address.isVersion5 = false;
    begin();
    // The pauses of the other client with the same id: the connections last so long.
    int paused = 0;
    for (const int seconds : {1, 2, 4, 8, 16, 32, 60, 60}) {
        peer.send(kAccepted3);
        ASSERT_TRUE(run([&] { return owner.connections == paused + 1; }));
        clock.advance(std::chrono::seconds(seconds));
        connection->tick();
        peer.close();
        ASSERT_TRUE(run([&] { return owner.reasons.size() == paused + 1; }));
        const QString closed = QStringLiteral("the broker closed the connection");
        EXPECT_EQ(owner.reasons.last(),
                  ++paused < 3 ? closed
                               : closed + QStringLiteral(" again and again (has another client the "
                                                         "client id gateway, too?)"));
        clock.advance(std::chrono::milliseconds(seconds * 500 - 1));
        connection->tick();
        EXPECT_EQ(owner.wills, paused) << seconds;
        clock.advance(std::chrono::milliseconds(seconds * 500 + 1));
        connection->tick();
        EXPECT_EQ(owner.wills, paused + 1) << seconds;
        nextConnect();
    }
}

TEST_F(HostileBroker, MayNotSendWhatNobodyAskedFor)
{
    for (const char* bytes : {"34070001610001007878", "3c", "62020001", "50020001", "70020001",
                              "c000", "100c00044d5154540402003c0000", "82", "f000"})
    {
        owner.reasons.clear();
        owner.connections = 0;
        beginAccepted();
        peer.send(hex(bytes) + QByteArray(10, '\0'));
        EXPECT_TRUE(reason().startsWith(QStringLiteral("the broker sent a "))) << bytes;
    }
}

TEST_F(HostileBroker, MayNotAnnounceALongPacketThatIsNoMessage)
{
    for (const char* bytes :
         {"90ffffff7f", "40ffffff7f", "e0ffffff7f", "d0ffffff7f", "b081800400", "90ffffffff"})
    {
        owner.reasons.clear();
        owner.connections = 0;
        beginAccepted();
        peer.send(hex(bytes));
        EXPECT_TRUE(reason().startsWith(QStringLiteral("the broker sent a packet "))) << bytes;
    }
}

TEST_F(HostileBroker, SendsAMessageOf256MegabytesAndTakesNoMemory)
{
    address.isVersion5 = false;
    beginAccepted();
    rusage before = {};
    ::getrusage(RUSAGE_SELF, &before);
    const qint64 length = 268435455;
    const QByteArray begin = hex("30ffffff7f") + text("a/b");
    peer.send(begin);
    const QByteArray piece(1024 * 1024, 'x');
    for (qint64 left = length - 5; left > 0; left -= piece.size())
        peer.send(piece.left(static_cast<int>(std::min<qint64>(left, piece.size()))));
    peer.send(packet(0x30, text("a/c") + "fine"));
    ASSERT_TRUE(run([this] { return owner.messages.size() == 2; }));
    EXPECT_TRUE(owner.messages[0].isCut);
    EXPECT_EQ(owner.messages[0].topic, "a/b");
    EXPECT_FALSE(owner.messages[1].isCut);
    EXPECT_EQ(owner.messages[1].payload, "fine");
    rusage after = {};
    ::getrusage(RUSAGE_SELF, &after);
    // A sanitizer keeps up to 256 MB that were freed.
    const long mostKilobytes = kHasSanitizer ? 512 * 1024 : 64 * 1024;
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, mostKilobytes);
}

TEST_F(HostileBroker, LeavesNothingButTopicAndCorrelationOfAMessageThatIsTooLong)
{
    beginAccepted();
    const QByteArray correlation = hex("09") + text("me");
    // Behind 4 of 65,525 bytes some of the payload is within the limit; behind 4 of 65,530 bytes
    // the limit is within the properties.
    for (const int size : {65525, 65530}) {
        QByteArray properties = correlation;
        for (int i = 0; i < 4; ++i)
            properties += hex("26") + text("k") + text(QByteArray(size, 'v'));
        const QByteArray wire =
            packet(0x32, text("p/set") + hex("0001") + packet(0, properties).mid(1) + "5700");
        ASSERT_GT(wire.size(), IncomingPackets::kLongestMessage);
        owner.messages.clear();
        peer.send(wire);
        peer.send(packet(0x30, text("p/set") + '\0' + "58"));
        ASSERT_TRUE(run([this] { return owner.messages.size() == 2 || !owner.reasons.isEmpty(); }));
        ASSERT_TRUE(owner.reasons.isEmpty()) << qPrintable(owner.reasons[0]);
        EXPECT_TRUE(owner.messages[0].isCut);
        EXPECT_EQ(owner.messages[0].topic, "p/set");
        EXPECT_EQ(owner.messages[0].correlation, "me");
        EXPECT_EQ(owner.messages[0].payload, "");
        EXPECT_FALSE(owner.messages[1].isCut);
        EXPECT_EQ(owner.messages[1].payload, "58");
    }
}

TEST_F(HostileBroker, SendsMoreThanTheEventLoopTakes)
{
    beginAccepted();
    // What passes while the event loop does not run is bounded by the sockets and the events.
    const QByteArray one = packet(0x30, text("a") + '\0' + QByteArray(10000, 'x'));
    std::atomic<int> sent{0};
    const int all = 5000;
    std::thread sender([&] {
        for (int i = 0; i < all; ++i, ++sent)
            peer.send(one);
    });
    int before = -1;
    while (before != sent) {
        before = sent;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    EXPECT_LT(sent, all / 2);
    const bool came = run([this] { return owner.messages.size() == all; });
    sender.join();
    EXPECT_TRUE(came);
}

TEST_F(HostileBroker, KeepsNoRetainedMessages)
{
    begin();
    // Retained messages are not available.
    peer.send(hex("2005000002") + hex("2500"));
    ASSERT_TRUE(run([this] { return owner.connections == 1; }));
    connection->publish(toPublish("a", true));
    EXPECT_EQ(nextPacket().at(0), '\x32');
}

TEST_F(HostileBroker, RefusesAWillThatIsRetained)
{
    const QByteArray first = begin();
    EXPECT_EQ(first.at(9) & 0x20, 0x20);
    peer.send(hex("2003009a00"));
    reason();
    clock.advance(std::chrono::minutes(1));
    connection->tick();
    const QByteArray second = nextConnect();
    EXPECT_EQ(second.at(9) & 0x20, 0);
    EXPECT_EQ(second.at(9) & 0x04, 0x04);
}

TEST_F(HostileBroker, TakesNoLongMessages)
{
    begin();
    // At most 100 bytes in a packet.
    peer.send(hex("2008000005") + hex("2700000064"));
    ASSERT_TRUE(run([this] { return owner.connections == 1; }));
    MqttMessage message = toPublish("a");
    message.payload = QByteArray(200, 'x');
    const int token = connection->publish(message);
    ASSERT_TRUE(run([this] { return !owner.refused.isEmpty(); }));
    EXPECT_TRUE(owner.refused.value(token).startsWith(QStringLiteral("\"a\": ")));
    EXPECT_TRUE(connection->isConnected());
}

TEST_F(HostileBroker, MayBeAnsweredSlowlyByTheNameServer)
{
    nameServerHangs = true;
    connection = std::make_unique<MqttConnection>(owner, address, clock);
    connection->start();
    ASSERT_TRUE(run([] { return hangingLookups == 1; }));
    EXPECT_EQ(connection->status()["state"], "connecting");
    const auto begin = std::chrono::steady_clock::now();
    connection->stop(std::chrono::milliseconds(100));
    connection.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(hangingLookups, 1);
    nameServerHangs = false;
    // The thread ends by itself.
    const auto threads = [] {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line) && line.rfind("Threads:", 0) != 0) {
        }
        return std::atoi(line.c_str() + 8);
    };
    // The watchdog's and this one; a sanitizer may have one of its own.
    for (int i = 0; i < 10000 && threads() > 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_LE(threads(), 3);
    EXPECT_TRUE(owner.reasons.isEmpty());
}

TEST_F(HostileBroker, IsNotThere)
{
    peer.stopListening();
    connection = std::make_unique<MqttConnection>(owner, address, clock);
    connection->start();
    EXPECT_EQ(reason(), QStringLiteral("Connection refused (is the broker running, is the port "
                                       "right?)"));
}
