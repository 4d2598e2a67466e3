#include "ClientServer.h"

#include "UserError.h"
#include "fake_lines.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::test;

namespace {

const char kProject[] = R"({
  "port": {"device": "/dev/ttyS0"},
  "variables": [{"name": "Speed", "tag": "SPEED"}, {"name": "Level", "tag": "LEVEL"}]})";

/// The event loop that sockets need.
void turnLoop()
{
    static int count = 1;
    static char name[] = "test";
    static char* arguments[] = {name, nullptr};
    static QCoreApplication application(count, arguments);
    QCoreApplication::processEvents();
}

class Reader
{
public:
    explicit Reader(const QString& path)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const QByteArray name = QFile::encodeName(path);
        std::copy(name.begin(), name.end(), address.sun_path);
        connected = ::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    ~Reader() { ::close(m_socket); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool send(const QByteArray& bytes) const
    {
        return ::send(m_socket, bytes.constData(), static_cast<std::size_t>(bytes.size()),
                      MSG_NOSIGNAL) == bytes.size();
    }
    /// Turns the event loop until a whole line came; "" when the gateway closed the connection.
    QByteArray line()
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 30000) {
            const int end = m_bytes.indexOf('\n');
            if (end >= 0) {
                const QByteArray line = m_bytes.left(end);
                m_bytes.remove(0, end + 1);
                return line;
            }
            turnLoop();
            if (!receive())
                return QByteArray();
        }
        ADD_FAILURE() << "no line came";
        return QByteArray();
    }
    Json message()
    {
        const QByteArray text = line();
        return text.isEmpty() ? Json() : Json::parse(text.toStdString());
    }

    bool connected = false;

private:
    bool receive()
    {
        char bytes[65536];
        const auto got = ::recv(m_socket, bytes, sizeof bytes, MSG_DONTWAIT);
        if (got > 0)
            m_bytes.append(bytes, static_cast<int>(got));
        return got > 0 || (got < 0 && errno == EAGAIN) || m_bytes.contains('\n');
    }

    int m_socket;
    QByteArray m_bytes;
};

class ClientServerTest : public testing::Test
{
protected:
    ClientServerTest() { turnLoop(); }

    std::unique_ptr<ClientServer> serve(int mostClients = 256)
    {
        ClientSettings settings;
        settings.path = path;
        settings.mostClients = mostClients;
        return std::make_unique<ClientServer>(ClientNeeds{lines, rules, history, clock,
                                                          QStringLiteral("gateway 1"), [] {},
                                                          static_cast<int>(::geteuid())},
                                              settings);
    }
    std::string complaint()
    {
        try {
            serve();
        } catch (const UserError& error) {
            EXPECT_EQ(error.status(), kExitRefused);
            return error.what();
        }
        return std::string();
    }

    QTemporaryDir folder;
    QString path = folder.filePath(QStringLiteral("gateway.sock"));
    FakeLines lines{{lineOfProject("press", kProject)}};
    VirtualClock clock;
    SettableWallClock wall{1795354200000};
    WriteRules rules{lines, clock, wall};
    FakeHistory history;
};

} // namespace

TEST_F(ClientServerTest, GreetsAndKnowsUserAndProcessOfAClient)
{
    const auto server = serve();
    Reader reader(path);
    EXPECT_EQ(reader.message()["protocol"], "micro850-gateway");
    ASSERT_TRUE(reader.send("{\"id\":1,\"request\":\"hello\",\"client\":\"me\"}\n"));
    const Json hello = reader.message();
    EXPECT_EQ(hello["uid"], static_cast<int>(::getuid()));
    EXPECT_EQ(hello["pid"], static_cast<int>(::getpid()));
}

TEST_F(ClientServerTest, RecordsTheNameOfTheProgramForAWriterWithoutAName)
{
    const auto server = serve();
    Reader reader(path);
    reader.line();
    ASSERT_TRUE(reader.send("{\"id\":1,\"request\":\"write\",\"name\":\"Speed\",\"value\":1}\n"));
    EXPECT_EQ(reader.message()["error"]["code"], "not-allowed");
    ASSERT_EQ(lines.journal.size(), 1);
    QFile comm(QStringLiteral("/proc/self/comm"));
    ASSERT_TRUE(comm.open(QIODevice::ReadOnly));
    EXPECT_EQ(lines.journal.first().client, QString::fromUtf8(comm.readAll()).trimmed());
}

TEST_F(ClientServerTest, IsOpenToUserAndGroupOnlyWhateverTheUmask)
{
    for (const mode_t mask : {0000, 0022, 0077}) {
        const mode_t before = ::umask(mask);
        const auto server = serve();
        EXPECT_EQ(::umask(before), mask) << "it is put back";
        struct stat found
        {
        };
        ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &found), 0);
        EXPECT_EQ(found.st_mode & 0777, 0660U);
    }
    EXPECT_FALSE(QFile::exists(path)) << "it is removed at the end";
}

TEST_F(ClientServerTest, ReplacesTheSocketOfADeadGatewayButNotOfALiveOne)
{
    const int dead = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path);
    std::copy(name.begin(), name.end(), address.sun_path);
    ASSERT_EQ(::bind(dead, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ::close(dead);
    const auto server = serve();
    EXPECT_NE(complaint().find("another gateway is listening there"), std::string::npos);
    Reader reader(path);
    EXPECT_TRUE(reader.connected) << "the live one goes on";
    EXPECT_EQ(reader.message()["version"], 1);
}

TEST_F(ClientServerTest, RefusesPathsThatAreNoSocketsOrHaveNoFolder)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    EXPECT_NE(complaint().find("no socket"), std::string::npos);
    EXPECT_TRUE(QFile::exists(path)) << "the file stays";
    path = folder.filePath(QStringLiteral("missing/gateway.sock"));
    EXPECT_NE(complaint().find("its folder: No such file"), std::string::npos);
    path = folder.filePath(QString(200, 'x'));
    EXPECT_NE(complaint().find("1 to 107 bytes"), std::string::npos);
}

TEST_F(ClientServerTest, DoesNotWaitForEverForALockOfItsFolder)
{
    const QByteArray name = QFile::encodeName(folder.path());
    const int locked = ::open(name.constData(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(::flock(locked, LOCK_EX), 0);
    EXPECT_NE(complaint().find("another program has locked its folder"), std::string::npos);
    ::close(locked);
    EXPECT_NE(serve(), nullptr);
}

TEST_F(ClientServerTest, LeavesTheSocketOfASuccessorAlone)
{
    auto first = serve();
    QFile::remove(path);
    const auto second = serve();
    first.reset();
    EXPECT_TRUE(QFile::exists(path));
    EXPECT_TRUE(Reader(path).connected);
}

TEST_F(ClientServerTest, TurnsAwayMoreClientsThanAllowedAndTakesThemLater)
{
    const auto server = serve(2);
    Reader one(path);
    auto two = std::make_unique<Reader>(path);
    EXPECT_EQ(one.message()["version"], 1);
    EXPECT_EQ(two->message()["version"], 1);
    Reader three(path);
    EXPECT_EQ(three.message()["error"]["code"], "busy");
    EXPECT_EQ(three.line(), "");
    two.reset();
    for (int i = 0; i < 1000 && server->size() > 1; ++i)
        turnLoop();
    Reader four(path);
    EXPECT_EQ(four.message()["version"], 1);
}

TEST_F(ClientServerTest, TellsChangesToSubscribersAndForgetsClientsThatLeave)
{
    const auto server = serve();
    Reader one(path);
    auto two = std::make_unique<Reader>(path);
    for (Reader* const reader : {&one, two.get()}) {
        reader->line();
        ASSERT_TRUE(reader->send("{\"id\":1,\"request\":\"subscribe\",\"match\":\"Speed\"}\n"));
        EXPECT_EQ(reader->message()["subscription"], 1);
        EXPECT_EQ(reader->message()["values"][0]["quality"], "never");
    }
    lines.setValue(0, 0, "INT", 5);
    EXPECT_EQ(one.message()["values"][0]["value"], 5);
    EXPECT_EQ(two->message()["values"][0]["value"], 5);
    two.reset();
    lines.setValue(0, 0, "INT", 6);
    EXPECT_EQ(one.message()["values"][0]["value"], 6);
    for (int i = 0; i < 1000 && server->size() > 1; ++i)
        turnLoop();
    EXPECT_EQ(server->size(), 1);
}

TEST_F(ClientServerTest, AnswersRequestsOnTheNextTurnOfTheLoop)
{
    const auto server = serve();
    Reader reader(path);
    reader.line();
    ASSERT_TRUE(reader.send("{\"id\":1,\"request\":\"type\",\"tag\":\"X\"}\n"));
    for (int i = 0; i < 1000 && lines.asked.isEmpty(); ++i)
        turnLoop();
    lines.answer({{"reply", "type"}, {"type", "INT"}});
    EXPECT_EQ(reader.message()["type"], "INT");
}

TEST_F(ClientServerTest, SurvivesConnectionsThatComeAndGoAndAHugeLine)
{
    const auto server = serve(50);
    Reader faithful(path);
    faithful.line();
    for (int i = 0; i < 10000; ++i) {
        const Reader reader(path);
        if (i % 3 == 0)
            reader.send("{\"id\":1,\"requ");
        if (i % 10 == 0)
            turnLoop();
    }
    Reader* const huge = new Reader(path);
    const QByteArray much(60000, 'x');
    for (int sent = 0; sent < 100 * 1000 * 1000;) {
        sent += huge->send(much) ? much.size() : 0;
        turnLoop();
    }
    delete huge;
    for (int i = 0; i < 1000 && server->size() > 1; ++i)
        turnLoop();
    EXPECT_EQ(server->size(), 1);
    ASSERT_TRUE(faithful.send("{\"id\":1,\"request\":\"list\"}\n"));
    EXPECT_EQ(faithful.message()["variables"].size(), 2U);
}

TEST_F(ClientServerTest, TurnsClientsAwayWhenThereAreNoDescriptorsLeft)
{
    const auto server = serve();
    Reader faithful(path);
    faithful.line();
    QVector<int> descriptors;
    auto waiting = std::make_unique<Reader>(path);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few{64, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &few);
    for (int descriptor = ::dup(0); descriptor >= 0; descriptor = ::dup(0))
        descriptors.append(descriptor);
    EXPECT_EQ(waiting->line(), "");
    for (const int descriptor : descriptors)
        ::close(descriptor);
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ASSERT_TRUE(faithful.send("{\"id\":1,\"request\":\"list\"}\n"));
    EXPECT_EQ(faithful.message()["variables"].size(), 2U);
    EXPECT_EQ(Reader(path).message()["version"], 1);
}

TEST_F(ClientServerTest, MovesToAnotherPathAndKeepsItsClients)
{
    const auto server = serve();
    Reader reader(path);
    reader.line();
    ClientSettings settings;
    settings.path = folder.filePath(QStringLiteral("other.sock"));
    server->change(settings);
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_EQ(Reader(settings.path).message()["version"], 1);
    ASSERT_TRUE(reader.send("{\"id\":1,\"request\":\"list\"}\n"));
    EXPECT_EQ(reader.message()["reply"], "list");
    ClientSettings wrong;
    wrong.path = folder.filePath(QStringLiteral("missing/x.sock"));
    EXPECT_THROW(server->change(wrong), UserError);
    EXPECT_EQ(Reader(settings.path).message()["version"], 1) << "the old one goes on";
}
