#include "Memory.h"

#include <QtCore/QFile>

#include <unistd.h>

namespace micro850::gateway {

qint64 memoryKb()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> pages = file.readLine().split(' ');
    const qint64 resident = pages.size() > 1 ? pages.at(1).toLongLong() : 0;
    return resident * (::sysconf(_SC_PAGESIZE) / 1024);
}

} // namespace micro850::gateway
