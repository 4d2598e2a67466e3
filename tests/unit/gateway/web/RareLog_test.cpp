#include "RareLog.h"

#include <gtest/gtest.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>

using namespace micro850;
using namespace micro850::gateway;

namespace {

class RareLogTest : public ::testing::Test
{
private:
    int m_noArguments = 0;
    const QCoreApplication m_application{m_noArguments, nullptr}; // timers need it

protected:
    QStringList lines;
    VirtualClock clock;
    RareLog log{clock, [this](const QString& line) { lines += line; }};

    void waitSeconds(int seconds)
    {
        clock.advance(std::chrono::seconds(seconds));
        log.tell();
    }
};

} // namespace

TEST_F(RareLogTest, WritesTheFirstAtOnceAndCountsTheOthersForAMinute)
{
    for (int i = 0; i < 5; ++i)
        log.note("10.0.0.7", QStringLiteral("web 10.0.0.7: a login was refused"));
    EXPECT_EQ(lines, QStringList(QStringLiteral("web 10.0.0.7: a login was refused")));
    waitSeconds(59);
    EXPECT_EQ(lines.size(), 1);
    waitSeconds(1);
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines.last(),
              QStringLiteral("web 10.0.0.7: a login was refused (4 times in the last minute)"));
    waitSeconds(60);
    EXPECT_EQ(lines.size(), 2);
    log.note("10.0.0.7", QStringLiteral("again"));
    EXPECT_EQ(lines.last(), QStringLiteral("again"));
}

TEST_F(RareLogTest, WritesOfEachAddressByItselfButNotOfThousands)
{
    for (int i = 0; i < 5000; ++i)
        log.note(QByteArray::number(i), QString::number(i));
    EXPECT_EQ(lines.size(), RareLog::kMostAccounts + 1);
    waitSeconds(60);
    ASSERT_EQ(lines.size(), RareLog::kMostAccounts + 2);
    EXPECT_EQ(lines.last(), QStringLiteral("4999 (4935 times in the last minute)"));
}
