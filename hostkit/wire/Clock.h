#ifndef MICRO850_HOST_CLOCK_H
#define MICRO850_HOST_CLOCK_H

#include <QtCore/QElapsedTimer>

namespace micro850::host {

/// A monotonic clock in milliseconds. The one source of time of everything here, so that tests can
/// run on virtual time.
class Clock
{
public:
    virtual ~Clock() = default;
    virtual qint64 now() const = 0;
};

/// The system's monotonic clock.
class SteadyClock : public Clock
{
public:
    SteadyClock() { m_timer.start(); }
    qint64 now() const override { return m_timer.elapsed(); }

private:
    QElapsedTimer m_timer;
};

} // namespace micro850::host

#endif
