#include "Recorder.h"

#include "UserError.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <gtest/gtest.h>
#include <sqlite3.h>

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

TEST_F(RecorderTest, RefusesAFileWithAnotherHeadingAndLeavesItUnchanged)
{
    QFile other(path("v.csv"));
    ASSERT_TRUE(other.open(QIODevice::WriteOnly));
    other.write("precious,data\n");
    other.close();
    EXPECT_EQ(complaint([&] { Recorder::csv(path("v.csv")); }),
              path("v.csv").toStdString() +
                  ": does not have the heading of a recording (name a new file)");
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
                                        "Count|text|18446744073709551615", "Empty|null|NULL"}));
    EXPECT_EQ(
        query("v.db", "SELECT * FROM samples WHERE name = 'Speed'"),
        std::vector<std::string>{"2026-03-01T12:30:05.250Z|Speed|1|Tag|3|INT|1234|l/min|good|"});
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
