// The processes that deliver to brokers, and how the gateway watches over them: the real gateway
// and broker, a simulated controller.

#include "broker.h"
#include "certificates.h"
#include "gateway_fixture.h"
#include "mqtt_receiver.h"
#include "program_fixture.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <thread>

namespace {

using Json = nlohmann::json;
using Messages = MqttReceiver::Messages;

const char kTags[] = R"({"name": "Count", "type": "DINT",
                         "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.05}})";
const char kVariables[] = R"({"name": "Count", "tag": "Count", "type": "DINT", "intervalMs": 50})";

Json parsed(const std::string& text)
{
    return Json::parse(text, nullptr, false);
}

/// The sequence numbers of line "press" that came, with those of each series apart, and how many
/// came twice.
struct Account
{
    std::map<long long, std::set<long long>> sequences;
    int doubles = 0;

    explicit Account(const Messages& messages)
    {
        for (const auto& message : messages) {
            const Json object = parsed(message.payload);
            if (!object.is_object() || !object.contains("sequence") ||
                object.value("repeated", false))
                continue;
            doubles +=
                sequences[object["series"]].insert(object["sequence"].get<long long>()).second ? 0
                                                                                               : 1;
        }
    }
    bool isWithoutGaps() const
    {
        return std::all_of(sequences.begin(), sequences.end(), [](const auto& series) {
            return *series.second.begin() == 1 &&
                   *series.second.rbegin() == static_cast<long long>(series.second.size());
        });
    }
    long long last() const { return sequences.empty() ? 0 : *sequences.rbegin()->second.rbegin(); }
};

class GatewayBroker : public GatewayTest
{
protected:
    std::string section(const std::string& prefix = "plant",
                        const std::string& keys = std::string()) const
    {
        return R"("mqtt": {"broker": {"host": "127.0.0.1", "port": )" +
               std::to_string(broker.port()) + R"(, "spreadMs": 0}, "prefix": ")" + prefix +
               R"(", )" + keys + R"("queue": {"file": "queue.sqlite"}}, )";
    }
    void start(const QStringList& environment = QStringList())
    {
        setConfigurationKeys(section());
        addLine("press", kTags, kVariables);
        ASSERT_NO_FATAL_FAILURE(startGateway(environment));
    }
    /// From the first message on if it is there before the gateway starts.
    MqttReceiver::Settings receiving(const std::string& topic = "plant/press/#") const
    {
        MqttReceiver::Settings settings;
        settings.port = broker.port();
        settings.topics = {topic};
        return settings;
    }
    Json delivery()
    {
        GatewayClient client(socketPath());
        return client.request({{"request", "status"}}).value("delivery", Json::object());
    }
    /// 0 while none runs.
    int process()
    {
        const Json pid = delivery().value("mqtt", Json::object()).value("pid", Json());
        return pid.is_number() ? pid.get<int>() : 0;
    }
    /// Waits until so many messages came, from now on.
    static bool waitForMore(const MqttReceiver& receiver, long long count)
    {
        const long long before = Account(receiver.messages()).last();
        return receiver.waitFor(
            [&](const Messages& messages) { return Account(messages).last() >= before + count; });
    }
    /// What waited while a process was away comes behind newer values.
    static bool waitUntilWithoutGaps(const MqttReceiver& receiver)
    {
        return receiver.waitFor(
            [](const Messages& messages) { return Account(messages).isWithoutGaps(); });
    }

    TestBroker broker;
};

TEST_F(GatewayBroker, LosesNothingWhenItsProcessIsKilledAgainAndAgain)
{
    MqttReceiver receiver(receiving());
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(waitForMore(receiver, 20));
    for (int i = 0; i < 3; ++i) {
        const int killed = process();
        ASSERT_GT(killed, 0);
        ASSERT_EQ(::kill(killed, SIGKILL), 0);
        ASSERT_TRUE(waitUntil([&] {
            const int now = process();
            return now > 0 && now != killed;
        }));
        ASSERT_TRUE(waitForMore(receiver, 20));
    }
    EXPECT_TRUE(waitUntilWithoutGaps(receiver));
    const Account account(receiver.messages());
    EXPECT_EQ(account.sequences.size(), 1u);
    EXPECT_LE(account.doubles, 3 * 1000);
    EXPECT_EQ(delivery()["mqtt"]["leftOut"], 0);
}

TEST_F(GatewayBroker, TellsThatItsQueueWasDamagedAndWhereItIsNow)
{
    file(QStringLiteral("queue.sqlite"), std::string(5000, 'x'));
    file(QStringLiteral("queue.sqlite.lock"), ""); // a gateway has used it
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(waitForLog(QStringLiteral("queue.sqlite.damaged-")));
    EXPECT_TRUE(log().contains(QStringLiteral("the messages in it are not delivered")));
    EXPECT_NE(delivery()["mqtt"]["flow"].value("setAside", "").find("queue.sqlite.damaged-"),
              std::string::npos);
    MqttReceiver receiver(receiving());
    EXPECT_TRUE(waitForMore(receiver, 5));
}

TEST_F(GatewayBroker, EndsAProcessThatStandsStillAndLosesNothing)
{
    MqttReceiver receiver(receiving());
    ASSERT_NO_FATAL_FAILURE(start({QStringLiteral("MICRO850_GATEWAY_HEARTBEAT_MS=3000")}));
    ASSERT_TRUE(waitForMore(receiver, 10));
    const int stopped = process();
    ASSERT_EQ(::kill(stopped, SIGSTOP), 0);
    ASSERT_TRUE(waitUntil([&] {
        const int now = process();
        return now > 0 && now != stopped;
    }));
    ASSERT_TRUE(waitForMore(receiver, 60));
    EXPECT_TRUE(waitUntilWithoutGaps(receiver));
}

TEST_F(GatewayBroker, GoesOnWithItsQueueAfterAReloadThatChangedOrRemovedItsSection)
{
    MqttReceiver receiver(receiving("#"));
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(waitForMore(receiver, 10));
    const int first = process();
    const auto reload = [this](const std::string& keys) {
        setConfigurationKeys(keys);
        configure();
        reloadGateway();
    };
    reload(section());
    EXPECT_EQ(process(), first); // nothing changed
    reload(section("other"));
    ASSERT_TRUE(receiver.waitFor([](const Messages& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const auto& message) {
            return message.topic == "other/press/1/Count";
        });
    }));
    EXPECT_NE(process(), first);
    EXPECT_TRUE(
        waitForLog("the configuration was read again: 1 line; no line changed; mqtt changed"));
    EXPECT_TRUE(waitUntilWithoutGaps(receiver)); // while there is a process
    reload("");
    ASSERT_TRUE(waitUntil([this] { return delivery().empty(); }));
    EXPECT_EQ(parsed(receiver.messageOn("plant/status").payload)["state"], "online");
    const auto isOffline = [](const Messages& messages) {
        return std::any_of(messages.begin(), messages.end(), [](const auto& message) {
            return message.topic == "other/status" && parsed(message.payload)["state"] == "offline";
        });
    };
    EXPECT_TRUE(receiver.waitFor(isOffline));
}

TEST_F(GatewayBroker, RefusesAnOrderThatExpiredWhileAProcessStoodStill)
{
    setConfigurationKeys(section("plant", R"("orders": {}, )"));
    addLine("press", R"({"name": "Setpoint", "type": "INT", "value": 7})",
            R"({"name": "Setpoint", "tag": "Setpoint", "intervalMs": 50, "writable": true})");
    ASSERT_NO_FATAL_FAILURE(startGateway());
    MqttReceiver receiver(receiving());
    receiver.messageOn("plant/press/1/Setpoint");
    const int delivering = process();
    ASSERT_GT(delivering, 0);
    MqttReceiver::Message order;
    order.topic = "plant/press/1/Setpoint/set";
    order.payload = "8";
    order.qos = 1;
    order.expirySeconds = 60;
    const auto outcome = [&] {
        const std::size_t from = receiver.count();
        receiver.publish(order);
        return from;
    };
    const auto result = [&](std::size_t from) {
        return parsed(receiver.messageOn("plant/press/1/Setpoint/result", from).payload);
    };
    EXPECT_EQ(result(outcome())["outcome"], "written");
    order.expirySeconds = 1;
    order.payload = "9";
    for (const int stopped : {delivering, static_cast<int>(gatewayPid())}) {
        ASSERT_EQ(::kill(stopped, SIGSTOP), 0);
        const std::size_t from = outcome();
        // By then the order has expired.
        std::this_thread::sleep_for(std::chrono::milliseconds(2200));
        ASSERT_EQ(::kill(stopped, SIGCONT), 0);
        EXPECT_EQ(result(from)["outcome"], "expired");
    }
    order.payload = "10";
    order.expirySeconds = 60;
    const Json last = result(outcome());
    EXPECT_EQ(last["outcome"], "written");
    EXPECT_EQ(last["old"], 8);
}

/// With a broker that wants TLS, a certificate and a password.
class GatewaySecrets : public GatewayTest
{
protected:
    static constexpr const char* kPassword = "t0ps3cret";

    GatewaySecrets()
    {
        certificates.make("broker");
        certificates.make("panel");
        const std::string users = certificates.path("users");
        const std::string command =
            "mosquitto_passwd -b -c '" + users + "' panel " + kPassword + " >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0);
        TestBroker::Settings settings;
        settings.more = "allow_anonymous false\npassword_file " + users + "\ncafile " +
                        certificates.authority() + "\ncertfile " + certificates.path("broker.pem") +
                        "\nkeyfile " + certificates.path("broker.key") + "\n";
        broker = std::make_unique<TestBroker>(settings);
        setCredentials(kPassword);
    }
    void setCredentials(const std::string& password) const
    {
        const QString credentials = file(QStringLiteral("credentials.json"),
                                         R"({"user": "panel", "password": ")" + password + "\"}");
        ::chmod(credentials.toLocal8Bit().constData(), 0600);
    }
    void start()
    {
        setConfigurationKeys(
            R"("history": {"file": "history.sqlite"}, "mqtt": {"prefix": "plant", "broker": {
               "host": "localhost", "port": )" +
            std::to_string(broker->port()) +
            R"(, "spreadMs": 0, "credentials": "credentials.json", "tls": {"authorities": ")" +
            certificates.authority() + R"(", "certificate": ")" + certificates.path("panel.pem") +
            R"(", "key": ")" + certificates.path("panel.key") +
            R"("}}, "queue": {"file": "queue.sqlite"}}, )");
        addLine("press", kTags, kVariables);
        ASSERT_NO_FATAL_FAILURE(startGateway());
    }
    MqttReceiver::Settings receiving() const
    {
        MqttReceiver::Settings settings;
        settings.port = broker->port();
        settings.topics = {"plant/press/#"};
        settings.user = "panel";
        settings.password = kPassword;
        settings.authorities = certificates.authority();
        return settings;
    }
    Json status() { return GatewayClient(socketPath()).request({{"request", "status"}}); }
    int process() { return status()["delivery"]["mqtt"].value("pid", 0); }

    Certificates certificates;
    std::unique_ptr<TestBroker> broker;
};

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(GatewaySecrets, ShowsItsPasswordAndItsKeyNowhere)
{
    setCredentials("wr0ngs3cret");
    ASSERT_NO_FATAL_FAILURE(start());
    ASSERT_TRUE(waitForLog(QStringLiteral("look at the user and the password in ")));
    setCredentials(kPassword);
    MqttReceiver receiver(receiving());
    receiver.messageOn("plant/press/1/Count");
    // Of the base64 of the key, which has no other line breaks.
    const std::string key = contentOf(certificates.path("panel.key"));
    const std::vector<std::string> secrets = {kPassword, "wr0ngs3cret",
                                              key.substr(key.find('\n') + 1, 40)};
    ASSERT_EQ(secrets[2].size(), 40u);
    std::map<std::string, std::string> shown = {{"status", status().dump()}};
    std::vector<qint64> processes = workers();
    EXPECT_EQ(processes.size(), 2u);
    processes.push_back(gatewayPid());
    for (const qint64 pid : processes) {
        for (const char* const name : {"/cmdline", "/environ", "/comm"})
            shown["/proc/" + std::to_string(pid) + name] =
                contentOf("/proc/" + std::to_string(pid) + name);
    }
    EXPECT_TRUE(has(shown["/proc/" + std::to_string(process()) + "/cmdline"], "deliver"));
    EXPECT_TRUE(std::regex_search(contentOf("/proc/" + std::to_string(process()) + "/limits"),
                                  std::regex("Max core file size +0 +0 ")));
    EXPECT_EQ(stopGateway(), 0);
    shown["log"] = log().toStdString();
    const std::filesystem::path folder = path(QStringLiteral("gateway.sock")).toStdString();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.parent_path())) {
        if (entry.is_regular_file() && entry.path().filename() != "credentials.json")
            shown[entry.path().string()] = contentOf(entry.path().string());
    }
    EXPECT_FALSE(shown[path(QStringLiteral("history.sqlite")).toStdString()].empty());
    EXPECT_FALSE(shown[path(QStringLiteral("queue.sqlite")).toStdString()].empty());
    for (const auto& [where, text] : shown) {
        for (const std::string& secret : secrets)
            EXPECT_FALSE(has(text, secret)) << where;
    }
}

TEST_F(GatewaySecrets, GoesOnWhenItsBrokerIsKilledWhileItPublishesOverTls)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const auto waitUntilLast = [this](long long least) {
        long long last = 0;
        MqttReceiver receiver(receiving());
        EXPECT_TRUE(receiver.waitFor([&](const Messages& messages) {
            last = Account(messages).last();
            return last >= least;
        })) << log().toStdString();
        return last;
    };
    long long last = waitUntilLast(20);
    const int publishing = process();
    ASSERT_GT(publishing, 0);
    for (int i = 0; i < 3; ++i) {
        broker->kill();
        broker->start();
        last = waitUntilLast(last + 20);
    }
    EXPECT_EQ(process(), publishing);
    EXPECT_TRUE(waitUntil(
        [this] { return status()["delivery"]["mqtt"]["connection"]["connections"] == 4; }));
}

/// With a broker that lets the gateway publish some topics only.
class GatewayWithoutRights : public GatewayBroker, public ::testing::WithParamInterface<bool>
{
protected:
    void deliver()
    {
        const std::string rights = certificates.path("rights");
        std::ofstream(rights) << "topic read plant/#\ntopic write plant/status\n"
                                 "topic write plant/press/state\ntopic write plant/press/1/state\n"
                                 "topic write plant/press/1/Count\n";
        TestBroker::Settings settings;
        // Without a limit this broker ends the connection when it refuses a message.
        settings.more =
            "allow_anonymous true\nmax_queued_messages 100000\nacl_file " + rights + "\n";
        strict = std::make_unique<TestBroker>(settings);
        setConfigurationKeys(
            R"("mqtt": {"prefix": "plant", "broker": {"host": "127.0.0.1", "port": )" +
            std::to_string(strict->port()) + R"(, "spreadMs": 0, "version": ")" +
            (GetParam() ? "5" : "3.1.1") + R"("}, "queue": {"file": "queue.sqlite"}}, )");
        addLine("press", std::string(kTags) + R"(, {"name": "Locked", "type": "DINT",
                "motion": {"kind": "counter", "min": 0, "max": 1000000, "period": 0.05}})",
                std::string(kVariables) +
                    R"(, {"name": "Locked", "tag": "Locked", "type": "DINT", "intervalMs": 50})");
        ASSERT_NO_FATAL_FAILURE(startGateway());
    }

    Certificates certificates;
    std::unique_ptr<TestBroker> strict;
};

INSTANTIATE_TEST_SUITE_P(Version, GatewayWithoutRights, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "V5" : "V3"; });

TEST_P(GatewayWithoutRights, PublishesWhatItMayAndTellsOnceWhatIsRefused)
{
    ASSERT_NO_FATAL_FAILURE(deliver());
    MqttReceiver::Settings settings = receiving();
    settings.port = strict->port();
    MqttReceiver receiver(settings);
    ASSERT_TRUE(waitForMore(receiver, 100))
        << log().toStdString() << delivery().dump() << strict->log();
    const Json status = delivery()["mqtt"];
    EXPECT_EQ(status["connection"]["connections"], 1) << status.dump();
    const QString refused = QStringLiteral(": the broker refuses the message: ");
    if (GetParam()) {
        EXPECT_GT(status["refusedByBroker"].get<int>(), 10) << status.dump();
        EXPECT_EQ(status["warnings"]["refused by the broker"], status["refusedByBroker"]);
        ASSERT_TRUE(waitForLog(refused));
        EXPECT_TRUE(log().contains(QStringLiteral("Not authorized")));
    } else {
        // Such a broker acknowledges what it throws away.
        EXPECT_EQ(status["refusedByBroker"], 0) << status.dump();
    }
    EXPECT_EQ(log().count(refused), GetParam() ? 1 : 0) << log().toStdString();
    for (const auto& message : receiver.messages())
        EXPECT_NE(message.topic, "plant/press/1/Locked");
    EXPECT_LT(delivery()["mqtt"]["flow"].value("waiting", 0), 1000);
}

} // namespace
