#include "RemoteSession.h"

#include "Elements.h"
#include "scripted_gateway.h"
#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using wire::hex;

namespace {

using Request = ScriptedGateway::Json;
const TagKey kSpeed = {1, "Speed"};

class RemoteSessionTest : public ::testing::Test
{
protected:
    RemoteSessionTest()
    {
        peer.on("type", [](const Request& r) {
            return ScriptedGateway::reply(r, {{"type", "INT"}});
        });
        peer.on("write", [](const Request& r) {
            return ScriptedGateway::reply(r, {{"outcome", "written"}, {"verified", true}});
        });
    }
    void connect()
    {
        session.reset(); // the peer serves one client at a time
        client.reset();
        client = std::make_unique<GatewayClient>(peer.path(), "test", clock);
        client->setMostSilence(std::chrono::milliseconds(500));
        session = std::make_unique<RemoteSession>(*client, "press");
    }
    template<typename Action> std::string complaint(Action action)
    {
        try {
            action();
        } catch (const TagRefused& error) {
            return "refused " + std::to_string(error.element()) + ": " + error.why();
        } catch (const NotWritten& error) {
            return std::string("not written: ") + error.what();
        } catch (const micro850::UserError& error) {
            return error.what();
        }
        return "none";
    }
    std::string write()
    {
        return complaint([&] { session->write(kSpeed, 2, hex("07 00")); });
    }
    void answerWrite(const char* code, const char* text)
    {
        peer.on("write",
                [code, text](const Request& r) { return ScriptedGateway::error(r, code, text); });
    }

    micro850::SystemClock clock;
    ScriptedGateway peer;
    std::unique_ptr<GatewayClient> client;
    std::unique_ptr<RemoteSession> session;
};

} // namespace

TEST_F(RemoteSessionTest, AsksForATypeOnce)
{
    connect();
    EXPECT_STREQ(session->typeOf(kSpeed).name, "INT");
    EXPECT_STREQ(session->typeOf(kSpeed).name, "INT");
    ASSERT_EQ(peer.requests("type").size(), 1U);
    const Request request = peer.requests("type").front();
    EXPECT_EQ(request["line"], "press");
    EXPECT_EQ(request["station"], 1);
    EXPECT_EQ(request["tag"], "Speed");
}

TEST_F(RemoteSessionTest, ReadsALongRunInSeveralRequestsAndTellsItsProgress)
{
    peer.on("read", [](const Request& r) {
        ScriptedGateway::Json elements = ScriptedGateway::Json::array();
        for (int i = 0; i < r["elements"]; ++i)
            elements.push_back(wire::little(static_cast<quint64>(r["element"].get<int>() + i), 2)
                                   .toHex()
                                   .toStdString());
        return ScriptedGateway::reply(r, {{"type", "INT"}, {"elements", elements}});
    });
    connect();
    QVector<int> progress;
    const QVector<QByteArray> values =
        session->read(kSpeed, 5, 450, [&](int done) { progress += done; });
    ASSERT_EQ(values.size(), 450);
    for (int i = 0; i < values.size(); ++i)
        ASSERT_EQ(values.at(i), wire::little(static_cast<quint64>(5 + i), 2)) << i;
    ASSERT_GE(progress.size(), 2);
    EXPECT_EQ(progress.last(), 450);
}

TEST_F(RemoteSessionTest, TakesAReplyInSeveralPartsAndEventsBetweenThem)
{
    peer.on("read", [](const Request& r) {
        ScriptedGateway::Json first = {{"elements", {"0700"}}, {"more", true}};
        return ScriptedGateway::reply(r, first) + "{\"event\": \"reloaded\"}\n" +
               ScriptedGateway::reply(r, {{"elements", {"0800"}}});
    });
    connect();
    int events = 0;
    client->setEventHandler([&](const micro850::JsonNode&) { ++events; });
    const QVector<QByteArray> values = session->read(kSpeed, 0, 2);
    EXPECT_EQ(values, (QVector<QByteArray>{hex("07 00"), hex("08 00")}));
    EXPECT_EQ(events, 1);
}

TEST_F(RemoteSessionTest, TellsWhatTheControllerRefused)
{
    peer.on("read", [](const Request& r) {
        return ScriptedGateway::error(r, "refused", "Speed[3]: no such element",
                                      {{"why", "no such element"}, {"element", 3}});
    });
    connect();
    EXPECT_EQ(complaint([&] { session->read(kSpeed, 0, 5); }), "refused 3: no such element");
    EXPECT_EQ(complaint([&] { session->requireElements(kSpeed, 0, 5); }),
              "refused 3: no such element");
}

TEST_F(RemoteSessionTest, AsksOnceWhetherASingleElementIsThere)
{
    peer.on("read", [](const Request& r) {
        return ScriptedGateway::error(r, "refused", "Speed[3]: no such element",
                                      {{"why", "no such element"}, {"element", 3}});
    });
    connect();
    EXPECT_EQ(complaint([&] { session->requireElements(kSpeed, 3, 1); }),
              "refused 3: no such element");
    EXPECT_EQ(peer.requests("read").size(), 1U);
}

TEST_F(RemoteSessionTest, RefusesElementsThatAreTooFewOrOfAnotherSize)
{
    connect();
    for (const char* const elements : {"[]", "[\"07\"]", "[\"070000\"]", "[\"xx\"]", "[7]", "{}"}) {
        peer.on("read", [elements](const Request& r) {
            return ScriptedGateway::reply(
                r, {{"type", "INT"}, {"elements", ScriptedGateway::Json::parse(elements)}});
        });
        EXPECT_NE(complaint([&] { session->read(kSpeed, 0, 1); }), "none") << elements;
    }
}

TEST_F(RemoteSessionTest, WritesBytesToAnElement)
{
    connect();
    EXPECT_EQ(write(), "none");
    const Request request = peer.requests("write").front();
    EXPECT_EQ(request["element"], 2);
    EXPECT_EQ(request["bytes"], "0700");
}

TEST_F(RemoteSessionTest, AsksWhetherAWriteIsAllowed)
{
    peer.on("write", [](const Request& r) {
        return r.value("check", false) ? ScriptedGateway::reply(r, {{"outcome", "allowed"}})
                                       : ScriptedGateway::error(r, "busy", "it is no check");
    });
    connect();
    const auto check = [this] {
        return complaint([&] { session->requireAllowed(kSpeed, 2, hex("07 00")); });
    };
    EXPECT_EQ(check(), "none");
    const Request request = peer.requests("write").front();
    EXPECT_EQ(request["tag"], "Speed");
    EXPECT_EQ(request["element"], 2);
    EXPECT_EQ(request["bytes"], "0700");
    answerWrite("not-allowed", "Speed: is not writable");
    EXPECT_EQ(check(), "refused 2: is not writable");
    answerWrite("unreachable", "the line is down");
    EXPECT_EQ(check(), "not written: the line is down");
    peer.on("write", [](const Request& r) {
        return ScriptedGateway::reply(r, {{"outcome", "written"}});
    });
    EXPECT_NE(check().find("is no outcome"), std::string::npos);
}

TEST_F(RemoteSessionTest, TellsARefusedWriteFromOneThatWasNotSentAndOneOfUnknownOutcome)
{
    connect();
    answerWrite("not-allowed", "Speed: not writable");
    EXPECT_EQ(write(), "refused 2: not writable");
    answerWrite("unreachable", "Speed: no answer");
    EXPECT_EQ(write(), "not written: Speed: no answer");
    answerWrite("cancelled", "taken back");
    EXPECT_EQ(write(), "not written: taken back");
    answerWrite("unknown-outcome", "nobody answered");
    EXPECT_EQ(write(), "nobody answered");
    answerWrite("busy", "too many requests wait");
    EXPECT_EQ(write(), "refused 2: too many requests wait");
}

TEST_F(RemoteSessionTest, LeavesTheOutcomeOpenWhenTheGatewayDiesInTheMiddleOfAWrite)
{
    connect();
    peer.on("write", [](const Request&) { return std::string(1, ScriptedGateway::kHangUp); });
    EXPECT_EQ(write(), peer.path().toStdString() + ": closed the connection");
}

TEST_F(RemoteSessionTest, LeavesTheOutcomeOpenWhenTheGatewayIsSilentAfterAWrite)
{
    connect();
    session->typeOf(kSpeed);
    for (const char* const request : {"write", "hello"})
        peer.on(request, [](const Request&) { return std::string(); });
    EXPECT_EQ(write(), peer.path().toStdString() + ": does not answer any more");
}

TEST_F(RemoteSessionTest, LeavesTheOutcomeOpenAfterAnAnswerThatIsNone)
{
    for (const char* const answer : {"{\"id\": 3}\n", "[]\n", "garbage\n",
                                     "{\"id\": 3, \"reply\": \"write\", \"outcome\": 1}\n"})
    {
        connect();
        peer.on("write", [answer](const Request& r) {
            std::string text = answer;
            const std::size_t at = text.find("3");
            return at == std::string::npos ? text : text.replace(at, 1, r["id"].dump());
        });
        const std::string told = write();
        EXPECT_NE(told, "none") << answer;
        EXPECT_EQ(told.find("not written"), std::string::npos) << answer << told;
        EXPECT_EQ(told.find("refused"), std::string::npos) << answer << told;
    }
}

TEST_F(RemoteSessionTest, WaitsForASlowAnswerWhileTheGatewayAnswersOtherwise)
{
    connect();
    session->typeOf(kSpeed);
    Request open;
    int hellos = 0;
    peer.on("write", [&open](const Request& r) {
        open = r;
        return std::string();
    });
    peer.on("hello", [&](const Request& r) {
        const std::string hello = ScriptedGateway::reply(r, ScriptedGateway::Json::object());
        return ++hellos < 4 ? hello
                            : hello + ScriptedGateway::reply(open, {{"outcome", "written"}});
    });
    EXPECT_EQ(write(), "none");
}

TEST_F(RemoteSessionTest, TakesAWriteBackWhenItIsInterrupted)
{
    connect();
    session->typeOf(kSpeed);
    Request open;
    peer.on("write", [&open](const Request& r) {
        open = r;
        return std::string();
    });
    peer.on("cancel", [&open](const Request& r) {
        return ScriptedGateway::reply(r, ScriptedGateway::Json::object()) +
               ScriptedGateway::error(open, "cancelled", "it was taken back");
    });
    session->setInterrupt([] { return true; });
    EXPECT_EQ(write(), "not written: interrupted");
    EXPECT_EQ(peer.requests("cancel").front()["of"], open["id"]);
}
