// What the gateway takes from controllers reaches a receiver at the broker, whatever is killed, cut
// or full in between: nothing is missing, and nothing comes twice without a reason. The books of
// the receiver are compared with those of a client at the gateway's socket, which sees every value.

#include "gateway_fixture.h"
#include "small_disk.h"

#include "broker.h"
#include "delivery_account.h"
#include "gateway_process.h"
#include "mqtt_proxy.h"
#include "mqtt_receiver.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <random>

namespace {

using Json = GatewayClient::Json;
using Number = DeliveryAccount::Number;

const char kLine[] = "press";
/// The most messages that a cut or a kill may repeat; docs/mqtt.md promises it.
const int kWindow = 1000;
/// So many new messages wait for a commit or an acknowledgement while all goes well: those of a
/// third of a second, on a machine that is busy.
const int kOnItsWay = 400;

/// Tags that count, each with a period of its own.
std::string tags(int count, double period)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += std::string(i > 0 ? ", " : "") + R"({"name": "C)" + std::to_string(i) +
               R"(", "type": "DINT", "motion": {"kind": "counter", "min": 0, "max": 2000000000, )" +
               R"("period": )" + std::to_string(period + 0.001 * i) + "}}";
    return all;
}

std::string variables(int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += std::string(i > 0 ? ", " : "") + R"({"name": "C)" + std::to_string(i) +
               R"(", "tag": "C)" + std::to_string(i) + R"(", "intervalMs": 0})";
    return all;
}

/// The broker lets a client send more than the window at a time.
TestBroker::Settings brokerSettings()
{
    TestBroker::Settings settings;
    settings.more += "max_inflight_messages 5000\n";
    return settings;
}

/// A value that a client at the socket saw.
struct Witnessed
{
    std::string name;
    std::string time;
    Json value;
    std::chrono::steady_clock::time_point at;
};

class GatewayDelivery : public GatewayTest
{
protected:
    void SetUp() override { proxy = std::make_unique<MqttProxy>(broker.port()); }

    /// What the broker keeps of each variable is the newest value that came of it.
    void TearDown() override
    {
        if (receiver && !HasFatalFailure())
            expectTheLatestIsRetained();
        GatewayTest::TearDown();
    }
    void expectTheLatestIsRetained()
    {
        stopGateway();
        MqttReceiver::Settings settings;
        settings.port = broker.port();
        settings.topics = {"plant/press/1/+"};
        const MqttReceiver fresh(settings);
        std::map<std::string, Json> kept;
        std::map<std::string, Json> latest;
        until([&] {
            kept = lastOf(fresh);
            latest = lastOf(*receiver);
            return !latest.empty() && kept == latest;
        });
        EXPECT_EQ(kept, latest);
        for (const auto& [topic, value] : kept) {
            const auto& all = account.values(kLine, topic.substr(topic.rfind('/') + 1));
            EXPECT_TRUE(hasClockSteps || value["time"] == all.rbegin()->first) << topic;
        }
    }
    /// The last message of each variable by its topic, without history.
    static std::map<std::string, Json> lastOf(const MqttReceiver& from)
    {
        const std::string start = "plant/press/1/C";
        std::map<std::string, Json> last;
        for (const MqttReceiver::Message& message : from.messages()) {
            if (message.topic.rfind(start, 0) == 0 &&
                message.topic.find('/', start.size()) == std::string::npos)
                last[message.topic] = Json::parse(message.payload);
        }
        return last;
    }
    /// Waits until the receiver has all that passed to the broker.
    bool settle()
    {
        const std::size_t sent = proxy->published().size();
        return until([&] { return taken >= sent; });
    }

    void deliver(int count = 10, double period = 0.03, const std::string& queue = std::string())
    {
        const std::string file = queue.empty() ? path("queue.sqlite").toStdString() : queue;
        setConfigurationKeys(R"("mqtt": {"broker": {"host": "127.0.0.1", "port": )" +
                             std::to_string(proxy->port()) +
                             R"(, "spreadMs": 50, "keepAliveSeconds": 5}, "prefix": "plant", )" +
                             R"("queue": {"file": ")" + file + R"(", "historyPerSecond": )" +
                             std::to_string(historyPerSecond) + R"(, "keepMegabytes": )" +
                             std::to_string(keepMegabytes) + "}}, ");
        addLine(kLine, tags(count, period), variables(count));
        subscribe();
    }
    void subscribe()
    {
        MqttReceiver::Settings settings;
        settings.port = broker.port();
        settings.topics = {"plant/#"};
        receiver = std::make_unique<MqttReceiver>(settings);
    }
    /// Starts the gateway, and a client that sees every value.
    void serve(const QStringList& environment = QStringList())
    {
        startGateway(environment);
        witness = std::make_unique<GatewayReader>(socketPath().toStdString());
        witness->send(R"({"id": 1, "request": "subscribe"})");
    }

    /// Takes in what the two clients got.
    void pump()
    {
        const auto take = [this](const std::string& line) {
            const Json message = Json::parse(line);
            for (const Json& value : message.value("values", Json::array())) {
                if (value["time"].is_string())
                    seen.push_back({value["name"], value["time"], value["value"],
                                    std::chrono::steady_clock::now()});
            }
        };
        if (witness && !witness->receive(take))
            witness.reset();
        receiver->waitFor(
            [this](const MqttReceiver::Messages& all) {
                for (; taken < all.size(); ++taken)
                    account.take(all[taken].topic, all[taken].payload, all[taken].isRetained);
                return true;
            },
            std::chrono::milliseconds(0));
    }
    bool until(const std::function<bool()>& condition)
    {
        return waitUntil([&] {
            pump();
            return condition();
        });
    }
    /// Waits until the client at the socket has seen so many more values.
    bool more(std::size_t count)
    {
        const std::size_t wanted = seen.size() + count;
        return until([&] { return seen.size() >= wanted; });
    }
    bool received(int count)
    {
        const int wanted = account.received() + count;
        return until([&] { return account.received() >= wanted; });
    }

    /// The values that were seen at the socket up to now and did not come, but for those that a
    /// killed broker had acknowledged.
    std::vector<Witnessed> lost()
    {
        std::vector<Witnessed> all;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            const Witnessed& value = seen[i];
            if (!account.has(kLine, value.name, value.time, value.value) &&
                takenByTheDead.count({value.name, value.time}) == 0)
                all.push_back(value);
        }
        return all;
    }
    std::vector<Number> gaps() const
    {
        std::vector<Number> all;
        for (const Number& number : account.missing(kLine)) {
            if (numbersOfTheDead.count(number) == 0)
                all.push_back(number);
        }
        return all;
    }
    /// The number of the first history among the receiver's messages from this one on.
    Number firstHistoryAfter(std::size_t message) const
    {
        const std::vector<MqttReceiver::Message> all = receiver->messages();
        for (; message < all.size(); ++message) {
            const Json value = Json::parse(all[message].payload, nullptr, false);
            if (value.is_object() && value.value("history", false))
                return {value["series"].get<std::int64_t>(), value["sequence"].get<std::int64_t>()};
        }
        return {0, 0};
    }
    /// Waits until nothing is missing of all that was seen up to now.
    void expectNothingIsLost()
    {
        pump();
        const std::vector<Witnessed> wanted = seen;
        const bool isComplete = until([&] {
            while (checked < wanted.size()) {
                const Witnessed& value = wanted[checked];
                if (!account.has(kLine, value.name, value.time, value.value) &&
                    takenByTheDead.count({value.name, value.time}) == 0)
                    return false;
                ++checked;
            }
            return gaps().empty();
        });
        EXPECT_TRUE(isComplete) << lost().size() << " of " << wanted.size() << " values and "
                                << gaps().size() << " numbers are missing\n"
                                << account.received() << " came, " << account.history()
                                << " of them as history\n"
                                << log().toStdString();
        for (const std::string& fault : account.faults())
            ADD_FAILURE() << fault;
    }
    /// What the broker has acknowledged by now may be lost, since it is killed.
    void forgiveWhatWasAcknowledged()
    {
        for (const MqttProxy::Published& message : proxy->acknowledged()) {
            const Json value = Json::parse(message.payload, nullptr, false);
            if (!value.is_object() || !value.contains("sequence"))
                continue;
            numbersOfTheDead.emplace(value["series"].get<std::int64_t>(),
                                     value["sequence"].get<std::int64_t>());
            const std::size_t station = message.topic.find("/1/");
            if (station == std::string::npos || !value["time"].is_string())
                continue;
            const std::string rest = message.topic.substr(station + 3);
            takenByTheDead.emplace(rest.substr(0, rest.find('/')),
                                   value["time"].get<std::string>());
        }
    }
    void killBroker()
    {
        broker.kill();
        forgiveWhatWasAcknowledged();
    }
    /// The receiver is there before the gateway, so that it misses nothing.
    void restartBroker()
    {
        proxy->refuse(true);
        broker.start();
        ASSERT_TRUE(receiver->waitUntilSubscribed());
        proxy->refuse(false);
    }
    /// The processes of the gateway that deliver.
    std::vector<qint64> deliverers() const
    {
        std::vector<qint64> found;
        for (const qint64 pid : workers()) {
            QFile command(QStringLiteral("/proc/%1/cmdline").arg(pid));
            if (command.open(QIODevice::ReadOnly) && command.readAll().contains("deliver"))
                found.push_back(pid);
        }
        return found;
    }
    Json deliveryStatus()
    {
        const Json status = connect()->request({{"request", "status"}});
        return status.value("delivery", Json::object()).value("mqtt", Json());
    }

    int historyPerSecond = 3000;
    int keepMegabytes = 256;
    TestBroker broker{brokerSettings()};
    std::unique_ptr<MqttProxy> proxy;
    std::unique_ptr<MqttReceiver> receiver;
    std::unique_ptr<GatewayReader> witness;
    DeliveryAccount account{"plant"};
    std::vector<Witnessed> seen;
    bool hasClockSteps = false;
    std::size_t checked = 0; ///< of them came
    std::size_t taken = 0;   ///< of the receiver's messages
    std::set<Number> numbersOfTheDead;
    std::set<std::pair<std::string, std::string>> takenByTheDead;
};

} // namespace

// The books themselves ----------------------------------------------------------------------------

namespace {

void takeValue(DeliveryAccount& account, int sequence, const std::string& more = std::string(),
               int series = 7, const std::string& topic = "plant/press/1/A")
{
    account.take(topic,
                 R"({"value": 1, "time": "2026-11-22T13:30:00.)" +
                     std::to_string(100 + sequence + 10 * series) + R"(Z", "series": )" +
                     std::to_string(series) + R"(, "sequence": )" + std::to_string(sequence) +
                     more + "}",
                 false);
}

} // namespace

TEST(DeliveryAccount, TellsWhatIsMissingAndWhatCameTwice)
{
    DeliveryAccount account("plant");
    for (const int sequence : {1, 2, 4, 5, 8, 5})
        takeValue(account, sequence);
    takeValue(account, 2, "", 9);
    const std::vector<Number> expected = {{7, 3}, {7, 6}, {7, 7}, {9, 1}};
    EXPECT_EQ(account.missing("press"), expected);
    EXPECT_EQ(account.doubles(), 1);
    EXPECT_EQ(account.received(), 6);
    EXPECT_TRUE(account.faults().empty());
}

TEST(DeliveryAccount, ReportsValuesOutOfOrderMarksThatLieAndHistoryThatIsKept)
{
    DeliveryAccount disordered("plant");
    takeValue(disordered, 5);
    takeValue(disordered, 4);
    EXPECT_EQ(disordered.faults().size(), 2u); // by its number and by its time
    DeliveryAccount lying("plant");
    takeValue(lying, 1, R"(, "history": true)");
    takeValue(lying, 2, "", 7, "plant/press/1/A/history");
    EXPECT_EQ(lying.faults().size(), 2u);
    DeliveryAccount kept("plant");
    kept.take("plant/press/1/A/history",
              R"({"value": 1, "time": "2026-11-22T13:30:00.100Z", "series": 1, "sequence": 1,
                  "history": true})",
              true);
    EXPECT_EQ(kept.faults().size(), 1u);
    DeliveryAccount empty("plant");
    empty.take("plant/press/1/A", "nonsense", false);
    empty.take("plant/press/1/A", R"({"value": 1})", false);
    EXPECT_EQ(empty.faults().size(), 2u);
}

TEST(DeliveryAccount, LetsHistoryAndLiveValuesOvertakeEachOther)
{
    DeliveryAccount account("plant");
    takeValue(account, 5);
    takeValue(account, 1, R"(, "history": true)", 7, "plant/press/1/A/history");
    takeValue(account, 6);
    takeValue(account, 2, R"(, "history": true)", 7, "plant/press/1/A/history");
    takeValue(account, 6, R"(, "repeated": true)");
    EXPECT_TRUE(account.faults().empty());
    EXPECT_EQ(account.history(), 2);
    EXPECT_EQ(account.doubles(), 0);
    EXPECT_EQ(account.repeated(), 1);
}

// The delivery ------------------------------------------------------------------------------------

TEST_F(GatewayDelivery, BringsEveryValueOnceWhileNothingIsDisturbed)
{
    deliver();
    signalSimulator(QString::fromLatin1(kLine), SIGSTOP); // no values before the broker is there
    serve();
    receiver->messageOn("plant/status");
    signalSimulator(QString::fromLatin1(kLine), SIGCONT);
    ASSERT_TRUE(more(500));
    expectNothingIsLost();
    EXPECT_EQ(account.doubles(), 0);
    EXPECT_EQ(account.history(), 0);
    EXPECT_EQ(account.series(kLine).size(), 1u);
    EXPECT_EQ(account.state(), "online");
}

TEST_F(GatewayDelivery, LosesNothingWhenTheBrokerIsKilled)
{
    deliver();
    serve();
    for (const std::size_t values : {30, 200}) { // a moment, a second
        ASSERT_TRUE(received(100)) << log().toStdString();
        killBroker();
        ASSERT_TRUE(more(values));
        restartBroker();
        expectNothingIsLost();
    }
    EXPECT_GT(account.history(), 0);
    EXPECT_LE(account.doubles(), 2 * kWindow);
    EXPECT_EQ(account.series(kLine).size(), 1u);
}

TEST_F(GatewayDelivery, LosesNothingWhenTheBrokerIsKilledInTheMiddleOfAnAcknowledgement)
{
    deliver();
    serve();
    for (const int acknowledgements : {0, 25}) {
        ASSERT_TRUE(received(50)) << log().toStdString();
        const int before = proxy->connections();
        proxy->refuse(true);
        proxy->cutInAcknowledgementAfter(acknowledgements);
        ASSERT_TRUE(until([&] { return proxy->openConnections() == 0; })) << before;
        killBroker();
        ASSERT_TRUE(more(50));
        restartBroker();
        expectNothingIsLost();
    }
    EXPECT_LE(account.doubles(), 2 * kWindow);
}

TEST_F(GatewayDelivery, RepeatsWhatWasNotAcknowledgedAndNoMoreAfterTheNetworkWasCut)
{
    deliver();
    serve();
    ASSERT_TRUE(received(100));
    EXPECT_EQ(account.doubles(), 0);
    proxy->dropAcknowledgements(true);
    ASSERT_TRUE(settle()); // what comes from now on is not acknowledged
    const int before = account.received();
    const std::size_t acknowledged = proxy->acknowledged().size();
    ASSERT_TRUE(received(100));
    proxy->refuse(true);
    proxy->cut();
    proxy->dropAcknowledgements(false);
    ASSERT_TRUE(more(100));
    pump();
    const auto unacknowledged = static_cast<int>(proxy->published().size() - acknowledged);
    proxy->refuse(false);
    expectNothingIsLost();
    EXPECT_GE(account.doubles(), 100) << "the broker's answers were lost, so the gateway must";
    EXPECT_LE(account.doubles(), std::min(kWindow, unacknowledged));
    EXPECT_GT(account.received(), before);
}

TEST_F(GatewayDelivery, StopsSendingAtTheWindowWhenNothingIsAcknowledged)
{
    deliver(40, 0.01);
    serve();
    ASSERT_TRUE(received(100));
    expectNothingIsLost();
    proxy->dropAcknowledgements(true);
    const auto before = static_cast<int>(proxy->published().size());
    ASSERT_TRUE(more(3 * kWindow));
    const int sent = static_cast<int>(proxy->published().size()) - before;
    EXPECT_GT(sent, kWindow / 2);
    EXPECT_LE(sent, kWindow + 50) << "states and statistics besides the values";
    proxy->dropAcknowledgements(false);
    proxy->cut();
    expectNothingIsLost();
    EXPECT_LE(account.doubles(), kWindow);
}

TEST_F(GatewayDelivery, LosesNothingWhenTheNetworkIsHalfOpen)
{
    deliver();
    serve();
    ASSERT_TRUE(received(100));
    const int connections = proxy->connections();
    proxy->stall(true);
    ASSERT_TRUE(until([&] { return proxy->connections() > connections; }))
        << "the gateway did not notice\n"
        << log().toStdString();
    proxy->stall(false);
    expectNothingIsLost();
    EXPECT_LE(account.doubles(), kWindow);
}

TEST_F(GatewayDelivery, LosesNothingWhenTheBrokerStandsStillForAWhile)
{
    deliver();
    serve();
    ASSERT_TRUE(received(100));
    broker.freeze();
    ASSERT_TRUE(more(300));
    broker.thaw();
    expectNothingIsLost();
    EXPECT_LE(account.doubles(), kWindow);
}

TEST_F(GatewayDelivery, SendsHistoryBehindNewValuesAtItsRateAndNeverTheWholeQueueAgain)
{
    historyPerSecond = 150;
    deliver(5, 0.03);
    serve();
    ASSERT_TRUE(received(50));
    proxy->refuse(true);
    proxy->cut();
    ASSERT_TRUE(more(150));
    proxy->refuse(false);
    const int historyBefore = account.history();
    ASSERT_TRUE(until([&] { return account.history() >= historyBefore + 50; }));
    QElapsedTimer timer;
    timer.start();
    // In the middle of its history the gateway is stopped and started.
    EXPECT_EQ(stopGateway(), 0);
    pump();
    const int sent = account.history();
    serve();
    expectNothingIsLost();
    EXPECT_GE(timer.elapsed(), 1000 * (account.history() - sent) / historyPerSecond / 2)
        << "history came faster than its rate";
    EXPECT_LE(account.doubles(), kWindow);
    const int history = account.history();
    const int doubles = account.doubles();
    EXPECT_EQ(stopGateway(), 0);
    serve();
    ASSERT_TRUE(more(100));
    expectNothingIsLost();
    EXPECT_EQ(account.doubles(), doubles) << "an orderly end repeats nothing";
    EXPECT_LT(account.history(), history + 100) << "what was acknowledged is not sent again";
}

TEST_F(GatewayDelivery, DropsTheOldestAndCountsThemWhenTheQueueIsFull)
{
    keepMegabytes = 1;
    deliver(20, 0.015);
    serve();
    ASSERT_TRUE(received(100));
    expectNothingIsLost();
    const std::size_t before = seen.size();
    const std::size_t complete = taken;
    proxy->dropAcknowledgements(true); // the connection stays, so that no pause grows
    ASSERT_TRUE(until([&] {
        const Json status = deliveryStatus();
        return status.contains("flow") && status["flow"]["lost"] > kWindow;
    })) << deliveryStatus().dump();
    ASSERT_TRUE(more(500));
    proxy->dropAcknowledgements(false);
    proxy->cut();
    const std::size_t end = seen.size();
    // The last of what waited came, so all of it did.
    ASSERT_TRUE(until([&] {
        return account.has(kLine, seen[end - 1].name, seen[end - 1].time, seen[end - 1].value);
    })) << deliveryStatus().dump()
        << log().toStdString();
    Json flow;
    ASSERT_TRUE(until([&] {
        flow = deliveryStatus()["flow"];
        return flow["waiting"] <= kOnItsWay &&
               static_cast<std::int64_t>(gaps().size()) <= flow["lost"];
    })) << gaps().size()
        << " are missing\n"
        << flow.dump();
    // What was on its way came, although it is counted.
    EXPECT_LE(flow["lost"].get<std::int64_t>() - static_cast<std::int64_t>(gaps().size()),
              2 * kWindow);
    // The oldest go first: of what was not on its way before the cut, all is missing up to the
    // first message that was still there. More may go behind it until there is room again.
    const std::vector<Number> missing = gaps();
    ASSERT_FALSE(missing.empty());
    EXPECT_LT(static_cast<std::size_t>(missing.front().second), before + 2 * kWindow);
    const Number kept = firstHistoryAfter(complete);
    EXPECT_EQ(kept.first, missing.front().first);
    EXPECT_GT(kept.second - missing.front().second, 0);
    const auto after = std::lower_bound(missing.begin(), missing.end(), kept);
    EXPECT_EQ(after - missing.begin(), kept.second - missing.front().second);
    for (const std::string& fault : account.faults())
        ADD_FAILURE() << fault;
}

TEST_F(GatewayDelivery, LosesNothingWhileTheDiskIsFull)
{
    const SmallDisk disk(path("disk"));
    deliver(10, 0.03, path("disk/queue.sqlite").toStdString());
    serve();
    ASSERT_TRUE(received(100));
    proxy->refuse(true);
    proxy->cut();
    ASSERT_TRUE(more(200)); // these are in the file
    disk.fill();
    ASSERT_TRUE(more(200));
    proxy->refuse(false);
    expectNothingIsLost();
    EXPECT_GE(account.series(kLine).size(), 2u) << "numbers that are not on disk have a series";
    disk.empty();
    ASSERT_TRUE(more(300));
    expectNothingIsLost();
    EXPECT_LE(account.doubles(), kWindow);
    // From the disk again: they outlive the process.
    ASSERT_TRUE(until([&] { return deliveryStatus()["flow"]["state"] == "on disk"; }))
        << deliveryStatus().dump();
}

TEST_F(GatewayDelivery, TakesASmallDiskForItsBoundAndGoesOnByItself)
{
    const SmallDisk disk(path("disk")); // one megabyte, the settings allow 256
    deliver(20, 0.015, path("disk/queue.sqlite").toStdString());
    serve();
    ASSERT_TRUE(received(100));
    proxy->refuse(true);
    proxy->cut();
    Json flow;
    ASSERT_TRUE(until([&] {
        flow = deliveryStatus().value("flow", Json::object());
        return flow.value("lost", 0) > 200 || flow.value("state", "on disk") != "on disk";
    }));
    EXPECT_EQ(flow["state"], "on disk") << flow.dump();
    EXPECT_GT(flow["waiting"], 300) << flow.dump();
    proxy->refuse(false);
    // Until it connects again, after a pause, the oldest go on being dropped.
    ASSERT_TRUE(until([&] { return deliveryStatus()["connection"]["state"] == "connected"; }));
    const std::size_t end = seen.size();
    ASSERT_TRUE(until([&] {
        flow = deliveryStatus()["flow"];
        return account.has(kLine, seen[end - 1].name, seen[end - 1].time, seen[end - 1].value) &&
               flow["waiting"] <= kOnItsWay &&
               static_cast<std::int64_t>(gaps().size()) <= flow["lost"];
    })) << flow.dump()
        << log().toStdString();
    EXPECT_EQ(flow["state"], "on disk") << flow.dump();
    EXPECT_EQ(account.series(kLine).size(), 1u) << "it never had to leave the disk";
    EXPECT_FALSE(gaps().empty());
    for (const std::string& fault : account.faults())
        ADD_FAILURE() << fault;
}

TEST_F(GatewayDelivery, LosesNothingWhenTheClockIsSteppedForthAndBack)
{
    QFile offset(path("offset"));
    ASSERT_TRUE(offset.open(QIODevice::ReadWrite));
    ASSERT_TRUE(offset.resize(sizeof(std::int64_t)));
    auto* seconds = reinterpret_cast<std::int64_t*>(offset.map(0, sizeof(std::int64_t)));
    ASSERT_TRUE(seconds);
    deliver();
    account.setClockSteps();
    hasClockSteps = true;
    serve({"LD_PRELOAD=" STEPPED_CLOCK, "STEPPED_CLOCK_FILE=" + path("offset"),
           "ASAN_OPTIONS=verify_asan_link_order=0"});
    for (const int step : {86400, -7200}) {
        ASSERT_TRUE(more(100));
        // One half of the values waits while the clock is stepped.
        proxy->dropAcknowledgements(true);
        ASSERT_TRUE(more(100));
        *seconds = step;
        ASSERT_TRUE(more(100));
        proxy->dropAcknowledgements(false);
        proxy->cut();
        expectNothingIsLost();
    }
    EXPECT_EQ(account.series(kLine).size(), 1u);
}

TEST_F(GatewayDelivery, SkipsNoNumberWhenItIsKilledAtRandomMoments)
{
    const int kills = 50;
    deliver(5, 0.01);
    std::mt19937 dice(20261122);
    std::size_t sure = 0; // of `seen`: these must come
    for (int i = 0; i < kills; ++i) {
        const int doubles = account.doubles();
        serve();
        if (!received(1 + static_cast<int>(dice() % 60)))
            FAIL() << "nothing came after kill " << i << '\n' << log().toStdString();
        // Every third time the delivering process dies first, or with it.
        if (i % 3 != 0) {
            for (const qint64 process : deliverers())
                ::kill(static_cast<pid_t>(process), SIGKILL);
        }
        if (i % 3 == 1)
            more(dice() % 40);
        killGateway();
        // The broker tells the end of a connection behind all that came from it.
        ASSERT_TRUE(
            until([&] { return proxy->openConnections() == 0 && account.state() == "offline"; }));
        witness.reset();
        EXPECT_LE(account.doubles() - doubles, kWindow) << "after kill " << i;
        // A message is committed before it is sent, and in the order in which it came: so what came
        // before one that the receiver has was on the disk. What came later may have been on its
        // way, between the processes or to the next commit: the kill takes it.
        std::size_t end = seen.size();
        const auto came = [&](const Witnessed& value) {
            return account.has(kLine, value.name, value.time, value.value);
        };
        while (end > sure && !came(seen[end - 1]))
            --end;
        EXPECT_LE(seen.size() - end, 1000u) << "two seconds before kill " << i;
        seen.resize(end);
        sure = end;
    }
    serve();
    ASSERT_TRUE(received(200));
    ASSERT_TRUE(until([&] { return gaps().empty() && lost().empty(); }))
        << gaps().size() << " numbers and " << lost().size() << " values of " << seen.size();
    EXPECT_EQ(account.series(kLine).size(), 1u);
    for (const std::string& fault : account.faults())
        ADD_FAILURE() << fault;
}
