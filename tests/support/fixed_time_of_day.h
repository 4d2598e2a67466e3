#ifndef MICRO850_TESTS_FIXED_TIME_OF_DAY_H
#define MICRO850_TESTS_FIXED_TIME_OF_DAY_H

#include <QtCore/QTime>

/// While one lives, QTime::currentTime() returns the time set here; afterwards the real time again.
/// A program that links this unit replaces Qt's function for the driver too.
class FixedTimeOfDay
{
public:
    explicit FixedTimeOfDay(const QTime& time);
    ~FixedTimeOfDay();
    FixedTimeOfDay(const FixedTimeOfDay&) = delete;
    FixedTimeOfDay& operator=(const FixedTimeOfDay&) = delete;

    void set(const QTime& time);
    /// Sets the time to this many seconds after midnight.
    void setSeconds(int secondsOfDay);
};

#endif
