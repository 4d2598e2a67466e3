// The host through a gateway: by its socket, and by the port that the gateway owns.

#include "gateway_fixture.h"
#include "program_fixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>

#include <csignal>
#include <functional>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

const char kTags[] = R"({"name": "Speed", "type": "INT", "value": 1234},
    {"name": "Level", "type": "INT", "length": 10, "value": [10, 11, 12, 13, 14, 15, 16, 17, 18, 19]},
    {"name": "Setpoint", "type": "REAL", "value": 21.5},
    {"name": "Running", "type": "BOOL", "value": true},
    {"name": "Other", "type": "DINT", "value": 70000},
    {"name": "Long", "type": "INT", "length": 300},
    {"name": "Name", "type": "SHORT_STRING", "value": "Apple"})";
const char kVariables[] = R"(
    {"name": "Speed", "tag": "Speed", "gain": 0.1, "unit": "rpm", "writable": true, "maximum": 200},
    {"name": "Levels", "tag": "Level", "length": 10, "writable": true},
    {"name": "Setpoint", "tag": "Setpoint", "writable": true},
    {"name": "Running", "tag": "Running"},
    {"name": "Product", "tag": "Name", "type": "SHORT_STRING", "writable": true})";

class HostGateway : public GatewayTest
{
protected:
    void startPress()
    {
        addLine(QStringLiteral("press"), kTags, kVariables);
        startGateway();
        ASSERT_TRUE(waitForLog(QStringLiteral("press: station 1: connected")))
            << log().toStdString();
    }
    // Without a gateway of the machine's own, which a test must not use.
    Result host(const QStringList& arguments, const QStringList& environment = QStringList()) const
    {
        return runProgram(QStringLiteral(MICRO850_HOST), arguments, environment, path("."));
    }
    QStringList ownSocket() const { return {QStringLiteral("MICRO850_GATEWAY=") + socketPath()}; }
    // Through the gateway of the port.
    Result found(const QStringList& arguments) const { return host(arguments, ownSocket()); }
    // Through the gateway that is named.
    Result through(QStringList arguments) const
    {
        arguments.insert(1, QStringLiteral("--gateway"));
        arguments.insert(2, socketPath());
        return host(arguments);
    }
    QString project() const { return path(QStringLiteral("press.json")); }
};

// Lines in their order, without times and round trips.
std::string withoutTimes(const std::string& text)
{
    QString lines = QString::fromStdString(text);
    lines.remove(QRegularExpression(QStringLiteral("(?m)^\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d ")));
    lines.replace(QRegularExpression(QStringLiteral("\"time\":\"[^\"]*\"")), "\"time\":0");
    lines.remove(QRegularExpression(QStringLiteral("(?m)^\\{\"summary\".*$\\n?")));
    return lines.toStdString();
}

// The same in any order.
QStringList sorted(const std::string& text)
{
    QStringList lines = linesOf(withoutTimes(text));
    lines.sort();
    return lines;
}

std::string joined(const QStringList& lines)
{
    return lines.join('\n').toStdString();
}

/// Listens at a socket and answers the first client with these bytes.
class Stranger
{
public:
    Stranger(const QString& path, const std::string& greeting)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string name = path.toStdString();
        name.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(::listen(m_socket, 1), 0);
        m_thread = std::thread([this, greeting] {
            const int client = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0)
                return;
            (void)::send(client, greeting.data(), greeting.size(), MSG_NOSIGNAL);
            char byte = 0;
            while (::recv(client, &byte, 1, 0) > 0) {
            }
            ::close(client);
        });
    }
    ~Stranger()
    {
        ::shutdown(m_socket, SHUT_RDWR);
        m_thread.join();
        ::close(m_socket);
    }
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

private:
    int m_socket;
    std::thread m_thread;
};

} // namespace

TEST_F(HostGateway, PrintsTheSameAsOverTheLineItself)
{
    startPress();
    const QString names = file("names", "Speed\nNope\nLevel\nLong\n");
    const QStringList all[] = {
        // Those that write come first, and each begins with the same values: all others then see
        // the same ones each time.
        {"write", "Setpoint=22.5", "Levels[2..3]=1,2"},
        {"write", "Setpoint=23.5", "--json"},
        {"write", "Speed=99.96"},
        {"write", "Running=maybe", "Setpoint=1"},
        {"write", "Levels[9..10]=1,2"},
        {"write", "Product=1", "Nope=2", "--json"},
        {"read", "Speed", "Levels", "Levels[3..5]", "Product", "Running"},
        {"read", "Speed", "Setpoint", "--raw", "--json"},
        {"read", "Other", "Long[290..299]"},
        {"read", "Nope", "Speed", "--json"},
        {"read", "Levels[12]"},
        {"read", "Level[8..12]"},
        {"read", "Product[1]"},
        {"find", names},
        {"find", names, "--json"},
        {"check"},
        {"check", "--json"},
        {"poll", "--seconds", "3"},
        {"poll", "--seconds", "3", "--json", "--match", "S*"},
        {"watch", "Speed", "Levels[1]", "Other", "Nope", "--seconds", "3"},
        {"log", "--csv", "-", "--seconds", "3"},
    };
    const auto withProject = [this](QStringList arguments) {
        const bool named = arguments.first() == "read" || arguments.first() == "write" ||
                           arguments.first() == "watch" || arguments.first() == "find";
        if (named)
            arguments += "--project";
        return arguments + QStringList(project());
    };
    using Way = std::function<Result(const QStringList&)>;
    const auto outcome = [](const Way& run, const QStringList& arguments) {
        if (arguments.first() == "write") {
            const Result before = run({"write", "Setpoint=1", "Levels[2..3]=7,8", "Speed=50"});
            EXPECT_EQ(before.status, 0) << before.err;
        }
        return run(arguments);
    };
    const Way onFoundGateway = [&](const QStringList& a) { return found(withProject(a)); };
    const Way byItsVariables = [&](const QStringList& a) { return through(a); };
    const Way onTheLine = [&](const QStringList& a) {
        return host(withProject(a), {"MICRO850_GATEWAY="});
    };
    std::vector<Result> throughGateway;
    std::vector<Result> ofVariables;
    for (const QStringList& arguments : all) {
        throughGateway.push_back(outcome(onFoundGateway, arguments));
        ofVariables.push_back(outcome(byItsVariables, arguments));
    }
    EXPECT_EQ(stopGateway(), 0);
    std::size_t at = 0;
    for (const QStringList& arguments : all) {
        const Result direct = outcome(onTheLine, arguments);
        const std::string what = arguments.join(' ').toStdString();
        const Result& by = throughGateway.at(at);
        EXPECT_EQ(by.status, direct.status) << what << '\n' << by.err << '\n' << direct.err;
        EXPECT_EQ(ofVariables.at(at).status, direct.status) << what << '\n'
                                                            << ofVariables.at(at).err;
        if (arguments.first() == "log") { // each row has its own time
            EXPECT_GE(linesOf(by.out).size(), 6) << what;
        } else {
            EXPECT_EQ(joined(sorted(by.out)), joined(sorted(direct.out))) << what << by.err;
            EXPECT_EQ(joined(sorted(ofVariables.at(at).out)), joined(sorted(direct.out))) << what;
        }
        EXPECT_NE(by.err.find("through the gateway of this port"), std::string::npos) << by.err;
        ++at;
    }
}

TEST_F(HostGateway, IsUsedForAPortByAnyNameOfTheDevice)
{
    startPress();
    const QString link = path(QStringLiteral("by-id"));
    ASSERT_EQ(::symlink(device("press").toLocal8Bit(), link.toLocal8Bit()), 0);
    for (const QString& port : {device("press"), link, QStringLiteral("by-id")}) {
        const Result read = found({"read", "Speed", "--port", port});
        EXPECT_EQ(read.status, 0) << read.err;
        EXPECT_EQ(read.out, "Speed  INT  1234\n"); // the tag: no project was named
        EXPECT_NE(read.err.find("through the gateway of this port"), std::string::npos) << read.err;
        EXPECT_EQ(found({"read", "Speed", "--port", port, "--quiet"}).err, "");
    }
}

TEST_F(HostGateway, LeavesOtherPortsAlone)
{
    startPress();
    const SilentPort other;
    const Result read = found({"read", "Speed", "--port", other.path(), "--timeout", "100"});
    EXPECT_EQ(read.status, 1);
    EXPECT_EQ(read.err.find("gateway"), std::string::npos) << read.err;
}

TEST_F(HostGateway, RefusesWritesByTheRulesOfTheGatewayInWords)
{
    startPress();
    const Result above = through({"write", "Speed=250", "--json"});
    EXPECT_EQ(above.status, 1);
    EXPECT_NE(above.out.find(R"("outcome":"refused")"), std::string::npos) << above.out;
    EXPECT_NE(above.err.find("200"), std::string::npos) << above.err;
    const Result notWritable = through({"write", "Running=false"});
    EXPECT_EQ(notWritable.status, 1);
    EXPECT_EQ(notWritable.err, "micro850-host: Running: is not writable "
                               "(\"writable\": true in the project file allows it)\n");
    EXPECT_EQ(through({"read", "Running", "Speed"}).out,
              "Running  BOOL  true\nSpeed    INT   123.4 rpm\n");
}

TEST_F(HostGateway, WritesNothingUnlessAllOfItIsAllowed)
{
    addLine(QStringLiteral("press"), kTags, R"(
        {"name": "Rotation", "tag": "Speed", "writable": true, "maximum": 2000},
        {"name": "Levels", "tag": "Level", "length": 10, "writable": true, "minimum": 0},
        {"name": "Target", "tag": "Setpoint", "writable": true},
        {"name": "Running", "tag": "Running"})");
    startGateway();
    ASSERT_TRUE(waitForLog(QStringLiteral("press: station 1: connected")));
    const QStringList all = {"read", "Rotation", "Levels[1..2]", "Target", "Running"};
    const std::string before = through(all).out;
    ASSERT_EQ(before, "Rotation   INT   1234\nLevels[1]  INT   11\nLevels[2]  INT   12\nTarget     "
                      "REAL  21.5\nRunning    BOOL  true\n");

    const Result locked = through({"write", "Target=30", "Rotation=5", "Running=false"});
    EXPECT_EQ(locked.status, 1);
    EXPECT_EQ(locked.out, "");
    EXPECT_EQ(locked.err, "micro850-host: Running: is not writable (\"writable\": true in the "
                          "project file allows it)\n"
                          "micro850-host: nothing was written: 1 refused, 2 not tried\n");
    const Result above = through({"write", "Target=30", "Rotation=2001"});
    EXPECT_EQ(above.status, 1);
    EXPECT_EQ(above.err, "micro850-host: Rotation: 2001 is outside its limits (maximum 2000)\n"
                         "micro850-host: nothing was written: 1 refused, 1 not tried\n");
    const Result below = through({"write", "Levels[1..2]=5,-1"});
    EXPECT_EQ(below.status, 1);
    EXPECT_EQ(below.err, "micro850-host: Levels[2]: -1 is outside its limits (minimum 0)\n"
                         "micro850-host: nothing was written: 1 refused, 1 not tried\n");
    const Result tag = through({"write", "Target=30", "Other=1", "--line", "press"});
    EXPECT_EQ(tag.status, 1);
    EXPECT_NE(tag.err.find("nothing was written"), std::string::npos) << tag.err;
    EXPECT_EQ(through(all).out, before);
    EXPECT_EQ(through({"write", "Target=30", "Rotation=2000", "Levels[1..2]=5,0"}).status, 0);
}

TEST_F(HostGateway, SaysThatItDoesNotChangeHowOftenTheGatewayReads)
{
    startPress();
    const std::string without = ": without effect on how often the gateway reads its variables "
                                "(its project files tell it)\n";
    const struct
    {
        QStringList arguments;
        std::string options;
    } all[] = {{{"poll", "--interval", "0.2"}, "--interval"},
               {{"poll", "--interval", "0.2", "--fast"}, "--interval, --fast"},
               {{"watch", "Speed", "--fast"}, "--fast"},
               {{"log", "--csv", "-", "--interval", "0.5"}, "--interval"}};
    for (const auto& each : all) {
        const QString what = each.arguments.join(' ');
        const Result said = through(each.arguments + QStringList{"--seconds", "1"});
        EXPECT_EQ(said.status, 0) << what.toStdString() << said.err;
        EXPECT_NE(said.err.find("micro850-host: " + each.options + without), std::string::npos)
            << what.toStdString() << '\n'
            << said.err;
    }
    EXPECT_EQ(through({"poll", "--seconds", "1"}).err.find("without effect"), std::string::npos);
}

TEST_F(HostGateway, TellsHowToChooseAmongLines)
{
    addLine(QStringLiteral("press"), kTags, kVariables);
    addLine(QStringLiteral("oven"), R"({"name": "Heat", "type": "INT", "value": 7},
                                       {"name": "Speed", "type": "INT", "value": 8})",
            R"({"name": "Heat", "tag": "Heat"}, {"name": "Speed", "tag": "Speed"})");
    startGateway();
    for (const char* name : {"press", "oven"})
        ASSERT_TRUE(waitForLog(QString::fromLatin1(name) + ": station 1: connected"));
    EXPECT_EQ(through({"read", "Heat"}).out, "Heat  INT  7\n");
    const Result both = through({"read", "Speed"});
    EXPECT_EQ(both.status, 2);
    EXPECT_NE(both.err.find("press and oven both have a variable Speed"), std::string::npos)
        << both.err;
    EXPECT_NE(both.err.find("--line"), std::string::npos);
    EXPECT_EQ(through({"read", "Speed", "--line", "oven"}).out, "Speed  INT  8\n");
    EXPECT_EQ(through({"read", "Speed", "--port", device("press")}).out, "Speed  INT  123.4 rpm\n");
    EXPECT_NE(
        through({"read", "Mode"}).err.find("no line of the gateway has a variable Mode; for a tag"),
        std::string::npos);
    EXPECT_NE(through({"read", "Heta[1]"}).err.find("a variable Heta (did you mean Heat?); for"),
              std::string::npos);
    EXPECT_NE(through({"poll", "--seconds", "1"}).err.find("choose one with --line"),
              std::string::npos);
    EXPECT_NE(through({"read", "Speed", "--line", "pres"}).err.find("did you mean press?"),
              std::string::npos);
    EXPECT_NE(through({"read", "Setpoint", "Heat"}).err.find("one command uses one line"),
              std::string::npos);
}

TEST_F(HostGateway, TellsWhatWasWrittenWhenAWriteIsInterrupted)
{
    addLine(QStringLiteral("press"), kTags,
            R"({"name": "Long", "tag": "Long", "length": 300, "writable": true})");
    startGateway();
    ASSERT_TRUE(waitForLog(QStringLiteral("press: station 1: connected")));
    QProcess write;
    write.start(QStringLiteral(MICRO850_HOST),
                {"write", "--gateway", socketPath(), "Long[0..299]=1", "--no-verify", "--quiet"});
    ASSERT_TRUE(write.waitForReadyRead(kGatewayLimitMs)); // one is written
    signalSimulator(QStringLiteral("press"), SIGSTOP);
    ::kill(static_cast<pid_t>(write.processId()), SIGINT);
    ASSERT_TRUE(write.waitForFinished(kGatewayLimitMs)) << "it waits for a controller that is mute";
    EXPECT_EQ(write.exitCode(), 1);
    const int written = linesOf(write.readAllStandardOutput().toStdString()).size();
    const QByteArray said = write.readAllStandardError();
    EXPECT_LT(written, 300);
    EXPECT_TRUE(said.contains("..299]: not tried\n")) << said.constData();
    EXPECT_TRUE(said.endsWith("interrupted\n")) << said.constData();

    signalSimulator(QStringLiteral("press"), SIGCONT);
    Result now;
    ASSERT_TRUE(waitUntil([&] {
        now = through({"read", "Long[0..299]", "--quiet"});
        return now.status == 0;
    })) << now.err;
    const QStringList values = linesOf(now.out);
    ASSERT_EQ(values.size(), 300);
    int ones = 0;
    while (ones < 300 && values.at(ones).endsWith(QLatin1String("  1")))
        ++ones;
    EXPECT_EQ(values.filter(QStringLiteral("  1")).size(), ones) << "one after the other";
    const int unknown = said.contains("nobody knows whether it was written") ? 1 : 0;
    EXPECT_GE(ones, written) << said.constData();
    EXPECT_LE(ones, written + unknown) << said.constData();
}

TEST_F(HostGateway, SaysWhyItCannotProbeOrTrace)
{
    startPress();
    const Result probe = found({"probe", "--port", device("press")});
    EXPECT_EQ(probe.status, 1);
    EXPECT_EQ(linesOf(probe.err).size(), 1) << probe.err;
    EXPECT_NE(probe.err.find("the port is owned by the gateway at"), std::string::npos)
        << probe.err;
    const Result trace = found({"read", "Speed", "--port", device("press"), "--trace", "t.txt"});
    EXPECT_EQ(trace.status, 2);
    EXPECT_EQ(linesOf(trace.err).size(), 1) << trace.err;
    EXPECT_NE(trace.err.find("leave --trace out"), std::string::npos) << trace.err;
    EXPECT_EQ(through({"probe"}).status, 2);
}

TEST_F(HostGateway, NamesASocketThatIsMissingStaleOrAStrangers)
{
    const auto complaint = [this](const QString& socket) {
        const Result read = host({"read", "Speed", "--gateway", socket});
        EXPECT_EQ(read.status, 1) << read.err;
        EXPECT_EQ(linesOf(read.err).size(), 1) << read.err;
        return read.err;
    };
    EXPECT_NE(complaint("none.sock").find("there is no such socket"), std::string::npos);
    const struct
    {
        const char* greeting;
        const char* complaint;
    } strangers[] = {
        {"SSH-2.0-OpenSSH\r\n", "is no gateway: it greets with"},
        {"", "is silent"},
        {"{\"protocol\": \"micro850-gateway\", \"version\": 2}\n", "speaks version 2"},
        {"{\"protocol\": \"micro850-gateway\", ", "is silent"},
        {"\x1b[31mred\n", "is no gateway"},
    };
    int number = 0;
    for (const auto& each : strangers) {
        const QString name = QStringLiteral("stranger%1.sock").arg(++number);
        const Stranger stranger(path(name), each.greeting);
        const std::string told = complaint(name);
        EXPECT_NE(told.find(each.complaint), std::string::npos) << told;
        EXPECT_EQ(told.find('\x1b'), std::string::npos) << told;
    }
    EXPECT_NE(complaint("stranger1.sock").find("no gateway listens there"), std::string::npos);
}

TEST_F(HostGateway, UsesThePortWhenASocketIsNoGateway)
{
    addLineOnly(QStringLiteral("press"), kTags, kVariables);
    startSimulator(QStringLiteral("press"));
    const Stranger stranger(socketPath(), "");
    const Result read = found({"read", "Speed", "--port", device("press")});
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(read.out, "Speed  INT  1234\n");
    EXPECT_NE(read.err.find("is silent"), std::string::npos) << read.err;
}

TEST_F(HostGateway, ShowsThatTheGatewayWentAwayAndThatItIsBack)
{
    startPress();
    QProcess poll;
    poll.start(QStringLiteral(MICRO850_HOST),
               {"poll", "--gateway", socketPath(), "--seconds", "60", "--match", "Setpoint"});
    const auto waitFor = [&poll](QByteArray& all, const char* text) {
        QElapsedTimer time;
        time.start();
        while (!all.contains(text) && time.elapsed() < kGatewayLimitMs) {
            poll.waitForReadyRead(100);
            all += poll.readAllStandardOutput();
        }
        return all.contains(text);
    };
    QByteArray out;
    EXPECT_TRUE(waitFor(out, "Setpoint = 21.5\n"));
    out.clear();
    killGateway();
    EXPECT_TRUE(waitFor(out, "Setpoint = 21.5 (")) << out.constData();
    EXPECT_TRUE(out.contains("the connection")) << out.constData();
    out.clear();
    startGateway();
    EXPECT_TRUE(waitFor(out, "Setpoint = 21.5\n")) << out.constData();
    ::kill(static_cast<pid_t>(poll.processId()), SIGINT);
    EXPECT_TRUE(poll.waitForFinished(kGatewayLimitMs));
    EXPECT_EQ(poll.exitCode(), 0) << poll.readAllStandardError().constData();
}
TEST_F(HostGateway, ServesTheCommandsOfAShell)
{
    startPress();
    const QString commands = path("commands");
    QFile file(commands);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("set json on\nwrite Setpoint=3\nread Other\nwatch Speed --seconds 0.3\nprobe\n");
    file.close();
    const Result result = runProgram("sh",
                                     {"-c", "exec \"$@\" <" + commands, "sh", MICRO850_HOST,
                                      "shell", "-p", device(QStringLiteral("press"))},
                                     ownSocket(), path("."));
    EXPECT_EQ(result.status, 2);
    const QStringList lines = linesOf(result.out);
    EXPECT_TRUE(lines.value(0).contains(R"("outcome":"written")")) << result.out;
    EXPECT_TRUE(lines.value(1).contains(R"("value":70000)")) << result.out;
    EXPECT_TRUE(lines.value(2).contains(R"("value":123.4)")) << result.out;
    EXPECT_TRUE(linesOf(result.err)
                    .contains("micro850-host: standard input, line 5: this command "
                              "failed, and what follows is not done"))
        << result.err;
}

TEST_F(HostGateway, IsNamedByDoctorAsTheOwnerOfThePort)
{
    startPress();
    const Result result = found({"doctor", "-p", device(QStringLiteral("press"))});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("\nadvice        the gateway owns the port: "), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("micro850-gateway (process "), std::string::npos) << result.out;
}
