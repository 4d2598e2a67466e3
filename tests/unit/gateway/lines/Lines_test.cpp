#include "Lines.h"

#include "Message.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>

#include <gtest/gtest.h>

#include <sys/socket.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace std::chrono_literals;
using host::Quality;

namespace {

const char kTwo[] = R"({"name": "Speed", "tag": "SPEED"}, {"name": "Level", "tag": "LEVEL"})";

LineSettings lineOf(const char* name, const std::string& variables)
{
    LineSettings settings;
    settings.name = QString::fromLatin1(name);
    settings.projectFile = settings.name + QStringLiteral(".json");
    settings.projectText = QByteArray::fromStdString(
        R"({"port": {"device": "/dev/x"}, "stations": [{"number": 1}], "variables": [)" +
        variables + "]}");
    settings.project =
        host::Project::fromText(QString::fromUtf8(settings.projectText), settings.projectFile);
    return settings;
}

/// The other end of the socket to a worker.
class StandIn
{
public:
    explicit StandIn(int socket) : m_channel(socket, 1 << 20, 1 << 24) {}

    void sendLine(const char* text) { m_channel.send(QByteArray(text) + '\n'); }
    void send(const Json& message) { m_channel.send(host::lineOf(message)); }
    void sendValue(const char* line, const char* name, int value, const char* quality = "good")
    {
        send({{"event", "values"},
              {"values",
               {{{"line", line},
                 {"name", name},
                 {"station", 1},
                 {"tag", "T"},
                 {"element", 0},
                 {"type", "INT"},
                 {"value", value},
                 {"bytes", value % 2 ? "0100" : "0200"},
                 {"quality", quality},
                 {"time", nullptr},
                 {"ageMs", 0}}}}});
    }
    void beat()
    {
        send(
            {{"event", "ages"}, {"first", 0}, {"ages", Json::array()}, {"status", {{"up", true}}}});
    }
    /// The next message of the service, null when there is none.
    Json next()
    {
        m_isOpen = m_channel.receive() && m_isOpen;
        const auto line = m_channel.next();
        return line ? Json::parse(line->text.toStdString()) : Json();
    }
    bool isOpen()
    {
        // What came before the end comes first.
        while (m_isOpen && !next().is_null()) {
        }
        m_isOpen = m_isOpen && m_channel.receive();
        return m_isOpen;
    }

private:
    host::Channel m_channel;
    bool m_isOpen = true;
};

class LinesTest : public ::testing::Test, public LineListener
{
protected:
    LinesTest()
    {
        supervision.start = [this] {
            if (refusesToStart)
                throw UserError("a worker cannot be started: no memory", kExitRefused);
            std::array<int, 2> ends = {};
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
            workers.push_back(std::make_unique<StandIn>(ends[1]));
            return WorkerProcess{-1, ends[0]};
        };
        lines = std::make_unique<Lines>(clock, wall, supervision);
        lines->addListener(*this);
    }
    ~LinesTest() override { lines->removeListener(*this); }

    void handleValue(int line, int variable) override
    {
        told.push_back(lines->latest(line, variable).name.toStdString() + "=" +
                       lines->latest(line, variable).value.dump());
    }
    void handleEvent(const LineEvent& event) override { events.push_back(event); }
    void handleNotice(const LineEvent& event) override
    {
        notices.append(event.line + QStringLiteral(": ") + event.text);
    }
    void handleReload() override { ++reloads; }

    static void settle()
    {
        for (int i = 0; i < 3; ++i)
            QCoreApplication::processEvents();
    }
    void pass(Duration time)
    {
        clock.advance(time);
        lines->tick();
        settle();
    }
    void start()
    {
        lines->setLines({lineOf("press", kTwo), lineOf("oven", kTwo)});
        settle();
        ASSERT_EQ(workers.size(), 2U);
        reloads = 0;
    }
    StandIn& worker(std::size_t index) { return *workers.at(index); }
    void ask(int line, const char* request)
    {
        lines->ask(line, {{"request", request}}, [this](const Json& got) {
            ++answered;
            answer = got;
        });
        settle();
    }

    int argc = 1;
    std::array<char*, 2> argv = {const_cast<char*>("test"), nullptr};
    QCoreApplication application{argc, argv.data()};
    VirtualClock clock;
    SettableWallClock wall{1000000};
    SupervisionSettings supervision;
    bool refusesToStart = false;
    std::vector<std::unique_ptr<StandIn>> workers;
    std::vector<std::string> told;
    std::vector<LineEvent> events;
    QStringList notices;
    int reloads = 0;
    int answered = 0;
    Json answer;
    std::unique_ptr<Lines> lines;
};

} // namespace

TEST_F(LinesTest, GivesEachWorkerItsProject)
{
    start();
    const Json open = worker(1).next();
    EXPECT_EQ(open["request"], "open");
    EXPECT_EQ(open["line"], "oven");
    EXPECT_EQ(open["project"], lineOf("oven", kTwo).projectText.toStdString());
}

TEST_F(LinesTest, TellsListenersOfValues)
{
    start();
    worker(1).sendValue("oven", "Level", 7);
    settle();
    EXPECT_EQ(told, std::vector<std::string>{"Level=7"});
    EXPECT_EQ(lines->latest(1, 1).value, 7);
    EXPECT_EQ(*lines->latest(1, 1).time, 1000000);
    clock.advance(30ms);
    EXPECT_EQ(lines->ageMs(1, 1), 30);
}

TEST_F(LinesTest, TellsListenersOnlyOfChangesBeyondTheDeadBandAndOfHeartbeats)
{
    lines->setLines({lineOf("press", R"({"name": "Speed", "tag": "SPEED", "deadband": 5,
                                         "heartbeatMs": 2000})")});
    settle();
    const auto send = [this](int value) {
        Json object = {{"line", "press"}, {"name", "Speed"}, {"station", 1},   {"tag", "SPEED"},
                       {"element", 0},    {"type", "INT"},   {"value", value}, {"quality", "good"},
                       {"time", nullptr}, {"ageMs", 0}};
        object["bytes"] =
            QByteArray(1, static_cast<char>(value)).append('\0').toHex().toStdString();
        worker(0).send({{"event", "values"}, {"values", {object}}});
        settle();
    };
    for (const int value : {10, 14, 15, 16, 17, 10})
        send(value);
    EXPECT_EQ(told, (std::vector<std::string>{"Speed=10", "Speed=16", "Speed=10"}));
    EXPECT_EQ(lines->latest(0, 0).value, 10);
    send(13);
    told.clear();
    pass(1s);
    EXPECT_TRUE(told.empty());
    pass(1s);
    EXPECT_EQ(told, std::vector<std::string>{"Speed=13"});
}

TEST_F(LinesTest, MakesValuesStaleWithTheReasonWhenAWorkerEndsAndStartsAnother)
{
    start();
    worker(0).sendValue("press", "Speed", 7);
    worker(1).sendValue("oven", "Speed", 8);
    settle();
    workers[0].reset();
    settle();
    EXPECT_EQ(lines->latest(0, 0).quality, Quality::Stale);
    EXPECT_EQ(lines->latest(0, 0).error,
              QStringLiteral("the worker of this line ended; it is started again in 1 s"));
    EXPECT_EQ(lines->latest(1, 0).quality, Quality::Good);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].line, QStringLiteral("press"));
    EXPECT_EQ(events[0].state, QStringLiteral("worker ended"));
    pass(999ms);
    EXPECT_EQ(workers.size(), 2U);
    pass(1ms);
    ASSERT_EQ(workers.size(), 3U);
    worker(2).sendValue("press", "Speed", 7);
    settle();
    EXPECT_EQ(lines->latest(0, 0).quality, Quality::Good);
}

TEST_F(LinesTest, PausesLongerBeforeEachFurtherStart)
{
    start();
    int pauses = 0;
    for (const auto pause : {1s, 2s, 4s, 8s, 16s, 30s, 30s}) {
        worker(1).beat(); // or it would be ended, too
        settle();
        workers.at(pauses == 0 ? 0 : workers.size() - 1).reset();
        settle();
        const std::size_t before = workers.size();
        for (Duration passed(0); passed < pause - 1ms; passed += 500ms) {
            worker(1).beat();
            settle();
            pass(std::min<Duration>(500ms, pause - 1ms - passed));
        }
        EXPECT_EQ(workers.size(), before) << pause.count();
        pass(1ms);
        EXPECT_EQ(workers.size(), before + 1) << pause.count();
        ++pauses;
    }
}

TEST_F(LinesTest, BeginsWithTheShortestPauseAfterAWorkerThatWorked)
{
    start();
    workers[0].reset();
    settle();
    pass(1s);
    ASSERT_EQ(workers.size(), 3U);
    for (int second = 0; second < 61; ++second) {
        worker(1).beat();
        worker(2).beat();
        settle();
        pass(1s);
    }
    workers[2].reset();
    settle();
    worker(1).beat();
    settle();
    pass(1s);
    EXPECT_EQ(workers.size(), 4U);
}

TEST_F(LinesTest, TellsOnceThatAWorkerEndsAgainAndAgain)
{
    start();
    for (int i = 0; i < 20; ++i) {
        workers.at(i == 0 ? 0 : workers.size() - 1).reset();
        settle();
        worker(1).beat();
        settle();
        for (int second = 0; second < 6; ++second) {
            pass(5s);
            worker(1).beat();
            settle();
        }
        worker(workers.size() - 1)
            .send({{"event", "state"}, {"line", "press"}, {"state", "up"}, {"text", "line up"}});
        settle();
    }
    const auto ended = std::count_if(events.begin(), events.end(), [](const LineEvent& event) {
        return event.state == QLatin1String("worker ended");
    });
    EXPECT_LE(ended, 2);
    EXPECT_LE(events.size(), 4U);
}

TEST_F(LinesTest, EndsAWorkerThatSendsNothing)
{
    start();
    worker(0).sendValue("press", "Speed", 7);
    settle();
    for (int i = 0; i < 10; ++i) {
        worker(1).beat();
        settle();
        pass(1s);
    }
    EXPECT_EQ(lines->latest(0, 0).error,
              QStringLiteral("the worker of this line ended (it did not answer for 10 s); it is "
                             "started again in 1 s"));
    EXPECT_FALSE(worker(0).isOpen());
    EXPECT_TRUE(worker(1).isOpen());
    worker(1).beat();
    settle();
    pass(1s);
    EXPECT_EQ(workers.size(), 3U);
}

TEST_F(LinesTest, EndsNoWorkerWhenTheServiceItselfStoodStill)
{
    start();
    worker(0).beat();
    worker(1).beat();
    clock.advance(60s);
    lines->tick();
    EXPECT_TRUE(worker(0).isOpen());
    EXPECT_TRUE(worker(1).isOpen());
}

TEST_F(LinesTest, LetsAWorkerOpenASlowLine)
{
    start();
    worker(0).send({{"event", "opening"}, {"patienceMs", 60000}});
    settle();
    for (int i = 0; i < 59; ++i) {
        worker(1).beat();
        settle();
        pass(1s);
    }
    EXPECT_TRUE(worker(0).isOpen());
    worker(1).beat();
    settle();
    pass(1s);
    EXPECT_FALSE(worker(0).isOpen());
}

TEST_F(LinesTest, TellsOnceWhatALineCannotHoldAndThatItHoldsItAgain)
{
    start();
    const QString much = QStringLiteral("the line is 140 % asked for");
    const QString more = QStringLiteral("the line is 300 % asked for");
    const auto beat = [this](std::size_t index, const QString& overload) {
        Json status = {{"up", true}};
        if (!overload.isEmpty())
            status["overload"] = overload.toStdString();
        worker(index).send(
            {{"event", "ages"}, {"first", 0}, {"ages", Json::array()}, {"status", status}});
        settle();
    };
    for (const QString& overload : {QString(), much, much, more, more, QString(), QString()})
        beat(0, overload);
    const QString again = QStringLiteral("press: the line holds every interval again");
    EXPECT_EQ(notices, (QStringList{"press: " + much, "press: " + more, again}));
    EXPECT_TRUE(events.empty()) << "the state of the line is the same";
    // A worker that was started again has yet to measure.
    notices.clear();
    beat(0, much);
    workers[0].reset();
    settle();
    EXPECT_FALSE(lines->status(0).contains("overload"));
    pass(1s);
    ASSERT_EQ(workers.size(), 3U);
    for (const QString& overload : {QString(), much, QString()})
        beat(2, overload);
    EXPECT_EQ(notices, (QStringList{"press: " + much, again}));
}

TEST_F(LinesTest, KeepsQualitiesIntervalsAndPausesWhenTheWallClockSteps)
{
    lines->setLines({lineOf("press", R"({"name": "Speed", "tag": "T", "heartbeatMs": 2000})")});
    settle();
    worker(0).sendValue("press", "Speed", 7);
    settle();
    told.clear();
    const qint64 tenYears = qint64(10) * 365 * 86400000;
    for (const qint64 wallTime : {qint64(0), tenYears, qint64(1000)}) {
        wall.set(wallTime);
        pass(1ms);
        EXPECT_EQ(lines->latest(0, 0).quality, Quality::Good) << wallTime;
        EXPECT_TRUE(told.empty()) << wallTime;
        EXPECT_TRUE(worker(0).isOpen()) << wallTime;
    }
    EXPECT_EQ(lines->ageMs(0, 0), 3);
    pass(1896ms);
    EXPECT_TRUE(told.empty());
    pass(1ms); // the next look would be too late for the heartbeat
    EXPECT_EQ(told, std::vector<std::string>{"Speed=7"});
    workers[0].reset();
    settle();
    wall.advance(tenYears);
    pass(999ms);
    EXPECT_EQ(workers.size(), 1U);
    pass(1ms);
    ASSERT_EQ(workers.size(), 2U);
    worker(1).sendValue("press", "Speed", 8);
    settle();
    EXPECT_EQ(*lines->latest(0, 0).time, 1000 + tenYears); // only the stamp moves
}

TEST_F(LinesTest, EndsASilentWorkerAfterTheSameTimeWhenTheWallClockIsSetBack)
{
    start();
    for (int i = 0; i < 99; ++i) {
        worker(1).beat();
        settle();
        wall.advance(-3600000);
        pass(100ms);
    }
    EXPECT_TRUE(worker(0).isOpen());
    pass(100ms);
    EXPECT_FALSE(worker(0).isOpen());
    EXPECT_TRUE(worker(1).isOpen());
}

TEST_F(LinesTest, MarksValuesOfASilentWorkerStaleBeforeItIsEnded)
{
    start();
    worker(0).sendValue("press", "Speed", 7);
    settle();
    for (int i = 0; i < 6; ++i)
        pass(1s);
    EXPECT_TRUE(worker(0).isOpen());
    EXPECT_EQ(lines->latest(0, 0).quality, Quality::Stale);
    EXPECT_EQ(lines->latest(0, 0).error, QStringLiteral("the worker of this line is silent"));
}

TEST_F(LinesTest, EndsAWorkerThatSendsNonsense)
{
    for (const char* nonsense :
         {R"({"event": "values", "values": 5})", R"({"event": "party"})",
          R"({"event": "ages", "first": 0, "ages": [1, 2, 3]})", R"({"id": 99, "reply": "read"})",
          R"([])", "{", "\xFF", R"({"event": "state", "state": 5, "text": ""})"})
    {
        workers.clear();
        lines->setLines({});
        start();
        worker(0).sendLine(nonsense);
        settle();
        EXPECT_FALSE(worker(0).isOpen()) << nonsense;
        EXPECT_TRUE(worker(1).isOpen());
    }
}

TEST_F(LinesTest, SaysWhyAWorkerCannotBeStarted)
{
    refusesToStart = true;
    lines->setLines({lineOf("press", kTwo)});
    settle();
    EXPECT_EQ(lines->latest(0, 0).error,
              QStringLiteral("the worker of this line ended (a worker cannot be started: no "
                             "memory); it is started again in 1 s"));
    refusesToStart = false;
    pass(1s);
    EXPECT_EQ(workers.size(), 1U);
}

TEST_F(LinesTest, SaysWhyAWorkerCouldNotGoOn)
{
    start();
    worker(0).send({{"event", "failed"}, {"text", "libmicro850.so: not found"}});
    workers[0].reset();
    settle();
    EXPECT_TRUE(lines->latest(0, 0).error.contains(QStringLiteral("libmicro850.so: not found")));
}

TEST_F(LinesTest, AnswersARequestLater)
{
    start();
    worker(0).next(); // the opening
    bool isLater = false;
    lines->ask(0, {{"request", "type"}, {"tag", "A"}}, [&](const Json& reply) {
        EXPECT_TRUE(isLater);
        answer = reply;
    });
    isLater = true;
    settle();
    const Json request = worker(0).next();
    EXPECT_EQ(request["tag"], "A");
    worker(0).send({{"id", request["id"]}, {"reply", "type"}, {"type", "INT"}});
    settle();
    EXPECT_EQ(answer["type"], "INT");
}

TEST_F(LinesTest, AnswersThatAWriteMayBeDoneWhenItsWorkerEnds)
{
    start();
    worker(0).next();
    ask(0, "write");
    EXPECT_EQ(worker(0).next()["request"], "write");
    workers[0].reset();
    settle();
    EXPECT_EQ(answered, 1);
    EXPECT_EQ(answer["error"]["code"], "unknown-outcome");
    ask(0, "write");
    EXPECT_EQ(answered, 2);
    EXPECT_EQ(answer["error"]["code"], "unreachable");
}

TEST_F(LinesTest, TakesBackARequestThatWaits)
{
    start();
    worker(0).next();
    ask(0, "read");
    const qint64 second =
        lines->ask(0, {{"request", "write"}}, [this](const Json& reply) { answer = reply; });
    settle();
    EXPECT_EQ(worker(0).next()["request"], "read");
    lines->cancel(second);
    EXPECT_EQ(answer["error"]["code"], "cancelled");
    EXPECT_TRUE(worker(0).next().is_null());
}

TEST_F(LinesTest, ShowsFreshlyReadValuesWithItsOwnStamps)
{
    start();
    worker(0).next();
    ask(0, "read");
    const Json request = worker(0).next();
    Json value = {{"line", "press"},   {"name", "Speed"}, {"station", 1}, {"tag", "T"},
                  {"element", 0},      {"type", "INT"},   {"value", 5},   {"bytes", "0500"},
                  {"quality", "good"}, {"time", nullptr}, {"ageMs", 4}};
    worker(0).send({{"id", request["id"]}, {"reply", "read"}, {"values", {value}}});
    settle();
    EXPECT_EQ(answer["values"][0]["value"], 5);
    EXPECT_EQ(answer["values"][0]["time"], "1970-01-01T00:16:39.996Z");
    EXPECT_EQ(lines->latest(0, 0).value, 5);
    EXPECT_EQ(told, std::vector<std::string>{"Speed=5"});
}

TEST_F(LinesTest, LeavesUnchangedLinesAloneWhenTheConfigurationChanges)
{
    start();
    worker(0).sendValue("press", "Speed", 7);
    worker(1).sendValue("oven", "Speed", 8);
    settle();
    lines->setLines({lineOf("oven", kTwo), lineOf("new", kTwo)});
    settle();
    EXPECT_EQ(reloads, 1);
    ASSERT_EQ(lines->size(), 2);
    EXPECT_EQ(lines->line(0).name, QStringLiteral("oven"));
    EXPECT_EQ(lines->latest(0, 0).value, 8);
    EXPECT_EQ(lines->latest(0, 0).quality, Quality::Good);
    EXPECT_FALSE(worker(0).isOpen());
    EXPECT_TRUE(worker(1).isOpen());
    ASSERT_EQ(workers.size(), 3U);
    EXPECT_EQ(worker(2).next()["line"], "new");
    told.clear();
    worker(1).sendValue("oven", "Speed", 9);
    settle();
    EXPECT_EQ(told, std::vector<std::string>{"Speed=9"});
}

TEST_F(LinesTest, TellsNothingWhenTheConfigurationIsTheSame)
{
    start();
    lines->setLines({lineOf("press", kTwo), lineOf("oven", kTwo)});
    settle();
    EXPECT_EQ(reloads, 0);
    EXPECT_EQ(workers.size(), 2U);
}

TEST_F(LinesTest, KeepsValuesOfUnchangedVariablesOfAChangedLine)
{
    start();
    worker(0).sendValue("press", "Speed", 7);
    worker(0).sendValue("press", "Level", 3);
    settle();
    const char* const changed =
        R"({"name": "Level", "tag": "OTHER"}, {"name": "Speed", "tag": "SPEED"})";
    lines->setLines({lineOf("press", changed), lineOf("oven", kTwo)});
    settle();
    EXPECT_EQ(lines->latest(0, 1).value, 7);
    EXPECT_EQ(lines->latest(0, 1).quality, Quality::Good);
    EXPECT_EQ(lines->latest(0, 0).quality, Quality::Never);
    EXPECT_EQ(workers.size(), 3U);
}

TEST_F(LinesTest, GoesOnWithHeartbeatsAndDeadBandsOfValuesThatAreKept)
{
    const std::string beating = R"({"name": "Speed", "tag": "T", "deadband": 5,
                                    "heartbeatMs": 2000})";
    lines->setLines({lineOf("press", beating)});
    settle();
    worker(0).sendValue("press", "Speed", 1);
    settle();
    lines->setLines({lineOf("press", beating + R"(, {"name": "Level", "tag": "L"})")});
    settle();
    ASSERT_EQ(workers.size(), 2U);
    told.clear();
    worker(1).sendValue("press", "Speed", 1);
    settle();
    worker(1).sendValue("press", "Speed", 2);
    settle();
    EXPECT_TRUE(told.empty());
    pass(2s);
    EXPECT_EQ(told, std::vector<std::string>{"Speed=2"});
}

TEST_F(LinesTest, AnswersTheRequestsOfALineThatIsRemoved)
{
    start();
    worker(0).next();
    ask(0, "write");
    lines->setLines({lineOf("oven", kTwo)});
    settle();
    EXPECT_EQ(answered, 1);
    EXPECT_EQ(answer["error"]["code"], "unknown-outcome");
}

TEST_F(LinesTest, AnswersAllRequestsWhenTheServiceEnds)
{
    start();
    ask(0, "read");
    ask(1, "read");
    lines->stop();
    EXPECT_EQ(answered, 2);
    EXPECT_TRUE(lines->haveEnded());
    pass(60s);
    EXPECT_EQ(workers.size(), 2U);
}

TEST_F(LinesTest, TellsEachStateOnce)
{
    start();
    const Json state = {{"event", "state"},
                        {"line", "press"},
                        {"station", 1},
                        {"state", "dead"},
                        {"text", "dead, no answer"}};
    for (int i = 0; i < 5; ++i)
        worker(0).send(state);
    settle();
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].station, 1);
    EXPECT_EQ(events[0].text, QStringLiteral("dead, no answer"));
    EXPECT_EQ(events[0].time, 1000000);
}

TEST_F(LinesTest, ShowsTheReasonInTheStatusOfALineWhoseWorkerEnded)
{
    start();
    worker(0).send(
        {{"event", "ages"},
         {"first", 0},
         {"ages", {nullptr, nullptr}},
         {"status",
          {{"up", true},
           {"stations", {{{"station", 1}, {"state", "connected"}, {"connected", true}}}}}}});
    settle();
    EXPECT_EQ(lines->status(0)["up"], true);
    workers[0].reset();
    settle();
    const Json status = lines->status(0);
    EXPECT_EQ(status["up"], false);
    EXPECT_EQ(status["error"], "the worker of this line ended; it is started again in 1 s");
    EXPECT_EQ(status["stations"][0]["state"], "line down");
    EXPECT_EQ(status["stations"][0]["connected"], false);
}
