#ifndef MICRO850_HOST_PORTSETTINGS_H
#define MICRO850_HOST_PORTSETTINGS_H

#include "Clock.h"

#include <QtCore/QString>

namespace micro850::host {

enum class Parity { None, Even, Odd };

/// The settings of the line, and how long an answer may take.
struct PortSettings
{
    QString device;
    int baud = 38400;
    int dataBits = 8;
    Parity parity = Parity::None;
    int stopBits = 1;
    /// The time that the controller may take to answer, without the time of the bytes on the line.
    int deviceBudgetMs = 500;
    /// If not 0, the time-out of every transaction; it replaces the computed one.
    int timeoutMs = 0;
    /// Failed transactions that the driver tolerates before it connects again.
    int retryLimit = 2;
    /// Ask a serial device to deliver bytes at once, as long as the line is open.
    bool lowLatency = true;

    /// Bits of one byte on the line, including the start bit.
    int bitsPerByte() const { return 1 + dataBits + (parity == Parity::None ? 0 : 1) + stopBits; }
    /// The time that this many bytes take on the line, rounded up to milliseconds.
    Duration timeOf(int bytes) const
    {
        return std::chrono::milliseconds((qint64(bytes) * bitsPerByte() * 1000 + baud - 1) / baud);
    }
    /// Whether the device is the address of a device server.
    bool isNetwork() const;
    /// Whether this host sets speed and parity of the line. A server of raw TCP has its own.
    bool setsSpeed() const;
    /// "/dev/ttyUSB0, 38400 8N1", for messages; the device alone where it has its own speed.
    QString text() const;
};

} // namespace micro850::host

#endif
