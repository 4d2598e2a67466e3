#include "Protocol.h"

#include "Message.h"

#include <gtest/gtest.h>

#include <limits>

using namespace micro850;
using namespace micro850::host;

namespace {

GatewayValue level()
{
    GatewayValue value;
    value.line = QStringLiteral("press");
    value.name = QStringLiteral("Level");
    value.station = 2;
    value.tag = QStringLiteral("_LEVEL");
    value.element = 3;
    value.type = &cipTypeNamed("LINT");
    value.bytes = QByteArray::fromHex("ffffffffffffff7f");
    value.value = Json(std::numeric_limits<std::int64_t>::max());
    value.unit = QStringLiteral("m³");
    value.quality = Quality::Good;
    value.time = 1795354200125;
    return value;
}

} // namespace

TEST(GatewayValue, IsWrittenWithItsKeysAndExactIntegers)
{
    EXPECT_EQ(encoded(level()),
              "{\"line\":\"press\",\"name\":\"Level\",\"station\":2,\"tag\":\"_LEVEL\",\"element\":"
              "3,\"type\":\"LINT\",\"value\":9223372036854775807,\"quality\":\"good\",\"time\":"
              "\"2026-11-22T13:30:00.125Z\",\"bytes\":\"ffffffffffffff7f\",\"unit\":\"m³\"}");
}

TEST(GatewayValue, HasTheSameTextHoweverItIsEncoded)
{
    GatewayValue never;
    never.line = QStringLiteral("a\"b\\c\n\x7F");
    never.name = QStringLiteral("\u202E");
    never.error = QStringLiteral("the station\tis dead");
    GatewayValue several = level();
    several.value = Json::parse("[1.5, true, \"a\\u0000b\", -1]");
    for (const GatewayValue& value : {level(), never, several})
        EXPECT_EQ(encoded(value).toStdString(), jsonOf(value).dump());
}

TEST(GatewayValue, ComesBackFromItsTextAsItWas)
{
    GatewayValue stale = level();
    stale.quality = Quality::Stale;
    stale.error = QStringLiteral("nobody answers");
    stale.time = std::nullopt;
    for (const GatewayValue& value : {level(), GatewayValue(), stale}) {
        const GatewayValue back = gatewayValueOf(jsonOf(messageIn(encoded(value), "value")));
        EXPECT_EQ(encoded(back), encoded(value));
    }
}

TEST(GatewayValue, IsRefusedWithTheKeyThatIsWrong)
{
    const auto complaint = [](const char* key, const Json& wrong) {
        Json object = jsonOf(level());
        object[key] = wrong;
        try {
            gatewayValueOf(object);
        } catch (const UserError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    for (const char* key : {"line", "name", "tag", "type", "bytes", "unit", "quality", "time"})
        EXPECT_NE(complaint(key, 5).find(key), std::string::npos) << key;
    EXPECT_NE(complaint("station", -1).find("station"), std::string::npos);
    EXPECT_NE(complaint("element", "2").find("element"), std::string::npos);
    EXPECT_NE(complaint("bytes", "0g").find("hexadecimal"), std::string::npos);
    EXPECT_NE(complaint("bytes", "0").find("hexadecimal"), std::string::npos);
    EXPECT_NE(complaint("time", "2026-11-31T13:30:00.125Z").find("no time"), std::string::npos);
    EXPECT_NE(complaint("time", "2026-11-22 13:30:00.125Z").find("no time"), std::string::npos);
}

TEST(TimeText, IsUtcWithMillisecondsAlsoBefore1970)
{
    EXPECT_EQ(timeText(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(timeText(-1), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(timeText(951782400000), "2000-02-29T00:00:00.000Z");
    for (const qint64 time : {0LL, -1LL, 951782400000LL, 1795354200125LL, 253402300799999LL})
        EXPECT_EQ(timeOf(timeText(time)), time);
}

TEST(Message, RefusesWhatIsNoObjectAndNamesThePlace)
{
    const auto complaint = [](const QByteArray& line) {
        try {
            messageIn(line, "request");
        } catch (const UserError& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(complaint("{}"), "");
    EXPECT_EQ(complaint("[1]"), "request: [1] is not an object { ... }");
    EXPECT_EQ(complaint(""), "request: is empty (a JSON object is expected)");
    EXPECT_NE(complaint("{\"a\":1,\"a\":2}").find("given twice"), std::string::npos);
    EXPECT_NE(complaint(QByteArray(1000, '[')).find("nested"), std::string::npos);
    EXPECT_NE(complaint(QByteArray("{\0}", 3)).find("byte 00"), std::string::npos);
    EXPECT_NE(complaint("{\"a\":\"\xFF\"}"), "");
}

TEST(Message, IsALineAndAnErrorHasCodeAndText)
{
    EXPECT_EQ(lineOf(replyTo(1, "read")), "{\"id\":1,\"reply\":\"read\"}\n");
    EXPECT_EQ(lineOf(errorReply("a", errorcode::kBusy, "two\nlines")),
              "{\"id\":\"a\",\"error\":{\"code\":\"busy\",\"text\":\"two\\nlines\"}}\n");
    EXPECT_EQ(lineOf(errorReply(Json(), errorcode::kRefused, "x", 3)),
              "{\"id\":null,\"error\":{\"code\":\"refused\",\"text\":\"x\",\"element\":3}}\n");
}
