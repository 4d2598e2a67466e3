#include "JsonMessages.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace micro850::gateway;
using Plain = nlohmann::json;
using Json = micro850::host::Json;

namespace {

QueuedMessage message()
{
    QueuedMessage message;
    message.series = 1763818200125;
    message.sequence = 4711;
    message.time = 1795353000125; // 2026-11-22T13:10:00.125Z
    return message;
}

// The object of a value as the protocol of the gateway has it.
Json value(const char* shown)
{
    return Json::parse(std::string(R"({"line": "press", "name": "Level", "station": 1, "tag": "L",
        "element": 0, "type": "REAL", "quality": "good", "time": "2026-11-22T13:09:00.125Z",
        "bytes": "00002642", "unit": "bar", "value": )") +
                       shown + "}");
}

TEST(JsonMessages, TellAValueWithoutWhatTheTopicSays)
{
    EXPECT_EQ(Plain::parse(valueMessage(value("21.5"), message(), Delivery::Live).dump()),
              Plain::parse(R"({"value": 21.5, "time": "2026-11-22T13:09:00.125Z",
                  "quality": "good", "type": "REAL", "unit": "bar", "series": 1763818200125,
                  "sequence": 4711})"));
}

TEST(JsonMessages, MarkWhatWaitedAndWhatIsRepeated)
{
    const Json history = valueMessage(value("1"), message(), Delivery::History);
    EXPECT_EQ(history["history"], true);
    EXPECT_FALSE(history.contains("repeated"));
    const Json repeated = valueMessage(value("1"), message(), Delivery::Repeated);
    EXPECT_EQ(repeated["repeated"], true);
    EXPECT_FALSE(repeated.contains("history"));
    EXPECT_EQ(repeated["sequence"], 4711);
}

// The latest value that the service told when it began anew was never queued.
TEST(JsonMessages, GiveNoSequenceToWhatHasNone)
{
    QueuedMessage remembered = message();
    remembered.sequence = 0;
    const Json told = valueMessage(value("1"), remembered, Delivery::Repeated);
    EXPECT_FALSE(told.contains("sequence"));
    EXPECT_FALSE(told.contains("series"));
}

TEST(JsonMessages, KeepValuesAsTheyAre)
{
    for (const char* const shown :
         {"9223372036854775807", "-9223372036854775808", "18446744073709551615", "0.1", "\"NaN\"",
          "\"-Infinity\"", "null", "true", "[1,2.5,\"x\"]", "3.4028234663852886e+38",
          R"("a\u0000\u001b\n\"b")"})
    {
        const QByteArray text = textOf(valueMessage(value(shown), message(), Delivery::Live));
        const QByteArray expected = QByteArray("{\"value\":") + shown + ",\"time\"";
        EXPECT_TRUE(text.startsWith(expected)) << text.toStdString();
    }
}

TEST(JsonMessages, ReplaceBytesThatAreNoUtf8)
{
    Json broken = value("1");
    broken["value"] = "a\xFF"
                      "b";
    EXPECT_TRUE(textOf(valueMessage(broken, message(), Delivery::Live))
                    .startsWith("{\"value\":\"a\xEF\xBF\xBD"
                                "b\","));
}

TEST(JsonMessages, TellWhyThereIsNoValue)
{
    Json never = value("null");
    never["type"] = nullptr;
    never["time"] = nullptr;
    never["quality"] = "never";
    never["error"] = "station 1 does not answer";
    const Json told = valueMessage(never, message(), Delivery::Live);
    EXPECT_TRUE(told["value"].is_null());
    EXPECT_TRUE(told["time"].is_null());
    EXPECT_EQ(told["quality"], "never");
    EXPECT_EQ(told["error"], "station 1 does not answer");
}

TEST(JsonMessages, TellAnEventAndAState)
{
    const Json event = eventMessage(Json::parse(R"({"state": "dead", "text": "no answer"})"),
                                    message(), Delivery::History);
    EXPECT_EQ(Plain::parse(event.dump()),
              Plain::parse(R"({"time": "2026-11-22T13:10:00.125Z", "state": "dead",
                  "text": "no answer", "series": 1763818200125, "sequence": 4711,
                  "history": true})"));
    DeliveryEvent state;
    state.time = 1795353000125;
    state.state = "up";
    state.text = "/dev/ttyS0: up";
    EXPECT_EQ(Plain::parse(stateMessage(state).dump()),
              Plain::parse(R"({"time": "2026-11-22T13:10:00.125Z", "state": "up",
                  "text": "/dev/ttyS0: up"})"));
}

} // namespace
