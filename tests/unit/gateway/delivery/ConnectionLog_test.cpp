#include "ConnectionLog.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;

namespace {

class ConnectionLogTest : public ::testing::Test
{
protected:
    void connect()
    {
        ++status["connections"].get_ref<host::Json::number_integer_t&>();
        status["state"] = "connected";
        status.erase("reason");
        look();
    }
    void lose(const char* reason)
    {
        status["state"] = "waiting";
        status["reason"] = reason;
        look();
    }
    void look()
    {
        for (const ConnectionLog::Line& line : log.take(status, clock.now()))
            lines.append((line.isWarning ? "warning: " : "note: ") + line.text);
        clock.advance(std::chrono::seconds(1));
    }
    void wait(int seconds)
    {
        for (int i = 0; i < seconds; ++i)
            look();
    }

    VirtualClock clock;
    host::Json status = {{"state", "connecting"},
                         {"broker", "hall:1883"},
                         {"version", "5"},
                         {"connections", std::int64_t(0)}};
    ConnectionLog log;
    QStringList lines;
    const QString connected = QStringLiteral("note: connected to hall:1883 with MQTT 5");
    const QString refused = QStringLiteral("warning: no connection to hall:1883: refused");
    const QString closed = QStringLiteral("warning: no connection to hall:1883: closed");
};

} // namespace

TEST_F(ConnectionLogTest, TellsEachReasonOnceAndTheConnectionAfterIt)
{
    look();
    for (int i = 0; i < 3; ++i) {
        lose("refused");
        lose("closed");
    }
    connect();
    EXPECT_EQ(lines, (QStringList{refused, closed, connected}));
}

TEST_F(ConnectionLogTest, TellsOnePairOfLinesWhenTwoClientsTakeTheConnectionFromEachOther)
{
    for (int i = 0; i < 100; ++i) {
        connect();
        wait(i % 60);
        lose("closed");
        wait(i % 60);
    }
    EXPECT_EQ(lines, (QStringList{connected, closed, connected}));
}

TEST_F(ConnectionLogTest, TellsAReasonAgainAfterAConnectionThatLasted)
{
    lose("closed");
    connect();
    wait(121);
    lose("closed");
    EXPECT_EQ(lines, (QStringList{closed, connected, closed}));
}

TEST_F(ConnectionLogTest, DoesNotSayForLongThatThereIsAConnectionWhenThereIsNone)
{
    lose("closed");
    connect();
    lose("closed");
    wait(118);
    EXPECT_EQ(lines.last(), connected);
    wait(2);
    EXPECT_EQ(lines, (QStringList{closed, connected, closed}));
    wait(1000);
    EXPECT_EQ(lines.size(), 3);
    connect();
    EXPECT_EQ(lines.last(), connected);
}

TEST_F(ConnectionLogTest, TellsSoManyReasonsAndNoMore)
{
    for (int i = 0; i < 1000; ++i)
        lose(std::to_string(i).c_str());
    EXPECT_EQ(lines.size(), 100);
}
