#include "program_fixture.h"

namespace {

/// What bash offers for the last of these words, in a shell that has only loaded the completion.
QStringList offered(const QStringList& words)
{
    const QString script =
        QStringLiteral("set -u\n"
                       "source \"$1\"; shift\n"
                       "complete -p micro850-host >/dev/null || exit 3\n"
                       "COMP_WORDS=(\"$@\") COMP_CWORD=$(($# - 1)) COMPREPLY=()\n"
                       "_micro850_host\n"
                       "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
    const Result result = runProgram(
        "bash", QStringList{"--norc", "-c", script, "bash",
                            MICRO850_SOURCE_DIR "/share/bash-completion/completions/micro850-host",
                            MICRO850_HOST} +
                    words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    QStringList lines = linesOf(result.out);
    lines.removeAll(QString());
    lines.sort();
    return lines;
}

} // namespace

TEST(Completion, OffersTheCommands)
{
    EXPECT_EQ(offered({""}), (QStringList{"check", "import", "log", "poll", "probe", "read",
                                          "trace", "watch", "write"}));
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

// The help names each option at the start of a line, as "  -h,--help" or "  --port TEXT".
TEST(Completion, OffersEveryOptionThatTheHelpOfACommandNames)
{
    for (const QString& command : offered({""})) {
        const Result help = runProgram(MICRO850_HOST, {command, "--help"});
        QStringList named;
        for (const QString& line : linesOf(help.out)) {
            const QString first = line.trimmed().section(' ', 0, 0);
            if (line.startsWith("  -"))
                named += first.split(',');
        }
        named.sort();
        EXPECT_GE(named.size(), 3) << command.toStdString();
        EXPECT_EQ(offered({command, "-"}), named) << command.toStdString();
    }
}

TEST(Completion, OffersTheValuesOfAnOption)
{
    EXPECT_EQ(offered({"poll", "--sort", ""}), (QStringList{"age", "name", "project"}));
    EXPECT_EQ(offered({"read", "--baud", "1"}), (QStringList{"115200", "19200"}));
    EXPECT_EQ(offered({"watch", "--span", ""}), QStringList());
}

TEST(Completion, OffersFiles)
{
    EXPECT_EQ(offered({"poll", MICRO850_SOURCE_DIR "/examples/plant.pro"}),
              QStringList(MICRO850_SOURCE_DIR "/examples/plant.project.json"));
    EXPECT_EQ(offered({"read", "--port", "/dev/nul"}), QStringList("/dev/null"));
}
