// What the programs do when what they write does not arrive: full disks, limits, closed pipes.

#include "program_fixture.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

namespace {

const char kNoSpace[] = "cannot be written: No space left on device\n";

class FullDisk : public ProgramTest
{
protected:
    FullDisk() { EXPECT_TRUE(QFile::link("/dev/full", path("full.txt"))); }

    /// Runs a command line of the shell in the test's folder, with $HOST, $SIM and $PORT.
    Result shell(const QString& line) const
    {
        return runProgram("bash", {"-c", "cd \"$0\" && " + line, path(".")},
                          {"HOST=" MICRO850_HOST, "SIM=" MICRO850_SIM, "PORT=" + port()});
    }
    QString project() const
    {
        return file("p.json", R"({"variables": [{"tag": "Speed"}, {"tag": "Name"}]})");
    }
};

TEST_F(FullDisk, AsStandardOutputEndsEveryCommandWithOneLine)
{
    simulate();
    project();
    file("t.txt", "1.000000 > 10 06\n");
    file("v.csv", "Name,Type\nSpeed,INT\n");
    const char expected[] = "micro850-host: standard output: cannot be written: No space left on "
                            "device\n";
    for (const char* command :
         {"read Speed --port $PORT", "read Speed --json --port $PORT", "probe --port $PORT",
          "watch Speed --port $PORT --seconds 60 --quiet",
          "poll p.json --port $PORT --seconds 60 --quiet",
          "poll p.json --port $PORT --seconds 60 --quiet --json", "check p.json --port $PORT",
          "trace t.txt", "trace t.txt --json --summary", "import v.csv", "import v.csv --json",
          "--help", "read --help", "--version"})
    {
        const Result result = shell(QString("$HOST %1 >/dev/full").arg(command));
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.err, expected) << command;
    }
}

TEST_F(FullDisk, AsStandardOutputEndsTheSimulatorWithOneLine)
{
    file("tags.json", R"({"tags": [{"name": "A", "type": "INT"}]})");
    for (const char* command : {"tags.json --quiet", "--help", "--version"}) {
        const Result result = shell(QString("$SIM %1 >/dev/full").arg(command));
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.err, std::string("micro850-sim: standard output: ") + kNoSpace);
    }
}

TEST_F(FullDisk, AClosedPipeEndsACommandWithOneLine)
{
    // Its value changes, so that there is always one more to write.
    simulate(R"({"name": "Speed", "type": "DINT",
                 "motion": {"kind": "ramp", "min": 0, "max": 1000000, "period": 1000}})");
    file("p.json", R"({"variables": [{"tag": "Speed"}]})");
    const Result polled = shell("$HOST poll p.json --port $PORT --json --quiet | head -1; echo "
                                "${PIPESTATUS[0]}");
    const QStringList lines = linesOf(polled.out);
    ASSERT_EQ(lines.size(), 2) << polled.out;
    EXPECT_EQ(lines.at(1), QString("1"));
    EXPECT_EQ(polled.err, "micro850-host: standard output: cannot be written: Broken pipe\n");
}

TEST_F(FullDisk, AsStandardOutputStopsNoWrite)
{
    simulate();
    const Result result = shell("$HOST write 'Level[0..1]=5,6' Setpoint=7.5 --port $PORT "
                                ">/dev/full");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              std::string("micro850-host: 3 written\nmicro850-host: standard output: ") + kNoSpace);
    EXPECT_EQ(hostOnPort({"read", "Level[0..1]", "Setpoint"}).out,
              "Level[0]  INT   5\nLevel[1]  INT   6\nSetpoint  REAL  7.5\n");
}

TEST_F(FullDisk, AsStandardOutputLeavesTheOutcomeOfASingleWriteOnStandardError)
{
    simulate();
    for (const char* options : {"", "--json", "--quiet", "--no-verify"}) {
        const Result full =
            shell(QString("$HOST write 'Level[0]=3' --port $PORT %1 >/dev/full").arg(options));
        EXPECT_EQ(full.status, 1);
        EXPECT_EQ(full.err,
                  std::string("micro850-host: 1 written\nmicro850-host: standard output: ") +
                      kNoSpace);
    }
    const Result closed = shell("$HOST write 'Level[0]=3' --port $PORT >&-");
    EXPECT_EQ(closed.status, 1);
    EXPECT_EQ(closed.err, "micro850-host: 1 written\nmicro850-host: standard output: cannot be "
                          "written: Bad file descriptor\n");
    const Result refused = shell("$HOST write Speed=x --json --port $PORT >/dev/full");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("micro850-host: nothing was written: 1 refused\n"),
              std::string::npos)
        << refused.err;
}

TEST_F(FullDisk, AStandardOutputThatIsNotOpenIsNotAnotherFile)
{
    simulate();
    const Result result = shell("$HOST read Speed --port $PORT --trace t.txt >&-");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "micro850-host: standard output: cannot be written: Bad file descriptor\n");
    EXPECT_EQ(textOf("t.txt").find("  INT  "), std::string::npos);
    EXPECT_EQ(host({"trace", "t.txt", "--summary"}).status, 0);
}

// The values are read all the same.
TEST_F(FullDisk, ForATraceIsReportedAfterTheWorkIsDone)
{
    simulate();
    const Result never = hostOnPort({"read", "Speed", "--trace", "full.txt"});
    EXPECT_EQ(never.status, 1);
    EXPECT_EQ(never.err, std::string("micro850-host: full.txt: ") + kNoSpace);
    const Result full = shell("ulimit -f 1; $HOST read Speed Level Recipe Name Setpoint Running "
                              "--port $PORT --trace t.txt");
    EXPECT_EQ(full.status, 1);
    EXPECT_EQ(full.err, "micro850-host: t.txt: cannot be written: File too large\n");
    EXPECT_NE(full.out.find("Running   BOOL          true"), std::string::npos) << full.out;
    const Result begin = host({"trace", "t.txt", "--summary"});
    EXPECT_EQ(begin.status, 0);
    EXPECT_EQ(begin.err, ""); // whole records only
    EXPECT_NE(begin.out.find("requests "), std::string::npos);
}

// Hours of values are worth more than the trace of them.
TEST_F(FullDisk, ForATraceEndsNoCommandThatGoesOn)
{
    simulate();
    project();
    for (const char* command : {"poll p.json", "watch Speed Name", "log p.json --csv -"}) {
        const Result result = shell(QString("ulimit -f 1; date +%s%N >begin; $HOST %1 --port $PORT "
                                            "--quiet --trace t.pcapng --force --seconds 3 "
                                            ">out.txt; echo $? $(( ($(date +%s%N) - $(cat begin)) "
                                            "/ 1000000 ))")
                                        .arg(command));
        EXPECT_EQ(result.err, "micro850-host: t.pcapng: cannot be written: File too large\n")
            << command;
        const QStringList ended = QString::fromStdString(result.out).simplified().split(' ');
        EXPECT_EQ(ended.first(), QString("1")) << command;
        EXPECT_GE(ended.last().toInt(), 3000) << command;
        EXPECT_NE(textOf("out.txt").find("1234"), std::string::npos) << textOf("out.txt");
        EXPECT_EQ(host({"trace", "t.pcapng", "--summary"}).err, "") << command;
    }
}

TEST_F(FullDisk, ForATraceIsReportedAtOnceWhileTheCommandGoesOn)
{
    simulate();
    project();
    const Result result =
        shell("ulimit -f 1; $HOST poll p.json --port $PORT --trace t.txt --seconds 2 2>&1 "
              ">/dev/null");
    const QStringList lines = linesOf(result.out);
    ASSERT_GE(lines.size(), 3) << result.out;
    EXPECT_EQ(lines.filter("t.txt").size(), 1) << result.out;
    EXPECT_FALSE(lines.last().contains("t.txt")) << "reported only at the end";
    EXPECT_TRUE(lines.last().contains("station 1: connected; sent ")) << result.out;
}

TEST_F(FullDisk, KeepsAnEarlierTraceWhenThePortIsWrong)
{
    simulate();
    hostOnPort({"read", "Speed", "--trace", "t.txt"});
    const std::string before = textOf("t.txt");
    for (const char* command : {"read Speed", "write Speed=1", "poll", "check"}) {
        project();
        const QStringList words = QString(command).split(' ');
        const bool named = words.first() == "poll" || words.first() == "check";
        const Result result = host(words + (named ? QStringList("p.json") : QStringList()) +
                                   QStringList{"--port", "/none", "--trace", "t.txt"});
        EXPECT_EQ(result.status, 2) << command;
        EXPECT_EQ(textOf("t.txt"), before) << command;
    }
}

TEST_F(FullDisk, TraceReplacesAFileThatIsNoTraceOnlyWithForce)
{
    simulate();
    file("notes.txt", "precious\n");
    const Result refused = hostOnPort({"read", "Speed", "--trace", "notes.txt"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "micro850-host: notes.txt: is there and is not a trace (name another "
                           "file, or replace it with --force)\n");
    EXPECT_EQ(refused.out, "");
    EXPECT_EQ(textOf("notes.txt"), "precious\n");
    EXPECT_EQ(hostOnPort({"read", "Speed", "--trace", "notes.txt", "--force"}).status, 0);
    EXPECT_EQ(host({"trace", "notes.txt"}).status, 0);
}

TEST_F(FullDisk, ForALogEndsItWithOneLine)
{
    simulate();
    project();
    const QString log = "$HOST log p.json --port $PORT --quiet --seconds 600 --interval 0.01 ";
    const Result device = shell(log + "--csv /dev/full");
    EXPECT_EQ(device.status, 2);
    EXPECT_EQ(device.err, "micro850-host: /dev/full: is a pipe or a device (name a file, or - for "
                          "standard output)\n");
    const Result output = shell(log + "--csv - >/dev/full");
    EXPECT_EQ(output.status, 1);
    EXPECT_EQ(output.err, std::string("micro850-host: standard output: ") + kNoSpace);
    const Result csv = shell("ulimit -f 2; " + log + "--csv v.csv");
    EXPECT_EQ(csv.status, 1);
    EXPECT_EQ(csv.err, "micro850-host: v.csv: cannot be written: File too large\n");
    EXPECT_EQ(textOf("v.csv").back(), '\n');
    const Result database = shell("ulimit -f 12; " + log + "--sqlite v.db");
    EXPECT_EQ(database.status, 1);
    EXPECT_EQ(database.err.find("micro850-host: v.db: cannot be written: "), 0u) << database.err;
    EXPECT_EQ(linesOf(database.err).size(), 1) << database.err;
}

TEST_F(FullDisk, AClosedPipeEndsALogWithOneLine)
{
    simulate();
    project();
    const Result result = shell("$HOST log p.json --port $PORT --quiet --csv - --interval 0.01 | "
                                "head -1; echo ${PIPESTATUS[0]}");
    EXPECT_EQ(linesOf(result.out).last(), QString("1")) << result.out;
    EXPECT_EQ(result.err, "micro850-host: standard output: cannot be written: Broken pipe\n");
}

} // namespace
