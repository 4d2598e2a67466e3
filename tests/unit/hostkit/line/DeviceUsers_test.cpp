#include "DeviceUsers.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace micro850::host;

namespace {

/// A folder that looks like the kernel's of processes.
class DeviceUsersTest : public ::testing::Test
{
protected:
    void process(const QString& number, const QByteArray& name, const QString& opened)
    {
        ASSERT_TRUE(QDir(m_folder.path()).mkpath(number + "/fd"));
        QFile comm(path(number + "/comm"));
        ASSERT_TRUE(comm.open(QIODevice::WriteOnly));
        comm.write(name + '\n');
        ASSERT_TRUE(QFile::link(opened, path(number + "/fd/3")));
    }
    QString path(const QString& name) const { return m_folder.filePath(name); }
    QTemporaryDir m_folder;
};

} // namespace

TEST_F(DeviceUsersTest, AreTheProcessesThatHaveTheDeviceOpenUnderAnyOfItsNames)
{
    process("12", "minicom", "/dev/null");
    process("13", "other", "/dev/zero");
    process("self", "no process", "/dev/null");
    ASSERT_TRUE(QFile::link("/dev/null", path("plc")));
    const QVector<DeviceUser> users = usersOf(path("plc"), m_folder.path());
    ASSERT_EQ(users.size(), 1);
    EXPECT_EQ(users.first().process, 12);
    EXPECT_EQ(users.first().name, "minicom");
    ASSERT_TRUE(QFile::link("/usr/bin/picocom", path("12/exe")));
    EXPECT_EQ(usersOf(path("plc"), m_folder.path()).first().name, "picocom");
    EXPECT_TRUE(usersOf("/dev/none-such", m_folder.path()).isEmpty());
}

TEST_F(DeviceUsersTest, OfThisSystemLeaveOutThisProgram)
{
    const int own = ::open("/dev/full", O_RDONLY);
    for (const DeviceUser& user : usersOf("/dev/full"))
        EXPECT_NE(user.process, ::getpid());
    ::close(own);
}

TEST(DeviceRights, AreThoseOfTheFile)
{
    const DeviceRights null = rightsOf("/dev/null");
    EXPECT_TRUE(null.exists && null.isDevice && null.allowed);
    EXPECT_EQ(null.mode, "crw-rw-rw-");
    EXPECT_EQ(null.owner, "root");
    EXPECT_FALSE(rightsOf("/dev/none-such").exists);
    const QTemporaryDir folder;
    const DeviceRights no = rightsOf(folder.path());
    EXPECT_TRUE(no.exists);
    EXPECT_FALSE(no.isDevice);
}

TEST(SerialDevices, AreTheAdaptersOfAFolder)
{
    const QTemporaryDir folder;
    for (const char* name : {"ttyUSB0", "ttyACM1", "tty7", "null"})
        ASSERT_TRUE(QFile(folder.filePath(name)).open(QIODevice::WriteOnly));
    EXPECT_EQ(serialDevices(folder.path()),
              (QStringList{folder.filePath("ttyACM1"), folder.filePath("ttyUSB0")}));
}
