#ifndef MICRO850_HOST_ADAPTER_H
#define MICRO850_HOST_ADAPTER_H

#include <QtCore/QString>

#include <optional>

namespace micro850::host {

/// What the kernel tells about the hardware of a serial device. Texts come from the adapter and may
/// hold any character: show them through visible().
struct Adapter
{
    QString name; ///< the kernel's for the device, such as ttyUSB0; empty: no hardware is known
    QString driver;
    QString manufacturer;
    QString product;
    QString serial;
    QString usbId; ///< such as "1a2b:0042"; empty: no USB adapter
    /// Milliseconds for which the adapter keeps the last bytes of a reply, waiting for more.
    std::optional<int> latencyTimerMs;
    /// Bytes from which on a UART reports what it has received, and the size of its FIFO.
    std::optional<int> receiveTrigger;
    std::optional<int> fifo;

    bool isKnown() const { return !name.isEmpty(); }
};

/// The adapter of a device. Nothing is known of a pseudo-terminal, of a network address and of a
/// device that is gone. `sysfs` is where the kernel describes its devices.
Adapter adapterOf(const QString& device, const QString& sysfs = QStringLiteral("/sys"));

} // namespace micro850::host

#endif
