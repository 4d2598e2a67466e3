#include "small_disk.h"

#include <QtCore/QByteArray>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QStorageInfo>

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

bool writeText(const char* path, const std::string& text)
{
    QFile file(QString::fromLatin1(path));
    return file.open(QIODevice::WriteOnly) &&
           file.write(text.c_str()) == static_cast<qint64>(text.size());
}

// Mounts of this process and its children are their own from then on. Who is not root becomes it
// in a name space of users.
bool enterMountNamespace()
{
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    if (::unshare(CLONE_NEWNS) != 0) {
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        writeText("/proc/self/setgroups", "deny");
        writeText("/proc/self/uid_map", "0 " + user + " 1");
        writeText("/proc/self/gid_map", "0 " + group + " 1");
    }
    return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

} // namespace

SmallDisk::SmallDisk(const QString& folder) : m_folder(folder)
{
    EXPECT_TRUE(QDir().mkpath(folder));
    EXPECT_TRUE(enterMountNamespace()) << "name spaces are not allowed here";
    m_isMounted = ::mount("small", folder.toLocal8Bit().constData(), "tmpfs", 0, "size=1m") == 0;
    EXPECT_TRUE(m_isMounted);
}

SmallDisk::~SmallDisk()
{
    if (m_isMounted)
        ::umount2(m_folder.toLocal8Bit().constData(), MNT_DETACH);
}

void SmallDisk::fill() const
{
    QFile ballast(m_folder + "/ballast");
    ASSERT_TRUE(ballast.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    while (ballast.write(QByteArray(4096, 'x')) > 0) {
    }
    ballast.close();
    EXPECT_EQ(QStorageInfo(m_folder).bytesFree(), 0);
}

void SmallDisk::empty() const
{
    EXPECT_TRUE(QFile::remove(m_folder + "/ballast"));
}
