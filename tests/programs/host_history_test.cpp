#include "HistoryFile.h"
#include "history_rows.h"
#include "program_fixture.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>

#include <csignal>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace micro850::host;

namespace {

const qint64 kMinute = 60000;

qint64 utc(const char* text)
{
    const QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
    EXPECT_TRUE(time.isValid()) << text;
    return time.toMSecsSinceEpoch();
}

class HostHistory : public ProgramTest
{
protected:
    template<typename Row> void record(const std::vector<Row>& rows)
    {
        HistoryFile file(path("h.sqlite"), {});
        file.begin();
        for (const Row& row : rows)
            file.add(row);
        file.commit();
    }
    /// Each ten minutes from a time on, numbered from 0.
    void recordEachTenMinutes(const char* from, int count)
    {
        const auto level = history::variable("Level");
        std::vector<HistoryValue> rows;
        for (int i = 0; i < count; ++i)
            rows.push_back(history::value(level, utc(from) + i * 10 * kMinute, i));
        record(rows);
    }
    Result inBerlin(const QStringList& options) const
    {
        return runProgram(MICRO850_HOST, QStringList{"history", path("h.sqlite")} + options,
                          {"TZ=Europe/Berlin"});
    }
    /// The numbers of the rows, and their local times.
    static QStringList numbers(const Result& result)
    {
        QStringList found;
        for (const QString& line : linesOf(result.out))
            found.append(line.section(" = ", 1).section(' ', 0, 0));
        return found;
    }
    static QStringList times(const Result& result)
    {
        QStringList found;
        for (const QString& line : linesOf(result.out))
            found.append(line.section(" press/", 0, 0));
        return found;
    }
};

TEST_F(HostHistory, ShowsValuesInLocalTimeAcrossTheBeginOfSummerTime)
{
    recordEachTenMinutes("2026-03-29T00:40:00Z", 4);
    const Result all = inBerlin({});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(times(all),
              QStringList({"2026-03-29 01:40:00.000 +01:00", "2026-03-29 01:50:00.000 +01:00",
                           "2026-03-29 03:00:00.000 +02:00", "2026-03-29 03:10:00.000 +02:00"}));
    EXPECT_EQ(linesOf(all.out).first(),
              QString("2026-03-29 01:40:00.000 +01:00 press/Level = 0 bar"));
    EXPECT_EQ(numbers(inBerlin({"--from", "2026-03-29T01:50", "--to", "2026-03-29 03:10"})),
              QStringList({"1", "2"}));
    const Result skipped = inBerlin({"--from", "2026-03-29T02:30"});
    EXPECT_EQ(skipped.status, 2);
    EXPECT_EQ(skipped.err,
              "micro850-host: --from: \"2026-03-29T02:30\" does not come: the clock is "
              "set forward over it (give an offset such as +01:00)\n");
    EXPECT_EQ(numbers(inBerlin({"--from", "2026-03-29T02:00+01:00"})), QStringList({"2", "3"}));
}

TEST_F(HostHistory, ShowsBothHoursThatTheEndOfSummerTimeHas)
{
    recordEachTenMinutes("2026-10-24T23:50:00Z", 16); // 01:50 in summer to 03:20 in winter
    const Result all = inBerlin({});
    const QStringList shown = times(all);
    ASSERT_EQ(shown.size(), 16) << all.err;
    EXPECT_EQ(shown.at(0), QString("2026-10-25 01:50:00.000 +02:00"));
    EXPECT_EQ(shown.at(4), QString("2026-10-25 02:30:00.000 +02:00"));
    EXPECT_EQ(shown.at(6), QString("2026-10-25 02:50:00.000 +02:00"));
    EXPECT_EQ(shown.at(7), QString("2026-10-25 02:00:00.000 +01:00"));
    EXPECT_EQ(shown.at(10), QString("2026-10-25 02:30:00.000 +01:00"));
    EXPECT_EQ(shown.at(13), QString("2026-10-25 03:00:00.000 +01:00"));
    // Whatever the hour may mean is shown.
    const auto from = [&](const char* time) { return numbers(inBerlin({"--from", time})).first(); };
    EXPECT_EQ(from("2026-10-25T02:30"), QString("4"));
    EXPECT_EQ(from("2026-10-25T02:30:00+02:00"), QString("4"));
    EXPECT_EQ(from("2026-10-25T02:30:00.000+0100"), QString("10"));
    EXPECT_EQ(from("2026-10-25T01:30Z"), QString("10"));
    EXPECT_EQ(from("2026-10-25T03:00"), QString("13"));
    const auto to = [&](const char* time) { return numbers(inBerlin({"--to", time})).last(); };
    EXPECT_EQ(to("2026-10-25T02:30"), QString("9"));
    EXPECT_EQ(to("2026-10-25T02:30+02:00"), QString("3"));
    EXPECT_EQ(to("2026-10-25T02:00"), QString("6"));
    EXPECT_EQ(numbers(inBerlin({"--from", "2026-10-25", "--to", "2026-10-26"})).size(), 16);
    EXPECT_EQ(numbers(inBerlin({"--from", "2026-10-26"})), QStringList());
}

TEST_F(HostHistory, GivesUtcInJsonAndCsv)
{
    recordEachTenMinutes("2026-10-25T00:30:00Z", 1);
    const Result json = inBerlin({"--json"});
    EXPECT_EQ(json.out,
              R"({"line":"press","name":"Level","station":2,"tag":"LevelTag","element":3,)"
              R"("type":"INT","value":0,"quality":"good",)"
              R"("time":"2026-10-25T00:30:00.000Z","unit":"bar","state":"connected",)"
              R"("sequence":1})"
              "\n");
    const Result csv = inBerlin({"--csv"});
    EXPECT_EQ(csv.out, "time,name,station,tag,element,type,value,unit,quality,error,line,state,"
                       "sequence\n2026-10-25T00:30:00.000Z,Level,2,LevelTag,3,INT,0,bar,good,,"
                       "press,connected,1\n");
}

TEST_F(HostHistory, TakesTimesBeforeNow)
{
    const auto level = history::variable("Level");
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    record(std::vector<HistoryValue>({history::value(level, now - 3 * 24 * 60 * kMinute, 0),
                                      history::value(level, now - 90 * kMinute, 1),
                                      history::value(level, now - 10 * kMinute, 2),
                                      history::value(level, now + 60 * kMinute, 3)}));
    EXPECT_EQ(numbers(inBerlin({"--from", "-15min"})), QStringList({"2", "3"}));
    EXPECT_EQ(numbers(inBerlin({"--from", "-1h"})), QStringList({"2", "3"}));
    EXPECT_EQ(numbers(inBerlin({"--from=-2h", "--to", "now"})), QStringList({"1", "2"}));
    EXPECT_EQ(numbers(inBerlin({"--from", "-PT1H45M", "--to=-3000s"})), QStringList({"1"}));
    EXPECT_EQ(numbers(inBerlin({"--to", "-2d"})), QStringList({"0"}));
    EXPECT_EQ(numbers(inBerlin({"--from", "-1w"})), QStringList({"0", "1", "2", "3"}));
}

TEST_F(HostHistory, ChoosesByLineAndName)
{
    const qint64 time = utc("2026-11-22T13:00:00Z");
    HistoryVariable other;
    other.line = "filler";
    other.name = "Level";
    record(std::vector<HistoryValue>(
        {history::value(history::variable("Level"), time, 1),
         history::value(history::variable("Speed"), time, 2),
         history::value(std::make_shared<const HistoryVariable>(other), time, 3)}));
    EXPECT_EQ(numbers(inBerlin({"--match", "lev"})), QStringList({"1", "3"}));
    EXPECT_EQ(numbers(inBerlin({"--match", "L*l", "--line", "press"})), QStringList({"1"}));
    EXPECT_EQ(numbers(inBerlin({"--line", "fill*"})), QStringList({"3"}));
    const Result none = inBerlin({"--match", "Nope"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err, "micro850-host: " + path("h.sqlite").toStdString() + ": no rows match\n");
    EXPECT_EQ(inBerlin({"--match", "Nope", "--quiet"}).err, "");
}

TEST_F(HostHistory, ShowsTheJournalOfWrites)
{
    HistoryWrite write;
    write.time = utc("2026-11-22T13:00:00.250Z");
    write.uid = 0;
    write.pid = 42;
    write.client = "operator\x1b[2J";
    write.line = "press";
    write.name = "Setpoint";
    write.element = 2;
    write.oldValue = 1.5;
    write.newValue = 2.5;
    write.outcome = "written";
    HistoryWrite refused = write;
    refused.uid = 2000000001; // of nobody
    refused.element = 0;
    refused.oldValue = nullptr;
    refused.outcome = "not-allowed";
    refused.error = "above the maximum, 2";
    record(std::vector<HistoryWrite>({write, refused}));
    EXPECT_EQ(inBerlin({"--writes"}).out,
              "2026-11-22 14:00:00.250 +01:00 press/Setpoint[2]: 1.5 -> 2.5, written, by "
              "operator\\x1b[2J (user root, process 42)\n"
              "2026-11-22 14:00:00.250 +01:00 press/Setpoint: ? -> 2.5, not-allowed (above the "
              "maximum, 2), by operator\\x1b[2J (user 2000000001, process 42)\n");
    EXPECT_EQ(linesOf(inBerlin({"--writes", "--csv"}).out).at(2),
              QString("2026-11-22T13:00:00.250Z,press,Setpoint,0,,2.5,not-allowed,\"above the "
                      "maximum, 2\",\"\"\"operator\\x1b[2J\"\"\",2000000001,42,2"));
    EXPECT_EQ(linesOf(inBerlin({"--writes", "--json", "--match", "Set*"}).out).size(), 2);
    EXPECT_EQ(inBerlin({"--writes", "--line", "filler"}).out, "");
}

TEST_F(HostHistory, ShowsTheEventsOfTheLines)
{
    HistoryEvent event;
    event.time = utc("2026-11-22T13:00:00Z");
    event.line = "press";
    event.station = 1;
    event.state = "dead";
    event.text = "no answer, \"really\"";
    HistoryEvent clock;
    clock.time = event.time;
    clock.state = "clock";
    clock.text = "the clock was set back by PT1H";
    HistoryEvent connected = event;
    connected.state = connected.text = "connected";
    record(std::vector<HistoryEvent>({event, clock, connected}));
    EXPECT_EQ(inBerlin({"--events"}).out,
              "2026-11-22 14:00:00.000 +01:00 press: station 1: dead: no answer, \"really\"\n"
              "2026-11-22 14:00:00.000 +01:00 clock: the clock was set back by PT1H\n"
              "2026-11-22 14:00:00.000 +01:00 press: station 1: connected\n");
    EXPECT_EQ(inBerlin({"--events", "--csv"}).out,
              "time,line,station,state,text,sequence\n2026-11-22T13:00:00.000Z,press,1,dead,\"no "
              "answer, \"\"really\"\"\",1\n2026-11-22T13:00:00.000Z,,,clock,the clock was set back "
              "by PT1H,2\n2026-11-22T13:00:00.000Z,press,1,connected,connected,3\n");
}

TEST_F(HostHistory, ShowsWhatIsNotGoodAndWhatATerminalWouldObey)
{
    const qint64 time = utc("2026-11-22T13:00:00Z");
    HistoryValue stale = history::value(history::variable("Level"), time, 5);
    stale.quality = "stale";
    stale.error = "no answer";
    HistoryValue never = history::value(history::variable("Level", ""), time, nullptr);
    never.quality = "never";
    record(std::vector<HistoryValue>(
        {stale, never, history::value(history::variable("Name", "SHORT_STRING"), time, "a\x1b[2J"),
         history::value(history::variable("Name", "SHORT_STRING", 2), time,
                        Json::array({"=1+1", "b"})),
         history::value(history::variable("Big", "ULINT"), time, 18446744073709551615u)}));
    QStringList shown;
    for (const QString& line : linesOf(inBerlin({}).out))
        shown.append(line.section("press/", 1));
    EXPECT_EQ(shown, QStringList({"Level = 5 bar (stale: no answer)", "Level = ? bar (never)",
                                  "Name = \"a\\x1b[2J\" bar", "Name = [\"=1+1\",\"b\"] bar",
                                  "Big = 18446744073709551615 bar"}));
}

TEST_F(HostHistory, ReadsALogOfLog)
{
    simulate();
    const Result logged = hostOnPort({"log", file("p.json", R"({"variables": [{"tag": "Speed"},
        {"tag": "Level", "length": 2}, {"tag": "Name"}]})"),
                                      "--sqlite", path("log.db"), "--seconds", "1"});
    ASSERT_EQ(logged.status, 0) << logged.err;
    const Result text = host({"history", path("log.db"), "--match", "Speed"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(QString::fromStdString(text.out).contains(
        QRegularExpression("^[-0-9]{10} [:.0-9]{12} [-+][0-9:]{5} Speed = 1234\n")))
        << text.out;
    const Result csv = host({"history", path("log.db"), "--csv", "--from", "-1h"});
    EXPECT_NE(csv.out.find(",Speed,1,Speed,0,INT,1234,,good,,,,"), std::string::npos) << csv.out;
    EXPECT_EQ(host({"history", path("log.db"), "--to", "-1h"}).out, "");
    const Result writes = host({"history", path("log.db"), "--writes"});
    EXPECT_EQ(writes.status, 2);
    EXPECT_EQ(writes.err, "micro850-host: " + path("log.db").toStdString() +
                              ": is a log, which has values only, of no line (leave out --writes, "
                              "--events and --line)\n");
}

TEST_F(HostHistory, MakesARowForEachPeriod)
{
    recordEachTenMinutes("2026-10-25T00:30:00Z", 6); // 0 to 5
    EXPECT_EQ(inBerlin({"--every", "30min", "--take", "mean"}).out,
              "2026-10-25 02:30:00.000 +02:00 press/Level = 1.0 bar\n"
              "2026-10-25 02:00:00.000 +01:00 press/Level = 3.5 bar\n");
    const auto taken = [this](const char* take) {
        return numbers(inBerlin({"--every", "30min", "--take", take}));
    };
    EXPECT_EQ(taken("last"), (QStringList{"2", "5"}));
    EXPECT_EQ(taken("min"), (QStringList{"0", "3"})); // 2 holds no longer than up to 3
    EXPECT_EQ(taken("max"), (QStringList{"2", "5"}));
    // A value holds over the begin of what is asked for.
    EXPECT_EQ(inBerlin({"--every", "5min", "--from", "2026-10-25T00:35Z", "--to",
                        "2026-10-25T00:45Z", "--json"})
                  .out,
              R"({"line":"press","name":"Level","station":2,"tag":"LevelTag","element":3,)"
              R"("type":"INT","value":0,"quality":"good","time":"2026-10-25T00:35:00.000Z",)"
              R"("unit":"bar"})"
              "\n"
              R"({"line":"press","name":"Level","station":2,"tag":"LevelTag","element":3,)"
              R"("type":"INT","value":1,"quality":"good","time":"2026-10-25T00:40:00.000Z",)"
              R"("unit":"bar"})"
              "\n");
    EXPECT_EQ(numbers(inBerlin({"--every", "5min", "--hold", "1min"})).size(), 6);
}

TEST_F(HostHistory, PrintsAColumnForEachElement)
{
    const qint64 time = utc("2026-11-22T13:00:00Z");
    HistoryValue stale = history::value(history::variable("Level"), time + 3000, 7);
    stale.quality = "stale";
    record(std::vector<HistoryValue>(
        {history::value(history::variable("Level"), time, 5.5),
         history::value(history::variable("Tank", "INT", 2), time, Json::array({1, 2})),
         history::value(history::variable("Level"), time + 1000, 6.5), stale}));
    EXPECT_EQ(inBerlin({"--csv", "--wide"}).out,
              "time,press/Level [bar],press/Tank[0] [bar],press/Tank[1] [bar]\n"
              "2026-11-22T13:00:00.000Z,5.5,1,2\n"
              "2026-11-22T13:00:01.000Z,6.5,1,2\n"
              "2026-11-22T13:00:03.000Z,,1,2\n");
    EXPECT_EQ(inBerlin({"--csv", "--wide", "--every", "2s", "--take", "mean", "--decimal", "comma",
                        "--bom", "--time", "local"})
                  .out,
              "\xEF\xBB\xBFtime;press/Level [bar];press/Tank[0] [bar];press/Tank[1] [bar]\n"
              "2026-11-22T14:00:00.000+01:00;6,0;1,0;2,0\n"
              "2026-11-22T14:00:02.000+01:00;6,5;1,0;2,0\n");
    EXPECT_EQ(linesOf(inBerlin({"--csv", "--separator", "semicolon", "--time", "spreadsheet"}).out)
                  .mid(0, 2),
              (QStringList{"time (local);name;station;tag;element;type;value;unit;quality;error;line;state;"
                           "sequence",
                           "2026-11-22 14:00:00.000;Level;2;LevelTag;3;INT;5.5;bar;good;;press;"
                           "connected;1"}));
}

TEST_F(HostHistory, ReadsTheArraysOfALogAsNumbers)
{
    simulate();
    const Result logged =
        hostOnPort({"log", file("p.json", R"({"variables": [
        {"tag": "Level", "length": 2}, {"tag": "Name"}]})"),
                    "--sqlite", path("log.db"), "--seconds", "1.2", "--interval", "0.1"});
    ASSERT_EQ(logged.status, 0) << logged.err;
    const Result wide =
        host({"history", path("log.db"), "--csv", "--wide", "--every", "1d", "--take", "max"});
    const QStringList lines = linesOf(wide.out);
    ASSERT_GE(lines.size(), 2) << wide.out; // two when the test runs over midnight
    EXPECT_EQ(lines.at(0), QString("time,Level[0],Level[1]"));
    EXPECT_EQ(lines.at(1).section(',', 1), QString("10,11"));
    EXPECT_EQ(wide.err, "micro850-host: Name: is no number, and left out (--take last has it)\n");
}

TEST_F(HostHistory, TellsWhatIsWrongWithOneLine)
{
    recordEachTenMinutes("2026-10-25T00:30:00Z", 1000);
    QFile whole(path("h.sqlite"));
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    const QByteArray content = whole.readAll();
    file("cut.sqlite", content.left(content.size() / 2 + 100).toStdString());
    file("text.txt",
         "not a database, but long enough for the header of one: " + std::string(200, 'x'));
    file("empty", "");
    {
        Database other(path("other.db"), Database::Access::Write);
        other.run("CREATE TABLE t (a)");
    }
    ASSERT_TRUE(QFile::copy(path("h.sqlite"), path("new.sqlite")));
    {
        Database later(path("new.sqlite"), Database::Access::Write);
        later.run("PRAGMA user_version = 9");
    }
    const auto complaint = [this](const QStringList& arguments) {
        const Result result = host(QStringList("history") + arguments);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_EQ(result.out, "");
        return QString::fromStdString(result.err)
            .remove(path("x").chopped(1))
            .remove("micro850-host: ");
    };
    EXPECT_EQ(complaint({path("none")}), QString("none: there is no such file\n"));
    EXPECT_EQ(complaint({path("text.txt")}), QString("text.txt: is not a database\n"));
    EXPECT_EQ(complaint({path("empty")}), QString("empty: is empty, and no database\n"));
    EXPECT_EQ(complaint({path("cut.sqlite")}), QString("cut.sqlite: is damaged or cut short\n"));
    EXPECT_EQ(complaint({path("other.db")}),
              QString("other.db: is a database, but neither a history of micro850-gateway nor a "
                      "log of micro850-host\n"));
    EXPECT_EQ(complaint({path("new.sqlite")}),
              QString("new.sqlite: was written by a later version of micro850-gateway (format 9, "
                      "this one knows 2; use the later version)\n"));
    EXPECT_EQ(complaint({"/"}), QString("/: is no file (name a history or a log)\n"));
    for (const char* time : {"yesterday", "2026-13-01", "2026-02-29", "2026-11-22T25:00", "-5",
                             "-1x", "2026-11-22T10:00+1", "12:00", ""})
    {
        const QString said = complaint({path("h.sqlite"), "--from", QString(time) + "!"});
        EXPECT_TRUE(said.startsWith("--from: \"")) << said.toStdString();
        EXPECT_TRUE(said.contains(" is no time")) << said.toStdString();
    }
    EXPECT_EQ(complaint({path("h.sqlite"), "--from", "2026-02-29"}),
              QString("--from: \"2026-02-29\" is no time: the calendar or the clock does not have "
                      "it\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--from", "-1h", "--to", "-2h"}),
              QString("--from -1h is not before --to -2h\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--csv", "--json"}),
              QString("--csv and --json are two forms of the same rows (leave out one)\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--wide"}),
              QString("--wide is for comma-separated rows (add --csv)\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--take", "mean"}),
              QString("--take and --hold say what becomes of the values of a period (name its "
                      "length with --every, such as 10s)\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--every", "0s"}),
              QString("--every: \"0s\" is no time (use 10s, 15min, 1h or 7d, at most 366d)\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--events", "--every", "1h"}),
              QString("--wide and --every are for values (leave out --writes and --events)\n"));
    EXPECT_EQ(complaint({path("h.sqlite"), "--writes", "--events"}),
              QString("--writes and --events are two tables (leave out one)\n"));
}

// ---- Kills --------------------------------------------------------------------------------------

/// Records numbers until it is killed, and says through a pipe which ones are committed.
[[noreturn]] void recordUntilKilled(const QString& path, int first, int pipe)
{
    HistoryLimits limits;
    limits.bytes = 1024 * 1024; // the oldest are removed all the time
    HistoryFile file(path, limits);
    std::vector<std::shared_ptr<const HistoryVariable>> variables;
    for (int i = 0; i < 5; ++i)
        variables.push_back(history::variable(QString::number(i)));
    for (int number = first;;) {
        file.begin();
        for (int i = 0; i < 50; ++i, ++number)
            file.add(history::value(variables[number % 5], 1000000 + number, number));
        file.commit();
        if (write(pipe, &number, sizeof number) != sizeof number)
            _exit(1);
        while (file.retain()) {
        }
    }
}

TEST_F(HostHistory, IsSoundAndCompleteAfterKillsAtAnyMoment)
{
    const history::FastDir folder; // a kill takes nothing from the system's cache
    const QString name = folder.filePath("h.sqlite");
    std::mt19937 random(20261122);
    const auto upTo = [&random](unsigned most) { return static_cast<unsigned>(random() % most); };
    int next = 0;
    for (int round = 0; round < 25; ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0)
            recordUntilKilled(name, next, ends[1]);
        close(ends[1]);
        int committed = next;
        // Some transactions, and a moment within one.
        for (unsigned i = 0, count = 1 + upTo(200); i < count; ++i)
            ASSERT_EQ(read(ends[0], &committed, sizeof committed), ssize_t(sizeof committed));
        usleep(upTo(3000));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(ends[0], &committed, sizeof committed) == ssize_t(sizeof committed)) {
        }
        close(ends[0]);
        // No hole, nothing that was not recorded, all that was committed.
        int expected = -1;
        for (const HistoryValue& row : history::valuesOf(name)) {
            const int number = row.value.get<int>();
            ASSERT_TRUE(expected < 0 || number == expected) << number << ' ' << expected;
            expected = number + 1;
        }
        ASSERT_GE(expected, committed);
        ASSERT_LE(expected, committed + 50); // the transaction under way may be there, too
        ASSERT_EQ(history::integrityOf(name), QString("ok"));
        next = expected;
    }
    EXPECT_GT(next, 10000);
    const Result result = host({"history", name});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(linesOf(result.out).size(), int(history::valuesOf(name).size()));
}

} // namespace
