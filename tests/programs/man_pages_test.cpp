#include "program_fixture.h"

#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>

namespace {

QString pathOf(const char* page)
{
    return QStringLiteral(MICRO850_SOURCE_DIR "/man/") + page;
}

QString sourceOf(const char* page)
{
    QFile file(pathOf(page));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << page;
    return QString::fromUtf8(file.readAll());
}

QSet<QString> found(const QString& text, const char* pattern)
{
    QSet<QString> words;
    QRegularExpressionMatchIterator match =
        QRegularExpression(QString::fromLatin1(pattern), QRegularExpression::MultilineOption)
            .globalMatch(text);
    while (match.hasNext())
        words.insert(match.next().captured(1));
    return words;
}

/// The long options that a program's help names.
QSet<QString> optionsOf(const QString& program, const QStringList& command)
{
    const Result help = runProgram(program, command + QStringList("--help"));
    EXPECT_EQ(help.status, 0);
    return found(QString::fromStdString(help.out), "^ +(?:-.,)?--([a-z-]+)");
}

QSet<QString> commandsOf(const QString& program)
{
    const Result help = runProgram(program, {"--help"});
    const QString text = QString::fromStdString(help.out);
    return found(text.section("Subcommands:", 1), "^  ([a-z]+) ");
}

std::string joined(const QSet<QString>& words)
{
    QStringList list(words.begin(), words.end());
    list.sort();
    return list.join(' ').toStdString();
}

} // namespace

TEST(ManPages, AreFreeOfWarnings)
{
    for (const char* page : {"micro850-host.1", "micro850-sim.1", "micro850.3",
                             "micro850-gateway.1", "micro850-gateway.json.5"})
    {
        // References between the pages are found where they are installed only.
        const Result lint = runProgram("mandoc", {"-Tlint", "-Wwarning", pathOf(page)});
        EXPECT_EQ(lint.status, 0) << page;
        EXPECT_EQ(lint.out + lint.err, "") << page;
    }
}

TEST(ManPages, NameEveryOptionOfTheHostAndNoOther)
{
    QSet<QString> known = optionsOf(MICRO850_HOST, {});
    const QSet<QString> names = commandsOf(MICRO850_HOST);
    EXPECT_EQ(joined(names), "check doctor find history import log poll probe read shell trace watch write");
    for (const QString& command : names)
        known += optionsOf(MICRO850_HOST, {command});
    const QString page = sourceOf("micro850-host.1");
    EXPECT_EQ(joined(found(page, "^\\.It.*Fl -([a-z-]+)")), joined(known));
    EXPECT_EQ(joined(found(page, "^\\.It Cm ([a-z]+)")), joined(names));
}

TEST(ManPages, NameEveryOptionOfTheSimulatorAndNoOther)
{
    EXPECT_EQ(joined(found(sourceOf("micro850-sim.1"), "^\\.It.*Fl -([a-z-]+)")),
              joined(optionsOf(MICRO850_SIM, {})));
}

TEST(ManPages, NameEveryOptionOfTheGatewayAndNoOther)
{
    QSet<QString> known = optionsOf(MICRO850_GATEWAY, {});
    const QSet<QString> names = commandsOf(MICRO850_GATEWAY);
    EXPECT_EQ(joined(names), "reload status token");
    for (const QString& command : names)
        known += optionsOf(MICRO850_GATEWAY, {command});
    const QString page = sourceOf("micro850-gateway.1");
    EXPECT_EQ(joined(found(page, "^\\.It.*Fl -([a-z-]+)")), joined(known));
    EXPECT_EQ(joined(found(page, "^\\.It Cm ([a-z]+)")), joined(names));
}

// The schema and the parser are compared by another test.
TEST(ManPages, DescribeEveryKeyOfAConfiguration)
{
    QFile file(QStringLiteral(MICRO850_SOURCE_DIR "/share/micro850/gateway.schema.json"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QSet<QString> keys = found(QString::fromUtf8(file.readAll()), "^ +\"([a-zA-Z]+)\": \\{$");
    for (const char* word : {"properties", "items", "if", "then", "not"}) // of the schema itself
        EXPECT_TRUE(keys.remove(word)) << word;
    EXPECT_GE(keys.size(), 10);
    const QString page = sourceOf("micro850-gateway.json.5").section(".Ss Keys of variables", 0, 0);
    EXPECT_EQ(joined(found(page, "^\\.It Va ([a-zA-Z]+)")), joined(keys));
}

// Entry points are those that the library exports under plain names.
TEST(ManPages, DescribeEveryEntryPointOfTheDriver)
{
    QFile file(QStringLiteral(MICRO850_SOURCE_DIR "/tests/unit/src/exports.txt"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QSet<QString> entries =
        found(QString::fromUtf8(file.readAll()), "^function ([A-Za-z]+)$");
    EXPECT_EQ(entries.size(), 15);
    const QString page = sourceOf("micro850.3");
    EXPECT_EQ(joined(found(page, "^\\.It Fn ([A-Za-z]+)")), joined(entries));
    EXPECT_EQ(joined(found(page.section(".Sh DESCRIPTION", 0, 0), "^\\.Fn ([A-Za-z]+)")),
              joined(entries));
}
