#include "WriteRules.h"

#include "Message.h"
#include "UserError.h"
#include "fake_lines.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::test;

namespace {

const char kProject[] = R"({
  "port": {"device": "/dev/ttyS0"},
  "variables": [
    {"name": "Speed", "tag": "SPEED", "type": "INT", "writable": true, "minimum": 0, "maximum": 100},
    {"name": "Locked", "tag": "LOCKED", "type": "INT"},
    {"name": "Level", "tag": "LEVEL", "type": "REAL", "writable": true, "minimum": 0.1, "maximum": 1.1},
    {"name": "Heat", "tag": "HEAT", "type": "INT", "gain": 0.1, "offset": -10, "writable": true,
     "minimum": -5, "maximum": 20},
    {"name": "Count", "tag": "COUNT", "type": "LINT", "writable": true,
     "minimum": -9007199254740993, "maximum": 9007199254740993},
    {"name": "Rare", "tag": "RARE", "type": "DINT", "writable": true, "writesPerMinute": 2},
    {"name": "Unknown", "tag": "UNKNOWN", "writable": true, "minimum": 0, "maximum": 10},
    {"name": "List", "tag": "LIST", "type": "INT", "element": 10, "length": 3, "writable": true,
     "maximum": 5},
    {"name": "Free", "tag": "FREE", "type": "REAL", "writable": true},
    {"name": "Text", "tag": "TEXT", "type": "SHORT_STRING", "writable": true},
    {"name": "Flag", "tag": "FLAG", "writable": true, "maximum": 0},
    {"name": "Bits", "tag": "BITS", "writable": true, "maximum": 127},
    {"name": "Valves", "tag": "VALVE", "type": "INT", "length": 4, "writable": true},
    {"name": "Inlet", "tag": "VALVE", "type": "INT", "element": 2, "writable": true, "maximum": 50,
     "writesPerMinute": 1},
    {"name": "Share", "tag": "VALVE", "type": "INT", "element": 3, "gain": 0.01, "writable": true},
    {"name": "Shown", "tag": "VALVE", "type": "INT", "maximum": 3}
  ]})";

class WriteRulesTest : public testing::Test
{
protected:
    // The reply to a write; null when it waits for the line.
    Json write(const Json& request)
    {
        Json full = {{"request", "write"}, {"id", 1}};
        full.update(request);
        const JsonNode message = host::messageIn(host::lineOf(full), "request");
        Json got;
        last = rules.write({1000, 4711, "tester"}, WriteRequest::fromMessage(message),
                           [shared = reply](const Json& answer) { *shared = answer; });
        got = *reply;
        *reply = Json();
        return got;
    }
    std::string codeOf(const Json& request)
    {
        const Json got = write(request);
        return got.contains("error") ? got["error"]["code"].get<std::string>() : "";
    }
    // The bytes that go to the controller, which answers that they are written.
    std::string sent(const Json& request)
    {
        EXPECT_TRUE(write(request).is_null()) << request.dump();
        if (lines.asked.isEmpty())
            return "nothing";
        const Json asked = lines.asked.first().request;
        EXPECT_EQ(asked["request"], "write");
        lines.answer({{"reply", "write"},
                      {"outcome", "written"},
                      {"old", 1},
                      {"value", 2},
                      {"verified", true}});
        EXPECT_EQ(reply->value("outcome", ""), "written");
        *reply = Json();
        return asked["bytes"].get<std::string>();
    }

    std::shared_ptr<Json> reply = std::make_shared<Json>();
    FakeLines lines{{lineOfProject("press", kProject)}};
    VirtualClock clock;
    SettableWallClock wall{1795354200000};
    WriteRules rules{lines, clock, wall};
    qint64 last = 0;
};

} // namespace

TEST_F(WriteRulesTest, SendTheBytesOfAValueAndAnswerWhenItIsReadBack)
{
    EXPECT_EQ(sent({{"name", "Speed"}, {"value", 100}}), "6400");
    ASSERT_EQ(lines.journal.size(), 1);
    const JournalEntry& entry = lines.journal.first();
    EXPECT_EQ(entry.time, 1795354200000);
    EXPECT_EQ(entry.uid, 1000);
    EXPECT_EQ(entry.pid, 4711);
    EXPECT_EQ(entry.client, "tester");
    EXPECT_EQ(entry.line, "press");
    EXPECT_EQ(entry.name, "Speed");
    EXPECT_EQ(entry.element, 0);
    EXPECT_EQ(entry.oldValue, Json(1));
    EXPECT_EQ(entry.newValue, Json(100));
    EXPECT_EQ(entry.outcome, "written");
    EXPECT_EQ(entry.error, "");
}

TEST_F(WriteRulesTest, RefuseWhatIsNotDeclaredWritableAndSaySo)
{
    lines.setValue(0, 1, "INT", 7);
    const Json got = write({{"name", "Locked"}, {"value", 1}});
    EXPECT_EQ(got["error"]["code"], "not-allowed");
    EXPECT_NE(got["error"]["text"].get<std::string>().find("\"writable\": true"),
              std::string::npos);
    EXPECT_TRUE(lines.asked.isEmpty());
    ASSERT_EQ(lines.journal.size(), 1);
    EXPECT_EQ(lines.journal.first().outcome, "not-allowed");
    EXPECT_EQ(lines.journal.first().oldValue, Json(7));
    EXPECT_EQ(lines.journal.first().newValue, Json(1));
    EXPECT_FALSE(lines.journal.first().error.isEmpty());
}

TEST_F(WriteRulesTest, RecordOnlyTheBeginningOfWhatIsTooLongForAnyValue)
{
    EXPECT_EQ(codeOf({{"name", "Text"}, {"value", std::string(60000, 'x')}}), "bad-request");
    EXPECT_LT(lines.journal.last().newValue.dump().size(), 2000U);
    EXPECT_EQ(codeOf({{"name", "Text"}, {"bytes", std::string(60000, 'a')}}), "bad-request");
    EXPECT_LT(lines.journal.last().newValue.dump().size(), 2000U);
    EXPECT_EQ(codeOf({{"name", "Locked"}, {"value", std::string(255, 'x')}}), "not-allowed");
    EXPECT_EQ(lines.journal.last().newValue, Json(std::string(255, 'x')));
}

TEST_F(WriteRulesTest, KeepNumbersWithinTheirLimits)
{
    EXPECT_EQ(sent({{"name", "Speed"}, {"value", 0}}), "0000");
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"value", 101}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"value", -1}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"value", "101"}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"bytes", "6500"}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"bytes", "ffff"}}), "not-allowed");
    EXPECT_EQ(sent({{"name", "Speed"}, {"bytes", "6400"}}), "6400");
    EXPECT_EQ(sent({{"name", "Speed"}, {"value", 1e2}}), "6400");
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WriteRulesTest, CompareARealAsItIsShown)
{
    EXPECT_EQ(sent({{"name", "Level"}, {"value", 0.1}}), "cdcccc3d");
    EXPECT_EQ(sent({{"name", "Level"}, {"value", 1.1}}), "cdcc8c3f");
    EXPECT_EQ(codeOf({{"name", "Level"}, {"value", 1.1000001}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Level"}, {"value", 0.0999999}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Level"}, {"value", "1e300"}}), "bad-request");
}

TEST_F(WriteRulesTest, CompareScaledNumbersAsTheyAreShown)
{
    EXPECT_EQ(sent({{"name", "Heat"}, {"value", 20}}), "2c01");   // (20 + 10) / 0.1 = 300
    EXPECT_EQ(sent({{"name", "Heat"}, {"value", -5.0}}), "3200"); // 50
    EXPECT_EQ(codeOf({{"name", "Heat"}, {"value", 20.1}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Heat"}, {"value", 20.01}}), "not-allowed")
        << "it would be rounded to the limit";
    EXPECT_EQ(codeOf({{"name", "Heat"}, {"bytes", "2d01"}}), "not-allowed");
    EXPECT_EQ(lines.journal.last().newValue, Json(20.1));
}

TEST_F(WriteRulesTest, CompareNumbersOf64BitsExactly)
{
    EXPECT_EQ(sent({{"name", "Count"}, {"value", 9007199254740993}}), "0100000000002000");
    EXPECT_EQ(codeOf({{"name", "Count"}, {"value", 9007199254740994}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Count"}, {"value", -9007199254740994}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Count"}, {"value", 18446744073709551615U}}), "bad-request");
}

TEST_F(WriteRulesTest, RefuseNanAlsoWithoutLimits)
{
    EXPECT_EQ(codeOf({{"name", "Free"}, {"bytes", "0000c07f"}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Level"}, {"bytes", "0000c07f"}}), "not-allowed");
    EXPECT_NE(codeOf({{"name", "Free"}, {"value", "nan"}}), "");
    EXPECT_EQ(codeOf({{"name", "Level"}, {"bytes", "0000807f"}}), "not-allowed") << "infinity";
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WriteRulesTest, ApplyLimitsToBitsAndFlagsAsNumbers)
{
    lines.setValue(0, 10, "BOOL", true);
    lines.setValue(0, 11, "BYTE", 1);
    EXPECT_EQ(sent({{"name", "Bits"}, {"value", 127}}), "7f");
    EXPECT_EQ(codeOf({{"name", "Bits"}, {"value", 128}}), "not-allowed");
    EXPECT_EQ(sent({{"name", "Flag"}, {"value", false}}), "00");
    EXPECT_EQ(codeOf({{"name", "Flag"}, {"value", true}}), "not-allowed");
}

TEST_F(WriteRulesTest, RefuseValuesAndBytesThatAreNoneOfTheType)
{
    const QVector<Json> bad = {{{"name", "Speed"}, {"value", "fast"}},
                               {{"name", "Speed"}, {"value", 1.5}},
                               {{"name", "Speed"}, {"value", nullptr}},
                               {{"name", "Speed"}, {"value", Json::array({1})}},
                               {{"name", "Speed"}, {"value", Json::object()}},
                               {{"name", "Speed"}, {"bytes", ""}},
                               {{"name", "Speed"}, {"bytes", "01"}},
                               {{"name", "Speed"}, {"bytes", "010000"}},
                               {{"name", "Text"}, {"value", 5}},
                               {{"name", "Text"}, {"value", "\u20AC"}},
                               {{"name", "Text"}, {"bytes", "05616263"}},
                               {{"name", "Text"}, {"bytes", ""}},
                               {{"name", "Speed"}, {"element", 1}, {"value", 1}}};
    for (const Json& request : bad)
        EXPECT_EQ(codeOf(request), "bad-request") << request.dump();
    EXPECT_EQ(lines.journal.size(), bad.size());
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WriteRulesTest, WriteTextsAsTheyAre)
{
    EXPECT_EQ(sent({{"name", "Text"}, {"value", "\"a\\"}}), "0322615c");
    EXPECT_EQ(sent({{"name", "Text"}, {"value", ""}}), "00");
    EXPECT_EQ(sent({{"name", "Text"}, {"bytes", "0161"}}), "0161");
}

TEST_F(WriteRulesTest, WriteElementsOfAVariable)
{
    EXPECT_TRUE(write({{"name", "List"}, {"element", 2}, {"value", 5}}).is_null());
    EXPECT_EQ(lines.asked.first().request["name"], "List");
    EXPECT_EQ(lines.asked.first().request["element"], 2);
    EXPECT_EQ(codeOf({{"name", "List"}, {"element", 2}, {"value", 6}}), "not-allowed");
    const Json beyond = write({{"name", "List"}, {"element", 3}, {"value", 1}});
    EXPECT_EQ(beyond["error"]["code"], "bad-request");
    EXPECT_EQ(beyond["error"]["text"],
              "element: 3 is not in the variable, which has 3 elements (0 to 2)");
}

TEST_F(WriteRulesTest, TakeATagWithinAWritableVariableForThatVariable)
{
    EXPECT_TRUE(write({{"tag", "LIST"}, {"element", 11}, {"value", 5}}).is_null());
    EXPECT_EQ(lines.asked.first().request["name"], "List");
    EXPECT_EQ(lines.asked.first().request["element"], 1);
    EXPECT_EQ(codeOf({{"tag", "LIST"}, {"element", 11}, {"value", 6}}), "not-allowed");
    EXPECT_EQ(codeOf({{"tag", "LIST"}, {"element", 9}, {"value", 1}}), "not-allowed");
    EXPECT_EQ(codeOf({{"tag", "LIST"}, {"element", 13}, {"value", 1}}), "not-allowed");
    EXPECT_EQ(codeOf({{"tag", "LIST"}, {"station", 2}, {"element", 11}, {"value", 1}}),
              "not-allowed");
    EXPECT_EQ(codeOf({{"tag", "LIST"}, {"station", 65535}, {"element", 11}, {"value", 1}}),
              "not-allowed");
    EXPECT_EQ(codeOf({{"tag", "OTHER"}, {"value", 1}}), "not-allowed");
    EXPECT_EQ(codeOf({{"tag", "LOCKED"}, {"value", 1}}), "not-allowed");
    EXPECT_EQ(lines.journal.size(), 7);
}

TEST_F(WriteRulesTest, KeepLimitsOfAnElementUnderEveryNameOfIt)
{
    EXPECT_EQ(codeOf({{"name", "Valves"}, {"element", 2}, {"value", 51}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Valves"}, {"element", 2}, {"bytes", "3300"}}), "not-allowed");
    EXPECT_EQ(sent({{"name", "Valves"}, {"element", 1}, {"value", 51}}), "3300");
    EXPECT_EQ(sent({{"name", "Valves"}, {"element", 2}, {"value", 50}}), "3200");
    const Json again = write({{"name", "Inlet"}, {"value", 1}});
    EXPECT_EQ(again["error"]["code"], "not-allowed") << "once a minute";
    EXPECT_NE(again["error"]["text"].get<std::string>().find(
                  "Inlet: was written 1 time in the last minute, and its"),
              std::string::npos)
        << again;
    EXPECT_EQ(codeOf({{"name", "Valves"}, {"element", 2}, {"value", 1}}), "not-allowed");
    EXPECT_EQ(sent({{"name", "Valves"}, {"element", 0}, {"value", 9}}), "0900")
        << "the span of a variable that cannot be written limits no other one";
}

TEST_F(WriteRulesTest, RefuseANumberForATagThatItsVariablesShowDifferently)
{
    EXPECT_EQ(codeOf({{"tag", "VALVE"}, {"element", 3}, {"value", 1}}), "bad-request");
    EXPECT_EQ(sent({{"tag", "VALVE"}, {"element", 3}, {"bytes", "0100"}}), "0100");
    EXPECT_EQ(sent({{"name", "Share"}, {"value", 1}}), "6400");
    EXPECT_EQ(sent({{"name", "Valves"}, {"element", 3}, {"value", 1}}), "0100");
}

TEST_F(WriteRulesTest, TellTheLineWhichTypeTheyChecked)
{
    write({{"name", "Speed"}, {"value", 1}});
    EXPECT_EQ(lines.asked.first().request["type"], "INT");
    lines.setValue(0, 0, "UINT", 7);
    write({{"name", "Speed"}, {"value", 1}});
    EXPECT_EQ(lines.asked.last().request["type"], "UINT");
}

TEST_F(WriteRulesTest, NameWhatTheyDoNotKnow)
{
    EXPECT_EQ(codeOf({{"name", "Sped"}, {"value", 1}}), "unknown-name");
    EXPECT_EQ(codeOf({{"line", "pres"}, {"name", "Speed"}, {"value", 1}}), "unknown-name");
    EXPECT_EQ(lines.journal.size(), 2);
    EXPECT_EQ(lines.journal.first().name, "Sped");
}

TEST_F(WriteRulesTest, AllowOnlySoManyWritesAMinute)
{
    const Json request = {{"name", "Rare"}, {"value", 1}};
    sent(request);
    clock.advance(std::chrono::seconds(20));
    sent(request);
    clock.advance(std::chrono::seconds(10));
    const Json got = write(request);
    EXPECT_EQ(got["error"]["code"], "not-allowed");
    EXPECT_NE(got["error"]["text"].get<std::string>().find("possible again in 30.0 s"),
              std::string::npos)
        << got.dump();
    wall.advance(3600 * 1000);
    EXPECT_EQ(codeOf(request), "not-allowed") << "the time of day does not matter";
    clock.advance(std::chrono::seconds(30));
    sent(request);
    EXPECT_EQ(codeOf(request), "not-allowed") << "the second of the first two still counts";
    clock.advance(std::chrono::seconds(20));
    sent(request);
}

TEST_F(WriteRulesTest, DoNotCountRefusedWrites)
{
    EXPECT_EQ(codeOf({{"name", "Rare"}, {"value", "x"}}), "bad-request");
    EXPECT_EQ(codeOf({{"name", "Rare"}, {"value", "x"}}), "bad-request");
    sent({{"name", "Rare"}, {"value", 1}});
    sent({{"name", "Rare"}, {"value", 2}});
}

TEST_F(WriteRulesTest, AskForATypeThatNobodyKnowsAndThenDecide)
{
    EXPECT_TRUE(write({{"name", "Unknown"}, {"value", 10}}).is_null());
    EXPECT_EQ(lines.asked.first().request["request"], "type");
    EXPECT_EQ(lines.asked.first().request["tag"], "UNKNOWN");
    lines.answer({{"reply", "type"}, {"type", "USINT"}});
    ASSERT_EQ(lines.asked.size(), 1);
    EXPECT_EQ(lines.asked.first().request["bytes"], "0a");

    EXPECT_TRUE(write({{"name", "Unknown"}, {"value", 11}}).is_null());
    const Json question = lines.asked.last().request;
    EXPECT_EQ(question["request"], "type");
    const auto asked = lines.asked.take(lines.asked.lastKey());
    asked.answer({{"reply", "type"}, {"type", "USINT"}});
    EXPECT_EQ((*reply)["error"]["code"], "not-allowed");
}

TEST_F(WriteRulesTest, PassTheErrorOnWhenTheTypeCannotBeAskedFor)
{
    EXPECT_TRUE(write({{"name", "Unknown"}, {"value", 10}}).is_null());
    lines.answer({{"error", {{"code", "unreachable"}, {"text", "nobody answers"}}}});
    EXPECT_EQ((*reply)["error"]["code"], "unreachable");
    EXPECT_EQ(lines.journal.last().outcome, "unreachable");
}

TEST_F(WriteRulesTest, TakeBackAWriteWhoseTypeIsAskedFor)
{
    EXPECT_TRUE(write({{"name", "Unknown"}, {"value", 10}}).is_null());
    rules.cancel(last);
    EXPECT_TRUE(lines.asked.first().cancelled);
    lines.answer({{"reply", "type"}, {"type", "USINT"}});
    EXPECT_TRUE(lines.asked.isEmpty());
    EXPECT_EQ((*reply)["error"]["code"], "cancelled");
    EXPECT_EQ(lines.journal.last().outcome, "cancelled");
}

TEST_F(WriteRulesTest, RecordWhatTheLineAnswers)
{
    write({{"name", "Speed"}, {"value", 1}});
    lines.answer({{"error", {{"code", "unknown-outcome"}, {"text", "no answer came"}}}});
    EXPECT_EQ((*reply)["error"]["code"], "unknown-outcome");
    EXPECT_EQ(lines.journal.last().outcome, "unknown-outcome");
    EXPECT_EQ(lines.journal.last().error, "no answer came");

    write({{"name", "Speed"}, {"value", 1}});
    lines.answer({{"reply", "write"}, {"outcome", "written"}, {"value", 5}, {"verified", false}});
    EXPECT_EQ(lines.journal.last().outcome, "written");
    EXPECT_NE(lines.journal.last().error.indexOf("5"), -1);
}

TEST_F(WriteRulesTest, LetALimitedNumberOfWritesWaitForALine)
{
    for (int i = 0; i < WriteRules::kMostWaiting; ++i)
        EXPECT_TRUE(write({{"name", "Speed"}, {"value", 1}}).is_null());
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"value", 1}}), "busy");
    lines.answer({{"reply", "write"}, {"outcome", "written"}});
    *reply = Json();
    EXPECT_TRUE(write({{"name", "Speed"}, {"value", 1}}).is_null());
    EXPECT_EQ(lines.journal.size(), 2);
}

TEST_F(WriteRulesTest, AnswerACheckWithoutSendingAnything)
{
    const Json speed = {{"name", "Speed"}, {"value", 100}, {"check", true}};
    EXPECT_EQ(write(speed), (Json{{"outcome", "allowed"}, {"value", 100}, {"bytes", "6400"}}));
    const Json byTag = {{"tag", "LIST"}, {"element", 11}, {"bytes", "0500"}, {"check", true}};
    EXPECT_EQ(write(byTag)["outcome"], "allowed");
    EXPECT_TRUE(lines.asked.isEmpty());
    EXPECT_EQ(lines.journal.size(), 0) << "nothing was to be written";
}

TEST_F(WriteRulesTest, RefuseACheckAsTheWriteAndRecordIt)
{
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"value", 101}, {"check", true}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Locked"}, {"value", 1}, {"check", true}}), "not-allowed");
    EXPECT_EQ(codeOf({{"name", "Speed"}, {"value", "x"}, {"check", true}}), "bad-request");
    EXPECT_EQ(codeOf({{"name", "Sped"}, {"value", 1}, {"check", true}}), "unknown-name");
    ASSERT_EQ(lines.journal.size(), 4);
    for (const JournalEntry& entry : lines.journal)
        EXPECT_EQ(entry.outcome, "check-failed") << "nobody wanted to write yet";
    EXPECT_EQ(lines.journal.first().newValue, Json(101));
    EXPECT_NE(lines.journal.first().error, "");
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WriteRulesTest, CountNoCheckAsAWriteButCheckTheRate)
{
    const Json check = {{"name", "Rare"}, {"value", 1}, {"check", true}};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(write(check)["outcome"], "allowed");
    sent({{"name", "Rare"}, {"value", 1}});
    sent({{"name", "Rare"}, {"value", 2}});
    EXPECT_EQ(codeOf(check), "not-allowed");
}

TEST_F(WriteRulesTest, AskForTheTypeOfACheckAndSendNoWrite)
{
    EXPECT_TRUE(write({{"name", "Unknown"}, {"value", 10}, {"check", true}}).is_null());
    EXPECT_EQ(lines.asked.first().request["request"], "type");
    lines.answer({{"reply", "type"}, {"type", "USINT"}});
    EXPECT_TRUE(lines.asked.isEmpty());
    EXPECT_EQ((*reply)["outcome"], "allowed");
}

TEST_F(WriteRulesTest, FollowAReload)
{
    QByteArray project = kProject;
    project.replace("\"maximum\": 100", "\"maximum\": 50");
    write({{"name", "Unknown"}, {"value", 10}});
    lines.setLines({lineOfProject("other", kProject), lineOfProject("press", project)});
    lines.answer({{"reply", "type"}, {"type", "USINT"}});
    EXPECT_EQ((*reply)["error"]["code"], "bad-request") << "it is in two lines now";
    *reply = Json();
    EXPECT_EQ(codeOf({{"line", "press"}, {"name", "Speed"}, {"value", 51}}), "not-allowed");
    EXPECT_TRUE(write({{"line", "other"}, {"name", "Speed"}, {"value", 51}}).is_null());
}

TEST_F(WriteRulesTest, SendNothingToAnotherVariableThatHasTheNameAfterAReload)
{
    QByteArray project = kProject;
    project.replace("\"tag\": \"UNKNOWN\"", "\"tag\": \"OTHER\"");
    EXPECT_TRUE(write({{"name", "Unknown"}, {"value", 10}}).is_null());
    lines.setLines({lineOfProject("press", project)});
    lines.answer({{"reply", "type"}, {"type", "USINT"}});
    EXPECT_EQ((*reply)["error"]["code"], "cancelled");
    EXPECT_TRUE(lines.asked.isEmpty());
}

TEST_F(WriteRulesTest, RefuseRequestsThatNameNothingOrTwoThings)
{
    const QVector<Json> bad = {{{"value", 1}},
                               {{"name", "Speed"}},
                               {{"name", "Speed"}, {"tag", "SPEED"}, {"value", 1}},
                               {{"name", "Speed"}, {"value", 1}, {"bytes", "0100"}},
                               {{"name", "Speed"}, {"station", 1}, {"value", 1}},
                               {{"name", "Speed"}, {"value", 1}, {"extra", 1}},
                               {{"name", "Speed"}, {"value", 1}, {"check", 1}},
                               {{"name", 5}, {"value", 1}},
                               {{"tag", "SPEED"}, {"element", -1}, {"value", 1}},
                               {{"tag", "SPEED"}, {"element", 65536}, {"value", 1}},
                               {{"tag", "SPEED"}, {"station", 65536}, {"value", 1}},
                               {{"name", "Speed"}, {"bytes", "0g00"}}};
    for (const Json& request : bad)
        EXPECT_THROW(write(request), UserError) << request.dump();
}
