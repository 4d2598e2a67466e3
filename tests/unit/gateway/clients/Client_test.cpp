#include "Client.h"

#include "UserError.h"
#include "fake_lines.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::test;
using host::OutputBuffer;

namespace {

const char kProject[] = R"({
  "port": {"device": "/dev/ttyS0"},
  "stations": [{"number": 1}, {"number": 2}],
  "variables": [
    {"name": "Speed", "tag": "SPEED", "type": "INT", "unit": "rpm", "writable": true, "maximum": 100},
    {"name": "Level", "tag": "LEVEL", "station": 2, "element": 3, "gain": 0.5, "intervalMs": 100},
    {"name": "List", "tag": "LIST", "length": 2}
  ]})";

QByteArray manyVariables(int count)
{
    Json project = {{"port", {{"device", "/dev/ttyS0"}}}, {"variables", Json::array()}};
    for (int i = 0; i < count; ++i)
        project["variables"].push_back(
            {{"name", "Variable number " + std::to_string(i)}, {"tag", "TAG" + std::to_string(i)}});
    return QByteArray::fromStdString(project.dump());
}

/// What a test sees of a client: it takes all that is sent while `takes`.
struct Seen
{
    bool takes = true;
    QByteArray bytes;
};

class ClientTest : public testing::Test
{
protected:
    std::shared_ptr<Client> connect(Seen& by, const Peer& peer = {1000, 4711, "tester"})
    {
        const auto added = std::make_shared<Client>(context, peer, [&by](OutputBuffer& output) {
            if (by.takes)
                by.bytes += output.takeAll();
            return output.isEmpty() ? OutputBuffer::Outcome::Sent : OutputBuffer::Outcome::Waiting;
        });
        added->begin();
        clients.append(added);
        return added;
    }
    static QVector<Json> take(Seen& seen)
    {
        QVector<Json> messages;
        for (const QByteArray& line : seen.bytes.split('\n')) {
            if (!line.isEmpty())
                messages.append(Json::parse(line.toStdString()));
        }
        EXPECT_TRUE(seen.bytes.isEmpty() || seen.bytes.endsWith('\n'));
        seen.bytes.clear();
        return messages;
    }
    void send(const Json& request, const std::shared_ptr<Client>& to)
    {
        const QByteArray line = host::lineOf(request);
        to->receive(line.constData(), line.size());
    }
    // The messages that a request of the first client brings at once.
    QVector<Json> ask(const Json& request)
    {
        seen.bytes.clear();
        send(request, client);
        return take(seen);
    }
    std::string codeOf(const Json& request)
    {
        const QVector<Json> replies = ask(request);
        EXPECT_EQ(replies.size(), 1) << request.dump();
        return replies.isEmpty() || !replies.first().contains("error")
                   ? ""
                   : replies.first()["error"]["code"].get<std::string>();
    }
    // As the server does it.
    void change(int line, int variable, const Json& value)
    {
        const int number = context.index.numberOf(line, variable);
        for (const auto& some : clients)
            some->prepareChange(number);
        lines.setValue(line, variable, "INT", value);
        context.texts.forget(number);
        for (const auto& some : clients)
            some->addChange(number);
    }
    void proceed()
    {
        for (const auto& some : clients)
            some->proceed();
    }
    void reload(const QVector<LineSettings>& to)
    {
        lines.setLines(to);
        context.index.rebuild();
        context.texts.reset();
        for (const auto& some : clients)
            some->handleReload();
        proceed();
    }

    FakeLines lines{{lineOfProject("press", kProject)}};
    VirtualClock clock;
    SettableWallClock wall{1795354200000};
    WriteRules rules{lines, clock, wall};
    FakeHistory history;
    int reloads = 0;
    ClientContext context{ClientNeeds{lines, rules, history, clock, QStringLiteral("gateway 1"),
                                      [this] { ++reloads; }, 1001}};
    Seen seen;
    QVector<std::shared_ptr<Client>> clients;
    std::shared_ptr<Client> client = connect(seen);
};

} // namespace

TEST_F(ClientTest, IsGreeted)
{
    EXPECT_EQ(seen.bytes,
              "{\"protocol\":\"micro850-gateway\",\"version\":1,\"program\":\"gateway 1\"}\n");
}

TEST_F(ClientTest, ListsVariablesWithWhatIsSet)
{
    const QVector<Json> all = ask({{"id", 1}, {"request", "list"}});
    ASSERT_EQ(all.size(), 1);
    EXPECT_EQ(all.first()["id"], 1);
    EXPECT_EQ(all.first()["reply"], "list");
    EXPECT_FALSE(all.first().contains("more"));
    EXPECT_EQ(all.first()["variables"].dump(),
              R"([{"line":"press","name":"Speed","station":1,"tag":"SPEED","element":0,"length":1,)"
              R"("type":"INT","unit":"rpm","writable":true,"maximum":100},)"
              R"({"line":"press","name":"Level","station":2,"tag":"LEVEL","element":3,"length":1,)"
              R"("gain":0.5,"offset":0.0,"intervalMs":100},)"
              R"({"line":"press","name":"List","station":1,"tag":"LIST","element":0,"length":2}])");
    EXPECT_EQ(ask({{"id", "x"}, {"request", "list"}, {"match", "l*"}})[0]["variables"].size(), 2U);
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "list"}, {"line", "pres"}}), "unknown-name");
}

TEST_F(ClientTest, ReadsTheLatestValuesInTheOrderOfTheNames)
{
    lines.setValue(0, 0, "INT", 42, QByteArray::fromHex("2a00"));
    const QVector<Json> got =
        ask({{"id", 1}, {"request", "read"}, {"names", Json::array({"List", "Speed"})}});
    ASSERT_EQ(got.size(), 1);
    ASSERT_EQ(got.first()["values"].size(), 2U);
    EXPECT_EQ(got.first()["values"][0]["quality"], "never");
    EXPECT_EQ(got.first()["values"][1]["value"], 42);
    EXPECT_EQ(got.first()["values"][1]["bytes"], "2a00");
    EXPECT_EQ(got.first()["values"][1]["unit"], "rpm");
    const QVector<Json> none =
        ask({{"id", 2}, {"request", "read"}, {"names", Json::array({"Speed", "Levl"})}});
    EXPECT_EQ(none.first()["error"]["text"],
              "names[1]: no variable is called \"Levl\" (did you mean Level?)");
}

TEST_F(ClientTest, ReadsFreshValuesFromEveryLineAndKeepsTheirOrder)
{
    reload({lineOfProject("a", R"({"port":{"device":"/dev/ttyS0"},"variables":[
                {"name":"A1","tag":"A1"},{"name":"A2","tag":"A2"}]})"),
            lineOfProject("b", R"({"port":{"device":"/dev/ttyS1"},"variables":[
                {"name":"B1","tag":"B1"}]})")});
    EXPECT_TRUE(ask({{"id", 1},
                     {"request", "read"},
                     {"names", Json::array({"A2", "B1", "A1"})},
                     {"fresh", true}})
                    .isEmpty());
    ASSERT_EQ(lines.asked.size(), 2);
    EXPECT_EQ(lines.asked.first().request["names"], Json::array({"A2", "A1"}));
    lines.answer({{"reply", "read"}, {"values", Json::array({{{"value", 2}}, {{"value", 1}}})}});
    lines.answer({{"reply", "read"}, {"values", Json::array({{{"value", 3}}})}});
    proceed();
    const QVector<Json> got = take(seen);
    ASSERT_EQ(got.size(), 1);
    EXPECT_EQ(got.first()["values"].dump(), R"([{"value":2},{"value":3},{"value":1}])");
}

TEST_F(ClientTest, ReportsTheErrorOfAFreshRead)
{
    ask({{"id", 1}, {"request", "read"}, {"names", Json::array({"Speed"})}, {"fresh", true}});
    lines.answer({{"id", 99}, {"error", {{"code", "unreachable"}, {"text", "dead"}}}});
    proceed();
    EXPECT_EQ(take(seen).first().dump(),
              R"({"id":1,"error":{"code":"unreachable","text":"dead"}})");
}

TEST_F(ClientTest, PassesReadsOfTagsAndTypesToTheLineAndTheReplyBack)
{
    ask({{"id", 7}, {"request", "read"}, {"tag", "X"}, {"element", 2}, {"elements", 3}});
    EXPECT_EQ(
        lines.asked.first().request.dump(),
        R"({"request":"read","line":"press","station":1,"tag":"X","element":2,"elements":3})");
    lines.answer(
        {{"id", 99}, {"reply", "read"}, {"type", "INT"}, {"elements", Json::array({"0100"})}});
    proceed();
    EXPECT_EQ(take(seen).first().dump(),
              R"({"id":7,"reply":"read","type":"INT","elements":["0100"]})");
    ask({{"id", 8}, {"request", "type"}, {"tag", "X"}, {"station", 3}});
    EXPECT_EQ(lines.asked.first().request.dump(),
              R"({"request":"type","line":"press","station":3,"tag":"X"})");
    lines.answer({{"error", {{"code", "refused"}, {"text", "no such tag"}}}});
    proceed();
    EXPECT_EQ(take(seen).first()["error"]["code"], "refused");
}

TEST_F(ClientTest, SubscribesToTheLatestValuesFirstAndThenToChanges)
{
    change(0, 0, 1);
    const QVector<Json> got = ask({{"id", 1}, {"request", "subscribe"}, {"match", "*e*"}});
    ASSERT_EQ(got.size(), 2);
    EXPECT_EQ(got[0].dump(), R"({"id":1,"reply":"subscribe","subscription":1,"variables":2})");
    EXPECT_EQ(got[1]["event"], "values");
    EXPECT_EQ(got[1]["subscription"], 1);
    ASSERT_EQ(got[1]["values"].size(), 2U);
    EXPECT_EQ(got[1]["values"][0]["value"], 1);
    EXPECT_EQ(got[1]["values"][1]["quality"], "never");
    change(0, 2, 5);
    proceed();
    EXPECT_TRUE(take(seen).isEmpty()) << "nobody asked for the list";
    change(0, 0, 2);
    proceed();
    const QVector<Json> changed = take(seen);
    ASSERT_EQ(changed.size(), 1);
    EXPECT_EQ(changed[0]["values"].size(), 1U);
    EXPECT_EQ(changed[0]["values"][0]["value"], 2);
    EXPECT_FALSE(changed[0].contains("leftOut"));
}

TEST_F(ClientTest, TellsAFastReaderEveryChangeAlsoOfOneTurn)
{
    ask({{"id", 1}, {"request", "subscribe"}, {"names", Json::array({"Speed"})}});
    for (int i = 0; i < 5; ++i)
        change(0, 0, i);
    proceed();
    QVector<int> values;
    for (const Json& event : take(seen)) {
        EXPECT_FALSE(event.contains("leftOut"));
        for (const Json& value : event["values"])
            values.append(value["value"].get<int>());
    }
    EXPECT_EQ(values, (QVector<int>{0, 1, 2, 3, 4}));
}

TEST_F(ClientTest, KeepsTheNewestValuesForASlowReaderAndTellsHowManyWereLeftOut)
{
    Seen fast;
    const auto other = connect(fast);
    send({{"id", 1}, {"request", "subscribe"}}, other);
    ask({{"id", 1}, {"request", "subscribe"}});
    take(fast);
    seen.takes = false;
    change(0, 1, 0);
    proceed(); // waits in the output
    for (int i = 1; i <= 1000; ++i) {
        change(0, 0, i);
        proceed();
    }
    EXPECT_EQ(take(fast).size(), 1001);
    seen.takes = true;
    proceed();
    const QVector<Json> late = take(seen);
    ASSERT_EQ(late.size(), 2);
    EXPECT_EQ(late[1]["leftOut"], 999);
    ASSERT_EQ(late[1]["values"].size(), 1U);
    EXPECT_EQ(late[1]["values"][0]["value"], 1000);
    change(0, 0, 1001);
    proceed();
    EXPECT_FALSE(take(seen).first().contains("leftOut"));
}

TEST_F(ClientTest, KeepsLittleForASubscriberThatNeverReads)
{
    reload({lineOfProject("press", manyVariables(5000))});
    seen.takes = false;
    send({{"id", 1}, {"request", "subscribe"}}, client);
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 5000; ++i)
            change(0, i, round);
        proceed();
    }
    EXPECT_LT(context.waitingBytes, 200 * 1024);
    clock.advance(std::chrono::hours(1));
    client->checkTimes();
    EXPECT_FALSE(client->isOver()) << "a subscriber may stop reading for a while";
    seen.takes = true;
    seen.bytes.clear();
    for (int i = 0; i < 100 && client->wantsToProceed(); ++i)
        client->proceed();
    int newest = 0;
    for (const Json& event : take(seen)) {
        for (const Json& value : event.value("values", Json::array()))
            newest += value["value"] == 19 ? 1 : 0;
    }
    EXPECT_EQ(newest, 5000);
    EXPECT_EQ(context.waitingBytes, 0);
}

TEST_F(ClientTest, CutsLongRepliesIntoLinesThatSayThatMoreComes)
{
    reload({lineOfProject("press", manyVariables(3000))});
    const QVector<Json> pages = ask({{"id", 1}, {"request", "list"}});
    ASSERT_GT(pages.size(), 2);
    std::size_t variables = 0;
    for (int i = 0; i < pages.size(); ++i) {
        EXPECT_EQ(pages[i]["id"], 1);
        EXPECT_EQ(pages[i].value("more", false), i + 1 < pages.size());
        EXPECT_LT(pages[i].dump().size(), 70000U);
        variables += pages[i]["variables"].size();
    }
    EXPECT_EQ(variables, 3000U);
}

TEST_F(ClientTest, ReadsNoFurtherRequestsWhileRepliesWait)
{
    reload({lineOfProject("press", manyVariables(3000))});
    seen.takes = false;
    const QByteArray line = host::lineOf({{"id", 1}, {"request", "list"}});
    int fed = 0;
    for (; fed < 1000 && client->wantsInput(); ++fed)
        client->receive(line.constData(), line.size());
    EXPECT_LT(fed, 10);
    EXPECT_LT(context.waitingBytes, 400 * 1024);
    clock.advance(std::chrono::seconds(61));
    client->checkTimes();
    EXPECT_TRUE(client->isOver());
}

TEST_F(ClientTest, AnswersAllRequestsOfOneDeliveryInTheirOrder)
{
    QByteArray all;
    for (int i = 0; i < 500; ++i)
        all += host::lineOf({{"id", i}, {"request", "read"}, {"names", Json::array({"Speed"})}});
    seen.bytes.clear();
    client->receive(all.constData(), all.size());
    for (int i = 0; i < 500 && client->wantsToProceed(); ++i)
        client->proceed();
    const QVector<Json> replies = take(seen);
    ASSERT_EQ(replies.size(), 500);
    for (int i = 0; i < 500; ++i)
        EXPECT_EQ(replies[i]["id"], i);
    EXPECT_TRUE(client->wantsInput());
}

TEST_F(ClientTest, WritesInTheNameThatItGaveItself)
{
    ask({{"id", 1}, {"request", "write"}, {"name", "Speed"}, {"value", 200}});
    EXPECT_EQ(lines.journal.last().client, "tester");
    const Json hello = ask({{"id", 2}, {"request", "hello"}, {"client", "panel"}}).first();
    EXPECT_EQ(hello.dump(), R"({"id":2,"reply":"hello","client":"panel","uid":1000,"pid":4711})");
    EXPECT_TRUE(ask({{"id", 3}, {"request", "write"}, {"name", "Speed"}, {"value", 1}}).isEmpty());
    lines.answer({{"reply", "write"}, {"outcome", "written"}, {"verified", true}});
    proceed();
    EXPECT_EQ(take(seen).first().dump(),
              R"({"id":3,"reply":"write","outcome":"written","verified":true})");
    EXPECT_EQ(lines.journal.last().client, "panel");
    EXPECT_EQ(lines.journal.last().uid, 1000);
    EXPECT_EQ(lines.journal.last().pid, 4711);
}

TEST_F(ClientTest, TakesItsWritesBackWhenItGoesAway)
{
    ask({{"id", 1}, {"request", "write"}, {"name", "Speed"}, {"value", 1}});
    ask({{"id", 2}, {"request", "type"}, {"tag", "X"}});
    clients.clear();
    client.reset();
    ASSERT_EQ(lines.asked.size(), 2);
    EXPECT_TRUE(lines.asked.first().cancelled);
    EXPECT_TRUE(lines.asked.last().cancelled);
    lines.answer({{"error", {{"code", "cancelled"}, {"text", "taken back"}}}});
    EXPECT_EQ(lines.journal.last().outcome, "cancelled");
}

TEST_F(ClientTest, CancelsARequestThatWaits)
{
    ask({{"id", "w"}, {"request", "write"}, {"name", "Speed"}, {"value", 1}});
    EXPECT_EQ(ask({{"id", 2}, {"request", "cancel"}, {"of", "w"}}).first().dump(),
              R"({"id":2,"reply":"cancel"})");
    EXPECT_TRUE(lines.asked.first().cancelled);
    EXPECT_EQ(codeOf({{"id", 3}, {"request", "cancel"}, {"of", 17}}), "unknown-name");
}

TEST_F(ClientTest, LetsALimitedNumberOfRequestsWait)
{
    for (int i = 0; i < 64; ++i)
        EXPECT_TRUE(ask({{"id", i}, {"request", "type"}, {"tag", "X"}}).isEmpty());
    EXPECT_EQ(codeOf({{"id", 64}, {"request", "type"}, {"tag", "X"}}), "busy");
    EXPECT_EQ(lines.asked.size(), 64);
    lines.answer({{"reply", "type"}, {"type", "INT"}});
    proceed();
    EXPECT_EQ(take(seen).first()["id"], 0);
    EXPECT_TRUE(ask({{"id", 65}, {"request", "type"}, {"tag", "X"}}).isEmpty());
    EXPECT_EQ(lines.asked.size(), 64);
}

TEST_F(ClientTest, RefusesAnIdThatWaitsAlready)
{
    ask({{"id", 1}, {"request", "type"}, {"tag", "X"}});
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "type"}, {"tag", "X"}}), "bad-request");
    EXPECT_EQ(lines.asked.size(), 1);
}

TEST_F(ClientTest, UnsubscribesAndLimitsSubscriptions)
{
    for (int i = 1; i <= 16; ++i)
        ask({{"id", i}, {"request", "subscribe"}, {"match", "Speed"}});
    EXPECT_EQ(codeOf({{"id", 17}, {"request", "subscribe"}}), "busy");
    change(0, 0, 1);
    proceed();
    EXPECT_EQ(take(seen).size(), 16);
    for (int i = 1; i <= 16; ++i)
        EXPECT_EQ(codeOf({{"id", i}, {"request", "unsubscribe"}, {"subscription", i}}), "");
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "unsubscribe"}, {"subscription", 1}}), "unknown-name");
    change(0, 0, 2);
    proceed();
    EXPECT_TRUE(take(seen).isEmpty());
}

TEST_F(ClientTest, TellsAgesAndStatesOfWhatItSubscribedTo)
{
    ask({{"id", 1}, {"request", "subscribe"}, {"match", "Speed"}, {"ages", true}});
    client->sendAges([](int number) { return "{\"n\":" + QByteArray::number(number) + '}'; });
    EXPECT_EQ(take(seen).first().dump(), R"({"event":"ages","subscription":1,"ages":[{"n":0}]})");
    client->addEvent({0, "other", -1, "line down", "pulled"});
    client->addEvent({0, "press", -1, "line down", "pulled"});
    client->addEvent({0, "press", 2, "dead", "no answer"});
    client->addEvent({0, "press", 2, "connected", "back"});
    proceed();
    const QVector<Json> events = take(seen);
    ASSERT_EQ(events.size(), 2) << "the newest state of each";
    EXPECT_EQ(events[0].dump(),
              R"({"event":"state","line":"press","state":"line down","text":"pulled"})");
    EXPECT_EQ(events[1].dump(),
              R"({"event":"state","line":"press","station":2,"state":"connected","text":"back"})");
}

TEST_F(ClientTest, HandlesNoRequestsWhileItTellsAges)
{
    for (int i = 1; i <= 3; ++i)
        ask({{"id", i}, {"request", "subscribe"}, {"match", "Speed"}, {"ages", true}});
    // More than are carried out at once: the last ones wait.
    QByteArray many;
    for (int i = 0; i < 200; ++i)
        many += host::lineOf({{"id", 100 + i}, {"request", "hello"}, {"client", "tester"}});
    for (int i = 1; i <= 3; ++i)
        many += host::lineOf({{"id", i}, {"request", "unsubscribe"}, {"subscription", i}});
    client->receive(many.constData(), many.size());
    ASSERT_LT(take(seen).size(), 200);
    client->sendAges([](int) { return QByteArray("{}"); });
    const QVector<Json> told = take(seen);
    ASSERT_EQ(told.size(), 3);
    for (const Json& message : told)
        EXPECT_EQ(message["event"], "ages");
    proceed();
    EXPECT_EQ(take(seen).last()["reply"], "unsubscribe");
}

TEST_F(ClientTest, TellsAnAlarmOfTheGatewayItselfWithoutALine)
{
    ask({{"id", 1}, {"request", "subscribe"}, {"match", "Speed"}});
    proceed();
    take(seen);
    client->addEvent({0, QString(), -1, "history stopped", "the disk is full"});
    proceed();
    const QVector<Json> events = take(seen);
    ASSERT_EQ(events.size(), 1);
    EXPECT_EQ(events[0].dump(),
              R"({"event":"state","state":"history stopped","text":"the disk is full"})");
}

TEST_F(ClientTest, KeepsItsSubscriptionsThroughAReloadAndHearsOnlyWhatIsNew)
{
    change(0, 0, 1);
    ask({{"id", 1}, {"request", "subscribe"}});
    QByteArray project = kProject;
    project.replace("\"tag\": \"LIST\"", "\"tag\": \"OTHER\"");
    reload({lineOfProject("new", kProject), lineOfProject("press", project)});
    const QVector<Json> events = take(seen);
    ASSERT_EQ(events.size(), 2);
    EXPECT_EQ(events[0].dump(), R"({"event":"reloaded"})");
    QStringList told;
    for (const Json& value : events[1]["values"])
        told << QString::fromStdString(value["line"].get<std::string>() + '/' +
                                       value["name"].get<std::string>());
    EXPECT_EQ(told, (QStringList{"new/Speed", "new/Level", "new/List", "press/List"}));
    change(1, 0, 2);
    proceed();
    EXPECT_EQ(take(seen).first()["values"][0]["value"], 2);
    reload({});
    EXPECT_EQ(take(seen).size(), 1);
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "list"}}), "");
}

TEST_F(ClientTest, HearsTheValuesOfAnotherDeviceAnewAfterAReload)
{
    change(0, 0, 1);
    ask({{"id", 1}, {"request", "subscribe"}, {"match", "Speed"}});
    QByteArray project = kProject;
    project.replace("/dev/ttyS0", "/dev/ttyS1");
    reload({lineOfProject("press", project)});
    const QVector<Json> events = take(seen);
    ASSERT_EQ(events.size(), 2);
    EXPECT_EQ(events.last()["values"][0]["name"], "Speed");
}

TEST_F(ClientTest, EndsAListThatAReloadOvertakes)
{
    reload({lineOfProject("press", manyVariables(3000))});
    take(seen);
    seen.takes = false;
    send({{"id", 5}, {"request", "list"}}, client);
    reload({});
    seen.takes = true;
    proceed();
    const QVector<Json> got = take(seen);
    ASSERT_EQ(got.size(), 3);
    EXPECT_EQ(got[0]["more"], true);
    EXPECT_EQ(got[1]["id"], 5);
    EXPECT_EQ(got[1]["error"]["code"], "busy");
}

TEST_F(ClientTest, ReloadsOnlyForRootAndTheService)
{
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "reload"}}), "not-allowed");
    EXPECT_EQ(reloads, 0);
    for (const int uid : {0, 1001}) {
        Seen other;
        const auto allowed = connect(other, {uid, 1, "x"});
        take(other);
        send({{"id", 1}, {"request", "reload"}}, allowed);
        EXPECT_EQ(take(other).first().dump(), R"({"id":1,"reply":"reload"})");
    }
    EXPECT_EQ(reloads, 2);
    context.reload = [] { throw UserError("gateway.json: lines[0]: bad"); };
    Seen other;
    const auto root = connect(other, {0, 1, "x"});
    take(other);
    send({{"id", 1}, {"request", "reload"}}, root);
    EXPECT_EQ(take(other).first()["error"]["code"], "bad-configuration");
}

TEST_F(ClientTest, AsksTheHistoryAndGetsItsValues)
{
    ask({{"id", 1},
         {"request", "history"},
         {"name", "S*"},
         {"from", "2026-11-22T13:30:00.000Z"},
         {"limit", 5}});
    ASSERT_EQ(history.asked.size(), 1);
    EXPECT_EQ(history.asked.first().first.filter.name, "S*");
    EXPECT_EQ(history.asked.first().first.filter.from, 1795354200000);
    EXPECT_FALSE(history.asked.first().first.filter.to);
    EXPECT_EQ(history.asked.first().first.limit, 5);
    HistoryAnswer answer;
    answer.values = {Json{{"value", 1}}, Json{{"value", 2}}};
    answer.complete = false;
    history.asked.first().second(answer);
    proceed();
    EXPECT_EQ(take(seen).first().dump(),
              R"({"id":1,"reply":"history","values":[{"value":1},{"value":2}],"complete":false})");
    EXPECT_EQ(codeOf({{"id", 2}, {"request", "history"}, {"from", "yesterday"}}), "bad-request");
    ask({{"id", 3}, {"request", "history"}});
    answer.errorCode = "refused";
    answer.errorText = "no disk";
    history.asked.last().second(answer);
    proceed();
    EXPECT_EQ(take(seen).first().dump(), R"({"id":3,"error":{"code":"refused","text":"no disk"}})");
}

TEST_F(ClientTest, TellsTheStatusOfTheProgramAndItsLines)
{
    clock.advance(std::chrono::seconds(90));
    const Json status = ask({{"id", 1}, {"request", "status"}}).first();
    EXPECT_EQ(status["program"], "gateway 1");
    EXPECT_EQ(status["uptimeS"], 90);
    EXPECT_GT(status["memoryKb"], 1000);
    EXPECT_EQ(status["lines"].dump(), R"([{"line":"press"}])");
    EXPECT_EQ(status["history"]["state"], "off");
}

TEST_F(ClientTest, AnswersGarbageWithAnErrorAndGoesOn)
{
    const QVector<QByteArray> garbage = {
        "",
        "x",
        "[]",
        "5",
        "{}",
        R"({"id":1})",
        R"({"id":1,"request":5})",
        R"({"id":1,"request":"rad"})",
        R"({"id":1,"id":2,"request":"list"})",
        R"({"id":null,"request":"list"})",
        R"({"id":true,"request":"list"})",
        R"({"id":[1],"request":"list"})",
        R"({"request":"list"})",
        R"({"id":1,"request":"list","mach":"x"})",
        R"({"id":1,"request":"list","match":5})",
        R"({"id":1,"request":"read"})",
        R"({"id":1,"request":"read","names":"Speed"})",
        R"({"id":1,"request":"read","names":[5]})",
        R"({"id":1,"request":"read","tag":""})",
        R"({"id":1,"request":"read","tag":"X","elements":1001})",
        R"({"id":1,"request":"read","tag":"X","station":65536})",
        R"({"id":1,"request":"subscribe","names":["Speed"],"match":"x"})",
        R"({"id":1,"request":"write","name":"Speed"})",
        R"({"id":1,"request":"history","limit":0})",
        R"({"id":1,"request":"history","limit":10001})",
        R"({"id":1,"request":"hello","client":""})",
        QByteArray("{\"id\":1,\"request\":\"list\",\"match\":\"\xFF\"}"),
        QByteArray(1000, '['),
        QByteArray("\0\0\0", 3),
        "{\"id\":\"" + QByteArray(129, 'x') + "\",\"request\":\"list\"}",
        "{\"id\":1,\"request\":\"list\",\"match\":\"" + QByteArray(256, 'x') + "\"}",
        QByteArray(host::kLongestRequest, ' ')};
    for (const QByteArray& line : garbage) {
        seen.bytes.clear();
        const QByteArray bytes = line + '\n';
        client->receive(bytes.constData(), bytes.size());
        const QVector<Json> replies = take(seen);
        ASSERT_EQ(replies.size(), 1) << line.left(80).toStdString();
        EXPECT_EQ(replies.first()["error"]["code"], "bad-request") << line.left(80).toStdString();
        EXPECT_FALSE(client->isOver());
    }
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "list"}}), "");
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(ClientTest, IsLetGoAfterAHundredMistakesInARow)
{
    for (int i = 0; i < 99; ++i)
        client->receive("x\n", 2);
    EXPECT_FALSE(client->isOver());
    EXPECT_EQ(codeOf({{"id", 1}, {"request", "list"}}), "");
    seen.bytes.clear();
    for (int i = 0; i < 100; ++i)
        client->receive("x\n", 2);
    EXPECT_TRUE(client->isOver());
    EXPECT_EQ(take(seen).size(), 101);
}

TEST_F(ClientTest, IsLetGoWhenItSaysNothingOrStopsInTheMiddle)
{
    clock.advance(std::chrono::seconds(60));
    client->checkTimes();
    EXPECT_FALSE(client->isOver());
    seen.bytes.clear();
    clock.advance(std::chrono::seconds(1));
    client->checkTimes();
    EXPECT_TRUE(client->isOver());
    EXPECT_EQ(take(seen).first()["error"]["code"], "bad-request");

    Seen half;
    const auto other = connect(half);
    send({{"id", 1}, {"request", "subscribe"}}, other);
    clock.advance(std::chrono::hours(1));
    other->checkTimes();
    EXPECT_FALSE(other->isOver()) << "it need not say more";
    other->receive("{\"id\"", 5);
    for (int i = 0; i < 6; ++i) {
        clock.advance(std::chrono::seconds(10));
        other->receive(" ", 1);
        other->checkTimes();
        EXPECT_FALSE(other->isOver());
    }
    clock.advance(std::chrono::seconds(1));
    other->checkTimes();
    EXPECT_TRUE(other->isOver());
}
