#include "GatewayClient.h"

#include "scripted_gateway.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

using Request = ScriptedGateway::Json;

class GatewayClientTest : public ::testing::Test
{
protected:
    std::string complaint(micro850::Duration patience = 300ms)
    {
        try {
            GatewayClient client(peer.path(), "test", clock, patience);
            client.setMostSilence(500ms);
            client.ask({{"request", "status"}});
        } catch (const micro850::UserError& error) {
            const std::string text = error.what();
            EXPECT_EQ(text.find('\x1b'), std::string::npos) << text;
            EXPECT_EQ(text.find('\n'), std::string::npos) << text;
            EXPECT_LT(text.size(), 2000U);
            return text;
        }
        return "none";
    }

    micro850::SystemClock clock;
    ScriptedGateway peer;
};

// The memory of this process that is in use, in megabytes.
long residentMegabytes()
{
    std::ifstream file("/proc/self/statm");
    long size = 0;
    long resident = 0;
    file >> size >> resident;
    return resident * 4096 / 1000000;
}

} // namespace

TEST_F(GatewayClientTest, TellsItsNameAndGetsAnswers)
{
    GatewayClient client(peer.path(), "the name", clock);
    peer.on("status", [](const Request& r) {
        return ScriptedGateway::reply(r, {{"lines", {1, 2}}});
    });
    EXPECT_EQ(client.ask({{"request", "status"}}).first().at("lines").elements().size(), 2U);
    EXPECT_EQ(peer.requests("hello").front()["client"], "the name");
}

TEST_F(GatewayClientTest, RefusesAGreetingOfAStranger)
{
    for (const char* const greeting :
         {"220 mail ready\r\n", "{}\n", "[]\n", "\n", "{\"protocol\": \"other\", \"version\": 1}\n",
          "{\"protocol\": 5}\n", "\x1b[2J\x1b[31m\n", "\xff\xfe\n"})
    {
        peer.greeting = greeting;
        EXPECT_NE(complaint().find("is no gateway: it greets with"), std::string::npos) << greeting;
    }
    peer.greeting = "{\"protocol\": \"micro850-gateway\", \"version\": 2}\n";
    EXPECT_NE(complaint().find("speaks version 2 of the protocol"), std::string::npos);
    peer.greeting = "{\"protocol\": \"micro850-gateway\"";
    EXPECT_NE(complaint().find("is silent"), std::string::npos);
    peer.greeting =
        "{\"id\": null, \"error\": {\"code\": \"busy\", \"text\": \"too many clients\"}}\n";
    EXPECT_NE(complaint().find("too many clients"), std::string::npos);
}

TEST_F(GatewayClientTest, EndsWhenWhatComesIsNoAnswer)
{
    const struct
    {
        const char* bytes;
        const char* complaint;
    } cases[] = {
        {"garbage\n", "sent what this program does not understand"},
        {"{\"reply\": \"status\"}\n", "sent what this program does not understand"},
        {"{\"id\": \"x\", \"reply\": \"status\"}\n", "sent what this program does not understand"},
        {"{\"id\": null, \"error\": {\"code\": \"bad-request\", \"text\": \"\\u001b[31mbye\"}}\n",
         "bye"},
        {"{\"event\": 5}\n{\"id\": 9", "does not answer any more"},
        {"{\"id\": 2, \"id\": 2}\n", "sent what this program does not understand"},
        {"\x04", "closed the connection"},
        {"{\"id\": 77, \"reply\": \"status\"}\n\x04", "closed the connection"},
    };
    peer.on("hello", [](const Request&) { return std::string(); });
    for (const auto& each : cases) {
        const std::string bytes = each.bytes;
        peer.on("status", [bytes](const Request&) { return bytes; });
        const std::string told = complaint();
        EXPECT_NE(told.find(each.complaint), std::string::npos) << bytes << told;
    }
}

TEST_F(GatewayClientTest, LosesAGatewayThatSendsALineOf100MegabytesWithoutKeepingIt)
{
    const long before = residentMegabytes();
    peer.on("status", [](const Request&) { return std::string(100000000, 'x'); });
    EXPECT_NE(complaint().find("sends a line that is too long"), std::string::npos);
    // The peer of this test has the line itself.
    EXPECT_LT(residentMegabytes() - before, 100 + 30);
}

TEST_F(GatewayClientTest, LosesAGatewayWhoseAnswerNeverEnds)
{
    peer.on("status", [](const Request& r) {
        const std::string part =
            ScriptedGateway::reply(r, {{"more", true}, {"text", std::string(900000, 'x')}});
        std::string all;
        for (int i = 0; i < 80; ++i)
            all += part;
        return all;
    });
    EXPECT_NE(complaint().find("sends an answer that is too long"), std::string::npos);
}

TEST_F(GatewayClientTest, ThrowsTheErrorOfARequest)
{
    peer.on("status", [](const Request& r) {
        return ScriptedGateway::error(r, "refused", "Speed[3]: gone",
                                      {{"element", 3}, {"why", "gone"}});
    });
    GatewayClient client(peer.path(), "test", clock);
    try {
        client.ask({{"request", "status"}});
        FAIL();
    } catch (const GatewayRefused& error) {
        EXPECT_EQ(error.code(), "refused");
        EXPECT_STREQ(error.what(), "Speed[3]: gone");
        EXPECT_EQ(error.why(), "gone");
        EXPECT_EQ(error.element(), 3);
    }
    peer.on("status", [](const Request& r) { return ScriptedGateway::error(r, "busy", "later"); });
    EXPECT_THROW(client.ask({{"request", "status"}}), GatewayRefused);
}

TEST_F(GatewayClientTest, EndsAWaitWhenItIsInterruptedAndIgnoresTheLateReply)
{
    GatewayClient client(peer.path(), "test", clock);
    Request late;
    peer.on("status", [&late](const Request& r) {
        late = r;
        return std::string();
    });
    client.setInterrupt([this] { return !peer.requests("status").empty(); });
    EXPECT_THROW(client.ask({{"request", "status"}}), Interrupted);
    client.setInterrupt(nullptr);
    peer.on("list", [&late](const Request& r) {
        return ScriptedGateway::reply(late, {{"lines", 1}}) +
               ScriptedGateway::reply(r, {{"variables", 2}});
    });
    EXPECT_EQ(client.ask({{"request", "list"}}).first().at("variables").integer(0, 9), 2);
}

TEST_F(GatewayClientTest, RefusesAPathThatIsNoneOfASocket)
{
    EXPECT_THROW(GatewayClient("", "test", clock), micro850::UserError);
    EXPECT_THROW(GatewayClient(QString(200, 'x'), "test", clock), micro850::UserError);
    EXPECT_THROW(GatewayClient("/dev/null", "test", clock), GatewayLost);
}
