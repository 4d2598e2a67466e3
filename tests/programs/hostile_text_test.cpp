// Whatever a controller, a trace or a file holds, the programs send to a terminal only text that it
// shows, and a value never looks like another line.

#include "program_fixture.h"

#include "wire.h"

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>

#include <nlohmann/json.hpp>

#include <array>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// The characters that a terminal obeys or shows as nothing, as hexadecimal text; line feeds are
/// the line ends of the program.
QString forbiddenIn(const std::string& bytes)
{
    QString found;
    const QByteArray utf8 = QByteArray::fromStdString(bytes);
    const QString text = QString::fromUtf8(utf8);
    if (text.toUtf8() != utf8)
        found += "not UTF-8 ";
    for (const uint c : text.toUcs4()) {
        const QChar::Category category = QChar::category(c);
        const bool hidden = category == QChar::Other_Control || category == QChar::Other_Format ||
                            category == QChar::Separator_Line ||
                            category == QChar::Separator_Paragraph;
        if (hidden && c != '\n')
            found += QString::number(c, 16) + ' ';
    }
    return found;
}

/// A picture of the table or of a chart without what curses sends to an xterm: cursor, styles and
/// modes, character sets, the keypad. What is left of a value that was sent as it is are at least
/// its other control characters: kTags has several in each.
std::string withoutCurses(const std::string& bytes)
{
    static const QRegularExpression own(
        "\x1b\\[[?0-9;]*[A-HJKLMPSTXdhlmrt]|\x1b\\([0B]|\x1b[=>78]|[\r\b]");
    const QString shown = QString::fromStdString(bytes);
    return shown.toStdString() == bytes ? QString(shown).remove(own).toStdString() : bytes;
}

/// The text without the sequences that the programs themselves send: pictures, the line of a
/// progress, the line ends of a terminal.
std::string withoutOwnSequences(const std::string& bytes)
{
    if (bytes.find("\x1b[?1049h") != std::string::npos)
        return withoutCurses(bytes);
    QByteArray text = QByteArray::fromStdString(bytes);
    for (const char* progress : {"\rchecking [", "\rtrying speeds ["})
        text.replace(progress, "");
    for (const char* own : {"\r\x1b[K", "\x1b[K"})
        text.replace(own, "");
    return text.replace("\r\r\n", "\n").replace("\r\n", "\n").toStdString();
}

/// Runs a program whose standard streams are a terminal, and returns all that it sent there.
std::string onTerminal(const QStringList& command)
{
    std::vector<QByteArray> words;
    for (const QString& word : command)
        words.push_back(word.toUtf8());
    std::vector<char*> arguments;
    for (QByteArray& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    winsize size = {};
    size.ws_row = 30;
    size.ws_col = 150;
    int master = -1;
    const pid_t child = forkpty(&master, nullptr, nullptr, &size);
    if (child == 0) {
        setenv("TERM", "xterm", 1);
        setenv("LC_ALL", "C.UTF-8", 1);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    std::string sent;
    std::array<char, 4096> part{};
    for (ssize_t got = 0; (got = read(master, part.data(), part.size())) > 0;)
        sent.append(part.data(), static_cast<std::size_t>(got));
    waitpid(child, nullptr, 0);
    close(master);
    return sent;
}

// Every kind of byte that a terminal obeys, in strings of the controller.
const char kTags[] = R"({"name": "Note", "type": "SHORT_STRING", "value": "ok\nValveOpen = false"},
    {"name": "Title", "type": "SHORT_STRING", "value": "\u001b]0;x\u0007\r\u001b[2Jgone\u007f"},
    {"name": "Wide", "type": "SHORT_STRING", "value": "a\u009b2J\u0085b\u0000c"},
    {"name": "Quoted", "type": "SHORT_STRING", "value": "\"ok\\nx\""},
    {"name": "ValveOpen", "type": "BOOL", "value": true})";

class HostileText : public ProgramTest
{
protected:
    /// Runs the host on a terminal and on files; both are checked. Returns standard output.
    std::string checked(QStringList arguments) const
    {
        const Result result = host(arguments);
        EXPECT_EQ(forbiddenIn(result.out), QString()) << result.out;
        EXPECT_EQ(forbiddenIn(result.err), QString()) << result.err;
        const std::string sent = onTerminal(QStringList{MICRO850_HOST} + arguments);
        EXPECT_FALSE(sent.empty());
        EXPECT_EQ(forbiddenIn(withoutOwnSequences(sent)), QString()) << sent.substr(0, 2000);
        return result.out;
    }
    std::string checkedOnPort(const QStringList& arguments) const
    {
        return checked(arguments + QStringList{"--port", port()});
    }

    /// A copy of a trace whose frames have one text in place of another of the same length.
    QString altered(const QString& trace, const QByteArray& from, const QByteArray& to) const
    {
        std::string copy;
        int changes = 0;
        for (const QString& line : linesOf(textOf(trace))) {
            const QString bytes = line.section("  #", 0, 0).section(' ', 2);
            QByteArray data = wire::unframed(QByteArray::fromHex(bytes.toLatin1()));
            if (line.startsWith('#') || !data.contains(from)) {
                copy += line.toStdString() + '\n';
                continue;
            }
            ++changes;
            copy += line.section(' ', 0, 1).toStdString() + ' ' +
                    wire::text(wire::framed(data.replace(from, to))) + '\n';
        }
        EXPECT_GT(changes, 0) << textOf(trace);
        return file("altered.txt", copy);
    }
};

TEST_F(HostileText, OfAStringIsOneLineOfReadAndCannotBeTakenForAnotherTag)
{
    simulate(kTags);
    const std::string out = checkedOnPort({"read", "Note", "Title", "Wide", "Quoted", "ValveOpen"});
    EXPECT_EQ(out, R"(Note       SHORT_STRING  "ok\nValveOpen = false")"
                   "\n"
                   R"(Title      SHORT_STRING  "\x1b]0;x\x07\r\x1b[2Jgone\x7f")"
                   "\n"
                   R"(Wide       SHORT_STRING  "a\u009b2J\u0085b\x00c")"
                   "\n"
                   R"(Quoted     SHORT_STRING  "\"ok\\nx\"")"
                   "\n"
                   "ValveOpen  BOOL          true\n");
}

TEST_F(HostileText, KeepsItsCharactersInJson)
{
    simulate(kTags);
    const std::string out = checkedOnPort({"read", "Title", "--json"});
    EXPECT_EQ(nlohmann::json::parse(out)["value"], "\x1b]0;x\x07\r\x1b[2Jgone\x7f");
}

TEST_F(HostileText, IsHarmlessInWatchAndPollAndTheTable)
{
    simulate(kTags);
    const QString project = file("p.json", R"({"variables": [{"tag": "Note", "unit": "m³"},
        {"tag": "Title"}, {"tag": "Wide", "name": "温度 = 1"}, {"tag": "Nope"}]})");
    const QStringList end = {"--seconds", "1"};
    checkedOnPort(QStringList{"watch", "Note", "Title", "Wide"} + end);
    checkedOnPort(QStringList{"watch", "Note", "--json"} + end);
    checkedOnPort(QStringList{"poll", project} + end);
    checkedOnPort(QStringList{"poll", project, "--json"} + end);
    checkedOnPort({"check", project});
    onTerminal({MICRO850_HOST, "watch", "--plot", "Note", "--seconds", "1", "--port", port()});
    const std::string plot =
        onTerminal({MICRO850_HOST, "watch", "--plot", "Note", "--seconds", "1", "--port", port()});
    EXPECT_EQ(forbiddenIn(withoutOwnSequences(plot)), QString()) << plot.substr(0, 2000);
}

TEST_F(HostileText, IsHarmlessInTheNameOfAnIdentity)
{
    simulate();
    ASSERT_EQ(host({"probe", "--port", port(), "--trace", path("t.txt")}).status, 0);
    const std::string name =
        nlohmann::json::parse(host({"probe", "--json", "--port", port()}).out)["name"];
    QByteArray hostile("\x1b[2J\x9b\n\x7f");
    ASSERT_GE(name.size(), static_cast<std::size_t>(hostile.size()));
    hostile.append(QByteArray(static_cast<int>(name.size()) - hostile.size(), 'x'));
    const QString trace = altered("t.txt", QByteArray::fromStdString(name), hostile);
    stopSimulator();
    simulateFrom(trace);
    EXPECT_NE(checkedOnPort({"probe"}).find(R"(name          "\x1b[2J\u009b\n\x7f)"),
              std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(checkedOnPort({"probe", "--json"}))["name"],
              QString::fromLatin1(hostile).toStdString());
}

TEST_F(HostileText, IsHarmlessInATrace)
{
    simulate();
    host({"read", "Speed", "Nope", "--port", port(), "--trace", path("t.txt")});
    QString trace = altered("t.txt", "Speed", QByteArray("\x1b]\x07\x9b\n"));
    checked({"trace", trace});
    checked({"trace", trace, "--json"});
    trace = altered("t.txt", "Nope", QByteArray("\x1b[\x9b\r")); // among the failures
    checked({"trace", trace, "--summary"});
    checked({"trace", trace, "--summary", "--json"});
}

TEST_F(HostileText, IsHarmlessInFilesAndOnTheCommandLine)
{
    const QString hostile = QString::fromUtf8("a\x1b[2J\xC2\x9B\n\xE2\x80\xAE");
    const std::string json = R"("a\u001b[2J\u009b\n\u202e")";
    for (const std::string& text :
         {R"({"variables": [{"tag": )" + json + "}]}",
          R"({"variables": [{"tag": "A", "name": )" + json + "}]}",
          R"({"variables": [{"tag": "A", "unit": )" + json + "}]}",
          R"({"variables": [{"tag": "A", "type": )" + json + "}]}",
          R"({"stations": [{"number": 1, "name": )" + json + R"(}], "variables": []})",
          "{" + json + ": 1}", "{" + json + ": 1, " + json + ": 2}", hostile.toStdString(),
          "[\"" + hostile.toStdString(), std::string("\xff\xfe\x1b")})
        checked({"check", "--offline", file("p.json", text)});
    checked({"import", file("l.csv", "Name,Type\n\x1b[2J\u009b,INT\nA,\u202E\x07\n")});
    for (const QStringList& arguments : {QStringList{hostile},
                                         {"read", hostile, "--port", "x"},
                                         {"read", "A", "--port", hostile},
                                         {"write", hostile + "=1", "--port", "x"},
                                         {"check", hostile},
                                         {"trace", hostile},
                                         {"import", hostile},
                                         {"poll", "--" + hostile},
                                         {"log", "--csv", hostile, hostile}})
        checked(arguments);
}

TEST_F(HostileText, IsHarmlessInTheMessagesOfTheSimulator)
{
    const QString hostile = QString::fromUtf8("a\x1b[2J\xC2\x9B\n");
    const QString tags = file("t.json", R"({"tags": [{"name": "\u001b[2J\u009b", "type": "INT"},
                                                     {"name": "\u001b[2J\u009b", "type": "INT"}]})");
    for (const QStringList& arguments : {QStringList{hostile},
                                         {tags},
                                         {"--" + hostile},
                                         {"--station", hostile},
                                         {"--faults", hostile},
                                         {"--replay", hostile}})
    {
        const Result result = runProgram(MICRO850_SIM, arguments);
        EXPECT_NE(result.status, 0);
        EXPECT_EQ(forbiddenIn(result.out + result.err), QString()) << result.err;
    }
}

TEST_F(HostileText, OfAnyLengthMakesAShortMessage)
{
    const std::string long1(1000000, '1');
    for (const std::string& text :
         {"{\"variables\": " + long1 + "}", "{\"variables\": [{\"tag\": \"" + long1 + "\"}]}",
          "{\"" + long1 + "\": 1}", long1 + "x"})
    {
        const Result result = host({"check", "--offline", file("p.json", text)});
        EXPECT_EQ(result.status, 2);
        // One for each mistake, and their number: a key that is not known takes a known one's
        // place.
        EXPECT_LE(linesOf(result.err).size(), 3);
        for (const QString& line : linesOf(result.err))
            EXPECT_LT(line.size(), 1100);
    }
}

TEST_F(HostileText, OfAFileIsRefusedWithItsPlaceWhenItIsNoWholeProject)
{
    const auto complaint = [this](const QString& path) {
        const Result result = host({"check", "--offline", path});
        EXPECT_EQ(result.status, 2);
        return result.err;
    };
    const std::string good = R"({"variables": [{"tag": "A"}]})";
    EXPECT_NE(complaint(file("p.json", good + "\n" + std::string(1, '\0') + "more"))
                  .find("p.json:2:1: a byte 00"),
              std::string::npos);
    EXPECT_EQ(complaint("/"),
              "micro850-host: /: cannot be read: Is a directory (check the path)\n");
    EXPECT_EQ(complaint("/dev/zero"), "micro850-host: /dev/zero: is longer than 64 MB (divide it "
                                      "into several files)\n");
    EXPECT_NE(complaint(file("p.json", R"({"variables": [{"tag": "A", "tag": "B"}]})"))
                  .find("p.json:1: variables[0]: the key \"tag\" is given twice (remove one)"),
              std::string::npos);
    const Result tags = runProgram(MICRO850_SIM, {"/"});
    EXPECT_EQ(tags.status, 2);
    EXPECT_EQ(tags.err, "micro850-sim: /: cannot be read: Is a directory (check the path)\n");
}

} // namespace
