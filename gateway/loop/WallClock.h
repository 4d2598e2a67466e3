#ifndef MICRO850_GATEWAY_LOOP_WALLCLOCK_H
#define MICRO850_GATEWAY_LOOP_WALLCLOCK_H

#include <QtCore/QDateTime>

namespace micro850::gateway {

/// The time of day, for stamps only: it can be stepped forth and back while the service runs, so
/// that intervals are measured by a Clock.
class WallClock
{
public:
    virtual ~WallClock() = default;
    /// Milliseconds since 1970 UTC.
    virtual qint64 now() const = 0;
};

class SystemWallClock : public WallClock
{
public:
    qint64 now() const override { return QDateTime::currentMSecsSinceEpoch(); }
};

/// A wall clock that stands where it is set.
class SettableWallClock : public WallClock
{
public:
    explicit SettableWallClock(qint64 now) : m_now(now) {}

    qint64 now() const override { return m_now; }
    void set(qint64 now) { m_now = now; }
    void advance(qint64 milliseconds) { m_now += milliseconds; }

private:
    qint64 m_now;
};

} // namespace micro850::gateway

#endif
