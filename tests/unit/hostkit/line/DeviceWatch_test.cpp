#include "DeviceWatch.h"

#include <gtest/gtest.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <chrono>
#include <future>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
using micro850::host::DeviceWatch;

namespace {

// A sign comes within this time, or never.
const auto kLong = 10s;

class DeviceWatchTest : public ::testing::Test
{
protected:
    QString at(const QString& name) const { return folder.filePath(name); }
    void create(const QString& name) const
    {
        QFile file(at(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly)) << name.toStdString();
    }
    void link(const QString& target, const QString& name) const
    {
        EXPECT_EQ(::symlink(QFile::encodeName(target), QFile::encodeName(at(name))), 0);
    }
    bool removeAll(const QString& name) const { return QDir(at(name)).removeRecursively(); }
    // What has happened is a sign; nothing else is waited for.
    static bool signalled(DeviceWatch& watch) { return watch.wait(0s); }

    QTemporaryDir folder;
};

} // namespace

TEST_F(DeviceWatchTest, SeesADeviceThatIsCreatedWhileItWaits)
{
    DeviceWatch watch({at("tty")});
    EXPECT_FALSE(signalled(watch));
    auto seen = std::async(std::launch::async, [&] {
        const auto start = std::chrono::steady_clock::now();
        const bool woken = watch.wait(kLong);
        return woken && std::chrono::steady_clock::now() - start < kLong;
    });
    create("tty");
    EXPECT_TRUE(seen.get());
}

TEST_F(DeviceWatchTest, TakesADeviceThatIsThereForNoReturn)
{
    create("tty");
    DeviceWatch watch({at("tty")});
    EXPECT_FALSE(watch.wait(20ms));
}

TEST_F(DeviceWatchTest, SeesADeviceThatIsRemovedAndCreatedAgain)
{
    create("tty");
    DeviceWatch watch({at("tty")});
    ASSERT_TRUE(QFile::remove(at("tty")));
    EXPECT_FALSE(signalled(watch));
    create("tty");
    EXPECT_TRUE(signalled(watch));
    EXPECT_FALSE(signalled(watch)) << "one return, one sign";
}

TEST_F(DeviceWatchTest, SeesThatADeviceBecomesPermitted)
{
    create("tty");
    ASSERT_EQ(::chmod(QFile::encodeName(at("tty")), 0), 0);
    DeviceWatch watch({at("tty")});
    EXPECT_FALSE(signalled(watch));
    ASSERT_EQ(::chmod(QFile::encodeName(at("tty")), 0600), 0);
    EXPECT_TRUE(signalled(watch));
}

TEST_F(DeviceWatchTest, IgnoresOtherFilesOfTheFolder)
{
    DeviceWatch watch({at("tty")});
    create("tty1");
    create("other");
    EXPECT_FALSE(watch.wait(20ms));
}

TEST_F(DeviceWatchTest, SeesTheReturnOfWhatALinkLeadsTo)
{
    QDir(folder.path()).mkdir("dev");
    link("dev/tty", "plc");
    DeviceWatch watch({at("plc")});
    EXPECT_FALSE(signalled(watch));
    create("dev/tty");
    EXPECT_TRUE(signalled(watch));
}

// udev removes the folder of the links together with the last of them.
TEST_F(DeviceWatchTest, SeesTheReturnOfALinkWhoseFolderWentAwayWithIt)
{
    QDir top(folder.path());
    top.mkpath("serial/by-id");
    create("ttyUSB0");
    link("../../ttyUSB0", "serial/by-id/adapter");
    DeviceWatch watch({at("serial/by-id/adapter")});
    ASSERT_TRUE(removeAll("serial"));
    ASSERT_TRUE(QFile::remove(at("ttyUSB0")));
    EXPECT_FALSE(signalled(watch));
    create("ttyUSB0");
    EXPECT_FALSE(signalled(watch)) << "the link is not back yet";
    top.mkdir("serial");
    EXPECT_FALSE(signalled(watch));
    top.mkdir("serial/by-id");
    EXPECT_FALSE(signalled(watch));
    link("../../ttyUSB0", "serial/by-id/adapter");
    EXPECT_TRUE(signalled(watch));
}

TEST_F(DeviceWatchTest, SeesFoldersThatAppearTogetherWithTheDevice)
{
    DeviceWatch watch({at("a/b/c/tty")});
    QDir(folder.path()).mkpath("a/b/c");
    create("a/b/c/tty");
    EXPECT_TRUE(signalled(watch));
}

TEST_F(DeviceWatchTest, SeesALinkThatLeadsToAnotherDevice)
{
    create("tty0");
    create("tty1");
    link("tty0", "plc");
    DeviceWatch watch({at("plc")});
    ASSERT_TRUE(QFile::remove(at("plc")));
    link("tty1", "plc");
    EXPECT_TRUE(signalled(watch));
}

TEST_F(DeviceWatchTest, SeesADeviceUnderAnyOfItsPaths)
{
    QDir(folder.path()).mkdir("dev");
    DeviceWatch watch({at("tty"), at("dev/tty")});
    create("dev/tty");
    EXPECT_TRUE(signalled(watch));
    create("tty");
    EXPECT_TRUE(signalled(watch));
}

TEST_F(DeviceWatchTest, EndsWithLinksThatFormACircle)
{
    link("b", "a");
    link("a", "b");
    DeviceWatch watch({at("a")});
    EXPECT_FALSE(watch.wait(1ms));
}
