#include "DeviceUsers.h"

#include "SerialLine.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace micro850::host {

namespace {

// Longer than any name of a process.
const int kMostBytes = 256;

bool hasOpen(const QString& process, const QString& path)
{
    const QDir descriptors(process + QStringLiteral("/fd"));
    const QStringList names = descriptors.entryList(QDir::AllEntries | QDir::System | QDir::Hidden |
                                                    QDir::NoDotAndDotDot);
    return std::any_of(names.begin(), names.end(), [&](const QString& name) {
        return QFile::symLinkTarget(descriptors.filePath(name)) == path;
    });
}

// The program's file tells more than the name of the process, where this user may see it.
QString nameOf(const QString& process)
{
    const QString program =
        QFileInfo(QFile::symLinkTarget(process + QStringLiteral("/exe"))).fileName();
    if (!program.isEmpty())
        return program;
    QFile file(process + QStringLiteral("/comm"));
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromLocal8Bit(file.read(kMostBytes)).trimmed();
}

QString modeText(mode_t mode)
{
    QString text(S_ISCHR(mode) ? 'c' : '-');
    for (int bit = 8; bit >= 0; --bit)
        text += QLatin1Char((mode & (1U << bit)) != 0 ? "xwr"[bit % 3] : '-');
    return text;
}

bool isInGroup(gid_t group)
{
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(0, ::getgroups(0, nullptr))));
    const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(0, count)));
    return ::getegid() == group || std::find(groups.begin(), groups.end(), group) != groups.end();
}

} // namespace

QVector<DeviceUser> usersOf(const QString& device, const QString& proc)
{
    QVector<DeviceUser> users;
    const QString path = QFileInfo(devicePath(device)).canonicalFilePath();
    if (path.isEmpty())
        return users;
    const QStringList processes = QDir(proc).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& process : processes) {
        bool isNumber = false;
        const qint64 number = process.toLongLong(&isNumber);
        const QString folder = proc + '/' + process;
        if (isNumber && number != QCoreApplication::applicationPid() && hasOpen(folder, path))
            users.append({number, nameOf(folder)});
    }
    return users;
}

DeviceRights rightsOf(const QString& device)
{
    DeviceRights rights;
    const QString path = devicePath(device);
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return rights;
    rights.exists = true;
    rights.isDevice = S_ISCHR(status.st_mode);
    rights.allowed = ::access(QFile::encodeName(path).constData(), R_OK | W_OK) == 0;
    const QFileInfo info(path);
    rights.owner = info.owner();
    rights.group = info.group();
    rights.isMember = ::geteuid() == 0 || isInGroup(status.st_gid);
    rights.mode = modeText(status.st_mode);
    return rights;
}

QStringList serialDevices(const QString& folder)
{
    QStringList devices;
    const QStringList names =
        QDir(folder).entryList({"ttyUSB*", "ttyACM*", "ttyAMA*"}, QDir::AllEntries | QDir::System);
    for (const QString& name : names)
        devices += folder + '/' + name;
    return devices;
}

} // namespace micro850::host
