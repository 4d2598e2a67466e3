#include "program_fixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

// What programs read: lines that come at once, and that are as the published schema says.

namespace {

const char kSchema[] = MICRO850_SOURCE_DIR "/share/micro850/host-output.schema.json";

const char kTags[] = R"({"name": "Speed", "type": "INT", "value": 1234},
    {"name": "Level", "type": "INT", "length": 4, "value": [1, 2, 3, 4]},
    {"name": "On", "type": "BOOL", "value": true},
    {"name": "Wide", "type": "ULINT", "value": 18446744073709551615},
    {"name": "Odd", "type": "REAL", "value": "nan"},
    {"name": "Status", "type": "WORD", "value": 7},
    {"name": "Delay", "type": "TIME", "value": "PT2.5S"},
    {"name": "Day", "type": "DATE", "value": "2024-02-29"},
    {"name": "Label", "type": "SHORT_STRING", "value": "Apple"})";

const char kVariables[] = R"({"tag": "Speed", "gain": 0.5, "unit": "rpm"},
    {"name": "Tank", "tag": "Level", "element": 1, "length": 3}, {"tag": "On"}, {"tag": "Wide"},
    {"tag": "Odd"}, {"tag": "Status"}, {"tag": "Delay"}, {"tag": "Day"}, {"tag": "Label"},
    {"tag": "Nope"}, {"name": "Far", "tag": "Speed", "station": 2})";

QJsonObject objectOf(const QString& line)
{
    QJsonParseError error = {};
    const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << line.toStdString();
    return document.object();
}

std::string lineOf(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString() + '\n';
}

class HostJson : public ProgramTest
{
protected:
    QString project(const std::string& variables = kVariables) const
    {
        return file(QStringLiteral("p.json"), R"({"port": {"device": ")" + port().toStdString() +
                                                  R"("}, "stations": [{"number": 1},
            {"number": 2, "enabled": false}], "variables": [)" +
                                                  variables + "]}");
    }
    /// The verdict of an independent validator on lines, by what the schema says of a command.
    Result validate(const std::string& lines, const QString& command,
                    const QStringList& more = QStringList()) const
    {
        return runProgram("python3",
                          QStringList{"-B", MICRO850_SOURCE_DIR "/tests/programs/check_messages.py",
                                      kSchema, file("lines", lines), command} +
                              more);
    }
    void expectDescribed(const Result& result, const QString& command) const
    {
        EXPECT_NE(result.out, "") << command.toStdString() << result.err;
        const Result verdict = validate(result.out, command);
        EXPECT_EQ(verdict.status, 0) << command.toStdString() << '\n' << verdict.out << verdict.err;
    }
    /// The schema refuses each of these lines for each of these commands.
    void expectRefused(const std::string& lines, const QStringList& commands) const
    {
        for (const QString& command : commands) {
            const Result verdict = validate(lines, command, {"refused"});
            EXPECT_EQ(verdict.status, 0) << command.toStdString() << '\n'
                                         << verdict.out << verdict.err;
        }
    }
};

/// The object with one mistake in each: a key too many, a key of another type, a key too few.
std::string mistaken(const QJsonObject& object)
{
    QJsonObject more = object;
    more["colour"] = "red";
    std::string lines = lineOf(more);
    for (const QString& key : object.keys()) {
        QJsonObject other = object;
        other[key] = QJsonArray{QJsonObject()};
        lines += lineOf(other);
        const bool isOptional = key == "unit" || (key == "error" && object.contains("quality"));
        other.remove(key);
        if (!isOptional)
            lines += lineOf(other);
    }
    return lines;
}

} // namespace

TEST_F(HostJson, IsDescribedByTheSchemaForRead)
{
    simulate(kTags);
    expectDescribed(
        host({"read", "Speed", "Tank", "Tank[1]", "On", "Wide", "Odd", "Status", "Delay", "Day",
              "Label", "Nope", "Level", "--json", "--project", project()}),
        "read");
    expectDescribed(hostOnPort({"read", "Level[2..9]", "Speed", "--json"}), "read");
    expectDescribed(hostOnPort({"read", "Level[", "Speed", "--json"}), "read");
    stopSimulator();
    const SilentPort nobody;
    expectDescribed(
        host({"read", "Speed", "On", "--json", "--timeout", "20", "--port", nobody.path()}),
        "read");
}

TEST_F(HostJson, IsDescribedByTheSchemaForFind)
{
    simulate(kTags);
    const Result find =
        hostOnPort({"find", file("names", "Speed\nLevel\nNope\nLabel\nOn\nWide\n"), "--json"});
    EXPECT_EQ(linesOf(find.out).size(), 6) << find.err;
    expectDescribed(find, "find");
    std::string wrong;
    for (const QString& line : linesOf(find.out))
        wrong += mistaken(objectOf(line));
    expectRefused(wrong, {"find"});
    expectRefused(linesOf(find.out).first().toStdString() + '\n', {"read", "poll"});
}

TEST_F(HostJson, IsDescribedByTheSchemaForPollAndWatch)
{
    simulate(kTags);
    const Result poll = host({"poll", project(), "--seconds", "1", "--json"});
    EXPECT_EQ(linesOf(poll.out).size(), 12) << poll.out << poll.err;
    expectDescribed(poll, "poll");
    expectDescribed(host({"poll", project(), "--seconds", "1", "--raw", "--json"}), "poll");
    expectDescribed(host({"watch", "Tank[0..1]", "Speed", "Odd", "Nope", "--seconds", "1", "--json",
                          "--project", project()}),
                    "watch");
    stopSimulator();
    const SilentPort nobody;
    const Result silent = host({"poll", project(), "--seconds", "2", "--timeout", "20", "--json",
                                "--port", nobody.path()});
    EXPECT_NE(silent.out.find(R"("problem":)"), std::string::npos) << silent.out;
    expectDescribed(silent, "poll");
}

TEST_F(HostJson, IsDescribedByTheSchemaForLog)
{
    simulate(kTags);
    const Result file =
        host({"log", project(), "--csv", path("v.csv"), "--seconds", "1", "--json"});
    EXPECT_EQ(linesOf(file.out).size(), 2) << file.out;
    expectDescribed(file, "log");
    const Result printed = host({"log", project(), "--seconds", "1", "--json"});
    EXPECT_EQ(linesOf(printed.out).size(), 12) << printed.out << printed.err;
    EXPECT_NE(printed.err.find("standard output: 11 rows written\n"), std::string::npos);
    expectDescribed(printed, "log");
}

// At an interval every variable has a row each time, whether it changed or not.
TEST_F(HostJson, LogPrintsEveryVariableAtAnInterval)
{
    simulate(kTags);
    const Result result = host({"log", project(R"({"tag": "Speed"}, {"tag": "On"})"), "--seconds",
                                "2", "--interval", "0.2", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    QStringList lines = linesOf(result.out);
    EXPECT_TRUE(lines.takeLast().startsWith(R"({"summary":)"));
    ASSERT_GE(lines.size(), 6);
    ASSERT_EQ(lines.size() % 2, 0);
    for (int i = 0; i < lines.size(); i += 2) {
        const QJsonObject speed = objectOf(lines.at(i));
        const QJsonObject on = objectOf(lines.at(i + 1));
        EXPECT_EQ(speed["name"], "Speed");
        EXPECT_EQ(speed["value"], 1234);
        EXPECT_EQ(on["name"], "On");
        EXPECT_EQ(on["time"], speed["time"]);
    }
    expectDescribed(result, "log");
}

TEST_F(HostJson, OfEachCommandIsRefusedByTheSchemaWhenItIsWrong)
{
    simulate(kTags);
    const std::string elements = hostOnPort({"read", "Speed", "Nope", "--json"}).out;
    const std::string changes =
        host({"poll", project(R"({"tag": "Speed", "unit": "rpm"}, {"tag": "Nope"})"), "--seconds",
              "1", "--json"})
            .out;
    const std::string recorded =
        host({"log", project(), "--csv", path("v.csv"), "--seconds", "1", "--json"}).out;
    std::string wrong;
    for (const QString& line : linesOf(elements + changes + recorded))
        wrong += mistaken(objectOf(line));
    const QJsonObject end = objectOf(linesOf(changes).last());
    for (const QString& summary : linesOf(mistaken(end["summary"].toObject())))
        wrong += lineOf({{"summary", objectOf(summary)}});
    expectRefused(wrong, {"read", "poll", "watch", "log"});
    // What one command prints, another does not.
    expectRefused(elements, {"poll", "watch", "log"});
    expectRefused(changes, {"read"});
    expectRefused(linesOf(recorded).first().toStdString() + '\n', {"read", "poll", "watch"});
}

TEST_F(HostJson, IsRefusedByTheSchemaWhenItsPartsContradictEachOther)
{
    simulate(kTags);
    const Result poll = host({"poll", project(R"({"tag": "Speed"})"), "--seconds", "1", "--json"});
    const QJsonObject change = objectOf(linesOf(poll.out).value(0));
    const auto with = [&change](const char* key, const QJsonValue& value) {
        QJsonObject other = change;
        other[key] = value;
        return lineOf(other);
    };
    ASSERT_EQ(validate(lineOf(change), "poll").status, 0);
    expectRefused(with("quality", "never") + with("quality", "bad") + with("value", QJsonValue()) +
                      with("value", QJsonArray{1}) + with("type", "INTT") +
                      with("type", QJsonValue()) + with("element", 65536) + with("station", -1) +
                      with("time", "2026-11-22 10:00:00.000Z") +
                      with("time", "2026-11-22T10:00:00.000") + with("name", ""),
                  {"poll", "watch", "log"});
}

TEST(HostOutputSchema, KnowsTheTypesThatAProjectKnows)
{
    const auto in = [](const char* name) {
        QFile file(QStringLiteral(MICRO850_SOURCE_DIR "/share/micro850/") + name);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        return QJsonDocument::fromJson(file.readAll()).object();
    };
    const QJsonArray known =
        in("host-output.schema.json")["$defs"].toObject()["type"].toObject()["enum"].toArray();
    const QJsonObject variable = in("project.schema.json")["properties"]
                                     .toObject()["variables"]
                                     .toObject()["items"]
                                     .toObject()["properties"]
                                     .toObject();
    EXPECT_FALSE(known.isEmpty());
    EXPECT_EQ(known, variable["type"].toObject()["enum"].toArray());
}

// A reader at the other end of a pipe gets each line while the command goes on.
TEST_F(HostJson, ComesThroughAPipeLineByLine)
{
    simulate(R"({"name": "Speed", "type": "INT", "value": 1234})");
    const QString plan = project(R"({"tag": "Speed"})");
    for (const QStringList& arguments : {QStringList{"poll", plan, "--json"},
                                         QStringList{"watch", "Speed", "--json", "-p", port()},
                                         QStringList{"log", plan, "--json"}})
    {
        QProcess process;
        process.start(MICRO850_HOST, arguments);
        QElapsedTimer timer;
        timer.start();
        while (!process.canReadLine() && timer.elapsed() < 60000)
            process.waitForReadyRead(100);
        EXPECT_EQ(process.state(), QProcess::Running) << arguments.first().toStdString();
        EXPECT_EQ(objectOf(process.readLine())["value"], 1234) << arguments.first().toStdString();
        process.terminate();
        EXPECT_TRUE(process.waitForFinished()) << arguments.first().toStdString();
        EXPECT_TRUE(process.readAllStandardOutput().startsWith(R"({"summary":)"));
    }
}
