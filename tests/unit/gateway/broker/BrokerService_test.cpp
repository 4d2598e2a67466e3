#include "BrokerService.h"

#include "Channel.h"
#include "Message.h"
#include "fake_lines.h"

#include <gtest/gtest.h>

#include <QtCore/QCoreApplication>

#include <array>
#include <sys/socket.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::test;
using namespace std::chrono_literals;

namespace {

const char kTwo[] = R"({"variables": [{"name": "Speed", "tag": "SPEED", "unit": "1/min"},
                                      {"name": "Level", "tag": "LEVEL", "type": "INT", "gain": 0.5,
                                       "writable": true, "minimum": 0, "maximum": 9}]})";
const char kMoved[] = R"({"stations": [{"number": 1}, {"number": 2}],
                         "variables": [{"name": "Level", "tag": "LEVEL", "type": "INT",
                                        "station": 2, "writable": true}]})";
const char kOne[] = R"({"variables": [{"name": "Level", "tag": "LEVEL"}]})";

const int kLong = 100000;

/// The other end of the socket of a process, scripted by the test.
class StandIn
{
public:
    explicit StandIn(int socket) : m_channel(socket, 1 << 28, 1 << 28) {}

    void send(const Json& message) { m_channel.send(host::lineOf(message)); }
    void kept(qint64 number) { send({{"event", "kept"}, {"number", number}}); }
    /// All that came, oldest first.
    std::vector<Json> take()
    {
        std::vector<Json> messages;
        for (;;) {
            m_isOpen = m_channel.receive() && m_isOpen;
            const std::size_t before = messages.size();
            while (const auto line = m_channel.next())
                messages.push_back(Json::parse(line->text.toStdString()));
            if (messages.size() == before)
                return messages;
        }
    }
    /// Tells what its queue has, after it was opened.
    void open(const Json& run = "another run", qint64 number = 0)
    {
        send({{"event", "opened"}, {"run", run}, {"number", number}});
    }

private:
    host::Channel m_channel;
    bool m_isOpen = true;
};

/// What values and events a process got, as NUMBER:WHAT.
std::vector<std::string> fedIn(const std::vector<Json>& messages)
{
    std::vector<std::string> fed;
    for (const Json& message : messages) {
        const std::string event = message.value("event", "");
        if (event == "state" || event == "notice")
            fed.push_back(std::to_string(message["number"].get<int>()) + ':' +
                          message["state"].get<std::string>());
        if (event != "values")
            continue;
        EXPECT_EQ(message["times"].size(), message["values"].size());
        auto number = message["first"].get<int>();
        for (const Json& value : message["values"])
            fed.push_back(std::to_string(number++) + ':' + value["name"].get<std::string>() + '=' +
                          value["value"].dump());
    }
    return fed;
}

/// The first message with this event, null without any.
Json eventIn(const std::vector<Json>& messages, const char* event)
{
    for (const Json& message : messages) {
        if (message.value("event", "") == event)
            return message;
    }
    return Json();
}

// A line with a variable whose values are long. That its unit is makes the test quick.
LineSettings longLine()
{
    return lineOfProject("oven", R"({"variables": [{"name": "Speed", "tag": "SPEED", "unit": ")" +
                                     QByteArray(kLong, 'x') + "\"}]}");
}

class BrokerServiceTest : public ::testing::Test
{
protected:
    BrokerServiceTest()
    {
        supervision.start = [this] {
            std::array<int, 2> ends = {};
            EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
            processes.push_back(std::make_unique<StandIn>(ends[1]));
            return WorkerProcess{-1, ends[0]};
        };
        settings.mqtt.emplace();
        settings.mqtt->broker.clientId = QStringLiteral("panel7");
        settings.mqtt->takesOrders = true;
        settings.mqtt->queue.file = QStringLiteral("/q");
    }
    void start()
    {
        service = std::make_unique<BrokerService>(
            lines, rules, settings, clock, wall, supervision,
            [this](const LineEvent& event) { alarms.append(event.state + ": " + event.text); });
        pass(100ms);
    }
    static void settle()
    {
        for (int i = 0; i < 4; ++i)
            QCoreApplication::processEvents();
    }
    void pass(Duration time)
    {
        clock.advance(time);
        service->tick();
        settle();
    }
    StandIn& process(std::size_t index = 0) { return *processes.at(index); }
    /// The process says what its queue has, and gets what is held.
    std::vector<Json> opened(std::size_t index = 0, const Json& run = "another run",
                             qint64 number = 0)
    {
        process(index).take();
        process(index).open(run, number);
        settle();
        return process(index).take();
    }
    std::vector<Json> got(std::size_t index = 0)
    {
        settle();
        return process(index).take();
    }
    void setSpeed(int value) { lines.setValue(0, 0, "INT", value); }
    static LineEvent stateOf(const QString& line, int station, const QString& state)
    {
        LineEvent event;
        event.time = 5;
        event.line = line;
        event.station = station;
        event.state = state;
        return event;
    }
    /// The process dies and the next one is started.
    void restart()
    {
        processes.back().reset();
        settle();
        pass(60s);
        ASSERT_TRUE(processes.back());
    }
    Json status() { return service->status()["mqtt"]; }

    int argc = 1;
    std::array<char*, 2> argv = {const_cast<char*>("test"), nullptr};
    QCoreApplication application{argc, argv.data()};
    VirtualClock clock;
    SettableWallClock wall{1000000};
    FakeLines lines{{lineOfProject("press", kTwo)}};
    WriteRules rules{lines, clock, wall};
    BrokerSettings settings;
    SupervisionSettings supervision;
    std::vector<std::unique_ptr<StandIn>> processes;
    QStringList alarms;
    std::unique_ptr<BrokerService> service;
};

} // namespace

TEST_F(BrokerServiceTest, OpensAProcessWithItsSettingsAndTheCatalogue)
{
    start();
    const std::vector<Json> messages = process().take();
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(messages[0]["request"], "open");
    EXPECT_EQ(messages[0]["kind"], "mqtt");
    EXPECT_EQ(messages[0]["settings"]["queue"]["file"], "/q");
    EXPECT_FALSE(messages[0]["run"].get<std::string>().empty());
    const Json catalogue = eventIn(opened(), "catalogue");
    EXPECT_EQ(catalogue["lines"], Json({"press"}));
    ASSERT_EQ(catalogue["variables"].size(), 2U);
    EXPECT_EQ(catalogue["variables"][0], Json({{"line", "press"},
                                               {"name", "Speed"},
                                               {"station", 1},
                                               {"tag", "SPEED"},
                                               {"element", 0},
                                               {"length", 1},
                                               {"unit", "1/min"}}));
    EXPECT_EQ(catalogue["variables"][1]["type"], "INT");
    EXPECT_EQ(catalogue["variables"][1]["scaled"], true);
    EXPECT_EQ(catalogue["variables"][1]["gain"], 0.5);
    EXPECT_EQ(catalogue["variables"][1]["maximum"], 9);
}

TEST_F(BrokerServiceTest, NumbersValuesStatesAndNoticesTogetherInTheirOrder)
{
    start();
    opened();
    setSpeed(1);
    lines.tell(stateOf("press", -1, "up"));
    setSpeed(2);
    service->handleNotice(stateOf("press", -1, "overload"));
    setSpeed(3);
    setSpeed(4);
    EXPECT_EQ(fedIn(got()), (std::vector<std::string>{"1:Speed=1", "2:up", "3:Speed=2",
                                                      "4:overload", "5:Speed=3", "6:Speed=4"}));
}

TEST_F(BrokerServiceTest, SendsAgainWhatAProcessHadNotKeptWhenItDied)
{
    start();
    const std::string run = process().take().at(0)["run"];
    opened();
    for (int i = 1; i <= 5; ++i)
        setSpeed(i);
    got();
    process().kept(2);
    settle();
    EXPECT_EQ(status()["held"], 3);
    restart();
    setSpeed(6);
    // What was committed, but not told, is not sent again.
    EXPECT_EQ(fedIn(opened(1, run, 4)), (std::vector<std::string>{"5:Speed=5", "6:Speed=6"}));
    process(1).kept(6);
    settle();
    EXPECT_EQ(status()["held"], 0);
    EXPECT_EQ(status()["leftOut"], 0);
}

TEST_F(BrokerServiceTest, SendsAllThatItHoldsToAQueueOfAnotherRun)
{
    start();
    opened();
    setSpeed(1);
    setSpeed(2);
    got();
    process().kept(1);
    restart();
    EXPECT_EQ(fedIn(opened(1, "another run", 4711)), std::vector<std::string>{"2:Speed=2"});
}

TEST_F(BrokerServiceTest, TellsANewProcessWhatHoldsWithoutDeliveringItAgain)
{
    start();
    opened();
    lines.tell(stateOf("press", -1, "up"));
    lines.tell(stateOf("press", 1, "connected"));
    setSpeed(1);
    lines.setValue(0, 1, "INT", 7);
    got();
    process().kept(3);
    restart();
    const std::vector<Json> messages = opened(1);
    EXPECT_EQ(fedIn(messages), std::vector<std::string>{"4:Level=7"});
    std::vector<std::string> current;
    for (const Json& message : messages) {
        if (message.value("event", "") != "current")
            continue;
        EXPECT_FALSE(message.contains("number"));
        if (message.contains("state"))
            current.push_back(message["state"]);
        for (const Json& value : message.value("values", Json::array()))
            current.push_back(value["name"]);
    }
    EXPECT_EQ(current, (std::vector<std::string>{"up", "connected", "Speed"}));
}

TEST_F(BrokerServiceTest, TellsThatTheStationsOfALineThatIsNotUpAreDownWithItOnce)
{
    start();
    opened();
    lines.tell(stateOf("press", -1, "up"));
    lines.tell(stateOf("press", 1, "connected"));
    lines.tell(stateOf("press", 7, "disabled"));
    LineEvent down = stateOf("press", -1, "down");
    down.text = QStringLiteral("the device is gone");
    lines.tell(down);
    lines.tell(stateOf("press", -1, "worker ended"));
    const std::vector<Json> messages = got();
    EXPECT_EQ(fedIn(messages),
              (std::vector<std::string>{"1:up", "2:connected", "3:disabled", "4:down",
                                        "5:line down", "6:worker ended"}));
    const auto station = std::find_if(messages.begin(), messages.end(), [](const Json& message) {
        return message.value("number", 0) == 5;
    });
    ASSERT_NE(station, messages.end());
    EXPECT_EQ((*station)["station"], 1);
    EXPECT_EQ((*station)["text"], "the device is gone");
    lines.tell(stateOf("press", -1, "up"));
    lines.tell(stateOf("press", 1, "connected"));
    EXPECT_EQ(fedIn(got()), (std::vector<std::string>{"7:up", "8:connected"}));
}

TEST_F(BrokerServiceTest, TellsOfStationsOfALineThatWasNeverUpThatTheyAreDown)
{
    start();
    opened();
    lines.tell(stateOf("press", -1, "down"));
    EXPECT_EQ(fedIn(got()), (std::vector<std::string>{"1:down", "2:line down"}));
    lines.tell(stateOf("elsewhere", -1, "down"));
    lines.tell(stateOf("", -1, "history stopped"));
    EXPECT_EQ(fedIn(got()), (std::vector<std::string>{"3:down", "4:history stopped"}));
}

TEST_F(BrokerServiceTest, HoldsABoundedNumberOfValuesForAProcessThatIsDownAndTellsOnce)
{
    start();
    lines.setLines({longLine()});
    const int kCount = 200; // 20 MB
    for (int i = 0; i < kCount; ++i)
        setSpeed(i);
    const auto held = status()["held"].get<int>();
    EXPECT_GT(held, 160);
    EXPECT_LT(held, 168); // 16 MiB
    EXPECT_EQ(status()["leftOut"], kCount - held);
    EXPECT_EQ(alarms.filter(QStringLiteral("left out")).size(), 1);
    // The newest are those that are held.
    qint64 next = kCount - held + 1;
    std::vector<Json> messages = opened();
    while (next <= kCount) {
        for (const Json& message : messages) {
            if (message.value("event", "") != "values")
                continue;
            ASSERT_EQ(message["first"], next);
            next += static_cast<qint64>(message["values"].size());
        }
        process().kept(next - 1);
        pass(100ms);
        messages = got();
    }
    EXPECT_EQ(status()["held"], 0);
    EXPECT_EQ(alarms.filter(QStringLiteral("left out")).size(), 2);
}

TEST_F(BrokerServiceTest, CountsWhatAHangingProcessTookAndNeverKept)
{
    start();
    const std::string run = process().take().at(0)["run"];
    opened();
    lines.setLines({longLine()});
    setSpeed(0);
    got(); // it has the first value, and keeps nothing
    for (int i = 1; i <= 200; ++i)
        setSpeed(i);
    const qint64 held = status()["held"];
    restart();
    opened(1, run, 0);
    EXPECT_EQ(status()["leftOut"], 201 - held);
}

TEST_F(BrokerServiceTest, DoesNotFillTheSocketOfAProcessThatDoesNotRead)
{
    start();
    lines.setLines({longLine()});
    opened();
    for (int i = 0; i < 50; ++i) {
        setSpeed(i);
        settle();
    }
    qint64 bytes = 0;
    for (const Json& message : process().take())
        bytes += static_cast<qint64>(message.dump().size());
    EXPECT_LT(bytes, 2 * 1024 * 1024); // what the system and the service buffer
    EXPECT_EQ(status()["held"], 50);
}

TEST_F(BrokerServiceTest, EndsAndStartsAProcessThatSaysNothing)
{
    start();
    opened();
    setSpeed(1);
    pass(10s);
    EXPECT_EQ(alarms.size(), 1);
    EXPECT_TRUE(alarms.value(0).startsWith("delivery ended: mqtt: its process ended (it did not "
                                           "answer for 10 s); it is started again in 1 s"))
        << alarms.value(0).toStdString();
    for (int i = 0; i < 20; ++i)
        pass(100ms);
    ASSERT_EQ(processes.size(), 2U);
    EXPECT_EQ(fedIn(opened(1)), std::vector<std::string>{"1:Speed=1"});
}

TEST_F(BrokerServiceTest, TellsTheSameReasonOfAProcessThatEndsAgainAndAgainOnce)
{
    start();
    for (std::size_t i = 0; i < 4; ++i) {
        process(i).send({{"event", "failed"}, {"text", "/q: another process uses it"}});
        restart();
    }
    EXPECT_EQ(alarms.filter(QStringLiteral("another process uses it")).size(), 1);
    process(4).send({{"event", "failed"}, {"text", "/q: read-only"}});
    restart();
    EXPECT_EQ(alarms.filter(QStringLiteral("read-only")).size(), 1);
}

TEST_F(BrokerServiceTest, EndsAProcessThatSaysWhatNoneSays)
{
    const std::vector<Json> wrong = {{{"event", "kept"}, {"number", 1}},
                                     {{"event", "kept"}, {"number", -1}},
                                     {{"event", "kept"}},
                                     {{"event", "unheard-of"}},
                                     {{"event", "status"}, {"status", 3}},
                                     {{"request", "reload"}, {"id", 1}},
                                     {{"request", "write"}, {"id", 1}},
                                     {{"event", 5}},
                                     Json::object()};
    start();
    for (std::size_t i = 0; i < wrong.size(); ++i) {
        opened(i);
        process(i).send(wrong[i]);
        settle();
        EXPECT_FALSE(status().value("problem", "").empty()) << wrong[i].dump();
        pass(60s);
        ASSERT_EQ(processes.size(), i + 2) << wrong[i].dump();
    }
}

TEST_F(BrokerServiceTest, WritesAnOrderByTheRulesAndNamesTheClientInTheJournal)
{
    start();
    opened();
    process().send({{"request", "write"},
                    {"id", 7},
                    {"line", "press"},
                    {"name", "Level"},
                    {"element", 0},
                    {"value", 2}});
    settle();
    ASSERT_EQ(lines.asked.size(), 1);
    lines.answer({{"outcome", "written"}, {"value", 2.0}});
    const std::vector<Json> messages = got();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(),
              Json({{"id", 7}, {"reply", {{"outcome", "written"}, {"value", 2.0}}}}));
    ASSERT_EQ(lines.journal.size(), 1);
    EXPECT_EQ(lines.journal.at(0).client, "mqtt panel7");
    EXPECT_EQ(lines.journal.at(0).outcome, "written");
}

TEST_F(BrokerServiceTest, RefusesAnOrderThatTheRulesOrTheConfigurationForbid)
{
    const auto order = [this](std::size_t index, const char* name, const Json& value) {
        process(index).send({{"request", "write"},
                             {"id", 1},
                             {"line", "press"},
                             {"name", name},
                             {"element", 0},
                             {"value", value}});
        const std::vector<Json> messages = got(index);
        return messages.empty() ? std::string()
                                : messages.back()["reply"]["error"]["code"].get<std::string>();
    };
    start();
    opened();
    EXPECT_EQ(order(0, "Speed", 1), "not-allowed");
    EXPECT_EQ(order(0, "Level", 10), "not-allowed");
    EXPECT_EQ(order(0, "Missing", 1), "unknown-name");
    EXPECT_EQ(order(0, "", 1), "unknown-name");
    EXPECT_EQ(lines.asked.size(), 0);
    settings.mqtt->takesOrders = false;
    service->change(settings);
    settle();
    EXPECT_EQ(process().take().back(), Json({{"request", "stop"}}));
    restart();
    opened(1);
    EXPECT_EQ(order(1, "Level", 1), "not-allowed");
    EXPECT_EQ(lines.asked.size(), 0);
}

// The process may not have the new catalogue yet.
TEST_F(BrokerServiceTest, WritesNoOrderToAnotherStationAfterAReload)
{
    start();
    opened();
    lines.setLines({lineOfProject("press", kMoved)});
    const auto order = [this](int station) {
        process().send({{"request", "write"},
                        {"id", station},
                        {"line", "press"},
                        {"name", "Level"},
                        {"station", station},
                        {"element", 0},
                        {"value", 1}});
        return got();
    };
    EXPECT_EQ(
        order(1).back(),
        Json({{"id", 1},
              {"reply",
               {{"error",
                 {{"code", "unknown-name"}, {"text", "the variable is at station 2 now"}}}}}}));
    EXPECT_EQ(lines.asked.size(), 0);
    order(2);
    EXPECT_EQ(lines.asked.size(), 1);
}

TEST_F(BrokerServiceTest, GivesNoReplyOfAnOrderToTheNextProcess)
{
    start();
    opened();
    process().send({{"request", "write"},
                    {"id", 1},
                    {"line", "press"},
                    {"name", "Level"},
                    {"element", 0},
                    {"value", 1}});
    settle();
    restart();
    opened(1);
    lines.answer({{"outcome", "written"}});
    for (const Json& message : got(1))
        EXPECT_FALSE(message.contains("reply")) << message.dump();
    EXPECT_EQ(lines.journal.size(), 1);
    EXPECT_EQ(
        alarms.filter(QStringLiteral("order for press/Level has its result (written)")).size(), 1)
        << alarms.join('\n').toStdString();
}

TEST_F(BrokerServiceTest, PublishesAllVariablesAgainAndAgainWithAnInterval)
{
    settings.mqtt->intervalMs = 1000;
    start();
    opened();
    setSpeed(1);
    lines.setValue(0, 1, "INT", 7);
    EXPECT_EQ(fedIn(got()), std::vector<std::string>());
    pass(1s);
    EXPECT_EQ(fedIn(got()), (std::vector<std::string>{"1:Speed=1", "2:Level=7"}));
    pass(500ms);
    EXPECT_EQ(fedIn(got()), std::vector<std::string>());
    pass(500ms);
    EXPECT_EQ(fedIn(got()), (std::vector<std::string>{"3:Speed=1", "4:Level=7"}));
    // The machine slept: what was missed is not made up for.
    process().send({{"event", "status"}, {"status", Json::object()}});
    settle();
    pass(5s);
    EXPECT_EQ(fedIn(got()).size(), 2U);
}

TEST_F(BrokerServiceTest, SendsTheCatalogueAnewWhenAReloadRenamedALineAndGoesOnWithTheProcess)
{
    start();
    opened();
    lines.tell(stateOf("press", -1, "up"));
    setSpeed(1);
    got();
    lines.setLines({lineOfProject("oven", kOne)});
    lines.setValue(0, 0, "INT", 8);
    process().send({{"event", "status"}, {"status", Json::object()}});
    pass(1s);
    const std::vector<Json> messages = got();
    EXPECT_EQ(eventIn(messages, "catalogue")["lines"], Json({"oven"}));
    EXPECT_EQ(fedIn(messages), std::vector<std::string>{"3:Level=8"});
    EXPECT_EQ(processes.size(), 1U);
    // States and values of a line that is gone do not hold any more.
    restart();
    for (const Json& message : opened(1)) {
        if (message.value("event", "") == "current")
            ADD_FAILURE() << message.dump();
    }
}

// A process that does not know the variable would not keep its value as the latest one.
TEST_F(BrokerServiceTest, SendsTheCatalogueBeforeTheFirstValueOfANewVariable)
{
    start();
    opened();
    setSpeed(1);
    got();
    lines.setLines({lineOfProject("oven", kOne)});
    lines.setValue(0, 0, "INT", 8);
    std::vector<std::string> events;
    for (const Json& message : got())
        events.push_back(message.value("event", ""));
    EXPECT_EQ(events, (std::vector<std::string>{"catalogue", "values"}));
}

TEST_F(BrokerServiceTest, TellsTheTypeThatTheControllerTold)
{
    start();
    EXPECT_FALSE(eventIn(opened(), "catalogue")["variables"][0].contains("type"));
    setSpeed(1);
    process().send({{"event", "status"}, {"status", Json::object()}});
    pass(1s);
    EXPECT_EQ(eventIn(got(), "catalogue")["variables"][0]["type"], "INT");
}

TEST_F(BrokerServiceTest, KeepsAProcessWhoseSectionDidNotChange)
{
    start();
    opened();
    service->change(settings);
    pass(100ms);
    for (const Json& message : got())
        EXPECT_FALSE(message.contains("request")) << message.dump();
    EXPECT_EQ(processes.size(), 1U);
}

TEST_F(BrokerServiceTest, EndsAProcessInOrderAndGivesTheNextOneOtherSettings)
{
    start();
    const std::string run = process().take().at(0)["run"];
    opened();
    setSpeed(1);
    settings.mqtt->prefix = QStringLiteral("new");
    service->change(settings);
    setSpeed(2);
    const std::vector<Json> messages = got();
    EXPECT_EQ(fedIn(messages), std::vector<std::string>{"1:Speed=1"});
    EXPECT_EQ(messages.back(), Json({{"request", "stop"}}));
    process().kept(1);
    restart();
    EXPECT_EQ(process(1).take().at(0)["settings"]["prefix"], "new");
    EXPECT_EQ(fedIn(opened(1, run, 1)), std::vector<std::string>{"2:Speed=2"});
    EXPECT_EQ(alarms, QStringList());
}

TEST_F(BrokerServiceTest, StartsAProcessWithOtherSettingsAtOnceHoweverOftenTheyChange)
{
    start();
    for (std::size_t i = 0; i < 6; ++i) {
        opened(i);
        settings.mqtt->prefix = QStringLiteral("prefix%1").arg(i);
        service->change(settings);
        EXPECT_EQ(got(i).back(), Json({{"request", "stop"}}));
        processes[i].reset();
        settle();
        pass(100ms);
        ASSERT_EQ(processes.size(), i + 2);
    }
    EXPECT_EQ(alarms, QStringList());
}

TEST_F(BrokerServiceTest, TellsHowASectionWillChange)
{
    start();
    opened();
    EXPECT_EQ(service->changesTo(settings), QStringList());
    setSpeed(1);
    process().send({{"event", "status"}, {"status", {{"flow", {{"waiting", 11}}}}}});
    settle();
    BrokerSettings next = settings;
    next.mqtt->prefix = QStringLiteral("new");
    next.sparkplug.emplace();
    EXPECT_EQ(service->changesTo(next), (QStringList{"mqtt changed", "sparkplug added"}));
    EXPECT_EQ(service->changesTo({}), QStringList("mqtt removed, messages that stay in /q: 12"));
}

TEST_F(BrokerServiceTest, EndsTheProcessOfASectionThatIsRemovedBeforeItStartsAnotherOne)
{
    start();
    opened();
    settings.mqtt.reset();
    settings.sparkplug.emplace();
    service->change(settings);
    EXPECT_EQ(got().back(), Json({{"request", "stop"}}));
    EXPECT_EQ(processes.size(), 1U);
    processes[0].reset();
    settle();
    pass(100ms);
    pass(100ms);
    ASSERT_EQ(processes.size(), 2U);
    EXPECT_EQ(process(1).take().at(0)["kind"], "sparkplug");
    EXPECT_FALSE(service->status().contains("mqtt"));
}

TEST_F(BrokerServiceTest, StopsAProcessOnceItHasEverything)
{
    start();
    opened();
    setSpeed(1);
    service->stop();
    EXPECT_FALSE(service->haveEnded());
    setSpeed(2);
    const std::vector<Json> messages = got();
    EXPECT_EQ(fedIn(messages), std::vector<std::string>{"1:Speed=1"});
    EXPECT_EQ(messages.back(), Json({{"request", "stop"}}));
    process().kept(1);
    processes[0].reset();
    settle();
    EXPECT_TRUE(service->haveEnded());
    pass(60s);
    EXPECT_EQ(processes.size(), 1U);
    EXPECT_EQ(alarms.filter(QStringLiteral("lost")), QStringList());
}

TEST_F(BrokerServiceTest, StartsAProcessThatIsDownOnceMoreAtTheEndSoThatItTakesWhatIsHeld)
{
    start();
    opened();
    processes[0].reset(); // it is killed, and the pause before the next one begins
    settle();
    setSpeed(1);
    setSpeed(2);
    service->stop();
    EXPECT_FALSE(service->haveEnded());
    pass(100ms);
    ASSERT_EQ(processes.size(), 2U);
    const std::vector<Json> messages = opened(1);
    EXPECT_EQ(fedIn(messages), (std::vector<std::string>{"1:Speed=1", "2:Speed=2"}));
    EXPECT_EQ(messages.back(), Json({{"request", "stop"}}));
    process(1).kept(2);
    processes[1].reset();
    settle();
    EXPECT_TRUE(service->haveEnded());
    EXPECT_EQ(alarms.filter(QStringLiteral("lost")), QStringList());
}

TEST_F(BrokerServiceTest, TellsHowMuchIsLostAtTheEndWhenTheProcessDoesNotWork)
{
    start();
    opened();
    processes[0].reset();
    settle();
    setSpeed(1);
    setSpeed(2);
    service->stop();
    pass(100ms);
    ASSERT_EQ(processes.size(), 2U);
    processes[1].reset();
    settle();
    pass(100ms);
    EXPECT_TRUE(service->haveEnded());
    pass(10s);
    EXPECT_EQ(processes.size(), 2U);
    EXPECT_EQ(alarms.filter(QStringLiteral("messages lost: 2")).size(), 1)
        << alarms.join('\n').toStdString();
}

TEST_F(BrokerServiceTest, TellsHowMuchIsLostAtTheEndWhenTheProcessHangs)
{
    start();
    setSpeed(1);
    service->stop();
    pass(4900ms);
    EXPECT_FALSE(service->haveEnded());
    pass(200ms);
    pass(100ms);
    EXPECT_TRUE(service->haveEnded());
    EXPECT_EQ(processes.size(), 1U);
    EXPECT_EQ(alarms.filter(QStringLiteral("messages lost: 1")).size(), 1)
        << alarms.join('\n').toStdString();
}

TEST_F(BrokerServiceTest, DoesNotWaitForeverForAProcessToEnd)
{
    start();
    opened();
    service->stop();
    pass(4900ms);
    EXPECT_FALSE(service->haveEnded());
    pass(200ms);
    EXPECT_TRUE(service->haveEnded());
    EXPECT_EQ(alarms.filter(QStringLiteral("did not end in order")).size(), 1);
}

TEST_F(BrokerServiceTest, TellsHowManyBrokersAreConnected)
{
    settings.sparkplug.emplace();
    settings.sparkplug->queue.file = QStringLiteral("/s");
    start();
    EXPECT_EQ(service->size(), 2);
    EXPECT_EQ(service->connected(), 0);
    opened(0);
    opened(1);
    const auto tell = [this](std::size_t index, const Json& connection) {
        process(index).send({{"event", "status"}, {"status", {{"connection", connection}}}});
        settle();
    };
    tell(0, {{"state", "connecting"}});
    tell(1, {{"state", "connected"}});
    EXPECT_EQ(service->connected(), 1);
    tell(0, {{"state", "connected"}});
    EXPECT_EQ(service->connected(), 2);
    tell(0, "connected");
    EXPECT_EQ(service->connected(), 1) << "that is no status of a connection";
    processes[1].reset();
    settle();
    EXPECT_EQ(service->connected(), 0) << "its process is gone";
}

TEST_F(BrokerServiceTest, EndsAtOnceWithoutAProcess)
{
    settings = BrokerSettings();
    start();
    EXPECT_EQ(service->status(), Json::object());
    service->stop();
    EXPECT_TRUE(service->haveEnded());
    EXPECT_TRUE(processes.empty());
}
