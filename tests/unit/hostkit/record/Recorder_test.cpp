#include "Recorder.h"

#include "UserError.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtCore/QThread>
#include <csignal>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace micro850::host;
using micro850::CipValue;

namespace {

const QDateTime kTime(QDate(2026, 3, 1), QTime(12, 30, 5, 250), Qt::UTC);

Sample sample(const char* name, const std::optional<CipValue>& value)
{
    return {kTime, QString::fromUtf8(name), 1, "Tag", 3, "INT", value, "l/min", "good", ""};
}

class RecorderTest : public ::testing::Test
{
protected:
    QString path(const char* name) const { return m_dir.filePath(name); }
    std::string text(const char* name) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll().toStdString();
    }
    void write(const char* name, const std::string& content) const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content.data(), static_cast<qint64>(content.size()));
    }
    /// The rows of a query, fields joined by '|'. Asked of the database library itself.
    std::vector<std::string> query(const char* name, const char* sql) const
    {
        std::vector<std::string> rows;
        sqlite3* database = nullptr;
        EXPECT_EQ(sqlite3_open(path(name).toUtf8().constData(), &database), SQLITE_OK);
        const auto row = [](void* into, int count, char** fields, char**) {
            std::string line;
            for (int i = 0; i < count; ++i)
                line += std::string(i > 0 ? "|" : "") + (fields[i] ? fields[i] : "NULL");
            static_cast<std::vector<std::string>*>(into)->push_back(line);
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(database, sql, row, &rows, nullptr), SQLITE_OK)
            << sqlite3_errmsg(database);
        sqlite3_close(database);
        return rows;
    }

    QTemporaryDir m_dir;
};

template<typename Action> std::string complaint(Action action)
{
    try {
        action();
    } catch (const micro850::UserError& error) {
        return error.what();
    }
    return "none";
}

} // namespace

TEST_F(RecorderTest, WritesCommaSeparatedLinesUnderAHeading)
{
    const auto recorder = Recorder::csv(path("v.csv"));
    recorder->add(sample("Speed", CipValue::ofSigned(1234)));
    recorder->add(sample("a,\"b\"", CipValue::ofText("x y")));
    recorder->flush();
    EXPECT_EQ(text("v.csv"), "time,name,station,tag,element,type,value,unit,quality,error\n"
                             "2026-03-01T12:30:05.250Z,Speed,1,Tag,3,INT,1234,l/min,good,\n"
                             "2026-03-01T12:30:05.250Z,\"a,\"\"b\"\"\",1,Tag,3,INT,x y,l/min,good,"
                             "\n");
}

TEST_F(RecorderTest, AppendsToAFileThatHasSamples)
{
    Recorder::csv(path("v.csv"))->add(sample("A", CipValue::ofSigned(1)));
    Recorder::csv(path("v.csv"))->add(sample("B", CipValue::ofSigned(2)));
    EXPECT_EQ(text("v.csv"), "time,name,station,tag,element,type,value,unit,quality,error\n"
                             "2026-03-01T12:30:05.250Z,A,1,Tag,3,INT,1,l/min,good,\n"
                             "2026-03-01T12:30:05.250Z,B,1,Tag,3,INT,2,l/min,good,\n");
}

namespace {

const char kHeading[] = "time,name,station,tag,element,type,value,unit,quality,error\n";
const char kWholeRow[] = "2026-03-01T12:30:05.250Z,A,1,Tag,3,INT,1,l/min,good,\n";

} // namespace

TEST_F(RecorderTest, RemovesARowThatWasCutShortAndReportsIt)
{
    const std::string next = std::string(kWholeRow).replace(25, 1, "B");
    const std::string rows = std::string(kHeading) + kWholeRow;
    for (std::size_t size = 0; size <= rows.size() + 40; ++size) {
        SCOPED_TRACE(size);
        const std::string cut = (rows + next).substr(0, size);
        write("v.csv", cut);
        QString remark;
        const auto recorder =
            Recorder::csv(path("v.csv"), [&remark](const QString& text) { remark = text; });
        const std::size_t whole = cut.rfind('\n') == std::string::npos ? 0 : cut.rfind('\n') + 1;
        EXPECT_EQ(remark.isEmpty(), whole == cut.size());
        recorder->add(sample("B", CipValue::ofSigned(1)));
        recorder->flush();
        EXPECT_EQ(text("v.csv"), (whole == 0 ? kHeading : cut.substr(0, whole)) + next);
    }
    write("v.csv", rows + "2026,\"cut");
    QString remark;
    Recorder::csv(path("v.csv"), [&remark](const QString& text) { remark = text; });
    EXPECT_EQ(remark.toStdString(),
              path("v.csv").toStdString() +
                  R"(: its last row was cut short and is removed: 2026,"cut)");
}

TEST_F(RecorderTest, RemovesZeroBytesThatACrashLeftAtTheEnd)
{
    write("v.csv", std::string(kHeading) + kWholeRow + std::string(5000, '\0'));
    Recorder::csv(path("v.csv"));
    EXPECT_EQ(text("v.csv"), std::string(kHeading) + kWholeRow);
}

TEST_F(RecorderTest, KeepsLineEndsWithinTheQuotesOfEarlierRows)
{
    const std::string row = "2026-03-01T12:30:05.250Z,A,1,Tag,0,SHORT_STRING,\"a\nb\",,good,\n";
    write("v.csv", kHeading + row);
    Recorder::csv(path("v.csv"));
    EXPECT_EQ(text("v.csv"), kHeading + row);
    // Here it cannot be told where the last whole row ends.
    write("v.csv", kHeading + row + "2026,\"a\nb,INT\n");
    EXPECT_EQ(complaint([&] { Recorder::csv(path("v.csv")); }),
              path("v.csv").toStdString() + ": line 4: a field opens with \" that no other \" "
                                            "closes (mend the row, or name a new file)");
    EXPECT_EQ(text("v.csv"), kHeading + row + "2026,\"a\nb,INT\n");
}

TEST_F(RecorderTest, RefusesAFileThatAnotherRecorderWrites)
{
    const auto first = Recorder::csv(path("v.csv"));
    EXPECT_EQ(complaint([&] { Recorder::csv(path("v.csv")); }),
              path("v.csv").toStdString() + ": another program is writing to it (name another "
                                            "file, or end that program)");
}

TEST_F(RecorderTest, MakesTextsHarmlessThatASpreadsheetWouldRun)
{
    const auto cells = [this](const QString& type, const CipValue& value, const QString& unit) {
        QFile::remove(path("v.csv"));
        Sample made = sample("A", value);
        made.type = type;
        made.unit = unit;
        Recorder::csv(path("v.csv"))->add(made);
        const QString row = QString::fromStdString(text("v.csv")).section('\n', 1, 1);
        return row.section(',', 6).toStdString();
    };
    const QString string = "SHORT_STRING";
    for (const char* sign : {"=", "+", "-", "@"}) {
        EXPECT_EQ(cells(string, CipValue::ofText(sign + std::string("1+1")), ""),
                  std::string("\"\"\"") + sign + "1+1\"\"\",,good,");
        EXPECT_EQ(cells(string, CipValue::ofText(sign), sign),
                  std::string(sign) + ',' + sign + ",good,");
    }
    EXPECT_EQ(cells(string, CipValue::ofText("  =A1"), "=B\\\"2"),
              R"("""  =A1""","""=B\\\""2""",good,)");
    // A control character before it, and the form of a quoted text, which no other text has.
    EXPECT_EQ(cells(string, CipValue::ofText("\t=A1"), ""), R"("""\t=A1""",,good,)");
    EXPECT_EQ(cells(string, CipValue::ofText("\"=A1\""), ""), R"("""\""=A1\""""",,good,)");
    EXPECT_EQ(cells("INT", CipValue::ofSigned(-5), "-1"), R"(-5,"""-1""",good,)");
    EXPECT_EQ(cells("REAL", CipValue::ofReal(-0.5), ""), "-0.5,,good,");
    EXPECT_EQ(cells("INT", CipValue::ofText("-5 3"), ""), "-5 3,,good,");
}

TEST_F(RecorderTest, WritesARowInOneLineWithAllCharactersOfATextWhateverTheyAre)
{
    Sample made = sample("A\nB", CipValue::ofText(std::string("ab\0cd\r\n\xFC", 8)));
    made.type = "SHORT_STRING";
    Recorder::csv(path("v.csv"))->add(made);
    EXPECT_EQ(text("v.csv"), std::string(kHeading) +
                                 "2026-03-01T12:30:05.250Z,\"\"\"A\\nB\"\"\",1,Tag,3,"
                                 "SHORT_STRING,\"\"\"ab\\x00cd\\r\\n"
                                 "\xC3\xBC\"\"\",l/min,good,\n");
    Recorder::sqlite(path("v.db"))->add(made);
    EXPECT_EQ(query("v.db", "SELECT hex(value) FROM samples"),
              std::vector<std::string>{"61620063640D0AC3BC"});
}

TEST_F(RecorderTest, KeepsTheRowsThatFitWhenTheDiskIsFull)
{
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const std::string whole = std::string(kHeading) + kWholeRow + kWholeRow;
    const auto recorder = Recorder::csv(path("v.csv"));
    for (int i = 0; i < 3; ++i)
        recorder->add(sample("A", CipValue::ofSigned(1)));
    const rlimit limit = {whole.size() + 20, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    micro850::ExitStatus status = micro850::kExitDone;
    std::string why;
    try {
        recorder->flush();
    } catch (const micro850::UserError& error) {
        status = error.status();
        why = error.what();
    }
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(status, micro850::kExitRefused);
    EXPECT_EQ(why, path("v.csv").toStdString() + ": cannot be written: File too large");
    EXPECT_EQ(text("v.csv"), whole);
}

TEST_F(RecorderTest, RefusesAFileWithAnotherHeadingAndLeavesItUnchanged)
{
    QFile other(path("v.csv"));
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.write("precious,data\n");
    other.close();
    EXPECT_EQ(complaint([&] { Recorder::csv(path("v.csv")); }),
              path("v.csv").toStdString() +
                  ": does not have the heading of this recording (name a new file)");
    EXPECT_EQ(text("v.csv"), "precious,data\n");
}

TEST_F(RecorderTest, KeepsNumbersAsNumbersInADatabase)
{
    {
        const auto recorder = Recorder::sqlite(path("v.db"));
        recorder->add(sample("Speed", CipValue::ofSigned(1234)));
        recorder->add(sample("Temperature", CipValue::ofReal(21.5)));
        recorder->add(sample("Name", CipValue::ofText("Apple")));
        recorder->add(sample("Never", std::nullopt));
        recorder->add(sample("Count", CipValue::ofUnsigned(~quint64{0})));
        recorder->add(sample("Empty", CipValue::ofText("")));
        recorder->flush();
    }
    EXPECT_EQ(query("v.db", "SELECT name, typeof(value), value FROM samples ORDER BY rowid"),
              (std::vector<std::string>{"Speed|integer|1234", "Temperature|real|21.5",
                                        "Name|text|Apple", "Never|null|NULL",
                                        "Count|text|18446744073709551615", "Empty|text|"}));
    EXPECT_EQ(
        query("v.db", "SELECT * FROM samples WHERE name = 'Speed'"),
        std::vector<std::string>{"2026-03-01T12:30:05.250Z|Speed|1|Tag|3|INT|1234|l/min|good|"});
}

TEST_F(RecorderTest, KeepsNumbersOfEveryTypeInTheirOrderInADatabase)
{
    {
        const auto recorder = Recorder::sqlite(path("v.db"));
        recorder->add(sample("small", CipValue::ofUnsigned(9)));
        recorder->add(sample("more", CipValue::ofUnsigned(10)));
        recorder->add(sample("bits", CipValue::ofBits(0xAF, 2)));
        recorder->add(sample("bit", CipValue::ofBoolean(true)));
        recorder->add(sample("scaled", CipValue::ofReal(9.5)));
        recorder->add(sample("signed", CipValue::ofUnsigned(9223372036854775807u)));
        recorder->add(sample("beyond", CipValue::ofUnsigned(9223372036854775808u)));
        recorder->add(sample("largest", CipValue::ofBits(~quint64{0}, 8)));
    }
    EXPECT_EQ(query("v.db", "SELECT name, typeof(value), value FROM samples ORDER BY value"),
              (std::vector<std::string>{
                  "bit|integer|1", "small|integer|9", "scaled|real|9.5", "more|integer|10",
                  "bits|integer|175", "signed|integer|9223372036854775807",
                  "beyond|text|09223372036854775808", "largest|text|18446744073709551615"}));
    EXPECT_EQ(query("v.db", "SELECT max(value) FROM samples WHERE name <> 'largest'"),
              std::vector<std::string>{"09223372036854775808"});
    EXPECT_EQ(query("v.db", "SELECT count(*) FROM samples WHERE value > 10"),
              std::vector<std::string>{"4"});
}

TEST_F(RecorderTest, KeepsRealsThatAreNoOrdinaryNumbersInADatabase)
{
    {
        const auto recorder = Recorder::sqlite(path("v.db"));
        recorder->add(sample("nan", CipValue::ofReal(std::nan(""))));
        recorder->add(sample("inf", CipValue::ofReal(HUGE_VAL)));
        recorder->add(sample("zero", CipValue::ofText(std::string("ab\0cd", 5))));
    }
    EXPECT_EQ(query("v.db", "SELECT typeof(value), value > 1e308, hex(value) FROM samples "
                            "ORDER BY rowid"),
              (std::vector<std::string>{"text|1|6E616E", "real|1|496E66", "text|1|6162006364"}));
}

namespace {

const char kOldTable[] =
    "CREATE TABLE samples (time TEXT, name TEXT, station INTEGER, tag TEXT, element INTEGER, "
    "type TEXT, value, unit TEXT, quality TEXT, error TEXT);";

std::string oldRow(const char* type, const char* value, const char* quality = "good")
{
    return std::string(
               "INSERT INTO samples VALUES ('2026-03-01T12:30:05.250Z', 'n', 1, 't', 0, '") +
           type + "', " + value + ", '', '" + quality + "', NULL);";
}

} // namespace

TEST_F(RecorderTest, ConvertsTheRowsOfAnEarlierVersionWhenItOpensADatabase)
{
    const std::string rows =
        oldRow("UDINT", "'10'") + oldRow("UDINT", "'9'") +
        oldRow("ULINT", "'9223372036854775807'") + oldRow("ULINT", "'9223372036854775808'") +
        oldRow("ULINT", "'18446744073709551615'") + oldRow("USINT", "'7 8'") +
        oldRow("UINT", "21.5") + oldRow("UINT", "NULL", "never") + oldRow("BYTE", "'0xAF'") +
        oldRow("WORD", "'0x1234'") + oldRow("DWORD", "'0xFFFFFFFF'") +
        oldRow("LWORD", "'0x7FFFFFFFFFFFFFFF'") + oldRow("LWORD", "'0xFEDCBA9876543210'") +
        oldRow("WORD", "'0x1234 0x0001'") + oldRow("BOOL", "'true'") + oldRow("BOOL", "'false'") +
        oldRow("INT", "-5") + oldRow("SHORT_STRING", "'10'") + oldRow("SHORT_STRING", "NULL") +
        oldRow("SHORT_STRING", "NULL", "never") + oldRow("REAL", "NULL", "stale") +
        oldRow("REAL", "0.5") + oldRow("DATE", "'59'") + oldRow("TIME_OF_DAY", "'23400007'") +
        oldRow("TIME_OF_DAY", "'23400000'") + oldRow("TIME_OF_DAY", "'86400000'") +
        oldRow("DATE_AND_TIME", "'253426470471'") + oldRow("DATE_AND_TIME", "'4294967295'");
    query("v.db", (kOldTable + rows + "CREATE VIEW mine AS SELECT value FROM samples").c_str());
    Recorder::sqlite(path("v.db"))->add(sample("new", CipValue::ofUnsigned(11)));
    EXPECT_EQ(query("v.db", "SELECT type, typeof(value), value FROM samples ORDER BY rowid"),
              (std::vector<std::string>{"UDINT|integer|10",
                                        "UDINT|integer|9",
                                        "ULINT|integer|9223372036854775807",
                                        "ULINT|text|09223372036854775808",
                                        "ULINT|text|18446744073709551615",
                                        "USINT|text|7 8",
                                        "UINT|real|21.5",
                                        "UINT|null|NULL",
                                        "BYTE|integer|175",
                                        "WORD|integer|4660",
                                        "DWORD|integer|4294967295",
                                        "LWORD|integer|9223372036854775807",
                                        "LWORD|text|18364758544493064720",
                                        "WORD|text|0x1234 0x0001",
                                        "BOOL|integer|1",
                                        "BOOL|integer|0",
                                        "INT|integer|-5",
                                        "SHORT_STRING|text|10",
                                        "SHORT_STRING|text|",
                                        "SHORT_STRING|null|NULL",
                                        "REAL|text|nan",
                                        "REAL|real|0.5",
                                        "DATE|text|1972-02-29",
                                        "TIME_OF_DAY|text|06:30:00.007",
                                        "TIME_OF_DAY|text|06:30:00",
                                        "TIME_OF_DAY|integer|86400000",
                                        "DATE_AND_TIME|text|1972-02-29T06:30:00.007",
                                        "DATE_AND_TIME|integer|4294967295",
                                        "INT|integer|11"}));
    EXPECT_EQ(query("v.db", "SELECT max(value) FROM mine WHERE typeof(value) = 'integer'"),
              std::vector<std::string>{"9223372036854775807"});
    EXPECT_EQ(query("v.db", "PRAGMA user_version"), std::vector<std::string>{"1"});
}

TEST_F(RecorderTest, ConvertsADatabaseOnlyOnce)
{
    Recorder::sqlite(path("v.db"))->add(sample("Text", CipValue::ofText("10")));
    query("v.db", "UPDATE samples SET type = 'UDINT'"); // would be converted in version 0
    Recorder::sqlite(path("v.db"));
    EXPECT_EQ(query("v.db", "SELECT typeof(value) FROM samples"), std::vector<std::string>{"text"});
}

TEST_F(RecorderTest, RefusesADatabaseOfALaterVersionAndLeavesItUnchanged)
{
    query("v.db", (std::string(kOldTable) + "PRAGMA user_version = 7").c_str());
    const std::string before = text("v.db");
    EXPECT_EQ(complaint([&] { Recorder::sqlite(path("v.db")); }),
              path("v.db").toStdString() +
                  ": has tables of version 7, which this program does not know (up to 1); a later "
                  "version of it or another program made them (name a new file)");
    EXPECT_EQ(text("v.db"), before);
}

TEST_F(RecorderTest, RefusesATableOfAnotherProgramAndLeavesItUnchanged)
{
    query("v.db",
          "CREATE TABLE samples (id INTEGER, value TEXT); INSERT INTO samples VALUES (1, 'x')");
    const std::string before = text("v.db");
    EXPECT_EQ(complaint([&] { Recorder::sqlite(path("v.db")); }),
              path("v.db").toStdString() + ": its table samples is not a recording: it has the "
                                           "columns id, value (name a new file)");
    EXPECT_EQ(text("v.db"), before);
}

TEST_F(RecorderTest, AddsItsTableToADatabaseOfTheUser)
{
    query("v.db", "CREATE TABLE mine (a); INSERT INTO mine VALUES (1)");
    Recorder::sqlite(path("v.db"))->add(sample("A", CipValue::ofSigned(1)));
    EXPECT_EQ(query("v.db", "SELECT a, value FROM mine, samples"), std::vector<std::string>{"1|1"});
}

// Killed while it converts: the next opening finds the old rows and converts them all.
TEST_F(RecorderTest, ConvertsABigDatabaseAlthoughAnEarlierAttemptWasKilled)
{
    query("v.db",
          (std::string(kOldTable) +
           "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
           "INSERT INTO samples SELECT 't', 'n', 1, 't', 0, 'UDINT', CAST(i AS TEXT), '', "
           "'good', NULL FROM n")
              .c_str());
    const QString file = path("v.db");
    const pid_t child = fork();
    if (child == 0) {
        Recorder::sqlite(file);
        _exit(0);
    }
    // The journal is there from the first changed page to the end of the transaction.
    while (!QFile::exists(file + "-journal") && waitpid(child, nullptr, WNOHANG) == 0)
        QThread::usleep(100);
    ::kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(query("v.db", "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
    Recorder::sqlite(file);
    EXPECT_EQ(query("v.db", "SELECT count(*), typeof(value), max(value) FROM samples GROUP BY 2"),
              std::vector<std::string>{"100000|integer|100000"});
}

TEST_F(RecorderTest, CommitsWithEachFlushAndAtTheEnd)
{
    const char count[] = "SELECT count(*) FROM samples";
    {
        const auto recorder = Recorder::sqlite(path("v.db"));
        recorder->add(sample("A", CipValue::ofSigned(1)));
        EXPECT_EQ(query("v.db", count), std::vector<std::string>{"0"});
        recorder->flush();
        EXPECT_EQ(query("v.db", count), std::vector<std::string>{"1"});
        recorder->add(sample("B", CipValue::ofSigned(2)));
    }
    EXPECT_EQ(query("v.db", count), std::vector<std::string>{"2"});
    Recorder::sqlite(path("v.db"))->add(sample("C", CipValue::ofSigned(3)));
    EXPECT_EQ(query("v.db", count), std::vector<std::string>{"3"});
}

TEST_F(RecorderTest, ReportsAFileThatCannotBeWritten)
{
    EXPECT_EQ(
        complaint([] { Recorder::csv("/none/v.csv"); }).find("/none/v.csv: cannot be written: "),
        0u);
    EXPECT_EQ(
        complaint([] { Recorder::sqlite("/none/v.db"); }).find("/none/v.db: cannot be written: "),
        0u);
    QFile other(path("v.db"));
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.write(QByteArray(4096, 'x'));
    other.close();
    EXPECT_EQ(complaint([&] {
                  Recorder::sqlite(path("v.db"));
              }).find(path("v.db").toStdString() + ": cannot be written: "),
              0u);
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv); // through it Qt SQL finds its driver
    return RUN_ALL_TESTS();
}

// Other programs open such a database, and a later change to it may take what is left.
TEST_F(RecorderTest, RefusesADatabaseThatIsCutAndLeavesItUnchanged)
{
    Recorder::sqlite(path("v.db"))->add(sample("A", CipValue::ofSigned(1)));
    const std::string whole = text("v.db");
    ASSERT_EQ(whole.size(), 8192u);
    for (const std::size_t size : {8191u, 6000u, 4097u, 4096u, 512u, 100u}) {
        write("v.db", whole.substr(0, size));
        EXPECT_EQ(complaint([this] { Recorder::sqlite(path("v.db")); }),
                  path("v.db").toStdString() + ": is cut: " + std::to_string(size) +
                      " of 8192 bytes (restore it, or name a new file)");
        EXPECT_EQ(text("v.db"), whole.substr(0, size));
    }
    write("v.db", whole);
    Recorder::sqlite(path("v.db"))->add(sample("B", CipValue::ofSigned(2)));
    EXPECT_EQ(query("v.db", "SELECT count(*) FROM samples"), std::vector<std::string>{"2"});
}

TEST_F(RecorderTest, GoesOnWithADatabaseWhosePagesAreStillBesideIt)
{
    Recorder::sqlite(path("v.db"))->add(sample("A", CipValue::ofSigned(1)));
    query("v.db", "PRAGMA journal_mode = wal");
    sqlite3* other = nullptr; // while it is open, the pages stay beside the database
    ASSERT_EQ(sqlite3_open(path("v.db").toUtf8().constData(), &other), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(other,
                           "CREATE TABLE notes (note); INSERT INTO notes VALUES (zeroblob(50000))",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    EXPECT_EQ(text("v.db").size(), 8192u);
    EXPECT_EQ(complaint([this] {
                  Recorder::sqlite(path("v.db"))->add(sample("B", CipValue::ofSigned(2)));
              }),
              "none");
    sqlite3_close(other);
    EXPECT_EQ(query("v.db", "SELECT count(*) FROM samples"), std::vector<std::string>{"2"});
}

TEST_F(RecorderTest, RefusesDevicesAndPipes)
{
    ASSERT_EQ(::mkfifo(path("pipe").toLocal8Bit().constData(), 0600), 0);
    for (const QString& name : {QStringLiteral("/dev/null"), path("pipe")}) {
        const std::string why = name.toStdString() + ": is a pipe or a device (name a file";
        EXPECT_EQ(complaint([&] { Recorder::csv(name); }), why + ", or - for standard output)");
        EXPECT_EQ(complaint([&] { Recorder::sqlite(name); }), why + ")");
    }
    EXPECT_EQ(complaint([this] { Recorder::sqlite(path(".")); }),
              path(".").toStdString() + ": is a directory (name a file)");
}

// ---- Forms, wide rows and rotation --------------------------------------------------------------

namespace {

Sample wideSample(const char* name, const QVector<CipValue>& elements, const char* type = "REAL",
                  const char* quality = "good")
{
    Sample made =
        sample(name, elements.isEmpty() ? std::nullopt : std::optional<CipValue>(elements.first()));
    made.type = type;
    made.quality = quality;
    made.elements = elements;
    return made;
}

CsvForm germanForm()
{
    CsvForm form;
    form.separator = ';';
    form.decimal = ',';
    form.bom = true;
    return form;
}

} // namespace

TEST_F(RecorderTest, WritesWideRowsWithAColumnForEachElement)
{
    const QVector<WideColumn> columns = {{"Speed", "rpm", 1}, {"Level", "", 2}, {"Name", "", 1}};
    {
        const auto recorder = Recorder::wideCsv(path("w.csv"), columns);
        recorder->add(wideSample("Level", {CipValue::ofReal(1.5), CipValue::ofReal(-2.0)}));
        recorder->add(wideSample("Speed", {CipValue::ofSigned(7)}, "INT"));
        recorder->add(wideSample("Name", {CipValue::ofText("=1+1, a")}, "SHORT_STRING"));
        recorder->endRow(kTime);
        // What is not good, and what never came.
        recorder->add(wideSample("Speed", {CipValue::ofSigned(8)}, "INT", "stale"));
        recorder->endRow(kTime.addSecs(1));
    }
    EXPECT_EQ(text("w.csv"), "time,Speed [rpm],Level[0],Level[1],Name\n"
                             "2026-03-01T12:30:05.250Z,7,1.5,-2,\"\"\"=1+1, a\"\"\"\n"
                             "2026-03-01T12:30:06.250Z,,,,\n");
}

TEST_F(RecorderTest, RefusesToGoOnWithNumbersThatHaveAnotherDecimalSign)
{
    const auto recordOnce = [&](const char* file, char decimal, const char* version) {
        CsvForm form;
        form.separator = ';';
        form.decimal = QLatin1Char(decimal);
        const auto recorder =
            Recorder::wideCsv(path(file), {{"Temp", "", 1}, {"Version", "", 1}}, nullptr, form);
        recorder->add(wideSample("Temp", {CipValue::ofReal(-1.5)}));
        recorder->add(wideSample("Version", {CipValue::ofText(version)}, "SHORT_STRING"));
        recorder->endRow(kTime);
    };
    recordOnce("w.csv", ',', "v1");
    recordOnce("w.csv", ',', "v1");
    EXPECT_EQ(complaint([&] { recordOnce("w.csv", '.', "v1"); }),
              path("w.csv").toStdString() + ": its numbers have another decimal sign (choose it "
                                            "with --decimal, or name a new file)");
    EXPECT_EQ(text("w.csv"), "time;Temp;Version\n2026-03-01T12:30:05.250Z;-1,5;v1\n"
                             "2026-03-01T12:30:05.250Z;-1,5;v1\n");
    // A text that looks like a number says nothing of the numbers.
    recordOnce("t.csv", ',', "1.5");
    EXPECT_EQ(complaint([&] { recordOnce("t.csv", ',', "1.5"); }), "none");
}

TEST_F(RecorderTest, WritesTheFormOfASpreadsheetAndGoesOnWithIt)
{
    const QVector<WideColumn> columns = {{"Temp", "", 1}, {"Day", "", 1}};
    for (int i = 0; i < 2; ++i) {
        const auto recorder = Recorder::wideCsv(path("g.csv"), columns, nullptr, germanForm());
        recorder->add(wideSample("Temp", {CipValue::ofReal(21.5 + i)}));
        recorder->add(wideSample("Day", {CipValue::ofText("06:30:00.250")}, "TIME_OF_DAY"));
        recorder->endRow(kTime);
    }
    EXPECT_EQ(text("g.csv"), "\xEF\xBB\xBFtime;Temp;Day\n"
                             "2026-03-01T12:30:05.250Z;21,5;06:30:00.250\n"
                             "2026-03-01T12:30:05.250Z;22,5;06:30:00.250\n");
    EXPECT_EQ(complaint([&] {
                  Recorder::wideCsv(path("g.csv"), {{"Other", "", 1}});
              }),
              path("g.csv").toStdString() +
                  ": does not have the heading of this recording (name a new file)");
}

// Rows in UTC and rows in local time without an offset could not be told apart.
TEST_F(RecorderTest, DoesNotGoOnWithTimesOfAnotherKind)
{
    Recorder::csv(path("u.csv"));
    CsvForm form;
    form.time = CsvTime::Spreadsheet;
    EXPECT_EQ(complaint([&] { Recorder::csv(path("u.csv"), nullptr, form); }),
              path("u.csv").toStdString() +
                  ": does not have the heading of this recording (name a new file)");
    Recorder::csv(path("s.csv"), nullptr, form);
    EXPECT_EQ(text("s.csv").substr(0, 18), "time (local),name,");
    form.time = CsvTime::Local;
    Recorder::csv(path("u.csv"), nullptr, form);
}

TEST_F(RecorderTest, WritesADecimalCommaInLongRowsButNotInTexts)
{
    {
        const auto recorder = Recorder::csv(path("l.csv"), nullptr, germanForm());
        Sample several = sample("A", CipValue::ofText("1.5 2.5"));
        several.type = "REAL";
        recorder->add(several);
        Sample name = sample("B", CipValue::ofText("v1.5"));
        name.type = "SHORT_STRING";
        recorder->add(name);
    }
    const std::string written = text("l.csv");
    EXPECT_NE(written.find(";A;1;Tag;3;REAL;1,5 2,5;l/min;good;\n"), std::string::npos) << written;
    EXPECT_NE(written.find(";B;1;Tag;3;SHORT_STRING;v1.5;l/min;good;\n"), std::string::npos);
}

namespace {

class RotatingTest : public RecorderTest
{
protected:
    std::unique_ptr<Recorder> open(const char* pattern, qint64 bytes, int keep)
    {
        return Recorder::rotating(
            path(pattern), {bytes, keep, false},
            [this](const QString& name) { return Recorder::csv(name, nullptr, form); },
            [this](const QString& note) { notes += note.section('/', -1); });
    }
    static void record(Recorder& recorder, const QDateTime& time)
    {
        Sample made = sample("Speed", CipValue::ofSigned(7));
        made.time = time;
        recorder.add(made);
        recorder.endRow(time);
    }
    QStringList files() const { return QDir(m_dir.path()).entryList(QDir::Files, QDir::Name); }
    int rowsOf(const char* name) const
    {
        const std::string content = text(name);
        return static_cast<int>(std::count(content.begin(), content.end(), '\n')) - 1;
    }

    CsvForm form;
    QStringList notes;
};

} // namespace

TEST_F(RotatingTest, BeginsAFileForEachDayAndKeepsTheNewest)
{
    const auto recorder = open("v-%Y-%m-%d.csv", 0, 2);
    for (int day = 1; day <= 3; ++day) {
        for (int i = 0; i < day; ++i)
            record(*recorder, QDateTime(QDate(2999, 1, day), QTime(23, 59, 59), Qt::UTC));
    }
    recorder->flush();
    EXPECT_EQ(files(), (QStringList{"v-2999-01-02.csv", "v-2999-01-03.csv"}));
    EXPECT_EQ(rowsOf("v-2999-01-02.csv"), 2);
    EXPECT_EQ(rowsOf("v-2999-01-03.csv"), 3);
    EXPECT_EQ(notes.last(), QString("v-2999-01-01.csv: deleted, because of --keep"));
}

TEST_F(RotatingTest, BeginsAFileWhenOneHasItsSizeAndLosesNoRow)
{
    {
        const auto recorder = open("v%N.csv", 300, 0);
        for (int i = 0; i < 20; ++i)
            record(*recorder, kTime);
    }
    const int count = files().size();
    EXPECT_GT(count, 2);
    int rows = 0;
    for (int i = 1; i <= count; ++i) {
        const std::string name = "v" + std::to_string(i) + ".csv";
        rows += rowsOf(name.c_str());
        EXPECT_LT(text(name.c_str()).size(), 300u + 70u);
    }
    EXPECT_EQ(rows, 20);
    // It goes on with the last file as long as that has room.
    const int last = rowsOf(("v" + std::to_string(count) + ".csv").c_str());
    record(*open("v%N.csv", 100000, 0), kTime);
    EXPECT_EQ(rowsOf(("v" + std::to_string(count) + ".csv").c_str()), last + 1);
}

TEST_F(RotatingTest, BeginsTheNextNumberWhenTheColumnsAreOthers)
{
    record(*open("v%N.csv", 100000, 0), kTime);
    form.separator = ';';
    record(*open("v%N.csv", 100000, 0), kTime);
    EXPECT_EQ(files(), (QStringList{"v1.csv", "v2.csv"}));
    EXPECT_EQ(rowsOf("v2.csv"), 1);
}

TEST_F(RotatingTest, DeletesNothingButRecordings)
{
    write("v1.csv", "my own list\n");
    write("v2.csv", "timetable,of,the,bus\n");
    write("v3.csv", "");
    write("v4.csv", "time,name\n");
    write("v5.csv", "\xEF\xBB\xBFtime;name\n");
    write("v6.csv", "SQLite format 3");
    write("w1.csv", "time,name\n");
    record(*open("v%N.csv", 5, 1), kTime);
    EXPECT_EQ(files(), (QStringList{"v1.csv", "v2.csv", "v3.csv", "v7.csv", "w1.csv"}));
}

TEST_F(RotatingTest, RefusesANameThatDoesNotSayWhenToBegin)
{
    EXPECT_EQ(complaint([&] { open("v.csv", 0, 3); }),
              path("v.csv").toStdString() + ": --max-size and --keep need a name with a part that "
                                            "changes, such as %Y-%m-%d or %N");
    EXPECT_EQ(complaint([&] { open("v%Y.csv", 100, 0); }),
              path("v%Y.csv").toStdString() + ": --max-size needs %N in the name");
    EXPECT_EQ(complaint([&] { open("v%N.csv", 0, 0); }),
              path("v%N.csv").toStdString() + ": %N counts the files of --max-size (add it)");
    EXPECT_EQ(files(), QStringList());
}

TEST_F(RotatingTest, TakesTurnsWithDatabasesToo)
{
    {
        const auto recorder =
            Recorder::rotating(path("d%N.db"), {1, 0, false},
                               [](const QString& name) { return Recorder::sqlite(name); });
        for (int i = 0; i < 3; ++i) {
            record(*recorder, kTime);
            recorder->flush();
        }
    }
    EXPECT_EQ(files(), (QStringList{"d1.db", "d2.db", "d3.db"}));
    EXPECT_EQ(query("d3.db", "SELECT count(*) FROM samples"), std::vector<std::string>{"1"});
}
