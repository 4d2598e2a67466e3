#include "DeviceUsers.h"

#include "SerialLine.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace micro850::host {

namespace {

// Longer than any name of a process.
const int kMostBytes = 256;

const char kPseudoTerminals[] = "/dev/pts/";

bool hasDescriptor(const QString& process,
                   const std::function<bool(const QString& number, const QString& file)>& isIt)
{
    const QDir descriptors(process + QStringLiteral("/fd"));
    const QStringList names = descriptors.entryList(QDir::AllEntries | QDir::System | QDir::Hidden |
                                                    QDir::NoDotAndDotDot);
    return std::any_of(names.begin(), names.end(), [&](const QString& name) {
        return isIt(name, QFile::symLinkTarget(descriptors.filePath(name)));
    });
}

// The kernel tells which terminal the master end belongs to.
bool isMasterOf(const QString& information, const QString& index)
{
    QFile file(information);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QStringList lines = QString::fromLatin1(file.read(4096)).split('\n');
    return lines.contains(QStringLiteral("tty-index:\t") + index);
}

// The program's file tells more than the name of the process, where this user may see it.
QString nameOf(const QString& process)
{
    const QString program =
        QFileInfo(QFile::symLinkTarget(process + QStringLiteral("/exe"))).fileName();
    const QString replaced = QStringLiteral(" (deleted)"); // by a newer one
    if (program.endsWith(replaced))
        return program.chopped(replaced.size());
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

namespace {

// The programs of whose folders `isIt` is true.
QVector<DeviceUser> processesWith(const QString& proc,
                                  const std::function<bool(const QString& folder)>& isIt)
{
    QVector<DeviceUser> users;
    const QStringList processes = QDir(proc).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& process : processes) {
        bool isNumber = false;
        const qint64 number = process.toLongLong(&isNumber);
        const QString folder = proc + '/' + process;
        if (isNumber && number != QCoreApplication::applicationPid() && isIt(folder))
            users.append({number, nameOf(folder)});
    }
    return users;
}

QString realPathOf(const QString& device)
{
    return QFileInfo(devicePath(device)).canonicalFilePath();
}

} // namespace

QVector<DeviceUser> usersOf(const QString& device, const QString& proc)
{
    const QString path = realPathOf(device);
    if (path.isEmpty())
        return {};
    return processesWith(proc, [&path](const QString& folder) {
        return hasDescriptor(folder,
                             [&path](const QString&, const QString& file) { return file == path; });
    });
}

bool isPseudoTerminal(const QString& device)
{
    return realPathOf(device).startsWith(QLatin1String(kPseudoTerminals));
}

QVector<DeviceUser> peersOf(const QString& device, const QString& proc)
{
    if (!isPseudoTerminal(device))
        return {};
    const QString index = realPathOf(device).section('/', -1);
    return processesWith(proc, [&index](const QString& folder) {
        return hasDescriptor(folder, [&](const QString& number, const QString& file) {
            return file.endsWith(QLatin1String("/ptmx")) &&
                   isMasterOf(folder + QStringLiteral("/fdinfo/") + number, index);
        });
    });
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
