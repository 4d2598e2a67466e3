#include "FileLock.h"

#include "OutputFile.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace micro850::host {

std::unique_ptr<FileLock> FileLock::take(const QString& path)
{
    const std::string name = path.toStdString();
    if (!QFileInfo(QFileInfo(path).path()).isDir())
        throw UserError(name + ": cannot be written: its folder is not there (create it)",
                        kExitRefused);
    requireFile(QFile::encodeName(path).toStdString(), "name a file");
    const QByteArray lockName = QFile::encodeName(path + QStringLiteral(".lock"));
    const int descriptor =
        ::open(lockName.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660);
    if (descriptor < 0)
        failToWrite(lockName.toStdString(), errno);
    if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        ::close(descriptor);
        return nullptr;
    }
    return std::unique_ptr<FileLock>(new FileLock(descriptor));
}

FileLock::~FileLock()
{
    ::close(m_descriptor);
}

} // namespace micro850::host
