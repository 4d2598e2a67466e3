#include "HistoryFile.h"
#include "history_rows.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

#include <gtest/gtest.h>

#include <limits>
#include <sys/stat.h>

using namespace micro850;
using namespace micro850::host;
using history::value;
using history::valuesOf;
using history::variable;

namespace {

const qint64 kMegabyte = 1024 * 1024;
const qint64 kNow = 1795352400000; // 2026-11-22

class HistoryFileTest : public ::testing::Test
{
protected:
    QString path(const QString& name = "h.sqlite") const { return m_dir.filePath(name); }
    /// Records the rows in transactions as a gateway does.
    template<typename Row> void record(HistoryFile& file, const std::vector<Row>& rows)
    {
        for (std::size_t i = 0; i < rows.size();) {
            file.begin();
            for (; i < rows.size() && !file.isTransactionFull(); ++i)
                file.add(rows[i]);
            file.commit();
            while (file.retain()) {
            }
        }
    }
    void record(HistoryFile& file, const HistoryValue& row)
    {
        record(file, std::vector<HistoryValue>({row}));
    }

private:
    history::FastDir m_dir;
};

TEST_F(HistoryFileTest, KeepsEveryKindOfValueExactly)
{
    struct Case
    {
        const char* type;
        int length;
        Json value;
    };
    const std::vector<Case> cases = {
        {"BOOL", 1, true},
        {"BOOL", 1, false},
        {"INT", 1, -32768},
        {"LINT", 1, std::numeric_limits<std::int64_t>::min()},
        {"LINT", 1, std::numeric_limits<std::int64_t>::max()},
        {"ULINT", 1, std::uint64_t(9223372036854775807u)},
        {"ULINT", 1, std::uint64_t(9223372036854775808u)},
        {"ULINT", 1, std::numeric_limits<std::uint64_t>::max()},
        {"LWORD", 1, std::numeric_limits<std::uint64_t>::max()},
        {"LREAL", 1, 0.1},
        {"LREAL", 1, 5.0},
        {"LREAL", 1, -1.7976931348623157e308},
        {"REAL", 1, "nan"},
        {"REAL", 1, "inf"},
        {"SHORT_STRING", 1, ""},
        {"SHORT_STRING", 1, "[1, 2]"},
        {"SHORT_STRING", 1, "09223372036854775808"},
        {"SHORT_STRING", 1, "a\n\"b\"\xc3\xa9"},
        {"DATE", 1, "2024-02-29"},
        {"ULINT", 2, Json::array({std::uint64_t(18446744073709551615u), 0})},
        {"BOOL", 3, Json::array({true, false, true})},
        {"REAL", 2, Json::array({0.5, "nan"})},
        {"SHORT_STRING", 2, Json::array({"a", "[]"})},
        {"", 1, nullptr},
    };
    HistoryFile file(path(), {});
    std::vector<HistoryValue> rows;
    for (const Case& each : cases)
        rows.push_back(value(variable("V", each.type, each.length), kNow, each.value));
    record(file, rows);
    const auto check = [this, &cases] {
        const std::vector<HistoryValue> read = valuesOf(path());
        ASSERT_EQ(read.size(), cases.size());
        for (std::size_t i = 0; i < cases.size(); ++i) {
            EXPECT_EQ(read[i].value.dump(), cases[i].value.dump()) << i;
            EXPECT_EQ(read[i].value.type() == Json::value_t::number_float,
                      cases[i].value.type() == Json::value_t::number_float)
                << i;
            EXPECT_EQ(read[i].variable->type.toStdString(), cases[i].type) << i;
        }
    };
    check();
    file.endPeriod(); // they are moved to the other table
    file.begin();
    file.commit();
    check();
}

TEST_F(HistoryFileTest, KeepsAllThatIsKnownOfARow)
{
    {
        HistoryFile file(path(), {});
        HistoryValue row = value(variable("Level", "REAL"), kNow, nullptr);
        row.quality = "stale";
        row.state = "dead";
        row.error = "no answer";
        record(file, row);
        HistoryWrite write;
        write.time = kNow + 1;
        write.uid = 1000;
        write.pid = 42;
        write.client = "operator";
        write.line = "press";
        write.name = "Setpoint";
        write.element = 7;
        write.oldValue = 1.5;
        write.newValue = "x";
        write.outcome = "refused";
        write.error = "too large";
        record(file, std::vector<HistoryWrite>({write}));
        HistoryEvent event;
        event.time = kNow + 2;
        event.line = "press";
        event.station = 2;
        event.state = "dead";
        event.text = "station 2: no answer";
        HistoryEvent line = event;
        line.station = -1;
        record(file, std::vector<HistoryEvent>({event, line}));
    }
    const HistoryValue row = valuesOf(path()).at(0);
    EXPECT_EQ(jsonOf(row).dump(),
              R"({"line":"press","name":"Level","station":2,"tag":"LevelTag","element":3,)"
              R"("type":"REAL","value":null,"quality":"stale","time":"2026-11-22T13:00:00.000Z",)"
              R"("unit":"bar","error":"no answer","state":"dead","sequence":1})");
    EXPECT_EQ(jsonOf(history::writesOf(path()).at(0)).dump(),
              R"({"time":"2026-11-22T13:00:00.001Z","uid":1000,"pid":42,"client":"operator",)"
              R"("line":"press","name":"Setpoint","element":7,"old":1.5,"new":"x",)"
              R"("outcome":"refused","error":"too large","sequence":2})");
    const std::vector<HistoryEvent> events = history::eventsOf(path());
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(jsonOf(events[0]).dump(),
              R"({"time":"2026-11-22T13:00:00.002Z","line":"press","station":2,"state":"dead",)"
              R"("text":"station 2: no answer","sequence":3})");
    EXPECT_EQ(events[1].station, -1);
}

TEST_F(HistoryFileTest, IsForUserAndGroupOnlyWhateverTheUmask)
{
    const mode_t before = ::umask(0);
    HistoryFile file(path(), {});
    record(file, value(variable("A"), kNow, 1));
    ::umask(before);
    for (const char* end : {"", "-wal", "-shm"}) {
        struct stat found
        {
        };
        ASSERT_EQ(::stat(QFile::encodeName(path() + end).constData(), &found), 0) << end;
        EXPECT_EQ(found.st_mode & 0777, 0640U) << end;
    }
}

TEST_F(HistoryFileTest, CountsOnAfterItWasClosed)
{
    for (int i = 0; i < 3; ++i) {
        HistoryFile file(path(), {});
        EXPECT_EQ(file.sequence(), i);
        record(file, value(variable("A"), kNow + i, i));
    }
    const std::vector<HistoryValue> rows = valuesOf(path());
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[2].sequence, 3);
    EXPECT_EQ(history::integrityOf(path()).toStdString(), "ok");
}

TEST_F(HistoryFileTest, KeepsTheOrderOfRecordingWhereTheClockIsSetBack)
{
    HistoryFile file(path(), {});
    const auto a = variable("A");
    record(file, std::vector<HistoryValue>({value(a, kNow, 1), value(a, kNow, 2)}));
    file.endPeriod();
    record(file, std::vector<HistoryValue>({value(a, kNow - 5000, 3), value(a, kNow, 4)}));
    std::vector<std::pair<int, qint64>> read; // by time, and of the same time by sequence
    for (const HistoryValue& row : valuesOf(path()))
        read.emplace_back(row.value.get<int>(), row.sequence);
    EXPECT_EQ(read, (std::vector<std::pair<int, qint64>>{{3, 3}, {1, 1}, {2, 2}, {4, 4}}));
}

TEST_F(HistoryFileTest, IsNotOpenedTwiceForWriting)
{
    const HistoryFile file(path(), {});
    try {
        const HistoryFile other(path(), {});
        FAIL();
    } catch (const HistoryRefused& error) {
        EXPECT_EQ(error.what(), path().toStdString() + ": another program records into it");
    }
}

TEST_F(HistoryFileTest, LeavesTheDatabaseOfAnotherProgramAlone)
{
    {
        Database other(path(), Database::Access::Write);
        other.run("CREATE TABLE precious (a); INSERT INTO precious VALUES (1)");
    }
    QFile file(path());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray before = file.readAll();
    try {
        const HistoryFile history(path(), {});
        FAIL();
    } catch (const UserError& error) {
        EXPECT_EQ(error.what(),
                  path().toStdString() + ": is a database of another program, and no history");
    }
    file.seek(0);
    EXPECT_EQ(file.readAll(), before);
}

TEST_F(HistoryFileTest, OfALaterFormatIsRefused)
{
    HistoryFile(path(), {});
    {
        Database database(path(), Database::Access::Write);
        database.run("PRAGMA user_version = 3");
    }
    EXPECT_THROW(HistoryFile(path(), {}), UserError);
    EXPECT_THROW(HistoryReader{path()}, UserError);
}

TEST_F(HistoryFileTest, SaysThatAFileIsDamaged)
{
    {
        HistoryFile file(path(), {});
        record(file, value(variable("A"), kNow, 1));
    }
    QFile file(path());
    ASSERT_TRUE(file.resize(file.size() / 2));
    try {
        const HistoryFile damaged(path(), {});
        FAIL();
    } catch (const DatabaseError& error) {
        EXPECT_TRUE(error.isDamage());
        EXPECT_EQ(error.what(), path().toStdString() + ": is damaged or cut short");
    }
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(5000, 'x'));
    file.close();
    try {
        const HistoryFile damaged(path(), {});
        FAIL();
    } catch (const DatabaseError& error) {
        EXPECT_TRUE(error.isDamage());
        EXPECT_EQ(error.what(), path().toStdString() + ": is not a database");
    }
}

TEST_F(HistoryFileTest, SetsFilesAsideUnderNamesOfTheirOwn)
{
    for (int i = 0; i < 2; ++i) {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray::number(i));
        file.close();
        QFile log(path() + "-wal");
        ASSERT_TRUE(log.open(QIODevice::WriteOnly));
        log.close();
        const QString name = HistoryFile::setAside(path(), kNow);
        EXPECT_EQ(name, path("h.sqlite.damaged-20261122T130000Z") + (i == 0 ? "" : "-2"));
        QFile aside(name);
        ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
        EXPECT_EQ(aside.readAll(), QByteArray::number(i));
        EXPECT_TRUE(QFile::exists(name + "-wal"));
        EXPECT_FALSE(QFile::exists(path()));
    }
}

// ---- Retention ----------------------------------------------------------------------------------

TEST_F(HistoryFileTest, ForgetsWhatIsOlderThanItsAgeInTimeOfRecording)
{
    HistoryLimits limits;
    limits.age = std::chrono::hours(24);
    HistoryFile file(path(), limits);
    const auto a = variable("A");
    const auto b = variable("Gone");
    record(file, value(b, kNow, 0));
    for (int hour = 0; hour < 48; ++hour) {
        record(file, value(a, kNow + hour * 3600000LL, hour));
        file.advance(std::chrono::hours(1));
    }
    file.begin();
    file.commit();
    while (file.retain()) {
    }
    const std::vector<HistoryValue> rows = valuesOf(path());
    ASSERT_FALSE(rows.empty());
    // A period of an hour more, at most.
    EXPECT_GE(rows.size(), 24u);
    EXPECT_LE(rows.size(), 25u);
    EXPECT_EQ(rows.back().value, 47);
    Database database(path(), Database::Access::Read);
    EXPECT_EQ(database.number("SELECT count(*) FROM variables"), 1);
}

TEST_F(HistoryFileTest, ForgetsNothingBecauseTheClockJumped)
{
    HistoryLimits limits;
    limits.age = std::chrono::hours(24);
    const auto a = variable("A");
    const qint64 day = 24LL * 3600000;
    int count = 0;
    // 1970, 2026, 2099 and back, also across restarts.
    for (const qint64 time : {qint64(0), kNow, kNow + 73 * 365 * day, kNow, qint64(1000)}) {
        for (int restart = 0; restart < 2; ++restart) {
            HistoryFile file(path(), limits);
            file.endPeriod();
            record(file, value(a, time, count++));
            file.advance(std::chrono::hours(1));
            file.begin();
            file.commit();
            while (file.retain()) {
            }
        }
    }
    EXPECT_EQ(valuesOf(path()).size(), 10u);
    // A day of recording later only the last hours' are left, wherever the clock stood.
    HistoryFile file(path(), limits);
    file.advance(std::chrono::minutes(23 * 60 + 30));
    record(file, value(a, 0, 10));
    std::vector<int> left;
    for (const HistoryValue& row : valuesOf(path()))
        left.push_back(row.value.get<int>());
    EXPECT_EQ(left, (std::vector<int>{10}));
}

// A file, a log and an index: their sum counts at every moment.
TEST_F(HistoryFileTest, StaysWithinItsBytesWhileTheOldestRowsGo)
{
    for (const int megabytes : {1, 2}) {
        const QString name = path(QString::number(megabytes));
        HistoryLimits limits;
        limits.bytes = megabytes * kMegabyte;
        HistoryFile file(name, limits);
        std::vector<std::shared_ptr<const HistoryVariable>> variables;
        for (int i = 0; i < 8; ++i)
            variables.push_back(variable(QString::number(i)));
        qint64 most = 0;
        for (int i = 0; i < 100000; ++i) {
            if (i % 100 == 0)
                file.begin();
            file.add(value(variables[i % 8], kNow + i, i));
            if (i % 100 != 99)
                continue;
            file.commit();
            for (int step = 0; step < 8 && file.retain(); ++step) {
            }
            most = std::max(most, history::bytesOf(name));
        }
        EXPECT_LE(most, limits.bytes);
        EXPECT_GE(most, limits.bytes / 2);
        const std::vector<HistoryValue> rows = valuesOf(name);
        ASSERT_GT(rows.size(), 5000u);
        EXPECT_LT(rows.size(), 100000u);
        // The newest, without a hole.
        for (std::size_t i = 0; i < rows.size(); ++i)
            ASSERT_EQ(rows[i].sequence, 100000 - qint64(rows.size()) + 1 + qint64(i));
    }
}

TEST_F(HistoryFileTest, GivesPagesBackWhenItsLimitBecomesSmaller)
{
    HistoryLimits limits;
    limits.bytes = 8 * kMegabyte;
    HistoryFile file(path(), limits);
    const auto a = variable("A");
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 130000; ++i)
        rows.push_back(value(a, kNow + i, i));
    record(file, rows);
    EXPECT_GT(history::bytesOf(path()), 3 * kMegabyte);
    limits.bytes = 2 * kMegabyte;
    file.setLimits(limits);
    while (file.retain()) {
    }
    record(file, value(a, kNow + 130000, 130000));
    EXPECT_LE(history::bytesOf(path()), limits.bytes);
    EXPECT_GT(valuesOf(path()).size(), 5000u);
    EXPECT_EQ(valuesOf(path()).back().value, 130000);
}

TEST_F(HistoryFileTest, KeepsWritesLongerThanValuesThatFillTheFile)
{
    HistoryLimits limits;
    limits.bytes = kMegabyte;
    HistoryFile file(path(), limits);
    HistoryWrite write;
    write.time = kNow;
    write.name = "Setpoint";
    write.outcome = "written";
    record(file, std::vector<HistoryWrite>({write}));
    const auto a = variable("A");
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 60000; ++i)
        rows.push_back(value(a, kNow + i, i));
    record(file, rows);
    EXPECT_LT(valuesOf(path()).size(), 60000u);
    EXPECT_EQ(history::writesOf(path()).size(), 1u);
    file.advance(std::chrono::hours(24 * 91));
    file.begin();
    file.commit();
    while (file.retain()) {
    }
    EXPECT_EQ(history::writesOf(path()).size(), 0u);
    // Writes alone do not fill it either.
    record(file, std::vector<HistoryWrite>(20000, write));
    EXPECT_LE(history::bytesOf(path()), limits.bytes);
    EXPECT_LT(history::writesOf(path()).size(), 200u);
    EXPECT_GT(history::writesOf(path()).size(), 100u);
}

TEST_F(HistoryFileTest, KeepsNoConditionThatNoRowHasAnyMore)
{
    HistoryLimits limits;
    limits.bytes = kMegabyte;
    HistoryFile file(path(), limits);
    const auto a = variable("A");
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 12000; ++i) {
        rows.push_back(value(a, kNow + i, i));
        rows.back().error = "error " + QString::number(i);
    }
    record(file, rows);
    EXPECT_LE(history::bytesOf(path()), limits.bytes);
    const qint64 kept = qint64(valuesOf(path()).size());
    EXPECT_GT(kept, 1000);
    for (const HistoryValue& row : valuesOf(path()))
        ASSERT_EQ(row.error, "error " + QString::number(row.value.get<int>()));
    Database database(path(), Database::Access::Read);
    EXPECT_EQ(database.number("SELECT count(*) FROM conditions"), kept);
}

TEST_F(HistoryFileTest, StopsRatherThanGrowWhileAnotherProgramReadsForLong)
{
    HistoryLimits limits;
    limits.bytes = kMegabyte;
    HistoryFile file(path(), limits);
    const auto a = variable("A");
    record(file, value(a, kNow, 0));
    Database reader(path(), Database::Access::Read);
    reader.run("BEGIN; SELECT count(*) FROM writes");
    std::string refused;
    int i = 0;
    for (; refused.empty() && i < 100000; ++i) {
        try {
            record(file, value(a, kNow + i, i));
        } catch (const UserError& error) {
            refused = error.what();
        }
    }
    EXPECT_EQ(refused, path().toStdString() + ": another program has been reading it for so long "
                                              "that its log is full (end that program)");
    EXPECT_GT(i, 5);
    EXPECT_LE(history::bytesOf(path()), limits.bytes);
    reader.run("COMMIT");
    EXPECT_NO_THROW(record(file, value(a, kNow + i, i)));
}

// ---- Reading ------------------------------------------------------------------------------------

TEST_F(HistoryFileTest, IsReadByTimeAndPatternInPages)
{
    HistoryFile file(path(), {});
    const auto a = variable("Level1");
    const auto b = variable("Level2");
    const auto c = variable("Speed");
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 9000; ++i)
        rows.push_back(value(i % 3 == 0 ? a : i % 3 == 1 ? b : c, kNow + i / 6, i));
    record(file, rows); // the last are not moved yet
    HistoryFilter filter;
    filter.name = "Level*";
    filter.from = kNow + 10;
    filter.to = kNow + 1400;
    std::vector<int> expected;
    for (int i = 0; i < 9000; ++i) {
        if (i % 3 != 2 && i / 6 >= 10 && i / 6 < 1400)
            expected.push_back(i);
    }
    std::vector<int> read;
    for (const HistoryValue& row : valuesOf(path(), filter))
        read.push_back(row.value.get<int>());
    EXPECT_EQ(read, expected);
    std::vector<int> paged;
    const std::size_t page = 61; // no multiple of the four rows of each millisecond
    for (;;) {
        std::size_t count = 0;
        HistoryReader(path()).values(filter, [&](const HistoryValue& row) {
            paged.push_back(row.value.get<int>());
            filter.from = row.time;
            filter.after = row.sequence;
            return ++count < page;
        });
        if (count < page)
            break;
    }
    EXPECT_EQ(paged, expected);
}

// While rows are read, those that come are left out, those that are moved come once.
TEST_F(HistoryFileTest, IsReadWithoutAHoleWhileItIsWritten)
{
    HistoryLimits limits;
    limits.bytes = 32 * kMegabyte;
    HistoryFile file(path(), limits);
    const auto a = variable("A");
    const auto b = variable("B");
    std::vector<HistoryValue> rows;
    for (int i = 0; i < 40000; ++i)
        rows.push_back(value(i % 2 ? a : b, kNow + i, i));
    record(file, rows);
    std::vector<int> read;
    HistoryReader(path()).values({}, [&](const HistoryValue& row) {
        read.push_back(row.value.get<int>());
        if (read.size() % 5000 == 0) {
            record(file, rows);
            file.endPeriod();
        }
        return true;
    });
    ASSERT_EQ(read.size(), 40000u);
    for (int i = 0; i < 40000; ++i)
        ASSERT_EQ(read[i], i);
}

TEST_F(HistoryFileTest, IsReadInAFolderThatNobodyMayWrite)
{
    {
        HistoryFile file(path(), {});
        record(file, value(variable("A"), kNow, 1));
    }
    const QString folder = QFileInfo(path()).path();
    const auto all = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner);
    EXPECT_EQ(valuesOf(path()).size(), 1u);
    QFile::setPermissions(folder, all);
}

} // namespace
