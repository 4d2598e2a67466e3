#include "FilePattern.h"

#include "UserError.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

const QDateTime kTime(QDate(2026, 3, 1), QTime(7, 5, 9), Qt::UTC);

std::string complaint(const char* pattern)
{
    try {
        FilePattern made((QString(pattern)));
    } catch (const micro850::UserError& error) {
        EXPECT_EQ(error.status(), micro850::kExitUsage);
        return error.what();
    }
    return "none";
}

} // namespace

TEST(FilePattern, NamesAFileByTimeAndNumber)
{
    EXPECT_EQ(FilePattern("a/%Y-%m-%d_%H%M.%N.csv").pathFor(kTime, 12),
              QString("a/2026-03-01_0705.12.csv"));
    EXPECT_EQ(FilePattern("50%%.csv").pathFor(kTime, 1), QString("50%.csv"));
    EXPECT_TRUE(FilePattern("50%%.csv").isPlain());
    EXPECT_FALSE(FilePattern("%Y.csv").isPlain());
    EXPECT_FALSE(FilePattern("%Y.csv").hasNumber());
    EXPECT_TRUE(FilePattern("v%N").hasNumber());
}

TEST(FilePattern, LeavesFoldersAsTheyAre)
{
    EXPECT_EQ(FilePattern("/data/%x/100%/v.csv").pathFor(kTime, 1), QString("/data/%x/100%/v.csv"));
}

TEST(FilePattern, RefusesLettersThatItDoesNotKnow)
{
    const std::string why = ": in the name of a file % is followed by Y, m, d, H, M or N (year to "
                            "minute, and a number), and %% is a percent sign";
    EXPECT_EQ(complaint("v%y.csv"), "v%y.csv" + why);
    EXPECT_EQ(complaint("v%"), "v%" + why);
    EXPECT_EQ(complaint("v%2.csv"), "v%2.csv" + why);
}

TEST(FilePattern, RefusesNamesWithoutAnOrder)
{
    EXPECT_EQ(complaint("%d.csv"), "%d.csv: %d needs %m as well, so that the names have an order");
    EXPECT_EQ(complaint("%m-%d.csv"),
              "%m-%d.csv: %m needs %Y as well, so that the names have an order");
    EXPECT_EQ(complaint("%Y%m%d%M.csv"),
              "%Y%m%d%M.csv: %M needs %H as well, so that the names have an order");
    EXPECT_EQ(complaint("%N-%N"), "%N-%N: %N is given twice");
}

TEST(FilePattern, FindsItsFilesInTheOrderOfTheirTimes)
{
    const QTemporaryDir folder;
    for (const char* name :
         {"v-01.03.2026-2.csv", "v-01.03.2026-10.csv", "v-28.02.2026-3.csv", "v-01.03.2026-0.csv",
          "v-1.03.2026-1.csv", "xv-01.03.2026-1.csv", "v-01.03.2026-1.csvx", "v-01x03.2026-1.csv"})
        QFile(folder.filePath(name)).open(QIODevice::WriteOnly);
    QDir(folder.path()).mkdir("v-01.03.2026-7.csv");
    QFile::link(folder.filePath("v-28.02.2026-3.csv"), folder.filePath("v-01.03.2026-8.csv"));
    const FilePattern pattern(folder.filePath("v-%d.%m.%Y-%N.csv"));
    QStringList found;
    for (const FilePattern::File& file : pattern.existing())
        found += file.path.section('/', -1);
    EXPECT_EQ(found,
              (QStringList{"v-28.02.2026-3.csv", "v-01.03.2026-2.csv", "v-01.03.2026-10.csv"}));
    EXPECT_EQ(pattern.existing().last().time, pattern.timeKey(kTime));
    EXPECT_EQ(pattern.existing().last().number, 10);
}
