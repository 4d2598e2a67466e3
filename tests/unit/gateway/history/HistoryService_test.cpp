#include "HistoryService.h"
#include "history_lines.h"
#include "history_rows.h"
#include "history_trends.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>

#include <gtest/gtest.h>

#include <thread>

using namespace micro850;
using namespace micro850::gateway;

namespace {

const qint64 kNow = 1795352400000; // 2026-11-22T13:00:00Z

class HistoryServiceTest : public ::testing::Test
{
protected:
    HistoryServiceTest()
    {
        m_lines.addLine("press", {"Level", "Speed"});
        m_lines.addLine("filler", {"Level"});
        m_settings.file = m_dir.filePath("h.sqlite");
    }
    void start()
    {
        m_service = std::make_unique<HistoryService>(
            m_lines, m_settings, m_clock, m_wall,
            [this](const LineEvent& event) { m_alarms.append(event.state); });
    }
    void set(int line, int variable, Json shown, const char* type = "INT")
    {
        GatewayValue& value = m_lines.value(line, variable);
        value.type = &cipTypeNamed(type);
        value.value = std::move(shown);
        value.quality = host::Quality::Good;
        value.time = m_wall.now() - 20;
        value.error.clear();
        tellValue(line, variable);
    }
    void tellValue(int line, int variable)
    {
        m_lines.tell([=](LineListener& listener) { listener.handleValue(line, variable); });
    }
    void tellEvent(const QString& line, int station, const QString& state)
    {
        const LineEvent event{m_wall.now(), line, station, state, state + "!"};
        m_lines.tell([&event](LineListener& listener) { listener.handleEvent(event); });
    }
    HistoryAnswer ask(const HistoryQuery& query)
    {
        std::optional<HistoryAnswer> answer;
        m_service->query(query, [&answer](HistoryAnswer given) { answer = std::move(given); });
        EXPECT_FALSE(answer) << "it is answered later";
        waitFor([&answer] { return answer.has_value(); });
        return answer.value_or(HistoryAnswer());
    }
    template<typename Answer, typename Ask> Answer answerTo(Ask ask)
    {
        std::optional<Answer> answer;
        ask([&answer](Answer given) { answer = std::move(given); });
        EXPECT_FALSE(answer) << "it is answered later";
        waitFor([&answer] { return answer.has_value(); });
        return answer.value_or(Answer());
    }
    TrendAnswer trend(const TrendQuery& query)
    {
        return answerTo<TrendAnswer>(
            [&](const auto& answered) { m_service->trend(query, answered); });
    }
    HistoryAnswer events(const RecordQuery& query)
    {
        return answerTo<HistoryAnswer>(
            [&](const auto& answered) { m_service->events(query, answered); });
    }
    HistoryAnswer writes(const RecordQuery& query)
    {
        return answerTo<HistoryAnswer>(
            [&](const auto& answered) { m_service->writes(query, answered); });
    }
    void pass(int seconds)
    {
        m_wall.advance(seconds * 1000LL);
        m_clock.advance(std::chrono::seconds(seconds));
    }
    template<typename Condition> void waitFor(Condition condition)
    {
        QElapsedTimer timer;
        timer.start();
        while (!condition() && timer.elapsed() < 60000)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    }
    QString file() const { return m_settings.file; }

    int m_argc = 1;
    char m_name[5] = "test";
    char* m_argv[2] = {m_name, nullptr};
    QCoreApplication m_application{m_argc, m_argv};
    history::FastDir m_dir;
    HistoryLines m_lines;
    HistorySettings m_settings;
    VirtualClock m_clock;
    SettableWallClock m_wall{kNow};
    QStringList m_alarms;
    std::unique_ptr<HistoryService> m_service;
};

TEST_F(HistoryServiceTest, RecordsValuesEventsAndWrites)
{
    start();
    m_lines.variable(0, 1).length = 2;
    tellEvent("press", 1, "connected");
    set(0, 0, 41);
    set(0, 1, Json::array({1, 2}));
    m_lines.value(0, 0).quality = host::Quality::Stale;
    m_lines.value(0, 0).error = "no answer";
    tellEvent("press", -1, "down");
    m_wall.advance(500);
    m_clock.advance(std::chrono::milliseconds(500));
    tellValue(0, 0);
    JournalEntry entry;
    entry.time = kNow;
    entry.client = "operator";
    entry.newValue = 7;
    entry.outcome = "written";
    m_lines.reportWrite(entry);
    m_service->flush();
    const std::vector<host::HistoryValue> values = history::valuesOf(file());
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0].value, 41);
    EXPECT_EQ(values[0].time, kNow - 20); // when it was read
    EXPECT_EQ(values[0].state, QString("connected"));
    EXPECT_EQ(values[1].value, Json::array({1, 2}));
    EXPECT_EQ(values[2].time, kNow + 500); // when it became stale
    EXPECT_EQ(values[2].quality, QString("stale"));
    EXPECT_EQ(values[2].state, QString("down"));
    EXPECT_EQ(values[2].error, QString("no answer"));
    EXPECT_EQ(history::eventsOf(file()).size(), 2u);
    ASSERT_EQ(history::writesOf(file()).size(), 1u);
    EXPECT_EQ(history::writesOf(file())[0].newValue, 7);
    EXPECT_EQ(m_service->status()["state"], "recording");
    EXPECT_EQ(m_service->status()["rows"], 6);
}

TEST_F(HistoryServiceTest, RecordsANoticeThatIsNoStateOfTheLine)
{
    start();
    tellEvent("press", 1, "connected");
    const LineEvent notice{kNow, "press", -1, "overload", "the line is 140 % asked for"};
    m_lines.tell([&notice](LineListener& listener) { listener.handleNotice(notice); });
    set(0, 0, 41);
    m_service->flush();
    const std::vector<host::HistoryEvent> events = history::eventsOf(file());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].state, QString("overload"));
    EXPECT_EQ(events[1].text, QString("the line is 140 % asked for"));
    EXPECT_EQ(history::valuesOf(file()).at(0).state, QString("connected"));
}

// A panel without a battery starts in 1970, and is set some time later.
TEST_F(HistoryServiceTest, KeepsAllValuesWhenTheClockIsSet)
{
    m_settings.keepDays = 1;
    m_wall.set(0);
    start();
    const qint64 hour = 3600000;
    int number = 0;
    for (const qint64 wall : {qint64(0), kNow, kNow - 400 * 24 * hour, kNow + 4000 * 24 * hour}) {
        m_wall.set(wall);
        for (int i = 0; i < 5; ++i) {
            set(0, 0, ++number);
            m_wall.advance(hour);
            m_clock.advance(std::chrono::hours(1));
        }
        m_service->flush();
    }
    EXPECT_EQ(history::valuesOf(file()).size(), 20u);
    // A day of the other clock is what makes them old.
    for (int i = 0; i < 30; ++i) {
        m_wall.advance(hour);
        m_clock.advance(std::chrono::hours(1));
        set(0, 0, ++number);
        m_service->flush();
    }
    const std::vector<host::HistoryValue> left = history::valuesOf(file());
    ASSERT_FALSE(left.empty());
    int newest = 0;
    for (const host::HistoryValue& value : left)
        newest = std::max(newest, value.value.get<int>());
    EXPECT_EQ(newest, 50);
    EXPECT_LT(left.size(), 50u - 20u);
}

TEST_F(HistoryServiceTest, AnswersQueriesInPages)
{
    start();
    for (int i = 0; i < 25; ++i) {
        m_wall.advance(1000);
        m_clock.advance(std::chrono::seconds(1));
        set(0, 0, i);
        set(1, 0, 100 + i);
    }
    m_service->flush();
    HistoryQuery query;
    query.filter.line = "press";
    query.filter.name = "Level";
    query.limit = 10;
    const HistoryAnswer first = ask(query);
    EXPECT_EQ(first.errorText, QString());
    ASSERT_EQ(first.values.size(), 10u);
    EXPECT_FALSE(first.complete);
    EXPECT_EQ(first.values[0].dump(),
              R"({"line":"press","name":"Level","station":1,"tag":"Level","element":0,)"
              R"("type":"INT","value":0,"quality":"good","time":"2026-11-22T13:00:00.980Z",)"
              R"("sequence":1})");
    query.filter.from = kNow + 10000 - 20;
    query.filter.after = first.values.back()["sequence"];
    query.limit = 15;
    const HistoryAnswer second = ask(query);
    ASSERT_EQ(second.values.size(), 15u);
    EXPECT_EQ(second.values[0]["value"], 10);
    EXPECT_EQ(second.values[14]["value"], 24);
    EXPECT_TRUE(second.complete);
}

TEST_F(HistoryServiceTest, AnswersTrends)
{
    start();
    m_lines.value(0, 0).unit = "cm";
    for (int i = 0; i < 25; ++i) {
        pass(1);
        set(0, 0, i * i);
    }
    m_service->flush();
    TrendQuery query{"press", "Level", 0, kNow, kNow + 30000, 3};
    const TrendAnswer parts = trend(query);
    EXPECT_EQ(parts.errorText, QString());
    EXPECT_EQ(parts.unit, QString("cm"));
    EXPECT_EQ(parts.resolutionMs, 10000);
    EXPECT_EQ(history::difference(parts.points, {{kNow, 0, 81, 81},
                                                 {kNow + 10000, 100, 361, 361},
                                                 {kNow + 20000, 400, 576, 576}}),
              "");
    query.points = 0; // at least one
    EXPECT_EQ(trend(query).points.size(), 1);
    query.points = 800;
    const TrendAnswer records = trend(query);
    EXPECT_EQ(records.resolutionMs, 0);
    ASSERT_EQ(records.points.size(), 26);
    EXPECT_EQ(records.points[24].time, kNow + 25000 - 20);
    // The recording goes on to now, with the value that did not change.
    EXPECT_EQ(records.points[25].time, kNow + 25000);
    EXPECT_EQ(records.points[25].last, 576);
    pass(3);
    EXPECT_EQ(trend(query).points[25].time, kNow + 28000);
}

TEST_F(HistoryServiceTest, SaysWhyThereIsNoTrend)
{
    start();
    set(0, 0, 1);
    set(0, 1, "a text", "STRING");
    m_service->flush();
    struct Case
    {
        TrendQuery query;
        const char* code;
        const char* text;
    };
    const std::vector<Case> cases = {
        {{"press", "level", 0, kNow, kNow + 1, 1},
         "unknown-name",
         "the history has no values of \"level\" of the line \"press\""},
        {{"press", "Level", 1, kNow, kNow + 1, 1},
         "unknown-name",
         "element 1: \"Level\" of the line \"press\" has the elements 0 to 0"},
        {{"press", "Speed", 0, kNow, kNow + 1, 1},
         "refused",
         "\"Speed\" of the line \"press\" is no number: it has no trend"},
        {{"press", "Level", 0, kNow, kNow, 1},
         "bad-request",
         "the span begins after its end (\"from\" must be before \"to\")"}};
    for (const Case& each : cases) {
        const TrendAnswer answer = trend(each.query);
        EXPECT_EQ(answer.errorCode.toStdString(), each.code);
        EXPECT_EQ(answer.errorText.toStdString(), each.text);
        EXPECT_EQ(answer.points.size(), 0);
    }
}

TEST_F(HistoryServiceTest, AnswersEventsAndWritesWithTheLastOneFirst)
{
    start();
    for (int i = 0; i < 5; ++i) {
        pass(1);
        tellEvent("press", -1, QString::number(i));
        JournalEntry entry;
        entry.time = m_wall.now();
        entry.line = "press";
        entry.newValue = 10 + i;
        m_lines.reportWrite(entry);
    }
    m_service->flush();
    const auto numbersOf = [](const HistoryAnswer& answer, const char* key) {
        std::string numbers;
        for (const Json& row : answer.values)
            numbers += row[key].dump() + ' ';
        return numbers;
    };
    RecordQuery query;
    EXPECT_EQ(numbersOf(events(query), "state"), R"("4" "3" "2" "1" "0" )");
    EXPECT_TRUE(events(query).complete);
    EXPECT_EQ(numbersOf(writes(query), "new"), "14 13 12 11 10 ");
    query.limit = 2;
    EXPECT_EQ(numbersOf(events(query), "state"), R"("4" "3" )");
    EXPECT_FALSE(events(query).complete);
    EXPECT_EQ(numbersOf(writes(query), "new"), "14 13 ");
    EXPECT_FALSE(writes(query).complete);
    query.from = kNow + 2000;
    query.to = kNow + 4000;
    EXPECT_EQ(numbersOf(events(query), "state"), R"("2" "1" )");
    EXPECT_EQ(numbersOf(writes(query), "new"), "12 11 ");
    EXPECT_TRUE(writes(query).complete);
}

// A value that does not change is not recorded: nobody would know that it holds on.
TEST_F(HistoryServiceTest, RecordsAllValuesAgainWhenTheClockWasSet)
{
    start();
    set(0, 0, 5);
    set(1, 0, 6);
    m_service->flush();
    m_wall.advance(7200000);
    waitFor([this] { return history::valuesOf(file()).size() == 4; });
    const std::vector<host::HistoryValue> values = history::valuesOf(file());
    ASSERT_EQ(values.size(), 4u);
    EXPECT_EQ(values[2].time, kNow + 7200000);
    const TrendAnswer answer = trend({"press", "Level", 0, kNow - 20, kNow + 7200000 + 1000, 800});
    EXPECT_EQ(history::difference(answer.points, {{kNow - 20, 5, 5, 5},
                                                  {answer.points.value(1).time, NAN, NAN, NAN},
                                                  {kNow + 7200000, 5, 5, 5}}),
              "");
}

TEST_F(HistoryServiceTest, RecordsAllValuesIntoAnotherFile)
{
    start();
    set(0, 0, 5);
    m_service->flush();
    m_settings.file = m_dir.filePath("other.sqlite");
    m_service->change(m_settings);
    m_service->flush();
    waitFor([this] { return history::valuesOf(file()).size() == 1; });
    set(0, 0, 6);
    m_service->flush();
    EXPECT_EQ(history::valuesOf(file()).size(), 2u);
}

TEST_F(HistoryServiceTest, EndsTheTrendOfAVariableThatTheConfigurationHasNoMore)
{
    start();
    set(0, 0, 5);
    set(0, 1, 7);
    pass(10);
    m_lines.variable(0, 0).name = m_lines.value(0, 0).name = "Other";
    m_lines.tell([](LineListener& listener) { listener.handleReload(); });
    pass(10);
    m_service->flush();
    const TrendAnswer gone = trend({"press", "Level", 0, kNow, kNow + 20000, 800});
    EXPECT_EQ(history::difference(gone.points, {{kNow, 5, 5, 5}, {kNow + 10000, NAN, NAN, NAN}}),
              "");
    const TrendAnswer other = trend({"press", "Speed", 0, kNow, kNow + 20000, 800});
    EXPECT_EQ(history::difference(other.points, {{kNow, 7, 7, 7}, {kNow + 20000, 7, 7, 7}}), "");
}

TEST_F(HistoryServiceTest, RefusesQueriesWithoutAFile)
{
    m_settings.file.clear();
    start();
    const HistoryAnswer answer = ask({});
    EXPECT_EQ(answer.errorCode, QString("refused"));
    EXPECT_EQ(answer.errorText, QString("nothing is recorded (the configuration names no "
                                        "history.file)"));
    EXPECT_EQ(trend({"press", "Level", 0, 0, 1, 1}).errorText, answer.errorText);
    EXPECT_EQ(events({}).errorCode, QString("refused"));
    EXPECT_EQ(writes({}).errorCode, QString("refused"));
    EXPECT_EQ(m_service->status().dump(), R"({"state":"off"})");
}

TEST_F(HistoryServiceTest, DoesNotBeginQueriesThatNobodyWaitsFor)
{
    start();
    set(0, 0, 7);
    m_service->flush();
    TrendQuery query{"press", "Level", 0, kNow - 1000, kNow + 1000, 10};
    const auto isUnwanted = std::make_shared<std::atomic<bool>>(false);
    query.isUnwanted = isUnwanted;
    EXPECT_EQ(trend(query).errorCode, QString());
    *isUnwanted = true;
    EXPECT_EQ(trend(query).errorCode, QString("busy"));
    RecordQuery records;
    records.isUnwanted = isUnwanted;
    EXPECT_EQ(events(records).errorCode, QString("busy"));
    EXPECT_EQ(writes(records).errorCode, QString("busy"));
    *isUnwanted = false;
    EXPECT_EQ(writes(records).errorCode, QString());
}

TEST_F(HistoryServiceTest, RefusesQueriesBeyondThoseThatMayWait)
{
    start();
    m_service->flush();
    int answered = 0;
    int busy = 0;
    for (int i = 0; i < 2000; ++i) {
        m_service->query({}, [&](const HistoryAnswer& answer) {
            ++answered;
            busy += answer.errorCode == "busy" ? 1 : 0;
        });
    }
    waitFor([&answered] { return answered == 2000; });
    EXPECT_EQ(answered, 2000);
    EXPECT_GT(busy, 0);
    EXPECT_LT(busy, 2000);
}

TEST_F(HistoryServiceTest, TellsAlarmsOnTheEventLoop)
{
    m_settings.file = m_dir.filePath("folder/h.sqlite");
    start();
    set(0, 0, 1);
    m_service->flush();
    EXPECT_EQ(m_alarms, QStringList());
    waitFor([this] { return !m_alarms.isEmpty(); });
    EXPECT_EQ(m_alarms, QStringList({"history stopped"}));
    EXPECT_EQ(m_service->status()["state"], "stopped");
    EXPECT_EQ(m_service->status()["reason"],
              file().toStdString() + ": cannot be written: its folder is not there (create it)");
    ASSERT_TRUE(QDir().mkdir(m_dir.filePath("folder")));
    waitFor([this] { return m_alarms.size() == 2; }); // by itself
    EXPECT_EQ(m_alarms.last(), QString("history recording"));
    EXPECT_EQ(history::valuesOf(file()).size(), 1u);
}

TEST_F(HistoryServiceTest, EndsWithQueriesAndAlarmsOnTheirWay)
{
    for (int round = 0; round < 20; ++round) {
        start();
        for (int i = 0; i < 100; ++i)
            set(0, 0, i);
        bool answered = false;
        m_service->query({}, [&answered](const HistoryAnswer&) { answered = true; });
        m_service.reset();
        QCoreApplication::processEvents();
        EXPECT_FALSE(answered);
        EXPECT_EQ(m_lines.listeners(), 0u);
    }
    EXPECT_EQ(history::valuesOf(file()).size(), 2000u);
}

TEST_F(HistoryServiceTest, TakesAVariableThatChangedInAReloadForAnother)
{
    start();
    set(0, 0, 1);
    m_lines.value(0, 0).unit = "mm";
    m_lines.tell([](LineListener& listener) { listener.handleReload(); });
    set(0, 0, 2);
    set(0, 0, 3, "DINT"); // downloaded with another type
    m_service->flush();
    const std::vector<host::HistoryValue> values = history::valuesOf(file());
    ASSERT_EQ(values.size(), 3u);
    EXPECT_EQ(values[0].variable->unit, QString());
    EXPECT_EQ(values[1].variable->unit, QString("mm"));
    EXPECT_EQ(values[2].variable->type, QString("DINT"));
}

// Values come while others read: nothing is lost and nothing waits.
TEST_F(HistoryServiceTest, RecordsWhileItIsAsked)
{
    start();
    int answered = 0;
    for (int i = 0; i < 20000; ++i) {
        set(0, i % 2, i);
        if (i % 1000 == 0)
            m_service->query({}, [&answered](const HistoryAnswer&) { ++answered; });
    }
    waitFor([&answered] { return answered == 20; });
    m_service->flush();
    EXPECT_EQ(m_service->status()["rows"], 20000);
    EXPECT_EQ(history::valuesOf(file()).size(), 20000u);
}

} // namespace
