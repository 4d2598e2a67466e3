#include "StatusText.h"

#include "UserError.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using micro850::JsonNode;
using micro850::gateway::statusText;

namespace {

const qint64 kNow = 1795354200000; // 2026-11-22 13:30:00 UTC

/// Local time is UTC+1, by a rule without a list of zones.
class StatusText : public ::testing::Test
{
protected:
    StatusText()
    {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    static QString textOf(const std::string& json)
    {
        return statusText(JsonNode::fromText(json, "status"), kNow);
    }
    static QString textOfLines(const std::string& lines)
    {
        return textOf(
                   R"({"program": "micro850-gateway 0.1.0", "uptimeS": 60, "memoryKb": 1000,
                          "clients": 0, "lines": [)" +
                   lines + "]}")
            .section('\n', 1);
    }
};

} // namespace

TEST_F(StatusText, TellsTheProgramItsUptimeInLocalTimeItsMemoryAndItsClients)
{
    EXPECT_EQ(textOf(R"({"program": "micro850-gateway 0.1.0", "uptimeS": 273906, "memoryKb": 37548,
                         "clients": 12, "lines": []})"),
              "micro850-gateway 0.1.0, up 3 d 04:05:06 since 2026-11-19 10:24:54 +01:00, 38.4 MB "
              "with its workers, 12 clients\n");
}

TEST_F(StatusText, AddsTheMemoryOfTheWorkers)
{
    const QString text = textOf(R"({"program": "g", "uptimeS": 0, "memoryKb": 10000, "clients": 1,
        "lines": [{"line": "a", "memoryKb": 20000}, {"line": "b", "memoryKb": null}]})");
    // 30000 times 1024 bytes.
    EXPECT_TRUE(text.contains(" +01:00, 30.7 MB with its workers, 1 client\n"))
        << text.toStdString();
}

TEST_F(StatusText, HasTheOffsetOfTheStartAndNotOfToday)
{
    // 40 days earlier it was summer.
    EXPECT_EQ(textOf(R"({"program": "g", "uptimeS": 3456000, "memoryKb": 0, "clients": 0,
                         "lines": []})"),
              "g, up 40 d 00:00:00 since 2026-10-13 15:30:00 +02:00, 0.0 MB with its workers, 0 "
              "clients\n");
}

TEST_F(StatusText, TellsTheHistory)
{
    const auto historyOf = [](const std::string& history) {
        return textOf(R"({"program": "g", "uptimeS": 0, "memoryKb": 0, "clients": 0, "lines": [],
                          "history": )" +
                      history + "}")
            .section('\n', 1);
    };
    EXPECT_EQ(historyOf(R"({"state": "recording", "file": "/h.sqlite", "bytes": 12345678})"),
              "history: recording, /h.sqlite, 12.3 MB\n");
    EXPECT_EQ(
        historyOf(R"({"state": "stopped", "file": "/h", "leftOut": 7, "reason": "disk full"})"),
        "history: stopped, /h, 7 left out, disk full\n");
    EXPECT_EQ(historyOf(R"({"state": "off"})"), "history: off\n");
}

TEST_F(StatusText, TellsWhatIsDeliveredWhatWaitsAndWhatTheBrokerRefuses)
{
    const auto deliveryOf = [](const std::string& delivery) {
        return textOf(R"({"program": "g", "uptimeS": 0, "memoryKb": 0, "clients": 0, "lines": [],
                          "delivery": )" +
                      delivery + "}")
            .section('\n', 1);
    };
    EXPECT_EQ(deliveryOf(R"({"mqtt": {"held": 2, "refusedByBroker": 27,
                  "connection": {"state": "connected", "broker": "b:1883", "version": "5"},
                  "flow": {"acknowledged": 21, "waiting": 0, "lost": 0, "oldest": null},
                  "orders": {"received": 39, "outcomes": {"written": 7, "busy": 1,
                                                          "not-allowed": 30}}}})"),
              "mqtt: b:1883, connected with MQTT 5, 21 messages delivered, 27 refused by the "
              "broker (see its access list), 2 waiting, orders: 7 written, 31 not written\n");
    // 12 minutes and 30.5 seconds before now, which is 1795354200000.
    EXPECT_EQ(deliveryOf(R"({"mqtt": {"refusedByBroker": 0,
                  "connection": {"state": "waiting", "broker": "b:1883", "reason": "refused"},
                  "flow": {"acknowledged": 1, "waiting": 34, "lost": 5, "oldest": 1795353449500}}})"),
              "mqtt: b:1883, not connected (refused), 1 message delivered, 34 waiting, the oldest "
              "for 00:12:30, 5 lost\n");
    EXPECT_EQ(deliveryOf(R"({"sparkplug": {"state": "waiting for the primary host",
                  "connection": {"state": "connected", "broker": "b:1883", "version": "5"},
                  "flow": {"acknowledged": 0, "waiting": 27, "lost": 0},
                  "orders": {"written": 3, "refused": 2, "waiting": 0}}})"),
              "sparkplug: b:1883, connected with MQTT 5, waiting for the primary host, 0 messages "
              "delivered, 27 waiting, orders: 3 written, 2 not written\n");
}

TEST_F(StatusText, TellsALineItsRateAndItsStations)
{
    EXPECT_EQ(textOfLines(R"({"line": "press", "port": "/dev/ttyUSB0", "settings":
        "/dev/ttyUSB0 38400 8N1", "up": true, "variables": 28, "oldestMs": 1234, "workerPid": 77,
        "workerStarts": 1, "memoryKb": 12000, "transactionsPerSecond": 41.24, "percentInUse": 86.6,
        "stations": [{"station": 1, "name": "Bottling", "state": "connected", "connected": true,
                      "sent": 12, "answered": 11, "timedOut": 1, "lastAnswerMs": 20}]})"),
              "line press: /dev/ttyUSB0 38400 8N1, 28 variables, up\n"
              "  41.2 transactions/s, 87 % of the line in use, oldest value 1.2 s\n"
              "  worker 77, 12.3 MB\n"
              "  station 1 (Bottling): connected, 12 requests, 11 answered, 1 timed out\n");
}

TEST_F(StatusText, TellsWhyALineIsDownAndWhenAStationAnsweredLast)
{
    EXPECT_EQ(
        textOfLines(R"({"line": "oven", "port": "/dev/ttyUSB1", "up": false,
        "error": "there is no such device", "variables": 1, "oldestMs": null, "workerPid": 78,
        "workerStarts": 3, "overload": "the line is 140 % asked for",
        "stations": [{"station": 2, "state": "line down", "connected": false, "problem": "unplugged",
                      "lastAnswerMs": 90000}]})"),
        "line oven: /dev/ttyUSB1, 1 variable, down\n"
        "  there is no such device\n"
        "  0.0 transactions/s, 0 % of the line in use, oldest value never read\n"
        "  worker 78, started 3 times\n"
        "  the line is 140 % asked for\n"
        "  station 2: line down (unplugged), 0 requests, 0 answered, 0 timed out, last answer "
        "2026-11-22 14:28:30 +01:00\n");
}

TEST_F(StatusText, TellsALineWithoutAWorker)
{
    EXPECT_EQ(textOfLines(R"({"line": "oven", "workerPid": null, "error": "the worker ended"})"),
              "line oven: , 0 variables, down\n"
              "  the worker ended\n"
              "  0.0 transactions/s, 0 % of the line in use, oldest value never read\n"
              "  no worker runs\n");
}

TEST_F(StatusText, LeavesAPercentSignInATextAsItIs)
{
    const QString text = textOfLines(R"({"line": "a%3", "port": "tcp://[fe80::1%4]:2000",
        "error": "%1", "stations": [{"station": 1, "name": "%2", "state": "%1", "problem": "%9"}]})");
    EXPECT_TRUE(text.startsWith("line a%3: tcp://[fe80::1%4]:2000, 0 variables, down\n  %1\n"))
        << text.toStdString();
    EXPECT_TRUE(text.contains("station 1 (%2): %1 (%9), 0 requests")) << text.toStdString();
}

TEST_F(StatusText, LetsNoTerminalObeyWhatAGatewaySends)
{
    const QString text = textOfLines(R"({"line": "\u001b[2J", "port": "\u009b\n", "error": "\u202e",
        "overload": "\u001b", "stations": [{"station": 1, "name": "\u001b", "state": "\u001b",
                                           "problem": "\u001b"}]})");
    for (const QChar c : text)
        EXPECT_TRUE(c == '\n' || c.isPrint()) << text.toStdString();
    EXPECT_EQ(text.count('\n'), 6);
}

TEST_F(StatusText, RefusesWhatIsNoStatus)
{
    for (
        const char* json :
        {"{}", "[]", R"({"program": "g", "uptimeS": -1, "memoryKb": 0, "clients": 0, "lines": []})",
         R"({"program": "g", "uptimeS": 0, "memoryKb": 0, "clients": 0, "lines": 5})",
         R"({"program": "g", "uptimeS": 0, "memoryKb": 0, "clients": 0, "lines": [{"oldestMs": "x"}]})"})
        EXPECT_THROW(textOf(json), micro850::UserError) << json;
}
