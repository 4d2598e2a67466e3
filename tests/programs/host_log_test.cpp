#include "program_fixture.h"

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>
#include <QtCore/QThread>

#include <csignal>
#include <sqlite3.h>

namespace {

class HostLog : public ProgramTest
{
protected:
    QString project() const
    {
        return file("p.json", R"({"port": {"device": ")" + port().toStdString() +
                                  R"("}, "variables": [{"tag": "Speed", "unit": "rpm"},
                                  {"tag": "Level", "length": 2}, {"tag": "Name"}]})");
    }
    /// The only row that the database library itself answers, fields joined by '|'.
    std::string answerOf(const char* sql) const
    {
        sqlite3* database = nullptr;
        EXPECT_EQ(sqlite3_open(path("v.db").toUtf8().constData(), &database), SQLITE_OK);
        std::string answer;
        const auto row = [](void* into, int count, char** fields, char**) {
            for (int i = 0; i < count; ++i)
                *static_cast<std::string*>(into) +=
                    std::string(i > 0 ? "|" : "") + (fields[i] ? fields[i] : "NULL");
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(database, sql, row, &answer, nullptr), SQLITE_OK);
        sqlite3_close(database);
        return answer;
    }
};

const char kHeading[] = "time,name,station,tag,element,type,value,unit,quality,error";

TEST_F(HostLog, RecordsEachChangeOnce)
{
    simulate();
    const QString csv = path("v.csv");
    const Result result = host({"log", project(), "--csv", csv, "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(csv.toStdString() + ": 3 rows written"), std::string::npos)
        << result.err;
    QStringList lines = linesOf(textOf("v.csv"));
    ASSERT_EQ(lines.size(), 4);
    EXPECT_EQ(lines.takeFirst(), QString(kHeading));
    QStringList rows;
    for (const QString& line : lines) {
        EXPECT_TRUE(line.contains("Z,")) << line.toStdString();
        rows += line.section(',', 1);
    }
    rows.sort();
    EXPECT_EQ(rows, (QStringList{"Level,1,Level,0,INT,10 11,,good,",
                                 "Name,1,Name,0,SHORT_STRING,Apple,,good,",
                                 "Speed,1,Speed,0,INT,1234,rpm,good,"}));
}

TEST_F(HostLog, RecordsEverythingAtAnInterval)
{
    simulate();
    const Result result = host({"log", project(), "--csv", path("v.csv"), "--seconds", "1.5",
                                "--interval", "0.5", "--match", "Sp", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    const int rows = linesOf(textOf("v.csv")).size() - 1;
    EXPECT_GE(rows, 2);
    EXPECT_LE(rows, 4);
    EXPECT_TRUE(linesOf(result.out).at(0).endsWith("\"rows\":" + QString::number(rows) + "}"))
        << result.out;
}

TEST_F(HostLog, RecordsIntoADatabase)
{
    simulate();
    const Result result = host({"log", project(), "--sqlite", path("v.db"), "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(textOf("v.db").substr(0, 15), "SQLite format 3");
    EXPECT_NE(textOf("v.db").find("Apple"), std::string::npos);
}

TEST_F(HostLog, RecordsWhatOtherCommandsShowAndWithRawTheControllersNumbers)
{
    simulate(R"({"name": "Temp", "type": "USINT", "length": 2, "value": [20, 21]},
                {"name": "Day", "type": "DATE", "value": "2024-02-29"})");
    const QString project =
        file("p.json", R"({"port": {"device": ")" + port().toStdString() + R"("}, "variables": [
             {"tag": "Temp", "gain": 1.8, "offset": 32, "unit": "F"},
             {"name": "Both", "tag": "Temp", "length": 2, "gain": 1.8, "offset": 32, "unit": "F"},
             {"tag": "Day"}]})");
    const auto values = [&](const QStringList& options) {
        QFile::remove(path("v.csv"));
        const Result result =
            host(QStringList{"log", project, "--csv", path("v.csv"), "--seconds", "1"} + options);
        EXPECT_EQ(result.status, 0) << result.err;
        QStringList rows;
        for (const QString& line : linesOf(textOf("v.csv")).mid(1))
            rows += line.section(',', 1, 1) + ',' + line.section(',', 6, 7);
        rows.sort();
        return rows;
    };
    EXPECT_EQ(values({}), (QStringList{"Both,68 69.8,F", "Day,2024-02-29,", "Temp,68,F"}));
    EXPECT_EQ(values({"--raw"}), (QStringList{"Both,20 21,", "Day,19052,", "Temp,20,"}));
}

TEST_F(HostLog, RecordsNumbersThatADatabaseCanCompare)
{
    simulate(R"({"name": "Small", "type": "UDINT", "value": 9},
                {"name": "Large", "type": "UDINT", "value": 4000000000})");
    const QString project =
        file("p.json", R"({"port": {"device": ")" + port().toStdString() +
                           R"("}, "variables": [{"tag": "Small"}, {"tag": "Large"}]})");
    EXPECT_EQ(host({"log", project, "--sqlite", path("v.db"), "--seconds", "1"}).status, 0);
    EXPECT_EQ(answerOf("SELECT max(value), typeof(max(value)) FROM samples"), "4000000000|integer");
    EXPECT_EQ(answerOf("SELECT name, count(*) FROM samples WHERE value > 10"), "Large|1");
}

TEST_F(HostLog, SaysThatItConvertsTheRowsOfAnEarlierVersion)
{
    simulate(R"({"name": "Small", "type": "UDINT", "value": 9})");
    const QString project = file("p.json", R"({"port": {"device": ")" + port().toStdString() +
                                               R"("}, "variables": [{"tag": "Small"}]})");
    answerOf("CREATE TABLE samples (time TEXT, name TEXT, station INTEGER, tag TEXT, element "
             "INTEGER, type TEXT, value, unit TEXT, quality TEXT, error TEXT); INSERT INTO samples "
             "VALUES ('', 'Small', 1, 'Small', 0, 'UDINT', '10', '', 'good', NULL)");
    const std::string note =
        path("v.db").toStdString() + ": converting the rows of an earlier version\n";
    const QStringList arguments = {"log", project, "--sqlite", path("v.db"), "--seconds", "1"};
    EXPECT_NE(host(arguments).err.find(note), std::string::npos);
    EXPECT_EQ(host(arguments).err.find(note), std::string::npos);
    EXPECT_EQ(answerOf("SELECT group_concat(value), max(value) FROM samples"), "10,9,9|10");
}

TEST_F(HostLog, RefusesADatabaseOfALaterVersion)
{
    simulate();
    answerOf("PRAGMA user_version = 7");
    const Result result = host({"log", project(), "--sqlite", path("v.db"), "--seconds", "1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err.find("micro850-host: " + path("v.db").toStdString() +
                              ": has tables of version 7, "),
              0u)
        << result.err;
    EXPECT_EQ(answerOf("PRAGMA user_version"), "7");
}

// Rows are there while the program runs, and the kill takes none that was seen before.
TEST_F(HostLog, KeepsItsRowsWhenItIsKilled)
{
    simulate();
    QProcess log;
    log.start(MICRO850_HOST, {"log", project(), "--csv", path("v.csv"), "--interval", "0.05"});
    ASSERT_TRUE(log.waitForStarted());
    QElapsedTimer timer;
    timer.start();
    const auto rows = [this] {
        return QFile::exists(path("v.csv")) ? linesOf(textOf("v.csv")).size() - 1 : 0;
    };
    while (rows() < 30 && timer.elapsed() < 60000)
        QThread::msleep(20);
    const int seen = rows();
    ASSERT_GE(seen, 30);
    ::kill(static_cast<pid_t>(log.processId()), SIGKILL);
    ASSERT_TRUE(log.waitForFinished());
    EXPECT_GE(rows(), seen);
    EXPECT_EQ(textOf("v.csv").back(), '\n'); // no half line
}

TEST_F(HostLog, EndsInOrderOnASignal)
{
    simulate();
    QProcess log;
    log.start(MICRO850_HOST, {"log", project(), "--csv", path("v.csv")});
    while (!QFile::exists(path("v.csv")) || linesOf(textOf("v.csv")).size() < 4)
        ASSERT_FALSE(log.waitForFinished(20)) << log.readAllStandardError().toStdString();
    log.terminate();
    ASSERT_TRUE(log.waitForFinished());
    EXPECT_EQ(log.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(log.exitCode(), 0);
    EXPECT_TRUE(log.readAllStandardError().contains(": 3 rows written"));
}

TEST_F(HostLog, NeedsOneFileThatCanBeWritten)
{
    simulate();
    const Result none = host({"log", project()});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err,
              "micro850-host: log writes one file (name it with --csv FILE or --sqlite FILE, or "
              "print objects with --json)\n");
    EXPECT_EQ(host({"log", project(), "--csv", "a", "--sqlite", "b"}).err, none.err);
    const Result nowhere = host({"log", project(), "--csv", "/none/v.csv"});
    EXPECT_EQ(nowhere.status, 2);
    EXPECT_EQ(nowhere.err.find("micro850-host: /none/v.csv: cannot be written: "), 0u)
        << nowhere.err;
}

TEST_F(HostLog, WritesToStandardOutputAndNotesElsewhere)
{
    simulate();
    const Result result = host({"log", project(), "--csv", "-", "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 4) << result.out;
    EXPECT_EQ(lines.at(0), QString(kHeading));
    EXPECT_FALSE(QFile::exists(path("-")));
    EXPECT_NE(result.err.find("standard output: 3 rows written"), std::string::npos) << result.err;
    const Result json = host({"log", project(), "--csv", "-", "--json"});
    EXPECT_EQ(json.status, 2);
    EXPECT_EQ(json.err, "micro850-host: --csv - and --json both write to standard output (leave "
                        "out one)\n");
}

// No row before the first value; at least the identity and the connection come before it.
TEST_F(HostLog, BeginsAtAnIntervalWhenValuesAreThere)
{
    simulate();
    const Result result =
        host({"log", project(), "--csv", "-", "--seconds", "1.5", "--interval", "0.1", "--quiet"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    EXPECT_GE(lines.size(), 4);
    for (const QString& line : lines)
        EXPECT_FALSE(line.contains("never")) << line.toStdString();
}

TEST_F(HostLog, BeginsAtAnIntervalWithoutAVariableThatTheControllerRefuses)
{
    simulate();
    const QString plan = file("n.json", R"({"variables": [{"tag": "Speed"}, {"tag": "Nope"}]})");
    const Result result =
        hostOnPort({"log", plan, "--csv", "-", "--seconds", "1.5", "--interval", "0.2"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find(",Speed,1,Speed,0,INT,1234,"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(",Nope,1,Nope,0,,,,never,"), std::string::npos) << result.out;
}

TEST_F(HostLog, ReadsOnlyWhatMatches)
{
    simulate();
    for (const char* command : {"log", "poll"}) {
        const QStringList to =
            QString(command) == "log" ? QStringList{"--csv", "-"} : QStringList();
        const Result result = host(QStringList{command, project(), "--match", "Sp", "--seconds",
                                               "0.5", "--trace", path("t.txt")} +
                                   to);
        EXPECT_EQ(result.status, 0) << result.err;
        const std::string trace = host({"trace", path("t.txt")}).out;
        EXPECT_NE(trace.find("read Speed"), std::string::npos) << trace;
        EXPECT_EQ(trace.find("Level"), std::string::npos) << trace;
        EXPECT_EQ(trace.find("Name"), std::string::npos) << trace;
        const Result none = host(QStringList{command, project(), "--match", "zzz"} + to);
        EXPECT_EQ(none.status, 2);
        EXPECT_NE(none.err.find("--match: no variable of "), std::string::npos) << none.err;
    }
}

TEST_F(HostLog, GoesOnAfterARowThatAKillCutShort)
{
    simulate();
    const QString csv = path("v.csv");
    const std::string row = "2026-03-01T12:30:05.250Z,Speed,1,Speed,0,INT,1,rpm,good,\n";
    file("v.csv", std::string(kHeading) + '\n' + row + row.substr(0, 40));
    const Result result = host({"log", project(), "--csv", csv, "--seconds", "1"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find("micro850-host: " + csv.toStdString() +
                              ": its last row was cut short and is removed: " + row.substr(0, 40) +
                              "\n"),
              std::string::npos)
        << result.err;
    const QStringList lines = linesOf(textOf("v.csv"));
    ASSERT_EQ(lines.size(), 5);
    for (const QString& line : lines)
        EXPECT_EQ(line.count(','), 9) << line.toStdString();
}

TEST_F(HostLog, GoesOnWithADatabaseAfterAKill)
{
    simulate();
    const QString database = path("v.db");
    QProcess log;
    log.start(MICRO850_HOST, {"log", project(), "--sqlite", database, "--interval", "0.01"});
    ASSERT_TRUE(log.waitForStarted());
    const auto rows = [&] {
        return runProgram("python3", {"-c", R"(
import sqlite3, sys
rows = sqlite3.connect(sys.argv[1], timeout=60)
assert rows.execute("PRAGMA integrity_check").fetchone() == ("ok",)
print(rows.execute("SELECT count(*) FROM samples").fetchone()[0]))",
                                      database})
            .out;
    };
    QElapsedTimer timer;
    timer.start();
    while ((!QFile::exists(database) || atoi(rows().c_str()) < 30) && timer.elapsed() < 60000)
        QThread::msleep(20);
    ::kill(static_cast<pid_t>(log.processId()), SIGKILL);
    ASSERT_TRUE(log.waitForFinished());
    const int before = atoi(rows().c_str());
    EXPECT_GE(before, 30);
    EXPECT_EQ(host({"log", project(), "--sqlite", database, "--seconds", "1"}).status, 0);
    EXPECT_EQ(atoi(rows().c_str()), before + 3);
}

TEST_F(HostLog, CountsOneRowAsOne)
{
    simulate();
    const Result result =
        host({"log", project(), "--match", "Speed", "--csv", path("v.csv"), "--seconds", "1"});
    EXPECT_NE(result.err.find("v.csv: 1 row written\n"), std::string::npos) << result.err;
}

TEST_F(HostLog, WritesWideRowsForASpreadsheet)
{
    simulate();
    const QString plan = file("w.json", R"({"variables": [{"tag": "Speed", "unit": "rpm"},
        {"name": "Tank", "tag": "Level", "length": 2, "gain": 0.1}, {"tag": "Name"},
        {"tag": "Nope"}]})");
    const Result result =
        hostOnPort({"log", plan, "--csv", path("w.csv"), "--wide", "--decimal", "comma", "--bom",
                    "--time", "spreadsheet", "--interval", "0.3", "--seconds", "1.5"});
    EXPECT_EQ(result.status, 1) << result.err; // Nope
    QStringList lines = linesOf(textOf("w.csv"));
    ASSERT_GE(lines.size(), 3);
    EXPECT_EQ(lines.takeFirst(),
              QString::fromUtf8("\xEF\xBB\xBF"
                                "time (local);Speed [rpm];Tank[0];Tank[1];Name;Nope"));
    const QRegularExpression row(
        "^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8},[0-9]{3};1234;1;1,1;Apple;$");
    for (const QString& line : lines)
        EXPECT_TRUE(line.contains(row)) << line.toStdString();
    EXPECT_NE(result.err.find("w.csv: " + std::to_string(lines.size()) + " rows written"),
              std::string::npos)
        << result.err;
}

TEST_F(HostLog, WritesAWideRowWhenAnythingChanged)
{
    simulate(R"({"name": "Fixed", "type": "INT", "value": 5},
                {"name": "Moving", "type": "DINT", "motion": {"kind": "ramp", "period": 60,
                 "min": 0, "max": 1000000}})");
    const QString plan = file("m.json", R"({"variables": [{"tag": "Fixed"}, {"tag": "Moving"}]})");
    const Result result =
        hostOnPort({"log", plan, "--csv", "-", "--wide", "--seconds", "2", "--quiet"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList lines = linesOf(result.out);
    ASSERT_GE(lines.size(), 3) << result.out;
    EXPECT_EQ(lines.at(0), QString("time,Fixed,Moving"));
    QSet<QString> values;
    for (const QString& line : lines.mid(1)) {
        EXPECT_EQ(line.section(',', 1, 1), QString("5")) << line.toStdString();
        values.insert(line.section(',', 2));
    }
    EXPECT_EQ(values.size(), lines.size() - 1); // no row is there twice
}

TEST_F(HostLog, BeginsNewFilesBySizeAndDeletesTheOldest)
{
    simulate();
    const Result result = hostOnPort({"log", project(), "--csv", path("r-%Y-%N.csv"), "--interval",
                                      "0.05", "--max-size", "1k", "--keep", "2", "--seconds", "2"});
    EXPECT_EQ(result.status, 0) << result.err;
    const QStringList files = QDir(path(".")).entryList({"r-*.csv"}, QDir::Files);
    ASSERT_EQ(files.size(), 2) << result.err;
    for (const QString& name : files) {
        EXPECT_EQ(linesOf(textOf(name)).first(), QString(kHeading));
        EXPECT_LT(textOf(name).size(), 1024u + 500u);
    }
    EXPECT_NE(result.err.find("-1.csv: deleted, because of --keep\n"), std::string::npos)
        << result.err;
    // The note names the first and the last file.
    const QRegularExpression note(
        R"(r-\d{4}-1\.csv to \S*r-\d{4}-\d+\.csv, \d+ files: \d+ rows written)");
    EXPECT_TRUE(note.match(QString::fromStdString(result.err)).hasMatch()) << result.err;
}

TEST_F(HostLog, SaysWhichFormsDoNotGoTogether)
{
    simulate();
    const auto complaint = [this](const QStringList& options) {
        const Result result = host(QStringList{"log", project()} + options);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(linesOf(result.err).size(), 1) << result.err;
        return QString::fromStdString(result.err).section(": ", 1);
    };
    EXPECT_EQ(complaint({"--sqlite", "v.db", "--wide"}),
              QString("--wide is for comma-separated rows (add --csv)\n"));
    EXPECT_EQ(complaint({"--csv", "v.csv", "--separator", "comma", "--decimal", ","}),
              QString("--separator and --decimal are the same sign (choose another separator, such "
                      "as semicolon)\n"));
    EXPECT_EQ(
        complaint({"--csv", "v.csv", "--separator", "xx"}),
        QString("--separator: \"xx\" is not allowed (comma, semicolon, tab, bar or blank)\n"));
    EXPECT_EQ(complaint({"--csv", "-", "--keep", "3"}),
              QString("--max-size and --keep are for files (name one with --csv FILE)\n"));
    EXPECT_EQ(complaint({"--csv", "v%N.csv", "--max-size", "10Q"}),
              QString("--max-size: \"10Q\" is no size (a number with k, M or G behind it, such as "
                      "10M)\n"));
    EXPECT_EQ(complaint({"--csv", "v%y.csv"}),
              QString("v%y.csv: in the name of a file % is followed by Y, m, d, H, M or N (year to "
                      "minute, and a number), and %% is a percent sign\n"));
}

} // namespace
