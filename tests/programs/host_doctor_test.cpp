#include "terminal_fixture.h"

#include "simulator_thread.h"

#include <QtCore/QRegularExpression>

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

/// What the line of a check says, without its name.
QString said(const Result& result, const QString& check)
{
    const QStringList lines = linesOf(result.out).filter(QRegularExpression('^' + check + ' '));
    return lines.isEmpty() ? QString() : lines.first().mid(14);
}

QStringList checksOf(const Result& result)
{
    QStringList names;
    for (const QString& line : linesOf(result.out))
        names += line.left(14).trimmed();
    return names;
}

/// A controller that the test can disturb.
class HostDoctor : public TerminalTest
{
protected:
    HostDoctor()
        : m_controller(
              file("tags.json", R"({"tags": [{"name": "Speed", "type": "INT", "value": 7}]})")
                  .toStdString(),
              path("line").toStdString())
    {
    }
    Result doctor(const QStringList& options = {}) const
    {
        return host(QStringList{"doctor", "--port", "line", "--reads", "40"} + options);
    }
    /// Once more where a reply took so long, on a busy machine, that it tells of that.
    Result doctorWithoutDelay(const QStringList& options = {}) const
    {
        Result result = doctor(options);
        for (int i = 0; i < 100 && said(result, "advice").contains("take much longer"); ++i)
            result = doctor(options);
        return result;
    }
    SimulatorThread m_controller;
};

/// A line whose other end sends back what it gets.
class Echo
{
public:
    Echo() : m_master(posix_openpt(O_RDWR | O_NOCTTY)), m_thread([this] { serve(); })
    {
        EXPECT_EQ(grantpt(m_master), 0);
        EXPECT_EQ(unlockpt(m_master), 0);
        path = QString::fromLocal8Bit(ptsname(m_master));
    }
    ~Echo()
    {
        m_stop = true;
        m_thread.join();
        ::close(m_master);
    }
    QString path;

private:
    void serve()
    {
        char bytes[256];
        while (!m_stop) {
            pollfd input = {m_master, POLLIN, 0};
            if (::poll(&input, 1, 20) != 1 || (input.revents & POLLIN) == 0) {
                ::usleep(1000);
                continue;
            }
            const ssize_t count = ::read(m_master, bytes, sizeof bytes);
            const auto size = static_cast<size_t>(std::max<ssize_t>(0, count));
            EXPECT_EQ(::write(m_master, bytes, size), static_cast<ssize_t>(size));
        }
    }
    int m_master;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace

TEST_F(HostDoctor, FindsNothingWrongWithAGoodLine)
{
    const Result result = doctorWithoutDelay();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(checksOf(result),
              (QStringList{"device", "rights", "used by", "other end", "settings", "controller",
                           "echo", "round trip", "damaged", "advice"}));
    EXPECT_EQ(said(result, "settings"), "38400 8N1: answers");
    EXPECT_TRUE(said(result, "device").startsWith(path("line") + ", which is /dev/pts/"));
    EXPECT_EQ(said(result, "other end"),
              QStringLiteral("host_doctor_test (process %1), by a pseudo-terminal: it has no speed "
                             "and no parity")
                  .arg(::getpid()));
    EXPECT_TRUE(said(result, "round trip").endsWith(", of 40 reads"));
    EXPECT_EQ(said(result, "damaged"),
              "0 of 40 replies (0.0 %), 0 requests; 0 reads without an answer");
    EXPECT_EQ(said(result, "advice"), "nothing is wrong");
}

TEST_F(HostDoctor, FindsTheSpeedAtWhichTheControllerAnswers)
{
    m_controller.listenOnlyAt(B9600);
    const Result result = doctor({"--timeout", "500"});
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    EXPECT_EQ(said(result, "settings").section(':', 0, 0), "38400 8N1");
    EXPECT_EQ(said(result, "tried"), "9600 8N1: answers");
    EXPECT_EQ(said(result, "advice"), "the controller answers at 9600 8N1, not at 38400 8N1: use "
                                      "--baud 9600, or \"baud\": 9600 in the project");
}

TEST_F(HostDoctor, CountsDamagedReplies)
{
    m_controller.faults(R"({"fault": "flip", "rate": 0.3})");
    const Result result = doctor({"--json"});
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    EXPECT_GT(m_controller.strikes(), 3U);
    EXPECT_FALSE(linesOf(result.out)
                     .filter(R"("check":"damaged")")
                     .value(0)
                     .contains(R"("damagedReplies":0,)"))
        << result.out;
    EXPECT_EQ(linesOf(result.out).filter("of the replies are damaged").size(), 1) << result.out;
}

TEST_F(HostDoctor, SaysThatNobodyAnswersAndWhatToLookAt)
{
    m_controller.setSilent(true);
    const Result result = doctor({"--timeout", "20"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(said(result, "settings"), "38400 8N1: no answer");
    EXPECT_EQ(said(result, "tried"), "14 other settings, 9600 to 115200 with no, even and odd "
                                     "parity: none answers");
    EXPECT_EQ(said(result, "controller"), "nobody answers");
    EXPECT_TRUE(said(result, "advice")
                    .endsWith("at the other end of this pseudo-terminal, does not answer: end it "
                              "and start the simulator "
                              "again"));
}

TEST_F(HostDoctor, TellsAnEchoFromAController)
{
    const Echo echo;
    const Result result = host({"doctor", "--port", echo.path, "--timeout", "100"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(said(result, "echo"), "what is sent comes back");
    EXPECT_TRUE(said(result, "advice").startsWith("only our own bytes come back")) << result.out;
}

TEST_F(HostDoctor, NamesTheProgramThatHasThePort)
{
    open("$HOST watch Speed --port line", 80, 10);
    ASSERT_TRUE(sees(" Speed"));
    const Result result = doctor();
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(said(result, "used by").contains("micro850-host (process ")) << result.out;
    EXPECT_TRUE(said(result, "open").contains("another program uses it")) << result.out;
    EXPECT_TRUE(said(result, "advice").startsWith("end what uses the device: ")) << result.out;
}

TEST_F(HostDoctor, LooksAtNothingElseWhenTheDeviceIsMissing)
{
    const Result result = host({"doctor", "--port", "none"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(checksOf(result), (QStringList{"device", "advice"}));
    EXPECT_EQ(said(result, "device"), path("none") + ": is not there");
}

TEST_F(HostDoctor, ReportsADeviceServerThatIsNotThere)
{
    const Result result = host({"doctor", "--port", "tcp://127.0.0.1:1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(checksOf(result), (QStringList{"open", "advice"}));
    EXPECT_TRUE(said(result, "advice").startsWith("look after the device server")) << result.out;
}

TEST_F(HostDoctor, WritesAReportAndReplacesNone)
{
    const Result result = doctor({"--report", "line.txt"});
    // On a busy machine it tells that replies take long; a report would not be written again.
    const bool isSlow = said(result, "advice").contains("take much longer");
    EXPECT_EQ(result.status, isSlow ? 1 : 0) << result.out << result.err;
    const std::string report = textOf("line.txt");
    EXPECT_EQ(report.find("micro850-host doctor\ntime          20"), 0U) << report;
    EXPECT_NE(report.find("version       " MICRO850_VERSION ", Qt 5"), std::string::npos);
    EXPECT_NE(report.find("line          line, 38400 8N1\n"), std::string::npos);
    EXPECT_NE(report.find(result.out), std::string::npos) << report;
    const Result again = doctor({"--report", "line.txt"});
    EXPECT_EQ(again.status, 2);
    EXPECT_EQ(again.err,
              "micro850-host: --report: line.txt is there already (name another file)\n");
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(textOf("line.txt"), report);
}

TEST_F(HostDoctor, WorksInAShellWhichGoesOn)
{
    open("XDG_STATE_HOME=state $HOST shell -p line", 160, 40);
    ASSERT_TRUE(sees("line>"));
    type({"-l", "doctor --reads 20"});
    type({"Enter"});
    ASSERT_TRUE(sees(", of 20 reads"));
    ASSERT_TRUE(sees("advice "));
    type({"-l", "read Speed --json"});
    type({"Enter"});
    ASSERT_TRUE(sees(R"("value":7)"));
}
