#include "Orders.h"

#include "UserError.h"

#include <QtCore/QSet>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <stdexcept>

using namespace micro850;
using namespace micro850::gateway;
using Plain = nlohmann::json;

namespace {

const qint64 kNow = 1795353000125; // 2026-11-22T13:10:00.125Z
const int kMaximumAgeMs = 10000;

/// A service that keeps the writes that it is asked for.
class FakeNeeds : public PublisherNeeds
{
public:
    const Clock& clock() const override { return virtualClock; }
    const WallClock& wallClock() const override { return wall; }
    DeliveryFlow& flow() override { throw std::logic_error("not for orders"); }
    DeliveryQueue& queue() override { throw std::logic_error("not for orders"); }
    void write(const Order& order, const std::function<void(const host::Json&)>& answer) override
    {
        orders.push_back(order);
        answers.push_back(answer);
        if (answersAtOnce)
            answer({{"outcome", "written"}});
    }
    void warn(const QString& kind, const QString& text) override
    {
        ++warned[kind];
        warnings.append(text);
    }
    void note(const QString&) override {}

    VirtualClock virtualClock;
    SettableWallClock wall{kNow};
    bool answersAtOnce = false;
    std::vector<Order> orders;
    std::vector<std::function<void(const host::Json&)>> answers;
    QMap<QString, int> warned;
    QStringList warnings;
};

class OrdersTest : public ::testing::Test
{
protected:
    OrdersTest()
    {
        add("Level", "REAL");
        add("Count", "LINT");
        add("Label", "STRING");
        add("Ready", nullptr);
    }
    void add(const QString& name, const char* type)
    {
        CatalogueVariable variable;
        variable.line = "press";
        variable.name = name;
        variable.type = type ? &cipTypeNamed(type) : nullptr;
        variable.isWritable = true;
        variables.insert("p/press/1/" + name.toUtf8(), variable);
    }
    static MqttMessage order(const QByteArray& name, const QByteArray& payload)
    {
        MqttMessage message;
        message.topic = "p/press/1/" + name + "/set";
        message.payload = payload;
        return message;
    }
    void give(const QByteArray& name, const QByteArray& payload)
    {
        orders.handle(order(name, payload));
    }
    Plain lastResult() const
    {
        return results.empty() ? Plain() : Plain::parse(results.back().payload.toStdString());
    }
    /// What the service was asked to write last, as JSON.
    std::string lastValue() const { return needs.orders.back().value.dump(); }

    QHash<QByteArray, CatalogueVariable> variables;
    FakeNeeds needs;
    std::vector<MqttMessage> results;
    Orders orders{"p", kMaximumAgeMs, needs,
                  [this](const QByteArray& topic) {
                      const auto found = variables.constFind(topic);
                      return found == variables.constEnd() ? nullptr : &*found;
                  },
                  [this](const MqttMessage& result) { results.push_back(result); }};
};

TEST_F(OrdersTest, PassABareValueOn)
{
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"21.5", "21.5"},   {" 42\n", "42"},    {"-7", "-7"},         {"true", "true"},
        {"false", "false"}, {"\"x\"", "\"x\""}, {"0x1F", "\"0x1F\""}, {"hello", "\"hello\""},
        {"NaN", "\"NaN\""}, {"1e3", "1000.0"},  {"null", "null"},     {"[1, 2]", "[1,2]"},
        {"007", "\"007\""},
    };
    for (const auto& [payload, value] : cases) {
        give("Level", payload);
        EXPECT_EQ(lastValue(), value) << payload;
        needs.answers.back()({{"outcome", "written"}});
    }
    EXPECT_EQ(needs.orders.size(), cases.size());
    EXPECT_EQ(needs.orders.front().line, "press");
    EXPECT_EQ(needs.orders.front().name, "Level");
    EXPECT_EQ(needs.orders.front().element, 0);
}

TEST_F(OrdersTest, KeepIntegersOf64BitsExact)
{
    for (const char* const number : {"9223372036854775807", "-9223372036854775808",
                                     "18446744073709551615", "9007199254740993"})
    {
        give("Count", number);
        EXPECT_EQ(lastValue(), number);
        give("Count", QByteArray(R"({"value": )") + number + "}");
        EXPECT_EQ(lastValue(), number);
        needs.answers[needs.answers.size() - 1]({{"outcome", "written"}});
        needs.answers[needs.answers.size() - 2]({{"outcome", "written"}});
    }
}

TEST_F(OrdersTest, TakeABareTextOfATextVariableAsItIs)
{
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"42", "42"},
        {"true", "true"},
        {" hello \n", " hello \n"},
        {"\"quoted\"", "quoted"},
        {"a \"b\"", "a \"b\""},
        {"[1]", "[1]"},
        {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9"},
        {" ", " "},
    };
    for (const auto& [payload, value] : cases) {
        give("Label", payload);
        EXPECT_EQ(needs.orders.back().value, value) << payload;
        needs.answers.back()({{"outcome", "written"}});
    }
    EXPECT_EQ(needs.orders.size(), cases.size());
}

TEST_F(OrdersTest, PassTheElementOfAnObjectOnAndEchoItsId)
{
    give("Level", R"({"value": 4, "element": 3, "id": "order 1"})");
    ASSERT_EQ(needs.orders.size(), 1U);
    EXPECT_EQ(lastValue(), "4");
    EXPECT_EQ(needs.orders.front().element, 3);
    EXPECT_TRUE(results.empty());
    needs.answers.front()({{"reply", "write"},
                           {"outcome", "written"},
                           {"old", 3},
                           {"value", 4},
                           {"bytes", "00"},
                           {"verified", true}});
    EXPECT_EQ(lastResult(), Plain::parse(R"({"outcome": "written", "old": 3, "value": 4,
        "verified": true, "element": 3, "id": "order 1", "time": "2026-11-22T13:10:00.125Z"})"));
    EXPECT_EQ(results.back().topic, "p/press/1/Level/result");
    EXPECT_FALSE(results.back().isRetained);
    EXPECT_EQ(results.back().qos, 1);
}

TEST_F(OrdersTest, EchoCorrelationDataAndTellWhatTheRulesRefused)
{
    MqttMessage message = order("Level", "900");
    message.correlation = QByteArray("\x00\xFF\x01", 3);
    orders.handle(message);
    needs.answers.front()(
        {{"error", {{"code", "not-allowed"}, {"text", "Level: 900 is outside its limits"}}}});
    EXPECT_EQ(results.back().correlation, QByteArray("\x00\xFF\x01", 3));
    EXPECT_EQ(lastResult()["outcome"], "not-allowed");
    EXPECT_EQ(lastResult()["text"], "Level: 900 is outside its limits");
    EXPECT_EQ(needs.warned, (QMap<QString, int>{{"order: not-allowed", 1}}));
}

TEST_F(OrdersTest, RefuseWhatIsMalformed)
{
    const std::vector<QByteArray> payloads = {
        "",
        " \n",
        "{",
        "{}",
        R"({"value": 1)",
        R"({"value": 1, "value": 2})",
        R"({"value": 1, "elemnt": 2})",
        R"({"value": 1, "element": -1})",
        R"({"value": 1, "element": 1.5})",
        R"({"value": 1, "element": 65536})",
        R"({"value": 1, "id": {}})",
        R"({"value": 1, "id": ")" + QByteArray(129, 'x') + "\"}",
        R"({"value": 1, "time": "yesterday"})",
        R"({"value": 1, "time": "2026-11-22T13:10:00"})",
        R"({"value": 1, "time": -1})",
        R"({"value": 1, "time": 1e3})",
        R"({"value": 1, "time": null})",
        "\"open",
        "\xFF\xFE",
        "abc\xC3",
        QByteArray(64 * 1024 + 1, '1'),
        QByteArray(10 * 1024 * 1024, '{'),
        "{\"value\": " + QByteArray(60000, '[') + "}",
    };
    for (const QByteArray& payload : payloads) {
        results.clear();
        give("Level", payload);
        ASSERT_EQ(results.size(), 1U) << payload.left(60).toStdString();
        EXPECT_EQ(lastResult()["outcome"], "bad-request") << payload.left(60).toStdString();
        EXPECT_FALSE(lastResult()["text"].get<std::string>().empty());
        EXPECT_LT(results.back().payload.size(), 2000);
    }
    EXPECT_TRUE(needs.orders.empty());
    EXPECT_EQ(needs.warned.value("order: bad-request"), static_cast<int>(payloads.size()));
}

TEST_F(OrdersTest, TellWhichElementIsMeantWhenTheVariableHasSeveral)
{
    variables["p/press/1/Level"].length = 20;
    for (const char* const order : {"78", R"({"value": 78})", R"({"value": [1, 2], "id": 4})"}) {
        give("Level", order);
        const Plain result = lastResult();
        EXPECT_EQ(result["outcome"], "bad-request") << order;
        EXPECT_EQ(result["text"], R"(the variable has 20 elements and an order writes one: write )"
                                  R"({"value": ..., "element": 0}, with an element from 0 to 19)");
    }
    EXPECT_TRUE(needs.orders.empty());
    give("Level", R"({"value": 78, "element": 0})");
    give("Level", R"({"value": 78, "element": 19})");
    ASSERT_EQ(needs.orders.size(), 2U);
    EXPECT_EQ(needs.orders[0].element, 0);
    EXPECT_EQ(needs.orders[1].element, 19);
}

TEST_F(OrdersTest, NameTheStationThatTheirTopicNames)
{
    variables["p/press/1/Level"].station = 1;
    variables.insert("p/press/2/Level", variables["p/press/1/Level"]);
    variables["p/press/2/Level"].station = 2;
    MqttMessage message = order("Level", "5");
    message.topic = "p/press/2/Level/set";
    orders.handle(message);
    give("Level", "5");
    ASSERT_EQ(needs.orders.size(), 2U);
    EXPECT_EQ(needs.orders[0].station, 2);
    EXPECT_EQ(needs.orders[1].station, 1);
}

TEST_F(OrdersTest, EchoTheIdOfAnOrderThatIsMalformedOtherwise)
{
    give("Level", R"({"id": 18446744073709551615, "valu": 1})");
    EXPECT_EQ(lastResult()["id"].dump(), "18446744073709551615");
    EXPECT_EQ(lastResult()["outcome"], "bad-request");
}

TEST_F(OrdersTest, RefuseWhatIsRetainedWhateverItSays)
{
    for (const char* const payload : {"1", "{", R"({"value": 1, "id": 3})"}) {
        MqttMessage message = order("Level", payload);
        message.isRetained = true;
        orders.handle(message);
        EXPECT_EQ(lastResult()["outcome"], "retained") << payload;
    }
    EXPECT_EQ(lastResult()["id"], 3);
    EXPECT_TRUE(needs.orders.empty());
}

// That is how somebody makes the broker forget a retained order.
TEST_F(OrdersTest, AreNotWhatIsRetainedAndEmpty)
{
    MqttMessage message = order("Level", "");
    message.isRetained = true;
    orders.handle(message);
    EXPECT_TRUE(results.empty());
    EXPECT_EQ(orders.status()["received"], 0);
}

TEST_F(OrdersTest, RefuseATopicOfNoVariable)
{
    give("Nothing", "1");
    EXPECT_EQ(results.back().topic, "p/press/1/Nothing/result");
    EXPECT_EQ(lastResult()["outcome"], "unknown-name");
    MqttMessage message;
    message.topic = "other/set";
    message.payload = "1";
    orders.handle(message);
    EXPECT_EQ(results.size(), 1U);
    EXPECT_EQ(needs.warned.value("order: topic"), 1);
    EXPECT_TRUE(needs.orders.empty());
}

TEST_F(OrdersTest, TakeWhatIsAsOldAsItMayBeAndRefuseWhatIsOlder)
{
    needs.answersAtOnce = true;
    give("Level", R"({"value": 1, "time": "2026-11-22T13:09:50.125Z"})");
    give("Level", R"({"value": 2, "time": "2026-11-22T13:10:10.125Z"})");
    give("Level", R"({"value": 3, "time": "2026-11-22T13:10:00Z"})");
    give("Level", R"({"value": 4, "time": 1795353000125})");
    EXPECT_EQ(needs.orders.size(), 4U);
    EXPECT_EQ(results.size(), 4U);
    give("Level", R"({"value": 5, "time": "2026-11-22T13:09:50.124Z"})");
    EXPECT_EQ(lastResult()["outcome"], "expired");
    EXPECT_EQ(lastResult()["text"], "the order is 10.0 s old, the limit is 10.0 s (its time is "
                                    "2026-11-22T13:09:50.124Z, here it is "
                                    "2026-11-22T13:10:00.125Z)");
    give("Level", R"({"value": 6, "time": "2026-11-22T13:10:10.126Z", "id": 6})");
    EXPECT_EQ(lastResult()["outcome"], "expired");
    EXPECT_EQ(lastResult()["id"], 6);
    EXPECT_NE(lastResult()["text"].get<std::string>().find("compare the clocks"),
              std::string::npos);
    give("Level", R"({"value": 7, "time": 1795353000})"); // in seconds
    EXPECT_EQ(lastResult()["outcome"], "expired");
    EXPECT_NE(lastResult()["text"].get<std::string>().find(
                  " (its time is 1970-01-21T18:42:33.000Z, here it is 2026-11-22T13:10:00.125Z: is "
                  "it in milliseconds since 1970?)"),
              std::string::npos)
        << lastResult();
    results.clear();
    give("Level", R"({"value": 7, "time": 0})");
    give("Level", R"({"value": 8, "time": "9999-12-31T23:59:59.999Z"})");
    EXPECT_EQ(needs.orders.size(), 4U);
    EXPECT_EQ(results.size(), 2U);
}

TEST_F(OrdersTest, RefuseAMessageWhoseExpiryIsOver)
{
    MqttMessage message = order("Level", "1");
    message.expirySeconds = 0;
    orders.handle(message);
    EXPECT_EQ(lastResult()["outcome"], "expired");
    message.expirySeconds = 1;
    orders.handle(message);
    EXPECT_EQ(needs.orders.size(), 1U);
}

TEST_F(OrdersTest, WaitForTheLineAndAreRefusedWhenTheyWaitedTooLong)
{
    for (int i = 0; i < Orders::kMostUnderWay + 2; ++i)
        give("Level", QByteArray::number(i));
    EXPECT_EQ(needs.orders.size(), 2U);
    needs.answers[0]({{"outcome", "written"}});
    orders.tick();
    ASSERT_EQ(needs.orders.size(), 3U);
    EXPECT_EQ(lastValue(), "2");
    needs.virtualClock.advance(std::chrono::milliseconds(kMaximumAgeMs));
    orders.tick();
    EXPECT_EQ(results.size(), 1U);
    needs.virtualClock.advance(std::chrono::milliseconds(1));
    needs.answers[1]({{"outcome", "written"}});
    orders.tick();
    EXPECT_EQ(needs.orders.size(), 3U);
    EXPECT_EQ(lastResult()["outcome"], "expired");
}

TEST_F(OrdersTest, WaitNoLongerThanTheirExpiryOrTheirTimeAllows)
{
    for (int i = 0; i < Orders::kMostUnderWay; ++i)
        give("Level", "1");
    MqttMessage message = order("Level", "2");
    message.expirySeconds = 3;
    orders.handle(message);
    give("Level", R"({"value": 3, "time": "2026-11-22T13:09:55.125Z"})");
    needs.virtualClock.advance(std::chrono::milliseconds(3001));
    orders.tick();
    EXPECT_EQ(results.size(), 1U);
    needs.virtualClock.advance(std::chrono::milliseconds(2000));
    orders.tick();
    EXPECT_EQ(results.size(), 2U);
    EXPECT_EQ(lastResult()["outcome"], "expired");
}

TEST_F(OrdersTest, AreRefusedWhenTheEndOfTheMessageIsMissing)
{
    MqttMessage message = order("Level", "57");
    message.isCut = true;
    message.correlation = "me";
    orders.handle(message);
    EXPECT_TRUE(needs.orders.empty());
    EXPECT_EQ(lastResult()["outcome"], "bad-request");
    EXPECT_EQ(results.back().correlation, "me");
    message.payload.clear();
    message.isRetained = true;
    orders.handle(message);
    EXPECT_EQ(results.size(), 2U);
    EXPECT_EQ(lastResult()["outcome"], "retained");
    EXPECT_TRUE(needs.orders.empty());
}

TEST_F(OrdersTest, CountTheirAgeFromWhenTheyCame)
{
    MqttMessage message = order("Level", "2");
    message.expirySeconds = 3;
    message.waited = std::chrono::milliseconds(2000);
    orders.handle(message);
    ASSERT_EQ(needs.orders.size(), 1U);
    EXPECT_EQ(needs.orders.back().withinMs, 1001);
    message.waited = std::chrono::milliseconds(3001);
    orders.handle(message);
    EXPECT_EQ(needs.orders.size(), 1U);
    EXPECT_EQ(lastResult()["outcome"], "expired");
    message.expirySeconds.reset();
    message.waited = std::chrono::milliseconds(kMaximumAgeMs + 1);
    orders.handle(message);
    EXPECT_EQ(needs.orders.size(), 1U);
    EXPECT_EQ(results.size(), 2U);
    EXPECT_EQ(lastResult()["text"], "it waited too long until the gateway could read it");
}

TEST_F(OrdersTest, TellTheServiceHowLongTheyMayWaitThere)
{
    give("Level", R"({"value": 3, "time": "2026-11-22T13:09:55.125Z"})");
    EXPECT_EQ(needs.orders.back().withinMs, 5001);
    MqttMessage message = order("Level", "2");
    message.expirySeconds = 3;
    orders.handle(message);
    EXPECT_EQ(needs.orders.back().withinMs, 3001);
    needs.answers.back()({{"error", {{"code", "cancelled"}, {"text", "it was taken back"}}}});
    EXPECT_EQ(lastResult()["outcome"], "expired");
    EXPECT_EQ(lastResult()["text"], "it waited too long for the line");
}

TEST_F(OrdersTest, AreRefusedWhenTooManyWait)
{
    const int kTaken = Orders::kMostUnderWay + Orders::kMostWaiting;
    for (int i = 0; i < kTaken; ++i)
        give("Level", "1");
    EXPECT_TRUE(results.empty());
    give("Level", "1");
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(lastResult()["outcome"], "busy");
    EXPECT_EQ(orders.status()["waiting"], 256);
    EXPECT_EQ(orders.status()["received"], kTaken + 1);
    EXPECT_EQ(orders.status()["outcomes"]["busy"], 1);
}

TEST_F(OrdersTest, AreCarriedOutOnceWhenTheSameComesTwice)
{
    const QByteArray payload = R"({"value": 1, "id": "a", "time": "2026-11-22T13:10:00.000Z"})";
    MqttMessage message = order("Level", payload);
    message.correlation = "first";
    orders.handle(message);
    message.correlation = "second";
    orders.handle(message); // while it is carried out
    ASSERT_EQ(needs.orders.size(), 1U);
    needs.answers.front()({{"outcome", "written"}, {"value", 1}});
    ASSERT_EQ(results.size(), 2U);
    message.correlation = "third";
    orders.handle(message); // after that
    EXPECT_EQ(needs.orders.size(), 1U);
    ASSERT_EQ(results.size(), 3U);
    QSet<QByteArray> correlations;
    for (const MqttMessage& result : results) {
        correlations.insert(result.correlation);
        const Plain content = Plain::parse(result.payload.toStdString());
        EXPECT_EQ(content["outcome"], "written");
        EXPECT_EQ(content["id"], "a");
    }
    EXPECT_EQ(correlations, (QSet<QByteArray>{"first", "second", "third"}));
    give("Count", payload); // another variable
    EXPECT_EQ(needs.orders.size(), 2U);
}

// Nothing tells whether it is the same order or another one.
TEST_F(OrdersTest, AreCarriedOutEachTimeWithoutAnIdOrATime)
{
    needs.answersAtOnce = true;
    for (const char* const payload :
         {"1", R"({"value": 1, "id": 7})", R"({"value": 1, "time": 1795353000125})"})
    {
        give("Level", payload);
        give("Level", payload);
    }
    EXPECT_EQ(needs.orders.size(), 6U);
}

TEST_F(OrdersTest, RememberAnOrderNoLongerThanItCouldBeCarriedOut)
{
    const QByteArray payload = R"({"value": 1, "id": 1, "time": "2026-11-22T13:10:10.000Z"})";
    give("Level", payload);
    needs.answers.front()({{"outcome", "written"}});
    needs.virtualClock.advance(std::chrono::milliseconds(2 * kMaximumAgeMs));
    needs.wall.advance(2 * kMaximumAgeMs);
    give("Level", payload);
    EXPECT_EQ(needs.orders.size(), 1U);
    needs.virtualClock.advance(std::chrono::milliseconds(1));
    needs.wall.advance(1);
    orders.tick();
    give("Level", payload);
    EXPECT_EQ(needs.orders.size(), 1U);
    EXPECT_EQ(lastResult()["outcome"], "expired");
}

TEST_F(OrdersTest, TakeAnAnswerThatComesAfterTheirEnd)
{
    auto short_lived = std::make_unique<Orders>(
        "p", kMaximumAgeMs, needs, [this](const QByteArray&) { return &*variables.constBegin(); },
        [this](const MqttMessage& result) { results.push_back(result); });
    short_lived->handle(order("Level", "1"));
    ASSERT_EQ(needs.answers.size(), 1U);
    short_lived.reset();
    needs.answers.front()({{"outcome", "written"}});
    EXPECT_TRUE(results.empty());
}

} // namespace
