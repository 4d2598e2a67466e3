#include "program_fixture.h"

namespace {

/// What bash offers for the last of these words after the program, in a shell that has only loaded
/// its completion.
QStringList offeredFor(const QString& program, const QStringList& words,
                       const QString& folder = QString())
{
    const QString name = program.section('/', -1);
    const QString script =
        QStringLiteral("set -u\n"
                       "source \"$1\"; name=$2; shift 2\n"
                       "complete -p \"$name\" >/dev/null || exit 3\n"
                       "COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1)) COMPREPLY=()\n"
                       "_${name/-/_}\n"
                       "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
    const Result result =
        runProgram("bash",
                   QStringList{"--norc", "-c", script, "bash",
                               MICRO850_SOURCE_DIR "/share/bash-completion/completions/" + name,
                               name, program} +
                       words,
                   {}, folder);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    QStringList lines = linesOf(result.out);
    lines.removeAll(QString());
    lines.sort();
    return lines;
}

QStringList offered(const QStringList& words)
{
    return offeredFor(MICRO850_HOST, words);
}

/// The options that a help names, each at the start of a line, as "  -h,--help" or "  --port TEXT".
QStringList optionsIn(const Result& help)
{
    QStringList named;
    for (const QString& line : linesOf(help.out)) {
        if (line.startsWith("  -"))
            named += line.trimmed().section(' ', 0, 0).split(',');
    }
    named.sort();
    return named;
}

} // namespace

TEST(Completion, OffersTheCommands)
{
    EXPECT_EQ(offered({""}), (QStringList{"check", "doctor", "find", "history", "import", "log", "poll",
                                          "probe", "read", "shell", "trace", "watch", "write"}));
    EXPECT_EQ(offered({"w"}), (QStringList{"watch", "write"}));
    EXPECT_EQ(offered({"--v"}), QStringList("--version"));
}

TEST(Completion, OffersTheOptionsOfTheCommand)
{
    EXPECT_EQ(offered({"probe", "--s"}), (QStringList{"--scan", "--station"}));
    EXPECT_EQ(offered({"write", "--no"}), (QStringList{"--no-low-latency", "--no-verify"}));
    EXPECT_EQ(offered({"watch", "Speed", "--p"}), (QStringList{"--plot", "--port", "--project"}));
    EXPECT_EQ(offered({"read", "--scan"}), QStringList());
}

TEST(Completion, OffersEveryOptionThatTheHelpOfACommandNames)
{
    for (const QString& command : offered({""})) {
        const QStringList named = optionsIn(runProgram(MICRO850_HOST, {command, "--help"}));
        EXPECT_GE(named.size(), 3) << command.toStdString();
        EXPECT_EQ(offered({command, "-"}), named) << command.toStdString();
    }
}

TEST(Completion, OffersTheValuesOfAnOption)
{
    EXPECT_EQ(offered({"poll", "--sort", ""}), (QStringList{"age", "name", "project"}));
    EXPECT_EQ(offered({"read", "--baud", "1"}), (QStringList{"115200", "19200"}));
    EXPECT_EQ(offered({"watch", "--span", ""}), QStringList());
    EXPECT_EQ(offered({"history", "--take", "m"}), (QStringList{"max", "mean", "min"}));
    EXPECT_EQ(offered({"log", "--time", ""}), (QStringList{"local", "spreadsheet", "utc"}));
    EXPECT_EQ(offered({"log", "--decimal", "c"}), QStringList("comma"));
    EXPECT_EQ(offered({"log", "--separator", "se"}), QStringList("semicolon"));
    EXPECT_EQ(offered({"trace", "--explain", ""}), QStringList());
}

TEST(Completion, OffersFiles)
{
    EXPECT_EQ(offered({"poll", MICRO850_SOURCE_DIR "/examples/plant.pro"}),
              QStringList(MICRO850_SOURCE_DIR "/examples/plant.project.json"));
    EXPECT_EQ(offered({"read", "--port", "/dev/nul"}), QStringList("/dev/null"));
    EXPECT_EQ(offered({"find", MICRO850_SOURCE_DIR "/examples/vari"}),
              QStringList(MICRO850_SOURCE_DIR "/examples/variables.csv"));
    EXPECT_EQ(offered({"find", "list", "-o", "/dev/nul"}), QStringList("/dev/null"));
}

// The project is the one that the command itself would use.
TEST(Completion, OffersTheVariablesOfTheProject)
{
    const QTemporaryDir folder;
    const auto project = [&folder](const char* name, const QByteArray& variables) {
        QFile file(folder.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("{\"variables\": [" + variables + "]}");
        return file.fileName();
    };
    project("plant.json", R"({"tag": "Speed"}, {"tag": "Spare"}, {"tag": "Level"})");
    const QString other = project("other.json", R"({"tag": "Heat"}, {"name": "Tank 1", "tag": "L"},
        {"name": "Fill = 5", "tag": "F"}, {"name": "It's", "tag": "I"})");
    const auto here = [&folder](const QStringList& words) {
        return offeredFor(MICRO850_HOST, words, folder.path());
    };
    EXPECT_EQ(here({"read", "Sp"}), (QStringList{"Spare", "Speed"}));
    EXPECT_EQ(here({"watch", "Level", ""}), (QStringList{"Level", "Spare", "Speed"}));
    EXPECT_EQ(here({"write", "Le"}), QStringList("Level="));
    EXPECT_EQ(here({"write", "Level", "=", ""}), QStringList());
    EXPECT_EQ(here({"write", "Level", "="}), QStringList());
    EXPECT_EQ(here({"read", "Speed", "-p", "/dev/null", ""}), QStringList());
    const QStringList named = {"read", "--project", other};
    EXPECT_EQ(here(named + QStringList("He")), QStringList("Heat"));
    EXPECT_EQ(here({"read", "--project", "=", other, "He"}), QStringList("Heat"));
    EXPECT_EQ(here(named + QStringList("T")), QStringList("Tank\\ 1"));
    EXPECT_EQ(here(named + QStringList("'T")), QStringList("Tank 1"));
    EXPECT_EQ(here(named + QStringList("F")), QStringList("\\\"Fill\\ =\\ 5\\\""));
    EXPECT_EQ(here(named + QStringList("I")), QStringList("It\\'s"));
    EXPECT_EQ(here({"read", "--project", "none.json", "S"}), QStringList());
}

TEST(Completion, OffersCommandsOptionsAndConfigurationsOfTheGateway)
{
    const auto offeredAfter = [](const QStringList& words) {
        return offeredFor(MICRO850_GATEWAY, words);
    };
    EXPECT_EQ(offeredAfter({"stat"}), QStringList("status"));
    EXPECT_EQ(offeredAfter({MICRO850_SOURCE_DIR "/examples/gateway.j"}),
              QStringList(MICRO850_SOURCE_DIR "/examples/gateway.json"));
    EXPECT_EQ(offeredAfter({"--check", MICRO850_SOURCE_DIR "/examples/gateway.j"}),
              QStringList(MICRO850_SOURCE_DIR "/examples/gateway.json"));
    EXPECT_EQ(offeredAfter({"status", "--socket", "/dev/nul"}), QStringList("/dev/null"));
    EXPECT_EQ(offeredAfter({"reload", MICRO850_SOURCE_DIR "/examples/gateway.j"}), QStringList());
    EXPECT_EQ(offeredAfter({"-"}), optionsIn(runProgram(MICRO850_GATEWAY, {"--help"})));
    for (const char* command : {"status", "reload"}) {
        const QStringList named = optionsIn(runProgram(MICRO850_GATEWAY, {command, "--help"}));
        EXPECT_TRUE(named.contains("--socket")) << command;
        EXPECT_EQ(offeredAfter({command, "-"}), named) << command;
    }
}
