#ifndef MICRO850_HOST_DEVICEWATCH_H
#define MICRO850_HOST_DEVICEWATCH_H

#include "Clock.h"

#include <QtCore/QByteArray>
#include <QtCore/QSet>
#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <ctime>
#include <sys/types.h>

namespace micro850::host {

/// Watches for the return of a device file. It asks the kernel for notices of the folder of the
/// file, and of the folder of each link on the way to it. Where a folder is gone too, it watches
/// the nearest one that is left. Without notices from the kernel it looks for the file itself.
class DeviceWatch
{
public:
    /// Paths under which the device may return. What they lead to now is not a return.
    explicit DeviceWatch(const QStringList& paths);
    ~DeviceWatch();
    DeviceWatch(const DeviceWatch&) = delete;
    DeviceWatch& operator=(const DeviceWatch&) = delete;

    /// Waits, at most for this time, until one of the paths leads to another file than before, or
    /// to one with other rights: a device that was just created may not be permitted yet. True when
    /// one does.
    bool wait(Duration time);

private:
    /// What a path leads to.
    struct Found
    {
        bool exists = false;
        ino_t file = 0;
        timespec changed{}; ///< the last change of its rights or owner, too
        bool operator==(const Found& other) const;
    };

    static Found look(const QByteArray& path);
    void watchFolders();
    bool hasReturned();

    QVector<QByteArray> m_paths;
    QVector<Found> m_found; ///< by path
    QSet<QByteArray> m_folders;
    int m_notices; ///< descriptor, below 0 without
};

} // namespace micro850::host

#endif
