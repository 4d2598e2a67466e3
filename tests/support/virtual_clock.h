#ifndef MICRO850_TESTS_VIRTUAL_CLOCK_H
#define MICRO850_TESTS_VIRTUAL_CLOCK_H

#include <QtCore/QTime>

/// Sets the time of day that QTime::currentTime() gives while the clock lives. A program that uses
/// it puts itself between the driver and Qt's clock; without a VirtualClock the real time is given.
class VirtualClock
{
public:
    explicit VirtualClock(const QTime& time);
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    void set(const QTime& time);
    /// Sets the time to so many seconds behind midnight.
    void setSeconds(int secondsOfDay);
};

#endif
