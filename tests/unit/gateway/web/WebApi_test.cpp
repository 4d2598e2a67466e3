// The interface for programs: values, writes, trends, alarms and the journal.

#include "HistoryApi.h"
#include "RecentTrends.h"
#include "ValuesApi.h"
#include "web_parts.h"

#include <QtCore/QElapsedTimer>

#include <set>

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::test;

namespace {

class WebApiTest : public WebPartsTest
{
protected:
    WebApiTest()
    {
        values.addRoutes(router);
        records.addRoutes(router);
        trends.addRoutes(router);
        context.settings.takesWrites = true;
        caller.mayWrite = true;
        caller.name = QStringLiteral("web 127.0.0.1");
    }
    void set(int variable, const char* type, const Json& value)
    {
        lines.setValue(0, variable, type, value);
        context.values.forget(variable);
    }
    std::shared_ptr<FakeExchange> put(const QString& target, const QByteArray& body)
    {
        auto exchange = exchangeOf("PUT", target, body);
        router.route(exchange, caller);
        return exchange;
    }

    std::string revisionOf(const char* name)
    {
        return bodyOf(get(QStringLiteral("/api/v1/values/") + name)).at("revision");
    }
    /// The project with other parts, as after a reload.
    void useProject(const std::vector<std::pair<QByteArray, QByteArray>>& changes)
    {
        QByteArray project = kWebProject;
        for (const auto& [before, after] : changes) {
            ASSERT_TRUE(project.contains(before)) << before.constData();
            project.replace(project.indexOf(before), before.size(), after);
        }
        lines.setLines({lineOfProject(QStringLiteral("press"), project)});
        context.index.rebuild();
        context.values.reset();
        ++context.generation;
    }

    ValuesApi values{context};
    HistoryApi records{context};
    RecentTrends trends{context};
};

} // namespace

TEST_F(WebApiTest, GivesTheLatestValuesWithTheirAges)
{
    set(0, "INT", 7);
    const auto body = bodyOf(get(QStringLiteral("/api/v1/values")));
    ASSERT_EQ(body["values"].size(), 3U);
    EXPECT_EQ(body["values"][0]["value"], 7);
    EXPECT_EQ(body["values"][0]["ageMs"], 40);
    EXPECT_EQ(body["values"][0]["unit"], "rpm");
    EXPECT_TRUE(body["values"][1]["ageMs"].is_null());
    EXPECT_FALSE(body["values"][0].contains("text"));
}

TEST_F(WebApiTest, GivesIntegersOf64BitsAsExactTextToo)
{
    set(1, "ULINT", Json(std::uint64_t(18446744073709551615ULL)));
    set(2, "LINT", Json::array({std::int64_t(-9007199254740993), 5}));
    const auto body = bodyOf(get(QStringLiteral("/api/v1/values")));
    EXPECT_EQ(body["values"][1]["text"], "18446744073709551615");
    EXPECT_EQ(body["values"][2]["text"], nlohmann::json({"-9007199254740993", "5"}));
}

TEST_F(WebApiTest, ChoosesValuesByLineAndPattern)
{
    EXPECT_EQ(bodyOf(get(QStringLiteral("/api/v1/values?match=S*"))).at("values").size(), 1U);
    EXPECT_EQ(bodyOf(get(QStringLiteral("/api/v1/variables?line=press"))).at("variables").size(),
              3U);
    EXPECT_EQ(refusal(exchangeOf("GET", QStringLiteral("/api/v1/values?line=pres"))),
              "unknown-name: line: no line is called \"pres\" (did you mean press?)");
    EXPECT_EQ(refusal(exchangeOf("GET", QStringLiteral("/api/v1/values?lines=press"))),
              "bad-request: lines: is not known here (known: line, match, lastEvent)");
    EXPECT_EQ(refusal(exchangeOf("GET", QStringLiteral("/api/v1/values?line=press&line=press"))),
              "bad-request: line: is given twice");
}

TEST_F(WebApiTest, GivesOneValue)
{
    set(0, "INT", 7);
    EXPECT_EQ(bodyOf(get(QStringLiteral("/api/v1/values/Speed")))["value"], 7);
    EXPECT_EQ(refusal(exchangeOf("GET", QStringLiteral("/api/v1/values/Sped"))),
              "unknown-name: name: no variable is called \"Sped\" (did you mean Speed?)");
}

TEST_F(WebApiTest, MakesALongListWhileItIsRead)
{
    Json project = {{"port", {{"device", "/dev/ttyS0"}}}, {"variables", Json::array()}};
    for (int i = 0; i < 1000; ++i)
        project["variables"].push_back(
            {{"name", "V" + std::to_string(i)}, {"tag", "T" + std::to_string(i)}});
    const auto line =
        lineOfProject(QStringLiteral("press"), QByteArray::fromStdString(project.dump()));
    lines.setLines({line});
    context.index.rebuild();
    context.values.reset();
    const HttpResponse whole = get(QStringLiteral("/api/v1/values"));
    ASSERT_TRUE(whole.stream);
    const auto all = bodyOf(whole);
    ASSERT_EQ(all["values"].size(), 1000U);
    EXPECT_EQ(all["values"][999]["name"], "V999");
    // The variables go away in the middle of another one.
    const HttpResponse half = get(QStringLiteral("/api/v1/values"));
    QByteArray bytes(1000, '\0');
    EXPECT_EQ(half.stream->read(bytes.data(), bytes.size()), 1000);
    ++context.generation;
    QByteArray rest(1000000, '\0');
    int got = 0;
    do {
        got = half.stream->read(rest.data(), rest.size());
    } while (got > 0);
    EXPECT_EQ(got, HttpStream::kBroken);
}

TEST_F(WebApiTest, AnswersAWriteWhenItsOutcomeIsKnown)
{
    const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42})");
    EXPECT_TRUE(exchange->answers.empty());
    ASSERT_EQ(lines.asked.size(), 1);
    EXPECT_EQ(lines.asked.first().request["bytes"], "2a00");
    lines.answer(
        {{"id", 1}, {"reply", "write"}, {"outcome", "written"}, {"old", 7}, {"value", 42}});
    ASSERT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(exchange->answers[0].status, 200);
    EXPECT_EQ(bodyOf(exchange->answers[0]),
              nlohmann::json::parse(R"({"outcome": "written", "old": 7, "value": 42})"));
    EXPECT_EQ(lines.journal.last().client, QStringLiteral("web 127.0.0.1"));
}

TEST_F(WebApiTest, WritesIntegersOf64BitsExactly)
{
    set(1, "LINT", 0);
    put(QStringLiteral("/api/v1/values/Big"), R"({"value": "9007199254740993"})");
    put(QStringLiteral("/api/v1/values/Big"), R"({"value": 9007199254740993})");
    ASSERT_EQ(lines.asked.size(), 2);
    for (const FakeLines::Asked& asked : lines.asked)
        EXPECT_EQ(asked.request["bytes"], "0100000000002000");
    const auto exchange =
        put(QStringLiteral("/api/v1/values/Big"), R"({"value": 5, "check": true})");
    EXPECT_EQ(bodyOf(exchange->answers.at(0))["outcome"], "allowed");
}

TEST_F(WebApiTest, TellsTheFullDigitsOfWhatWasWritten)
{
    set(1, "LINT", 0);
    const auto exchange = put(QStringLiteral("/api/v1/values/Big"), R"({"value": 1})");
    lines.answer({{"outcome", "written"},
                  {"old", std::int64_t(-9007199254740993)},
                  {"value", std::uint64_t(18446744073709551615ULL)}});
    const auto body = bodyOf(exchange->answers.at(0));
    EXPECT_EQ(body["oldText"], "-9007199254740993");
    EXPECT_EQ(body["text"], "18446744073709551615");
}

TEST_F(WebApiTest, TellsEachFailureOfAWriteByItsOwnStatus)
{
    const std::vector<std::pair<const char*, int>> statuses = {
        {"bad-request", 400}, {"not-allowed", 403},    {"unknown-name", 404},
        {"refused", 409},     {"busy", 503},           {"cancelled", 503},
        {"unreachable", 503}, {"unknown-outcome", 504}};
    for (const auto& [code, status] : statuses) {
        const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 1})");
        lines.answer({{"error", {{"code", code}, {"text", "why"}}}});
        const HttpResponse& response = exchange->answers.at(0);
        EXPECT_EQ(response.status, status) << code;
        EXPECT_EQ(response.type, "application/problem+json");
        const auto body = bodyOf(response);
        EXPECT_EQ(body["code"], code);
        EXPECT_EQ(body["detail"], "why");
        EXPECT_EQ(body["status"], status);
    }
}

TEST_F(WebApiTest, RefusesWhatTheProjectDoesNotAllow)
{
    const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 101})");
    ASSERT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(exchange->answers[0].status, 403);
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WebApiTest, GivesARevisionOfWhatCanBeWritten)
{
    const auto latest = bodyOf(get(QStringLiteral("/api/v1/values")))["values"];
    const auto variables = bodyOf(get(QStringLiteral("/api/v1/variables")))["variables"];
    const std::string speed = revisionOf("Speed");
    EXPECT_EQ(speed.size(), 16U);
    EXPECT_NE(speed, revisionOf("Big"));
    for (std::size_t i = 0; i < latest.size(); ++i)
        EXPECT_EQ(latest[i].at("revision"), variables[i].at("revision"));
    // Another run of the service computes the same; only what is written needs one.
    WebContext later(
        {lines, writes, history, clock, wallClock, QStringLiteral("p"), [] { return Json(); }});
    EXPECT_EQ(nlohmann::json::parse(later.values.text(0).toStdString()).at("revision"), speed);
    useProject({{"writable\": true", "writable\": false"}});
    EXPECT_FALSE(bodyOf(get(QStringLiteral("/api/v1/values/Speed"))).contains("revision"));
}

TEST_F(WebApiTest, RevisionIsAnotherWhereTheNameMeansOrShowsSomethingElse)
{
    const std::string before = revisionOf("Speed");
    const std::vector<std::pair<const char*, const char*>> others = {
        {"ttyS0", "ttyS1"},
        {"\"SPEED\"", "\"SPEED2\""},
        {"\"SPEED\"", "\"SPEED\", \"element\": 1"},
        {"\"SPEED\"", "\"SPEED\", \"length\": 2"},
        {"\"SPEED\"", "\"SPEED\", \"gain\": 0.5"},
        {"\"SPEED\"", "\"SPEED\", \"offset\": 1"},
        {"\"INT\"", "\"DINT\""},
        {"rpm", "rps"}};
    std::set<std::string> all = {before};
    for (const auto& other : others) {
        useProject({other});
        EXPECT_TRUE(all.insert(revisionOf("Speed")).second) << other.second;
    }
    useProject({{"\"maximum\": 100", "\"maximum\": 90, \"intervalMs\": 50"}});
    EXPECT_EQ(revisionOf("Speed"), before);
}

TEST_F(WebApiTest, RefusesToWriteAnotherVariableThanWasSeen)
{
    const QString target = QStringLiteral("/api/v1/values/Speed");
    const QByteArray seen =
        R"({"value": 42, "revision": ")" + QByteArray::fromStdString(revisionOf("Speed")) + '"';
    put(target, seen + '}');
    ASSERT_EQ(lines.asked.size(), 1);
    lines.answer({{"outcome", "written"}});
    useProject({{"\"SPEED\"", "\"SPEED2\""}});
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"}", "changed"}, {", \"check\": true}", "check-failed"}};
    for (const auto& [end, outcome] : cases) {
        const auto exchange = put(target, seen + end);
        ASSERT_EQ(exchange->answers.size(), 1U);
        EXPECT_EQ(exchange->answers[0].status, 409);
        EXPECT_EQ(bodyOf(exchange->answers[0])["code"], "changed");
        EXPECT_TRUE(lines.asked.isEmpty());
        EXPECT_EQ(lines.journal.last().outcome, QString::fromLatin1(outcome));
    }
    put(target, R"({"value": 42})"); // a program that has seen nothing
    EXPECT_EQ(lines.asked.size(), 1);
}

TEST_F(WebApiTest, NeedsTheElementOfAnArrayAndTakesNoOtherOfASingleValue)
{
    const QString list = QStringLiteral("/api/v1/values/List");
    const QString speed = QStringLiteral("/api/v1/values/Speed");
    set(2, "INT", Json::array({1, 2}));
    for (const char* body : {R"({"value": 1})", R"({"value": 1, "check": true})"}) {
        const auto exchange = put(list, body);
        ASSERT_EQ(exchange->answers.size(), 1U);
        EXPECT_EQ(exchange->answers[0].status, 400);
        EXPECT_EQ(bodyOf(exchange->answers[0])["detail"],
                  "element: is needed, because the variable has 2 elements");
    }
    EXPECT_EQ(lines.journal.size(), 2);
    EXPECT_EQ(put(list, R"({"value": 1, "element": 2})")->answers.at(0).status, 400);
    EXPECT_EQ(put(speed, R"({"value": 1, "element": 1})")->answers.at(0).status, 400);
    EXPECT_TRUE(lines.asked.isEmpty());
    put(list, R"({"value": 1, "element": 0})");
    put(speed, R"({"value": 1, "element": 0})");
    EXPECT_EQ(lines.asked.size(), 2);
}

TEST_F(WebApiTest, RefusesBodiesThatAreNoWrites)
{
    for (const char* body :
         {"", "5", "[]", "{", "{}", R"({"value": 1, "value": 2})", R"({"value": 1, "name": "Big"})",
          R"({"value": 1, "element": -1})", R"({"value": 1, "check": 1})",
          R"({"value": 1, "bytes": "00"})", R"({"value": 1, "revision": 5})"})
        EXPECT_NE(refusal(exchangeOf("PUT", QStringLiteral("/api/v1/values/Speed"), body)),
                  "not refused")
            << body;
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WebApiTest, SaysInItsOwnWordsThatABodyIsNoJson)
{
    const QString path = QStringLiteral("/api/v1/values/Speed");
    for (const char* body : {"x", "{", "{\"value\": 1e999}", "{value: 1}", "\xFF"}) {
        const std::string told = refusal(exchangeOf("PUT", path, body));
        EXPECT_NE(told.find("body: is not JSON"), std::string::npos) << body << ": " << told;
        EXPECT_NE(told.find("{\"value\": 42.25}"), std::string::npos) << body << ": " << told;
    }
    EXPECT_NE(refusal(exchangeOf("PUT", path, " \n")).find("body: is empty"), std::string::npos);
}

TEST_F(WebApiTest, CutsALongValueOfARefusedWriteInTheJournal)
{
    context.settings.takesWrites = false;
    const QByteArray value = '"' + QByteArray(60000, 'x') + '"';
    for (const QByteArray& one : {value, "[" + value + "]"}) {
        put(QStringLiteral("/api/v1/values/Speed"), R"({"value": )" + one + "}");
        EXPECT_LT(lines.journal.last().newValue.dump().size(), 2000U);
        EXPECT_GT(lines.journal.last().newValue.dump().size(), 1000U);
    }
}

// A browser repeats a write whose connection ended. Whatever has changed meanwhile: it must not be
// told that nothing was written.
TEST_F(WebApiTest, SaysThatAWriteWasSentBeforeWhateverElseRefusesItNow)
{
    set(0, "INT", 7);
    caller.isSession = true;
    caller.sessionId = "one";
    const QString speed = QStringLiteral("/api/v1/values/Speed");
    const auto check = put(speed, R"({"value": 42, "check": true})");
    const QByteArray write = R"({"value": 42, "revision": ")" +
                             QByteArray::fromStdString(revisionOf("Speed")) + R"(", "ticket": ")" +
                             QByteArray::fromStdString(bodyOf(check->answers.at(0))["ticket"]) +
                             R"("})";
    put(speed, write);
    ASSERT_EQ(lines.asked.size(), 1);
    lines.answer({{"outcome", "written"}});
    const auto repeated = [&] { return bodyOf(put(speed, write)->answers.at(0))["code"]; };
    EXPECT_EQ(repeated(), "repeated");
    context.settings.takesWrites = false;
    EXPECT_EQ(repeated(), "repeated");
    context.settings.takesWrites = true;
    useProject({{"\"SPEED\"", "\"SPEED2\""}}); // another variable of this name
    EXPECT_EQ(repeated(), "repeated");
    lines.setLines({});
    context.index.rebuild();
    EXPECT_EQ(repeated(), "repeated");
    EXPECT_TRUE(lines.asked.isEmpty());
    EXPECT_EQ(lines.journal.last().name, QStringLiteral("Speed"));
}

TEST_F(WebApiTest, TakesNoEmptyTicketForNone)
{
    set(0, "INT", 7);
    const auto exchange =
        put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42, "ticket": ""})");
    ASSERT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(exchange->answers[0].status, 409);
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WebApiTest, MarksARefusedCheckInTheJournal)
{
    context.settings.takesWrites = false;
    put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42, "check": true})");
    ASSERT_EQ(lines.journal.size(), 1);
    EXPECT_EQ(lines.journal[0].outcome, QStringLiteral("check-failed"));
}

TEST_F(WebApiTest, RefusesToWriteWithoutTheTokenAndNotesTheAttempt)
{
    caller.mayWrite = false;
    const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42})");
    ASSERT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(exchange->answers[0].status, 401);
    EXPECT_TRUE(lines.asked.isEmpty());
    ASSERT_EQ(lines.journal.size(), 1);
    EXPECT_EQ(lines.journal[0].outcome, QStringLiteral("not-allowed"));
    EXPECT_EQ(lines.journal[0].newValue, 42);
}

TEST_F(WebApiTest, WritesOfASessionNeedATicketThatOnlyItCanUseOnce)
{
    set(0, "INT", 7);
    caller.isSession = true;
    caller.sessionId = "one";
    const QString speed = QStringLiteral("/api/v1/values/Speed");
    const auto answerOf = [&](const QByteArray& ticket) {
        return put(speed, ticket.isEmpty() ? QByteArray(R"({"value": 42})")
                                           : R"({"value": 42, "ticket": ")" + ticket + "\"}");
    };
    const auto codeOf = [](const std::shared_ptr<FakeExchange>& exchange) {
        return bodyOf(exchange->answers.at(0)).value("code", "");
    };
    const auto newTicket = [&] {
        const auto check = put(speed, R"({"value": 42, "check": true})");
        return QByteArray::fromStdString(bodyOf(check->answers.at(0))["ticket"]);
    };
    const auto without = answerOf(QByteArray());
    EXPECT_EQ(without->answers.at(0).status, 400);
    const QByteArray ticket = newTicket();
    EXPECT_NE(ticket, newTicket());
    EXPECT_GE(ticket.size(), 22); // 128 random bits
    caller.sessionId = "other";
    EXPECT_EQ(codeOf(answerOf(ticket)), "unknown-outcome");
    caller.sessionId = "one";
    EXPECT_TRUE(lines.asked.isEmpty());
    const auto first = answerOf(ticket);
    EXPECT_TRUE(first->answers.empty());
    EXPECT_EQ(codeOf(answerOf(ticket)), "repeated"); // while the first one waits, too
    EXPECT_EQ(lines.asked.size(), 1);
    const QByteArray old = newTicket();
    clock.advance(std::chrono::seconds(61));
    EXPECT_EQ(codeOf(answerOf(old)), "not-allowed");
    const QByteArray ofSpeed = newTicket();
    const auto another = put(QStringLiteral("/api/v1/values/List"),
                             R"({"value": 1, "element": 1, "ticket": ")" + ofSpeed + "\"}");
    EXPECT_EQ(codeOf(another), "changed");
    EXPECT_EQ(codeOf(answerOf(ofSpeed)), "repeated");
    EXPECT_EQ(lines.asked.size(), 1);
}

TEST_F(WebApiTest, ForgetsTicketsThatAreTooMany)
{
    WriteTickets tickets(clock);
    const WriteTickets::Write write{"one", 1, 0};
    const QByteArray first = tickets.give(write);
    const QByteArray second = tickets.give(write);
    EXPECT_EQ(tickets.use(second, write), WriteTickets::Use::Good);
    for (int i = 2; i < WriteTickets::kMost; ++i)
        tickets.give(write);
    tickets.give(write); // in place of the one that is used up
    EXPECT_EQ(tickets.use(second, write), WriteTickets::Use::Unknown);
    tickets.give(write); // in place of the oldest
    EXPECT_EQ(tickets.use(first, write), WriteTickets::Use::Unknown);
}

TEST_F(WebApiTest, TellsWhatIsKnownOfWritesWhenItEnds)
{
    set(0, "INT", 7);
    const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42})");
    values.giveUp(clock.now() - std::chrono::seconds(1));
    EXPECT_TRUE(exchange->answers.empty()); // it began later
    values.giveUp();
    ASSERT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(exchange->answers[0].status, 504);
    EXPECT_TRUE(lines.asked.first().cancelled);
    lines.answer({{"outcome", "written"}, {"old", 7}, {"value", 42}});
    EXPECT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(lines.journal.last().outcome, QStringLiteral("written"));
}

TEST_F(WebApiTest, RefusesToWriteWhereWritingIsOff)
{
    context.settings.takesWrites = false;
    const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42})");
    ASSERT_EQ(exchange->answers.size(), 1U);
    EXPECT_EQ(exchange->answers[0].status, 403);
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WebApiTest, TakesAWriteBackWhenItsClientIsGone)
{
    const auto exchange = put(QStringLiteral("/api/v1/values/Speed"), R"({"value": 42})");
    exchange->wanted = false;
    QElapsedTimer waited;
    waited.start();
    while (!lines.asked.first().cancelled && waited.elapsed() < 30000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    EXPECT_TRUE(lines.asked.first().cancelled);
}

TEST_F(WebApiTest, GivesATrend)
{
    const auto exchange = exchangeOf(
        "GET", QStringLiteral("/api/v1/history?name=Speed&from=2026-11-22T13:00:00Z&points=2"));
    EXPECT_TRUE(answerTo(exchange).body.isEmpty());
    ASSERT_EQ(history.trends.size(), 1);
    const TrendQuery& query = history.trends[0].first;
    EXPECT_EQ(query.line, QStringLiteral("press"));
    EXPECT_EQ(query.from, 1795352400000);
    EXPECT_EQ(query.to, 1795354200000); // now
    EXPECT_EQ(query.points, 2);
    TrendAnswer answer;
    answer.resolutionMs = 900000;
    answer.unit = QStringLiteral("rpm");
    const double none = std::nan("");
    answer.points = {{1795352400000, 0.1, 43.9, 41.5}, {1795353300000, none, none, none}};
    history.trends[0].second(answer);
    EXPECT_EQ(exchange->answers.at(0).body,
              R"({"line":"press","name":"Speed","element":0,"unit":"rpm","from":1795352400000,)"
              R"("to":1795354200000,"resolutionMs":900000,"points":[[1795352400000,0.1,43.9,41.5],)"
              R"([1795353300000,null,null,null]]})");
}

TEST_F(WebApiTest, GivesATrendAsATable)
{
    const auto exchange =
        exchangeOf("GET", QStringLiteral("/api/v1/history?line=press&name=a\"b/../c&format=csv"));
    answerTo(exchange);
    TrendAnswer answer;
    const double none = std::nan("");
    answer.points = {{1795352400000, 1, 3, 2}, {1795353300000, none, none, none}};
    history.trends.at(0).second(answer);
    const HttpResponse& response = exchange->answers.at(0);
    EXPECT_EQ(response.body, "time,minimum,maximum,last\r\n2026-11-22T13:00:00.000Z,1,3,2\r\n"
                             "2026-11-22T13:15:00.000Z,,,\r\n");
    EXPECT_EQ(response.headers.last().value, "attachment; filename=\"a_b____c.csv\"");
}

TEST_F(WebApiTest, RefusesTrendsThatCannotBe)
{
    for (const char* query :
         {"", "name=", "name=Sped", "name=Speed&points=0", "name=Speed&points=4001",
          "name=Speed&from=yesterday", "name=Speed&element=-1", "name=Speed&format=xml",
          "name=Speed&from=2026-11-22T13:30:00Z&to=2026-11-22T13:30:00Z", "name=Speed&to=1e3"})
        EXPECT_NE(refusal(exchangeOf("GET", QStringLiteral("/api/v1/history?%1").arg(query))),
                  "not refused")
            << query;
    EXPECT_TRUE(history.trends.isEmpty());
}

TEST_F(WebApiTest, AsksTheHistoryOnlySoOftenAtOnce)
{
    for (int i = 0; i < 32; ++i)
        get(QStringLiteral("/api/v1/history?name=Speed"));
    EXPECT_EQ(refusal(exchangeOf("GET", QStringLiteral("/api/v1/history?name=Speed"))),
              "busy: 32 queries of the history wait already");
    history.trends[0].second(TrendAnswer());
    EXPECT_EQ(refusal(exchangeOf("GET", QStringLiteral("/api/v1/history?name=Speed"))),
              "not refused");
}

TEST_F(WebApiTest, EndsQueriesOfTheHistoryWhoseClientIsGone)
{
    const auto gone = exchangeOf("GET", QStringLiteral("/api/v1/history?name=Speed"));
    answerTo(gone);
    get(QStringLiteral("/api/v1/history?name=Speed"));
    ASSERT_EQ(history.trends.size(), 2);
    const Unwanted isUnwanted = history.trends[0].first.isUnwanted;
    const Unwanted isOtherUnwanted = history.trends[1].first.isUnwanted;
    ASSERT_TRUE(isUnwanted && isOtherUnwanted);
    EXPECT_FALSE(*isUnwanted);
    gone->wanted = false;
    QElapsedTimer timer;
    timer.start();
    while (!*isUnwanted && timer.elapsed() < 30000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    EXPECT_TRUE(*isUnwanted);
    EXPECT_FALSE(*isOtherUnwanted);
}

TEST_F(WebApiTest, EndsAllQueriesOfTheHistoryWhenItEnds)
{
    Router others;
    auto api = std::make_unique<HistoryApi>(context);
    api->addRoutes(others);
    others.route(exchangeOf("GET", QStringLiteral("/api/v1/history?name=Speed")), caller);
    api.reset();
    EXPECT_TRUE(*history.trends.at(0).first.isUnwanted);
    history.trends.at(0).second(TrendAnswer()); // to nobody
}

TEST_F(WebApiTest, TakesNoMemoryForAlarmsAndJournalThatNobodyReads)
{
    JournalEntry entry;
    entry.error = QString(1000, 'x');
    for (int i = 0; i < 1000; ++i) {
        entry.time = i;
        records.addWrite(entry);
    }
    const HttpResponse response = get(QStringLiteral("/api/v1/journal"));
    ASSERT_TRUE(response.stream);
    // What comes later neither changes nor ends it.
    records.addWrite(entry);
    const auto body = bodyOf(response);
    ASSERT_EQ(body["writes"].size(), 1000U);
    EXPECT_EQ(body["writes"][0]["error"], std::string(1000, 'x'));
    EXPECT_NE(body["writes"][0]["time"], body["writes"][999]["time"]);
}

TEST_F(WebApiTest, GivesAlarmsAndJournalFromMemoryWithoutAHistory)
{
    LineEvent event;
    event.line = QStringLiteral("press");
    for (int i = 0; i < 1500; ++i) {
        event.time = wallClock.now() - 1500 + i;
        event.state = QString::number(i);
        records.addEvent(event);
    }
    auto body = bodyOf(get(QStringLiteral("/api/v1/alarms")));
    ASSERT_EQ(body["alarms"].size(), 1000U);
    EXPECT_EQ(body["alarms"][0]["state"], "1499");
    body = bodyOf(get(QStringLiteral("/api/v1/alarms?limit=2&to=%1").arg(wallClock.now() - 1)));
    ASSERT_EQ(body["alarms"].size(), 2U);
    EXPECT_EQ(body["alarms"][0]["state"], "1498");
    wallClock.advance(25 * 3600 * 1000);
    EXPECT_TRUE(bodyOf(get(QStringLiteral("/api/v1/alarms")))["alarms"].empty());

    JournalEntry entry;
    entry.time = 5;
    entry.newValue = std::int64_t(9007199254740993);
    records.addWrite(entry);
    body = bodyOf(get(QStringLiteral("/api/v1/journal")));
    ASSERT_EQ(body["writes"].size(), 1U);
    EXPECT_EQ(body["writes"][0]["newText"], "9007199254740993");
}

TEST_F(WebApiTest, KeepsTheTrendsOfTenMinutes)
{
    set(0, "INT", 5);
    trends.addValue(0);
    set(0, "INT", 9);
    trends.addValue(0);
    clock.advance(std::chrono::seconds(10));
    wallClock.advance(10000);
    set(0, "INT", 6);
    trends.addValue(0);
    const auto body = bodyOf(get(QStringLiteral("/api/v1/trends")));
    ASSERT_EQ(body["trends"].size(), 1U);
    const auto points = body["trends"][0]["points"];
    ASSERT_EQ(points.size(), 60U);
    EXPECT_TRUE(points[57].is_null());
    EXPECT_EQ(points[58], nlohmann::json({5, 9}));
    EXPECT_EQ(points[59], nlohmann::json({6, 9})); // 9 went on
    EXPECT_EQ(body["end"], wallClock.now() + 10000);
    clock.advance(std::chrono::seconds(20));
    const auto later = bodyOf(get(QStringLiteral("/api/v1/trends")))["trends"][0]["points"];
    EXPECT_EQ(later[58], nlohmann::json({6, 6}));
    EXPECT_EQ(later[56], nlohmann::json({5, 9}));
    clock.advance(std::chrono::hours(100));
    const auto end = bodyOf(get(QStringLiteral("/api/v1/trends")))["trends"][0]["points"];
    EXPECT_EQ(end[0], nlohmann::json({6, 6}));
}

TEST_F(WebApiTest, FindsRoutesByMethodAndPath)
{
    const HttpResponse missing = get(QStringLiteral("/api/v1/nothing"));
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.type, "application/problem+json");
    const HttpResponse wrong =
        answerTo(exchangeOf("DELETE", QStringLiteral("/api/v1/values/Speed")));
    EXPECT_EQ(wrong.status, 405);
    EXPECT_EQ(wrong.headers.last().value, "GET, HEAD, PUT, OPTIONS");
    const HttpResponse options = answerTo(exchangeOf("OPTIONS", QStringLiteral("/api/v1/values")));
    EXPECT_EQ(options.status, 204);
    EXPECT_EQ(options.headers.last().value, "GET, HEAD, OPTIONS");
    EXPECT_EQ(answerTo(exchangeOf("get", QStringLiteral("/api/v1/values"))).status, 405);
}
