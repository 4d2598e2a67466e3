#ifndef MICRO850_HOST_FILELOCK_H
#define MICRO850_HOST_FILELOCK_H

#include <QtCore/QString>

#include <memory>

namespace micro850::host {

/// Keeps other programs from a database while this object lives. The lock is a file of its own,
/// NAME.lock: the database's locks would end if its file were opened and closed here.
class FileLock
{
public:
    /// Null when another program has it. Throws UserError when there can be no lock.
    static std::unique_ptr<FileLock> take(const QString& path);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    explicit FileLock(int descriptor) : m_descriptor(descriptor) {}

    int m_descriptor;
};

} // namespace micro850::host

#endif
