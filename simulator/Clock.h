#ifndef MICRO850_SIMULATOR_CLOCK_H
#define MICRO850_SIMULATOR_CLOCK_H

#include <chrono>

namespace micro850::sim {

using Duration = std::chrono::microseconds;

/// The one source of time: everything that waits, moves or expires asks it.
class Clock
{
public:
    virtual ~Clock() = default;
    /// Time since some fixed start; never goes back.
    virtual Duration now() const = 0;
};

class SystemClock : public Clock
{
public:
    Duration now() const override
    {
        const auto time = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<Duration>(time);
    }
};

/// A clock that stands still until it is told to go on.
class VirtualClock : public Clock
{
public:
    Duration now() const override { return m_now; }
    void advance(Duration by) { m_now += by; }

private:
    Duration m_now{0};
};

} // namespace micro850::sim

#endif
