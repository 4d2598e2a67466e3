// The process that delivers, with a publisher of the test, in a process of its own: what it has on
// disk when it has ended.

#include "DeliveryProcess.h"

#include "ChildProcess.h"
#include "Message.h"

#include <gtest/gtest.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>

#include <array>
#include <csignal>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace micro850;
using namespace micro850::gateway;
using host::Json;

namespace {

/// What the test does when the process has been opened, and when it gets the status of lines.
struct Script
{
    std::function<void(PublisherNeeds&)> opened;
    std::function<void(PublisherNeeds&)> status;
};

class ScriptedPublisher : public Publisher
{
public:
    ScriptedPublisher(Script script, PublisherNeeds& needs)
        : m_script(std::move(script)), m_needs(needs)
    {
        if (m_script.opened)
            m_script.opened(m_needs);
    }
    void setCatalogue(const Catalogue&) override {}
    void handleEvent(const DeliveryEvent&) override {}
    void handleStatus(const Json&) override
    {
        if (m_script.status)
            m_script.status(m_needs);
    }
    void tick() override {}
    void stop(Duration) override {}
    Json status() const override { return Json::object(); }

private:
    const Script m_script;
    PublisherNeeds& m_needs;
};

class DeliveryProcessTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_folder.isValid());
        m_settings.prefix = QStringLiteral("plant");
        m_settings.broker.host = QStringLiteral("127.0.0.1");
        m_settings.queue.file = m_folder.filePath(QStringLiteral("q.sqlite"));
    }
    void send(const Json& message) { m_lines += host::lineOf(message); }
    void sendOpening()
    {
        send({{"request", "open"},
              {"kind", "mqtt"},
              {"settings", jsonOf(m_settings)},
              {"run", "a1"}});
    }
    /// Values with the numbers 1 to `count`, in one line.
    void sendValues(int count)
    {
        Json values = Json::array();
        for (int i = 0; i < count; ++i)
            values.push_back({{"line", "press"}, {"name", "Level"}, {"station", 1}, {"value", i}});
        send({{"event", "values"}, {"first", 1}, {"values", values}});
    }
    /// Gives everything to a process whose service is gone then, and waits for the end of it.
    /// Returns its exit status.
    int run(const Script& script)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        const int room = 1 << 20;
        EXPECT_EQ(::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
        EXPECT_EQ(::send(ends[0], m_lines.constData(), static_cast<std::size_t>(m_lines.size()),
                         MSG_DONTWAIT),
                  m_lines.size());
        const int child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            int argc = 1;
            std::array<char*, 2> argv = {const_cast<char*>("deliver"), nullptr};
            const QCoreApplication application(argc, argv.data());
            ::_exit(runDelivery(ends[1], [&](const QString&, const Json&, PublisherNeeds& needs) {
                return std::make_unique<ScriptedPublisher>(script, needs);
            }));
        }
        ::close(ends[0]);
        ::close(ends[1]);
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    /// The number of the last message that is on disk, and how many are.
    std::pair<qint64, qint64> onDisk()
    {
        const SystemClock clock;
        const SystemWallClock wallClock;
        const DeliveryQueue queue(m_settings.queue, clock, wallClock);
        return {queue.fed().number, queue.size()};
    }

    QTemporaryDir m_folder;
    MqttSettings m_settings;
    QByteArray m_lines;
};

void limitFiles(rlim_t size)
{
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    limit.rlim_cur = size;
    ::setrlimit(RLIMIT_FSIZE, &limit);
}

} // namespace

TEST_F(DeliveryProcessTest, HasOnDiskAllThatTheServiceSentBeforeItWasGone)
{
    sendOpening();
    sendValues(3000); // more than is read at once
    ASSERT_GT(m_lines.size(), 150 * 1024);
    Script script;
    // The death of the service is known before what it sent was read, and it is time to look.
    script.opened = [](PublisherNeeds&) {
        ::kill(::getpid(), kEndSignal);
        QThread::msleep(100);
    };
    EXPECT_EQ(run(script), 0);
    EXPECT_EQ(onDisk(), std::make_pair(qint64(3000), qint64(3000)));
}

TEST_F(DeliveryProcessTest, TriesADiskThatRefusedOnceMoreAtAnOrderlyEnd)
{
    sendOpening();
    sendValues(10);
    send({{"event", "status"}, {"lines", Json::array()}});
    send({{"request", "stop"}});
    Script script;
    script.opened = [](PublisherNeeds&) {
        ::signal(SIGXFSZ, SIG_IGN);
        limitFiles(1);
    };
    script.status = [](PublisherNeeds& needs) {
        needs.queue().commit();
        if (needs.queue().status().at("state") != "in memory")
            ::_exit(9);
        limitFiles(RLIM_INFINITY);
    };
    EXPECT_EQ(run(script), 0);
    EXPECT_EQ(onDisk(), std::make_pair(qint64(10), qint64(10)));
}
