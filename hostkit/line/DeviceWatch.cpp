#include "DeviceWatch.h"

#include "PollTimeout.h"

#include <QtCore/QFile>

#include <array>
#include <climits>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace micro850::host {

namespace {

const int kMostLinks = 8;
// While folders appear one after the other, each look can find a new one.
const int kMostLooks = 8;

// Without the last part: "/" for a path directly below it, "." for a name alone.
QByteArray folderOf(const QByteArray& path)
{
    const int slash = path.lastIndexOf('/');
    return slash > 0 ? path.left(slash) : QByteArray(slash == 0 ? "/" : ".");
}

bool isFolder(const QByteArray& path)
{
    struct stat status = {};
    return ::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Where a link leads to; empty for what is no link.
QByteArray targetOf(const QByteArray& path)
{
    std::array<char, PATH_MAX> target;
    const ssize_t size = ::readlink(path.constData(), target.data(), target.size());
    if (size <= 0)
        return QByteArray();
    const QByteArray text(target.data(), static_cast<int>(size));
    return text.startsWith('/') ? text : folderOf(path) + '/' + text;
}

// The folders whose notices tell that this path leads to another file.
QSet<QByteArray> foldersOf(QByteArray path)
{
    QSet<QByteArray> folders;
    for (int links = 0; links < kMostLinks && !path.isEmpty(); ++links) {
        QByteArray folder = folderOf(path);
        while (!isFolder(folder) && folder != "/" && folder != ".")
            folder = folderOf(folder);
        folders.insert(folder);
        path = targetOf(path);
    }
    return folders;
}

} // namespace

bool DeviceWatch::Found::operator==(const Found& other) const
{
    return exists == other.exists && file == other.file && changed.tv_sec == other.changed.tv_sec &&
           changed.tv_nsec == other.changed.tv_nsec;
}

DeviceWatch::Found DeviceWatch::look(const QByteArray& path)
{
    struct stat status = {};
    if (::stat(path.constData(), &status) != 0)
        return Found();
    return {true, status.st_ino, status.st_ctim};
}

DeviceWatch::DeviceWatch(const QStringList& paths)
    : m_notices(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
{
    for (const QString& path : paths) {
        m_paths.append(QFile::encodeName(path));
        m_found.append(look(m_paths.last()));
    }
    watchFolders();
}

DeviceWatch::~DeviceWatch()
{
    if (m_notices >= 0)
        ::close(m_notices);
}

// A folder that appears while this works is found by looking once more.
void DeviceWatch::watchFolders()
{
    for (int looks = 0; looks < kMostLooks && m_notices >= 0; ++looks) {
        QSet<QByteArray> folders;
        for (const QByteArray& path : qAsConst(m_paths))
            folders += foldersOf(path);
        bool watched = true;
        for (const QByteArray& folder : qAsConst(folders)) {
            const quint32 notices =
                IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
            watched = ::inotify_add_watch(m_notices, folder.constData(), notices) >= 0 && watched;
        }
        if (watched && folders == m_folders)
            return;
        m_folders = folders;
    }
}

bool DeviceWatch::hasReturned()
{
    bool returned = false;
    for (int i = 0; i < m_paths.size(); ++i) {
        const Found found = look(m_paths.at(i));
        returned = returned || (found.exists && !(found == m_found.at(i)));
        m_found[i] = found;
    }
    return returned;
}

bool DeviceWatch::wait(Duration time)
{
    pollfd notices = {m_notices, POLLIN, 0};
    const int ready = ::poll(&notices, m_notices < 0 ? 0 : 1, pollTimeout(time));
    if (m_notices >= 0 && ready <= 0)
        return false;
    std::array<char, 4096> unused;
    while (m_notices >= 0 && ::read(m_notices, unused.data(), unused.size()) > 0) {
    }
    // First the folders: a file that appears afterwards brings a notice.
    watchFolders();
    return hasReturned();
}

} // namespace micro850::host
