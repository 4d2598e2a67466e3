// The program micro850-sim as users start it: options, commands, messages and exit status.

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int kLimitMs = 60000;
const char kTags[] = R"({"tags": [{"name": "A", "type": "INT", "value": 5}]})";

class SimulatorProgram : public ::testing::Test
{
protected:
    SimulatorProgram() { EXPECT_TRUE(m_folder.isValid()); }
    ~SimulatorProgram() override
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(kLimitMs);
        }
    }

    QString file(const char* name, const char* text)
    {
        QFile out(m_folder.filePath(name));
        EXPECT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(text);
        return out.fileName();
    }
    QString path(const char* name) const { return m_folder.filePath(name); }

    void start(const QStringList& arguments)
    {
        m_process.start(QStringLiteral(MICRO850_SIM), arguments);
        ASSERT_TRUE(m_process.waitForStarted(kLimitMs));
    }
    /// Reads up to the line that contains this text; false when no such line comes in time.
    bool says(const char* text, QProcess::ProcessChannel channel = QProcess::StandardError)
    {
        m_process.setReadChannel(channel);
        for (;;) {
            while (m_process.canReadLine()) {
                m_lastLine = m_process.readLine().trimmed();
                if (m_lastLine.contains(text))
                    return true;
            }
            if (!m_process.waitForReadyRead(kLimitMs))
                return false;
        }
    }
    void type(const char* line)
    {
        m_process.write(QByteArray(line) + '\n');
        m_process.waitForBytesWritten(kLimitMs);
    }
    /// The exit status after this signal; -1 if the program crashes or does not end.
    int end(int signal)
    {
        ::kill(static_cast<pid_t>(m_process.processId()), signal);
        return exitStatus();
    }
    int exitStatus()
    {
        const bool ended = m_process.waitForFinished(kLimitMs);
        return ended && m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }
    /// The one-line error message of a wrong call; the exit status must be 2.
    std::string complaint(const QStringList& arguments)
    {
        start(arguments);
        EXPECT_EQ(exitStatus(), 2);
        EXPECT_EQ(m_process.readAllStandardOutput().toStdString(), "");
        const QByteArray text = m_process.readAllStandardError();
        EXPECT_EQ(text.count('\n'), 1) << text.toStdString();
        return text.trimmed().toStdString();
    }

    QByteArray m_lastLine;
    QProcess m_process;

private:
    QTemporaryDir m_folder;
};

TEST_F(SimulatorProgram, PrintsItsLineAndASummaryAndEndsBySignal)
{
    start({file("a.json", kTags), "--link", path("plc")});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    EXPECT_TRUE(QFile::exists(path("plc")));
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(says("0 messages, 0 corrupt, 0 repeated, 0 replies undelivered"));
    EXPECT_FALSE(QFile::exists(path("plc")));
}

TEST_F(SimulatorProgram, OpensOneLineForEachStation)
{
    start({"--station", "1=" + file("a.json", kTags), "--station", "7=" + file("b.json", kTags),
           "--link", path("plc")});
    ASSERT_TRUE(says("station 1: /dev/pts/", QProcess::StandardOutput));
    ASSERT_TRUE(says("station 7: /dev/pts/", QProcess::StandardOutput));
    EXPECT_TRUE(QFile::exists(path("plc.1")));
    EXPECT_TRUE(QFile::exists(path("plc.7")));
    EXPECT_EQ(end(SIGINT), 0);
}

TEST_F(SimulatorProgram, ExecutesAndReportsCommandsForOneStationOrAll)
{
    start({"--station", "1=" + file("a.json", kTags), "--station", "2=" + file("b.json", kTags)});
    ASSERT_TRUE(says("station 2", QProcess::StandardOutput));
    type("power-cycle retain 2");
    EXPECT_TRUE(says("values retained"));
    EXPECT_EQ(m_lastLine.toStdString(), "micro850-sim: station 2: power cycle, values retained");
    type("power-cycle");
    EXPECT_TRUE(says("station 1: power cycle, initial values"));
    EXPECT_TRUE(says("station 2: power cycle, initial values"));
    type(("download " + file("c.json", kTags) + " 1").toLatin1().constData());
    EXPECT_TRUE(says("c.json downloaded"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(SimulatorProgram, PrintsItsConnectionsOnStandardOutputWhenAsked)
{
    start({"--station", "1=" + file("a.json", kTags), "--station", "2=" + file("b.json", kTags),
           "--connections", "6", "--quiet"});
    ASSERT_TRUE(says("station 2", QProcess::StandardOutput));
    type("status");
    EXPECT_TRUE(says("station 1: 0 of 6 connections open, 0 messages", QProcess::StandardOutput));
    EXPECT_TRUE(says("station 2: 0 of 6 connections open, 0 messages", QProcess::StandardOutput));
    type("status 3");
    EXPECT_TRUE(says("there is no station 3"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(SimulatorProgram, RefusesALimitOfNoConnections)
{
    start({file("a.json", kTags), "--connections", "0"});
    EXPECT_TRUE(says("--connections"));
    EXPECT_TRUE(m_process.waitForFinished(kLimitMs));
    EXPECT_EQ(m_process.exitCode(), 2);
}

/// The host's end of a line, byte by byte.
class RawPort
{
public:
    explicit RawPort(const QString& path)
        : m_descriptor(::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK))
    {
        EXPECT_GE(m_descriptor, 0);
    }
    /// Connects to the address that the simulator prints.
    static RawPort connectedTo(const QByteArray& address)
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(address.mid(address.lastIndexOf(':') + 1).toUShort());
        const int made = ::socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(::connect(made, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0)
            << address.toStdString();
        return RawPort(made);
    }
    ~RawPort() { ::close(m_descriptor); }
    RawPort(const RawPort&) = delete;
    RawPort& operator=(const RawPort&) = delete;

    void send(const QByteArray& bytes)
    {
        EXPECT_EQ(::write(m_descriptor, bytes.constData(), static_cast<size_t>(bytes.size())),
                  bytes.size());
    }
    /// Reads `count` bytes, or fewer when they do not arrive in time.
    QByteArray receive(int count, int limitMs = kLimitMs)
    {
        QByteArray got;
        while (got.size() < count) {
            pollfd wait = {m_descriptor, POLLIN, 0};
            if (::poll(&wait, 1, limitMs) <= 0)
                break;
            char byte = 0;
            if (::read(m_descriptor, &byte, 1) != 1)
                break;
            got.append(byte);
        }
        return got;
    }
    /// True when the other end has closed.
    bool wasClosed()
    {
        pollfd wait = {m_descriptor, POLLIN, 0};
        char byte = 0;
        return ::poll(&wait, 1, kLimitMs) == 1 && ::read(m_descriptor, &byte, 1) <= 0;
    }

private:
    explicit RawPort(int descriptor) : m_descriptor(descriptor) {}

    int m_descriptor;
};

// Get_Attributes_All of the Identity object. Its CRC was worked out by hand from the polynomial.
const char kIdentity[] = "100610020001 0B0001000000 010220012401 1003 8E35";
const int kIdentityReply = 61; // with the acknowledgement before it

QByteArray bytesOf(const char* hex)
{
    return QByteArray::fromHex(hex);
}

TEST_F(SimulatorProgram, AsksForAnAcknowledgementAsOftenAsItsOptionsSayThenGivesUp)
{
    start({file("a.json", kTags), "--link", path("plc"), "--ack-timeout", "0.05", "--enq-limit",
           "2", "--nak-limit", "1"});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    RawPort port(path("plc"));
    port.send(bytesOf(kIdentity));
    ASSERT_EQ(port.receive(kIdentityReply).size(), kIdentityReply);
    EXPECT_EQ(port.receive(4).toHex(), "10051005");
    EXPECT_EQ(port.receive(1, 1000).toHex(), "") << "no third time";
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(says("1 reply undelivered"));
}

TEST_F(SimulatorProgram, RepeatsARefusedReplyAsOftenAsItsOptionSays)
{
    start({file("a.json", kTags), "--link", path("plc"), "--nak-limit", "1", "--ack-timeout",
           "3600"});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    RawPort port(path("plc"));
    port.send(bytesOf(kIdentity));
    const QByteArray reply = port.receive(kIdentityReply).mid(2);
    port.send(bytesOf("1015"));
    EXPECT_EQ(port.receive(reply.size()).toHex(), reply.toHex());
    port.send(bytesOf("1015 1005"));
    EXPECT_EQ(port.receive(3, 1000).toHex(), "1006") << "only the enquiry is answered";
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(says("1 reply undelivered"));
}

TEST_F(SimulatorProgram, ExecutesARepeatedMessageAgainOnlyWithTheOption)
{
    for (const bool again : {false, true}) {
        const QStringList option = again ? QStringList{"--no-duplicate-detection"} : QStringList();
        start(QStringList{file("a.json", kTags), "--link", path("plc"), "--ack-timeout", "3600"} +
              option);
        ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
        RawPort port(path("plc"));
        port.send(bytesOf(kIdentity));
        ASSERT_EQ(port.receive(kIdentityReply).size(), kIdentityReply);
        port.send(bytesOf(kIdentity));
        EXPECT_EQ(port.receive(again ? kIdentityReply : 3, again ? kLimitMs : 1000).size(),
                  again ? kIdentityReply : 2);
        EXPECT_EQ(end(SIGTERM), 0);
        EXPECT_TRUE(
            says(again ? "2 messages, 0 corrupt, 0 repeated" : "1 message, 0 corrupt, 1 repeated"));
    }
}

TEST_F(SimulatorProgram, ServesOneClientAtATimeAtAnAddress)
{
    start({file("a.json", kTags), "--listen", "tcp://127.0.0.1:0"});
    ASSERT_TRUE(says("tcp://127.0.0.1:", QProcess::StandardOutput));
    const QByteArray address = m_lastLine;
    {
        RawPort first = RawPort::connectedTo(address);
        first.send(bytesOf(kIdentity));
        EXPECT_EQ(first.receive(kIdentityReply).size(), kIdentityReply);
        RawPort second = RawPort::connectedTo(address);
        EXPECT_TRUE(second.wasClosed());
        EXPECT_TRUE(says("a second client, tcp://127.0.0.1:"));
        EXPECT_TRUE(m_lastLine.endsWith(" is sent away: the line has one client at a time"));
        first.send(bytesOf("1005")); // asks for the last acknowledgement
        EXPECT_EQ(first.receive(2).toHex(), "1006") << "the first client is not disturbed";
        first.send(bytesOf("1002 0001"));
    }
    // The controller went on as after a cable was pulled.
    RawPort next = RawPort::connectedTo(address);
    next.send(bytesOf("1006 1005"));
    EXPECT_TRUE(next.receive(2).startsWith("\x10"));
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(says("1 message,"));
}

TEST_F(SimulatorProgram, ServesItsStationsAtPortsOneAfterTheOther)
{
    const QStringList stations = {"--station", "5=" + file("a.json", kTags), "--station",
                                  "2=" + file("b.json", kTags)};
    start(stations + QStringList{"--listen", "tcp://127.0.0.1:0"});
    ASSERT_TRUE(says("station 5: tcp://127.0.0.1:", QProcess::StandardOutput));
    const int first = m_lastLine.mid(m_lastLine.lastIndexOf(':') + 1).toInt();
    ASSERT_TRUE(says("station 2: tcp://127.0.0.1:", QProcess::StandardOutput));
    const QByteArray second = m_lastLine;
    EXPECT_NE(second.mid(second.lastIndexOf(':') + 1).toInt(), first);
    RawPort port = RawPort::connectedTo(second);
    port.send(bytesOf(kIdentity));
    EXPECT_EQ(port.receive(kIdentityReply).size(), kIdentityReply);
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(says("station 2: 1 message,"));

    const std::string refusal =
        complaint(stations + QStringList{"--listen", "tcp://192.0.2.1:2000"});
    EXPECT_EQ(refusal.find("micro850-sim: --listen tcp://192.0.2.1:2000: "), 0u)
        << "nothing is said before of those who reach the address: " << refusal;
}

TEST_F(SimulatorProgram, NotesThatOthersCanWriteValuesAtAnAddressThatTheyReach)
{
    start({file("a.json", kTags), "--listen", "tcp://0.0.0.0:0"});
    ASSERT_TRUE(says("tcp://0.0.0.0:", QProcess::StandardOutput));
    EXPECT_TRUE(says("anybody who reaches 0.0.0.0 can read and write every value"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(SimulatorProgram, RefusesAWrongAddressAndOptionsThatContradictIt)
{
    const QString tags = file("a.json", kTags);
    const QStringList listen = {tags, "--listen", "tcp://127.0.0.1:0"};
    EXPECT_EQ(complaint({tags, "--listen", "tcp://plc:2000"}),
              "micro850-sim: --listen tcp://plc:2000: \"plc\" is not a numeric address (like "
              "tcp://127.0.0.1:2000 or tcp://[::1]:2000; port 0 is any free one)");
    EXPECT_EQ(complaint(listen + QStringList{"--port", "/dev/ttyS0"}),
              "micro850-sim: --listen and --port are two lines: give one of them");
    EXPECT_EQ(complaint(listen + QStringList{"--link", path("plc")}),
              "micro850-sim: --link names a pseudo-terminal, and --listen opens none: give one of "
              "them");
    EXPECT_EQ(complaint(listen + QStringList{"--baud", "38400"}),
              "micro850-sim: --baud is the speed of a serial device, and --listen opens none: "
              "leave it out, or give --port");
    EXPECT_EQ(complaint({"--station", "1=" + tags, "--station", "2=" + tags, "--listen",
                         "tcp://[::1]:65535"}),
              "micro850-sim: --listen tcp://[::1]:65535: the stations have ports one after the "
              "other, and 65535 is the last one (choose a lower port, or 0)");
}

TEST_F(SimulatorProgram, ClosesTheConnectionAtAHangUpAndServesTheNextOneLater)
{
    start({file("a.json", kTags), "--listen", "tcp://127.0.0.1:0", "--faults",
           file("f.json", R"({"faults": [{"fault": "hang-up", "message": 1, "seconds": 0.2}]})")});
    ASSERT_TRUE(says("tcp://127.0.0.1:", QProcess::StandardOutput));
    const QByteArray address = m_lastLine;
    RawPort port = RawPort::connectedTo(address);
    port.send(bytesOf(kIdentity));
    EXPECT_TRUE(port.wasClosed());
    ASSERT_TRUE(says("tcp://127.0.0.1:", QProcess::StandardOutput)) << "it listens again";
    EXPECT_EQ(m_lastLine, address);
    RawPort again = RawPort::connectedTo(address);
    again.send(bytesOf("1005"));
    EXPECT_EQ(again.receive(2).size(), 2);
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(SimulatorProgram, ReportsEachFaultAndRepeatsThemWithTheSameSeed)
{
    const QString faults = file("f.json", R"({"faults": [{"fault": "flip", "rate": 0.5}]})");
    const auto saidWith = [&](const char* seed) {
        start({file("a.json", kTags), "--link", path("plc"), "--faults", faults, "--seed", seed,
               "--no-duplicate-detection", "--ack-timeout", "3600"});
        EXPECT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
        RawPort port(path("plc"));
        for (int i = 0; i < 20; ++i) {
            port.send(bytesOf(kIdentity));
            EXPECT_EQ(port.receive(kIdentityReply).size(), kIdentityReply);
        }
        EXPECT_EQ(end(SIGTERM), 0);
        return m_process.readAllStandardError();
    };
    const QByteArray said = saidWith("42");
    EXPECT_GE(said.count(" flipped, "), 5) << said.toStdString();
    EXPECT_TRUE(
        said.contains("faults with seed 42: flip " + QByteArray::number(said.count(" flipped, "))))
        << said.toStdString();
    EXPECT_EQ(saidWith("42"), said);
    EXPECT_NE(saidWith("43"), said);
}

TEST_F(SimulatorProgram, ReportsAWrongCommandInOneLineAndGoesOn)
{
    start({file("a.json", kTags)});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    type("restart");
    EXPECT_TRUE(says("\"restart\" is not a command"));
    type("power-cycle 9");
    EXPECT_TRUE(says("there is no station 9"));
    type("download missing.json");
    EXPECT_TRUE(says("missing.json: cannot be read"));
    type("power-cycle");
    EXPECT_TRUE(says("power cycle, initial values"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(SimulatorProgram, ReloadsItsTagFileAtAHangupSignal)
{
    const QString tags = file("a.json", kTags);
    start({tags});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    type("power-cycle");
    ASSERT_TRUE(says("power cycle")) << "the signal handlers are in place";
    file("a.json", R"({"tags": [{"name": "A", "type": "INTT"}]})");
    ::kill(static_cast<pid_t>(m_process.processId()), SIGHUP);
    EXPECT_TRUE(says("did you mean INT?"));
    file("a.json", kTags);
    ::kill(static_cast<pid_t>(m_process.processId()), SIGHUP);
    EXPECT_TRUE(says("downloaded"));
    EXPECT_EQ(end(SIGTERM), 0);
}

TEST_F(SimulatorProgram, ReportsAWrongCallInOneLine)
{
    EXPECT_EQ(complaint({}),
              "micro850-sim: give one of: a tag file, --station N=FILE, --replay FILE");
    EXPECT_EQ(complaint({"a.json", "--replay", "t.txt"}),
              "micro850-sim: give one of: a tag file, --station N=FILE, --replay FILE");
    EXPECT_EQ(complaint({"missing.json"}),
              "micro850-sim: missing.json: cannot be read: No such file or directory "
              "(check the path)");
    EXPECT_EQ(complaint({"--station", "one=a.json"}),
              "micro850-sim: --station one=a.json: not a number and a tag file (--station 1=FILE)");
    EXPECT_EQ(complaint({"--station", "1=a.json", "--port", "/dev/ttyS0"}),
              "micro850-sim: --port serves one station; leave it out, or give one tag file");
    EXPECT_NE(complaint({file("a.json", kTags), "--faults",
                         file("f.json", R"({"faults": [{"fault": "lose"}]})")})
                  .find("f.json: faults[0]: give either"),
              std::string::npos);
    EXPECT_NE(complaint({"--frobnicate"}).find("see micro850-sim --help"), std::string::npos);
}

TEST_F(SimulatorProgram, RefusesAStationNumberThatIsGivenTwice)
{
    const QString tags = file("a.json", kTags);
    start({"--station", "1=" + tags, "--station", "1=" + tags});
    EXPECT_TRUE(says("station 1 is given twice; remove or renumber one"));
    EXPECT_EQ(exitStatus(), 2);
}

TEST_F(SimulatorProgram, RefusesATraceWithoutAnyReply)
{
    EXPECT_EQ(complaint({"--replay", file("t.txt", "# time\n0.000001 > 10 05\n")})
                      .find("no request in it has a reply") != std::string::npos,
              true);
}

TEST_F(SimulatorProgram, TakesOverTheLinkOfAKilledOne)
{
    const QString tags = file("a.json", kTags);
    for (int run = 0; run < 3; ++run) {
        start({tags, "--link", path("plc")});
        ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput)) << run;
        EXPECT_EQ(QFile::symLinkTarget(path("plc")), QString::fromLatin1(m_lastLine));
        end(SIGKILL);
        EXPECT_EQ(QFile::symLinkTarget(path("plc")), QString::fromLatin1(m_lastLine));
        // As if it had run for long. Another program can get the number of its terminal at once,
        // at a time that the kernel cannot tell from that of the link.
        const timespec longAgo[] = {{1, 0}, {1, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path("plc")).constData(), longAgo,
                              AT_SYMLINK_NOFOLLOW),
                  0);
    }
    start({tags, "--link", path("plc")});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    EXPECT_EQ(end(SIGTERM), 0);
    EXPECT_TRUE(QFile::symLinkTarget(path("plc")).isEmpty());
}

TEST_F(SimulatorProgram, LeavesTheLinkToARunningOneAndOtherFilesAlone)
{
    const QString tags = file("a.json", kTags);
    start({tags, "--link", path("plc")});
    ASSERT_TRUE(says("/dev/pts/", QProcess::StandardOutput));
    const QString terminal = QString::fromLatin1(m_lastLine);
    QProcess second;
    second.start(QStringLiteral(MICRO850_SIM), {tags, "--link", path("plc")});
    ASSERT_TRUE(second.waitForFinished(kLimitMs));
    EXPECT_EQ(second.exitCode(), 2);
    EXPECT_EQ(second.readAllStandardError().toStdString(),
              "micro850-sim: --link " + path("plc").toStdString() + ": leads to " +
                  terminal.toStdString() + ", which is in use (choose another name)\n");
    EXPECT_EQ(QFile::symLinkTarget(path("plc")), terminal);
    // Another program gives the name to a file of its own.
    ASSERT_TRUE(QFile::remove(path("plc")));
    file("plc", "precious");
    EXPECT_EQ(end(SIGTERM), 0);
    QFile kept(path("plc"));
    ASSERT_TRUE(kept.open(QIODevice::ReadOnly));
    EXPECT_EQ(kept.readAll(), QByteArray("precious"));
    EXPECT_EQ(complaint({tags, "--link", path("plc")}),
              "micro850-sim: --link " + path("plc").toStdString() +
                  ": there is a file of this name (choose another name)");
}

} // namespace
