#include "program_fixture.h"

#include "tcp_peer.h"
#include "wire.h"

#include <QtCore/QFile>

#include <thread>

namespace {

using HostProbe = ProgramTest;

TEST_F(HostProbe, PrintsTheIdentityOfTheController)
{
    simulate();
    const Result result = hostOnPort({"probe"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 9);
    EXPECT_EQ(lines.at(0), "port          " + lineText());
    EXPECT_EQ(lines.mid(1, 7),
              (QStringList{"vendor        4660", "device type   14", "product code  850",
                           "revision      1.002", "serial        0x00C0FFEE",
                           "status        0x0030", "name          Micro850 simulated unit 01"}));
    EXPECT_TRUE(lines.at(8).startsWith("round trip    "));
}

TEST_F(HostProbe, WorksTwiceInARowAlthoughThePeerMayMistakeTheSecondForARepetition)
{
    simulate();
    EXPECT_EQ(hostOnPort({"probe"}).status, 0);
    EXPECT_EQ(hostOnPort({"probe"}).status, 0);
}

TEST_F(HostProbe, ScansTheUsualSpeedsUntilSomethingAnswers)
{
    simulate();
    const Result result = hostOnPort({"probe", "--scan", "--json"});
    EXPECT_EQ(result.status, 0);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 1); // a pseudo-terminal has every speed
    EXPECT_TRUE(lines.at(0).contains(R"("baud":9600,"answered":true,"vendor":4660)")) << result.out;
    EXPECT_TRUE(lines.at(0).contains(R"("name":"Micro850 simulated unit 01")")) << result.out;
}

TEST_F(HostProbe, ReportsForEverySpeedThatNothingAnswers)
{
    const SilentPort nobody;
    const Result silent = host({"probe", "--scan", "--timeout", "50", "--port", nobody.path()});
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(silent.out, "");
    const QStringList lines = linesOf(silent.err);
    ASSERT_EQ(lines.size(), 6) << silent.err;
    const QStringList speeds = {"9600", "19200", "38400", "57600", "115200"};
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(lines.at(i).endsWith(", " + speeds.at(i) + " 8N1: no answer")) << silent.err;
    EXPECT_EQ(lines.at(5), "micro850-host: check cable and speed");
}

namespace {

/// An RFC 2217 server whose port cannot do 9,600 baud, and has no controller behind it.
void serveWithout9600(TcpPeer& server)
{
    for (int connection = 0; connection < 5; ++connection) {
        server.accept();
        server.receive(15); // offers
        server.send(wire::hex("FF FD 2C FF FD 00 FF FB 00"));
        QByteArray speed = server.receive(80).mid(4, 4); // of the settings
        if (speed == wire::hex("00 00 25 80"))
            speed = wire::hex("00 00 12 C0"); // 4,800
        server.send(wire::hex("FF FA 2C 65") + speed +
                    wire::hex("FF F0 FF FA 2C 66 08 FF F0 FF FA 2C 67 01 FF F0 "
                              "FF FA 2C 68 01 FF F0"));
        server.receive(100000); // until the host closes
    }
}

} // namespace

TEST_F(HostProbe, SetsEachSpeedAtADeviceServerAndGoesOnWhereItCannot)
{
    TcpPeer server;
    std::thread serving([&server] { serveWithout9600(server); });
    const QString port = QStringLiteral("rfc2217://127.0.0.1:%1").arg(server.port());
    const Result result = host({"probe", "--scan", "--timeout", "50", "--port", port});
    serving.join();
    EXPECT_EQ(result.status, 1);
    const QStringList lines = linesOf(result.err);
    ASSERT_EQ(lines.size(), 6) << result.err;
    EXPECT_TRUE(lines.at(0).endsWith(", 9600 8N1: 127.0.0.1:" + QString::number(server.port()) +
                                     " sets 4800 baud instead of 9600 baud (choose what its port "
                                     "can do)"))
        << result.err;
    const QStringList speeds = {"19200", "38400", "57600", "115200"};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(lines.at(i + 1).endsWith(", " + speeds.at(i) + " 8N1: no answer"))
            << result.err;
}

TEST_F(HostProbe, AdvisesNoScanWhereTheServerSetsTheSpeed)
{
    const TcpPeer server; // which nobody answers behind
    const Result result = host({"probe", "--timeout", "50", "--port",
                                QStringLiteral("tcp://127.0.0.1:%1").arg(server.port())});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(linesOf(result.err).value(1),
              QString("micro850-host: check cable and the speed set at the server"))
        << result.err;
}

// All of it: a server that closes before it has read everything breaks the connection off.
static void receiveRequest(TcpPeer& server)
{
    QByteArray request;
    for (QByteArray byte("."); !byte.isEmpty() && !request.endsWith("\x10\x03"); request += byte)
        byte = server.receive(1);
    server.receive(2); // the CRC
}

TEST_F(HostProbe, CountsTheBytesOfWhatIsNoDeviceServer)
{
    TcpPeer server;
    const QString port = QStringLiteral("tcp://127.0.0.1:%1").arg(server.port());
    const std::string closed = port.toStdString() + ": " + port.mid(6).toStdString() +
                               " closed the connection (another client uses it, it was started "
                               "again, or it is no device server); ";
    for (const char* const command : {"probe", "read"}) {
        std::thread serving([&server] {
            server.accept();
            server.send("220 welcome\r\n");
            receiveRequest(server);
            server.send("500 what?\r\n");
            server.close();
        });
        QStringList arguments = {command, "--port", port};
        if (command == std::string("read"))
            arguments.insert(1, "Speed");
        const Result result = host(arguments);
        serving.join();
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "micro850-host: " + closed + "24 bytes came, but no reply\n");
    }
}

TEST_F(HostProbe, CountsTheBytesOfAGreetingWhenNothingElseComes)
{
    TcpPeer server;
    std::thread serving([&server] {
        server.accept();
        server.send("220 welcome\r\n");
        server.receive(100000); // until the host closes
    });
    const Result result = host({"probe", "--timeout", "50", "--port",
                                QStringLiteral("tcp://127.0.0.1:%1").arg(server.port())});
    serving.join();
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find(": 13 bytes came, but no intact reply"), std::string::npos)
        << result.err;
}

TEST_F(HostProbe, TellsThatRepliesComeLate)
{
    const QString faults =
        file("faults.json", R"({"faults": [{"fault": "delay", "rate": 1, "seconds": 0.3}]})");
    simulate(R"({"name": "Speed", "type": "INT"})", {"--faults", faults});
    const Result result = hostOnPort({"probe", "--timeout", "200"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "micro850-host: " + lineText().toStdString() +
                              ": replies come later than the time-out (set a longer one with "
                              "--timeout)\n");
}

TEST_F(HostProbe, ReportsARefusalWithoutAdviceAboutTheCable)
{
    const QString faults =
        file("faults.json", R"({"faults": [{"fault": "cip-error", "message": 1, "status": 8}]})");
    simulate(R"({"name": "Speed", "type": "INT"})", {"--faults", faults});
    const Result result = hostOnPort({"probe"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "micro850-host: " + lineText().toStdString() +
                              ": the controller does not tell its identity: service "
                              "not supported, status 08\n");
}

TEST_F(HostProbe, OpensNoConnection)
{
    simulate(R"({"name": "Speed", "type": "INT"})", {"--connections", "1"});
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(hostOnPort({"probe"}).status, 0);
    EXPECT_EQ(simulatorStatus().section(',', 0, 0), QString("0 of 1 connections open"));
}

TEST_F(HostProbe, AsksTheSameControllerWhateverTheStation)
{
    simulate();
    EXPECT_EQ(hostOnPort({"probe", "--station", "7"}).status, 0);
    const std::string help = host({"probe", "--help"}).out;
    EXPECT_NE(help.find("it is not sent"), std::string::npos) << help;
}

TEST_F(HostProbe, LeavesAnEarlierTraceWhenThePortIsWrong)
{
    simulate();
    const QString trace = path("t.txt");
    EXPECT_EQ(hostOnPort({"probe", "--trace", trace}).status, 0);
    const std::string before = textOf("t.txt");
    EXPECT_NE(before, "");
    EXPECT_EQ(host({"probe", "--trace", trace, "--port", "nowhere"}).status, 2);
    EXPECT_EQ(textOf("t.txt"), before);
    EXPECT_EQ(host({"probe", "--trace", path("new.txt"), "--port", "nowhere"}).status, 2);
    EXPECT_FALSE(QFile::exists(path("new.txt")));
}

TEST_F(HostProbe, TracesEverySpeedOfAScan)
{
    const SilentPort nobody;
    const Result scan = host(
        {"probe", "--scan", "--timeout", "20", "--port", nobody.path(), "--trace", path("t.txt")});
    EXPECT_EQ(scan.status, 1);
    EXPECT_GE(linesOf(textOf("t.txt")).filter("identity").size(), 5) << textOf("t.txt");
}

TEST_F(HostProbe, RefusesASpeedWithAScanOfAllSpeeds)
{
    const Result result = host({"probe", "--scan", "--baud", "9600", "--port", "nowhere"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "micro850-host: --baud: --scan tries all usual speeds (leave one of the two out)\n");
}

} // namespace
