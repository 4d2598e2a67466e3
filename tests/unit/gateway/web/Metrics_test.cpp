#include "Metrics.h"

#include "fake_lines.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

using namespace micro850::gateway;
using micro850::gateway::test::FakeLines;
using micro850::gateway::test::lineOfProject;

namespace {

const char kProject[] = R"({"port": {"device": "/dev/ttyS9"}, "variables": [{"tag": "Level"},
                            {"tag": "Speed"}]})";

/// Lines with a status that the test sets.
class StatusLines : public FakeLines
{
public:
    using FakeLines::FakeLines;
    std::map<int, Json> statuses;

    Json status(int line) const override
    {
        const auto found = statuses.find(line);
        return found == statuses.end() ? FakeLines::status(line) : found->second;
    }
};

Json counts(int upTo2ms, int upTo30ms, int above5s)
{
    Json numbers = Json::array();
    for (int i = 0; i < 16; ++i)
        numbers.push_back(i == 0 ? upTo2ms : i == 4 ? upTo30ms : i == 15 ? above5s : 0);
    return numbers;
}

Json stationOf(int sent, int answered)
{
    return {{"station", 1},          {"name", "Press"},    {"state", "connected"},
            {"connected", true},     {"sent", sent},       {"answered", answered},
            {"timedOut", 2},         {"corrupt", 1},       {"late", 0},
            {"retries", 3},          {"refusedByPeer", 0}, {"reconnects", 1},
            {"errors", {{"04", 1}}}, {"bytesSent", 5000},  {"bytesReceived", 9000}};
}

/// The status of a line whose worker has sent so many requests.
Json lineStatus(int sent, int starts)
{
    return {
        {"line", "press"},
        {"up", true},
        {"workerPid", 4711},
        {"workerStarts", starts},
        {"memoryKb", 6000},
        {"oldestMs", 1500},
        {"waitingRequests", 2},
        {"percentInUse", 41.5},
        {"percentAsked", 140.0},
        {"overload", "the line is 140 % asked for"},
        {"reopened", 1},
        {"stations", Json::array({stationOf(sent, sent - 2)})},
        {"roundTrips",
         {{"limitsMs", Json::array()}, {"counts", counts(sent - 3, 1, 1)}, {"sumMs", sent * 1.5}}}};
}

Json deliveryStatus(int acknowledged)
{
    return {{"pid", 4712},
            {"starts", 1},
            {"held", 5},
            {"leftOut", 0},
            {"memoryKb", 7000},
            {"connection", {{"state", "connected"}, {"attempts", 3}, {"connections", 2}}},
            {"flow",
             {{"state", "on disk"},
              {"waiting", 12},
              {"lost", 1},
              {"bytes", 4096},
              {"oldest", 1795354200500},
              {"sent", acknowledged + 2},
              {"refused", 0},
              {"acknowledged", acknowledged},
              {"repeated", 1},
              {"inFlight", 2}}},
            {"warnings", {{"order: not-allowed", 4}}},
            {"orders", {{"received", 9}, {"outcomes", {{"written", 5}, {"not-allowed", 4}}}}}};
}

Json serviceStatus()
{
    return {
        {"program", "micro850-gateway"},
        {"clients", 3},
        {"history",
         {{"state", "recording"}, {"bytes", 8192}, {"rows", 77}, {"leftOut", 1}, {"waiting", 4}}},
        {"delivery", {{"mqtt", deliveryStatus(100)}}}};
}

/// What a reader of the text format sees.
struct Scrape
{
    std::map<std::string, double> numbers; ///< by name and labels as they stand in the text
    std::vector<std::string> order;        ///< of the numbers
    std::map<std::string, std::string> types;
    std::vector<std::string> mistakes;

    double at(const std::string& number) const
    {
        const auto found = numbers.find(number);
        EXPECT_NE(found, numbers.end()) << number << " is not there";
        return found == numbers.end() ? -1 : found->second;
    }
};

// The family to which the number belongs, as it was announced.
std::string familyOf(const Scrape& scrape, const std::string& name)
{
    for (const char* const suffix : {"_bucket", "_sum", "_count"}) {
        const std::string end = suffix;
        if (name.size() <= end.size() || name.substr(name.size() - end.size()) != end)
            continue;
        const auto type = scrape.types.find(name.substr(0, name.size() - end.size()));
        if (type != scrape.types.end() && type->second == "histogram")
            return type->first;
    }
    return name;
}

Scrape scrapeOf(const QByteArray& text)
{
    Scrape scrape;
    std::string family;
    EXPECT_TRUE(text.endsWith('\n'));
    const QRegularExpression number(QStringLiteral(
        R"(^([a-z_0-9]+)(\{(?:[a-z]+="(?:[^"\\\n]|\\["\\n])*",?)*\})? (-?[0-9.e+-]+|NaN)$)"));
    const QStringList lines = QString::fromUtf8(text).split('\n');
    for (const QString& line : lines.mid(0, lines.size() - 1)) {
        if (line.startsWith("# HELP "))
            continue;
        if (line.startsWith("# TYPE ")) {
            family = line.section(' ', 2, 2).toStdString();
            if (!scrape.types.emplace(family, line.section(' ', 3).toStdString()).second)
                scrape.mistakes.push_back("twice: " + family);
            continue;
        }
        const QRegularExpressionMatch match = number.match(line);
        if (!match.hasMatch()) {
            scrape.mistakes.push_back("not understood: " + line.toStdString());
            continue;
        }
        const std::string name = (match.captured(1) + match.captured(2)).toStdString();
        if (familyOf(scrape, match.captured(1).toStdString()) != family)
            scrape.mistakes.push_back("in the wrong place: " + name);
        if (!scrape.numbers.emplace(name, match.captured(3).toDouble()).second)
            scrape.mistakes.push_back("twice: " + name);
        scrape.order.push_back(name);
    }
    EXPECT_TRUE(scrape.mistakes.empty()) << scrape.mistakes.front();
    return scrape;
}

class MetricsOfLines : public ::testing::Test
{
protected:
    int argumentCount = 0;
    QCoreApplication application{argumentCount, nullptr};
    StatusLines lines{{lineOfProject(QStringLiteral("press"), kProject)}};
    Json status = serviceStatus();
    HttpCounters server;
    Metrics metrics{
        {lines, [this] { return status; }, [this] { return server; }, [] { return 6; }}};

    Scrape scrape() { return scrapeOf(metrics.text()); }
    static JournalEntry writeOf(const QString& line, const QString& outcome)
    {
        JournalEntry entry;
        entry.line = line;
        entry.outcome = outcome;
        return entry;
    }
};

QByteArray promtool(const QStringList& arguments, const QByteArray& input, int& status)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("promtool"), arguments);
    process.write(input);
    process.closeWriteChannel();
    status = process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit
                 ? process.exitCode()
                 : -1;
    return process.readAll();
}

} // namespace

TEST_F(MetricsOfLines, ShowHowALineAndItsStationsDo)
{
    lines.statuses[0] = lineStatus(1000, 1);
    const Scrape numbers = scrape();
    EXPECT_EQ(numbers.at(R"(micro850_line_up{line="press"})"), 1);
    EXPECT_DOUBLE_EQ(numbers.at(R"(micro850_line_usage_ratio{line="press"})"), 0.415);
    EXPECT_DOUBLE_EQ(numbers.at(R"(micro850_line_demand_ratio{line="press"})"), 1.4);
    EXPECT_EQ(numbers.at(R"(micro850_line_overloaded{line="press"})"), 1);
    EXPECT_EQ(numbers.at(R"(micro850_line_oldest_value_age_seconds{line="press"})"), 1.5);
    EXPECT_EQ(numbers.at(R"(micro850_worker_resident_memory_bytes{line="press"})"), 6144000);
    EXPECT_EQ(numbers.at(R"(micro850_station_connected{line="press",station="1"})"), 1);
    EXPECT_EQ(numbers.at(R"(micro850_station_disabled{line="press",station="1"})"), 0);
    EXPECT_EQ(numbers.at(R"(micro850_station_requests_total{line="press",station="1"})"), 1000);
    EXPECT_EQ(
        numbers.at(
            R"(micro850_station_transactions_total{line="press",station="1",outcome="answered"})"),
        998);
    EXPECT_EQ(
        numbers.at(
            R"(micro850_station_transactions_total{line="press",station="1",outcome="timed_out"})"),
        2);
    EXPECT_EQ(
        numbers.at(R"(micro850_station_error_replies_total{line="press",station="1",status="04"})"),
        1);
}

TEST_F(MetricsOfLines, CountTheRoundTripsUpToEachLimit)
{
    lines.statuses[0] = lineStatus(1000, 1);
    const Scrape numbers = scrape();
    const std::string bucket = R"(micro850_line_round_trip_seconds_bucket{line="press",le=")";
    EXPECT_EQ(numbers.types.at("micro850_line_round_trip_seconds"), "histogram");
    EXPECT_EQ(numbers.at(bucket + "0.002\"}"), 997);
    EXPECT_EQ(numbers.at(bucket + "0.02\"}"), 997);
    EXPECT_EQ(numbers.at(bucket + "0.03\"}"), 998);
    EXPECT_EQ(numbers.at(bucket + "5\"}"), 998);
    EXPECT_EQ(numbers.at(bucket + "+Inf\"}"), 999);
    EXPECT_EQ(numbers.at(R"(micro850_line_round_trip_seconds_count{line="press"})"), 999);
    EXPECT_EQ(numbers.at(R"(micro850_line_round_trip_seconds_sum{line="press"})"), 1.5);
    // Readers want them in the order of their limits.
    std::vector<double> limits;
    for (const std::string& name : numbers.order) {
        if (name.compare(0, bucket.size(), bucket) == 0 && name.find("+Inf") == std::string::npos)
            limits.push_back(std::stod(name.substr(bucket.size())));
    }
    EXPECT_EQ(limits.size(), 15u);
    EXPECT_TRUE(std::is_sorted(limits.begin(), limits.end()));
}

TEST_F(MetricsOfLines, NeverGoBackWhenAWorkerIsStartedAgain)
{
    lines.statuses[0] = lineStatus(1000, 1);
    const Scrape first = scrape();
    lines.statuses[0] = lineStatus(1000, 1); // it ended: what it told last stays
    lines.statuses[0]["workerPid"] = nullptr;
    lines.statuses[0].erase("memoryKb");
    lines.statuses[0].erase("overload");
    const Scrape ended = scrape();
    lines.statuses[0] = lineStatus(1000, 2); // the next one runs, but has told nothing
    const Scrape started = scrape();
    lines.statuses[0] = lineStatus(40, 2);
    const Scrape next = scrape();

    const std::vector<const Scrape*> all = {&first, &ended, &started, &next};
    for (std::size_t i = 1; i < all.size(); ++i) {
        for (const auto& [name, number] : all[i - 1]->numbers) {
            const Scrape& before = *all[i - 1];
            const std::string family = familyOf(before, name.substr(0, name.find('{')));
            if (before.types.at(family) != "gauge") {
                EXPECT_GE(all[i]->at(name), number) << name;
            }
        }
    }
    EXPECT_EQ(next.at(R"(micro850_station_requests_total{line="press",station="1"})"), 1040);
    EXPECT_EQ(next.at(R"(micro850_line_round_trip_seconds_count{line="press"})"), 999 + 39);
    EXPECT_EQ(next.at(R"(micro850_worker_starts_total{line="press"})"), 2);
    lines.statuses[0] = lineStatus(30, 3); // nobody asks while the third one runs
    metrics.sample();
    lines.statuses[0] = lineStatus(7, 4);
    EXPECT_EQ(scrape().at(R"(micro850_station_requests_total{line="press",station="1"})"), 1077);
    EXPECT_EQ(ended.at(R"(micro850_worker_up{line="press"})"), 0);
    EXPECT_EQ(ended.numbers.count(R"(micro850_worker_resident_memory_bytes{line="press"})"), 0u);
    EXPECT_EQ(ended.numbers.count(R"(micro850_line_usage_ratio{line="press"})"), 0u);
}

TEST_F(MetricsOfLines, CountWhatIsToldAndWritten)
{
    lines.setValue(0, 0, "INT", 5);
    lines.setValue(0, 0, "INT", 6);
    LineListener* listener = nullptr;
    class Journal : public StatusLines
    {
    public:
        using StatusLines::StatusLines;
        LineListener* last = nullptr;
        void addListener(LineListener& added) override { last = &added; }
        void removeListener(LineListener&) override {}
    } journal{{lineOfProject(QStringLiteral("press"), kProject)}};
    Metrics counting(
        {journal, [] { return Json::object(); }, [] { return HttpCounters(); }, nullptr});
    listener = journal.last;
    listener->handleWrite(writeOf(QStringLiteral("press"), QStringLiteral("written")));
    listener->handleWrite(writeOf(QStringLiteral("press"), QStringLiteral("written")));
    listener->handleWrite(writeOf(QStringLiteral("press"), QStringLiteral("refused")));
    for (int i = 0; i < 50; ++i) // names that clients invent
        listener->handleWrite(writeOf(QString::number(i), QStringLiteral("unknown-name")));
    const Scrape writes = scrapeOf(counting.text());
    EXPECT_EQ(writes.at(R"(micro850_writes_total{line="press",outcome="written"})"), 2);
    EXPECT_EQ(writes.at(R"(micro850_writes_total{line="press",outcome="refused"})"), 1);
    EXPECT_EQ(writes.at(R"(micro850_writes_total{line="",outcome="unknown-name"})"), 50);

    const Scrape values = scrape();
    EXPECT_EQ(values.at(R"(micro850_value_changes_total{line="press"})"), 2);
    EXPECT_EQ(values.at(R"(micro850_variables{line="press",quality="good"})"), 1);
    EXPECT_EQ(values.at(R"(micro850_variables{line="press",quality="never"})"), 1);
    EXPECT_EQ(values.at(R"(micro850_variables{line="press",quality="stale"})"), 0);
}

TEST_F(MetricsOfLines, GoOnForALineThatStaysAndForgetOneThatIsGone)
{
    lines.statuses[0] = lineStatus(1000, 1);
    lines.setValue(0, 0, "INT", 5);
    scrape();
    lines.statuses.clear();
    lines.setLines({lineOfProject(QStringLiteral("oven"), kProject),
                    lineOfProject(QStringLiteral("press"), kProject)});
    const Scrape both = scrape();
    EXPECT_EQ(both.at(R"(micro850_value_changes_total{line="press"})"), 1);
    EXPECT_EQ(both.at(R"(micro850_value_changes_total{line="oven"})"), 0);
    EXPECT_EQ(both.at(R"(micro850_station_requests_total{line="press",station="1"})"), 1000);
    lines.setLines({lineOfProject(QStringLiteral("oven"), kProject)});
    EXPECT_FALSE(metrics.text().contains("press"));
}

TEST_F(MetricsOfLines, ShowTheHistoryAndTheDeliveries)
{
    const Scrape first = scrape();
    EXPECT_EQ(first.at("micro850_history_recording"), 1);
    EXPECT_EQ(first.at("micro850_history_file_bytes"), 8192);
    EXPECT_EQ(first.at("micro850_history_rows_total"), 77);
    EXPECT_EQ(first.at("micro850_history_left_out_rows_total"), 1);
    EXPECT_EQ(first.at("micro850_history_waiting_rows"), 4);
    EXPECT_EQ(first.at(R"(micro850_delivery_connected{delivery="mqtt"})"), 1);
    EXPECT_EQ(first.at(R"(micro850_delivery_queue_messages{delivery="mqtt"})"), 12);
    EXPECT_DOUBLE_EQ(
        first.at(R"(micro850_delivery_queue_oldest_timestamp_seconds{delivery="mqtt"})"),
        1795354200.5);
    EXPECT_EQ(first.at(R"(micro850_orders_total{delivery="mqtt",outcome="not-allowed"})"), 4);
    // Another process delivers.
    status["delivery"]["mqtt"] = deliveryStatus(10);
    status["delivery"]["mqtt"]["starts"] = 2;
    const Scrape second = scrape();
    EXPECT_EQ(second.at(R"(micro850_delivery_acknowledged_messages_total{delivery="mqtt"})"), 110);
    EXPECT_EQ(second.at(R"(micro850_delivery_starts_total{delivery="mqtt"})"), 2);
    // It does not run.
    status["delivery"]["mqtt"]["pid"] = nullptr;
    status["delivery"]["mqtt"].erase("memoryKb");
    status["history"]["state"] = "stopped";
    const Scrape third = scrape();
    EXPECT_EQ(third.at(R"(micro850_delivery_up{delivery="mqtt"})"), 0);
    EXPECT_EQ(third.at(R"(micro850_delivery_connected{delivery="mqtt"})"), 0);
    EXPECT_EQ(third.numbers.count(R"(micro850_delivery_queue_messages{delivery="mqtt"})"), 0u);
    EXPECT_EQ(third.at("micro850_history_recording"), 0);
    status = {{"history", {{"state", "off"}}}};
    EXPECT_FALSE(metrics.text().contains("micro850_history"));
    EXPECT_FALSE(metrics.text().contains("micro850_delivery"));
}

TEST_F(MetricsOfLines, ShowTheServerAlsoWhenAnotherOneTakesItsPlace)
{
    server = {5, 100, 7, 400, 2, 0, {{200, 390}, {404, 10}}};
    EXPECT_EQ(scrape().at(R"(micro850_http_responses_total{status="404"})"), 10);
    server = {1, 1, 0, 1, 0, 0, {{200, 1}}};
    const Scrape numbers = scrape();
    EXPECT_EQ(numbers.at("micro850_http_connections"), 1);
    EXPECT_EQ(numbers.at("micro850_http_event_readers"), 6);
    EXPECT_EQ(numbers.at("micro850_http_accepted_connections_total"), 101);
    EXPECT_EQ(numbers.at("micro850_http_refused_connections_total"), 7);
    EXPECT_EQ(numbers.at("micro850_http_timed_out_connections_total"), 2);
    EXPECT_EQ(numbers.at("micro850_http_requests_total"), 401);
    EXPECT_EQ(numbers.at(R"(micro850_http_responses_total{status="200"})"), 391);
    EXPECT_EQ(numbers.at(R"(micro850_http_responses_total{status="404"})"), 10);
}

TEST_F(MetricsOfLines, KeepHostileNamesWithinTheirLabels)
{
    lines.statuses[0] = lineStatus(1000, 1);
    lines.statuses[0]["stations"][0]["name"] = "<img onerror=x>\"} 1\n# TYPE evil gauge\nevil 1\\";
    const QByteArray text = metrics.text();
    EXPECT_FALSE(text.contains("\n# TYPE evil"));
    scrapeOf(text);
    EXPECT_TRUE(text.contains(R"(,name="<img onerror=x>\"} 1\n# TYPE evil gauge\nevil 1\\"} 1)"))
        << text.toStdString();
    lines.statuses[0]["stations"][0]["name"] = std::string("a\0b\rc\td", 7);
    scrapeOf(metrics.text());
    EXPECT_TRUE(metrics.text().contains("name=\"a\xEF\xBF\xBD"
                                        "b\xEF\xBF\xBD"
                                        "c\xEF\xBF\xBD"
                                        "d\""));
}

TEST_F(MetricsOfLines, LeaveOutWhatIsNoNumber)
{
    lines.statuses[0] = {{"line", "press"},
                         {"up", "yes"},
                         {"memoryKb", "much"},
                         {"oldestMs", nullptr},
                         {"workerStarts", Json::array()},
                         {"roundTrips", {{"counts", {1, 2}}, {"sumMs", 3}}},
                         {"stations", {1, {{"station", 2}, {"sent", "x"}, {"errors", 5}}}}};
    status = {{"history", 5}, {"delivery", {{"mqtt", "x"}}}, {"clients", "x"}};
    const Scrape numbers = scrape();
    EXPECT_EQ(numbers.at(R"(micro850_line_up{line="press"})"), 0);
    EXPECT_EQ(numbers.types.count("micro850_line_round_trip_seconds"), 0u);
}

TEST_F(MetricsOfLines, SatisfyTheCheckerOfTheMonitoringSystem)
{
    lines.statuses[0] = lineStatus(1000, 1);
    lines.statuses[0]["stations"][0]["name"] = "\"}\\\n";
    lines.setValue(0, 0, "INT", 5);
    server.responses[200] = 1;
    int exitStatus = 0;
    const QByteArray complaint = promtool({"check", "metrics"}, metrics.text(), exitStatus);
    EXPECT_EQ(exitStatus, 0) << complaint.toStdString();
    EXPECT_EQ(complaint.toStdString(), "");
}

// Of a worker that lives for seconds, nobody may ask while it runs.
TEST_F(MetricsOfLines, TakeCountersOnceASecondWithoutBeingAsked)
{
    lines.statuses[0] = lineStatus(1000, 1);
    QElapsedTimer waited;
    waited.start();
    int asked = 0;
    Metrics sampled({lines, [&asked] { return ++asked, Json::object(); },
                     [] { return HttpCounters(); }, nullptr});
    while (asked == 0 && waited.elapsed() < 60000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    lines.statuses[0] = lineStatus(1, 2);
    EXPECT_TRUE(sampled.text().contains(
        "\nmicro850_station_requests_total{line=\"press\",station=\"1\"} 1001\n"));
}

TEST_F(MetricsOfLines, TellHowManyLinesAreNotHeardOfYet)
{
    lines.setLines({lineOfProject(QStringLiteral("press"), kProject),
                    lineOfProject(QStringLiteral("oven"), kProject)});
    EXPECT_EQ(metrics.unheardLines(), 2);
    lines.statuses[0] = lineStatus(1, 1);
    EXPECT_EQ(metrics.unheardLines(), 1);
    lines.statuses[1] = lineStatus(1, 1);
    lines.statuses[1]["up"] = false; // that it is down is known
    EXPECT_EQ(metrics.unheardLines(), 0);
}

TEST(MetricFamilies, AreAllDescribedInTheDocument)
{
    QFile document(QStringLiteral(MICRO850_SOURCE_DIR "/docs/monitoring.md"));
    ASSERT_TRUE(document.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(document.readAll());
    std::set<QString> described;
    QRegularExpressionMatchIterator rows =
        QRegularExpression(QStringLiteral("^\\| `([a-z0-9_]+)` "),
                           QRegularExpression::MultilineOption)
            .globalMatch(text);
    while (rows.hasNext())
        described.insert(rows.next().captured(1));
    std::set<QString> there;
    for (const MetricFamily& family : Metrics::families())
        there.insert(QString::fromLatin1(family.name));
    EXPECT_EQ(described, there);
}
