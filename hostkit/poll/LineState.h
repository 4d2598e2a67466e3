#ifndef MICRO850_HOST_LINESTATE_H
#define MICRO850_HOST_LINESTATE_H

#include "GrowingPause.h"
#include "Line.h"

namespace micro850::host {

/// Opens a line. After its device went away, opens it again: at a sign that the device is back, and
/// without one at growing intervals.
class LineState
{
public:
    /// Line and clock must live longer than this object.
    LineState(Line& line, const Clock& clock) : m_line(line), m_clock(clock) {}

    bool isOpen() const { return m_line.isOpen(); }
    /// Why the line is down; empty while it is open.
    QString error() const { return m_error; }
    /// The one to report when it changes. After a loss that is its reason: an attempt to open the
    /// line fails as a consequence. Another reason is news once attempts fail for another reason
    /// than the first one did.
    QString reportedError() const { return m_reportedError; }
    /// When the line was last opened; 0 for one that was open from the beginning.
    Duration openedAt() const { return m_openedAt; }
    /// How often the line was opened again.
    qint64 reconnects() const { return m_reconnects; }

    /// True when the line is open. Otherwise tries to open it when its device is back or the next
    /// attempt is due, or pauses for some milliseconds.
    bool ensureOpen();
    /// Closes the line because its device is gone. `strayBytes` came in place of the last reply.
    void lose(qint64 strayBytes = 0);
    /// The device carries bytes. The next attempts to open it begin with the shortest interval.
    void noteTraffic() { m_openPause.reset(); }
    /// Pauses for this time, but only some milliseconds, so that the caller stays responsive.
    void pause(Duration time);

private:
    void noteFailure();

    Line& m_line;
    const Clock& m_clock;
    QString m_error;
    QString m_reportedError;
    QString m_expectedError; ///< why attempts fail, which is reported; empty: not known yet
    GrowingPause m_openPause{std::chrono::milliseconds(250), std::chrono::seconds(5)};
    Duration m_nextOpen{0};
    Duration m_openedAt{0};
    qint64 m_reconnects = 0;
    bool m_wasOpen = false;
};

} // namespace micro850::host

#endif
