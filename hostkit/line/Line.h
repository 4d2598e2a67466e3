#ifndef MICRO850_HOST_LINE_H
#define MICRO850_HOST_LINE_H

#include "Clock.h"
#include "LatencyFlag.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace micro850::host {

/// A serial line, here or behind a device server, with blocking calls. A call fails when the device
/// or the connection to the server is gone, not when the peer is silent.
class Line
{
public:
    virtual ~Line() = default;

    /// Opens the device. False with the reason in `error`.
    virtual bool open(QString& error) = 0;
    virtual void close() = 0;
    virtual bool isOpen() const = 0;

    /// Drops the bytes that have arrived so far.
    virtual void discardInput() = 0;
    /// Passes the bytes to the device. False when the device is gone.
    virtual bool send(const QByteArray& bytes) = 0;
    /// Waits for bytes, at most for the time `wait`, and appends those that are there: none after a
    /// silence. False when the device is gone.
    virtual bool receive(QByteArray& bytes, Duration wait) = 0;
    /// Does nothing for this time.
    virtual void pause(Duration time) = 0;
    /// Waits, while the device is gone, at most for this time. True at once at a sign that it is
    /// back; a line that sees no signs only pauses.
    virtual bool awaitReturn(Duration time)
    {
        pause(time);
        return false;
    }

    /// Whether the last open() failed only because of speed or format: others may work.
    virtual bool refusesSettings() const { return false; }
    /// Why a call failed, for messages.
    virtual QString lossReason() const { return QStringLiteral("the device is gone"); }
    /// The same, and how many bytes came in place of a reply.
    QString lossText(qint64 bytes) const
    {
        const qint64 all = bytes + unaskedBytes();
        if (all == 0)
            return lossReason();
        return QStringLiteral("%1; %2 %3 came, but no reply")
            .arg(lossReason(), QString::number(all),
                 all == 1 ? QStringLiteral("byte") : QStringLiteral("bytes"));
    }
    /// How many bytes came, and were dropped, before the first request of this connection: a far
    /// end that greets is no line to a controller.
    virtual qint64 unaskedBytes() const { return 0; }
    /// The measured time that bytes need to the far end of the line and back, besides their time on
    /// the line: 0 for a device of this machine.
    virtual Duration transportDelay() const { return Duration(0); }
    /// Whether the device delivers bytes at once, while it is open.
    virtual LowLatency lowLatency() const { return LowLatency::NotAsked; }
};

} // namespace micro850::host

#endif
