#ifndef MICRO850_COMMON_CLOCK_H
#define MICRO850_COMMON_CLOCK_H

#include <chrono>
#include <cstdint>

namespace micro850 {

/// A length of time, or a point in time: the time since the clock's start.
using Duration = std::chrono::microseconds;

/// Whole milliseconds of a duration; the rest is cut off.
inline std::int64_t wholeMilliseconds(Duration time)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

/// The duration of so many seconds, cut to whole microseconds.
inline Duration fromSeconds(double seconds)
{
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
}

/// The only source of time: everything that waits, moves or expires asks a clock, so that tests run
/// on virtual time.
class Clock
{
public:
    virtual ~Clock() = default;
    /// Time since the clock's start; never goes back.
    virtual Duration now() const = 0;
};

/// The system's monotonic clock. It starts when the object is made.
class SystemClock : public Clock
{
public:
    Duration now() const override
    {
        return std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now() - m_start);
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

/// A clock that starts at 0 and moves only when it is advanced.
class VirtualClock : public Clock
{
public:
    Duration now() const override { return m_now; }
    void advance(Duration by) { m_now += by; }

private:
    Duration m_now{0};
};

} // namespace micro850

#endif
