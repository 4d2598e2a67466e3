#include "Completion.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::host;

namespace {

const Vocabulary kWords = {{{"read", "", {"--port", "--project"}},
                            {"write", "", {"--no-verify"}},
                            {"watch", "", {}},
                            {"trace", "", {}},
                            {"set", "", {}},
                            {"help", "", {}}},
                           {"interval", "json"},
                           {"Speed", "Setpoint", "My Tank", "Speed"}};

QStringList offered(const QString& text)
{
    return completionsOf(text, kWords).candidates;
}

QString after(const QString& text)
{
    return completionsOf(text, kWords).after;
}

} // namespace

TEST(Completion, OfTheFirstWordIsACommand)
{
    EXPECT_EQ(offered("w"), (QStringList{"watch", "write"}));
    EXPECT_EQ(offered("read").size(), 1);
    EXPECT_EQ(offered("").size(), 6);
    EXPECT_EQ(after("rea"), " ");
}

TEST(Completion, OfADashIsAnOptionOfTheCommand)
{
    EXPECT_EQ(offered("read Speed --p"), (QStringList{"--port", "--project"}));
    EXPECT_EQ(offered("write --p"), QStringList());
    EXPECT_EQ(after("write --no"), " ");
}

TEST(Completion, OfAnArgumentIsAName)
{
    EXPECT_EQ(offered("read S"), (QStringList{"Setpoint", "Speed"}));
    EXPECT_EQ(offered("watch Speed 'My"), QStringList("My Tank"));
    EXPECT_EQ(completionsOf("watch Speed 'My", kWords).begin, 12);
    EXPECT_EQ(after("write Set"), "=");
    EXPECT_EQ(offered("set in"), QStringList("interval"));
    EXPECT_EQ(offered("set interval "), QStringList());
    EXPECT_EQ(offered("help tr"), QStringList("trace"));
}

TEST(Completion, OfAFileIsWhatTheFolderHas)
{
    const QTemporaryDir folder;
    ASSERT_TRUE(QDir(folder.path()).mkdir("traces"));
    for (const char* name : {"a.txt", "b.txt", "b c.txt"})
        ASSERT_TRUE(QFile(folder.filePath(name)).open(QIODevice::WriteOnly));
    const QString here = folder.path() + '/';
    EXPECT_EQ(offered("trace " + here + "b"), (QStringList{here + "b c.txt", here + "b.txt"}));
    EXPECT_EQ(offered("read Speed --project " + here + "a"), QStringList(here + "a.txt"));
    EXPECT_EQ(offered("trace " + here + "t"), QStringList(here + "traces/"));
    EXPECT_EQ(after("trace " + here + "t"), "");
}
