// Workers, their supervision and the reload, with real processes.

#include "gateway_fixture.h"

#include <csignal>

namespace {

const char kTags[] = R"({"name": "Speed", "type": "INT", "value": 1234},
                        {"name": "Level", "type": "REAL", "value": 41.5})";
const char kVariables[] = R"({"name": "Speed", "tag": "Speed"}, {"name": "Level", "tag": "Level"})";

class GatewayLinesTest : public GatewayTest
{
protected:
    void startTwoLines(const QStringList& environment = QStringList())
    {
        addLine(QStringLiteral("press"), kTags, kVariables);
        addLine(QStringLiteral("oven"), kTags, kVariables);
        startGateway(environment);
        for (const char* name : {"press", "oven"})
            ASSERT_TRUE(waitForLog(QString::fromLatin1(name) + ": station 1: connected"))
                << log().toStdString();
    }
};

} // namespace

TEST_F(GatewayLinesTest, EndsInOrderWithItsWorkers)
{
    startTwoLines();
    const std::vector<qint64> started = workers();
    EXPECT_EQ(started.size(), 2U);
    EXPECT_EQ(stopGateway(), 0) << log().toStdString();
    for (const qint64 pid : started)
        EXPECT_NE(::kill(static_cast<pid_t>(pid), 0), 0);
}
