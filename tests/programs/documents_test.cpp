#include "program_fixture.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QRegularExpression>

namespace {

const char kSource[] = MICRO850_SOURCE_DIR "/";

QString textOfSource(const QString& name)
{
    QFile file(kSource + name);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
    return QString::fromUtf8(file.readAll());
}

QStringList documents()
{
    QStringList names = QDir(kSource).entryList({"*.md"}, QDir::Files);
    for (const QString& name : QDir(kSource + QStringLiteral("docs")).entryList({"*.md"}))
        names += "docs/" + name;
    return names;
}

// The anchor of a heading: lower case, blanks as hyphens, most other characters left out.
QString anchorOf(QString heading)
{
    heading = heading.toLower().remove(QRegularExpression("[^\\w\\- ]"));
    return heading.replace(' ', '-');
}

QStringList anchorsOf(const QString& document)
{
    QStringList anchors;
    for (const QString& line : textOfSource(document).split('\n')) {
        if (line.startsWith('#'))
            anchors += anchorOf(line.section(' ', 1));
    }
    return anchors;
}

/// The programs as a reader of the documents runs them, with the example plant on the line.
class Documents : public ProgramTest
{
protected:
    Documents()
    {
        simulatePlant();
        EXPECT_TRUE(QFile::link(kSource + QStringLiteral("examples"), path("examples")));
    }
    static bool goesOn(const QString& line)
    {
        return line.contains(QRegularExpression("^micro850-host (poll|watch|log)"));
    }
    /// Runs a command line as printed, but on the simulator's port. A command that runs until the
    /// user ends it runs for so many seconds.
    Result runPrinted(QString line, int seconds)
    {
        line.replace(QRegularExpression("/tmp/plc|/dev/ttyUSB0"), port());
        line.remove(" --plot").remove(" --seconds 5");
        if (goesOn(line))
            line += QStringLiteral(" --seconds %1").arg(seconds);
        const QString programs = QFileInfo(MICRO850_HOST).path();
        return runProgram("bash",
                          {"-c", "cd \"$0\"; PATH=\"$1:$PATH\"; " + line, path("."), programs});
    }
    void expectThatEachWorks(const QStringList& lines)
    {
        for (const QString& line : lines) {
            Result result = runPrinted(line, 1);
            // A busy machine may take longer to read all once, and doctor may tell that it is slow.
            if (goesOn(line) && result.status != 0)
                result = runPrinted(line, 30);
            for (int i = 0; i < 100 && result.out.find(" take much longer ") != std::string::npos;
                 ++i)
                result = runPrinted(line, 1);
            EXPECT_EQ(result.status, 0) << line.toStdString() << '\n' << result.err;
        }
    }
};

} // namespace

TEST(DocumentLinks, LeadSomewhere)
{
    const QRegularExpression link("\\]\\(([^)#]*)(?:#([^)]*))?\\)");
    int seen = 0;
    for (const QString& document : documents()) {
        const QDir directory = QFileInfo(kSource + document).dir();
        QRegularExpressionMatchIterator match = link.globalMatch(textOfSource(document));
        while (match.hasNext()) {
            const QRegularExpressionMatch found = match.next();
            if (found.captured(1).contains("://"))
                continue;
            ++seen;
            const QString target =
                found.captured(1).isEmpty()
                    ? document
                    : QDir(kSource).relativeFilePath(directory.filePath(found.captured(1)));
            EXPECT_TRUE(QFile::exists(kSource + target))
                << document.toStdString() << ": " << found.captured(0).toStdString();
            if (!found.captured(2).isEmpty()) {
                EXPECT_TRUE(anchorsOf(target).contains(found.captured(2)))
                    << document.toStdString() << ": " << found.captured(0).toStdString();
            }
        }
    }
    EXPECT_GE(seen, 10);
}

TEST_F(Documents, PrintCommandsThatWork)
{
    QStringList lines;
    for (const QString& line : textOfSource("README.md").split('\n')) {
        if (line.startsWith("    micro850-host ") && !line.startsWith("    micro850-host: "))
            lines += line.mid(4).section("  #", 0, 0);
    }
    EXPECT_GE(lines.size(), 8);
    expectThatEachWorks(lines);
}

TEST_F(Documents, HelpShowsExamplesThatWork)
{
    for (const char* command :
         {"probe", "poll", "read", "write", "watch", "log", "check", "trace", "import", "find"})
    {
        const QString help = QString::fromStdString(host({command, "--help"}).out);
        QStringList lines;
        for (const QString& line : help.section("Example:\n", 1).split('\n')) {
            if (line.startsWith("  micro850-host "))
                lines += line.mid(2);
        }
        EXPECT_FALSE(lines.isEmpty()) << command;
        expectThatEachWorks(lines);
    }
}

TEST_F(Documents, ShowAProjectThatTheExamplePlantAgreesWith)
{
    const QString project = textOfSource("README.md").section("```json\n", 1).section("```", 0, 0);
    const Result result = hostOnPort({"check", file("p.json", project.toStdString()), "--quiet"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out,
              "Speed: ok, INT\nLevel: ok, INT\nTank: ok, INT\nSerialNumber: ok, ULINT\n");
}

TEST_F(Documents, PrintCommandsThatStartTheSimulator)
{
    int started = 0;
    for (const QString& document : documents()) {
        for (QString line : textOfSource(document).split('\n')) {
            if (!line.startsWith("    micro850-sim ") || !line.contains("--link /tmp/plc"))
                continue;
            const QString link = path(QStringLiteral("started%1").arg(++started));
            line = line.trimmed().remove(QRegularExpression(" &$")).replace("/tmp/plc", link);
            // A reader ends it when he has done what he wanted: here, read a tag.
            const QString script = "cd \"$0\"; PATH=\"$1:$PATH\"; " + line +
                                   " & until [ -e \"$2\" ]; do kill -0 $! || exit 3; sleep 0.02; "
                                   "done; micro850-host read Speed --port \"$2\"; kill $!; wait";
            const Result result = runProgram(
                "bash", {"-c", script, path("."), QFileInfo(MICRO850_HOST).path(), link});
            EXPECT_NE(result.out.find("Speed  INT  1234\n"), std::string::npos)
                << document.toStdString() << ": " << line.toStdString() << '\n'
                << result.err;
        }
    }
    EXPECT_GE(started, 2) << "README.md and docs/simulator.md have one each";
}

TEST_F(Documents, PrintCommandsThatRunAnExampleHost)
{
    int run = 0;
    for (const QString& line : textOfSource("README.md").split('\n')) {
        const QString command = line.section("&& build/bin/", 1);
        if (!line.startsWith("    cmake --build build --target ") || command.isEmpty())
            continue;
        ++run;
        const Result result = runPrinted(command, 1);
        EXPECT_EQ(result.status, 0) << command.toStdString() << '\n' << result.err;
        EXPECT_NE(result.out.find("Speed = 1234"), std::string::npos) << result.out;
    }
    EXPECT_EQ(run, 2) << "one for each example";
}

TEST_F(Documents, ShowAConfigurationOfADeviceServerThatWorks)
{
    QString text =
        textOfSource("docs/device-servers.md").section("```yaml\n", 1).section("```", 0, 0);
    // Only for their ports, which they keep from other tests.
    const DeviceServer raw({DeviceServer::Protocol::Raw, QString()});
    const DeviceServer rfc2217({DeviceServer::Protocol::Rfc2217, QString()});
    for (const char* printed : {"/dev/ttyUSB0", ",2000", ",2001", "%YAML 1.1\n"})
        ASSERT_TRUE(text.contains(printed)) << printed;
    text.replace(",2000", QStringLiteral(",%1").arg(raw.port()));
    text.replace(",2001", QStringLiteral(",%1").arg(rfc2217.port()));
    text.replace("/dev/ttyUSB0", device());
    QProcess server;
    server.setProcessChannelMode(QProcess::MergedChannels);
    server.start("/usr/sbin/ser2net", {"-n", "-c", file("ser2net.yaml", text.toStdString())});
    ASSERT_TRUE(server.waitForStarted()) << "scripts/setup test installs ser2net";
    for (const DeviceServer* kind : {&raw, &rfc2217}) {
        Result result = {};
        // The server takes a moment to listen.
        for (int attempt = 0; attempt < 100 && result.out.empty(); ++attempt)
            result = host({"read", "Speed", "--port", kind->address()});
        EXPECT_EQ(result.out, "Speed  INT  1234\n") << result.err;
    }
    server.terminate();
    EXPECT_TRUE(server.waitForFinished()) << server.readAll().toStdString();
}
