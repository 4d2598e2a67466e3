// docs/sparkplug.md has every published statement that touches an edge node exactly once, and names
// tests that exist.

#include <QtCore/QDirIterator>
#include <QtCore/QFile>
#include <QtCore/QRegularExpression>
#include <QtCore/QSet>

#include <gtest/gtest.h>

#include <vector>

namespace {

const QString kSource = QStringLiteral(MICRO850_SOURCE_DIR "/");

QString textOf(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return QString::fromUtf8(file.readAll());
}

struct Rule
{
    QString identifier;
    QString heldBy;
};

std::vector<Rule> rulesOfTheDocument()
{
    const QRegularExpression row(QStringLiteral("^\\| ([a-z0-9-]+) \\| (.*) \\|$"),
                                 QRegularExpression::MultilineOption);
    const QString table = textOf(kSource + QStringLiteral("docs/sparkplug.md"))
                              .section(QStringLiteral("| identifier | held by |"), 1);
    std::vector<Rule> rules;
    for (auto each = row.globalMatch(table); each.hasNext();) {
        const QRegularExpressionMatch match = each.next();
        rules.push_back({match.captured(1), match.captured(2)});
    }
    return rules;
}

/// "Suite.Test" of every test of the tree.
QSet<QString> allTests()
{
    const QRegularExpression declaration(
        QStringLiteral("^TEST(?:_F|_P)?\\(\\s*(\\w+),\\s*(\\w+)\\)"),
        QRegularExpression::MultilineOption);
    QSet<QString> tests;
    QDirIterator files(kSource + QStringLiteral("tests"), {QStringLiteral("*_test.cpp")},
                       QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString text = textOf(files.next());
        for (auto each = declaration.globalMatch(text); each.hasNext();) {
            const QRegularExpressionMatch match = each.next();
            tests.insert(match.captured(1) + QLatin1Char('.') + match.captured(2));
        }
    }
    return tests;
}

} // namespace

TEST(SparkplugRules, AreEachInTheDocumentOnce)
{
    const QStringList published =
        textOf(kSource + QStringLiteral("tests/support/sparkplug_identifiers.txt"))
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    ASSERT_GT(published.size(), 200);
    QStringList told;
    for (const Rule& rule : rulesOfTheDocument())
        told.append(rule.identifier);
    EXPECT_EQ(told, published);
    EXPECT_EQ(QSet<QString>(told.begin(), told.end()).size(), told.size());
}

TEST(SparkplugRules, AreEachHeldByTestsThatExistOrHaveAReason)
{
    const QSet<QString> tests = allTests();
    ASSERT_GT(tests.size(), 1000);
    const QRegularExpression named(QStringLiteral("`(\\w+\\.\\w+)`"));
    for (const Rule& rule : rulesOfTheDocument()) {
        int count = 0;
        for (auto each = named.globalMatch(rule.heldBy); each.hasNext(); ++count) {
            const QString test = each.next().captured(1);
            EXPECT_TRUE(tests.contains(test))
                << rule.identifier.toStdString() << ": " << test.toStdString();
        }
        EXPECT_TRUE(count > 0 || rule.heldBy.endsWith(QLatin1Char('.')))
            << rule.identifier.toStdString() << ": " << rule.heldBy.toStdString();
    }
}
