// Many clients of one gateway: readers that stall, writers at once, and clients that misbehave.

#include "gateway_fixture.h"

#include <QtCore/QFile>

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

namespace {

// A sanitizer keeps memory that was freed, and needs some for itself.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const long kMostKb = 1024 * 1024;
#else
const long kMostKb = 100 * 1024;
#endif

using Json = nlohmann::json;

const char kTags[] = R"({"name": "Fast", "type": "DINT",
                         "motion": {"kind": "ramp", "min": 0, "max": 1000000, "period": 10}},
                        {"name": "Shared", "type": "DINT", "value": 0},
                        {"name": "Locked", "type": "INT", "value": 1},
                        {"name": "Heat", "type": "INT", "value": 200},
                        {"name": "Text", "type": "SHORT_STRING", "value": "old"})";
const char kVariables[] = R"(
    {"name": "Fast", "tag": "Fast", "intervalMs": 0},
    {"name": "Shared", "tag": "Shared", "intervalMs": 0, "writable": true, "minimum": 0,
     "maximum": 20000},
    {"name": "Locked", "tag": "Locked"},
    {"name": "Heat", "tag": "Heat", "gain": 0.1, "writable": true, "minimum": 10, "maximum": 30,
     "writesPerMinute": 2},
    {"name": "Text", "tag": "Text", "writable": true})";

class GatewayClientsTest : public GatewayTest
{
protected:
    void start()
    {
        addLine(QStringLiteral("press"), kTags, kVariables);
        startGateway();
        ASSERT_TRUE(waitForLog(QStringLiteral("press: station 1: connected")))
            << log().toStdString();
    }
    std::string codeOf(GatewayClient& client, const Json& request)
    {
        const Json reply = client.request(request);
        return reply.contains("error") ? reply["error"]["code"].get<std::string>() : "";
    }
    /// The main memory of the gateway, in kilobytes.
    long memoryKb() const
    {
        std::ifstream file("/proc/" + std::to_string(gatewayPid()) + "/status");
        std::string line;
        while (std::getline(file, line)) {
            if (line.rfind("VmRSS:", 0) == 0)
                return std::stol(line.substr(6));
        }
        return 0;
    }
};

/// Reads what a subscriber is sent, without waiting.
class Subscriber
{
public:
    explicit Subscriber(std::unique_ptr<GatewayClient> client) : m_client(std::move(client))
    {
        m_client->request({{"request", "subscribe"}, {"match", "Fast"}});
    }
    int descriptor() const { return m_client->descriptor(); }

    /// False when the gateway has closed the connection.
    bool read()
    {
        std::array<char, 65536> part{};
        const auto got = ::recv(descriptor(), part.data(), part.size(), MSG_DONTWAIT);
        if (got > 0)
            take(std::string(part.data(), static_cast<std::size_t>(got)));
        return got > 0 || (got < 0 && errno == EAGAIN);
    }

    long leftOut = 0;
    std::size_t bytes = 0;
    /// When the newest value was read from the controller.
    std::string newest() const
    {
        const Json values = Json::parse(m_newest)["values"];
        return values.back()["time"].get<std::string>();
    }

private:
    void take(const std::string& more)
    {
        bytes += more.size();
        m_text += more;
        std::size_t start = 0;
        for (std::size_t end; (end = m_text.find('\n', start)) != std::string::npos;
             start = end + 1) {
            const std::string line = m_text.substr(start, end - start);
            if (line.find("\"values\"") != std::string::npos)
                m_newest = line;
            if (line.find("\"leftOut\"") != std::string::npos)
                leftOut += Json::parse(line)["leftOut"].get<long>();
        }
        m_text.erase(0, start);
    }

    std::unique_ptr<GatewayClient> m_client;
    std::string m_text;
    std::string m_newest;
};

std::string pythonOfDocument()
{
    std::ifstream file(MICRO850_SOURCE_DIR "/docs/gateway-protocol.md");
    std::stringstream text;
    text << file.rdbuf();
    const std::string begin = "```python\n";
    const std::size_t start = text.str().find(begin);
    const std::size_t end = text.str().find("```\n", start + begin.size());
    EXPECT_NE(start, std::string::npos);
    return text.str().substr(start + begin.size(), end - start - begin.size());
}

} // namespace

TEST_F(GatewayClientsTest, AreShownTheValuesOfTheController)
{
    start();
    const auto client = connect();
    Json reply =
        client->request({{"request", "read"}, {"names", {"Locked", "Heat"}}, {"fresh", true}});
    ASSERT_TRUE(reply.contains("values")) << reply;
    EXPECT_EQ(reply["values"][0]["value"], 1);
    EXPECT_EQ(reply["values"][1]["value"], 20);
    EXPECT_EQ(reply["values"][1]["bytes"], "c800");
    EXPECT_EQ(reply["values"][1]["quality"], "good");
    reply = client->request({{"request", "read"}, {"tag", "Heat"}});
    EXPECT_EQ(reply["type"], "INT");
    EXPECT_EQ(reply["elements"], Json::array({"c800"}));
    EXPECT_EQ(client->request({{"request", "type"}, {"tag", "Text"}})["type"], "SHORT_STRING");
    EXPECT_EQ(codeOf(*client, {{"request", "type"}, {"tag", "NoSuchTag"}}), "refused");
    EXPECT_EQ(client->request({{"request", "list"}, {"match", "*t*"}})["variables"].size(), 3U);
}

TEST_F(GatewayClientsTest, WriteOnlyWhatTheRulesAllow)
{
    start();
    const auto client = connect();
    Json reply = client->request({{"request", "write"}, {"name", "Heat"}, {"value", 30}});
    EXPECT_EQ(reply.value("outcome", ""), "written") << reply;
    EXPECT_EQ(reply["old"], 20);
    EXPECT_EQ(reply["value"], 30);
    EXPECT_EQ(reply["bytes"], "2c01");
    EXPECT_EQ(reply["verified"], true);
    EXPECT_EQ(codeOf(*client, {{"request", "write"}, {"name", "Heat"}, {"value", 30.1}}),
              "not-allowed");
    EXPECT_EQ(codeOf(*client, {{"request", "write"}, {"tag", "Heat"}, {"bytes", "2d01"}}),
              "not-allowed");
    EXPECT_EQ(codeOf(*client, {{"request", "write"}, {"name", "Locked"}, {"value", 2}}),
              "not-allowed");
    EXPECT_EQ(codeOf(*client, {{"request", "write"}, {"tag", "Locked"}, {"value", 2}}),
              "not-allowed");
    EXPECT_EQ(codeOf(*client, {{"request", "write"}, {"tag", "Heat"}, {"value", 10}}), "");
    EXPECT_EQ(codeOf(*client, {{"request", "write"}, {"name", "Heat"}, {"value", 11}}),
              "not-allowed")
        << "two writes a minute";
    reply = client->request({{"request", "write"}, {"name", "Text"}, {"value", "new \"one\""}});
    EXPECT_EQ(reply.value("outcome", ""), "written") << reply;
    EXPECT_EQ(reply["old"], "old");
    EXPECT_EQ(reply["value"], "new \"one\"");
    EXPECT_EQ(reply["verified"], true);
    reply = client->request({{"request", "read"}, {"names", {"Heat", "Locked"}}, {"fresh", true}});
    EXPECT_EQ(reply["values"][0]["value"], 10);
    EXPECT_EQ(reply["values"][1]["value"], 1);
}

// Each write tells the value that it replaced. So all writes are one chain from the first value to
// the last, if the controller carried out each of them exactly once.
TEST_F(GatewayClientsTest, LoseNoWriteAndWriteNoneTwiceWhenTenOfThemWriteAtOnce)
{
    const int kWriters = 10;
    const int kWritesOfEach = 100;
    start();
    const auto reader = connect();
    reader->request({{"request", "subscribe"}, {"match", "Shared"}});
    std::vector<std::vector<Json>> replies(kWriters);
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; ++i) {
        writers.emplace_back([this, i, &replies] {
            const auto client = connect();
            for (int at = 0; at < kWritesOfEach; at += 10) {
                std::vector<int> ids;
                for (int value = at; value < at + 10; ++value)
                    ids.push_back(client->send({{"request", "write"},
                                                {"name", "Shared"},
                                                {"value", 1 + i * kWritesOfEach + value}}));
                for (const int id : ids)
                    replies[static_cast<std::size_t>(i)].push_back(client->reply(id));
            }
        });
    }
    for (std::thread& writer : writers)
        writer.join();

    std::map<int, int> next;
    std::set<int> written;
    for (std::size_t i = 0; i < replies.size(); ++i) {
        ASSERT_EQ(replies[i].size(), static_cast<std::size_t>(kWritesOfEach)) << "none unreported";
        for (std::size_t k = 0; k < replies[i].size(); ++k) {
            const Json& reply = replies[i][k];
            const int value = static_cast<int>(1 + i * kWritesOfEach + k);
            ASSERT_EQ(reply.value("outcome", ""), "written") << reply;
            EXPECT_EQ(reply["value"], value);
            EXPECT_TRUE(reply["verified"]);
            EXPECT_TRUE(next.emplace(reply["old"].get<int>(), value).second) << reply;
            written.insert(value);
        }
    }
    EXPECT_EQ(written.size(), 1000U);
    std::map<int, int> place = {{0, 0}};
    int value = 0;
    while (next.count(value) != 0 && place.size() <= next.size()) {
        value = next[value];
        place[value] = static_cast<int>(place.size());
    }
    EXPECT_EQ(place.size(), 1001U) << "the chain ends at " << value;
    const Json last =
        reader->request({{"request", "read"}, {"names", {"Shared"}}, {"fresh", true}});
    EXPECT_EQ(last["values"][0]["value"], value);

    // What a reader was told meanwhile are values that the controller had, in their order.
    int told = 0;
    int before = 0;
    for (bool isLast = false; !isLast; ++told) {
        const Json event = reader->value("Shared", [](const Json&) { return true; });
        ASSERT_TRUE(event.is_object());
        ASSERT_EQ(place.count(event["value"].get<int>()), 1U);
        EXPECT_GE(place[event["value"].get<int>()], before);
        before = place[event["value"].get<int>()];
        isLast = event["value"] == value;
    }
    EXPECT_GT(told, 1);
}

TEST_F(GatewayClientsTest, TakeTheirWritesBackWhenTheyGoAway)
{
    start();
    const auto client = connect();
    auto leaving = connect();
    const auto clients = [&] { return client->request({{"request", "status"}})["clients"]; };
    EXPECT_EQ(clients(), 2);
    // The line waits, so that it has not carried them all out by then.
    const auto worker = static_cast<pid_t>(workerOf("press"));
    ASSERT_GT(worker, 0);
    ::kill(worker, SIGSTOP);
    for (int value = 1; value <= 60; ++value)
        leaving->send({{"request", "write"}, {"name", "Shared"}, {"value", value}});
    leaving.reset();
    EXPECT_TRUE(waitUntil([&] { return clients() == 1; }));
    ::kill(worker, SIGCONT);
    const Json reply = client->request({{"request", "write"}, {"name", "Shared"}, {"value", 1000}});
    EXPECT_EQ(reply.value("outcome", ""), "written") << reply;
    EXPECT_LT(reply["old"], 60);
    const Json now = client->request({{"request", "read"}, {"names", {"Shared"}}, {"fresh", true}});
    EXPECT_EQ(now["values"][0]["value"], 1000);
}

TEST_F(GatewayClientsTest, ReadAtTheirOwnPaceWhile20Of200Stall)
{
    const int kReaders = 200;
    const int kStalled = 20;
    start();
    std::vector<std::unique_ptr<Subscriber>> all;
    for (int i = 0; i < kReaders; ++i)
        all.push_back(std::make_unique<Subscriber>(connect()));
    // The stalled are every tenth, and the others read until each has far more than a socket holds.
    const auto isStalled = [&](int i) { return i % (kReaders / kStalled) == 0; };
    const std::size_t kMuch = 300 * 1000;
    const auto hasEnough = [&] {
        bool enough = true;
        for (int i = 0; i < kReaders; ++i) {
            if (isStalled(i))
                continue;
            EXPECT_TRUE(all[static_cast<std::size_t>(i)]->read());
            enough = enough && all[static_cast<std::size_t>(i)]->bytes >= kMuch;
        }
        return enough;
    };
    ASSERT_TRUE(waitUntil(hasEnough)) << log().toStdString();
    EXPECT_LT(memoryKb(), kMostKb);

    Subscriber& late = *all[0];
    ASSERT_TRUE(waitUntil([&] {
        EXPECT_TRUE(late.read());
        return late.leftOut > 0;
    }));
    const std::string now = all[1]->newest();
    EXPECT_TRUE(waitUntil([&] {
        EXPECT_TRUE(late.read());
        return late.newest() >= now;
    })) << "the newest value comes";
    EXPECT_EQ(connect()->request({{"request", "status"}})["clients"], kReaders + 1);
}

TEST_F(GatewayClientsTest, DoNoHarmWhenTheyMisbehave)
{
    start();
    const std::vector<qint64> before = workers();
    const auto faithful = connect();
    faithful->request({{"request", "subscribe"}, {"match", "Fast"}});

    const auto huge = connect();
    const std::string much(1000 * 1000, 'x');
    for (int i = 0; i < 100; ++i)
        huge->sendBytes(much);
    huge->sendBytes("\n");
    EXPECT_EQ(huge->message([](const Json& any) { return any.contains("error"); })["error"]["code"],
              "bad-request");
    EXPECT_TRUE(huge->request({{"request", "status"}}).contains("lines")) << "it may go on";

    const auto garbage = connect();
    for (int i = 0; i < 100; ++i)
        garbage->sendBytes(std::string("\0\xFF{[\n", 5));
    EXPECT_TRUE(garbage->waitForClose());

    std::vector<std::unique_ptr<GatewayClient>> halves;
    for (int i = 0; i < 300; ++i) {
        halves.push_back(std::make_unique<GatewayClient>(socketPath()));
        halves.back()->sendBytes("{\"id\":1,");
    }
    EXPECT_EQ(halves.back()->greeting(), Json()) << "the 257th is turned away";
    halves.clear();

    int greeted = 0;
    for (int i = 0; i < 10000; ++i)
        greeted += GatewayClient(socketPath()).greeting().is_object() ? 1 : 0;
    EXPECT_GT(greeted, 0);
    EXPECT_TRUE(waitUntil([&] { return connect()->greeting().contains("version"); }));

    const auto deaf = connect(); // asks and does not read
    EXPECT_TRUE(deaf->isConnected());
    for (int i = 0; i < 20000; ++i) {
        const std::string request =
            R"({"id":)" + std::to_string(i) + R"(,"request":"list"})" + "\n";
        if (::send(deaf->descriptor(), request.data(), request.size(),
                   MSG_NOSIGNAL | MSG_DONTWAIT) != static_cast<ssize_t>(request.size()))
            break;
    }
    EXPECT_LT(memoryKb(), kMostKb);
    const std::string now =
        faithful->request({{"request", "read"}, {"names", {"Fast"}}})["values"][0]["time"];
    EXPECT_TRUE(faithful->value("Fast", [&](const Json& value) { return value["time"] >= now; })
                    .is_object());
    EXPECT_EQ(workers(), before);
    EXPECT_TRUE(gatewayRuns());
}

TEST_F(GatewayClientsTest, ExchangeMessagesThatThePublishedSchemaDescribes)
{
    setConfigurationKeys(R"("history": {"file": "h.sqlite"},)");
    start();
    std::ostringstream messages;
    const auto client = connect();
    messages << client->greeting() << '\n';
    const std::vector<Json> requests = {
        {{"request", "hello"}, {"client", "test"}},
        {{"request", "list"}},
        {{"request", "list"}, {"line", "press"}, {"match", "F*"}},
        {{"request", "read"}, {"names", {"Fast", "Text"}}},
        {{"request", "read"}, {"names", {"Heat"}}, {"fresh", true}, {"line", "press"}},
        {{"request", "read"}, {"tag", "Heat"}, {"station", 1}, {"element", 0}, {"elements", 1}},
        {{"request", "type"}, {"tag", "Heat"}},
        {{"request", "type"}, {"tag", "NoSuchTag"}},
        {{"request", "subscribe"}, {"match", "Fast"}, {"ages", true}},
        {{"request", "subscribe"}, {"names", {"Text"}}},
        {{"request", "unsubscribe"}, {"subscription", 2}},
        {{"request", "write"}, {"name", "Shared"}, {"value", 5}},
        {{"request", "write"}, {"tag", "Shared"}, {"element", 0}, {"bytes", "06000000"}},
        {{"request", "write"}, {"name", "Locked"}, {"value", 5}},
        {{"request", "write"}, {"name", "Shared"}, {"value", 7}, {"check", true}},
        {{"request", "write"}, {"name", "Locked"}, {"value", 5}, {"check", true}},
        {{"request", "cancel"}, {"of", 99}},
        {{"request", "status"}},
        {{"request", "history"}, {"from", "2026-11-22T13:30:00.125Z"}, {"limit", 5}},
        {{"request", "reload"}}};
    for (Json request : requests) {
        const int id = client->send(request);
        request["id"] = id;
        const Json reply = client->reply(id);
        ASSERT_TRUE(reply.is_object()) << request;
        messages << request << '\n' << reply << '\n';
    }
    Json recorded;
    EXPECT_TRUE(waitUntil([&] {
        recorded = client->request({{"request", "history"}, {"limit", 3}});
        return recorded["values"].size() == 3;
    })) << recorded;
    EXPECT_EQ(recorded["complete"], false);
    messages << recorded << '\n';
    const Json last = recorded["values"][2];
    const Json next = client->request({{"request", "history"},
                                       {"from", last["time"]},
                                       {"after", last["sequence"]},
                                       {"limit", 1}});
    ASSERT_EQ(next["values"].size(), 1u) << next;
    EXPECT_GE(next["values"][0]["time"], last["time"]);
    EXPECT_NE(next["values"][0]["sequence"], last["sequence"]);
    messages << next << '\n';
    for (const char* event : {"values", "ages"}) {
        messages << client->message([&](const Json& any) {
            return any.value("event", "") == event;
        }) << '\n';
    }
    killSimulator(QStringLiteral("press"));
    messages << client->message([](const Json& any) { return any.value("event", "") == "state"; })
             << '\n';
    const QString exchanged = file(QStringLiteral("messages"), messages.str());
    QProcess check;
    check.start(QStringLiteral("python3"),
                {QStringLiteral("-B"),
                 QStringLiteral(MICRO850_SOURCE_DIR "/tests/programs/check_messages.py"),
                 QStringLiteral(MICRO850_SOURCE_DIR "/share/micro850/gateway-protocol.schema.json"),
                 exchanged});
    ASSERT_TRUE(check.waitForFinished(kGatewayLimitMs));
    EXPECT_EQ(check.exitCode(), 0) << check.readAllStandardOutput().toStdString()
                                   << check.readAllStandardError().toStdString();
}

TEST_F(GatewayClientsTest, CanBeWrittenAsTheDocumentShows)
{
    start();
    const QString program = file(QStringLiteral("reader.py"), pythonOfDocument());
    QProcess reader;
    reader.start(QStringLiteral("python3"), {QStringLiteral("-B"), program, socketPath()});
    QByteArray output;
    EXPECT_TRUE(waitUntil([&] {
        reader.waitForReadyRead(10);
        output += reader.readAllStandardOutput();
        return output.count(" press Fast ") > 3 && output.contains(" press Locked 1 good");
    })) << output.toStdString()
        << reader.readAllStandardError().toStdString();
    reader.kill();
    reader.waitForFinished();
}
