#include "WorkerRequests.h"

#include "poll_fixture.h"

using namespace micro850;
using namespace micro850::gateway;

namespace {

const quint8 kWriteService = 0x53;

class WorkerRequestsTest : public PollTest
{
protected:
    WorkerRequestsTest()
    {
        start(R"({"name": "Speed of press", "tag": "Speed", "gain": 0.5, "unit": "rpm"},
                 {"name": "Levels", "tag": "Level", "element": 2, "length": 3})");
        report = std::make_unique<LineReport>(QStringLiteral("press"), project, *loop, clock);
        requests = std::make_unique<WorkerRequests>(
            *loop, project, *report, [this](const Json& reply) { replies.push_back(reply); });
    }
    Json carryOut(const char* request)
    {
        requests->add(request);
        while (requests->runNext()) {
        }
        EXPECT_EQ(replies.size(), 1U);
        const Json reply = replies.empty() ? Json() : replies.back();
        replies.clear();
        return reply;
    }
    std::string codeOf(const char* request)
    {
        const Json reply = carryOut(request);
        return reply.contains("error") ? reply["error"]["code"].get<std::string>() : "done";
    }
    QByteArray inController(const char* tag, int element = 0) const
    {
        return plc.tags[tag].elements.at(element).toHex();
    }

    std::unique_ptr<LineReport> report;
    std::unique_ptr<WorkerRequests> requests;
    std::vector<Json> replies;
};

} // namespace

TEST_F(WorkerRequestsTest, TellsTheTypeOfATag)
{
    EXPECT_EQ(carryOut(R"({"id": "a", "request": "type", "station": 1, "tag": "Level"})"),
              Json({{"id", "a"}, {"reply", "type"}, {"type", "INT"}}));
}

TEST_F(WorkerRequestsTest, ReadsElementsAsTheControllerHasThem)
{
    const Json reply =
        carryOut(R"({"id": 1, "request": "read", "tag": "Level", "element": 8, "elements": 2})");
    EXPECT_EQ(reply, Json({{"id", 1},
                           {"reply", "read"},
                           {"type", "INT"},
                           {"elements", {"6c00", "6d00"}}})); // 108 and 109
}

TEST_F(WorkerRequestsTest, NamesTheFirstElementThatTheControllerRefuses)
{
    const Json reply =
        carryOut(R"({"id": 1, "request": "read", "tag": "Level", "element": 8, "elements": 4})");
    EXPECT_EQ(reply["error"]["code"], "refused");
    EXPECT_EQ(reply["error"]["element"], 10);
}

TEST_F(WorkerRequestsTest, ReadsVariablesAsTheyAreShown)
{
    const Json reply =
        carryOut(R"({"id": 1, "request": "read", "names": ["Levels", "Speed of press"]})");
    ASSERT_EQ(reply["values"].size(), 2U) << reply.dump();
    EXPECT_EQ(reply["values"][0]["value"], Json({102, 103, 104}));
    EXPECT_EQ(reply["values"][1]["value"], 617); // 1234 * 0.5
    EXPECT_EQ(reply["values"][1]["bytes"], "d204");
    EXPECT_EQ(reply["values"][1]["unit"], "rpm");
    EXPECT_EQ(reply["values"][1]["quality"], "good");
}

TEST_F(WorkerRequestsTest, WritesAVariableAndReadsItBack)
{
    const Json reply =
        carryOut(R"({"id": 1, "request": "write", "name": "Speed of press", "value": 10.5})");
    EXPECT_EQ(reply, Json({{"id", 1},
                           {"reply", "write"},
                           {"outcome", "written"},
                           {"old", 617},
                           {"value", 10.5},
                           {"bytes", "1500"},
                           {"verified", true}}));
    EXPECT_EQ(inController("Speed"), "1500");
}

TEST_F(WorkerRequestsTest, WritesAnElementWithinAVariable)
{
    EXPECT_EQ(
        codeOf(R"({"id": 1, "request": "write", "name": "Levels", "element": 1, "value": 7})"),
        "done");
    EXPECT_EQ(inController("Level", 3), "0700");
    EXPECT_EQ(
        codeOf(R"({"id": 1, "request": "write", "name": "Levels", "element": 3, "value": 7})"),
        "bad-request");
}

TEST_F(WorkerRequestsTest, CountsTheElementsOfAVariableInWords)
{
    const auto textOf = [this](const char* request) {
        return carryOut(request)["error"]["text"].get<std::string>();
    };
    EXPECT_EQ(
        textOf(R"({"id": 1, "request": "write", "name": "Levels", "element": 3, "value": 7})"),
        "element: \"Levels\" has only 3 elements");
    EXPECT_EQ(textOf(R"({"id": 1, "request": "write", "name": "Speed of press", "element": 1,
                         "value": 7})"),
              "element: \"Speed of press\" has only 1 element");
}

TEST_F(WorkerRequestsTest, WritesBytesOfATag)
{
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "write", "tag": "Level", "element": 9,
                         "bytes": "fEfF"})"),
              "done");
    EXPECT_EQ(inController("Level", 9), "feff");
}

TEST_F(WorkerRequestsTest, RefusesBytesThatWereCheckedAsAnotherType)
{
    const QByteArray before = inController("Speed");
    EXPECT_EQ(
        codeOf(R"({"id": 1, "request": "write", "tag": "Speed", "type": "UINT", "bytes": "0500"})"),
        "refused");
    EXPECT_EQ(inController("Speed"), before);
    EXPECT_EQ(
        codeOf(R"({"id": 1, "request": "write", "tag": "Speed", "type": "INT", "bytes": "0500"})"),
        "done");
    EXPECT_EQ(inController("Speed"), "0500");
}

TEST_F(WorkerRequestsTest, SaysThatAnotherValueWasReadBack)
{
    plc.onReply = [this](const FakeController::Request& request, QByteArray&) {
        if (request.service == kWriteService)
            plc.tags["Speed"].elements[0] = wire::hex("09 00"); // a program changed it
    };
    const Json reply = carryOut(R"({"id": 1, "request": "write", "tag": "Speed", "value": 5})");
    EXPECT_EQ(reply["outcome"], "written");
    EXPECT_EQ(reply["verified"], false);
    EXPECT_EQ(reply["value"], 9);
}

TEST_F(WorkerRequestsTest, RefusesWhatIsNoValueOfTheType)
{
    for (const char* value : {"70000", "\"many\"", "1.5", "[1]", "{}", "null", "true"}) {
        const std::string request =
            std::string(R"({"id": 1, "request": "write", "tag": "Speed", "value": )") + value + "}";
        EXPECT_EQ(codeOf(request.c_str()), "bad-request") << value;
    }
    for (const char* bytes : {"", "05", "050000", "0g00", "050"}) {
        const std::string request =
            std::string(R"({"id": 1, "request": "write", "tag": "Speed", "bytes": ")") + bytes +
            "\"}";
        EXPECT_EQ(codeOf(request.c_str()), "bad-request") << bytes;
    }
    EXPECT_EQ(plc.count(kWriteService), 0);
}

TEST_F(WorkerRequestsTest, RefusesWhatItCannotFind)
{
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "tag": "Nowhere"})"), "refused");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "station": 2, "tag": "Speed"})"),
              "unknown-name");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "names": ["Speed"]})"), "unknown-name");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "write", "name": "Speed", "value": 1})"),
              "unknown-name");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "party"})"), "bad-request");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "tag": ""})"), "bad-request");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "tag": "Level", "element": -1})"),
              "bad-request");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "tag": "Level", "element": 65535,
                         "elements": 2})"),
              "bad-request");
    EXPECT_EQ(codeOf("{"), "bad-request");
}

TEST_F(WorkerRequestsTest, SaysThatNobodyKnowsTheOutcomeWhenNoReplyToAWriteCame)
{
    runUntilRead();
    plc.onReply = [this](const FakeController::Request& request, QByteArray& reply) {
        if (request.service != kWriteService)
            return;
        plc.silent = true;
        reply.clear();
    };
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "write", "tag": "Speed", "value": 5})"),
              "unknown-outcome");
}

TEST_F(WorkerRequestsTest, SaysThatTheStationIsUnreachableWhenNothingWasWritten)
{
    plc.silent = true;
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "write", "tag": "Speed", "value": 5})"),
              "unreachable");
    plc.silent = false;
    runFor(20000);
    EXPECT_EQ(plc.count(kWriteService), 0);
    EXPECT_EQ(inController("Speed"), "d204");
}

TEST_F(WorkerRequestsTest, NeverWritesWhatWasTakenBackBefore)
{
    runUntilRead();
    // While the old value is read, the writer goes away.
    plc.onReply = [this](const FakeController::Request& request, QByteArray&) {
        if (request.tag == "Level" && request.element == 9)
            requests->add(R"({"request": "cancel", "of": 1})");
    };
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "write", "tag": "Level", "element": 9, "value": 5})"),
              "cancelled");
    runFor(5000);
    EXPECT_EQ(plc.count(kWriteService), 0);
}

TEST_F(WorkerRequestsTest, CarriesOutAWriteThatIsTakenBackTooLate)
{
    runUntilRead();
    plc.onReply = [this](const FakeController::Request& request, QByteArray&) {
        if (request.service == kWriteService)
            requests->add(R"({"request": "cancel", "of": 1})");
    };
    const Json reply = carryOut(R"({"id": 1, "request": "write", "tag": "Speed", "value": 5})");
    EXPECT_EQ(reply["outcome"], "written") << reply.dump();
    EXPECT_EQ(reply["verified"], true);
}

TEST_F(WorkerRequestsTest, TakesBackOneThatWaits)
{
    requests->add(R"({"id": 1, "request": "read", "tag": "Speed"})");
    requests->add(R"({"id": 2, "request": "write", "tag": "Speed", "value": 5})");
    requests->add(R"({"request": "cancel", "of": 2})");
    while (requests->runNext()) {
    }
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_EQ(replies[0]["id"], 2);
    EXPECT_EQ(replies[0]["error"]["code"], "cancelled");
    EXPECT_EQ(replies[1]["id"], 1);
    EXPECT_EQ(plc.count(kWriteService), 0);
}

TEST_F(WorkerRequestsTest, GoesOnPollingWhileItCarriesOutARequest)
{
    runUntilRead();
    int published = 0;
    loop->setPublish([&] { ++published; });
    plc.tags["Long"] = {0x00C3, QVector<QByteArray>(600, wire::hex("01 00"))};
    const int before = plc.count(0x52, "Speed");
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "read", "tag": "Long", "elements": 600})"), "done");
    EXPECT_GT(plc.count(0x52, "Speed"), before);
    EXPECT_GT(published, 0);
}

TEST_F(WorkerRequestsTest, LimitsTheRequestsThatWait)
{
    for (int i = 0; i < 100; ++i)
        requests->add(R"({"id": 1, "request": "type", "tag": "Speed"})");
    EXPECT_GT(replies.size(), 0U);
    EXPECT_EQ(replies[0]["error"]["code"], "busy");
}

TEST_F(WorkerRequestsTest, LimitsTheNamesThatTheDriverHasToKeep)
{
    int busy = 0;
    for (int i = 0; i < 10001; ++i) {
        requests->add(QByteArray(R"({"id": 1, "request": "type", "tag": "X)") +
                      QByteArray::number(i) + "\"}");
        requests->runNext();
        busy += replies.back()["error"]["code"] == "busy" ? 1 : 0;
    }
    EXPECT_EQ(busy, 1);
    replies.clear();
    EXPECT_EQ(codeOf(R"({"id": 1, "request": "type", "tag": "Level"})"), "done");
}
