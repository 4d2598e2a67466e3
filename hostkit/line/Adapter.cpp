#include "Adapter.h"

#include "SerialLine.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace micro850::host {

namespace {

// Longer than any text of a USB device.
const int kMostBytes = 512;

QString attribute(const QString& folder, const char* name)
{
    QFile file(folder + '/' + QLatin1String(name));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QString();
    QByteArray text = file.read(kMostBytes);
    if (text.endsWith('\n'))
        text.chop(1);
    return QString::fromUtf8(text);
}

std::optional<int> number(const QString& folder, const char* name)
{
    bool isNumber = false;
    const int value = attribute(folder, name).toInt(&isNumber);
    return isNumber && value >= 0 ? std::optional<int>(value) : std::nullopt;
}

QString targetName(const QString& folder, const char* link)
{
    return QFileInfo(QFileInfo(folder + '/' + QLatin1String(link)).symLinkTarget()).fileName();
}

// The folder that describes a character device: by its numbers, since a device may have any name.
QString folderOf(const QString& device, const QString& sysfs)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(devicePath(device)).constData(), &status) != 0 ||
        !S_ISCHR(status.st_mode))
        return QString();
    return QFileInfo(QStringLiteral("%1/dev/char/%2:%3")
                         .arg(sysfs)
                         .arg(major(status.st_rdev))
                         .arg(minor(status.st_rdev)))
        .canonicalFilePath();
}

// Newer kernels put two devices of their own between a UART and its port. Their drivers have names
// that tell nobody anything.
QString driverOf(const QString& folder)
{
    return targetName(folder, "subsystem") == QLatin1String("serial-base")
               ? QString()
               : targetName(folder, "driver");
}

void addUsbDevice(Adapter& adapter, const QString& folder)
{
    adapter.usbId = attribute(folder, "idVendor") + ':' + attribute(folder, "idProduct");
    adapter.manufacturer = attribute(folder, "manufacturer");
    adapter.product = attribute(folder, "product");
    adapter.serial = attribute(folder, "serial");
}

} // namespace

Adapter adapterOf(const QString& device, const QString& sysfs)
{
    Adapter adapter;
    const QString folder = folderOf(device, sysfs);
    const QString port = QFileInfo(folder + QStringLiteral("/device")).canonicalFilePath();
    if (folder.isEmpty() || port.isEmpty())
        return adapter;
    adapter.name = QFileInfo(folder).fileName();
    adapter.latencyTimerMs = number(port, "latency_timer");
    adapter.receiveTrigger = number(folder, "rx_trig_bytes");
    if (adapter.receiveTrigger)
        adapter.fifo = number(folder, "xmit_fifo_size");
    const QString devices =
        QFileInfo(sysfs + QStringLiteral("/devices")).canonicalFilePath() + QLatin1Char('/');
    for (QString parent = port; parent.startsWith(devices); parent = QFileInfo(parent).path()) {
        if (adapter.driver.isEmpty())
            adapter.driver = driverOf(parent);
        if (QFileInfo::exists(parent + QStringLiteral("/idVendor"))) {
            addUsbDevice(adapter, parent);
            break; // above it are the hubs
        }
    }
    return adapter;
}

} // namespace micro850::host
