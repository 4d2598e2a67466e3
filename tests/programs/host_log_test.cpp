#include "program_fixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QThread>

#include <csignal>

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
              "micro850-host: log writes one file (name it with --csv FILE or --sqlite FILE)\n");
    EXPECT_EQ(host({"log", project(), "--csv", "a", "--sqlite", "b"}).err, none.err);
    const Result nowhere = host({"log", project(), "--csv", "/none/v.csv"});
    EXPECT_EQ(nowhere.status, 2);
    EXPECT_EQ(nowhere.err.find("micro850-host: /none/v.csv: cannot be written: "), 0u)
        << nowhere.err;
}

} // namespace
