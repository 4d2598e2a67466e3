#include "gateway_fixture.h"
#include "program_fixture.h"

#include <QtCore/QRegularExpression>

namespace {

/// The commands that ask a running gateway.
class GatewayStatus : public GatewayTest
{
protected:
    GatewayStatus()
    {
        addLine("press", R"({"name": "Speed", "type": "INT", "value": 1234})",
                R"({"tag": "Speed"})");
        startGateway();
    }
    Result gateway(const QStringList& arguments) const
    {
        return runProgram(MICRO850_GATEWAY, arguments + QStringList{"--socket", socketPath()});
    }
    /// Waits until the text is part of the status, and returns the status.
    std::string statusWith(const std::string& text) const
    {
        std::string status;
        EXPECT_TRUE(waitUntil([&] {
            status = gateway({"status"}).out;
            return status.find(text) != std::string::npos;
        })) << text
            << " is not in\n"
            << status;
        return status;
    }
};

} // namespace

TEST_F(GatewayStatus, ShowsAnswersOfALineThatIsRead)
{
    const std::string status = statusWith("station 1: connected");
    EXPECT_EQ(status.find("micro850-gateway " MICRO850_VERSION ", up "), 0u) << status;
    EXPECT_NE(status.find("line press: " + device("press").toStdString()), std::string::npos)
        << status;
    EXPECT_NE(status.find(", 1 variable, up\n"), std::string::npos) << status;
    EXPECT_EQ(status.find("never read"), std::string::npos) << status;
}

TEST_F(GatewayStatus, ShowsWhyALineIsDown)
{
    statusWith("station 1: connected");
    killSimulator("press");
    const std::string status = statusWith(", 1 variable, down\n");
    EXPECT_NE(status.find("line down"), std::string::npos) << status;
}

TEST_F(GatewayStatus, PrintsTheAnswerOfTheServiceAsJson)
{
    const Result result = gateway({"status", "--json"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto json = nlohmann::json::parse(result.out);
    EXPECT_EQ(json["program"], "micro850-gateway " MICRO850_VERSION);
    EXPECT_EQ(json["lines"][0]["line"], "press");
    EXPECT_EQ(json["lines"][0]["variables"], 1);
}

TEST_F(GatewayStatus, IsThatOfTheNewConfigurationAfterAReload)
{
    changeProject("press", R"({"tag": "Speed"}, {"tag": "Speed", "name": "Again"})");
    const Result result = gateway({"reload"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "the configuration was read again\n");
    statusWith(", 2 variables, ");
    EXPECT_TRUE(waitForLog("the configuration was read again: 1 line; changed: press"))
        << log().toStdString();
    EXPECT_TRUE(waitForLog(", 38400 8N1: up")) << log().toStdString();
}

TEST_F(GatewayStatus, StaysThatOfTheOldConfigurationWhenTheNewOneIsWrong)
{
    file("gateway.json", R"({"lines": [{"name": "a b", "project": "none.json"}]})");
    const Result result = gateway({"reload"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(R"(gateway.json: lines[0].name: "a b" is not a name of a line)"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("(and 1 more: micro850-gateway --check lists all)"),
              std::string::npos)
        << result.err;
    EXPECT_TRUE(waitForLog("none.json: cannot be read")) << log().toStdString();
    statusWith(", 1 variable, ");
}

TEST_F(GatewayStatus, TellsWhatALineCannotHoldAndLogsItOnce)
{
    addLineOnly("oven",
                R"({"name": "Speed", "type": "INT", "value": 1}, {"name": "Level", "type": "INT"})",
                R"({"tag": "Speed", "intervalMs": 40}, {"tag": "Level", "intervalMs": 40})");
    startSimulator("oven",
                   {"--faults", file("slow.json", R"({"faults": [{"fault": "delay", "rate": 1,
                                                                  "seconds": 0.1}]})")});
    configure();
    EXPECT_EQ(gateway({"reload"}).status, 0);
    ASSERT_TRUE(waitForLog("oven: the line is ")) << log().toStdString();
    const QRegularExpression form("oven: (the line is (\\d+) % asked for: \\w+ is read every "
                                  "([0-9.]+) s instead of 0.04 s)\n");
    const QRegularExpressionMatch logged = form.match(log());
    ASSERT_TRUE(logged.hasMatch()) << log().toStdString();
    EXPECT_GE(logged.captured(2).toInt(), 240); // a reply takes 100 ms at least
    EXPECT_GE(logged.captured(3).toDouble(), 0.1);
    const auto lines = nlohmann::json::parse(gateway({"status", "--json"}).out)["lines"];
    EXPECT_EQ(lines[1]["line"], "oven");
    const std::string told = lines[1].value("overload", "");
    EXPECT_NE(told.find(" % asked for: "), std::string::npos) << lines.dump();
    statusWith(" % asked for: ");
    EXPECT_FALSE(lines[0].contains("overload"));
    // Each text is logged once, although the worker tells it every second.
    const QString all = log();
    QStringList texts;
    for (auto match = form.globalMatch(all); match.hasNext();)
        texts.append(match.next().captured(1));
    EXPECT_EQ(texts.removeDuplicates(), 0) << all.toStdString();
    EXPECT_EQ(all.count("press: the line is "), 0);
}
