#include "broker.h"
#include "program_fixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>

// The recipes of the manual page, run as a reader sees them.

namespace {

const char kPage[] = MICRO850_SOURCE_DIR "/man/micro850-host.1";

/// The page as a terminal shows it, without its bold type.
QString shownPage()
{
    const Result page = runProgram("mandoc", {"-Tutf8", "-Owidth=100", kPage});
    EXPECT_EQ(page.status, 0) << page.err;
    return QString::fromStdString(page.out).remove(QRegularExpression(".\\x08"));
}

/// The commands of the section, one text for each that stands by itself: the lines that are
/// indented more than its words.
QStringList recipes()
{
    const QString section =
        shownPage().section("\n   Recipes\n", 1).section(QRegularExpression("\n(?=[A-Z])"), 0, 0);
    QStringList found;
    bool goesOn = false;
    for (const QString& line : section.split('\n')) {
        const bool isPrinted = line.startsWith(QString(8, ' '));
        if (isPrinted && goesOn)
            found.last() += line + '\n';
        else if (isPrinted)
            found += line + '\n';
        goesOn = isPrinted;
    }
    return found;
}

/// The only recipe with this text.
QString recipeWith(const char* text)
{
    const QStringList found = recipes().filter(text);
    EXPECT_EQ(found.size(), 1) << text << '\n' << recipes().join("\n").toStdString();
    return found.value(0);
}

class Recipes : public ProgramTest
{
protected:
    Recipes()
    {
        simulatePlant();
        QFile example(MICRO850_SOURCE_DIR "/examples/plant.project.json");
        EXPECT_TRUE(example.open(QIODevice::ReadOnly));
        file("plant.project.json",
             QString::fromUtf8(example.readAll())
                 .replace("\"port\": {",
                          QStringLiteral("\"port\": { \"device\": \"%1\",").arg(port()))
                 .toStdString());
    }
    /// Runs a recipe as printed, but on the simulator's port and with this broker. A command that
    /// runs until the user ends it, or a minute, runs for some seconds.
    Result run(QString recipe, int broker = 0) const
    {
        recipe.replace("/dev/ttyUSB0", port());
        recipe.replace("-h broker.example", QStringLiteral("-h 127.0.0.1 -p %1").arg(broker));
        recipe.remove(" --seconds 60");
        Result result = runFor(recipe, 2);
        if (result.status != 0) // a busy machine may take longer to read all once
            result = runFor(recipe, 30);
        EXPECT_EQ(result.status, 0) << recipe.toStdString() << '\n' << result.err;
        return result;
    }

private:
    Result runFor(QString recipe, int seconds) const
    {
        recipe.replace(QRegularExpression("micro850-host (poll|watch|log) "),
                       QStringLiteral("micro850-host \\1 --seconds %1 ").arg(seconds));
        return runProgram("bash", {"-c", "set -e; cd \"$0\"; PATH=\"$1:$PATH\"; " + recipe,
                                   path("."), QFileInfo(MICRO850_HOST).path()});
    }
};

/// Somebody who reads topics of the broker, each message as "TOPIC TEXT".
class Subscriber
{
public:
    Subscriber(int port, const QString& topic)
    {
        // Without stdbuf, lines wait until there are many.
        m_process.start("stdbuf", {"-oL", "mosquitto_sub", "-h", "127.0.0.1", "-p",
                                   QString::number(port), "-v", "-d", "-t", topic});
        EXPECT_TRUE(waitFor("Subscribed"));
    }
    ~Subscriber()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    bool waitFor(const QRegularExpression& text)
    {
        QElapsedTimer timer;
        for (timer.start(); !m_seen.contains(text) && timer.elapsed() < 20000;) {
            m_process.waitForReadyRead(50);
            m_seen += QString::fromUtf8(m_process.readAllStandardOutput());
        }
        return m_seen.contains(text);
    }
    bool waitFor(const char* text)
    {
        return waitFor(QRegularExpression(QRegularExpression::escape(text)));
    }
    std::string seen() const { return m_seen.toStdString(); }

private:
    QProcess m_process;
    QString m_seen;
};

} // namespace

// A recipe that no test below runs is missing in this count.
TEST_F(Recipes, AreAllRunByTests)
{
    EXPECT_EQ(recipes().size(), 7) << recipes().join("\n").toStdString();
}

TEST_F(Recipes, ReadAValueInAShellScript)
{
    EXPECT_EQ(run(recipeWith("speed=") + "echo \"$speed\"").out, "1234\n");
}

TEST_F(Recipes, FollowValuesWithJq)
{
    const std::string values = run(recipeWith("\\(.name) = ")).out;
    EXPECT_TRUE(linesOf(values).contains("Speed = 1234")) << values;
    EXPECT_TRUE(linesOf(values).contains("Product = Apple juice")) << values;
    EXPECT_TRUE(linesOf(values).contains("Flow = 0.1")) << values;
    // The temperature is above the limit for most of the time only.
    std::string alarm;
    for (int i = 0; i < 20 && alarm.empty(); ++i)
        alarm = run(recipeWith("too hot")).out;
    EXPECT_TRUE(QRegularExpression("^20[0-9-]{8}T[0-9:.]{12}Z too hot: [0-9.]+$",
                                   QRegularExpression::MultilineOption)
                    .match(QString::fromStdString(alarm))
                    .hasMatch())
        << alarm;
}

TEST_F(Recipes, PublishChangesAsObjects)
{
    const TestBroker broker;
    Subscriber subscriber(broker.port(), "plant/#");
    run(recipeWith("plant/changes"), broker.port());
    EXPECT_TRUE(subscriber.waitFor(QRegularExpression(
        R"re(plant/changes \{"time":"20[^"]+Z","name":"Speed",.*"value":1234,"quality":"good"[,}])re")))
        << subscriber.seen();
    EXPECT_EQ(subscriber.seen().find("summary"), std::string::npos);
}

TEST_F(Recipes, PublishATopicForEachVariable)
{
    const TestBroker broker;
    run(recipeWith("plant/$name"), broker.port());
    Subscriber late(broker.port(), "plant/#"); // the broker keeps the values for it
    EXPECT_TRUE(late.waitFor("plant/Speed 1234\n")) << late.seen();
    EXPECT_TRUE(late.waitFor("plant/Product Apple juice\n")) << late.seen();
}

TEST_F(Recipes, RecordForASpreadsheet)
{
    run(recipeWith("--decimal comma"));
    const QStringList lines = linesOf(textOf("sheet.csv"));
    ASSERT_GE(lines.size(), 2);
    EXPECT_TRUE(lines.first().startsWith(QString::fromUtf8("\uFEFFtime (local);")))
        << textOf("sheet.csv");
    const QStringList headings = lines.first().split(';');
    const QStringList cells = lines.last().split(';');
    const auto cell = [&](const char* name) { return cells.value(headings.indexOf(name)); };
    EXPECT_TRUE(headings.contains("Speed")) << lines.first().toStdString();
    EXPECT_EQ(cell("Speed"), "1234");
    EXPECT_EQ(cell("Flow"), "0,1");
    EXPECT_EQ(cells.size(), headings.size());
}

TEST_F(Recipes, DrawARecordingWithGnuplot)
{
    run(recipeWith("gnuplot"));
    const std::string picture = textOf("values.svg");
    EXPECT_NE(picture.find("<svg"), std::string::npos) << picture;
    EXPECT_NE(picture.find(">Temperature"), std::string::npos) << picture;
    // A curve of several points.
    const QString path = QString::fromStdString(picture).section("Temperature", 1);
    EXPECT_TRUE(QRegularExpression("<path[^>]* d='M[0-9.]+,[0-9.]+ L[0-9.]+,[0-9.]+")
                    .match(path)
                    .hasMatch())
        << picture;
}
