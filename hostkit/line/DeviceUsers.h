#ifndef MICRO850_HOST_DEVICEUSERS_H
#define MICRO850_HOST_DEVICEUSERS_H

#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace micro850::host {

/// A program that has a device open. The name may hold any character: show it through visible().
struct DeviceUser
{
    qint64 process = 0;
    QString name;
};

/// The other programs that have the device open, as far as this user may see that: those of other
/// users only root does. `proc` is where the kernel describes its processes.
QVector<DeviceUser> usersOf(const QString& device, const QString& proc = QStringLiteral("/proc"));

/// True for a pseudo-terminal: no wire, but a program at its other end.
bool isPseudoTerminal(const QString& device);
/// The programs at the other end of a pseudo-terminal, as far as this user may see them.
QVector<DeviceUser> peersOf(const QString& device, const QString& proc = QStringLiteral("/proc"));

/// Who may use a device file.
struct DeviceRights
{
    bool exists = false;
    bool isDevice = false; ///< a character device
    bool allowed = false;  ///< this user may read and write it
    QString owner;
    QString group;
    bool isMember = false; ///< this user is in the group, or is root
    QString mode;          ///< "crw-rw----"
};
DeviceRights rightsOf(const QString& device);

/// Serial devices that this machine has: USB adapters and modems, by their paths.
QStringList serialDevices(const QString& folder = QStringLiteral("/dev"));

} // namespace micro850::host

#endif
