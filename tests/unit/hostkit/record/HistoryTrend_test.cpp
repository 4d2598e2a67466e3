#include "HistoryFile.h"
#include "history_rows.h"
#include "history_trends.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

using namespace micro850;
using namespace micro850::host;
using history::difference;
using history::trendOf;
using history::value;
using history::variable;

namespace {

const qint64 kMegabyte = 1024 * 1024;
const qint64 kNow = 1795352400000; // 2026-11-22T13:00:00Z
const double kNan = std::nan("");

class HistoryTrendTest : public ::testing::Test
{
protected:
    QString path(const QString& name = "h.sqlite") const { return m_dir.filePath(name); }
    static void record(HistoryFile& file, const std::vector<HistoryValue>& rows)
    {
        for (std::size_t i = 0; i < rows.size();) {
            file.begin();
            for (; i < rows.size() && !file.isTransactionFull(); ++i)
                file.add(rows[i]);
            file.commit();
        }
    }
    static TrendRequest span(const QString& name, qint64 from, qint64 to, int points = 800)
    {
        TrendRequest request;
        request.line = "press";
        request.name = name;
        request.from = from;
        request.to = to;
        request.points = points;
        return request;
    }
    static std::vector<TrendPoint> same(const std::vector<std::pair<qint64, double>>& values)
    {
        std::vector<TrendPoint> points;
        for (const auto& [time, number] : values)
            points.push_back({time, number, number, number});
        return points;
    }

private:
    history::FastDir m_dir;
};

// A plant of its own: it records into a file, and remembers what it did.
class Plant
{
public:
    Plant(QString path, qint64 bytes, unsigned seed) : m_path(std::move(path)), m_random(seed)
    {
        m_limits.bytes = bytes;
        m_variables = {variable("Int"),
                       variable("Switch", "BOOL"),
                       variable("Real", "REAL"),
                       variable("Large", "ULINT"),
                       variable("Array", "REAL", 3),
                       variable("Seldom")};
        open();
    }

    void work(int steps)
    {
        for (int step = 0; step < steps; ++step) {
            const auto what = m_random() % 200;
            if (what == 0)
                open(); // the service was down for a while
            else if (what == 1)
                setClock(qint64(m_random() % 7200000) - 3600000);
            else if (what < 10)
                pass(qint64(m_random() % 1200000));
            recordSome();
        }
    }
    void close() { m_file.reset(); }
    HistoryFile& file() { return *m_file; }

    /// The value that goes on from a record that is still there.
    double carried(const std::vector<HistoryValue>& rows, const QString& name, int element,
                   qint64 time) const
    {
        for (std::size_t i = m_recordings.size(); i-- > 0;) {
            const Recording& recording = m_recordings[i];
            const HistoryValue* last = nullptr;
            qint64 began = recording.until;
            for (const HistoryValue& row : rows) {
                if (row.sequence < recording.first || row.sequence > recording.last)
                    continue;
                began = std::min(began, row.time);
                if (row.variable->name != name || row.time >= time)
                    continue;
                if (!last || std::make_pair(last->time, last->sequence) <
                                 std::make_pair(row.time, row.sequence))
                    last = &row;
            }
            if (last && began <= time && recording.until > time)
                return history::numberOf(*last, element);
        }
        return kNan;
    }
    qint64 now() const { return m_wall; }

private:
    struct Recording
    {
        qint64 first;
        qint64 last;
        qint64 until;
    };

    void open()
    {
        m_file.reset();
        m_file = std::make_unique<HistoryFile>(m_path, m_limits);
        m_wall += 1 + qint64(m_random() % 600000);
        m_isNew = true;
    }
    void setClock(qint64 by)
    {
        m_file->endPeriod();
        m_wall += by;
        m_isNew = true;
    }
    void pass(qint64 milliseconds)
    {
        m_wall += milliseconds;
        m_file->advance(std::chrono::milliseconds(milliseconds));
    }
    void recordSome()
    {
        const qint64 before = m_file->sequence();
        m_file->begin();
        const int count = 1 + int(m_random() % 60);
        for (int i = 0; i < count && !m_file->isTransactionFull(); ++i) {
            pass(qint64(m_random() % 2000));
            m_file->add(someValue());
        }
        pass(qint64(m_random() % 500));
        m_file->commit();
        if (m_isNew)
            m_recordings.push_back({before + 1, 0, m_wall});
        m_isNew = false;
        m_recordings.back().last = m_file->sequence();
        m_recordings.back().until = m_wall;
        for (int i = 0; i < 8 && m_file->retain(); ++i) {
        }
    }
    HistoryValue someValue()
    {
        const std::size_t which = m_random() % 100 < 2 ? 5 : m_random() % 5;
        const auto number = qint64(m_random() % 2000001) - 1000000;
        HistoryValue row = value(m_variables[which], m_wall, number);
        if (which == 1)
            row.value = m_random() % 2 == 0;
        else if (which == 2)
            row.value = m_random() % 20 == 0 ? Json("nan") : Json(double(number) / 7);
        else if (which == 3)
            row.value = std::uint64_t(9223372036854000000u) + m_random() % 2000 * 1000;
        else if (which == 4)
            row.value = Json::array(
                {number, double(number) / 3, m_random() % 3 == 0 ? Json("inf") : Json(7.5)});
        if (m_random() % 25 == 0)
            row.quality = "stale";
        return row;
    }

    QString m_path;
    std::mt19937 m_random;
    HistoryLimits m_limits;
    std::unique_ptr<HistoryFile> m_file;
    std::vector<std::shared_ptr<const HistoryVariable>> m_variables;
    std::vector<Recording> m_recordings;
    qint64 m_wall = kNow;
    bool m_isNew = true;
};

// Compares spans of all lengths with what the values themselves say.
void checkTrends(const QString& path, const Plant& plant, unsigned seed, int count)
{
    const std::vector<HistoryValue> rows = history::valuesOf(path);
    ASSERT_GT(rows.size(), 100u);
    std::mt19937 random(seed);
    const std::vector<std::pair<QString, int>> wanted = {{"Int", 0},   {"Switch", 0}, {"Real", 0},
                                                         {"Large", 0}, {"Array", 0},  {"Array", 1},
                                                         {"Array", 2}, {"Seldom", 0}};
    int parts = 0;
    for (int i = 0; i < count; ++i) {
        TrendRequest request;
        request.line = "press";
        std::tie(request.name, request.element) = wanted[random() % wanted.size()];
        const qint64 one = rows[random() % rows.size()].time + qint64(random() % 3) - 1;
        const qint64 other = rows[random() % rows.size()].time + qint64(random() % 3) - 1;
        request.from = std::min(one, other);
        request.to = std::max(one, other) + 1;
        request.points = 1 + int(random() % 40);
        const HistoryTrend trend = trendOf(path, request);
        if (trend.resolutionMs == 0)
            continue;
        ++parts;
        EXPECT_EQ(trend.resolutionMs,
                  (request.to - request.from + request.points - 1) / request.points);
        const std::string wrong =
            difference(trend.points,
                       history::expectedParts(rows, request, trend.resolutionMs, [&](qint64 time) {
                           return plant.carried(rows, request.name, request.element, time);
                       }));
        ASSERT_EQ(wrong, "") << request.name.toStdString() << '[' << request.element << "] from "
                             << request.from << " to " << request.to << " in " << request.points
                             << ", seed " << seed;
    }
    EXPECT_GT(parts, count / 3);
}

TEST_F(HistoryTrendTest, HasTheLeastAndTheGreatestOfTheValuesOfEachPart)
{
    for (unsigned seed = 1; seed <= 4; ++seed) {
        Plant plant(path(QString::number(seed)), 2 * kMegabyte, seed);
        plant.work(250);
        checkTrends(path(QString::number(seed)), plant, seed, 60); // also while a period is open
        if (HasFatalFailure())
            return;
    }
}

TEST_F(HistoryTrendTest, HasWhatIsLeftWhereTheOldestPeriodsWereRemoved)
{
    Plant plant(path(), kMegabyte, 7);
    plant.work(1500);
    const std::vector<HistoryValue> rows = history::valuesOf(path());
    ASSERT_GT(rows.front().sequence, 1); // some were removed
    checkTrends(path(), plant, 7, 60);
    EXPECT_LE(history::bytesOf(path()), kMegabyte);
    // Not more rollups than the rows that are left can have.
    Database database(path(), Database::Access::Read);
    EXPECT_GT(database.number("SELECT count(*) FROM rollups"), 20);
    EXPECT_EQ(database.number("SELECT count(*) FROM rollups WHERE first < (SELECT min(first) FROM "
                              "periods)"),
              0);
}

TEST_F(HistoryTrendTest, IsMadeOfRollupsAndNotOfAllValues)
{
    HistoryFile file(path(), {});
    const auto a = variable("A");
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 20000; ++i)
        rows.push_back(value(a, kNow + i * 1000LL, i));
    record(file, rows);
    file.endPeriod();
    record(file, {value(a, kNow + 20000000, 5)});
    {
        Database database(path(), Database::Access::Read);
        EXPECT_EQ(database.number("SELECT count(*) FROM rollups"), (20000 + 63) / 64);
    }
    // Values that are wrong in the middle of a part do not show when nobody reads them.
    Database database(path(), Database::Access::Write);
    database.run("UPDATE stored_values SET value = -1 WHERE sequence = 5000");
    const HistoryTrend trend = trendOf(path(), span("A", kNow, kNow + 20000000, 2));
    EXPECT_EQ(
        difference(trend.points, {{kNow, 0, 9999, 9999}, {kNow + 10000000, 10000, 19999, 19999}}),
        "");
}

TEST_F(HistoryTrendTest, IsTheRecordsThemselvesWhereTheyAreFew)
{
    HistoryFile file(path(), {});
    const auto a = variable("A");
    HistoryValue stale = value(a, kNow + 3000, 2);
    stale.quality = "stale";
    record(file, {value(a, kNow, 1), value(a, kNow + 1000, 2), stale, value(a, kNow + 4000, 7),
                  value(variable("B"), kNow + 9000, 0)});
    // From the first value on, and to where the recording is known to have gone.
    HistoryTrend trend = trendOf(path(), span("A", kNow - 500, kNow + 20000));
    EXPECT_EQ(trend.resolutionMs, 0);
    EXPECT_EQ(trend.unit, QString("bar"));
    EXPECT_EQ(difference(trend.points, same({{kNow, 1},
                                             {kNow + 1000, 2},
                                             {kNow + 3000, kNan},
                                             {kNow + 4000, 7},
                                             {kNow + 9000, 7}})),
              "");
    // The value before holds on at the beginning, the last one to the end of the span.
    trend = trendOf(path(), span("A", kNow + 1500, kNow + 6000));
    EXPECT_EQ(
        difference(
            trend.points,
            same({{kNow + 1500, 2}, {kNow + 3000, kNan}, {kNow + 4000, 7}, {kNow + 6000, 7}})),
        "");
    // One more record than points: parts.
    EXPECT_EQ(trendOf(path(), span("A", kNow, kNow + 5000, 4)).resolutionMs, 0);
    EXPECT_EQ(trendOf(path(), span("A", kNow, kNow + 5000, 3)).resolutionMs, 1667);
}

TEST_F(HistoryTrendTest, GoesOnWithAValueThatDidNotChange)
{
    HistoryFile file(path(), {});
    const auto a = variable("A");
    record(file, {value(a, kNow, 5)});
    file.advance(std::chrono::hours(10)); // nothing changes, nothing is recorded
    file.begin();
    file.commit();
    const qint64 hour = 3600000;
    EXPECT_EQ(difference(trendOf(path(), span("A", kNow + hour, kNow + 2 * hour)).points,
                         same({{kNow + hour, 5}, {kNow + 2 * hour, 5}})),
              "");
    EXPECT_EQ(difference(trendOf(path(), span("A", kNow + 9 * hour, kNow + 99 * hour)).points,
                         same({{kNow + 9 * hour, 5}, {kNow + 10 * hour, 5}})),
              "");
    // The recorder itself knows more.
    TrendRequest request = span("A", kNow + 9 * hour, kNow + 99 * hour);
    request.recordedUntil = kNow + 11 * hour;
    EXPECT_EQ(difference(trendOf(path(), request).points,
                         same({{kNow + 9 * hour, 5}, {kNow + 11 * hour, 5}})),
              "");
    EXPECT_EQ(trendOf(path(), span("A", kNow + 12 * hour, kNow + 99 * hour)).points.size(), 0);
}

TEST_F(HistoryTrendTest, HasAGapWhereTheServiceDidNotRun)
{
    const auto a = variable("A");
    {
        HistoryFile file(path(), {});
        record(file, {value(a, kNow, 5), value(variable("B"), kNow + 2000, 0)});
    }
    HistoryFile file(path(), {});
    record(file, {value(variable("B"), kNow + 7000, 0), value(a, kNow + 8000, 6)});
    EXPECT_EQ(difference(trendOf(path(), span("A", kNow, kNow + 10000)).points,
                         same({{kNow, 5}, {kNow + 2000, kNan}, {kNow + 8000, 6}})),
              "");
    EXPECT_EQ(difference(trendOf(path(), span("A", kNow + 1000, kNow + 9000, 1)).points,
                         same({{kNow + 1000, 5}, {kNow + 2000, kNan}, {kNow + 8000, 6}})),
              "");
    // In parts, too.
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 10; ++i)
        rows.push_back(value(a, kNow + 8000 + i, 6 + i));
    record(file, rows);
    EXPECT_EQ(difference(trendOf(path(), span("A", kNow, kNow + 9000, 9)).points,
                         {{kNow, 5, 5, 5},
                          {kNow + 1000, 5, 5, 5},
                          {kNow + 2000, kNan, kNan, kNan},
                          {kNow + 3000, kNan, kNan, kNan},
                          {kNow + 4000, kNan, kNan, kNan},
                          {kNow + 5000, kNan, kNan, kNan},
                          {kNow + 6000, kNan, kNan, kNan},
                          {kNow + 7000, kNan, kNan, kNan},
                          {kNow + 8000, 6, 15, 15}}),
              "");
}

TEST_F(HistoryTrendTest, LeavesOutWhatHasAnotherUnitAndSaysWhatHasNoTrend)
{
    HistoryFile file(path(), {});
    HistoryVariable millimetres = *variable("A", "DINT");
    millimetres.unit = "mm";
    record(file, {value(std::make_shared<const HistoryVariable>(millimetres), kNow, 400),
                  value(variable("Text", "STRING"), kNow, "a"),
                  value(variable("Three", "INT", 3), kNow, Json::array({1, 2, 3}))});
    file.endPeriod();
    record(file, {value(variable("A"), kNow + 1000, 41),
                  value(variable("A", "REAL"), kNow + 2000, 41.5)});
    const HistoryTrend trend = trendOf(path(), span("A", kNow - 1, kNow + 2001));
    EXPECT_EQ(trend.unit, QString("bar"));
    EXPECT_EQ(difference(trend.points, same({{kNow + 1000, 41}, {kNow + 2000, 41.5}})), "");
    using Outcome = HistoryTrend::Outcome;
    EXPECT_EQ(trendOf(path(), span("Text", kNow, kNow + 1)).outcome, Outcome::NoNumber);
    EXPECT_EQ(trendOf(path(), span("a", kNow, kNow + 1)).outcome, Outcome::Unknown);
    TrendRequest request = span("Three", kNow, kNow + 1);
    for (const auto& [element, outcome] :
         std::vector<std::pair<int, Outcome>>{{-1, Outcome::NoElement},
                                              {0, Outcome::Done},
                                              {2, Outcome::Done},
                                              {3, Outcome::NoElement}})
    {
        request.element = element;
        EXPECT_EQ(trendOf(path(), request).outcome, outcome) << element;
    }
    request.line = "Press";
    EXPECT_EQ(trendOf(path(), request).outcome, Outcome::Unknown);
}

TEST_F(HistoryTrendTest, TakesSpansOfAllLengths)
{
    HistoryFile file(path(), {});
    record(file, {value(variable("A"), kNow, 5), value(variable("A"), kNow + 1, 6)});
    const qint64 first = std::numeric_limits<qint64>::min();
    const qint64 last = std::numeric_limits<qint64>::max();
    EXPECT_EQ(difference(trendOf(path(), span("A", first, last)).points,
                         same({{kNow, 5}, {kNow + 1, 6}})),
              "");
    const HistoryTrend one = trendOf(path(), span("A", first, last, 1));
    ASSERT_EQ(one.points.size(), 1);
    EXPECT_EQ(one.points[0].least, 5);
    EXPECT_EQ(one.points[0].greatest, 6);
    EXPECT_EQ(trendOf(path(), span("A", last, first)).points.size(), 0);
    EXPECT_EQ(trendOf(path(), span("A", kNow, kNow)).points.size(), 0);
}

TEST_F(HistoryTrendTest, EndsWhenItIsToEnd)
{
    HistoryFile file(path(), {});
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 5000; ++i)
        rows.push_back(value(variable("A"), kNow + i, i));
    record(file, rows);
    const HistoryTrend trend =
        HistoryReader(path()).trend(span("A", kNow, kNow + 5000), [] { return true; });
    EXPECT_EQ(trend.outcome, HistoryTrend::Outcome::Ended);
    EXPECT_EQ(trend.points.size(), 0);
}

// ---- Of an earlier version ----------------------------------------------------------------------

/// Makes the file what the first version wrote.
void makeFirstVersion(const QString& path)
{
    Database database(path, Database::Access::Write);
    database.run("BEGIN; DROP TABLE rollups; ALTER TABLE periods DROP COLUMN until; "
                 "ALTER TABLE periods DROP COLUMN continues; UPDATE meta SET value = 1 WHERE key = "
                 "'format'; PRAGMA user_version = 1; COMMIT");
}

TEST_F(HistoryTrendTest, OfAnEarlierVersionIsTheSameBeforeDuringAndAfterTheConversion)
{
    const auto a = variable("A");
    HistoryLimits limits;
    limits.bytes = 4 * kMegabyte; // short periods
    {
        HistoryFile file(path(), limits);
        for (int i = 0; i < 300; ++i) {
            std::vector<HistoryValue> rows;
            for (int k = 0; k < 40; ++k) {
                file.advance(std::chrono::milliseconds(1000));
                rows.push_back(value(a, kNow + (i * 40 + k + 1) * 1000LL, (i * 37 + k) % 1000));
            }
            record(file, rows);
        }
    }
    const TrendRequest request = span("A", kNow + 777, kNow + 11000123, 50);
    const HistoryTrend before = trendOf(path(), request);
    const std::vector<TrendPoint> expected(before.points.begin(), before.points.end());
    EXPECT_EQ(difference(expected,
                         history::expectedParts(history::valuesOf(path()), request,
                                                before.resolutionMs, [](qint64) { return kNan; })),
              "");
    makeFirstVersion(path());
    const std::vector<HistoryValue> rows = history::valuesOf(path());
    EXPECT_EQ(difference(trendOf(path(), request).points, expected), "");
    {
        const HistoryFile converted(path(), limits);
        EXPECT_EQ(difference(trendOf(path(), request).points, expected), "");
    }
    int steps = 0;
    for (bool hasMore = true; hasMore; ++steps) {
        HistoryFile file(path(), limits); // goes on after each restart
        file.begin();
        file.commit();
        hasMore = file.convert();
        EXPECT_EQ(difference(trendOf(path(), request).points, expected), "");
    }
    EXPECT_GT(steps, 3);
    {
        Database database(path(), Database::Access::Read);
        EXPECT_GT(database.number("SELECT count(*) FROM rollups"), 12000 / 64);
        EXPECT_EQ(database.number("PRAGMA user_version"), 2);
    }
    EXPECT_EQ(history::integrityOf(path()).toStdString(), "ok");
    EXPECT_EQ(history::valuesOf(path()).size(), rows.size());
}

} // namespace
